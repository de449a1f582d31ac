// The collection sweep: the /proc walk and the shell lookups, on real stand-in processes.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

namespace {

int count_prefix(const std::vector<std::string>& lines, const std::string& prefix) {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
    return l.compare(0, prefix.size(), prefix) == 0;
  }));
}

class Sweep : public testing::Test {
 protected:
  void configure(const std::string& processes) {
    reset_daemon(true, 30000);
    use_properties("persist.vendor.sw.processes=" + processes + "\n");
    get_monitor_info();
  }
  const std::string proc_name = unique("p");
  const std::string thread = unique("t");
};

TEST_F(Sweep, ProcWalkSamplesTheMonitoredThreadsOfAMatchedProcess) {
  configure(proc_name + ":" + thread);
  StandIn s = start_stand_in(
      {"/system/bin/" + proc_name, "--thread", thread + ":D", "--thread", "other:S"});
  ASSERT_GT(s.pid, 0);
  LogCapture log;
  collect_proc_info(false);
  std::vector<std::string> m = log.messages();
  const std::string pid = std::to_string(s.pid), tid = std::to_string(s.tid(thread));
  // The walk's own lines for the stand-in, in order, between the readers' lines. (Its vfork
  // child shares its command line, so it is matched too, and holds no monitored thread.)
  std::vector<std::string> walk;
  for (const std::string& line : m) {
    if (line == "I go through proc" || line == "I close proc" ||
        line == "I find monitored proc " + pid + ":" + proc_name ||
        line.rfind("I check monitor", 0) == 0 || line.rfind("I match=", 0) == 0 ||
        line.rfind("I switches:", 0) == 0) {
      walk.push_back(line);
    }
  }
  ASSERT_EQ(walk.size(), 6u) << testing::PrintToString(m);
  EXPECT_EQ(walk[0], "I go through proc");
  EXPECT_EQ(walk[1], "I find monitored proc " + pid + ":" + proc_name);
  EXPECT_EQ(walk[2], "I check monitor thread:" + task_path(s.pid, s.tid(thread)));
  EXPECT_EQ(walk[3].rfind("I match=6, tid=" + tid + ", comm=" + thread + ", state=D, ppid=", 0),
            0u);
  EXPECT_EQ(walk[4].rfind("I switches:", 0), 0u);
  EXPECT_EQ(walk[5], "I close proc");
  const proc& rec = mTids.at(thread);
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(s.tid(thread)));
  EXPECT_TRUE(rec.updated);
  EXPECT_EQ(proc_dir.fd, -1) << "every walk closes /proc";
  // The next walk opens /proc afresh and finds the same thread, now without progress.
  collect_proc_info(false);
  EXPECT_EQ(rec.stuck_ms, 30000);
}

TEST_F(Sweep, ProcWalkWatchesTheMainThreadOfAProcessEntry) {
  configure(proc_name);
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":S"});
  collect_proc_info(false);
  const proc& rec = mTids.at(proc_name);
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.cmd, "/system/bin/" + proc_name);
}

TEST_F(Sweep, ProcWalkSamplesEveryProcessAndThreadOfAName) {
  configure(proc_name + ":" + thread);
  // A plain command line matches as well as a path.
  StandIn a = start_stand_in({proc_name, "--thread", thread + ":S", "--thread", thread + ":S"});
  StandIn b = start_stand_in({"/vendor/bin/" + proc_name, "--thread", thread + ":S"});
  LogCapture log;
  collect_proc_info(false);
  std::vector<std::string> m = log.messages();
  EXPECT_EQ(count_prefix(m, "I find monitored proc "), 2);
  EXPECT_EQ(count_prefix(m, "I check monitor thread:/proc/" + std::to_string(a.pid) + "/"), 2);
  EXPECT_EQ(count_prefix(m, "I check monitor thread:/proc/" + std::to_string(b.pid) + "/"), 1);
  EXPECT_EQ(count_prefix(m, "I change tid="), 3) << "one record, rebound by each thread";
}

TEST_F(Sweep, ProcWalkCountsAThreadNeverSeenAsNotStarted) {
  configure(proc_name + ":" + thread + ":absent");
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":S"});
  for (int sweep = 1; sweep <= 2; ++sweep) {
    LogCapture log;
    collect_proc_info(false);
    EXPECT_EQ(log.count("I thread absent not start"), 1);
    EXPECT_EQ(log.count("I thread " + thread + " not start"), 0);
  }
  const proc& absent = mTids.at("absent");
  EXPECT_EQ(absent.stuck_ms, 60000);
  EXPECT_EQ(absent.pid, static_cast<uint32_t>(s.pid));
  EXPECT_FALSE(absent.valid);
}

TEST_F(Sweep, ProcWalkLeavesTheRecordsOfAProcessNotRunning) {
  std::string ghost = unique("ghost");
  configure(ghost + ":" + thread + " " + ghost);
  LogCapture log;
  collect_proc_info(false);
  for (const auto& entry : mTids) {
    EXPECT_EQ(entry.second.pid, kNoId) << entry.first;
    EXPECT_EQ(entry.second.stuck_ms, 0) << entry.first;
  }
  EXPECT_EQ(count_prefix(log.messages(), "I find monitored proc"), 0);
}

TEST_F(Sweep, ProcWalkUsesOnlyTheFirstEntryOfAProcessName) {
  configure(proc_name + ":" + thread + " " + proc_name + ":second");
  StandIn s = start_stand_in(
      {"/system/bin/" + proc_name, "--thread", thread + ":S", "--thread", "second:S"});
  collect_proc_info(false);
  EXPECT_TRUE(mTids.at(thread).valid);
  EXPECT_FALSE(mTids.at("second").valid);
  EXPECT_EQ(mTids.at("second").pid, kNoId);
}

struct DirentCase {
  const char* name;
  uint8_t type;
  bool valid;
  const char* path;  // the path afterwards ("-" when left untouched)
};

class ValidTidDir : public testing::TestWithParam<DirentCase> {};

TEST_P(ValidTidDir, AcceptsDirectoriesWhoseNameStartsWithADigit) {
  alignas(8) char buf[sizeof(linux_dirent64) + 64] = {};
  linux_dirent64* d = reinterpret_cast<linux_dirent64*>(buf);
  d->d_type = GetParam().type;
  strcpy(d->d_name, GetParam().name);
  std::string path = "-";
  EXPECT_EQ(get_valid_tid_dir(d, &path), GetParam().valid);
  EXPECT_EQ(path, GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ValidTidDir,
    testing::Values(DirentCase{"1", DT_DIR, true, "/proc/1"},
                    DirentCase{"12ab", DT_DIR, true, "/proc/12ab"},
                    DirentCase{"self", DT_DIR, false, "-"}, DirentCase{".", DT_DIR, false, "-"},
                    DirentCase{"1", DT_REG, false, "-"}, DirentCase{"1", DT_LNK, false, "-"},
                    DirentCase{"1", DT_UNKNOWN, true, "/proc/1"},
                    DirentCase{"999999999", DT_UNKNOWN, false, "/proc/999999999"}));

// ---------------------------------------------------------------------------------------------
// The shell way, with an Android-layout ps first in PATH.

class ShellSweep : public Sweep {
 protected:
  void SetUp() override {
    saved_path_ = getenv("PATH");
    std::string path = android_ps_dir() + ":" + saved_path_;
    setenv("PATH", path.c_str(), 1);
  }
  void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }
  std::string saved_path_;
};

TEST_F(ShellSweep, FindsAProcessAndItsThreadThroughPs) {
  configure(proc_name + ":" + thread);
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":D"});
  LogCapture log;
  collect_proc_info(true);
  std::vector<std::string> m = log.messages();
  EXPECT_EQ(log.count("I [sh] cmd=ps -e|grep " + proc_name), 1);
  EXPECT_EQ(log.count("I [sh] cmd=ps -T -p " + std::to_string(s.pid) + " |grep " + thread), 1);
  EXPECT_EQ(log.count("I [sh] tid=" + std::to_string(s.tid(thread))), 1);
  EXPECT_EQ(log.count("I reading " + task_path(s.pid, s.tid(thread))), 1);
  EXPECT_EQ(count_prefix(m, "I go through proc"), 0) << "the shell way does not walk /proc";
  const proc& rec = mTids.at(thread);
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(s.tid(thread)));
  EXPECT_EQ(rec.state, 'D');
}

TEST_F(ShellSweep, FindProcFillsThePidInfo) {
  reset_daemon(false);
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":S"});
  pid_info info = {-1, -1, -1};
  sh_find_proc(&info, proc_name, "");
  EXPECT_EQ(info.pid, s.pid);
  EXPECT_EQ(info.tid, s.pid);
  EXPECT_EQ(info.ppid, getpid());
  sh_find_proc(&info, proc_name, thread);
  EXPECT_EQ(info.tid, s.tid(thread));
  sh_find_proc(&info, proc_name, "absent");
  EXPECT_EQ(info.tid, -1);
  EXPECT_EQ(info.pid, s.pid);
  pid_info kept = {7, 8, 9};
  sh_find_proc(&kept, unique("ghost"), "");
  EXPECT_EQ(kept.tid, 7);
  EXPECT_EQ(kept.pid, 8);
  EXPECT_EQ(kept.ppid, 9);
}

TEST_F(ShellSweep, AnAbsentThreadIsBoundToItsProcessWithoutAThread) {
  configure(proc_name + ":absent");
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":S"});
  proc& rec = mTids.at("absent");
  rec.reported = true;
  LogCapture log;
  collect_proc_info(true);
  EXPECT_EQ(log.count("I [sh] thread absent not found"), 1);
  EXPECT_TRUE(rec.valid);
  EXPECT_EQ(rec.tid, kNoId);
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.ppid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(rec.cmd, "/system/bin/" + proc_name);
  EXPECT_FALSE(rec.reported);
  EXPECT_EQ(rec.stuck_ms, 30000);
  // Still absent: the count goes on without another rebind.
  rec.reported = true;
  collect_proc_info(true);
  EXPECT_EQ(rec.stuck_ms, 60000);
  EXPECT_TRUE(rec.reported);
}

TEST_F(ShellSweep, AnEntryWhoseProcessIsNotRunningWorksOnWhatTheLastFoundOneLeft) {
  std::string ghost = unique("ghost");
  // A found thread is read again for each thread name of the entry that follows.
  configure(proc_name + ":" + thread + " " + ghost + ":u1:u2");
  StandIn s = start_stand_in({"/system/bin/" + proc_name, "--thread", thread + ":S"});
  {
    LogCapture log;
    collect_proc_info(true);
    EXPECT_EQ(log.count("I [sh] proc " + ghost + " not started"), 2);
    EXPECT_EQ(log.count("I reading " + task_path(s.pid, s.tid(thread))), 3);
  }
  // A thread that was not found leaves tid -1: the next entry's threads are counted as absent
  // from the process found before.
  configure(proc_name + ":absent " + ghost + ":u1");
  collect_proc_info(true);
  const proc& u1 = mTids.at("u1");
  EXPECT_EQ(u1.pid, static_cast<uint32_t>(s.pid));
  EXPECT_EQ(u1.tid, kNoId);
  EXPECT_EQ(u1.stuck_ms, 30000);
  // With no process found first, nothing is touched.
  configure(ghost + ":u1");
  collect_proc_info(true);
  EXPECT_EQ(mTids.at("u1").pid, kNoId);
}

struct SelfTestCase {
  std::string ps_output;  // "$PID" stands for the test's own process id
  bool available;
  std::string log_line;  // empty: none
};

class SelfTest : public testing::TestWithParam<SelfTestCase> {};

TEST_P(SelfTest, TrustsPsOnlyWhenItListsThisProcessFirst) {
  TempDir dir;
  std::string pid = std::to_string(getpid());
  write_file(dir.path("out"), replace_all(GetParam().ps_output, "$PID", pid));
  write_file(dir.path("ps"), "#!/bin/sh\ncat '" + dir.path("out") + "'\n");
  chmod(dir.path("ps").c_str(), 0755);
  std::string saved = getenv("PATH");
  setenv("PATH", (dir.dir() + ":" + saved).c_str(), 1);
  reset_daemon(true);
  LogCapture log;
  bool available = is_sh_available();
  setenv("PATH", saved.c_str(), 1);
  EXPECT_EQ(available, GetParam().available);
  std::vector<std::string> lines;
  for (const std::string& l : log.messages()) {
    if (l.rfind("I [sh] sw=", 0) == 0) lines.push_back(l);
  }
  std::string want = replace_all(GetParam().log_line, "$PID", pid);
  EXPECT_EQ(lines, want.empty() ? std::vector<std::string>{} : std::vector<std::string>{want});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SelfTest,
    testing::Values(
        SelfTestCase{"root $PID 1 100 10 0 0 S stall_ward\n", true, "I [sh] sw=$PID ret=1"},
        SelfTestCase{"root 1 0 100 10 0 0 S stall_ward\nroot $PID 1 100 10 0 0 S stall_ward\n",
                     false, "I [sh] sw=1 ret=0"},
        SelfTestCase{"root $PID 1 stall_ward\n", false, ""}, SelfTestCase{"", false, ""},
        // Debian's own layout: PID TTY TIME CMD
        SelfTestCase{"$PID ? 00:00:00 stall_ward\n", false, ""},
        SelfTestCase{"$PID ? 00:00:00 stall_ward\n7 ? 00:00:00 stall_ward\n", false,
                     "I [sh] sw=? ret=0"}));

}  // namespace
