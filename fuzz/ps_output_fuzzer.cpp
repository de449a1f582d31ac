// ps output as the shell lookups read it.
#include <string>

#include "stall_ward.h"
#include "utils.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // exec_command hands over at most 1023 bytes, up to the first NUL.
  std::string output(reinterpret_cast<const char*>(data), size < 1023 ? size : 1023);
  output = output.c_str();
  size_t tokens = string_split(output, " ").size();

  std::string printed;
  int verdict = ps_self_test(output, "4242", &printed);
  if ((verdict < 0) != (tokens < 5) || (verdict == 1 && printed != "4242")) __builtin_trap();

  pid_info info = {7, 8, 9};
  std::string pid_token;
  bool found = parse_ps_process(output, &info, &pid_token);
  if (found != (tokens >= 4)) __builtin_trap();
  if (!found && (info.tid != 7 || info.pid != 8 || info.ppid != 9)) __builtin_trap();
  if (found && (info.tid != info.pid || output.find(pid_token) == std::string::npos)) {
    __builtin_trap();
  }
  std::string tid_token;
  if (parse_ps_thread(output, &tid_token) != (tokens >= 5)) __builtin_trap();
  return 0;
}
