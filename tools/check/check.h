// The checker's picture of a configuration and of the running system, and its hazards.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "check/prop_text.h"
#include "stall_ward.h"

namespace check {

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
  std::string record() const { return thread.empty() ? entry->name : thread; }
};

// A record as one sweep left it.
struct RecordSample {
  uint32_t pid, tid;
  char state;
  int64_t stuck_ms;
  bool updated, is_app, frozen;
};
// The daemon's own sweep run over the window, the way it takes: each record, sweep by sweep.
struct DryRun {
  bool shell = false;
  std::map<std::string, std::vector<RecordSample>> records;
  // The ps way: what the daemon's lookup gave for each watched name at the first sweep.
  std::vector<std::pair<Watch, pid_info>> lookups;
};

struct System {
  bool enabled = false;
  bool debug = true;
  int timeout = 0;
  std::string timeout_text, policy_text, processes_text;
  // Every line that set a key under the daemon's prefix, in the order init read them; a key read
  // from the live properties has one line with an empty path.
  std::map<std::string, std::vector<PropertyLine>> lines;
  std::vector<std::pair<std::string, std::string>> refused;  // key ("" the file), why
  std::string property_file;  // STALL_WARD_PROPERTIES, when that is the configuration
  std::vector<Watch> watches;
  bool live = false;
  std::vector<Process> processes;
  std::vector<std::string> zombies;  // pids of zombie group leaders (their command line is empty)
  int ps_verdict = 0;                // the ps self-test: 1 the sweeps take the ps way
  bool daemon_running = false;       // the self-test was the running daemon's, not the checker's
  int64_t window_ms = 0;             // how long the sweeps were watched
  DryRun run;                        // the daemon's sweep over the window

  std::vector<const Process*> named(const std::string& name) const;
  std::string value(const char* key) const;  // as init left it
};

// One finding of a hazard. fix_key=fix_value is what to write instead (fix_key empty: no line
// says it better than the hazard's own advice).
struct Hit {
  std::string key, entry, detail;
  std::string fix_key, fix_value;
  bool warning_only = false;  // an error hazard that is only a warning here
};
using Hits = std::vector<Hit>;
enum Severity { kWarning, kError };

struct Hazard {
  const char* id;
  Severity severity;
  bool live;  // only with --live
  void (*check)(const System&, Hits*);
  std::string message;  // what the daemon makes of it
  std::string instead;  // what to write instead, where a finding has no line of its own
};
extern const std::vector<Hazard> kHazards;

const Thread* find_thread(const Process& p, const std::string& comm);

// Reading the running system (live.cpp).
void read_processes(System* s);
void run_sweeps(System* s, int64_t window_ms);

}  // namespace check
