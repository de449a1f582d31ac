// Start-up configuration, the pacing arithmetic and the property readers.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

namespace {

struct StartupCase {
  std::string properties;  // after enable=1
  int64_t interval, alarm;
  int policy;
  bool debug;
  unsigned alarm_seconds;  // what the main loop arms the self-watchdog with
};

class Startup : public testing::TestWithParam<StartupCase> {};

TEST_P(Startup, ConfiguresFromProperties) {
  const StartupCase& c = GetParam();
  reset_daemon(false, 0);
  use_properties("persist.vendor.sw.enable=1\n" + c.properties);
  ASSERT_TRUE(stall_ward_init());
  EXPECT_EQ(interval_ms, c.interval);
  EXPECT_EQ(alarm_ms, c.alarm);
  EXPECT_EQ(policy, c.policy);
  EXPECT_EQ(debug_enabled, c.debug);
  // The first call after start re-arms the alarm and waits a whole interval before any sweep.
  clock_gettime(CLOCK_MONOTONIC_COARSE, &last_check);
  uint64_t wait = stall_wrad_check();
  EXPECT_LE(wait, static_cast<uint64_t>(c.interval));
  EXPECT_GE(wait, static_cast<uint64_t>(c.interval - 20));
  uint64_t armed = alarm(0);
  EXPECT_TRUE(armed <= c.alarm_seconds && armed + 1 >= c.alarm_seconds) << armed;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, Startup, testing::Values(
    StartupCase{"", 30000, 120000, POLICY_NOTHING, true, 120},
    StartupCase{"persist.vendor.sw.timeout=200\n", 50000, 200000, POLICY_NOTHING, true, 200},
    StartupCase{"persist.vendor.sw.timeout=60\n", 30000, 60000, POLICY_NOTHING, true, 60},
    StartupCase{"persist.vendor.sw.timeout=0\n", 30000, 0, POLICY_NOTHING, true, 0},  // no alarm
    StartupCase{"persist.vendor.sw.timeout=-1\n", 30000, -1000, POLICY_NOTHING, true, 4294967295u},
    StartupCase{"persist.vendor.sw.timeout=4294967416\n", 30000, 120000, POLICY_NOTHING, true, 120},
    StartupCase{"persist.vendor.sw.debug=off\npersist.vendor.sw.policy=kill\n", 30000, 120000, POLICY_KILL, false, 120},
    StartupCase{"persist.vendor.sw.policy=reboot\n", 30000, 120000, POLICY_REBOOT, true, 120},
    StartupCase{"persist.vendor.sw.policy=panic\n", 30000, 120000, POLICY_PANIC, true, 120},
    StartupCase{"persist.vendor.sw.policy=Kill\n", 30000, 120000, POLICY_NOTHING, true, 120},
    StartupCase{"persist.vendor.sw.policy= kill\n", 30000, 120000, POLICY_NOTHING, true, 120}));
// clang-format on

TEST(Startup, DisabledReturnsFalseSilently) {
  for (const char* props :
       {"", "persist.vendor.sw.enable=0\n", "persist.vendor.sw.enable=True\n"}) {
    reset_daemon(false, 0);
    use_properties(props);
    LogCapture log;
    EXPECT_FALSE(stall_ward_init()) << props;
    EXPECT_TRUE(log.messages().empty());
  }
}

struct PacingCase {
  int64_t cost, overrun;
  uint64_t wait;
};

class Pacing : public testing::TestWithParam<PacingCase> {};

TEST_P(Pacing, NextWaitAfterASweep) {
  reset_daemon(false, 30000);
  EXPECT_EQ(next_wait(GetParam().cost, GetParam().overrun), GetParam().wait);
}

// A cost under a second counts as one only in the comparison; an interval used up exactly gives 0.
INSTANTIATE_TEST_SUITE_P(Cases, Pacing,
                         testing::Values(PacingCase{400, 0, 29600}, PacingCase{29500, 0, 500},
                                         PacingCase{31000, 0, 1000}, PacingCase{200, 29500, 1000},
                                         PacingCase{0, 0, 30000}, PacingCase{500, 29000, 500},
                                         PacingCase{10001, 19999, 0}));

TEST(Pacing, ASweepStartsOnceTheIntervalHasPassed) {
  reset_daemon(true, 30000);
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  last_check = now;
  last_check.tv_sec -= 35;  // the sweep is 5 s late
  LogCapture log;
  uint64_t wait = stall_wrad_check();
  alarm(0);
  EXPECT_GE(last_check.tv_sec, now.tv_sec);
  EXPECT_TRUE(wait >= 24000 && wait <= 25000) << wait;  // 30000 - (cost + 5000)
  EXPECT_EQ(log.count("I go through proc"), 1);
}

struct PropCase {
  std::string line;            // the file's content for the key "k"
  bool bool_false, bool_true;  // get_prop_bool with default false, true
  int integer;                 // get_prop_int with default 77
  std::string text;            // get_prop_string with default "dflt"
};

class PropertyReaders : public testing::TestWithParam<PropCase> {};

TEST_P(PropertyReaders, ConvertLikeLibcutils) {
  const PropCase& c = GetParam();
  reset_daemon(false);
  use_properties(c.line);
  EXPECT_EQ(get_prop_bool("k", false), c.bool_false);
  EXPECT_EQ(get_prop_bool("k", true), c.bool_true);
  EXPECT_EQ(get_prop_int("k", 77), c.integer);
  EXPECT_EQ(get_prop_string("k", "dflt"), c.text);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Cases, PropertyReaders, testing::Values(
    PropCase{"", false, true, 77, "dflt"},                    // unset
    PropCase{"k=\n", false, true, 77, "dflt"},                // empty counts as unset
    PropCase{"k=1\n", true, true, 1, "1"}, PropCase{"k=yes\n", true, true, 77, "yes"},
    PropCase{"k=on\n", true, true, 77, "on"}, PropCase{"k=0\n", false, false, 0, "0"},
    PropCase{"k=n\n", false, false, 77, "n"}, PropCase{"k=false\n", false, false, 77, "false"},
    PropCase{"k=True\n", false, true, 77, "True"},            // case-sensitive
    PropCase{"k= on\n", false, true, 77, " on"},              // space-sensitive, untrimmed
    PropCase{"k=0x10\n", false, true, 16, "0x10"}, PropCase{"k=010\n", false, true, 8, "010"},
    PropCase{"k=120abc\n", false, true, 120, "120abc"},
    PropCase{"k=4294967416\n", false, true, 120, "4294967416"},  // cut to 32 bits
    PropCase{"k=99999999999999999999\n", false, true, 77, "99999999999999999999"},  // overflow
    PropCase{"k=2\n# k=1\n\nk=off\n", false, false, 77, "off"},  // the last line wins
    PropCase{"k=a=b\n", false, true, 77, "a=b"},  // then the longest value a property holds
    PropCase{"k=" + std::string(91, '7') + "\n", false, true, 77, std::string(91, '7')}));
// clang-format on

TEST(PropertyReaders, LogWhatTheyReadWhenDebugIsOn) {
  reset_daemon(true);
  use_properties("n=4294967416\ns=text\n");
  LogCapture log;
  get_prop_int("n", 1);
  get_prop_bool("b", true);
  get_prop_string("s", "");
  debug_enabled = false;
  get_prop_int("n", 1);
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"I get n =120", "I get b =1", "I get s =text"}));
}

TEST(PropertyReaders, RejectValuesTooLongAndUnreadableFilesWithOneLine) {
  if (!host_property_store()) GTEST_SKIP() << "the host property store's own checks";
  reset_daemon(false);
  use_properties("k=" + std::string(92, 'x') + "\nother=1\n");
  LogCapture log;
  EXPECT_EQ(get_prop_string("k", "dflt"), "dflt");
  EXPECT_EQ(get_prop_int("other", 0), 1);
  setenv("STALL_WARD_PROPERTIES", "/nonexistent/sw.prop", 1);
  EXPECT_EQ(get_prop_int("k", 5), 5);
  EXPECT_EQ(get_prop_bool("k", true), true);
  const std::vector<std::string>& m = log.messages();
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[0].rfind("E ", 0), 0u);
  EXPECT_NE(m[0].find(" k "), std::string::npos);
  EXPECT_EQ(m[1].rfind("E cannot read property file /nonexistent/sw.prop", 0), 0u);
}

TEST(PropertyReaders, RefuseAFileOthersCouldChange) {
  if (!host_property_store()) GTEST_SKIP() << "the host property store's own checks";
  reset_daemon(false);
  TempDir dir;
  const std::tuple<mode_t, uid_t, bool> cases[] = {
      {0644, 0, true}, {0600, 0, true}, {0664, 0, false}, {0646, 0, false}, {0644, 65534, false}};
  for (const auto& [mode, owner, accepted] : cases) {
    std::string path = dir.path("p" + std::to_string(mode) + "." + std::to_string(owner));
    write_file(path, "k=7\n");
    ASSERT_EQ(chmod(path.c_str(), mode) | chown(path.c_str(), owner, 0), 0);
    setenv("STALL_WARD_PROPERTIES", path.c_str(), 1);
    LogCapture log;
    EXPECT_EQ(get_prop_int("k", 1), accepted ? 7 : 1) << path;
    EXPECT_EQ(count_prefix(log.messages(), "E property file " + path + " ignored"),
              accepted ? 0 : 1);
  }
}

}  // namespace
