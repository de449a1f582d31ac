// stall_ward_check on property files that carry each hazard, and --live against stand-ins.
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "helpers.h"

namespace {

// Runs the checker on the given properties: its output and exit status.
std::pair<std::string, int> check(const std::string& properties) {
  TempDir dir;
  write_file(dir.path("props"), properties);
  Child checker = spawn("/bin/sh", {"sh", "-c",
                                    "STALL_WARD_PROPERTIES=" + dir.path("props") +
                                        " " STALL_WARD_CHECK_PATH " 2>&1"});
  std::string out = checker.read_all();
  int status = checker.wait(5000);
  return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
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
       {"  interval  50 s between sweeps (interval_ms 50000)\n",
        "  policy    2, panic (from \"panic\")\n", "  records   surfaceflinger, watchdog\n"}) {
    EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
  }
}

// --live in a PID namespace of its own, with toybox's ps, where the daemon's ps self-test passes:
// two processes of one name, a name the kernel truncates, a thread that is absent, and an entry
// whose process is missing after one that runs (it would work on that one's lookup).
TEST(Check, LiveShowsWhatTheRunningProcessesHold) {
  TempDir dir;
  write_file(
      dir.path("props"),
      "persist.vendor.sw.processes=twice:watchdog long:PowerManagerService:absent ghost:t\n");
  const std::pair<const char*, const char*> stand_ins[] = {
      {"stall_ward", ""},
      {"/system/bin/twice", "--thread watchdog:S"},
      {"twice", "--thread watchdog:S"},
      {"long", "--thread PowerManagerService:S"}};
  std::string script;
  for (size_t k = 0; k < std::size(stand_ins); ++k) {
    std::string out = dir.path(std::to_string(k));
    script += "(exec -a " + std::string(stand_ins[k].first) + " " + stand_in_path() + " " +
              stand_ins[k].second + " >" + out + " &); until [ -s " + out +
              " ]; do sleep 0.01; done; ";
  }
  script += android_ps_path() + " STALL_WARD_PROPERTIES=" + dir.path("props") +
            " " STALL_WARD_CHECK_PATH " --live; true";  // not exec'd: ps lists it after them
  Child ns = spawn("/usr/bin/unshare", {"unshare", "--pid", "--fork", "--kill-child",
                                        "--mount-proc", "/bin/bash", "-c", script});
  std::string out = ns.read_all();
  auto id = [&](size_t k, size_t at) {  // the stand-in's pid (0) or thread id (1)
    return android::base::Split(read_file(dir.path(std::to_string(k))), " \n").at(at);
  };
  const Lines texts = {
      "passes: sweeps find processes through ps",
      "  twice: 2 processes\n",
      "      watchdog: tid " + id(1, 1) + " S",
      "      watchdog: tid " + id(2, 1) + " S",
      "\nerror: twice: 2 processes of this name share each record",
      "\nerror: long:PowerManagerService: the kernel truncates this name to "
      "\"PowerManagerSer\" (tid " +
          id(3, 1) + ")",
      "\nerror: long:absent: no thread of this name in pid " + id(3, 0),
      "\nerror: ghost: not running while the sweeps take the ps way: the entry works on what "
      "the lookup of long (pid "};
  for (const std::string& text : texts) {
    EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
  }
}

}  // namespace
