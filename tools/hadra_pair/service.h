// The sample service of hadra_pair and the two supervisor roles it is run in.
//
// The service keeps its state in three databases, registered under the same indexes on both
// supervisors: a PSS file "routes", an SDB "peers" and an MSDB "sessions" whose records carry
// two secondary keys each (the peer a session runs over, tag 1; its user, tag 2).
//
// Each role runs in its own process (pairkit::spawn) next to its supervisor's hadra-sysmgrd.
// The service is what a real one is: it attaches to its daemon, initialises the library and
// runs the platform's receive loop, which routes the daemon's events and the sync messages.
// It publishes its state in its SupStatus, a page shared with the driver, which prints it.
#pragma once

#include <cstdint>

#include "pairkit/two_sup.h"

namespace hadra::pair {

constexpr int kDatabases = 3;
extern const char* const kDbNames[kDatabases];  // by registry index 1, 2, 3

// Longest wait for any one step; a run that takes longer has failed.
constexpr int kStepMs = 60000;

// One supervisor's service as its process last published it.
struct SupStatus {
  int up;                         // 1 once the service is initialised
  int supstate;                   // what sysmgr_supstate_get() answers
  uint32_t ha_state[kDatabases];  // HA state of each database
  int switched;                   // the switchover hook ran and answered
  char failure[200];              // why the role failed, when it did
};

// The signals of the scenario; "->" names who raises and who waits. The rest goes through
// the daemons: the driver asks them with commands and reads their status.
struct Steps {
  pairkit::Signal written;    // sup1 -> driver: active, first records written
  pairkit::Signal live;       // driver -> sup1: make live changes
  pairkit::Signal live_sent;  // sup1 -> driver: changes made
  pairkit::Signal finish;     // driver -> sup2: end
};

// The service on supervisor 1 and on supervisor 2. Each attaches to its supervisor's
// daemon and runs the platform's receive loop; each returns its process's exit status: 0
// when every step went as it should; otherwise status->failure says what did not.
int run_active(int records, Steps& steps, SupStatus* status);
int run_standby(Steps& steps, SupStatus* status);

// The records the sample service holds after the first writes and after the live changes,
// per database: what the verdict expects of both copies.
void expected_counts(int records, bool after_live, uint64_t out[kDatabases]);

}  // namespace hadra::pair
