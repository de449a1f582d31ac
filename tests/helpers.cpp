#include "helpers.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

int64_t now_ms() {
  timespec ts = {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

TempDir::TempDir() {
  char pattern[] = "/tmp/stall_ward_test.XXXXXX";
  if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
  dir_ = pattern;
}

TempDir::~TempDir() {
  std::string command = "rm -rf '" + dir_ + "'";
  if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", dir_.c_str());
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string read_file_or_empty(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void use_properties(const std::string& content) {
  // A new name each time: the store reads a file once per name.
  static TempDir dir;
  static int serial = 0;
  std::string path = dir.path("props." + std::to_string(++serial));
  write_file(path, content);
  setenv("STALL_WARD_PROPERTIES", path.c_str(), 1);
}

LogCapture::LogCapture() {
  char pattern[] = "/tmp/stall_ward_log.XXXXXX";
  int fd = mkstemp(pattern);
  if (fd < 0) throw std::runtime_error("mkstemp");
  path_ = pattern;
  fflush(stderr);
  saved_fd_ = dup(STDERR_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

LogCapture::~LogCapture() {
  stop();
}

void LogCapture::stop() {
  if (saved_fd_ < 0) return;
  fflush(stderr);
  dup2(saved_fd_, STDERR_FILENO);
  close(saved_fd_);
  saved_fd_ = -1;
  text_ = read_file_or_empty(path_);
  unlink(path_.c_str());
}

const std::string& LogCapture::text() {
  stop();
  return text_;
}

std::vector<std::string> log_messages(const std::string& log) {
  // "MM-DD HH:MM:SS.mmm  PID  TID P stall_ward: message"
  std::vector<std::string> out;
  std::istringstream in(log);
  std::string line;
  const std::string tag = " stall_ward: ";
  while (std::getline(in, line)) {
    size_t at = line.find(tag);
    if (at == std::string::npos || at < 2) continue;
    out.push_back(line.substr(at - 1, 1) + " " + line.substr(at + tag.size()));
  }
  return out;
}

std::vector<std::string> LogCapture::messages() {
  return log_messages(text());
}

int LogCapture::count(const std::string& prio_message) {
  int n = 0;
  for (const std::string& m : messages()) n += m == prio_message;
  return n;
}

Child::Child(Child&& other) noexcept
    : pid_(other.pid_), out_(other.out_), pending_(std::move(other.pending_)) {
  other.pid_ = -1;
  other.out_ = -1;
}

Child& Child::operator=(Child&& other) noexcept {
  std::swap(pid_, other.pid_);
  std::swap(out_, other.out_);
  std::swap(pending_, other.pending_);
  return *this;
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

std::string Child::read_line(int timeout_ms) {
  int64_t deadline = now_ms() + timeout_ms;
  for (;;) {
    size_t nl = pending_.find('\n');
    if (nl != std::string::npos) {
      std::string line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return line;
    }
    int64_t left = deadline - now_ms();
    pollfd pfd = {out_, POLLIN, 0};
    if (left <= 0 || poll(&pfd, 1, static_cast<int>(left)) <= 0) return "";
    char buf[512];
    ssize_t n = read(out_, buf, sizeof(buf));
    if (n <= 0) return "";
    pending_.append(buf, static_cast<size_t>(n));
  }
}

int Child::wait(int timeout_ms) {
  int64_t deadline = now_ms() + timeout_ms;
  while (pid_ > 0) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      pid_ = -1;
      return status;
    }
    if (now_ms() > deadline) return -1;
    usleep(10000);
  }
  return -1;
}

Child spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, const std::string& err_path) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    dup2(pipe_fds[1], STDOUT_FILENO);
    if (!err_path.empty()) {
      int fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) dup2(fd, STDERR_FILENO);
    }
    unsetenv("STALL_WARD_ALLOW_REBOOT");  // only ever given explicitly
    for (const std::string& e : env) putenv(const_cast<char*>(e.c_str()));
    // The tests' own signal mask must not leak into what they start.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execv(program.c_str(), args.data());
    _exit(127);
  }
  close(pipe_fds[1]);
  return Child(pid, pipe_fds[0]);
}

pid_t StandIn::tid(const std::string& name) const {
  for (const auto& entry : tids) {
    if (entry.first == name) return entry.second;
  }
  return -1;
}

StandIn start_stand_in(const std::vector<std::string>& argv) {
  StandIn s{spawn(stand_in_path(), argv), -1, {}};
  std::istringstream line(s.child.read_line());
  line >> s.pid;
  for (size_t i = 0; i + 1 < argv.size(); ++i) {
    if (argv[i] != "--thread") continue;
    pid_t tid = -1;
    line >> tid;
    s.tids.emplace_back(argv[i + 1].substr(0, argv[i + 1].rfind(':')), tid);
  }
  return s;
}

std::string stand_in_path() {
  return STAND_IN_PATH;
}
std::string daemon_path() {
  return STALL_WARD_PATH;
}
std::string android_ps_dir() {
  return ANDROID_PS_DIR;
}

struct SysrqFifo::State {
  std::string path;
  std::thread reader;
  std::atomic<bool> stop{false};
  std::atomic<bool> done{false};
  std::mutex mu;
  std::string stream;
};

SysrqFifo::SysrqFifo(const std::string& path) : state_(new State) {
  state_->path = path;
  unlink(path.c_str());
  if (mkfifo(path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + path);
  State* s = state_;
  s->reader = std::thread([s] {
    while (!s->stop) {
      int fd = open(s->path.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) break;
      char buf[256];
      ssize_t n;
      while ((n = read(fd, buf, sizeof(buf))) > 0) {
        std::lock_guard<std::mutex> lock(s->mu);
        s->stream.append(buf, static_cast<size_t>(n));
      }
      close(fd);
    }
    s->done = true;
  });
}

SysrqFifo::~SysrqFifo() {
  state_->stop = true;
  // The reader may be blocked opening the FIFO: give it a writer to wake up for.
  while (!state_->done) {
    int fd = open(state_->path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd >= 0) close(fd);
    usleep(1000);
  }
  state_->reader.join();
  unlink(state_->path.c_str());
  delete state_;
}

std::vector<std::string> SysrqFifo::commands() {
  std::lock_guard<std::mutex> lock(state_->mu);
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t nul; (nul = state_->stream.find('\0', start)) != std::string::npos; start = nul + 1) {
    out.push_back(state_->stream.substr(start, nul - start));
  }
  return out;
}

std::vector<std::string> SysrqFifo::wait_for(size_t n, int timeout_ms) {
  int64_t deadline = now_ms() + timeout_ms;
  std::vector<std::string> got = commands();
  while (got.size() < n && now_ms() < deadline) {
    usleep(10000);
    got = commands();
  }
  return got;
}

bool wait_for_state(pid_t pid, pid_t tid, char state, int timeout_ms) {
  std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/stat";
  int64_t deadline = now_ms() + timeout_ms;
  do {
    std::string stat = read_file_or_empty(path);
    size_t paren = stat.rfind(')');
    if (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == state) {
      return true;
    }
    usleep(2000);
  } while (now_ms() < deadline);
  return false;
}

std::string unique(const std::string& base) {
  return base + std::to_string(getpid()) + "x";
}

std::string task_path(pid_t pid, pid_t tid) {
  return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
}

DaemonRun::DaemonRun(const std::string& properties, const std::vector<std::string>& env,
                     bool accelerate)
    : trigger(dir.path("trigger")) {
  write_file(dir.path("props"), properties);
  std::vector<std::string> all = {"STALL_WARD_PROPERTIES=" + dir.path("props"),
                                  "STALL_WARD_SYSRQ_TRIGGER=" + dir.path("trigger")};
  if (accelerate) {
    all.push_back(std::string("LD_PRELOAD=") + FAKETIME_LIB);
    all.push_back("FAKETIME=+0 x20");
  }
  all.insert(all.end(), env.begin(), env.end());
  daemon = spawn(daemon_path(), {daemon_path()}, all, dir.path("log"));
}

std::string DaemonRun::log() const {
  return read_file_or_empty(dir.path("log"));
}

int DaemonRun::count(const std::string& prio_message) const {
  int n = 0;
  for (const std::string& m : messages()) n += m == prio_message;
  return n;
}

bool DaemonRun::wait_for(const std::string& prio_message, int timeout_ms, int n) const {
  int64_t deadline = now_ms() + timeout_ms;
  while (count(prio_message) < n) {
    if (now_ms() > deadline) return false;
    usleep(50000);
  }
  return true;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string faketime_lib() {
  return FAKETIME_LIB;
}
