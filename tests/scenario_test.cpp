// The whole job: the real daemon, time sped up, against real stand-in processes, driven only
// through the property file, the SysRq trigger and the log.
//
// With a timeout of 60 s a sweep runs every 30 s (1.5 s of real time). A thread stuck from the
// start is bound at the first sweep, has 60 s of stall at the third, which gathers evidence, and
// gets the policy at the fifth.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "helpers.h"

namespace {

constexpr int kSweepMs = 1500;
constexpr int kWait = 12 * kSweepMs;  // for what is due within a few sweeps, with room to spare

std::string props(const std::string& processes, const std::string& policy) {
  return "persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=60\npersist.vendor.sw.policy=" +
         policy + "\npersist.vendor.sw.processes=" + processes + "\n";
}

std::string signals_in(const std::string& path) {
  return read_file_or_empty(path);
}

bool wait_for_signals(const std::string& path, const std::string& want, int timeout_ms) {
  for (int waited = 0; signals_in(path) != want; waited += 50) {
    if (waited > timeout_ms) return false;
    usleep(50000);
  }
  return true;
}

struct PolicyCase {
  const char* policy;
  std::vector<std::string> sysrq;  // every command, evidence first
  const char* line;                // "$PID" for the stand-in's id
};

class StuckInD : public testing::TestWithParam<PolicyCase> {};

TEST_P(StuckInD, EvidenceFirstThenThePolicy) {
  const PolicyCase& c = GetParam();
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  StandIn s = start_stand_in(
      {"/system/bin/" + name, "--thread", thread + ":D", "--signals", dir.path("sig")});
  ASSERT_GT(s.pid, 0);
  DaemonRun run(props(name + ":" + thread, c.policy));
  std::string pid = std::to_string(s.pid);

  ASSERT_TRUE(run.wait_for("I dumped " + pid + " D", kWait)) << run.log();
  EXPECT_EQ(run.trigger.wait_for(2, 1000), (std::vector<std::string>{"w", "l"}));
  ASSERT_TRUE(run.wait_for(replace_all(c.line, "$PID", pid), kWait)) << run.log();
  EXPECT_EQ(run.trigger.wait_for(c.sysrq.size(), 2000), c.sysrq);
  if (std::string(c.policy) == "kill") {
    int status = s.child.wait(2000);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
  } else {
    EXPECT_EQ(s.child.wait(0), -1) << "still running";
  }
  EXPECT_EQ(signals_in(dir.path("sig")), "") << "a blocked thread gets kernel dumps only";
}

INSTANTIATE_TEST_SUITE_P(
    Policies, StuckInD,
    testing::Values(PolicyCase{"kill", {"w", "l"}, "I killing proc $PID"},
                    PolicyCase{
                        "panic", {"w", "l", "w", "l", "c"}, "I trigger crash according to policy"},
                    PolicyCase{"", {"w", "l"}, "I nothing to do accroding to policy"}));

TEST(Scenario, AnAppThreadAsleepGetsSigquitThenTheDumpSignal) {
  std::string app = unique("app"), plain = unique("plain"), t1 = unique("ta"), t2 = unique("tb");
  TempDir dir;
  StandIn zygote_child = start_stand_in(
      {"zygote64", "--spawn", app, "--thread", t1 + ":S", "--signals", dir.path("app.sig")});
  StandIn ordinary = start_stand_in(
      {"/system/bin/" + plain, "--thread", t2 + ":S", "--signals", dir.path("plain.sig")});
  ASSERT_GT(zygote_child.pid, 0);
  ASSERT_GT(ordinary.pid, 0);
  DaemonRun run(props(app + ":" + t1 + " " + plain + ":" + t2, ""));

  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(zygote_child.pid), kWait)) << run.log();
  // SIGQUIT first, then the dump signal after the pause.
  EXPECT_TRUE(wait_for_signals(dir.path("app.sig"), "sig=3\nsig=35\n", 2000))
      << signals_in(dir.path("app.sig"));
  ASSERT_TRUE(run.wait_for("I nothing to do accroding to policy", kWait)) << run.log();
  EXPECT_EQ(signals_in(dir.path("plain.sig")), "") << "an ordinary thread may sleep";
  EXPECT_EQ(run.count("I dumped " + std::to_string(ordinary.pid)), 0);
  EXPECT_EQ(run.trigger.commands(), std::vector<std::string>{});
}

TEST(Scenario, AZombieMainThreadIsFoundThroughPsAndItsParentAnswers) {
  std::string name = unique("zomb");
  TempDir dir;
  // The parent takes the dump signal and the policy for its zombie child.
  StandIn parent = start_stand_in({"zparent", "--signals", dir.path("parent.sig"), "--spawn",
                                   "/system/bin/" + name, "--main", "Z", "--thread", "live:S"});
  ASSERT_GT(parent.pid, 0);
  ASSERT_TRUE(wait_for_state(parent.pid, parent.pid, 'Z'));
  std::string path = android_ps_dir() + ":" + getenv("PATH");
  DaemonRun run(props(name, "kill"), {"PATH=" + path});

  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(parent.pid) + " Z", kWait)) << run.log();
  EXPECT_GE(run.count("I [sh] sw=" + std::to_string(run.daemon.pid()) + " ret=1"), 3);
  EXPECT_EQ(run.count("I go through proc"), 0) << "the /proc walk passes a zombie leader by";
  EXPECT_EQ(signals_in(dir.path("parent.sig")), "sig=35\n");
  EXPECT_EQ(run.trigger.wait_for(2, 1000), (std::vector<std::string>{"w", "l"}));
  int status = parent.child.wait(kWait);
  ASSERT_TRUE(WIFSIGNALED(status)) << run.log();
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(Scenario, AThreadThatNeverAppearsGetsProcessLevelEvidence) {
  std::string name = unique("sys");
  TempDir dir;
  StandIn s =
      start_stand_in({"/system/bin/" + name, "--thread", "other:S", "--signals", dir.path("sig")});
  DaemonRun run(props(name + ":absent", ""));
  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(s.pid), kWait)) << run.log();
  EXPECT_GE(run.count("I thread absent not start"), 2);
  EXPECT_TRUE(wait_for_signals(dir.path("sig"), "sig=35\n", 1000));
  EXPECT_EQ(run.trigger.commands(), std::vector<std::string>{});
}

// A cgroup v1 freezer group whose path contains "/frozen"; thawed and emptied when done.
class FrozenGroup {
 public:
  static constexpr const char* kRoot = "/sys/fs/cgroup/freezer";
  FrozenGroup() : path_(std::string(kRoot) + "/" + unique("frozen_")) {}
  bool create() { return access(kRoot, W_OK) == 0 && mkdir(path_.c_str(), 0755) == 0; }
  bool freeze(pid_t pid) {
    return put(path_ + "/cgroup.procs", std::to_string(pid)) &&
           put(path_ + "/freezer.state", "FROZEN");
  }
  ~FrozenGroup() {
    put(path_ + "/freezer.state", "THAWED");
    std::string procs = read_file_or_empty(path_ + "/cgroup.procs");
    for (size_t start = 0, end; (end = procs.find('\n', start)) != std::string::npos;
         start = end + 1) {
      put(std::string(kRoot) + "/cgroup.procs", procs.substr(start, end - start));
    }
    rmdir(path_.c_str());
  }

 private:
  static bool put(const std::string& file, const std::string& value) {
    int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = write(fd, value.data(), value.size()) == static_cast<ssize_t>(value.size());
    close(fd);
    return ok;
  }
  std::string path_;
};

TEST(Scenario, AFrozenProcessIsReportedAndLeftAlone) {
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  StandIn s = start_stand_in(
      {"/system/bin/" + name, "--thread", thread + ":D", "--signals", dir.path("sig")});
  FrozenGroup group;  // thawed before the stand-in is killed
  if (!group.create()) GTEST_SKIP() << "no cgroup v1 freezer at " << FrozenGroup::kRoot;
  ASSERT_TRUE(group.freeze(s.pid));
  DaemonRun run(props(name + ":" + thread, "kill"));
  // Past the point where an unfrozen thread would have had evidence and the policy.
  ASSERT_TRUE(run.wait_for("I go through proc", 8 * kWait, 6)) << run.log();
  EXPECT_GE(run.count("I " + thread + " frozen"), 4) << run.log();
  EXPECT_EQ(run.count("I dumped " + std::to_string(s.pid) + " D"), 0);
  EXPECT_EQ(run.count("I killing proc " + std::to_string(s.pid)), 0);
  EXPECT_EQ(signals_in(dir.path("sig")), "");
  EXPECT_EQ(run.trigger.commands(), std::vector<std::string>{});
}

TEST(Scenario, ProgressRestartsTheCount) {
  std::string app = unique("app"), thread = unique("busy");
  TempDir dir;
  // An app thread sleeps most of the time, which is watched, but runs now and then.
  StandIn s = start_stand_in(
      {"zygote64", "--spawn", app, "--thread", thread + ":P", "--signals", dir.path("sig")});
  ASSERT_GT(s.pid, 0);
  DaemonRun run(props(app + ":" + thread, "kill"));
  ASSERT_TRUE(run.wait_for("I go through proc", 8 * kWait, 6)) << run.log();
  EXPECT_EQ(run.count("I dumped " + std::to_string(s.pid)), 0) << run.log();
  EXPECT_EQ(signals_in(dir.path("sig")), "");
  EXPECT_EQ(s.child.wait(0), -1);
}

TEST(Scenario, RebootEndsTheInitOfAPidNamespace) {
  if (access("/usr/bin/unshare", X_OK) != 0) GTEST_SKIP() << "unshare (util-linux) missing";
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  write_file(dir.path("props"), props(name + ":" + thread, "reboot"));
  // The namespace's init (this shell) refuses to go on unless it really is the init of a new
  // PID namespace; only then is the daemon allowed to reboot.
  const char* script = R"sh(
    [ "$$" = 1 ] && [ "$(readlink /proc/self/ns/pid)" != "$OUTER_NS" ] || exit 99
    (exec -a "/system/bin/$NAME" "$STAND_IN" --thread "$THREAD:D" >/dev/null) &
    STALL_WARD_ALLOW_REBOOT=1 LD_PRELOAD="$FAKETIME_LIB" FAKETIME="+0 x20" "$DAEMON"
    exit 98
  )sh";
  char outer[128] = {};
  ASSERT_GT(readlink("/proc/self/ns/pid", outer, sizeof(outer) - 1), 0);
  Child ns = spawn(
      "/usr/bin/unshare",
      {"unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "/bin/bash", "-c", script},
      {"OUTER_NS=" + std::string(outer), "NAME=" + name, "THREAD=" + thread,
       "STAND_IN=" + stand_in_path(), "DAEMON=" + daemon_path(), "FAKETIME_LIB=" + faketime_lib(),
       "STALL_WARD_PROPERTIES=" + dir.path("props"),
       "STALL_WARD_SYSRQ_TRIGGER=" + dir.path("trigger")},
      dir.path("log"));
  int status = ns.wait(2 * kWait);
  std::string log = read_file_or_empty(dir.path("log"));
  ASSERT_NE(status, -1) << log;
  ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status) << "\n" << log;
  EXPECT_EQ(WTERMSIG(status), SIGHUP);
  std::vector<std::string> m = log_messages(log);
  auto reboot = std::find(m.begin(), m.end(), "I rebooting");
  auto dumped = std::find_if(m.begin(), m.end(),
                             [](const std::string& l) { return l.rfind("I dumped ", 0) == 0; });
  ASSERT_NE(reboot, m.end()) << log;
  EXPECT_LT(dumped, reboot) << "evidence comes first";
  EXPECT_EQ(reboot + 1, m.end()) << "nothing is logged after the reboot request";
}

}  // namespace
