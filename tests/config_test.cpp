// Start-up, pacing, the monitor list, and the shell runner and splitter.
#include <cutils/properties.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

// The coarse monotonic clock the daemon paces its sweeps by: the readings a test lists (ms), then
// the real clock again.
static std::vector<int64_t> coarse_clock;
extern "C" int clock_gettime(clockid_t id, timespec* ts) {
  static auto real = reinterpret_cast<int (*)(clockid_t, timespec*)>(dlsym(RTLD_NEXT, __func__));
  if (id != CLOCK_MONOTONIC_COARSE || coarse_clock.empty()) return real(id, ts);
  *ts = {coarse_clock.front() / 1000, coarse_clock.front() % 1000 * 1000000};
  return coarse_clock.erase(coarse_clock.begin()), 0;
}

namespace {

TEST(Startup, ConfiguresFromPropertiesAndPacesTheSweeps) {
  struct Case {
    std::string properties;  // after enable=1
    int64_t interval, alarm;
    int policy;
    bool debug;
  };
  const Case cases[] = {
      {"", 30000, 120000, POLICY_NOTHING, true},
      {"persist.vendor.sw.timeout=200\n", 50000, 200000, POLICY_NOTHING, true},
      {"persist.vendor.sw.timeout=60\n", 30000, 60000, POLICY_NOTHING, true},
      {"persist.vendor.sw.timeout=4294967416\n", 30000, 120000, POLICY_NOTHING, true},  // cut
      {"persist.vendor.sw.debug=off\npersist.vendor.sw.policy=kill\n", 30000, 120000, POLICY_KILL,
       false},
      {"persist.vendor.sw.policy=reboot\n", 30000, 120000, POLICY_REBOOT, true},
      {"persist.vendor.sw.policy=panic\n", 30000, 120000, POLICY_PANIC, true},
      {"persist.vendor.sw.policy=Kill\n", 30000, 120000, POLICY_NOTHING, true},
      // the platform's words and number bases; a value longer than it keeps is unset
      {"persist.vendor.sw.enable=on\npersist.vendor.sw.timeout=0xc8\npersist.vendor.sw.processes=" +
           std::string(PROPERTY_VALUE_MAX, 'x') + "\n",
       50000, 200000, POLICY_NOTHING, true},
      {"persist.vendor.sw.processes=\n", 30000, 120000, POLICY_NOTHING, true},  // the default
  };
  for (const Case& c : cases) {
    reset_daemon(false, 0);
    use_properties("persist.vendor.sw.enable=1\n" + c.properties);
    LogCapture log;
    ASSERT_TRUE(stall_ward_init());
    // The default list, dumped with debug on; nothing at all logged with debug off.
    EXPECT_EQ(log.count("D monitor system_server threads:"), c.debug) << c.properties;
    EXPECT_EQ(log.count("D monitor surfaceflinger main"), c.debug) << c.properties;
    EXPECT_EQ(log.messages().empty(), !c.debug) << c.properties;
    EXPECT_EQ(interval_ms, c.interval) << c.properties;
    EXPECT_EQ(alarm_ms, c.alarm) << c.properties;
    EXPECT_EQ(policy, c.policy) << c.properties;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &last_check);
    last_check.tv_sec -= 10;  // between sweeps: the wait is what is left of the interval
    int64_t left = static_cast<int64_t>(stall_wrad_check());  // arms the self-watchdog too
    EXPECT_EQ(alarm(0), c.alarm / 1000) << c.properties;
    EXPECT_TRUE(left <= c.interval - 10000 && left > c.interval - 11000) << left;
  }
  // Disabled unless enabled; even so /proc/ is opened first and kept, and its failure (no
  // descriptor left) logged.
  for (bool proc_opens : {true, false}) {
    reset_daemon(false, 0);
    use_properties("");
    get_prop_bool(kPropEnable, false);  // the property file read while descriptors are left
    LogCapture log;
    rlimit saved = {};
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit none = saved;
    none.rlim_cur = static_cast<rlim_t>(dup(0));  // the next descriptor's number: none left
    close(static_cast<int>(none.rlim_cur));
    if (!proc_opens) setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(stall_ward_init());
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(proc_dir.fd >= 0, proc_opens);
    EXPECT_EQ(log.messages(), proc_opens ? Lines{} : Lines{"E init failed because of open proc"});
  }
  // After a sweep: the rest of the interval less how late it started, at least 1 s.
  const std::tuple<int64_t, int64_t, uint64_t> waits[] = {
      {400, 0, 29600}, {29500, 0, 500}, {31000, 0, 1000}, {200, 29500, 1000}, {10001, 19999, 0}};
  reset_daemon(true, 30000);
  for (const auto& [cost, overrun, wait] : waits) EXPECT_EQ(next_wait(cost, overrun), wait);
  // A sweep 20 s late: one of 10.001 s is logged as long, one of 10 s not.
  for (const auto& [cost, wait] : {std::pair<int64_t, uint64_t>{10000, 0}, {10001, 1000}}) {
    last_check = {};
    coarse_clock = {50000, 50000 + cost};  // the sweep's start and end
    LogCapture log;
    EXPECT_EQ(stall_wrad_check(), wait);
    EXPECT_EQ(log.count("E long time cost: " + std::to_string(cost)), cost > 10000);
    EXPECT_EQ(last_check.tv_sec, 50);
  }
  alarm(0);
}

TEST(Properties, AFileOthersCouldChangeIsRefused) {
  reset_daemon(false);
  TempDir dir;
  const std::tuple<mode_t, uid_t, bool> cases[] = {
      {0644, 0, true}, {0664, 0, false}, {0646, 0, false}, {0644, 65534, false}};
  for (const auto& [mode, owner, accepted] : cases) {
    std::string path = dir.path("p" + std::to_string(mode) + "." + std::to_string(owner));
    write_file(path, "k=7\n", mode);
    ASSERT_EQ(chown(path.c_str(), owner, 0), 0);
    setenv("STALL_WARD_PROPERTIES", path.c_str(), 1);
    LogCapture log;
    EXPECT_EQ(get_prop_int("k", 1), accepted ? 7 : 1) << path;
    EXPECT_EQ(count_prefix(log.messages(), "E property file " + path + " ignored"), !accepted);
  }
}

TEST(MonitorList, FollowsTheProcessesGrammar) {
  const std::tuple<std::string, Lines, Lines> cases[] = {
      // value; entries as "name" or "name:t1:t2" (threads sorted); record names, sorted
      {"system_server:watchdog:android.bg",
       {"system_server:android.bg:watchdog"},
       {"android.bg", "watchdog"}},
      {"  a   b  ", {"a", "b"}, {"a", "b"}},
      {"p:", {"p"}, {"p"}},
      {"a:watchdog b:watchdog", {"a:watchdog", "b:watchdog"}, {"watchdog"}},  // one record
      {"a\tb", {"a\tb"}, {"a\tb"}},  // only the space separates entries
      {": :: x", {"x"}, {"x"}},
  };
  for (const auto& [value, entries, keys] : cases) {
    std::vector<monitor_info> list;
    std::unordered_map<std::string, proc> table;
    parse_monitor_list(value, &list, &table);
    Lines got_entries, got_keys;
    for (const monitor_info& info : list) {
      Lines threads(info.threads.begin(), info.threads.end());
      std::sort(threads.begin(), threads.end());
      EXPECT_EQ(info.has_threads, !threads.empty());
      got_entries.push_back(info.name);
      for (const std::string& t : threads) got_entries.back() += ":" + t;
    }
    for (const auto& entry : table) got_keys.push_back(entry.first);
    std::sort(got_keys.begin(), got_keys.end());
    EXPECT_EQ(got_entries, entries) << value;
    EXPECT_EQ(got_keys, keys) << value;
  }
}

TEST(Split, EveryDelimiterEndsATokenAndEmptyPiecesAreDropped) {
  const std::tuple<std::string, const char*, Lines> cases[] = {
      {"a  b ", " ", {"a", "b"}},       {"", " ", {}},        {" a", " ", {"a"}},
      {"a/b:c", "/:", {"a", "b", "c"}}, {"a b", "", {"a b"}}, {"x y\nz w", " ", {"x", "y\nz", "w"}},
  };
  for (const auto& [text, delimiters, tokens] : cases) {
    EXPECT_EQ(string_split(text, delimiters), tokens) << text << " at " << delimiters;
  }
}

TEST(Exec, CapturesTheFirstKilobyteWhateverTheExitStatus) {
  const std::pair<const char*, std::string> cases[] = {
      {"printf 'a b\\n'", "a b\n"},
      {"printf x; exit 1", "x"},
      {"printf a; head -c 5000 /dev/zero | tr '\\0' y", "a" + std::string(1022, 'y')},
  };
  reset_daemon(true);
  {
    char out[kShellOutputSize] = "x";
    LogCapture log;
    EXPECT_EQ(exec_command(nullptr, out), -1);
    EXPECT_EQ(exec_command("true", nullptr), -1);
    EXPECT_EQ(log.messages(), Lines{});
    EXPECT_EQ(std::string(out), "x");
  }
  for (const auto& [command, output] : cases) {
    char out[kShellOutputSize];
    memset(out, 0, sizeof(out));
    LogCapture log;
    EXPECT_EQ(exec_command(command, out), 0) << command;
    EXPECT_EQ(std::string(out), output) << command;
    EXPECT_EQ(count_prefix(log.messages(), "I [sh] ret=" + output.substr(0, 3)), 1);
  }
}

}  // namespace
