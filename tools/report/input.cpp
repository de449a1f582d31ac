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

#include "report.h"

namespace report {
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

// "MM-DD hh:mm:ss.mmm": milliseconds since the start of the year (months counted as 31 days,
// which keeps the order, the only thing the report needs of them across months).
bool parse_clock(const char* p, size_t len, int64_t* ms) {
  if (len < 18 || !digits(p, 2) || p[2] != '-' || !digits(p + 3, 2) || p[5] != ' ' ||
      !digits(p + 6, 2) || p[8] != ':' || !digits(p + 9, 2) || p[11] != ':' || !digits(p + 12, 2) ||
      p[14] != '.' || !digits(p + 15, 3)) {
    return false;
  }
  auto num = [p](int at) { return (p[at] - '0') * 10 + (p[at + 1] - '0'); };
  *ms = ((((num(0) * 31 + num(3)) * 24LL + num(6)) * 60 + num(9)) * 60 + num(12)) * 1000 +
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
  line->clock = raw.substr(at, 18);
  line->ms = ms;
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
  *ms = ((((((at - kMonths) / 3 + 1) * 31 + day) * 24LL + h) * 60 + m) * 60 + sec) * 1000;
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

// Which lines of the stream count, and as what. A bug report ("== dumpstate:" near the top) holds
// many sections ("------ NAME (command) ------" up to "------ 0.1s was the duration of 'NAME'
// ------"); its logs (SYSTEM LOG, KERNEL LOG; the previous boot's LAST LOGCAT, LAST KMSG) and its
// Java dumps (VM TRACES ...) are read. Another file is a log unless its first line shows a stack
// dump ("----- pid N at ...", "Subject: ..." of an ANR file, "*** *** ***" of a tombstone) or the
// previous boot's kernel log as pstore keeps it (a file called *ramoops* or last_kmsg, or one
// beginning "Panic#1 Part1").
struct SectionFilter {
  SectionFilter(const std::string& name, int* sections) : source(name), counter(sections) {
    section = ++*counter;
    if (name.find("ramoops") != std::string::npos || name.find("last_kmsg") != std::string::npos)
      from = Line::kLastBoot;
  }
  std::string source;
  int* counter;
  int section;
  Line::From from = Line::kLog;
  bool bugreport = false, first = true, read = true;
  bool wants(const std::string& l) {
    if (first && !l.empty()) {
      first = false;
      if (StartsWith(l, "*** *** ***") || StartsWith(l, "----- pid ") || StartsWith(l, "Subject:"))
        from = Line::kStackDump;
      if (StartsWith(l, "Panic#") || StartsWith(l, "Oops#")) {
        from = Line::kLastBoot;
        return false;
      }
    }
    if (StartsWith(l, "========")) return false;  // a bug report's first line
    if (StartsWith(l, "== dumpstate:")) {
      bugreport = true;
      return false;
    }
    if (bugreport && StartsWith(l, "------ ") && android::base::EndsWith(l, " ------")) {
      std::string title = l.substr(7, l.find_first_of("(-", 7) - 7);
      title = android::base::Trim(title);
      read = true;
      from = Line::kLog;
      if (StartsWith(title, "LAST LOGCAT") || StartsWith(title, "LAST KMSG")) {
        from = Line::kLastBoot;
      } else if (StartsWith(title, "VM TRACES") || StartsWith(title, "TOMBSTONE")) {
        from = Line::kStackDump;
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

void emit_line(const std::string& raw, bool cut, SectionFilter* filter, InputStats* stats,
               const std::function<void(const Line&)>& sink) {
  std::string l = raw;
  while (!l.empty() && l.back() == '\r') l.pop_back();
  if (!filter->wants(l)) return;
  Line line;
  line.from = filter->from;
  line.section = filter->section;
  if (line.from == Line::kStackDump) {
    line.tag = filter->source;
    line.text = l;
    sink(line);
    return;
  }
  if (l.empty() || StartsWith(l, "--------- beginning of ")) return;
  ++stats->lines;
  if (cut || !parse_line(l, &line)) {
    ++stats->unreadable;
    return;
  }
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

namespace {

// A bug report zip: its main entry, then its ANR files and tombstones.
void read_zip(const std::string& path, std::vector<char>* chunk, int* sections, InputStats* stats,
              const std::function<void(const Line&)>& sink) {
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
    SectionFilter filter(zip_get_name(archive, index, 0), sections);
    if (index != entries[0]) filter.from = Line::kStackDump;
    auto emit = [&](const std::string& l, bool cut) { emit_line(l, cut, &filter, stats, sink); };
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

void read_inputs(const std::vector<std::string>& given, InputStats* stats,
                 const std::function<void(const Line&)>& sink) {
  std::vector<char> chunk(kChunk);
  std::vector<std::string> paths;
  for (const std::string& path : given) {  // a folder (adb pull /data/anr): each file in it
    std::error_code error;
    if (path == "-" || !std::filesystem::is_directory(path, error)) {
      paths.push_back(path);
      continue;
    }
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
      if (entry.is_regular_file(error)) files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    paths.insert(paths.end(), files.begin(), files.end());
  }
  int sections = 0;
  for (const std::string& path : paths) {
    LineSplitter splitter;
    SectionFilter filter(path, &sections);
    auto emit = [&](const std::string& l, bool cut) { emit_line(l, cut, &filter, stats, sink); };
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
