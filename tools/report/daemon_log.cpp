// The daemon's log lines told apart by the daemon's own message table: a line is the first message
// whose format it matches whole, and each conversion's text is kept.
#include <string.h>

#include "report.h"

namespace report {
namespace {

bool digit(char c) {
  return c >= '0' && c <= '9';
}

// Matches text [t, end) against format f from its current place. %s takes the shortest text that
// lets the rest match; %d, %u and their long forms digits (%d a sign too); %c one character.
bool match(const char* f, const char* t, const char* end, DaemonLine* out) {
  while (*f != '\0') {
    if (*f != '%' || f[1] == '%') {
      if (*f == '%') ++f;
      if (t == end || *t != *f) return false;
      ++f, ++t;
      continue;
    }
    ++f;
    while (*f == 'l') ++f;
    char conv = *f++;
    if (out->fields == DaemonLine::kMaxFields) return false;
    std::string_view& field = out->field[out->fields++];
    if (conv == 's') {
      int taken = out->fields;
      for (const char* e = t; e <= end; ++e) {
        field = std::string_view(t, static_cast<size_t>(e - t));
        if (match(f, e, end, out)) return true;
        out->fields = taken;
      }
      return false;
    }
    const char* start = t;
    if (conv == 'c') {
      if (t == end) return false;
      ++t;
    } else {
      if (conv == 'd' && t != end && *t == '-') ++t;
      const char* digits = t;
      while (t != end && digit(*t)) ++t;
      if (t == digits) return false;
    }
    field = std::string_view(start, static_cast<size_t>(t - start));
  }
  return t == end;
}

// The literal text a format begins and ends with, to pass over most messages at once.
struct Frame {
  size_t head = 0, tail = 0;
};
Frame frame_of(const char* format) {
  Frame frame;
  size_t n = strlen(format);
  const char* first = strchr(format, '%');
  frame.head = first == nullptr ? n : static_cast<size_t>(first - format);
  const char* last = strrchr(format, '%');
  if (last != nullptr) {
    ++last;
    while (*last == 'l') ++last;
    ++last;
  }
  frame.tail = last == nullptr ? 0 : n - static_cast<size_t>(last - format);
  return frame;
}

}  // namespace

DaemonLine match_daemon_line(const std::string& text) {
  static const std::vector<Frame> frames = [] {
    std::vector<Frame> all;
    for (const Message& m : kMessages) all.push_back(frame_of(m.format));
    return all;
  }();
  for (size_t i = 0; i < kMessageCount; ++i) {
    const char* format = kMessages[i].format;
    const Frame& frame = frames[i];
    if (text.compare(0, frame.head, format, frame.head) != 0) continue;
    size_t flen = strlen(format);
    if (text.size() < frame.tail ||
        text.compare(text.size() - frame.tail, frame.tail, format + flen - frame.tail) != 0)
      continue;
    DaemonLine line;
    line.id = kMessages[i].id;
    if (match(format, text.data(), text.data() + text.size(), &line)) return line;
  }
  return DaemonLine();
}

}  // namespace report
