// The history command, the peer's half of it, and the link's round-trip time.
//
// Each service process of this supervisor keeps a history ring under the root
// (log/hist_ring.h): the sync messages it sent or applied, with their digests, and its
// history records. `hadra history` reads this supervisor's rings; with --both or --diverge
// the daemon also asks the peer's daemon for the newest records of its rings (HIST_REQ /
// HIST_ANS) and answers once they arrive or the command's deadline passes. The loop never
// waits for the peer: a history command is a small job, like verify.
//
// The round trip: four times a second a PING carries this daemon's clock to the peer, whose PONG
// brings it back; the difference on arrival is the link's round-trip time, shown by status.
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "daemon.h"
#include "hadra_platform/log.h"
#include "history_core.h"
#include "history_state.h"

namespace hadra::sysmgrd {

namespace hc = history;
namespace hist = hadra::plat::hist;

namespace {

// Often enough that the standby's view of the lag is fresh; each ping reads the rings once.
constexpr uint64_t kPingEveryNs = 250000000ull;
// An answer must fit one transport message, with room for its header.
constexpr size_t kAnswerLimit = MTS_PAYLOAD_MAX - 4096;

// The databases' names by (uuid, index), as this supervisor's rings have them (the peer's
// services register the same names under the same indexes).
std::map<std::pair<uint32_t, uint32_t>, std::string> db_names(const std::vector<hist::Ring>& rings) {
  std::map<std::pair<uint32_t, uint32_t>, std::string> out;
  for (const hist::Ring& r : rings)
    for (uint32_t i = 1; i <= hist::kRingMaxIndex; ++i)
      if (!r.db[i].name.empty()) out[{r.uuid, i}] = hc::printable(r.db[i].name);
  return out;
}

// Adds db_name to the sync records of entries that name a known database.
void name_dbs(nlohmann::json* entries, const std::map<std::pair<uint32_t, uint32_t>, std::string>& names) {
  for (nlohmann::json& e : *entries) {
    if (!e.contains("db")) continue;
    const auto n = names.find({e.value("uuid", 0u), e.value("db", 0u)});
    if (n != names.end()) e["db_name"] = n->second;
  }
}

}  // namespace

HistoryState& Daemon::history_state() const {
  if (!history_) history_ = std::make_shared<HistoryState>();
  return *history_;
}

std::map<uint32_t, std::string> Daemon::service_names() const {
  std::map<uint32_t, std::string> names;
  for (const proto::ServiceSeq& s : own_sequences()) names[s.uuid] = s.name;
  for (const auto& [uuid, c] : clients_) names[uuid] = c.name;
  return names;
}

uint64_t Daemon::link_rtt_ns() const {
  const HistoryState& h = history_state();
  // A round trip measured while the link was up, and not older than a few pings.
  return peer_up() && h.rtt_at_ns + 20 * kPingEveryNs > now_ns() ? h.rtt_ns : 0;
}

int Daemon::history_start(const mts_msg_ref& ref, const std::string& arg, std::string* why) {
  const nlohmann::json a = nlohmann::json::parse(arg.empty() ? "{}" : arg, nullptr, false);
  if (!a.is_object()) return *why = "malformed history settings (a JSON object expected)", EINVAL;
  const bool both = a.value("both", false), diverge = a.value("diverge", false);
  const int64_t max = a.value("max", int64_t{100});
  const int64_t timeout_ms = a.value("timeout_ms", int64_t{5000});
  if (max < 1 || max > static_cast<int64_t>(proto::kMaxHistEntries))
    return *why = "max must be 1.." + std::to_string(proto::kMaxHistEntries), EINVAL;
  HistoryState& h = history_state();
  if (!both && !diverge) {
    const std::vector<hist::Ring> rings = hc::read_rings(o_.root, nullptr);
    hc::Side mine{o_.slot, hc::newest(rings, static_cast<size_t>(max), service_names())};
    nlohmann::json out{{"slot", o_.slot}, {"entries", hc::merged(mine, hc::Side{})}};
    name_dbs(&out["entries"], db_names(rings));
    reply(ref, 0, out.dump());
    return 0;
  }
  if (h.job) return *why = "a history command already waits for the peer", EBUSY;
  if (!peer_up()) return *why = "the peer is down: its history cannot be read", EHOSTUNREACH;
  auto job = std::make_unique<HistoryJob>();
  job->command = ref;
  job->id = h.next_id++;
  job->diverge = diverge;
  job->max = static_cast<size_t>(max);
  job->deadline_ns = now_ns() + static_cast<uint64_t>(std::max<int64_t>(timeout_ms, 1)) * 1000000ull;
  // For a comparison the whole rings are wanted, not only what is shown.
  const proto::HistReq req{job->id, static_cast<uint32_t>(diverge ? proto::kMaxHistEntries : max)};
  if (!send_peer(proto::kHistReq, encode(req))) return *why = "the history request did not reach the peer", EIO;
  h.job = std::move(job);
  return 0;
}

bool Daemon::history_keeps(const mts_msg_ref& ref) const {
  return history_ && history_->job && history_->job->command.gen == ref.gen;
}

void Daemon::history_finish(const proto::HistAns* ans, const std::string& failure) {
  HistoryState& h = history_state();
  std::unique_ptr<HistoryJob> job = std::move(h.job);
  int32_t status = 0;
  nlohmann::json out{{"slot", o_.slot}};
  if (ans == nullptr || ans->status != 0) {
    status = ans == nullptr ? ETIMEDOUT : ans->status;
    out["error"] = ans == nullptr ? failure : "the peer could not read its history: " + ans->error;
  } else {
    const size_t want = job->diverge ? proto::kMaxHistEntries : job->max;
    const std::vector<hist::Ring> rings = hc::read_rings(o_.root, nullptr);
    const auto names = db_names(rings);
    hc::Side mine{o_.slot, hc::newest(rings, want, service_names())};
    hc::Side theirs{peer_ ? static_cast<int>(peer_->slot) : 0, ans->entries};
    nlohmann::json all = hc::merged(mine, theirs);
    if (all.size() > job->max) all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(job->max));
    name_dbs(&all, names);
    out["entries"] = all;
    out["peer_slot"] = theirs.slot;
    if (job->diverge) {
      uint64_t compared = 0, not_applied = 0;
      const auto d = hc::first_divergence(mine, theirs, &compared, &not_applied);
      out["divergence"] = hc::divergence_json(d, compared, not_applied);
      if (d) {
        nlohmann::json one = nlohmann::json::array({out["divergence"]});
        name_dbs(&one, names);
        out["divergence"] = one[0];
      }
    }
  }
  reply(job->command, status, out.dump());
  (void)mts_drop(SYSMGR_SAP, &job->command);
}

void Daemon::history_tick(uint64_t now) {
  HistoryState& h = history_state();
  watch_procedures(now);
  if (now >= h.next_prune_ns) {
    h.next_prune_ns = now + 10 * 1000000000ull;
    prune_rings();
  }
  if (h.job && now >= h.job->deadline_ns)
    history_finish(nullptr, "the peer's daemon did not send its history in time (--timeout)");
  if (peer_up() && now >= h.next_ping_ns) {
    h.next_ping_ns = now + kPingEveryNs;
    (void)send_peer(proto::kPing, encode(proto::Ping{now, own_lags()}));
  }
}

bool Daemon::history_on_peer(uint32_t opcode, const void* p, uint32_t n) {
  HistoryState& h = history_state();
  switch (opcode) {
    case proto::kPing:
    case proto::kPong: {
      proto::Ping m;
      if (!proto::decode(p, n, &m)) {
        plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed %s (%u bytes) from the peer; dropped",
                    opcode == proto::kPing ? "ping" : "pong", n);
        return true;
      }
      if (opcode == proto::kPing) {
        if (peer_ && peer_->role == 1) h.peer_lags = m.lags, h.lags_at_ns = now_ns();
        (void)send_peer(proto::kPong, encode(proto::Ping{m.sent_ns, {}}));
      } else if (const uint64_t now = now_ns(); m.sent_ns <= now && m.sent_ns + 240 * kPingEveryNs > now) {
        h.rtt_ns = now - m.sent_ns;
        h.rtt_at_ns = now;
      }
      return true;
    }
    case proto::kHistReq: {
      proto::HistReq req;
      if (!proto::decode(p, n, &req)) {
        plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed history request (%u bytes) from the peer; dropped", n);
        return true;
      }
      proto::HistAns ans;
      ans.id = req.id;
      std::vector<std::string> skipped;
      ans.entries = hc::newest(hc::read_rings(o_.root, &skipped), req.max, service_names());
      for (const std::string& s : skipped) plat_syslog(PLAT_LOG_WARNING, "sysmgrd: history ring %s", s.c_str());
      hc::fit(&ans, kAnswerLimit);
      if (!send_peer(proto::kHistAns, encode(ans), true))
        plat_syslog(PLAT_LOG_WARNING, "sysmgrd: history answer of %zu records not sent to the peer",
                    ans.entries.size());
      return true;
    }
    case proto::kHistAns: {
      proto::HistAns ans;
      if (!proto::decode(p, n, &ans)) {
        plat_syslog(PLAT_LOG_ERR, "sysmgrd: malformed history answer (%u bytes) from the peer; dropped", n);
        if (h.job) history_finish(nullptr, "the peer's history answer was malformed");
        return true;
      }
      if (h.job && ans.id == h.job->id) history_finish(&ans, "");
      return true;  // an answer that came too late is of no use any more
    }
    default:
      return false;
  }
}

}  // namespace hadra::sysmgrd
