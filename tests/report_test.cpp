// stall_ward_report on the logs the real daemon wrote in the end-to-end cases (tests/report/logs,
// remade by scripts/report-fixtures.sh), on kernel logs of each supported format (tests/report/
// kernel, the watched thread's id written @TID), and on bug reports assembled from both.
#include "report/report.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <zip.h>

#include <nlohmann/json.hpp>

#include "helpers.h"

using nlohmann::json;

namespace {

std::string fixture(const std::string& name) {
  return std::string(REPORT_FIXTURES) + "/" + name;
}
std::string daemon_log(const std::string& test) {
  return fixture("logs/" + test + ".log");
}

json story(const Lines& paths) {
  return json::parse(report::json_report(report::build_story(paths)));
}

// The clock of the first line of the daemon's log whose message starts with `message`.
std::string clock_of(const std::string& log, const std::string& message) {
  size_t at = log.find("stall_ward: " + message);
  return at == std::string::npos ? "" : log.substr(log.rfind('\n', at) + 1, 18);
}

// A kernel excerpt with the watched thread's id filled in.
std::string kernel(const std::string& name, int tid) {
  return android::base::StringReplace(read_file(fixture("kernel/" + name)), "@TID",
                                      std::to_string(tid), true);
}

int watchdog_tid(const std::string& log) {
  int tid = -1;
  size_t at = log.find("change tid=");
  if (at != std::string::npos) sscanf(log.c_str() + at, "change tid=%d", &tid);
  return tid;
}

TEST(Report, TellsEachIncidentOfTheEndToEndCases) {
  struct Case {
    const char* test;
    const char *record, *state, *evidence, *action_line, *action, *way, *other_way;
  } cases[] = {
      {"ABlockedThreadGetsKernelDumpsThenTheKill", "watchdog", "D", "SysRq w, l", "killing proc ",
       "killed pid ", "sweeps_proc", "sweeps_shell"},
      {"RebootEndsTheInitOfThePidNamespace", "watchdog", "D", "SysRq w, l", "rebooting", "reboot",
       "sweeps_proc", "sweeps_shell"},
      {"AZombieMainThreadIsFoundThroughPsAndItsParentAnswers", "surfaceflinger", "Z",
       "signal 35 to parent ", "killing proc ", "killed pid ", "sweeps_shell", "sweeps_proc"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.test);
    std::string log = read_file(daemon_log(c.test));
    json run = story({daemon_log(c.test)})["runs"][0];
    ASSERT_EQ(run["incidents"].size(), 1u);
    json in = run["incidents"][0];
    EXPECT_EQ(in["record"], c.record);
    EXPECT_EQ(in["state"], c.state);
    EXPECT_TRUE(android::base::StartsWith(in["evidence"].get<std::string>(), c.evidence)) << in;
    EXPECT_TRUE(android::base::StartsWith(in["action"].get<std::string>(), c.action)) << in;
    EXPECT_EQ(in["since"], clock_of(log, "match="));
    EXPECT_EQ(in["evidence_clock"], clock_of(log, "dumped "));
    EXPECT_EQ(in["action_clock"], clock_of(log, c.action_line));
    EXPECT_NE(log.find("dumped " + std::to_string(in["pid"].get<int>()) + " " + c.state),
              std::string::npos);
    int sweeps = count_prefix(log_messages(log), "I [sh] cmd=ps -e |grep stall_ward");
    EXPECT_EQ(run[c.way], sweeps);
    EXPECT_EQ(run[c.other_way], 0);
  }
  std::string log = read_file(daemon_log("AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn"));
  json run = story({daemon_log("AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn")})["runs"][0];
  EXPECT_TRUE(run["incidents"].empty());
  int alarms = 0, slow = 0;
  for (const json& e : run["events"]) (e["kind"] == "alarm" ? alarms : slow) += 1;
  EXPECT_EQ(alarms, count(log_messages(log), "E Alarm! self stuck!"));
  EXPECT_EQ(slow, count_prefix(log_messages(log), "E long time cost: "));
}

TEST(Report, ReadsTheBlockedTasksOfEachKernelFormat) {
  struct Case {
    const char* file;
    size_t tasks;
    int ppid;
    Lines stack;
  } cases[] = {
      {"dmesg-4.14.txt",
       2,
       5,
       {"__switch_to", "__schedule", "schedule", "schedule_timeout", "wait_for_common",
        "wait_for_completion", "binder_thread_read", "binder_ioctl_write_read", "binder_ioctl",
        "do_vfs_ioctl"}},
      {"dmesg-6.6.txt",
       1,
       1,
       {"__schedule", "schedule", "schedule_timeout", "__pfx_process_timeout",
        "wait_for_completion_killable", "fuse_simple_request"}},
      {"logcat-kernel-5.10.txt", 1, 5, {"__switch_to", "__schedule", "schedule", "io_schedule"}},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    write_file(dir.path(c.file), kernel(c.file, 1301));
    json dumps = story({dir.path(c.file)})["kernel_dumps"];
    ASSERT_EQ(dumps.size(), 1u) << "the backtrace of active CPUs is not a blocked-task dump";
    ASSERT_EQ(dumps[0]["tasks"].size(), c.tasks);
    json task = dumps[0]["tasks"][0];
    EXPECT_EQ(task["comm"], "watchdog");
    EXPECT_EQ(task["state"], "D");
    EXPECT_EQ(task["pid"], 1301);
    EXPECT_EQ(task["ppid"], c.ppid);
    EXPECT_EQ(task["stack"].get<Lines>(), c.stack);
  }
}

// A bug report as adb bugreport writes it: the system log (with -v uid), sections that are not
// logs (a daemon-like line in one of them is not read), and the kernel log.
std::string bugreport(const std::string& log, const std::string& dmesg) {
  std::string text =
      "========================================================\n"
      "== dumpstate: 2026-11-22 08:10:00\n"
      "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n"
      "--------- beginning of main\n";
  for (const std::string& line : android::base::Split(log, "\n")) {
    if (line.size() > 18) text += line.substr(0, 18) + "  1000" + line.substr(18) + "\n";
    text += "11-22 08:07:00.000  1000  1234  1301 I ActivityManager: Start proc 4321\n";
  }
  return text +
         "------ 0.112s was the duration of 'SYSTEM LOG' ------\n------ CPU INFO (top -n 1) "
         "------\n" +
         "11-22 08:07:00.000    10    10 I stall_ward: dumped 99 D\n" +
         "------ KERNEL LOG (dmesg) ------\n" + dmesg +
         "------ 0.020s was the duration of 'KERNEL LOG (dmesg)' ------\n";
}

void write_zip(const std::string& path, const std::string& entry, const std::string& text) {
  int error = 0;
  zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  ASSERT_NE(z, nullptr);
  zip_file_add(z, "main_entry.txt", zip_source_buffer(z, entry.data(), entry.size(), 0), 0);
  zip_file_add(z, "FS/data/anr/anr_1", zip_source_buffer(z, "x\n", 2, 0), 0);
  zip_file_add(z, entry.c_str(), zip_source_buffer(z, text.data(), text.size(), 0), 0);
  ASSERT_EQ(zip_close(z), 0);
}

TEST(Report, ABugReportGivesTheIncidentTheThreadsKernelStack) {
  std::string log = read_file(daemon_log("ABlockedThreadGetsKernelDumpsThenTheKill"));
  std::string text = bugreport(log, kernel("dmesg-5.4.txt", watchdog_tid(log)));
  TempDir dir;
  write_file(dir.path("bugreport-x.txt"), text);
  write_zip(dir.path("bugreport-x.zip"), "bugreport-x.txt", text);
  for (const char* input : {"bugreport-x.txt", "bugreport-x.zip"}) {
    SCOPED_TRACE(input);
    report::Story s = report::build_story({dir.path(input)});
    EXPECT_EQ(s.input.unreadable, 0u);
    ASSERT_EQ(s.runs.size(), 1u) << "the line outside the log sections is not read";
    ASSERT_EQ(s.runs[0].incidents.size(), 1u);
    EXPECT_EQ(s.runs[0].incidents[0].dump, 0);
    EXPECT_NE(report::text_report(s).find("; kernel stack: __switch_to < __schedule < schedule <"),
              std::string::npos)
        << report::text_report(s);
  }
}

TEST(Report, WithDebugOffSaysSoAndStillShowsTheKernelDumps) {
  TempDir dir;
  write_file(dir.path("dmesg"), kernel("dmesg-6.6.txt", 8));
  std::string text = report::text_report(report::build_story(
      {daemon_log("ABlockedThreadGetsKernelDumpsThenTheKill-2"), dir.path("dmesg")}));
  EXPECT_NE(text.find("Its log holds only \"started\""), std::string::npos) << text;
  EXPECT_NE(text.find("watchdog (pid 8, D): __schedule < schedule <"), std::string::npos) << text;
}

// Two daemons' logs line by line into one, with lines that are not log lines between them.
TEST(Report, InterleavedRunsSurviveGarbageAndCutLines) {
  Lines a = android::base::Split(read_file(daemon_log("RebootEndsTheInitOfThePidNamespace")), "\n");
  Lines b = android::base::Split(
      read_file(daemon_log("AZombieMainThreadIsFoundThroughPsAndItsParentAnswers")), "\n");
  const Lines garbage = {std::string("\x01\xff\xfe binary", 10), "11-22 08:07:30.105    10",
                         "11-22 08:07:30.105    10    10 I stall_ward", "[ 12.5 not kernel",
                         std::string(100000, 'x')};
  std::string mixed;
  int inserted = 0;
  for (size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    if (i < a.size() && !a[i].empty()) mixed += a[i] + "\n";
    if (i < b.size() && !b[i].empty()) mixed += b[i] + "\n";
    if (i % 7 == 0) mixed += garbage[inserted++ % garbage.size()] + "\n";
  }
  TempDir dir;
  write_file(dir.path("mixed"), mixed);
  json mixed_story = story({dir.path("mixed")});
  EXPECT_EQ(mixed_story["unreadable"], inserted);
  ASSERT_EQ(mixed_story["runs"].size(), 2u);
  EXPECT_EQ(mixed_story["runs"][0]["incidents"],
            story({daemon_log("RebootEndsTheInitOfThePidNamespace")})["runs"][0]["incidents"]);
  EXPECT_EQ(mixed_story["runs"][1]["incidents"],
            story({daemon_log(
                "AZombieMainThreadIsFoundThroughPsAndItsParentAnswers")})["runs"][0]["incidents"]);
}

// The page of every fixture at once, opened in headless chromium: no console error, and every
// incident shown.
TEST(Report, ThePageRendersInHeadlessChromium) {
  TempDir dir;
  Lines inputs = {"ABlockedThreadGetsKernelDumpsThenTheKill", "RebootEndsTheInitOfThePidNamespace",
                  "AZombieMainThreadIsFoundThroughPsAndItsParentAnswers",
                  "AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn"};
  Lines argv = {"stall_ward_report", "--html", dir.path("page.html")};
  for (const std::string& name : inputs) argv.push_back(daemon_log(name));
  Child tool = spawn(STALL_WARD_REPORT_PATH, argv);
  ASSERT_EQ(tool.wait(20000), 0);
  Child browser =
      spawn("/usr/bin/chromium",
            {"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
             "--dump-dom", "file://" + dir.path("page.html")},
            dir.path("browser.log"));
  std::string dom;
  for (std::string line; !(line = browser.read_line()).empty();) dom += line;
  EXPECT_EQ(browser.wait(30000), 0);
  EXPECT_EQ(read_file(dir.path("browser.log")).find("CONSOLE"), std::string::npos)
      << read_file(dir.path("browser.log"));
  size_t incidents = 0;
  for (const std::string& name : inputs) {
    for (const report::Run& run : report::build_story({daemon_log(name)}).runs) {
      for (const report::Incident& in : run.incidents) {
        ++incidents;
        EXPECT_NE(dom.find("<tr class=\"incident\"><td>`" + in.record + "`"), std::string::npos);
      }
    }
  }
  EXPECT_EQ(incidents, 3u);
  size_t rows = 0;
  for (size_t at = 0; (at = dom.find("<tr class=\"incident\">", at)) != std::string::npos; ++at)
    ++rows;
  EXPECT_EQ(rows, incidents);
  EXPECT_NE(dom.find("<svg class=\"timeline\""), std::string::npos);
}

// The same log at the end of 2 MB and of 200 MB of other programs' lines, through a pipe: the same
// story, in the same memory.
TEST(Report, StreamsTwoHundredMegabytesInFlatMemory) {
  std::string log = read_file(daemon_log("ABlockedThreadGetsKernelDumpsThenTheKill"));
  std::string block;
  while (block.size() < (1 << 20)) {
    block +=
        "11-22 08:07:00.000  1234  1301 I ActivityManager: Start proc 4321:com.example/u0a12 "
        "for service {com.example/com.example.Sync}\n";
  }
  long peak_kib[2] = {};
  std::string out[2];
  for (int i = 0; i < 2; ++i) {
    int in[2], res[2];
    ASSERT_EQ(pipe(in), 0);
    ASSERT_EQ(pipe(res), 0);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(in[0], 0);
      dup2(res[1], 1);
      close(in[1]);
      close(res[0]);
      execl(STALL_WARD_REPORT_PATH, "stall_ward_report", "-", nullptr);
      _exit(127);
    }
    close(in[0]);
    close(res[1]);
    for (int mb = 0; mb < (i == 0 ? 2 : 200); mb += static_cast<int>(block.size() >> 20)) {
      ASSERT_EQ(write(in[1], block.data(), block.size()), static_cast<ssize_t>(block.size()));
    }
    ASSERT_EQ(write(in[1], log.data(), log.size()), static_cast<ssize_t>(log.size()));
    close(in[1]);
    char buf[4096];
    for (ssize_t n; (n = read(res[0], buf, sizeof(buf))) > 0;) out[i].append(buf, n);
    close(res[0]);
    int status = 0;
    rusage usage = {};
    ASSERT_EQ(wait4(pid, &status, 0, &usage), pid);
    EXPECT_EQ(status, 0);
    peak_kib[i] = usage.ru_maxrss;
  }
  EXPECT_EQ(out[0].substr(out[0].find('\n')), out[1].substr(out[1].find('\n')));
  EXPECT_NE(out[1].find("in D from"), std::string::npos) << out[1];
  EXPECT_LE(peak_kib[1], peak_kib[0] + 1024)
      << "peak " << peak_kib[0] << " KiB, then " << peak_kib[1];
}

}  // namespace
