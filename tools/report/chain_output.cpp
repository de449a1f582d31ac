// The chain across processes on the page (hop by hop, beside the incident) and in --json.
#include <nlohmann/json.hpp>

#include "report/across.h"
#include "report/report.h"

namespace report {
namespace {

std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '&')
      out += "&amp;";
    else
      out += c;
  }
  return out;
}

}  // namespace

std::string chain_html(const Story& story, const Incident& in) {
  const Chain& chain = in.chain;
  std::vector<std::string> account = chain_account(story, in, chain);
  if (account.empty()) return "";
  std::string h = "<h5>" +
                  std::string(chain.cycle ? "A deadlock across processes" : "Across processes") +
                  "</h5><ol class=\"chain\">";
  for (const Hop& hop : chain.hops) {
    h += "<li><b>" + escaped(hop.process.empty() ? "pid " + std::to_string(hop.pid) : hop.process) +
         "</b> " + escaped(hop.thread) + " <span class=\"muted\">(pid " + std::to_string(hop.pid) +
         ", tid " + std::to_string(hop.tid) + ")</span>: " + escaped(hop.waits) +
         (hop.where.empty() ? "" : " in <code>" + escaped(hop.where) + "</code>") +
         (hop.age_ms < 0 ? "" : ", " + std::to_string(hop.age_ms / 1000) + " s") +
         "<br><span class=\"muted\">" + escaped(hop.evidence) + "</span></li>";
  }
  h += "</ol>";
  for (const std::string& sentence : account)
    h += "<p class=\"blocker\">" + escaped(sentence) + "</p>";
  return h;
}

template <typename Json>
Json chain_hops_json(const Chain& chain) {
  auto or_null = [](const std::string& s) { return s.empty() ? Json() : Json(s); };
  Json hops = Json::array();
  for (const Hop& hop : chain.hops) {
    hops.push_back({{"process", or_null(hop.process)},
                    {"thread", or_null(hop.thread)},
                    {"pid", hop.pid},
                    {"tid", hop.tid > 0 ? Json(hop.tid) : Json()},
                    {"waits", hop.waits},
                    {"where", or_null(hop.where)},
                    {"evidence", or_null(hop.evidence)},
                    {"age_ms", hop.age_ms < 0 ? Json() : Json(hop.age_ms)}});
  }
  return hops;
}
template nlohmann::json chain_hops_json<nlohmann::json>(const Chain& chain);
template nlohmann::ordered_json chain_hops_json<nlohmann::ordered_json>(const Chain& chain);

void add_chain_json(const Story& story, const Incident& in, nlohmann::json* j) {
  const Chain& chain = in.chain;
  (*j)["chain"] = chain_hops_json<nlohmann::json>(chain);
  (*j)["chain_cycle"] = chain.cycle;
  (*j)["chain_missing"] = chain.missing.empty() ? nlohmann::json() : nlohmann::json(chain.missing);
  (*j)["causes"] = chain_account(story, in, chain);
}

}  // namespace report
