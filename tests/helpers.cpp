#include "helpers.h"

#include <android-base/file.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

void sleep_ms(int ms) {
  usleep(static_cast<useconds_t>(ms) * 1000);
}

TempDir::TempDir() {
  char pattern[] = "/tmp/stall_ward_test.XXXXXX";
  dir = mkdtemp(pattern) != nullptr ? pattern : "/nonexistent";
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

void write_file(const std::string& path, const std::string& content) {
  if (!android::base::WriteStringToFile(content, path, 0644, getuid(), getgid())) abort();
}

std::string read_file(const std::string& path) {
  std::string content;
  return android::base::ReadFileToString(path, &content) ? content : "";
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string unique(const std::string& base) {
  return base + std::to_string(getpid()) + "x";
}

std::string task_path(pid_t pid, pid_t tid) {
  return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid);
}

std::vector<std::string> log_messages(const std::string& log) {
  // "MM-DD HH:MM:SS.mmm  PID  TID P stall_ward: message"
  std::vector<std::string> out;
  std::istringstream in(log);
  const std::string tag = " stall_ward: ";
  for (std::string line; std::getline(in, line);) {
    size_t at = line.find(tag);
    if (at != std::string::npos && at >= 2) {
      out.push_back(line.substr(at - 1, 1) + " " + line.substr(at + tag.size()));
    }
  }
  return out;
}

int count(const std::vector<std::string>& lines, const std::string& line) {
  return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

int count_prefix(const std::vector<std::string>& lines, const std::string& prefix) {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
    return l.compare(0, prefix.size(), prefix) == 0;
  }));
}

LogCapture::LogCapture() {
  char pattern[] = "/tmp/stall_ward_log.XXXXXX";
  int fd = mkstemp(pattern);
  path_ = pattern;
  saved_ = dup(STDERR_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

void LogCapture::stop() {
  if (saved_ < 0) return;
  dup2(saved_, STDERR_FILENO);
  close(saved_);
  saved_ = -1;
  messages_ = log_messages(read_file(path_));
  unlink(path_.c_str());
}

const std::vector<std::string>& LogCapture::messages() {
  stop();
  return messages_;
}

Child::~Child() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ >= 0) close(out_);
}

std::string Child::read_line(int timeout_ms) {
  std::string line;
  char c;
  pollfd pfd = {out_, POLLIN, 0};
  while (poll(&pfd, 1, timeout_ms) == 1 && read(out_, &c, 1) == 1 && c != '\n') line += c;
  return line;
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

Child spawn(const std::string& program, const std::vector<std::string>& argv,
            const std::vector<std::string>& env, const std::string& err_path) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) abort();
  std::vector<char*> args, envp;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  // The environment, less a reboot permission, which is only ever given explicitly; of env, the
  // last entry for a key wins over earlier ones and over the environment.
  auto key_of = [](const std::string& e) { return e.substr(0, e.find('=') + 1); };
  auto set_later = [&](size_t from, const std::string& key) {
    for (size_t i = from; i < env.size(); ++i) {
      if (key_of(env[i]) == key) return true;
    }
    return false;
  };
  for (char** e = environ; *e != nullptr; ++e) {
    std::string key = key_of(*e);
    if (!set_later(0, key) && key != "STALL_WARD_ALLOW_REBOOT=") envp.push_back(*e);
  }
  for (size_t i = 0; i < env.size(); ++i) {
    if (!set_later(i + 1, key_of(env[i]))) envp.push_back(const_cast<char*>(env[i].c_str()));
  }
  args.push_back(nullptr);
  envp.push_back(nullptr);
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
  if (posix_spawn(&pid, program.c_str(), &actions, &attr, args.data(), envp.data()) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(fds[1]);
  return Child(pid, fds[0]);
}

pid_t StandIn::tid(const std::string& name) const {
  for (const auto& [thread, id] : tids) {
    if (thread == name) return id;
  }
  return -1;
}

StandIn start_stand_in(const std::vector<std::string>& argv) {
  // It prints "<pid> <tid> ..." once its threads are in place, in the order of --thread.
  StandIn s{spawn(stand_in_path(), argv), -1, {}};
  std::istringstream line(s.child.read_line());
  line >> s.pid;
  for (size_t i = 0; i + 1 < argv.size(); ++i) {
    pid_t tid = -1;
    if (argv[i] == "--thread" && line >> tid) {
      s.tids.emplace_back(argv[i + 1].substr(0, argv[i + 1].rfind(':')), tid);
    }
  }
  return s;
}

bool wait_for_state(pid_t pid, pid_t tid, char state) {
  return eventually(
      [&] {
        std::string stat = read_file(task_path(pid, tid) + "/stat");
        size_t paren = stat.rfind(')');
        return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == state;
      },
      5000);
}

// Where the build does not fix a program's path (a device), it lies beside the test binary.
static std::string beside_test(const char* fixed, const std::string& name) {
  if (fixed[0] != '\0') return fixed;
  std::string self = std::filesystem::read_symlink("/proc/self/exe");
  return self.substr(0, self.rfind('/') + 1) + name;
}

std::string stand_in_path() {
  return beside_test(STAND_IN_PATH, "stall_ward_stand_in");
}
std::string daemon_path() {
  return STALL_WARD_PATH;
}
std::string android_ps_dir() {
  return ANDROID_PS_DIR;
}
std::string faketime_lib() {
  return FAKETIME_LIB;
}
bool under_emulation() {
  return UNDER_EMULATION;
}

SysrqFifo::SysrqFifo(const std::string& path) {
  mkfifo(path.c_str(), 0600);
  fd_ = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

SysrqFifo::~SysrqFifo() {
  close(fd_);
}

std::vector<std::string> SysrqFifo::commands(size_t at_least, int timeout_ms) {
  std::vector<std::string> out;
  eventually(
      [&] {
        char buf[256];
        for (ssize_t n; (n = read(fd_, buf, sizeof(buf))) > 0;) stream_.append(buf, n);
        out.clear();
        std::istringstream in(stream_);
        for (std::string command; std::getline(in, command, '\0');) out.push_back(command);
        return out.size() >= at_least;
      },
      timeout_ms);
  return out;
}

DaemonRun::DaemonRun(const std::string& properties, const std::vector<std::string>& env,
                     bool accelerate)
    : trigger(dir.path("trigger")) {
  write_file(dir.path("props"), properties);
  std::vector<std::string> all = {"STALL_WARD_PROPERTIES=" + dir.path("props"),
                                  "STALL_WARD_SYSRQ_TRIGGER=" + dir.path("trigger")};
  if (accelerate) all.insert(all.end(), {"LD_PRELOAD=" + faketime_lib(), "FAKETIME=+0 x20"});
  all.insert(all.end(), env.begin(), env.end());
  daemon = spawn(daemon_path(), {daemon_path()}, all, dir.path("log"));
}

bool DaemonRun::wait_for(const std::string& line, int timeout_ms, int times) const {
  return eventually([&] { return count(line) >= times; }, timeout_ms);
}
