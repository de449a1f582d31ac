// A stand-in for a monitored process, for the demo and the tests (kUsage says what it does).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "cli.h"
#include "stand_in_binder.h"

namespace {

constexpr const char* kTool = "stand_in";
const char kUsage[] = R"(usage: stand_in [OPTION...] [--spawn ARGS...]

A stand-in for a monitored process. Started with the command line a test chooses (argv[0] such
as /system/bin/system_server), it names its threads and puts each into a chosen state, then
prints one line "<pid> <tid> ..." on stdout once every thread is in place, the threads' ids in
the order of the --thread options.

  --thread NAME:STATE  a thread called NAME in STATE: S sleeps, R spins, D waits in vfork for a
                       child that never exits (uninterruptible), P runs now and then (progress),
                       W works for three seconds and then wedges as in D, N keeps renaming
                       itself between NAME and "renamed", E sleeps two seconds and exits, B
                       makes a binder call to the context manager of /dev/binder that is never
                       answered (stand_in_binder.h)
  --main STATE         the main thread: S (default) sleeps, Z exits while the others live
  --main-name NAME     the main thread's name (default: the base name of argv[0])
  --life MS            end the whole process after MS milliseconds
  --signals FILE       append "sig=N" to FILE for each SIGQUIT or signal 35 received; they are
                       taken on a thread of their own, as an app runtime's signal catcher does
  --dumps DIR          answer SIGQUIT as Android 11's runtime does, with a Java stack dump of
                       the threads stamped when it arrived, written to DIR/trace_NN (as the
                       platform keeps them in /data/anr), and signal 35 as its crash handler does,
                       with a tombstone stamped when it arrived, DIR/tombstone_NN
  --serve DEVICE,WHAT  serve binder calls as stand_in_binder.h says
  --spawn ARGS...      (a parent stand-in) run the rest of the command line as a child
                       stand-in, whose argv[0] is the first of ARGS, and wait; the options
                       before --spawn are the parent's
  -h, --help           this text
  --version            the version
)";

constexpr int kDumpSignal = 35;
// The ABI the runtime and the crash handler name in their dumps: the one this was built for.
#if defined(__aarch64__)
constexpr const char* kAbi = "arm64";
#elif defined(__arm__)
constexpr const char* kAbi = "arm";
#elif defined(__i386__)
constexpr const char* kAbi = "x86";
#else
constexpr const char* kAbi = "x86_64";
#endif

struct ThreadPlan {
  std::string name;
  char state;
  pid_t tid = 0;
  int ready = 0;  // set once the thread is fully in its state
};

[[noreturn]] void die(const char* what) {
  cli::error(kTool, "%s: %s", what, strerror(errno));
  _exit(2);
}

pid_t gettid_() {
  return static_cast<pid_t>(syscall(SYS_gettid));
}

void set_name(const std::string& name) {
  prctl(PR_SET_NAME, name.substr(0, 15).c_str());
}

char task_state(pid_t tid) {
  char path[64];
  snprintf(path, sizeof(path), "/proc/self/task/%d/stat", tid);
  FILE* f = fopen(path, "r");
  if (f == nullptr) return '?';
  char buf[512] = {};
  size_t n = fread(buf, 1, sizeof(buf) - 1, f);
  fclose(f);
  buf[n] = '\0';
  const char* close_paren = strrchr(buf, ')');
  return close_paren != nullptr && close_paren[1] == ' ' ? close_paren[2] : '?';
}

void sleep_ms(long ms) {
  timespec ts = {ms / 1000, (ms % 1000) * 1000000};
  while (nanosleep(&ts, &ts) == -1) {
  }
}

void* run_thread(void* arg) {
  ThreadPlan* plan = static_cast<ThreadPlan*>(arg);
  set_name(plan->name);
  __atomic_store_n(&plan->tid, gettid_(), __ATOMIC_SEQ_CST);
  if (plan->state != 'D' && plan->state != 'B') __atomic_store_n(&plan->ready, 1, __ATOMIC_SEQ_CST);
  switch (plan->state) {
    case 'R':
      for (volatile unsigned long i = 0;; ++i) {
      }
    case 'W':
      for (int i = 0; i < 60; ++i) {
        sleep_ms(25);
        for (volatile int j = 0; j < 200000; ++j) {
        }
      }
      [[fallthrough]];
    case 'D':
      // The parent thread waits uninterruptibly until the vfork child execs or exits, which it
      // never does; it dies with this thread, and is renamed so it is not taken for the thread.
      // The child shares our memory, so it can say when it is set up; until then, killing the
      // stand-in would leave it behind.
      if (vfork() == 0) {
        prctl(PR_SET_NAME, "vfork-child");
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        __atomic_store_n(&plan->ready, 1, __ATOMIC_SEQ_CST);
        for (;;) pause();
      }
      break;
    case 'B':
      stand_in::binder_call("/dev/binder", &plan->ready);
    case 'N':
      for (bool own = false;; own = !own) {
        set_name(own ? plan->name : "renamed");
        sleep_ms(3);
      }
    case 'E':
      sleep_ms(2000);
      return nullptr;
    case 'P':
      for (;;) {
        sleep_ms(50);
        for (volatile int i = 0; i < 2000000; ++i) {
        }
      }
    default:
      break;
  }
  for (;;) pause();
}

const char* signal_file = nullptr;
const char* dumps_dir = nullptr;

// The first DIR/PREFIXNN that does not exist yet, 00 to 99.
std::string next_file(const char* prefix) {
  for (int n = 0; n < 99; ++n) {
    char path[512];
    snprintf(path, sizeof(path), "%s/%s%02d", dumps_dir, prefix, n);
    if (access(path, F_OK) != 0) return path;
  }
  return std::string(dumps_dir) + "/" + prefix + "99";
}

// The process's threads: id and name, in /proc's order.
std::vector<std::pair<pid_t, std::string>> threads_now() {
  std::vector<std::pair<pid_t, std::string>> all;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return all;
  while (dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    char path[300], name[32] = {};
    snprintf(path, sizeof(path), "/proc/self/task/%s/comm", e->d_name);
    FILE* f = fopen(path, "r");
    if (f == nullptr) continue;
    if (fgets(name, sizeof(name), f) != nullptr) name[strcspn(name, "\n")] = '\0';
    fclose(f);
    all.emplace_back(static_cast<pid_t>(atoi(e->d_name)), name);
  }
  closedir(dir);
  return all;
}

// A Java stack dump in Android 11's layout (the runtime's answer to SIGQUIT), stamped `when`.
void write_java_dump(const char* when) {
  FILE* f = fopen(next_file("trace_").c_str(), "w");
  if (f == nullptr) return;
  std::vector<std::pair<pid_t, std::string>> threads = threads_now();
  fprintf(f, "\n----- pid %d at %s -----\nCmd line: %s\n", getpid(), when, program_invocation_name);
  fprintf(f,
          "Build fingerprint: 'stall_ward/stand_in/host:11/RP1A/1:userdebug/test-keys'\n"
          "ABI: '%s'\nBuild type: optimized\n\nDALVIK THREADS (%zu):\n",
          kAbi, threads.size());
  int id = 0;
  for (const auto& [tid, name] : threads) {
    fprintf(f,
            "\"%s\" prio=5 tid=%d Native\n  | group=\"main\" sCount=1 dsCount=0 flags=1\n"
            "  | sysTid=%d nice=0 cgrp=default sched=0/0\n  | state=%c schedstat=( 0 0 0 ) "
            "utm=0 stm=0 core=0 HZ=100\n  native: #00 pc 0000000000000000  "
            "/apex/com.android.runtime/lib64/bionic/libc.so (syscall+28)\n"
            "  at java.lang.Object.wait(Native method)\n\n",
            name.c_str(), ++id, tid, task_state(tid));
  }
  fprintf(f, "----- end %d -----\n", getpid());
  fclose(f);
}

// A tombstone in Android 11's layout (the crash handler's answer to signal 35), stamped `when`.
void write_tombstone(const char* when) {
  FILE* f = fopen(next_file("tombstone_").c_str(), "w");
  if (f == nullptr) return;
  fprintf(f,
          "*** *** *** *** *** *** *** *** *** *** *** *** *** *** *** ***\n"
          "Build fingerprint: 'stall_ward/stand_in/host:11/RP1A/1:userdebug/test-keys'\n"
          "Revision: '0'\nABI: '%s'\nTimestamp: %s+0000\n",
          kAbi, when);
  for (const auto& [tid, name] : threads_now()) {
    if (tid == getpid()) {
      fprintf(f,
              "pid: %d, tid: %d, name: %s  >>> %s <<<\nuid: 0\nsignal 35 (<debuggerd signal>), "
              "code 0 (SI_USER), fault addr --------\n",
              getpid(), tid, name.c_str(), program_invocation_name);
    } else {
      fprintf(f,
              "--- --- --- --- --- --- --- --- --- --- --- --- --- --- --- ---\n"
              "pid: %d, tid: %d, name: %s  >>> %s <<<\nuid: 0\n",
              getpid(), tid, name.c_str(), program_invocation_name);
    }
    fprintf(f,
            "\nbacktrace:\n      #00 pc 0000000000000000  "
            "/apex/com.android.runtime/lib64/bionic/libc.so (syscall+28)\n\n");
  }
  fclose(f);
}

void* catch_signals(void*) {
  set_name("Signal Catcher");
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGQUIT);
  sigaddset(&set, kDumpSignal);
  for (;;) {
    int sig = sigwaitinfo(&set, nullptr);
    if (sig < 0) continue;
    time_t now = time(nullptr);  // stamped when the signal arrived, in local time
    tm local = {};
    localtime_r(&now, &local);
    char when[32];
    strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);
    if (dumps_dir != nullptr) (sig == SIGQUIT ? write_java_dump : write_tombstone)(when);
    if (signal_file == nullptr) continue;
    int fd = open(signal_file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) continue;
    dprintf(fd, "sig=%d\n", sig);
    close(fd);
  }
}

[[noreturn]] void spawn_child(char** child_argv) {
  pid_t parent = getpid();
  pid_t child = fork();
  if (child < 0) die("fork");
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv("/proc/self/exe", child_argv);
    die("execv");
  }
  for (;;) {
    int status;
    if (waitpid(child, &status, 0) == child) _exit(0);
  }
}

// What the command line asks of the process.
struct Plan {
  std::vector<ThreadPlan>* threads = nullptr;
  char main_state = 'S';
  int life_ms = 0;
  std::string main_name;
  char** spawn_argv = nullptr;
  bool serving = false;
};

// Reads the options into plan; the exit status where the run ends here (help, version, a bad
// option).
std::optional<int> parse_options(int argc, char** argv, Plan* plan) {
  const option options[] = {{"thread", required_argument, nullptr, 't'},
                            {"main", required_argument, nullptr, 'm'},
                            {"main-name", required_argument, nullptr, 'n'},
                            {"life", required_argument, nullptr, 'l'},
                            {"signals", required_argument, nullptr, 's'},
                            {"dumps", required_argument, nullptr, 'd'},
                            {"spawn", no_argument, nullptr, 'c'},
                            {"serve", required_argument, nullptr, 'b'},
                            {"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, cli::kVersionOption},
                            {nullptr, 0, nullptr, 0}};
  opterr = 0;
  // "+": options end at --spawn, whose arguments are the child's whole command line.
  for (int c; plan->spawn_argv == nullptr &&
              (c = getopt_long(argc, argv, "+:h", options, nullptr)) != -1;) {
    std::string value = optarg != nullptr ? optarg : "";
    size_t colon = value.rfind(':');
    if (c == 't' && colon != std::string::npos && colon + 2 == value.size()) {
      plan->threads->push_back({value.substr(0, colon), value[colon + 1]});
    } else if (c == 't') {
      cli::error(kTool, "--thread takes NAME:STATE, not \"%s\"", value.c_str());
      return EX_USAGE;
    } else if (c == 'm') {
      plan->main_state = value[0];
    } else if (c == 'n') {
      plan->main_name = value;
    } else if (c == 'l') {
      plan->life_ms = atoi(optarg);
    } else if (c == 's') {
      signal_file = optarg;
    } else if (c == 'd') {
      dumps_dir = optarg;
    } else if (c == 'b' && stand_in::binder_serve_setup(value)) {
      plan->serving = true;
    } else if (c == 'b') {
      cli::error(kTool, "--serve: no binder service \"%s\"", value.c_str());
      return EX_USAGE;
    } else if (c == 'c' && optind < argc) {
      plan->spawn_argv = argv + optind;
    } else if (c == 'c') {
      cli::error(kTool, "--spawn needs a command line (see %s --help)", kTool);
      return EX_USAGE;
    } else if (c == 'h') {
      fputs(kUsage, stdout);
      return EX_OK;
    } else if (c == cli::kVersionOption) {
      return cli::version(kTool);
    } else {
      return cli::bad_option(kTool, c, argv);
    }
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  // Static: a main thread that exits unwinds main's locals while the other threads go on.
  static std::vector<ThreadPlan> threads;
  threads.reserve(static_cast<size_t>(argc));
  Plan plan;
  plan.threads = &threads;
  std::string base = argv[0];
  plan.main_name = base.substr(base.rfind('/') + 1);
  set_name(plan.main_name);
  if (std::optional<int> done = parse_options(argc, argv, &plan)) return *done;
  set_name(plan.main_name);
  setvbuf(stdout, nullptr, _IONBF, 0);

  if (signal_file != nullptr || dumps_dir != nullptr) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGQUIT);
    sigaddset(&set, kDumpSignal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every thread made from here on
    pthread_t catcher;
    if (pthread_create(&catcher, nullptr, catch_signals, nullptr) != 0) die("pthread_create");
  }
  if (plan.spawn_argv != nullptr) spawn_child(plan.spawn_argv);
  for (ThreadPlan& plan : threads) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, run_thread, &plan) != 0) die("pthread_create");
  }
  // Wait until each thread is in its state, so that the test samples what it asked for.
  for (ThreadPlan& plan : threads) {
    char want = plan.state == 'B' ? 'S' : strchr("PWNE", plan.state) != nullptr ? '\0' : plan.state;
    for (int tries = 0;; ++tries) {
      pid_t tid = __atomic_load_n(&plan.tid, __ATOMIC_SEQ_CST);
      bool ready = __atomic_load_n(&plan.ready, __ATOMIC_SEQ_CST) != 0;
      if (tid != 0 && ready && (want == '\0' || task_state(tid) == want)) break;
      if (tries > 5000) die("thread did not reach its state");
      sleep_ms(1);
    }
  }
  std::string line = std::to_string(getpid());
  for (const ThreadPlan& plan : threads) line += " " + std::to_string(plan.tid);
  line += "\n";
  if (write(STDOUT_FILENO, line.data(), line.size()) < 0) die("write");
  if (plan.life_ms > 0) {
    pthread_t ender;
    auto end = [](void* ms) -> void* {
      sleep_ms(static_cast<long>(reinterpret_cast<intptr_t>(ms)));
      _exit(0);
    };
    pthread_create(&ender, nullptr, end,
                   reinterpret_cast<void*>(static_cast<intptr_t>(plan.life_ms)));
  }
  if (plan.main_state == 'Z') pthread_exit(nullptr);
  if (plan.serving) stand_in::binder_serve();
  for (;;) pause();
}
