// A thread's schedstat content: only its third number is taken.
#include <string>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  unsigned long long count = ~0ULL;
  int n = parse_schedstat(content, &count);
  if (n > 1 || (n != 1 && count != ~0ULL)) __builtin_trap();
  // Nothing after the third number matters.
  unsigned long long again = ~0ULL;
  if (n == 1 && (parse_schedstat(content + " 99 junk", &again) != 1 || again != count)) {
    __builtin_trap();
  }
  return 0;
}
