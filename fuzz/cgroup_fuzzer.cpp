// A thread's cgroup content: frozen exactly when the freezer's frozen group is named in it.
#include <string>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string content(reinterpret_cast<const char*>(data), size);
  bool frozen = in_frozen_cgroup(content);
  bool named = content.find(":freezer:/frozen") != std::string::npos;
  if (frozen != named) __builtin_trap();
  // Appending cannot unfreeze; a prefix can only lose the mark.
  if (frozen && !in_frozen_cgroup(content + "\n9:cpu:/")) __builtin_trap();
  return 0;
}
