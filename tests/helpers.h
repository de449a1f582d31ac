// Test support: files, property files, log capture, and the processes the tests start (always
// killed and reaped), among them the real daemon.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

// A fresh directory, removed with everything in it.
struct TempDir {
  TempDir();
  ~TempDir();
  std::string path(const std::string& name) const { return dir + "/" + name; }
  std::string dir;
};

void write_file(const std::string& path, const std::string& content);
std::string read_file(const std::string& path);  // empty when unreadable
std::string replace_all(std::string text, const std::string& from, const std::string& to);
// Names unique to this test process, so that tests running side by side never see each other's
// stand-ins (nor, through grep, one name inside another).
std::string unique(const std::string& base);
std::string task_path(pid_t pid, pid_t tid);
// A log as "P message" lines (P is D, I or E), and how many are exactly line.
std::vector<std::string> log_messages(const std::string& log);
int count(const std::vector<std::string>& lines, const std::string& line);
int count_prefix(const std::vector<std::string>& lines, const std::string& prefix);
void sleep_ms(int ms);
// Polls until done() or timeout_ms has passed; the last done().
template <typename F>
bool eventually(F done, int timeout_ms) {
  for (int waited = 0; !done(); waited += 20) {
    if (waited >= timeout_ms) return done();
    sleep_ms(20);
  }
  return true;
}

// Sets the properties to the key=value lines of content, every other one the tests use unset
// (the host store: a new property file; a device: the real properties).
void use_properties(const std::string& content);
bool host_property_store();
// (Unit tests.) The daemon's state before start-up, with debug and the interval given.
void reset_daemon(bool debug = true, int64_t interval = 30000);

// Catches the daemon's log (stderr) from construction until messages() is first called.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { stop(); }
  const std::vector<std::string>& messages();
  int count(const std::string& line) { return ::count(messages(), line); }

 private:
  void stop();
  int saved_ = -1;
  std::string path_;
  std::vector<std::string> messages_;
};

// A process the test started: killed and reaped when it goes.
class Child {
 public:
  Child(pid_t pid = -1, int out = -1) : pid_(pid), out_(out) {}
  Child(Child&& o) noexcept : pid_(o.pid_), out_(o.out_) { o.pid_ = o.out_ = -1; }
  Child& operator=(Child&& o) noexcept {
    std::swap(pid_, o.pid_);
    std::swap(out_, o.out_);
    return *this;
  }
  ~Child();
  pid_t pid() const { return pid_; }
  std::string read_line(int timeout_ms = 5000);  // of its stdout; empty on timeout
  int wait(int timeout_ms);                      // its wait status, or -1 while it runs

 private:
  pid_t pid_, out_;
};
// Runs program with argv (argv[0] as given) and env added, stdout to a pipe, stderr to err_path.
Child spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::vector<std::string>& env = {}, const std::string& err_path = "");

// tools/stand_in, started with argv: its pid and its threads' ids, by the names given.
struct StandIn {
  Child child;
  pid_t pid = -1;
  std::vector<std::pair<std::string, pid_t>> tids;
  pid_t tid(const std::string& name) const;
};
StandIn start_stand_in(const std::vector<std::string>& argv);
bool wait_for_state(pid_t pid, pid_t tid, char state);
std::string stand_in_path();
std::string daemon_path();
std::string android_ps_dir();
std::string faketime_lib();
// Whether these tests run under qemu-user, as the cross build's do.
bool under_emulation();

// A FIFO standing in for /proc/sysrq-trigger. Held open for reading and writing, so writers never
// block; each command arrives with its NUL, as the kernel reads it.
class SysrqFifo {
 public:
  explicit SysrqFifo(const std::string& path);
  ~SysrqFifo();
  std::vector<std::string> commands(size_t at_least = 0, int timeout_ms = 0);

 private:
  int fd_;
  std::string stream_;
};

// The real daemon, with a property file, its trigger a FIFO, its log in a file, and time sped up
// twentyfold through libfaketime unless told otherwise (a 30 s sweep then takes 1.5 s).
struct DaemonRun {
  explicit DaemonRun(const std::string& properties, const std::vector<std::string>& env = {},
                     bool accelerate = true);
  std::vector<std::string> messages() const { return log_messages(read_file(dir.path("log"))); }
  bool wait_for(const std::string& line, int timeout_ms, int times = 1) const;
  int count(const std::string& line) const { return ::count(messages(), line); }
  TempDir dir;
  SysrqFifo trigger;
  Child daemon;
};
