// Tombstones, as the crash handler writes them (for signal 35 a dump of every thread of a process
// that goes on running): "*** *** ***", "Timestamp: 2020-10-09 23:22:28+0200", then per thread
// "pid: N, tid: M, name: X  >>> CMD <<<", for the first its "signal 35 (...)" line, registers,
// "backtrace:" and its "#00 pc ..." frames; "--- --- ---" before each other thread.
#include <android-base/strings.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "report.h"

namespace report {

using android::base::StartsWith;

void NativeReader::add(const std::string& raw) {
  std::string t = android::base::Trim(raw);
  if (StartsWith(t, "*** *** ***")) {
    dumps.emplace_back();
    dumps.back().java = false;
    open = true;
    frames = false;
    return;
  }
  if (!open) return;
  ProcessDump& dump = dumps.back();
  int pid = 0, tid = 0;
  char name[64] = {};
  if (StartsWith(t, "Timestamp: ")) {
    dump.when = t.substr(11, 19);
    dump.ms = iso_ms(dump.when);
  } else if (sscanf(t.c_str(), "pid: %d, tid: %d, name: %63[^\n]", &pid, &tid, name) == 3) {
    StackThread thread;
    std::string n = name;
    size_t cmd = n.find("  >>> ");
    thread.name = n.substr(0, cmd);
    thread.tid = tid;
    if (dump.threads.empty()) {
      dump.pid = pid;
      if (cmd != std::string::npos && android::base::EndsWith(n, " <<<"))
        dump.cmd = n.substr(cmd + 6, n.size() - cmd - 10);
    }
    if (pid == dump.pid) dump.threads.push_back(thread);
    frames = false;
  } else if (StartsWith(t, "signal ") && dump.signal == 0) {
    dump.signal = atoi(t.c_str() + 7);
  } else if (t == "backtrace:") {
    frames = !dump.threads.empty();
  } else if (frames && StartsWith(t, "#")) {
    size_t pc = t.find(" pc ");
    size_t map = pc == std::string::npos ? pc : t.find_first_not_of(' ', t.find(' ', pc + 4));
    std::string f = map == std::string::npos ? t : t.substr(map);
    size_t build = f.find(" (BuildId:");
    if (build != std::string::npos) f.resize(build);
    size_t slash = f.rfind('/', f.find(' '));
    dump.threads.back().stack.push_back(slash == std::string::npos ? f : f.substr(slash + 1));
    dump.complete = true;
  } else {
    frames = false;  // the backtrace ends: "--- --- ---", an empty line, "stack:", "memory map"
  }
}

std::vector<ProcessDump> read_native_dumps(const std::vector<std::string>& lines) {
  NativeReader reader;
  for (const std::string& line : lines) reader.add(line);
  return std::move(reader.dumps);
}

}  // namespace report
