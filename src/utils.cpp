// Property readers, the shell command runner and splitter, and the ps-based lookups.
#include "utils.h"

#include <cutils/properties.h>
#include <errno.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "stall_ward.h"

void sw_log(Msg id, ...) {
  const Message& m = message(id);
  if (m.debug_only && !debug_enabled) return;
  va_list args;
  va_start(args, id);
  __android_log_vprint(m.priority, LOG_TAG, m.format, args);
  va_end(args);
}

bool get_prop_bool(const char* key, bool default_value) {
  bool value = property_get_bool(key, default_value) != 0;
  sw_log(Msg::kGetNumber, key, value ? 1 : 0);
  return value;
}

int get_prop_int(const char* key, long default_value) {
  // Cut to the low 32 bits, not clamped: 4294967416 reads as 120.
  int value = static_cast<int>(static_cast<uint32_t>(property_get_int64(key, default_value)));
  sw_log(Msg::kGetNumber, key, value);
  return value;
}

std::string get_prop_string(const char* key, const char* default_value) {
  char value[PROPERTY_VALUE_MAX];
  memset(value, 0, sizeof(value));
  property_get(key, value, default_value);
  sw_log(Msg::kGetString, key, value);
  return std::string(value);
}

int exec_command(const char* command, char* output) {
  if (command == nullptr || output == nullptr) return -1;
  output[0] = '\0';
  sw_log(Msg::kShellCommand, command);
  FILE* stream = popen(command, "r");
  if (stream == nullptr) {
    sw_log(Msg::kShellFailed, command);
    return -1;
  }
  // One read: output past the first kilobyte is never looked at.
  size_t ignored = fread(output, 1, kShellOutputSize, stream);
  (void)ignored;
  output[kShellOutputSize - 1] = '\0';
  sw_log(Msg::kShellOutput, output);
  return pclose(stream) == -1 ? errno : 0;
}

std::vector<std::string> string_split(const std::string& text, const char* delimiters) {
  std::vector<std::string> tokens;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = delimiters[0] == '\0' ? std::string::npos : text.find_first_of(delimiters, start);
    size_t len = (end == std::string::npos ? text.size() : end) - start;
    if (len > 0) tokens.push_back(text.substr(start, len));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return tokens;
}

// Runs a ps command line and returns its output (the first kilobyte).
static std::string run_ps(const std::string& command) {
  char output[kShellOutputSize];
  memset(output, 0, sizeof(output));
  exec_command(command.c_str(), output);
  return output;
}

// The output is split at blanks alone: line ends stay inside the tokens, so indexes count from
// the start of the first line, and the count covers every line.

int ps_self_test(const std::string& output, const std::string& own_pid, std::string* printed) {
  std::vector<std::string> tokens = string_split(output, " ");
  if (tokens.size() < 5) return -1;
  *printed = tokens[1];
  return tokens[1] == own_pid ? 1 : 0;
}

bool parse_ps_process(const std::string& output, pid_info* info, std::string* pid_token) {
  std::vector<std::string> tokens = string_split(output, " ");
  if (tokens.size() < 4) return false;
  info->pid = atoi(tokens[1].c_str());
  info->tid = info->pid;
  info->ppid = atoi(tokens[2].c_str());
  *pid_token = tokens[1];
  return true;
}

bool parse_ps_thread(const std::string& output, std::string* tid_token) {
  std::vector<std::string> tokens = string_split(output, " ");
  if (tokens.size() < 5) return false;
  *tid_token = tokens[2];
  return true;
}

bool is_sh_available() {
  std::string printed;
  int verdict = ps_self_test(run_ps(kPsSelfTest), std::to_string(getpid()), &printed);
  if (verdict < 0) return false;
  sw_log(Msg::kShellSelfTest, printed.c_str(), verdict);
  return verdict == 1;
}

void sh_find_proc(pid_info* info, const std::string& proc_name, const std::string& thread_name) {
  std::string pid_token, tid_token;
  if (!parse_ps_process(run_ps(kPsProcessQuery + proc_name), info, &pid_token)) {
    sw_log(Msg::kShellProcessMissing, proc_name.c_str());
    return;
  }
  if (thread_name.empty()) return;
  if (!parse_ps_thread(run_ps(kPsThreadQuery + pid_token + " |grep " + thread_name), &tid_token)) {
    info->tid = -1;
    sw_log(Msg::kShellThreadMissing, thread_name.c_str());
    return;
  }
  sw_log(Msg::kShellThreadId, tid_token.c_str());
  info->tid = atoi(tid_token.c_str());
}
