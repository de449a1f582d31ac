// The report across processes: the binder driver's state in each kernel's layout, who is who,
// pressure and the platform watchdog's lines, and the chain from the watched thread to the culprit
// on the bug reports the VM suite's real binder driver and kernel wrote (tests/report/bugreport,
// cut by scripts/vm-fixtures.sh).
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "helpers.h"
#include "report/fleet.h"
#include "report/report.h"

using nlohmann::json;

namespace {

std::string vm_bugreport(const std::string& scenario) {
  return REPORT_FIXTURES "/bugreport/vm-arm64-6.1-" + scenario + ".txt";
}

// An unknown in --json is null, never "" or -1 (a setting is as the daemon logged it: an empty
// property is "").
void expect_unknowns_null(const json& j, const std::string& at) {
  for (const auto& item : j.items()) {
    if (item.key() == "settings") continue;
    if (item.value().is_structured()) expect_unknowns_null(item.value(), at + "/" + item.key());
    bool negative = item.value().is_number_integer() && item.value().get<int64_t>() < 0;
    EXPECT_FALSE(item.value() == "" || negative) << at << "/" << item.key();
  }
}

// Each scenario's system_server waits in a binder call: the account names the callee, how it
// waits, and for the cycle a deadlock; --json's chain has every hop; one culprit, one signature.
TEST(Across, FollowsTheRealDriversCallsToTheCulprit) {
  struct Case {
    const char* scenario;
    std::vector<std::string> said;  // in system_server's incident
    size_t hops;
    bool cycle;
    const char* culprit;
  } cases[] = {
      {"binder",
       {"for a binder call into storaged (pid ",
        "which sleeps in `do_sys_poll`, waiting on nothing", "a Java or native dump of storaged",
        "little pressure"},
       2,
       false,
       "storaged storaged nothing known in do_sys_poll"},
      {"binder-d",
       {"for a binder call into vold (pid ", "which waits in the kernel in `__wait_for_common`"},
       2,
       false,
       "vold vold kernel in wait_for_common < wait_for_completion_state < kernel_clone"},
      {"binder-cycle",
       {"into netd (pid ", "which waits for a binder call into android.hardwar (pid ",
        "which waits for a binder call into netd (pid ",
        "thread binder:", "which waits on a lock (a futex): a deadlock across processes"},
       4,
       true,
       "a deadlock across processes: android.hardwar, netd"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    report::Story story = report::build_story({vm_bugreport(c.scenario)});
    std::vector<report::Hang> hangs = report::hangs_of(story, c.scenario);
    const report::Hang* victim = nullptr;
    for (const report::Hang& h : hangs) {
      if (h.process == "system_server") victim = &h;
      EXPECT_EQ(h.signature, hangs[0].signature) << "one culprit, one signature";
    }
    ASSERT_NE(victim, nullptr);
    for (const std::string& words : c.said)
      EXPECT_NE(victim->story.find(words), std::string::npos) << words << "\n" << victim->story;
    EXPECT_EQ(victim->culprit, c.culprit);
    json j = json::parse(report::json_report(story));
    expect_unknowns_null(j, "");
    for (const json& in : j["runs"][0]["incidents"]) {
      if (in["process"] != "system_server") continue;
      ASSERT_EQ(in["chain"].size(), c.hops) << in["chain"].dump(1);
      EXPECT_EQ(in["chain_cycle"], c.cycle);
      EXPECT_EQ(in["chain"][0]["tid"], in["tid"]);
      EXPECT_EQ(in["chain"][0]["waits"], "binder call");
      EXPECT_GT(in["chain"][0]["age_ms"].get<int64_t>(), 8000) << "the stall, at least a timeout";
      EXPECT_NE(in["chain"][1]["evidence"].get<std::string>().find(c.cycle ? "binder" : ""),
                std::string::npos);
    }
    // With the driver's state cut out, its transaction log alone names the same callee.
    std::string text = read_file(vm_bugreport(c.scenario));
    for (std::string section : {"BINDER TRANSACTIONS", "BINDER STATE"}) {
      size_t from = text.find("------ " + section + " (");
      std::string end = "was the duration of '" + section + "' ------\n";
      text.erase(from, text.find(end) + end.size() - from);
    }
    TempDir dir;
    write_file(dir.path("bugreport.txt"), text);
    for (const report::Hang& h :
         report::hangs_of(report::build_story({dir.path("bugreport.txt")}), "")) {
      if (h.process != "system_server") continue;
      ASSERT_EQ(h.chain.hops.size(), 2u);
      EXPECT_EQ(h.chain.hops[1].process, victim->chain.hops[1].process);
      EXPECT_EQ(h.chain.hops[1].pid, victim->chain.hops[1].pid);
    }
  }
}

// How the callee waits in the kernel, told from its stack: I/O, lock contention, or else.
TEST(Across, TellsHowTheCalleeWaitsInTheKernel) {
  struct Case {
    std::vector<std::string> stack;
    const char* said;
  } cases[] = {
      {{"__schedule", "io_schedule", "folio_wait_bit_common", "filemap_fault"},
       "which is blocked on I/O in `folio_wait_bit_common`"},
      {{"schedule", "__mutex_lock", "mutex_lock", "ext4_sync_file"},
       "which waits in lock contention in `__mutex_lock`"},
      {{"schedule", "mmc_wait_for_req", "mmc_blk_mq_issue_rq"},
       "which waits in the kernel in `mmc_wait_for_req`"},
  };
  for (const Case& c : cases) {
    report::Story story;
    story.across.add_section_line(
        "BINDER STATE", "  outgoing transaction 7: 0 from 10:11 to 20:20 code 1 flags 10 pri 0 r1");
    story.across.finish();
    report::KernelDump dump;
    dump.tasks.push_back({"sensors", 'D', 20, 1, c.stack, {}, ""});
    story.dumps.push_back(dump);
    report::Incident in;
    in.pid = 10;
    in.tid = 11;
    report::Chain chain = report::follow_chain(story, in);
    std::vector<std::string> said = report::chain_account(story, in, chain);
    ASSERT_FALSE(said.empty());
    EXPECT_NE(said[0].find(c.said), std::string::npos) << said[0];
  }
}

// A watched thread that waits for a Java monitor: the chain goes on from the monitor's holder.
TEST(Across, GoesOnFromTheJavaMonitorsHolder) {
  report::Story story;
  story.across.add_section_line(
      "BINDER STATE", "  outgoing transaction 7: 0 from 10:12 to 20:20 code 1 flags 10 pri 0 r1");
  story.across.finish();
  report::ProcessDump dump;
  dump.pid = 10;
  dump.threads.push_back({"watchdog", "Blocked", 11, 9, {}, "<0x1> (a Foo)", 2});
  dump.threads.push_back({"android.ui", "Native", 12, 2, {}, "", 0});
  story.stacks.push_back(dump);
  report::Incident in;
  in.pid = 10;
  in.tid = 11;
  in.java = 0;
  report::Chain chain = report::follow_chain(story, in);
  ASSERT_EQ(chain.hops.size(), 3u);
  EXPECT_EQ(chain.hops[0].waits, "monitor");
  EXPECT_EQ(chain.hops[1].tid, 12);
  EXPECT_EQ(chain.hops[2].pid, 20);
  EXPECT_NE(report::chain_account(story, in, chain)[0].find(
                "waits for the monitor <0x1> (a Foo) held by "),
            std::string::npos);
}

// The platform watchdog's verdict on the same process, in its log or a trace's Subject: line,
// is joined to the daemon's incident.
TEST(Across, JoinsThePlatformWatchdogsVerdict) {
  TempDir dir;
  std::string text = read_file(vm_bugreport("binder"));
  report::Story plain = report::build_story({vm_bugreport("binder")});
  const report::Incident& in = plain.runs[0].incidents[0];
  std::string minute = report::first_evidence(in)->clock.substr(0, 12);
  std::string pid = std::to_string(in.pid);
  std::string line = minute + "59.000  " + pid + "  " + pid +
                     " W Watchdog: *** WATCHDOG KILLING SYSTEM PROCESS: Blocked in handler on "
                     "main thread (main)\n";
  size_t log = text.find('\n', text.find("------ SYSTEM LOG")) + 1;
  write_file(dir.path("bugreport.txt"), text.substr(0, log) + line + text.substr(log));
  write_file(dir.path("anr_1"), "Subject: Blocked in handler on main thread (main)\n\n----- pid " +
                                    pid + " at 2026-" + minute +
                                    "30 -----\nCmd line: "
                                    "system_server\n\n----- end " +
                                    pid + " -----\n");
  write_file(dir.path("paste"),  // a paste of "tag: message" lines: the watchdog is system_server's
             "Watchdog: *** WATCHDOG KILLING SYSTEM PROCESS: Blocked in handler on display thread "
             "(android.display)\nWatchdog: android.display annotated stack trace:\n");
  struct Case {
    Lines inputs;
    std::string said;
  } cases[] = {
      {{dir.path("bugreport.txt")},
       "killed system_server at " + minute +
           "59.000 for a block in "
           "handler on main thread (main)"},
      {{vm_bugreport("binder"), dir.path("anr_1")},
       "reported system_server at 2026-" + minute + "30 for a block in handler on main thread"},
      {{vm_bugreport("binder"), dir.path("paste")},
       "killed system_server for a block in handler on display thread (android.display)"},
  };
  for (const Case& c : cases) {
    report::Story story = report::build_story(c.inputs);
    std::string account =
        report::incident_account(story, story.runs[0], story.runs[0].incidents[0]);
    EXPECT_NE(account.find("the platform watchdog " + c.said), std::string::npos) << account;
  }
}

// ActivityManager's report of an ANR carries the pressure it read (in logcat, in Android Studio's
// format, in a trimmed copy): joined to the incident of the same process or the same time; a
// reading of zero is said to be no cause, a high one is the cause.
TEST(Across, JoinsThePressureOfAnAnrReport) {
  const std::string log = REPORT_FIXTURES "/logs/ABlockedThreadGetsKernelDumpsThenTheKill.log";
  report::Story plain = report::build_story({log});
  const report::Incident& victim = plain.runs[0].incidents[0];
  std::string pid = std::to_string(victim.pid), stamp = report::first_evidence(victim)->clock;
  std::string zero =
      "no pressure: every stall figure is zero, no cause (as ActivityManager read it";
  struct Case {
    const char* fixture;
    std::string from, to, said;  // the fixture's text `from` put as `to`; "" said: none joined
  } cases[] = {
      {"logcat-anr-memory-zero", "PID: 27750", "PID: " + pid, ""},  // months before
      {"logcat-anr-memory-zero", "09-29 16:03:03.457", stamp,
       zero + " for an ANR in com.example.myapplication (pid 27750) at " + stamp + ")"},
      {"android-studio-anr-memory-zero", "PID: 7541", "PID: " + pid,
       zero + " for an ANR in com.google.android.gms.persistent (pid " + pid +
           ") at 21:57:41.642)"},
      {"android-studio-anr-memory-zero", "", "", ""},  // another process, on no known day
      {"anr-report-memory-io-high-trimmed", "", "",
       "under memory pressure (some avg10=82.71%), under io pressure (some avg10=85.37%) (as "
       "ActivityManager read it for an ANR)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fixture + (" " + c.to));
    TempDir dir;
    std::string text = read_file(REPORT_FIXTURES "/pressure/" + std::string(c.fixture) + ".txt");
    write_file(dir.path("anr.txt"), android::base::StringReplace(text, c.from, c.to, true));
    report::Story story = report::build_story({log, dir.path("anr.txt")});
    std::vector<std::string> causes =
        report::chain_account(story, story.runs[0].incidents[0], report::Chain());
    EXPECT_EQ(causes, c.said.empty() ? Lines() : Lines{c.said});
  }
}

// The driver's state in the layout of drivers/android/binder.c's print functions: every field of
// a transaction, the context it is listed under; a line of none of the forms counted.
TEST(Across, ReadsEachKernelsBinderLayout) {
  struct Case {
    const char* text;
    const char* kind;
    int from_pid, from_tid, to_pid, to_tid;
    unsigned code, flags;
    const char* context;
    int unknown;
  } cases[] = {
      // 6.1 as the VM's kernel prints it
      {"proc 100\ncontext hwbinder\n  thread 100: l 10 need_return 0 tr 0\n    outgoing "
       "transaction 4: 0000000072a1ec65 from 100:100 to 109:114 code 1 flags 10 pri 0 r1",
       "outgoing", 100, 100, 109, 114, 1, 0x10, "hwbinder", 0},
      // a line of none of the forms
      {"proc 699\ncontext binder-test\n@@ noise", "", 0, 0, 0, 0, 0, 0, "", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    report::BinderState state = report::read_binder_state(android::base::Split(c.text, "\n"));
    EXPECT_EQ(state.unknown, c.unknown);
    ASSERT_EQ(state.calls.size(), *c.kind ? 1u : 0u);
    if (state.calls.empty()) continue;
    const report::BinderCall& call = state.calls[0];
    EXPECT_EQ(call.kind, c.kind);
    EXPECT_EQ(std::vector<int>({call.from_pid, call.from_tid, call.to_pid, call.to_tid}),
              std::vector<int>({c.from_pid, c.from_tid, c.to_pid, c.to_tid}));
    EXPECT_EQ(call.code, c.code);
    EXPECT_EQ(call.flags, c.flags);
    EXPECT_EQ(call.context, c.context);
  }
}

// Real captures of the driver's state (tests/report/binder, each with its source), kernels 3.10
// to 6.12: each read whole as a file of its own (a shell's prompt, lines folded by a terminal or a
// post, an author's notes and elisions, a sender that died, one-way calls, work kinds older
// kernels lack), no line unknown.
TEST(Across, ReadsRealBinderCaptures) {
  struct Case {
    const char* capture;
    int procs;
    size_t threads, calls;
    std::string first;  // the first call: its kind, from, to, age in ms (-1: none printed)
  } cases[] = {
      {"linux-3.10-arm64-proc-state", 1, 4, 0, ""},
      {"android-8-incoming-from-dead-sender-folded", 0, 1, 1, "incoming 0:0 12635:13399 -1"},
      {"android-8.1-state-folded-at-80-columns", 0, 0, 0, ""},
      {"android-app-outgoing-no-thread-yet-elapsed", 1, 2, 4, "outgoing 18571:18657 2055:0 48738"},
      {"halium-hwbinder-annotated-and-elided", 2, 2, 2, "incoming 216350:939021 938936:938936 -1"},
      {"linux-6.12-binder-logs-work-kinds", 2, 2, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.capture);
    const std::string path = REPORT_FIXTURES "/binder/" + std::string(c.capture) + ".txt";
    report::Story story = report::build_story({path});
    const report::BinderState& state = story.across.binder.state;
    EXPECT_TRUE(story.across.binder_read);
    EXPECT_EQ(state.unknown, 0);
    EXPECT_EQ(state.procs, c.procs);
    EXPECT_EQ(state.threads.size(), c.threads);
    ASSERT_EQ(state.calls.size(), c.calls);
    if (c.calls == 0) continue;
    const report::BinderCall& call = state.calls[0];
    EXPECT_EQ(android::base::StringPrintf("%s %d:%d %d:%d %lld", call.kind.c_str(), call.from_pid,
                                          call.from_tid, call.to_pid, call.to_tid,
                                          static_cast<long long>(call.elapsed_ms)),
              c.first);
  }
}

// A real capture beside a real daemon log whose watched thread is put in as the capture's caller:
// the account names the callee (its thread by a real kernel log's task, its process by a real Java
// dump, each put in as the callee's), where it blocks, and the call's age as the kernel printed
// it; a callee no input shows is no culprit; a one-way call waits for nothing, nor a call the
// transaction log shows answered.
TEST(Across, FollowsRealCapturesFromTheWatchedThread) {
  const std::string log = REPORT_FIXTURES "/logs/ABlockedThreadGetsKernelDumpsThenTheKill.log";
  report::Story plain = report::build_story({log});
  const report::Incident& victim = plain.runs[0].incidents[0];
  std::string caller = std::to_string(victim.pid) + ":" + std::to_string(victim.tid);
  struct Case {
    const char* capture;
    const char* section;  // of the bug report it is put in, beside the daemon's log
    const char* from;     // the caller, put in as the watched thread
    const char* callee;   // put in as a blocked task of a real kernel log, or null
    std::string said;
    bool culprit;      // the incident is signed by a culprit
    size_t lines = 0;  // the capture's first lines only (0: all of them)
  } cases[] = {
      {"android-system_server-outgoing-elapsed-offset", "BINDER STATE", "2055:2055", "3270",
       "waits 6 s for a binder call into com.example.app (pid 2867, thread Binder_5 3270), which "
       "waits in lock contention in `__mutex_lock.isra.0`",
       true},
      {"android-system_server-outgoing-elapsed-offset", "BINDER TRANSACTIONS", "2055:2055", nullptr,
       "waits 6 s for a binder call into a process no input names (pid 2867, thread 3270), which "
       "is shown by no input (neither its state nor its stack)",
       false},
      {"android-app-outgoing-no-thread-yet-elapsed", "BINDER STATE", "18571:18657", nullptr,
       "waits 48 s for a binder call into a process no input names (pid 2055), which has no thread "
       "that took the call",
       true},
      {"android-app-outgoing-no-thread-yet-elapsed", "BINDER STATE", "2055:2093", nullptr, "",
       false},
      {"linux-3.10-failed-transaction-log", "BINDER FAILED TRANSACTION LOG", "1731:4738", nullptr,
       "the binder driver's failed-transaction log: a reply to the thread from 733:5038 failed "
       "(transaction 24423419): it may wait for it for ever",
       false},
      {"linux-3.10-transaction-log", "BINDER TRANSACTION LOG", "8963:9594", nullptr, "", false},
      {"linux-3.10-transaction-log", "BINDER TRANSACTION LOG", "8963:9594", nullptr,
       "waits 62 s for a binder call into a process no input names (pid 435), which took the call "
       "on a thread no input shows",
       false, 2},  // taken before the reply came
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.capture + std::string(" ") + c.from);
    TempDir dir;
    std::string capture = read_file(REPORT_FIXTURES "/binder/" + std::string(c.capture) + ".txt");
    size_t end = 0;
    for (size_t n = 0; n < c.lines; ++n) end = capture.find('\n', end) + 1;
    if (c.lines != 0) capture.resize(end);
    std::string section = "------ " + std::string(c.section) +
                          " (/sys/kernel/debug/binder) ------\n" +
                          android::base::StringReplace(capture, c.from, caller, true);
    write_file(dir.path("bugreport.txt"),  // the section twice, as Android 11 may write it
               "== dumpstate: 2026-11-23 11:30:00\n------ SYSTEM LOG (logcat -d) ------\n" +
                   read_file(log) + section + section);
    Lines inputs = {dir.path("bugreport.txt")};
    if (c.callee != nullptr) {
      std::string kernel = read_file(REPORT_FIXTURES "/kernel/binder-4.15-arm64-hung-task.txt");
      write_file(dir.path("dmesg"), android::base::StringReplace(kernel, "54781", c.callee, true));
      std::string trace = read_file(REPORT_FIXTURES "/kernel/vm-arm64-6.1-app.trace_00");
      write_file(dir.path("trace_00"),
                 android::base::StringReplace(trace, "pid 101", "pid 2867", 1));
      inputs.insert(inputs.end(), {dir.path("dmesg"), dir.path("trace_00")});
    }
    report::Story story = report::build_story(inputs);
    const report::Incident& in = story.runs[0].incidents[0];
    std::vector<std::string> causes = report::chain_account(story, in, in.chain);
    EXPECT_EQ(causes.empty() ? "" : causes[0], c.said);
    EXPECT_EQ(std::count(causes.begin(), causes.end(), c.said), c.said.empty() ? 0 : 1);
    EXPECT_EQ(report::hangs_of(story, "")[0].culprit.empty(), !c.culprit);
  }
}

// Who is who, pressure and the platform watchdog, each in the forms devices print.
TEST(Across, ReadsTheProcessListPressureAndWatchdogLines) {
  report::PsReader ps;
  for (const char* line :
       {"LABEL                          USER           PID   TID  PPID     VSZ    RSS WCHAN    "
        "        ADDR S CMD",
        "u:r:system_server:s0           system        1503  1503   690 1 2 do_epoll_wait 0 S "
        "system_server",
        "                               system        1503  1511   690 1 2 do_sigtimedwait 0 S "
        "Signal Catcher"}) {
    ps.add(line);
  }
  EXPECT_EQ(ps.list.process_name(1503), "system_server");
  ASSERT_NE(ps.list.task(1511), nullptr);
  EXPECT_EQ(ps.list.task(1511)->name, "Signal Catcher");
  EXPECT_EQ(ps.list.task(1511)->wchan, "do_sigtimedwait");

  report::Pressure p;
  ASSERT_TRUE(report::parse_pressure("some avg10=82.71 avg60=60.10 avg300=20.00", "memory", &p));
  EXPECT_EQ(p.avg10, 82.71);
  EXPECT_EQ(p.total_us, -1);
  EXPECT_FALSE(report::parse_pressure("full total=0", "io", &p));
  EXPECT_EQ(report::pressure_resource("----- Output from /proc/pressure/io -----"), "io");

  struct Case {
    const char* message;
    const char* kind;
    const char* monitor;
    const char* checker;
    const char* thread;
    int seconds;
  } cases[] = {
      {"Blocked in handler on main thread (main) for 61s", "blocked", "", "main thread", "main",
       61},
      {"*** WATCHDOG KILLING SYSTEM PROCESS: Blocked in monitor com.android.server.am."
       "ActivityManagerService on foreground thread (android.fg)",
       "killing", "com.android.server.am.ActivityManagerService", "foreground thread", "android.fg",
       -1},
      {"Subject: Blocked in handler on display thread (android.display)", "blocked", "",
       "display thread", "android.display", -1},
      {"*** GOODBYE!", "goodbye", "", "", "", -1},
  };
  for (const Case& c : cases) {
    report::WatchdogLine w;
    ASSERT_TRUE(report::parse_watchdog(c.message, &w)) << c.message;
    EXPECT_EQ(std::vector<std::string>({w.kind, w.monitor, w.checker, w.thread}),
              std::vector<std::string>({c.kind, c.monitor, c.checker, c.thread}));
    EXPECT_EQ(w.seconds, c.seconds);
  }
  report::WatchdogLine w;
  EXPECT_FALSE(report::parse_watchdog("Watchdog: no block", &w));
}

}  // namespace
