// stall_ward_check on property files that carry each hazard, and --live against stand-ins.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include "helpers.h"

namespace {

// Runs the checker on the given properties: its output and exit status.
std::pair<std::string, int> check(const std::string& properties, const std::string& args = "") {
  TempDir dir;
  write_file(dir.path("props"), properties);
  FILE* out = popen(("STALL_WARD_PROPERTIES=" + dir.path("props") + " " STALL_WARD_CHECK_PATH " " +
                     args + " 2>&1")
                        .c_str(),
                    "r");
  std::string text;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), out)) > 0;) text.append(buf, n);
  int status = pclose(out);
  return {text, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

TEST(Check, ReportsEachHazardWithItsSeverity) {
  const std::string p = "persist.vendor.sw.";
  const std::tuple<std::string, std::string, int> cases[] = {
      // properties; a finding's head ("" for none); exit status
      {"", "", 0},
      {p + "enable=1\n" + p + "timeout=120\n" + p + "policy=kill\n", "", 0},
      {p + "processes=system_server:PowerManagerService\n",
       "error: system_server:PowerManagerService: the name is 19 bytes", 2},
      {p + "processes=p:Jit\n", "error: p:Jit: \"Jit thread pool\" matches", 2},
      {p + "processes=a:watchdog b:watchdog\n", "error: *:watchdog: one record", 2},
      {p + "processes=p:a p:b\n", "warning: p: the /proc walk uses only the first", 1},
      {p + "processes=p\tq\n", "error: p\tq: only the space separates", 2},
      {p + "timeout=0\n", "error: persist.vendor.sw.timeout=0: every watched thread", 2},
      {p + "timeout=-5\n", "error: persist.vendor.sw.timeout=-5: every watched thread", 2},
      {p + "timeout=60\n",
       "warning: persist.vendor.sw.timeout=60: sweeps still run every 30 s, "
       "so evidence comes up to 90 s",
       1},
      {p + "policy=Kill\n", "error: persist.vendor.sw.policy=Kill: only the exact", 2},
      {p + "policy= panic\n", "error: persist.vendor.sw.policy= panic: only the exact", 2},
      {p + "processes=system_server:watchdog:android.bg\n",
       "warning: system_server:android.bg: a Looper thread", 1},
  };
  for (const auto& [properties, finding, status] : cases) {
    auto [out, code] = check(properties);
    EXPECT_EQ(code, status) << out;
    if (finding.empty()) {
      EXPECT_EQ(out.find("error:") + out.find("warning:"), 2 * std::string::npos) << out;
    } else {
      EXPECT_NE(out.find("\n" + finding), std::string::npos) << out;
    }
  }
  auto [out, code] = check(p + "enable=1\n" + p + "policy=panic\n" + p + "timeout=200\n");
  for (const char* line :
       {"  enabled   yes\n", "  timeout   200 s (alarm_ms 200000",
        "  interval  50 s between sweeps (interval_ms 50000)\n",
        "  policy    2, panic (from \"panic\")\n", "    system_server: threads watchdog\n",
        "    surfaceflinger: main thread\n", "  records   surfaceflinger, watchdog\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
  }
}

TEST(Check, LiveShowsTwoProcessesOfOneNameAndANameTheKernelTruncates) {
  std::string name = unique("twice"), other = unique("long");
  StandIn a = start_stand_in({"/system/bin/" + name, "--thread", "watchdog:S"});
  StandIn b = start_stand_in({name, "--thread", "watchdog:S"});
  StandIn c = start_stand_in({other, "--thread", "PowerManagerService:S"});
  auto [out, code] = check("persist.vendor.sw.processes=" + name + ":watchdog " + other +
                               ":PowerManagerService:absent\n",
                           "--live");
  EXPECT_EQ(code, 2);
  for (const std::string& text :
       {"  " + name + ": 2 processes\n",
        "      watchdog: tid " + std::to_string(a.tids.at(0)) + " S",
        "      watchdog: tid " + std::to_string(b.tids.at(0)) + " S",
        "\nerror: " + name + ": 2 processes of this name share each record",
        "\nerror: " + other +
            ":PowerManagerService: the kernel truncates this name to "
            "\"PowerManagerSer\" (tid " +
            std::to_string(c.tids.at(0)) + ")",
        "\nerror: " + other + ":absent: no thread of this name in pid " + std::to_string(c.pid)}) {
    EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
  }
}

// With the daemon's ps self-test passing (a PID namespace of the test's own, toybox's ps), an
// entry whose process is missing after one that runs would work on that one's lookup.
TEST(Check, LiveWarnsOfAMissingProcessAfterAFoundOneOnThePsWay) {
  TempDir dir;
  write_file(dir.path("props"), "persist.vendor.sw.processes=found ghost:t\n");
  std::string script =
      "(exec -a stall_ward " + stand_in_path() + " >" + dir.path("1") + " &); (exec -a found " +
      stand_in_path() + " >" + dir.path("2") + " &); until [ -s " + dir.path("1") + " ] && [ -s " +
      dir.path("2") + " ]; do sleep 0.01; done; " + android_ps_path() +
      " STALL_WARD_PROPERTIES=" + dir.path("props") +
      " " STALL_WARD_CHECK_PATH " --live; true";  // not exec'd: ps must list it after pid 3
  Child ns = spawn("/usr/bin/unshare", {"unshare", "--pid", "--fork", "--kill-child",
                                        "--mount-proc", "/bin/bash", "-c", script});
  std::string out;
  for (int i = 0; i < 100; ++i) out += ns.read_line() + "\n";  // blank lines too, to the end
  EXPECT_NE(out.find("passes: sweeps find processes through ps"), std::string::npos) << out;
  EXPECT_NE(
      out.find("\nerror: ghost: not running while the sweeps take the ps way: the entry works on "
               "what the lookup of found (pid "),
      std::string::npos)
      << out;
}

}  // namespace
