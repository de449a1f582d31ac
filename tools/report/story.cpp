// Replays the daemon's log: each sweep's samples give a record's state and, counted by the daemon's
// own rule (the same state and processor time grows the stall by one interval; another state,
// more processor time, another run count or a state that is not watched starts it again), its
// stall; "dumped" lines are the evidence and the policy lines the action. The kernel's dumps and
// the Java and native stack dumps are read on the way by their own readers and attached at the end
// to what asked for them (by process id and time). Runs, incidents and dumps are held by index.
#include <android-base/strings.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <unordered_map>

#include "report.h"
#include "stall_ward.h"

namespace report {
namespace {

using android::base::StartsWith;

// What the daemon is in the middle of: the process it found, and a thread's sample whose stall
// is settled by the lines that follow it (a rebind, the run count, or "not watched").
struct Sample {
  bool open = false;
  std::string comm, cmd;
  int tid = -1, ppid = -1;
  char state = '?';
  uint64_t cpu = 0;
  bool looked_up = false, rebound = false, watched = false;
  uint64_t switches = 0;
  Line line;
};

// Where one daemon run's log has got to; runs of two daemons may interleave in one log.
struct Context {
  Sample sample;
  int pid = -1;  // the process the daemon is looking at
  std::string process;
  // Start-up lists the thread names of an entry after "monitor NAME threads:", and the records
  // after "mTids:", one a line.
  enum Listing { kNone, kThreads, kRecords } listing = kNone;
  bool sweep_way_known = true;
};

struct Builder {
  Story story;
  std::vector<Context> contexts;  // one a run
  int current = -1;               // the run (and its context) of the last daemon line, by index
  KernelReader kernel;
  JavaReader java;
  NativeReader native;
  int stack_section = -1;
  // A bug report may hold its system log twice: a daemon line that a section before this one
  // held (the same boot, clock, ids and message) is one read already. By the line's hash, the
  // section that first held it.
  std::unordered_map<uint64_t, int> read;
  // What asked the kernel for a dump, in order: (run, incident), or (run, -1 - event) for the
  // self-watchdog.
  std::vector<std::pair<int, int>> asked;
};

Run* run_of(Builder* b) {
  return &b->story.runs[b->current];
}

Context* ctx_of(Builder* b) {
  return &b->contexts[b->current];
}

Mark mark(const Line& line, const char* kind, const std::string& text, int pid = 0,
          const std::string& tail = "") {
  return Mark{line.ms, line.clock, kind, text, pid, tail, -1};
}

// The daemon's pacing from its timeout: a sweep every quarter of it, at least every 30 s.
void set_timeout(Run* run, int64_t timeout_s) {
  run->timeout_s = timeout_s;
  run->interval_ms = interval_for_timeout(timeout_s);
}

void start_run(Builder* b, const Line& line, bool started) {
  b->story.runs.emplace_back();
  b->contexts.emplace_back();
  b->current = static_cast<int>(b->story.runs.size() - 1);
  run_of(b)->pid = line.pid;
  run_of(b)->last_boot = line.from == Line::kLastBoot;
  if (line.ms >= 0) run_of(b)->first_ms = run_of(b)->last_ms = line.ms;
  if (started) run_of(b)->started = line.clock;
  set_timeout(run_of(b), kDefaultTimeout);
}

Record& record(Builder* b, const std::string& name) {
  Record& rec = run_of(b)->records[name];
  rec.name = name;
  return rec;
}

// A point that goes on in the same state at the same pace as the two before it moves the last
// point instead of adding one, so that a timeline holds only where its course changes.
void add_point(Record* rec, const Line& line, char state) {
  std::vector<Point>& p = rec->points;
  size_t n = p.size();
  if (n >= 2 && p[n - 1].state == state && p[n - 2].state == state &&
      rec->stall_ms - p[n - 1].stall_ms == p[n - 1].stall_ms - p[n - 2].stall_ms) {
    p[n - 1] = Point{line.ms, state, rec->stall_ms};
  } else {
    p.push_back(Point{line.ms, state, rec->stall_ms});
  }
}

void set_since(Record* rec, const Line& line) {
  rec->since_clock = line.clock;
  rec->reported = false;
  rec->incident = -1;  // progress ends an incident
}

// The daemon's own count, settled once the lines after the sample are in.
void close_sample(Builder* b) {
  Sample& s = ctx_of(b)->sample;
  if (!s.open) return;
  s.open = false;
  if (!s.looked_up) return;
  Record& rec = record(b, s.comm);
  if (s.rebound) {
    if (rec.tid != -1)
      rec.marks.push_back(mark(s.line, "bind", "now tid " + std::to_string(s.tid)));
    rec.tid = s.tid;
    rec.cmd = s.cmd;
    rec.state = '?';
    rec.stall_ms = 0;
    rec.switches = 0;
    set_since(&rec, s.line);
  }
  if (ctx_of(b)->pid > 0) rec.pid = ctx_of(b)->pid;
  if (!ctx_of(b)->process.empty()) rec.process = ctx_of(b)->process;
  if (rec.cpu != s.cpu) rec.state = '?';
  rec.cpu = s.cpu;
  if (rec.state != s.state) {
    rec.stall_ms = 0;
    rec.state = s.state;
    set_since(&rec, s.line);
  } else {
    rec.stall_ms += run_of(b)->interval_ms;
  }
  if (s.watched && s.switches != 0 && s.switches != rec.switches) {
    rec.switches = s.switches;
    rec.stall_ms = 0;
    set_since(&rec, s.line);
  }
  if (!s.watched) rec.stall_ms = 0;
  rec.tid = s.tid;
  rec.ppid = s.ppid;
  add_point(&rec, s.line, s.state);
}

// A watched thread that a running process does not have: its stall grows all the same. The shell
// way binds the record to that process first (setting it back when it was bound to another).
void absent_thread(Builder* b, const Line& line, const std::string& name, bool shell) {
  close_sample(b);
  Record& rec = record(b, name);
  if (shell && rec.pid != ctx_of(b)->pid) {
    rec.stall_ms = 0;
    rec.state = '?';
  }
  if (rec.stall_ms == 0) set_since(&rec, line);
  if (rec.points.empty() || rec.points.back().state != '-') {
    rec.marks.push_back(mark(line, "not-started", "thread not found in", ctx_of(b)->pid));
  }
  rec.pid = ctx_of(b)->pid;
  if (!ctx_of(b)->process.empty()) rec.process = ctx_of(b)->process;
  rec.stall_ms += run_of(b)->interval_ms;
  add_point(&rec, line, '-');
}

// The state a record was last seen in: '-' when its thread was not found.
char seen(const Record& rec) {
  return rec.points.empty() ? '?' : rec.points.back().state;
}

int64_t alarm_ms(const Run& run) {
  return run.timeout_s * 1000;
}

// The record a judgment line speaks of: among those whose stall reached the timeout, the one
// bound to `pid` (or whose zombie has `pid` as parent) in `state` when given, the longest stalled.
Record* judged(Builder* b, int pid, char state, bool policy) {
  Record* best = nullptr;
  for (auto& entry : run_of(b)->records) {
    Record& rec = entry.second;
    if (rec.stall_ms < alarm_ms(*run_of(b))) continue;
    bool target = pid < 0 || rec.pid == pid || (policy && seen(rec) == 'Z' && rec.ppid == pid);
    if (!target || (state != 0 && seen(rec) != state) || (policy && !rec.reported)) continue;
    if (best == nullptr || rec.stall_ms > best->stall_ms) best = &rec;
  }
  if (best == nullptr && pid >= 0) return judged(b, -1, state, policy);
  return best;
}

// A policy action as the account says it, up to the process killed.
const char* policy_verb(Act what) {
  return what == Act::kKill     ? "killed"
         : what == Act::kReboot ? "reboot"
         : what == Act::kPanic  ? "kernel panic"
                                : "nothing (the policy is none)";
}

std::string policy_words(Act what, int pid) {
  return policy_verb(what) + (what == Act::kKill ? " pid " + std::to_string(pid) : "");
}

Mark policy_mark(const Line& line, Act what, int pid, const std::string& tail) {
  return mark(line, "policy", policy_verb(what), what == Act::kKill ? pid : 0, tail);
}

void act(Incident* in, const Line& line, Act what, int pid, const std::string& target) {
  in->actions.push_back(Action{what, pid < 0 ? "" : target, pid, line.ms, line.clock});
}

Incident& open_incident(Builder* b, Record* rec) {
  if (rec->incident < 0) {
    Incident in;
    in.record = rec->name;
    in.process = rec->process;
    in.pid = rec->pid;
    in.tid = rec->tid;
    in.state = seen(*rec);
    in.since = rec->since_clock;
    rec->incident = static_cast<int>(run_of(b)->incidents.size());
    run_of(b)->incidents.push_back(in);
  }
  return run_of(b)->incidents[rec->incident];
}

void evidence(Builder* b, const Line& line, int pid, char state) {
  close_sample(b);
  Record* rec = judged(b, pid, state, false);
  if (rec == nullptr) {
    run_of(b)->events.push_back(
        mark(line, "evidence", "evidence for", pid, " of a record not seen in the log"));
    return;
  }
  char was = seen(*rec);
  Incident& in = open_incident(b, rec);
  std::string name = rec->process.empty() ? rec->name : rec->process;
  if (was == 'Z') act(&in, line, Act::kSignal35, rec->ppid, "");
  if (was == 'D' || was == 'Z') {
    act(&in, line, Act::kSysrqW, -1, "");
    act(&in, line, Act::kSysrqL, -1, "");
  } else {
    if (was == 'S') act(&in, line, Act::kSigquit, rec->pid, name);
    act(&in, line, Act::kSignal35, rec->pid, name);
  }
  rec->reported = true;
  rec->stall_ms = 0;
  add_point(rec, line, was);
  rec->marks.push_back(mark(line, "evidence", evidence_phrase(in)));
  if (was == 'D' || was == 'Z') {
    b->asked.emplace_back(b->current, rec->incident);
  }
}

void policy(Builder* b, const Line& line, int pid, Act kind) {
  close_sample(b);
  Record* rec = judged(b, pid, 0, true);
  if (rec == nullptr) {
    run_of(b)->events.push_back(policy_mark(line, kind, pid, " (its record is not in the log)"));
    return;
  }
  Incident& in = open_incident(b, rec);
  act(&in, line, kind, pid, pid == rec->pid && !rec->process.empty() ? rec->process : "");
  rec->stall_ms = 0;
  add_point(rec, line, seen(*rec));
  rec->marks.push_back(policy_mark(line, kind, pid, ""));
  if (kind == Act::kPanic) {
    b->asked.emplace_back(b->current, rec->incident);
  }
}

// The end of a sweep's judgment, seen at the start of the next sweep: the daemon has set back
// every count that reached the timeout.
void start_sweep(Builder* b, bool way_known, bool proc_walk) {
  close_sample(b);
  for (auto& entry : run_of(b)->records) {
    if (entry.second.stall_ms >= alarm_ms(*run_of(b))) entry.second.stall_ms = 0;
  }
  ctx_of(b)->sweep_way_known = way_known;
  if (way_known) ++(proc_walk ? run_of(b)->sweeps_proc : run_of(b)->sweeps_shell);
  ctx_of(b)->pid = -1;
  ctx_of(b)->process.clear();
}

void set_way(Builder* b, bool proc_walk) {
  if (ctx_of(b)->sweep_way_known) return;
  ctx_of(b)->sweep_way_known = true;
  ++(proc_walk ? run_of(b)->sweeps_proc : run_of(b)->sweeps_shell);
}

void setting(Builder* b, const std::string& key, const std::string& value) {
  run_of(b)->settings[key] = value;
  if (key == kPropTimeout) set_timeout(run_of(b), atoll(value.c_str()));
}

std::string text_of(std::string_view field) {
  return std::string(field);
}

int number(std::string_view field) {
  return atoi(text_of(field).c_str());
}

// Start-up: the settings read, the watched entries and, one a line, their threads and the records.
void startup_line(Builder* b, const DaemonLine& d, Context::Listing listing) {
  Run& run = *run_of(b);
  const std::string_view* f = d.field;
  if (d.id == Msg::kGetNumber || d.id == Msg::kGetString) {
    setting(b, text_of(f[0]), text_of(f[1]));
  } else if (d.id == Msg::kMonitorThreads) {
    run.watches.push_back(text_of(f[0]) + ":");
    ctx_of(b)->listing = Context::kThreads;
  } else if (d.id == Msg::kMonitorMain) {
    run.watches.push_back(text_of(f[0]) + ": main thread");
  } else if (d.id == Msg::kRecordsFollow) {
    ctx_of(b)->listing = Context::kRecords;
  } else if (listing == Context::kThreads && !run.watches.empty()) {
    run.watches.back() += (run.watches.back().back() == ':' ? " " : ", ") + text_of(f[0]);
  } else if (listing == Context::kRecords) {
    record(b, text_of(f[0]));  // known before any sample, so that a process never started shows
  }
}

// What a shell lookup asks: the self-test that begins a sweep, a process by name, its threads.
void shell_command(Builder* b, std::string_view command) {
  if (command == kPsSelfTest) {
    start_sweep(b, false, false);
  } else if (command.substr(0, strlen(kPsProcessQuery)) == kPsProcessQuery) {
    close_sample(b);
    set_way(b, false);
    ctx_of(b)->process = text_of(command.substr(strlen(kPsProcessQuery)));
    ctx_of(b)->pid = -1;
  } else if (command.substr(0, strlen(kPsThreadQuery)) == kPsThreadQuery) {
    close_sample(b);
    ctx_of(b)->pid = number(command.substr(strlen(kPsThreadQuery)));
  }
}

void stat_sample(Builder* b, const Line& line, const DaemonLine& d) {
  close_sample(b);
  if (number(d.field[0]) != 6) return;
  ctx_of(b)->sample = Sample();
  Sample& s = ctx_of(b)->sample;
  s.open = true;
  s.comm = text_of(d.field[2]);
  s.tid = number(d.field[1]);
  s.state = d.field[3][0];
  s.ppid = number(d.field[4]);
  s.cpu = strtoull(text_of(d.field[5]).c_str(), nullptr, 10) +
          strtoull(text_of(d.field[6]).c_str(), nullptr, 10);
  s.line = line;
}

// A sweep's lines: the way it goes, the process and thread it looks at, the sample's outcome.
void sweep_line(Builder* b, const Line& line, const DaemonLine& d) {
  const std::string_view* f = d.field;
  Sample& s = ctx_of(b)->sample;
  int pid = 0, tid = 0;
  switch (d.id) {
    case Msg::kShellCommand:
      return shell_command(b, f[0]);
    case Msg::kProcWalk:
      if (ctx_of(b)->sweep_way_known) start_sweep(b, true, true);
      return set_way(b, true);
    case Msg::kReading:
      if (sscanf(text_of(f[0]).c_str(), kTaskPathFormat, &pid, &tid) != 2) return;
      close_sample(b);
      ctx_of(b)->pid = pid;
      return;
    case Msg::kFoundProcess:
      close_sample(b);
      ctx_of(b)->pid = number(f[0]);
      ctx_of(b)->process = text_of(f[1]);
      return;
    case Msg::kStatSample:
      return stat_sample(b, line, d);
    case Msg::kFindRecord:
      if (s.open && f[0] == s.comm) s.looked_up = true;
      return;
    case Msg::kRebind:
      s.rebound = true;
      s.cmd = text_of(f[2]);
      return;
    case Msg::kSwitches:
      s.watched = true;
      s.switches = strtoull(text_of(f[0]).c_str(), nullptr, 10);
      return close_sample(b);
    case Msg::kNotWatchedState:
    case Msg::kSchedstatFailed:
      s.watched = d.id == Msg::kSchedstatFailed;
      return close_sample(b);
    case Msg::kThreadNotStarted:
    case Msg::kShellThreadMissing:
      return absent_thread(b, line, text_of(f[0]), d.id == Msg::kShellThreadMissing);
    default:
      return;
  }
}

// A record whose process is not running or sits in the freezer, logged by its name (a frozen one
// by its comm, which may be cut).
void not_running(Builder* b, const Line& line, const std::string& name, bool frozen) {
  close_sample(b);
  for (auto& entry : run_of(b)->records) {
    if (!StartsWith(entry.first, name)) continue;
    Record& rec = entry.second;
    const char* kind = frozen ? "frozen" : "not-started";
    if (rec.marks.empty() || rec.marks.back().kind != kind) {
      rec.marks.push_back(
          mark(line, kind, frozen ? "in the cgroup freezer" : "process not running"));
    }
    break;
  }
}

// Judgment: the evidence gathered, the policy applied; and the daemon's own troubles.
void judgment_line(Builder* b, const Line& line, const DaemonLine& d) {
  const std::string_view* f = d.field;
  Run& run = *run_of(b);
  switch (d.id) {
    case Msg::kDumpedThread:
      return evidence(b, line, number(f[0]), f[1][0]);
    case Msg::kDumped:
      return evidence(b, line, number(f[0]), 0);
    case Msg::kPolicyKill:
      return policy(b, line, number(f[0]), Act::kKill);
    case Msg::kPolicyReboot:
      return policy(b, line, -1, Act::kReboot);
    case Msg::kPolicyPanic:
      return policy(b, line, -1, Act::kPanic);
    case Msg::kPolicyNothing:
      return policy(b, line, -1, Act::kNone);
    case Msg::kFrozen:
    case Msg::kProcessNotStarted:
      return not_running(b, line, text_of(f[0]), d.id == Msg::kFrozen);
    case Msg::kAlarm:
      run.events.push_back(mark(line, "alarm",
                                "the daemon's own loop did not come back within the "
                                "timeout: SysRq w, l"));
      b->asked.emplace_back(b->current, -1 - static_cast<int>(run.events.size() - 1));
      return;
    case Msg::kLongCost:
      run.events.push_back(
          mark(line, "slow", "a sweep took " + std::to_string(number(f[0])) + " ms"));
      return;
    default:
      run.events.push_back(mark(line, "error", line.text));
  }
}

// Every message of the daemon has its place here, so that one added to the daemon is read.
void dispatch(Builder* b, const Line& line, const DaemonLine& d, Context::Listing listing) {
  switch (d.id) {
    case Msg::kGetNumber:
    case Msg::kGetString:
    case Msg::kMonitorThreads:
    case Msg::kMonitorMain:
    case Msg::kRecordsFollow:
    case Msg::kListItem:
      return startup_line(b, d, listing);
    case Msg::kShellCommand:
    case Msg::kProcWalk:
    case Msg::kReading:
    case Msg::kFoundProcess:
    case Msg::kStatSample:
    case Msg::kFindRecord:
    case Msg::kRebind:
    case Msg::kSwitches:
    case Msg::kNotWatchedState:
    case Msg::kSchedstatFailed:
    case Msg::kThreadNotStarted:
    case Msg::kShellThreadMissing:
      return sweep_line(b, line, d);
    case Msg::kDumpedThread:
    case Msg::kDumped:
    case Msg::kPolicyKill:
    case Msg::kPolicyReboot:
    case Msg::kPolicyPanic:
    case Msg::kPolicyNothing:
    case Msg::kFrozen:
    case Msg::kProcessNotStarted:
    case Msg::kAlarm:
    case Msg::kLongCost:
    case Msg::kSysrqFailed:
    case Msg::kInitFailed:
    case Msg::kProcDirFailed:
      return judgment_line(b, line, d);
    // Lines that change nothing the story holds: the sample they belong to is settled by the
    // lines that follow, and ps's own output is not read.
    case Msg::kStarted:
    case Msg::kEntryWithoutProcess:
    case Msg::kNotInList:
    case Msg::kReadFailed:
    case Msg::kStatFailed:
    case Msg::kStatMismatch:
    case Msg::kNoInfo:
    case Msg::kTaskDirFailed:
    case Msg::kCheckThread:
    case Msg::kProcWalkEnd:
    case Msg::kShellFailed:
    case Msg::kShellOutput:
    case Msg::kShellSelfTest:
    case Msg::kShellProcessMissing:
    case Msg::kShellThreadId:
    case Msg::kCount:
      return;
  }
}

// The run a line belongs to: the last one of its process and boot, or a new one whose start the
// log does not hold.
void find_run(Builder* b, const Line& line) {
  bool last_boot = line.from == Line::kLastBoot;
  if (b->current >= 0 && run_of(b)->pid == line.pid && run_of(b)->last_boot == last_boot) return;
  size_t i = b->story.runs.size();
  while (i > 0 &&
         (b->story.runs[i - 1].pid != line.pid || b->story.runs[i - 1].last_boot != last_boot)) {
    --i;
  }
  if (i == 0) {
    start_run(b, line, false);
  } else {
    b->current = static_cast<int>(i - 1);
  }
}

bool starts_up(Msg id) {
  return id == Msg::kGetNumber || id == Msg::kGetString || id == Msg::kMonitorThreads ||
         id == Msg::kMonitorMain || id == Msg::kRecordsFollow;
}

void daemon_line(Builder* b, const Line& line) {
  DaemonLine d = match_daemon_line(line.text);
  if (d.id == Msg::kStarted) return start_run(b, line, true);
  find_run(b, line);
  Run& run = *run_of(b);
  ++run.lines;
  if (line.ms >= 0) {
    if (run.first_ms < 0) run.first_ms = line.ms;
    run.last_ms = line.ms;
  }
  auto listing = ctx_of(b)->listing;
  ctx_of(b)->listing = Context::kNone;
  if (listing != Context::kNone && !starts_up(d.id)) {  // a name, whatever it reads like
    d = DaemonLine();
    d.field[0] = line.text;
    d.fields = 1;
    ctx_of(b)->listing = listing;
  }
  dispatch(b, line, d, listing);
}

// A daemon line that an earlier section held.
bool repeated(Builder* b, const Line& line) {
  uint64_t key = std::hash<std::string>()(line.clock + " " + std::to_string(line.pid) + " " +
                                          std::to_string(line.tid) + " " + line.text) *
                     2 +
                 (line.from == Line::kLastBoot);
  auto [it, added] = b->read.emplace(key, line.section);
  return !added && it->second != line.section;
}

void stack_line(Builder* b, const Line& line) {
  if (line.section != b->stack_section) {  // a dump never goes on into another file or section
    b->stack_section = line.section;
    b->java.open = b->native.open = false;
  }
  size_t java = b->java.dumps.size(), native = b->native.dumps.size();
  b->java.add(line.text);
  b->native.add(line.text);
  if (b->java.dumps.size() > java) b->java.dumps.back().source = line.tag;
  if (b->native.dumps.size() > native) b->native.dumps.back().source = line.tag;
}

// A line without a stamp: a paste of "tag: message" lines (or logcat -v brief's "W/tag( pid):
// message") of the platform watchdog, or a further line of ActivityManager's report of an ANR.
void unstamped_line(Builder* b, const std::string& text) {
  size_t at = text.size() > 2 && text[1] == '/' ? 2 : 0;
  WatchdogSeen seen;
  if (text.compare(at, 8, "Watchdog") == 0 && text.find(": ", at) != std::string::npos &&
      parse_watchdog(text.substr(text.find(": ", at) + 2), &seen.line)) {
    size_t open = text.find('(', at);
    if (open < text.find(": ", at)) seen.pid = atoi(text.c_str() + open + 1);
    b->story.across.watchdog.push_back(seen);
    return;
  }
  b->story.across.anr.add(text, -1, "");
}

void add_line(Builder* b, const Line& line) {
  WatchdogSeen seen;
  if (line.from == Line::kStackDump) {
    if (StartsWith(line.text, "Subject: ") && parse_watchdog(line.text, &seen.line)) {
      seen.trace = line.tag;
      b->story.across.watchdog.push_back(seen);
    }
    stack_line(b, line);
  } else if (line.from == Line::kSection) {
    b->story.across.add_section_line(line.tag, line.text);
  } else if (line.kind == Line::kLogcat && line.tag == "Watchdog" &&
             parse_watchdog(line.text, &seen.line)) {
    seen.pid = line.pid;
    seen.ms = line.ms;
    seen.clock = line.clock;
    bool again = false;  // a log section written twice
    for (const WatchdogSeen& s : b->story.across.watchdog)
      again =
          again || (s.clock == seen.clock && s.pid == seen.pid && s.line.kind == seen.line.kind);
    if (!again) b->story.across.watchdog.push_back(seen);
  } else if (line.kind == Line::kLogcat && line.tag == "ActivityManager") {
    b->story.across.anr.add(line.text, line.ms, line.clock);
  } else if (line.kind == Line::kOther && line.from == Line::kLog) {
    unstamped_line(b, line.text);
  } else if (line.kind == Line::kLogcat && line.tag == "stall_ward") {
    if (repeated(b, line)) return;
    ++b->story.input.daemon;
    daemon_line(b, line);
  } else if (line.kind == Line::kKernel || line.kind == Line::kLogcat) {
    b->kernel.add(line);
  }
}

// Each SysRq w dump goes to what asked for it: with a wall clock (logcat, dmesg -T, a vendor's
// stamp) to the latest request it can answer, written from the daemon's pause (plus two seconds)
// before the request's line to 10 s after it, and never another day's; with the time since boot
// only (dmesg), in order, counted from the last of the same boot, since a kernel log loses its
// oldest lines first. The SysRq l dump after it goes with it. An incident whose thread no SysRq w
// dump lists takes the kernel's own hung-task report of it (or a dump whose start the log lost),
// the last one of its boot.
// A hung-task report with a wall clock further than this from the evidence is of another hang.
constexpr int64_t kSameHangMs = 3600000;

void attach_hung_task_reports(Story* story);

void attach_dumps(Story* story, const std::vector<std::pair<int, int>>& asked) {
  std::vector<bool> taken(asked.size(), false);
  auto when = [&](const std::pair<int, int>& a) {
    const Run& run = story->runs[a.first];
    return a.second >= 0 ? first_evidence(run.incidents[a.second])->ms
                         : run.events[-1 - a.second].ms;
  };
  auto give = [&](size_t i, size_t dump) {
    taken[i] = true;
    auto [r, which] = asked[i];
    Run& run = story->runs[r];
    if (which >= 0) {
      run.incidents[which].dump = static_cast<int>(dump);
      story->dumps[dump].answers = "evidence for " + run.incidents[which].record;
    } else {
      story->dumps[dump].answers = "the self-watchdog of stall_ward pid " + std::to_string(run.pid);
      run.events[-1 - which].dump = static_cast<int>(dump);
    }
  };
  for (bool last_boot : {false, true}) {
    std::vector<size_t> by_uptime;
    for (size_t d = 0; d < story->dumps.size(); ++d) {
      const KernelDump& dump = story->dumps[d];
      if (dump.kind != "SysRq w" || dump.last_boot != last_boot) continue;
      if (dump.ms < 0) {
        by_uptime.push_back(d);
        continue;
      }
      for (size_t i = asked.size(); i-- > 0;) {
        int64_t at = when(asked[i]);
        int64_t off = dump.ms - at + kDumpPauseUs / 1000;  // SysRq is written before the pause
        if (!taken[i] && off >= -2000 && off <= kDumpPauseUs / 1000 + 10000) {
          give(i, d);
          break;
        }
      }
    }
    size_t i = asked.size();
    for (size_t k = by_uptime.size(); k-- > 0;) {
      while (i > 0 && (taken[i - 1] || story->runs[asked[i - 1].first].last_boot != last_boot)) --i;
      if (i == 0) break;
      give(--i, by_uptime[k]);
    }
  }
  for (size_t d = 1; d < story->dumps.size(); ++d) {
    if (story->dumps[d].kind == "SysRq l" && story->dumps[d - 1].kind == "SysRq w")
      story->dumps[d].answers = story->dumps[d - 1].answers;
  }
  attach_hung_task_reports(story);
}

// An incident whose thread no SysRq w dump lists takes the kernel's own hung-task report of it (or
// a dump whose start the log lost), the last one of its boot within the hour.
void attach_hung_task_reports(Story* story) {
  for (Run& run : story->runs) {
    for (Incident& in : run.incidents) {
      auto lists = [&](int d) {
        for (const KernelTask& task : story->dumps[d].tasks) {
          if (task.pid == in.tid && !task.stack.empty()) return true;
        }
        return false;
      };
      if (!did(in, Act::kSysrqW) || (in.dump >= 0 && lists(in.dump))) continue;
      int64_t evidence_ms = first_evidence(in)->ms;
      for (size_t d = 0; d < story->dumps.size(); ++d) {
        const KernelDump& dump = story->dumps[d];
        bool timed = dump.ms >= 0 && evidence_ms >= 0;
        if (timed && std::llabs(dump.ms - evidence_ms) > kSameHangMs) continue;
        if (dump.kind != "SysRq w" && dump.kind != "SysRq l" && dump.last_boot == run.last_boot &&
            lists(d)) {
          in.dump = static_cast<int>(d);
          story->dumps[d].answers = "evidence for " + in.record;
        }
      }
    }
  }
}

// How far (ms) a dump the daemon asked for lies from the "dumped" line: the runtime stamps its Java
// dump when SIGQUIT arrives, the daemon's pause before it logs, or later when it is slow to answer
// (never after the line); the crash handler its tombstone when signal 35 arrives, just before the
// line, or up to a minute later. A stamp is cut to the second, and the daemon may log a second
// late.
struct Window {
  int64_t expected, before, after;
};
Window window_of(bool java) {
  constexpr int64_t kPauseMs = kDumpPauseUs / 1000;
  return java ? Window{-kPauseMs, 2000, kPauseMs + 1000} : Window{0, 2000, 60000};
}

// The Java and native dumps the daemon's SIGQUIT and signal 35 asked for: of the process it
// signalled, within the window its timing gives (the nearest to where it should be), or, where a
// dump's time or the line's is unknown, the last one of that process.
void attach_stacks(Story* story) {
  for (Run& run : story->runs) {
    for (Incident& in : run.incidents) {
      int pid = signalled(in);
      if (pid <= 0) continue;
      int64_t evidence_ms = first_evidence(in)->ms;
      for (int* which : {&in.java, &in.native}) {
        bool java = which == &in.java;
        if (java && !did(in, Act::kSigquit)) continue;
        Window w = window_of(java);
        int64_t best = INT64_MAX;
        for (size_t k = 0; k < story->stacks.size(); ++k) {
          const ProcessDump& dump = story->stacks[k];
          if (dump.pid != pid || dump.java != java || dump.threads.empty()) continue;
          bool timed = dump.ms >= 0 && evidence_ms >= 0;
          int64_t off = timed ? dump.ms - evidence_ms - w.expected : 0;
          if (timed && (off < -w.before || off > w.after)) continue;
          if (std::llabs(off) <= best) {
            best = std::llabs(off);
            *which = static_cast<int>(k);
          }
        }
      }
    }
  }
}

}  // namespace

const char* act_name(Act what) {
  static const char* const kNames[] = {"sysrq-w", "sysrq-l", "sigquit", "signal-35",
                                       "kill",    "reboot",  "panic",   "none"};
  return kNames[static_cast<int>(what)];
}

const Action* first_evidence(const Incident& in) {
  for (const Action& a : in.actions) {
    if (is_evidence(a.what)) return &a;
  }
  return nullptr;
}

const Action* first_policy(const Incident& in) {
  for (const Action& a : in.actions) {
    if (!is_evidence(a.what)) return &a;
  }
  return nullptr;
}

bool did(const Incident& in, Act what) {
  for (const Action& a : in.actions) {
    if (a.what == what) return true;
  }
  return false;
}

int signalled(const Incident& in) {
  for (const Action& a : in.actions) {
    if (a.what == Act::kSignal35) return a.pid;
  }
  return -1;
}

std::string evidence_phrase(const Incident& in) {
  if (first_evidence(in) == nullptr) return "";
  if (!did(in, Act::kSysrqW)) return did(in, Act::kSigquit) ? "SIGQUIT, signal 35" : "signal 35";
  int parent = signalled(in);  // a zombie's
  return (parent > 0 ? "signal 35 to parent " + std::to_string(parent) + ", " : "") + "SysRq w, l";
}

std::string policy_phrase(const Incident& in) {
  std::string s;
  for (const Action& a : in.actions) {
    if (is_evidence(a.what)) continue;
    s += s.empty() ? policy_words(a.what, a.pid) : "; again " + a.clock.substr(6);
  }
  return s;
}

Story build_story(const std::vector<std::string>& paths) {
  Builder b;
  Sink sink;
  sink.line = [&b](const Line& line) { add_line(&b, line); };
  sink.every_line = [&b] { return b.kernel.open >= 0; };
  read_inputs(paths, &b.story.input, sink);
  for (KernelDump& dump : b.kernel.dumps) {  // a kernel log read twice holds its dumps twice
    bool again = false;
    for (const KernelDump& seen : b.story.dumps) {
      again = again ||
              (seen.section != dump.section && seen.clock == dump.clock && seen.kind == dump.kind &&
               seen.last_boot == dump.last_boot && seen.tasks.size() == dump.tasks.size());
    }
    if (!again) b.story.dumps.push_back(std::move(dump));
  }
  b.story.stacks = std::move(b.java.dumps);
  for (ProcessDump& dump : b.native.dumps) b.story.stacks.push_back(std::move(dump));
  for (size_t i = 0; i < b.contexts.size(); ++i) {
    b.current = static_cast<int>(i);
    close_sample(&b);
  }
  attach_dumps(&b.story, b.asked);
  attach_stacks(&b.story);
  b.story.across.finish();
  for (WatchdogSeen& seen : b.story.across.watchdog) {  // a trace's verdict: its dump's process
    for (const ProcessDump& dump : b.story.stacks) {
      if (seen.trace.empty() || dump.source != seen.trace || seen.pid != 0) continue;
      seen.pid = dump.pid;
      seen.ms = dump.ms;
      seen.clock = dump.when;
    }
  }
  for (Run& run : b.story.runs) {
    for (Incident& in : run.incidents) in.chain = follow_chain(b.story, in);
  }
  return std::move(b.story);
}

}  // namespace report
