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

// Runs a ps command line and splits its output at blanks. Line ends stay inside the tokens, so
// indexes count from the start of the first line, and the count covers every line.
static std::vector<std::string> run_ps(const std::string& command) {
  char output[kShellOutputSize];
  memset(output, 0, sizeof(output));
  exec_command(command.c_str(), output);
  return string_split(output, " ");
}

bool is_sh_available() {
  std::vector<std::string> tokens = run_ps("ps -e |grep stall_ward");
  if (tokens.size() < 5) return false;
  bool own = tokens[1] == std::to_string(getpid());
  DLOGI("[sh] sw=%s ret=%d", tokens[1].c_str(), own ? 1 : 0);
  return own;
}

void sh_find_proc(pid_info* info, const std::string& proc_name, const std::string& thread_name) {
  std::vector<std::string> tokens = run_ps("ps -e|grep " + proc_name);
  if (tokens.size() < 4) {
    DLOGI("[sh] proc %s not started", proc_name.c_str());
    return;
  }
  info->pid = atoi(tokens[1].c_str());
  info->tid = info->pid;
  info->ppid = atoi(tokens[2].c_str());
  if (thread_name.empty()) return;
  tokens = run_ps("ps -T -p " + tokens[1] + " |grep " + thread_name);
  if (tokens.size() < 5) {
    info->tid = -1;
    DLOGI("[sh] thread %s not found", thread_name.c_str());
    return;
  }
  DLOGI("[sh] tid=%s", tokens[2].c_str());
  info->tid = atoi(tokens[2].c_str());
}
