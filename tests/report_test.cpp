// stall_ward_report on the logs the real daemon wrote in the end-to-end cases (tests/report/logs,
// remade by scripts/report-fixtures.sh), on kernel logs of each supported format (tests/report/
// kernel: hand-written excerpts with the watched thread's id written @TID, and the real arm64
// kernel's logs from the virtual machine), and on bug reports assembled from both.
#include "report/report.h"

#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <string.h>
#include <zip.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "helpers.h"

using nlohmann::json;

namespace {

std::string daemon_log(const std::string& test) {
  return REPORT_FIXTURES "/logs/" + test + ".log";
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
  return android::base::StringReplace(read_file(REPORT_FIXTURES "/kernel/" + name), "@TID",
                                      std::to_string(tid), true);
}

TEST(Report, ReadsTheBlockedTasksOfEachKernelFormat) {
  const std::tuple<const char*, size_t, int, const char*, const char*> cases[] = {
      // excerpt; blocked tasks; the first one's parent, stack and frames printed with "?"
      {"handwritten-dmesg-4.14.txt", 2, 5,
       "__switch_to __schedule schedule schedule_timeout wait_for_common wait_for_completion "
       "binder_thread_read binder_ioctl_write_read binder_ioctl do_vfs_ioctl",
       ""},
      {"handwritten-dmesg-6.6.txt", 1, 1,
       "__schedule schedule schedule_timeout __pfx_process_timeout wait_for_completion_killable "
       "fuse_simple_request",
       "3"},
      {"handwritten-logcat-kernel-5.10.txt", 1, 5, "__switch_to __schedule schedule io_schedule",
       ""},
  };
  TempDir dir;
  for (const auto& [file, tasks, ppid, stack, unreliable] : cases) {
    SCOPED_TRACE(file);
    write_file(dir.path(file), kernel(file, 1301));
    json dumps = story({dir.path(file)})["kernel_dumps"];
    ASSERT_EQ(dumps.size(), 1u) << "the backtrace of active CPUs is not a blocked-task dump";
    ASSERT_EQ(dumps[0]["tasks"].size(), tasks);
    EXPECT_EQ(dumps[0]["tasks"][0],
              (json{{"comm", "watchdog"},
                    {"state", "D"},
                    {"pid", 1301},
                    {"ppid", ppid},
                    {"stack", android::base::Split(stack, " ")},
                    {"unreliable_frames", json::parse("[" + std::string(unreliable) + "]")}}));
  }
}

// The real arm64 kernel's logs from the virtual machine's runs (scripts/vm-fixtures.sh): the
// blocked-task dumps of SysRq w, on the console and in the pstore record of a panic, and nothing
// taken for one in the CPU backtraces, the hung-task report or the panic itself. The dump the
// daemon asked for goes to the incident of the same run, with the stand-in thread's stack.
TEST(Report, ReadsTheRealArm64KernelsLogs) {
  const std::string vm = REPORT_FIXTURES "/kernel/vm-arm64-6.1-";
  for (const auto& [file, dumps] : {std::pair{"sysrq-w.txt", 1u},
                                    {"pstore-panic.txt", 2u},
                                    {"sysrq-l.txt", 0u},
                                    {"hung-task.txt", 0u},
                                    {"panic.txt", 0u}}) {
    json s = story({vm + file});
    ASSERT_EQ(s["kernel_dumps"].size(), dumps) << file;
    for (const json& dump : s["kernel_dumps"]) {
      int watchdogs = 0;
      for (const json& task : dump["tasks"]) watchdogs += task["comm"] == "watchdog";
      EXPECT_EQ(watchdogs, 1) << file;
    }
  }
  json s = story({vm + "stall_ward.log", vm + "sysrq-w.txt"});
  json in = s["runs"][0]["incidents"][0];
  bool found = false;
  for (const json& task : s["kernel_dumps"].at(in["kernel_dump"].get<size_t>())["tasks"]) {
    if (task["pid"] != in["tid"]) continue;
    found = true;
    EXPECT_EQ(task["comm"], "watchdog");
    EXPECT_EQ(task["state"], "D");
    const json& stack = task["stack"];  // a vfork waiting for its child
    EXPECT_NE(std::find(stack.begin(), stack.end(), "kernel_clone"), stack.end()) << task;
  }
  EXPECT_TRUE(found) << s;
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
    text += (line.size() > 18 ? line.substr(0, 18) + "  1000" + line.substr(18) : line) + "\n";
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

// Every end-to-end case's log in one bug report, as text and as a zip: the first three (daemons
// of different ids) line by line, with lines that are not log lines among them, and a blocked-task
// dump in the kernel log for each request of one. Each incident is told with the thread, times,
// evidence and action the daemon logged, each dump attached, the blocked thread's kernel stack in
// its incident; the page renders in headless chromium.
TEST(Report, ABugReportOfEveryCaseTellsEachIncidentAndRendersInChromium) {
  struct Case {
    const char* test;
    const char *record = nullptr, *state = nullptr, *evidence = nullptr, *action_line = nullptr,
               *action = nullptr, *target = nullptr;  // the action's target by name, if known
  } cases[] = {
      {"ABlockedThreadGetsKernelDumpsThenTheKill", "watchdog", "D", "sysrq-w", "killing proc ",
       "kill", "system_server"},
      {"RebootEndsTheInitOfThePidNamespace", "watchdog", "D", "sysrq-w", "rebooting", "reboot"},
      {"AHangingPsFiresTheSelfWatchdogAndTheDaemonCarriesOn"},
      {"ABlockedThreadGetsKernelDumpsThenTheKill-2"},  // debug off: no incident
      {"AZombieMainThreadIsFoundThroughPsAndItsParentAnswers", "surfaceflinger", "Z", "signal-35",
       "killing proc ", "kill"},  // the parent, whose name no input gives
  };
  const Lines garbage = {std::string("\x01\xff\xfe binary", 10), "11-22 08:07:30.105    10",
                         "11-22 08:07:30.105    10    10 I stall_ward", "[ 12.5 not kernel",
                         std::string(100000, 'x')};
  std::vector<Lines> each;
  std::string logs, mixed, dmesg;
  for (const Case& c : cases) {
    logs += read_file(daemon_log(c.test));
    each.push_back(android::base::Split(android::base::Trim(read_file(daemon_log(c.test))), "\n"));
  }
  Lines lines;  // the first three line by line, then the others
  for (size_t i = 0; i < std::max({each[0].size(), each[1].size(), each[2].size()}); ++i) {
    for (size_t k = 0; k < 3; ++k) {
      if (i < each[k].size()) lines.push_back(each[k][i]);
    }
  }
  for (size_t k = 3; k < each.size(); ++k)
    lines.insert(lines.end(), each[k].begin(), each[k].end());
  int inserted = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    mixed += lines[i] + "\n";
    if (i % 7 == 0) mixed += garbage[inserted++ % garbage.size()] + "\n";
  }
  int asked = 0;
  for (const std::string& m : log_messages(logs)) {
    asked += m == "E Alarm! self stuck!" ||
             (android::base::StartsWith(m, "I dumped ") && m.size() > 2 && m[m.size() - 2] == ' ' &&
              strchr("DZ", m.back()) != nullptr);
  }
  int tid = story({daemon_log(cases[0].test)})["runs"][0]["incidents"][0]["tid"];
  for (int i = 0; i < asked; ++i) dmesg += kernel("handwritten-dmesg-5.4.txt", tid);
  std::string text = bugreport(mixed, dmesg);
  TempDir dir;
  write_file(dir.path("bugreport-x.txt"), text);
  write_zip(dir.path("bugreport-x.zip"), "bugreport-x.txt", text);
  for (const char* input : {"bugreport-x.txt", "bugreport-x.zip"}) {
    json s = story({dir.path(input)});
    EXPECT_EQ(s["unreadable"], inserted) << input;
    EXPECT_EQ(s["time"]["year"], 2026) << "from the dumpstate line";
    ASSERT_EQ(s["runs"].size(), std::size(cases)) << "the line outside the log sections is read";
    for (size_t i = 0; i < std::size(cases); ++i) {
      const Case& c = cases[i];
      SCOPED_TRACE(std::string(input) + " " + c.test);
      std::string log = read_file(daemon_log(c.test));
      Lines m = log_messages(log);
      json run = s["runs"][i];
      EXPECT_EQ(run["sweeps_proc"], count(m, "I go through proc"));
      EXPECT_EQ(run["sweeps_shell"], count_prefix(m, "I [sh] cmd=ps -e|grep "));  // one entry
      int alarms = 0, slow = 0;
      for (const json& e : run["events"]) (e["kind"] == "alarm" ? alarms : slow) += 1;
      EXPECT_EQ(alarms, count(m, "E Alarm! self stuck!"));
      EXPECT_EQ(slow, count_prefix(m, "E long time cost: "));
      ASSERT_EQ(run["incidents"].size(), c.record ? 1u : 0u);
      if (!c.record) continue;
      json in = run["incidents"][0];
      EXPECT_EQ(in["record"], c.record);
      EXPECT_EQ(in["state"], c.state);
      json first = in["actions"].front(), last = in["actions"].back();
      EXPECT_EQ(first["what"], c.evidence) << in;
      EXPECT_EQ(last["what"], c.action) << in;
      EXPECT_EQ(last["target"], c.target ? json(c.target) : json(nullptr)) << in;
      EXPECT_EQ(in["since"]["clock"], clock_of(log, "match="));
      EXPECT_EQ(first["time"]["clock"], clock_of(log, "dumped "));
      EXPECT_EQ(last["time"]["clock"], clock_of(log, c.action_line));
      EXPECT_EQ(count(m, "I dumped " + std::to_string(in["pid"].get<int>()) + " " + c.state), 1);
    }
    ASSERT_EQ(s["kernel_dumps"].size(), static_cast<size_t>(asked));
    for (const json& dump : s["kernel_dumps"]) EXPECT_NE(dump["answers"], "");
    std::string account = report::text_report(report::build_story({dir.path(input)}));
    EXPECT_NE(
        account.find("; kernel stack: wait_for_common < wait_for_completion < binder_thread_read "
                     "< binder_ioctl_write_read < binder_ioctl < do_vfs_ioctl (under the "
                     "scheduler's __switch_to < __schedule < schedule < schedule_timeout)"),
        std::string::npos)
        << account;
    EXPECT_NE(account.find("Its log holds only \"started\""), std::string::npos) << "debug off";
  }
  // Its page, opened in headless chromium: no console error, every incident shown.
  ASSERT_EQ(spawn(STALL_WARD_REPORT_PATH, {"stall_ward_report", "--html", dir.path("page.html"),
                                           dir.path("bugreport-x.zip")})
                .wait(20000),
            0);
  Child browser =
      spawn("/usr/bin/chromium",
            {"chromium", "--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr",
             "--dump-dom", "file://" + dir.path("page.html")},
            dir.path("browser.log"));
  std::string dom = browser.read_all();
  EXPECT_EQ(browser.wait(30000), 0);
  EXPECT_EQ(read_file(dir.path("browser.log")).find("CONSOLE"), std::string::npos)
      << read_file(dir.path("browser.log"));
  Lines shown;  // each incident by name, with the thread's kernel stack once, beside it
  const std::string row = "</span> ";
  for (size_t at = 0; (at = dom.find("<article class=\"incident\">", at)) != std::string::npos;
       ++at) {
    size_t name = dom.find(row, at) + row.size();
    shown.push_back(dom.substr(name, dom.find(" (", name) - name));
  }
  EXPECT_EQ(shown, (Lines{"thread watchdog", "thread watchdog", "surfaceflinger"}));
  EXPECT_EQ(dom.find_first_of("`"), std::string::npos);
  EXPECT_EQ(dom.find("pid -1"), std::string::npos);
  EXPECT_NE(dom.find("<div class=\"timeline\"><div class=\"plot\"><svg"), std::string::npos);
}

}  // namespace
