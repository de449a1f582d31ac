// stall_ward_report: from logs to the story of each hang. The input side turns files (logcat in
// threadtime form, a kernel log, a bug report or its zip) into classified lines; the story side
// replays the daemon's lines and collects the kernel's blocked-task dumps; the output side writes
// the text account, the HTML page and the JSON.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace report {

// One line of input, classified.
struct Line {
  enum Kind { kOther, kLogcat, kKernel } kind = kOther;
  std::string clock;     // logcat: "MM-DD hh:mm:ss.mmm" as printed; kernel: "[uptime]"
  int64_t ms = -1;       // logcat: milliseconds since the start of the year, -1 if unknown
  int pid = 0, tid = 0;  // logcat
  std::string tag;       // logcat
  std::string text;      // logcat: the message; kernel: the text after the time stamp
  int year = 0;          // logcat -v year: the year printed, else 0
  std::string zone;      // logcat -v zone: "+0900" as printed, else empty
};

// Parses one line in logcat's threadtime form (with or without a uid column or a year) or a kernel
// log line ("[  12.345678] text", with an optional "<6>" priority). False for anything else.
bool parse_line(const std::string& raw, Line* line);
// The milliseconds Line::ms holds for a logcat clock ("MM-DD hh:mm:ss.mmm"), -1 for another.
int64_t clock_ms(const std::string& clock);

struct InputStats {
  uint64_t lines = 0;               // lines looked at (in a bug report: in its log sections)
  uint64_t unreadable = 0;          // lines that were neither logcat nor kernel lines, skipped
  uint64_t daemon = 0;              // lines of the daemon
  std::vector<std::string> errors;  // inputs that could not be opened
  // The logs' year and time zone, when an input gives them (logcat -v year, -v zone, or a bug
  // report's "== dumpstate: 2026-11-22 08:10:00" line); 0 and empty otherwise.
  int year = 0;
  std::string zone, year_from;
};

// Streams every input ("-" is stdin) line by line to `sink`. A zip is read as a bug report (its
// main entry); in a bug report only the system and kernel log sections are read.
void read_inputs(const std::vector<std::string>& paths, InputStats* stats,
                 const std::function<void(const Line&)>& sink);

// The kernel's answer to SysRq w: the tasks it lists and their stacks.
struct KernelTask {
  std::string comm;
  char state = '?';
  int pid = 0, ppid = -1;
  std::vector<std::string> stack;  // innermost frame first, offsets dropped
  std::vector<bool> unsure;        // per frame: printed with "?", a guess of the unwinder
};
struct KernelDump {
  std::string clock;  // as the log printed it
  int64_t ms = -1;    // when the kernel lines came through logcat; -1: dmesg's time since boot
  std::vector<KernelTask> tasks;
  std::string answers;  // what the daemon did that asked for it, once attached
};

// A point of a record's timeline: one sweep's sample.
struct Point {
  int64_t ms;
  char state;        // the thread's state, '-' when the thread was not found
  int64_t stall_ms;  // the daemon's stall count after the sample
};
struct Mark {
  int64_t ms;
  std::string clock, kind, text;  // kind: bind, evidence, policy, frozen, not-started
  int dump = -1;  // a self-watchdog event: index into Story::dumps of the dump it asked for
};

// What the daemon did about an incident: evidence (sysrq-w, sysrq-l, sigquit, signal-35) or its
// policy (kill, reboot, panic, none), to whom (pid -1: no process) and when.
struct Action {
  std::string what, target;  // target: the process's name, empty when none or not known
  int pid = -1;
  int64_t ms = -1;
  std::string clock;
};

struct Incident {
  std::string record, process;
  int pid = -1, tid = -1;
  char state = '?';
  std::string since, evidence_clock, evidence, action_clock, action;
  int64_t evidence_ms = -1;
  int dump = -1;  // index into Story::dumps of the kernel dump taken as evidence
  std::vector<Action> actions;
};

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
  std::string started;  // clock of the "started" line, empty if it was not in the log
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
  InputStats input;
};

// Reads every input and reconstructs what the daemon did: its runs, each watched name's
// timeline, the incidents, and the kernel dumps attached to the evidence that asked for them.
Story build_story(const std::vector<std::string>& paths);

std::string text_report(const Story& story);
std::string html_report(const Story& story);
std::string json_report(const Story& story);

}  // namespace report
