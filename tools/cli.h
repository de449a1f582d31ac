// The command-line convention of every tool here (the checker, the report tool, the stand-in):
// -h/--help prints the help on stdout, --version the one version line, a bad option or argument
// gets one line that says what is wrong and exit status 64, and every error line starts with the
// tool's name.
#pragma once

#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <sysexits.h>

#include <string>

namespace cli {

constexpr const char* kVersion = "1.0";
constexpr int kVersionOption = 0x100;  // getopt_long's value for --version

// One line on stderr, "TOOL: what".
inline void error(const char* tool, const char* format, ...) {
  va_list args;
  va_start(args, format);
  fprintf(stderr, "%s: ", tool);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
}

// What getopt_long's '?' or ':' (the option string begins with ':') was about, on one line; the
// exit status for it. getopt's own message is off (opterr = 0).
inline int bad_option(const char* tool, int c, char** argv) {
  const char* word = argv[optind - 1];
  if (c == ':') {
    error(tool, "option %s needs a value (see %s --help)", word, tool);
  } else if (optopt != 0 && word[0] == '-' && word[1] != '-') {
    error(tool, "unknown option -%c (see %s --help)", optopt, tool);
  } else {
    error(tool, "unknown option %s (see %s --help)", word, tool);
  }
  return EX_USAGE;
}

inline int version(const char* tool) {
  printf("%s %s\n", tool, kVersion);
  return EX_OK;
}

// Whether text is text: no NUL and no other control character than the blanks, and valid UTF-8.
inline bool is_text(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v') return false;
    if (c < 0x80) continue;
    int more = c >= 0xf0 ? 3 : c >= 0xe0 ? 2 : c >= 0xc2 ? 1 : -1;
    if (more < 0 || c > 0xf4) return false;
    for (; more > 0; --more) {
      if (++i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) return false;
    }
  }
  return true;
}

}  // namespace cli
