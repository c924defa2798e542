// The daemon's state for the history command, the link's round trip and the durations of
// its procedures (history.cc, history_stats.cc).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "daemon.h"

namespace hadra::sysmgrd {

struct HistoryJob {
  mts_msg_ref command{};
  uint32_t id = 0;
  bool diverge = false;
  size_t max = 0;
  uint64_t deadline_ns = 0;
};

struct Durations {
  double sum_s = 0;
  uint64_t count = 0;
};

struct HistoryState {
  uint32_t next_id = 1;
  std::unique_ptr<HistoryJob> job;
  uint64_t next_ping_ns = 0;
  uint64_t next_prune_ns = 0;
  uint64_t rtt_ns = 0;       // last round trip measured; 0 none yet
  uint64_t rtt_at_ns = 0;    // when
  std::vector<proto::DbLag> peer_lags;  // the active's lags, from its last ping
  uint64_t lags_at_ns = 0;
  // history_stats.cc: durations of the procedures
  std::map<uint32_t, uint64_t> gsync_started;  // xfer -> start
  uint64_t seen_failed = 0, seen_switchovers = 0, swo_started_ns = 0;
  bool swo_open = false;
  Durations gsync_done, gsync_failed, switchover;
};

}  // namespace hadra::sysmgrd
