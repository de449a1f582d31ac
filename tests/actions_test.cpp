// SysRq commands, the policies, and the self-watchdog's handler.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

// Points do_sys_rq at a file of the test's own for the length of one test.
class TriggerAt {
 public:
  explicit TriggerAt(const std::string& path) : saved_(sysrq_trigger), path_(path) {
    sysrq_trigger = path_.c_str();
  }
  ~TriggerAt() { sysrq_trigger = saved_; }

 private:
  const char* saved_;
  std::string path_;
};

TEST(SysRq, WritesTheCommandAndItsNulToTheTrigger) {
  TempDir dir;
  TriggerAt trigger(dir.path("trigger"));
  write_file(dir.path("trigger"), "");
  reset_daemon(false);
  LogCapture log;
  do_sys_rq("w");
  EXPECT_EQ(read_file_or_empty(dir.path("trigger")), std::string("w\0", 2));
  // Opened without truncation, as the real trigger: the next command overwrites in place.
  do_sys_rq("l");
  EXPECT_EQ(read_file_or_empty(dir.path("trigger")), std::string("l\0", 2));
  EXPECT_EQ(log.messages(), std::vector<std::string>{});
}

TEST(SysRq, AMissingTriggerIsReportedEvenWithDebugOffAndNeverCreated) {
  TempDir dir;
  TriggerAt trigger(dir.path("missing"));
  reset_daemon(false);
  LogCapture log;
  do_sys_rq("w");
  EXPECT_EQ(log.messages(), std::vector<std::string>{"E open sysrq failed!"});
  EXPECT_NE(access(dir.path("missing").c_str(), F_OK), 0);
}

TEST(SysRq, TheAlarmHandlerDumpsBlockedTasksAndCpus) {
  TempDir dir;
  TriggerAt trigger(dir.path("fifo"));
  SysrqFifo fifo(dir.path("fifo"));
  for (bool debug : {true, false}) {
    reset_daemon(debug);
    LogCapture log;
    alarm_handler(SIGALRM);
    std::vector<std::string> expected;
    if (debug) expected.push_back("E Alarm! self stuck!");
    EXPECT_EQ(log.messages(), expected);
  }
  EXPECT_EQ(fifo.wait_for(4, 2000), (std::vector<std::string>{"w", "l", "w", "l"}));
}

struct PolicyCase {
  int policy;
  bool debug;
  std::vector<std::string> log;  // "$PID" stands for the target's pid
  bool kills;
};

class Policy : public testing::TestWithParam<PolicyCase> {};

TEST_P(Policy, ActsAndLogsAsConfigured) {
  const PolicyCase& c = GetParam();
  TempDir dir;
  TriggerAt trigger(dir.path("missing"));
  reset_daemon(c.debug);
  policy = c.policy;
  StandIn target = start_stand_in({"target"});
  ASSERT_GT(target.pid, 0);
  LogCapture log;
  handle_policy(target.pid);
  std::vector<std::string> expected;
  for (const std::string& line : c.log) {
    expected.push_back(replace_all(line, "$PID", std::to_string(target.pid)));
  }
  EXPECT_EQ(log.messages(), expected);
  int status = target.child.wait(c.kills ? 5000 : 200);
  if (c.kills) {
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
  } else {
    EXPECT_EQ(status, -1) << "the target must still run";
  }
}

const char kRefused[] = "E android_reboot refused: STALL_WARD_ALLOW_REBOOT=1 is not set";

INSTANTIATE_TEST_SUITE_P(
    Cases, Policy,
    testing::Values(PolicyCase{POLICY_KILL, true, {"I killing proc $PID"}, true},
                    PolicyCase{POLICY_KILL, false, {}, true},
                    PolicyCase{POLICY_REBOOT, true, {"I rebooting", kRefused}, false},
                    PolicyCase{POLICY_REBOOT, false, {kRefused}, false},
                    PolicyCase{
                        POLICY_NOTHING, true, {"I nothing to do accroding to policy"}, false},
                    PolicyCase{POLICY_NOTHING, false, {}, false},
                    PolicyCase{7, true, {"I nothing to do accroding to policy"}, false},
                    PolicyCase{-1, true, {"I nothing to do accroding to policy"}, false}));

TEST(Policy, PanicDumpsWaitsThenCrashes) {
  TempDir dir;
  TriggerAt trigger(dir.path("fifo"));
  SysrqFifo fifo(dir.path("fifo"));
  reset_daemon(true);
  policy = POLICY_PANIC;
  LogCapture log;
  timespec start = {}, end = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  handle_policy(12345);
  clock_gettime(CLOCK_MONOTONIC, &end);
  EXPECT_EQ(fifo.wait_for(3, 2000), (std::vector<std::string>{"w", "l", "c"}));
  EXPECT_GE(end.tv_sec - start.tv_sec, 2);  // the 3 s pause before the crash
  EXPECT_EQ(log.messages(), std::vector<std::string>{"I trigger crash according to policy"});
}

}  // namespace
