// What one sweep of the daemon costs, measured in one run against the least any implementation
// could do (a syscall floor) and against the commands a user would reach for, alternating between
// contenders every round so that drift of the machine cancels out. Then the idle cost of the real
// daemon against a loop that only paces, and its resident memory after 1,000 sweeps.
//
//   sweep_bench [--quick] [--data FILE]      (run it as root: it starts thousands of processes)
//   sweep_bench --pace-loop                  (the idle floor: alarm, coarse clock, sleep)
//   sweep_bench --profile N                  (N daemon sweeps of this machine, for a profiler)
#include <android-base/file.h>
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "stall_ward.h"
#include "utils.h"

namespace {

constexpr const char* kName = "system_server";
constexpr const char* kThread = "watchdog";

int64_t ns(clockid_t clock) {
  timespec ts = {};
  clock_gettime(clock, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t children_cpu_ns() {
  rusage ru = {};
  getrusage(RUSAGE_CHILDREN, &ru);
  return (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000000LL +
         (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1000LL;
}

// ---------------------------------------------------------------------------------------------
// The floor: the same processes, threads and files as a sweep, with raw system calls into
// static buffers and no allocation at all.

alignas(8) char dir_buf[4200];
alignas(8) char task_buf[4200];
char file_buf[4096];

ssize_t read_raw(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return -1;
  ssize_t n = read(fd, file_buf, sizeof(file_buf) - 1);
  close(fd);
  file_buf[n > 0 ? n : 0] = '\0';
  return n;
}

// The same reads through android::base::ReadFileToString, as the daemon must read: one fstat per
// file and one more read per non-empty file than the raw floor.
ssize_t read_through_libbase(const char* path) {
  static std::string content;
  if (!android::base::ReadFileToString(path, &content, false)) return -1;
  size_t n = std::min(content.size(), sizeof(file_buf) - 1);
  memcpy(file_buf, content.data(), n);
  file_buf[n] = '\0';
  return static_cast<ssize_t>(n);
}

ssize_t (*read_small)(const char*) = read_raw;

void floor_sweep() {
  int dir = open("/proc/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  char path[64];
  for (long n; (n = syscall(SYS_getdents64, dir, dir_buf, sizeof(dir_buf))) > 0;) {
    for (long off = 0; off < n;) {
      auto* d = reinterpret_cast<linux_dirent64*>(dir_buf + off);
      off += d->d_reclen;
      if (d->d_name[0] < '0' || d->d_name[0] > '9') continue;
      snprintf(path, sizeof(path), "/proc/%s/cmdline", d->d_name);
      if (read_small(path) <= 0) continue;
      const char* base = strrchr(file_buf, '/');
      if (strcmp(base != nullptr ? base + 1 : file_buf, kName) != 0) continue;
      snprintf(path, sizeof(path), "/proc/%s/task/", d->d_name);
      int task = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      for (long m; (m = syscall(SYS_getdents64, task, task_buf, sizeof(task_buf))) > 0;) {
        for (long toff = 0; toff < m;) {
          auto* t = reinterpret_cast<linux_dirent64*>(task_buf + toff);
          toff += t->d_reclen;
          if (t->d_name[0] < '0' || t->d_name[0] > '9') continue;
          snprintf(path, sizeof(path), "/proc/%s/task/%s/comm", d->d_name, t->d_name);
          if (read_small(path) <= 0 || strcmp(file_buf, "watchdog\n") != 0) continue;
          snprintf(path, sizeof(path), "/proc/%s/task/%s/stat", d->d_name, t->d_name);
          read_small(path);
          unsigned ppid = 0;
          const char* close_paren = strrchr(file_buf, ')');
          if (close_paren != nullptr) sscanf(close_paren + 2, "%*c %u", &ppid);
          snprintf(path, sizeof(path), "/proc/%u/cmdline", ppid);
          read_small(path);
          snprintf(path, sizeof(path), "/proc/%s/task/%s/cgroup", d->d_name, t->d_name);
          read_small(path);
          snprintf(path, sizeof(path), "/proc/%s/task/%s/schedstat", d->d_name, t->d_name);
          read_small(path);
        }
      }
      close(task);
    }
  }
  close(dir);
}

// ---------------------------------------------------------------------------------------------
// Processes: the monitored stand-in, sleepers to grow the process table, and commands.

pid_t spawn(const std::vector<std::string>& argv, const std::string& program = "",
            const std::vector<std::string>& env = {}, bool quiet = true) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;  // the environment, with env's keys replaced
  for (char** e = environ; *e != nullptr; ++e) {
    std::string key = std::string(*e).substr(0, std::string(*e).find('=') + 1);
    if (std::none_of(env.begin(), env.end(), [&](auto& v) { return v.rfind(key, 0) == 0; })) {
      envp.push_back(*e);
    }
  }
  for (const std::string& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (quiet) {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  pid_t pid = -1;
  const std::string& exe = program.empty() ? argv[0] : program;
  if (posix_spawnp(&pid, exe.c_str(), &actions, nullptr, args.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

void run(const std::vector<std::string>& argv) {
  pid_t pid = spawn(argv);
  if (pid > 0) waitpid(pid, nullptr, 0);
}

std::vector<pid_t> sleepers;

void grow_to(size_t extra) {
  while (sleepers.size() < extra) {
    pid_t pid = fork();
    if (pid == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (;;) pause();
    }
    if (pid < 0) {
      perror("fork");
      exit(1);
    }
    sleepers.push_back(pid);
  }
}

void end_sleepers() {
  for (pid_t pid : sleepers) kill(pid, SIGKILL);
  for (pid_t pid : sleepers) waitpid(pid, nullptr, 0);
  sleepers.clear();
}

// ---------------------------------------------------------------------------------------------
// Measuring.

struct Contender {
  const char* name;
  std::function<void()> run;
  std::vector<double> wall_us, cpu_us;
};

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void measure(std::vector<Contender>& contenders, int rounds) {
  for (int r = 0; r < rounds; ++r) {
    for (size_t i = 0; i < contenders.size(); ++i) {
      Contender& c = contenders[(i + r) % contenders.size()];  // a new order every round
      int64_t wall = ns(CLOCK_MONOTONIC), cpu = ns(CLOCK_PROCESS_CPUTIME_ID) + children_cpu_ns();
      c.run();
      c.wall_us.push_back((ns(CLOCK_MONOTONIC) - wall) / 1e3);
      c.cpu_us.push_back((ns(CLOCK_PROCESS_CPUTIME_ID) + children_cpu_ns() - cpu) / 1e3);
    }
  }
}

// CPU time a process has used, in nanoseconds (the first field of its schedstat).
int64_t process_cpu_ns(pid_t pid) {
  std::string path = "/proc/" + std::to_string(pid) + "/schedstat";
  if (read_small(path.c_str()) <= 0) return -1;
  return strtoll(file_buf, nullptr, 10);
}

// A number from /proc/<pid>/status, or a kB figure of its memory as a device counts it
// (proportional and private resident memory, beside the resident size shared libraries inflate).
long file_field(pid_t pid, const char* file, const char* key) {
  std::string path = "/proc/" + std::to_string(pid) + "/" + file;
  if (read_small(path.c_str()) <= 0) return -1;
  const char* at = strstr(file_buf, key);
  return at != nullptr ? strtol(at + strlen(key), nullptr, 10) : -1;
}
long status_field(pid_t pid, const char* key) {
  return file_field(pid, "status", key);
}
long smaps_rollup_kib(pid_t pid, const char* key) {
  return file_field(pid, "smaps_rollup", key);
}

std::string write_props(const std::string& content) {
  char path[] = "/tmp/sweep_bench.props.XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0 || write(fd, content.data(), content.size()) < 0) exit(1);
  close(fd);
  return path;
}

// The daemon's main loop without the sweeps: what pacing alone costs at the daemon's rate.
[[noreturn]] void pace_loop() {
  const int64_t interval_ms = 30000;
  timespec last = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &last);
  for (;;) {
    alarm(120);
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    int64_t elapsed = (now.tv_sec - last.tv_sec) * 1000 + (now.tv_nsec - last.tv_nsec) / 1000000;
    if (elapsed >= interval_ms) last = now;
    usleep(static_cast<useconds_t>(elapsed >= interval_ms ? interval_ms : interval_ms - elapsed));
  }
}

// The contenders of one round: the daemon's walk, the floors, the commands a user would run, and
// the daemon's shell way with the commands it runs.
std::vector<Contender> contenders(const std::string& pid, const std::string& android_path,
                                  const std::string& plain_path) {
  auto with_android_ps = [=](std::function<void()> f) {
    return [=] {
      setenv("PATH", android_path.c_str(), 1);
      f();
      setenv("PATH", plain_path.c_str(), 1);
    };
  };
  auto sweep = [](bool shell) {
    return [shell] {
      collect_proc_info(shell);
      scan_process_status();
    };
  };
  return {
      {"daemon", sweep(false), {}, {}},
      {"floor", floor_sweep, {}, {}},
      {"readfile floor",
       [] {
         read_small = read_through_libbase;
         floor_sweep();
         read_small = read_raw;
       },
       {},
       {}},
      {"pgrep",
       [] {
         run({"pgrep", "-x", kName});
       },
       {},
       {}},
      {"psgrep",
       [] {
         run({"sh", "-c", std::string("ps -e | grep ") + kName});
       },
       {},
       {}},
      {"shell", with_android_ps(sweep(true)), {}, {}},
      {"commands",
       with_android_ps([pid] {
         run({"sh", "-c", std::string("ps -e|grep ") + kName});
         run({"sh", "-c", "ps -T -p " + pid + " |grep " + kThread});
       }),
       {},
       {}},
  };
}

struct Ratios {
  std::vector<double> walk, readfile;
};

// One table row per thread count and number of extra processes; the 2-thread rows also go to the
// plot's data file and to the ratios of the summary line.
bool sweep_table(bool quick, const std::string& data_path, Ratios& ratios) {
  FILE* data = fopen(data_path.c_str(), "w");
  if (data == nullptr) {
    perror(data_path.c_str());
    return false;
  }
  fprintf(data, "# extra daemon_us floor_us pgrep_us psgrep_us (2 threads, CPU per sweep)\n");
  printf(
      "| threads | extra processes | daemon walk | floor | readfile floor | pgrep -x | "
      "ps -e \\| grep | daemon/floor | daemon/readfile floor | pgrep/daemon | shell sweep | "
      "its commands |\n");
  printf("|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  const std::string plain_path = getenv("PATH"), android_path = ANDROID_PS_DIR ":" + plain_path;
  for (int threads : {2, 50}) {
    std::vector<std::string> stand_in = {std::string("/system/bin/") + kName, "--thread",
                                         std::string(kThread) + ":S"};
    for (int t = 1; t < threads; ++t) stand_in.insert(stand_in.end(), {"--thread", "binder:S"});
    pid_t monitored = spawn(stand_in, STAND_IN_PATH);
    usleep(300000);
    for (size_t extra : {0, 1000, 5000}) {
      grow_to(extra);
      std::vector<Contender> c = contenders(std::to_string(monitored), android_path, plain_path);
      measure(c, quick ? 5 : (extra == 0 ? 200 : extra == 1000 ? 60 : 25));
      double daemon = median(c[0].cpu_us), floor = median(c[1].cpu_us);
      double readfile = median(c[2].cpu_us), pgrep = median(c[3].cpu_us);
      double psgrep = median(c[4].cpu_us);
      printf(
          "| %d | %zu | %.0f µs | %.0f µs | %.0f µs | %.0f µs | %.0f µs | %.2f | %.2f | %.1f | "
          "%.0f µs | %.0f µs |\n",
          threads, extra, daemon, floor, readfile, pgrep, psgrep, daemon / floor, daemon / readfile,
          pgrep / daemon, median(c[5].wall_us), median(c[6].wall_us));
      fflush(stdout);
      if (threads != 2) continue;
      ratios.walk.push_back(daemon / floor);
      ratios.readfile.push_back(daemon / readfile);
      fprintf(data, "%zu %.1f %.1f %.1f %.1f\n", extra, daemon, floor, pgrep, psgrep);
    }
    end_sleepers();
    kill(monitored, SIGKILL);
    waitpid(monitored, nullptr, 0);
  }
  fclose(data);
  return true;
}

struct Idle {
  double daemon_ms, floor_ms, wakeups;
};

// Idle: the real daemon with nothing to find beside the pacing floor, side by side.
Idle idle_cost(bool quick, const char* self) {
  int seconds = quick ? 10 : 60;
  std::string props = write_props(
      "persist.vendor.sw.enable=1\npersist.vendor.sw.debug=0\n"
      "persist.vendor.sw.processes=nothing_runs_here\n");
  pid_t daemon = spawn({STALL_WARD_PATH}, "",
                       {"STALL_WARD_PROPERTIES=" + props, "STALL_WARD_SYSRQ_TRIGGER=/dev/null"});
  pid_t pacer = spawn({self, "--pace-loop"});
  usleep(200000);
  int64_t d0 = process_cpu_ns(daemon), p0 = process_cpu_ns(pacer);
  long w0 = status_field(daemon, "voluntary_ctxt_switches:");
  sleep(static_cast<unsigned>(seconds));
  int64_t d1 = process_cpu_ns(daemon), p1 = process_cpu_ns(pacer);
  Idle idle = {
      (d1 - d0) / 1e6, (p1 - p0) / 1e6,
      static_cast<double>(status_field(daemon, "voluntary_ctxt_switches:") - w0) / seconds};
  for (pid_t p : {daemon, pacer}) kill(p, SIGKILL), waitpid(p, nullptr, 0);
  printf(
      "\nidle over %d s: daemon %.1f ms CPU (%.1f ms a second), %.1f wake-ups a second; "
      "pacing floor %.1f ms CPU, ratio %.2f\n",
      seconds, idle.daemon_ms, idle.daemon_ms / seconds, idle.wakeups, idle.floor_ms,
      idle.daemon_ms / idle.floor_ms);
  return idle;
}

// How many sweeps the daemon's log shows so far.
int sweeps_logged(const std::string& log) {
  FILE* f = fopen(log.c_str(), "r");
  int sweeps = 0;
  for (char line[512]; f != nullptr && fgets(line, sizeof(line), f) != nullptr;) {
    sweeps += strstr(line, "stall_ward: close proc") != nullptr;
  }
  if (f != nullptr) fclose(f);
  return sweeps;
}

struct Memory {
  long pss_kib, private_kib;
};

// Resident memory after 1,000 sweeps, time sped up 1000-fold so that they take seconds.
Memory memory_after_sweeps(bool quick) {
  std::string log = "/tmp/sweep_bench.daemon.log";
  std::string props = write_props("persist.vendor.sw.enable=1\n");
  pid_t fast = spawn({"sh", "-c", std::string("exec ") + STALL_WARD_PATH + " 2>" + log}, "",
                     {"STALL_WARD_PROPERTIES=" + props, "STALL_WARD_SYSRQ_TRIGGER=/dev/null",
                      std::string("LD_PRELOAD=") + FAKETIME_LIB, "FAKETIME=+0 x1000"},
                     false);
  int sweeps = 0;
  const int want = quick ? 100 : 1000;
  for (int waited = 0; sweeps < want && waited < 600; ++waited) {
    sleep(1);
    sweeps = sweeps_logged(log);
  }
  long rss = status_field(fast, "VmRSS:");
  Memory m = {smaps_rollup_kib(fast, "Pss:"),
              smaps_rollup_kib(fast, "Private_Clean:") + smaps_rollup_kib(fast, "Private_Dirty:")};
  kill(fast, SIGKILL);
  waitpid(fast, nullptr, 0);
  unlink(log.c_str());
  printf("memory after %d sweeps: resident %ld KiB, proportional %ld KiB, private %ld KiB\n",
         sweeps, rss, m.pss_kib, m.private_kib);
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  int profile = 0;
  std::string data_path = "build/bench/sweep.dat";
  const option options[] = {{"pace-loop", no_argument, nullptr, 'P'},
                            {"quick", no_argument, nullptr, 'q'},
                            {"data", required_argument, nullptr, 'd'},
                            {"profile", required_argument, nullptr, 'p'},
                            {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
    if (c == 'P') pace_loop();
    if (c == 'q') quick = true;
    if (c == 'd') data_path = optarg;
    if (c == 'p') profile = atoi(optarg);
    if (c == '?') return 64;
  }
  signal(SIGALRM, SIG_IGN);

  // The daemon's configuration: the default monitor entry, debug off, as a quiet device runs.
  setenv("STALL_WARD_PROPERTIES",
         write_props(std::string("persist.vendor.sw.processes=") + kName + ":" + kThread + "\n")
             .c_str(),
         1);
  debug_enabled = false;
  interval_ms = 30000;
  alarm_ms = 120000;
  get_monitor_info();
  for (int i = 0; i < profile; ++i) collect_proc_info(false), scan_process_status();
  if (profile > 0) return 0;

  Ratios r;
  if (!sweep_table(quick, data_path, r)) return 1;
  Idle idle = idle_cost(quick, argv[0]);
  Memory m = memory_after_sweeps(quick);
  printf(
      "ratios walk/floor=%.2f,%.2f,%.2f walk/readfile_floor=%.2f,%.2f,%.2f idle/floor=%.2f "
      "pss_kib=%ld private_kib=%ld wakeups_per_s=%.1f\n",
      r.walk[0], r.walk[1], r.walk[2], r.readfile[0], r.readfile[1], r.readfile[2],
      idle.daemon_ms / idle.floor_ms, m.pss_kib, m.private_kib, idle.wakeups);
  return 0;
}
