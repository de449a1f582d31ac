// The daemon's records, globals and operations, declared for its entry point and its tests.
#pragma once

#include <stdint.h>
#include <time.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// One entry of persist.vendor.sw.processes: a process and the threads watched in it.
struct monitor_info {
  bool has_threads;  // false: the process's main thread is watched
  std::string name;
  std::unordered_set<std::string> threads;
};

constexpr uint32_t kNoId = UINT32_MAX;
// The pause after asking for evidence, before the next step: after SIGQUIT (before signal 35 and
// the "dumped" line), and after the SysRq dumps.
constexpr uint32_t kDumpPauseUs = 3000000;
// The kernel keeps this many bytes of a thread's name (comm); a longer name is cut.
constexpr size_t kCommMax = 15;

// What the daemon remembers about one monitored name (a thread name, or a process name when the
// main thread is watched). Records are created at start-up and updated in place ever after.
struct proc {
  uint32_t tid = kNoId;
  uint32_t pid = kNoId;  // kNoId: the process has not been found
  uint32_t ppid = kNoId;
  uint64_t switches = 0;  // third number of schedstat
  uint32_t cpu_time = 0;  // utime + stime; the first sample overwrites it
  int64_t stuck_ms = 0;   // time without progress
  std::string cmd;
  char state = '?';
  char comm[kCommMax + 1] = {};
  // Set by the first successful sample and never cleared. A new record starts false, so the
  // /proc walk counts a monitored thread that has never been seen as not started.
  bool updated = false;
  bool valid = false;
  bool reported = false;  // evidence was gathered for the current stall
  bool frozen = false;    // the process sits in the cgroup freezer
  bool is_app = false;    // the parent is zygote or zygote64
};

// The thread a sweep wants sampled; -1 when unknown.
struct pid_info {
  int32_t tid;
  int32_t pid;
  int32_t ppid;
};

// The kernel's record in a getdents64 batch.
struct linux_dirent64 {
  uint64_t d_ino;
  int64_t d_off;
  uint16_t d_reclen;
  uint8_t d_type;
  char d_name[];
};

constexpr size_t kDirBatchSize = 4200;

// An open directory read in raw getdents64 batches into a static buffer of kDirBatchSize bytes.
class DirInfo {
 public:
  explicit DirInfo(char* batch) : buf(batch) {}
  ~DirInfo();
  DirInfo(const DirInfo&) = delete;
  DirInfo& operator=(const DirInfo&) = delete;

  // The next record, reading a new batch when the current one is used up; null at the end of the
  // directory or on an error.
  const linux_dirent64* next_entry();
  // Reads a batch; false at the end of the directory or on an error (EINTR is retried).
  bool refill();
  // Rewinds and closes the descriptor.
  void close_dir();

  int fd = -1;
  uint64_t remain = 0;
  const linux_dirent64* next = nullptr;
  char* const buf;
};

extern bool debug_enabled;
extern int policy;
extern int64_t alarm_ms;
extern int64_t interval_ms;
extern timespec last_check;
extern std::vector<monitor_info> monitor_list;
extern std::unordered_map<std::string, proc> mTids;
extern DirInfo proc_dir;
// Where SysRq commands go: /proc/sysrq-trigger, or on a host the file named by
// STALL_WARD_SYSRQ_TRIGGER. Decided before main; the SIGALRM handler only reads it.
extern const char* sysrq_trigger;

// The properties, read once at start-up, and their defaults. The platform keeps a value of at
// most PROPERTY_VALUE_MAX - 1 bytes (<cutils/properties.h>).
constexpr const char* kPropPrefix = "persist.vendor.sw.";
constexpr const char* kPropEnable = "persist.vendor.sw.enable";  // default false
constexpr const char* kPropDebug = "persist.vendor.sw.debug";    // default true
constexpr const char* kPropTimeout = "persist.vendor.sw.timeout";
constexpr int kDefaultTimeout = 120;                             // seconds
constexpr const char* kPropPolicy = "persist.vendor.sw.policy";  // default empty: nothing
constexpr const char* kPropProcesses = "persist.vendor.sw.processes";
constexpr const char* kDefaultProcesses = "system_server:watchdog surfaceflinger";
// Every property the daemon reads; another key under kPropPrefix is read by nobody.
constexpr const char* kProperties[] = {kPropEnable, kPropDebug, kPropTimeout, kPropPolicy,
                                       kPropProcesses};

enum : int { POLICY_KILL = 0, POLICY_REBOOT = 1, POLICY_PANIC = 2, POLICY_NOTHING = 3 };
// The policy texts, by code. Only the exact texts of the first three act.
constexpr const char* kPolicyNames[] = {"kill", "reboot", "panic", "nothing"};

// The time between sweeps, in ms, for a timeout of timeout_s seconds: a quarter of it, at least
// 30 s.
inline int64_t interval_for_timeout(int64_t timeout_s) {
  int64_t interval = timeout_s * 250;
  if (interval < 30000) interval = 30000;
  return interval;
}
// Whether a parent's command name (the first word of its command line, whole) makes its children
// apps, whose sleeping threads count as stalled.
inline bool is_zygote(const std::string& name) {
  return name == "zygote" || name == "zygote64";
}

bool stall_ward_init();
// Reads every setting after the enable flag, in start-up's order: debug, the timeout with the
// interval and alarm derived from it, the monitor list and records, the policy.
void read_settings();
uint64_t stall_wrad_check();
// The value stall_wrad_check hands to usleep after a sweep, from the sweep's cost and how late it
// started (both ms).
uint64_t next_wait(int64_t cost, int64_t overrun);
void alarm_handler(int sig);
int policy_from_text(const std::string& text);

// The values a thread's stat line gives, before parsing at their starting values.
struct stat_fields {
  unsigned tid = ~0U;
  char comm[17] = {};  // up to 16 characters other than ')'
  char state = '?';
  unsigned ppid = ~0U, utime = ~0U, stime = ~0U;
};

// The pure parsers of what the daemon reads; each returns what the C library's formatted input
// returns (the match count, or EOF for empty text).
int parse_stat(const std::string& content, stat_fields* out);
int parse_schedstat(const std::string& content, unsigned long long* count);  // the third number
bool in_frozen_cgroup(const std::string& content);
// Appends the entries of a processes value to list, and a new record to table for each name not
// there yet.
void parse_monitor_list(const std::string& value, std::vector<monitor_info>* list,
                        std::unordered_map<std::string, proc>* table);

void get_monitor_info();
proc* proc_lookup(const char* name);

std::string get_proc_name(std::string id);
std::string get_comm(std::string task_path);
// The last of the non-empty pieces of a command name split at '/', when there are two or more:
// /system/bin/foo is compared as foo; foo, /foo and foo/ stay as they are.
std::string command_base_name(const std::string& name);
void get_schedstat(proc* rec, const std::string& task_path);
void get_stat(pid_info* info, std::string task_path);
void read_stat_with_proc(pid_info* info);

bool get_valid_tid_dir(const linux_dirent64* entry, std::string* path);
void collect_proc_info(bool use_shell);

void scan_process_status();
void do_sys_rq(const char* command);
void handle_policy(int pid);
