// Shared test support: temporary files, property files, log capture, the daemon's state, and
// stand-in processes that the tests start and always reap.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A fresh directory, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

void write_file(const std::string& path, const std::string& content);
std::string read_file_or_empty(const std::string& path);

// Points the host property store at a new file holding content.
void use_properties(const std::string& content);

// (Unit tests only.) Back to the daemon's state before start-up, with debug and the interval.
void reset_daemon(bool debug = true, int64_t interval = 30000);

// Catches what the daemon logs on stderr from construction until text() is called.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  // Stops the capture (once) and returns the log.
  const std::string& text();
  // The log as "P message" lines, in order (P is D, I or E).
  std::vector<std::string> messages();
  // How many lines carry exactly this "P message".
  int count(const std::string& prio_message);

 private:
  void stop();
  int saved_fd_ = -1;
  std::string path_;
  std::string text_;
};

std::vector<std::string> log_messages(const std::string& log);

// A process the test started; killed and reaped on destruction.
class Child {
 public:
  Child() = default;
  Child(pid_t pid, int out) : pid_(pid), out_(out) {}
  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;
  ~Child();
  pid_t pid() const { return pid_; }
  // The next line of its stdout, without the line end; empty after timeout_ms.
  std::string read_line(int timeout_ms = 5000);
  // Waits for it to end; its wait status, or -1 after timeout_ms.
  int wait(int timeout_ms);

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string pending_;
};

// Starts program with argv (argv[0] as given), stdout to a pipe, stderr to err_path if given.
Child spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::vector<std::string>& env = {}, const std::string& err_path = "");

// A stand-in started with argv and the ids it reported: pid, and each thread's tid by name.
struct StandIn {
  Child child;
  pid_t pid = -1;
  std::vector<std::pair<std::string, pid_t>> tids;
  pid_t tid(const std::string& name) const;
};
StandIn start_stand_in(const std::vector<std::string>& argv);

// Where the build put the test programs.
std::string stand_in_path();
std::string daemon_path();
std::string android_ps_dir();

// Collects the SysRq commands written to a FIFO at path, as the kernel consumes each write: every
// command arrives with its terminating NUL.
class SysrqFifo {
 public:
  explicit SysrqFifo(const std::string& path);
  ~SysrqFifo();
  std::vector<std::string> commands();
  // Waits until at least n commands have arrived (or timeout_ms has passed).
  std::vector<std::string> wait_for(size_t n, int timeout_ms);

 private:
  struct State;
  State* state_;
};

// Waits until the kernel shows the thread in state (true), or timeout_ms passes (false).
bool wait_for_state(pid_t pid, pid_t tid, char state, int timeout_ms = 5000);

// Names unique to this test process, so that tests running side by side never see each other's
// stand-ins (nor, through grep, one name inside another).
std::string unique(const std::string& base);
std::string task_path(pid_t pid, pid_t tid);

// The real daemon binary, started with a property file, its SysRq trigger a FIFO of its own, its
// log (stderr) in a file, and time sped up twentyfold through libfaketime unless told otherwise:
// a sweep every 30 s then takes 1.5 s.
class DaemonRun {
 public:
  explicit DaemonRun(const std::string& properties, const std::vector<std::string>& env = {},
                     bool accelerate = true);
  std::string log() const;
  std::vector<std::string> messages() const { return log_messages(log()); }
  // Waits until count lines read exactly "P message"; false after timeout_ms.
  bool wait_for(const std::string& prio_message, int timeout_ms, int count = 1) const;
  int count(const std::string& prio_message) const;

  TempDir dir;
  SysrqFifo trigger;
  Child daemon;
};

std::string replace_all(std::string text, const std::string& from, const std::string& to);
std::string faketime_lib();
