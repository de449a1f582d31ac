// stall_ward_report: reads logs and bug reports and tells what stall_ward saw and did.
#include <android-base/file.h>
#include <getopt.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sysexits.h>
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
    "               not-started spells), the incidents, and each kernel stack beside its evidence\n"
    "  --json       print JSON instead of the text account\n"
    "  --stats      end with the time taken and the peak memory, on stderr\n"
    "\n"
    "With the daemon's debug logging off (persist.vendor.sw.debug=0) its log holds only its "
    "start;\n"
    "the report says so and still lists each SysRq dump in the kernel log.\n"
    "Exit status: 0, 2 when an input cannot be read, 64 for a bad command line (no input, an\n"
    "unknown option).\n";

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  std::string html;
  bool json = false, stats = false;
  timespec start = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  const option options[] = {{"html", required_argument, nullptr, 'o'},
                            {"json", no_argument, nullptr, 'j'},
                            {"stats", no_argument, nullptr, 's'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
  for (int c; (c = getopt_long(argc, argv, "h", options, nullptr)) != -1;) {
    if (c == 'o') {
      html = optarg;
    } else if (c == 'j') {
      json = true;
    } else if (c == 's') {
      stats = true;
    } else if (c == 'h') {
      fputs(kHelp, stdout);
      return EX_OK;
    } else {
      fputs(kHelp, stderr);
      return EX_USAGE;
    }
  }
  inputs.assign(argv + optind, argv + argc);
  if (inputs.empty()) {
    fputs(kHelp, stderr);
    return EX_USAGE;
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
