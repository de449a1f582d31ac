// The report's readers of evidence on any text, line by line: parse_line and the kernel's dumps
// (and their grouping by where tasks wait), the Java stack dumps and the tombstones; the monitor
// chain of every thread ends within the dump's threads, a deadlock included; the binder state, the
// process list, pressure (ActivityManager's ANR reports too) and the platform watchdog's lines,
// and the chain across processes from every thread the binder state names ends (cut or odd
// sections, cycles of any length).
#include <android-base/strings.h>

#include "report/report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> lines =
      android::base::Split(std::string(reinterpret_cast<const char*>(data), size), "\n");
  report::KernelReader kernel;
  for (const std::string& raw : lines) {
    report::Line line;
    if (report::parse_line(raw, &line)) kernel.add(line);
  }
  for (const report::KernelDump& dump : kernel.dumps) report::kernel_groups(dump);
  std::vector<report::ProcessDump> dumps = report::read_java_dumps(lines);
  for (report::ProcessDump& dump : report::read_native_dumps(lines)) dumps.push_back(dump);
  bool deadlock = false;
  for (const report::ProcessDump& dump : dumps) {
    for (size_t t = 0; t < dump.threads.size(); ++t) {
      if (report::monitor_chain(dump, t, &deadlock).size() > dump.threads.size()) __builtin_trap();
    }
  }
  report::Story story;
  for (const std::string& line : lines) {
    for (const char* section : {"BINDER STATE", "PROCESSES AND THREADS", "PSI memory"})
      story.across.add_section_line(section, line);
    report::WatchdogLine watchdog;
    report::parse_watchdog(line, &watchdog);
    story.across.anr.add(line, -1, "");
  }
  if (story.across.anr.read.size() > lines.size()) __builtin_trap();
  story.across.finish();
  if (story.across.binder.state.calls.size() > lines.size()) __builtin_trap();
  for (const report::BinderCall& call : story.across.binder.state.calls) {
    report::Incident in;
    in.pid = call.from_pid;
    in.tid = call.from_tid;
    report::Chain chain = report::follow_chain(story, in);
    if (chain.hops.size() > 34) __builtin_trap();
    report::chain_account(story, in, chain);
  }
  return 0;
}
