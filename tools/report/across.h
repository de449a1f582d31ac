// What a bug report says about other processes: the binder driver's state (who calls whom), the
// process list (who is who), the platform watchdog's own lines and the pressure-stall figures.
// Each reader takes the lines of its section (or of a file given as such) one at a time.
#pragma once

#include <stdint.h>

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace report {

// One transaction as the binder driver prints it under a process (debugfs or binderfs state,
// transactions, proc/N): "outgoing", "incoming" or "pending". A pid or tid of 0 is none: a sender
// that died ("from 0:0"), a call no thread has taken yet ("to 4642:0").
struct BinderCall {
  std::string kind;
  int id = 0;
  int from_pid = 0, from_tid = 0, to_pid = 0, to_tid = 0;
  unsigned code = 0, flags = 0;
  int64_t elapsed_ms = -1;  // -1: the kernel printed no age (before its "elapsed Nms")
  std::string context;      // "binder", "hwbinder", "vndbinder"; empty where not printed
  int listed_under = 0;     // the proc whose block lists it
  int error = 0;  // in the driver's transaction logs: the call's error ("ret E/P"), 0 none
};

struct BinderState {
  std::vector<BinderCall> calls;
  // The driver's log of the last transactions that failed ("N: call|async|reply from P:T to P:T
  // ..."; `kind` the type), as the bug report's BINDER FAILED TRANSACTION LOG has it.
  std::vector<BinderCall> failed;
  // The driver's log of the last transactions, oldest first, as the bug report's BINDER
  // TRANSACTION LOG has it: where no state is read, who a thread last called.
  std::vector<BinderCall> logged;
  std::map<int, std::string> threads;  // tid to its "l XX ..." line, of every thread listed
  int procs = 0;                       // "proc N" blocks read
  int unknown = 0;                     // lines of none of the forms known, skipped
  // The call `tid` waits for: its outgoing transaction (else one it sent, as another process
  // lists it); null when the state shows none.
  const BinderCall* outgoing_of(int tid) const;
  // The last synchronous call that the transaction log shows `tid` sent without an error and with
  // no reply to `tid` after it: one it still waits for. Null when the log shows none.
  const BinderCall* unanswered_of(int tid) const;
};

// Lines of the driver's state, in any kernel's layout from 2.6 to 6.x (with or without
// "need_return", "pri N" or "pri N:M", "data" or "offset", "a0"/"a1", "elapsed Nms"), indented or
// not, a line a terminal folded joined back to the one before it.
struct BinderReader {
  BinderState state;
  void add(const std::string& line);
  void finish();     // the last line read is complete
  std::string held;  // a line that a folded continuation may still complete
  int proc = 0;
  std::string context;
};
BinderState read_binder_state(const std::vector<std::string>& lines);
// Reads one entry of the driver's transaction logs; false for a line of another form.
bool parse_binder_log_entry(const std::string& line, BinderCall* call);
// Whether a file that begins with this line is the driver's state: one of its records ("binder
// state:", "proc N", "thread N: ...", a transaction, "dead nodes:"), or a shell's prompt before a
// command that reads one of its files ("# cat /d/binder/proc/1037").
bool binder_state_line(const std::string& line);

// A process list (ps -A -T, or ps -A): who each pid and tid is.
struct PsThread {
  int pid = 0, tid = 0, ppid = 0;
  char state = '?';
  std::string name, wchan;  // the thread's (CMD) or process's (NAME) name
};
struct ProcessList {
  std::map<int, PsThread> tasks;  // by tid (by pid for a list without threads)
  // The process's name (its main thread's, its NAME), empty when not listed.
  std::string process_name(int pid) const;
  const PsThread* task(int tid) const;
};
struct PsReader {
  ProcessList list;
  void add(const std::string& line);
  std::vector<std::string> columns;  // the header's, once read
};

// Where pressure figures were read: the bug report's own sections (`anr` false), or
// ActivityManager's report of an ANR, with the process that did not respond, its pid and when the
// report was logged (as printed, and in Line::ms's count: -1 where the log gives no date), each
// empty or 0 where not printed.
struct PressureSource {
  bool anr = false;
  std::string process;
  int pid = 0;
  std::string clock;
  int64_t ms = -1;
};
// One line of /proc/pressure/{cpu,memory,io}: "some avg10=.. avg60=.. avg300=.. total=..".
struct Pressure {
  std::string resource, kind;  // "memory", "some"
  double avg10 = 0, avg60 = 0, avg300 = 0;
  int64_t total_us = -1;  // -1: not printed (a trimmed copy)
  PressureSource from;
};
// Reads pressure lines; `resource` is what the section's or block's header named.
bool parse_pressure(const std::string& line, const std::string& resource, Pressure* out);
// The resource a header names: "------ PSI memory (/proc/pressure/memory) ------", "----- Output
// from /proc/pressure/io -----"; empty when it names none.
std::string pressure_resource(const std::string& header);

// ActivityManager's report of an ANR in the log: "ANR in NAME (component)", "PID: N", and the
// pressure it read between "----- Output from /proc/pressure/R -----" and "----- End output from
// ... -----". Takes each message of its lines (logcat's; a line without a stamp: Android Studio's
// further lines of a message, a copy of the report, with `ms` -1 and `clock` empty), in order.
struct AnrReader {
  std::vector<Pressure> read;
  PressureSource now;    // the report being read
  std::string resource;  // the pressure file whose figures come next, empty when none
  void add(const std::string& message, int64_t ms, const std::string& clock);
};

// The platform watchdog's verdict in its log lines and its trace's "Subject:" line.
struct WatchdogLine {
  std::string kind;                      // "blocked" (a report), "killing", "goodbye"
  std::string what;                      // "handler" or "monitor"
  std::string monitor, checker, thread;  // CLASS of a monitor; NAME and (THREAD)
  int seconds = -1;                      // "for Ns", -1 when not printed
};
// Reads the message of a Watchdog line ("Blocked in handler on main thread (main) for 61s", "***
// WATCHDOG KILLING SYSTEM PROCESS: Blocked in ...", "*** GOODBYE!") or a "Subject: Blocked in ...".
bool parse_watchdog(const std::string& message, WatchdogLine* out);

// A platform watchdog's line as the log gave it: its verdict, the process that wrote it, when.
struct WatchdogSeen {
  WatchdogLine line;
  int pid = 0;
  int64_t ms = -1;
  std::string clock;
  std::string trace;  // of a trace's Subject: line, the file: its dump gives the pid and time
};

// Everything the bug report says about other processes, gathered from its sections (a Line of
// kind kSection, whose tag names the section) and the platform watchdog's log lines.
struct Across {
  BinderReader binder;
  PsReader ps;
  std::vector<Pressure> pressure;  // the bug report's own sections
  AnrReader anr;                   // and ActivityManager's ANR reports
  std::vector<WatchdogSeen> watchdog;
  bool binder_read = false, ps_read = false;
  void add_section_line(const std::string& section, const std::string& text);
  void finish() { binder.finish(); }
};

// The kernel's answer to SysRq w: the tasks it lists and their stacks.
struct KernelTask {
  std::string comm;
  char state = '?';
  int pid = 0, ppid = -1;
  std::vector<std::string> stack;  // innermost frame first, offsets dropped
  std::vector<bool> unsure;        // per frame: printed with "?", a guess of the unwinder
  std::string owner;  // the kernel's "likely owned by task NAME:PID" for the lock it waits on
};

struct Story;
struct Incident;

// One step from the watched thread towards the thread at fault: who it is, how it waits, on what
// evidence, since when.
struct Hop {
  std::string process, thread;  // empty when no input names them
  int pid = 0, tid = 0;
  // "binder call", "monitor", "kernel lock", "kernel", "lock", "runs", "nothing known", "gone",
  // "not shown" (no input shows its state or stack), "no thread yet" (a call no thread of the
  // process has taken)
  std::string waits;
  std::string where;     // the frame it waits in, or the kernel's wait channel
  KernelTask task;       // its task where a kernel dump lists it with a stack
  std::string evidence;  // the input that shows it
  int64_t age_ms = -1;   // the call's age where the kernel printed it
};
struct Chain {
  std::vector<Hop> hops;
  bool cycle = false;   // the last hop waits on one before it: a deadlock across processes
  std::string missing;  // the input that would take the chain further, when it stops short
};
// Follows the incident's thread through binder calls, kernel locks and the process list to the
// culprit or a cycle; empty when the inputs hold no binder state or process list. The story does
// it once for each incident (Incident::chain), when every input is read; the outputs format that.
Chain follow_chain(const Story& story, const Incident& in);
// The chain and the conditions around it in plain words, one sentence each: the cause, the
// pressure, the platform watchdog's verdict.
std::vector<std::string> chain_account(const Story& story, const Incident& in, const Chain& chain);
// The incident's chain on the page (empty when there is none) and in --json ("chain").
std::string chain_html(const Story& story, const Incident& in);
void add_chain_json(const Story& story, const Incident& in, nlohmann::json* incident);
// The hops as JSON objects (for --json, and --jsonl's ordered keys).
template <typename Json>
Json chain_hops_json(const Chain& chain);

}  // namespace report
