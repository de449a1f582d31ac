#include "helpers.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

TempDir::TempDir() : dir(temp_root() + "/stall_ward_test.XXXXXX") {
  if (mkdtemp(dir.data()) == nullptr) abort();
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

void write_file(const std::string& path, const std::string& content, int mode) {
  if (!android::base::WriteStringToFile(content, path, mode, getuid(), getgid())) abort();
}

std::string read_file(const std::string& path) {
  std::string content;
  return android::base::ReadFileToString(path, &content) ? content : "";
}

std::string unique(const std::string& base) {
  return base + std::to_string(getpid()) + "x";
}

std::string task_path(pid_t pid, pid_t tid) {
  return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
}

Lines log_messages(const std::string& log) {
  Lines out;  // of "MM-DD HH:MM:SS.mmm  PID  TID P stall_ward: message"
  const std::string tag = " stall_ward: ";
  for (const std::string& line : android::base::Split(log, "\n")) {
    size_t at = line.find(tag);
    if (at != std::string::npos && at >= 2)
      out.push_back(line[at - 1] + (" " + line.substr(at + tag.size())));
  }
  return out;
}

int count(const Lines& lines, const std::string& line) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

int count_prefix(const Lines& lines, const std::string& prefix) {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
    return android::base::StartsWith(l, prefix);
  }));
}

void use_properties(const std::string& content) {
  static TempDir dir;  // a new name each time: the store reads a file once per name
  static int serial = 0;
  std::string path = dir.path("props." + std::to_string(++serial));
  write_file(path, content);
  setenv("STALL_WARD_PROPERTIES", path.c_str(), 1);
}

LogCapture::LogCapture() : path_(temp_root() + "/stall_ward_log.XXXXXX") {
  int fd = mkstemp(path_.data());
  saved_ = dup(STDERR_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

const Lines& LogCapture::messages() {
  if (saved_ >= 0) {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
    messages_ = log_messages(read_file(path_));
    unlink(path_.c_str());
  }
  return messages_;
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

std::string Child::read_line() {
  std::string line;
  char c;
  pollfd pfd = {out_, POLLIN, 0};
  while (poll(&pfd, 1, 5000) == 1 && read(out_, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

std::string Child::read_all() {
  std::string all;
  char buf[4096];
  pollfd pfd = {out_, POLLIN, 0};
  for (ssize_t n; poll(&pfd, 1, 60000) == 1 && (n = read(out_, buf, sizeof(buf))) > 0;) {
    all.append(buf, static_cast<size_t>(n));
  }
  return all;
}

int Child::wait(int timeout_ms) {
  int status = -1;
  if (pid_ <= 0 ||
      !eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout_ms)) {
    return -1;
  }
  pid_ = -1;
  return status;
}

Child spawn(const std::string& program, const Lines& argv, const std::string& err_path) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) abort();
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  if (!err_path.empty()) {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }
  posix_spawnattr_t attr;  // the tests' signal mask stays with the tests
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  if (posix_spawn(&pid, program.c_str(), &actions, &attr, args.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(fds[1]);
  return Child(pid, fds[0]);
}

StandIn start_stand_in(const Lines& argv) {
  StandIn s{spawn(stand_in_path(), argv), -1, {}};
  std::istringstream line(s.child.read_line());  // "<pid> <tid> ..." once in place
  line >> s.pid;
  for (pid_t tid; line >> tid;) s.tids.push_back(tid);
  // Its ids go to kill(), where -1 would reach every process: a stand-in that did not start ends
  // the test program, once it is reaped.
  if (s.pid <= 0) s.child.~Child(), abort();
  return s;
}

std::string stand_in_path() {
  if (STAND_IN_PATH[0] != '\0') return STAND_IN_PATH;
  std::string self = std::filesystem::read_symlink("/proc/self/exe");  // a device: beside us
  return self.substr(0, self.rfind('/') + 1) + "stall_ward_stand_in";
}

std::string android_ps_path() {
  return std::string("PATH=") + ANDROID_PS_DIR + ":" + getenv("PATH");
}

SysrqFifo::SysrqFifo(const std::string& path) {
  mkfifo(path.c_str(), 0600);
  fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

Lines SysrqFifo::commands(size_t at_least, int timeout_ms) {
  Lines out;
  eventually(
      [&] {
        char buf[256];
        for (ssize_t n; (n = read(fd_, buf, sizeof(buf))) > 0;) stream_.append(buf, n);
        out = android::base::Split(stream_, std::string(1, '\0'));
        out.pop_back();  // what follows the last NUL
        return out.size() >= at_least;
      },
      timeout_ms);
  return out;
}
