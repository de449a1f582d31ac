// The scan's judgement of records set up by hand; signals go to stand-ins that record them. (The
// paths with a 3 s pause run against the real binary in the scenarios.)
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

enum Target { NONE, PID, PPID };

struct ScanCase {
  const char* name;
  bool frozen, started;
  int64_t stuck;  // against alarm_ms 120000
  bool updated, has_tid;
  char state;
  bool reported;
  int policy;
  const char* log;  // one line or none; $PID and $PPID stand for the stand-ins' ids
  int64_t stuck_after;
  Target dump_signal, killed;  // where signal 35 and SIGKILL go
};

class Scan : public testing::TestWithParam<ScanCase> {};

TEST_P(Scan, JudgesTheRecord) {
  const ScanCase& c = GetParam();
  if (c.dump_signal != NONE && under_emulation()) {
    GTEST_SKIP() << "qemu-user sends the real-time signal 35 to a host process under another "
                    "number, so the stand-in cannot receive it as sent";
  }
  TempDir dir;
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
  strcpy(rec.comm, "w");
  LogCapture log;
  scan_process_status();
  std::string line = replace_all(c.log, "$PPID", std::to_string(parent.pid));
  line = replace_all(line, "$PID", std::to_string(target.pid));
  EXPECT_EQ(log.messages(), line.empty() ? std::vector<std::string>{} : std::vector{line});
  EXPECT_EQ(rec.stuck_ms, c.stuck_after);
  EXPECT_EQ(rec.reported, c.reported || c.dump_signal != NONE);
  EXPECT_EQ(target.child.wait(c.killed == PID ? 5000 : 200) != -1, c.killed == PID);
  EXPECT_EQ(parent.child.wait(c.killed == PPID ? 5000 : 0) != -1, c.killed == PPID);
  eventually([&] { return c.dump_signal == NONE || !read_file(dir.path("pid.sig")).empty(); },
             1000);
  EXPECT_EQ(read_file(dir.path("pid.sig")), c.dump_signal == PID ? "sig=35\n" : "");
  EXPECT_EQ(read_file(dir.path("ppid.sig")), "");
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, Scan, testing::Values(
    ScanCase{"frozen_keeps_its_count", true, true, 999999, true, true, 'D', false, POLICY_KILL, "I w frozen", 999999, NONE, NONE},
    ScanCase{"not_started", false, false, 999999, true, true, 'D', true, POLICY_KILL, "I w proc not started", 999999, NONE, NONE},
    ScanCase{"below_the_limit", false, true, 119999, true, true, 'D', true, POLICY_KILL, "", 119999, NONE, NONE},
    ScanCase{"running_is_only_reset", false, true, 120000, true, true, 'R', false, POLICY_KILL, "", 0, NONE, NONE},
    ScanCase{"blocked_again_gets_the_policy", false, true, 120000, true, true, 'D', true, POLICY_NOTHING, "I nothing to do accroding to policy", 0, NONE, NONE},
    ScanCase{"blocked_again_is_killed", false, true, 120000, true, true, 'D', true, POLICY_KILL, "I killing proc $PID", 0, NONE, PID},
    ScanCase{"a_zombie_again_kills_its_parent", false, true, 130000, true, true, 'Z', true, POLICY_KILL, "I killing proc $PPID", 0, NONE, PPID},
    ScanCase{"asleep_gets_the_dump_signal", false, true, 120000, true, true, 'S', false, POLICY_KILL, "I dumped $PID", 0, PID, NONE},
    ScanCase{"asleep_again_is_killed", false, true, 120000, true, true, 'S', true, POLICY_KILL, "I killing proc $PID", 0, NONE, PID},
    ScanCase{"never_sampled_is_a_process_matter", false, true, 120000, false, true, 'D', false, POLICY_KILL, "I dumped $PID", 0, PID, NONE},
    ScanCase{"no_thread_is_a_process_matter", false, true, 120000, true, false, 'R', true, POLICY_NOTHING, "I nothing to do accroding to policy", 0, NONE, NONE}),
    [](const testing::TestParamInfo<ScanCase>& info) { return std::string(info.param.name); });
// clang-format on

}  // namespace
