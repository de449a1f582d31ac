// The thread readers, on crafted task directories and on real threads in known states.
#include <gtest/gtest.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

TEST(Parsers, StatAndCgroup) {
  const std::string tail = " 0 1 1 0 -1 4194624 100 0 0 0 5 6 0 0 20 0 1 0 7\n";
  const std::pair<std::string, std::string> stats[] = {
      // content; "match tid comm|state ppid utime stime"
      {"12 (a)b) S 1\n", "3 12 a|b 4294967295 4294967295 4294967295"},
      {"12 (Jit thread pool) S" + tail, "6 12 Jit thread pool|S 0 5 6"},
      {"12 (abcdefghijklmnop) D" + tail, "6 12 abcdefghijklmnop|D 0 5 6"},
      {"12 (abcdefghijklmnopq) D" + tail,
       "2 12 abcdefghijklmnop|? 4294967295 4294967295 4294967295"},
  };
  for (const auto& [content, want] : stats) {
    stat_fields f;
    int n = parse_stat(content, &f);
    EXPECT_EQ(std::to_string(n) + " " + std::to_string(f.tid) + " " + f.comm + "|" + f.state + " " +
                  std::to_string(f.ppid) + " " + std::to_string(f.utime) + " " +
                  std::to_string(f.stime),
              want);
  }
  // The freezer group anywhere in the file, as a plain substring.
  const std::pair<std::string, bool> cgroups[] = {{"7:freezer:/frozen\n3:cpu:/\n", true},
                                                  {"7:freezer:/\n", false},
                                                  {"0::/frozen\n", false},
                                                  {"3:cpu:/\n7:freezer:/frozen_x\n", true},
                                                  {"3:cpu:/\n7:freezer:/frozen", true}};
  for (const auto& [content, frozen] : cgroups)
    EXPECT_EQ(in_frozen_cgroup(content), frozen) << content;
  // A name ends at a blank, a tab, a line end or a NUL (get_proc_name cuts the same way).
  TempDir dir;
  for (const std::string& comm :
       Lines{"a b\n", "a\tb\n", "a\rb\n", "a\n", std::string("a\0b\n", 4)}) {
    write_file(dir.path("comm"), comm);
    EXPECT_EQ(get_comm(dir.dir), "a") << comm;
  }
  // Apps are the children of the two zygotes, by exact name.
  for (const auto& [name, app] : {std::pair{"zygote", true},
                                  {"zygote64", true},
                                  {"zygote_secondary", false},
                                  {"app_process64", false}}) {
    EXPECT_EQ(is_zygote(name), app) << name;
  }
}

// Samples of a crafted task directory for a thread whose name has 15 bytes, the most the kernel
// keeps, with an interval of 50 s.
TEST(StallCount, GrowsByTheIntervalOnlyWithoutProgressInAWatchedState) {
  struct Step {
    unsigned tid, ppid;
    char state;
    unsigned utime, stime;
    const char* schedstat;
    int64_t stuck_after;
    bool reported_after;  // set before each sample; progress clears it
    unsigned ppid_after;
  };
  StandIn zygote = start_stand_in({"zygote"});
  const Step steps[] = {
      {7, 1, 'D', 10, 10, "1 2 3\n", 0, false, 1},      // bound
      {7, 1, 'D', 10, 10, "1 2 3\n", 50000, true, 1},   // nothing moved
      {7, 2, 'D', 10, 10, "1 2 3\n", 100000, true, 1},  // the parent is the one of the bind
      {7, 1, 'D', 10, 10, "1 2 4\n", 0, false, 1},      // ran on a processor
      {7, 1, 'D', 10, 10, "123456789012 4 4294967300\n", 0, false, 1},     // past 32 bits
      {7, 1, 'D', 10, 10, "123456789012 4 4294967300\n", 50000, true, 1},  // the same count
      {7, 1, 'D', 10, 11, "123456789012 4 4294967300\n", 0, false, 1},     // processor time
      {7, 1, 'Z', 10, 11, "1 2 4\n", 0, false, 1},                         // another state
      {7, 1, 'Z', 10, 11, "1 2 0\n", 50000, true, 1},            // a zero count is no progress
      {7, 1, 'Z', 10, 11, "", 100000, true, 1},                  // nor an unreadable one
      {7, 1, 'Z', 4294967295u, 22, "1 2 4\n", 150000, true, 1},  // the same sum modulo 2^32
      {7, 1, 'S', 4294967295u, 22, "1 2 4\n", 0, false, 1},      // S is not watched outside apps
      {7, static_cast<unsigned>(zygote.pid), 'S', 4294967295u, 22, "1 2 4\n", 0, true, 1},
      {8, 3, 'S', 4294967295u, 22, "1 2 4\n", 0, false, 3},  // another thread: a new bind
  };
  reset_daemon(true, 50000);
  const std::string name = "fifteen_bytes_x";
  parse_monitor_list("p:" + name, &monitor_list, &mTids);
  proc& rec = mTids.at(name);
  TempDir dir;
  for (const Step& s : steps) {
    rec.reported = true;
    write_file(dir.path("stat"), std::to_string(s.tid) + " (" + name + ") " + s.state + " " +
                                     std::to_string(s.ppid) + " 1 1 0 -1 4194624 100 0 0 0 " +
                                     std::to_string(s.utime) + " " + std::to_string(s.stime) +
                                     " 0 0\n");
    write_file(dir.path("schedstat"), s.schedstat);
    write_file(dir.path("cgroup"), "");
    LogCapture log;
    get_stat(nullptr, dir.dir);
    int step = &s - steps;
    EXPECT_EQ(rec.stuck_ms, s.stuck_after) << "step " << step;
    EXPECT_EQ(rec.reported, s.reported_after) << "step " << step;
    EXPECT_EQ(rec.ppid, s.ppid_after) << "step " << step;
    EXPECT_EQ(rec.tid, s.tid);
    EXPECT_EQ(log.count("I Not monitor state=S"), s.state == 'S') << "step " << step;
  }
  EXPECT_EQ(rec.comm, name);
}

// A record binds to the thread sampled but takes the pid only from a lookup of that thread; a
// thread of an app (a child of a zygote) counts while it sleeps.
TEST(LiveThread, NamesBindingAndAnAppThreadAsleep) {
  std::string thread = unique("t");
  reset_daemon(true, 30000);
  parse_monitor_list("a:" + thread, &monitor_list, &mTids);
  StandIn first = start_stand_in({"/vendor/bin/first", "--thread", thread + ":D"});
  EXPECT_EQ(get_proc_name(std::to_string(first.pid)), "/vendor/bin/first");
  EXPECT_EQ(get_proc_name("999999999"), "");
  StandIn app = start_stand_in({"zygote", "--spawn", "com.example", "--thread", thread + ":S"});
  pid_info info = {first.tids.at(0), first.pid, -1};
  get_stat(&info, task_path(first.pid, first.tids.at(0)));
  info.pid = 4242;  // what a lookup of first's thread left, sampling app's twice
  for (int i = 0; i < 2; ++i) get_stat(&info, task_path(app.pid, app.tids.at(0)));
  const proc& rec = mTids.at(thread);
  EXPECT_EQ(rec.tid, static_cast<uint32_t>(app.tids.at(0)));
  EXPECT_EQ(rec.pid, static_cast<uint32_t>(first.pid));
  EXPECT_EQ(rec.cmd, "com.example");
  EXPECT_TRUE(rec.is_app);
  EXPECT_EQ(rec.stuck_ms, 30000);
}

}  // namespace
