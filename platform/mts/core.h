// MTS core: the endpoints of this process, their receive queues, the table of messages each
// one holds (what a mts_msg_ref names), sequence numbering of the HA link and the checks on
// what arrives. The exported calls (api.cc) and the testing interface (testing.cc) are thin
// layers over these functions.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "hadra_platform/mts.h"
#include "mts/transport.h"
#include "mts/wire.h"

namespace hadra::plat::mts {

// A message to send. rr_token 0 asks for a new token.
struct Outgoing {
  uint32_t src_sap = 0;
  Route route;
  uint32_t opcode = 0;
  const void* hdr = nullptr;
  uint32_t hdr_len = 0;
  const mts_xbuf_desc* desc = nullptr;
  uint32_t flags = 0;
  uint32_t rr_token = 0;
};

// What went wrong on a peer stream just before a frame that was taken (bits of
// MsgInfo::trouble): the receiver of that frame is no longer in step with its sender.
constexpr uint8_t kTroubleGap = 1;       // numbers skipped: frames lost or sent out of order
constexpr uint8_t kTroubleRepeat = 2;    // a number already passed arrived (and was dropped)
constexpr uint8_t kTroubleOverflow = 4;  // frames dropped at the receive queue's bound

// Wire flag (bit 2 of the frame's flags): a frame sent again from the sender's backlog at the
// receiver's request. It is outside the stream's count (no repeat or gap check) and only
// moves the receiver's count on.
constexpr uint8_t kFlagResent = 0x04;

// What a held message tells about itself.
struct MsgInfo {
  WireHdr h;
  void* payload = nullptr;
  bool from_peer = false;
  uint8_t trouble = 0;   // kTrouble* bits seen on the stream since the frame before it
  uint64_t skipped = 0;  // with kTroubleGap: how many numbers were skipped
};

// Counters of one endpoint (sap != 0) or of the process (sap 0).
struct Counters {
  uint64_t delivered = 0;      // messages put in a receive queue
  uint64_t repeats = 0;        // dropped: number already seen on the stream
  uint64_t gaps = 0;           // times numbers were skipped
  uint64_t missing = 0;        // numbers skipped in all
  uint64_t bad_frames = 0;     // malformed frames refused (process)
  uint64_t undeliverable = 0;  // frames for a SAP not bound here (process)
  uint64_t overflows = 0;      // peer frames dropped because the receive queue was full
  uint64_t sends_missed = 0;   // peer frames that took a number and did not leave
  uint64_t breaks = 0;         // times a peer stream of this endpoint broke (sends failing)
};

// Where the sending side of a peer stream stands.
struct TxState {
  uint64_t last = 0;       // last number taken
  bool broken = false;     // the last frame did not leave: the peer is behind
  uint64_t missed = 0;     // frames that took a number and did not leave, in all
  uint64_t broken_at = 0;  // first number of the current break (0: none)
};

int bind(uint32_t sap);
int unbind(uint32_t sap);

// Resolve (address, SAP) from the sender's point of view; -1 with errno for an address
// that leads nowhere.
int resolve(uint32_t src_sap, uint32_t addr, uint32_t dest_sap, Route* out);
// Payload length of hdr + pieces after checking them; -1 with errno.
long payload_length(const void* hdr, uint32_t hdr_len, const mts_xbuf_desc* desc);
int send(const Outgoing& o, mts_msg_ref* out_ref);

int recv(uint32_t sap, mts_msg_ref* ref, const mts_recv_opts* opts);
int drop(uint32_t sap, const mts_msg_ref* ref);
// The endpoint's readiness descriptor (see mts_fd_get); -1 with errno.
int ready_fd(uint32_t sap);
// The last HA sequence number sap sent to dst_sap on the peer (0: none yet) and, when epoch is
// not null, the stream's epoch.
uint64_t last_sent(uint32_t sap, uint32_t dst_sap, uint32_t* epoch);
// The sending side of the stream from sap to dst_sap on the peer; false when none exists.
bool tx_state(uint32_t sap, uint32_t dst_sap, TxState* out);
// Sends again every frame of the stream from sap to dst_sap on the peer numbered from `from`
// on (flagged kFlagResent), from the stream's backlog, then one reply frame of reply_opcode,
// also flagged, numbered with the last frame resent (*end) and carrying the result (4 bytes,
// little-endian: 0, or the errno). -1 with errno: ESTALE the stream has another epoch now,
// EINVAL from is beyond the stream, ERANGE the backlog (MTS_BACKLOG_BYTES) no longer holds
// from, or the transport's error when a frame could not go. The frames never wait for queue
// room (the active must not wait on its standby): when the queue is full the resend stops,
// and the reply says EAGAIN with the last frame that went; the standby asks for the rest.
int resend(uint32_t sap, uint32_t dst_sap, uint32_t epoch, uint64_t from, uint32_t reply_opcode, uint64_t* end);
// Whether a peer stream of this process is broken now; *missed: frames of blocking peer sends
// that did not leave since MTS started. Lock-free, for every change's bookkeeping.
bool peer_health(uint64_t* missed);
// Copy what ref names into *out; false (errno EINVAL) when it names nothing.
bool info(const mts_msg_ref* ref, MsgInfo* out);

// A frame that came from outside the process (force_peer: treat it as sent by the peer
// whatever its src_node says; the loopback's feed). 0 queued, 1 dropped as a repeat, -1 with
// errno (EBADMSG malformed, EADDRNOTAVAIL no endpoint bound for it).
int deliver_frame(Frame&& f, bool force_peer);
// Frames that arrived together, in order: the same checks, under one lock and with one
// wake-up per receiving endpoint instead of one per frame. Returns how many were queued;
// frames is left empty.
size_t deliver_frames(std::vector<Frame>& frames, bool force_peer);

// Record a gsync completion (snapshot = true: active side) for id.
void record_done(mts_sap_id id, bool snapshot);
unsigned done_count(uint32_t sap, bool snapshot);

bool counters(uint32_t sap, Counters* out);
// Messages queued / held by sap (0 when it has no endpoint).
size_t queued(uint32_t sap);
// For a transport's receiving thread: how many more frames sap's queue takes before they are
// left in the link (MTS_RX_HOLD; SIZE_MAX when there is no such bound). At 0 the queue is
// held, and the transport is told (receiver_ready) once the receiver has taken half of it.
size_t receive_room(uint32_t sap);
size_t held(uint32_t sap);
// The transport in use (chosen now when none is yet); null when it cannot be set up.
std::shared_ptr<Transport> transport();
uint8_t own_slot();

// Close every endpoint and the transport; MTS starts afresh on next use.
void reset();
// The same, letting frames already sent leave first for at most ms.
void flush(int ms);

}  // namespace hadra::plat::mts
