// MTS core: the endpoints of this process, their receive queues, the table of messages each
// one holds (what a mts_msg_ref names), sequence numbering of the HA link and the checks on
// what arrives. The exported calls (api.cc) and the testing interface (testing.cc) are thin
// layers over these functions.
#pragma once

#include <cstdint>
#include <memory>

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

// What a held message tells about itself.
struct MsgInfo {
  WireHdr h;
  void* payload = nullptr;
  bool from_peer = false;
};

// Counters of one endpoint (sap != 0) or of the process (sap 0).
struct Counters {
  uint64_t delivered = 0;      // messages put in a receive queue
  uint64_t repeats = 0;        // dropped: number already seen on the stream
  uint64_t gaps = 0;           // times numbers were skipped
  uint64_t missing = 0;        // numbers skipped in all
  uint64_t bad_frames = 0;     // malformed frames refused (process)
  uint64_t undeliverable = 0;  // frames for a SAP not bound here (process)
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
// Copy what ref names into *out; false (errno EINVAL) when it names nothing.
bool info(const mts_msg_ref* ref, MsgInfo* out);

// A frame that came from outside the process (force_peer: treat it as sent by the peer
// whatever its src_node says; the loopback's feed). 0 queued, 1 dropped as a repeat, -1 with
// errno (EBADMSG malformed, EADDRNOTAVAIL no endpoint bound for it).
int deliver_frame(Frame&& f, bool force_peer);

// Record a gsync completion (snapshot = true: active side) for id.
void record_done(mts_sap_id id, bool snapshot);
unsigned done_count(uint32_t sap, bool snapshot);

bool counters(uint32_t sap, Counters* out);
// Messages queued / held by sap (0 when it has no endpoint).
size_t queued(uint32_t sap);
size_t held(uint32_t sap);
// The transport in use (chosen now when none is yet); null when it cannot be set up.
std::shared_ptr<Transport> transport();
uint8_t own_slot();

// Close every endpoint and the transport; MTS starts afresh on next use.
void reset();
// The same, letting frames already sent leave first for at most ms.
void flush(int ms);

}  // namespace hadra::plat::mts
