// The binder driver's state as its debugfs (or binderfs) files print it: "proc N", "context NAME",
// "thread N: l XX need_return N tr N", then per thread and per process the transactions:
// "outgoing transaction ID: PTR from P:T to P:T code C flags F pri N[:M] rN [node N size A:B data
// PTR | offset N] [elapsed Nms]". Other kernels drop fields or add them; only the named fields are
// taken, wherever they stand.
#include <ctype.h>
#include <stdlib.h>

#include <set>

#include "report/across.h"

namespace report {
namespace {

std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> out;
  for (size_t at = 0; at < line.size();) {
    size_t start = line.find_first_not_of(" \t\r", at);
    if (start == std::string::npos) break;
    size_t end = line.find_first_of(" \t\r", start);
    if (end == std::string::npos) end = line.size();
    out.push_back(line.substr(start, end - start));
    at = end;
  }
  return out;
}

// The first words of the driver's records; a line that starts with another continues the one
// before it (a terminal folded it).
bool record_start(const std::string& word) {
  static const std::set<std::string> kStarts = {
      "proc",     "context", "thread",      "node", "ref",    "buffer", "outgoing",
      "incoming", "pending", "transaction", "dead", "binder", "has",    "unknown",
      "bad",      "active",  "free",        "#",    "$"};  // and a shell's prompt
  return kStarts.count(word) != 0 || word.compare(0, 3, "BC_") == 0 ||
         word.compare(0, 3, "BR_") == 0;
}

bool pid_pair(const std::string& text, int* pid, int* tid) {
  char* end = nullptr;
  long p = strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != ':') return false;
  const char* rest = end + 1;
  long t = strtol(rest, &end, 10);
  if (end == rest || *end != '\0') return false;
  *pid = static_cast<int>(p);
  *tid = static_cast<int>(t);
  return true;
}

// A one-way call ("pending async transaction", flags with 0x01) is one no thread waits for.
bool transaction(std::vector<std::string> w, BinderCall* call) {
  if (w.size() > 1 && w[1] == "async") w.erase(w.begin() + 1);
  if (w.size() < 3 || w[1] != "transaction") return false;
  if (w[0] != "outgoing" && w[0] != "incoming" && w[0] != "pending") return false;
  call->kind = w[0];
  call->id = atoi(w[2].c_str());
  bool from = false, to = false;
  for (size_t i = 3; i + 1 < w.size(); ++i) {
    const std::string& key = w[i];
    const char* value = w[i + 1].c_str();
    if (key == "from") from = pid_pair(w[i + 1], &call->from_pid, &call->from_tid);
    if (key == "to") to = pid_pair(w[i + 1], &call->to_pid, &call->to_tid);
    if (key == "code") call->code = static_cast<unsigned>(strtoul(value, nullptr, 16));
    if (key == "flags") call->flags = static_cast<unsigned>(strtoul(value, nullptr, 16));
    if (key == "elapsed") call->elapsed_ms = strtoll(value, nullptr, 10);
  }
  return from && to;
}

void parse(const std::string& line, BinderReader* reader) {
  std::vector<std::string> w = words(line);
  if (w.empty()) return;
  BinderState& state = reader->state;
  BinderCall call;
  if (w[0] == "proc" && w.size() >= 2 && isdigit(static_cast<unsigned char>(w[1][0]))) {
    reader->proc = atoi(w[1].c_str());
    reader->context.clear();
    ++state.procs;
  } else if (w[0] == "context" && w.size() == 2) {
    reader->context = w[1];
  } else if (w[0] == "thread" && w.size() >= 2) {
    size_t colon = line.find(':');
    state.threads[atoi(w[1].c_str())] = colon == std::string::npos ? "" : line.substr(colon + 1);
  } else if (transaction(w, &call)) {
    call.context = reader->context;
    call.listed_under = reader->proc;
    state.calls.push_back(call);
  } else if (!record_start(w[0])) {
    ++state.unknown;
  }
}

}  // namespace

void BinderReader::add(const std::string& line) {
  std::vector<std::string> w = words(line);
  if (w.empty()) {
    finish();
    return;
  }
  char first = w[0][0];  // a folded line goes on with a field's name or a number
  if (!held.empty() && !record_start(w[0]) && (islower(first) || isdigit(first))) {
    held += " " + line;
    return;
  }
  finish();
  held = line;
}

void BinderReader::finish() {
  if (!held.empty()) parse(held, this);
  held.clear();
}

BinderState read_binder_state(const std::vector<std::string>& lines) {
  BinderReader reader;
  for (const std::string& line : lines) reader.add(line);
  reader.finish();
  return reader.state;
}

bool parse_binder_log_entry(const std::string& line, BinderCall* call) {
  std::vector<std::string> w = words(line);
  if (w.size() < 6 || w[0].back() != ':' || !isdigit(static_cast<unsigned char>(w[0][0])) ||
      (w[1] != "call" && w[1] != "async" && w[1] != "reply"))
    return false;
  BinderCall entry;
  entry.kind = w[1];
  entry.id = atoi(w[0].c_str());
  bool from = false, to = false;
  for (size_t i = 2; i + 1 < w.size(); ++i) {
    if (w[i] == "from") from = pid_pair(w[i + 1], &entry.from_pid, &entry.from_tid);
    if (w[i] == "to") to = pid_pair(w[i + 1], &entry.to_pid, &entry.to_tid);
    if (w[i] == "context") entry.context = w[i + 1];
    if (w[i] == "ret") entry.error = atoi(w[i + 1].c_str());
  }
  if (from && to) *call = entry;
  return from && to;
}

const BinderCall* BinderState::unanswered_of(int tid) const {
  const BinderCall* call = nullptr;
  for (const BinderCall& entry : logged) {
    if (entry.kind == "call" && entry.from_tid == tid && entry.error == 0) call = &entry;
    if (entry.kind == "reply" && entry.to_tid == tid) call = nullptr;
  }
  return tid == 0 ? nullptr : call;
}

bool binder_state_line(const std::string& line) {
  std::vector<std::string> w = words(line);
  if (w.size() < 2) return false;
  char last = w[0].back();
  if (last == '#' || last == '$' || w[1] == "#" || w[1] == "$")  // "# cat /d/binder/state"
    return line.find("binder") != std::string::npos;
  if (w[0] == "binder" || w[0] == "dead") return w[1] != ":" && w.back().back() == ':';
  if (w[0] == "proc") return isdigit(static_cast<unsigned char>(w[1][0]));
  if (w[0] == "thread") return w[1].back() == ':';
  if (w[0] == "outgoing" || w[0] == "incoming" || w[0] == "pending")
    return w[1] == "transaction" || w[1] == "async";
  return false;
}

const BinderCall* BinderState::outgoing_of(int tid) const {
  const BinderCall* found = nullptr;
  for (const BinderCall& call : calls) {
    if (call.from_tid != tid || tid == 0 || (call.flags & 0x01) != 0) continue;
    if (call.kind == "outgoing") return &call;
    if (found == nullptr) found = &call;
  }
  return found;
}

}  // namespace report
