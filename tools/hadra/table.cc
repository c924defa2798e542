#include "table.h"

#include <fmt/format.h>

#include <ctime>
#include <map>
#include <utility>

namespace hadra::tool {

using nlohmann::json;

namespace {

struct Counts {
  uint64_t sent = 0, sent_seqno = 0, applied = 0, applied_seqno = 0;
};

// (uuid, index) -> numbers, from a list of services as status reports them.
std::map<std::pair<uint32_t, uint32_t>, Counts> counts_of(const json& services) {
  std::map<std::pair<uint32_t, uint32_t>, Counts> out;
  if (!services.is_array()) return out;
  for (const json& s : services)
    for (const json& d : s.value("databases", json::array()))
      out[{s.value("uuid", 0u), d.value("index", 0u)}] =
          Counts{d.value("sent", uint64_t{0}), d.value("sent_seqno", uint64_t{0}), d.value("applied", uint64_t{0}),
                 d.value("applied_seqno", uint64_t{0})};
  return out;
}

std::string paint(bool colour, const char* code, const std::string& text) {
  return colour ? fmt::format("\033[{}m{}\033[0m", code, text) : text;
}

}  // namespace

std::string status_table(const json& st, bool colour) {
  std::string out;
  const json peer = st.value("peer", json::object());
  const bool up = peer.value("up", false);
  const std::string role = st.value("role", "none");
  out += fmt::format("supervisor {}  {}  (pid {}, root {})\n", st.value("slot", 0), paint(colour, "1", role),
                     st.value("pid", 0), st.value("root", ""));
  if (peer.contains("slot"))
    out += fmt::format("peer       {}  {}  link {}  last hello {} ms ago{}\n", peer.value("slot", 0),
                       peer.value("role", "none"), up ? paint(colour, "32", "up") : paint(colour, "31", "down"),
                       peer.value("last_seen_ms", 0),
                       peer.contains("rtt_ms") && peer["rtt_ms"].is_number()
                           ? fmt::format("  round trip {:.3f} ms", peer["rtt_ms"].get<double>())
                           : "");
  else
    out += fmt::format("peer       -  link {}  (never heard)\n", paint(colour, "31", "down"));
  const json g = st.value("gsync", json::object());
  const json sw = st.value("switchover", json::object());
  out += fmt::format("gsync      {} done, {} failed, {} in progress{}\n", g.value("done", 0), g.value("failed", 0),
                     g.value("in_progress", 0),
                     g.value("last_error", "").empty() ? "" : "; last error: " + g.value("last_error", ""));
  out += fmt::format("switchover {} so far{}\n", sw.value("count", 0), sw.value("running", false) ? ", one running" : "");

  const auto mine = counts_of(st.value("services", json::array()));
  const auto theirs = counts_of(st.value("peer_services", json::array()));
  const bool active = role == "active";
  // Databases by their names where the services' history rings give them.
  std::map<std::pair<uint32_t, uint32_t>, json> info;
  for (const json& v : st.value("db_info", json::array())) info[{v.value("uuid", 0u), v.value("index", 0u)}] = v;
  out += fmt::format("\n{:<20} {:<12} {:>12} {:>10} {:>12} {:>10} {:>8} {:>9}  {}\n", "SERVICE", "DB", "SENT SEQNO",
                     "SENT", "APPLIED SEQ", "APPLIED", "LAG", "LAG MS", "STATE");
  for (const json& s : st.value("services", json::array())) {
    for (const json& d : s.value("databases", json::array())) {
      const std::pair<uint32_t, uint32_t> id{s.value("uuid", 0u), d.value("index", 0u)};
      // The active's sent numbers against the standby's applied ones, whichever side this is.
      const Counts here = mine.at(id);
      const auto other = theirs.find(id);
      Counts sent = here, applied = here;
      // A peer that reports nothing for a database has sent or applied nothing of it yet.
      (active ? applied : sent) = other != theirs.end() ? other->second : Counts{};
      const bool known = up;
      const int64_t lag = known ? static_cast<int64_t>(sent.sent) - static_cast<int64_t>(applied.applied) : 0;
      std::string state = !known ? paint(colour, "33", "no peer") : lag > 0 ? paint(colour, "33", "behind")
                                                                             : paint(colour, "32", "in sync");
      const auto v = info.find(id);
      // Nothing outstanding is no lag, whatever age the last measure had.
      std::string db = std::to_string(id.second), lag_ms = known && lag <= 0 ? "0" : "-";
      if (v != info.end()) {
        if (!v->second.value("name", "").empty()) db = v->second.value("name", "");
        if (known && lag > 0 && v->second.contains("lag_ms") && v->second["lag_ms"].is_number())
          lag_ms = std::to_string(v->second["lag_ms"].get<int64_t>());
      }
      out += fmt::format("{:<20} {:<12} {:>12} {:>10} {:>12} {:>10} {:>8} {:>9}  {}\n", s.value("name", "?"), db,
                         sent.sent_seqno, sent.sent, applied.applied_seqno, applied.applied,
                         known ? std::to_string(lag) : "-", lag_ms, state);
    }
  }
  const json loss = st.value("loss_report", json::object());
  if (loss.value("known", false)) out += fmt::format("\nlast takeover: {} lost\n", loss.value("lost", 0));
  return out;
}

std::string verify_report(const json& r) {
  std::string out;
  for (const json& s : r.value("stores", json::array())) {
    const size_t n = s.value("differences", json::array()).size();
    out += fmt::format("{:<40} {:>9} records  {}", s.value("uri", ""), s.value("records", 0),
                       s.contains("error") ? "error: " + s.value("error", "")
                                           : n == 0 ? std::string("same") : fmt::format("{} differ", n));
    if (s.value("repaired", 0) != 0) out += fmt::format(", {} repaired", s.value("repaired", 0));
    out += "\n";
    for (const json& d : s.value("differences", json::array())) {
      std::string digests;
      for (const auto& [k, v] : d.items())
        if (k.ends_with("_digest")) digests += fmt::format("  {} {}", k.substr(0, k.size() - 7), v.get<std::string>());
      const std::string only = d.value("only_on", "");
      out += fmt::format("  key {}  {}{}\n", d.value("key", ""), only.empty() ? "values differ" : "only on " + only,
                         digests);
    }
  }
  out += fmt::format("{} difference(s) in {} store(s); {} bytes sent, {} received over the peer link, {} ms\n",
                     r.value("differences", 0), r.value("stores", json::array()).size(), r.value("bytes_sent", 0),
                     r.value("bytes_received", 0), r.value("elapsed_ms", 0));
  return out;
}

namespace {

// Wall-clock time of a record, local time to the microsecond.
std::string when(uint64_t ns) {
  const time_t secs = static_cast<time_t>(ns / 1000000000ull);
  tm t{};
  localtime_r(&secs, &t);
  char b[32];
  std::strftime(b, sizeof b, "%Y-%m-%d %H:%M:%S", &t);
  return fmt::format("{}.{:06}", b, (ns % 1000000000ull) / 1000);
}

// A database by its name where the answer gives one, else by its index.
std::string db_of(const json& e) {
  const std::string name = e.value("db_name", "");
  return name.empty() ? std::to_string(e.value("db", 0)) : name;
}

std::string record_line(const json& e) {
  const std::string kind = e.value("kind", "");
  std::string what;
  if (kind == "event")
    what = fmt::format("event 0x{:x}  {}", e.value("event", 0u), e.value("text", ""));
  else
    what = fmt::format("{:<7}  db {}  HA {}  {} bytes  digest {}", kind, db_of(e), e.value("ha_seqno", 0),
                       e.value("bytes", 0), e.value("digest", ""));
  const std::string svc = e.value("service", "");
  return fmt::format("{}  {}  {:<16}  {}\n", when(e.value("time_ns", uint64_t{0})), e.value("slot", 0),
                     svc.empty() ? fmt::format("uuid 0x{:x}", e.value("uuid", 0u)) : svc, what);
}

}  // namespace

std::string history_report(const json& a) {
  std::string out;
  for (const json& e : a.value("entries", json::array())) out += record_line(e);
  if (!a.contains("divergence")) return out;
  const json d = a["divergence"];
  if (!d.value("found", false)) {
    out += fmt::format("no divergence: {} sync message(s) compared\n", d.value("compared", 0));
    return out;
  }
  out += fmt::format("first divergence: {} db {}, HA number {} (SAP {}, epoch {}): {}\n", d.value("service", ""),
                     db_of(d), d.value("ha_seqno", 0), d.value("sap", 0), d.value("epoch", 0),
                     d.value("what", ""));
  for (const char* side : {"sent", "applied"})
    if (d.contains(side))
      out += fmt::format("  {} by supervisor {} at {}: {} bytes, digest {}\n", side, d[side].value("slot", 0),
                         when(d[side].value("time_ns", uint64_t{0})), d[side].value("bytes", 0),
                         d[side].value("digest", ""));
  return out;
}

}  // namespace hadra::tool
