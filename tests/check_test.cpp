// stall_ward_check on property files that carry each hazard, its command line, and --live with the
// ps way (the /proc walk's live findings are checked against the daemon in the scenarios).
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "helpers.h"

namespace {

// Runs the checker with args on a property file of the given content and mode (none when the
// content is null): its output and exit status.
std::pair<std::string, int> check(const char* properties, const std::string& args = "",
                                  int mode = 0644) {
  TempDir dir;
  if (properties != nullptr) write_file(dir.path("props"), properties, mode);
  Child checker = spawn("/bin/sh", {"sh", "-c",
                                    "STALL_WARD_PROPERTIES=" + dir.path("props") +
                                        " " STALL_WARD_CHECK_PATH " " + args + " 2>&1"});
  std::string out = checker.read_all();
  int status = checker.wait(5000);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(Check, ReportsEachHazardWithItsSeverity) {
  const std::string p = "persist.vendor.sw.", none;
  const std::tuple<std::string, std::string, std::string, int> cases[] = {
      // properties; the finding's first line ("" for none); a line of it; the exit status
      {"", "", "", 0},
      {p + "enable=1\n" + p + "timeout=120\n" + p + "policy=kill\n", "", "", 0},
      {p + "processes=" + std::string(92, 'a') + "\n", "error value-too-long: " + p + "processes",
       "92 bytes, longer than 91", 2},
      {p + "timout=60\n", "error unknown-key: " + p + "timout=60", "instead: " + p + "timeout=60",
       2},
      {p + "timeout=2m\n", "error timeout-misread: " + p + "timeout=2m", "reads \"2m\" as 2 s", 2},
      {p + "timeout=0120\n", "error timeout-misread: " + p + "timeout=0120", "as 80 s", 2},
      {p + "timeout=0\n", "error timeout-not-positive: " + p + "timeout=0", "", 2},
      {p + "timeout=60\n", "warning timeout-short: " + p + "timeout=60", "up to 90 s", 1},
      {p + "policy= Kill\n", "error policy-misspelt: " + p + "policy= Kill",
       "instead: " + p + "policy=kill", 2},
      {p + "policy=restart\n", "warning policy-unknown: " + p + "policy=restart", "", 1},
      {p + "debug=0\n" + p + "policy=panic\n", "warning debug-off: " + p + "debug=0",
       "with the policy panic", 1},
      {p + "processes=system_server:PowerManagerService\n",
       "error long-thread-name: system_server:PowerManagerService",
       "instead: system_server:PowerManagerSer", 2},
      {p + "processes=android.hardware.health@2.1-service\n",
       "error long-process-name: android.hardware.health@2.1-service",
       "instead: android.hardware.health@2.1-service:android.hardwar", 2},
      {p + "processes=p\tq\n", "error separator-in-name: p\tq", "", 2},
      {p + "processes=system_server:binder:1234_1\n",
       "error colon-split: system_server:binder:1234_1",
       "\"binder:1234_1\" is read as two threads, binder and 1234_1", 2},
      {p + "processes=p:Jit\n", "error blank-first-word: p:Jit", "\"Jit thread pool\"", 2},
      {p + "processes=a:watchdog b:watchdog\n", "error shared-record: *:watchdog", "", 2},
      {p + "processes=p:a p:b\n", "warning duplicate-process: p", "", 1},
      {p + "processes=system_server:watchdog:android.bg\n",
       "warning idle-looper-thread: system_server:android.bg", "", 1},
  };
  for (const auto& [properties, head, line, status] : cases) {
    auto [out, code] = check(properties.c_str());
    EXPECT_EQ(code, status) << out;
    if (head.empty()) {
      EXPECT_EQ(out.find("\nerror ") + out.find("\nwarning "), 2 * std::string::npos) << out;
    } else {
      size_t at = out.find("\n" + head + "\n");
      EXPECT_NE(at, std::string::npos) << head << "\n" << out;
      EXPECT_NE(out.find(line, at), std::string::npos) << line << "\n" << out;
    }
  }
  for (auto [out, code] : {check("", "", 0666), check(nullptr)}) {
    EXPECT_EQ(code, 2) << out;
    EXPECT_NE(out.find("\nerror property-file: STALL_WARD_PROPERTIES\n"), std::string::npos) << out;
  }
  auto [out, code] = check((p + "enable=1\n" + p + "policy=panic\n" + p + "timeout=200\n").c_str());
  for (const char* line :
       {"  interval  50 s between sweeps (interval_ms 50000)\n",
        "  policy    2, panic (from \"panic\")\n", "  records   surfaceflinger, watchdog\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
  }
}

// The command line, the JSON, and the hazard table that --help and README share.
TEST(Check, SpeaksToMachinesAndListsEveryHazardInReadme) {
  EXPECT_EQ(check("", "--bogus").second, 64);
  EXPECT_EQ(check("", "stray").second, 64);
  auto [json, code] = check("persist.vendor.sw.timeout=0\n", "--json");
  EXPECT_EQ(code, 2);
  for (const char* text : {"\"schema_version\" : 1", "\"id\" : \"timeout-not-positive\"",
                           "\"severity\" : \"error\"", "\"errors\" : 1"}) {
    EXPECT_NE(json.find(text), std::string::npos) << text << "\n" << json;
  }
  std::string help = check("", "--help").first;
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

// --live in a PID namespace of its own, with toybox's ps, where the daemon's ps self-test passes:
// an entry whose process is missing after one that runs would work on that one's lookup.
TEST(Check, LiveFindsTheCarriedOverLookupOfThePsWay) {
  TempDir dir;
  write_file(dir.path("props"), "persist.vendor.sw.processes=runs:t ghost:t\n");
  std::string script;
  for (const char* name : {"stall_ward", "runs"}) {
    std::string out = dir.path(name);
    script += "(exec -a " + std::string(name) + " " + stand_in_path() + " --thread t:S >" + out +
              " &); until [ -s " + out + " ]; do sleep 0.01; done; ";
  }
  script += android_ps_path() + " STALL_WARD_PROPERTIES=" + dir.path("props") +
            " " STALL_WARD_CHECK_PATH " --live; true";  // not exec'd: ps lists it after them
  Child ns = spawn("/usr/bin/unshare", {"unshare", "--pid", "--fork", "--kill-child",
                                        "--mount-proc", "/bin/bash", "-c", script});
  std::string out = ns.read_all();
  EXPECT_NE(out.find("passes: sweeps find processes through ps"), std::string::npos) << out;
  EXPECT_NE(out.find("\nerror ps-carry-over: ghost\n    it works on what the lookup of runs (pid "),
            std::string::npos)
      << out;
}

}  // namespace
