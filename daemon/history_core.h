// The pure part of `hadra history`: reading a root's history rings, merging two supervisors'
// records by time, and finding the first sync message the two disagree on. No daemon state,
// so the benchmark-free unit tests and the fuzz target use it directly.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "log/hist_ring.h"
#include "sysmgr/proto.h"

namespace hadra::sysmgrd::history {

namespace proto = hadra::plat::sysmgr::proto;
namespace hist = hadra::plat::hist;

// The rings under <root>/log (hist-<pid>.ring), read without disturbing their writers. A file
// that is not a ring is left out and named in *skipped.
std::vector<hist::Ring> read_rings(const std::string& root, std::vector<std::string>* skipped);

// The newest max records of rings, oldest first, as they travel; names[uuid] is the service's
// name where known.
std::vector<proto::HistEntry> newest(const std::vector<hist::Ring>& rings, size_t max,
                                     const std::map<uint32_t, std::string>& names);

// Drops the oldest records until the answer fits a message of at most limit bytes.
void fit(proto::HistAns* a, size_t limit);

// Text from a ring or from the peer as it may go into JSON: printable ASCII kept, any other
// byte as \xNN (a JSON text must be valid UTF-8, and these bytes were never checked).
std::string printable(const std::string& s);

// One supervisor's records.
struct Side {
  int slot = 0;
  std::vector<proto::HistEntry> entries;
};

// Both sides merged by time (ties: by slot, then ring order), each record with its slot.
nlohmann::json merged(const Side& a, const Side& b);
nlohmann::json entry_json(int slot, const proto::HistEntry& e);

// The first sync message (earliest by the sender's clock) on which the two sides disagree:
// the applying side applied a payload other than the one sent under the same stream and HA
// number, or applied a number the sender's ring holds no message for. Only the stretch of
// each stream both rings still hold is compared; *compared says how many messages were.
// Numbers sent and not applied are counted in *not_applied, not reported: a gsync's snapshot
// holds such messages already, and a standby that misses one notices the gap itself.
// nullopt when they agree.
struct Divergence {
  std::string what;  // "payload differs", "applied, never sent"
  uint32_t sap = 0, epoch = 0, uuid = 0;
  uint64_t ha_seqno = 0;
  uint8_t index = 0;
  std::string service;
  std::optional<proto::HistEntry> sent, applied;
  int sender_slot = 0, applier_slot = 0;
};
std::optional<Divergence> first_divergence(const Side& a, const Side& b, uint64_t* compared, uint64_t* not_applied);
nlohmann::json divergence_json(const std::optional<Divergence>& d, uint64_t compared, uint64_t not_applied);

}  // namespace hadra::sysmgrd::history
