// SysRq commands, the policies and the self-watchdog's handler.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

// Points do_sys_rq at a file of the test's own for one test.
struct TriggerAt {
  explicit TriggerAt(const std::string& path) : path(path) { sysrq_trigger = this->path.c_str(); }
  ~TriggerAt() { sysrq_trigger = saved; }
  const char* saved = sysrq_trigger;
  std::string path;
};

TEST(SysRq, WritesTheCommandAndItsNulInPlace) {
  TempDir dir;
  TriggerAt trigger(dir.path("trigger"));
  write_file(trigger.path, "");
  reset_daemon(false);
  LogCapture log;
  do_sys_rq("w");
  EXPECT_EQ(read_file(trigger.path), std::string("w\0", 2));
  do_sys_rq("l");  // no truncation, no append: the next command overwrites, as in the kernel
  EXPECT_EQ(read_file(trigger.path), std::string("l\0", 2));
  EXPECT_TRUE(log.messages().empty());
}

TEST(SysRq, AMissingTriggerIsReportedEvenWithDebugOffAndNeverCreated) {
  TempDir dir;
  TriggerAt trigger(dir.path("missing"));
  reset_daemon(false);
  LogCapture log;
  do_sys_rq("w");
  EXPECT_EQ(log.messages(), std::vector<std::string>{"E open sysrq failed!"});
  EXPECT_NE(access(trigger.path.c_str(), F_OK), 0);
}

TEST(SysRq, TheAlarmHandlerDumpsBlockedTasksAndCpus) {
  TempDir dir;
  TriggerAt trigger(dir.path("fifo"));
  SysrqFifo fifo(trigger.path);
  for (bool debug : {true, false}) {
    reset_daemon(debug);
    LogCapture log;
    alarm_handler(SIGALRM);
    EXPECT_EQ(log.messages().size(), debug ? 1u : 0u);
    EXPECT_EQ(log.count("E Alarm! self stuck!"), debug ? 1 : 0);
  }
  EXPECT_EQ(fifo.commands(), (std::vector<std::string>{"w", "l", "w", "l"}));
}

struct PolicyCase {
  int policy;
  bool debug;
  std::vector<std::string> log;  // "$PID" stands for the target's id
  bool kills;
};

class Policy : public testing::TestWithParam<PolicyCase> {};

TEST_P(Policy, ActsAndLogsAsConfigured) {
  const PolicyCase& c = GetParam();
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
  EXPECT_EQ(c.kills, WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
}

const char kRefused[] = "E android_reboot refused: STALL_WARD_ALLOW_REBOOT=1 is not set";
const char kNothing[] = "I nothing to do accroding to policy";

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, Policy, testing::Values(
    PolicyCase{POLICY_KILL, true, {"I killing proc $PID"}, true},
    PolicyCase{POLICY_KILL, false, {}, true},
    PolicyCase{POLICY_REBOOT, true, {"I rebooting", kRefused}, false},  // the daemon goes on
    PolicyCase{POLICY_REBOOT, false, {kRefused}, false},
    PolicyCase{POLICY_NOTHING, true, {kNothing}, false}, PolicyCase{POLICY_NOTHING, false, {}, false},
    PolicyCase{7, true, {kNothing}, false}, PolicyCase{-1, true, {kNothing}, false}));
// clang-format on

TEST(Policy, PanicDumpsWaitsThenCrashes) {
  TempDir dir;
  TriggerAt trigger(dir.path("fifo"));
  SysrqFifo fifo(trigger.path);
  reset_daemon(true);
  policy = POLICY_PANIC;
  LogCapture log;
  time_t start = time(nullptr);
  handle_policy(12345);
  EXPECT_GE(time(nullptr) - start, 2);  // the 3 s pause before the crash
  EXPECT_EQ(fifo.commands(), (std::vector<std::string>{"w", "l", "c"}));
  EXPECT_EQ(log.messages(), std::vector<std::string>{"I trigger crash according to policy"});
}

}  // namespace
