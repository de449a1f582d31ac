// What the checker sees of the running system: the processes and threads under /proc, the ps
// self-test of the running daemon, and the daemon's own sweep run over a window, never acted on.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <unistd.h>

#include <memory>

#include "check/check.h"
#include "utils.h"

namespace check {
namespace {

stat_fields read_stat(const std::string& dir) {
  stat_fields f;
  std::string text;
  android::base::ReadFileToString(dir + "/stat", &text);
  parse_stat(text, &f);
  return f;
}

std::vector<Thread> read_threads(const std::string& dir) {
  std::vector<Thread> threads;
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir((dir + "/task").c_str()), closedir);
  for (dirent* t; tasks && (t = readdir(tasks.get())) != nullptr;) {
    if (t->d_name[0] == '.') continue;
    std::string task = dir + "/task/" + t->d_name, comm;
    android::base::ReadFileToString(task + "/comm", &comm);
    threads.push_back({t->d_name, android::base::Trim(comm), read_stat(task).state});
  }
  return threads;
}

// Where the daemon's sweep left each watched record.
void sample(const System& s, DryRun* run) {
  for (const Watch& w : s.watches) {
    const proc& r = mTids.at(w.record());
    run->records[w.record()].push_back(
        {r.pid, r.tid, r.state, r.stuck_ms, r.updated, r.is_app, r.frozen});
  }
}

// What the daemon's ps lookup gives for each watched name, each asked afresh.
void look_up(const System& s, DryRun* run) {
  for (const Watch& w : s.watches) {
    pid_info info = {-1, -1, -1};
    sh_find_proc(&info, w.entry->name, w.thread);
    if (info.pid != -1) run->lookups.push_back({w, info});
  }
}

}  // namespace

void read_processes(System* s) {
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  for (dirent* d; proc && (d = readdir(proc.get())) != nullptr;) {
    if (d->d_name[0] < '0' || d->d_name[0] > '9') continue;
    std::string dir = std::string("/proc/") + d->d_name;
    std::string name = get_proc_name(d->d_name);
    stat_fields f = read_stat(dir);
    if (name.empty()) {
      if (f.state == 'Z') s->zombies.push_back(d->d_name);
      continue;
    }
    bool app = is_zygote(get_proc_name(std::to_string(f.ppid)));
    s->processes.push_back(
        {d->d_name, command_base_name(name), f.comm, f.state, app, read_threads(dir)});
  }
  // The daemon's own self-test, which tells the way its sweeps take: asked for the running
  // daemon, or else for the checker, whose name the test's grep matches as it matches the daemon's.
  std::vector<const Process*> daemons = s->named("stall_ward");
  s->daemon_running = !daemons.empty();
  char out[kShellOutputSize] = {};
  exec_command(kPsSelfTest, out);
  std::string printed;
  std::string pid = s->daemon_running ? daemons[0]->pid : std::to_string(getpid());
  s->ps_verdict = ps_self_test(out, pid, &printed) == 1 ? 1 : 0;
}

// The daemon's sweep, the way it takes, once now and then once every interval through the window,
// on the daemon's records as start-up made them (the daemon's are its own).
void run_sweeps(System* s, int64_t window_ms) {
  s->window_ms = window_ms;
  s->run.shell = s->ps_verdict == 1;
  for (int64_t at = 0; at <= window_ms; at += interval_ms) {
    if (at > 0) usleep(static_cast<useconds_t>(interval_ms * 1000));
    collect_proc_info(s->run.shell);
    sample(*s, &s->run);
    if (at == 0 && s->run.shell) look_up(*s, &s->run);
  }
}

}  // namespace check
