// stall_ward_report: from logs to the story of each hang. The input side turns files (logcat in
// threadtime form, a kernel log, pstore's record, Java stack dumps, tombstones, a bug report or
// its zip) into classified lines; one reader per kind of evidence (kernel.cpp, java.cpp,
// native.cpp) turns lines into dumps; the story side replays the daemon's lines and joins the
// dumps to it; the output side writes the text account, the HTML page and the JSON.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "messages.h"
#include "report/across.h"

namespace report {

// One line of input, classified.
struct Line {
  enum Kind { kOther, kLogcat, kKernel } kind = kOther;
  // Where the line was read: the current boot's logs, the previous boot's (a bug report's LAST
  // LOGCAT and LAST KMSG, pstore's console-ramoops-0 and dmesg-ramoops-0), or a Java or native
  // stack dump (then not parsed: `text` holds the line as it is), or a section read as it is (the
  // binder driver's state, the process list, pressure: `tag` names the section, `text` holds the
  // line).
  enum From { kLog, kLastBoot, kStackDump, kSection } from = kLog;
  int section = 0;    // counts the inputs and a bug report's sections, to tell a repeated section
  std::string clock;  // logcat: "MM-DD hh:mm:ss.mmm" as printed; kernel: "[uptime]"
  int64_t ms = -1;    // logcat: milliseconds since the start of the year, -1 if unknown
  int pid = 0, tid = 0;  // logcat
  std::string tag;       // logcat
  std::string text;      // logcat: the message; kernel: the text after the time stamp
  int year = 0;          // logcat -v year: the year printed, else 0
  std::string zone;      // logcat -v zone: "+0900" as printed, else empty
};

// Parses one line in logcat's threadtime form (with or without a uid column or a year) or a kernel
// log line ("[  12.345678] text", with an optional "<6>" priority, a vendor's suffix to the time
// stamp, a caller field, or dmesg -T's wall clock). False for anything else.
bool parse_line(const std::string& raw, Line* line);
// Days before each month, and in the year, by a leap year's calendar: the clocks' milliseconds
// count from the start of the year so, since every date a log can print has its day there (a
// common year's count from March on is one day more, which keeps the order).
extern const int kDaysBefore[13];
// The milliseconds Line::ms holds for a logcat clock ("MM-DD hh:mm:ss.mmm"), -1 for another.
int64_t clock_ms(const std::string& clock);

// A line of the daemon told apart by its own message table: the first message whose format the
// text matches whole (the bare list item matches anything), and each conversion's text.
struct DaemonLine {
  static constexpr int kMaxFields = 8;
  Msg id = Msg::kListItem;
  std::string_view field[kMaxFields];
  int fields = 0;
};
DaemonLine match_daemon_line(const std::string& text);

struct InputStats {
  uint64_t lines = 0;               // lines looked at (in a bug report: in its log sections)
  uint64_t unreadable = 0;          // lines that were neither logcat nor kernel lines, skipped
  uint64_t daemon = 0;              // lines of the daemon
  std::vector<std::string> errors;  // inputs that could not be opened
  // The logs' year and time zone, when an input gives them (logcat -v year, -v zone, or a bug
  // report's "== dumpstate: 2026-11-22 08:10:00" line); 0 and empty otherwise.
  int year = 0;
  std::string zone, year_from;
  // Of a bug report (the last one read): its device's serial number (the ro.serialno property),
  // its build (the header's "Build fingerprint:") and when it was taken ("== dumpstate: ...").
  std::string device, build, taken;
};

// Where read_inputs hands its lines: `line` takes each. While `every_line` says no (the story has
// no kernel dump open), a log line that neither is the daemon's nor can start a kernel dump is
// only counted, not parsed: the input is read at the speed of the disk.
struct Sink {
  std::function<void(const Line&)> line;
  std::function<bool()> every_line = [] { return true; };
};

// The inputs named: files as they are ("-" too), each folder as the files in it (and in its
// folders, when recursive), in name order.
std::vector<std::string> files_of(const std::vector<std::string>& given, bool recursive);
// Streams every input ("-" is stdin, a folder: each file in it) line by line to `sink`. A zip is
// read as a bug report: its main entry, then its ANR files and tombstones; in a bug report only
// the log sections (this boot's and the last one's) and the VM TRACES sections are read. A file
// that begins as a Java stack dump or a tombstone is read as one.
void read_inputs(const std::vector<std::string>& paths, InputStats* stats, const Sink& sink);

struct KernelDump {
  std::string clock;  // as the log printed it
  int64_t ms = -1;    // with a wall clock (logcat, dmesg -T); -1: the time since boot only
  // "SysRq w", "hung task" (the kernel's own report), "SysRq l", or "tasks, start lost" (task lines
  // whose dump began before the oldest line of the log)
  std::string kind = "SysRq w";
  bool last_boot = false;
  int section = 0;   // Line::section of its start
  bool cut = false;  // its last task has no stack: the log ends or breaks inside it
  std::vector<KernelTask> tasks;
  std::string answers;  // what the daemon did that asked for it, once attached
};

// Reads kernel lines into the dumps they hold: SysRq w, the hung-task reports, SysRq l. Lines of
// other kinds inside a dump (registers, statistics, other programs' lines) are passed over; a dump
// ends at the next one, or after 10 s of the kernel's clock or 400 lines without a task or frame.
struct KernelReader {
  std::vector<KernelDump> dumps;
  void add(const Line& line);
  int open = -1, task = -1;  // indexes of the dump being read and of its last task
  double last_s = -1;        // the kernel clock of the dump's last task or frame
  int idle = 0;              // lines since then
};

// Tasks of one dump that wait at the same place: the same innermost frames below the scheduler's.
struct KernelGroup {
  std::vector<std::string> where;  // up to three frames, innermost first
  std::vector<size_t> tasks;       // indexes into KernelDump::tasks
};
std::vector<KernelGroup> kernel_groups(const KernelDump& dump);
// Whether a kernel frame is the scheduler's own (every blocked task's stack starts with some: they
// say only that it sleeps; the frames below them say why).
bool scheduler_frame(const std::string& function);
// Whether a task's frame is a guess: printed with "?", without a name, or padding (__pfx_).
bool guessed_frame(const KernelTask& task, size_t i);
// Where a task waits: its first frame that is neither the scheduler's nor a guess, wherever the
// guesses stand among the scheduler's frames; when every frame is a guess, the first named one that
// is not the scheduler's (the stack's size when there is none).
size_t wait_frame(const KernelTask& task);

// A thread of a Java stack dump (the runtime's answer to SIGQUIT) or of a native dump (a
// tombstone, the crash handler's answer to signal 35; or a native process's backtrace in a VM
// TRACES section).
struct StackThread {
  std::string name, state;  // state: the runtime's ("Blocked", "Native"...), empty for native
  int tid = 0;              // the kernel's thread id (sysTid)
  int java_id = 0;          // the runtime's thread number ("tid=" of a Java thread)
  std::vector<std::string> stack;  // innermost first: "at pkg.Class.m(File.java:1)", "libc.so
                                   // (__futex_wait+28)", "- locked <0x1> (a T)"
  std::string waits_for;           // the monitor it is waiting to lock, "<0x...> (a T)"
  int held_by = 0;                 // the runtime's number of the thread holding it, 0: not given
};
struct ProcessDump {
  bool java = true;  // false: a tombstone or a native backtrace
  int pid = 0;
  std::string when;  // its time as it printed it (local time)
  int64_t ms = -1;   // the same counted as a logcat clock is, -1 unknown
  std::string cmd, source;
  int signal = 0;         // a tombstone's signal
  bool complete = false;  // its end was read
  std::vector<StackThread> threads;
};

// "2026-11-22 08:08:40" (as dumps print their local time) counted as parse_line counts a logcat
// clock; -1 if it is not such a time.
int64_t iso_ms(const std::string& text);

// Java stack dumps ("----- pid N at ... -----" ... "----- end N -----") and native backtraces in
// the same frame, as in /data/anr files and a bug report's VM TRACES sections.
struct JavaReader {
  std::vector<ProcessDump> dumps;
  void add(const std::string& line);
  bool open = false;
};
std::vector<ProcessDump> read_java_dumps(const std::vector<std::string>& lines);

// Tombstones: "*** *** ***" then one block per thread from "pid: N, tid: M, name: X  >>> Y <<<".
struct NativeReader {
  std::vector<ProcessDump> dumps;
  void add(const std::string& line);
  bool open = false, frames = false;
};
std::vector<ProcessDump> read_native_dumps(const std::vector<std::string>& lines);

// Whether a frame of a Java or native dump is a native one ("libc.so (__ioctl+4)").
bool native_frame(const std::string& frame);
// The frames that say where a lock's holder is: its Java frames when it has any (a call into
// another process shows as BinderProxy.transactNative and its callers, not as libc's ioctl), else
// its native ones; never the lock lines.
std::vector<std::string> holder_frames(const StackThread& thread);

// From `thread` on through "waiting to lock ... held by thread N": the threads in turn (indexes
// into dump.threads), `thread` first. A chain that comes back to one of its threads is a deadlock.
std::vector<size_t> monitor_chain(const ProcessDump& dump, size_t thread, bool* deadlock);

// A point of a record's timeline: one sweep's sample.
struct Point {
  int64_t ms;
  char state;        // the thread's state, '-' when the thread was not found
  int64_t stall_ms;  // the daemon's stall count after the sample
};
struct Mark {
  int64_t ms;
  std::string clock, kind;  // kind: bind, evidence, policy, frozen, not-started, alarm, slow, error
  std::string text;         // what happened, up to the process it names if it names one
  int pid = 0;              // that process (0: none), given by its name where it is shown
  std::string tail;         // what follows the process
  int dump = -1;  // a self-watchdog event: index into Story::dumps of the dump it asked for
};

// What the daemon did about an incident: evidence (SysRq w and l, SIGQUIT, signal 35) or its
// policy (kill, reboot, panic, none), to whom (pid -1: no process) and when.
enum class Act { kSysrqW, kSysrqL, kSigquit, kSignal35, kKill, kReboot, kPanic, kNone };
// "sysrq-w", "sysrq-l", "sigquit", "signal-35", "kill", "reboot", "panic", "none".
const char* act_name(Act what);
inline bool is_evidence(Act what) {
  return what == Act::kSysrqW || what == Act::kSysrqL || what == Act::kSigquit ||
         what == Act::kSignal35;
}
struct Action {
  Act what;
  std::string target;  // the process's name, empty when none or not known
  int pid = -1;
  int64_t ms = -1;
  std::string clock;
};

// One incident: the watched thread as it was when its stall reached the timeout, and what the
// daemon did about it. Everything else about it is read from `actions` (below).
struct Incident {
  std::string record, process;
  int pid = -1, tid = -1;
  char state = '?';
  std::string since;
  int dump = -1;  // index into Story::dumps of the kernel dump taken as evidence
  std::vector<Action> actions;
  int java = -1, native = -1;  // indexes into Story::stacks of the dumps that answered
  Chain chain;  // from the thread across processes to the culprit, once every input is read
};

// The incident's first evidence action, or null.
const Action* first_evidence(const Incident& in);
// The first policy action, or null.
const Action* first_policy(const Incident& in);
bool did(const Incident& in, Act what);
// The process signal 35 went to (the thread's, or a zombie's parent), -1 when none did.
int signalled(const Incident& in);
// The evidence as one phrase ("SysRq w, l", "SIGQUIT, signal 35"), empty when none; the policy's
// ("killed pid N", "reboot"; "; again hh:mm:ss.mmm" for each repeat), empty when none.
std::string evidence_phrase(const Incident& in);
std::string policy_phrase(const Incident& in);

// The daemon's reconstruction of one watched name (a thread name, or a process watched by its
// main thread).
struct Record {
  std::string name, process, cmd;
  int pid = -1, tid = -1, ppid = -1;
  char state = '?';
  uint64_t cpu = 0, switches = 0;
  int64_t stall_ms = 0;
  std::string since_clock;
  bool reported = false;
  int incident = -1;  // index into Run::incidents of the open incident
  std::vector<Point> points;
  std::vector<Mark> marks;
};

struct Run {
  int pid = 0;
  bool last_boot = false;  // read from the previous boot's log
  std::string started;     // clock of the "started" line, empty if it was not in the log
  std::map<std::string, std::string> settings;  // property name to value, as logged
  std::vector<std::string> watches;  // "system_server: watchdog", "surfaceflinger: main thread"
  int64_t timeout_s = 0, interval_ms = 0;  // from the logged timeout, else the defaults
  uint64_t lines = 0, sweeps_proc = 0, sweeps_shell = 0;
  std::map<std::string, Record> records;
  std::vector<Incident> incidents;
  std::vector<Mark> events;             // the self-watchdog, slow sweeps, failures to open
  int64_t first_ms = -1, last_ms = -1;  // the times of its first and last line
};

struct Story {
  std::vector<Run> runs;
  std::vector<KernelDump> dumps;
  std::vector<ProcessDump> stacks;  // Java and native dumps
  Across across;                    // the other processes: binder, process list, pressure
  InputStats input;
};

// Reads every input and reconstructs what the daemon did: its runs, each watched name's
// timeline, the incidents, and the kernel dumps attached to the evidence that asked for them.
Story build_story(const std::vector<std::string>& paths);

// Said when the inputs hold no line of the daemon.
constexpr const char* kNoDaemonLine =
    "no line of stall_ward in the input: not its log, or its debug property was off (its lines "
    "carry the tag stall_ward)";

// The head of a page, up to its <body>, with the pages' one stylesheet.
std::string page_head(const std::string& title);
std::string text_report(const Story& story);
std::string html_report(const Story& story);
std::string json_report(const Story& story);
// One incident's paragraph of the text account.
std::string incident_account(const Story& story, const Run& run, const Incident& in);

}  // namespace report
