// A thread's stat content: a bounded match count, and a name that stays within its buffer.
#include <string.h>

#include <string>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  stat_fields f;
  int matched = parse_stat(content, &f);
  if (matched < -1 || matched > 6) __builtin_trap();
  // At most 16 characters and the NUL, never a ')'; nothing is set beyond the match.
  if (f.comm[16] != '\0' || strchr(f.comm, ')') != nullptr) __builtin_trap();
  if ((matched < 2 && f.comm[0] != '\0') || (matched < 3 && f.state != '?')) __builtin_trap();
  return 0;
}
