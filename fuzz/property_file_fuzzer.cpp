// The host property file.
#include <android/log.h>

#include <string>
#include <unordered_map>

#include "property_file.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);  // malformed lines are logged
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  std::unordered_map<std::string, std::string> values;
  parse_property_file("fuzz.prop", text, &values);
  for (const auto& [key, value] : values) {
    // A key: a line's text before its first '='; a value: what Android can hold.
    if (key.empty() || key[0] == '#' || key.find_first_of("=\n") != std::string::npos) {
      __builtin_trap();
    }
    if (value.size() > 91 || value.find('\n') != std::string::npos) __builtin_trap();
    if (text.find(key + "=" + value) == std::string::npos) __builtin_trap();
  }
  return 0;
}
