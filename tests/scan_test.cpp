// The scan's judgement of records set up by hand, the policies and SysRq. Signals go to stand-ins
// that record them; SysRq commands to a FIFO.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "helpers.h"
#include "stall_ward.h"

// usleep, handing each pause to on_pause instead of sleeping while a test is set to watch them.
static std::function<void(useconds_t)> on_pause;
extern "C" int usleep(useconds_t us) {
  static auto real = reinterpret_cast<int (*)(useconds_t)>(dlsym(RTLD_NEXT, __func__));
  return on_pause ? on_pause(us), 0 : real(us);
}

namespace {

// Points do_sys_rq at a FIFO of the test's own for one test.
struct Trigger {
  Trigger() { sysrq_trigger = path.c_str(); }
  ~Trigger() { sysrq_trigger = saved; }
  const char* saved = sysrq_trigger;
  TempDir dir;
  std::string path = dir.path("trigger");
  SysrqFifo fifo{path};
};

enum Target { NONE, PID, PPID };

struct ScanCase {
  const char* name;
  bool frozen, started;
  int64_t stuck;  // against alarm_ms 120000
  bool updated, has_tid;
  char state;
  bool reported, is_app;
  int policy;
  const char* log;  // one line or none; $PID and $PPID stand for the stand-ins' ids
  int64_t stuck_after;
  const char* target_signals;  // what the target's and the parent's signal catchers record
  const char* parent_signals;
  Target killed;
  bool kernel_dumps;  // SysRq w and l, then a 3 s pause (an app's SIGQUIT is followed by one too)
};

class Scan : public testing::TestWithParam<ScanCase> {};

TEST_P(Scan, JudgesTheRecord) {
  const ScanCase& c = GetParam();
  if ((*c.target_signals || *c.parent_signals) && UNDER_EMULATION) {
    GTEST_SKIP() << "qemu-user renumbers real-time signals sent to a host process";
  }
  TempDir dir;
  Trigger trigger;
  reset_daemon(true);
  policy = c.policy;
  StandIn target = start_stand_in({"target", "--signals", dir.path("pid.sig")});
  StandIn parent = start_stand_in({"parent", "--signals", dir.path("ppid.sig")});
  proc& rec = mTids["w"];
  rec.frozen = c.frozen;
  rec.pid = c.started ? static_cast<uint32_t>(target.pid) : kNoId;
  rec.ppid = static_cast<uint32_t>(parent.pid);
  rec.tid = c.has_tid ? rec.pid : kNoId;
  rec.stuck_ms = c.stuck;
  rec.updated = c.updated;
  rec.state = c.state;
  rec.reported = c.reported;
  rec.is_app = c.is_app;
  strcpy(rec.comm, "t");
  LogCapture log;
  std::vector<useconds_t> pauses;
  on_pause = [&](useconds_t us) { pauses.push_back(us); };
  scan_process_status();
  on_pause = nullptr;
  EXPECT_EQ(pauses, std::vector<useconds_t>(c.kernel_dumps || c.is_app, 3000000));
  std::string line = c.log;
  for (auto [key, pid] : {std::pair{"$PPID", parent.pid}, {"$PID", target.pid}}) {
    if (line.find(key) != std::string::npos)
      line.replace(line.find(key), strlen(key), std::to_string(pid));
  }
  EXPECT_EQ(log.messages(), line.empty() ? Lines{} : Lines{line});
  EXPECT_EQ(rec.stuck_ms, c.stuck_after);
  EXPECT_EQ(rec.reported, c.reported || *c.target_signals || *c.parent_signals || c.kernel_dumps);
  EXPECT_EQ(target.child.wait(c.killed == PID ? 5000 : 200) != -1, c.killed == PID);
  EXPECT_EQ(parent.child.wait(c.killed == PPID ? 5000 : 0) != -1, c.killed == PPID);
  for (auto [file, want] : {std::pair{dir.path("pid.sig"), c.target_signals},
                            {dir.path("ppid.sig"), c.parent_signals}}) {
    EXPECT_TRUE(eventually([&] { return read_file(file) == want; }, 1000)) << read_file(file);
  }
  EXPECT_EQ(trigger.fifo.commands(), c.kernel_dumps ? Lines({"w", "l"}) : Lines());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, Scan, testing::Values(
    ScanCase{"frozen_keeps_its_count", true, true, 999999, true, true, 'D', false, false, POLICY_KILL, "I t frozen", 999999, "", "", NONE, false},
    ScanCase{"not_started", false, false, 999999, true, true, 'D', true, false, POLICY_KILL, "I w proc not started", 999999, "", "", NONE, false},
    ScanCase{"below_the_limit", false, true, 119999, true, true, 'D', true, false, POLICY_KILL, "", 119999, "", "", NONE, false},
    ScanCase{"running_is_only_reset", false, true, 120000, true, true, 'R', false, false, POLICY_KILL, "", 0, "", "", NONE, false},
    ScanCase{"blocked_gets_kernel_dumps", false, true, 120000, true, true, 'D', false, false, POLICY_KILL, "I dumped $PID D", 0, "", "", NONE, true},
    ScanCase{"blocked_again_is_killed", false, true, 120000, true, true, 'D', true, false, POLICY_KILL, "I killing proc $PID", 0, "", "", PID, false},
    ScanCase{"a_zombie_has_its_parent_dump", false, true, 120000, true, true, 'Z', false, false, POLICY_KILL, "I dumped $PID Z", 0, "", "sig=35\n", NONE, true},
    ScanCase{"a_zombie_again_kills_its_parent", false, true, 130000, true, true, 'Z', true, false, POLICY_KILL, "I killing proc $PPID", 0, "", "", PPID, false},
    ScanCase{"asleep_gets_the_dump_signal", false, true, 120000, true, true, 'S', false, false, POLICY_KILL, "I dumped $PID", 0, "sig=35\n", "", NONE, false},
    ScanCase{"an_app_asleep_gets_sigquit_first", false, true, 120000, true, true, 'S', false, true, POLICY_KILL, "I dumped $PID", 0, "sig=3\nsig=35\n", "", NONE, false},
    ScanCase{"asleep_again_is_killed", false, true, 120000, true, true, 'S', true, false, POLICY_KILL, "I killing proc $PID", 0, "", "", PID, false},
    ScanCase{"a_thread_never_sampled_is_a_process_matter", false, true, 120000, false, true, 'D', false, false, POLICY_KILL, "I dumped $PID", 0, "sig=35\n", "", NONE, false},
    ScanCase{"a_code_past_nothing_does_nothing", false, true, 120000, true, true, 'D', true, false, 7, "I nothing to do accroding to policy", 0, "", "", NONE, false},
    ScanCase{"a_negative_code_does_nothing", false, true, 120000, true, true, 'D', true, false, -1, "I nothing to do accroding to policy", 0, "", "", NONE, false},
    ScanCase{"no_thread_again_gets_the_policy", false, true, 120000, true, false, 'R', true, false, POLICY_NOTHING, "I nothing to do accroding to policy", 0, "", "", NONE, false}),
    [](const testing::TestParamInfo<ScanCase>& info) { return std::string(info.param.name); });
// clang-format on

TEST(Policy, PanicDumpsWaitsThreeSecondsThenCrashes) {
  Trigger trigger;
  reset_daemon(false);
  policy = POLICY_PANIC;
  Lines before_pause;
  on_pause = [&](useconds_t us) {
    EXPECT_EQ(us, 3000000u);
    before_pause = trigger.fifo.commands();
  };
  handle_policy(12345);
  on_pause = nullptr;
  EXPECT_EQ(before_pause, (Lines{"w", "l"}));
  EXPECT_EQ(trigger.fifo.commands(), (Lines{"w", "l", "c"}));
}

TEST(SysRq, AMissingTriggerIsReportedEvenWithDebugOffAndNeverCreated) {
  TempDir dir;
  const char* saved = sysrq_trigger;
  std::string missing = dir.path("missing");
  sysrq_trigger = missing.c_str();
  reset_daemon(false);
  LogCapture log;
  do_sys_rq("w");
  sysrq_trigger = saved;
  EXPECT_EQ(log.messages(), Lines{"E open sysrq failed!"});
  EXPECT_NE(access(missing.c_str(), F_OK), 0);
}

}  // namespace
