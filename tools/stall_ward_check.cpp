// stall_ward_check: reads the daemon's properties exactly as the daemon does (through its own
// functions), prints the configuration in the daemon's terms, and reports the settings that cannot
// work or would act on a healthy process. With --live it also looks at what each entry matches on
// the running system. Read-only: it never signals, never writes the SysRq trigger, never sets a
// property. Exit status: 0 clean, 1 warnings, 2 errors.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android/log.h>
#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "stall_ward.h"
#include "utils.h"

namespace {

constexpr char kHelp[] = R"(usage: stall_ward_check [--live]

Reads persist.vendor.sw.* as stall_ward does at start-up (on a host: the file named by
STALL_WARD_PROPERTIES) and prints the effective configuration: enabled, debug, timeout, the
sweep interval, the self-watchdog alarm, the policy code and the text it came from, the monitor
list and its records. Then one finding per hazard, each with its severity, the entry it concerns
and what to write instead:
  error    the setting cannot work, or will act on a healthy process
  warning  it works, but not as a reader of the setting would expect
Hazards: thread names longer than the kernel's 15 bytes; names with tabs or other separators, or
the first word of a thread name with blanks; a thread name in more than one entry (one shared
record); a process in more than one entry; a timeout at or below 0, or below 120 s (sweeps still
run every 30 s); a policy text that differs from kill, reboot or panic only by case or blanks;
watching threads that sleep by design in an app process, where sleep counts as a stall.

  --live   also what each entry matches right now: the processes of that name, each watched
           thread's id and state, whether the process is an app (so that S counts), the answer of
           the ps self-test for the running daemon (which way its sweeps take), and the findings
           only a live system shows: two processes of one name, a watched thread that does not
           exist, a name the kernel truncates, a zombie group leader, and, when the sweeps take
           the ps way, a listed process that is not running after one that is.
  --help   this text

Exit status: 0 no finding, 1 warnings only, 2 errors.
)";

constexpr size_t kCommMax = 15;  // the kernel keeps 15 bytes of a thread name
// Thread names with blanks: the task walk compares their first word, the record lookup the whole.
const std::set<std::string> kBlankNames = {"Jit thread pool", "Signal Catcher", "Profile Saver",
                                           "Binder Thread"};
// Looper threads of system_server that sleep in S whenever they have nothing to do.
const std::set<std::string> kIdleThreads = {"android.bg", "android.fg",      "android.io",
                                            "android.ui", "android.display", "android.anim"};

struct Finding {
  bool error;
  std::string entry, what, instead;
};
std::vector<Finding> findings;

void report(bool error, const std::string& entry, const std::string& what,
            const std::string& instead) {
  for (const Finding& f : findings) {
    if (f.entry == entry && f.what == what) return;
  }
  findings.push_back({error, entry, what, instead});
}

std::string trimmed(const std::string& path) {
  std::string text;
  android::base::ReadFileToString(path, &text);
  return android::base::Trim(text);
}

char thread_state(const std::string& task) {
  stat_fields f;
  std::string stat;
  android::base::ReadFileToString(task + "/stat", &stat);
  return parse_stat(stat, &f) >= 3 ? f.state : '?';
}

void check_settings(int timeout, const std::string& policy_text) {
  const std::string timeout_entry = "persist.vendor.sw.timeout=" + std::to_string(timeout);
  if (timeout <= 0) {
    report(true, timeout_entry,
           "every watched thread is judged at the first sweep: evidence at once, the policy at "
           "the next sweep, on threads that merely wait",
           "a timeout of 120 or more");
  } else if (interval_ms > static_cast<int64_t>(timeout) * 250) {
    int64_t sweeps = (alarm_ms + interval_ms - 1) / interval_ms;
    report(false, timeout_entry,
           "sweeps still run every 30 s, so evidence comes up to " +
               std::to_string((sweeps + 1) * interval_ms / 1000) + " s after a stall begins",
           "a timeout of 120 or more, where it is a quarter of the timeout");
  }
  std::string folded = android::base::Trim(policy_text);
  std::transform(folded.begin(), folded.end(), folded.begin(), ::tolower);
  if (policy_text != folded && policy_from_text(folded) != POLICY_NOTHING) {
    report(true, "persist.vendor.sw.policy=" + policy_text,
           "only the exact lower-case text counts: this one does nothing", folded);
  }
  std::map<std::string, int> process_entries, thread_entries;
  for (const monitor_info& m : monitor_list) {
    ++process_entries[m.name];
    std::vector<std::string> names(m.threads.begin(), m.threads.end());
    if (!m.has_threads) names.push_back(m.name);
    for (const std::string& name : names) {
      std::string entry = m.has_threads ? m.name + ":" + name : m.name;
      if (m.has_threads) ++thread_entries[name];
      if (name.size() > kCommMax) {
        report(true, entry,
               "the name is " + std::to_string(name.size()) + " bytes; the kernel keeps " +
                   std::to_string(kCommMax) + ", so it never matches and " +
                   (m.has_threads ? "the thread counts as never started" : "is never watched"),
               name.substr(0, kCommMax));
      }
      if (name.find_first_of("\t\r\n\v\f") != std::string::npos) {
        report(true, entry, "only the space separates entries: this is one name with a blank in it",
               "entries separated by single spaces");
      }
      for (const std::string& full : kBlankNames) {
        if (m.has_threads && full.substr(0, full.find(' ')) == name) {
          report(true, entry,
                 "\"" + full +
                     "\" matches by its first word in the task walk but never the record, so it "
                     "counts as never started",
                 "a thread whose name has no blank");
        }
      }
      if (m.has_threads && kIdleThreads.count(name) != 0) {
        report(false, entry,
               "a Looper thread that sleeps when idle; in an app process (system_server is one: a "
               "child of zygote64) sleep counts as a stall",
               "watchdog, which wakes on its own, or none");
      }
    }
  }
  for (const auto& [name, n] : thread_entries) {
    if (n > 1) {
      report(true, "*:" + name,
             "one record serves every entry that names this thread: each sweep rebinds it, so "
             "a stall is never reported",
             "one entry per thread name");
    }
  }
  for (const auto& [name, n] : process_entries) {
    if (n > 1) {
      report(false, name,
             "the /proc walk uses only the first entry of a process name; the ps way uses each",
             "one entry with all its threads: " + name + ":a:b");
    }
  }
}

void check_live() {
  printf("\nlive:\n");
  std::map<std::string, std::vector<std::string>> by_name;  // base name -> pids
  std::vector<std::string> zombies;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  for (dirent* d; proc && (d = readdir(proc.get())) != nullptr;) {
    if (d->d_name[0] < '0' || d->d_name[0] > '9') continue;
    std::string name = get_proc_name(d->d_name);
    if (!name.empty()) {
      by_name[command_base_name(name)].push_back(d->d_name);
    } else if (thread_state("/proc/" + std::string(d->d_name)) == 'Z') {
      zombies.push_back(d->d_name);
    }
  }
  std::set<std::string> seen;
  for (const monitor_info& m : monitor_list) {
    if (!seen.insert(m.name).second) continue;
    const std::vector<std::string>& pids = by_name[m.name];
    printf("  %s: %zu process%s\n", m.name.c_str(), pids.size(), pids.size() == 1 ? "" : "es");
    for (const std::string& z : zombies) {
      std::string leader = trimmed("/proc/" + z + "/comm");
      if (leader == m.name.substr(0, kCommMax)) {
        report(false, m.name, "pid " + z + " has a zombie main thread: the /proc walk passes it by",
               "watch one of its live threads");
      }
    }
    if (pids.size() > 1) {
      report(true, m.name,
             std::to_string(pids.size()) +
                 " processes of this name share each record: every sweep rebinds it, so a "
                 "stall is never reported",
             "a process name only one process has");
    }
    for (const std::string& pid : pids) {
      stat_fields f;
      std::string stat = trimmed("/proc/" + pid + "/stat");
      parse_stat(stat, &f);
      std::string pname = command_base_name(get_proc_name(std::to_string(f.ppid)));
      bool app = pname == "zygote" || pname == "zygote64";
      printf("    pid %s%s\n", pid.c_str(), app ? ", an app (a child of zygote): S counts" : "");
      std::vector<std::string> wanted(m.threads.begin(), m.threads.end());
      if (!m.has_threads) wanted.push_back("");
      for (const std::string& name : wanted) {
        std::string entry = name.empty() ? m.name : m.name + ":" + name;
        if (name.empty()) {
          std::string comm = trimmed("/proc/" + pid + "/comm");
          printf("      main thread %s (%s) %c\n", pid.c_str(), comm.c_str(), f.state);
          if (comm != m.name) {
            report(true, entry,
                   "the main thread is called \"" + comm + "\": the record never binds",
                   comm + ":" + comm);
          }
          continue;
        }
        bool found = false;
        std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir(("/proc/" + pid + "/task").c_str()),
                                                  closedir);
        for (dirent* t; tasks && (t = readdir(tasks.get())) != nullptr;) {
          if (t->d_name[0] == '.') continue;
          std::string task = "/proc/" + pid + "/task/" + t->d_name;
          std::string comm = trimmed(task + "/comm");
          if (comm == name) {
            found = true;
            printf("      %s: tid %s %c\n", name.c_str(), t->d_name, thread_state(task));
          } else if (get_comm(task) == name) {
            report(true, entry,
                   "tid " + std::string(t->d_name) + " is \"" + comm +
                       "\": the task walk takes it for " + name +
                       " but the record lookup does not, so it counts as never started",
                   "a thread whose name has no blank");
          } else if (name.size() > kCommMax && comm == name.substr(0, kCommMax)) {
            report(true, entry,
                   "the kernel truncates this name to \"" + comm + "\" (tid " + t->d_name + ")",
                   m.name + ":" + comm);
          }
        }
        if (!found) {
          printf("      %s: no such thread\n", name.c_str());
          report(true, entry,
                 "no thread of this name in pid " + pid +
                     ": it counts as stalled, and gets evidence and the policy",
                 "a thread name from /proc/" + pid + "/task/*/comm");
        }
      }
    }
  }
  // The daemon's own self-test, asked for the running daemon.
  const std::vector<std::string>& daemons = by_name["stall_ward"];
  if (daemons.empty()) {
    printf("  ps self-test: no stall_ward running\n");
    return;
  }
  char out[kShellOutputSize] = {};
  exec_command("ps -e |grep stall_ward", out);
  std::string printed;
  int verdict = ps_self_test(out, daemons[0], &printed);
  printf("  ps self-test for stall_ward (pid %s): %s\n", daemons[0].c_str(),
         verdict == 1 ? "passes: sweeps find processes through ps" : "fails: sweeps walk /proc");
  if (verdict != 1) return;
  // The ps way keeps one lookup result for all entries, and a process it does not find leaves it
  // as it was: an entry whose process is missing works on the last process found before it.
  std::string last;
  for (const monitor_info& m : monitor_list) {
    if (!by_name[m.name].empty()) {
      last = m.name + " (pid " + by_name[m.name][0] + ")";
    } else if (!last.empty()) {
      report(true, m.name,
             "not running while the sweeps take the ps way: the entry works on what the lookup "
             "of " +
                 last +
                 " left, so that process is read again, its stall counts grow by "
                 "extra intervals, and this entry's threads may be bound to it and acted on there",
             "list only processes that run, or put this entry before every other");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  bool live = false;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--live") == 0) {
      live = true;
    } else {
      fputs(kHelp, strcmp(argv[i], "--help") == 0 ? stdout : stderr);
      return strcmp(argv[i], "--help") == 0 ? 0 : 2;
    }
  }
  __android_log_set_minimum_priority(ANDROID_LOG_ERROR);  // a refused property file still shows
  bool enabled = get_prop_bool(kPropEnable, false);
  read_settings();
  std::string policy_text = get_prop_string(kPropPolicy, "");
  int timeout = static_cast<int>(alarm_ms / 1000);
  const char* kPolicies[] = {"kill", "reboot", "panic", "nothing"};
  printf("stall_ward configuration, as the daemon reads it at start-up\n");
  printf("  enabled   %s\n", enabled ? "yes" : "no: the daemon parks and does nothing");
  printf("  debug     %s\n", debug_enabled ? "on" : "off");
  printf("  timeout   %d s (alarm_ms %lld: the stall limit and the self-watchdog)\n", timeout,
         static_cast<long long>(alarm_ms));
  printf("  interval  %lld s between sweeps (interval_ms %lld)\n",
         static_cast<long long>(interval_ms / 1000), static_cast<long long>(interval_ms));
  printf("  policy    %d, %s (from \"%s\")\n", policy,
         policy >= 0 && policy <= 3 ? kPolicies[policy] : "nothing", policy_text.c_str());
  printf("  monitor list:\n");
  for (const monitor_info& m : monitor_list) {
    std::vector<std::string> threads(m.threads.begin(), m.threads.end());
    std::sort(threads.begin(), threads.end());
    printf(
        "    %s: %s\n", m.name.c_str(),
        m.has_threads ? ("threads " + android::base::Join(threads, ", ")).c_str() : "main thread");
  }
  std::vector<std::string> records;
  for (const auto& entry : mTids) records.push_back(entry.first);
  std::sort(records.begin(), records.end());
  printf("  records   %s\n", android::base::Join(records, ", ").c_str());
  debug_enabled = false;  // the daemon's functions used below log nothing of their own

  check_settings(timeout, policy_text);
  if (live) check_live();
  int errors = 0;
  printf("\n");
  for (const Finding& f : findings) {
    errors += f.error;
    printf("%s: %s: %s\n    instead: %s\n", f.error ? "error" : "warning", f.entry.c_str(),
           f.what.c_str(), f.instead.c_str());
  }
  printf("%d error%s, %zu warning%s\n", errors, errors == 1 ? "" : "s", findings.size() - errors,
         findings.size() - errors == 1 ? "" : "s");
  return errors > 0 ? 2 : findings.empty() ? 0 : 1;
}
