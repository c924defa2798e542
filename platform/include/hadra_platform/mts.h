/*
 * Message transport (MTS).
 *
 * Every process of a supervisor has endpoints, one per service access point (SAP, a non-zero
 * 32-bit number). A message is addressed by (node address, SAP): MTS_ADDR_LOCAL is this
 * supervisor, MTS_ADDR_PEER the other one; on the peer, destination SAP 0 means "the same SAP
 * as the sender's". A message carries an opcode, a sync event, an HA sequence number, a
 * request-response token, flags and a payload of up to MTS_PAYLOAD_MAX bytes.
 *
 * Conventions
 *  - Results: calls that act return 0 on success and -1 on failure with errno set (values
 *    below). Getters return their value, or 0 / -1 / null (as each says) with errno EINVAL
 *    for a reference that does not name a message held by this process.
 *  - Buffers: the caller owns everything it passes; mts_send copies the payload before it
 *    returns. A payload returned by mts_payload_get belongs to MTS and stays valid until the
 *    message is dropped (or its endpoint unbound).
 *  - Threads: every call is thread-safe. Messages of one sending endpoint leave in the order
 *    of their mts_send calls and are received in that order.
 *  - The platform runs one background I/O thread when the ZeroMQ transport is in use (its
 *    library adds its own). The loopback transport runs none. A child of fork() must not use
 *    (nor reset) an MTS that its parent had set up: its threads did not come along.
 *
 * Endpoints. mts_bind(sap) makes this process receive the messages of sap. A SAP that only
 * sends needs no bind: the first mts_send from a SAP creates a send-only endpoint that keeps
 * the SAP's sequence numbers and the references of its sent messages. mts_unbind forgets the
 * endpoint entirely: queued and held messages are released, sequence numbers start again.
 *
 * Sync events. Every message sent to MTS_ADDR_PEER travels on the HA link between the two
 * supervisors and arrives with sync event MTS_SYNC_EVENT_UPDATE (2): sync messages and the
 * notifications that accompany them. Messages sent within the supervisor arrive with
 * MTS_SYNC_EVENT_NONE (0).
 *
 * HA sequence numbers. Messages on the HA link are numbered per stream, a stream being one
 * sending endpoint and one destination SAP on the peer (with destination SAP 0, the common
 * case, one stream per sending endpoint): 1, 2, 3, ... with no gaps. A failed send takes no
 * number. Messages within the supervisor have sequence number 0. The receiver drops a
 * message whose number it has already seen from that stream (a repeat: nothing is applied
 * twice) and reports a gap in the numbers in the log (level 3) but still takes the message.
 * A sender that starts again (new process or new endpoint) starts a new stream.
 *
 * Request-response tokens. Each mts_send gives the message a new non-zero token; mts_reply
 * answers a received message with the request's token, so that the two can be matched.
 *
 * Transports (configuration keys, see config.h and docs/mts.md):
 *   TRANSPORT        "loopback" (default): one process; messages to the peer are kept for
 *                    the testing interface (hadra_mts_testing.h) to read back and feed in.
 *                    "zmq": ZeroMQ, ipc:// between processes of one host, tcp:// between hosts.
 *   MTS_LOCAL        address of this supervisor's endpoint of SAP {sap}; default
 *                    "ipc://<root>/sock/sap-{sap}"
 *   MTS_PEER         address of the peer's endpoint of SAP {sap}; default
 *                    "ipc://<dir of root>/sup<3 - SLOT>/sock/sap-{sap}"
 *   MTS_PORT_BASE    "{port}" in an address stands for MTS_PORT_BASE + SAP; default 17000
 *   MTS_HWM          messages queued per socket before a send waits; default 1000
 *   MTS_SEND_TIMEOUT_MS  longest wait of a send for queue room; default 2000
 *   MTS_RECV_MAX_WAIT_MS longest wait of any blocking receive; default 60000
 *   MTS_LOOPBACK_KEEP    frames the loopback keeps for the peer before dropping the oldest;
 *                        default 4096
 * The transport is chosen when MTS is first used, and again after plat_test_reset().
 *
 * errno values: EINVAL bad argument or reference; EADDRNOTAVAIL SAP not bound (receive) or
 * unknown; EADDRINUSE SAP already bound; EMSGSIZE payload above MTS_PAYLOAD_MAX;
 * EHOSTUNREACH unknown destination address; ECONNREFUSED (loopback) no endpoint of that SAP
 * in this process; EAGAIN nothing to receive, or no room to send within the timeout;
 * ETIMEDOUT a blocking receive waited its full time; ENOBUFS too many messages held;
 * ECONNABORTED the endpoint was unbound during a blocking receive. Others come from the
 * transport (e.g. ENAMETOOLONG for an ipc path too long for a socket address).
 */
#ifndef HADRA_PLATFORM_MTS_H
#define HADRA_PLATFORM_MTS_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

#define MTS_ADDR_LOCAL 0x00000000u /* this supervisor */
#define MTS_ADDR_PEER 0xfe000000u  /* the other supervisor */
#define MTS_SAP_SAME 0u            /* with MTS_ADDR_PEER: the sender's own SAP on the peer */

#define MTS_SYNC_EVENT_NONE 0   /* a message within the supervisor */
#define MTS_SYNC_EVENT_UPDATE 2 /* a message on the HA link (sync update) */

#define MTS_PAYLOAD_MAX (1u << 20) /* largest payload of one message, bytes */
#define MTS_XBUF_MAX_PIECES 16u    /* most pieces one descriptor may list */
#define MTS_HELD_MAX 65536u        /* most messages one endpoint may hold at once */

/* Opcodes that MTS itself knows by name. */
#define MTS_OPC_YOU_ARE_ALMOST_ACTIVE 1806u
#define MTS_OPC_YOU_ARE_ACTIVE 1807u

/* Bits of mts_send's flags argument. */
#define MTS_SEND_NONBLOCK 0x1u /* fail with EAGAIN at once when the transport has no room */

/* Bits of mts_msg_flags_get(), set from the extra-buffer descriptor of the sender. */
#define MTS_MSG_NOTIFY 0x1u   /* descriptor field notify */
#define MTS_MSG_NO_REPLY 0x2u /* descriptor field no_reply */

/*
 * Message reference (25 bytes, packed). Names one message held by this process: one it
 * received and has not dropped yet, or one it sent and asked a reference for. It is a plain
 * value: it may be copied byte for byte, and a copy names the same message. A reference of
 * all zeros names nothing; so does one whose message was dropped (the generation differs).
 * The layout must not change.
 */
#if defined(__GNUC__)
#define MTS_PACKED __attribute__((packed))
#else
#define MTS_PACKED
#endif
typedef struct MTS_PACKED mts_msg_ref {
  uint8_t kind;    /* 0: 0 = names nothing, 1 = received message, 2 = sent message */
  uint32_t sap;    /* 1: SAP of the endpoint that holds the message */
  uint32_t slot;   /* 5: index in that endpoint's table of held messages */
  uint64_t gen;    /* 9: generation of the slot's content; unique in the process, never 0 */
  uint32_t msg_id; /* 17: copy of the message id (for logs; the getters read the message) */
  uint32_t opcode; /* 21: copy of the opcode (likewise) */
} mts_msg_ref;

#define MTS_REF_NONE 0
#define MTS_REF_RECEIVED 1
#define MTS_REF_SENT 2

/*
 * One piece of an extra buffer: a pointer and a 32-bit length (the same layout as `datum`,
 * so a datum may be listed as a piece).
 */
typedef struct mts_piece {
  const void *ptr; /* 0 */
  uint32_t len;    /* 4 (32-bit) / 8 (64-bit) */
} mts_piece;

/*
 * Extra-buffer descriptor: pieces that mts_send appends, in list order, to the header it is
 * given; header and pieces travel as one payload.
 *
 * The record is seventeen 32-bit words (68 bytes) on a 32-bit system: word 0 = kind (1),
 * words 1 to 4 = 0, word 5 = pointer to the piece list, word 6 = piece count, words 7 to 16
 * = 0 except the two flag bytes at byte offsets 35 and 36. On a 64-bit system the pointer is
 * 8 bytes and 8-byte aligned: a 4-byte pad follows word 4, the pointer sits at offset 24,
 * and every later field moves on by 8 bytes (count at 32, the flag bytes at 43 and 44); a
 * final pad makes 80 bytes. Callers set the fields by name, never by offset. Everything not
 * named must be zero. The layout must not change.
 */
typedef struct mts_xbuf_desc {
  uint32_t kind;         /* word 0: MTS_XBUF_PIECES */
  uint32_t reserved1[4]; /* words 1-4 */
#if UINTPTR_MAX > 0xffffffffu
  uint32_t pad_ptr; /* 64-bit only: aligns `pieces` */
#endif
  const mts_piece *pieces; /* word 5: the piece list (may be null when count is 0) */
  uint32_t count;          /* word 6: pieces listed, 0 to MTS_XBUF_MAX_PIECES */
  uint32_t reserved7;      /* word 7 */
  uint8_t reserved8[3];    /* word 8, bytes 0-2 */
  uint8_t notify;          /* 32-bit byte 35: 1 = a notification of a store change */
  uint8_t no_reply;        /* 32-bit byte 36: 1 = the sender expects no answer */
  uint8_t reserved9[3];    /* word 9, bytes 1-3 */
  uint32_t reserved10[7];  /* words 10-16 */
#if UINTPTR_MAX > 0xffffffffu
  uint32_t pad_end; /* 64-bit only: size a multiple of 8 */
#endif
} mts_xbuf_desc;

#define MTS_XBUF_PIECES 1u

/*
 * Receive options (ten 32-bit words, 40 bytes). The layout must not change.
 *   word 0  flags: MTS_RECV_BLOCK (1) waits for a message; otherwise the call returns at once
 *   word 1  reserved, 0
 *   word 2  timeout_s: longest wait in seconds when blocking
 *   word 3  timeout_ms: further milliseconds of wait
 *   words 4-9 reserved, 0
 * A blocking receive with no timeout waits at most MTS_RECV_MAX_WAIT_MS (configuration).
 */
typedef struct mts_recv_opts {
  uint32_t flags;
  uint32_t reserved1;
  uint32_t timeout_s;
  uint32_t timeout_ms;
  uint32_t reserved4[6];
} mts_recv_opts;

#define MTS_RECV_BLOCK 0x1u

/* A value that names a SAP to the completion calls (see mts_sap_get). */
typedef uint32_t mts_sap_id;

#ifdef __cplusplus
#define MTS_STATIC_ASSERT static_assert
#else
#define MTS_STATIC_ASSERT _Static_assert
#endif
MTS_STATIC_ASSERT(sizeof(mts_msg_ref) == 25, "message reference is 25 bytes");
MTS_STATIC_ASSERT(offsetof(mts_msg_ref, sap) == 1 && offsetof(mts_msg_ref, slot) == 5 &&
                  offsetof(mts_msg_ref, gen) == 9 && offsetof(mts_msg_ref, msg_id) == 17 &&
                  offsetof(mts_msg_ref, opcode) == 21,
                  "message reference layout");
MTS_STATIC_ASSERT(sizeof(mts_piece) == sizeof(datum) &&
                      offsetof(mts_piece, len) == offsetof(datum, dsize),
                  "a piece has the layout of a datum");
MTS_STATIC_ASSERT(sizeof(mts_recv_opts) == 40 && offsetof(mts_recv_opts, timeout_s) == 8 &&
                  offsetof(mts_recv_opts, timeout_ms) == 12,
                  "receive options layout");
#if UINTPTR_MAX > 0xffffffffu
MTS_STATIC_ASSERT(sizeof(mts_xbuf_desc) == 80 && offsetof(mts_xbuf_desc, pieces) == 24 &&
                  offsetof(mts_xbuf_desc, count) == 32 && offsetof(mts_xbuf_desc, notify) == 43 &&
                  offsetof(mts_xbuf_desc, no_reply) == 44,
                  "64-bit extra-buffer descriptor layout");
#else
MTS_STATIC_ASSERT(sizeof(mts_xbuf_desc) == 68 && offsetof(mts_xbuf_desc, pieces) == 20 &&
                  offsetof(mts_xbuf_desc, count) == 24 && offsetof(mts_xbuf_desc, notify) == 35 &&
                  offsetof(mts_xbuf_desc, no_reply) == 36,
                  "32-bit extra-buffer descriptor layout");
#endif

/* ---- Endpoints ---- */

/* Receive the messages of sap in this process. 0; -1 with EINVAL (sap 0), EADDRINUSE (already
   bound here) or the transport's error (e.g. the socket address cannot be bound). */
HADRA_PLAT_API int mts_bind(uint32_t sap) PLAT_NOEXCEPT;
/* Forget the endpoint of sap: stop receiving, release its queued and held messages, wake
   its blocked receivers (ECONNABORTED). 0; -1 with EADDRNOTAVAIL when sap has no endpoint. */
HADRA_PLAT_API int mts_unbind(uint32_t sap) PLAT_NOEXCEPT;

/* ---- Sending ---- */

/*
 * Send one message from src_sap to (dest_addr, dest_sap) under opcode. The payload is hdr
 * (hdr_len bytes; hdr may be null when hdr_len is 0) followed by the pieces of desc (null:
 * none). When out_ref is not null it receives a reference to the sent message, from which
 * mts_msg_id_get, mts_ha_seqno_get and mts_rr_token_get read; it must be released with
 * mts_drop(src_sap, out_ref). A sent message's payload is not kept (mts_payload_get gives
 * null). flags: 0 or MTS_SEND_NONBLOCK.
 * Returns 0; -1 with errno: EINVAL (src_sap 0, null hdr with a length, desc->kind not 1, more
 * than MTS_XBUF_MAX_PIECES pieces, a null piece with a length, unknown flags, local
 * destination SAP 0), EMSGSIZE, EHOSTUNREACH, ECONNREFUSED, EAGAIN, ENOBUFS, or a transport
 * error. On failure nothing was sent and *out_ref names nothing.
 */
HADRA_PLAT_API int mts_send(uint32_t src_sap, uint32_t dest_addr, uint32_t dest_sap, uint32_t opcode,
                            const void *hdr, uint32_t hdr_len, mts_msg_ref *out_ref, uint32_t flags,
                            const mts_xbuf_desc *desc) PLAT_NOEXCEPT;

/*
 * Answer the received message request (held by endpoint sap) with a message to its sender
 * (the same supervisor, or the peer when it came over the HA link) that carries the
 * request's request-response token. Other arguments and results as mts_send; EINVAL also
 * for a request that is not a received message held by sap.
 */
HADRA_PLAT_API int mts_reply(uint32_t sap, const mts_msg_ref *request, uint32_t opcode, const void *hdr,
                             uint32_t hdr_len, mts_msg_ref *out_ref, uint32_t flags,
                             const mts_xbuf_desc *desc) PLAT_NOEXCEPT;

/* ---- Receiving and releasing ---- */

/*
 * Take the next message of endpoint sap into *ref (which then names it until mts_drop).
 * opts: see mts_recv_opts; null = do not wait. 0; -1 with EAGAIN (not waiting and nothing
 * queued), ETIMEDOUT (waited the whole timeout), EADDRNOTAVAIL (sap not bound), EINVAL (null
 * ref, unknown option flags), ENOBUFS (sap holds MTS_HELD_MAX messages), ECONNABORTED.
 */
HADRA_PLAT_API int mts_recv(uint32_t sap, mts_msg_ref *ref, const mts_recv_opts *opts) PLAT_NOEXCEPT;
/*
 * For a process about to exit: let the frames it already sent leave, waiting at most
 * timeout_ms (at most 60000), then close every endpoint and the transport. Messages still
 * queued or held are released. A later MTS call starts afresh.
 */
HADRA_PLAT_API void mts_flush(uint32_t timeout_ms) PLAT_NOEXCEPT;

/*
 * A file descriptor for an event loop: readable (POLLIN) while endpoint sap has a message
 * queued, and once the endpoint is unbound. It is a level signal, not a count: after it
 * polls readable, call mts_recv without waiting until it gives EAGAIN. Owned by MTS: never
 * read, write or close it; it stays valid until the endpoint is unbound. -1 with
 * EADDRNOTAVAIL (sap not bound here) or the error of making it.
 */
HADRA_PLAT_API int mts_fd_get(uint32_t sap) PLAT_NOEXCEPT;
/* Release the message named by ref, held by endpoint sap. 0; -1 with EINVAL when ref names
   no message held by sap (never was, already dropped, other SAP). ref itself is not changed. */
HADRA_PLAT_API int mts_drop(uint32_t sap, const mts_msg_ref *ref) PLAT_NOEXCEPT;

/* ---- Reading a message (received or sent) ---- */

/* Opcode; 0 with EINVAL for a bad reference. */
HADRA_PLAT_API uint32_t mts_opc_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Sync event (MTS_SYNC_EVENT_*); -1 with EINVAL for a bad reference. */
HADRA_PLAT_API int mts_sync_event_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Payload of a received message, valid until it is dropped; null for an empty payload, a
   sent message, or a bad reference (errno EINVAL). */
HADRA_PLAT_API void *mts_payload_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Payload length in bytes (sent messages too); 0 for a bad reference. */
HADRA_PLAT_API uint32_t mts_payload_size(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* HA sequence number (0 for a message within the supervisor, or a bad reference). */
HADRA_PLAT_API uint64_t mts_ha_seqno_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Message id, unique among the messages this process sent (received messages keep the
   sender's id); 0 for a bad reference. */
HADRA_PLAT_API uint32_t mts_msg_id_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Request-response token, the same for a request and its reply; 0 for a bad reference. */
HADRA_PLAT_API uint32_t mts_rr_token_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* Sender's SAP; 0 for a bad reference. */
HADRA_PLAT_API uint32_t mts_src_sap_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;
/* MTS_MSG_* bits; 0 for a bad reference. */
HADRA_PLAT_API uint32_t mts_msg_flags_get(const mts_msg_ref *ref) PLAT_NOEXCEPT;

/* Printable name of an opcode: "YOU_ARE_ALMOST_ACTIVE", "YOU_ARE_ACTIVE", or "opc_<n>" (in a
   per-thread buffer valid until the thread's next call). Never null. */
HADRA_PLAT_API const char *mts_opc_name_get(uint32_t opcode) PLAT_NOEXCEPT;

/* ---- Gsync completion ---- */

/* The value naming sap to the calls below (sap itself); 0 with EINVAL for sap 0. */
HADRA_PLAT_API mts_sap_id mts_sap_get(uint32_t sap) PLAT_NOEXCEPT;
/*
 * The gsync snapshot (active side) / the gsync (standby side) of the count SAPs listed in
 * ids is complete; sap is the caller's SAP. MTS records each completion (the testing
 * interface reads them) and logs it at level 6. 0; -1 with EINVAL for count 0, null ids or
 * an id of 0 (nothing is recorded then).
 */
HADRA_PLAT_API int mts_pss_snapshot_done(uint32_t sap, uint32_t count, const mts_sap_id *ids) PLAT_NOEXCEPT;
HADRA_PLAT_API int mts_gsync_done(uint32_t sap, uint32_t count, const mts_sap_id *ids) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
