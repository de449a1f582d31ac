// stall_ward_report over a fleet: each incident signed so that the same hang on another device,
// build or kernel gets the same signature, many bug reports read at once, and the incidents
// either counted by signature (--summary) or written one JSON object a line (--jsonl).
#pragma once

#include <stdio.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "report.h"

namespace report {

// Bumped whenever what goes into a signature changes, so that signatures of two versions are
// never taken for the same hang or for two.
constexpr int kSignatureVersion = 2;

// One incident as the fleet sees it.
struct Hang {
  std::string input, device, build, taken;  // its bug report: path, serial, fingerprint, time
  std::string since, seen, acted;  // the stall's start, the evidence, the action ("YYYY-MM-DD
                                   // hh:mm:ss" when the bug report gives the year)
  std::string process, thread, evidence, action, story;
  int pid = -1, tid = -1;
  char state = '?';
  std::vector<std::string> kernel_stack, java_stack, native_stack;  // as read, innermost first
  // What the signature is made of: the top frames without addresses, offsets, numbered lambdas
  // and the scheduler's own frames; the blocker without ids.
  std::vector<std::string> kernel, java, native;
  std::string blocker, frames, signature;
  // Across processes: the thread at fault (its process and thread without numbers, how it waits
  // and where) or the processes of a deadlock, and the chain to it; empty without a chain.
  std::string culprit;
  Chain chain;
};

// The incidents of one input's story, signed.
std::vector<Hang> hangs_of(const Story& story, const std::string& input);

// Reads the inputs (a folder: each file in it) on `jobs` threads, each into a story of its own,
// and hands each input's incidents to `take` in the inputs' order. An input that cannot be read
// is reported on `errors` and gives no incident. Memory stays bounded: a thread does not run more
// than a few inputs ahead of the one `take` waits for.
struct FleetStats {
  size_t inputs = 0, with_incidents = 0, damaged = 0;
  size_t with_daemon = 0;  // inputs that hold a line of the daemon
  uint64_t bytes = 0;
};
FleetStats read_fleet(const std::vector<std::string>& paths, int jobs, bool progress, FILE* errors,
                      const std::function<void(std::vector<Hang>&&)>& take);

// One incident as one line of JSON (the schema README gives).
std::string jsonl_line(const Hang& hang);

// The incidents counted by signature: the --summary table (the same as README's query over the
// --jsonl lines gives), and the page that links each signature to its incidents.
struct Summary {
  struct Row {
    std::string signature, process, thread, state, frames, blocker, culprit, first, last;
    size_t count = 0;
    std::vector<std::string> devices, builds;  // distinct, known ones only
    std::vector<Hang> incidents;               // for the page, without their stacks
  };
  bool pages = false;               // keep each row's incidents for html()
  std::map<std::string, Row> rows;  // by signature
  void add(Hang hang);
  std::string table() const;  // sorted by count, then signature
  std::string html(const FleetStats& stats) const;
};

}  // namespace report
