// From the watched thread to the thread at fault across processes: its binder call, the callee
// thread, that thread's own call or kernel stack, a kernel lock's owner, and on, until a thread
// that runs, waits in the kernel, waits on nothing known, is gone, or waits on one before it.
#include <stdio.h>
#include <stdlib.h>

#include <set>

#include "report/across.h"
#include "report/report.h"

namespace report {
namespace {

// The thread's task in this boot's last kernel dump that lists it with a stack.
const KernelTask* kernel_task(const Story& story, int tid) {
  const KernelTask* found = nullptr;
  for (const KernelDump& dump : story.dumps) {
    for (const KernelTask& task : dump.tasks) {
      if (!dump.last_boot && task.pid == tid && !task.stack.empty()) found = &task;
    }
  }
  return found;
}

// How far from the evidence another program's report of the same time may be: ten minutes.
constexpr int64_t kNearMs = 600000;

// When the daemon first took evidence of the incident (its clock in ms), -1 when it did not.
int64_t evidence_ms(const Incident& in) {
  const Action* first = first_evidence(in);
  return first == nullptr ? -1 : first->ms;
}

std::string call_evidence(const char* source, const BinderCall& call) {
  return source + (": " + call.kind) + " transaction " + std::to_string(call.id) + " from " +
         std::to_string(call.from_pid) + ":" + std::to_string(call.from_tid) + " to " +
         std::to_string(call.to_pid) + ":" + std::to_string(call.to_tid) +
         (call.context.empty() ? "" : " (" + call.context + ")");
}

// How a thread no binder call and no kernel dump explains waits, by the process list.
void by_process_list(const PsThread& task, Hop* hop) {
  hop->where = task.wchan;
  hop->evidence = std::string("process list: state ") + task.state + ", wait channel " + task.wchan;
  if (task.state == 'R') {
    hop->waits = "runs";
  } else if (task.state == 'D') {
    hop->waits = "kernel";
  } else if (task.wchan.find("futex") != std::string::npos) {
    hop->waits = "lock";
  } else {
    hop->waits = "nothing known";
  }
}

// The hop waits in a binder call: the next to follow is the callee's thread, or where none is known
// to have the call, the callee's process ends the chain (`waits` and `why` say how it stands).
int calls(const Across& across, const BinderCall& call, const char* waits, const char* why,
          Hop* hop, Chain* chain, int* pid) {
  hop->waits = "binder call";
  *pid = call.to_pid;
  if (call.to_tid != 0) return call.to_tid;
  Hop callee;
  callee.pid = call.to_pid;
  callee.process = across.ps.list.process_name(call.to_pid);
  callee.waits = waits;
  callee.evidence = why;
  chain->hops.push_back(*hop);
  *hop = callee;
  return 0;
}

// Fills in how the hop's thread waits; the next thread to follow (its process in *pid where the
// evidence names it), 0 when the chain ends here. Where no binder state is read, the transaction
// log's call with no reply stands for the outgoing call.
int step(const Story& story, Hop* hop, Chain* chain, int* pid) {
  const Across& across = story.across;
  const BinderState& state = across.binder.state;
  if (const BinderCall* call = state.outgoing_of(hop->tid)) {
    hop->evidence = call_evidence("binder state", *call);
    hop->age_ms = call->elapsed_ms;
    return calls(across, *call, "no thread yet", "no thread of the process has taken the call", hop,
                 chain, pid);
  }
  if (const BinderCall* call = state.procs == 0 ? state.unanswered_of(hop->tid) : nullptr) {
    hop->evidence = call_evidence("binder transaction log", *call) + ", no reply to it after it";
    return calls(across, *call, "not shown",
                 "the transaction log does not say which thread took the call", hop, chain, pid);
  }
  if (const KernelTask* task = kernel_task(story, hop->tid)) {
    size_t at = wait_frame(*task);
    hop->where = at < task->stack.size() ? task->stack[at] : "";
    hop->task = *task;
    hop->evidence = std::string("kernel dump: task ") + task->comm + " in " + task->state;
    hop->waits = task->state == 'D' ? "kernel" : task->state == 'R' ? "runs" : "nothing known";
    size_t colon = task->owner.rfind(':');
    if (colon == std::string::npos) return 0;
    hop->waits = "kernel lock";
    return atoi(task->owner.c_str() + colon + 1);
  }
  if (const PsThread* task = across.ps.list.task(hop->tid)) {
    by_process_list(*task, hop);
  } else if (!across.ps_read) {
    hop->waits = "not shown";
    hop->evidence = "no process list or kernel dump in the input";
  } else {
    hop->waits = "gone";
    hop->evidence = "no input lists the thread";
  }
  return 0;
}

// Where the watched thread waits for a Java monitor (its process's Java dump answering the
// evidence), the first hop is that wait and the chain goes on from the last holder; else from the
// thread itself.
int monitor_holder(const Story& story, const Incident& in, Chain* chain) {
  if (in.java < 0) return in.tid;
  const ProcessDump& dump = story.stacks[in.java];
  for (size_t t = 0; t < dump.threads.size(); ++t) {
    bool deadlock = false;
    if (dump.threads[t].tid != in.tid || dump.threads[t].waits_for.empty()) continue;
    std::vector<size_t> holders = monitor_chain(dump, t, &deadlock);
    if (deadlock || holders.size() < 2) return in.tid;
    Hop hop;
    hop.process = in.process;
    hop.thread = in.record;
    hop.pid = in.pid;
    hop.tid = in.tid;
    hop.waits = "monitor";
    hop.where = dump.threads[t].waits_for;
    hop.evidence = "Java dump " + dump.when + ": waiting to lock " + hop.where;
    chain->hops.push_back(hop);
    return dump.threads[holders.back()].tid;
  }
  return in.tid;
}

// Who the thread is: the watched thread as the daemon named it; else by the process list, else by
// the kernel's task line (its thread) and a Java or native dump of its process (the process).
Hop hop_of(const Story& story, const Incident& in, int tid, int pid) {
  Hop hop;
  hop.tid = tid;
  hop.pid = pid;
  const ProcessList& ps = story.across.ps.list;
  if (const PsThread* task = ps.task(tid)) {
    hop.pid = task->pid;
    hop.thread = task->name;
  } else if (const KernelTask* task = kernel_task(story, tid)) {
    hop.thread = task->comm;
  }
  if (tid == in.tid) {
    hop.pid = in.pid;
    hop.thread = in.record;
  }
  hop.process = hop.pid == in.pid ? in.process : ps.process_name(hop.pid);
  for (const ProcessDump& dump : story.stacks) {
    if (hop.process.empty() && hop.pid > 0 && dump.pid == hop.pid) hop.process = dump.cmd;
  }
  return hop;
}

}  // namespace

Chain follow_chain(const Story& story, const Incident& in) {
  Chain chain;
  const Across& across = story.across;
  if (!across.binder_read || in.tid <= 0) return chain;
  std::set<int> tids, pids;
  int start = monitor_holder(story, in, &chain);
  for (int tid = start, pid = in.pid; tid > 0 && chain.hops.size() < 32;) {
    Hop hop = hop_of(story, in, tid, pid);
    pid = 0;
    if (!tids.insert(tid).second) {
      hop.waits = "cycle";
      chain.cycle = true;
      chain.hops.push_back(hop);
      break;
    }
    bool first = chain.hops.empty();
    tid = step(story, &hop, &chain, &pid);
    Hop& watched = first && !chain.hops.empty() ? chain.hops[0] : hop;  // step may have put it
    int64_t since = clock_ms(in.since);
    if (first && watched.age_ms < 0 && since >= 0 && evidence_ms(in) >= since) {
      watched.age_ms = evidence_ms(in) - since;  // the kernel prints no age: the daemon's stall
      watched.evidence += "; age: the daemon's stall until its evidence";
    }
    chain.cycle = chain.cycle || (hop.waits == "lock" && pids.count(hop.pid) != 0);
    pids.insert(hop.pid);
    chain.hops.push_back(hop);
  }
  bool out = false;
  for (const Hop& hop : chain.hops) out = out || hop.waits == "binder call";
  if (!out) return Chain();  // no call out of the process: the account has said it all
  const Hop& last = chain.hops.back();
  if (!across.ps_read) {
    chain.missing =
        "the process list (a bug report's PROCESSES AND THREADS, ps -A -T) would name "
        "the processes and threads";
  }
  if (across.ps_read && (last.waits == "lock" || last.waits == "nothing known")) {
    chain.missing = "a Java or native dump of " + (last.process.empty() ? "pid" : last.process) +
                    " (pid " + std::to_string(last.pid) + ") would show where thread " +
                    std::to_string(last.tid) + " waits";
  } else if (last.tid == 0 && across.binder.state.procs == 0) {
    chain.missing =
        "the binder driver's state (a bug report's BINDER TRANSACTIONS) would show "
        "which thread of pid " +
        std::to_string(last.pid) + " took the call";
  } else if (last.waits == "kernel" && last.evidence.compare(0, 7, "process") == 0) {
    chain.missing = "SysRq w in the kernel log would show its kernel stack";
  }
  return chain;
}

namespace {

std::string who(const Hop& hop) {
  std::string name = hop.process.empty() ? "a process no input names" : hop.process;
  if (hop.tid == 0) return name + " (pid " + std::to_string(hop.pid) + ")";
  return name + " (pid " + std::to_string(hop.pid) + ", thread " +
         (hop.thread.empty() ? "" : hop.thread + " ") + std::to_string(hop.tid) + ")";
}

bool frame_has(const std::vector<std::string>& stack, std::initializer_list<const char*> parts) {
  for (const std::string& frame : stack) {
    for (const char* part : parts) {
      if (frame.find(part) != std::string::npos) return true;
    }
  }
  return false;
}

// What the hop's thread does, after "which".
std::string how(const Hop& hop) {
  std::string at = hop.where.empty() ? "" : " in `" + hop.where + "`";
  if (hop.waits == "kernel" &&
      frame_has(hop.task.stack, {"io_schedule", "wait_on_page", "bit_wait_io"}))
    return "is blocked on I/O" + at;
  if (hop.waits == "kernel" && frame_has(hop.task.stack, {"mutex_lock", "rwsem_down", "down_read",
                                                          "down_write", "rt_mutex"}))
    return "waits in lock contention" + at;
  if (hop.waits == "kernel") return "waits in the kernel" + at;
  if (hop.waits == "kernel lock") return "waits in the kernel" + at + " for a lock";
  if (hop.waits == "lock") return "waits on a lock (a futex)";
  if (hop.waits == "runs") return "runs";
  if (hop.waits == "gone") return "is gone: no input lists it";
  if (hop.waits == "no thread yet") return "has no thread that took the call";
  if (hop.waits == "not shown" && hop.tid == 0) return "took the call on a thread no input shows";
  if (hop.waits == "not shown") return "is shown by no input (neither its state nor its stack)";
  return "sleeps" + at + ", waiting on nothing known";
}

std::string seconds(int64_t ms) {
  return ms < 0 ? "" : " " + std::to_string(ms / 1000) + " s";
}

// The figures of one reading in words: the resources under pressure (avg10 of 10% or more, the
// first figure of each), else that there is little or none; then where they were read.
std::string pressure_words(const std::vector<Pressure>& reading) {
  std::string high;
  bool any = false;
  for (const Pressure& p : reading) {
    any = any || p.avg10 > 0;
    std::string named = "under " + p.resource + " pressure";
    if (p.avg10 < 10 || high.find(named) != std::string::npos) continue;
    char figure[64];
    snprintf(figure, sizeof(figure), " (%s avg10=%g%%)", p.kind.c_str(), p.avg10);
    high += (high.empty() ? "" : ", ") + named + figure;
  }
  if (high.empty())
    high = any ? "little pressure (every avg10 under 10%), no cause"
               : "no pressure: every stall figure is zero, no cause";
  const PressureSource& from = reading[0].from;
  if (!from.anr) return high;
  return high + " (as ActivityManager read it for an ANR" +
         (from.process.empty() ? "" : " in " + from.process) +
         (from.pid == 0 ? "" : " (pid " + std::to_string(from.pid) + ")") +
         (from.clock.empty() ? "" : " at " + from.clock) + ")";
}

// Whether a reading bears on the incident: the bug report's own, a copy that says nothing of when
// or whom, an ANR's of the same process, or of any process at the same time (both within ten
// minutes of the evidence where both times are known).
bool bears_on(const PressureSource& from, const Incident& in) {
  int64_t at = evidence_ms(in);
  bool timed = from.ms >= 0 && at >= 0;
  if (timed && (from.ms < at - kNearMs || from.ms > at + kNearMs)) return false;
  return (from.pid == 0 && from.clock.empty()) || from.pid == in.pid || timed;
}

// One sentence per reading (the figures read at one time in one place) that bears on the incident.
void add_pressure(const Across& across, const Incident& in, std::vector<std::string>* out) {
  std::vector<Pressure> all = across.pressure;
  all.insert(all.end(), across.anr.read.begin(), across.anr.read.end());
  std::vector<Pressure> reading;
  for (size_t i = 0; i <= all.size(); ++i) {
    bool same = i < all.size() && !reading.empty() && reading[0].from.anr == all[i].from.anr &&
                reading[0].from.clock == all[i].from.clock &&
                reading[0].from.pid == all[i].from.pid;
    if (!same && !reading.empty()) {
      if (bears_on(reading[0].from, in)) out->push_back(pressure_words(reading));
      reading.clear();
    }
    if (i < all.size()) reading.push_back(all[i]);
  }
}

// The driver's failed-transaction log on the thread: a transaction it sent that failed, or a reply
// to it that failed (it may wait for that reply for ever); each once, though the log comes twice.
void add_failed(const BinderState& state, const Incident& in, std::vector<std::string>* out) {
  std::set<int> said;
  for (const BinderCall& f : state.failed) {
    bool sent = f.from_tid == in.tid;
    if (in.tid <= 0 || (!sent && f.to_tid != in.tid) || !said.insert(f.id).second) continue;
    int pid = sent ? f.to_pid : f.from_pid, tid = sent ? f.to_tid : f.from_tid;
    out->push_back("the binder driver's failed-transaction log: " +
                   std::string(sent ? "a " + f.kind + " the thread sent to "
                                    : "a " + f.kind + " to the thread from ") +
                   std::to_string(pid) + ":" + std::to_string(tid) + " failed (transaction " +
                   std::to_string(f.id) + ")" +
                   (!sent && f.kind == "reply" ? ": it may wait for it for ever" : ""));
  }
}

}  // namespace

std::vector<std::string> chain_account(const Story& story, const Incident& in, const Chain& chain) {
  std::vector<std::string> out;
  if (!chain.hops.empty()) {
    std::string text;
    for (size_t i = 0; i < chain.hops.size(); ++i) {
      const Hop& hop = chain.hops[i];
      if (hop.waits == "cycle") {
        text += who(hop) + " again";
        break;
      }
      if (i > 0) text += who(hop) + ", which ";
      if (hop.waits == "binder call") {
        text += "waits" + seconds(hop.age_ms) + " for a binder call into ";
      } else if (hop.waits == "monitor") {
        text += "waits for the monitor " + hop.where + " held by ";
      } else {
        text += how(hop);
      }
    }
    if (chain.cycle) text += ": a deadlock across processes";
    out.push_back(text);
    if (!chain.missing.empty()) out.push_back(chain.missing);
  }
  add_failed(story.across.binder.state, in, &out);
  add_pressure(story.across, in, &out);
  for (const WatchdogSeen& seen : story.across.watchdog) {
    bool near = evidence_ms(in) < 0 || seen.ms < 0 ||
                (seen.ms > evidence_ms(in) - kNearMs && seen.ms < evidence_ms(in) + kNearMs);
    // where its line names no pid, it is system_server's own
    bool same = seen.pid == 0 ? in.process == "system_server" : seen.pid == in.pid;
    if (!same || !near || seen.line.kind == "goodbye") continue;
    out.push_back(std::string("the platform watchdog ") +
                  (seen.line.kind == "killing" ? "killed " : "reported ") +
                  (in.process.empty() ? "the process" : in.process) +
                  (seen.clock.empty() ? "" : " at " + seen.clock) + " for a block in " +
                  seen.line.what + " on " + seen.line.checker + " (" + seen.line.thread + ")");
  }
  return out;
}

void Across::add_section_line(const std::string& section, const std::string& text) {
  BinderCall entry;
  if (section == "BINDER FAILED TRANSACTION LOG") {
    if (parse_binder_log_entry(text, &entry)) binder.state.failed.push_back(entry);
  } else if (section == "BINDER TRANSACTION LOG") {
    binder_read = true;
    if (parse_binder_log_entry(text, &entry)) binder.state.logged.push_back(entry);
  } else if (section.compare(0, 7, "BINDER ") == 0) {
    binder_read = true;
    binder.add(text);
  } else if (section.compare(0, 9, "PROCESSES") == 0) {
    ps_read = true;
    ps.add(text);
  } else {
    Pressure p;
    if (parse_pressure(text, pressure_resource(section), &p)) pressure.push_back(p);
  }
}

}  // namespace report
