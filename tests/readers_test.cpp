// The thread readers, on crafted task directories and on real threads in known states.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

namespace {

bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

std::string stat_line(const std::string& tid, const std::string& comm, char state,
                      const std::string& tail) {
  return tid + " (" + comm + ") " + state + " " + tail + "\n";
}

// ppid 0, nine numbers, utime 5, stime 6, then the rest of a real line.
const char kTail[] = "0 1 1 0 -1 4194624 100 0 0 0 5 6 0 0 20 0 1 0 7 0 0";

struct ParseCase {
  std::string stat;
  std::string match_line;
  bool binds;  // the record keyed by the parsed name is bound
};

class StatParse : public testing::TestWithParam<ParseCase> {};

TEST_P(StatParse, AcceptsOnlyAFullMatch) {
  const ParseCase& c = GetParam();
  reset_daemon(true);
  use_properties("persist.vendor.sw.processes=p:a:abcdefghijklmnop:abcdefghijklmno\n");
  get_monitor_info();
  // A blank separates entries, so a name with blanks goes into the table by hand.
  mTids.emplace("Jit thread pool", proc{});
  TempDir dir;
  write_file(dir.path("stat"), c.stat);
  LogCapture log;
  get_stat(nullptr, dir.dir());
  std::vector<std::string> m = log.messages();
  ASSERT_FALSE(m.empty());
  EXPECT_EQ(m[0], "I " + c.match_line);
  EXPECT_EQ(contains(m, "I stat err match"), !c.binds);
  bool bound = false;
  for (const auto& entry : mTids) bound |= entry.second.valid;
  EXPECT_EQ(bound, c.binds);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, StatParse,
    testing::Values(
        ParseCase{stat_line("12", "a)b", 'S', "1"),
                  "match=3, tid=12, comm=a, state=b, ppid=4294967295, utime=4294967295, "
                  "stime=4294967295",
                  false},
        ParseCase{stat_line("12", "", 'S', kTail),
                  "match=1, tid=12, comm=, state=?, ppid=4294967295, utime=4294967295, "
                  "stime=4294967295",
                  false},
        ParseCase{stat_line("12", "Jit thread pool", 'S', kTail),
                  "match=6, tid=12, comm=Jit thread pool, state=S, ppid=0, utime=5, stime=6", true},
        ParseCase{stat_line("12", "abcdefghijklmnop", 'D', kTail),
                  "match=6, tid=12, comm=abcdefghijklmnop, state=D, ppid=0, utime=5, stime=6",
                  true},
        ParseCase{stat_line("12", "abcdefghijklmnopq", 'D', kTail),
                  "match=2, tid=12, comm=abcdefghijklmnop, state=?, ppid=4294967295, "
                  "utime=4294967295, stime=4294967295",
                  false},
        ParseCase{"12 (a)\n",
                  "match=2, tid=12, comm=a, state=?, ppid=4294967295, utime=4294967295, "
                  "stime=4294967295",
                  false},
        ParseCase{"12(a)D 0 1 1 0 -1 -4194624 100 0 0 99999999999999999999 5 6",
                  "match=6, tid=12, comm=a, state=D, ppid=0, utime=5, stime=6", true},
        ParseCase{"x (a) D 0",
                  "match=0, tid=4294967295, comm=, state=?, ppid=4294967295, "
                  "utime=4294967295, stime=4294967295",
                  false}));

// A crafted task directory and the record it samples into, with debug on.
class CraftedTask : public testing::Test {
 protected:
  void SetUp() override {
    reset_daemon(true, 30000);
    use_properties("persist.vendor.sw.processes=p:w:abcdefghijklmno\n");
    get_monitor_info();
    rec = &mTids.at("w");
  }
  void sample(char state, unsigned utime, unsigned stime, const std::string& schedstat,
              const std::string& cgroup = "") {
    write_file(dir.path("stat"), "7 (w) " + std::string(1, state) +
                                     " 0 1 1 0 -1 4194624 100 0 0 0 " + std::to_string(utime) +
                                     " " + std::to_string(stime) + " 0 0 20 0 1 0 7\n");
    write_file(dir.path("schedstat"), schedstat);
    write_file(dir.path("cgroup"), cgroup);
    get_stat(nullptr, dir.dir());
  }
  TempDir dir;
  proc* rec = nullptr;
};

TEST_F(CraftedTask, StallTimeGrowsOnlyWithoutProgressInAWatchedState) {
  struct Step {
    char state;
    unsigned utime, stime;
    const char* schedstat;
    int64_t stuck_after;
    bool reported_after;  // set before each sample; progress clears it
  };
  const Step steps[] = {
      {'D', 10, 10, "1 2 3\n", 0, false},     // bound
      {'D', 10, 10, "1 2 3\n", 30000, true},  // nothing moved
      {'D', 10, 10, "1 2 3\n", 60000, true},
      {'D', 10, 10, "1 2 4\n", 0, false},  // ran on a processor
      {'D', 10, 10, "1 2 4\n", 30000, true},
      {'D', 10, 11, "1 2 4\n", 0, false},  // processor time
      {'D', 10, 11, "1 2 4\n", 30000, true},
      {'Z', 10, 11, "1 2 4\n", 0, false},  // state change
      {'Z', 10, 11, "1 2 4\n", 30000, true},
      {'Z', 10, 11, "1 2 0\n", 60000, true},  // a zero count is no progress
      {'Z', 10, 11, "", 90000, true},         // nor an unreadable one
      {'Z', 10, 11, "1 2 18446744073709551615\n", 120000, true},
      {'Z', 4294967295u, 22, "1 2 4\n", 150000, true},  // the same sum modulo 2^32
      {'S', 4294967295u, 22, "1 2 4\n", 0, false},      // S is not watched outside apps
      {'S', 4294967295u, 22, "1 2 4\n", 0, true},
      {'R', 4294967295u, 22, "1 2 4\n", 0, false},
  };
  int i = 0;
  for (const Step& s : steps) {
    rec->reported = true;
    sample(s.state, s.utime, s.stime, s.schedstat);
    EXPECT_EQ(rec->stuck_ms, s.stuck_after) << "step " << i;
    EXPECT_EQ(rec->state, s.state) << "step " << i;
    EXPECT_EQ(rec->reported, s.reported_after) << "step " << i;
    ++i;
  }
  EXPECT_EQ(rec->switches, 4u);
  EXPECT_EQ(rec->tid, 7u);
  EXPECT_TRUE(rec->updated && rec->valid);
}

TEST_F(CraftedTask, SchedstatCountsAndTheirLog) {
  struct Case {
    const char* content;
    uint64_t switches;
    const char* line;
  };
  const Case cases[] = {
      {"1 2 3\n", 3, "I switches:3"},
      {"99999999999999999999999 -1 8\n", 8, "I switches:8"},
      {"1 2 0\n", 8, "I switches:8"},
      {"garbage\n", 8, "I switches:8"},
      {"", 8, nullptr},
  };
  for (const Case& c : cases) {
    write_file(dir.path("schedstat"), c.content);
    LogCapture log;
    get_schedstat(rec, dir.dir());
    EXPECT_EQ(rec->switches, c.switches) << c.content;
    std::vector<std::string> m = log.messages();
    if (c.line != nullptr) {
      EXPECT_EQ(m, std::vector<std::string>{c.line});
    } else {
      EXPECT_EQ(m, std::vector<std::string>{"I read schedstat failed " + dir.dir()});
    }
  }
}

TEST_F(CraftedTask, TheFreezerMarkIsAPlainSubstring) {
  const std::pair<const char*, bool> cases[] = {
      {"7:freezer:/frozen\n", true},
      {"7:freezer:/\n", false},
      {"7:freezer:/frozen_x\n3:cpu:/\n", true},
      {"0::/frozen\n", false},
  };
  for (const auto& c : cases) {
    sample('D', 1, 1, "1 2 3\n", c.first);
    EXPECT_EQ(rec->frozen, c.second) << c.first;
  }
  unlink(dir.path("cgroup").c_str());
  get_stat(nullptr, dir.dir());
  EXPECT_FALSE(rec->frozen);
}

TEST_F(CraftedTask, ReadStatWithProcNeedsAPidInfo) {
  pid_info unknown = {-1, -1, -1};
  LogCapture log;
  read_stat_with_proc(nullptr);
  read_stat_with_proc(&unknown);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "I read_stat_with_proc nullptr", "I reading /proc/-1/task/-1",
                                "I Read /proc/-1/task/-1/stat failed", "I read stat failed"}));
  EXPECT_FALSE(rec->valid);
}

TEST_F(CraftedTask, AFifteenCharacterNameIsKeptWhole) {
  write_file(dir.path("stat"), "9 (abcdefghijklmno) D 0 1 1 0 -1 4194624 100 0 0 0 1 1\n");
  get_stat(nullptr, dir.dir());
  EXPECT_STREQ(mTids.at("abcdefghijklmno").comm, "abcdefghijklmno");
}

// ---------------------------------------------------------------------------------------------
// Real threads.

struct LiveCase {
  char wanted;           // the state the stand-in puts the thread in
  char main_state;       // the stand-in's main thread
  bool watch_main;       // sample the main thread instead of the named one
  int64_t stuck_after3;  // after three samples
};

class LiveThread : public testing::TestWithParam<LiveCase> {};

TEST_P(LiveThread, StallTimeFollowsTheKernelsView) {
  const LiveCase& c = GetParam();
  std::string proc_name = unique("p"), thread = unique("t");
  reset_daemon(true, 30000);
  use_properties("persist.vendor.sw.processes=" + proc_name + ":" + thread + " " + proc_name +
                 "\n");
  get_monitor_info();
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread",
                              thread + ":" + std::string(1, c.wanted), "--main",
                              std::string(1, c.main_state)});
  ASSERT_GT(s.pid, 0);
  pid_t tid = c.watch_main ? s.pid : s.tid(thread);
  proc& rec = mTids.at(c.watch_main ? proc_name : thread);
  pid_info info = {tid, s.pid, -1};
  char expected_state = c.watch_main ? c.main_state : c.wanted;
  ASSERT_TRUE(wait_for_state(s.pid, tid, expected_state));
  LogCapture log;
  for (int i = 0; i < 3; ++i) {
    get_stat(&info, task_path(s.pid, tid));
    if (c.wanted == 'R') usleep(20000);
  }
  EXPECT_EQ(rec.state, expected_state);
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(tid));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.stuck_ms, c.stuck_after3);
  EXPECT_FALSE(rec.is_app);
  std::string cmd = c.main_state == 'Z' ? "" : "/system/bin/" + proc_name;
  EXPECT_EQ(log.count("I change tid=" + std::to_string(tid) +
                      " comm=" + (c.watch_main ? proc_name : thread) + " cmd=" + cmd),
            1);
}

INSTANTIATE_TEST_SUITE_P(Cases, LiveThread,
                         testing::Values(LiveCase{'D', 'S', false, 60000},
                                         LiveCase{'S', 'S', false, 0}, LiveCase{'R', 'S', false, 0},
                                         LiveCase{'S', 'Z', true, 60000}));

TEST(LiveThread, ASecondThreadOfTheNameRebindsTheRecord) {
  std::string thread = unique("t");
  reset_daemon(true, 30000);
  use_properties("persist.vendor.sw.processes=a:" + thread + "\n");
  get_monitor_info();
  StandIn first = start_stand_in({"/vendor/bin/first", "--thread", thread + ":D"});
  StandIn second = start_stand_in({"/vendor/bin/second", "--thread", thread + ":D"});
  proc& rec = mTids.at(thread);
  pid_info info = {first.tid(thread), first.pid, -1};
  get_stat(&info, task_path(first.pid, first.tid(thread)));
  get_stat(&info, task_path(first.pid, first.tid(thread)));
  EXPECT_EQ(rec.stuck_ms, 30000);
  rec.reported = true;
  LogCapture log;
  // info still names the first thread: the pid is not taken over from it.
  get_stat(&info, task_path(second.pid, second.tid(thread)));
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(second.tid(thread)));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(first.pid));
  EXPECT_EQ(rec.stuck_ms, 0);
  EXPECT_FALSE(rec.reported);
  EXPECT_EQ(rec.cmd, "/vendor/bin/second");
  EXPECT_EQ(log.count("I change tid=" + std::to_string(second.tid(thread)) + " comm=" + thread +
                      " cmd=/vendor/bin/second"),
            1);
}

TEST(LiveThread, AppThreadsAreThoseOfAZygoteChildAndSleepingCounts) {
  std::string thread = unique("t");
  for (const char* parent : {"zygote64", "zygote", "zygote_secondary"}) {
    reset_daemon(true, 30000);
    use_properties("persist.vendor.sw.processes=app:" + thread + "\n");
    get_monitor_info();
    StandIn s = start_stand_in({parent, "--spawn", "com.example.app", "--thread", thread + ":S"});
    ASSERT_GT(s.pid, 0);
    proc& rec = mTids.at(thread);
    for (int i = 0; i < 3; ++i) get_stat(nullptr, task_path(s.pid, s.tid(thread)));
    bool app = std::string(parent) != "zygote_secondary";
    EXPECT_EQ(rec.is_app, app) << parent;
    EXPECT_EQ(rec.stuck_ms, app ? 60000 : 0) << parent;
  }
}

TEST(LiveThread, NamesFromCommAndCmdline) {
  StandIn s =
      start_stand_in({"/system/bin/app_process64 -Xzygote", "--thread", "Jit thread pool:S"});
  reset_daemon(false);
  EXPECT_EQ(get_comm(task_path(s.pid, s.tid("Jit thread pool"))), "Jit");
  EXPECT_EQ(get_proc_name(std::to_string(s.pid)), "/system/bin/app_process64");
  EXPECT_EQ(get_comm(task_path(s.pid, s.pid)), "app_process64");  // of "app_process64 -"
  EXPECT_EQ(get_proc_name("999999999"), "");
}

}  // namespace
