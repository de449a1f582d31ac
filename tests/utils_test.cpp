// The shell command runner and the splitter.
#include "utils.h"

#include <gtest/gtest.h>
#include <string.h>

#include "helpers.h"
#include "stall_ward.h"

namespace {

using Tokens = std::vector<std::string>;

TEST(Split, DropsEmptyPiecesAndSplitsOnlyAtTheGivenCharacters) {
  const std::tuple<std::string, const char*, Tokens> cases[] = {
      {"a  b ", " ", {"a", "b"}},
      {"", " ", {}},
      {"   ", " ", {}},
      {"a/b:c", "/:", {"a", "b", "c"}},
      {"a b/c", "", {"a b/c"}},
      {"/system/bin/foo", "/", {"system", "bin", "foo"}},
      {"a\tb", " ", {"a\tb"}},
      {"root 1 init\nroot 2 kthreadd\n", " ", {"root", "1", "init\nroot", "2", "kthreadd\n"}},
  };
  for (const auto& [text, delimiters, tokens] : cases) {
    EXPECT_EQ(string_split(text, delimiters), tokens) << text;
  }
}

TEST(Exec, CapturesTheFirstKilobyteWhateverTheExitStatus) {
  reset_daemon(false);
  const std::pair<const char*, std::string> cases[] = {
      {"printf 'a b\\n'", "a b\n"},
      {"true", ""},
      {"printf x; exit 1", "x"},
      {"head -c 5000 /dev/zero | tr '\\0' y", std::string(1023, 'y')},
      {"no_such_command_anywhere 2>/dev/null", ""},
  };
  for (const auto& [command, output] : cases) {
    char out[kShellOutputSize];
    memset(out, 0, sizeof(out));
    EXPECT_EQ(exec_command(command, out), 0) << command;
    EXPECT_EQ(std::string(out), output) << command;
  }
}

TEST(Exec, LogsWithDebugOnAndRefusesNullsSilently) {
  reset_daemon(true);
  char out[kShellOutputSize];
  memset(out, 'z', sizeof(out));
  LogCapture log;
  EXPECT_EQ(exec_command(nullptr, out), -1);
  EXPECT_EQ(exec_command("echo hi", nullptr), -1);
  EXPECT_EQ(out[0], 'z');
  memset(out, 0, sizeof(out));
  exec_command("printf hello", out);
  EXPECT_EQ(log.messages(), (Tokens{"I [sh] cmd=printf hello", "I [sh] ret=hello"}));
}

}  // namespace
