// Reading the inputs: plain files or stdin, a bug report's zip through libzip, and inside a bug
// report only its log sections. Everything is streamed in fixed-size chunks, one line at a time.
#include <android-base/strings.h>
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "report.h"

namespace report {

const int kDaysBefore[13] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366};

namespace {

using android::base::StartsWith;

constexpr size_t kChunk = 64 * 1024;
constexpr size_t kMaxLine = 64 * 1024;  // longer lines are cut here, and then unreadable

bool digits(const char* p, int n) {
  for (int i = 0; i < n; ++i) {
    if (!isdigit(static_cast<unsigned char>(p[i]))) return false;
  }
  return true;
}

// "MM-DD hh:mm:ss.mmm": milliseconds since the start of the year.
bool parse_clock(const char* p, size_t len, int64_t* ms) {
  if (len < 18 || !digits(p, 2) || p[2] != '-' || !digits(p + 3, 2) || p[5] != ' ' ||
      !digits(p + 6, 2) || p[8] != ':' || !digits(p + 9, 2) || p[11] != ':' || !digits(p + 12, 2) ||
      p[14] != '.' || !digits(p + 15, 3)) {
    return false;
  }
  auto num = [p](int at) { return (p[at] - '0') * 10 + (p[at + 1] - '0'); };
  if (num(0) < 1 || num(0) > 12 || num(3) < 1) return false;
  *ms = ((((kDaysBefore[num(0) - 1] + num(3) - 1) * 24LL + num(6)) * 60 + num(9)) * 60 + num(12)) *
            1000 +
        (p[15] - '0') * 100 + (p[16] - '0') * 10 + (p[17] - '0');
  return true;
}

// A logcat priority letter.
bool is_priority(char c) {
  return c == 'V' || c == 'D' || c == 'I' || c == 'W' || c == 'E' || c == 'F' || c == 'S';
}

// logcat -v time's "P/TAG( PID): message" after the clock (the tag padded to eight characters,
// the pid to five; no thread id).
bool time_form(const std::string& raw, size_t pos, Line* line) {
  while (pos < raw.size() && raw[pos] == ' ') ++pos;
  if (pos + 2 >= raw.size() || raw[pos + 1] != '/' || !is_priority(raw[pos])) return false;
  size_t close = raw.find("): ", pos);
  if (close == std::string::npos && raw.back() == ':' && raw[raw.size() - 2] == ')')
    close = raw.size() - 2;
  size_t open = close == std::string::npos ? close : raw.rfind('(', close);
  if (open == std::string::npos || open < pos + 2) return false;
  char* end = nullptr;
  long pid = strtol(raw.c_str() + open + 1, &end, 10);
  if (end != raw.c_str() + close) return false;
  line->kind = Line::kLogcat;
  line->pid = static_cast<int>(pid);
  line->tid = 0;
  line->tag = android::base::Trim(raw.substr(pos + 2, open - pos - 2));
  line->text = raw.substr(std::min(close + 3, raw.size()));
  return true;
}

bool parse_logcat(const std::string& raw, Line* line) {
  size_t at = 0;
  if (raw.size() > 5 && digits(raw.data(), 4) && raw[4] == '-') at = 5;  // -v year
  int64_t ms = 0;
  if (!parse_clock(raw.data() + at, raw.size() - at, &ms)) return false;
  size_t clock_end = at + 18;
  while (clock_end < raw.size() && isdigit(static_cast<unsigned char>(raw[clock_end]))) ++clock_end;
  line->year = at == 5 ? atoi(raw.c_str()) : 0;
  line->clock = raw.substr(at, 18);
  line->ms = ms;
  line->zone.clear();
  if (time_form(raw, clock_end, line)) return true;
  // Then [uid] pid tid priority: the first one-letter field among the next four.
  std::vector<std::string> fields;
  size_t pos = clock_end;
  while (fields.size() < 4) {
    while (pos < raw.size() && raw[pos] == ' ') ++pos;
    size_t end = raw.find(' ', pos);
    if (pos >= raw.size() || end == std::string::npos) return false;
    fields.push_back(raw.substr(pos, end - pos));
    pos = end + 1;
    if (fields.back().size() == 1 && is_priority(fields.back()[0])) break;
  }
  size_t n = fields.size();
  if (n < 3 || fields[n - 1].size() != 1 || !is_priority(fields[n - 1][0])) return false;
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
  const std::string& zone = fields[0];  // -v zone: "+0900" between the clock and the pid
  line->zone =
      n == 4 && zone.size() == 5 && strchr("+-", zone[0]) != nullptr && digits(zone.data() + 1, 4)
          ? zone
          : "";
  line->tag = android::base::Trim(rest.substr(0, colon));
  line->text = rest.substr(std::min(colon + 2, rest.size()));
  return true;
}

// dmesg -T's "Sun Nov 22 08:08:40 2026": milliseconds as parse_clock counts them.
bool parse_wall_clock(const std::string& stamp, int64_t* ms) {
  static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  char weekday[4] = {}, month[4] = {};
  int day = 0, h = 0, m = 0, sec = 0, year = 0;
  if (sscanf(stamp.c_str(), "%3s %3s %d %d:%d:%d %d", weekday, month, &day, &h, &m, &sec, &year) !=
          7 ||
      strlen(month) != 3) {
    return false;
  }
  const char* at = strstr(kMonths, month);
  if (at == nullptr || (at - kMonths) % 3 != 0) return false;
  if (day < 1 || day > 31) return false;
  *ms =
      (((kDaysBefore[(at - kMonths) / 3] + day - 1) * 24LL + h) * 60 + m) * 60000LL + sec * 1000LL;
  return true;
}

bool parse_kernel(const std::string& raw, Line* line) {
  size_t at = raw.find_first_not_of(" \t");  // a log pasted with an indent
  if (at == std::string::npos) return false;
  if (raw.size() > at + 2 && raw[at] == '<') {  // "<6>": the priority of /dev/kmsg and dmesg -r
    size_t close = raw.find('>', at);
    if (close == std::string::npos || close > at + 4) return false;
    at = close + 1;
  }
  if (at >= raw.size() || raw[at] != '[') return false;
  size_t close = raw.find(']', at);
  if (close == std::string::npos) return false;
  char* end = nullptr;
  std::string stamp = raw.substr(at + 1, close - at - 1);
  strtod(stamp.c_str(), &end);  // seconds since boot
  // Vendors add to it: "[   79.822894 / 05-03 18:11:50.340]", "[    0.000000,0]", "[  253.9s]".
  std::string rest = android::base::Trim(std::string(end));
  bool uptime = end != stamp.c_str() &&
                (rest.empty() || rest == "s" || StartsWith(rest, "/ ") || StartsWith(rest, ","));
  int64_t ms = -1;
  if (!uptime && !parse_wall_clock(stamp, &ms)) return false;
  if (StartsWith(rest, "/ ") && !parse_clock(rest.data() + 2, rest.size() - 2, &ms)) ms = -1;
  size_t text = close + 1;
  // Caller fields: "[  T1301]", "[T1301]", "[    C0]" (CONFIG_PRINTK_CALLER),
  // "[pid:1993,cpu0,...]".
  size_t caller = raw.find_first_not_of(' ', text);
  if (caller != std::string::npos && raw[caller] == '[') {
    size_t caller_end = raw.find(']', caller);
    std::string id = caller_end == std::string::npos
                         ? ""
                         : android::base::Trim(raw.substr(caller + 1, caller_end - caller - 1));
    if ((id.size() > 1 && (id[0] == 'T' || id[0] == 'C') && digits(id.data() + 1, id.size() - 1)) ||
        StartsWith(id, "pid:")) {
      text = caller_end + 1;
    }
  }
  if (text < raw.size() && raw[text] == ' ') ++text;
  line->kind = Line::kKernel;
  line->clock = uptime ? "[" + android::base::Trim(stamp.substr(0, end - stamp.c_str())) + "]"
                       : android::base::Trim(stamp);
  line->ms = ms;
  line->year = 0;
  line->zone.clear();
  line->pid = line->tid = 0;
  line->tag.clear();
  line->text = raw.substr(text);
  return true;
}

// Hands out the lines of a stream given in chunks, in place where a line lies within a chunk; a
// line longer than kMaxLine is cut there.
struct LineSplitter {
  std::string pending;
  bool cut = false;
  template <typename Emit>
  void feed(const char* data, size_t size, const Emit& emit) {
    for (size_t i = 0; i < size;) {
      const char* nl = static_cast<const char*>(memchr(data + i, '\n', size - i));
      size_t len = (nl != nullptr ? nl - data : size) - i;
      if (nl != nullptr && pending.empty() && len <= kMaxLine) {
        emit(std::string_view(data + i, len), false);
        i += len + 1;
        continue;
      }
      size_t room = kMaxLine - std::min(kMaxLine, pending.size());
      if (len > room) cut = true;
      pending.append(data + i, std::min(len, room));
      if (nl == nullptr) break;
      emit(std::string_view(pending), cut);
      pending.clear();
      cut = false;
      i += len + 1;
    }
  }
  template <typename Emit>
  void end(const Emit& emit) {
    if (!pending.empty()) emit(std::string_view(pending), cut);
    pending.clear();
  }
};

// The first character told apart before the call to memcmp: most lines differ there.
bool starts(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && (prefix.empty() || s[0] == prefix[0]) &&
         memcmp(s.data(), prefix.data(), prefix.size()) == 0;
}

// Which lines of the stream count, and as what. A bug report ("== dumpstate:" near the top) holds
// many sections ("------ NAME (command) ------" up to "------ 0.1s was the duration of 'NAME'
// ------"); its logs (SYSTEM LOG, KERNEL LOG; the previous boot's LAST LOGCAT, LAST KMSG) and its
// Java dumps (VM TRACES ...) are read, and of the rest only the header's "Build fingerprint:" and
// the serial number among the SYSTEM PROPERTIES. Another file is a log unless its first line shows
// a stack dump ("----- pid N at ...", "Subject: ..." of an ANR file, "*** *** ***" of a tombstone)
// or the previous boot's kernel log as pstore keeps it (a file called *ramoops* or last_kmsg, or
// one beginning "Panic#1 Part1").
struct SectionFilter {
  SectionFilter(const std::string& name, int* sections, InputStats* input)
      : source(name), counter(sections), stats(input) {
    section = ++*counter;
    if (name.find("ramoops") != std::string::npos || name.find("last_kmsg") != std::string::npos)
      from = Line::kLastBoot;
  }
  std::string source;
  int* counter;
  InputStats* stats;
  int section;
  Line::From from = Line::kLog;
  bool bugreport = false, first = true, read = true, header = false, properties = false;
  bool wants(std::string_view l) {
    if (first && !l.empty()) {
      first = false;
      if (starts(l, "*** *** ***") || starts(l, "----- pid ") || starts(l, "Subject:"))
        from = Line::kStackDump;
      if (binder_state_line(std::string(l))) {
        from = Line::kSection;
        source = "BINDER STATE";
      }
      if (starts(l, "Panic#") || starts(l, "Oops#")) {
        from = Line::kLastBoot;
        return false;
      }
    }
    if (l.empty() || (l[0] != '-' && l[0] != '=' && !header && !properties))
      return !bugreport || read;
    if (starts(l, "========")) return false;  // a bug report's first line
    if (starts(l, "== dumpstate:")) {
      bugreport = header = true;
      stats->taken = android::base::Trim(std::string(l.substr(13)));
      int year = atoi(stats->taken.c_str());
      if (stats->year == 0 && year > 1970) {
        stats->year = year;
        stats->year_from = "the bug report's dumpstate line";
      }
      return false;
    }
    if (header && starts(l, "Build fingerprint: ")) {
      stats->build = android::base::Trim(std::string(l.substr(19)));
      if (stats->build.size() > 1 && stats->build[0] == '\'' && stats->build.back() == '\'')
        stats->build = stats->build.substr(1, stats->build.size() - 2);
    }
    if (properties && starts(l, "[ro.serialno]: [") && l.back() == ']')
      stats->device = std::string(l.substr(16, l.size() - 17));
    if (bugreport && starts(l, "------ ") && l.size() > 14 && l.substr(l.size() - 7) == " ------") {
      std::string line(l);
      std::string title = line.substr(7, line.find_first_of("(-", 7) - 7);
      title = android::base::Trim(title);
      read = true;
      header = false;
      properties = StartsWith(title, "SYSTEM PROPERTIES");
      from = Line::kLog;
      if (StartsWith(title, "LAST LOGCAT") || StartsWith(title, "LAST KMSG")) {
        from = Line::kLastBoot;
      } else if (StartsWith(title, "VM TRACES") || StartsWith(title, "TOMBSTONE")) {
        from = Line::kStackDump;
      } else if (title == "BINDER TRANSACTIONS" || title == "BINDER STATE" ||
                 title == "BINDER FAILED TRANSACTION LOG" || title == "BINDER TRANSACTION LOG" ||
                 StartsWith(title, "PROCESSES AND THREADS") || StartsWith(title, "PSI ")) {
        from = Line::kSection;
      } else {
        read = StartsWith(title, "SYSTEM LOG") || StartsWith(title, "KERNEL LOG");
      }
      source = title;
      section = ++*counter;
      return false;
    }
    return !bugreport || read;
  }
};

bool all_digits(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// Whether a text may start one of the kernel's dumps: it holds "locked" (Show Blocked State, a
// task blocked for more than N seconds), "backtrace" (Show backtrace of all active CPUs) or
// "task:" (a task line of 5.10 on; "task    :" where logcat took "task" for the tag). All three
// have a 'k' fourth.
bool may_start_dump(std::string_view t) {
  for (size_t k = 3; (k = t.find('k', k)) != std::string_view::npos; ++k) {
    std::string_view before = t.substr(k - 3, 3), after = t.substr(k + 1);
    if ((before == "loc" && starts(after, "ed")) || (before == "bac" && starts(after, "trace")) ||
        (before == "tas" &&
         starts(after.substr(std::min(after.find_first_not_of(' '), after.size())), ":"))) {
      return true;
    }
  }
  return false;
}

// Whether the story reads a logcat line of this tag and message: the daemon's, the platform
// watchdog's, and the lines of ActivityManager's report of an ANR that it reads.
bool tag_read(std::string_view tag, std::string_view m) {
  if (tag == "stall_ward" || tag == "Watchdog") return true;
  return tag == "ActivityManager" &&
         (starts(m, "ANR in ") || starts(m, "PID: ") || starts(m, "-----") || starts(m, "some ") ||
          starts(m, "full "));
}

// A kernel line ("[  12.345678] text") that cannot start a kernel dump.
bool kernel_passed_over(std::string_view l) {
  size_t close = l.find(']');
  if (close == std::string_view::npos) return false;
  std::string_view stamp = l.substr(1, close - 1);
  while (!stamp.empty() && stamp[0] == ' ') stamp.remove_prefix(1);
  size_t dot = stamp.find('.');
  if (dot == std::string_view::npos || !all_digits(stamp.substr(0, dot)) ||
      !all_digits(stamp.substr(dot + 1))) {
    return false;
  }
  return !may_start_dump(l.substr(close + 1));
}

// Where a logcat line's tag begins: after its clock ("MM-DD hh:mm:ss.mmm", with -v year
// "YYYY-" before it) and its [uid] pid tid priority fields; npos when the line is not so.
size_t logcat_tag_at(std::string_view l) {
  size_t at = l.size() > 5 && l[4] == '-' ? 5 : 0;  // -v year
  const char* p = l.data();
  auto digit = [p](size_t i) { return static_cast<unsigned char>(p[i] - '0') < 10; };
  if (l.size() < at + 19 || (at == 5 && !(digit(0) && digit(1) && digit(2) && digit(3))) ||
      !(digit(at) && digit(at + 1) && p[at + 2] == '-' && digit(at + 3) && digit(at + 4) &&
        p[at + 5] == ' ' && digit(at + 6) && digit(at + 7) && p[at + 8] == ':' && digit(at + 9) &&
        digit(at + 10) && p[at + 11] == ':' && digit(at + 12) && digit(at + 13) &&
        p[at + 14] == '.' && digit(at + 15) && digit(at + 16) && digit(at + 17))) {
    return std::string_view::npos;
  }
  size_t pos = at + 18, size = l.size();
  while (pos < size && digit(pos)) ++pos;
  // Then [uid] pid tid priority, apart by blanks: the first one-letter field among the next four,
  // after two of digits.
  bool numeric[4];
  for (size_t n = 0; n < 4; ++n) {
    while (pos < size && p[pos] == ' ') ++pos;
    size_t begin = pos;
    bool other = false;  // a character other than a digit
    for (; pos < size && p[pos] != ' '; ++pos) other |= !digit(pos);
    if (pos++ >= size) return std::string_view::npos;
    if (pos - begin == 2 && is_priority(p[begin]))
      return n >= 2 && numeric[n - 1] && numeric[n - 2] ? pos : std::string_view::npos;
    numeric[n] = !other;
  }
  return std::string_view::npos;
}

// A logcat line's "TAG: message" the story has no use for: another tag than the daemon's, the
// platform watchdog's and ActivityManager's report of an ANR, that cannot start a kernel dump.
bool tag_passed_over(std::string_view rest) {
  size_t colon = rest.find(": ");
  if (colon == std::string_view::npos) return false;
  std::string_view tag = rest.substr(0, colon);
  while (!tag.empty() && (tag.back() == ' ' || tag.back() == '\t')) tag.remove_suffix(1);
  while (!tag.empty() && (tag[0] == ' ' || tag[0] == '\t')) tag.remove_prefix(1);
  std::string_view m = rest.substr(colon + 1);
  if (!m.empty() && m[0] == ' ') m.remove_prefix(1);
  return !tag_read(tag, m) && !may_start_dump(rest);
}

// A line of the log that the story has no use for, known at a glance: a logcat line of another
// tag than the daemon's, or a kernel line, that cannot start a kernel dump. What this does not
// recognise goes on to parse_line, which has the last word. The checks follow parse_logcat's and
// parse_kernel's, on fewer forms.
bool passed_over(std::string_view l) {
  if (l.empty()) return false;
  if (l[0] == '[') return kernel_passed_over(l);
  size_t tag = logcat_tag_at(l);
  return tag != std::string_view::npos && tag_passed_over(l.substr(tag));
}

void emit_line(std::string_view l, bool cut, SectionFilter* filter, InputStats* stats,
               const Sink& sink) {
  while (!l.empty() && l.back() == '\r') l.remove_suffix(1);
  if (!filter->wants(l)) return;
  bool as_is = filter->from == Line::kStackDump || filter->from == Line::kSection;
  if (!as_is) {
    if (l.empty() || starts(l, "--------- beginning of ")) return;
    ++stats->lines;
    if (!cut && passed_over(l) && !sink.every_line()) return;
  }
  Line line;
  line.from = filter->from;
  line.section = filter->section;
  if (as_is) {
    line.tag = filter->source;
    line.text = l;
  } else if (cut || !parse_line(std::string(l), &line)) {
    ++stats->unreadable;
    if (cut) return;
    line = Line();  // handed on as it is: it may go on a report of several lines
    line.from = filter->from;
    line.section = filter->section;
    line.text = l;
  }
  if (line.year != 0 && stats->year == 0) {
    stats->year = line.year;
    stats->year_from = "logcat -v year";
  }
  if (!line.zone.empty() && stats->zone.empty()) stats->zone = line.zone;
  sink.line(line);
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

int64_t clock_ms(const std::string& clock) {
  int64_t ms = -1;
  return parse_clock(clock.data(), clock.size(), &ms) ? ms : -1;
}

bool parse_line(const std::string& raw, Line* line) {
  return parse_logcat(raw, line) || parse_kernel(raw, line);
}

namespace {

// A bug report zip: its main entry, then its ANR files and tombstones.
void read_zip(const std::string& path, std::vector<char>* chunk, int* sections, InputStats* stats,
              const Sink& sink) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
  if (archive == nullptr) {
    stats->errors.push_back(path + ": a damaged or cut short zip (libzip error " +
                            std::to_string(error) + ")");
    return;
  }
  std::vector<zip_int64_t> entries = {main_entry(archive)};
  if (entries[0] < 0) stats->errors.push_back(path + ": not a bug report zip (no main entry)");
  for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
    std::string name = zip_get_name(archive, i, 0);
    if ((StartsWith(name, "FS/data/anr/") && name.back() != '/') ||
        (StartsWith(name, "FS/data/tombstones/tombstone_") &&
         !android::base::EndsWith(name, ".pb"))) {
      entries.push_back(i);
    }
  }
  for (zip_int64_t index : entries) {
    zip_file_t* entry = index >= 0 ? zip_fopen_index(archive, index, 0) : nullptr;
    if (entry == nullptr) continue;
    LineSplitter splitter;
    SectionFilter filter(zip_get_name(archive, index, 0), sections, stats);
    if (index != entries[0]) filter.from = Line::kStackDump;
    auto emit = [&](std::string_view l, bool cut) { emit_line(l, cut, &filter, stats, sink); };
    zip_int64_t got;
    while ((got = zip_fread(entry, chunk->data(), chunk->size())) > 0) {
      splitter.feed(chunk->data(), static_cast<size_t>(got), emit);
    }
    if (got < 0)
      stats->errors.push_back(path + ": " + zip_get_name(archive, index, 0) + " is damaged");
    splitter.end(emit);
    zip_fclose(entry);
  }
  zip_discard(archive);
}

}  // namespace

std::vector<std::string> files_of(const std::vector<std::string>& given, bool recursive) {
  std::vector<std::string> paths;
  for (const std::string& path : given) {
    std::error_code error;
    if (path == "-" || !std::filesystem::is_directory(path, error)) {
      paths.push_back(path);
      continue;
    }
    std::vector<std::string> files;
    auto add = [&](const std::filesystem::directory_entry& entry) {
      if (entry.is_regular_file(error)) files.push_back(entry.path().string());
    };
    if (recursive) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(path, error))
        add(entry);
    } else {
      for (const auto& entry : std::filesystem::directory_iterator(path, error)) add(entry);
    }
    std::sort(files.begin(), files.end());
    paths.insert(paths.end(), files.begin(), files.end());
  }
  return paths;
}

void read_inputs(const std::vector<std::string>& given, InputStats* stats, const Sink& sink) {
  std::vector<char> chunk(kChunk);
  std::vector<std::string> paths = files_of(given, false);  // adb pull /data/anr: each file
  int sections = 0;
  for (const std::string& path : paths) {
    LineSplitter splitter;
    SectionFilter filter(path, &sections, stats);
    auto emit = [&](std::string_view l, bool cut) { emit_line(l, cut, &filter, stats, sink); };
    FILE* file = path == "-" ? stdin : fopen(path.c_str(), "rb");
    if (file == nullptr) {
      stats->errors.push_back(path + ": " + strerror(errno));
      continue;
    }
    size_t n = fread(chunk.data(), 1, 4, file);
    if (n == 4 && memcmp(chunk.data(), "PK\3\4", 4) == 0) {
      fclose(file);
      read_zip(path, &chunk, &sections, stats, sink);
      continue;
    }
    do {
      splitter.feed(chunk.data(), n, emit);
    } while ((n = fread(chunk.data(), 1, chunk.size(), file)) > 0);
    if (file != stdin) fclose(file);
    splitter.end(emit);
  }
}

}  // namespace report
