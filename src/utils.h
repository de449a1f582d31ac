// Property readers, the shell command runner and splitter, and the ps-based lookups.
#pragma once

#include <string>
#include <vector>

#include "messages.h"

#define LOG_TAG "stall_ward"

extern bool debug_enabled;

// Size of the buffer exec_command fills; callers zero it before each call.
constexpr size_t kShellOutputSize = 1024;

struct pid_info;

bool get_prop_bool(const char* key, bool default_value);
// The property's 64-bit value cut to its low 32 bits (not clamped).
int get_prop_int(const char* key, long default_value);
std::string get_prop_string(const char* key, const char* default_value);

// Runs command through the shell and reads its first kilobyte of output into output (whose
// kShellOutputSize bytes the caller has zeroed). 0 once the stream is closed, -1 when the
// arguments are null or the command cannot start, errno when closing fails.
int exec_command(const char* command, char* output);
// The non-empty pieces of text between any of the characters in delimiters.
std::vector<std::string> string_split(const std::string& text, const char* delimiters);

// What the lookups take from ps output (blank-separated tokens of the whole text). The self-test:
// -1 when there are fewer than 5 tokens, else whether token 1 (printed) is own_pid. A process
// line: with 4 tokens or more, pid and tid from token 1 (pid_token), ppid from token 2. A thread
// line: with 5 tokens or more, the thread id token 2.
int ps_self_test(const std::string& output, const std::string& own_pid, std::string* printed);
bool parse_ps_process(const std::string& output, pid_info* info, std::string* pid_token);
bool parse_ps_thread(const std::string& output, std::string* tid_token);

// Whether `ps` lists this daemon under its own process id, so the shell lookup can be used.
bool is_sh_available();
// Fills info with the process called proc_name (pid, tid = pid, ppid) and, for a non-empty
// thread_name, that thread's id (-1 when absent). A process not running leaves info untouched.
void sh_find_proc(pid_info* info, const std::string& proc_name, const std::string& thread_name);
