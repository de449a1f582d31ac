// stall_ward_check on property files: each hazard found with the lines that set its key, the
// advice it gives applied and found to mend it, init's rules for reading the files, its command
// line, and README's hazard table. (Its live findings are checked against the daemon in the
// scenarios.)
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>

#include <filesystem>
#include <optional>
#include <set>

#include "helpers.h"

namespace {

struct Checked {
  std::string out;
  int status;
};

// Runs the checker in a fresh directory on files (name, content) written there and named in that
// order, and with env_file, a property file of that content and mode named by
// STALL_WARD_PROPERTIES (otherwise the variable is unset).
Checked check(const std::vector<std::pair<std::string, std::string>>& files,
              const std::string& args, const std::optional<std::string>& env_file = std::nullopt,
              int mode = 0644) {
  TempDir dir;
  std::string command = "cd " + dir.dir + " && env -u STALL_WARD_PROPERTIES ";
  if (env_file) {
    write_file(dir.path("props"), *env_file, mode);
    command += "STALL_WARD_PROPERTIES=props ";
  }
  command += STALL_WARD_CHECK_PATH " " + args;
  for (const auto& [name, content] : files) {
    std::filesystem::create_directories(std::filesystem::path(dir.path(name)).parent_path());
    write_file(dir.path(name), content);
    command += " " + name;
  }
  Child checker = spawn("/bin/sh", {"sh", "-c", command + " 2>&1"});
  std::string out = checker.read_all();
  int status = checker.wait(5000);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

Checked check_props(const std::string& content, const std::string& args = "") {
  return check({{"vendor/build.prop", content}}, args);
}

Json::Value parsed(const std::string& text) {
  Json::Value root;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  reader->parse(text.data(), text.data() + text.size(), &root, &errors);
  return root;
}

// The property file with a finding's fix applied: the lines of its key and of the fix's key
// replaced by the fix.
std::string mended(const std::string& props, const Json::Value& finding) {
  const Json::Value& fix = finding["fix"];
  std::string out;
  for (const std::string& line : android::base::Split(props, "\n")) {
    std::string key = android::base::Trim(line.substr(0, line.find('=')));
    if (!line.empty() && key != finding["key"].asString() && key != fix["key"].asString()) {
      out += line + "\n";
    }
  }
  return out + fix["key"].asString() + "=" + fix["value"].asString() + "\n";
}

// The errors of a report, as (id, entry).
std::set<std::pair<std::string, std::string>> errors(const Json::Value& report) {
  std::set<std::pair<std::string, std::string>> out;
  for (const Json::Value& f : report["findings"]) {
    if (f["severity"] == "error") out.insert({f["id"].asString(), f["entry"].asString()});
  }
  return out;
}

// A finding's fix leaves neither the finding nor an error that was not there before.
void expect_mended(const Json::Value& before, const Json::Value& finding, const Json::Value& after,
                   const std::string& fixed) {
  for (const Json::Value& g : after["findings"]) {
    EXPECT_FALSE(g["id"] == finding["id"] && g["entry"] == finding["entry"]) << fixed;
    if (g["severity"] == "error") {
      EXPECT_EQ(errors(before).count({g["id"].asString(), g["entry"].asString()}), 1u)
          << g["id"] << " " << g["entry"] << " after\n"
          << fixed;
    }
  }
}

const std::string p = "persist.vendor.sw.";

// Each hazard on a file that carries it: the finding, its lines, its advice; the advice applied
// leaves neither it nor a new error.
TEST(Check, FindsEachHazardAtItsLinesAndItsAdviceMendsIt) {
  const std::tuple<std::string, std::string, std::string, int> cases[] = {
      // properties; the finding's first lines ("" none); a line of it; the exit status
      {"", "", "", 0},
      {p + "enable=1\n" + p + "timeout=120\n" + p + "policy=kill\n", "", "", 0},
      {p + "processes=" + std::string(92, 'a') + "\n",
       "error value-too-long: " + p + "processes\n    at ", "92 bytes, longer than 91", 2},
      {p + "timout=60\n", "error unknown-key: " + p + "timout=60\n    at ",
       "instead: " + p + "timeout=60", 2},
      {p + "policy=kill\n#\n" + p + "policy=panic\n",
       "warning set-twice: " + p +
           "policy\n    at vendor/build.prop:1\n    at vendor/build.prop:3\n",
       "sets \"panic\"", 1},
      {p + "enable=True\n", "error bool-misread: " + p + "enable=True\n", "read as false", 2},
      {p + "enable=On\n", "error bool-misread: " + p + "enable=On\n", p + "enable=true", 2},
      {p + "enable=enabled\n", "error bool-misread: " + p + "enable=enabled\n", "", 2},
      {p + "timeout=2m\n", "error timeout-misread: " + p + "timeout=2m\n", "reads \"2m\" as 2 s",
       2},
      {p + "timeout=0120\n", "error timeout-misread: " + p + "timeout=0120\n", "as 80 s", 2},
      {p + "timeout=0\n", "error timeout-not-positive: " + p + "timeout=0\n", "", 2},
      {p + "timeout=60\n", "warning timeout-short: " + p + "timeout=60\n", "up to 90 s", 1},
      {p + "policy=Kill\n", "error policy-misspelt: " + p + "policy=Kill\n",
       "instead: " + p + "policy=kill", 2},
      {p + "policy=restart\n", "warning policy-unknown: " + p + "policy=restart\n", "", 1},
      {p + "debug=0\n" + p + "policy=panic\n", "warning debug-off: " + p + "debug=0\n",
       "with the policy panic", 1},
      {p + "processes=system_server:PowerManagerService\n",
       "error long-thread-name: system_server:PowerManagerService\n",
       "instead: " + p + "processes=system_server:PowerManagerSer", 2},
      {p + "processes=android.hardware.health@2.1-service\n",
       "error long-process-name: android.hardware.health@2.1-service\n",
       "processes=android.hardware.health@2.1-service:android.hardwar", 2},
      {p + "processes=p\tq\n", "error separator-in-name: p\tq\n", "processes=p q", 2},
      {p + "processes=system_server:binder:1234_1\n",
       "error colon-split: system_server:binder:1234_1\n",
       "\"binder:1234_1\" is read as two threads, binder and 1234_1", 2},
      {p + "processes=p:Jit\n", "error blank-first-word: p:Jit\n", "\"Jit thread pool\"", 2},
      {p + "processes=a:watchdog b:watchdog\n", "error shared-record: watchdog\n",
       "entries a:watchdog, b:watchdog", 2},
      {p + "processes=p:a p:b\n", "warning duplicate-process: p\n", "processes=p:a:b", 1},
      {p + "processes=system_server:watchdog:android.bg\n",
       "warning idle-looper-thread: system_server:android.bg\n", "processes=system_server:watchdog",
       1},
  };
  for (const auto& [props, head, line, status] : cases) {
    Checked run = check_props(props);
    EXPECT_EQ(run.status, status) << run.out;
    if (head.empty()) {
      EXPECT_EQ(run.out.find("\nerror ") + run.out.find("\nwarning "), 2 * std::string::npos)
          << run.out;
      continue;
    }
    size_t at = run.out.find("\n" + head);
    EXPECT_NE(at, std::string::npos) << head << "\n" << run.out;
    EXPECT_NE(run.out.find(line, at), std::string::npos) << line << "\n" << run.out;
    Json::Value report = parsed(check_props(props, "--json").out);
    for (const Json::Value& f : report["findings"]) {
      if (f["fix"].isNull()) continue;
      std::string fixed = mended(props, f);
      expect_mended(report, f, parsed(check_props(fixed, "--json").out), fixed);
    }
  }
}

// The files a device loads, read as init reads them: in its order whatever order they are named
// in, blanks and CRs where init drops them, a real vendor file with its long ro. values and
// its own oddities passed by, ro.* alone from factory.prop.
TEST(Check, ReadsTheFilesADeviceLoadsAsInitDoes) {
  const std::string real = read_file(CHECK_FIXTURES "/mojito-vendor-build.prop");
  const std::string long_ro = "ro.product.property_source_order=" + std::string(222, 'x') + "\n";
  const std::tuple<std::vector<std::pair<std::string, std::string>>, std::string, int> cases[] = {
      // the files, in the order named; a line of the output; the exit status
      {{{"vendor/build.prop", p + "enable=1\r\n" + p + "timeout=300 \r\n"}},
       "  enabled   yes\n  debug     on\n  timeout   300 s",
       0},
      {{{"vendor/build.prop", "  " + p + "enable = true\n\t" + p + "policy =\tkill \n"}},
       "  enabled   yes\n  debug     on\n  timeout   120 s",
       0},
      {{{"vendor/build.prop", p + "policy=panic\n"}, {"system/build.prop", p + "policy=kill\n"}},
       "  at system/build.prop:1\n    at vendor/build.prop:1\n    the last line read sets "
       "\"panic\"",
       1},
      {{{"factory/factory.prop", p + "enable=1\n"}}, "  enabled   no", 0},
      {{{"vendor/build.prop", real}, {"odm/etc/build.prop", long_ro + p + "enable=1\n"}},
       "  enabled   yes",
       0},
      {{{"vendor/build.prop", real + p + "timeout=2m\n"}},
       "error timeout-misread: " + p + "timeout=2m\n    at vendor/build.prop:32\n",
       2},
  };
  for (const auto& [files, line, status] : cases) {
    Checked run = check(files, "");
    EXPECT_EQ(run.status, status) << run.out;
    EXPECT_NE(run.out.find(line), std::string::npos) << line << "\n" << run.out;
  }
}

// The doors a CI job goes through: each refusal is one line that names what it is about.
TEST(Check, RefusesWhatItCannotCheckInOneLine) {
  const std::tuple<std::vector<std::pair<std::string, std::string>>, std::string, std::string, int>
      cases[] = {
          // files, arguments, the whole output, the exit status
          {{},
           "",
           "stall_ward_check: no configuration: name the property files a device loads "
           "(vendor/build.prop, ...) or set STALL_WARD_PROPERTIES\n",
           64},
          {{{"ls", std::string("\x7f"
                               "ELF\x02\x01\x01\0\0",
                               9)}},
           "",
           "stall_ward_check: ls: not a text file\n",
           66},
          {{},
           "missing.prop",
           "stall_ward_check: missing.prop: cannot be read: No such file or "
           "directory\n",
           66},
          {{},
           "--bogus",
           "stall_ward_check: unknown option --bogus (see stall_ward_check --help)\n",
           64},
          {{},
           "--window",
           "stall_ward_check: option --window needs a value (see "
           "stall_ward_check --help)\n",
           64},
          {{}, "--version", "stall_ward_check 1.0\n", 0},
      };
  for (const auto& [files, args, out, status] : cases) {
    Checked run = check(files, args);
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.status, status) << args;
  }
  // The daemon's own file, open to all: the daemon refuses it, and so does the checker.
  Checked run = check({}, "", p + "enable=1\n", 0666);
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.out.find("\nerror property-file: props\n"), std::string::npos) << run.out;
}

std::string sh_quote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Stand-ins in a PID namespace of their own (unshare), and commands run inside it (nsenter).
class Namespace {
 public:
  explicit Namespace(const std::vector<Lines>& stand_ins) {
    std::string script;
    for (size_t k = 0; k < stand_ins.size(); ++k) {
      std::string out = dir_.path(std::to_string(k) + ".out");
      script += "(exec -a " + sh_quote(stand_ins[k][0]) + " " + stand_in_path();
      for (size_t i = 1; i < stand_ins[k].size(); ++i) script += " " + sh_quote(stand_ins[k][i]);
      script += " >" + out + " &); until [ -s " + out + " ]; do sleep 0.01; done; ";
    }
    script += "touch " + dir_.path("ready") + "; exec sleep 600";
    ns_.emplace(spawn("/usr/bin/unshare", {"unshare", "--pid", "--fork", "--kill-child",
                                           "--mount-proc", "/bin/bash", "-c", script}));
    eventually([&] { return std::filesystem::exists(dir_.path("ready")); }, 10000);
    std::string self = std::to_string(ns_->pid());
    init_ = android::base::Trim(read_file("/proc/" + self + "/task/" + self + "/children"));
  }
  Child start(const std::string& command) const {
    return spawn("/usr/bin/nsenter",
                 {"nsenter", "-t", init_, "-p", "-m", "/bin/sh", "-c", command});
  }
  TempDir dir_;

 private:
  std::optional<Child> ns_;
  std::string init_;
};

// Each live finding's fix, applied on the same running system, mends it and makes no new error;
// the ps way's system has a process called stall_ward first, whose self-test passes. (A thread
// that goes away changes the system under the fix: thread-gone's fix is the no-thread one.)
TEST(Check, LiveAdviceMendsWhatItFinds) {
  const std::tuple<std::string, std::vector<Lines>, bool> systems[] = {
      {"long:PowerManagerService:no app:idle mainly jit:Jit twice:watchdog com.android.nfc",
       {{"long", "--thread", "PowerManagerService:S"},
        {"zygote64", "--spawn", "app", "--thread", "idle:S"},
        {"mainly", "--main-name", "other"},
        {"jit", "--thread", "Jit thread pool:S"},
        {"twice", "--thread", "watchdog:D"},
        {"twice", "--thread", "watchdog:D"},
        {"zygote64", "--spawn", "com.android.nfc"}},
       false},
      {"zygote system_server:android.anim:watchdog runs:qq ghost",
       {{"stall_ward"},
        {"zygote64", "--spawn", "system_server", "--thread", "android.anim.lf:S", "--thread",
         "android.anim:P", "--thread", "watchdog:P"},
        {"zygote"},
        {"runs", "--thread", "qq:S"}},
       true},
  };
  for (const auto& [processes, stand_ins, ps_way] : systems) {
    Namespace ns(stand_ins);
    int n = 0;
    auto check_live = [&](const std::string& props) {
      std::string path = ns.dir_.path("props" + std::to_string(n++));
      write_file(path, props);
      return ns.start(std::string("env LD_PRELOAD=" FAKETIME_LIB " 'FAKETIME=+0 x20' ") +
                      (ps_way ? android_ps_path() : "") + " STALL_WARD_PROPERTIES=" + path +
                      " " STALL_WARD_CHECK_PATH " --live --json");
    };
    const std::string props =
        p + "enable=1\n" + p + "policy=kill\n" + p + "processes=" + processes + "\n";
    Json::Value first = parsed(check_live(props).read_all());
    std::vector<std::tuple<Json::Value, std::string, Child>> runs;
    for (const Json::Value& f : first["findings"]) {
      if (f["fix"].isNull()) continue;
      std::string fixed = mended(props, f);
      runs.emplace_back(f, fixed, check_live(fixed));
    }
    EXPECT_GE(runs.size(), ps_way ? 3u : 6u) << first;
    for (auto& [f, fixed, child] : runs) {
      expect_mended(first, f, parsed(child.read_all()), fixed);
      child.wait(5000);
    }
  }
}

// The three tools' one command-line convention.
TEST(Check, EveryToolAnswersItsCommandLineAlike) {
  for (const std::string& tool :
       Lines{STALL_WARD_CHECK_PATH, STALL_WARD_REPORT_PATH, stand_in_path()}) {
    std::string name = tool.substr(tool.rfind('/') + 1);
    const std::tuple<std::string, std::string, int> cases[] = {
        {"--bogus", name + ": unknown option --bogus (see " + name + " --help)\n", 64},
        {"-x", name + ": unknown option -x (see " + name + " --help)\n", 64},
        {"--version", name + " 1.0\n", 0},
    };
    for (const auto& [args, out, status] : cases) {
      Child child = spawn("/bin/sh", {"sh", "-c", tool + " " + args + " 2>&1"});
      EXPECT_EQ(child.read_all(), out);
      int code = child.wait(5000);
      EXPECT_EQ(WIFEXITED(code) ? WEXITSTATUS(code) : -1, status) << tool << " " << args;
    }
    Child help = spawn("/bin/sh", {"sh", "-c", tool + " --help 2>/dev/null"});
    EXPECT_EQ(help.read_all().rfind("usage: " + name, 0), 0u) << tool;
    help.wait(5000);
  }
}

// --help's hazard table is README's, row for row.
TEST(Check, ListsEveryHazardInReadme) {
  std::string help = check({}, "--help").out;
  std::string readme = read_file(README_PATH);
  int rows = 0;
  for (const std::string& line :
       android::base::Split(help.substr(help.find(":\n", help.find("\nHazards"))), "\n")) {
    char id[64], severity[16];
    int at = 0;
    if (sscanf(line.c_str(), " %63s %15s %n", id, severity, &at) != 2) continue;
    std::string message = line.substr(at);
    if (android::base::StartsWith(message, "(live) ")) message = message.substr(7);
    ++rows;
    EXPECT_NE(readme.find("| `" + std::string(id) + "` | " + severity + " | " + message + " |"),
              std::string::npos)
        << line;
  }
  EXPECT_GE(rows, 20);
  int readme_rows = 0;
  for (const std::string& line : android::base::Split(readme, "\n")) {
    readme_rows += line.find("` | error |") != line.npos || line.find("` | warning |") != line.npos;
  }
  EXPECT_EQ(readme_rows, rows);
}

}  // namespace
