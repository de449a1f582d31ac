// The host property store's file format (see properties.cpp), parsed apart from reading.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

// What the store refused: the whole file (key empty: unreadable, or writable by others than its
// owner) or one value longer than the platform keeps. why says which, in a few words.
struct PropertyRefusal {
  std::string key, why;
};

// Adds the key=value lines of text to values (path names the file in error lines), and each value
// refused for its length to refusals when given.
void parse_property_file(const std::string& path, const std::string& text,
                         std::unordered_map<std::string, std::string>* values,
                         std::vector<PropertyRefusal>* refusals = nullptr);
// What the store refused of the file named by STALL_WARD_PROPERTIES.
const std::vector<PropertyRefusal>& property_refusals();
