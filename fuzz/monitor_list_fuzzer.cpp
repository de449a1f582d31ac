// The processes property: entries at blanks, names at colons.
#include <string>
#include <unordered_map>
#include <vector>

#include "stall_ward.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string value(reinterpret_cast<const char*>(data), size);
  std::vector<monitor_info> list;
  std::unordered_map<std::string, proc> table;
  parse_monitor_list(value, &list, &table);
  size_t names = 0;
  for (const monitor_info& m : list) {
    // No empty name, and no separator inside one.
    if (m.name.empty() || m.name.find_first_of(" :") != std::string::npos) __builtin_trap();
    if (m.has_threads == m.threads.empty()) __builtin_trap();
    if (!m.has_threads && table.count(m.name) == 0) __builtin_trap();
    for (const std::string& t : m.threads) {
      if (t.empty() || t.find_first_of(" :") != std::string::npos || table.count(t) == 0) {
        __builtin_trap();
      }
    }
    names += m.has_threads ? m.threads.size() : 1;
  }
  // Every record belongs to an entry, and starts unbound.
  if (table.size() > names) __builtin_trap();
  for (const auto& [key, rec] : table) {
    if (value.find(key) == std::string::npos || rec.valid || rec.pid != kNoId) __builtin_trap();
  }
  return 0;
}
