// What status adds for the operator's tool: the peer's own numbers per service and database,
// so that either side can show the lag between what the active sent and the standby applied.
#include <nlohmann/json.hpp>

#include "daemon.h"

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
  (*j)["verify_running"] = verify_ != nullptr;
}

}  // namespace hadra::sysmgrd
