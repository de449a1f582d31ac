// The shell command runner and the splitter.
#include "utils.h"

#include <gtest/gtest.h>
#include <string.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

struct SplitCase {
  std::string text;
  const char* delimiters;
  std::vector<std::string> tokens;
};

class Split : public testing::TestWithParam<SplitCase> {};

TEST_P(Split, DropsEmptyPieces) {
  EXPECT_EQ(string_split(GetParam().text, GetParam().delimiters), GetParam().tokens);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Split,
    testing::Values(SplitCase{"a  b ", " ", {"a", "b"}}, SplitCase{"", " ", {}},
                    SplitCase{" a", " ", {"a"}}, SplitCase{"   ", " ", {}},
                    SplitCase{"a/b:c", "/:", {"a", "b", "c"}}, SplitCase{"a b/c", "", {"a b/c"}},
                    SplitCase{"/system/bin/foo", "/", {"system", "bin", "foo"}},
                    SplitCase{"a\tb", " ", {"a\tb"}},  // only the given characters separate
                    SplitCase{"root 1 0 init\nroot 2 0 kthreadd\n",
                              " ",
                              {"root", "1", "0", "init\nroot", "2", "0", "kthreadd\n"}}));

struct ExecCase {
  std::string command;
  std::string output;
};

class Exec : public testing::TestWithParam<ExecCase> {};

TEST_P(Exec, CapturesTheFirstKilobyteWhateverTheExitStatus) {
  reset_daemon(false);
  char out[kShellOutputSize];
  memset(out, 0, sizeof(out));
  EXPECT_EQ(exec_command(GetParam().command.c_str(), out), 0);
  EXPECT_EQ(std::string(out), GetParam().output);
}

INSTANTIATE_TEST_SUITE_P(Cases, Exec,
                         testing::Values(ExecCase{"printf 'a b\\n'", "a b\n"}, ExecCase{"true", ""},
                                         ExecCase{"printf x; exit 1", "x"},
                                         ExecCase{"head -c 5000 /dev/zero | tr '\\0' y",
                                                  std::string(1023, 'y')},
                                         ExecCase{"no_such_command_anywhere 2>/dev/null", ""}));

TEST(Exec, NullArgumentsFailWithoutTouchingOrLogging) {
  reset_daemon(true);
  char out[kShellOutputSize];
  memset(out, 'z', sizeof(out));
  LogCapture log;
  EXPECT_EQ(exec_command(nullptr, out), -1);
  EXPECT_EQ(exec_command("echo hi", nullptr), -1);
  EXPECT_EQ(out[0], 'z');
  EXPECT_EQ(log.messages(), std::vector<std::string>{});
}

TEST(Exec, LogsTheCommandAndItsOutputWhenDebugIsOn) {
  reset_daemon(true);
  char out[kShellOutputSize];
  memset(out, 0, sizeof(out));
  LogCapture log;
  exec_command("printf hello", out);
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"I [sh] cmd=printf hello", "I [sh] ret=hello"}));
}

}  // namespace
