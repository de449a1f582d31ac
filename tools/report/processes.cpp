// Who is who: the process list (a bug report's PROCESSES AND THREADS, toybox's ps -A -T, or ps -A),
// the pressure-stall lines and the platform watchdog's verdicts.
#include <stdlib.h>

#include <algorithm>
#include <sstream>

#include "report/across.h"

namespace report {
namespace {

std::vector<std::string> split_words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> out;
  for (std::string word; in >> word;) out.push_back(word);
  return out;
}

bool number(const std::string& s) {
  return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

int column(const std::vector<std::string>& columns, const char* name) {
  for (size_t i = 0; i < columns.size(); ++i) {
    if (columns[i] == name) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

// A row lines up with the header from its PID on (a LABEL or USER column may be blank); the name
// is the last column and may hold spaces ("Signal Catcher").
void PsReader::add(const std::string& line) {
  std::vector<std::string> w = split_words(line);
  if (column(w, "PID") >= 0 && (column(w, "CMD") >= 0 || column(w, "NAME") >= 0)) {
    columns = w;
    return;
  }
  int pid_at = column(columns, "PID");
  if (pid_at < 0 || w.empty()) return;
  int first = -1;
  for (size_t i = 0; i < w.size() && first < 0; ++i) {
    if (number(w[i])) first = static_cast<int>(i);
  }
  int shift = first - pid_at;
  int last = static_cast<int>(columns.size()) - 1;
  if (first < 0 || last + shift >= static_cast<int>(w.size()) || last + shift < 0) return;
  auto at = [&](const char* name) -> std::string {
    int c = column(columns, name);
    return c < 0 || c + shift < 0 ? "" : w[static_cast<size_t>(c + shift)];
  };
  PsThread task;
  task.pid = atoi(at("PID").c_str());
  std::string tid = at("TID");
  task.tid = tid.empty() ? task.pid : atoi(tid.c_str());
  task.ppid = atoi(at("PPID").c_str());
  std::string s = at("S");
  task.state = s.size() == 1 ? s[0] : '?';
  task.wchan = at("WCHAN");
  for (size_t i = static_cast<size_t>(last + shift); i < w.size(); ++i)
    task.name += (task.name.empty() ? "" : " ") + w[i];
  if (task.pid > 0 && task.tid > 0) list.tasks[task.tid] = task;
}

std::string ProcessList::process_name(int pid) const {
  auto it = tasks.find(pid);
  return it == tasks.end() || it->second.pid != pid ? "" : it->second.name;
}

const PsThread* ProcessList::task(int tid) const {
  auto it = tasks.find(tid);
  return it == tasks.end() ? nullptr : &it->second;
}

std::string pressure_resource(const std::string& header) {
  for (const char* resource : {"cpu", "memory", "io"}) {
    if (header.find(std::string("/proc/pressure/") + resource) != std::string::npos ||
        header.find(std::string("PSI ") + resource + " ") != std::string::npos)
      return resource;
  }
  return "";
}

bool parse_pressure(const std::string& line, const std::string& resource, Pressure* out) {
  std::vector<std::string> w = split_words(line);
  if (w.size() < 2 || (w[0] != "some" && w[0] != "full")) return false;
  Pressure p;
  p.resource = resource;
  p.kind = w[0];
  bool avg10 = false;
  for (size_t i = 1; i < w.size(); ++i) {
    size_t eq = w[i].find('=');
    if (eq == std::string::npos) return false;
    std::string key = w[i].substr(0, eq);
    const char* value = w[i].c_str() + eq + 1;
    if (key == "avg10") avg10 = true;
    if (key == "avg10") p.avg10 = strtod(value, nullptr);
    if (key == "avg60") p.avg60 = strtod(value, nullptr);
    if (key == "avg300") p.avg300 = strtod(value, nullptr);
    if (key == "total") p.total_us = strtoll(value, nullptr, 10);
  }
  if (!avg10) return false;
  *out = p;
  return true;
}

// The time a line of Android Studio's logcat starts with ("21:57:41.642  E  ANR in ...", with the
// date before it where shown): its words up to the first with a colon.
std::string studio_clock(const std::string& before) {
  std::string clock;
  for (const std::string& word : split_words(before)) {
    clock += (clock.empty() ? "" : " ") + word;
    if (word.find(':') != std::string::npos) return clock;
  }
  return "";
}

// The lines of one report share their stamp: a line of the log with another one ends it. Each
// report's figures count once (a log section written twice).
void AnrReader::add(const std::string& message, int64_t ms, const std::string& clock) {
  std::string m = message.substr(std::min(message.find_first_not_of(" \t"), message.size()));
  size_t anr = m.find("ANR in ");
  if (anr != std::string::npos) {
    now = PressureSource();
    now.anr = true;
    std::vector<std::string> name = split_words(m.substr(anr + 7));
    if (!name.empty()) now.process = name[0];
    now.clock = clock.empty() ? studio_clock(m.substr(0, anr)) : clock;
    now.ms = ms;
    resource.clear();
    return;
  }
  if (!clock.empty() && clock != now.clock) {
    now = PressureSource();
    resource.clear();
  }
  Pressure p;
  if (m.compare(0, 5, "PID: ") == 0 && now.anr && now.pid == 0) {
    now.pid = atoi(m.c_str() + 5);
  } else if (m.compare(0, 18, "----- Output from ") == 0) {
    resource = pressure_resource(m);
    now.anr = true;
  } else if (resource.empty() || !parse_pressure(m, resource, &p)) {
    resource.clear();
  } else {
    p.from = now;
    for (const Pressure& r : read) {
      if (!now.clock.empty() && r.from.clock == now.clock && r.from.pid == now.pid &&
          r.resource == p.resource && r.kind == p.kind)
        return;
    }
    read.push_back(p);
  }
}

// "Blocked in handler on NAME (THREAD)[ for Ns]" or "Blocked in monitor CLASS on NAME (THREAD)[ for
// Ns]"; more than one, joined by ", ", names the first.
bool parse_watchdog(const std::string& message, WatchdogLine* out) {
  WatchdogLine w;
  std::string m = message;
  if (m.compare(0, 9, "Subject: ") == 0) m = m.substr(9);
  const std::string killing = "*** WATCHDOG KILLING SYSTEM PROCESS: ";
  if (m.compare(0, 12, "*** GOODBYE!") == 0) {
    w.kind = "goodbye";
    *out = w;
    return true;
  }
  w.kind = m.compare(0, killing.size(), killing) == 0 ? "killing" : "blocked";
  if (w.kind == "killing") m = m.substr(killing.size());
  if (m.compare(0, 11, "Blocked in ") != 0) return false;
  m = m.substr(11);
  size_t on = m.find(" on ");
  size_t open = m.find(" (", on == std::string::npos ? 0 : on);
  size_t close = m.find(')', open == std::string::npos ? 0 : open);
  if (on == std::string::npos || open == std::string::npos || close == std::string::npos)
    return false;
  w.what = m.substr(0, m.find(' '));
  if (w.what == "monitor" && on > 8) w.monitor = m.substr(8, on - 8);
  w.checker = m.substr(on + 4, open - on - 4);
  w.thread = m.substr(open + 2, close - open - 2);
  size_t f = m.find(" for ", close);
  if (f != std::string::npos && f == close + 1) w.seconds = atoi(m.c_str() + f + 5);
  *out = w;
  return true;
}

}  // namespace report
