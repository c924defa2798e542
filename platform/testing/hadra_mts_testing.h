/*
 * Testing interface of the message transport (MTS). For tests and tools only.
 *
 * With the loopback transport (configuration TRANSPORT=loopback, the default) every message
 * sent to the peer supervisor is kept as the frame that would go on the wire (the 48-byte
 * header of docs/mts.md, then the payload). A test reads those frames back byte for byte and
 * may feed them, as they are or altered, to an endpoint of this process: the process then
 * plays the peer. Feeding runs the receiver's checks (well-formed frame, bound SAP, HA
 * sequence numbers: repeats dropped, gaps counted and logged), exactly as for a frame that
 * came over a socket.
 *
 * All calls are thread-safe. plat_test_reset() closes every endpoint, empties the outbox and
 * clears the counters and completion records.
 */
#ifndef HADRA_MTS_TESTING_H
#define HADRA_MTS_TESTING_H

#include "hadra_platform/mts.h"

PLAT_EXTERN_C_BEGIN

#define MTS_TEST_WIRE_HDR_SIZE 48 /* payload offset within a frame */

/* Name of the transport in use ("loopback" or "zmq"); chosen now if MTS was not used yet. */
HADRA_PLAT_API const char *mts_test_transport(void) PLAT_NOEXCEPT;

/* Loopback: number of frames waiting for the peer. */
HADRA_PLAT_API size_t mts_test_peer_count(void) PLAT_NOEXCEPT;
/*
 * Loopback: copy the oldest frame for the peer (at most size bytes) into buf and return its
 * full length; take != 0 removes it. -1 when there is none (or the transport is not the
 * loopback).
 */
HADRA_PLAT_API long mts_test_peer_read(void *buf, size_t size, int take) PLAT_NOEXCEPT;
/* Loopback: frames dropped because the outbox was full (MTS_LOOPBACK_KEEP). */
HADRA_PLAT_API uint64_t mts_test_peer_dropped(void) PLAT_NOEXCEPT;
/*
 * Loopback: remove the oldest max frames for the peer (0: all) and feed each to this process
 * as if the peer had sent it. Returns how many were queued at an endpoint (repeats and
 * frames for unbound SAPs are not).
 */
HADRA_PLAT_API size_t mts_test_peer_forward(size_t max) PLAT_NOEXCEPT;

/*
 * Hand a frame to this process as if it came from the peer. 0 queued; 1 dropped as a repeat;
 * -1 with errno EBADMSG (malformed), EADDRNOTAVAIL (its SAP is not bound here), EINVAL.
 */
HADRA_PLAT_API int mts_test_feed(const void *frame, size_t len) PLAT_NOEXCEPT;

/*
 * Put a message in the receive queue of sap (bound here), as sent by src_sap of the peer
 * (from_peer != 0) or of this supervisor: the way a test makes a client's queue hold, e.g.,
 * YOU_ARE_ALMOST_ACTIVE. ha_seqno 0 bypasses the sequence checks. Results as mts_test_feed
 * (EINVAL also for sap 0, a sync event above 255, a null payload with a length).
 */
HADRA_PLAT_API int mts_test_deliver(uint32_t sap, uint32_t src_sap, int from_peer, uint32_t opcode, int sync_event,
                                    uint64_t ha_seqno, uint32_t rr_token, const void *payload,
                                    uint32_t len) PLAT_NOEXCEPT;

/* The loopback refuses the next n frames for the peer with EAGAIN (a peer that does not read). */
HADRA_PLAT_API void mts_test_peer_refuse(uint64_t n) PLAT_NOEXCEPT;

/* Where the stream from sap to the peer's dst_sap stands: last number taken, broken (1 while
 * frames do not leave), frames missed in all. 0, or -1 when there is no such stream. */
HADRA_PLAT_API int mts_test_tx_state(uint32_t sap, uint32_t dst_sap, uint64_t *last, int *broken,
                                     uint64_t *missed) PLAT_NOEXCEPT;

/* Counters of endpoint sap; sap 0 gives the process-wide ones. */
typedef struct mts_test_counters {
  uint64_t delivered;     /* messages put in the receive queue */
  uint64_t repeats;       /* frames dropped: HA sequence number already seen */
  uint64_t gaps;          /* times HA sequence numbers were skipped */
  uint64_t missing;       /* HA sequence numbers skipped in all */
  uint64_t bad_frames;    /* process: malformed frames refused */
  uint64_t undeliverable; /* process: frames for a SAP not bound here */
  uint64_t overflows;     /* peer frames dropped at the receive queue's bound (MTS_RX_QUEUE_MAX) */
  uint64_t sends_missed;  /* peer frames that took a number and did not leave */
  uint64_t breaks;        /* times a peer stream of the endpoint broke */
} mts_test_counters;
/* 0, or -1 when sap has no endpoint. */
HADRA_PLAT_API int mts_test_counters_get(uint32_t sap, mts_test_counters *out) PLAT_NOEXCEPT;

/* Messages waiting in the receive queue of sap / references it holds (received and sent). */
HADRA_PLAT_API size_t mts_test_queued(uint32_t sap) PLAT_NOEXCEPT;
HADRA_PLAT_API size_t mts_test_held(uint32_t sap) PLAT_NOEXCEPT;

/* How many times mts_pss_snapshot_done / mts_gsync_done recorded id since reset. */
HADRA_PLAT_API unsigned mts_test_snapshot_done_count(mts_sap_id id) PLAT_NOEXCEPT;
HADRA_PLAT_API unsigned mts_test_gsync_done_count(mts_sap_id id) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
