// The host property store's file: what it refused, and values given to it instead.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "check/prop_text.h"

// What the host store refused: the whole file (key empty: unreadable, or writable by others than
// its owner) or one value init would not set. why says which, in a few words.
struct PropertyRefusal {
  std::string key, why;
};
// What the store refused of the file named by STALL_WARD_PROPERTIES.
const std::vector<PropertyRefusal>& property_refusals();
// Makes the store serve these values, as init set them, instead of STALL_WARD_PROPERTIES.
void use_property_values(const std::unordered_map<std::string, std::string>& values);
