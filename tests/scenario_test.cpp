// The real daemon, driven only through the property file, the SysRq trigger and the log, against
// real stand-in processes. With a timeout of 60 s a sweep runs every 30 s (1.5 s of real time, the
// daemon's time running 20 times faster): a thread stuck from the start is bound at the first
// sweep, has its evidence gathered at the third and gets the policy at the fifth.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "helpers.h"

namespace {

using Lines = std::vector<std::string>;
constexpr int kWait = 18000;  // for what is due within a few sweeps, with room to spare

std::string props(const std::string& processes, const std::string& policy = "") {
  return "persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=60\npersist.vendor.sw.policy=" +
         policy + "\npersist.vendor.sw.processes=" + processes + "\n";
}

bool killed(Child& child, int timeout_ms) {
  int status = child.wait(timeout_ms);
  return status != -1 && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

TEST(Binary, ParksWhenDisabledAndLogsItsConfigurationWhenEnabled) {
  const std::pair<std::string, Lines> cases[] = {
      {"", {"D started"}},
      {"persist.vendor.sw.enable=1\npersist.vendor.sw.debug=0\n", {"D started"}},
      {"persist.vendor.sw.enable=1\npersist.vendor.sw.processes=init:x\n",
       {"D started", "I get persist.vendor.sw.timeout =120",
        "I get persist.vendor.sw.processes =init:x", "D monitor init threads:", "D x",
        "D mTids:", "D x", "I get persist.vendor.sw.policy ="}},
  };
  for (const auto& [properties, log] : cases) {
    DaemonRun run(properties, {}, false);
    EXPECT_EQ(run.daemon.wait(500), -1) << "the daemon never exits";
    EXPECT_EQ(run.messages(), log);
  }
  // "MM-DD HH:MM:SS.mmm  PID  TID P stall_ward: message", as logcat -v threadtime prints it.
  DaemonRun run("", {}, false);
  eventually([&] { return !run.messages().empty(); }, 2000);
  std::string pid = std::to_string(run.daemon.pid());
  EXPECT_TRUE(testing::internal::RE::FullMatch(
      read_file(run.dir.path("log")),
      "[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] +" + pid + " +" +
          pid + " D stall_ward: started\n"));
}

class StuckInD : public testing::TestWithParam<std::tuple<const char*, Lines, const char*>> {};

TEST_P(StuckInD, EvidenceFirstThenThePolicy) {
  const auto& [policy, sysrq, line] = GetParam();
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  StandIn s = start_stand_in(
      {"/system/bin/" + name, "--thread", thread + ":D", "--signals", dir.path("sig")});
  DaemonRun run(props(name + ":" + thread, policy));
  std::string pid = std::to_string(s.pid);
  ASSERT_TRUE(run.wait_for("I dumped " + pid + " D", kWait)) << read_file(run.dir.path("log"));
  EXPECT_EQ(run.trigger.commands(2, 1000), (Lines{"w", "l"}));
  ASSERT_TRUE(run.wait_for(replace_all(line, "$PID", pid), kWait));
  EXPECT_EQ(run.trigger.commands(sysrq.size(), 2000), sysrq);
  EXPECT_EQ(killed(s.child, 2000), std::string(policy) == "kill");
  EXPECT_EQ(read_file(dir.path("sig")), "") << "a blocked thread gets kernel dumps only";
}

INSTANTIATE_TEST_SUITE_P(
    Policies, StuckInD,
    testing::Values(std::make_tuple("kill", Lines{"w", "l"}, "I killing proc $PID"),
                    std::make_tuple("panic", Lines{"w", "l", "w", "l", "c"},
                                    "I trigger crash according to policy"),
                    std::make_tuple("", Lines{"w", "l"}, "I nothing to do accroding to policy")));

TEST(Scenario, AnAppThreadAsleepGetsSigquitThenTheDumpSignal) {
  std::string app = unique("app"), plain = unique("plain"), t1 = unique("ta"), t2 = unique("tb");
  TempDir dir;
  StandIn child = start_stand_in(
      {"zygote64", "--spawn", app, "--thread", t1 + ":S", "--signals", dir.path("app.sig")});
  StandIn ordinary = start_stand_in(
      {"/system/bin/" + plain, "--thread", t2 + ":S", "--signals", dir.path("plain.sig")});
  DaemonRun run(props(app + ":" + t1 + " " + plain + ":" + t2));
  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(child.pid), kWait));
  // SIGQUIT first, then the dump signal after the pause.
  EXPECT_TRUE(
      eventually([&] { return read_file(dir.path("app.sig")) == "sig=3\nsig=35\n"; }, 2000));
  ASSERT_TRUE(run.wait_for("I nothing to do accroding to policy", kWait));
  EXPECT_EQ(read_file(dir.path("plain.sig")), "") << "an ordinary thread may sleep";
  EXPECT_EQ(count_prefix(run.messages(), "I dumped " + std::to_string(ordinary.pid)), 0);
  EXPECT_EQ(run.trigger.commands(), Lines{});
}

TEST(Scenario, AZombieMainThreadIsFoundThroughPsAndItsParentAnswers) {
  std::string name = unique("zomb");
  TempDir dir;
  StandIn parent = start_stand_in({"zparent", "--signals", dir.path("parent.sig"), "--spawn",
                                   "/system/bin/" + name, "--main", "Z", "--thread", "live:S"});
  ASSERT_TRUE(wait_for_state(parent.pid, parent.pid, 'Z'));
  DaemonRun run(props(name, "kill"), {"PATH=" + android_ps_dir() + ":" + getenv("PATH")});
  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(parent.pid) + " Z", kWait));
  std::string self_test = "I [sh] sw=" + std::to_string(run.daemon.pid()) + " ret=1";
  EXPECT_GE(run.count(self_test), 3);
  EXPECT_EQ(run.count("I go through proc"), 0) << "the /proc walk passes a zombie leader by";
  EXPECT_EQ(read_file(dir.path("parent.sig")), "sig=35\n");
  EXPECT_EQ(run.trigger.commands(2, 1000), (Lines{"w", "l"}));
  EXPECT_TRUE(killed(parent.child, kWait)) << "the policy goes to the parent";
}

TEST(Scenario, AThreadThatNeverAppearsGetsProcessLevelEvidence) {
  std::string name = unique("sys");
  TempDir dir;
  StandIn s = start_stand_in({"/system/bin/" + name, "--signals", dir.path("sig")});
  DaemonRun run(props(name + ":absent"));
  ASSERT_TRUE(run.wait_for("I dumped " + std::to_string(s.pid), kWait));
  EXPECT_GE(run.count("I thread absent not start"), 2);
  EXPECT_TRUE(eventually([&] { return read_file(dir.path("sig")) == "sig=35\n"; }, 1000));
  EXPECT_EQ(run.trigger.commands(), Lines{});
}

// A cgroup v1 freezer group whose path contains "/frozen"; thawed and emptied when done.
struct FrozenGroup {
  static bool put(const std::string& file, const std::string& value) {
    int fd = open(file.c_str(), O_WRONLY | O_CLOEXEC);
    bool ok = fd >= 0 && write(fd, value.data(), value.size()) == ssize_t(value.size());
    if (fd >= 0) close(fd);
    return ok;
  }
  ~FrozenGroup() {
    put(path + "/freezer.state", "THAWED");
    std::string pid = read_file(path + "/cgroup.procs");  // the one stand-in put there
    if (!pid.empty()) put(root + "/cgroup.procs", pid.substr(0, pid.find('\n')));
    rmdir(path.c_str());
  }
  const std::string root = "/sys/fs/cgroup/freezer", path = root + "/" + unique("frozen_");
};

TEST(Scenario, AFrozenProcessIsReportedAndLeftAlone) {
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  StandIn s = start_stand_in(
      {"/system/bin/" + name, "--thread", thread + ":D", "--signals", dir.path("sig")});
  FrozenGroup group;  // thawed before the stand-in is killed
  if (mkdir(group.path.c_str(), 0755) != 0) GTEST_SKIP() << "no cgroup v1 freezer: " << group.root;
  ASSERT_TRUE(group.put(group.path + "/cgroup.procs", std::to_string(s.pid)));
  ASSERT_TRUE(group.put(group.path + "/freezer.state", "FROZEN"));
  DaemonRun run(props(name + ":" + thread, "kill"));
  // Past the sweep where an unfrozen thread would have had evidence and the policy.
  ASSERT_TRUE(run.wait_for("I go through proc", 4 * kWait, 6));
  EXPECT_GE(run.count("I " + thread + " frozen"), 4);
  EXPECT_EQ(count_prefix(run.messages(), "I dumped"), 0);
  EXPECT_EQ(count_prefix(run.messages(), "I killing"), 0);
  EXPECT_EQ(read_file(dir.path("sig")), "");
  EXPECT_EQ(run.trigger.commands(), Lines{});
}

TEST(Scenario, ProgressRestartsTheCount) {
  std::string app = unique("app"), thread = unique("busy");
  TempDir dir;
  // An app thread: its sleep is watched, but it runs now and then.
  StandIn s = start_stand_in(
      {"zygote64", "--spawn", app, "--thread", thread + ":P", "--signals", dir.path("sig")});
  DaemonRun run(props(app + ":" + thread, "kill"));
  ASSERT_TRUE(run.wait_for("I go through proc", 4 * kWait, 6));
  EXPECT_EQ(count_prefix(run.messages(), "I dumped"), 0);
  EXPECT_EQ(read_file(dir.path("sig")), "");
  EXPECT_EQ(s.child.wait(0), -1);
}

TEST(Scenario, RebootEndsTheInitOfAPidNamespace) {
  std::string name = unique("sys"), thread = unique("wd");
  TempDir dir;
  write_file(dir.path("props"), props(name + ":" + thread, "reboot"));
  // The namespace's init (this shell) goes on only if it really is the init of a new PID
  // namespace; only then may the daemon reboot.
  const char* script = R"sh(
    [ "$$" = 1 ] && [ "$(readlink /proc/self/ns/pid)" != "$OUTER_NS" ] || exit 99
    (exec -a "/system/bin/$NAME" "$STAND_IN" --thread "$THREAD:D" >/dev/null) &
    STALL_WARD_ALLOW_REBOOT=1 LD_PRELOAD="$FAKETIME_LIB" FAKETIME="+0 x20" "$DAEMON"
    exit 98)sh";
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
  int status = ns.wait(kWait);
  std::string log = read_file(dir.path("log"));
  ASSERT_TRUE(status != -1 && WIFSIGNALED(status)) << status << "\n" << log;
  EXPECT_EQ(WTERMSIG(status), SIGHUP);
  Lines m = log_messages(log);
  auto reboot = std::find(m.begin(), m.end(), "I rebooting");
  auto dumped =
      std::find_if(m.begin(), m.end(), [](auto& l) { return l.rfind("I dumped ", 0) == 0; });
  ASSERT_NE(reboot, m.end()) << log;
  EXPECT_LT(dumped, reboot) << "evidence comes first";
  EXPECT_EQ(reboot + 1, m.end()) << "nothing is logged after the reboot request";
}

}  // namespace
