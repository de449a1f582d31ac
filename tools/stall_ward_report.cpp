// stall_ward_report: reads logs and bug reports and tells what stall_ward saw and did.
#include <android-base/file.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sysexits.h>
#include <time.h>
#include <unistd.h>

#include "cli.h"
#include "report/fleet.h"
#include "report/report.h"

static const char kHelp[] =
    "usage: stall_ward_report [--html FILE] [--json] [--stats] INPUT...\n"
    "       stall_ward_report --summary [--html FILE] [--jobs N] INPUT...\n"
    "       stall_ward_report --jsonl [--jobs N] INPUT...\n"
    "\n"
    "Reads device logs and dumps and tells, per run of stall_ward and per watched name, what the\n"
    "daemon saw and did: its configuration, each sweep (the /proc walk or ps), the thread bound\n"
    "and every rebind, its state and stall count by sweep, the evidence (SysRq w and l,\n"
    "signal 35, SIGQUIT), the policy action, frozen and not-started spells, the self-watchdog and\n"
    "slow sweeps; and why the thread was stuck: the kernel's dump that answers the evidence with\n"
    "the thread's kernel stack, the Java and native dumps with its Java and native stacks, and\n"
    "the blocker (the Java monitor's holder and on, a deadlock named as such; the tasks of the\n"
    "kernel's dump blocked at the same place, and the lock's owner where the kernel names it);\n"
    "across processes, the chain from the thread through binder calls, the callee threads, their\n"
    "kernel stacks and the kernel's lock owners to the culprit or a cross-process deadlock, with\n"
    "the pressure (the bug report's, or ActivityManager's for an ANR of the same process or\n"
    "time) and the platform watchdog's verdict on the same process.\n"
    "\n"
    "INPUT is any number of files, \"-\" for stdin, or a folder (each file in it):\n"
    "  logcat in threadtime form (adb logcat -d, also -b all, -v uid or -v year), or -v time's\n"
    "  a kernel log (dmesg, dmesg -T, /dev/kmsg's <6> priorities, logcat -b kernel; caller fields\n"
    "    and vendors' time stamps), kernels 3.x to 6.x, arm64, ARM32 and x86: SysRq w, the\n"
    "    kernel's hung-task reports, SysRq l\n"
    "  the previous boot's kernel log from pstore (console-ramoops-0, dmesg-ramoops-0, last_kmsg)\n"
    "  Java stack dumps (SIGQUIT): /data/anr/trace_NN (on Android 11 the daemon's SIGQUIT lands\n"
    "    there, and a bug report does not carry it: adb pull /data/anr, give the folder),\n"
    "    anr_* files\n"
    "  tombstones (signal 35): /data/tombstones/tombstone_NN\n"
    "  a bug report from adb bugreport: the zip (its main entry, ANR files and tombstones) or its\n"
    "    main text file; its SYSTEM LOG, KERNEL LOG, LAST LOGCAT, LAST KMSG, VM TRACES, BINDER\n"
    "    TRANSACTIONS, BINDER STATE, BINDER TRANSACTION LOG, BINDER FAILED TRANSACTION LOG,\n"
    "    PROCESSES AND THREADS and PSI cpu, memory and io sections are read (a section written\n"
    "    twice counts once)\n"
    "  the binder driver's state as a file (debugfs /sys/kernel/debug/binder/state,\n"
    "    transactions or proc/N, binderfs /dev/binderfs/binder_logs/...; also a terminal's\n"
    "    copy with its prompts and folded lines), kernels 2.6 to 6.x\n"
    "  the platform watchdog's logcat lines (tag Watchdog; also a paste of bare Watchdog: lines)\n"
    "    and a trace's Subject: line\n"
    "  ActivityManager's report of an ANR (ANR in, PID:, and the pressure it read between\n"
    "    ----- Output from /proc/pressure/... ----- and ----- End output ... -----), in logcat,\n"
    "    in Android Studio's logcat or in a copy without stamps\n"
    "Lines of other programs are skipped; lines that are not log lines are counted and skipped.\n"
    "Inputs are read in one pass; logs in fixed memory for the input's size.\n"
    "Where its fixtures came from: README, \"What happened\".\n"
    "\n"
    "Output: a text account on stdout, one paragraph per incident.\n"
    "  --html FILE  also write one self-contained page: a timeline per watched name (state and\n"
    "               stall count by sweep, marks for evidence, action, rebinds, frozen and\n"
    "               not-started spells), the incidents, and beside each its kernel, Java and\n"
    "               native stacks, the blocker and the chain across processes hop by hop, and\n"
    "               the daemon's own events (self-watchdog,\n"
    "               slow sweeps) apart\n"
    "  --json       print JSON instead of the text account (an unknown value is null; every time\n"
    "               in ms, with the year and zone where the input gives them; README has its\n"
    "               fields and their schema_version)\n"
    "  --stats      end with the time taken and the peak memory, on stderr\n"
    "\n"
    "A fleet: each INPUT (a folder: every file under it) is one device's bug report, read on its\n"
    "own, all at once on every processor; each incident is signed (README: the signature):\n"
    "  --summary    one row per signature (version 2: by the culprit where there is one):\n"
    "               count, distinct devices and builds, first and last seen, process, thread,\n"
    "               state, top frames, blocker, culprit; with --html FILE, the\n"
    "               table linking each signature to its incidents\n"
    "  --jsonl      one incident a line, as JSON, its chain across processes included (README:\n"
    "               the schema and the query that gives\n"
    "               the --summary table from it)\n"
    "  --jobs N     read N inputs at a time (default: one per processor)\n"
    "  -h, --help   this text\n"
    "  --version    the version\n"
    "An input that cannot be read is named on stderr and skipped; the others are read. A\n"
    "progress line goes to stderr when it is a terminal.\n"
    "\n"
    "With the daemon's debug logging off (persist.vendor.sw.debug=0) its log holds only its "
    "start;\n"
    "the report says so and still lists each SysRq dump in the kernel log.\n"
    "Exit status: 0, 1 when no input holds a line of the daemon (said on stderr), 2 when an\n"
    "input cannot be read (a zip cut short or damaged included), 64 for a bad command line (no\n"
    "input, an unknown option).\n";

namespace {

constexpr const char kTool[] = "stall_ward_report";

struct Options {
  std::vector<std::string> inputs;
  std::string html;
  bool json = false, stats = false, summary = false, jsonl = false;
  int jobs = 0;
};

// Reads the command line into `opts`; -1 to go on, else the exit status (help, version, or a
// one-line reason for a bad command line).
int parse_options(int argc, char** argv, Options* opts) {
  const option options[] = {{"html", required_argument, nullptr, 'o'},
                            {"json", no_argument, nullptr, 'j'},
                            {"stats", no_argument, nullptr, 's'},
                            {"summary", no_argument, nullptr, 'S'},
                            {"jsonl", no_argument, nullptr, 'l'},
                            {"jobs", required_argument, nullptr, 'J'},
                            {"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, cli::kVersionOption},
                            {nullptr, 0, nullptr, 0}};
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":h", options, nullptr)) != -1;) {
    if (c == 'o') {
      opts->html = optarg;
    } else if (c == 'j') {
      opts->json = true;
    } else if (c == 's') {
      opts->stats = true;
    } else if (c == 'S') {
      opts->summary = true;
    } else if (c == 'l') {
      opts->jsonl = true;
    } else if (c == 'J' && atoi(optarg) > 0) {
      opts->jobs = atoi(optarg);
    } else if (c == 'h') {
      fputs(kHelp, stdout);
      return EX_OK;
    } else if (c == cli::kVersionOption) {
      return cli::version(kTool);
    } else if (c == 'J') {
      cli::error(kTool, "--jobs takes a count above 0, not \"%s\"", optarg);
      return EX_USAGE;
    } else {
      return cli::bad_option(kTool, c, argv);
    }
  }
  opts->inputs.assign(argv + optind, argv + argc);
  return -1;
}

// No input, or outputs that exclude each other (--summary or --jsonl beside --json, --jsonl
// beside a page): the reason on one line, and false.
bool coherent(const Options& opts) {
  if (opts.inputs.empty()) {
    cli::error(kTool, "no input: name logs, bug reports or folders (see --help)");
    return false;
  }
  if ((opts.summary && (opts.jsonl || opts.json)) ||
      (opts.jsonl && (opts.json || !opts.html.empty()))) {
    cli::error(kTool,
               "--summary and --jsonl each stand alone: --summary takes no "
               "--json or --jsonl, --jsonl no --json or --html");
    return false;
  }
  return true;
}

bool write_page(const std::string& page, const std::string& file) {
  if (android::base::WriteStringToFile(page, file)) return true;
  fprintf(stderr, "%s: cannot write %s\n", kTool, file.c_str());
  return false;
}

// Each input a device's bug report: one incident a line, or the table of signatures (and its
// page). 2 when an input is damaged or the page cannot be written, 1 when no input holds a line of
// the daemon.
int fleet(const Options& opts) {
  report::Summary table;
  table.pages = !opts.html.empty();
  report::FleetStats stats = report::read_fleet(opts.inputs, opts.jobs, isatty(STDERR_FILENO) != 0,
                                                stderr, [&](std::vector<report::Hang>&& hangs) {
                                                  for (report::Hang& h : hangs) {
                                                    if (opts.jsonl) {
                                                      fputs(report::jsonl_line(h).c_str(), stdout);
                                                    } else {
                                                      table.add(std::move(h));
                                                    }
                                                  }
                                                });
  if (opts.summary) fputs(table.table().c_str(), stdout);
  if (!opts.html.empty() && !write_page(table.html(stats), opts.html)) return 2;
  if (stats.damaged > 0) return 2;
  if (stats.with_daemon > 0) return 0;
  cli::error(kTool, "%s", report::kNoDaemonLine);
  return 1;
}

// The inputs as one story: the account or its JSON (and its page). 2 when an input cannot be
// read or the page written, 1 when no line of the daemon was found.
int story(const Options& opts) {
  report::Story story = report::build_story(opts.inputs);
  fputs((opts.json ? report::json_report(story) : report::text_report(story)).c_str(), stdout);
  if (!opts.html.empty() && !write_page(report::html_report(story), opts.html)) return 2;
  if (!story.input.errors.empty()) return 2;
  if (story.input.daemon > 0) return 0;
  cli::error(kTool, "%s", report::kNoDaemonLine);
  return 1;
}

void print_stats(const timespec& start) {
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  fprintf(stderr, "%s: %.2f s, peak memory %ld KiB\n", kTool,
          static_cast<double>(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9,
          usage.ru_maxrss);
}

}  // namespace

int main(int argc, char** argv) {
  timespec start = {};
  clock_gettime(CLOCK_MONOTONIC, &start);
  Options opts;
  int status = parse_options(argc, argv, &opts);
  if (status >= 0) return status;
  if (!coherent(opts)) return EX_USAGE;
  status = opts.summary || opts.jsonl ? fleet(opts) : story(opts);
  if (opts.stats) print_stats(start);
  return status;
}
