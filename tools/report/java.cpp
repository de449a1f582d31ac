// Java stack dumps, as the runtime writes them for SIGQUIT (its signal catcher; on Android 11 into
// /data/anr/trace_NN, or the anr_* file or bug report section of whoever asked), with the native
// processes' backtraces that the same files carry, and the monitor chain between their threads.
#include <android-base/strings.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "report.h"

namespace report {

using android::base::StartsWith;

// "2026-11-22 22:16:05": the milliseconds of that second as a logcat clock counts them.
int64_t iso_ms(const std::string& text) {
  if (text.size() < 19 || text[4] != '-') return -1;
  return clock_ms(text.substr(5, 14) + ".000");
}

namespace {

// The frame as shown: "at pkg.Class.m(File.java:1)" without "at ", and a native frame "#03 pc
// 000000000001a1f4  /system/lib64/libutils.so (android::Looper::pollOnce+112) (BuildId: ...)" as
// "libutils.so (android::Looper::pollOnce+112)".
std::string frame(const std::string& t) {
  if (StartsWith(t, "at ")) return t.substr(3);
  std::string f = StartsWith(t, "native: ") ? t.substr(8) : t;
  size_t pc = f.find(" pc ");
  if (f.empty() || f[0] != '#' || pc == std::string::npos) return f;
  size_t map = f.find_first_not_of(' ', f.find(' ', pc + 4));
  if (map == std::string::npos) return f;
  std::string rest = f.substr(map);
  size_t build = rest.find(" (BuildId:");
  if (build != std::string::npos) rest.resize(build);
  size_t space = rest.find(' ');
  size_t slash = rest.rfind('/', space);
  return slash == std::string::npos ? rest : rest.substr(slash + 1);
}

// A thread's first line: "name" [daemon ]prio=5 tid=12 Blocked, or a native process's "name"
// sysTid=1301 (then the dump is not a Java one). False for another line.
bool thread_line(const std::string& t, ProcessDump* dump) {
  size_t quote = t.rfind('"');
  if (!StartsWith(t, "\"") || quote == 0 || quote == std::string::npos) return false;
  StackThread thread;
  thread.name = t.substr(1, quote - 1);
  std::string rest = t.substr(quote + 1);
  size_t id = rest.find(" tid=");
  size_t sys = rest.find("sysTid=");
  if (id != std::string::npos) {
    char state[64] = {};
    if (sscanf(rest.c_str() + id, " tid=%d %63s", &thread.java_id, state) >= 1)
      thread.state = state;
  } else if (sys != std::string::npos) {
    thread.tid = atoi(rest.c_str() + sys + 7);
    dump->java = false;
  } else {
    return true;  // a quoted line that is no thread's: passed by
  }
  dump->threads.push_back(thread);
  return true;
}

// A lock line ("- waiting to lock <0x0a1b2c3d> (a java.lang.Object) held by thread 12", "- locked
// ..."), kept among the frames; a wait for a monitor names what and whom the thread waits for.
void lock_line(const std::string& t, StackThread* thread) {
  thread->stack.push_back(t);
  std::string what;
  for (const char* waits : {"- waiting to lock ", "- waiting for lock inflation of "}) {
    if (StartsWith(t, waits)) what = t.substr(strlen(waits));
  }
  if (what.empty() || StartsWith(what, "an unknown object")) return;  // not a monitor's wait
  size_t held = what.find(" held by ");
  thread->waits_for = what.substr(0, held);
  if (held == std::string::npos) return;
  // " held by thread 12" (the runtime), " held by tid=12 (name)" (before the runtime)
  const char* n = what.c_str() + held + 9;
  while (*n != '\0' && !isdigit(static_cast<unsigned char>(*n))) ++n;
  thread->held_by = atoi(n);
}

}  // namespace

void JavaReader::add(const std::string& raw) {
  std::string t = android::base::Trim(raw);
  int pid = 0;
  char date[32] = {};
  if (sscanf(t.c_str(), "----- pid %d at %31[0-9: -]", &pid, date) >= 1 &&
      android::base::EndsWith(t, "-----")) {
    dumps.emplace_back();
    dumps.back().pid = pid;
    dumps.back().when = android::base::Trim(std::string(date).substr(0, 19));
    dumps.back().ms = iso_ms(dumps.back().when);
    open = true;
    return;
  }
  if (!open) return;
  ProcessDump& dump = dumps.back();
  if (sscanf(t.c_str(), "----- end %d -----", &pid) == 1) {
    dump.complete = pid == dump.pid;
    open = false;
    return;
  }
  if (StartsWith(t, "Cmd line: ")) {
    dump.cmd = t.substr(10);
    return;
  }
  if (thread_line(t, &dump) || dump.threads.empty()) return;
  StackThread& thread = dump.threads.back();
  size_t sys = t.find("| sysTid=");
  if (sys != std::string::npos) {
    thread.tid = atoi(t.c_str() + sys + 9);
  } else if (StartsWith(t, "at ") || StartsWith(t, "native: #") || StartsWith(t, "#")) {
    thread.stack.push_back(frame(t));
  } else if (StartsWith(t, "- ")) {
    lock_line(t, &thread);
  }
}

std::vector<ProcessDump> read_java_dumps(const std::vector<std::string>& lines) {
  JavaReader reader;
  for (const std::string& line : lines) reader.add(line);
  return std::move(reader.dumps);
}

std::vector<size_t> monitor_chain(const ProcessDump& dump, size_t thread, bool* deadlock) {
  std::vector<size_t> chain;
  *deadlock = false;
  while (thread < dump.threads.size()) {
    for (size_t seen : chain) {
      if (seen == thread) {
        *deadlock = true;
        return chain;
      }
    }
    chain.push_back(thread);
    int holder = dump.threads[thread].held_by;
    if (holder == dump.threads[thread].java_id) break;
    thread = dump.threads.size();
    for (size_t i = 0; holder > 0 && i < dump.threads.size(); ++i) {
      if (dump.threads[i].java_id == holder && dump.threads[i].java_id != 0) thread = i;
    }
  }
  return chain;
}

bool native_frame(const std::string& f) {
  return f.find(" (") != std::string::npos || f.empty() || f[0] == '[' || f[0] == '#';
}

std::vector<std::string> holder_frames(const StackThread& thread) {
  std::vector<std::string> java, native;
  for (const std::string& f : thread.stack) {
    if (!StartsWith(f, "- ")) (native_frame(f) ? native : java).push_back(f);
  }
  return java.empty() ? native : java;
}

}  // namespace report
