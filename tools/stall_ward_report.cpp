// stall_ward_report: reads logs and bug reports and tells what stall_ward saw and did.
#include <android-base/file.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include "report/report.h"

static const char kHelp[] =
    "usage: stall_ward_report [--html FILE] [--json] INPUT...\n"
    "\n"
    "Reads device logs and tells, per run of stall_ward and per watched name, what the daemon saw\n"
    "and did: its configuration, each sweep (the /proc walk or ps), the thread bound and every\n"
    "rebind, its state and stall count by sweep, the evidence (SysRq w and l, signal 35, "
    "SIGQUIT),\n"
    "the policy action, frozen and not-started spells, the self-watchdog and slow sweeps; and "
    "from\n"
    "the kernel log, the blocked-task dump (SysRq w) that answers each piece of evidence, with "
    "the\n"
    "thread's kernel stack.\n"
    "\n"
    "INPUT is any number of files, \"-\" for stdin:\n"
    "  a log in logcat's threadtime form (adb logcat -d, also -b all, -v uid or -v year)\n"
    "  a kernel log (dmesg, adb shell dmesg, logcat -b kernel), kernels 4.14 to current\n"
    "  a bug report from adb bugreport: the zip, or its main text file (its SYSTEM LOG and\n"
    "  KERNEL LOG sections are read)\n"
    "Lines of other programs are skipped; lines that are not log lines are counted and skipped.\n"
    "Inputs are read in one pass, in fixed memory for the input's size.\n"
    "\n"
    "Output: a text account on stdout, one paragraph per incident.\n"
    "  --html FILE  also write one self-contained page: a timeline per watched name (state and\n"
    "               stall count by sweep, marks for evidence, action, rebinds, frozen and\n"
    "               not-started spells), the incidents, each with its thread's kernel stack,\n"
    "               and the daemon's own events (self-watchdog, slow sweeps) apart\n"
    "  --json       print JSON instead of the text account (schema_version 1; every time in ms,\n"
    "               with the year and zone where the input gives them; README has its fields)\n"
    "  --stats      end with the time taken and the peak memory, on stderr\n"
    "\n"
    "With the daemon's debug logging off (persist.vendor.sw.debug=0) its log holds only its "
    "start;\n"
    "the report says so and still lists each SysRq dump in the kernel log.\n"
    "Exit status: 0, or 2 when an input cannot be read or no input is named.\n";

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  std::string html;
  bool json = false, stats = false;
  timespec start = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kHelp, stdout);
      return 0;
    } else if (strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (strcmp(argv[i], "--stats") == 0) {
      stats = true;
    } else if (strcmp(argv[i], "--html") == 0 && i + 1 < argc) {
      html = argv[++i];
    } else {
      inputs.push_back(argv[i]);
    }
  }
  if (inputs.empty()) {
    fputs(kHelp, stderr);
    return 2;
  }
  report::Story story = report::build_story(inputs);
  fputs((json ? report::json_report(story) : report::text_report(story)).c_str(), stdout);
  if (!html.empty() && !android::base::WriteStringToFile(report::html_report(story), html)) {
    fprintf(stderr, "stall_ward_report: cannot write %s\n", html.c_str());
    return 2;
  }
  if (stats) {
    timespec end = {};
    clock_gettime(CLOCK_MONOTONIC, &end);
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    fprintf(stderr, "stall_ward_report: %.2f s, peak memory %ld KiB\n",
            static_cast<double>(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9,
            usage.ru_maxrss);
  }
  return story.input.errors.empty() ? 0 : 2;
}
