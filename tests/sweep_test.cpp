// The collection sweep: the /proc walk and the ps lookups, on real stand-in processes.
#include <dirent.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

namespace {

using Lines = std::vector<std::string>;

class Sweep : public testing::Test {
 protected:
  void configure(const std::string& processes) {
    reset_daemon(true, 30000);
    use_properties("persist.vendor.sw.processes=" + processes + "\n");
    get_monitor_info();
  }
  StandIn start(const std::vector<std::string>& threads, const std::string& dir = "/system/bin/") {
    std::vector<std::string> argv = {dir + name};
    for (const std::string& t : threads) argv.insert(argv.end(), {"--thread", t});
    return start_stand_in(argv);
  }
  const std::string name = unique("p"), thread = unique("t"), ghost = unique("ghost");
};

TEST_F(Sweep, ProcWalkSamplesTheMonitoredThreadsOfAMatchedProcess) {
  configure(name + ":" + thread);
  StandIn s = start({thread + ":D", "other:S"});
  const std::string pid = std::to_string(s.pid), tid = std::to_string(s.tid(thread));
  LogCapture log;
  collect_proc_info(false);
  // The walk's own lines for the stand-in, in order. (Its vfork child shares its command line,
  // so it is matched too, and holds no monitored thread.)
  Lines walk;
  for (const std::string& l : log.messages()) {
    if (l == "I go through proc" || l == "I close proc" ||
        l == "I find monitored proc " + pid + ":" + name || l.rfind("I check monitor", 0) == 0 ||
        l.rfind("I match=", 0) == 0 || l.rfind("I switches:", 0) == 0) {
      walk.push_back(l.rfind("I switches:", 0) == 0 ? "I switches:"
                                                    : l.substr(0, l.find(", ppid=")));
    }
  }
  EXPECT_EQ(walk, (Lines{"I go through proc", "I find monitored proc " + pid + ":" + name,
                         "I check monitor thread:" + task_path(s.pid, s.tid(thread)),
                         "I match=6, tid=" + tid + ", comm=" + thread + ", state=D",
                         "I switches:", "I close proc"}));
  const proc& rec = mTids.at(thread);
  EXPECT_TRUE(rec.pid == static_cast<uint32_t>(s.pid) && rec.updated);
  EXPECT_EQ(proc_dir.fd, -1) << "every walk closes /proc";
  collect_proc_info(false);  // opened afresh, the same thread, without progress
  EXPECT_EQ(rec.stuck_ms, 30000);
}

TEST_F(Sweep, ProcWalkWatchesTheMainThreadOfAProcessEntry) {
  configure(name);
  StandIn s = start({thread + ":S"});
  collect_proc_info(false);
  const proc& rec = mTids.at(name);
  EXPECT_TRUE(rec.tid == static_cast<uint32_t>(s.pid) && rec.pid == static_cast<uint32_t>(s.pid));
  EXPECT_EQ(rec.cmd, "/system/bin/" + name);
}

TEST_F(Sweep, ProcWalkSamplesEveryProcessAndThreadOfAName) {
  configure(name + ":" + thread + " " + name + ":second");
  StandIn a = start({thread + ":S", thread + ":S", "second:S"}, "");  // a bare command line too
  StandIn b = start({thread + ":S"}, "/vendor/bin/");
  LogCapture log;
  collect_proc_info(false);
  Lines m = log.messages();
  EXPECT_EQ(count_prefix(m, "I find monitored proc "), 2);
  EXPECT_EQ(count_prefix(m, "I check monitor thread:/proc/" + std::to_string(a.pid) + "/"), 2);
  EXPECT_EQ(count_prefix(m, "I check monitor thread:/proc/" + std::to_string(b.pid) + "/"), 1);
  EXPECT_EQ(count_prefix(m, "I change tid="), 3) << "one record, rebound by each thread";
  EXPECT_FALSE(mTids.at("second").valid) << "only the first entry of a name is used";
}

TEST_F(Sweep, ProcWalkCountsAThreadNeverSeenAndOnlyInARunningProcess) {
  configure(name + ":" + thread + ":absent " + ghost + ":" + thread + ":other " + ghost);
  StandIn s = start({thread + ":S"});
  for (int sweep = 1; sweep <= 2; ++sweep) {
    LogCapture log;
    collect_proc_info(false);
    EXPECT_EQ(log.count("I thread absent not start"), 1);
    EXPECT_EQ(log.count("I thread " + thread + " not start"), 0);
  }
  const proc& absent = mTids.at("absent");
  EXPECT_TRUE(absent.stuck_ms == 60000 && absent.pid == static_cast<uint32_t>(s.pid));
  for (const char* untouched : {"other", ghost.c_str()}) {
    EXPECT_TRUE(mTids.at(untouched).pid == kNoId && mTids.at(untouched).stuck_ms == 0);
  }
}

TEST(CommandBaseName, TakesTheLastPieceOnlyWhenThereAreTwoOrMore) {
  const std::pair<const char*, const char*> cases[] = {{"/system/bin/foo", "foo"},
                                                       {"foo", "foo"},
                                                       {"/foo", "/foo"},
                                                       {"foo/", "foo/"},
                                                       {"a//b", "b"},
                                                       {"a/b/", "b"},
                                                       {"//", "//"},
                                                       {"", ""}};
  for (const auto& [name, base] : cases) EXPECT_EQ(command_base_name(name), base) << name;
}

TEST(ValidTidDir, AcceptsDirectoriesWhoseNameStartsWithADigit) {
  // clang-format off
  const std::tuple<const char*, uint8_t, bool, const char*> cases[] = {
      {"1", DT_DIR, true, "/proc/1"}, {"12ab", DT_DIR, true, "/proc/12ab"},
      {"self", DT_DIR, false, "-"}, {"1", DT_REG, false, "-"}, {"1", DT_LNK, false, "-"},
      {"1", DT_UNKNOWN, true, "/proc/1"}, {"999999999", DT_UNKNOWN, false, "/proc/999999999"}};
  // clang-format on
  for (const auto& [name, type, valid, path] : cases) {
    alignas(8) char buf[sizeof(linux_dirent64) + 64] = {};
    linux_dirent64* d = reinterpret_cast<linux_dirent64*>(buf);
    d->d_type = type;
    strcpy(d->d_name, name);
    std::string got = "-";
    EXPECT_EQ(get_valid_tid_dir(d, &got), valid) << name;
    EXPECT_EQ(got, path) << name;
  }
}

// The shell way, with an Android-layout ps first in PATH.
class ShellSweep : public Sweep {
 protected:
  void SetUp() override { setenv("PATH", (android_ps_dir() + ":" + saved_).c_str(), 1); }
  void TearDown() override { setenv("PATH", saved_.c_str(), 1); }
  std::string saved_ = getenv("PATH");
};

TEST_F(ShellSweep, FindsAProcessAndItsThreadThroughPs) {
  configure(name + ":" + thread);
  StandIn s = start({thread + ":D"});
  LogCapture log;
  collect_proc_info(true);
  for (const std::string& line :
       {"I [sh] cmd=ps -e|grep " + name,
        "I [sh] cmd=ps -T -p " + std::to_string(s.pid) + " |grep " + thread,
        "I [sh] tid=" + std::to_string(s.tid(thread)),
        "I reading " + task_path(s.pid, s.tid(thread))}) {
    EXPECT_EQ(log.count(line), 1) << line;
  }
  EXPECT_EQ(log.count("I go through proc"), 0);
  const proc& rec = mTids.at(thread);
  EXPECT_TRUE(rec.pid == static_cast<uint32_t>(s.pid) && rec.state == 'D');
}

TEST_F(ShellSweep, FindProcFillsThePidInfo) {
  reset_daemon(false);
  StandIn s = start({thread + ":S"});
  const std::tuple<std::string, std::string, pid_info> cases[] = {
      {name, "", {s.pid, s.pid, getpid()}},
      {name, thread, {s.tid(thread), s.pid, getpid()}},
      {name, "absent", {-1, s.pid, getpid()}},
      {ghost, "", {7, 8, 9}},  // not running: left as it was
  };
  for (const auto& [process, thread_name, want] : cases) {
    pid_info info = {7, 8, 9};
    sh_find_proc(&info, process, thread_name);
    EXPECT_TRUE(info.tid == want.tid && info.pid == want.pid && info.ppid == want.ppid)
        << process << ":" << thread_name << " " << info.tid << " " << info.pid << " " << info.ppid;
  }
}

TEST_F(ShellSweep, AnAbsentThreadIsBoundToItsProcessWithoutAThread) {
  configure(name + ":absent");
  StandIn s = start({thread + ":S"});
  proc& rec = mTids.at("absent");
  for (int64_t stuck : {30000, 60000}) {
    rec.reported = true;
    collect_proc_info(true);
    EXPECT_TRUE(rec.valid && rec.tid == kNoId && rec.pid == static_cast<uint32_t>(s.pid));
    EXPECT_EQ(rec.ppid, static_cast<uint32_t>(getpid()));
    EXPECT_EQ(rec.cmd, "/system/bin/" + name);
    EXPECT_EQ(rec.stuck_ms, stuck);
    EXPECT_EQ(rec.reported, stuck != 30000) << "cleared by the first bind only";
  }
}

TEST_F(ShellSweep, AnEntryWhoseProcessIsNotRunningWorksOnWhatTheLastFoundOneLeft) {
  StandIn s = start({thread + ":S"});
  configure(name + ":" + thread + " " + ghost + ":u1:u2");
  {
    LogCapture log;  // the found thread is read again for each thread name of the next entry
    collect_proc_info(true);
    EXPECT_EQ(log.count("I [sh] proc " + ghost + " not started"), 2);
    EXPECT_EQ(log.count("I reading " + task_path(s.pid, s.tid(thread))), 3);
  }
  configure(name + ":absent " + ghost + ":u1");  // tid -1 left: u1 counts as absent from it
  collect_proc_info(true);
  EXPECT_TRUE(mTids.at("u1").pid == static_cast<uint32_t>(s.pid) && mTids.at("u1").tid == kNoId);
  EXPECT_EQ(mTids.at("u1").stuck_ms, 30000);
  configure(ghost + ":u1");  // nothing found first: nothing touched
  collect_proc_info(true);
  EXPECT_EQ(mTids.at("u1").pid, kNoId);
}

TEST(SelfTest, TrustsPsOnlyWhenItListsThisProcessFirst) {
  // clang-format off
  const std::tuple<std::string, bool, std::string> cases[] = {
      {"root $PID 1 100 10 0 0 S stall_ward\n", true, "I [sh] sw=$PID ret=1"},
      {"root 1 0 100 10 0 0 S stall_ward\nroot $PID 1 100 10 0 0 S stall_ward\n", false, "I [sh] sw=1 ret=0"},
      {"root $PID 1 stall_ward\n", false, ""},
      {"", false, ""},
      {"$PID ? 00:00:00 stall_ward\n", false, ""},  // Debian's layout
      {"$PID ? 00:00:00 stall_ward\n7 ? 00:00:00 stall_ward\n", false, "I [sh] sw=? ret=0"}};
  // clang-format on
  TempDir dir;
  write_file(dir.path("ps"), "#!/bin/sh\ncat '" + dir.path("out") + "'\n");
  chmod(dir.path("ps").c_str(), 0755);
  std::string saved = getenv("PATH"), pid = std::to_string(getpid());
  setenv("PATH", (dir.dir + ":" + saved).c_str(), 1);
  for (const auto& [output, available, line] : cases) {
    write_file(dir.path("out"), replace_all(output, "$PID", pid));
    reset_daemon(true);
    LogCapture log;
    EXPECT_EQ(is_sh_available(), available) << output;
    Lines want = line.empty() ? Lines{} : Lines{replace_all(line, "$PID", pid)};
    Lines got;
    for (const std::string& l : log.messages()) {
      if (l.rfind("I [sh] sw=", 0) == 0) got.push_back(l);
    }
    EXPECT_EQ(got, want) << output;
  }
  setenv("PATH", saved.c_str(), 1);
}

}  // namespace
