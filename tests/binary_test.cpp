// The real daemon binary, driven only through its host interface.
#include <gtest/gtest.h>
#include <unistd.h>

#include "helpers.h"

namespace {

// Runs build/stall_ward with a property file for run_ms and returns its log.
std::string run_daemon(const TempDir& dir, const std::string& properties, int run_ms,
                       bool* still_running) {
  write_file(dir.path("props"), properties);
  Child daemon = spawn(daemon_path(), {daemon_path()},
                       {"STALL_WARD_PROPERTIES=" + dir.path("props"),
                        "STALL_WARD_SYSRQ_TRIGGER=" + dir.path("trigger")},
                       dir.path("log"));
  *still_running = daemon.wait(run_ms) == -1;
  return read_file_or_empty(dir.path("log"));
}

TEST(Binary, DisabledItParksAfterStarted) {
  for (const char* props : {"", "persist.vendor.sw.enable=false\npersist.vendor.sw.debug=1\n"}) {
    TempDir dir;
    bool running = false;
    std::string log = run_daemon(dir, props, 500, &running);
    EXPECT_TRUE(running) << "a disabled daemon parks; it never exits";
    EXPECT_EQ(log_messages(log), std::vector<std::string>{"D started"}) << log;
  }
}

TEST(Binary, EnabledItLogsItsConfigurationInLogcatLayout) {
  TempDir dir;
  bool running = false;
  std::string log = run_daemon(
      dir, "persist.vendor.sw.enable=1\npersist.vendor.sw.processes=init:x\n", 500, &running);
  EXPECT_TRUE(running);
  std::vector<std::string> m = log_messages(log);
  EXPECT_EQ(m, (std::vector<std::string>{"D started", "I get persist.vendor.sw.timeout =120",
                                         "I get persist.vendor.sw.processes =init:x",
                                         "D monitor init threads:", "D x", "D mTids:", "D x",
                                         "I get persist.vendor.sw.policy ="}))
      << log;
  // "MM-DD HH:MM:SS.mmm  PID  TID P stall_ward: message", as logcat -v threadtime prints it.
  std::string first = log.substr(0, log.find('\n'));
  EXPECT_TRUE(testing::internal::RE::FullMatch(
      first, testing::internal::RE("[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]"
                                   "\\.[0-9][0-9][0-9] +[0-9]+ +[0-9]+ D stall_ward: started")))
      << first;
}

TEST(Binary, DebugOffLeavesOnlyStarted) {
  TempDir dir;
  bool running = false;
  std::string log =
      run_daemon(dir, "persist.vendor.sw.enable=1\npersist.vendor.sw.debug=0\n", 500, &running);
  EXPECT_TRUE(running);
  EXPECT_EQ(log_messages(log), std::vector<std::string>{"D started"}) << log;
}

}  // namespace
