// Start-up configuration, the pacing arithmetic and the property readers.
#include <gtest/gtest.h>
#include <unistd.h>

#include "helpers.h"
#include "stall_ward.h"
#include "utils.h"

namespace {

struct StartupCase {
  const char* properties;
  bool ready;
  int64_t interval;
  int64_t alarm;
  int policy;
  bool debug;
  unsigned alarm_seconds;  // what the main loop arms the self-watchdog with
};

class Startup : public testing::TestWithParam<StartupCase> {};

TEST_P(Startup, ConfiguresFromProperties) {
  const StartupCase& c = GetParam();
  reset_daemon(false, 0);
  use_properties(c.properties);
  LogCapture log;
  ASSERT_EQ(stall_ward_init(), c.ready);
  if (!c.ready) {
    EXPECT_EQ(log.messages(), std::vector<std::string>{});
    return;
  }
  EXPECT_EQ(interval_ms, c.interval);
  EXPECT_EQ(alarm_ms, c.alarm);
  EXPECT_EQ(policy, c.policy);
  EXPECT_EQ(debug_enabled, c.debug);
  // The first call after start re-arms the alarm and waits a whole interval before any sweep.
  clock_gettime(CLOCK_MONOTONIC_COARSE, &last_check);
  uint64_t wait = stall_wrad_check();
  EXPECT_LE(wait, static_cast<uint64_t>(c.interval));
  EXPECT_GE(wait, static_cast<uint64_t>(c.interval - 20));
  unsigned armed = alarm(0);
  EXPECT_LE(armed, c.alarm_seconds);
  EXPECT_GE(uint64_t{armed} + 1, c.alarm_seconds);
}

const char kOn[] = "persist.vendor.sw.enable=true\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, Startup,
    testing::Values(StartupCase{"", false, 0, 0, 0, false, 0},
                    StartupCase{"persist.vendor.sw.enable=false\n", false, 0, 0, 0, false, 0},
                    StartupCase{"persist.vendor.sw.enable=True\n", false, 0, 0, 0, false, 0},
                    StartupCase{kOn, true, 30000, 120000, POLICY_NOTHING, true, 120},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=200\n", true,
                                50000, 200000, POLICY_NOTHING, true, 200},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=60\n", true,
                                30000, 60000, POLICY_NOTHING, true, 60},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=0\n", true,
                                30000, 0, POLICY_NOTHING, true, 0},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=-1\n", true,
                                30000, -1000, POLICY_NOTHING, true, 4294967295u},
                    StartupCase{
                        "persist.vendor.sw.enable=1\npersist.vendor.sw.timeout=4294967416\n", true,
                        30000, 120000, POLICY_NOTHING, true, 120},
                    StartupCase{"persist.vendor.sw.enable=on\npersist.vendor.sw.debug=off\n"
                                "persist.vendor.sw.policy=kill\n",
                                true, 30000, 120000, POLICY_KILL, false, 120},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.policy=reboot\n",
                                true, 30000, 120000, POLICY_REBOOT, true, 120},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.policy=panic\n",
                                true, 30000, 120000, POLICY_PANIC, true, 120},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.policy=Kill\n", true,
                                30000, 120000, POLICY_NOTHING, true, 120},
                    StartupCase{"persist.vendor.sw.enable=1\npersist.vendor.sw.policy= kill\n",
                                true, 30000, 120000, POLICY_NOTHING, true, 120}));

TEST(Startup, LogsThePropertyReadsOnlyOnceDebugIsKnown) {
  reset_daemon(false, 0);
  use_properties("persist.vendor.sw.enable=1\npersist.vendor.sw.processes=a\n");
  LogCapture log;
  ASSERT_TRUE(stall_ward_init());
  alarm(0);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "I get persist.vendor.sw.timeout =120",
                                "I get persist.vendor.sw.processes =a",
                                "D monitor a main",
                                "D mTids:",
                                "D a",
                                "I get persist.vendor.sw.policy =",
                            }));
}

struct PacingCase {
  int64_t cost;
  int64_t overrun;
  uint64_t wait;
};

class Pacing : public testing::TestWithParam<PacingCase> {};

TEST_P(Pacing, NextWaitAfterASweep) {
  reset_daemon(false, 30000);
  EXPECT_EQ(next_wait(GetParam().cost, GetParam().overrun), GetParam().wait);
}

INSTANTIATE_TEST_SUITE_P(Cases, Pacing,
                         testing::Values(PacingCase{400, 0, 29600}, PacingCase{29500, 0, 500},
                                         PacingCase{31000, 0, 1000}, PacingCase{200, 29500, 1000},
                                         // a cost under a second counts as one only in the test
                                         PacingCase{0, 0, 30000}, PacingCase{500, 29000, 500},
                                         // the interval used up exactly: straight on
                                         PacingCase{10001, 19999, 0}));

TEST(Pacing, ASweepStartsOnceTheIntervalHasPassed) {
  reset_daemon(true, 30000);
  alarm_ms = 120000;
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  last_check = now;
  last_check.tv_sec -= 35;  // the sweep is 5 s late
  LogCapture log;
  uint64_t wait = stall_wrad_check();
  alarm(0);
  EXPECT_GE(last_check.tv_sec, now.tv_sec);
  // 30000 - (cost + 5000): the sweep over an empty monitor list costs far less than a second.
  EXPECT_LE(wait, 25000u);
  EXPECT_GE(wait, 24000u);
  EXPECT_EQ(log.count("I go through proc"), 1);
  EXPECT_EQ(log.count("I close proc"), 1);
}

// ---------------------------------------------------------------------------------------------
// Property readers.

struct PropCase {
  const char* line;  // the file's content for the key "k"
  bool bool_result_default_false;
  bool bool_result_default_true;
  int int_result;             // default 77
  const char* string_result;  // default "dflt"
};

class PropertyReaders : public testing::TestWithParam<PropCase> {};

TEST_P(PropertyReaders, ConvertLikeLibcutils) {
  const PropCase& c = GetParam();
  reset_daemon(false);
  use_properties(c.line);
  EXPECT_EQ(get_prop_bool("k", false), c.bool_result_default_false);
  EXPECT_EQ(get_prop_bool("k", true), c.bool_result_default_true);
  EXPECT_EQ(get_prop_int("k", 77), c.int_result);
  EXPECT_EQ(get_prop_string("k", "dflt"), c.string_result);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PropertyReaders,
    testing::Values(
        PropCase{"", false, true, 77, "dflt"},      // unset
        PropCase{"k=\n", false, true, 77, "dflt"},  // empty counts as unset
        PropCase{"k=1\n", true, true, 1, "1"}, PropCase{"k=y\n", true, true, 77, "y"},
        PropCase{"k=yes\n", true, true, 77, "yes"}, PropCase{"k=on\n", true, true, 77, "on"},
        PropCase{"k=true\n", true, true, 77, "true"}, PropCase{"k=0\n", false, false, 0, "0"},
        PropCase{"k=n\n", false, false, 77, "n"}, PropCase{"k=no\n", false, false, 77, "no"},
        PropCase{"k=off\n", false, false, 77, "off"},
        PropCase{"k=false\n", false, false, 77, "false"},
        PropCase{"k=True\n", false, true, 77, "True"},       // case-sensitive
        PropCase{"k= on\n", false, true, 77, " on"},         // space-sensitive, kept untrimmed
        PropCase{"k=0x10\n", false, true, 16, "0x10"},       // base inferred
        PropCase{"k=010\n", false, true, 8, "010"},          // octal
        PropCase{"k=120abc\n", false, true, 120, "120abc"},  // leading digits
        PropCase{"k=-5\n", false, true, -5, "-5"},
        PropCase{"k=4294967416\n", false, true, 120, "4294967416"},  // cut to 32 bits
        PropCase{"k=99999999999999999999\n", false, true, 77, "99999999999999999999"},
        PropCase{"k=2\nk=off\n", false, false, 77, "off"},  // the last line wins
        PropCase{"# k=1\n\nk=a=b\n", false, true, 77, "a=b"},
        PropCase{"k=0123456789012345678901234567890123456789012345678901234567890123456789"
                 "012345678901234567890\n",
                 false, true, 342391,  // octal, up to the first 8
                 "0123456789012345678901234567890123456789012345678901234567890123456789"
                 "012345678901234567890"}));  // 91 bytes: the longest a property holds

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

TEST(PropertyReaders, RejectValuesTooLongForAndroidAndUnreadableFiles) {
  reset_daemon(false);
  std::string too_long(92, 'x');
  use_properties("k=" + too_long + "\nother=1\n");
  {
    LogCapture log;
    EXPECT_EQ(get_prop_string("k", "dflt"), "dflt");
    EXPECT_EQ(get_prop_int("other", 0), 1);
    std::vector<std::string> m = log.messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_NE(m[0].find("E "), std::string::npos);
    EXPECT_NE(m[0].find(" k "), std::string::npos);
  }
  setenv("STALL_WARD_PROPERTIES", "/nonexistent/stall_ward.prop", 1);
  LogCapture log;
  EXPECT_EQ(get_prop_int("k", 5), 5);
  EXPECT_EQ(get_prop_bool("k", true), true);
  std::vector<std::string> m = log.messages();
  ASSERT_EQ(m.size(), 1u);  // one line for the file, not one per read
  EXPECT_EQ(m[0].rfind("E cannot read property file /nonexistent/stall_ward.prop", 0), 0u);
}

}  // namespace
