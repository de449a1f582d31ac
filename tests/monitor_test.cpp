// The monitor list grammar, the process table and lookups by name.
#include <gtest/gtest.h>

#include <algorithm>

#include "helpers.h"
#include "stall_ward.h"

namespace {

struct Entry {
  std::string name;
  bool has_threads;
  std::vector<std::string> threads;  // sorted
  bool operator==(const Entry& o) const {
    return name == o.name && has_threads == o.has_threads && threads == o.threads;
  }
};

void PrintTo(const Entry& e, std::ostream* os) {
  *os << e.name << (e.has_threads ? ":" : "(main)");
  for (const auto& t : e.threads) *os << " " << t;
}

struct MonitorCase {
  const char* properties;
  std::vector<Entry> entries;
  std::vector<std::string> keys;  // sorted
};

class MonitorList : public testing::TestWithParam<MonitorCase> {};

TEST_P(MonitorList, FollowsTheProcessesGrammar) {
  reset_daemon(false);
  use_properties(GetParam().properties);
  get_monitor_info();
  std::vector<Entry> entries;
  for (const monitor_info& info : monitor_list) {
    Entry e{info.name, info.has_threads, {info.threads.begin(), info.threads.end()}};
    std::sort(e.threads.begin(), e.threads.end());
    entries.push_back(e);
  }
  EXPECT_EQ(entries, GetParam().entries);
  std::vector<std::string> keys;
  for (const auto& entry : mTids) keys.push_back(entry.first);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, GetParam().keys);
  for (const auto& entry : mTids) {
    const proc& r = entry.second;
    EXPECT_EQ(r.tid, kNoId);
    EXPECT_EQ(r.pid, kNoId);
    EXPECT_EQ(r.stuck_ms, 0);
    EXPECT_EQ(r.state, '?');
    EXPECT_FALSE(r.updated || r.valid || r.reported || r.frozen || r.is_app);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MonitorList,
    testing::Values(
        MonitorCase{"",
                    {{"system_server", true, {"watchdog"}}, {"surfaceflinger", false, {}}},
                    {"surfaceflinger", "watchdog"}},
        MonitorCase{"persist.vendor.sw.processes=\n",
                    {{"system_server", true, {"watchdog"}}, {"surfaceflinger", false, {}}},
                    {"surfaceflinger", "watchdog"}},
        MonitorCase{"persist.vendor.sw.processes=system_server:watchdog:android.bg\n",
                    {{"system_server", true, {"android.bg", "watchdog"}}},
                    {"android.bg", "watchdog"}},
        MonitorCase{"persist.vendor.sw.processes=  a   b  \n",
                    {{"a", false, {}}, {"b", false, {}}},
                    {"a", "b"}},
        MonitorCase{"persist.vendor.sw.processes=p:\n", {{"p", false, {}}}, {"p"}},
        MonitorCase{"persist.vendor.sw.processes=p::t\n", {{"p", true, {"t"}}}, {"t"}},
        MonitorCase{
            "persist.vendor.sw.processes=a a\n", {{"a", false, {}}, {"a", false, {}}}, {"a"}},
        // one record for a name, shared by both processes
        MonitorCase{"persist.vendor.sw.processes=a:watchdog b:watchdog\n",
                    {{"a", true, {"watchdog"}}, {"b", true, {"watchdog"}}},
                    {"watchdog"}},
        MonitorCase{"persist.vendor.sw.processes=   \n", {}, {}},
        MonitorCase{"persist.vendor.sw.processes=a\tb\n", {{"a\tb", false, {}}}, {"a\tb"}},
        MonitorCase{"persist.vendor.sw.processes=: :: x\n", {{"x", false, {}}}, {"x"}}));

TEST(MonitorList, DumpsTheListAndTableWhenDebugIsOn) {
  reset_daemon(true);
  use_properties("");
  LogCapture log;
  get_monitor_info();
  std::vector<std::string> m = log.messages();
  ASSERT_EQ(m.size(), 7u);
  EXPECT_EQ(m[0], "I get persist.vendor.sw.processes =system_server:watchdog surfaceflinger");
  EXPECT_EQ(std::vector<std::string>(m.begin() + 1, m.begin() + 5),
            (std::vector<std::string>{"D monitor system_server threads:", "D watchdog",
                                      "D monitor surfaceflinger main", "D mTids:"}));
  std::vector<std::string> keys(m.begin() + 5, m.end());
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"D surfaceflinger", "D watchdog"}));
}

TEST(MonitorList, OnlyBlanksLogsAnEmptyTable) {
  reset_daemon(true);
  use_properties("persist.vendor.sw.processes= \n");
  LogCapture log;
  get_monitor_info();
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"I get persist.vendor.sw.processes = ", "D mTids:"}));
}

TEST(MonitorList, EntriesOfColonsAloneAreSkippedWithALine) {
  reset_daemon(true);
  use_properties("persist.vendor.sw.processes=::\n");
  LogCapture log;
  get_monitor_info();
  EXPECT_TRUE(monitor_list.empty());
  EXPECT_EQ(log.count("I monitor entry \"::\" names no process, skipped"), 1);
}

TEST(ProcLookup, MatchesNamesExactly) {
  reset_daemon(true);
  use_properties("");
  get_monitor_info();
  LogCapture log;
  EXPECT_EQ(proc_lookup("watchdog"), &mTids.at("watchdog"));
  EXPECT_EQ(proc_lookup("Watchdog"), nullptr);
  EXPECT_EQ(proc_lookup("watchdo"), nullptr);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{"I find record for watchdog",
                                                      "I Watchdog not in monitor list",
                                                      "I watchdo not in monitor list"}));
}

}  // namespace
