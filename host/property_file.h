// The host property store's file format (see properties.cpp), parsed apart from reading.
#pragma once

#include <string>
#include <unordered_map>

// Adds the key=value lines of text to values (path names the file in error lines).
void parse_property_file(const std::string& path, const std::string& text,
                         std::unordered_map<std::string, std::string>* values);
