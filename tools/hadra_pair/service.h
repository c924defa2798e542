// The sample service of hadra_pair and the two supervisor roles it is run in.
//
// The service keeps its state in three databases, registered under the same indexes on both
// supervisors: a PSS file "routes", an SDB "peers" and an MSDB "sessions" whose records carry
// two secondary keys each (the peer a session runs over, tag 1; its user, tag 2).
//
// Each role runs in its own process (pairkit::spawn) and moves on only when the driver
// raises the next signal of Steps; before raising its own signal it publishes what it is in
// its SupStatus, a page shared with the driver, which prints it.
#pragma once

#include <cstdint>

#include "pairkit/two_sup.h"

namespace hadra::pair {

constexpr int kDatabases = 3;
extern const char* const kDbNames[kDatabases];  // by registry index 1, 2, 3

// Longest wait for any one step; a run that takes longer has failed.
constexpr int kStepMs = 60000;

// The gsync snapshot area, as the system manager names it and as a path under a root.
constexpr const char* kAreaUri = "snap:/gsync-1";
constexpr const char* kAreaDir = "snap/gsync-1";

// One supervisor as its process last published it.
struct SupStatus {
  int up;                         // 1 once the service is initialised
  int supstate;                   // what sysmgr_supstate_get() answers
  uint32_t ha_state[kDatabases];  // HA state of each database
  uint64_t sent;                  // sync messages sent (the sequence numbers reported)
  uint64_t sent_at_snapshot;      // of which before the snapshot point (active only)
  uint64_t applied;               // sync messages hadra_ha_dispatch took (standby only)
  char failure[200];              // why the role failed, when it did
};

// The signals of the scenario, in order; "->" names who raises and who waits.
struct Steps {
  pairkit::Signal written;     // sup1 -> driver: active, first records written
  pairkit::Signal standby_up;  // sup2 -> driver: standby, copies destroyed, gsync asked for
  pairkit::Signal snapshot;    // driver -> sup1: the gsync snapshot event
  pairkit::Signal covered;     // sup1 -> driver: snapshot written, its stream point marked
  pairkit::Signal shipped;     // driver -> sup2: area shipped; the gsync ready event
  pairkit::Signal synced;      // sup2 -> driver: every database HADRA_HA_STANDBY
  pairkit::Signal live;        // driver -> sup1: make live changes
  pairkit::Signal live_sent;   // sup1 -> driver: changes made, their end marked
  pairkit::Signal applied;     // sup2 -> driver: everything up to the end mark dispatched
  pairkit::Signal takeover;    // driver -> sup2: the switchover event
  pairkit::Signal switched;    // sup2 -> driver: every database HADRA_HA_ACTIVE, answered
  pairkit::Signal finish;      // driver -> sup2: end
  pairkit::Signal leave;       // driver -> sup1: end (a run normally takes sup1 down instead)
};

// Supervisor 1 and supervisor 2. Each returns its process's exit status: 0 when every step
// went as it should; otherwise status->failure says what did not.
int run_active(int records, Steps& steps, SupStatus* status);
int run_standby(Steps& steps, SupStatus* status);

// The records the sample service holds after the first writes and after the live changes,
// per database: what the verdict expects of both copies.
void expected_counts(int records, bool after_live, uint64_t out[kDatabases]);

}  // namespace hadra::pair
