// Every hazard the checker knows: one function that finds it and one row of kHazards.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "check/check.h"
#include "utils.h"

namespace check {
namespace {

const char kError35[] = "evidence (signal 35) and then the policy on a healthy process";
// Thread names with blanks, which the task walk compares by their first word.
const std::set<std::string> kBlankNames = {"Jit thread pool", "Signal Catcher", "Profile Saver",
                                           "Binder Thread"};
// Looper threads of system_server that sleep in S whenever they have nothing to do.
const std::set<std::string> kIdleThreads = {"android.bg", "android.fg",      "android.io",
                                            "android.ui", "android.display", "android.anim"};

std::string key_entry(const std::string& key, const std::string& value) {
  return key + "=" + value;
}

// ---------------------------------------------------------------------------------------------
// The processes value as entries of pieces (a process, then its threads), and the values that
// mend one entry.

using Entries = std::vector<std::vector<std::string>>;

Entries entries_of(const std::string& processes) {
  Entries out;
  for (const std::string& entry : string_split(processes, " ")) {
    out.push_back(string_split(entry, ":"));
  }
  return out;
}

std::string joined(const Entries& entries) {
  std::vector<std::string> words;
  for (const auto& pieces : entries) {
    if (!pieces.empty()) words.push_back(android::base::Join(pieces, ":"));
  }
  return android::base::Join(words, " ");
}

// The processes value with each piece of an entry of process that equals from replaced by to
// (dropped when to is empty, with the entry when it has no thread left); from empty: the entry
// itself.
std::string replaced(const System& s, const std::string& process, const std::string& from,
                     const std::string& to) {
  Entries entries = entries_of(s.processes_text);
  for (auto& pieces : entries) {
    if (pieces.empty() || pieces[0] != process) continue;
    if (from.empty()) {
      pieces = to.empty() ? std::vector<std::string>{} : std::vector<std::string>{to};
      continue;
    }
    for (size_t i = 1; i < pieces.size(); ++i) {
      if (pieces[i] == from) pieces[i] = to;
    }
    pieces.erase(std::remove(pieces.begin() + 1, pieces.end(), ""), pieces.end());
    if (pieces.size() == 1) pieces.clear();  // a thread's entry does not become its process's
  }
  return joined(entries);
}

// A hit on one watched name, mended by writing to in its place (dropped when to is empty).
Hit on_watch(const System& s, const Watch& w, const std::string& detail, const std::string& to) {
  return {kPropProcesses, w.text(), detail, kPropProcesses,
          replaced(s, w.entry->name, w.thread, to)};
}

// ---------------------------------------------------------------------------------------------
// The property lines.

void property_file(const System& s, Hits* hits) {
  for (const auto& [key, why] : s.refused) {
    if (key.empty()) hits->push_back({"", s.property_file, why, "", ""});
  }
}

void value_too_long(const System& s, Hits* hits) {
  for (const auto& [key, why] : s.refused) {
    if (key.empty()) continue;
    // The first entries that fit.
    std::string value = s.lines.count(key) ? s.lines.at(key).back().value : "";
    Entries kept = entries_of(value);
    while (!kept.empty() && joined(kept).size() >= PROPERTY_VALUE_MAX) kept.pop_back();
    hits->push_back({key, key, why, key, joined(kept)});
  }
}

size_t distance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 1; j <= b.size(); ++j) {
      size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
      diagonal = row[j];
      row[j] = next;
    }
  }
  return row[b.size()];
}

void unknown_key(const System& s, Hits* hits) {
  for (const auto& [key, lines] : s.lines) {
    if (std::find_if(std::begin(kProperties), std::end(kProperties),
                     [&](const char* known) { return key == known; }) != std::end(kProperties)) {
      continue;
    }
    const char* nearest = *std::min_element(
        std::begin(kProperties), std::end(kProperties),
        [&](const char* a, const char* b) { return distance(key, a) < distance(key, b); });
    hits->push_back({key, key_entry(key, lines.back().value), "", nearest, lines.back().value});
  }
}

void set_twice(const System& s, Hits* hits) {
  for (const auto& [key, lines] : s.lines) {
    std::set<std::string> values;
    for (const PropertyLine& line : lines) values.insert(line.value);
    if (values.size() < 2) continue;
    hits->push_back({key, key, "the last line read sets \"" + lines.back().value + "\"", key,
                     lines.back().value});
  }
}

// A value libcutils reads as a boolean only in lower case, and only these words.
void bool_misread(const System& s, Hits* hits) {
  static const std::set<std::string> kTrue = {"1", "y", "yes", "on", "true"};
  static const std::set<std::string> kFalse = {"0", "n", "no", "off", "false"};
  for (const auto& [key, default_value] : {std::pair{kPropEnable, false}, {kPropDebug, true}}) {
    std::string text = s.value(key);
    if (text.empty() || kTrue.count(text) || kFalse.count(text)) continue;
    std::string folded = android::base::Trim(text);
    std::transform(folded.begin(), folded.end(), folded.begin(), ::tolower);
    bool meant = kTrue.count(folded) || folded == "enable" || folded == "enabled";
    bool off = kFalse.count(folded) || folded == "disable" || folded == "disabled";
    hits->push_back({key, key_entry(key, text),
                     std::string("read as ") + (default_value ? "true" : "false") + ", the default",
                     meant || off ? key : "", meant ? "true" : "false"});
  }
}

// What a person means by a timeout: decimal seconds, a unit after them, or hex; -1 when unclear.
int64_t meant_seconds(const std::string& text) {
  char* end = nullptr;
  bool hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
  long long n = strtoll(text.c_str(), &end, hex ? 16 : 10);
  if (end == text.c_str()) return -1;
  std::string unit = android::base::Trim(end);
  static const std::map<std::string, int64_t> kUnits = {
      {"", 1},     {"s", 1},     {"sec", 1},      {"secs", 1}, {"seconds", 1}, {"m", 60},
      {"min", 60}, {"mins", 60}, {"minutes", 60}, {"h", 3600}, {"hours", 3600}};
  auto it = kUnits.find(unit);
  return it == kUnits.end() ? -1 : n * it->second;
}

void timeout_misread(const System& s, Hits* hits) {
  const std::string& text = s.timeout_text;
  int64_t meant = meant_seconds(text);
  if (text.empty() || meant == s.timeout) return;
  hits->push_back({kPropTimeout, key_entry(kPropTimeout, text),
                   "the daemon reads \"" + text + "\" as " + std::to_string(s.timeout) + " s",
                   kPropTimeout, std::to_string(meant > 0 ? meant : kDefaultTimeout)});
}

void timeout_not_positive(const System& s, Hits* hits) {
  if (s.timeout <= 0) {
    hits->push_back({kPropTimeout, key_entry(kPropTimeout, s.timeout_text), "", kPropTimeout,
                     std::to_string(kDefaultTimeout)});
  }
}

void timeout_short(const System& s, Hits* hits) {
  if (s.timeout <= 0 || interval_ms <= static_cast<int64_t>(s.timeout) * 250) return;
  int64_t sweeps = (alarm_ms + interval_ms - 1) / interval_ms;
  hits->push_back({kPropTimeout, key_entry(kPropTimeout, s.timeout_text),
                   "evidence comes up to " + std::to_string((sweeps + 1) * interval_ms / 1000) +
                       " s after a stall begins",
                   kPropTimeout, std::to_string(kDefaultTimeout)});
}

std::string folded(const std::string& text) {
  std::string out = android::base::Trim(text);
  std::transform(out.begin(), out.end(), out.begin(), ::tolower);
  return out;
}

void policy_misspelt(const System& s, Hits* hits) {
  std::string f = folded(s.policy_text);
  if (s.policy_text != f && policy_from_text(f) != POLICY_NOTHING) {
    hits->push_back({kPropPolicy, key_entry(kPropPolicy, s.policy_text), "", kPropPolicy, f});
  }
}

void policy_unknown(const System& s, Hits* hits) {
  std::string f = folded(s.policy_text);
  if (!f.empty() && f != kPolicyNames[POLICY_NOTHING] && policy_from_text(f) == POLICY_NOTHING) {
    hits->push_back({kPropPolicy, key_entry(kPropPolicy, s.policy_text), "", kPropPolicy, ""});
  }
}

void debug_off(const System& s, Hits* hits) {
  if (!s.debug && policy != POLICY_NOTHING) {
    hits->push_back({kPropDebug, key_entry(kPropDebug, s.value(kPropDebug)),
                     std::string("with the policy ") + kPolicyNames[policy], kPropDebug, "1"});
  }
}

// ---------------------------------------------------------------------------------------------
// The monitor list.

void long_thread_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (!w.thread.empty() && w.thread.size() > kCommMax) {
      hits->push_back(
          on_watch(s, w, std::to_string(w.thread.size()) + " bytes", w.thread.substr(0, kCommMax)));
    }
  }
}

void long_process_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (w.thread.empty() && w.entry->name.size() > kCommMax) {
      Hit hit = on_watch(s, w, std::to_string(w.entry->name.size()) + " bytes", "");
      hit.fix_value =
          replaced(s, w.entry->name, "", w.entry->name + ":" + w.entry->name.substr(0, kCommMax));
      hits->push_back(hit);
    }
  }
}

void separator_in_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (w.text().find_first_of("\t\r\n\v\f") == std::string::npos) continue;
    std::string value = s.processes_text;
    std::replace_if(
        value.begin(), value.end(), [](char c) { return isspace(c); }, ' ');
    hits->push_back({kPropProcesses, w.text(), "", kPropProcesses, value});
  }
}

// "1234" or "1234_1f": the number a binder thread's name carries after its colon.
bool binder_number(const std::string& p) {
  size_t underscore = std::min(p.find('_'), p.size());
  return underscore > 0 && p.find_first_not_of("0123456789") >= underscore &&
         (underscore == p.size() ||
          (underscore + 1 < p.size() &&
           p.find_first_not_of("0123456789abcdefABCDEF", underscore + 1) == std::string::npos));
}

void colon_split(const System& s, Hits* hits) {
  // A thread name with a colon in it (binder:1234_1) arrives as two names, the second a number.
  for (const std::string& entry : string_split(s.processes_text, " ")) {
    std::vector<std::string> pieces = string_split(entry, ":");
    for (size_t i = 2; i < pieces.size(); ++i) {
      if (!binder_number(pieces[i])) continue;
      std::string name = pieces[i - 1] + ":" + pieces[i];
      Entries entries = entries_of(s.processes_text);
      for (auto& e : entries) {
        if (e != pieces) continue;
        e.erase(e.begin() + static_cast<long>(i) - 1, e.begin() + i + 1);
        if (e.size() == 1) e.clear();
      }
      hits->push_back(
          {kPropProcesses, pieces[0] + ":" + name,
           "\"" + name + "\" is read as two threads, " + pieces[i - 1] + " and " + pieces[i],
           kPropProcesses, joined(entries)});
    }
  }
}

void blank_first_word(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    for (const std::string& full : kBlankNames) {
      if (!w.thread.empty() && full.substr(0, full.find(' ')) == w.thread) {
        hits->push_back(on_watch(s, w, "as the first word of \"" + full + "\"", ""));
      }
    }
  }
}

void shared_record(const System& s, Hits* hits) {
  std::map<std::string, std::vector<const Watch*>> by_record;
  for (const Watch& w : s.watches) by_record[w.record()].push_back(&w);
  for (const auto& [name, watches] : by_record) {
    if (watches.size() < 2) continue;
    std::vector<std::string> texts;
    for (const Watch* w : watches) texts.push_back(w->text());
    // The first entry keeps the name; the others let it go.
    Entries entries = entries_of(s.processes_text);
    bool first = true;
    for (auto& pieces : entries) {
      bool names = !pieces.empty() &&
                   (pieces.size() == 1 ? pieces[0] == name
                                       : std::count(pieces.begin() + 1, pieces.end(), name) > 0);
      if (!names || std::exchange(first, false)) continue;
      if (pieces.size() == 1)
        pieces.clear();
      else
        pieces.erase(std::remove(pieces.begin() + 1, pieces.end(), name), pieces.end());
    }
    hits->push_back({kPropProcesses, name, "entries " + android::base::Join(texts, ", "),
                     kPropProcesses, joined(entries)});
  }
}

void duplicate_process(const System& s, Hits* hits) {
  std::map<std::string, int> counts;
  for (const monitor_info& m : monitor_list) ++counts[m.name];
  for (const auto& [name, n] : counts) {
    if (n < 2) continue;
    Entries merged;
    for (const auto& pieces : entries_of(s.processes_text)) {
      auto first = std::find_if(merged.begin(), merged.end(),
                                [&](const auto& e) { return e[0] == pieces[0]; });
      if (pieces[0] != name || first == merged.end()) {
        merged.push_back(pieces);
        continue;
      }
      for (size_t i = 1; i < pieces.size(); ++i) {
        if (std::count(first->begin() + 1, first->end(), pieces[i]) == 0)
          first->push_back(pieces[i]);
      }
    }
    hits->push_back(
        {kPropProcesses, name, std::to_string(n) + " entries", kPropProcesses, joined(merged)});
  }
}

void idle_looper_thread(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (kIdleThreads.count(w.thread) != 0) hits->push_back(on_watch(s, w, "", ""));
  }
}

// ---------------------------------------------------------------------------------------------
// The live checks. Each watched name is looked for as the /proc walk does: the processes whose
// command's base name is the entry's, then their threads by the name the kernel keeps.

// Whether the walk binds a record in p for this entry: a watched thread, or the main thread under
// the process's own name. A process that only shares the name (a helper forked from it, a vfork
// child renamed) is passed by.
bool binds(const monitor_info& m, const Process& p) {
  if (!m.has_threads) return p.comm == m.name;
  for (const std::string& name : m.threads) {
    if (find_thread(p, name) != nullptr) return true;
  }
  return false;
}

void no_process(const System& s, Hits* hits) {
  std::set<std::string> seen;
  for (const monitor_info& m : monitor_list) {
    if (!seen.insert(m.name).second || !s.named(m.name).empty()) continue;
    // A name that a running process has in another form: its thread name, or the start of its
    // command's base name.
    std::string instead;
    for (const Process& p : s.processes) {
      if (p.comm == m.name || android::base::StartsWith(p.name, m.name)) instead = p.name;
    }
    hits->push_back({kPropProcesses, m.name, "", kPropProcesses, replaced(s, m.name, "", instead)});
  }
}

void two_processes(const System& s, Hits* hits) {
  std::set<std::string> seen;
  for (const monitor_info& m : monitor_list) {
    if (!seen.insert(m.name).second) continue;
    std::vector<std::string> pids;
    for (const Process* p : s.named(m.name)) {
      if (binds(m, *p)) pids.push_back(p->pid);
    }
    if (pids.size() > 1) {
      hits->push_back({kPropProcesses, m.name, "pids " + android::base::Join(pids, ", "),
                       kPropProcesses, replaced(s, m.name, "", "")});
    }
  }
}

// Calls f(watch, process, thread or null) for each watched thread of each process of its name.
template <typename F>
void each_thread(const System& s, F f) {
  for (const Watch& w : s.watches) {
    if (w.thread.empty()) continue;
    for (const Process* p : s.named(w.entry->name)) f(w, *p, find_thread(*p, w.thread));
  }
}

void truncated_thread(const System& s, Hits* hits) {
  each_thread(s, [&](const Watch& w, const Process& p, const Thread* t) {
    const Thread* cut = find_thread(p, w.thread.substr(0, kCommMax));
    if (t == nullptr && w.thread.size() > kCommMax && cut != nullptr) {
      hits->push_back(on_watch(s, w, "tid " + cut->tid + " is \"" + cut->comm + "\"", cut->comm));
    }
  });
}

void blank_thread(const System& s, Hits* hits) {
  each_thread(s, [&](const Watch& w, const Process& p, const Thread* t) {
    for (const Thread& other : p.threads) {
      if (t == nullptr && other.comm.substr(0, other.comm.find(' ')) == w.thread &&
          other.comm != w.thread) {
        hits->push_back(on_watch(s, w, "tid " + other.tid + " is \"" + other.comm + "\"", ""));
      }
    }
  });
}

void no_thread(const System& s, Hits* hits) {
  // A record sampled once in any process is never counted as not started again, so only a thread
  // that no process of the name has counts.
  for (const Watch& w : s.watches) {
    std::vector<const Process*> found = s.named(w.entry->name);
    std::vector<std::string> pids;
    for (const Process* p : found) pids.push_back(p->pid);
    bool absent = std::none_of(found.begin(), found.end(), [&](const Process* p) {
      return find_thread(*p, w.thread) != nullptr;
    });
    if (!w.thread.empty() && !found.empty() && absent) {
      hits->push_back(
          on_watch(s, w, "no thread of this name in pid " + android::base::Join(pids, ", "), ""));
    }
  }
}

void main_thread_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (!w.thread.empty()) continue;
    for (const Process* p : s.named(w.entry->name)) {
      if (p->comm == w.entry->name) continue;
      Hit hit = on_watch(s, w, "pid " + p->pid + "'s main thread is \"" + p->comm + "\"", "");
      hit.fix_value = replaced(s, w.entry->name, "", w.entry->name + ":" + p->comm);
      hits->push_back(hit);
    }
  }
}

void zombie_leader(const System& s, Hits* hits) {
  for (const monitor_info& m : monitor_list) {
    for (const std::string& z : s.zombies) {
      std::string comm;
      android::base::ReadFileToString("/proc/" + z + "/comm", &comm);
      if (android::base::Trim(comm) == m.name.substr(0, kCommMax)) {
        hits->push_back({kPropProcesses, m.name, "pid " + z, "", ""});
      }
    }
  }
}

// The records' last samples in each run, where the record made no progress through the whole
// window: a stall as the daemon counts it.
template <typename F>
void each_stall(const System& s, F f) {
  if (s.run.records.empty()) return;
  std::string way = s.run.shell ? "the ps way" : "the /proc walk";
  for (const Watch& w : s.watches) {
    const std::vector<RecordSample>& v = s.run.records.at(w.record());
    const RecordSample& last = v.back();
    int64_t window = static_cast<int64_t>(v.size() - 1) * interval_ms;
    if (v.size() < 2 || last.stuck_ms < window || last.frozen || last.pid == kNoId) continue;
    f(w, last, way + ", " + std::to_string(v.size()) + " sweeps");
  }
}

std::string thread_text(const RecordSample& r) {
  return "tid " + std::to_string(r.tid) + " of pid " + std::to_string(r.pid);
}

void asleep_app_thread(const System& s, Hits* hits) {
  each_stall(s, [&](const Watch& w, const RecordSample& r, const std::string& how) {
    if (!r.updated || !r.is_app || r.state != 'S') return;
    Hit hit = on_watch(s, w, thread_text(r) + " slept without progress (" + how + ")", "");
    hit.warning_only = policy == POLICY_NOTHING;
    hits->push_back(hit);
  });
}

bool task_exists(const RecordSample& r) {
  struct stat st;
  std::string path = "/proc/" + std::to_string(r.pid) + "/task/" + std::to_string(r.tid);
  return stat(path.c_str(), &st) == 0;
}

// A thread bound at one sweep and gone at a later one: from then on the ps way counts it stalled.
void thread_gone(const System& s, Hits* hits) {
  if (s.run.records.empty()) return;
  for (const Watch& w : s.watches) {
    const RecordSample& r = s.run.records.at(w.record()).back();
    if (w.thread.empty() || !r.updated || r.tid == kNoId || r.stuck_ms == 0 || task_exists(r)) {
      continue;
    }
    hits->push_back(on_watch(s, w, thread_text(r) + " went away and counts as stalled since", ""));
  }
}

void no_progress(const System& s, Hits* hits) {
  each_stall(s, [&](const Watch& w, const RecordSample& r, const std::string& how) {
    if (!r.updated || (r.state != 'D' && r.state != 'Z') || !task_exists(r)) return;
    hits->push_back({kPropProcesses, w.text(),
                     thread_text(r) + " stayed in " + std::string(1, r.state) + " (" + how + ")",
                     "", ""});
  });
}

const Thread* thread_by_tid(const Process& p, int tid) {
  for (const Thread& t : p.threads) {
    if (t.tid == std::to_string(tid)) return &t;
  }
  return nullptr;
}

// grep's substring match: the first line of ps that contains the name anywhere.
void ps_substring(const System& s, Hits* hits) {
  for (const auto& [w, found] : s.run.lookups) {
    if (s.named(w.entry->name).empty()) continue;  // the carried-over lookup: ps-carry-over
    for (const Process& p : s.processes) {
      if (p.pid != std::to_string(found.pid)) continue;
      const Thread* t = thread_by_tid(p, found.tid);
      if (p.name != w.entry->name) {
        hits->push_back(on_watch(
            s, w, "`ps -e|grep " + w.entry->name + "` takes pid " + p.pid + ", " + p.name, ""));
      } else if (!w.thread.empty() && t != nullptr && t->comm != w.thread) {
        hits->push_back(on_watch(
            s, w,
            "`ps -T -p " + p.pid + " |grep " + w.thread + "` takes tid " + t->tid + ", " + t->comm,
            ""));
      }
    }
  }
}

void ps_carry_over(const System& s, Hits* hits) {
  if (!s.run.shell) return;
  // The ps way keeps one lookup result for all entries, and a process it does not find leaves it
  // as it was: an entry whose process is missing works on the last process found before it.
  std::string last;
  for (const monitor_info& m : monitor_list) {
    std::vector<const Process*> found = s.named(m.name);
    if (!found.empty()) {
      last = m.name + " (pid " + found[0]->pid + ")";
    } else if (!last.empty()) {
      hits->push_back({kPropProcesses, m.name, "it works on what the lookup of " + last + " left",
                       kPropProcesses, replaced(s, m.name, "", "")});
    }
  }
}

}  // namespace

const Thread* find_thread(const Process& p, const std::string& comm) {
  for (const Thread& t : p.threads) {
    if (t.comm == comm) return &t;
  }
  return nullptr;
}

const std::vector<Hazard> kHazards = {
    {"property-file", kError, false, property_file,
     "the daemon refuses the property file and runs on the defaults",
     "a file owned by root (or the daemon's user) and writable by its owner alone"},
    {"value-too-long", kError, false, value_too_long,
     "the platform keeps values of at most " + std::to_string(PROPERTY_VALUE_MAX - 1) +
         " bytes (longer only for ro. keys): init refuses this one and the default stands",
     "a shorter value: fewer entries, or fewer threads in one"},
    {"unknown-key", kError, false, unknown_key,
     std::string("the daemon reads no such property under ") + kPropPrefix +
         ": the setting is ignored",
     "one of enable, debug, timeout, policy, processes"},
    {"set-twice", kWarning, false, set_twice,
     "init reads the files in order and the last line for a key wins: the earlier lines say "
     "something the daemon never sees",
     "one line for the key"},
    {"bool-misread", kError, false, bool_misread,
     "only 1, y, yes, on, true and 0, n, no, off, false, in lower case, are booleans: any other "
     "value is read as the default",
     "true or false"},
    {"timeout-misread", kError, false, timeout_misread,
     "the timeout is read as a C integer (a leading 0 is octal, 0x hex) and whatever follows the "
     "number (a unit) is dropped",
     "the seconds in decimal digits alone, such as 120"},
    {"timeout-not-positive", kError, false, timeout_not_positive,
     "every watched thread is judged at the first sweep: evidence at once, the policy at the next "
     "sweep, on threads that merely wait",
     "a timeout of 120 or more"},
    {"timeout-short", kWarning, false, timeout_short,
     "sweeps run every max(timeout/4, 30 s): below 120 s they still run every 30 s",
     "a timeout of 120 or more, where it is a quarter of the timeout"},
    {"policy-misspelt", kError, false, policy_misspelt,
     "only the exact lower-case text counts: this one does nothing", ""},
    {"policy-unknown", kWarning, false, policy_unknown,
     "not a policy: the daemon gathers evidence and does nothing more",
     "kill, reboot or panic, or no value for nothing"},
    {"debug-off", kWarning, false, debug_off,
     "with debug off the daemon logs only its start: it acts without a line that says why",
     "debug on wherever the policy acts"},
    {"long-thread-name", kError, false, long_thread_name,
     "the kernel keeps 15 bytes of a thread name: this name never matches and the thread counts "
     "as never started: " +
         std::string(kError35),
     ""},
    {"long-process-name", kError, false, long_process_name,
     "a process alone is watched through its main thread, whose name the kernel cuts to 15 bytes: "
     "the record never binds and the entry watches nothing",
     ""},
    {"separator-in-name", kError, false, separator_in_name,
     "only the space separates entries: this is one name with a blank in it",
     "entries separated by single spaces"},
    {"colon-split", kError, false, colon_split,
     "the colon separates thread names, so a name with a colon in it is cut there and neither "
     "piece names a thread: both count as never started: " +
         std::string(kError35),
     "a thread whose name has no colon (binder threads are renumbered at every start anyway)"},
    {"blank-first-word", kError, false, blank_first_word,
     "the task walk compares a thread name's first word, the record lookup the whole name: the "
     "thread counts as never started: " +
         std::string(kError35),
     "a thread whose name has no blank"},
    {"shared-record", kError, false, shared_record,
     "one record serves every entry that names this thread: each sweep rebinds it, so a stall is "
     "never reported",
     "one entry per thread name"},
    {"duplicate-process", kWarning, false, duplicate_process,
     "the /proc walk uses only the first entry of a process name; the ps way uses each", ""},
    {"idle-looper-thread", kWarning, false, idle_looper_thread,
     "a Looper thread that sleeps when idle; in an app process (system_server is one: a child of "
     "zygote64) sleep counts as a stall",
     "watchdog, which wakes on its own, or none"},
    {"no-process", kError, true, no_process,
     "no running process has this name as the daemon compares it (the base name of the first "
     "word of its command line): the entry watches nothing",
     "the base name of the first word of the process's command line"},
    {"two-processes", kError, true, two_processes,
     "processes of this name share each record: every sweep rebinds it, so a stall is never "
     "reported",
     "a process name only one process has"},
    {"truncated-thread", kError, true, truncated_thread,
     "the kernel has cut this thread's name: the entry never matches it", ""},
    {"blank-thread", kError, true, blank_thread,
     "the task walk takes this thread for the entry but the record lookup does not: it counts as "
     "never started: " +
         std::string(kError35),
     "a thread whose name has no blank"},
    {"no-thread", kError, true, no_thread,
     "a watched thread that does not exist counts as stalled: " + std::string(kError35), ""},
    {"main-thread-name", kError, true, main_thread_name,
     "a process alone is watched through its main thread by the process's name: this main thread "
     "has another name, so the record never binds",
     ""},
    {"zombie-leader", kWarning, true, zombie_leader,
     "the group leader is a zombie: the /proc walk passes its process by",
     "watch one of its live threads"},
    {"asleep-app-thread", kError, true, asleep_app_thread,
     "a watched thread of an app (a child of zygote) slept through the sweeps without progress: "
     "sleep counts as a stall in an app, so it gets SIGQUIT, signal 35 and then the policy (an "
     "error where the policy kills, reboots or panics; a warning with none)",
     "a thread that wakes at least once a timeout, such as watchdog, or the policy nothing"},
    {"thread-gone", kError, true, thread_gone,
     "a watched thread went away: the ps way counts a thread it bound before and no longer finds "
     "as stalled: " +
         std::string(kError35),
     "a thread that lives as long as its process"},
    {"no-progress", kWarning, true, no_progress,
     "a watched thread made no progress in D or Z through the sweeps: if it stays so for a "
     "timeout, the daemon gathers evidence and then applies the policy",
     ""},
    {"ps-substring", kError, true, ps_substring,
     "the ps way takes the first line of ps that contains the name anywhere: another process or "
     "thread whose name contains this one is taken for it, so the record never binds and a stall "
     "is missed",
     "a name no other process or thread contains"},
    {"ps-carry-over", kError, true, ps_carry_over,
     "not running while the sweeps take the ps way: the entry works on another process's lookup, "
     "whose stall counts grow by extra intervals, and its threads may be bound there and acted on",
     "list only processes that run, or put this entry before every other"},
};

std::vector<const Process*> System::named(const std::string& name) const {
  std::vector<const Process*> found;
  for (const Process& p : processes) {
    if (p.name == name) found.push_back(&p);
  }
  return found;
}

std::string System::value(const char* key) const {
  auto it = lines.find(key);
  return it == lines.end() ? "" : it->second.back().value;
}

}  // namespace check
