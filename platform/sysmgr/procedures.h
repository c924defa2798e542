// The client's side of the system-manager procedures: answers to gsync and switchover
// events, the restart facts the start reason is decided from, and the handshake query.
//
// Every exported call of these procedures goes through ProcLink. The local link serves them
// in this process: an answer is recorded (the testing interface reads the record back, and
// a test plays the system manager from it), the restart facts come from configuration or
// test setters, and the handshake query is sent as an MTS message to SYSMGR_SAP. A
// system-manager daemon client replaces the link with one that sends the answers as
// messages; the exported calls and their traces stay as they are.
#pragma once

#include <cstdint>

#include "hadra_platform/sysmgr.h"

namespace hadra::plat::sysmgr {

enum class AnswerKind : int { kGsyncSnapshotDone = 1, kGsyncReadyDone = 2, kSwitchoverDone = 3 };

// One answer given to the system manager. For gsync answers msg and req_id come from the
// event's context; for a switchover answer msg is the request reference the client gave
// and req_id is 0.
struct Answer {
  AnswerKind kind;
  uint32_t req_id;
  int32_t value;  // the failed flag (0 or 1) of a gsync answer, the status of a switchover
  mts_msg_ref msg;
};

struct ProcLink {
  // Deliver an answer; 0, or a platform error code.
  int (*answer)(const Answer& a);
  int (*is_swover_first_start)();
  int (*handshake_done)();
  // Send the handshake query for uuid from sap; 0 with *out naming the sent query, or -1
  // with errno.
  int (*hs_query)(uint32_t sap, uint32_t uuid, mts_msg_ref* out);
};

// The daemon client's link when configuration selects the daemon (see sysmgr_internal.h),
// else null.
const ProcLink* daemon_proc_link() noexcept;

// Replace the link (null: back to the configured one). Not thread-safe against calls in flight.
void set_proc_link(const ProcLink* link) noexcept;
const ProcLink& proc_link() noexcept;

}  // namespace hadra::plat::sysmgr
