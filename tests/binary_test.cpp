// The real daemon binary, driven only through its host interface.
#include <gtest/gtest.h>
#include <unistd.h>

#include "helpers.h"

namespace {

TEST(Binary, DisabledItParksAfterStarted) {
  for (const char* props : {"", "persist.vendor.sw.enable=false\npersist.vendor.sw.debug=1\n"}) {
    DaemonRun run(props, {}, false);
    EXPECT_EQ(run.daemon.wait(500), -1) << "a disabled daemon parks; it never exits";
    std::string log = run.log();
    EXPECT_EQ(log_messages(log), std::vector<std::string>{"D started"}) << log;
  }
}

TEST(Binary, EnabledItLogsItsConfigurationInLogcatLayout) {
  DaemonRun run("persist.vendor.sw.enable=1\npersist.vendor.sw.processes=init:x\n", {}, false);
  EXPECT_EQ(run.daemon.wait(500), -1);
  std::string log = run.log();
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
  DaemonRun run("persist.vendor.sw.enable=1\npersist.vendor.sw.debug=0\n", {}, false);
  EXPECT_EQ(run.daemon.wait(500), -1);
  std::string log = run.log();
  EXPECT_EQ(log_messages(log), std::vector<std::string>{"D started"}) << log;
}

}  // namespace
