// The tests' view of the platform on a Linux host: properties come from the host store's file.
#include <stdlib.h>

#include "helpers.h"

void use_properties(const std::string& content) {
  static TempDir dir;  // a new name each time: the store reads a file once per name
  static int serial = 0;
  std::string path = dir.path("props." + std::to_string(++serial));
  write_file(path, content);
  setenv("STALL_WARD_PROPERTIES", path.c_str(), 1);
}

bool host_property_store() {
  return true;
}
