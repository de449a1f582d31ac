// Reading the inputs: plain files or stdin, a bug report's zip through libzip, and inside a bug
// report only its log sections. Everything is streamed in fixed-size chunks, one line at a time.
#include <android-base/strings.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zip.h>

#include "report.h"

namespace report {
namespace {

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kMaxLine = 64 * 1024;  // longer lines are cut here, and then unreadable

bool digits(const char* p, int n) {
  for (int i = 0; i < n; ++i) {
    if (!isdigit(static_cast<unsigned char>(p[i]))) return false;
  }
  return true;
}

// "MM-DD hh:mm:ss.mmm": milliseconds since the start of the year, by the calendar of a leap year
// (every date a log can print has its day; a common year's count from March on is one day less).
bool parse_clock(const char* p, size_t len, int64_t* ms) {
  if (len < 18 || !digits(p, 2) || p[2] != '-' || !digits(p + 3, 2) || p[5] != ' ' ||
      !digits(p + 6, 2) || p[8] != ':' || !digits(p + 9, 2) || p[11] != ':' || !digits(p + 12, 2) ||
      p[14] != '.' || !digits(p + 15, 3)) {
    return false;
  }
  static const int kDaysBefore[] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};
  auto num = [p](int at) { return (p[at] - '0') * 10 + (p[at + 1] - '0'); };
  if (num(0) < 1 || num(0) > 12 || num(3) < 1) return false;
  *ms = ((((kDaysBefore[num(0) - 1] + num(3) - 1) * 24LL + num(6)) * 60 + num(9)) * 60 + num(12)) *
            1000 +
        (p[15] - '0') * 100 + (p[16] - '0') * 10 + (p[17] - '0');
  return true;
}

bool parse_logcat(const std::string& raw, Line* line) {
  size_t at = 0;
  if (raw.size() > 5 && digits(raw.data(), 4) && raw[4] == '-') at = 5;  // -v year
  int64_t ms = 0;
  if (!parse_clock(raw.data() + at, raw.size() - at, &ms)) return false;
  size_t clock_end = at + 18;
  while (clock_end < raw.size() && isdigit(static_cast<unsigned char>(raw[clock_end]))) ++clock_end;
  // Then [uid] pid tid priority: the first one-letter field among the next four.
  std::vector<std::string> fields;
  size_t pos = clock_end;
  while (fields.size() < 4) {
    while (pos < raw.size() && raw[pos] == ' ') ++pos;
    size_t end = raw.find(' ', pos);
    if (pos >= raw.size() || end == std::string::npos) return false;
    fields.push_back(raw.substr(pos, end - pos));
    pos = end + 1;
    if (fields.back().size() == 1 && strchr("VDIWEFS", fields.back()[0]) != nullptr) break;
  }
  size_t n = fields.size();
  if (n < 3 || fields[n - 1].size() != 1 || strchr("VDIWEFS", fields[n - 1][0]) == nullptr)
    return false;
  char* end = nullptr;
  line->pid = static_cast<int>(strtol(fields[n - 3].c_str(), &end, 10));
  if (*end != '\0') return false;
  line->tid = static_cast<int>(strtol(fields[n - 2].c_str(), &end, 10));
  if (*end != '\0') return false;
  std::string rest = raw.substr(pos);
  size_t colon = rest.find(": ");
  if (colon == std::string::npos && !rest.empty() && rest.back() == ':') colon = rest.size() - 1;
  if (colon == std::string::npos) return false;  // cut short before its message
  line->kind = Line::kLogcat;
  line->year = at == 5 ? atoi(raw.c_str()) : 0;
  const std::string& zone = fields[0];  // -v zone: "+0900" between the clock and the pid
  line->zone =
      n == 4 && zone.size() == 5 && strchr("+-", zone[0]) != nullptr && digits(zone.data() + 1, 4)
          ? zone
          : "";
  line->clock = raw.substr(at, 18);
  line->ms = ms;
  line->tag = android::base::Trim(rest.substr(0, colon));
  line->text = rest.substr(std::min(colon + 2, rest.size()));
  return true;
}

bool parse_kernel(const std::string& raw, Line* line) {
  size_t at = 0;
  if (raw.size() > 2 && raw[0] == '<') {  // "<6>": the priority of /dev/kmsg and dmesg -r
    at = raw.find('>');
    if (at == std::string::npos || at > 4) return false;
    ++at;
  }
  if (at >= raw.size() || raw[at] != '[') return false;
  size_t close = raw.find(']', at);
  if (close == std::string::npos) return false;
  char* end = nullptr;
  std::string stamp = raw.substr(at + 1, close - at - 1);
  strtod(stamp.c_str(), &end);  // seconds since boot
  if (end == stamp.c_str() || !android::base::Trim(std::string(end)).empty()) return false;
  size_t text = close + 1;
  // A caller field ("[  T1301]" or "[T1301]") from kernels built with CONFIG_PRINTK_CALLER.
  size_t caller = raw.find_first_not_of(' ', text);
  if (caller != std::string::npos && raw[caller] == '[') {
    size_t caller_end = raw.find(']', caller);
    std::string id = caller_end == std::string::npos
                         ? ""
                         : android::base::Trim(raw.substr(caller + 1, caller_end - caller - 1));
    if (id.size() > 1 && (id[0] == 'T' || id[0] == 'C') && digits(id.data() + 1, id.size() - 1)) {
      text = caller_end + 1;
    }
  }
  if (text < raw.size() && raw[text] == ' ') ++text;
  line->kind = Line::kKernel;
  line->clock = "[" + android::base::Trim(stamp) + "]";
  line->ms = -1;
  line->year = 0;
  line->zone.clear();
  line->pid = line->tid = 0;
  line->tag.clear();
  line->text = raw.substr(text);
  return true;
}

// Hands out the lines of a stream given in chunks; a line longer than kMaxLine is cut there.
struct LineSplitter {
  std::string pending;
  bool cut = false;
  template <typename Emit>
  void feed(const char* data, size_t size, const Emit& emit) {
    for (size_t i = 0; i < size;) {
      const char* nl = static_cast<const char*>(memchr(data + i, '\n', size - i));
      size_t len = (nl != nullptr ? nl - data : size) - i;
      size_t room = kMaxLine - std::min(kMaxLine, pending.size());
      if (len > room) cut = true;
      pending.append(data + i, std::min(len, room));
      if (nl == nullptr) break;
      emit(pending, cut);
      pending.clear();
      cut = false;
      i += len + 1;
    }
  }
  template <typename Emit>
  void end(const Emit& emit) {
    if (!pending.empty()) emit(pending, cut);
    pending.clear();
  }
};

// Which lines of the stream count. A bug report ("== dumpstate:" near the top) holds many sections
// ("------ NAME (command) ------" up to "------ 0.1s was the duration of 'NAME' ------"); only the
// system log and the kernel log are read from it.
struct SectionFilter {
  bool bugreport = false;
  bool in_log = false;
  bool wants(const std::string& l, InputStats* stats) {
    if (android::base::StartsWith(l, "========")) return false;  // a bug report's first line
    if (android::base::StartsWith(l, "== dumpstate:")) {
      bugreport = true;
      int year = atoi(l.c_str() + strlen("== dumpstate:"));
      if (stats->year == 0 && year > 1970) {
        stats->year = year;
        stats->year_from = "the bug report's dumpstate line";
      }
      return false;
    }
    if (android::base::StartsWith(l, "------ ") && android::base::EndsWith(l, " ------")) {
      in_log = android::base::StartsWith(l, "------ SYSTEM LOG") ||
               android::base::StartsWith(l, "------ KERNEL LOG");
      return false;
    }
    return !bugreport || in_log;
  }
};

void emit_line(const std::string& raw, bool cut, SectionFilter* filter, InputStats* stats,
               const std::function<void(const Line&)>& sink) {
  std::string l = raw;
  if (!l.empty() && l.back() == '\r') l.pop_back();
  if (!filter->wants(l, stats)) return;
  if (l.empty() || android::base::StartsWith(l, "--------- beginning of ")) return;
  ++stats->lines;
  Line line;
  if (cut || !parse_line(l, &line)) {
    ++stats->unreadable;
    return;
  }
  if (line.year != 0 && stats->year == 0) {
    stats->year = line.year;
    stats->year_from = "logcat -v year";
  }
  if (!line.zone.empty() && stats->zone.empty()) stats->zone = line.zone;
  sink(line);
}

// The entry of a bug report zip that holds the report's text: the one main_entry.txt names, else
// the first bugreport*.txt.
zip_int64_t main_entry(zip_t* archive) {
  zip_file_t* names = zip_fopen(archive, "main_entry.txt", 0);
  if (names != nullptr) {
    char name[512] = {};
    zip_int64_t n = zip_fread(names, name, sizeof(name) - 1);
    zip_fclose(names);
    if (n > 0) {
      zip_int64_t index =
          zip_name_locate(archive, android::base::Trim(std::string(name, n)).c_str(), 0);
      if (index >= 0) return index;
    }
  }
  for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
    std::string entry = zip_get_name(archive, i, 0);
    if (android::base::StartsWith(entry, "bugreport") && android::base::EndsWith(entry, ".txt"))
      return i;
  }
  return -1;
}

}  // namespace

bool parse_line(const std::string& raw, Line* line) {
  return parse_logcat(raw, line) || parse_kernel(raw, line);
}

int64_t clock_ms(const std::string& clock) {
  int64_t ms = -1;
  return parse_clock(clock.data(), clock.size(), &ms) ? ms : -1;
}

void read_inputs(const std::vector<std::string>& paths, InputStats* stats,
                 const std::function<void(const Line&)>& sink) {
  std::vector<char> chunk(kChunk);
  for (const std::string& path : paths) {
    LineSplitter splitter;
    SectionFilter filter;
    auto emit = [&](const std::string& l, bool cut) { emit_line(l, cut, &filter, stats, sink); };
    FILE* file = path == "-" ? stdin : fopen(path.c_str(), "rb");
    if (file == nullptr) {
      stats->errors.push_back(path + ": " + strerror(errno));
      continue;
    }
    size_t n = fread(chunk.data(), 1, 4, file);
    if (n == 4 && memcmp(chunk.data(), "PK\3\4", 4) == 0) {
      fclose(file);
      int error = 0;
      zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
      zip_int64_t index = archive != nullptr ? main_entry(archive) : -1;
      zip_file_t* entry = index >= 0 ? zip_fopen_index(archive, index, 0) : nullptr;
      if (entry == nullptr) {
        stats->errors.push_back(path + ": not a bug report zip (no main entry)");
      } else {
        zip_int64_t got;
        while ((got = zip_fread(entry, chunk.data(), chunk.size())) > 0) {
          splitter.feed(chunk.data(), static_cast<size_t>(got), emit);
        }
        zip_fclose(entry);
      }
      if (archive != nullptr) zip_discard(archive);
    } else {
      do {
        splitter.feed(chunk.data(), n, emit);
      } while ((n = fread(chunk.data(), 1, chunk.size(), file)) > 0);
      if (file != stdin) fclose(file);
    }
    splitter.end(emit);
  }
}

}  // namespace report
