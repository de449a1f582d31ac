// stall_ward: watches chosen processes and threads for hangs, gathers evidence when one stalls
// and applies a policy when the stall persists.
#include "stall_ward.h"

#include <android-base/file.h>
#include <cutils/android_reboot.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "utils.h"

// ---------------------------------------------------------------------------------------------
// Globals. Their destructors would run in reverse order of definition; the daemon never exits.

bool debug_enabled = false;
int policy = 0;
int64_t alarm_ms = 0;
int64_t interval_ms = 0;
timespec last_check = {};
std::vector<monitor_info> monitor_list;
std::unordered_map<std::string, proc> mTids;
// The two getdents64 batch buffers: one for /proc, one for the task directory being walked.
alignas(8) static char proc_buf[kDirBatchSize];
alignas(8) static char task_buf[kDirBatchSize];
DirInfo proc_dir(proc_buf);

#ifdef __ANDROID__
const char* sysrq_trigger = "/proc/sysrq-trigger";
#else
// Host builds may redirect SysRq commands, so that tests never poke the real trigger.
const char* sysrq_trigger = [] {
  const char* path = getenv("STALL_WARD_SYSRQ_TRIGGER");
  return path != nullptr && path[0] != '\0' ? path : "/proc/sysrq-trigger";
}();
#endif

static constexpr const char* kProcDir = "/proc/";
static constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
// Android's C library reserves this real-time signal for debugger requests: the target writes a
// native dump of all its threads and carries on.
static constexpr int kDumpSignal = 35;

static int64_t elapsed_ms(const timespec& from, const timespec& to) {
  return static_cast<int64_t>(to.tv_sec - from.tv_sec) * 1000 +
         static_cast<int64_t>(to.tv_nsec - from.tv_nsec) / 1000000;
}

// ---------------------------------------------------------------------------------------------
// Start-up and the main loop.

int policy_from_text(const std::string& text) {
  for (int code : {POLICY_KILL, POLICY_REBOOT, POLICY_PANIC}) {
    if (text == kPolicyNames[code]) return code;
  }
  return POLICY_NOTHING;
}

bool stall_ward_init() {
  bool enabled = get_prop_bool(kPropEnable, false);
  if (proc_dir.fd >= 0) {
    close(proc_dir.fd);
    proc_dir.fd = -1;
    proc_dir.remain = 0;
    proc_dir.next = nullptr;
  }
  proc_dir.fd = open(kProcDir, kDirOpenFlags);
  if (proc_dir.fd < 0) {
    sw_log(Msg::kInitFailed);
    return false;
  }
  if (!enabled) return false;
  read_settings();
  signal(SIGALRM, alarm_handler);
  return true;
}

void read_settings() {
  // Debug logging is on unless the property turns it off.
  debug_enabled = get_prop_bool(kPropDebug, true);
  int timeout = get_prop_int(kPropTimeout, kDefaultTimeout);
  interval_ms = interval_for_timeout(timeout);
  alarm_ms = static_cast<int64_t>(timeout) * 1000;
  get_monitor_info();
  policy = policy_from_text(get_prop_string(kPropPolicy, ""));
}

uint64_t next_wait(int64_t cost, int64_t overrun) {
  if (interval_ms < std::max<int64_t>(cost, 1000) + overrun) return 1000;
  return static_cast<uint64_t>(interval_ms - (cost + overrun));
}

// Called on every wake-up of the main loop. The result is in milliseconds and the caller hands it
// to usleep, which counts microseconds: between sweeps the loop polls the clock with short sleeps
// and re-arms the alarm each time, while sweeps still start once per interval of real time.
uint64_t stall_wrad_check() {
  alarm(static_cast<unsigned>(alarm_ms / 1000));
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  int64_t elapsed = elapsed_ms(last_check, now);
  if (elapsed < interval_ms) return static_cast<uint64_t>(interval_ms - elapsed);
  int64_t overrun = elapsed - interval_ms;
  last_check = now;

  collect_proc_info(is_sh_available());
  scan_process_status();

  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &end);
  int64_t cost = elapsed_ms(now, end);
  if (cost >= 10001) sw_log(Msg::kLongCost, static_cast<long long>(cost));
  return next_wait(cost, overrun);
}

// The daemon's own loop has not come back for a whole timeout: ask the kernel for its dumps.
void alarm_handler(int /*sig*/) {
  sw_log(Msg::kAlarm);
  do_sys_rq("w");
  do_sys_rq("l");
}

// Weak, so that a test program linking the daemon's objects can bring its own main.
__attribute__((weak)) int main(int /*argc*/, char** /*argv*/) {
  prctl(PR_SET_DUMPABLE, 0);
  sw_log(Msg::kStarted);
  bool ready = stall_ward_init();
  sched_param param = {};
  sched_setscheduler(0, SCHED_BATCH, &param);
  if (!ready) {
    for (;;) pause();
  }
  clock_gettime(CLOCK_MONOTONIC_COARSE, &last_check);
  for (;;) usleep(static_cast<useconds_t>(stall_wrad_check()));
}

// ---------------------------------------------------------------------------------------------
// The monitor list and the process table.

void parse_monitor_list(const std::string& value, std::vector<monitor_info>* list,
                        std::unordered_map<std::string, proc>* table) {
  for (const std::string& entry : string_split(value, " ")) {
    std::vector<std::string> pieces = string_split(entry, ":");
    if (pieces.empty()) {
      sw_log(Msg::kEntryWithoutProcess, entry.c_str());
      continue;
    }
    monitor_info info{pieces.size() > 1, pieces[0], {}};
    if (!info.has_threads) {
      table->emplace(info.name, proc{});
    } else {
      for (size_t i = 1; i < pieces.size(); ++i) {
        info.threads.insert(pieces[i]);
        // One name is one record, even when two processes watch a thread of that name.
        table->emplace(pieces[i], proc{});
      }
    }
    list->push_back(std::move(info));
  }
}

void get_monitor_info() {
  parse_monitor_list(get_prop_string(kPropProcesses, kDefaultProcesses), &monitor_list, &mTids);
  if (!debug_enabled) return;
  for (const monitor_info& info : monitor_list) {
    if (info.has_threads) {
      sw_log(Msg::kMonitorThreads, info.name.c_str());
      for (const std::string& thread : info.threads) sw_log(Msg::kListItem, thread.c_str());
    } else {
      sw_log(Msg::kMonitorMain, info.name.c_str());
    }
  }
  sw_log(Msg::kRecordsFollow);
  for (const auto& entry : mTids) sw_log(Msg::kListItem, entry.first.c_str());
}

proc* proc_lookup(const char* name) {
  auto it = mTids.find(std::string(name));
  if (it == mTids.end()) {
    sw_log(Msg::kNotInList, name);
    return nullptr;
  }
  sw_log(Msg::kFindRecord, name);
  return &it->second;
}

// ---------------------------------------------------------------------------------------------
// Thread readers.

// Reads a whole file into content without following symbolic links; an unreadable file reads
// as empty. content keeps its capacity from one read to the next.
static void read_file(const std::string& path, std::string* content) {
  if (!android::base::ReadFileToString(path, content, false)) {
    sw_log(Msg::kReadFailed, path.c_str());
    content->clear();
  }
}

static std::string read_file(const std::string& path) {
  std::string content;
  read_file(path, &content);
  return content;
}

// The text up to the first blank, tab, line end or NUL.
static std::string first_word(const std::string& text) {
  static constexpr char kEnds[] = " \t\r\n";  // with its NUL: five characters
  return text.substr(0, text.find_first_of(kEnds, 0, sizeof(kEnds)));
}

// The sweep reads one command line per process: the path and the content are built in buffers
// reused from call to call, so that no read allocates.
std::string get_proc_name(std::string id) {
  static std::string path, content;
  path.assign("/proc/").append(id).append("/cmdline");
  read_file(path, &content);
  return first_word(content);
}

// Cuts at the first blank like get_proc_name: a thread named "Jit thread pool" reads as "Jit",
// whereas get_stat keeps the whole name from stat.
std::string get_comm(std::string task_path) {
  static std::string content;
  read_file(task_path.append("/comm"), &content);
  return first_word(content);
}

std::string command_base_name(const std::string& name) {
  // The last of the non-empty pieces between slashes, when there are two or more of them.
  size_t end = name.find_last_not_of('/');
  if (end == std::string::npos) return name;
  size_t slash = name.rfind('/', end);
  if (slash == std::string::npos) return name;
  bool earlier_piece = name.find_first_not_of('/') < slash;
  return earlier_piece ? name.substr(slash + 1, end - slash) : name;
}

int parse_stat(const std::string& content, stat_fields* out) {
  return sscanf(content.c_str(), "%u (%16[^)]) %c %u %*d %*d %*d %*d %*d %*d %*d %*d %*d %u %u",
                &out->tid, out->comm, &out->state, &out->ppid, &out->utime, &out->stime);
}

int parse_schedstat(const std::string& content, unsigned long long* count) {
  return sscanf(content.c_str(), "%*d %*d %llu", count);
}

bool in_frozen_cgroup(const std::string& content) {
  return content.find(":freezer:/frozen") != std::string::npos;
}

void get_schedstat(proc* rec, const std::string& task_path) {
  std::string content = read_file(task_path + "/schedstat");
  if (content.empty()) {
    sw_log(Msg::kSchedstatFailed, task_path.c_str());
    return;
  }
  unsigned long long count = ~0ULL;
  int matched = parse_schedstat(content, &count);
  if (matched == 1 && count != 0 && count != ~0ULL && count != rec->switches) {
    rec->switches = count;
    rec->stuck_ms = 0;
    rec->reported = false;
  }
  sw_log(Msg::kSwitches, static_cast<unsigned long>(rec->switches));
}

static void rebind(proc* rec) {
  rec->switches = 0;
  rec->stuck_ms = 0;
  rec->state = '?';
  rec->cmd.clear();
  rec->valid = rec->reported = rec->frozen = rec->is_app = false;
  memset(rec->comm, 0, sizeof(rec->comm));
}

void get_stat(pid_info* info, std::string task_path) {
  std::string content = read_file(task_path + "/stat");
  if (content.empty()) {
    sw_log(Msg::kStatFailed);
    return;
  }
  stat_fields f;
  int matched = parse_stat(content, &f);
  sw_log(Msg::kStatSample, matched, f.tid, f.comm, f.state, f.ppid, f.utime, f.stime);
  if (matched != 6) {
    sw_log(Msg::kStatMismatch);
    return;
  }
  const unsigned tid = f.tid, ppid = f.ppid;
  const char state = f.state;
  proc* rec = proc_lookup(f.comm);
  if (rec == nullptr) return;

  if (!rec->valid || rec->tid != tid) {
    rebind(rec);
    rec->valid = true;
    memcpy(rec->comm, f.comm, sizeof(rec->comm) - 1);
    rec->tid = tid;
    rec->ppid = ppid;
    rec->cmd = get_proc_name(std::to_string(tid));
    sw_log(Msg::kRebind, rec->tid, rec->comm, rec->cmd.c_str());
  }
  rec->updated = true;
  // The parent's name is read afresh each time, from the ppid recorded at the bind.
  rec->is_app = is_zygote(get_proc_name(std::to_string(static_cast<int32_t>(rec->ppid))));
  if (info != nullptr && static_cast<uint32_t>(info->tid) == tid) {
    rec->pid = static_cast<uint32_t>(info->pid);
  }
  rec->frozen = in_frozen_cgroup(read_file(task_path + "/cgroup"));

  uint32_t cpu_time = f.utime + f.stime;
  if (rec->cpu_time != cpu_time) rec->state = '?';
  rec->cpu_time = cpu_time;
  if (rec->state != state) {
    rec->stuck_ms = 0;
    rec->reported = false;
    rec->state = state;
  } else {
    rec->stuck_ms += interval_ms;
  }

  // Ordinary threads are expected to sleep; an app thread (the runtime's main and watchdog
  // threads among them) sleeping for a whole timeout is a hang too.
  bool watched = state == 'D' || state == 'Z' || (rec->is_app && state == 'S');
  if (watched) {
    get_schedstat(rec, task_path);
  } else {
    rec->stuck_ms = 0;
    sw_log(Msg::kNotWatchedState, state);
  }
}

void read_stat_with_proc(pid_info* info) {
  if (info == nullptr) {
    sw_log(Msg::kNoInfo);
    return;
  }
  char path[1024] = {};
  snprintf(path, sizeof(path), kTaskPathFormat, info->pid, info->tid);
  sw_log(Msg::kReading, path);
  get_stat(info, path);
}

// ---------------------------------------------------------------------------------------------
// The collection sweep.

DirInfo::~DirInfo() {
  if (fd >= 0) close(fd);
}

bool DirInfo::refill() {
  long n;
  do {
    n = syscall(SYS_getdents64, fd, buf, kDirBatchSize);
  } while (n == -1 && errno == EINTR);
  if (n <= 0) return false;
  remain = static_cast<uint64_t>(n);
  next = reinterpret_cast<const linux_dirent64*>(buf);
  return true;
}

const linux_dirent64* DirInfo::next_entry() {
  if (fd < 0) return nullptr;
  if (remain == 0 && !refill()) return nullptr;
  const linux_dirent64* entry = next;
  remain -= entry->d_reclen;
  next = reinterpret_cast<const linux_dirent64*>(reinterpret_cast<const char*>(entry) +
                                                 entry->d_reclen);
  return entry;
}

void DirInfo::close_dir() {
  // Rewound before the close, as the daemon has always done.
  if (fd >= 0) {
    lseek(fd, 0, SEEK_SET);
    remain = 0;
    next = nullptr;
  }
  if (fd >= 0) {
    close(fd);
    remain = 0;
    next = nullptr;
    fd = -1;
  }
}

bool get_valid_tid_dir(const linux_dirent64* entry, std::string* path) {
  if (entry->d_name[0] < '0' || entry->d_name[0] > '9') return false;
  if (entry->d_type == DT_DIR) {
    path->assign(kProcDir).append(entry->d_name);
    return true;
  }
  if (entry->d_type != DT_UNKNOWN) return false;
  path->assign(kProcDir).append(entry->d_name);
  struct stat st = {};
  // Only the directory bit of the mode is tested, not the whole file-type field.
  return lstat(path->c_str(), &st) == 0 && (st.st_mode & 0x4000) != 0;
}

// Walks the task directory of one matched process (whose /proc record is proc_entry) and samples
// each thread that carries a monitored name.
static void walk_tasks(pid_info* info, const monitor_info& matched,
                       const linux_dirent64* proc_entry, const std::string& proc_path) {
  DirInfo task_dir(task_buf);
  std::string task_dir_path = proc_path + "/task/";
  task_dir.fd = open(task_dir_path.c_str(), kDirOpenFlags);
  if (task_dir.fd < 0) {
    sw_log(Msg::kTaskDirFailed, task_dir_path.c_str());
    return;
  }
  // When the first batch cannot be read, the process's own /proc record is looked at once as if
  // it were a thread record, so the main thread is still compared with the monitored names.
  const linux_dirent64* entry = proc_entry;
  if (task_dir.refill()) entry = task_dir.next_entry();
  std::string scratch;
  do {
    if (!get_valid_tid_dir(entry, &scratch)) continue;
    std::string task_path = task_dir_path + entry->d_name;
    std::string comm = get_comm(task_path);
    if (matched.threads.count(comm) == 0) continue;
    sw_log(Msg::kCheckThread, task_path.c_str());
    info->tid = atoi(entry->d_name);
    get_stat(info, task_path);
  } while ((entry = task_dir.next_entry()) != nullptr);

  for (const std::string& name : matched.threads) {
    proc* rec = proc_lookup(name.c_str());
    if (rec == nullptr || rec->updated) continue;
    rec->pid = static_cast<uint32_t>(info->pid);
    rec->stuck_ms += interval_ms;
    sw_log(Msg::kThreadNotStarted, name.c_str());
  }
  // task_dir closes its descriptor here.
}

// The first monitor entry for a process name; later entries of the same name are not used.
static const monitor_info* first_entry_named(const std::string& name) {
  for (const monitor_info& entry : monitor_list) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

static void walk_proc(pid_info* info) {
  sw_log(Msg::kProcWalk);
  if (proc_dir.fd < 0) {
    proc_dir.fd = open(kProcDir, kDirOpenFlags);
    if (proc_dir.fd < 0) {
      sw_log(Msg::kProcDirFailed, kProcDir);
      return;
    }
  }
  std::string proc_path;
  for (const linux_dirent64* entry = proc_dir.next_entry(); entry != nullptr;
       entry = proc_dir.next_entry()) {
    if (!get_valid_tid_dir(entry, &proc_path)) continue;
    std::string name = get_proc_name(entry->d_name);  // empty for kernel threads and the gone
    if (name.empty()) continue;
    const monitor_info* matched = first_entry_named(command_base_name(name));
    if (matched == nullptr) continue;
    sw_log(Msg::kFoundProcess, entry->d_name, matched->name.c_str());
    info->pid = atoi(entry->d_name);
    if (!matched->has_threads) {
      info->tid = info->pid;
      get_stat(info, proc_path + "/task/" + entry->d_name);
    } else {
      walk_tasks(info, *matched, entry, proc_path);
    }
  }
  proc_dir.close_dir();
  sw_log(Msg::kProcWalkEnd);
}

// An absent thread of a running process, found through ps: the record is bound to that process
// (with no thread) and its stall count advances.
static void count_absent_thread(const pid_info& info, const std::string& thread_name) {
  proc* rec = proc_lookup(thread_name.c_str());
  if (rec == nullptr) return;
  if (!rec->valid || rec->pid != static_cast<uint32_t>(info.pid)) {
    rebind(rec);
    rec->tid = static_cast<uint32_t>(info.tid);
    rec->pid = static_cast<uint32_t>(info.pid);
    rec->ppid = static_cast<uint32_t>(info.ppid);
    rec->valid = true;
    rec->cmd = get_proc_name(std::to_string(info.pid));
  }
  rec->is_app = is_zygote(get_proc_name(std::to_string(static_cast<int32_t>(rec->ppid))));
  rec->stuck_ms += interval_ms;
}

// The shell way. The one pid_info is shared by all entries and ps leaves it alone for a process
// that is not running, so such an entry works on what the last found process left there.
static void find_with_shell(pid_info* info) {
  for (const monitor_info& entry : monitor_list) {
    if (!entry.has_threads) {
      sh_find_proc(info, entry.name, "");
      if (info->pid != -1) read_stat_with_proc(info);
      continue;
    }
    for (const std::string& thread : entry.threads) {
      sh_find_proc(info, entry.name, thread);
      if (info->pid == -1) break;
      if (info->tid != -1) {
        read_stat_with_proc(info);
      } else {
        count_absent_thread(*info, thread);
      }
    }
  }
}

void collect_proc_info(bool use_shell) {
  pid_info info = {-1, -1, -1};
  if (use_shell) {
    find_with_shell(&info);
  } else {
    walk_proc(&info);
  }
}

// ---------------------------------------------------------------------------------------------
// The frozen-thread scan and the policy actions.

// Judges every record after a sweep. The first time a stall reaches the timeout, evidence is
// gathered: kernel dumps for a thread stuck in the kernel (D) or dead (Z), dumps inside the
// process for a thread asleep in user space (S) or never found. If the stall then lasts another
// whole timeout, the policy is applied, and again at each further timeout without progress.
void scan_process_status() {
  for (auto& entry : mTids) {
    proc& rec = entry.second;
    if (rec.frozen) {
      sw_log(Msg::kFrozen, rec.comm);
      continue;
    }
    if (rec.pid == kNoId) {
      sw_log(Msg::kProcessNotStarted, entry.first.c_str());
      continue;
    }
    if (rec.stuck_ms < alarm_ms) continue;
    rec.stuck_ms = 0;

    bool thread_level = false;
    if (rec.updated && rec.tid != kNoId) {
      if (rec.state == 'D' || rec.state == 'Z') {
        thread_level = true;
      } else if (rec.state != 'S') {
        continue;
      }
    }
    if (thread_level) {
      if (rec.reported) {
        // A zombie cannot be acted on itself: its parent is.
        handle_policy(static_cast<int>(rec.state == 'Z' ? rec.ppid : rec.pid));
        continue;
      }
      if (rec.state == 'Z') kill(static_cast<pid_t>(rec.ppid), kDumpSignal);
      do_sys_rq("w");
      do_sys_rq("l");
      usleep(kDumpPauseUs);
      rec.reported = true;
      sw_log(Msg::kDumpedThread, rec.pid, rec.state);
      continue;
    }
    if (rec.reported) {
      handle_policy(static_cast<int>(rec.pid));
      continue;
    }
    if (rec.is_app) {
      // The app runtime answers SIGQUIT with its threads' stack traces; give it time to write them.
      kill(static_cast<pid_t>(rec.pid), SIGQUIT);
      usleep(kDumpPauseUs);
    }
    kill(static_cast<pid_t>(rec.pid), kDumpSignal);  // the pid is read again after the pause
    sw_log(Msg::kDumped, rec.pid);
    rec.reported = true;
  }
}

void do_sys_rq(const char* command) {
  // Runs in the SIGALRM handler too: a local descriptor and plain system calls only.
  int fd = open(sysrq_trigger, O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    sw_log(Msg::kSysrqFailed);
    return;
  }
  // The terminating NUL goes to the kernel too.
  while (write(fd, command, strlen(command) + 1) == -1 && errno == EINTR) {
  }
  close(fd);
}

void handle_policy(int pid) {
  if (policy == POLICY_PANIC) {
    sw_log(Msg::kPolicyPanic);
    do_sys_rq("w");
    do_sys_rq("l");
    usleep(kDumpPauseUs);
    do_sys_rq("c");
  } else if (policy == POLICY_REBOOT) {
    sw_log(Msg::kPolicyReboot);
    android_reboot(ANDROID_RB_RESTART2, 0, LOG_TAG);
  } else if (policy != POLICY_KILL) {
    sw_log(Msg::kPolicyNothing);
  } else {
    sw_log(Msg::kPolicyKill, static_cast<unsigned>(pid));
    kill(pid, SIGKILL);
  }
}
