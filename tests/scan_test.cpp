// The scan's judgement of records, on records set up by hand. Signals go to stand-ins that
// record them. (The paths with a 3 s pause run against the real binary in the scenarios.)
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
  bool frozen;
  bool started;
  int64_t stuck;  // against alarm_ms 120000
  bool updated;
  bool has_tid;
  char state;
  bool reported;
  int policy;
  std::vector<std::string> log;  // $PID and $PPID stand for the stand-ins' ids
  int64_t stuck_after;
  bool reported_after;
  Target dump_signal_to;  // signal 35
  Target killed;
};

class Scan : public testing::TestWithParam<ScanCase> {};

TEST_P(Scan, JudgesTheRecord) {
  const ScanCase& c = GetParam();
  TempDir dir;
  reset_daemon(true);
  policy = c.policy;
  StandIn target = start_stand_in({"target", "--signals", dir.path("pid.sig")});
  StandIn parent = start_stand_in({"parent", "--signals", dir.path("ppid.sig")});
  ASSERT_GT(target.pid, 0);
  ASSERT_GT(parent.pid, 0);
  proc& rec = mTids["w"];
  rec.frozen = c.frozen;
  rec.pid = c.started ? static_cast<uint32_t>(target.pid) : kNoId;
  rec.ppid = static_cast<uint32_t>(parent.pid);
  rec.tid = c.has_tid ? static_cast<uint32_t>(target.pid) : kNoId;
  rec.stuck_ms = c.stuck;
  rec.updated = c.updated;
  rec.state = c.state;
  rec.reported = c.reported;
  strcpy(rec.comm, "w");

  LogCapture log;
  scan_process_status();
  std::vector<std::string> expected;
  for (const std::string& line : c.log) {
    expected.push_back(replace_all(replace_all(line, "$PPID", std::to_string(parent.pid)), "$PID",
                                   std::to_string(target.pid)));
  }
  EXPECT_EQ(log.messages(), expected);
  EXPECT_EQ(rec.stuck_ms, c.stuck_after);
  EXPECT_EQ(rec.reported, c.reported_after);

  int target_status = target.child.wait(c.killed == PID ? 5000 : 300);
  int parent_status = parent.child.wait(c.killed == PPID ? 5000 : 0);
  EXPECT_EQ(target_status != -1, c.killed == PID);
  EXPECT_EQ(parent_status != -1, c.killed == PPID);
  if (c.dump_signal_to != NONE) {
    std::string file = dir.path(c.dump_signal_to == PID ? "pid.sig" : "ppid.sig");
    for (int i = 0; i < 100 && read_file_or_empty(file).empty(); ++i) usleep(10000);
  }
  EXPECT_EQ(read_file_or_empty(dir.path("pid.sig")), c.dump_signal_to == PID ? "sig=35\n" : "");
  EXPECT_EQ(read_file_or_empty(dir.path("ppid.sig")), c.dump_signal_to == PPID ? "sig=35\n" : "");
}

const char kNothing[] = "I nothing to do accroding to policy";

INSTANTIATE_TEST_SUITE_P(Cases, Scan,
                         testing::Values(ScanCase{"frozen_is_skipped_and_keeps_its_count",
                                                  true,
                                                  true,
                                                  999999,
                                                  true,
                                                  true,
                                                  'D',
                                                  false,
                                                  POLICY_KILL,
                                                  {"I w frozen"},
                                                  999999,
                                                  false,
                                                  NONE,
                                                  NONE},
                                         ScanCase{"not_started",
                                                  false,
                                                  false,
                                                  999999,
                                                  true,
                                                  true,
                                                  'D',
                                                  true,
                                                  POLICY_KILL,
                                                  {"I w proc not started"},
                                                  999999,
                                                  true,
                                                  NONE,
                                                  NONE},
                                         ScanCase{"below_the_limit",
                                                  false,
                                                  true,
                                                  119999,
                                                  true,
                                                  true,
                                                  'D',
                                                  true,
                                                  POLICY_KILL,
                                                  {},
                                                  119999,
                                                  true,
                                                  NONE,
                                                  NONE},
                                         ScanCase{"running_is_only_reset",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  true,
                                                  'R',
                                                  false,
                                                  POLICY_KILL,
                                                  {},
                                                  0,
                                                  false,
                                                  NONE,
                                                  NONE},
                                         ScanCase{"blocked_again_gets_the_policy",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  true,
                                                  'D',
                                                  true,
                                                  POLICY_NOTHING,
                                                  {kNothing},
                                                  0,
                                                  true,
                                                  NONE,
                                                  NONE},
                                         ScanCase{"blocked_again_kills_the_process",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  true,
                                                  'D',
                                                  true,
                                                  POLICY_KILL,
                                                  {"I killing proc $PID"},
                                                  0,
                                                  true,
                                                  NONE,
                                                  PID},
                                         ScanCase{"a_zombie_again_kills_its_parent",
                                                  false,
                                                  true,
                                                  130000,
                                                  true,
                                                  true,
                                                  'Z',
                                                  true,
                                                  POLICY_KILL,
                                                  {"I killing proc $PPID"},
                                                  0,
                                                  true,
                                                  NONE,
                                                  PPID},
                                         ScanCase{"asleep_gets_the_dump_signal",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  true,
                                                  'S',
                                                  false,
                                                  POLICY_KILL,
                                                  {"I dumped $PID"},
                                                  0,
                                                  true,
                                                  PID,
                                                  NONE},
                                         ScanCase{"asleep_again_gets_the_policy",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  true,
                                                  'S',
                                                  true,
                                                  POLICY_KILL,
                                                  {"I killing proc $PID"},
                                                  0,
                                                  true,
                                                  NONE,
                                                  PID},
                                         ScanCase{"never_sampled_is_judged_as_a_process",
                                                  false,
                                                  true,
                                                  120000,
                                                  false,
                                                  true,
                                                  'D',
                                                  false,
                                                  POLICY_KILL,
                                                  {"I dumped $PID"},
                                                  0,
                                                  true,
                                                  PID,
                                                  NONE},
                                         ScanCase{"no_thread_is_judged_as_a_process",
                                                  false,
                                                  true,
                                                  120000,
                                                  true,
                                                  false,
                                                  'R',
                                                  true,
                                                  POLICY_NOTHING,
                                                  {kNothing},
                                                  0,
                                                  true,
                                                  NONE,
                                                  NONE}),
                         [](const testing::TestParamInfo<ScanCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(Scan, ATimeoutOfZeroActsOnEveryStartedRecordAtEveryPass) {
  TempDir dir;
  reset_daemon(true);
  alarm_ms = 0;
  StandIn target = start_stand_in({"target", "--signals", dir.path("sig")});
  proc& rec = mTids["w"];
  rec.pid = rec.tid = static_cast<uint32_t>(target.pid);
  rec.updated = true;
  rec.state = 'S';
  LogCapture log;
  scan_process_status();
  scan_process_status();
  std::string pid = std::to_string(target.pid);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"I dumped " + pid, kNothing}));
}

}  // namespace
