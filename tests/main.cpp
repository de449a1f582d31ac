// The unit tests run as root on a real machine or device: SysRq commands go to a file of the
// test's own, and no reboot is ever allowed from this process.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "helpers.h"
#include "stall_ward.h"

void reset_daemon(bool debug, int64_t interval) {
  debug_enabled = debug;
  policy = POLICY_NOTHING;
  alarm_ms = 120000;
  interval_ms = interval;
  monitor_list.clear();
  mTids.clear();
  proc_dir.close_dir();
}

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  unsetenv("STALL_WARD_ALLOW_REBOOT");
  static TempDir dir;
  static const std::string trigger = dir.path("sysrq-trigger");
  sysrq_trigger = trigger.c_str();
  return RUN_ALL_TESTS();
}
