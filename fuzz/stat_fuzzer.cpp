// A thread's stat content, as the stat reader parses it.
#include <string.h>

#include <string>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  stat_fields f;
  int matched = parse_stat(content, &f);
  if (matched < -1 || matched > 6) __builtin_trap();
  // The name holds at most 16 characters and its NUL, and never a ')'.
  if (f.comm[16] != '\0' || strchr(f.comm, ')') != nullptr) __builtin_trap();
  if (matched < 2 && f.comm[0] != '\0') __builtin_trap();
  if (matched < 3 && f.state != '?') __builtin_trap();
  // What a record keeps of the name: 15 characters and a NUL.
  proc rec;
  memcpy(rec.comm, f.comm, sizeof(rec.comm) - 1);
  if (strlen(rec.comm) > 15) __builtin_trap();
  return 0;
}
