// The story told three ways: a short text account, one self-contained HTML page (inline SVG and
// CSS, no scripts, nothing fetched), and JSON for tools.
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "report.h"
#include "stall_ward.h"

namespace report {
namespace {

using android::base::StringPrintf;

// The version of the JSON's layout, raised when a field changes meaning or goes.
constexpr int kSchemaVersion = 2;

bool unsure(const KernelTask& task, size_t i) {
  return i < task.unsure.size() && task.unsure[i];
}

// A frame as printed: "? " before a guess.
std::string shown(const KernelTask& task, size_t i) {
  return (unsure(task, i) ? "? " : "") + task.stack[i];
}

// The frames above where a task waits: the scheduler's and the guesses among them.
std::vector<std::string> sleeping_frames(const KernelTask& task) {
  std::vector<std::string> under;
  for (size_t i = 0; i < wait_frame(task); ++i) under.push_back(shown(task, i));
  return under;
}

constexpr int64_t kDay = 86400000;

// "07:58:13" of the milliseconds parse_line counts from a logcat clock.
std::string time_of_day(int64_t ms, bool seconds = true) {
  int64_t s = ms / 1000 % 86400;
  return seconds
             ? StringPrintf("%02d:%02d:%02d", static_cast<int>(s / 3600),
                            static_cast<int>(s / 60 % 60), static_cast<int>(s % 60))
             : StringPrintf("%02d:%02d", static_cast<int>(s / 3600), static_cast<int>(s / 60 % 60));
}

// "11-22" of those milliseconds (counted by a leap year's calendar).
std::string month_day(int64_t ms) {
  int day = static_cast<int>(ms / kDay), month = 0;
  while (month < 11 && day >= kDaysBefore[month + 1]) ++month;
  return StringPrintf("%02d-%02d", month + 1, day - kDaysBefore[month] + 1);
}

// "07:58:13" of a logcat clock; a kernel clock as it is.
std::string hms(const std::string& clock) {
  return clock.size() == 18 ? clock.substr(6, 8) : clock;
}

std::string state_words(char state) {
  switch (state) {
    case 'D':
      return "in D (uninterruptible sleep, in the kernel)";
    case 'Z':
      return "a zombie (Z)";
    case 'S':
      return "asleep (S)";
    case '-':
      return "not found";
    default:
      return std::string("in ") + state;
  }
}

const KernelTask* task_of(const KernelDump& dump, int tid) {
  for (const KernelTask& task : dump.tasks) {
    if (task.pid == tid) return &task;
  }
  return nullptr;
}

// The name of the process `pid` as the records and the kernel's dumps know it; empty if none do.
std::string name_of(const Story& story, const Run& run, int pid) {
  for (const auto& entry : run.records) {
    const Record& rec = entry.second;
    if (rec.pid != pid || pid <= 0) continue;
    if (!rec.process.empty()) return rec.process;
    if (rec.tid == pid) return rec.name;  // a process watched by its main thread
  }
  for (const KernelDump& dump : story.dumps) {
    const KernelTask* task = task_of(dump, pid);
    if (task != nullptr && pid > 0) return task->comm;
  }
  return "";
}

// A mark as the account says it, its process as "NAME (pid N)" where its name is known.
std::string mark_words(const Story& story, const Run& run, const Mark& m) {
  if (m.pid <= 0) return m.text;
  std::string name = name_of(story, run, m.pid);
  std::string pid = "pid " + std::to_string(m.pid);
  return m.text + " " + (name.empty() ? pid : name + " (" + pid + ")") + m.tail;
}

// "system_server (pid 6589)", "pid 5 (its name is not in the log)", "a process whose pid is not
// in the log".
std::string process_words(const std::string& name, int pid) {
  if (pid <= 0) return name.empty() ? "a process whose pid is not in the log" : name;
  return name.empty() ? StringPrintf("pid %d (its name is not in the log)", pid)
                      : StringPrintf("%s (pid %d)", name.c_str(), pid);
}

// Whom an incident is about: "thread watchdog (tid 6592) of system_server (pid 6589)", or
// "surfaceflinger (main thread, pid 8)".
std::string subject(const Incident& in) {
  std::string tid = in.tid > 0 ? StringPrintf("tid %d", in.tid) : "tid not in the log";
  if (in.record == in.process)
    return in.pid > 0 ? StringPrintf("%s (main thread, pid %d)", in.record.c_str(), in.pid)
                      : in.record + " (main thread, pid not in the log)";
  return "thread " + in.record + " (" + tid + ") of " + process_words(in.process, in.pid);
}

// The target of an action, named: the record's process, another the log knows, or the parent.
std::string target_words(const Story& story, const Run& run, const Incident& in, const Action& a) {
  std::string name = !a.target.empty() ? a.target : name_of(story, run, a.pid);
  if (name.empty() && a.pid != in.pid) {
    return StringPrintf("the parent of %s (pid %d)",
                        (in.process.empty() ? in.record : in.process).c_str(), a.pid);
  }
  return process_words(name, a.pid);
}

std::string action_words(const Story& story, const Run& run, const Incident& in, const Action& a) {
  if (a.what == Act::kSysrqW) return "SysRq w";
  if (a.what == Act::kSysrqL) return "SysRq l";
  if (a.what == Act::kSigquit)  // the log does not say whether the process is an app
    return "SIGQUIT to " + target_words(story, run, in, a) + " if it is an app";
  if (a.what == Act::kSignal35) return "signal 35 to " + target_words(story, run, in, a);
  if (a.what == Act::kKill) return "killed " + target_words(story, run, in, a);
  if (a.what == Act::kReboot) return "rebooted the device";
  if (a.what == Act::kPanic) return "kernel panic";
  return "nothing (the policy is none)";
}

bool evidence_action(const Action& a) {
  return is_evidence(a.what);
}

// An incident's actions as steps: those of one kind (evidence or policy) at one time together,
// "08:08:33", "signal 35 to the parent of surfaceflinger (pid 5), SysRq w, SysRq l".
std::vector<std::pair<const Action*, std::string>> steps(const Story& story, const Run& run,
                                                         const Incident& in) {
  std::vector<std::pair<const Action*, std::string>> out;
  for (const Action& a : in.actions) {
    std::string words = action_words(story, run, in, a);
    if (!out.empty() && out.back().first->clock == a.clock &&
        evidence_action(*out.back().first) == evidence_action(a)) {
      out.back().second += ", " + words;
    } else {
      out.emplace_back(&a, words);
    }
  }
  return out;
}

// Where an incident's kernel dump is missing, what would have it.
std::string missing_dump(const Story& story, const Incident& in) {
  if (first_evidence(in) == nullptr) return "No evidence in the log yet.";
  if (in.dump >= 0) {
    return StringPrintf(
        "The kernel's dump %s lists %zu blocked tasks, not this thread: it was no longer in D "
        "when the dump ran.",
        story.dumps[in.dump].clock.c_str(), story.dumps[in.dump].tasks.size());
  }
  if (in.state == 'D' || in.state == 'Z') {
    return "No blocked-task dump found: give the kernel log too (adb shell dmesg, or the bug "
           "report, which holds it).";
  }
  return "The evidence for a thread that is not in D is a dump inside its process: give its "
         "tombstone (the bug report holds /data/tombstones) and, for an app, its Java dump (adb "
         "pull "
         "/data/anr: Android 11 writes it to /data/anr/trace_NN, which a bug report does not "
         "carry).";
}

// "wait_for_common < wait_for_completion < ... (under __switch_to < __schedule < schedule)".
std::string stack_line(const KernelTask& task, size_t frames) {
  size_t sched = wait_frame(task);
  std::vector<std::string> top;
  for (size_t i = sched; i < task.stack.size() && top.size() < frames; ++i)
    top.push_back(shown(task, i));
  std::string s = android::base::Join(top, " < ");
  if (sched + top.size() < task.stack.size()) s += " < ...";
  if (sched > 0)
    s += " (under the scheduler's " + android::base::Join(sleeping_frames(task), " < ") + ")";
  return s;
}

std::string configuration(const Run& run) {
  auto it = run.settings.find(kPropPolicy);
  std::string policy = it == run.settings.end() ? "not logged" : "\"" + it->second + "\"";
  return StringPrintf(
      "timeout %lld s (a sweep every %lld s), policy %s; watches %s",
      static_cast<long long>(run.timeout_s), static_cast<long long>(run.interval_ms / 1000),
      policy.c_str(),
      run.watches.empty() ? "(not logged)" : android::base::Join(run.watches, ", ").c_str());
}

std::string sweeps(const Run& run) {
  return StringPrintf("%llu sweeps: %llu by the /proc walk, %llu through ps",
                      static_cast<unsigned long long>(run.sweeps_proc + run.sweeps_shell),
                      static_cast<unsigned long long>(run.sweeps_proc),
                      static_cast<unsigned long long>(run.sweeps_shell));
}

std::string run_title(const Run& run) {
  return StringPrintf("stall_ward (pid %d), ", run.pid) +
         (run.started.empty() ? "its start not in the log" : "started " + run.started) +
         (run.last_boot ? " (the previous boot)" : "");
}

// The thread of a Java or native dump with the kernel's id `tid`, -1 if it is not there.
int thread_of(const ProcessDump& dump, int tid) {
  for (size_t i = 0; i < dump.threads.size(); ++i) {
    if (dump.threads[i].tid == tid) return static_cast<int>(i);
  }
  return -1;
}

// The frames of a Java or native stack, innermost first, the lock lines left to the blocker.
std::string frames_line(const StackThread& thread, size_t frames) {
  std::vector<std::string> top;
  for (const std::string& f : thread.stack) {
    if (f.rfind("- ", 0) != 0 && top.size() < frames) top.push_back(f);
  }
  return android::base::Join(top, " < ") + (thread.stack.size() > frames ? " < ..." : "");
}

std::string thread_words(const StackThread& t) {
  return StringPrintf("\"%s\" (tid %d%s%s)", t.name.c_str(), t.tid, t.state.empty() ? "" : ", ",
                      t.state.c_str());
}

// Who holds what the watched thread waits for: the Java monitor chain, each holder with its own
// top frames, a deadlock named as such.
std::string java_blocker(const ProcessDump& dump, int thread, bool* deadlock) {
  *deadlock = false;
  if (thread < 0 || dump.threads[thread].waits_for.empty()) return "";
  std::vector<size_t> chain = monitor_chain(dump, thread, deadlock);
  std::string s;
  for (size_t k = 0; k < chain.size(); ++k) {
    const StackThread& t = dump.threads[chain[k]];
    if (k > 0) {
      std::vector<std::string> top = holder_frames(t);
      s += thread_words(t) + " at " +
           android::base::Join(
               std::vector<std::string>(top.begin(), top.begin() + std::min<size_t>(2, top.size())),
               " < ") +
           (top.size() > 2 ? " < ..." : "");
    }
    if (t.waits_for.empty()) break;
    s += std::string(k > 0 ? ", which " : "") + "waits to lock " + t.waits_for;
    s += t.held_by > 0 ? StringPrintf(" held by thread %d ", t.held_by) : " (its holder not named)";
    if (k + 1 == chain.size() && t.held_by > 0 && !*deadlock) s += "(not in the dump)";
  }
  s = android::base::Trim(s);
  if (*deadlock) {  // the cycle: from the thread that the last one waits for
    std::vector<std::string> names;
    bool in_cycle = false;
    for (size_t k : chain) {
      in_cycle = in_cycle || dump.threads[k].java_id == dump.threads[chain.back()].held_by;
      if (in_cycle) names.push_back(thread_words(dump.threads[k]));
    }
    s += "; a deadlock of " + android::base::Join(names, ", ");
  }
  return s;
}

// Where the watched thread waits in the kernel, beside which other tasks, and the lock's owner
// where the kernel names one.
std::string kernel_blocker(const KernelDump& dump, int tid) {
  std::string s;
  for (const KernelGroup& g : kernel_groups(dump)) {
    bool in = false;
    for (size_t t : g.tasks) in = in || dump.tasks[t].pid == tid;
    if (!in || g.tasks.size() < 2) continue;
    s = StringPrintf("%zu tasks of the dump wait at the same place, first in %s:", g.tasks.size(),
                     g.where[0].c_str());
    for (size_t t : g.tasks) {
      if (dump.tasks[t].pid != tid)
        s += StringPrintf(" %s (pid %d)", dump.tasks[t].comm.c_str(), dump.tasks[t].pid);
    }
  }
  for (const KernelTask& task : dump.tasks) {
    if (task.pid != tid || task.owner.empty()) continue;
    s += std::string(s.empty() ? "" : "; ") +
         "the kernel names the lock's likely owner: " + task.owner;
    int owner = atoi(task.owner.c_str() + task.owner.rfind(':') + 1);
    for (const KernelTask& t : dump.tasks) {  // its stack follows in the same report
      if (t.pid == owner && t.pid != tid && !t.stack.empty())
        s += StringPrintf(" (%c), at %s", t.state, stack_line(t, 4).c_str());
    }
  }
  return s;
}

// The Java and native stacks the incident's signals asked for, and the blocker.
std::string stacks_text(const Story& story, const Incident& in) {
  std::string s;
  if (signalled(in) > 0 && did(in, Act::kSigquit) && in.java < 0) {
    s += StringPrintf(
        "; no Java dump of pid %d in the input (Android 11 writes it to "
        "/data/anr/trace_NN: adb pull /data/anr)",
        signalled(in));
  }
  if (signalled(in) > 0 && in.native < 0)
    s += StringPrintf("; no tombstone of pid %d in the input", signalled(in));
  for (int which : {in.java, in.native}) {
    if (which < 0) continue;
    const ProcessDump& dump = story.stacks[which];
    int t = thread_of(dump, in.tid);
    s += StringPrintf("; %s %s (%s)", dump.java ? "Java dump" : "native dump", dump.when.c_str(),
                      dump.source.c_str());
    if (!dump.complete) s += " cut short";
    s +=
        t < 0 ? StringPrintf(" without thread %d", in.tid) : ": " + frames_line(dump.threads[t], 8);
    bool deadlock = false;
    std::string blocker = dump.java ? java_blocker(dump, t, &deadlock) : "";
    if (!blocker.empty()) s += "; blocker: " + blocker;
  }
  if (in.dump >= 0) {
    std::string blocker = kernel_blocker(story.dumps[in.dump], in.tid);
    if (!blocker.empty()) s += "; in the kernel: " + blocker;
    if (story.dumps[in.dump].cut) s += "; the kernel's dump is cut short";
  }
  return s;
}

constexpr const char kQuiet[] =
    "Its log holds only \"started\": the daemon was not enabled, or its debug logging was off "
    "(persist.vendor.sw.debug=0), which leaves its sweeps, evidence and actions out of the log. "
    "The kernel log still shows each SysRq dump it asked for.";

std::string incident_text(const Story& story, const Run& run, const Incident& in) {
  std::string s = subject(in) + " " + state_words(in.state);
  if (!in.since.empty()) s += " from " + hms(in.since);
  std::string evidence, action;
  for (const auto& [a, words] : steps(story, run, in)) {
    std::string& to = evidence_action(*a) ? evidence : action;
    to += (to.empty() ? "" : "; ") + hms(a->clock) + " " + words;
  }
  s += "; evidence " + (evidence.empty() ? std::string("not in the log") : evidence);
  s += action.empty() ? "; no action yet" : "; " + action;
  const KernelTask* task = in.dump >= 0 ? task_of(story.dumps[in.dump], in.tid) : nullptr;
  if (task != nullptr) s += "; kernel stack: " + stack_line(*task, 8);
  s += stacks_text(story, in);
  for (const std::string& sentence : chain_account(story, in, in.chain)) s += "; " + sentence;
  return s +
         (task != nullptr || in.java >= 0 || in.native >= 0 ? "." : ". " + missing_dump(story, in));
}

std::string dump_text(const KernelDump& dump) {
  std::string s =
      dump.kind + " " + dump.clock + ": " + (dump.tasks.empty() ? std::string("no task") : "");
  for (const KernelTask& task : dump.tasks) {
    s += StringPrintf("\n    %s (pid %d, %c): %s", task.comm.c_str(), task.pid, task.state,
                      stack_line(task, 8).c_str());
    if (!task.owner.empty()) s += " (its lock's likely owner: " + task.owner + ")";
  }
  for (const KernelGroup& g : kernel_groups(dump)) {
    if (g.tasks.size() > 1)
      s += StringPrintf("\n    %zu tasks wait at the same place, first in %s", g.tasks.size(),
                        g.where[0].c_str());
  }
  return s;
}

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// Escaped text with places to break a line inside long names (Java frames, library paths).
std::string breakable(const std::string& escaped) {
  std::string out;
  for (char c : escaped) {
    out += c;
    if (c == '.' || c == '/' || c == '(') out += "<wbr>";
  }
  return out;
}

const char* state_colour(char state) {
  switch (state) {
    case 'D':
      return "#d62728";
    case 'Z':
      return "#9467bd";
    case 'S':
      return "#f2a541";
    case '-':
      return "#b0b0b0";
    default:
      return "#2ca02c";
  }
}

// A kernel stack: the scheduler's frames on one dimmed line, then the frames that say why, the
// unreliable ("?") ones dimmed.
std::string stack_html(const KernelTask& task) {
  size_t sched = wait_frame(task);
  std::string h = "<div class=\"stack\">";
  if (sched > 0) {
    h += "<div class=\"sched\" title=\"the scheduler's own frames: the task sleeps\">scheduler: " +
         escape(android::base::Join(sleeping_frames(task), " › ")) + "</div>";
  }
  h += "<ol>";
  for (size_t i = sched; i < task.stack.size(); ++i) {
    if (i == sched) {  // the first reliable frame below the scheduler: what the task waits in
      h += "<li class=\"waits\" title=\"the first frame below the scheduler: what the task "
           "waits in\">" +
           escape(task.stack[i]) + "</li>";
    } else if (unsure(task, i)) {
      h += "<li class=\"unsure\" title=\"printed with ?: an address the unwinder found on the "
           "stack, perhaps not a caller\">? " +
           escape(task.stack[i]) + "</li>";
    } else {
      h += std::string("<li") + (scheduler_frame(task.stack[i]) ? " class=\"unsure\"" : "") + ">" +
           escape(task.stack[i]) + "</li>";
    }
  }
  return h + "</ol></div>";
}

// Every task of a dump, folded, each stack once.
std::string dump_html(const KernelDump& dump, int except_tid, const std::string& summary,
                      bool open = false) {
  std::string h = std::string("<details class=\"dump\"") + (open ? " open" : "") + "><summary>" +
                  escape(summary) + "</summary>";
  for (const KernelTask& task : dump.tasks) {
    if (task.pid == except_tid) continue;
    h += StringPrintf("<h5>%s <span class=\"muted\">(pid %d, %c)</span></h5>",
                      escape(task.comm).c_str(), task.pid, task.state) +
         stack_html(task);
  }
  return h + "</details>";
}

// The row (0 to 2, from `first` on) where a label of `chars` characters at `px` percent fits after
// the labels already placed, whose ends `row_end` keeps; -1 when none has room. A label's width
// is reckoned at 7 px a character on a timeline 360 px wide (a phone's), so that none overlaps.
int label_row(double row_end[3], double px, size_t chars, int first) {
  double width = (static_cast<double>(chars) * 7 + 8) / 360 * 100;
  double start = px > 75 ? px - width : px;
  for (int k = 0; k < 3; ++k) {
    int row = (first + k) % 3;
    if (start < row_end[row]) continue;
    row_end[row] = start + width;
    return row;
  }
  return -1;
}

// A policy mark's label: the action as its incident tells it, with the target named.
std::string policy_words(const Story& story, const Run& run, const Record& rec, const Mark& m) {
  for (const Incident& in : run.incidents) {
    if (in.record != rec.name) continue;
    for (const Action& a : in.actions) {
      if (a.clock == m.clock && !evidence_action(a)) return action_words(story, run, in, a);
    }
  }
  return mark_words(story, run, m);
}

// Ticks for a time axis: at a round step that gives at most `most` of them.
std::vector<int64_t> ticks(int64_t from, int64_t to, int most) {
  static const int64_t kSteps[] = {1000,    2000,    5000,     10000,    15000,    30000,
                                   60000,   120000,  300000,   600000,   900000,   1800000,
                                   3600000, 7200000, 10800000, 21600000, 43200000, kDay};
  int64_t step = kDay;
  for (int64_t s : kSteps) {
    if ((to - from) / s < most) {
      step = s;
      break;
    }
  }
  std::vector<int64_t> out;
  for (int64_t t = (from + step - 1) / step * step; t <= to; t += step) out.push_back(t);
  return out;
}

std::string tick_label(int64_t t, int64_t step, bool with_day) {
  return (with_day ? month_day(t) + " " : "") + time_of_day(t, step < 60000);
}

// The time axis of a run: round ticks across it, the day given where it changes.
std::string axis_html(int64_t from, int64_t to, const std::vector<int64_t>& at) {
  std::string h = "<div class=\"ticks\">";
  int64_t step = at.size() > 1 ? at[1] - at[0] : 1000;
  for (size_t i = 0; i < at.size(); ++i) {
    bool day = (i == 0 && to / kDay != from / kDay) || (i > 0 && at[i] / kDay != at[i - 1] / kDay);
    double left = 100.0 * (at[i] - from) / (to - from);
    h +=
        StringPrintf("<span class=\"%s%s\" style=\"left:%.2f%%\">%s</span>", i % 2 ? "odd" : "even",
                     left < 3    ? " first"
                     : left > 97 ? " last"
                                 : "",
                     left, tick_label(at[i], step, day).c_str());
  }
  return h + "</div>";
}

// One record's timeline: the stall count by sweep (line) against the timeout (dashed), the state
// by sweep (band), the marks, on the run's time axis.
std::string timeline_html(const Story& story, const Run& run, const Record& rec, int64_t from,
                          int64_t to, const std::vector<int64_t>& at) {
  const double span = std::max<int64_t>(to - from, 1);
  int64_t top = std::max<int64_t>(run.timeout_s * 1000 * 5 / 4, 1);
  for (const Point& p : rec.points) top = std::max(top, p.stall_ms);
  auto x = [&](int64_t ms) { return 1000.0 * (ms - from) / span; };
  auto y = [&](int64_t stall) { return 100.0 - 92.0 * stall / top; };
  std::string h = "<div class=\"timeline\"><div class=\"plot\">";
  h += "<svg viewBox=\"0 0 1000 100\" preserveAspectRatio=\"none\" role=\"img\">";
  for (int64_t t : at)
    h += StringPrintf("<line class=\"grid\" x1=\"%.1f\" y1=\"0\" x2=\"%.1f\" y2=\"100\"/>", x(t),
                      x(t));
  double ty = y(run.timeout_s * 1000);
  h += StringPrintf("<line class=\"timeout\" x1=\"0\" y1=\"%.1f\" x2=\"1000\" y2=\"%.1f\"/>", ty,
                    ty);
  std::string line;
  for (const Point& p : rec.points) line += StringPrintf("%.1f,%.1f ", x(p.ms), y(p.stall_ms));
  h += "<polyline class=\"stall\" points=\"" + line + "\"/>";
  for (const Mark& m : rec.marks) {
    h += StringPrintf(
        "<line class=\"mark %s\" x1=\"%.1f\" y1=\"0\" x2=\"%.1f\" y2=\"100\"><title>%s "
        "%s</title></line>",
        m.kind.c_str(), x(m.ms), x(m.ms), escape(hms(m.clock)).c_str(),
        escape(mark_words(story, run, m)).c_str());
  }
  h += "</svg>";
  h += StringPrintf("<span class=\"ylabel\" style=\"top:%.1f%%\">timeout %llds</span>", ty,
                    static_cast<long long>(run.timeout_s));
  std::map<std::string, double> labelled;  // kind: where its last label is
  double row_end[3] = {-100, -100, -100};  // where each row's last label ends, in percent
  for (const Mark& m : rec.marks) {
    double px = x(m.ms) / 10;
    // A mark close to the last labelled one of its kind goes without a label (its line has the
    // title), and so does one for which no row has room; a policy's label goes below the others.
    auto same = labelled.find(m.kind);
    if (same != labelled.end() && px - same->second < 14) continue;
    std::string label = m.kind == "policy"        ? policy_words(story, run, rec, m)
                        : m.kind == "not-started" ? "not found"
                        : m.kind == "bind"        ? "rebound"
                                                  : m.kind;
    int row = label_row(row_end, px, label.size(), m.kind == "policy" ? 1 : 0);
    if (row < 0) continue;
    labelled[m.kind] = px;
    h += StringPrintf(
        "<span class=\"mlabel %s%s\" style=\"left:%.2f%%;top:%dpx\" title=\"%s %s\">%s</span>",
        m.kind.c_str(), px > 75 ? " end" : "", px, 2 + 15 * row, escape(hms(m.clock)).c_str(),
        escape(mark_words(story, run, m)).c_str(), escape(label).c_str());
  }
  h += "</div><svg class=\"band\" viewBox=\"0 0 1000 10\" preserveAspectRatio=\"none\">";
  for (size_t i = 0; i < rec.points.size(); ++i) {
    const Point& p = rec.points[i];
    double x1 = x(p.ms), x2 = i + 1 < rec.points.size() ? x(rec.points[i + 1].ms) : x(to);
    h += StringPrintf(
        "<rect x=\"%.1f\" y=\"0\" width=\"%.1f\" height=\"10\" fill=\"%s\"><title>%s from %s, "
        "stall %lld s</title></rect>",
        x1, std::max(x2 - x1, 2.0), state_colour(p.state), escape(state_words(p.state)).c_str(),
        time_of_day(p.ms).c_str(), static_cast<long long>(p.stall_ms / 1000));
  }
  return h + "</svg>" + axis_html(from, to, at) + "</div>\n";
}

// Beside the incident: the watched thread's Java and native stacks, the blocker's chain, and what
// is missing of them.
std::string stacks_html(const Story& story, const Incident& in) {
  std::string h;
  for (int which : {in.java, in.native}) {
    if (which < 0) continue;
    const ProcessDump& dump = story.stacks[which];
    int t = thread_of(dump, in.tid);
    h += "<h5>" + std::string(dump.java ? "Java" : "Native") + " stack" +
         (t < 0 ? "" : " of " + escape(thread_words(dump.threads[t]))) + " <span class=\"muted\">" +
         escape(dump.when + " (" + dump.source + ")") + (dump.complete ? "" : ", cut short") +
         "</span></h5>";
    if (t < 0) {
      h += StringPrintf("<p class=\"missing\">The dump has no thread %d.</p>", in.tid);
      continue;
    }
    bool deadlock = false;
    std::string blocker = dump.java ? java_blocker(dump, t, &deadlock) : "";
    if (!blocker.empty()) {
      h += "<p class=\"blocker\"><b>" + std::string(deadlock ? "Deadlock" : "Blocker") + ":</b> " +
           breakable(escape(blocker)) + "</p>";
    }
    h += "<pre class=\"stack\">" +
         breakable(escape(android::base::Join(dump.threads[t].stack, "\n"))) + "</pre>";
  }
  if (signalled(in) > 0 && did(in, Act::kSigquit) && in.java < 0) {
    h += StringPrintf(
        "<p class=\"missing\">No Java dump of pid %d in the input: Android 11 writes it to "
        "/data/anr/trace_NN, which a bug report does not carry (adb pull /data/anr).</p>",
        signalled(in));
  }
  if (signalled(in) > 0 && in.native < 0) {
    h += StringPrintf("<p class=\"missing\">No tombstone of pid %d in the input.</p>",
                      signalled(in));
  }
  std::string kernel = in.dump >= 0 ? kernel_blocker(story.dumps[in.dump], in.tid) : "";
  if (!kernel.empty())
    h += "<p class=\"blocker\"><b>In the kernel:</b> " + breakable(escape(kernel)) + "</p>";
  return h + chain_html(story, in);
}

std::string incident_html(const Story& story, const Run& run, const Incident& in) {
  std::string h = StringPrintf(
      "<article class=\"incident\"><div class=\"what\"><h4><span "
      "class=\"badge\" style=\"background:%s\">%c</span> %s</h4><ol "
      "class=\"steps\">",
      state_colour(in.state), in.state, escape(subject(in)).c_str());
  h += "<li><time>" + escape(in.since.empty() ? "?" : hms(in.since)) + "</time>" +
       escape(state_words(in.state)) + ", its stall counted from here</li>";
  for (const auto& [a, words] : steps(story, run, in)) {
    h += std::string("<li class=\"") + (evidence_action(*a) ? "evidence" : "policy") + "\"><time>" +
         escape(hms(a->clock)) + "</time>" + (evidence_action(*a) ? "evidence: " : "") +
         escape(words) + "</li>";
  }
  if (in.actions.empty() || evidence_action(in.actions.back()))
    h += "<li class=\"muted\"><time></time>no action yet</li>";
  h += "</ol></div><div class=\"kernel\">";
  const KernelTask* task = in.dump >= 0 ? task_of(story.dumps[in.dump], in.tid) : nullptr;
  if (task != nullptr) {
    const KernelDump& dump = story.dumps[in.dump];
    h += "<h5>Kernel stack of " + escape(task->comm) +
         StringPrintf(" (tid %d, %c) <span class=\"muted\">SysRq w ", task->pid, task->state) +
         escape(hms(dump.clock)) + "</span></h5>" + stack_html(*task);
    if (dump.tasks.size() > 1) {
      h += dump_html(dump, task->pid,
                     StringPrintf("%zu other blocked tasks in that dump", dump.tasks.size() - 1));
    }
  } else if (in.java < 0 && in.native < 0) {
    h += "<p class=\"missing\">" + escape(missing_dump(story, in)) + "</p>";
  }
  return h + stacks_html(story, in) + "</div></article>\n";
}

constexpr const char kStyle[] = R"(
:root { --muted: #6b7280; --line: #e5e7eb; }
body { font: 15px/1.5 system-ui, -apple-system, "Segoe UI", sans-serif; margin: 0 auto; padding: 20px 24px 48px; color: #1f2937; max-width: 1100px; }
h1 { font-size: 24px; margin: 0 0 4px; } h2 { font-size: 19px; margin: 36px 0 8px; padding-bottom: 6px; border-bottom: 2px solid var(--line); }
h3 { font-size: 16px; margin: 24px 0 8px; } h4 { font-size: 15px; margin: 0 0 8px; } h5 { font-size: 13px; margin: 10px 0 4px; }
.muted, .sub, .when { color: var(--muted); font-weight: normal; } .when { white-space: nowrap; font-size: 15px; }
.note { background: #fff8e1; padding: 10px 14px; border-left: 4px solid #e0b000; border-radius: 4px; }
.facts { display: flex; flex-wrap: wrap; gap: 8px; margin: 8px 0; padding: 0; }
.facts div { background: #f3f4f6; border-radius: 6px; padding: 4px 10px; } .facts dt { display: inline; color: var(--muted); } .facts dd { display: inline; margin: 0 0 0 6px; font-weight: 600; }
.incident { display: grid; grid-template-columns: minmax(0, 1fr) minmax(0, 1fr); gap: 16px; border: 1px solid var(--line); border-left: 4px solid #d62728; border-radius: 8px; padding: 14px 16px; margin: 12px 0; }
.badge { display: inline-block; min-width: 20px; text-align: center; color: #fff; border-radius: 4px; font-size: 13px; padding: 0 4px; }
.steps { list-style: none; padding: 0; margin: 0; } .steps li { padding: 3px 0; border-left: 2px solid var(--line); padding-left: 10px; }
.steps time { display: inline-block; min-width: 84px; font-variant-numeric: tabular-nums; color: var(--muted); }
.steps .policy { font-weight: 600; color: #b91c1c; border-left-color: #d62728; } .steps .evidence { border-left-color: #f59e0b; }
.kernel h5 { margin-top: 0; } .blocker { background: #fef2f2; border-left: 4px solid #d62728; padding: 6px 10px; border-radius: 4px; margin: 8px 0; } .missing { color: #92400e; background: #fff8e1; padding: 8px 10px; border-radius: 4px; margin: 0; }
.stack { font: 12.5px/1.45 ui-monospace, "DejaVu Sans Mono", monospace; background: #f8fafc; border: 1px solid var(--line); border-radius: 6px; padding: 6px 10px; overflow-x: auto; }
.stack ol { margin: 0; padding-left: 22px; } .stack .sched { color: #9ca3af; border-bottom: 1px dashed var(--line); padding-bottom: 3px; margin-bottom: 3px; }
.stack .unsure { color: #9ca3af; font-style: italic; } .stack .waits { font-weight: 700; color: #111827; }
details.dump { margin-top: 8px; font-size: 13px; } details.dump summary { cursor: pointer; color: var(--muted); }
.legend { color: var(--muted); font-size: 13px; } .legend i { display: inline-block; width: 11px; height: 11px; margin: 0 4px 0 10px; vertical-align: -1px; border-radius: 2px; }
.timeline { margin: 4px 0 18px; } .plot { position: relative; height: 110px; border-left: 1px solid #9ca3af; border-bottom: 1px solid #9ca3af; }
.plot svg { position: absolute; inset: 0; width: 100%; height: 100%; overflow: visible; }
.plot line, .plot polyline { vector-effect: non-scaling-stroke; }
.grid { stroke: #eef0f3; } .timeout { stroke: #d62728; stroke-dasharray: 5 4; } .stall { fill: none; stroke: #2563eb; stroke-width: 2; }
.ticks span.first { transform: none; } .ticks span.last { transform: translateX(-100%); }
.ticks span.first::before { left: 0; } .ticks span.last::before { left: 100%; }
.ylabel { position: absolute; left: 4px; transform: translateY(-115%); font-size: 11px; color: #d62728; }
.mark { stroke-width: 2; } .mark.evidence { stroke: #f59e0b; } .mark.policy { stroke: #d62728; } .mark.bind { stroke: #2563eb; stroke-dasharray: 2 3; }
.mark.frozen, .mark.not-started { stroke: #9ca3af; stroke-dasharray: 1 3; }
.mlabel { position: absolute; font-size: 11px; line-height: 14px; white-space: nowrap; padding: 0 4px; background: rgba(255,255,255,.85); border-radius: 3px; }
.mlabel.end { transform: translateX(-100%); } .mlabel.evidence { color: #b45309; } .mlabel.policy { color: #b91c1c; font-weight: 700; } .mlabel.bind { color: #2563eb; } .mlabel.frozen, .mlabel.not-started { color: var(--muted); }
svg.band { display: block; width: 100%; height: 12px; }
.ticks { position: relative; height: 18px; font-size: 11px; color: var(--muted); font-variant-numeric: tabular-nums; }
.ticks span { position: absolute; transform: translateX(-50%); white-space: nowrap; } .ticks span::before { content: ""; position: absolute; left: 50%; top: -3px; height: 4px; border-left: 1px solid #9ca3af; }
.events { list-style: none; padding: 0; } .events li { padding: 6px 10px; margin: 6px 0; border-radius: 6px; background: #f3f4f6; }
.events li.alarm { background: #fdecec; } .events time { color: var(--muted); margin-right: 8px; font-variant-numeric: tabular-nums; }
@media (max-width: 760px) {
  body { padding: 12px 12px 32px; font-size: 14px; } .incident { grid-template-columns: minmax(0, 1fr); }
  .ticks span.odd { display: none; }
}
table.fleet { border-collapse: collapse; width: 100%; font-size: 14px; margin: 8px 0 16px; } table.fleet th { text-align: left; color: var(--muted); font-weight: 600; border-bottom: 2px solid var(--line); padding: 4px 8px; }
table.fleet td { border-bottom: 1px solid var(--line); padding: 4px 8px; vertical-align: top; overflow-wrap: break-word; } table.fleet td.n, table.fleet time, table.incidents td.t { white-space: nowrap; font-variant-numeric: tabular-nums; }
table.fleet td.why { overflow-wrap: anywhere; min-width: 30%; } table.fleet td.sig { white-space: nowrap; } table.fleet td.sig a { font: 12.5px/1.45 ui-monospace, "DejaVu Sans Mono", monospace; }
table.incidents td:nth-child(2) { overflow-wrap: anywhere; width: 22%; }
table.fleet code { font: 12.5px/1.45 ui-monospace, "DejaVu Sans Mono", monospace; white-space: pre-wrap; overflow-wrap: anywhere; }
@media (max-width: 700px) { body { padding: 12px 12px 32px; } table.fleet tr:first-child { display: none; } table.fleet tr { display: block; border: 1px solid var(--line); border-radius: 8px; margin: 10px 0; padding: 6px 10px; }
  table.fleet td { display: block; border: 0; padding: 2px 0; } table.fleet td:empty { display: none; } table.fleet td::before { content: attr(data-h) ": "; color: var(--muted); } table.fleet td div { display: inline; } table.fleet td div + div::before { content: "; "; } table.incidents td:nth-child(2) { width: auto; } }
)";

}  // namespace

// "3 SysRq w dumps, 1 hung task report in the kernel log; 2 Java and 1 native stack dumps".
std::string evidence_counts(const Story& story) {
  std::map<std::string, size_t> kinds;
  for (const KernelDump& dump : story.dumps) ++kinds[dump.kind];
  size_t java = 0;
  for (const ProcessDump& dump : story.stacks) java += dump.java;
  std::string s =
      StringPrintf("%zu SysRq w dump%s", kinds["SysRq w"], kinds["SysRq w"] == 1 ? "" : "s");
  if (kinds["hung task"] > 0)
    s += StringPrintf(", %zu hung-task report%s", kinds["hung task"],
                      kinds["hung task"] == 1 ? "" : "s");
  s += " in the kernel log";
  if (!story.stacks.empty())
    s += StringPrintf("; %zu Java and %zu native stack dumps", java, story.stacks.size() - java);
  return s;
}

std::string summary(const Story& story) {
  const InputStats& in = story.input;
  std::string s = StringPrintf(
      "%llu log lines read (%llu of stall_ward; %llu unreadable, skipped); "
      "%zu run%s of the daemon; %s\n",
      static_cast<unsigned long long>(in.lines), static_cast<unsigned long long>(in.daemon),
      static_cast<unsigned long long>(in.unreadable), story.runs.size(),
      story.runs.size() == 1 ? "" : "s", evidence_counts(story).c_str());
  for (const std::string& error : in.errors) s += "cannot read " + error + "\n";
  if (in.daemon == 0) s += std::string(kNoDaemonLine) + "\n";
  return s;
}

std::string text_report(const Story& story) {
  std::string s = "stall_ward report: " + summary(story);
  for (const Run& run : story.runs) {
    s += "\nRun of " + run_title(run) + "\n";
    if (run.lines == 0) {
      s += "  " + std::string(kQuiet) + "\n";
      continue;
    }
    s += "  " + configuration(run) + "\n";
    s += "  " + sweeps(run) + "\n";
    if (run.incidents.empty())
      s += "  No incident: no watched thread stalled for a whole timeout.\n";
    for (const Incident& incident : run.incidents)
      s += "\n  " + incident_text(story, run, incident) + "\n";
    for (const Mark& event : run.events)
      s += "\n  " + hms(event.clock) + " " + mark_words(story, run, event) + ".\n";
  }
  bool header = false;
  for (const KernelDump& dump : story.dumps) {
    if (!dump.answers.empty()) continue;
    if (!header) s += "\nKernel blocked-task dumps that no daemon line in the input asked for:\n";
    header = true;
    s += "  " + dump_text(dump) + "\n";
  }
  return s;
}

std::string page_head(const std::string& title) {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><meta "
         "name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
         escape(title) + "</title><style>" + std::string(kStyle) + "</style></head><body>\n";
}

// A run's configuration and sweeps, as facts side by side.
std::string facts_html(const Run& run) {
  auto policy = run.settings.find(kPropPolicy);
  return "<dl class=\"facts\">" +
         StringPrintf(
             "<div><dt>timeout</dt><dd>%lld s</dd></div><div><dt>a sweep every</dt><dd>%lld "
             "s</dd></div>",
             static_cast<long long>(run.timeout_s),
             static_cast<long long>(run.interval_ms / 1000)) +
         "<div><dt>policy</dt><dd>" +
         escape(policy == run.settings.end() ? "not logged" : policy->second) +
         "</dd></div><div><dt>watches</dt><dd>" +
         escape(run.watches.empty() ? "not logged" : android::base::Join(run.watches, "; ")) +
         "</dd></div><div><dt>sweeps</dt><dd>" +
         StringPrintf("%llu <span class=\"muted\">(%llu /proc walk, %llu ps)</span>",
                      static_cast<unsigned long long>(run.sweeps_proc + run.sweeps_shell),
                      static_cast<unsigned long long>(run.sweeps_proc),
                      static_cast<unsigned long long>(run.sweeps_shell)) +
         "</dd></div></dl>\n";
}

// A watched name's heading: the thread, its process, what it was last bound to.
std::string record_heading(const Record& rec) {
  bool main = rec.process.empty() || rec.process == rec.name;
  return "<h4>" + escape(rec.name) + "<span class=\"muted\">" +
         (main ? std::string(" (main thread)") : " of " + escape(rec.process)) +
         (rec.pid > 0 && rec.tid != rec.pid
              ? StringPrintf(", last bound to pid %d, tid %d", rec.pid, rec.tid)
          : rec.pid > 0 ? StringPrintf(", last bound to pid %d", rec.pid)
                        : std::string(", never found running")) +
         "</span></h4>\n";
}

// Every watched name's timeline, on one time axis for the run: from its first line, sample or
// mark to its last.
std::string records_html(const Story& story, const Run& run) {
  int64_t from = run.first_ms >= 0 ? run.first_ms : INT64_MAX;
  int64_t to = run.last_ms >= 0 ? run.last_ms : INT64_MIN;
  for (const auto& entry : run.records) {
    for (const Point& p : entry.second.points) from = std::min(from, p.ms), to = std::max(to, p.ms);
    for (const Mark& m : entry.second.marks) from = std::min(from, m.ms), to = std::max(to, m.ms);
  }
  to = std::max(to, from + 1000);
  std::vector<int64_t> at = from <= to ? ticks(from, to, 9) : std::vector<int64_t>();
  std::string h =
      "<h3>Watched names, sweep by sweep</h3>\n<p class=\"legend\">state:"
      "<i style=\"background:#d62728\"></i>D<i style=\"background:#9467bd\"></i>Z"
      "<i style=\"background:#f2a541\"></i>S<i style=\"background:#2ca02c\"></i>running"
      "<i style=\"background:#b0b0b0\"></i>not found &nbsp;·&nbsp; blue line: the stall "
      "count; red dashes: the timeout</p>\n";
  for (const auto& entry : run.records) {
    const Record& rec = entry.second;
    h += record_heading(rec);
    h += !rec.points.empty() || !rec.marks.empty() ? timeline_html(story, run, rec, from, to, at)
                                                   : "<p class=\"muted\">never sampled</p>\n";
  }
  return h;
}

// The daemon's own events (its self-watchdog, slow sweeps, failures), each with the kernel's dump
// that answers it.
std::string events_html(const Story& story, const Run& run) {
  if (run.events.empty()) return "";
  std::string h =
      "<h3>The daemon itself <span class=\"muted\">(its self-watchdog, slow sweeps, "
      "failures)</span></h3>\n<ul class=\"events\">";
  for (const Mark& event : run.events) {
    h += "<li class=\"" + escape(event.kind) + "\"><time>" + escape(hms(event.clock)) + "</time>" +
         escape(mark_words(story, run, event));
    if (event.dump >= 0) {
      const KernelDump& dump = story.dumps[event.dump];
      h += dump_html(dump, 0,
                     StringPrintf("%zu blocked tasks in the kernel's dump %s", dump.tasks.size(),
                                  hms(dump.clock).c_str()));
    } else if (event.kind == "alarm") {
      h += "<p class=\"missing\">No blocked-task dump found: give the kernel log too (adb "
           "shell dmesg, or the bug report, which holds it).</p>";
    }
    h += "</li>";
  }
  return h + "</ul>\n";
}

std::string run_html(const Story& story, const Run& run) {
  std::string h =
      StringPrintf("<section class=\"run\"><h2>stall_ward (pid %d) <span class=\"when\">",
                   run.pid) +
      escape(run.started.empty() ? "its start not in the log" : "started " + run.started) +
      "</span></h2>\n";
  if (run.lines == 0) return h + "<p class=\"note\">" + escape(kQuiet) + "</p></section>\n";
  h += facts_html(run);
  h +=
      StringPrintf("<h3>Incidents <span class=\"muted\">(%zu)</span></h3>\n", run.incidents.size());
  for (const Incident& in : run.incidents) h += incident_html(story, run, in);
  if (run.incidents.empty()) h += "<p>None: no watched thread stalled for a whole timeout.</p>\n";
  return h + records_html(story, run) + events_html(story, run) + "</section>\n";
}

std::string html_report(const Story& story) {
  std::string h = page_head("stall_ward report") + "<h1>stall_ward report</h1>\n";
  h += "<p class=\"sub\">" + escape(summary(story)) + "</p>\n";
  for (const Run& run : story.runs) h += run_html(story, run);
  std::string loose;
  for (const KernelDump& dump : story.dumps) {
    if (dump.answers.empty())
      loose += dump_html(
          dump, 0,
          StringPrintf("SysRq w %s: %zu blocked tasks", dump.clock.c_str(), dump.tasks.size()),
          true);
  }
  if (!loose.empty()) h += "<h2>Kernel blocked-task dumps no daemon line asked for</h2>\n" + loose;
  return h + "</body></html>\n";
}

namespace {

// A known value, or null.
template <typename T>
nlohmann::json or_null(bool known, const T& value) {
  return known ? nlohmann::json(value) : nlohmann::json(nullptr);
}

// An incident's Java and native stacks of the watched thread, and its blocker.
void add_stacks_json(const Story& story, const Incident& in, nlohmann::json* j) {
  (*j)["java_dump"] = or_null(in.java >= 0, in.java);
  (*j)["native_dump"] = or_null(in.native >= 0, in.native);
  (*j)["signalled_pid"] = or_null(signalled(in) > 0, signalled(in));
  nlohmann::json blocker = {{"deadlock", false}, {"java", nullptr}, {"kernel", nullptr}};
  for (int which : {in.java, in.native}) {
    if (which < 0) continue;
    const ProcessDump& dump = story.stacks[which];
    int t = thread_of(dump, in.tid);
    nlohmann::json stack = {{"when", dump.when},
                            {"source", dump.source},
                            {"complete", dump.complete},
                            {"found", t >= 0},
                            {"thread", or_null(t >= 0, t >= 0 ? dump.threads[t].name : "")},
                            {"state", or_null(t >= 0 && !dump.threads[t].state.empty(),
                                              t >= 0 ? dump.threads[t].state : "")},
                            {"stack", t >= 0 ? dump.threads[t].stack : std::vector<std::string>()}};
    (*j)[dump.java ? "java_stack" : "native_stack"] = stack;
    if (!dump.java || t < 0) continue;
    bool deadlock = false;
    std::string java = java_blocker(dump, t, &deadlock);
    blocker["java"] = or_null(!java.empty(), java);
    blocker["deadlock"] = deadlock;
    nlohmann::json chain = nlohmann::json::array();
    if (!dump.threads[t].waits_for.empty()) {
      for (size_t k : monitor_chain(dump, t, &deadlock)) {
        const StackThread& th = dump.threads[k];
        chain.push_back({{"name", th.name},
                         {"tid", th.tid},
                         {"state", or_null(!th.state.empty(), th.state)},
                         {"waits_for", or_null(!th.waits_for.empty(), th.waits_for)},
                         {"held_by", or_null(th.held_by > 0, th.held_by)}});
      }
    }
    blocker["chain"] = chain;
  }
  std::string kernel = in.dump >= 0 ? kernel_blocker(story.dumps[in.dump], in.tid) : "";
  blocker["kernel"] = or_null(!kernel.empty(), kernel);
  (*j)["blocker"] = blocker;
}

void add_kernel_json(const KernelDump& dump, nlohmann::json* j) {
  (*j)["kind"] = dump.kind;
  (*j)["last_boot"] = dump.last_boot;
  (*j)["cut"] = dump.cut;
  for (size_t t = 0; t < dump.tasks.size(); ++t) {
    if (!dump.tasks[t].owner.empty()) (*j)["tasks"][t]["owner"] = dump.tasks[t].owner;
  }
  nlohmann::json groups = nlohmann::json::array();
  for (const KernelGroup& g : kernel_groups(dump)) {
    nlohmann::json pids = nlohmann::json::array();
    for (size_t t : g.tasks) pids.push_back(dump.tasks[t].pid);
    groups.push_back({{"where", g.where}, {"pids", pids}});
  }
  (*j)["groups"] = groups;
}

// A point in time as JSON: the log's clock as printed, and ms since the start of the year (local
// time), dated by the input's year and zone where it gives them.
struct JsonTime {
  const InputStats& input;

  // A common year has no 02-29: from March on, its count is a day less than the leap year's.
  int64_t in_year(int64_t ms) const {
    bool leap = input.year % 4 == 0 && (input.year % 100 != 0 || input.year % 400 == 0);
    return input.year != 0 && !leap && ms >= 60 * kDay ? ms - kDay : ms;
  }

  nlohmann::json operator()(int64_t ms, const std::string& clock) const {
    if (clock.empty()) return nullptr;
    if (ms < 0 && clock[0] == '[') {
      return {{"ms", nullptr},
              {"since_boot_ms", llround(atof(clock.c_str() + 1) * 1000)},
              {"clock", clock}};
    }
    if (ms < 0) ms = clock_ms(clock);
    nlohmann::json t = {{"ms", in_year(ms)}, {"clock", clock}, {"iso", nullptr}};
    if (input.year != 0) {
      t["iso"] = StringPrintf("%04d-%sT%s.%03d", input.year, month_day(ms).c_str(),
                              time_of_day(ms).c_str(), static_cast<int>(ms % 1000)) +
                 (input.zone.empty() ? "" : input.zone.substr(0, 3) + ":" + input.zone.substr(3));
    }
    return t;
  }
};

nlohmann::json pid_or_null(int pid) {
  return or_null(pid > 0, pid);
}

nlohmann::json name_or_null(const std::string& name) {
  return or_null(!name.empty(), name);
}

// What the times mean: their unit, the year and zone the input gives, and a note saying so.
nlohmann::json time_json(const InputStats& input) {
  std::string note = "ms: milliseconds since the start of the year, by the device's clock";
  note += input.zone.empty() ? " in its local time zone, which the input does not give"
                             : " in the zone given";
  note += input.year != 0 ? " (the year from " + input.year_from + ")"
                          : "; the input gives no year (logcat -v year has it, a bug report's "
                            "dumpstate line too): counted as a leap year";
  return {{"unit", "ms"},
          {"year", or_null(input.year != 0, input.year)},
          {"zone", name_or_null(input.zone)},
          {"note", note}};
}

// A watched name: what it was last bound to, its state and stall count by sweep, its marks.
nlohmann::json record_json(const Story& story, const Run& run, const Record& rec,
                           const JsonTime& time) {
  nlohmann::json points = nlohmann::json::array(), marks = nlohmann::json::array();
  for (const Point& p : rec.points)
    points.push_back({time.in_year(p.ms), std::string(1, p.state), p.stall_ms});
  for (const Mark& m : rec.marks)
    marks.push_back(
        {{"time", time(m.ms, m.clock)}, {"kind", m.kind}, {"text", mark_words(story, run, m)}});
  return {{"thread", rec.name},
          {"process", name_or_null(rec.process)},
          {"cmd", name_or_null(rec.cmd)},
          {"pid", pid_or_null(rec.pid)},
          {"tid", pid_or_null(rec.tid)},
          {"points", points},
          {"marks", marks}};
}

// An incident: whom it is about, what the daemon did, its stacks, blocker and chain.
nlohmann::json incident_json(const Story& story, const Run& run, const Incident& in,
                             const JsonTime& time) {
  nlohmann::json actions = nlohmann::json::array();
  for (const Action& a : in.actions) {
    std::string target = a.target.empty() ? name_of(story, run, a.pid) : a.target;
    actions.push_back({{"what", act_name(a.what)},
                       {"target_pid", pid_or_null(a.pid)},
                       {"target", a.pid > 0 ? name_or_null(target) : nlohmann::json(nullptr)},
                       {"time", time(a.ms, a.clock)}});
  }
  nlohmann::json j = {{"record", in.record},
                      {"thread", in.record},
                      {"process", name_or_null(in.process)},
                      {"pid", pid_or_null(in.pid)},
                      {"tid", pid_or_null(in.tid)},
                      {"state", std::string(1, in.state)},
                      {"since", time(-1, in.since)},
                      {"actions", actions},
                      {"kernel_dump", or_null(in.dump >= 0, in.dump)}};
  add_stacks_json(story, in, &j);
  add_chain_json(story, in, &j);
  return j;
}

// A run of the daemon: its settings and sweeps, its watched names, incidents and own events.
nlohmann::json run_json(const Story& story, const Run& run, const JsonTime& time) {
  nlohmann::json r = {{"pid", run.pid},
                      {"started", time(-1, run.started)},
                      {"settings", run.settings},
                      {"watches", run.watches},
                      {"timeout_ms", run.timeout_s * 1000},
                      {"interval_ms", run.interval_ms},
                      {"debug_lines", run.lines},
                      {"sweeps_proc", run.sweeps_proc},
                      {"sweeps_shell", run.sweeps_shell},
                      {"last_boot", run.last_boot},
                      {"records", nlohmann::json::object()},
                      {"incidents", nlohmann::json::array()},
                      {"events", nlohmann::json::array()}};
  for (const auto& entry : run.records)
    r["records"][entry.second.name] = record_json(story, run, entry.second, time);
  for (const Incident& in : run.incidents)
    r["incidents"].push_back(incident_json(story, run, in, time));
  for (const Mark& m : run.events) {
    r["events"].push_back({{"time", time(m.ms, m.clock)},
                           {"kind", m.kind},
                           {"text", mark_words(story, run, m)},
                           {"kernel_dump", or_null(m.dump >= 0, m.dump)}});
  }
  return r;
}

// A kernel dump: its tasks with their stacks (the unreliable frames by index), its groups.
nlohmann::json kernel_dump_json(const KernelDump& dump, const JsonTime& time) {
  nlohmann::json tasks = nlohmann::json::array();
  for (const KernelTask& t : dump.tasks) {
    nlohmann::json unreliable = nlohmann::json::array();
    for (size_t i = 0; i < t.stack.size(); ++i) {
      if (unsure(t, i)) unreliable.push_back(i);
    }
    tasks.push_back({{"comm", t.comm},
                     {"state", std::string(1, t.state)},
                     {"pid", t.pid},
                     {"ppid", pid_or_null(t.ppid)},
                     {"stack", t.stack},
                     {"unreliable_frames", unreliable}});
  }
  nlohmann::json j = {{"time", time(dump.ms, dump.clock)},
                      {"answers", or_null(!dump.answers.empty(), dump.answers)},
                      {"tasks", tasks}};
  add_kernel_json(dump, &j);
  return j;
}

}  // namespace

std::string json_report(const Story& story) {
  const JsonTime time{story.input};
  nlohmann::json j = {
      {"schema_version", kSchemaVersion},     {"time", time_json(story.input)},
      {"lines", story.input.lines},           {"daemon_lines", story.input.daemon},
      {"unreadable", story.input.unreadable}, {"errors", story.input.errors},
      {"runs", nlohmann::json::array()},      {"kernel_dumps", nlohmann::json::array()}};
  for (const Run& run : story.runs) j["runs"].push_back(run_json(story, run, time));
  for (const KernelDump& dump : story.dumps)
    j["kernel_dumps"].push_back(kernel_dump_json(dump, time));
  return j.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string incident_account(const Story& story, const Run& run, const Incident& in) {
  return incident_text(story, run, in);
}

}  // namespace report
