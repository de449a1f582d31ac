// The story told three ways: a short text account, one self-contained HTML page (inline SVG and
// CSS, no scripts, nothing fetched), and JSON for tools.
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
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

// "07:58:13" of a logcat clock; a kernel clock as it is.
std::string hms(const std::string& clock) {
  return clock.size() == 18 ? clock.substr(6, 8) : clock;
}

// "07:58:13" of the milliseconds parse_line counts from a logcat clock.
std::string time_of_day(int64_t ms) {
  int64_t s = ms / 1000 % 86400;
  return StringPrintf("%02d:%02d:%02d", static_cast<int>(s / 3600), static_cast<int>(s / 60 % 60),
                      static_cast<int>(s % 60));
}

std::string state_words(char state) {
  switch (state) {
    case 'D':
      return "in D";
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

std::string stack_line(const KernelTask& task, size_t frames) {
  std::vector<std::string> top(task.stack.begin(),
                               task.stack.begin() + std::min(frames, task.stack.size()));
  return android::base::Join(top, " < ") + (task.stack.size() > frames ? " < ..." : "");
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
  return StringPrintf("stall_ward pid %d, ", run.pid) +
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
    if (k > 0) s += thread_words(t) + " at " + frames_line(t, 2);
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
  if (in.signalled > 0 && in.sigquit && in.java < 0) {
    s += StringPrintf(
        "; no Java dump of pid %d in the input (Android 11 writes it to "
        "/data/anr/trace_NN: adb pull /data/anr)",
        in.signalled);
  }
  if (in.signalled > 0 && in.native < 0)
    s += StringPrintf("; no tombstone of pid %d in the input", in.signalled);
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
  } else if (in.evidence.find("SysRq") != std::string::npos) {
    s += "; no SysRq w dump for it in the kernel log read";
  }
  return s;
}

constexpr const char kQuiet[] =
    "Its log holds only \"started\": the daemon was not enabled, or its debug logging was off "
    "(persist.vendor.sw.debug=0), which leaves its sweeps, evidence and actions out of the log. "
    "The kernel log still shows each SysRq dump it asked for.";

std::string incident_text(const Story& story, const Incident& in) {
  std::string s = in.record == in.process
                      ? StringPrintf("`%s` (main thread, pid %d) %s", in.record.c_str(), in.pid,
                                     state_words(in.state).c_str())
                      : StringPrintf("`%s` of `%s` (pid %d, tid %d) %s", in.record.c_str(),
                                     in.process.empty() ? "?" : in.process.c_str(), in.pid, in.tid,
                                     state_words(in.state).c_str());
  if (!in.since.empty()) s += " from " + hms(in.since);
  s += "; evidence " + (in.evidence.empty() ? std::string("not in the log")
                                            : hms(in.evidence_clock) + " (" + in.evidence + ")");
  s += in.action.empty() ? "; no action yet" : "; " + in.action + " " + hms(in.action_clock);
  if (in.dump >= 0) {
    const KernelDump& dump = story.dumps[in.dump];
    const KernelTask* task = task_of(dump, in.tid);
    s += task != nullptr
             ? "; kernel stack: " + stack_line(*task, 8)
             : StringPrintf("; the kernel's dump %s lists %zu blocked tasks, not this thread",
                            dump.clock.c_str(), dump.tasks.size());
  }
  return s + stacks_text(story, in) + ".";
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
      return "#ff9f1c";
    case '-':
      return "#999";
    default:
      return "#2ca02c";
  }
}

// One record's timeline: the stall count by sweep (line), the state by sweep (band), the timeout
// (dashed) and the marks.
std::string timeline_svg(const Run& run, const Record& rec, int64_t from, int64_t to) {
  const int w = 960, h = 150, left = 50, band = 118;
  const double span = std::max<int64_t>(to - from, 1);
  int64_t top = std::max<int64_t>(run.timeout_s * 1000 * 5 / 4, 1);
  for (const Point& p : rec.points) top = std::max(top, p.stall_ms);
  auto x = [&](int64_t ms) { return left + (w - left - 10) * (ms - from) / span; };
  auto y = [&](int64_t stall) { return 100.0 - 90.0 * stall / top; };
  std::string svg = StringPrintf(
      "<svg class=\"timeline\" viewBox=\"0 0 %d %d\" width=\"%d\" height=\"%d\" role=\"img\">"
      "<text x=\"4\" y=\"14\" class=\"axis\">stall</text><text x=\"4\" y=\"%.1f\" "
      "class=\"axis\">%llds</text><text x=\"4\" y=\"%d\" class=\"axis\">state</text>"
      "<line x1=\"%d\" y1=\"%.1f\" x2=\"%d\" y2=\"%.1f\" class=\"timeout\"><title>timeout %lld "
      "s</title></line>",
      w, h, w, h, y(run.timeout_s * 1000) + 3, static_cast<long long>(run.timeout_s), band + 10,
      left, y(run.timeout_s * 1000), w - 10, y(run.timeout_s * 1000),
      static_cast<long long>(run.timeout_s));
  std::string line;
  for (size_t i = 0; i < rec.points.size(); ++i) {
    const Point& p = rec.points[i];
    double x1 = x(p.ms), x2 = i + 1 < rec.points.size() ? x(rec.points[i + 1].ms) : x1 + 6;
    svg += StringPrintf(
        "<rect x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"12\" fill=\"%s\"><title>%c, "
        "stall %lld s</title></rect>",
        x1, band, std::max(x2 - x1, 2.0), state_colour(p.state), p.state,
        static_cast<long long>(p.stall_ms / 1000));
    line += StringPrintf("%.1f,%.1f ", x1, y(p.stall_ms));
  }
  svg += "<polyline class=\"stall\" points=\"" + line + "\"/>";
  for (const Mark& m : rec.marks) {
    double mx = x(m.ms);
    bool right = mx > w - 90;  // the label goes left of a mark near the right edge
    svg += StringPrintf(
        "<g class=\"mark %s\"><line x1=\"%.1f\" y1=\"8\" x2=\"%.1f\" y2=\"%d\"/>"
        "<text x=\"%.1f\" y=\"%d\" text-anchor=\"%s\">%s</text><title>%s %s: %s</title></g>",
        m.kind.c_str(), mx, mx, band, right ? mx - 3 : mx + 3, m.kind == "policy" ? 20 : 32,
        right ? "end" : "start", escape(m.kind == "policy" ? m.text : m.kind).c_str(),
        escape(hms(m.clock)).c_str(), escape(m.kind).c_str(), escape(m.text).c_str());
  }
  return svg + StringPrintf(
                   "<text x=\"%d\" y=\"%d\" class=\"axis\">%s</text>"
                   "<text x=\"%d\" y=\"%d\" class=\"axis\" text-anchor=\"end\">%s</text></svg>",
                   left, h - 4, time_of_day(from).c_str(), w - 10, h - 4, time_of_day(to).c_str());
}

// Beside the incident: the watched thread's Java and native stacks, and the blocker's chain.
std::string stacks_html(const Story& story, const Incident& in) {
  std::string cells;
  for (int which : {in.java, in.native}) {
    if (which < 0) continue;
    const ProcessDump& dump = story.stacks[which];
    int t = thread_of(dump, in.tid);
    if (t < 0) continue;
    bool deadlock = false;
    std::string blocker = dump.java ? java_blocker(dump, t, &deadlock) : "";
    cells +=
        "<tr class=\"stacks\"><td>" +
        escape(std::string(dump.java ? "Java" : "native") + " stack, " + dump.when + " (" +
               dump.source + ")") +
        (blocker.empty()
             ? ""
             : "<p class=\"blocker\">" +
                   breakable(escape((deadlock ? "Deadlock: " : "Blocker: ") + blocker)) + "</p>") +
        "</td><td><pre>" + breakable(escape(android::base::Join(dump.threads[t].stack, "\n"))) +
        "</pre></td></tr>\n";
  }
  std::string kernel = in.dump >= 0 ? kernel_blocker(story.dumps[in.dump], in.tid) : "";
  if (!kernel.empty())
    cells += "<tr class=\"stacks\"><td colspan=\"2\" class=\"blocker\">In the kernel: " +
             breakable(escape(kernel)) + "</td></tr>\n";
  return cells;
}

constexpr const char kStyle[] = R"(
body { font: 14px/1.45 system-ui, sans-serif; margin: 24px; color: #222; max-width: 1040px; }
h1 { font-size: 22px; } h2 { font-size: 18px; margin-top: 32px; } h3 { font-size: 15px; margin: 18px 0 4px; }
.note { background: #fff6d6; padding: 8px 12px; border-left: 4px solid #e0b000; }
table { border-collapse: collapse; width: 100%; } td, th { border-top: 1px solid #ddd; padding: 6px; vertical-align: top; text-align: left; }
pre { margin: 0; font-size: 12px; background: #f6f6f6; padding: 6px; white-space: pre-wrap; }
svg.timeline { display: block; } .axis { font-size: 10px; fill: #666; }
.timeout { stroke: #d62728; stroke-dasharray: 4 3; } .stall { fill: none; stroke: #1f77b4; stroke-width: 2; }
.mark line { stroke-width: 2; } .mark text { font-size: 10px; }
.evidence line { stroke: #ff7f0e; } .evidence text { fill: #ff7f0e; }
.policy line { stroke: #d62728; } .policy text { fill: #d62728; font-weight: bold; }
.bind line { stroke: #1f77b4; stroke-dasharray: 2 2; } .bind text { fill: #1f77b4; }
.frozen line, .not-started line { stroke: #888; stroke-dasharray: 1 3; } .frozen text, .not-started text { fill: #666; }
.legend span { display: inline-block; width: 12px; height: 12px; margin: 0 4px 0 12px; vertical-align: middle; }
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
      s += "\n  " + incident_text(story, incident) + "\n";
    for (const Mark& event : run.events) s += "\n  " + hms(event.clock) + " " + event.text + ".\n";
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

std::string html_report(const Story& story) {
  std::string h =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<title>stall_ward report</title><style>" +
      std::string(kStyle) + "</style></head><body>\n<h1>stall_ward report</h1>\n";
  h += "<p>" + escape(summary(story)) + "</p>\n";
  h += "<p class=\"legend\">state:<span style=\"background:#d62728\"></span>D"
       "<span style=\"background:#9467bd\"></span>Z<span style=\"background:#ff9f1c\"></span>S"
       "<span style=\"background:#2ca02c\"></span>other<span style=\"background:#999\"></span>"
       "not found &nbsp; line: the stall count; dashed: the timeout</p>\n";
  for (const Run& run : story.runs) {
    h += "<section class=\"run\"><h2>" + escape(run_title(run)) + "</h2>\n";
    if (run.lines == 0) {
      h += "<p class=\"note\">" + escape(kQuiet) + "</p></section>\n";
      continue;
    }
    h += "<p>" + escape(configuration(run)) + ". " + escape(sweeps(run)) + ".</p>\n";
    h += "<h3>Incidents</h3><table class=\"incidents\"><tr><th>what happened</th><th>kernel "
         "stack</th></tr>\n";
    for (const Incident& in : run.incidents) {
      const KernelTask* task = in.dump >= 0 ? task_of(story.dumps[in.dump], in.tid) : nullptr;
      h += "<tr class=\"incident\"><td>" + breakable(escape(incident_text(story, in))) +
           "</td><td>" +
           (task != nullptr ? "<pre>" + escape(android::base::Join(task->stack, "\n")) + "</pre>"
                            : "") +
           "</td></tr>\n" + stacks_html(story, in);
    }
    for (const Mark& event : run.events) {
      h += "<tr class=\"event\"><td>" + escape(hms(event.clock) + " " + event.text) +
           "</td><td></td></tr>\n";
    }
    if (run.incidents.empty() && run.events.empty()) h += "<tr><td>none</td><td></td></tr>\n";
    h += "</table>\n";
    // One time axis for the run: from its first sample or mark to its last.
    int64_t from = INT64_MAX, to = INT64_MIN;
    for (const auto& entry : run.records) {
      for (const Point& p : entry.second.points)
        from = std::min(from, p.ms), to = std::max(to, p.ms);
      for (const Mark& m : entry.second.marks) from = std::min(from, m.ms), to = std::max(to, m.ms);
    }
    for (const auto& entry : run.records) {
      const Record& rec = entry.second;
      h += "<h3>" + escape(rec.name) +
           (rec.process.empty() || rec.process == rec.name ? "" : " of " + escape(rec.process)) +
           StringPrintf(" <small>(last bound to pid %d, tid %d)</small></h3>\n", rec.pid, rec.tid);
      h += from <= to ? timeline_svg(run, rec, from, to) : "<p>never sampled</p>\n";
    }
    h += "</section>\n";
  }
  std::string loose;
  for (const KernelDump& dump : story.dumps) {
    if (dump.answers.empty()) loose += "<pre>" + escape(dump_text(dump)) + "</pre>\n";
  }
  if (!loose.empty()) h += "<h2>Kernel blocked-task dumps no daemon line asked for</h2>\n" + loose;
  return h + "</body></html>\n";
}

namespace {

// An incident's Java and native stacks of the watched thread, and its blocker.
void add_stacks_json(const Story& story, const Incident& in, nlohmann::json* j) {
  (*j)["java_dump"] = in.java;
  (*j)["native_dump"] = in.native;
  (*j)["signalled_pid"] = in.signalled;
  nlohmann::json blocker = {{"deadlock", false}, {"java", ""}, {"kernel", ""}};
  for (int which : {in.java, in.native}) {
    if (which < 0) continue;
    const ProcessDump& dump = story.stacks[which];
    int t = thread_of(dump, in.tid);
    nlohmann::json stack = {{"when", dump.when},
                            {"source", dump.source},
                            {"complete", dump.complete},
                            {"found", t >= 0},
                            {"thread", t >= 0 ? dump.threads[t].name : ""},
                            {"state", t >= 0 ? dump.threads[t].state : ""},
                            {"stack", t >= 0 ? dump.threads[t].stack : std::vector<std::string>()}};
    (*j)[dump.java ? "java_stack" : "native_stack"] = stack;
    if (!dump.java || t < 0) continue;
    bool deadlock = false;
    blocker["java"] = java_blocker(dump, t, &deadlock);
    blocker["deadlock"] = deadlock;
    nlohmann::json chain = nlohmann::json::array();
    if (!dump.threads[t].waits_for.empty()) {
      for (size_t k : monitor_chain(dump, t, &deadlock)) {
        const StackThread& th = dump.threads[k];
        chain.push_back({{"name", th.name},
                         {"tid", th.tid},
                         {"state", th.state},
                         {"waits_for", th.waits_for},
                         {"held_by", th.held_by}});
      }
    }
    blocker["chain"] = chain;
  }
  if (in.dump >= 0) blocker["kernel"] = kernel_blocker(story.dumps[in.dump], in.tid);
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

}  // namespace

std::string json_report(const Story& story) {
  using nlohmann::json;
  json j = {{"lines", story.input.lines},
            {"daemon_lines", story.input.daemon},
            {"unreadable", story.input.unreadable},
            {"errors", story.input.errors},
            {"runs", json::array()},
            {"kernel_dumps", json::array()}};
  for (const Run& run : story.runs) {
    json r = {{"pid", run.pid},
              {"started", run.started},
              {"settings", run.settings},
              {"watches", run.watches},
              {"timeout_s", run.timeout_s},
              {"interval_ms", run.interval_ms},
              {"debug_lines", run.lines},
              {"sweeps_proc", run.sweeps_proc},
              {"sweeps_shell", run.sweeps_shell},
              {"last_boot", run.last_boot},
              {"records", json::object()},
              {"incidents", json::array()},
              {"events", json::array()}};
    for (const auto& entry : run.records) {
      const Record& rec = entry.second;
      json points = json::array(), marks = json::array();
      for (const Point& p : rec.points)
        points.push_back({p.ms, std::string(1, p.state), p.stall_ms});
      for (const Mark& m : rec.marks)
        marks.push_back({{"clock", m.clock}, {"kind", m.kind}, {"text", m.text}});
      r["records"][rec.name] = {{"process", rec.process}, {"cmd", rec.cmd},   {"pid", rec.pid},
                                {"tid", rec.tid},         {"points", points}, {"marks", marks}};
    }
    for (const Incident& in : run.incidents) {
      r["incidents"].push_back({{"record", in.record},
                                {"process", in.process},
                                {"pid", in.pid},
                                {"tid", in.tid},
                                {"state", std::string(1, in.state)},
                                {"since", in.since},
                                {"evidence", in.evidence},
                                {"evidence_clock", in.evidence_clock},
                                {"action", in.action},
                                {"action_clock", in.action_clock},
                                {"kernel_dump", in.dump}});
      add_stacks_json(story, in, &r["incidents"].back());
    }
    for (const Mark& m : run.events)
      r["events"].push_back({{"clock", m.clock}, {"kind", m.kind}, {"text", m.text}});
    j["runs"].push_back(r);
  }
  for (const KernelDump& dump : story.dumps) {
    json tasks = json::array();
    for (const KernelTask& t : dump.tasks) {
      tasks.push_back({{"comm", t.comm},
                       {"state", std::string(1, t.state)},
                       {"pid", t.pid},
                       {"ppid", t.ppid},
                       {"stack", t.stack}});
    }
    j["kernel_dumps"].push_back(
        {{"clock", dump.clock}, {"answers", dump.answers}, {"tasks", tasks}});
    add_kernel_json(dump, &j["kernel_dumps"].back());
  }
  return j.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string incident_account(const Story& story, const Incident& in) {
  return incident_text(story, in);
}

}  // namespace report
