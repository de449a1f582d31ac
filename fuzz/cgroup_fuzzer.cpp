// A thread's cgroup content: the frozen mark survives whatever comes before or after it.
#include <string>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  if (in_frozen_cgroup(content) &&
      !(in_frozen_cgroup("1:cpu:/\n" + content) && in_frozen_cgroup(content + "\n9:cpu:/"))) {
    __builtin_trap();
  }
  return 0;
}
