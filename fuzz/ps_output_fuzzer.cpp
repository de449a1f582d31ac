// ps output as the shell lookups read it: the three readers agree with one another, take their
// values from the text, and leave what they do not fill alone.
#include <string>

#include "stall_ward.h"
#include "utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // exec_command hands over at most 1023 bytes, up to the first NUL.
  std::string output(reinterpret_cast<const char*>(data), size < 1023 ? size : 1023);
  output = output.c_str();
  std::string printed, pid_token, tid_token;
  int verdict = ps_self_test(output, "4242", &printed);
  if (verdict == 1 && printed != "4242") __builtin_trap();
  pid_info info = {7, 8, 9};
  bool process = parse_ps_process(output, &info, &pid_token);
  if (!process && (info.tid != 7 || info.pid != 8 || info.ppid != 9)) __builtin_trap();
  if (process && (info.tid != info.pid || output.find(pid_token) == std::string::npos)) {
    __builtin_trap();
  }
  bool thread = parse_ps_thread(output, &tid_token);
  // A thread line needs as many columns as the self-test, and more than a process line.
  if (thread != (verdict >= 0) || (thread && !process)) __builtin_trap();
  if (thread && output.find(tid_token) == std::string::npos) __builtin_trap();
  return 0;
}
