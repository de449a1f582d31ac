// The real daemon, driven only through its host interface (the property file, the SysRq trigger,
// the log), against real stand-ins, each case in a PID namespace of its own. With a timeout of
// 60 s a sweep runs every 30 s (1.5 s of real time): a thread stuck from the start is bound at the
// first sweep, has its evidence gathered at the third and gets the policy at the fifth.
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "helpers.h"

// The real daemon in a PID namespace of its own (unshare), so that it sees only the stand-ins
// started beside it: its trigger a FIFO, its log in a file, time sped up twentyfold through
// libfaketime (a 30 s sweep then takes 1.5 s). Stand-in k is started from stand_ins[k] before
// the daemon; ids are as the namespace sees them, which is what the daemon logs.
struct DaemonRun {
  DaemonRun(const std::string& properties, const std::vector<Lines>& stand_ins = {},
            const Lines& env = {}, const std::string& more = "");  // more: run beside, in bash
  ~DaemonRun();
  Lines messages() const { return log_messages(read_file(dir.path("log"))); }
  bool wait_for(const std::string& line, int timeout_ms, int times = 1) const {
    return eventually([&] { return count(messages(), line) >= times; }, timeout_ms);
  }
  std::string pid(size_t k) const { return ids[k].at(0); }
  std::string signals(size_t k) const { return read_file(dir.path(std::to_string(k) + ".sig")); }
  // The stand-in's exit status as its shell saw it ("137" after SIGKILL), empty while it runs.
  std::string exit_status(size_t k) const {
    return android::base::Trim(read_file(dir.path(std::to_string(k) + ".exit")));
  }
  TempDir dir;
  SysrqFifo trigger;
  std::optional<Child> ns;  // unshare
  std::vector<Lines> ids;
};

namespace {

std::string sh_quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The namespace's init: it goes on only as the init of a new PID namespace (so that a reboot
// allowed to the daemon ends the namespace and nothing else), starts each stand-in with its
// argv[0], waits until all are in place, then runs the daemon and stays to reap.
const char kInit[] = R"sh(
[ "$$" = 1 ] && [ "$(readlink /proc/self/ns/pid)" != "$OUTER_NS" ] || exit 99
start() {
  k=$1; shift
  { (exec -a "$1" "$STAND_IN" "${@:2}" >"$DIR/$k.out"); echo $? >"$DIR/$k.exit"; } &
  for i in $(seq 500); do [ -s "$DIR/$k.out" ] && break; sleep 0.01; done
}
)sh";

}  // namespace

DaemonRun::DaemonRun(const std::string& properties, const std::vector<Lines>& stand_ins,
                     const Lines& env, const std::string& more)
    : trigger(dir.path("trigger")) {
  write_file(dir.path("props"), properties);
  std::string script = kInit;
  for (size_t k = 0; k < stand_ins.size(); ++k) {
    script += "start " + std::to_string(k);
    for (const std::string& arg : stand_ins[k]) {
      script += " " + sh_quote(arg == "@sig" ? dir.path(std::to_string(k) + ".sig") : arg);
    }
    script += "\n";
  }
  script += more + "\nenv LD_PRELOAD=" FAKETIME_LIB " 'FAKETIME=+0 x20' STALL_WARD_PROPERTIES=" +
            sh_quote(dir.path("props")) +
            " STALL_WARD_SYSRQ_TRIGGER=" + sh_quote(dir.path("trigger"));
  for (const std::string& e : env) script += " " + sh_quote(e);
  script += " " STALL_WARD_PATH " 2>\"$DIR/log\" &\necho $! >\"$DIR/daemon\"\nwait\n";
  std::string vars =
      "OUTER_NS=" + sh_quote(std::filesystem::read_symlink("/proc/self/ns/pid").string()) +
      " DIR=" + sh_quote(dir.dir) + " STAND_IN=" + sh_quote(stand_in_path()) + "\n";
  ns.emplace(spawn("/usr/bin/unshare",
                   {"unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "/bin/bash", "-c",
                    vars + script},
                   dir.path("ns.log")));
  for (size_t k = 0; k < stand_ins.size(); ++k) {
    std::string out = dir.path(std::to_string(k) + ".out");
    eventually([&] { return !read_file(out).empty(); }, 6000);
    ids.push_back(android::base::Split(android::base::Trim(read_file(out)), " "));
  }
}

// With STALL_WARD_KEEP_LOGS=DIR the daemon's log is kept as DIR/<test>.log (then <test>-2.log...):
// scripts/report-fixtures.sh makes the report tool's fixtures so.
DaemonRun::~DaemonRun() {
  const char* keep = getenv("STALL_WARD_KEEP_LOGS");
  if (keep == nullptr) return;
  std::string base =
      std::string(keep) + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
  std::string path = base + ".log";
  for (int n = 2; std::filesystem::exists(path); ++n)
    path = base + "-" + std::to_string(n) + ".log";
  write_file(path, read_file(dir.path("log")));
}

namespace {

constexpr int kWait = 18000;  // for what is due within a few sweeps, with room to spare

std::string props(const std::string& processes, const std::string& policy = "kill",
                  const std::string& more = "") {
  return "persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=60\npersist.vendor.sw.policy=" +
         policy + "\npersist.vendor.sw.processes=" + processes + "\n" + more;
}

// A thread blocked in the kernel (D) from the start, found by the /proc walk: kernel dumps at the
// third sweep, the kill at the fifth; with debug off, the same without a line but "started".
TEST(Scenario, ABlockedThreadGetsKernelDumpsThenTheKill) {
  for (bool debug : {true, false}) {
    DaemonRun run(
        props("system_server:watchdog", "kill", debug ? "" : "persist.vendor.sw.debug=0\n"),
        {{"/system/bin/system_server", "--thread", "watchdog:D", "--signals", "@sig"}});
    EXPECT_TRUE(eventually([&] { return run.exit_status(0) == "137"; }, 2 * kWait)) << debug;
    Lines m = run.messages();
    EXPECT_EQ(run.trigger.commands(), (Lines{"w", "l"}));
    if (!debug) {
      EXPECT_EQ(m, Lines{"D started"});
      continue;
    }
    EXPECT_EQ(count(m, "I dumped " + run.pid(0) + " D"), 1);
    EXPECT_EQ(count(m, "I killing proc " + run.pid(0)), 1);
    EXPECT_EQ(count_prefix(m, "I [sh] cmd=ps -e|grep"), 0) << "no Android ps here: the /proc walk";
  }
}

// The device's ps lists the daemon first in its namespace, even while another process called
// stall_ward runs outside it: the shell way finds a zombie main thread, whose parent answers.
TEST(Scenario, AZombieMainThreadIsFoundThroughPsAndItsParentAnswers) {
  StandIn other = start_stand_in({"stall_ward"});
  DaemonRun run(props("surfaceflinger"),
                {{"zygote_like", "--signals", "@sig", "--spawn", "/system/bin/surfaceflinger",
                  "--main", "Z", "--thread", "live:S"}},
                {android_ps_path()});
  EXPECT_TRUE(eventually([&] { return run.exit_status(0) == "137"; }, 2 * kWait));
  Lines m = run.messages();
  EXPECT_GE(count(m, "I [sh] cmd=ps -e |grep stall_ward"), 5);
  EXPECT_EQ(count(m, "I go through proc"), 0) << "the /proc walk would pass a zombie leader by";
  EXPECT_EQ(count(m, "I dumped " + run.pid(0) + " Z"), 1);
  EXPECT_EQ(run.signals(0), "sig=35\n");
  EXPECT_EQ(run.trigger.commands(), (Lines{"w", "l"}));
}

// stall_ward_check --live beside the daemon, on the same stand-ins, its time sped up as the
// daemon's is: each row a finding the checker gives or must not give, and the daemon's line that
// bears it out. One system walks /proc, one takes the ps way.
struct CheckerCase {
  std::string processes;
  std::vector<Lines> stand_ins;
  bool ps_way;
  // the finding's first line; whether it is given; the daemon's line that bears it out (stand-in
  // k's pid as {k}; two lines: the first, then a line that starts with the second); whether it
  // comes
  std::vector<std::tuple<std::string, bool, std::string, bool>> rows;
};

// Whether the log has line, or its two lines one after the other (the second as a prefix).
bool logged(const Lines& m, const std::string& line) {
  size_t cut = line.find('\n');
  if (cut == std::string::npos) return count(m, line) > 0;
  for (size_t i = 0; i + 1 < m.size(); ++i) {
    if (m[i] == line.substr(0, cut) && m[i + 1].rfind(line.substr(cut + 1), 0) == 0) return true;
  }
  return false;
}

std::string with_pids(std::string text, const DaemonRun& run) {
  for (size_t k = 0; k < run.ids.size(); ++k) {
    text = android::base::StringReplace(text, "{" + std::to_string(k) + "}", run.pid(k), true);
  }
  return text;
}

TEST(Scenario, TheCheckersLiveFindingsAreWhatTheDaemonDoes) {
  const CheckerCase cases[] = {
      {"twice:watchdog vf:hang long:PowerManagerService:no app:idle ghost mainly jit:Jit z:t",
       {{"twice", "--thread", "watchdog:D"},
        {"twice", "--thread", "watchdog:D"},
        {"vf", "--thread", "hang:D"},
        {"long", "--thread", "PowerManagerService:S", "--signals", "@sig"},
        {"zygote64", "--spawn", "app", "--thread", "idle:S", "--signals", "@sig"},
        {"mainly", "--main-name", "other"},
        {"jit", "--thread", "Jit thread pool:S", "--signals", "@sig"},
        {"z", "--main", "Z", "--thread", "t:S"}},
       false,
       {{"two-processes: vf", false, "I dumped {2} D", true},
        {"error truncated-thread: long:PowerManagerService\n", true, "I dumped {3}", true},
        {"error asleep-app-thread: app:idle\n", true, "I dumped {4}", true},
        {"error no-process: ghost\n", true, "I ghost proc not started", true},
        {"error main-thread-name: mainly\n", true, "I mainly proc not started", true},
        {"error no-thread: long:no\n", true, "I thread no not start", true},
        {"error blank-thread: jit:Jit\n", true, "I dumped {6}", true},
        {"warning zombie-leader: z\n", true, "I t proc not started", true},
        {"error two-processes: twice\n", true, "I watchdog proc not started", false}}},
      {"system_server:watchdog com.android.nfc",
       {{"zygote64", "--spawn", "system_server", "--thread", "watchdog:P"},
        {"zygote64", "--spawn", "com.android.nfc", "--signals", "@sig"}},
       false,
       {{"error asleep-app-thread: com.android.nfc\n", true, "I dumped {1}", true},
        {"asleep-app-thread: system_server:watchdog", false, "I dumped {0}", false}}},
      {"zygote system_server:android.anim:watchdog hal:screen runs:qq ghost",
       {{"zygote64", "--spawn", "system_server", "--thread", "android.anim.lf:S", "--thread",
         "android.anim:P", "--thread", "watchdog:P"},
        {"zygote"},
        {"hal", "--thread", "screen:E"},
        {"runs", "--thread", "qq:S"}},
       true,
       {{"error ps-substring: zygote\n", true, "I zygote proc not started", true},
        {"error ps-substring: system_server:android.anim\n", true,
         "I android.anim proc not started", true},
        {"system_server:watchdog\n", false, "I dumped {0}", false},
        {"error thread-gone: hal:screen\n", true, "I dumped {2}", true},
        {"error ps-carry-over: ghost\n", true,
         "I [sh] proc ghost not started\nI reading /proc/{3}/task/", true},
        {"ps-substring: runs:qq", false, "I killing proc {3}", false}}},
  };
  for (const CheckerCase& c : cases) {
    std::string env = c.ps_way ? android_ps_path() : "";
    DaemonRun run(
        props(c.processes), c.stand_ins, c.ps_way ? Lines{env} : Lines{},
        "(sleep 0.5; env " + env +
            " LD_PRELOAD=" FAKETIME_LIB
            " 'FAKETIME=+0 x20' STALL_WARD_PROPERTIES=\"$DIR/props\" " STALL_WARD_CHECK_PATH
            " --live >\"$DIR/check.tmp\"; mv \"$DIR/check.tmp\" \"$DIR/check\") &");
    ASSERT_TRUE(eventually([&] { return !read_file(run.dir.path("check")).empty(); }, kWait));
    const std::string check = read_file(run.dir.path("check"));
    for (const auto& [finding, given, line, comes] : c.rows) {
      EXPECT_EQ(check.find("\n" + finding) != std::string::npos, given) << finding << "\n" << check;
      std::string want = with_pids(line, run);
      EXPECT_EQ(eventually([&] { return logged(run.messages(), want); }, comes ? 2 * kWait : 0),
                comes)
          << want << "\n"
          << android::base::Join(run.messages(), "\n");
    }
  }
}

TEST(Scenario, RebootEndsTheInitOfThePidNamespace) {
  DaemonRun run(props("system_server:watchdog", "reboot"),
                {{"/system/bin/system_server", "--thread", "watchdog:D"}},
                {"STALL_WARD_ALLOW_REBOOT=1"});
  int status = run.ns->wait(2 * kWait);
  ASSERT_TRUE(status != -1 && WIFSIGNALED(status)) << status << read_file(run.dir.path("ns.log"));
  EXPECT_EQ(WTERMSIG(status), SIGHUP);
  EXPECT_EQ(run.messages().back(), "I rebooting") << "nothing is logged after the reboot request";
}

// The report's fixtures of an asleep app thread (SIGQUIT and signal 35, then the policy "none")
// and of a panic: the daemon's logs of each, end to end.
TEST(Scenario, AnAsleepThreadGetsItsStacksDumpedAndABlockedOneThePanic) {
  for (const std::string state : {"S", "D"}) {
    DaemonRun run(props("system_server:watchdog", state == "S" ? "none" : "panic"),
                  {{"zygote64", "--spawn", "/system/bin/system_server", "--thread",
                    "watchdog:" + state, "--signals", "@sig"}});
    std::string policy = state == "S" ? "I nothing to do accroding to policy" : "I trigger crash";
    EXPECT_TRUE(eventually([&] { return count_prefix(run.messages(), policy) > 0; }, kWait));
  }
}

TEST(Fault, AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn) {
  DaemonRun run(props("init"), {},
                {"PATH=" + std::string(ANDROID_PS_DIR) + "/hang:" + getenv("PATH")});
  // ps hangs 4 s of real time; the alarm comes after 60 s / 20 = 3 s.
  ASSERT_TRUE(run.wait_for("E Alarm! self stuck!", 20000));
  EXPECT_EQ(run.trigger.commands(2, 2000), (Lines{"w", "l"}));
  int sweeps = count(run.messages(), "I close proc");
  EXPECT_TRUE(run.wait_for("I close proc", 20000, sweeps + 1)) << "sweeps go on after ps returns";
}

// At least 1,000 sweeps (a hundredfold speed-up: 0.3 s each, the alarm at 1.2 s) while processes
// with the monitored names come and go, rename their threads and leave zombie leaders, beside one
// thread that is truly stuck. Runs with STALL_WARD_SOAK=1 (scripts/test.sh --full).
// The daemon's /proc directory, seen through the namespace's own /proc.
std::string daemon_proc(const DaemonRun& run) {
  return "/proc/" + std::to_string(run.ns->pid()) + "/root/proc/" +
         android::base::Trim(read_file(run.dir.path("daemon")));
}

size_t open_fds(const std::string& proc) {
  auto fds = std::filesystem::directory_iterator(proc + "/fd");
  return std::distance(begin(fds), end(fds));
}

long rss_kib(const std::string& proc) {
  std::string status = read_file(proc + "/status");
  size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + 6);
}

TEST(Soak, ThousandSweepsOfChurnLeaveTheDaemonFlatAndOnTime) {
  if (getenv("STALL_WARD_SOAK") == nullptr) GTEST_SKIP() << "set STALL_WARD_SOAK=1 to soak";
  const char* churn = R"sh(
    for ((i = 0; ; i++)); do
      z=(); ((i % 4)) || z=(--main Z --thread other:S)
      (exec -a "$( ((i % 2)) && echo /system/bin/)churn" "$STAND_IN" --thread \
        "watchdog:$( ((i % 3)) && echo S || echo N)" --life $((5 + i % 60)) "${z[@]}" >/dev/null &)
      sleep 0.005
    done &)sh";
  DaemonRun run(
      "persist.vendor.sw.enable=1\npersist.vendor.sw.processes=churn:watchdog stuck:wedged\n",
      {{"/system/bin/stuck", "--thread", "wedged:D"}}, {"FAKETIME=+0 x100"}, churn);
  ASSERT_TRUE(run.wait_for("I close proc", 60000, 3));
  const std::string proc = daemon_proc(run);
  const size_t fds_start = open_fds(proc);
  const long rss_start = rss_kib(proc);
  bool on_time = run.wait_for("I dumped " + run.pid(0) + " D", 30000);
  Lines m = run.messages();
  auto first_dump = std::find(m.begin(), m.end(), "I dumped " + run.pid(0) + " D");
  int sweeps_before = std::count(m.begin(), first_dump, "I close proc");
  bool done = run.wait_for("I close proc", 900000, 1000);
  const size_t fds_end = open_fds(proc);
  const long rss_end = rss_kib(proc);
  m = run.messages();
  printf("soak: %d sweeps; descriptors %zu -> %zu; resident %ld -> %ld KiB; evidence at sweep %d\n",
         count(m, "I close proc"), fds_start, fds_end, rss_start, rss_end, sweeps_before);
  ASSERT_TRUE(done) << "fewer than 1,000 sweeps";
  EXPECT_TRUE(on_time);
  EXPECT_LE(sweeps_before, 6);
  EXPECT_EQ(run.ns->wait(0), -1) << "the daemon still runs";
  EXPECT_EQ(count(m, "E Alarm! self stuck!"), 0);
  EXPECT_LE(count(m, "I go through proc") - count(m, "I close proc"), 1) << "each sweep completes";
  EXPECT_EQ(fds_end, fds_start);
  EXPECT_LE(rss_end, rss_start + 256);
}

}  // namespace
