// The kernel's dumps in its log: SysRq w (blocked tasks), its own hung-task reports and SysRq l
// (the active CPUs), as kernels from 3.x to 6.x, arm64, ARM32 and x86, and vendors print them.
#include <android-base/strings.h>
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>

#include "report.h"

namespace report {
namespace {

using android::base::StartsWith;

bool number(const std::string& s, const char* digits = "0123456789") {
  return !s.empty() && s.find_first_not_of(digits) == std::string::npos;
}

// A task line: "task:watchdog state:D stack:0 pid:1301 ppid:1234 flags:0x8" (5.10 on; 6.x adds
// "tgid:"), "watchdog D 0 1301 1234 0x00000008" (4.11 to 5.4), or the same with the task's saved
// PC after the state (before 4.11: "watchdog D ffffffc0000853b8 0 1301 1234 0x00000000").
bool parse_task(const std::string& t, KernelTask* task) {
  if (StartsWith(t, "task:")) {
    size_t state = t.find(" state:");
    size_t pid = t.find(" pid:");
    if (state == std::string::npos || pid == std::string::npos || state + 7 >= t.size())
      return false;
    task->comm = android::base::Trim(t.substr(5, state - 5));
    task->state = t[state + 7];
    task->pid = atoi(t.c_str() + pid + 5);
    size_t ppid = t.find(" ppid:");
    task->ppid = ppid == std::string::npos ? -1 : atoi(t.c_str() + ppid + 6);
    return task->pid > 0;
  }
  std::vector<std::string> f = android::base::Split(t, " ");
  f.erase(std::remove(f.begin(), f.end(), ""), f.end());
  size_t n = f.size();
  if (n < 6 || !StartsWith(f[n - 1], "0x")) return false;
  for (size_t i = n - 4; i < n - 1; ++i) {
    if (!number(f[i])) return false;
  }
  size_t state = n - 5;  // the state, or the saved PC after it
  if (f[state].size() >= 8 && number(f[state], "0123456789abcdef") && n >= 7) --state;
  if (f[state].size() != 1 || !isalpha(static_cast<unsigned char>(f[state][0]))) return false;
  size_t state_at = t.rfind(" " + f[state] + " ", t.find(" " + f[state + 1] + " "));
  if (state_at == std::string::npos) return false;
  task->comm = android::base::Trim(t.substr(0, state_at));
  task->state = f[state][0];
  task->pid = atoi(f[n - 3].c_str());
  task->ppid = atoi(f[n - 2].c_str());
  return !task->comm.empty() && task->pid > 0;
}

// A frame's function: " __switch_to+0x98/0xd8", " ? schedule+0x40/0xd0 [module]", "
// __switch_to+0x108/0x1c8 (T)", "[<ffffffc0000853b8>] __switch_to+0x7c/0x88" (before 4.11), ARM32's
// "[<c0882f18>] (__schedule) from [<c0883858>] (schedule+0x64/0xe4)" and 6.x's "__schedule from
// schedule+0x20/0x134". A bare address ("[<ffffffc0000853b8>] 0xffffffc0000853b8") is a frame
// without a name: "?". unsure: the kernel marked the frame unreliable ("?"), or it has no name.
bool parse_frame(const std::string& text, std::string* function, bool* unsure) {
  std::string t = text;
  *unsure = false;
  if (StartsWith(t, "[<")) {
    size_t close = t.find(">]");
    if (close == std::string::npos) return false;
    t = android::base::Trim(t.substr(close + 2));
    if (StartsWith(t, "(")) {  // ARM32: "(callee) from [<addr>] (caller+off/len)"
      size_t end = t.find(')');
      if (end == std::string::npos || t.find(") from ") != end) return false;
      *function = t.substr(1, end - 1);
      size_t cut = function->find_first_of(" +");  // "(fuse_writepages [fuse])", "(f+0x3e0/0x5ec)"
      if (cut != std::string::npos) function->resize(cut);
      return !function->empty();
    }
    if (StartsWith(t, "0x") || t.empty()) {
      *function = "?";
      *unsure = true;
      return true;
    }
  }
  if (StartsWith(t, "? ")) {
    t = t.substr(2);
    *unsure = true;
  }
  size_t from = t.find(" from ");
  if (from != std::string::npos && from > 0 && t.find(' ') == from &&
      t.find("+0x", from) != std::string::npos) {
    *function = t.substr(0, from);
    return true;
  }
  size_t plus = t.find("+0x");
  if (plus == std::string::npos || plus == 0 || t.find('/', plus) == std::string::npos)
    return false;
  std::string name = t.substr(0, plus);
  if (name.find_first_of(" :[<(") != std::string::npos) return false;
  *function = name;
  return true;
}

// "[T1301] ", "[    C0] " (a caller field left in a message that came through logcat).
std::string drop_caller(const std::string& text) {
  if (text.empty() || text[0] != '[') return text;
  size_t close = text.find(']');
  if (close == std::string::npos) return text;
  std::string id = android::base::Trim(text.substr(1, close - 1));
  if (id.size() < 2 || (id[0] != 'T' && id[0] != 'C') || !number(id.substr(1))) return text;
  return text.substr(close + 1);
}

double seconds(const std::string& clock) {
  return clock.size() > 1 && clock[0] == '[' ? strtod(clock.c_str() + 1, nullptr) : -1;
}

// Whether a kernel text belongs to a dump: its start, a task line, a frame or a hung-task line.
bool dump_text(const std::string& t) {
  KernelTask task;
  std::string function;
  bool unsure = false;
  return t.find("Show Blocked State") != std::string::npos ||
         t.find("Show backtrace of all active CPUs") != std::string::npos ||
         StartsWith(t, "INFO: task ") || StartsWith(t, "CPU: ") || parse_task(t, &task) ||
         parse_frame(t, &function, &unsure);
}

// The text of a kernel line as the dump's reader takes it, its caller field dropped; from logcat -b
// kernel, the line's first word put back where logcat took it for the tag and only so it reads as
// a dump's.
std::string kernel_text(const Line& line) {
  std::string t = android::base::Trim(drop_caller(android::base::Trim(line.text)));
  if (line.kind != Line::kLogcat) return t;
  for (const std::string& joined : {line.tag + ": " + line.text, line.tag + " " + line.text}) {
    std::string j = android::base::Trim(drop_caller(joined));
    if (!dump_text(t) && dump_text(j)) t = j;
  }
  return t;
}

// The dump's last task or frame was read at the kernel clock `now`.
void seen(KernelReader* r, double now) {
  r->last_s = now;
  r->idle = 0;
}

void start_dump(KernelReader* r, const Line& line, const char* kind, double now) {
  r->dumps.emplace_back();
  r->open = static_cast<int>(r->dumps.size() - 1);
  r->task = -1;
  KernelDump& dump = r->dumps.back();
  dump.clock = line.clock;
  dump.ms = line.ms;
  dump.kind = kind;
  dump.last_boot = line.from == Line::kLastBoot;
  dump.section = line.section;
  seen(r, now);
}

constexpr const char kHung[] = "INFO: task ";

// 6.x: "INFO: task NAME:PID is blocked on a mutex likely owned by task OWNER:PID." (or "...
// <reader> blocked on an rw-semaphore likely owned by task OWNER:PID <writer>", "... blocked on a
// semaphore likely last held by task OWNER:PID"), of the task just read; the owner's own task line
// and stack follow. False for another line.
bool read_owner(KernelReader* r, const std::string& t) {
  const char* said = " likely owned by task ";
  size_t likely = t.find(said);
  if (likely == std::string::npos) likely = t.find(said = " likely last held by task ");
  if (!StartsWith(t, kHung) || likely == std::string::npos) return false;
  if (r->open >= 0 && r->task >= 0) {
    std::string owner = t.substr(likely + strlen(said));
    size_t role = owner.rfind(" <");  // " <writer>"
    if (role != std::string::npos && android::base::EndsWith(owner, ">")) owner.resize(role);
    while (!owner.empty() && (owner.back() == '.' || owner.back() == ' ')) owner.pop_back();
    r->dumps[r->open].tasks[r->task].owner = owner;
  }
  return true;
}

// A line inside a dump: a CPU's line of SysRq l, a task line, or a frame of the last task.
void read_body(KernelReader* r, const std::string& t, double now) {
  KernelDump& dump = r->dumps[r->open];
  KernelTask parsed;
  std::string function;
  unsigned cpu = 0;
  int pid = 0;
  char comm[64] = {};
  if (dump.kind == "SysRq l" &&
      sscanf(t.c_str(), "CPU: %u PID: %d Comm: %63s", &cpu, &pid, comm) == 3) {
    parsed.comm = comm;
    parsed.pid = pid;
    parsed.state = 'R';
    dump.tasks.push_back(parsed);
    r->task = static_cast<int>(dump.tasks.size() - 1);
    seen(r, now);
  } else if (dump.kind != "SysRq l" && parse_task(t, &parsed)) {
    dump.tasks.push_back(parsed);
    r->task = static_cast<int>(dump.tasks.size() - 1);
    seen(r, now);
  } else if (bool unsure = false; r->task >= 0 && parse_frame(t, &function, &unsure)) {
    dump.tasks[r->task].stack.push_back(function);
    dump.tasks[r->task].unsure.push_back(unsure);
    seen(r, now);
  }
  dump.cut = !dump.tasks.empty() && dump.tasks.back().stack.empty();
}

}  // namespace

bool scheduler_frame(const std::string& function) {
  // __switch_to, cpu_switch_to, __schedule, schedule_timeout, io_schedule, preempt_schedule_common,
  // freezable_schedule and the like, whatever the kernel's version calls them.
  std::string f = function.substr(std::min(function.find_first_not_of('_'), function.size()));
  for (const char* prefix : {"schedule", "io_schedule", "preempt_schedule", "freezable_schedule"}) {
    if (StartsWith(f, prefix)) return true;
  }
  return f.find("switch_to") != std::string::npos || f == "context_switch";
}

bool guessed_frame(const KernelTask& task, size_t i) {
  return (i < task.unsure.size() && task.unsure[i]) || task.stack[i] == "?" ||
         StartsWith(task.stack[i], "__pfx_");
}

size_t wait_frame(const KernelTask& task) {
  size_t n = task.stack.size(), i = 0;
  while (i < n && (guessed_frame(task, i) || scheduler_frame(task.stack[i]))) ++i;
  if (i < n) return i;
  // Old kernels print every frame with "?": then the first named one below the scheduler's.
  for (i = 0; i < n; ++i) {
    const std::string& f = task.stack[i];
    if (f != "?" && !StartsWith(f, "__pfx_") && !scheduler_frame(f)) return i;
  }
  return n;
}

void KernelReader::add(const Line& line) {
  if (open < 0 && line.text.find("Show Blocked State") == std::string::npos &&
      line.text.find("Show backtrace") == std::string::npos &&
      line.text.find("INFO: task ") == std::string::npos &&
      line.text.find("task:") == std::string::npos && line.tag != "task") {
    return;  // outside a dump only its start counts
  }
  std::string t = kernel_text(line);
  double now = seconds(line.clock);
  if (t.find("Show Blocked State") != std::string::npos)
    return start_dump(this, line, "SysRq w", now);
  if (t.find("Show backtrace of all active CPUs") != std::string::npos)
    return start_dump(this, line, "SysRq l", now);
  if (read_owner(this, t)) return;
  if (StartsWith(t, kHung) && t.find(" blocked for more than ") != std::string::npos) {
    // One scan of the hung-task detector reports up to ten tasks, each in turn: one dump.
    if (open < 0 || dumps[open].kind != "hung task" || now < 0 || last_s < 0 || now - last_s > 1)
      start_dump(this, line, "hung task", now);
    return seen(this, now);
  }
  KernelTask parsed;
  // A task line of 5.10 on outside any dump: a dump whose start the log lost (its oldest lines).
  if (open < 0 && StartsWith(t, "task:") && parse_task(t, &parsed))
    start_dump(this, line, "tasks, start lost", now);
  if (open < 0) return;
  if (++idle > 400 || (now >= 0 && last_s >= 0 && now - last_s > 10)) {
    open = task = -1;
    return;
  }
  read_body(this, t, now);
}

std::vector<KernelGroup> kernel_groups(const KernelDump& dump) {
  std::map<std::vector<std::string>, size_t> at;
  std::vector<KernelGroup> groups;
  for (size_t i = 0; i < dump.tasks.size(); ++i) {
    const KernelTask& task = dump.tasks[i];
    std::vector<std::string> where;
    for (size_t f = wait_frame(task); f < task.stack.size() && where.size() < 3; ++f)
      where.push_back(task.stack[f]);
    if (where.empty()) continue;
    auto it = at.emplace(where, groups.size());
    if (it.second) groups.push_back(KernelGroup{where, {}});
    groups[it.first->second].tasks.push_back(i);
  }
  std::stable_sort(groups.begin(), groups.end(), [](const KernelGroup& a, const KernelGroup& b) {
    return a.tasks.size() > b.tasks.size();
  });
  return groups;
}

}  // namespace report
