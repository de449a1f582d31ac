// The thread readers, on crafted task directories and on real threads in known states.
#include <gtest/gtest.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

using Lines = std::vector<std::string>;
const char kUnset[] = "ppid=4294967295, utime=4294967295, stime=4294967295";

TEST(StatParse, AcceptsOnlyAFullMatch) {
  const std::string tail = " 0 1 1 0 -1 4194624 100 0 0 0 5 6 0 0 20 0 1 0 7\n";
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"12 (a)b) S 1\n", std::string("match=3, tid=12, comm=a, state=b, ") + kUnset, false},
      {"12 () S" + tail, std::string("match=1, tid=12, comm=, state=?, ") + kUnset, false},
      {"12 (Jit thread pool) S" + tail,
       "match=6, tid=12, comm=Jit thread pool, state=S, ppid=0, "
       "utime=5, stime=6",
       true},
      {"12 (abcdefghijklmnop) D" + tail,
       "match=6, tid=12, comm=abcdefghijklmnop, state=D, "
       "ppid=0, utime=5, stime=6",
       true},
      {"12 (abcdefghijklmnopq) D" + tail,
       std::string("match=2, tid=12, comm=abcdefghijklmnop, state=?, ") + kUnset, false},
      {"12(a)D 0 1 1 0 -1 -4194624 100 0 0 99999999999999999999 5 6",
       "match=6, tid=12, comm=a, state=D, ppid=0, utime=5, stime=6", true},
      {"x (a) D 0", std::string("match=0, tid=4294967295, comm=, state=?, ") + kUnset, false},
  };
  TempDir dir;
  for (const auto& [stat, match_line, binds] : cases) {
    reset_daemon(true);
    use_properties("persist.vendor.sw.processes=p:a:abcdefghijklmnop\n");
    get_monitor_info();
    mTids.emplace("Jit thread pool", proc{});  // a name with blanks cannot be configured
    write_file(dir.path("stat"), stat);
    LogCapture log;
    get_stat(nullptr, dir.dir);
    ASSERT_FALSE(log.messages().empty());
    EXPECT_EQ(log.messages()[0], "I " + match_line);
    EXPECT_EQ(log.count("I stat err match"), binds ? 0 : 1) << stat;
    int bound = 0;
    for (const auto& entry : mTids) bound += entry.second.valid;
    EXPECT_EQ(bound, binds ? 1 : 0) << stat;
  }
}

// A crafted task directory sampled into the record "w", with debug on.
class CraftedTask : public testing::Test {
 protected:
  void SetUp() override {
    reset_daemon(true, 30000);
    use_properties("persist.vendor.sw.processes=p:w:abcdefghijklmno\n");
    get_monitor_info();
  }
  void sample(char state, unsigned utime, unsigned stime, const std::string& schedstat,
              const std::string& cgroup = "") {
    write_file(dir.path("stat"), "7 (w) " + std::string(1, state) +
                                     " 0 1 1 0 -1 4194624 100 0 0 0 " + std::to_string(utime) +
                                     " " + std::to_string(stime) + " 0 0\n");
    write_file(dir.path("schedstat"), schedstat);
    write_file(dir.path("cgroup"), cgroup);
    get_stat(nullptr, dir.dir);
  }
  proc& rec() { return mTids.at("w"); }
  TempDir dir;
};

TEST_F(CraftedTask, StallTimeGrowsOnlyWithoutProgressInAWatchedState) {
  struct Step {
    char state;
    unsigned utime, stime;
    const char* schedstat;
    int64_t stuck_after;
    bool reported_after;  // set before each sample; progress clears it
  };
  // clang-format off
  const Step steps[] = {
      {'D', 10, 10, "1 2 3\n", 0, false},      // bound
      {'D', 10, 10, "1 2 3\n", 30000, true},   // nothing moved
      {'D', 10, 10, "1 2 3\n", 60000, true},
      {'D', 10, 10, "1 2 4\n", 0, false},      // ran on a processor
      {'D', 10, 11, "1 2 4\n", 0, false},      // processor time
      {'Z', 10, 11, "1 2 4\n", 0, false},      // another state
      {'Z', 10, 11, "1 2 0\n", 30000, true},   // a zero count is no progress
      {'Z', 10, 11, "", 60000, true},          // nor an unreadable one
      {'Z', 10, 11, "1 2 18446744073709551615\n", 90000, true},
      {'Z', 4294967295u, 22, "1 2 4\n", 120000, true},  // the same sum modulo 2^32
      {'S', 4294967295u, 22, "1 2 4\n", 0, false},      // S is not watched outside apps
      {'S', 4294967295u, 22, "1 2 4\n", 0, true},
      {'R', 4294967295u, 22, "1 2 5\n", 0, false},
  };
  // clang-format on
  for (const Step& s : steps) {
    rec().reported = true;
    sample(s.state, s.utime, s.stime, s.schedstat);
    EXPECT_EQ(rec().stuck_ms, s.stuck_after) << "step " << (&s - steps);
    EXPECT_EQ(rec().reported, s.reported_after) << "step " << (&s - steps);
    EXPECT_EQ(rec().state, s.state);
  }
  EXPECT_EQ(rec().switches, 4u);  // the last step's state is not watched: schedstat is not read
  EXPECT_EQ(rec().tid, 7u);
  EXPECT_TRUE(rec().updated && rec().valid);
}

TEST_F(CraftedTask, SchedstatAndCgroupFiles) {
  const std::tuple<const char*, uint64_t, const char*> counts[] = {
      {"1 2 3\n", 3, "I switches:3"},
      {"99999999999999999999999 -1 8\n", 8, "I switches:8"},
      {"garbage\n", 8, "I switches:8"},
      {"", 8, "I read schedstat failed "},
  };
  for (const auto& [content, switches, line] : counts) {
    write_file(dir.path("schedstat"), content);
    LogCapture log;
    get_schedstat(&rec(), dir.dir);
    EXPECT_EQ(rec().switches, switches) << content;
    EXPECT_EQ(log.messages().back(), line + std::string(*content ? "" : dir.dir));
  }
  const std::pair<const char*, bool> cgroups[] = {{"7:freezer:/frozen\n", true},
                                                  {"7:freezer:/\n", false},
                                                  {"7:freezer:/frozen_x\n3:cpu:/\n", true},
                                                  {"0::/frozen\n", false}};
  for (const auto& [cgroup, frozen] : cgroups) {
    sample('D', 1, 1, "1 2 3\n", cgroup);
    EXPECT_EQ(rec().frozen, frozen) << cgroup;
  }
}

TEST_F(CraftedTask, ReadStatWithProcNeedsAPidInfo) {
  pid_info unknown = {-1, -1, -1};
  LogCapture log;
  read_stat_with_proc(nullptr);
  read_stat_with_proc(&unknown);
  EXPECT_EQ(log.messages(), (Lines{"I read_stat_with_proc nullptr", "I reading /proc/-1/task/-1",
                                   "I Read /proc/-1/task/-1/stat failed", "I read stat failed"}));
  EXPECT_FALSE(rec().valid);
}

// Real threads: three samples of one thread the stand-in keeps in a state.
struct LiveCase {
  char state, main_state;
  bool watch_main;  // sample the main thread instead of the named one
  int64_t stuck_after3;
};

class LiveThread : public testing::TestWithParam<LiveCase> {};

TEST_P(LiveThread, StallTimeFollowsTheKernelsView) {
  const LiveCase& c = GetParam();
  std::string name = unique("p"), thread = unique("t");
  reset_daemon(true, 30000);
  use_properties("persist.vendor.sw.processes=" + name + ":" + thread + " " + name + "\n");
  get_monitor_info();
  StandIn s = start_stand_in({"/system/bin/" + name, "--thread", thread + ":" + c.state, "--main",
                              std::string(1, c.main_state)});
  pid_t tid = c.watch_main ? s.pid : s.tid(thread);
  ASSERT_TRUE(wait_for_state(s.pid, tid, c.watch_main ? c.main_state : c.state));
  proc& rec = mTids.at(c.watch_main ? name : thread);
  pid_info info = {tid, s.pid, -1};
  LogCapture log;
  for (int i = 0; i < 3; ++i) get_stat(&info, task_path(s.pid, tid));
  EXPECT_EQ(rec.state, c.watch_main ? c.main_state : c.state);
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(tid));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.stuck_ms, c.stuck_after3);
  EXPECT_FALSE(rec.is_app);
  // A zombie leader's command line reads empty.
  std::string cmd = c.main_state == 'Z' ? "" : "/system/bin/" + name;
  EXPECT_EQ(log.count("I change tid=" + std::to_string(tid) +
                      " comm=" + (c.watch_main ? name : thread) + " cmd=" + cmd),
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
  get_stat(&info, task_path(second.pid, second.tid(thread)));  // info names another thread
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(second.tid(thread)));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(first.pid)) << "the pid is not taken from info";
  EXPECT_TRUE(rec.stuck_ms == 0 && !rec.reported);
  EXPECT_EQ(log.count("I change tid=" + std::to_string(second.tid(thread)) + " comm=" + thread +
                      " cmd=/vendor/bin/second"),
            1);
}

TEST(LiveThread, AppThreadsAreThoseOfAZygoteChildAndTheirSleepCounts) {
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
  StandIn s = start_stand_in({"/system/bin/app_process64 -X", "--thread", "Jit thread pool:S"});
  reset_daemon(false);
  EXPECT_EQ(get_comm(task_path(s.pid, s.tid("Jit thread pool"))), "Jit");
  EXPECT_EQ(get_comm(task_path(s.pid, s.pid)), "app_process64");
  EXPECT_EQ(get_proc_name(std::to_string(s.pid)), "/system/bin/app_process64");
  EXPECT_EQ(get_proc_name("999999999"), "");
}

}  // namespace
