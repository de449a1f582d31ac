#include "check/prop_text.h"

#include <ctype.h>
#include <cutils/properties.h>
#include <string.h>

PropertyText parse_property_text(const std::string& path, const std::string& text) {
  PropertyText out;
  size_t start = 0;
  for (int line_no = 1; start < text.size(); ++line_no) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    size_t first = 0;
    while (first < line.size() && isspace(static_cast<unsigned char>(line[first]))) ++first;
    size_t last = line.size();
    while (last > first && isspace(static_cast<unsigned char>(line[last - 1]))) --last;
    line = line.substr(first, last - first);
    if (line.empty() || line[0] == '#') continue;
    if (line.compare(0, 7, "import ") == 0) {
      size_t name = line.find_first_not_of(" \t\n\v\f\r", 7);
      out.imports.push_back(
          {path, line_no, "import", line.substr(name, line.find(' ', name) - name)});
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    size_t key_end = eq;
    while (key_end > 1 && isspace(static_cast<unsigned char>(line[key_end - 1]))) --key_end;
    size_t value = eq + 1;
    while (value < line.size() && isspace(static_cast<unsigned char>(line[value]))) ++value;
    out.lines.push_back({path, line_no, line.substr(0, key_end), line.substr(value)});
  }
  return out;
}

std::string property_refusal(const std::string& key, const std::string& value) {
  if (value.size() < PROPERTY_VALUE_MAX || key.compare(0, 3, "ro.") == 0) return "";
  return std::to_string(value.size()) + " bytes, longer than " +
         std::to_string(PROPERTY_VALUE_MAX - 1);
}

namespace {

const std::pair<const char*, int> kLoadOrder[] = {
    {"vendor/default.prop", 3}, {"odm/default.prop", 5},   {"prop.default", 0},
    {"default.prop", 0},        {"system/build.prop", 1},  {"system_ext/build.prop", 2},
    {"vendor/build.prop", 4},   {"odm/etc/build.prop", 5}, {"odm/build.prop", 5},
    {"product/build.prop", 6},  {"factory.prop", 7},
};
constexpr int kFactoryRank = 7;

}  // namespace

int init_load_rank(const std::string& path) {
  for (const auto& [end, rank] : kLoadOrder) {
    size_t n = strlen(end);
    if (path.size() >= n && path.compare(path.size() - n, n, end) == 0) return rank;
  }
  return kFactoryRank + 1;
}

bool init_loads(const std::string& path, const std::string& key) {
  return init_load_rank(path) != kFactoryRank || key.compare(0, 3, "ro.") == 0;
}
