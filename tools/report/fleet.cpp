// A fleet's incidents: the signature of each, many inputs read at once, the table by signature,
// one JSON line per incident, and the page linking each signature to its incidents.
#include "fleet.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

namespace report {
namespace {

using android::base::Join;
using android::base::StartsWith;
using android::base::StringPrintf;

constexpr size_t kTopFrames = 3;

bool hex_digit(char c) {
  return isxdigit(static_cast<unsigned char>(c)) != 0;
}

// Runs of digits as "N": thread names carry pids and counters ("Binder:1503_2", "pool-3-thread-1",
// "kworker/u16:3").
std::string without_numbers(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (!isdigit(static_cast<unsigned char>(s[i]))) {
      out += s[i];
    } else if (out.empty() || out.back() != 'N' || i == 0 || !isdigit(s[i - 1])) {
      out += 'N';
    }
  }
  return out;
}

// A kernel function as every kernel version names it: without the compiler's suffixes
// (".isra.0", ".constprop.0", ".part.0", ".cold") and the leading underscores.
std::string kernel_function(const std::string& frame) {
  std::string f = frame.substr(0, frame.find('.'));
  return f.substr(std::min(f.find_first_not_of('_'), f.size()));
}

// A Java frame "pkg.Class$1.lambda$run$0$Class(Class.java:12)" as "pkg.Class$.lambda$run$$Class":
// without the file and line, the numbers of anonymous classes and lambdas ("$$Lambda$12/0x...",
// "$$ExternalSyntheticLambda3"), and addresses.
std::string java_function(const std::string& f) {
  std::string name = f.substr(0, f.find('('));
  std::string out;
  for (size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '/' && name.compare(i + 1, 2, "0x") == 0) {  // "$$Lambda$12/0x000000010"
      while (i + 1 < name.size() && name[i + 1] != '.') ++i;
      continue;
    }
    out += name[i];
    bool lambda = out.size() >= 6 && out.compare(out.size() - 6, 6, "Lambda") == 0;
    if (name[i] == '$' || lambda) {  // "$1", "$$Lambda$12", "$$ExternalSyntheticLambda3"
      while (i + 1 < name.size() && isdigit(static_cast<unsigned char>(name[i + 1]))) ++i;
    }
  }
  return out;
}

// A native frame "libart.so (art::Monitor::Lock(art::Thread*)+4020)" without its offset, and
// without any address ("(offset 0x1000)", "[anon:dalvik-...]" numbers).
std::string native_function(const std::string& f) {
  std::string out;
  for (size_t i = 0; i < f.size(); ++i) {
    if (f[i] == '+' && i + 1 < f.size() && isdigit(static_cast<unsigned char>(f[i + 1]))) {
      while (i + 1 < f.size() && (hex_digit(f[i + 1]) || f[i + 1] == 'x')) ++i;
      continue;
    }
    if (f.compare(i, 2, "0x") == 0) {
      ++i;
      while (i + 1 < f.size() && hex_digit(f[i + 1])) ++i;
      continue;
    }
    out += f[i];
  }
  for (const char* left : {" (offset )", " ()"}) {  // what was only an address
    size_t at = out.find(left);
    if (at != std::string::npos) out.erase(at, strlen(left));
  }
  return android::base::Trim(out);
}

// The first frames of the watched thread's stacks, each kind in its own form: the frames `skip`
// passes over left out, each of the others as `form` gives it.
std::vector<std::string> top_frames(const std::vector<std::string>& stack,
                                    bool (*skip)(const std::string&),
                                    std::string (*form)(const std::string&)) {
  std::vector<std::string> top;
  for (const std::string& f : stack) {
    if (skip(f)) continue;
    top.push_back(form(f));
    if (top.size() == kTopFrames) break;
  }
  return top;
}

// From where the task waits on, the frames that are not guesses (all, when every one is).
std::vector<std::string> kernel_top(const KernelTask& task) {
  std::vector<std::string> sure;
  size_t at = wait_frame(task);
  bool all_guessed = at < task.stack.size() && guessed_frame(task, at);
  for (size_t i = at; i < task.stack.size(); ++i)
    if (all_guessed || !guessed_frame(task, i)) sure.push_back(task.stack[i]);
  return top_frames(sure, scheduler_frame, kernel_function);
}

std::vector<std::string> java_top(const std::vector<std::string>& stack) {
  return top_frames(
      stack, [](const std::string& f) { return StartsWith(f, "- ") || native_frame(f); },
      java_function);
}

std::vector<std::string> native_top(const std::vector<std::string>& stack) {
  return top_frames(
      stack, [](const std::string& f) { return StartsWith(f, "- "); }, native_function);
}

const StackThread* thread_of(const ProcessDump& dump, int tid) {
  for (const StackThread& t : dump.threads) {
    if (t.tid == tid) return &t;
  }
  return nullptr;
}

// The monitor's class from "<0x0c6f81a3> (a com.android.server.am.ActivityManagerService)".
std::string monitor_class(const std::string& waits_for) {
  size_t a = waits_for.find("(a ");
  return a == std::string::npos ? without_numbers(waits_for)
                                : waits_for.substr(a + 3, waits_for.find(')', a) - a - 3);
}

// Who holds what the watched thread waits for, without ids: the Java monitor chain (each holder's
// name and top frame), a deadlock named as such; else the kernel's named owner of the lock.
std::string blocker_of(const Story& story, const Incident& in) {
  if (in.java >= 0) {
    const ProcessDump& dump = story.stacks[in.java];
    for (size_t i = 0; i < dump.threads.size(); ++i) {
      if (dump.threads[i].tid != in.tid || dump.threads[i].waits_for.empty()) continue;
      bool deadlock = false;
      std::vector<size_t> chain = monitor_chain(dump, i, &deadlock);
      std::string s;
      for (size_t k = 0; k < chain.size(); ++k) {
        const StackThread& t = dump.threads[chain[k]];
        if (k > 0) {
          std::vector<std::string> top = holder_frames(t);
          std::string at = top.empty()            ? ""
                           : native_frame(top[0]) ? native_function(top[0])
                                                  : java_function(top[0]);
          s += " held by \"" + without_numbers(t.name) + "\"" + (at.empty() ? "" : " at " + at) +
               (t.waits_for.empty() ? "" : ", which");
        }
        if (!t.waits_for.empty()) s += " waits for " + monitor_class(t.waits_for);
      }
      return android::base::Trim(s) + (deadlock ? " (a deadlock)" : "");
    }
  }
  if (in.dump >= 0) {
    for (const KernelTask& task : story.dumps[in.dump].tasks) {
      if (task.pid == in.tid && !task.owner.empty())
        return "the lock's owner " + without_numbers(task.owner.substr(0, task.owner.rfind(':')));
    }
  }
  return "";
}

// FNV-1a, 64 bits: the same on every machine and compiler.
uint64_t fnv1a(const std::string& s) {
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : s) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

// "MM-DD hh:mm:ss.mmm" of a logcat clock as "YYYY-MM-DD hh:mm:ss", the year from the bug report's
// time ("YYYY-MM-DD hh:mm:ss"; the year before when the month is later than the report's), else
// the log's own (logcat -v year); without either, "MM-DD hh:mm:ss", a time without a year.
std::string dated(const std::string& clock, const std::string& taken, int log_year) {
  if (clock.size() != 18) return clock;
  if (taken.size() < 10 || taken[4] != '-') {
    return log_year > 0 ? StringPrintf("%04d-", log_year) + clock.substr(0, 14)
                        : clock.substr(0, 14);
  }
  int year = atoi(taken.c_str());
  if (clock.compare(0, 2, taken, 5, 2) > 0) --year;
  return StringPrintf("%04d-", year) + clock.substr(0, 14);
}

bool has_year(const std::string& time) {
  return time.size() > 4 && time[4] == '-';
}

// Whether `a` comes before `b` for first and last seen: dated times in their order; a time without
// a year is never compared with a dated one, which wins (as the first when `first`, else as the
// last).
bool before(const std::string& a, const std::string& b, bool first) {
  if (has_year(a) != has_year(b)) return first ? has_year(a) : has_year(b);
  return a < b;
}

// The thread at fault as every device names it: its process, its thread without numbers, how it
// waits and where (the kernel function without suffixes); of a deadlock, its processes in order.
std::string culprit_of(const Chain& chain) {
  if (chain.hops.empty()) return "";
  if (chain.cycle) {
    std::vector<std::string> members;
    for (const Hop& hop : chain.hops) {
      if (hop.waits != "cycle" && (hop.process.empty() || hop.process != chain.hops[0].process))
        members.push_back(hop.process.empty() ? "?" : hop.process);
    }
    std::sort(members.begin(), members.end());
    members.erase(std::unique(members.begin(), members.end()), members.end());
    return "a deadlock across processes: " + Join(members, ", ");
  }
  const Hop& last = chain.hops.back();
  if (last.waits == "not shown") return "";  // no input shows it: the victim signs alone
  std::string where = last.task.stack.empty() ? last.where : Join(kernel_top(last.task), " < ");
  return (last.process.empty() ? "?" : last.process) + " " + without_numbers(last.thread) + " " +
         last.waits + (where.empty() ? "" : " in " + where);
}

// The signature: of the culprit where there is one (the same root cause seen from different
// victims is one), else of the victim's place, stacks and blocker.
void sign(Hang* h) {
  Chain self;  // a thread blocked in the kernel with no call out is its own culprit
  if (h->chain.hops.empty() && h->state == 'D' && !h->kernel.empty()) {
    Hop hop;
    hop.process = h->process;
    hop.thread = h->thread;
    hop.waits = "kernel";
    hop.where = Join(h->kernel, " < ");
    self.hops.push_back(hop);
  }
  h->culprit = culprit_of(h->chain.hops.empty() ? self : h->chain);
  std::string key =
      h->culprit.empty()
          ? Join(std::vector<std::string>{std::to_string(kSignatureVersion), h->process, h->thread,
                                          std::string(1, h->state), h->frames, h->blocker},
                 '\n')
          : std::to_string(kSignatureVersion) + "\nculprit\n" + h->culprit;
  h->signature =
      StringPrintf("v%d-%016llx", kSignatureVersion, static_cast<unsigned long long>(fnv1a(key)));
}

}  // namespace

std::vector<Hang> hangs_of(const Story& story, const std::string& input) {
  std::vector<Hang> hangs;
  for (const Run& run : story.runs) {
    for (const Incident& in : run.incidents) {
      Hang h;
      h.input = input;
      h.device = story.input.device;
      h.build = story.input.build;
      h.taken = story.input.taken;
      h.since = dated(in.since, h.taken, story.input.year);
      const Action *evidence = first_evidence(in), *policy = first_policy(in);
      h.seen = dated(evidence == nullptr ? in.since : evidence->clock, h.taken, story.input.year);
      h.acted = dated(policy == nullptr ? "" : policy->clock, h.taken, story.input.year);
      h.process = in.process;
      h.thread = in.record;
      h.pid = in.pid;
      h.tid = in.tid;
      h.state = in.state;
      h.evidence = evidence_phrase(in);
      h.action = policy_phrase(in);
      h.story = incident_account(story, run, in);
      if (in.dump >= 0) {
        for (const KernelTask& task : story.dumps[in.dump].tasks) {
          if (task.pid != in.tid) continue;
          h.kernel_stack = task.stack;
          h.kernel = kernel_top(task);
        }
      }
      for (int which : {in.java, in.native}) {
        const StackThread* t = which >= 0 ? thread_of(story.stacks[which], in.tid) : nullptr;
        if (t != nullptr) (which == in.java ? h.java_stack : h.native_stack) = t->stack;
      }
      h.java = java_top(h.java_stack);
      h.native = native_top(h.native_stack);
      h.blocker = blocker_of(story, in);
      std::vector<std::string> parts;
      for (const auto& [kind, top] :
           {std::pair<const char*, const std::vector<std::string>*>{"kernel", &h.kernel},
            {"java", &h.java},
            {"native", &h.native}}) {
        if (!top->empty()) parts.push_back(std::string(kind) + ": " + Join(*top, " < "));
      }
      h.frames = Join(parts, "; ");
      h.chain = in.chain;
      sign(&h);
      hangs.push_back(std::move(h));
    }
  }
  return hangs;
}

namespace {

// The inputs of a fleet read by several threads at once and handed on in their order.
struct FleetRead {
  struct Done {
    bool ready = false, daemon = false;
    std::vector<Hang> hangs;
    std::vector<std::string> errors;
  };
  const std::vector<std::string>& paths;
  size_t window;  // how far a thread may run ahead of the input handed on next
  bool progress;
  FILE* errors;
  const std::function<void(std::vector<Hang>&&)>& take;
  std::vector<Done> done;
  std::mutex mutex;
  std::condition_variable changed;
  size_t next = 0, emitted = 0;
  FleetStats stats;
  timespec last = {};

  FleetRead(const std::vector<std::string>& paths, size_t window, bool progress, FILE* errors,
            const std::function<void(std::vector<Hang>&&)>& take)
      : paths(paths),
        window(window),
        progress(progress),
        errors(errors),
        take(take),
        done(paths.size()) {
    stats.inputs = paths.size();
  }

  // The progress line on stderr, at most every 200 ms but at the end; with the lock held.
  void report_progress(bool end) {
    if (!progress) return;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (!end && (now.tv_sec - last.tv_sec) * 1000 + (now.tv_nsec - last.tv_nsec) / 1000000 < 200)
      return;
    last = now;
    fprintf(stderr, "\rstall_ward_report: %zu of %zu inputs, %.1f MB%s", emitted, paths.size(),
            static_cast<double>(stats.bytes) / 1e6, end ? "\n" : "");
  }

  // Every input ready from the next in order on, handed on; with the lock held.
  void hand_on() {
    while (emitted < paths.size() && done[emitted].ready) {
      Done& e = done[emitted];
      for (const std::string& message : e.errors)
        fprintf(errors, "%sstall_ward_report: %s; skipped\n", progress ? "\r\33[K" : "",
                message.c_str());
      stats.damaged += !e.errors.empty();
      stats.with_incidents += !e.hangs.empty();
      stats.with_daemon += e.daemon;
      take(std::move(e.hangs));
      e = Done();
      e.ready = true;
      ++emitted;
    }
  }

  // A thread's work: the next input not taken yet, while it is within the window.
  void work() {
    std::unique_lock<std::mutex> lock(mutex);
    while (next < paths.size()) {
      size_t i = next;
      if (i >= emitted + window) {
        changed.wait(lock);
        continue;
      }
      ++next;
      lock.unlock();
      Story story = build_story({paths[i]});
      Done d;
      d.errors = story.input.errors;
      d.daemon = story.input.daemon > 0;
      if (d.errors.empty()) d.hangs = hangs_of(story, paths[i]);
      std::error_code error;
      uint64_t size = std::filesystem::file_size(paths[i], error);
      lock.lock();
      stats.bytes += error ? 0 : size;
      d.ready = true;
      done[i] = std::move(d);
      hand_on();  // whoever completes the next input in order hands on every one ready
      report_progress(false);
      changed.notify_all();
    }
  }
};

}  // namespace

FleetStats read_fleet(const std::vector<std::string>& given, int jobs, bool progress, FILE* errors,
                      const std::function<void(std::vector<Hang>&&)>& take) {
  std::vector<std::string> paths = files_of(given, true);  // a folder of bug reports, all in it
  if (jobs <= 0) {
    cpu_set_t cpus;
    jobs = sched_getaffinity(0, sizeof(cpus), &cpus) == 0 ? CPU_COUNT(&cpus) : 1;
  }
  jobs = std::max(1, std::min<int>(jobs, static_cast<int>(paths.size())));
  FleetRead read(paths, 4 * static_cast<size_t>(jobs), progress, errors, take);
  std::vector<std::thread> threads;
  for (int t = 0; t < jobs; ++t) threads.emplace_back([&read] { read.work(); });
  for (std::thread& t : threads) t.join();
  read.report_progress(true);
  return read.stats;
}

std::string jsonl_line(const Hang& h) {
  auto or_null = [](const std::string& s) {
    return s.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(s);
  };
  auto id_or_null = [](int id) {
    return id > 0 ? nlohmann::ordered_json(id) : nlohmann::ordered_json();
  };
  nlohmann::ordered_json j = {
      {"bugreport", h.input},       {"device", or_null(h.device)},
      {"build", or_null(h.build)},  {"taken", or_null(h.taken)},
      {"since", or_null(h.since)},  {"seen", or_null(h.seen)},
      {"acted", or_null(h.acted)},  {"process", h.process},
      {"pid", id_or_null(h.pid)},   {"thread", h.thread},
      {"tid", id_or_null(h.tid)},   {"state", std::string(1, h.state)},
      {"evidence", h.evidence},     {"action", h.action},
      {"story", h.story},           {"kernel_stack", h.kernel_stack},
      {"java_stack", h.java_stack}, {"native_stack", h.native_stack},
      {"frames", h.frames},         {"blocker", h.blocker},
      {"culprit", h.culprit},       {"chain", chain_hops_json<nlohmann::ordered_json>(h.chain)},
      {"signature", h.signature},   {"signature_version", kSignatureVersion}};
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

void Summary::add(Hang h) {
  Row& row = rows[h.signature];
  // Victims that share a culprit share the row: it shows the first of them in order of process,
  // thread, state, frames and blocker, as the query does.
  std::vector<std::string> victim = {h.process, h.thread, std::string(1, h.state), h.frames,
                                     h.blocker};
  if (row.count++ == 0 || victim < std::vector<std::string>{row.process, row.thread, row.state,
                                                            row.frames, row.blocker}) {
    row.signature = h.signature;
    row.process = h.process;
    row.thread = h.thread;
    row.state = victim[2];
    row.frames = h.frames;
    row.blocker = h.blocker;
    row.culprit = h.culprit;
  }
  if (!h.seen.empty() && (row.first.empty() || before(h.seen, row.first, true))) row.first = h.seen;
  if (!h.seen.empty() && (row.last.empty() || before(row.last, h.seen, false))) row.last = h.seen;
  for (auto [list, value] : {std::make_pair(&row.devices, &h.device), {&row.builds, &h.build}}) {
    auto at = std::lower_bound(list->begin(), list->end(), *value);
    if (!value->empty() && (at == list->end() || *at != *value)) list->insert(at, *value);
  }
  if (!pages) return;
  h.kernel_stack.clear();
  h.java_stack.clear();
  h.native_stack.clear();
  row.incidents.push_back(std::move(h));
}

namespace {

std::vector<const Summary::Row*> by_count(const std::map<std::string, Summary::Row>& rows) {
  std::vector<const Summary::Row*> sorted;
  for (const auto& entry : rows) sorted.push_back(&entry.second);
  std::stable_sort(sorted.begin(), sorted.end(), [](const Summary::Row* a, const Summary::Row* b) {
    return a->count > b->count;
  });
  return sorted;
}

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else if (c == '&') {
      out += "&amp;";
    } else if (c == '"') {
      out += "&quot;";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::string Summary::table() const {
  std::string s =
      "count | devices | builds | first_seen | last_seen | process | thread | state | frames | "
      "blocker | culprit | signature\n";
  for (const Row* r : by_count(rows)) {
    s += StringPrintf("%zu | %zu | %zu | ", r->count, r->devices.size(), r->builds.size()) +
         Join(std::vector<std::string>{r->first, r->last, r->process, r->thread, r->state,
                                       r->frames, r->blocker, r->culprit, r->signature},
              " | ") +
         "\n";
  }
  return s;
}

namespace {

// A table's cell, with its column's name for a narrow screen, where a row is shown as a card.
std::string cell(const char* column, const std::string& html, const char* kind = "") {
  return std::string("<td") + (*kind != '\0' ? std::string(" class=\"") + kind + "\"" : "") +
         " data-h=\"" + column + "\">" + html + "</td>";
}

// Escaped text on a line of its own in a cell, with its name before it; nothing when empty.
std::string named_line(const char* name, const std::string& text) {
  if (text.empty()) return "";
  return std::string("<div>") +
         (*name != '\0' ? std::string("<span class=\"muted\">") + name + ":</span> " : "") +
         escape(text) + "</div>";
}

// A signature's row: how often, where and when, whose hang, why, and the link to its incidents.
std::string row_html(const Summary::Row& r) {
  std::string seen = "<time>" + escape(r.first) + "</time>";
  if (r.last != r.first) seen += " to <time>" + escape(r.last) + "</time>";
  return "<tr class=\"signature\">" + cell("count", std::to_string(r.count), "n") +
         cell("devices, builds", StringPrintf("%zu, %zu", r.devices.size(), r.builds.size()), "n") +
         cell("seen", seen, "t") +
         cell("hang", escape(r.thread == r.process ? r.process + " (main thread)"
                                                   : r.thread + " of " + r.process) +
                          " <span class=\"muted\">in " + escape(r.state) + "</span>") +
         cell("why",
              named_line("", r.frames) + named_line("blocker", r.blocker) +
                  named_line("culprit", r.culprit),
              "why") +
         cell("signature", "<a href=\"#" + r.signature + "\">" + r.signature + "</a>", "sig") +
         "</tr>\n";
}

// A signature's incidents: when, from which device, build and bug report, and what happened.
std::string incidents_html(const Summary::Row& r) {
  std::string s = "<h2 id=\"" + r.signature + "\">" + r.signature + ": " + escape(r.thread) +
                  " of " + escape(r.process) +
                  "</h2>\n<table class=\"fleet incidents\"><tr><th>seen</th><th>from</th>"
                  "<th>what happened</th></tr>\n";
  for (const Hang& h : r.incidents) {
    s += "<tr>" + cell("seen", escape(h.seen), "t") +
         cell("from", named_line("device", h.device) + named_line("build", h.build) +
                          "<div><a href=\"" + escape(h.input) + "\">" + escape(h.input) +
                          "</a></div>") +
         cell("what happened", "<code>" + escape(h.story) + "</code>") + "</tr>\n";
  }
  return s + "</table>\n";
}

}  // namespace

std::string Summary::html(const FleetStats& stats) const {
  std::string s = page_head("stall_ward: hangs by signature");
  s += StringPrintf(
      "<h1>Hangs by signature</h1><p class=\"sub\">%zu inputs read (%.1f MB), %zu with "
      "incidents, %zu damaged and skipped.</p>\n<table class=\"fleet summary\"><tr><th>count</th>"
      "<th>devices, builds</th><th>seen</th><th>hang</th><th>why</th><th>signature</th></tr>\n",
      stats.inputs, static_cast<double>(stats.bytes) / 1e6, stats.with_incidents, stats.damaged);
  std::vector<const Row*> sorted = by_count(rows);
  for (const Row* r : sorted) s += row_html(*r);
  s += "</table>\n";
  for (const Row* r : sorted) s += incidents_html(*r);
  return s + "</body></html>\n";
}

}  // namespace report
