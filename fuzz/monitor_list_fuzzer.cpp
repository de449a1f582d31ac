// The processes property: entries at blanks, names at colons, one unbound record per name.
#include <string>
#include <unordered_map>
#include <vector>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string value(reinterpret_cast<const char*>(data), size);
  std::vector<monitor_info> list;
  std::unordered_map<std::string, proc> table;
  parse_monitor_list(value, &list, &table);
  auto bad = [&](const std::string& name) {
    return name.empty() || name.find_first_of(" :") != std::string::npos ||
           value.find(name) == std::string::npos;
  };
  for (const monitor_info& m : list) {
    if (bad(m.name) || m.has_threads == m.threads.empty()) __builtin_trap();
    if (!m.has_threads && table.count(m.name) == 0) __builtin_trap();
    for (const std::string& t : m.threads) {
      if (bad(t) || table.count(t) == 0) __builtin_trap();
    }
  }
  for (const auto& [key, rec] : table) {
    if (bad(key) || rec.valid || rec.pid != kNoId) __builtin_trap();
  }
  return 0;
}
