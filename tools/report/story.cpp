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
  enum { kNone, kThreads, kRecords } listing = kNone;
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

Mark mark(const Line& line, const char* kind, const std::string& text) {
  return Mark{line.ms, line.clock, kind, text, -1};
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
    rec.marks.push_back(
        mark(line, "not-started", "thread not found in pid " + std::to_string(ctx_of(b)->pid)));
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

void act(Incident* in, const Line& line, const char* what, int pid, const std::string& target) {
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
        mark(line, "evidence",
             "evidence for pid " + std::to_string(pid) + " of a record not seen in the log"));
    return;
  }
  char was = seen(*rec);
  std::string what;
  if (was == 'Z') what = "signal 35 to parent " + std::to_string(rec->ppid) + ", ";
  if (was == 'D' || was == 'Z') {
    what += "SysRq w, l";
  } else {
    what = was == 'S' ? "SIGQUIT, signal 35" : "signal 35";
  }
  Incident& in = open_incident(b, rec);
  std::string name = rec->process.empty() ? rec->name : rec->process;
  if (was == 'Z') act(&in, line, "signal-35", rec->ppid, "");
  if (was == 'D' || was == 'Z') {
    act(&in, line, "sysrq-w", -1, "");
    act(&in, line, "sysrq-l", -1, "");
  } else {
    if (was == 'S') act(&in, line, "sigquit", rec->pid, name);
    act(&in, line, "signal-35", rec->pid, name);
  }
  if (was != 'D') in.signalled = was == 'Z' ? rec->ppid : rec->pid;
  in.sigquit = was == 'S';
  in.evidence = what;
  in.evidence_clock = line.clock;
  in.evidence_ms = line.ms;
  rec->reported = true;
  rec->stall_ms = 0;
  add_point(rec, line, was);
  rec->marks.push_back(mark(line, "evidence", what));
  if (was == 'D' || was == 'Z') {
    b->asked.emplace_back(b->current, rec->incident);
  }
}

void policy(Builder* b, const Line& line, int pid, const std::string& what) {
  close_sample(b);
  Record* rec = judged(b, pid, 0, true);
  if (rec == nullptr) {
    run_of(b)->events.push_back(mark(line, "policy", what + " (its record is not in the log)"));
    return;
  }
  Incident& in = open_incident(b, rec);
  const char* kind = what == "reboot"         ? "reboot"
                     : what == "kernel panic" ? "panic"
                     : pid < 0                ? "none"
                                              : "kill";
  act(&in, line, kind, pid, pid == rec->pid && !rec->process.empty() ? rec->process : "");
  if (in.action.empty()) {
    in.action = what;
    in.action_clock = line.clock;
  } else {
    in.action += "; again " + line.clock.substr(6);
  }
  rec->stall_ms = 0;
  add_point(rec, line, seen(*rec));
  rec->marks.push_back(mark(line, "policy", what));
  if (what == "kernel panic") {
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

void daemon_line(Builder* b, const Line& line) {
  const std::string& m = line.text;
  if (m == "started") {
    start_run(b, line, true);
    return;
  }
  bool last_boot = line.from == Line::kLastBoot;
  if (b->current < 0 || run_of(b)->pid != line.pid || run_of(b)->last_boot != last_boot) {
    size_t i = b->story.runs.size();
    while (i > 0 &&
           (b->story.runs[i - 1].pid != line.pid || b->story.runs[i - 1].last_boot != last_boot)) {
      --i;
    }
    if (i == 0) {
      start_run(b, line, false);  // its start is not in the log
    } else {
      b->current = static_cast<int>(i - 1);
    }
  }
  Run& run = *run_of(b);
  ++run.lines;
  if (line.ms >= 0) {
    if (run.first_ms < 0) run.first_ms = line.ms;
    run.last_ms = line.ms;
  }
  int a = 0, c = 0;
  unsigned u1 = 0, u2 = 0, u3 = 0, u4 = 0;
  unsigned long long count = 0;
  char state = 0, text[256] = {}, more[256] = {};
  auto listing = ctx_of(b)->listing;
  ctx_of(b)->listing = Context::kNone;
  if (StartsWith(m, "get ")) {
    size_t eq = m.find(" =");
    if (eq != std::string::npos) setting(b, m.substr(4, eq - 4), m.substr(eq + 2));
  } else if (sscanf(m.c_str(), "monitor %255s threads%c", text, &state) == 2 && state == ':') {
    run.watches.push_back(std::string(text) + ":");
    ctx_of(b)->listing = Context::kThreads;
  } else if (sscanf(m.c_str(), "monitor %255s main%c", text, &state) == 1) {
    run.watches.push_back(std::string(text) + ": main thread");
  } else if (m == "mTids:") {
    ctx_of(b)->listing = Context::kRecords;
  } else if (listing != Context::kNone) {
    if (listing == Context::kThreads && !run.watches.empty()) {
      run.watches.back() += (run.watches.back().back() == ':' ? " " : ", ") + m;
    } else if (listing == Context::kRecords) {
      record(b, m);  // known before any sample, so that a process never started shows
    }
    ctx_of(b)->listing = listing;
  } else if (m == "[sh] cmd=ps -e |grep stall_ward") {
    start_sweep(b, false, false);
  } else if (m == "go through proc") {
    if (ctx_of(b)->sweep_way_known) start_sweep(b, true, true);
    set_way(b, true);
  } else if (StartsWith(m, "[sh] cmd=ps -e|grep ")) {
    close_sample(b);
    set_way(b, false);
    ctx_of(b)->process = m.substr(strlen("[sh] cmd=ps -e|grep "));
    ctx_of(b)->pid = -1;
  } else if (sscanf(m.c_str(), "[sh] cmd=ps -T -p %d", &a) == 1 ||
             sscanf(m.c_str(), "reading /proc/%d/task/%d", &a, &c) == 2) {
    close_sample(b);
    ctx_of(b)->pid = a;
  } else if (sscanf(m.c_str(), "find monitored proc %d:%255s", &a, text) == 2) {
    close_sample(b);
    ctx_of(b)->pid = a;
    ctx_of(b)->process = text;
  } else if (sscanf(m.c_str(),
                    "match=%d, tid=%u, comm=%255[^,], state=%c, ppid=%u, utime=%u, stime=%u", &a,
                    &u1, text, &state, &u2, &u3, &u4) == 7) {
    close_sample(b);
    if (a != 6) return;
    ctx_of(b)->sample = Sample();
    Sample& s = ctx_of(b)->sample;
    s.open = true;
    s.comm = text;
    s.tid = static_cast<int>(u1);
    s.state = state;
    s.ppid = static_cast<int>(u2);
    s.cpu = static_cast<uint64_t>(u3) + u4;
    s.line = line;
  } else if (StartsWith(m, "find record for ")) {
    if (ctx_of(b)->sample.open && m.substr(16) == ctx_of(b)->sample.comm)
      ctx_of(b)->sample.looked_up = true;
  } else if (sscanf(m.c_str(), "change tid=%u comm=%255s cmd=%255[^\n]", &u1, text, more) >= 2) {
    ctx_of(b)->sample.rebound = true;
    ctx_of(b)->sample.cmd = more;
  } else if (sscanf(m.c_str(), "switches:%llu", &count) == 1) {
    ctx_of(b)->sample.watched = true;
    ctx_of(b)->sample.switches = count;
    close_sample(b);
  } else if (StartsWith(m, "Not monitor state=")) {
    ctx_of(b)->sample.watched = false;
    close_sample(b);
  } else if (StartsWith(m, "read schedstat failed")) {
    ctx_of(b)->sample.watched = true;
    close_sample(b);
  } else if (sscanf(m.c_str(), "thread %255s not star%c", text, &state) == 2 ||
             sscanf(m.c_str(), "[sh] thread %255s not foun%c", text, &state) == 2) {
    absent_thread(b, line, text, m[0] == '[');
  } else if (sscanf(m.c_str(), "dumped %d %c", &a, &state) == 2) {
    evidence(b, line, a, state);
  } else if (sscanf(m.c_str(), "dumped %d", &a) == 1) {
    evidence(b, line, a, 0);
  } else if (sscanf(m.c_str(), "killing proc %d", &a) == 1) {
    policy(b, line, a, "killed pid " + std::to_string(a));
  } else if (m == "rebooting") {
    policy(b, line, -1, "reboot");
  } else if (m == "trigger crash according to policy") {
    policy(b, line, -1, "kernel panic");
  } else if (m == "nothing to do accroding to policy") {
    policy(b, line, -1, "nothing (the policy is none)");
  } else if (android::base::EndsWith(m, " proc not started") ||
             android::base::EndsWith(m, " frozen")) {
    close_sample(b);
    bool frozen = android::base::EndsWith(m, " frozen");
    std::string name = m.substr(0, m.rfind(frozen ? " frozen" : " proc not started"));
    for (auto& entry : run.records) {  // a frozen record is logged by its comm, which may be cut
      if (!StartsWith(entry.first, name)) continue;
      Record& rec = entry.second;
      const char* kind = frozen ? "frozen" : "not-started";
      if (rec.marks.empty() || rec.marks.back().kind != kind) {
        rec.marks.push_back(
            mark(line, kind, frozen ? "in the cgroup freezer" : "process not running"));
      }
      break;
    }
  } else if (m == "Alarm! self stuck!") {
    run.events.push_back(mark(line, "alarm",
                              "the daemon's own loop did not come back within the "
                              "timeout: SysRq w, l"));
    b->asked.emplace_back(b->current, -1 - static_cast<int>(run.events.size() - 1));
  } else if (sscanf(m.c_str(), "long time cost: %d", &a) == 1) {
    run.events.push_back(mark(line, "slow", "a sweep took " + std::to_string(a) + " ms"));
  } else if (m == "open sysrq failed!" || m == "init failed because of open proc" ||
             StartsWith(m, "opendir ")) {
    run.events.push_back(mark(line, "error", m));
  }
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
  } else if (line.kind == Line::kLogcat && line.tag == "stall_ward") {
    if (repeated(b, line)) return;
    ++b->story.input.daemon;
    daemon_line(b, line);
  } else if (line.kind == Line::kKernel || line.kind == Line::kLogcat) {
    b->kernel.add(line);
  }
}

// Each SysRq w dump goes to what asked for it: with a wall clock (logcat) to the latest request at
// most 10 s before it; with the time since boot only (dmesg), in order, counted from the last of
// the same boot, since a kernel log loses its oldest lines first. The SysRq l dump after it goes
// with it. An incident whose thread no SysRq w dump lists takes the kernel's own hung-task report
// of it (or a dump whose start the log lost), the last one of its boot.
void attach_dumps(Story* story, const std::vector<std::pair<int, int>>& asked) {
  std::vector<bool> taken(asked.size(), false);
  auto when = [&](const std::pair<int, int>& a) {
    const Run& run = story->runs[a.first];
    return a.second >= 0 ? run.incidents[a.second].evidence_ms : run.events[-1 - a.second].ms;
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
        if (!taken[i] && at <= dump.ms + 1000 && dump.ms - at <= 10000) {
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
  for (Run& run : story->runs) {
    for (Incident& in : run.incidents) {
      auto lists = [&](int d) {
        for (const KernelTask& task : story->dumps[d].tasks) {
          if (task.pid == in.tid && !task.stack.empty()) return true;
        }
        return false;
      };
      if (in.evidence.find("SysRq") == std::string::npos || (in.dump >= 0 && lists(in.dump)))
        continue;
      for (size_t d = 0; d < story->dumps.size(); ++d) {
        const KernelDump& dump = story->dumps[d];
        if (dump.kind != "SysRq w" && dump.kind != "SysRq l" && dump.last_boot == run.last_boot &&
            lists(d)) {
          in.dump = static_cast<int>(d);
          story->dumps[d].answers = "evidence for " + in.record;
        }
      }
    }
  }
}

// The Java and native dumps the daemon's SIGQUIT and signal 35 asked for: of the process it
// signalled, written from a second before its "dumped" line to a minute after (the nearest), or,
// where a dump's time or the line's is unknown, the last one of that process.
void attach_stacks(Story* story) {
  for (Run& run : story->runs) {
    for (Incident& in : run.incidents) {
      if (in.signalled <= 0) continue;
      for (int* which : {&in.java, &in.native}) {
        bool java = which == &in.java;
        if (java && !in.sigquit) continue;
        int64_t best = INT64_MAX;
        for (size_t k = 0; k < story->stacks.size(); ++k) {
          const ProcessDump& dump = story->stacks[k];
          if (dump.pid != in.signalled || dump.java != java || dump.threads.empty()) continue;
          bool timed = dump.ms >= 0 && in.evidence_ms >= 0;
          int64_t after = timed ? dump.ms - in.evidence_ms : 0;
          if (timed && (after < -1000 || after > 60000)) continue;
          if (std::llabs(after) <= best) {
            best = std::llabs(after);
            *which = static_cast<int>(k);
          }
        }
      }
    }
  }
}

}  // namespace

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
  return std::move(b.story);
}

}  // namespace report
