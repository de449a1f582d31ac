// The monitor list grammar, the process table and lookups by name.
#include <gtest/gtest.h>

#include <algorithm>

#include "helpers.h"
#include "stall_ward.h"

namespace {

using Lines = std::vector<std::string>;

struct MonitorCase {
  std::string processes;  // the property value; "-" for unset
  Lines entries;          // "name" for a main-thread entry, "name:t1:t2" (sorted) for threads
  Lines keys;             // sorted
};

class MonitorList : public testing::TestWithParam<MonitorCase> {};

TEST_P(MonitorList, FollowsTheProcessesGrammar) {
  const MonitorCase& c = GetParam();
  reset_daemon(false);
  use_properties(c.processes == "-" ? "" : "persist.vendor.sw.processes=" + c.processes + "\n");
  get_monitor_info();
  Lines entries, keys;
  for (const monitor_info& info : monitor_list) {
    Lines threads(info.threads.begin(), info.threads.end());
    std::sort(threads.begin(), threads.end());
    std::string entry = info.name;
    for (const std::string& t : threads) entry += ":" + t;
    EXPECT_EQ(info.has_threads, !threads.empty());
    entries.push_back(entry);
  }
  for (const auto& [key, rec] : mTids) {
    keys.push_back(key);
    EXPECT_TRUE(rec.tid == kNoId && rec.pid == kNoId && rec.stuck_ms == 0 && rec.state == '?');
    EXPECT_FALSE(rec.updated || rec.valid || rec.reported || rec.frozen || rec.is_app);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(entries, c.entries);
  EXPECT_EQ(keys, c.keys);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, MonitorList, testing::Values(
    MonitorCase{"-", {"system_server:watchdog", "surfaceflinger"}, {"surfaceflinger", "watchdog"}},
    MonitorCase{"", {"system_server:watchdog", "surfaceflinger"}, {"surfaceflinger", "watchdog"}},
    MonitorCase{"system_server:watchdog:android.bg", {"system_server:android.bg:watchdog"}, {"android.bg", "watchdog"}},
    MonitorCase{"  a   b  ", {"a", "b"}, {"a", "b"}},
    MonitorCase{"p:", {"p"}, {"p"}},
    MonitorCase{"p::t", {"p:t"}, {"t"}},
    MonitorCase{"a a", {"a", "a"}, {"a"}},
    MonitorCase{"a:watchdog b:watchdog", {"a:watchdog", "b:watchdog"}, {"watchdog"}},  // one shared record
    MonitorCase{"   ", {}, {}},
    MonitorCase{"a\tb", {"a\tb"}, {"a\tb"}},  // only blanks separate entries
    MonitorCase{": :: x", {"x"}, {"x"}}));    // entries of colons alone name nothing
// clang-format on

TEST(MonitorList, DumpsTheListAndTableWhenDebugIsOn) {
  const std::pair<const char*, Lines> cases[] = {
      {"",
       {"I get persist.vendor.sw.processes =system_server:watchdog surfaceflinger",
        "D monitor system_server threads:", "D watchdog", "D monitor surfaceflinger main",
        "D mTids:"}},
      {" ", {"I get persist.vendor.sw.processes = ", "D mTids:"}},
      {"::",
       {"I get persist.vendor.sw.processes =::", "I monitor entry \"::\" names no process, skipped",
        "D mTids:"}},
  };
  for (const auto& [value, head] : cases) {
    reset_daemon(true);
    use_properties(std::string("persist.vendor.sw.processes=") + value + "\n");
    LogCapture log;
    get_monitor_info();
    Lines m = log.messages();
    ASSERT_EQ(m.size(), head.size() + mTids.size()) << value;
    EXPECT_EQ(Lines(m.begin(), m.begin() + head.size()), head);
    Lines keys(m.begin() + head.size(), m.end());
    for (const auto& entry : mTids) EXPECT_EQ(count(keys, "D " + entry.first), 1);
  }
}

TEST(ProcLookup, MatchesNamesExactly) {
  reset_daemon(true);
  use_properties("");
  get_monitor_info();
  LogCapture log;
  EXPECT_EQ(proc_lookup("watchdog"), &mTids.at("watchdog"));
  EXPECT_EQ(proc_lookup("Watchdog"), nullptr);
  EXPECT_EQ(log.messages(),
            (Lines{"I find record for watchdog", "I Watchdog not in monitor list"}));
}

}  // namespace
