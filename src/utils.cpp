// Property readers, the shell command runner and splitter, and the ps-based lookups.
#include "utils.h"

#include <cutils/properties.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "stall_ward.h"

bool get_prop_bool(const char* key, bool default_value) {
  bool value = property_get_bool(key, default_value) != 0;
  DLOGI("get %s =%d", key, value ? 1 : 0);
  return value;
}

int get_prop_int(const char* key, long default_value) {
  // Cut to the low 32 bits, not clamped: 4294967416 reads as 120.
  int value = static_cast<int>(static_cast<uint32_t>(property_get_int64(key, default_value)));
  DLOGI("get %s =%d", key, value);
  return value;
}

std::string get_prop_string(const char* key, const char* default_value) {
  char value[PROPERTY_VALUE_MAX];
  memset(value, 0, sizeof(value));
  property_get(key, value, default_value);
  DLOGI("get %s =%s", key, value);
  return std::string(value);
}

int exec_command(const char* command, char* output) {
  if (command == nullptr || output == nullptr) return -1;
  output[0] = '\0';
  DLOGI("[sh] cmd=%s", command);
  FILE* stream = popen(command, "r");
  if (stream == nullptr) {
    DLOGI("[sh] %s failed", command);
    return -1;
  }
  // One read: output past the first kilobyte is never looked at.
  size_t ignored = fread(output, 1, kShellOutputSize, stream);
  (void)ignored;
  output[kShellOutputSize - 1] = '\0';
  DLOGI("[sh] ret=%s", output);
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
  DLOGI("[sh] sw=%s ret=%d", printed.c_str(), verdict);
  return verdict == 1;
}

void sh_find_proc(pid_info* info, const std::string& proc_name, const std::string& thread_name) {
  std::string pid_token, tid_token;
  if (!parse_ps_process(run_ps("ps -e|grep " + proc_name), info, &pid_token)) {
    DLOGI("[sh] proc %s not started", proc_name.c_str());
    return;
  }
  if (thread_name.empty()) return;
  if (!parse_ps_thread(run_ps("ps -T -p " + pid_token + " |grep " + thread_name), &tid_token)) {
    info->tid = -1;
    DLOGI("[sh] thread %s not found", thread_name.c_str());
    return;
  }
  DLOGI("[sh] tid=%s", tid_token.c_str());
  info->tid = atoi(tid_token.c_str());
}
