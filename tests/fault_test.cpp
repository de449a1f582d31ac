// What the environment can do to the daemon: churn, a hanging or lying ps, a missing trigger,
// bad property files. The real daemon, time sped up, driven only through its host interface.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>

#include "helpers.h"

namespace {

using Lines = std::vector<std::string>;

std::string enabled(const std::string& more) {
  return "persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=60\n" + more;
}

int open_fds(pid_t pid) {
  int n = 0;
  DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
  for (dirent* d; dir != nullptr && (d = readdir(dir)) != nullptr;) n += d->d_name[0] != '.';
  if (dir != nullptr) closedir(dir);
  return n;
}

long rss_kib(pid_t pid) {
  std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
  size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

// A PATH whose ps runs script.
std::string fake_ps(const TempDir& dir, const std::string& script) {
  write_file(dir.path("ps"), "#!/bin/sh\n" + script + "\n");
  chmod(dir.path("ps").c_str(), 0755);
  return "PATH=" + dir.dir + ":" + getenv("PATH");
}

// At least 1,000 sweeps (a hundredfold speed-up: 0.3 s each, the alarm at 1.2 s) while processes
// and threads with the monitored names come and go, rename themselves and linger as zombies,
// beside one thread that is truly stuck. Runs with STALL_WARD_SOAK=1 (scripts/test.sh --full).
TEST(Soak, ThousandSweepsOfChurnLeaveTheDaemonFlatAndOnTime) {
  if (getenv("STALL_WARD_SOAK") == nullptr) GTEST_SKIP() << "set STALL_WARD_SOAK=1 to soak";
  std::string churn = unique("churn"), stuck = unique("stuck");
  StandIn blocked = start_stand_in({"/system/bin/" + stuck, "--thread", "wedged:D"});
  DaemonRun run("persist.vendor.sw.enable=1\npersist.vendor.sw.processes=" + churn + ":watchdog " +
                    stuck + ":wedged\n",
                {"FAKETIME=+0 x100"});
  std::atomic<bool> stop{false};
  std::thread churner([&] {
    std::deque<Child> alive;  // ended ones stay unreaped for a while: zombies
    for (unsigned i = 0; !stop; ++i) {
      std::vector<std::string> argv = {i % 2 ? "/system/bin/" + churn : churn, "--thread",
                                       i % 3 ? "watchdog:S" : "watchdog:N", "--life",
                                       std::to_string(5 + i % 60)};
      if (i % 4 == 0) argv.insert(argv.end(), {"--main", "Z", "--thread", "other:S"});
      alive.push_back(spawn(stand_in_path(), argv));
      if (alive.size() > 40) alive.pop_front();
      sleep_ms(5);
    }
  });
  ASSERT_TRUE(run.wait_for("I close proc", 60000, 3));
  const pid_t pid = run.daemon.pid();
  const int fds_start = open_fds(pid);
  const long rss_start = rss_kib(pid);
  // The wedged thread is bound at the first sweep and has its evidence within a timeout and a
  // sweep, four or five sweeps later; the policy follows every four sweeps.
  bool on_time = run.wait_for("I dumped " + std::to_string(blocked.pid) + " D", 30000);
  Lines m = run.messages();
  auto first_dump = std::find(m.begin(), m.end(), "I dumped " + std::to_string(blocked.pid) + " D");
  int sweeps_before = count_prefix(Lines(m.begin(), first_dump), "I close proc");
  bool done = run.wait_for("I close proc", 900000, 1000);
  stop = true;
  churner.join();
  const int fds_end = open_fds(pid);
  const long rss_end = rss_kib(pid);
  m = run.messages();
  printf("soak: %d sweeps; descriptors %d -> %d; resident %ld -> %ld KiB; evidence at sweep %d\n",
         count(m, "I close proc"), fds_start, fds_end, rss_start, rss_end, sweeps_before);
  ASSERT_TRUE(done) << "fewer than 1,000 sweeps";
  EXPECT_TRUE(on_time);
  EXPECT_LE(sweeps_before, 6);
  EXPECT_EQ(run.daemon.wait(0), -1) << "the daemon still runs";
  EXPECT_EQ(count(m, "E Alarm! self stuck!"), 0);
  EXPECT_LE(count(m, "I go through proc") - count(m, "I close proc"), 1) << "each sweep completes";
  EXPECT_EQ(fds_end, fds_start);
  EXPECT_LE(rss_end, rss_start + 256);
}

TEST(Fault, AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn) {
  TempDir dir;
  // Hangs for 4 s of real time (its sleep is not sped up); the alarm comes after 60 s / 20 = 3 s.
  DaemonRun run(enabled("persist.vendor.sw.processes=init\n"),
                {fake_ps(dir, "LD_PRELOAD= exec sleep 4")});
  ASSERT_TRUE(run.wait_for("E Alarm! self stuck!", 20000));
  EXPECT_EQ(run.trigger.commands(2, 2000), (Lines{"w", "l"}));
  int sweeps = run.count("I close proc");
  EXPECT_TRUE(run.wait_for("I close proc", 20000, sweeps + 1)) << "sweeps go on after ps returns";
}

TEST(Fault, APsThatLiesOrSaysNothingLeavesTheProcWalk) {
  // The self-test greps for the daemon's name: a lie must carry it to be read at all.
  for (const char* script : {"echo 'x y z w stall_ward'; echo 'a b c stall_ward'", "exit 0",
                             "head -c 3000 /dev/urandom; echo stall_ward"}) {
    TempDir dir;
    std::string name = unique("sys");
    StandIn s = start_stand_in({"/system/bin/" + name});
    DaemonRun run(enabled("persist.vendor.sw.processes=" + name + "\n"), {fake_ps(dir, script)});
    EXPECT_TRUE(run.wait_for("I find monitored proc " + std::to_string(s.pid) + ":" + name, 10000))
        << script;
    EXPECT_EQ(run.daemon.wait(0), -1);
  }
}

TEST(Fault, AMissingOrUnwritableTriggerIsReportedAndTheStallStillHandled) {
  for (const std::string trigger : {"/nonexistent/sysrq-trigger", "/tmp"}) {
    std::string name = unique("sys");
    StandIn s = start_stand_in({"/system/bin/" + name, "--thread", "wd:D"});
    DaemonRun run(
        enabled("persist.vendor.sw.policy=panic\npersist.vendor.sw.processes=" + name + ":wd\n"),
        {"STALL_WARD_SYSRQ_TRIGGER=" + trigger});
    ASSERT_TRUE(run.wait_for("I trigger crash according to policy", 18000)) << trigger;
    EXPECT_TRUE(run.wait_for("E open sysrq failed!", 3000, 5)) << "w, l, then w, l, c";
    EXPECT_EQ(run.count("I dumped " + std::to_string(s.pid) + " D"), 1);
    EXPECT_EQ(run.daemon.wait(0), -1);
  }
}

TEST(Fault, BadPropertyFilesAndValuesAtTheirLimits) {
  const std::string p = "persist.vendor.sw.";
  struct Case {
    std::string properties;
    Lines expected;  // lines that must all be logged
  };
  const Case cases[] = {
      {"persist.vendor.sw.enable=1\nnot a property line\n=x\npersist.vendor.sw.timeout=7x\n",
       {"I get persist.vendor.sw.timeout =7", "I go through proc"}},
      {enabled(p + "processes=" + std::string(91, 'a') + "\n"),
       {"I get persist.vendor.sw.processes =" + std::string(91, 'a'), "I go through proc"}},
      {enabled(p + "processes=" + std::string(92, 'a') + "\n"),
       {"I get persist.vendor.sw.processes =system_server:watchdog surfaceflinger"}},
      {"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=2147483647\n",
       {"I get persist.vendor.sw.timeout =2147483647"}},
      {"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=-2147483648\n",
       {"I get persist.vendor.sw.timeout =-2147483648", "I go through proc"}},
  };
  for (const Case& c : cases) {
    DaemonRun run(c.properties);
    for (const std::string& line : c.expected) EXPECT_TRUE(run.wait_for(line, 5000)) << line;
    EXPECT_EQ(run.daemon.wait(0), -1) << c.properties;
  }
  // A file that cannot be read, or that others could change: one line, and the daemon parks.
  DaemonRun unreadable("", {"STALL_WARD_PROPERTIES=/nonexistent/sw.prop"});
  EXPECT_TRUE(eventually([&] { return unreadable.messages().size() == 2; }, 2000));
  EXPECT_EQ(count_prefix(unreadable.messages(), "E cannot read property file /nonexistent"), 1);
  TempDir dir;
  write_file(dir.path("props"), "persist.vendor.sw.enable=1\n");
  chmod(dir.path("props").c_str(), 0666);
  DaemonRun refused("", {"STALL_WARD_PROPERTIES=" + dir.path("props")});
  EXPECT_TRUE(eventually([&] { return refused.messages().size() == 2; }, 2000));
  EXPECT_EQ(count_prefix(refused.messages(), "E property file"), 1);
}

}  // namespace
