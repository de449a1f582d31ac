// The tests' view of the platform on a Linux host: properties come from the host store's file,
// reboots from host/android_reboot.cpp (refused unless explicitly allowed).
#include "helpers.h"

std::string temp_root() {
  return "/tmp";
}
