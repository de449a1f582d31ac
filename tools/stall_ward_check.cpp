// stall_ward_check: reads the daemon's properties exactly as the daemon does (through its own
// functions), prints the configuration in the daemon's terms, and reports the settings that cannot
// work or would act on a healthy process. With --live it also looks at what each entry matches on
// the running system. Read-only: it never signals, never writes the SysRq trigger, never sets a
// property. Every hazard it knows is one row of kHazards below.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <dirent.h>
#include <getopt.h>
#include <json/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <sysexits.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "stall_ward.h"
#include "utils.h"
#ifndef __ANDROID__
#include "property_file.h"  // a host reads its properties from a file, which may be refused
#endif

namespace {

// ---------------------------------------------------------------------------------------------
// What the checker looks at: the configuration as the daemon reads it, the texts it was read
// from, and with --live the running system.

struct Thread {
  std::string tid, comm;  // comm whole, as the kernel keeps it
  char state;
};
struct Process {
  std::string pid, name, comm;  // name: as the daemon compares it (the command's base name)
  char state;
  bool app;  // a child of zygote or zygote64, by the daemon's own test
  std::vector<Thread> threads;
};
// One watched name: a thread of an entry, or a process watched through its main thread.
struct Watch {
  const monitor_info* entry;
  std::string thread;  // empty: the main thread
  std::string text() const { return thread.empty() ? entry->name : entry->name + ":" + thread; }
};
struct System {
  bool debug = true;
  int timeout = 0;
  std::string timeout_text, policy_text, processes_text;
  std::map<std::string, std::string> properties;  // every property under the daemon's prefix
  std::vector<std::pair<std::string, std::string>> refused;  // key ("" the file), why
  std::vector<Watch> watches;
  bool live = false;
  std::vector<Process> processes;
  std::vector<std::string> zombies;  // pids of zombie group leaders (their command line is empty)
  int ps_verdict = -1;               // the ps self-test for the running daemon, -1 none running
  // The processes of the entry's name, as the /proc walk finds them.
  std::vector<const Process*> named(const std::string& name) const {
    std::vector<const Process*> found;
    for (const Process& p : processes) {
      if (p.name == name) found.push_back(&p);
    }
    return found;
  }
};

struct Hit {
  std::string entry, detail, instead;  // instead empty: the hazard's own advice
  bool warning_only = false;           // an error hazard that is only a warning here
};
using Hits = std::vector<Hit>;
enum Severity { kWarning, kError };

// ---------------------------------------------------------------------------------------------
// The checks, one per hazard.

const char kError35[] = "evidence (signal 35) and then the policy on a healthy process";
// Thread names with blanks, which the task walk compares by their first word.
const std::set<std::string> kBlankNames = {"Jit thread pool", "Signal Catcher", "Profile Saver",
                                           "Binder Thread"};
// Looper threads of system_server that sleep in S whenever they have nothing to do.
const std::set<std::string> kIdleThreads = {"android.bg", "android.fg",      "android.io",
                                            "android.ui", "android.display", "android.anim"};

std::string read_file_text(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return text;
}

std::string key_entry(const char* key, const std::string& value) {
  return std::string(key) + "=" + value;
}

void property_file(const System& s, Hits* hits) {
  for (const auto& [key, why] : s.refused) {
    if (key.empty()) hits->push_back({"STALL_WARD_PROPERTIES", why, ""});
  }
}

void value_too_long(const System& s, Hits* hits) {
  for (const auto& [key, why] : s.refused) {
    if (!key.empty()) hits->push_back({key, why, ""});
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
  for (const auto& [key, value] : s.properties) {
    if (std::find_if(std::begin(kProperties), std::end(kProperties),
                     [&](const char* known) { return key == known; }) != std::end(kProperties)) {
      continue;
    }
    const char* nearest = *std::min_element(
        std::begin(kProperties), std::end(kProperties),
        [&](const char* a, const char* b) { return distance(key, a) < distance(key, b); });
    hits->push_back({key_entry(key.c_str(), value), "", key_entry(nearest, value)});
  }
}

void timeout_misread(const System& s, Hits* hits) {
  const std::string& text = s.timeout_text;
  if (text.empty()) return;
  // Plain decimal digits, as a person reads them: no leading 0 (octal), nothing after the number.
  std::string digits = text[0] == '-' ? text.substr(1) : text;
  bool decimal = !digits.empty() && digits.size() <= 9 &&
                 digits.find_first_not_of("0123456789") == std::string::npos &&
                 (digits[0] != '0' || text == "0");
  if (decimal && atoll(text.c_str()) == s.timeout) return;
  hits->push_back({key_entry(kPropTimeout, text),
                   "the daemon reads \"" + text + "\" as " + std::to_string(s.timeout) + " s", ""});
}

void timeout_not_positive(const System& s, Hits* hits) {
  if (s.timeout <= 0) hits->push_back({key_entry(kPropTimeout, s.timeout_text), "", ""});
}

void timeout_short(const System& s, Hits* hits) {
  if (s.timeout <= 0 || interval_ms <= static_cast<int64_t>(s.timeout) * 250) return;
  int64_t sweeps = (alarm_ms + interval_ms - 1) / interval_ms;
  hits->push_back({key_entry(kPropTimeout, s.timeout_text),
                   "evidence comes up to " + std::to_string((sweeps + 1) * interval_ms / 1000) +
                       " s after a stall begins",
                   ""});
}

std::string folded(const std::string& text) {
  std::string out = android::base::Trim(text);
  std::transform(out.begin(), out.end(), out.begin(), ::tolower);
  return out;
}

void policy_misspelt(const System& s, Hits* hits) {
  std::string f = folded(s.policy_text);
  if (s.policy_text != f && policy_from_text(f) != POLICY_NOTHING) {
    hits->push_back({key_entry(kPropPolicy, s.policy_text), "", key_entry(kPropPolicy, f)});
  }
}

void policy_unknown(const System& s, Hits* hits) {
  std::string f = folded(s.policy_text);
  if (!f.empty() && f != kPolicyNames[POLICY_NOTHING] && policy_from_text(f) == POLICY_NOTHING) {
    hits->push_back({key_entry(kPropPolicy, s.policy_text), "", ""});
  }
}

void debug_off(const System& s, Hits* hits) {
  if (!s.debug && policy != POLICY_NOTHING) {
    hits->push_back({key_entry(kPropDebug, "0"),
                     std::string("with the policy ") + kPolicyNames[policy],
                     key_entry(kPropDebug, "1")});
  }
}

void long_thread_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (!w.thread.empty() && w.thread.size() > kCommMax) {
      hits->push_back({w.text(), std::to_string(w.thread.size()) + " bytes",
                       w.entry->name + ":" + w.thread.substr(0, kCommMax)});
    }
  }
}

void long_process_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (w.thread.empty() && w.entry->name.size() > kCommMax) {
      hits->push_back({w.text(), std::to_string(w.entry->name.size()) + " bytes",
                       w.entry->name + ":" + w.entry->name.substr(0, kCommMax)});
    }
  }
}

void separator_in_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (w.text().find_first_of("\t\r\n\v\f") != std::string::npos) {
      hits->push_back({w.text(), "", ""});
    }
  }
}

void colon_split(const System& s, Hits* hits) {
  // A thread name with a colon in it (binder:1234_1) arrives as two names, the second a number.
  for (const std::string& entry : string_split(s.processes_text, " ")) {
    std::vector<std::string> pieces = string_split(entry, ":");
    for (size_t i = 2; i < pieces.size(); ++i) {
      // "1234" or "1234_1f": the number a binder thread's name carries after its colon.
      const std::string& p = pieces[i];
      size_t underscore = std::min(p.find('_'), p.size());
      bool numbered =
          underscore > 0 && p.find_first_not_of("0123456789") >= underscore &&
          (underscore == p.size() ||
           (underscore + 1 < p.size() &&
            p.find_first_not_of("0123456789abcdefABCDEF", underscore + 1) == std::string::npos));
      if (numbered) {
        std::string name = pieces[i - 1] + ":" + pieces[i];
        hits->push_back(
            {pieces[0] + ":" + name,
             "\"" + name + "\" is read as two threads, " + pieces[i - 1] + " and " + pieces[i],
             ""});
      }
    }
  }
}

void blank_first_word(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    for (const std::string& full : kBlankNames) {
      if (!w.thread.empty() && full.substr(0, full.find(' ')) == w.thread) {
        hits->push_back({w.text(), "as the first word of \"" + full + "\"", ""});
      }
    }
  }
}

void shared_record(const System& s, Hits* hits) {
  std::map<std::string, int> entries;
  for (const Watch& w : s.watches) ++entries[w.thread.empty() ? w.entry->name : w.thread];
  for (const auto& [name, n] : entries) {
    if (n > 1) hits->push_back({"*:" + name, std::to_string(n) + " entries", ""});
  }
}

void duplicate_process(const System&, Hits* hits) {
  std::map<std::string, int> entries;
  for (const monitor_info& m : monitor_list) ++entries[m.name];
  for (const auto& [name, n] : entries) {
    if (n > 1) hits->push_back({name, "", "one entry with all its threads: " + name + ":a:b"});
  }
}

void idle_looper_thread(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (kIdleThreads.count(w.thread) != 0) hits->push_back({w.text(), "", ""});
  }
}

// The live checks. Each watched name is looked for as the /proc walk does: the processes whose
// command's base name is the entry's, then their threads by the name the kernel keeps.

const Thread* find_thread(const Process& p, const std::string& comm) {
  for (const Thread& t : p.threads) {
    if (t.comm == comm) return &t;
  }
  return nullptr;
}

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
    hits->push_back({m.name, "", instead});
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
    if (pids.size() > 1) hits->push_back({m.name, "pids " + android::base::Join(pids, ", "), ""});
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
      hits->push_back({w.text(), "tid " + cut->tid + " is \"" + cut->comm + "\"",
                       w.entry->name + ":" + cut->comm});
    }
  });
}

void blank_thread(const System& s, Hits* hits) {
  each_thread(s, [&](const Watch& w, const Process& p, const Thread* t) {
    for (const Thread& other : p.threads) {
      if (t == nullptr && other.comm.substr(0, other.comm.find(' ')) == w.thread &&
          other.comm != w.thread) {
        hits->push_back({w.text(), "tid " + other.tid + " is \"" + other.comm + "\"", ""});
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
      hits->push_back({w.text(), "no thread of this name in pid " + android::base::Join(pids, ", "),
                       "a thread name from /proc/" + pids[0] + "/task/*/comm"});
    }
  }
}

void main_thread_name(const System& s, Hits* hits) {
  for (const Watch& w : s.watches) {
    if (!w.thread.empty()) continue;
    for (const Process* p : s.named(w.entry->name)) {
      if (p->comm != w.entry->name) {
        hits->push_back({w.text(), "pid " + p->pid + "'s main thread is \"" + p->comm + "\"",
                         w.entry->name + ":" + p->comm});
      }
    }
  }
}

void zombie_leader(const System& s, Hits* hits) {
  for (const monitor_info& m : monitor_list) {
    for (const std::string& z : s.zombies) {
      std::string comm = android::base::Trim(read_file_text("/proc/" + z + "/comm"));
      if (comm == m.name.substr(0, kCommMax)) hits->push_back({m.name, "pid " + z, ""});
    }
  }
}

void asleep_app_thread(const System& s, Hits* hits) {
  each_thread(s, [&](const Watch& w, const Process& p, const Thread* t) {
    if (t != nullptr && p.app && t->state == 'S') {
      hits->push_back({w.text(), "tid " + t->tid + " of pid " + p.pid + " is asleep", "",
                       policy == POLICY_NOTHING});
    }
  });
}

void ps_carry_over(const System& s, Hits* hits) {
  if (s.ps_verdict != 1) return;
  // The ps way keeps one lookup result for all entries, and a process it does not find leaves it
  // as it was: an entry whose process is missing works on the last process found before it.
  std::string last;
  for (const monitor_info& m : monitor_list) {
    std::vector<const Process*> found = s.named(m.name);
    if (!found.empty()) {
      last = m.name + " (pid " + found[0]->pid + ")";
    } else if (!last.empty()) {
      hits->push_back({m.name, "it works on what the lookup of " + last + " left", ""});
    }
  }
}

struct Hazard {
  const char* id;
  Severity severity;
  bool live;  // only with --live
  void (*check)(const System&, Hits*);
  std::string message;  // what the daemon makes of it
  std::string instead;  // what to write instead, where a finding says nothing more precise
};

const std::vector<Hazard> kHazards = {
    {"property-file", kError, false, property_file,
     "the daemon refuses the property file and runs on the defaults",
     "a file owned by root (or the daemon's user) and writable by its owner alone"},
    {"value-too-long", kError, false, value_too_long,
     "the platform keeps values of at most " + std::to_string(PROPERTY_VALUE_MAX - 1) +
         " bytes: this one is refused and the default stands",
     "a shorter value: fewer entries, or fewer threads in one"},
    {"unknown-key", kError, false, unknown_key,
     std::string("the daemon reads no such property under ") + kPropPrefix +
         ": the setting is ignored",
     "one of enable, debug, timeout, policy, processes"},
    {"timeout-misread", kError, false, timeout_misread,
     "the timeout is read as a C integer (a leading 0 is octal, 0x hex) and whatever follows the "
     "number (a unit, a blank) is dropped",
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
     "a watched thread of an app (a child of zygote) is asleep: sleep counts as a stall in an app, "
     "so an idle thread gets SIGQUIT, signal 35 and then the policy (an error where the policy "
     "kills, reboots or panics; a warning with none)",
     "a thread that wakes at least once a timeout, such as watchdog, or the policy nothing"},
    {"ps-carry-over", kError, true, ps_carry_over,
     "not running while the sweeps take the ps way: the entry works on another process's lookup, "
     "whose stall counts grow by extra intervals, and its threads may be bound there and acted on",
     "list only processes that run, or put this entry before every other"},
};

// ---------------------------------------------------------------------------------------------
// Reading the system.

stat_fields read_stat(const std::string& dir) {
  stat_fields f;
  parse_stat(read_file_text(dir + "/stat"), &f);
  return f;
}

void on_property(const prop_info* pi, void* cookie) {
  __system_property_read_callback(
      pi,
      [](void* out, const char* name, const char* value, uint32_t) {
        if (android::base::StartsWith(name, kPropPrefix)) {
          (*static_cast<std::map<std::string, std::string>*>(out))[name] = value;
        }
      },
      cookie);
}

System read_system(bool live) {
  System s;
  s.timeout = static_cast<int>(alarm_ms / 1000);
  s.timeout_text = get_prop_string(kPropTimeout, "");
  s.policy_text = get_prop_string(kPropPolicy, "");
  s.processes_text = get_prop_string(kPropProcesses, kDefaultProcesses);
  __system_property_foreach(on_property, &s.properties);
#ifndef __ANDROID__
  for (const PropertyRefusal& r : property_refusals()) s.refused.emplace_back(r.key, r.why);
#endif
  for (const monitor_info& m : monitor_list) {
    if (!m.has_threads) s.watches.push_back({&m, ""});
    std::vector<std::string> threads(m.threads.begin(), m.threads.end());
    std::sort(threads.begin(), threads.end());
    for (const std::string& t : threads) s.watches.push_back({&m, t});
  }
  s.live = live;
  if (!live) return s;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  for (dirent* d; proc && (d = readdir(proc.get())) != nullptr;) {
    if (d->d_name[0] < '0' || d->d_name[0] > '9') continue;
    std::string dir = std::string("/proc/") + d->d_name;
    std::string name = get_proc_name(d->d_name);
    stat_fields f = read_stat(dir);
    if (name.empty()) {
      if (f.state == 'Z') s.zombies.push_back(d->d_name);
      continue;
    }
    Process p{d->d_name,
              command_base_name(name),
              f.comm,
              f.state,
              is_zygote(get_proc_name(std::to_string(f.ppid))),
              {}};
    std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir((dir + "/task").c_str()), closedir);
    for (dirent* t; tasks && (t = readdir(tasks.get())) != nullptr;) {
      if (t->d_name[0] == '.') continue;
      std::string task = dir + "/task/" + t->d_name;
      stat_fields tf = read_stat(task);
      p.threads.push_back(
          {t->d_name, android::base::Trim(read_file_text(task + "/comm")), tf.state});
    }
    s.processes.push_back(std::move(p));
  }
  // The daemon's own self-test, asked for the running daemon: which way its sweeps take.
  std::vector<const Process*> daemons = s.named("stall_ward");
  if (!daemons.empty()) {
    char out[kShellOutputSize] = {};
    exec_command(kPsSelfTest, out);
    std::string printed;
    s.ps_verdict = ps_self_test(out, daemons[0]->pid, &printed) == 1 ? 1 : 0;
  }
  return s;
}

// ---------------------------------------------------------------------------------------------
// Output.

struct Finding {
  const Hazard* hazard;
  Hit hit;
  bool error() const { return hazard->severity == kError && !hit.warning_only; }
  std::string instead() const { return hit.instead.empty() ? hazard->instead : hit.instead; }
};

const char kUsage[] = R"(usage: stall_ward_check [--live] [--json]

Reads persist.vendor.sw.* as stall_ward does at start-up (on a host: the file named by
STALL_WARD_PROPERTIES), prints the configuration in the daemon's terms (enabled, debug, timeout,
sweep interval, self-watchdog alarm, policy, monitor list and records) and one finding per
hazard below, with the entry it concerns and what to write instead:
  error    the setting cannot work, or will act on a healthy process
  warning  it works, but not as a reader of the setting would expect

  --live   also look at the running system: what each entry matches (processes, thread ids and
           states, whether the process is an app, so that S counts), the ps self-test of the
           running daemon (which way its sweeps take), and the hazards marked live
  --json   the configuration and the findings as JSON (schema_version 1) instead of text
  --help   this text

Exit status: 0 no finding, 1 warnings only, 2 errors, 64 a bad command line.

Hazards (id, severity, what the daemon makes of it):
)";

void print_help(FILE* out) {
  fputs(kUsage, out);
  for (const Hazard& h : kHazards) {
    fprintf(out, "  %-20s %-7s %s%s\n", h.id, h.severity == kError ? "error" : "warning",
            h.live ? "(live) " : "", h.message.c_str());
  }
}

std::vector<std::string> sorted(const std::unordered_set<std::string>& set) {
  std::vector<std::string> out(set.begin(), set.end());
  std::sort(out.begin(), out.end());
  return out;
}

void print_text(bool enabled, const System& s, const std::vector<Finding>& findings) {
  printf("stall_ward configuration, as the daemon reads it at start-up\n");
  printf("  enabled   %s\n", enabled ? "yes" : "no: the daemon parks and does nothing");
  printf("  debug     %s\n", s.debug ? "on" : "off");
  printf("  timeout   %d s (alarm_ms %lld: the stall limit and the self-watchdog)\n", s.timeout,
         static_cast<long long>(alarm_ms));
  printf("  interval  %lld s between sweeps (interval_ms %lld)\n",
         static_cast<long long>(interval_ms / 1000), static_cast<long long>(interval_ms));
  printf("  policy    %d, %s (from \"%s\")\n", policy, kPolicyNames[policy], s.policy_text.c_str());
  printf("  monitor list:\n");
  for (const monitor_info& m : monitor_list) {
    printf("    %s: %s\n", m.name.c_str(),
           m.has_threads ? ("threads " + android::base::Join(sorted(m.threads), ", ")).c_str()
                         : "main thread");
  }
  std::vector<std::string> records;
  for (const auto& entry : mTids) records.push_back(entry.first);
  std::sort(records.begin(), records.end());
  printf("  records   %s\n", android::base::Join(records, ", ").c_str());
  if (s.live) {
    printf("\nlive:\n");
    std::set<std::string> seen;
    for (const monitor_info& m : monitor_list) {
      if (!seen.insert(m.name).second) continue;
      std::vector<const Process*> found = s.named(m.name);
      printf("  %s: %zu process%s\n", m.name.c_str(), found.size(), found.size() == 1 ? "" : "es");
      for (const Process* p : found) {
        printf("    pid %s, main thread \"%s\" %c%s\n", p->pid.c_str(), p->comm.c_str(), p->state,
               p->app ? ", an app (a child of zygote): S counts" : "");
        for (const std::string& name : sorted(m.threads)) {
          const Thread* t = find_thread(*p, name);
          if (t == nullptr) {
            printf("      %s: no such thread\n", name.c_str());
          } else {
            printf("      %s: tid %s %c\n", name.c_str(), t->tid.c_str(), t->state);
          }
        }
      }
    }
    printf("  ps self-test: %s\n", s.ps_verdict < 0    ? "no stall_ward running"
                                   : s.ps_verdict == 1 ? "passes: sweeps find processes through ps"
                                                       : "fails: sweeps walk /proc");
  }
  printf("\n");
  int errors = 0;
  for (const Finding& f : findings) {
    errors += f.error();
    printf("%s %s: %s\n", f.error() ? "error" : "warning", f.hazard->id, f.hit.entry.c_str());
    if (!f.hit.detail.empty()) printf("    %s\n", f.hit.detail.c_str());
    printf("    %s\n", f.hazard->message.c_str());
    if (!f.instead().empty()) printf("    instead: %s\n", f.instead().c_str());
  }
  size_t warnings = findings.size() - errors;
  printf("%d error%s, %zu warning%s\n", errors, errors == 1 ? "" : "s", warnings,
         warnings == 1 ? "" : "s");
}

void print_json(bool enabled, const System& s, const std::vector<Finding>& findings) {
  Json::Value out;
  out["schema_version"] = 1;
  Json::Value& config = out["configuration"];
  config["enabled"] = enabled;
  config["debug"] = s.debug;
  config["timeout_s"] = s.timeout;
  config["interval_ms"] = static_cast<Json::Int64>(interval_ms);
  config["alarm_ms"] = static_cast<Json::Int64>(alarm_ms);
  config["policy"]["code"] = policy;
  config["policy"]["name"] = kPolicyNames[policy];
  config["policy"]["text"] = s.policy_text;
  config["monitor_list"] = Json::arrayValue;
  for (const monitor_info& m : monitor_list) {
    Json::Value entry;
    entry["process"] = m.name;
    entry["threads"] = Json::arrayValue;
    for (const std::string& t : sorted(m.threads)) entry["threads"].append(t);
    config["monitor_list"].append(entry);
  }
  out["live"] = s.live;
  if (s.live)
    out["ps_self_test"] = s.ps_verdict < 0 ? Json::Value() : Json::Value(s.ps_verdict == 1);
  out["findings"] = Json::arrayValue;
  int errors = 0;
  for (const Finding& f : findings) {
    errors += f.error();
    Json::Value j;
    j["id"] = f.hazard->id;
    j["severity"] = f.error() ? "error" : "warning";
    j["entry"] = f.hit.entry;
    j["detail"] = f.hit.detail;
    j["message"] = f.hazard->message;
    j["instead"] = f.instead();
    out["findings"].append(j);
  }
  out["errors"] = errors;
  out["warnings"] = static_cast<int>(findings.size()) - errors;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  printf("%s\n", Json::writeString(writer, out).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  bool live = false, json = false;
  const option options[] = {{"live", no_argument, nullptr, 'l'},
                            {"json", no_argument, nullptr, 'j'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (c == 'l') {
      live = true;
    } else if (c == 'j') {
      json = true;
    } else if (c == 'h') {
      print_help(stdout);
      return EX_OK;
    } else {
      print_help(stderr);
      return EX_USAGE;
    }
  }
  if (optind < argc) {
    fprintf(stderr, "stall_ward_check: unexpected argument %s\n", argv[optind]);
    print_help(stderr);
    return EX_USAGE;
  }
  __android_log_set_minimum_priority(ANDROID_LOG_ERROR);  // a refused property file still shows
  bool enabled = get_prop_bool(kPropEnable, false);
  read_settings();
  bool debug = debug_enabled;
  debug_enabled = false;  // the daemon's functions used below log nothing of their own
  System s = read_system(live);
  s.debug = debug;

  std::vector<Finding> findings;
  for (const Hazard& h : kHazards) {
    if (h.live && !live) continue;
    Hits hits;
    h.check(s, &hits);
    for (Hit& hit : hits) findings.push_back({&h, std::move(hit)});
  }
  (json ? print_json : print_text)(enabled, s, findings);
  bool errors =
      std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.error(); });
  return errors ? 2 : findings.empty() ? 0 : 1;
}
