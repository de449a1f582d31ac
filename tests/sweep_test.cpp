// The collection sweep: the /proc walk and the ps lookups, on real stand-in processes.
#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

// What the walk asks of the kernel, seen by wrapping the C library's syscall and lseek: the size
// of each getdents64 batch (with a fault to inject: the next calls interrupted), and whether the
// /proc descriptor is rewound.
namespace {
int interrupt_next = 0;
std::vector<long> batch_sizes;
bool proc_rewound = false;
}  // namespace

extern "C" long syscall(long number, ...) {
  va_list ap;
  va_start(ap, number);
  long a[6];
  for (long& arg : a) arg = va_arg(ap, long);
  va_end(ap);
  if (number == SYS_getdents64) {
    batch_sizes.push_back(a[2]);
    if (interrupt_next > 0 && interrupt_next--) return errno = EINTR, -1;
  }
  static auto real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
  return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

extern "C" off_t lseek(int fd, off_t offset, int whence) {
  proc_rewound |= fd == proc_dir.fd && fd >= 0 && offset == 0 && whence == SEEK_SET;
  static auto real = reinterpret_cast<off_t (*)(int, off_t, int)>(dlsym(RTLD_NEXT, "lseek"));
  return real(fd, offset, whence);
}

namespace {

class Sweep : public testing::Test {
 protected:
  void configure(const std::string& processes, int64_t interval = 30000) {
    reset_daemon(true, interval);
    parse_monitor_list(processes, &monitor_list, &mTids);
  }
  StandIn start(const Lines& threads, const std::string& argv0 = "") {
    Lines argv = {argv0.empty() ? "/system/bin/" + name : argv0};
    for (const std::string& t : threads) argv.insert(argv.end(), {"--thread", t});
    return start_stand_in(argv);
  }
  const std::string name = unique("proc"), thread = unique("thr"), ghost = unique("ghost");
};

// Two sweeps with the first directory read interrupted each time: the walk samples the watched
// threads of the first entry of a name, the main thread of an entry without threads, and counts a
// thread never seen against its running process.
TEST_F(Sweep, ProcWalkSamplesWatchedThreadsAndSurvivesAnInterruptedRead) {
  configure(name + ":" + thread + " " + name + ":second " + name + "m " + name + "x:absent " +
                ghost + ":other",
            50000);
  mTids.at("absent").valid = true;  // bound by the shell way but never sampled
  StandIn a = start({thread + ":D", "other:S", "second:S"});
  StandIn b = start({thread + ":S"}, name);  // a bare command line too
  StandIn main = start({}, "/system/bin/" + name + "m");
  StandIn x = start({}, "/system/bin/" + name + "x");
  for (int sweep = 1; sweep <= 2; ++sweep) {
    interrupt_next = 1;
    batch_sizes.clear();
    proc_rewound = false;
    LogCapture log;
    collect_proc_info(false);
    Lines m = log.messages();
    for (const StandIn* s : {&a, &b}) {
      // (a's vfork child shares its command line, so it is matched too, and holds no such thread.)
      EXPECT_EQ(count_prefix(m, "I find monitored proc " + std::to_string(s->pid) + ":" + name), 1);
      EXPECT_EQ(count(m, "I check monitor thread:" + task_path(s->pid, s->tids.at(0))), 1);
    }
    EXPECT_EQ(count_prefix(m, "I check monitor thread:"), 2) << "only the first entry of a name";
    EXPECT_EQ(count(m, "I thread absent not start"), 1);
    EXPECT_EQ(std::count(batch_sizes.begin(), batch_sizes.end(), 4200), batch_sizes.size());
    EXPECT_TRUE(proc_rewound);
    EXPECT_EQ(proc_dir.fd, -1) << "every walk closes /proc";
  }
  const proc& rec = mTids.at(name + "m");
  EXPECT_TRUE(rec.tid == static_cast<uint32_t>(main.pid) && rec.pid == rec.tid);
  EXPECT_EQ(mTids.at(thread).pid, static_cast<uint32_t>(b.pid)) << "b's thread is sampled last";
  EXPECT_EQ(mTids.at("absent").stuck_ms, 100000);
  EXPECT_EQ(mTids.at("absent").pid, static_cast<uint32_t>(x.pid));
  EXPECT_TRUE(mTids.at("other").pid == kNoId && mTids.at("other").stuck_ms == 0);  // not running
}

TEST(WalkParts, DirectoryEntriesAndCommandNames) {
  const std::tuple<const char*, uint8_t, bool> entries[] = {
      {"1", DT_DIR, true},  {"9", DT_DIR, true},     {"self", DT_DIR, false},
      {"1", DT_REG, false}, {"1", DT_UNKNOWN, true}, {"999999999", DT_UNKNOWN, false}};
  for (const auto& [name, type, valid] : entries) {
    alignas(8) char buf[sizeof(linux_dirent64) + 64] = {};
    linux_dirent64* d = reinterpret_cast<linux_dirent64*>(buf);
    d->d_type = type;
    strcpy(d->d_name, name);
    std::string path;
    EXPECT_EQ(get_valid_tid_dir(d, &path), valid) << name;
    EXPECT_EQ(path, valid ? std::string("/proc/") + name : path) << name;
  }
  const std::pair<const char*, const char*> names[] = {
      // the last piece only where there are two or more
      {"/system/bin/foo", "foo"}, {"/foo", "/foo"}, {"foo/", "foo/"}, {"a//b/", "b"}, {"//", "//"},
  };
  for (const auto& [name, base] : names) EXPECT_EQ(command_base_name(name), base) << name;
}

TEST(PsOutput, TokenCountsDecide) {
  std::string printed;
  const std::tuple<const char*, int, const char*> self_tests[] = {
      {"root 42 1 100 stall_ward\n", 1, "42"},
      {"root 1 0 100 10 0 0 S stall_ward\nroot 42 1 100 10 0 0 S stall_ward\n", 0, "1"},
      {"root 42 1 stall_ward\n", -1, ""}};
  for (const auto& [output, verdict, token] : self_tests) {
    printed.clear();
    EXPECT_EQ(ps_self_test(output, "42", &printed), verdict) << output;
    EXPECT_EQ(printed, token);
  }
  pid_info info = {7, 8, 9};
  EXPECT_FALSE(parse_ps_process("root 12 1", &info, &printed));
  EXPECT_TRUE(parse_ps_process("root 12 1 name", &info, &printed));
  EXPECT_TRUE(info.tid == 12 && info.pid == 12 && info.ppid == 1 && printed == "12");
  EXPECT_FALSE(parse_ps_thread("root 12 13 1", &printed));
  EXPECT_TRUE(parse_ps_thread("root 12 13 1 x", &printed));
  EXPECT_EQ(printed, "13");
}

// The shell way, with the device's ps first in PATH.
class ShellSweep : public Sweep {
 protected:
  void SetUp() override { putenv(path_.data()); }
  void TearDown() override { setenv("PATH", saved_.c_str(), 1); }
  std::string saved_ = getenv("PATH"), path_ = android_ps_path();
};

TEST_F(ShellSweep, AnAbsentThreadIsBoundAfreshToItsProcess) {
  std::string app = unique("app");
  configure(app + ":absent", 50000);
  StandIn s = start_stand_in({"zygote64", "--spawn", app});
  proc& rec = mTids.at("absent");
  rec.valid = rec.reported = true;  // bound to another process until now
  rec.pid = 1;
  rec.stuck_ms = 90000;
  for (int64_t stuck : {50000, 100000}) {
    collect_proc_info(true);
    EXPECT_TRUE(rec.valid && rec.tid == kNoId && rec.pid == static_cast<uint32_t>(s.pid));
    EXPECT_EQ(rec.cmd, app);
    EXPECT_TRUE(rec.is_app) << "its parent is zygote64";
    EXPECT_EQ(rec.stuck_ms, stuck);
    EXPECT_EQ(rec.reported, false);
    rec.is_app = false;
  }
}

// Processes and threads are found through ps (a main thread with one ps command); an entry whose
// process is not running works on what the last found one left: its thread is read again for each
// thread name of the entry.
TEST_F(ShellSweep, FindsThroughPsAndAMissingProcessWorksOnWhatTheLastFoundOneLeft) {
  StandIn s = start({thread + ":D"});
  configure(name + " " + name + ":" + thread + " " + ghost + ":u1:u2");
  {
    LogCapture log;
    collect_proc_info(true);
    const std::string pid = std::to_string(s.pid), tid = std::to_string(s.tids.at(0));
    for (const auto& [line, times] : {std::pair{"I [sh] cmd=ps -e|grep " + name, 2},
                                      {"I [sh] cmd=ps -T -p " + pid + " |grep " + thread, 1},
                                      {"I [sh] tid=" + tid, 1},
                                      {"I [sh] proc " + ghost + " not started", 2},
                                      {"I go through proc", 0},
                                      {"I reading " + task_path(s.pid, s.pid), 1},
                                      {"I reading " + task_path(s.pid, s.tids.at(0)), 3}}) {
      EXPECT_EQ(log.count(line), times) << line;
    }
    EXPECT_TRUE(mTids.at(thread).pid == static_cast<uint32_t>(s.pid) &&
                mTids.at(thread).state == 'D');
  }
  configure(name + ":absent " + ghost + ":u1");  // tid -1 left: u1 counts as absent from it
  collect_proc_info(true);
  EXPECT_TRUE(mTids.at("u1").pid == static_cast<uint32_t>(s.pid) && mTids.at("u1").tid == kNoId);
  EXPECT_EQ(mTids.at("u1").stuck_ms, 30000);
  configure(ghost + ":u1:u2");  // nothing found first: nothing touched, nor asked for again
  LogCapture log;
  collect_proc_info(true);
  EXPECT_EQ(log.count("I [sh] proc " + ghost + " not started"), 1);
  EXPECT_TRUE(!mTids.at("u1").valid && mTids.at("u1").stuck_ms == 0);
}

}  // namespace
