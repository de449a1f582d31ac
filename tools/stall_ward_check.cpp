// stall_ward_check: reads the daemon's configuration as a device reads it (the property files in
// init's order and by init's rules, or the live properties), hands it to the daemon's own readers,
// prints the configuration in the daemon's terms, and reports the settings that cannot work or
// would act on a healthy process, each with the lines that set it and what to write instead. With
// --live it runs the daemon's own sweep over the running system for a window, never acting on it.
// Read-only: it never signals, never writes the SysRq trigger, never sets a property.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android/log.h>
#include <cutils/properties.h>
#include <errno.h>
#include <getopt.h>
#include <json/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/system_properties.h>
#include <sysexits.h>

#include <algorithm>
#include <optional>
#include <set>

#include "check/check.h"
#include "cli.h"
#include "utils.h"
#ifndef __ANDROID__
#include "property_file.h"  // the host store, which is handed the values the files set
#endif

using namespace check;

namespace {

constexpr const char* kTool = "stall_ward_check";

// A run's way out before any finding: the exit status and its one line.
struct Refusal {
  int status;
  std::string why;
};

// ---------------------------------------------------------------------------------------------
// The configuration.

std::optional<Refusal> read_text(const std::string& path, std::string* text) {
  if (!android::base::ReadFileToString(path, text)) {
    return Refusal{EX_NOINPUT, path + ": cannot be read: " + strerror(errno)};
  }
  if (!cli::is_text(*text)) return Refusal{EX_NOINPUT, path + ": not a text file"};
  return std::nullopt;
}

void add_lines(const std::string& path, const std::string& text, System* s) {
  for (const PropertyLine& line : parse_property_text(path, text).lines) {
    if (init_loads(path, line.key) && android::base::StartsWith(line.key, kPropPrefix)) {
      s->lines[line.key].push_back(line);
    }
  }
}

std::optional<Refusal> read_files(std::vector<std::string> paths, System* s) {
#ifdef __ANDROID__
  (void)paths;
  (void)s;
  return Refusal{EX_USAGE,
                 "property files are read by the host build; here, run it without files "
                 "to check the live properties"};
#else
  std::stable_sort(paths.begin(), paths.end(), [](const auto& a, const auto& b) {
    return init_load_rank(a) < init_load_rank(b);
  });
  std::unordered_map<std::string, std::string> set;
  for (const std::string& path : paths) {
    std::string text;
    if (auto refusal = read_text(path, &text)) return refusal;
    add_lines(path, text, s);
  }
  for (const auto& [key, lines] : s->lines) {
    std::string why = property_refusal(key, lines.back().value);
    if (why.empty())
      set[key] = lines.back().value;
    else
      s->refused.emplace_back(key, why);
  }
  use_property_values(set);
  return std::nullopt;
#endif
}

// Without files: on a device the live properties, on a host the daemon's own property file.
std::optional<Refusal> read_installed(System* s) {
#ifdef __ANDROID__
  __system_property_foreach(
      [](const prop_info* pi, void* cookie) {
        __system_property_read_callback(
            pi,
            [](void* out, const char* name, const char* value, uint32_t) {
              if (android::base::StartsWith(name, kPropPrefix)) {
                (*static_cast<System*>(out)).lines[name].push_back({"", 0, name, value});
              }
            },
            cookie);
      },
      s);
  if (s->lines.empty()) {
    return Refusal{EX_USAGE, std::string("no configuration: no ") + kPropPrefix +
                                 "* property is set on this device"};
  }
  return std::nullopt;
#else
  const char* path = getenv("STALL_WARD_PROPERTIES");
  if (path == nullptr || *path == '\0') {
    return Refusal{EX_USAGE,
                   "no configuration: name the property files a device loads "
                   "(vendor/build.prop, ...) or set STALL_WARD_PROPERTIES"};
  }
  s->property_file = path;
  // A file the store cannot read is the daemon's refusal, a finding; one that is not text, ours.
  std::string text;
  if (android::base::ReadFileToString(path, &text) && !cli::is_text(text)) {
    return Refusal{EX_NOINPUT, std::string(path) + ": not a text file"};
  }
  add_lines(path, text, s);
  for (const PropertyRefusal& r : property_refusals()) s->refused.emplace_back(r.key, r.why);
  return std::nullopt;
#endif
}

System read_configuration(const std::vector<std::string>& files, std::optional<Refusal>* refusal) {
  System s;
  *refusal = files.empty() ? read_installed(&s) : read_files(files, &s);
  if (*refusal) return s;
  s.enabled = get_prop_bool(kPropEnable, false);
  read_settings();
  s.debug = debug_enabled;
  debug_enabled = false;  // the daemon's functions used below log nothing of their own
  s.timeout = static_cast<int>(alarm_ms / 1000);
  s.timeout_text = get_prop_string(kPropTimeout, "");
  s.policy_text = get_prop_string(kPropPolicy, "");
  s.processes_text = get_prop_string(kPropProcesses, kDefaultProcesses);
  for (const monitor_info& m : monitor_list) {
    if (!m.has_threads) s.watches.push_back({&m, ""});
    std::vector<std::string> threads(m.threads.begin(), m.threads.end());
    std::sort(threads.begin(), threads.end());
    for (const std::string& t : threads) s.watches.push_back({&m, t});
  }
  return s;
}

// ---------------------------------------------------------------------------------------------
// Output: text and JSON from the same findings.

struct Finding {
  const Hazard* hazard;
  Hit hit;
  bool error() const { return hazard->severity == kError && !hit.warning_only; }
  std::string instead() const {
    return hit.fix_key.empty() ? hazard->instead : hit.fix_key + "=" + hit.fix_value;
  }
};

// Where a finding comes from: every line that set its key, or the property file itself.
std::vector<std::string> where(const System& s, const Hit& hit) {
  std::vector<std::string> out;
  auto it = s.lines.find(hit.key);
  if (it == s.lines.end()) {
    if (hit.key.empty() && !s.property_file.empty()) out.push_back(s.property_file);
    return out;
  }
  for (const PropertyLine& line : it->second) {
    out.push_back(line.path.empty() ? "the live property"
                                    : line.path + ":" + std::to_string(line.line));
  }
  return out;
}

std::vector<std::string> sorted(const std::unordered_set<std::string>& set) {
  std::vector<std::string> out(set.begin(), set.end());
  std::sort(out.begin(), out.end());
  return out;
}

std::string state_text(char state) {
  return state == '?' ? "not sampled" : std::string(1, state);
}

// One record's last sample in one run, in words.
std::string record_text(const RecordSample& r, size_t sweeps) {
  if (r.pid == kNoId) return "never bound";
  std::string tid = r.tid == kNoId ? "no thread" : "tid " + std::to_string(r.tid);
  bool stalled = r.stuck_ms >= static_cast<int64_t>(sweeps - 1) * interval_ms && sweeps > 1;
  return "pid " + std::to_string(r.pid) + ", " + tid + ", " + state_text(r.state) +
         (r.is_app ? " (app)" : "") + ", no progress for " + std::to_string(r.stuck_ms / 1000) +
         " s" + (stalled ? ": a stall as the daemon counts it" : "");
}

void print_live(const System& s) {
  printf("\nlive:\n");
  std::set<std::string> seen;
  for (const monitor_info& m : monitor_list) {
    if (!seen.insert(m.name).second) continue;
    std::vector<const Process*> found = s.named(m.name);
    printf("  %s: %zu process%s\n", m.name.c_str(), found.size(), found.size() == 1 ? "" : "es");
    for (const Process* p : found) {
      printf("    pid %s, main thread \"%s\" %c%s\n", p->pid.c_str(), p->comm.c_str(), p->state,
             p->app ? ", an app (a child of zygote): S counts" : "");
      for (const std::string& name : sorted(m.threads)) {
        const Thread* t = find_thread(*p, name);
        printf("      %s: %s\n", name.c_str(),
               t == nullptr ? "no such thread" : ("tid " + t->tid + " " + t->state).c_str());
      }
    }
  }
  printf(
      "  ps self-test (%s): %s\n",
      s.daemon_running ? "the running daemon's" : "the checker's, no stall_ward running",
      s.ps_verdict == 1 ? "passes: sweeps find processes through ps" : "fails: sweeps walk /proc");
  if (!s.run.records.empty()) {
    size_t sweeps = s.run.records.begin()->second.size();
    printf("  the daemon's sweep, %s, %zu sweep%s over %lld s:\n",
           s.run.shell ? "the ps way" : "the /proc walk", sweeps, sweeps == 1 ? "" : "s",
           static_cast<long long>(s.window_ms / 1000));
    for (const auto& [name, samples] : s.run.records) {
      printf("    %s: %s\n", name.c_str(), record_text(samples.back(), sweeps).c_str());
    }
  }
  if (s.window_ms < 2 * interval_ms) {
    printf(
        "  not known: whether the threads make progress between sweeps (watched for less than "
        "two sweeps' worth, %lld s)\n",
        static_cast<long long>(2 * interval_ms / 1000));
  }
}

void print_configuration(const System& s) {
  printf("stall_ward configuration, as the daemon reads it at start-up\n");
  printf("  enabled   %s\n", s.enabled ? "yes" : "no: the daemon parks and does nothing");
  printf("  debug     %s\n", s.debug ? "on" : "off");
  printf("  timeout   %d s (alarm_ms %lld: the stall limit and the self-watchdog)\n", s.timeout,
         static_cast<long long>(alarm_ms));
  printf("  interval  %lld s between sweeps (interval_ms %lld)\n",
         static_cast<long long>(interval_ms / 1000), static_cast<long long>(interval_ms));
  printf("  policy    %d, %s (from \"%s\")\n", policy, kPolicyNames[policy], s.policy_text.c_str());
  printf("  monitor list:\n");
  for (const monitor_info& m : monitor_list) {
    printf("    %s: %s\n", m.name.c_str(),
           m.has_threads ? ("threads " + android::base::Join(sorted(m.threads), ", ")).c_str()
                         : "main thread");
  }
  std::vector<std::string> records;
  for (const auto& entry : mTids) records.push_back(entry.first);
  std::sort(records.begin(), records.end());
  printf("  records   %s\n", android::base::Join(records, ", ").c_str());
}

void print_text(const System& s, const std::vector<Finding>& findings) {
  print_configuration(s);
  if (s.live) print_live(s);
  printf("\n");
  int errors = 0;
  for (const Finding& f : findings) {
    errors += f.error();
    printf("%s %s: %s\n", f.error() ? "error" : "warning", f.hazard->id, f.hit.entry.c_str());
    for (const std::string& at : where(s, f.hit)) printf("    at %s\n", at.c_str());
    if (!f.hit.detail.empty()) printf("    %s\n", f.hit.detail.c_str());
    printf("    %s\n", f.hazard->message.c_str());
    if (!f.instead().empty()) printf("    instead: %s\n", f.instead().c_str());
  }
  size_t warnings = findings.size() - errors;
  printf("%d error%s, %zu warning%s\n", errors, errors == 1 ? "" : "s", warnings,
         warnings == 1 ? "" : "s");
}

Json::Value configuration_json(const System& s) {
  Json::Value config;
  config["enabled"] = s.enabled;
  config["debug"] = s.debug;
  config["timeout_s"] = s.timeout;
  config["interval_ms"] = static_cast<Json::Int64>(interval_ms);
  config["alarm_ms"] = static_cast<Json::Int64>(alarm_ms);
  config["policy"]["code"] = policy;
  config["policy"]["name"] = kPolicyNames[policy];
  config["policy"]["text"] = s.policy_text;
  config["monitor_list"] = Json::arrayValue;
  for (const monitor_info& m : monitor_list) {
    Json::Value entry;
    entry["process"] = m.name;
    entry["threads"] = Json::arrayValue;
    for (const std::string& t : sorted(m.threads)) entry["threads"].append(t);
    config["monitor_list"].append(entry);
  }
  return config;
}

Json::Value processes_json(const System& s) {
  Json::Value out = Json::arrayValue;
  std::set<std::string> seen;
  for (const monitor_info& m : monitor_list) {
    if (!seen.insert(m.name).second) continue;
    Json::Value entry;
    entry["process"] = m.name;
    entry["found"] = Json::arrayValue;
    for (const Process* p : s.named(m.name)) {
      Json::Value j;
      j["pid"] = p->pid;
      j["main_thread"] = p->comm;
      j["state"] = std::string(1, p->state);
      j["app"] = p->app;
      j["threads"] = Json::objectValue;
      for (const std::string& name : sorted(m.threads)) {
        const Thread* t = find_thread(*p, name);
        Json::Value& thread = j["threads"][name];
        thread["tid"] = t == nullptr ? Json::Value() : Json::Value(t->tid);
        thread["state"] = t == nullptr ? Json::Value() : Json::Value(std::string(1, t->state));
      }
      entry["found"].append(j);
    }
    out.append(entry);
  }
  return out;
}

Json::Value live_json(const System& s) {
  Json::Value live;
  live["ps_self_test"] = s.ps_verdict == 1;
  live["ps_self_test_of"] = s.daemon_running ? "daemon" : "checker";
  live["way"] = s.run.shell ? "ps" : "proc";
  live["window_ms"] = static_cast<Json::Int64>(s.window_ms);
  live["progress_known"] = s.window_ms >= 2 * interval_ms;
  live["entries"] = processes_json(s);
  live["records"] = Json::objectValue;
  for (const auto& [name, samples] : s.run.records) {
    const RecordSample& r = samples.back();
    Json::Value& rec = live["records"][name];
    rec["sweeps"] = static_cast<int>(samples.size());
    rec["pid"] = r.pid == kNoId ? Json::Value() : Json::Value(r.pid);
    rec["tid"] = r.tid == kNoId ? Json::Value() : Json::Value(r.tid);
    rec["state"] = std::string(1, r.state);
    rec["app"] = r.is_app;
    rec["no_progress_ms"] = static_cast<Json::Int64>(r.stuck_ms);
    rec["text"] = record_text(r, samples.size());
  }
  return live;
}

void print_json(const System& s, const std::vector<Finding>& findings) {
  Json::Value out;
  out["schema_version"] = 2;
  out["configuration"] = configuration_json(s);
  out["live"] = s.live ? live_json(s) : Json::Value(false);
  out["findings"] = Json::arrayValue;
  int errors = 0;
  for (const Finding& f : findings) {
    errors += f.error();
    Json::Value j;
    j["id"] = f.hazard->id;
    j["severity"] = f.error() ? "error" : "warning";
    j["entry"] = f.hit.entry;
    j["key"] = f.hit.key;
    j["where"] = Json::arrayValue;
    for (const std::string& at : where(s, f.hit)) j["where"].append(at);
    j["detail"] = f.hit.detail;
    j["message"] = f.hazard->message;
    j["instead"] = f.instead();
    j["fix"] = Json::Value();
    if (!f.hit.fix_key.empty()) {
      j["fix"]["key"] = f.hit.fix_key;
      j["fix"]["value"] = f.hit.fix_value;
    }
    out["findings"].append(j);
  }
  out["errors"] = errors;
  out["warnings"] = static_cast<int>(findings.size()) - errors;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  printf("%s\n", Json::writeString(writer, out).c_str());
}

const char kUsage[] = R"(usage: stall_ward_check [--live [--window SECONDS]] [--json] [FILE...]

Reads persist.vendor.sw.* as a device does and hands it to stall_ward's own readers: FILE... are
the property files a device loads (system/build.prop, vendor/build.prop, odm/etc/build.prop,
...), read in the order and by the rules of Android 11's init whatever order they are named in;
without FILE, on a device the live properties, on a host the file named by
STALL_WARD_PROPERTIES. It prints the configuration in the daemon's terms (enabled, debug,
timeout, sweep interval, self-watchdog alarm, policy, monitor list and records) and one finding
per hazard below, with every line that set its key and what to write instead:
  error    the setting cannot work, or will act on a healthy process
  warning  it works, but not as a reader of the setting would expect

  --live            also run the daemon's own sweep over the running system, never acting:
                    what each entry matches, the ps self-test of the running daemon (which way
                    its sweeps take; both while none runs), and the hazards marked live
  --window SECONDS  how long --live watches the sweeps (default two sweeps' worth: progress
                    between sweeps is not known from less)
  --json            the configuration, the live table and the findings as JSON (schema_version
                    2) instead of text
  -h, --help        this text
  --version         the version

Exit status: 0 no finding, 1 warnings only, 2 errors, 64 a bad command line or no
configuration at all, 66 a file that cannot be read or is not text.

Hazards (id, severity, what the daemon makes of it):
)";

void print_help() {
  fputs(kUsage, stdout);
  for (const Hazard& h : kHazards) {
    printf("  %-20s %-7s %s%s\n", h.id, h.severity == kError ? "error" : "warning",
           h.live ? "(live) " : "", h.message.c_str());
  }
}

struct Options {
  bool live = false, json = false;
  int64_t window_ms = -1;  // -1: two sweeps' worth
  std::vector<std::string> files;
};

// The options, or the exit status of a run that ends here (help, version, a bad option).
std::optional<int> parse_options(int argc, char** argv, Options* o) {
  const option options[] = {{"live", no_argument, nullptr, 'l'},
                            {"json", no_argument, nullptr, 'j'},
                            {"window", required_argument, nullptr, 'w'},
                            {"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, cli::kVersionOption},
                            {nullptr, 0, nullptr, 0}};
  opterr = 0;
  for (int c; (c = getopt_long(argc, argv, ":h", options, nullptr)) != -1;) {
    char* end = nullptr;
    if (c == 'l') {
      o->live = true;
    } else if (c == 'j') {
      o->json = true;
    } else if (c == 'w' && (o->window_ms = strtoll(optarg, &end, 10) * 1000, *end == '\0') &&
               o->window_ms >= 0) {
    } else if (c == 'w') {
      cli::error(kTool, "--window takes whole seconds, not \"%s\"", optarg);
      return EX_USAGE;
    } else if (c == 'h') {
      print_help();
      return EX_OK;
    } else if (c == cli::kVersionOption) {
      return cli::version(kTool);
    } else {
      return cli::bad_option(kTool, c, argv);
    }
  }
  o->files.assign(argv + optind, argv + argc);
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  if (std::optional<int> done = parse_options(argc, argv, &o)) return *done;
  __android_log_set_minimum_priority(ANDROID_LOG_SILENT);  // findings are said once, below
  std::optional<Refusal> refusal;
  System s = read_configuration(o.files, &refusal);
  if (refusal) {
    cli::error(kTool, "%s", refusal->why.c_str());
    return refusal->status;
  }
  s.live = o.live;
  if (o.live) {
    read_processes(&s);
    run_sweeps(&s, o.window_ms < 0 ? 2 * interval_ms : o.window_ms);
  }
  std::vector<Finding> findings;
  for (const Hazard& h : kHazards) {
    if (h.live && !o.live) continue;
    Hits hits;
    h.check(s, &hits);
    for (Hit& hit : hits) findings.push_back({&h, std::move(hit)});
  }
  (o.json ? print_json : print_text)(s, findings);
  bool errors =
      std::any_of(findings.begin(), findings.end(), [](const Finding& f) { return f.error(); });
  return errors ? 2 : findings.empty() ? 0 : 1;
}
