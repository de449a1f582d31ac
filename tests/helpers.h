// Test support: files, properties, log capture, and the processes the tests start (always killed
// and reaped), among them the real daemon in a PID namespace of its own.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

// A fresh directory under temp_root(), removed with everything in it.
struct TempDir {
  TempDir();
  ~TempDir();
  std::string path(const std::string& name) const { return dir + "/" + name; }
  std::string dir;
};
// Where tests keep files: /tmp on a host, the test's own directory on a device.
std::string temp_root();

void write_file(const std::string& path, const std::string& content, int mode = 0644);
std::string read_file(const std::string& path);  // empty when unreadable
// A name unique to this test process, so that tests running side by side never see each other's
// stand-ins (nor, through grep, one name inside another).
std::string unique(const std::string& base);
std::string task_path(pid_t pid, pid_t tid);
// A log as "P message" lines (P is D, I or E), and how many are exactly line or start with prefix.
Lines log_messages(const std::string& log);
int count(const Lines& lines, const std::string& line);
int count_prefix(const Lines& lines, const std::string& prefix);
template <typename F>
bool eventually(F done, int timeout_ms) {  // polls until done() or the time is up
  for (int waited = 0; !done(); waited += 20) {
    if (waited >= timeout_ms) return done();
    usleep(20000);
  }
  return true;
}

// The daemon's properties for the rest of the test: a property file of the test's own, never the
// device's real ones.
void use_properties(const std::string& content);
// (Unit tests.) The daemon's state before start-up, with debug and the interval given.
void reset_daemon(bool debug = true, int64_t interval = 30000);

// Catches the daemon's log (stderr) from construction until messages() is first called.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { messages(); }
  const Lines& messages();
  int count(const std::string& line) { return ::count(messages(), line); }

 private:
  int saved_ = -1;
  std::string path_;
  Lines messages_;
};

// A process the test started: killed and reaped when it goes.
class Child {
 public:
  Child(pid_t pid, int out) : pid_(pid), out_(out) {}
  Child(Child&& o) noexcept : pid_(o.pid_), out_(o.out_) { o.pid_ = o.out_ = -1; }
  ~Child();
  pid_t pid() const { return pid_; }
  std::string read_line();   // of its stdout; empty after 5 s
  std::string read_all();    // of its stdout, to its end (or a minute without output)
  int wait(int timeout_ms);  // its wait status, or -1 while it runs

 private:
  pid_t pid_, out_;
};
// Runs program with argv, stdout to a pipe, stderr to err_path when given.
Child spawn(const std::string& program, const Lines& argv, const std::string& err_path = "");

// tools/stand_in, started with argv: its pid and its threads' ids in the order of --thread (the
// test program aborts when it does not start).
struct StandIn {
  Child child;
  pid_t pid = -1;
  std::vector<pid_t> tids;
};
StandIn start_stand_in(const Lines& argv);
std::string stand_in_path();

// A FIFO standing in for /proc/sysrq-trigger, held open for reading and writing so writers never
// block: the commands written so far (each arrives with its NUL).
class SysrqFifo {
 public:
  explicit SysrqFifo(const std::string& path);
  ~SysrqFifo() { close(fd_); }
  Lines commands(size_t at_least = 0, int timeout_ms = 0);

 private:
  int fd_;
  std::string stream_;
};

std::string android_ps_path();  // a PATH whose ps is the device's (toybox, Android's columns)
