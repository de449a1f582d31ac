// stall_ward_report on the logs the real daemon wrote in the end-to-end cases (tests/report/logs,
// remade by scripts/report-fixtures.sh), on kernel logs of each supported format (tests/report/
// kernel: hand-written excerpts with the watched thread's id written @TID, and the real arm64
// kernel's logs from the virtual machine), and on bug reports assembled from both.
#include "report/report.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/wait.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "helpers.h"
#include "report/fleet.h"

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

// A fixture with its @NAMEs filled in.
std::string filled(const std::string& name, const std::map<std::string, std::string>& values) {
  std::string text = read_file(REPORT_FIXTURES "/" + name);
  for (const auto& [key, value] : values)
    text = android::base::StringReplace(text, key, value, true);
  return text;
}

// Each line format README lists, read by parse_line: "clock|pid tid tag|text" for logcat,
// "clock|ms|text" for the kernel (ms: a wall clock counted as logcat's, else -1), "" if not a line.
TEST(Report, ParseLineReadsEveryFormatItClaims) {
  const std::pair<const char*, const char*> cases[] = {
      {"11-22 08:07:30.105  1234  1301 I stall_ward: dumped 5 D",  // logcat -v threadtime
       "11-22 08:07:30.105|1234 1301 stall_ward|dumped 5 D"},
      {"11-22 08:07:30.105  1000  1234  1301 W Binder Proxy : a: b",  // -v uid, a tag with spaces
       "11-22 08:07:30.105|1234 1301 Binder Proxy|a: b"},
      {"2026-11-22 08:07:30.105  1234  1301 D tag:",
       "11-22 08:07:30.105|1234 1301 tag|"},                // -v year
      {"11-22 08:07:30.105 E/Zygote  ( 5927): Mount(): x",  // -v time: no thread id
       "11-22 08:07:30.105|5927 0 Zygote|Mount(): x"},
      {"11-22 08:07:30.105 I/stall_ward(10):", "11-22 08:07:30.105|10 0 stall_ward|"},
      {"[ 1033.404112] sysrq: Show Blocked State", "[1033.404112]|-1|sysrq: Show Blocked State"},
      {"<6>[    5.000000] init: x", "[5.000000]|-1|init: x"},               // /dev/kmsg's priority
      {"[  244.878944][   T74] INFO: task", "[244.878944]|-1|INFO: task"},  // a caller field
      {"<4>[   79.822940 / 05-03 18:11:50.340] [<c0b3d38c>] y",             // vendors' time stamps
       "[79.822940]|10692710340|[<c0b3d38c>] y"},
      {"[    0.000000,0] z", "[0.000000]|-1|z"},
      {"[  253.955444s][pid:1993,cpu0,init] w", "[253.955444]|-1|w"},
      {"  [  246.906433] pasted", "[246.906433]|-1|pasted"},  // a log pasted with an indent
      {"[Sun Nov 22 08:08:40 2026] t", "Sun Nov 22 08:08:40 2026|28195720000|t"},  // dmesg -T
      {"[ 12.5 not kernel", ""},
  };
  for (const auto& [raw, want] : cases) {
    report::Line l;
    bool read = report::parse_line(raw, &l);
    std::string ids = l.kind == report::Line::kLogcat
                          ? std::to_string(l.pid) + " " + std::to_string(l.tid) + " " + l.tag
                          : std::to_string(l.ms);
    EXPECT_EQ(read ? l.clock + "|" + ids + "|" + l.text : "", want) << raw;
  }
}

// The daemon's log in logcat -v time's layout tells the same story as in threadtime's.
TEST(Report, ReadsTheTimeLayoutAsThreadtime) {
  for (const char* test : {"ABlockedThreadGetsKernelDumpsThenTheKill",
                           "AnAsleepThreadGetsItsStacksDumpedAndABlockedOneThePanic"}) {
    std::string time_layout;
    for (const std::string& l : android::base::Split(read_file(daemon_log(test)), "\n")) {
      size_t tag = l.find(" stall_ward: ");
      report::Line line;
      time_layout +=
          tag != std::string::npos && report::parse_line(l, &line)
              ? android::base::StringPrintf("%s %c/stall_ward(%5d): %s\n", line.clock.c_str(),
                                            l[tag - 1], line.pid, line.text.c_str())
              : l + "\n";
    }
    TempDir dir;
    write_file(dir.path("time.log"), time_layout);
    EXPECT_EQ(report::text_report(report::build_story({dir.path("time.log")})),
              report::text_report(report::build_story({daemon_log(test)})))
        << test;
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
    size_t blocked = 0;
    for (const json& dump : s["kernel_dumps"]) {
      if (dump["kind"] != "SysRq w") continue;
      ++blocked;
      int watchdogs = 0;
      for (const json& task : dump["tasks"]) watchdogs += task["comm"] == "watchdog";
      EXPECT_EQ(watchdogs, 1) << file;
    }
    EXPECT_EQ(blocked, dumps) << file;
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

// The zip adb bugreport writes: main_entry.txt naming the text, and files of the device (FS/...).
void write_zip(const std::string& path, const std::string& entry, const std::string& text,
               const std::vector<std::pair<std::string, std::string>>& files = {}) {
  int error = 0;
  zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  ASSERT_NE(z, nullptr);
  zip_file_add(z, "main_entry.txt", zip_source_buffer(z, entry.data(), entry.size(), 0), 0);
  zip_file_add(z, entry.c_str(), zip_source_buffer(z, text.data(), text.size(), 0), 0);
  for (const auto& [name, content] : files)
    zip_file_add(z, name.c_str(), zip_source_buffer(z, content.data(), content.size(), 0), 0);
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
  // The text with \r\r\n line ends; the zip's with its log sections twice, as Android 11 may write.
  write_file(dir.path("bugreport-x.txt"), android::base::StringReplace(text, "\n", "\r\r\n", true));
  write_zip(dir.path("bugreport-x.zip"), "bugreport-x.txt",
            text + text.substr(text.find("------ SYSTEM LOG")));
  for (const char* input : {"bugreport-x.txt", "bugreport-x.zip"}) {
    json s = story({dir.path(input)});
    EXPECT_EQ(s["unreadable"], inserted * (input[12] == 'z' ? 2 : 1)) << input;
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
    ASSERT_EQ(s["kernel_dumps"].size(), 2u * asked) << "each SysRq w with its SysRq l";
    for (const json& dump : s["kernel_dumps"]) EXPECT_FALSE(dump["answers"].is_null());
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
  std::string zip = read_file(dir.path("bugreport-x.zip"));  // cut short: said, and exit 2
  write_file(dir.path("cut.zip"), zip.substr(0, zip.size() / 2));
  EXPECT_EQ(WEXITSTATUS(spawn(STALL_WARD_REPORT_PATH, {"r", dir.path("cut.zip")}).wait(20000)), 2);
  write_file(dir.path("empty.txt"), "");  // no line of the daemon: said, and exit 1
  Child empty = spawn(STALL_WARD_REPORT_PATH, {"r", dir.path("empty.txt")}, dir.path("empty.err"));
  EXPECT_EQ(WEXITSTATUS(empty.wait(20000)), 1);
  EXPECT_NE(read_file(dir.path("empty.err")).find(report::kNoDaemonLine), std::string::npos);
  EXPECT_EQ(WEXITSTATUS(spawn(STALL_WARD_REPORT_PATH, {"r", "--summary", dir.path("empty.txt")},
                              dir.path("empty.err"))
                            .wait(20000)),
            1)
      << "a fleet without a line of the daemon, the same";
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

// The pages in headless chromium, on a phone (390 px) and a laptop (1280 px): none wider than the
// screen, the fleet's table as cards on the phone only, and no timeline label over another where
// a real log's marks stand close (not found, then the evidence one sweep later; rebinds).
TEST(Report, ThePagesFitAPhoneAndALaptopWithNoLabelOverAnother) {
  TempDir dir;
  ASSERT_EQ(
      spawn(STALL_WARD_REPORT_PATH, {"r", "--summary", "--html", dir.path("fleet.html"), "--jobs",
                                     "1", REPORT_FIXTURES "/logs", REPORT_FIXTURES "/bugreport"})
          .wait(20000),
      0);
  for (const char* log : {"TheCheckersLiveFindingsAreWhatTheDaemonDoes",
                          "TheCheckersLiveFindingsAreWhatTheDaemonDoes-3"}) {
    ASSERT_EQ(spawn(STALL_WARD_REPORT_PATH,
                    {"r", "--html", dir.path(std::string(log) + ".html"), daemon_log(log)})
                  .wait(20000),
              0);
  }
  // Each page in a frame of each width; the frame's body gets "overflow, labels over another, how
  // a table cell shows".
  std::string page = R"(<!DOCTYPE html><html><head><script>
function measure(frame) {
  var d = frame.contentDocument, over = 0, td = d.querySelector('td');
  d.querySelectorAll('.plot').forEach(function (plot) {
    var r = Array.prototype.map.call(plot.querySelectorAll('.mlabel, .ylabel'),
                                     function (e) { return e.getBoundingClientRect(); });
    for (var i = 0; i < r.length; ++i)
      for (var j = i + 1; j < r.length; ++j)
        over += r[i].left < r[j].right && r[j].left < r[i].right && r[i].top < r[j].bottom &&
                r[j].top < r[i].bottom;
  });
  document.body.setAttribute('data-' + frame.id, (d.documentElement.scrollWidth -
      d.documentElement.clientWidth) + ' ' + over + ' ' + (td ? getComputedStyle(td).display : ''));
}
</script></head><body>)";
  auto frame_id = [](std::string name, int width) {  // as an attribute's name: lower case
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    return name + std::to_string(width);
  };
  const char* pages[] = {"fleet", "TheCheckersLiveFindingsAreWhatTheDaemonDoes",
                         "TheCheckersLiveFindingsAreWhatTheDaemonDoes-3"};
  for (const char* name : pages) {
    for (int width : {390, 1280}) {
      page += "<iframe id=\"" + frame_id(name, width) + "\" width=\"" + std::to_string(width) +
              "\" height=\"800\" src=\"" + name + ".html\" onload=\"measure(this)\"></iframe>";
    }
  }
  write_file(dir.path("measure.html"), page + "</body></html>");
  Child browser =
      spawn("/usr/bin/chromium",
            {"chromium", "--headless", "--no-sandbox", "--disable-gpu",
             "--allow-file-access-from-files", "--dump-dom", "file://" + dir.path("measure.html")},
            dir.path("browser.log"));
  std::string dom = browser.read_all();
  EXPECT_EQ(browser.wait(30000), 0);
  for (const char* name : pages) {
    for (int width : {390, 1280}) {
      std::string table = name[0] != 'f' ? "" : width == 390 ? "block" : "table-cell";
      EXPECT_NE(dom.find("data-" + frame_id(name, width) + "=\"0 0 " + table + "\""),
                std::string::npos)
          << name << " at " << width << " px: " << dom.substr(0, dom.find("<iframe"));
    }
  }
}

}  // namespace

namespace {

// Real kernel logs (each .source names where it was published) and hand-written ones, each in a
// bug report beside the daemon's log, the watched thread's id put in place of the task's: its
// kernel stack is attached, down to its first frame below the scheduler's.
TEST(Report, AttachesTheWatchedThreadsStackFromTheKernelLogsOfEachVendor) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // excerpt; the task taken for the watched thread; its first frame below the scheduler's
      {"handwritten-logcat-kernel-5.10.txt", "@TID", ""},
      {"twrp-3.4-arm32-vendor-stamps-sysrq-w.txt", "6", "wait_for_common"},  // on the day asked
      {"twrp-3.4-arm32-vendor-stamps-sysrq-w.txt", "", ""},  // stamped another day: not taken
      {"esos-3.x-x86-pc-column-stack-words.txt", "3937", "__blk_run_queue"},
      {"raspberrypi-4.14-arm32-hung-task.txt", "28445", ""},
      {"binder-4.15-arm64-hung-task.txt", "54781", "__mutex_lock.isra.0"},
      {"rockchip-4.19-arm64-hung-task.txt", "1", "wait_for_common"},
      {"raspberrypi-5.x-arm32-registers-between-frames.txt", "19868", "wait_for_completion"},
      {"sched-ext-6.9-x86-task-markers.txt", "1531", "__mutex_lock"},
      {"raspberrypi-6.12-arm32-hung-task.txt", "208", "kthread"},
      {"qualcomm-6.19-arm64-caller-field-indented.txt", "1", "__wait_for_common"},
      {"lkml-6.14-x86-semaphore-owner.txt", "945", "__down_common"},  // ? among the scheduler's
  };
  std::string log = read_file(daemon_log("ABlockedThreadGetsKernelDumpsThenTheKill"));
  int tid = story(
      {daemon_log("ABlockedThreadGetsKernelDumpsThenTheKill")})["runs"][0]["incidents"][0]["tid"];
  // Wall clocks moved to the second the daemon asked in (logcat's, a vendor's stamp, dmesg -T's).
  std::string asked = clock_of(log, "dumped").substr(0, 14);
  tm t = {};
  strptime(("2026-" + asked).c_str(), "%Y-%m-%d %H:%M:%S", &t);
  char dmesg_t[32];
  strftime(dmesg_t, sizeof(dmesg_t), "%a %b %e %H:%M:%S %Y", &t);
  TempDir dir;
  for (const auto& [file, pid, frame] : cases) {
    SCOPED_TRACE(file);
    std::string dmesg = kernel(file, tid), id = std::to_string(tid);  // in the task's line
    if (*pid != '\0') dmesg = android::base::StringReplace(dmesg, "05-03 18:11:50", asked, true);
    dmesg = android::base::StringReplace(dmesg, "Tue Apr  8 12:19:07 2025", dmesg_t, true);
    dmesg = android::base::StringReplace(dmesg, "11-22 08:08:17", asked, true);
    dmesg = android::base::StringReplace(dmesg, " " + std::string(pid) + " ", " " + id + " ", true);
    dmesg = android::base::StringReplace(dmesg, "pid:" + std::string(pid) + " ", "pid:" + id + " ",
                                         true);
    write_file(dir.path("bugreport.txt"), bugreport(log, dmesg));
    report::Story s = report::build_story({dir.path("bugreport.txt")});
    const report::Incident& in = s.runs[0].incidents[0];
    if (*pid == '\0') {
      EXPECT_LT(in.dump, 0);
      continue;
    }
    ASSERT_GE(in.dump, 0);
    std::string below = "(not listed)";
    for (const report::KernelTask& task : s.dumps[in.dump].tasks) {
      size_t at = report::wait_frame(task);
      if (task.pid == tid) below = at < task.stack.size() ? task.stack[at] : "";
    }
    EXPECT_EQ(below, frame);
    if (std::string(file).find("semaphore") == std::string::npos) continue;
    EXPECT_NE(report::text_report(s).find("the kernel names the lock's likely owner: cat:938 (S), "
                                          "at msleep_interruptible < read_dummy_semaphore"),
              std::string::npos)
        << report::text_report(s);
  }
}

// The next boot's bug report of two incidents: this boot's asleep system_server thread, its SIGQUIT
// answered by a Java dump (the VM TRACES section, an ANR file in the zip, or /data/anr/trace_NN
// pulled beside it) and its signal 35 by a tombstone; the last boot's panic (LAST LOGCAT), its
// kernel dumps in pstore's record given beside it (console-ramoops-0, or dmesg-ramoops-0 with its
// "Panic#1 Part1" and /dev/kmsg's lines). The asleep thread shows both stacks and the deadlock
// behind its monitor, or where the dumps are when they are not in the input; the panic its stack.
TEST(Report, TellsTheStacksOfAnAsleepThreadAndOfAPanicFromTheNextBoot) {
  const std::string name = "AnAsleepThreadGetsItsStacksDumpedAndABlockedOneThePanic";
  const std::string log = daemon_log(name), panic_log = daemon_log(name + "-2");
  json in = story({log})["runs"][0]["incidents"][0];
  int panic_tid = story({panic_log})["runs"][0]["incidents"][0]["tid"];
  std::string pid = in["pid"].dump();
  // The stand-ins' own answers, each stamped when its signal arrived on the daemon's clock (end to
  // end, and in the VM at the real pace), are taken as they are: the Java dump seconds before the
  // "dumped" line.
  std::string trace = log.substr(0, log.size() - 4) + ".trace_00",
              stamped = log.substr(0, log.size() - 4) + ".tombstone_00";
  const std::string vm = REPORT_FIXTURES "/kernel/vm-arm64-6.1-app";
  for (const Lines& inputs :
       {Lines{log, trace, stamped},
        Lines{vm + "-stall_ward.log", vm + ".trace_00", vm + ".tombstone_00"}}) {
    json real = story(inputs)["runs"][0]["incidents"][0];
    EXPECT_TRUE(real["java_stack"]["found"] == true && real["native_stack"]["found"] == true)
        << inputs[0] << real.dump();
  }
  std::string java_at = read_file(trace).substr(read_file(trace).find(" at ") + 4, 19);
  std::string native_at =
      read_file(stamped).substr(read_file(stamped).find("Timestamp: ") + 11, 19);
  std::string text = android::base::StringReplace(
      bugreport(read_file(log), ""), "------ CPU INFO",
      "------ LAST LOGCAT (logcat -L -d) ------\n" + read_file(panic_log) + "------ CPU INFO",
      false);
  std::map<std::string, std::string> values = {
      // the hand-written dumps (a deadlock behind the monitor) stamped as the stand-in's were
      {"@PID", pid},
      {"@TID", in["tid"].dump()},
      {"@UI", "2012"},
      {"@DISPLAY", "2015"},
      {"@DATE", java_at}};
  std::string java = filled("java/handwritten-system_server-deadlock.txt", values);
  values["@DATE"] = native_at;
  std::string tombstone = filled("native/handwritten-system_server-signal35.txt", values);
  std::string dmesg = kernel("handwritten-dmesg-5.4.txt", panic_tid) +
                      kernel("handwritten-dmesg-5.4.txt", panic_tid);
  TempDir dir;
  const std::string vm_traces = "------ VM TRACES JUST NOW (/data/anr/dumptrace_d6fTOr) ------\n";
  write_file(dir.path("bugreport.txt"), text + vm_traces + java);
  write_zip(dir.path("anr.zip"), "b.txt", text,
            {{"FS/data/anr/anr_2026-11-22-22-16-07-001", java},
             {"FS/data/tombstones/tombstone_01", tombstone}});
  write_zip(dir.path("without.zip"), "b.txt", text,
            {{"FS/data/tombstones/tombstone_01", tombstone}});
  std::filesystem::create_directory(dir.path("anr"));
  write_file(dir.path("anr/trace_00"), java);
  write_file(dir.path("tombstone_01"), tombstone);
  write_file(dir.path("console-ramoops-0"), dmesg);
  write_file(dir.path("dmesg-ramoops-0"),
             "Panic#1 Part1\n<6>" + android::base::StringReplace(dmesg, "\n", "\n<6>", true));
  for (const Lines& inputs :
       {Lines{"bugreport.txt", "tombstone_01", "console-ramoops-0"},
        Lines{"anr.zip", "dmesg-ramoops-0"}, Lines{"without.zip", "anr"}, Lines{"without.zip"}}) {
    SCOPED_TRACE(inputs[0]);
    Lines paths;
    for (const std::string& input : inputs) paths.push_back(dir.path(input));
    std::string account = report::text_report(report::build_story(paths));
    json s = story(paths);
    if (inputs.size() == 1) {  // neither the Java dump nor the kernel's: where they are
      EXPECT_NE(account.find("/data/anr/trace_NN: adb pull /data/anr"), std::string::npos)
          << account;
      EXPECT_NE(account.find("No blocked-task dump found"), std::string::npos);
      json unknown = s["runs"][0]["incidents"][0];
      for (const json& value : {unknown["java_dump"], unknown["kernel_dump"],
                                unknown["blocker"]["java"], unknown["blocker"]["kernel"]})
        EXPECT_TRUE(value.is_null()) << unknown.dump();
      continue;
    }
    json asleep = s["runs"][0]["incidents"][0], panic = s["runs"][1]["incidents"][0];
    EXPECT_EQ(
        asleep["java_stack"]["stack"][0],
        "com.android.server.am.ActivityManagerService.monitor(ActivityManagerService.java:15203)");
    EXPECT_EQ(asleep["native_stack"]["stack"][0], "libc.so (syscall+28)");
    EXPECT_NE(account.find("held by thread 12 \"android.ui\" (tid 2012, Blocked) at com.android."
                           "server.wm.WindowManagerService.getWindowDisplayFrame"),
              std::string::npos)
        << account;
    EXPECT_NE(
        account.find("; a deadlock of \"android.ui\" (tid 2012, Blocked), \"android.display\""),
        std::string::npos);
    if (inputs[0] == "without.zip") continue;  // no pstore record
    EXPECT_TRUE(s["runs"][1]["last_boot"]);
    EXPECT_EQ(panic["actions"].back()["what"], "panic");
    EXPECT_EQ(s["kernel_dumps"][panic["kernel_dump"].get<int>()]["tasks"][0]["pid"], panic_tid);
  }
}

}  // namespace

namespace {

// A fleet from scripts/make-fleet.py: the same hangs on many devices, builds and kernels (their
// own ids, addresses and times), other hangs, reports without incident, and one zip cut short. Each
// kind of hang is one signature, --summary counts it, and sqlite3's query over --jsonl gives the
// same table; the cut zip is named and skipped.
TEST(Report, AFleetCountsEachHangUnderOneSignature) {
  TempDir dir;
  const std::string fleet = dir.path("fleet");
  ASSERT_EQ(spawn(MAKE_FLEET_PATH, {"make-fleet.py", fleet, "60", "16"}).wait(120000), 0);
  std::map<std::string, std::string> kind;  // of each bug report
  std::map<std::string, int> reports;       // of each kind
  for (const std::string& row : android::base::Split(read_file(fleet + ".tsv"), "\n")) {
    Lines f = android::base::Split(row, "\t");
    if (f.size() == 2) ++reports[kind[f[0]] = f[1]];
  }
  std::string out[2];
  for (int jsonl : {0, 1}) {
    Child tool = spawn(STALL_WARD_REPORT_PATH,
                       {"stall_ward_report", jsonl ? "--jsonl" : "--summary", "--jobs", "2", fleet},
                       dir.path("err"));
    out[jsonl] = tool.read_all();
    EXPECT_EQ(WEXITSTATUS(tool.wait(60000)), 2);
    EXPECT_NE(read_file(dir.path("err")).find("fleet/bugreport-damaged.zip: a damaged"),
              std::string::npos);
  }
  std::map<std::string, std::string> signature;  // of each kind
  std::map<std::string, int> counted;            // by the table, of each signature
  for (const std::string& line : android::base::Split(android::base::Trim(out[1]), "\n")) {
    json j = json::parse(line);
    std::string& s = signature[kind[j["bugreport"]]];
    EXPECT_TRUE(s.empty() || s == j["signature"]) << line;
    s = j["signature"];
  }
  for (const std::string& row : android::base::Split(android::base::Trim(out[0]), "\n"))
    counted[row.substr(row.rfind(' ') + 1)] = atoi(row.c_str());
  for (const char* k : {"binder", "fuse", "zombie", "deadlock"}) {
    EXPECT_EQ(counted[signature[k]], reports[k]) << k;
    counted.erase(signature[k]);
  }
  EXPECT_EQ(counted.size(), 1u) << "a row per kind of hang, and the table's header";
  write_file(dir.path("incidents.jsonl"), out[1]);
  Child sql = spawn("/usr/bin/sqlite3", {"sqlite3", "-header", "-separator", " | ", "-cmd",
                                         ".cd " + dir.path(""), ":memory:", ".read " SUMMARY_SQL});
  EXPECT_EQ(sql.read_all(), out[0]);
}

// What differs from build to build is dropped from a signature (offsets, compiler suffixes,
// addresses, line numbers, numbered classes and lambdas); another place or lock makes another.
TEST(Report, ASignatureKeepsThePlaceAndDropsTheBuild) {
  const std::tuple<char, Lines, Lines, bool> cases[] = {
      // kind of stack, two stacks, same hang
      {'k',
       {"__switch_to", "schedule", "__wait_for_common", "binder_thread_read"},
       {"__schedule", "schedule_timeout", "wait_for_common.constprop.0", "binder_thread_read"},
       1},
      {'k', {"schedule", "rwsem_down_read_slowpath", "down_read"}, {"schedule", "mutex_lock"}, 0},
      {'j',
       {"a.B$1.run(B.java:12)", "- locked <0x1a> (a a.C)", "a.B$$Lambda$12/0x801.f(B.java)"},
       {"a.B$2.run(B.java:40)", "a.B$$Lambda$9/0xabc.f(B.java)"},
       1},
      {'j', {"a.B.run(B.java:12)"}, {"a.B.walk(B.java:12)"}, 0},
      {'n',
       {"libart.so (art::Monitor::Lock(art::Thread*)+4020)"},
       {"libart.so (art::Monitor::Lock(art::Thread*)+96)"},
       1},
  };
  for (const auto& [kind, a, b, same] : cases) {
    std::string signature[2];
    for (int i : {0, 1}) {
      report::Story s;
      s.runs.emplace_back().incidents.push_back({});
      report::Incident& in = s.runs[0].incidents[0];
      in.tid = 7;
      if (kind == 'k') {
        in.dump = 0;
        s.dumps.emplace_back().tasks.push_back({"watchdog", 'D', 7, 1, i ? b : a, {}, ""});
      } else {
        (kind == 'j' ? in.java : in.native) = 0;
        s.stacks.emplace_back().threads.push_back({"watchdog", "", 7, 0, i ? b : a, "", 0});
      }
      signature[i] = report::hangs_of(s, "x")[0].signature;
    }
    EXPECT_EQ(signature[0] == signature[1], same) << a[0];
  }
}

// A Java lock's holder inside a call to another process is shown by the Java frames that say so,
// the same in the account and in the signature's blocker.
TEST(Report, AHolderInABinderCallIsShownByItsJavaFrames) {
  report::Story s;
  report::Incident& in = s.runs.emplace_back().incidents.emplace_back();
  in.tid = 7;
  in.java = 0;
  in.actions = {{report::Act::kSigquit, "a", 5, -1, ""}, {report::Act::kSignal35, "a", 5, -1, ""}};
  report::ProcessDump& dump = s.stacks.emplace_back();
  dump.threads.push_back(
      {"watchdog", "Blocked", 7, 1, {"a.B.monitor(B.java:9)"}, "<0x1> (a a.C)", 2});
  dump.threads.push_back(
      {"binder:5_2",
       "Native",
       8,
       2,
       {"libc.so (__ioctl+4)", "libc.so (ioctl+156)",
        "libbinder.so (android::IPCThreadState::transact+224)",
        "android.os.BinderProxy.transactNative(Native method)",
        "android.os.BinderProxy.transact(BinderProxy.java:540)", "- locked <0x1> (a a.C)"},
       "",
       0});
  std::string account = report::incident_account(s, s.runs[0], in);
  EXPECT_NE(
      account.find("(tid 8, Native) at android.os.BinderProxy.transactNative(Native method) < "
                   "android.os.BinderProxy.transact"),
      std::string::npos)
      << account;
  EXPECT_EQ(report::hangs_of(s, "x")[0].blocker,
            "waits for a.C held by \"binder:N_N\" at android.os.BinderProxy.transactNative");
}

}  // namespace
