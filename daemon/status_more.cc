// What status adds for the operator's tool: the peer's own numbers per service and database,
// so that either side can show the lag between what the active sent and the standby applied.
#include <nlohmann/json.hpp>

#include "daemon.h"
#include "history_state.h"

namespace hadra::sysmgrd {

void Daemon::status_more(nlohmann::json* j) const {
  nlohmann::json services = nlohmann::json::array();
  if (peer_)
    for (const proto::ServiceSeq& s : peer_->services) {
      nlohmann::json dbs = nlohmann::json::array();
      for (const proto::DbSeq& d : s.dbs)
        dbs.push_back({{"index", d.index}, {"sent_seqno", d.sent_seqno}, {"sent", d.sent_count},
                       {"applied_seqno", d.applied_seqno}, {"applied", d.applied_count}});
      services.push_back({{"uuid", s.uuid}, {"name", s.name}, {"databases", dbs}});
    }
  (*j)["peer_services"] = services;
  // Names, bytes and lag in time per database, from the services' history rings.
  nlohmann::json views = nlohmann::json::array();
  for (const auto& [id, v] : db_views()) {
    nlohmann::json vj{{"uuid", id.first},         {"index", id.second},         {"name", v.name},
                      {"uri", v.uri},             {"sent_bytes", v.sent_bytes}, {"applied_bytes", v.applied_bytes},
                      {"sent_msgs", v.sent_msgs}, {"applied_msgs", v.applied_msgs}};
    vj["lag_ms"] = v.lag_ms >= 0 ? nlohmann::json(v.lag_ms) : nlohmann::json();
    views.push_back(vj);
  }
  (*j)["db_info"] = views;
  const uint64_t rtt = link_rtt_ns();
  (*j)["peer"]["rtt_ms"] = rtt != 0 ? nlohmann::json(static_cast<double>(rtt / 1000) / 1e3) : nlohmann::json();
  (*j)["verify_running"] = verify_ != nullptr;
  (*j)["verify_progress"] = verify_progress();
}

}  // namespace hadra::sysmgrd
