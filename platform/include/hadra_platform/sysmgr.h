/*
 * System manager, client side.
 *
 * Calls that only read state (supervisor state, URIs, prefix, restart kind) read this
 * process's view of the supervisor, set from configuration (config.h) and, in tests, through
 * the testing interface. Calls that act are served by the system-manager service of the
 * platform (later a daemon reached by messages).
 *
 * URIs. A URI is "<area>:/<path>", e.g. "run:/svc_routes". It names the file
 * <root>/<area>/<path> under the supervisor's platform root. Areas: "run" (running
 * configuration), "startup" (startup configuration), "snap" (gsync snapshot areas); other
 * lower-case areas are allowed. A path never holds "." or ".." segments or empty segments.
 * URIs are at most 255 characters.
 */
#ifndef HADRA_PLATFORM_SYSMGR_H
#define HADRA_PLATFORM_SYSMGR_H

#include "hadra_platform/mts.h"
#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

#define SYSMGR_URI_MAX 256 /* bytes, NUL included */

/* 1 = this supervisor is active, 2 = standby, anything else = neither. */
HADRA_PLAT_API int sysmgr_supstate_get(void) PLAT_NOEXCEPT;
/* Base URI of the running configuration ("run:/" by default), or null when there is none. */
HADRA_PLAT_API const char *sysmgr_running_cfg_uri_get(void) PLAT_NOEXCEPT;
/* Base URI of the startup configuration, or null when there is none. */
HADRA_PLAT_API const char *sysmgr_startup_cfg_uri_get(void) PLAT_NOEXCEPT;
/* File-name prefix of this service, or null for none. */
HADRA_PLAT_API const char *sysmgr_file_prefix_get(void) PLAT_NOEXCEPT;
/*
 * Complete URI of name under base: base, a '/' unless base ends with one, prefix (null or
 * empty: none), name. Null when base or name is null or empty, when base is not a URI of
 * the form above (errno EINVAL), when name or prefix holds '/' or is "." or ".." (EINVAL),
 * or when the result would not fit SYSMGR_URI_MAX (ENAMETOOLONG; it is never cut). The
 * result is a per-thread buffer valid until the next call on the same thread.
 */
HADRA_PLAT_API const char *sysmgr_uri_complete(const char *base, const char *prefix, const char *name) PLAT_NOEXCEPT;
/* Non-zero when this service was restarted with its state kept. */
HADRA_PLAT_API int sysmgr_is_stateful_restart(void) PLAT_NOEXCEPT;
/* Ask for a gsync from the active supervisor towards this standby (arg 0). 0 on success,
   or an error code such as PLAT_ERR_SYSMGR_NO_DAEMON. */
HADRA_PLAT_API int sysmgr_gsync_get(int arg) PLAT_NOEXCEPT;
/* uuid of this service (before or after the handshake with the system manager); from the
   configuration key UUID, 0 when none is configured. */
HADRA_PLAT_API uint32_t sysmgr_uuid_get_before_handshake(void) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t sysmgr_uuid_get(void) PLAT_NOEXCEPT;

/*
 * Sequence numbers of sync messages, per registry index 1..10. sysmgr_seqno_sync records the
 * MTS HA sequence number of the message just sent for index: 0, or PLAT_ERR_SYSMGR_BAD_INDEX
 * for an index outside 1..10 (or beyond the entries allocated). It costs no round trip: the
 * numbers go to a table shared with the system-manager daemon, made on first use, so the
 * active supervisor reports without having allocated one. sysmgr_seqno_table_alloc(entries)
 * prepares a fresh table of indexes 1..entries (entries 1..10, else BAD_INDEX);
 * sysmgr_seqno_status_register() is the alternative in which no per-message report is made.
 * Both return 0 or an error code. Error codes are the unsigned values of errors.h returned
 * as int.
 */
HADRA_PLAT_API int sysmgr_seqno_sync(uint32_t index, uint64_t seqno) PLAT_NOEXCEPT;
HADRA_PLAT_API int sysmgr_seqno_table_alloc(uint32_t entries) PLAT_NOEXCEPT;
HADRA_PLAT_API int sysmgr_seqno_status_register(void) PLAT_NOEXCEPT;

/* ---- Procedures: gsync, switchover, handshake queries ----------------------------------
 *
 * The system manager drives a client through gsync and switchover with events (gsync
 * snapshot, gsync ready, gsync failed, switchover request, active marker, switchover done)
 * that the client's receive loop hands to the HA library's sysmgrcb_* callbacks. The calls
 * below are the client's answers to those events and its questions to the system manager.
 * They are served by the platform in this process until a system-manager daemon serves
 * them over messages; the testing interface reads back what they answered.
 */

/*
 * Request context of one event, passed to the callback as its `ctx` and given back,
 * unchanged, in the answer. The first 25 bytes are the MTS reference of the event's message
 * (received by the client's SAP; all zeros when the event did not come as a message): a
 * client that defers its switchover answer keeps a copy of just those bytes. req_id is the
 * system manager's number of the request; status is the platform status code that came with
 * the event (for gsync failed, the reason). 40 bytes; the layout must not change.
 */
typedef struct sysmgr_req_ctx {
  mts_msg_ref msg;      /* 0 */
  uint8_t reserved[3];  /* 25, zero */
  uint32_t req_id;      /* 28 */
  uint32_t status;      /* 32 */
  uint32_t reserved2;   /* 36, zero */
} sysmgr_req_ctx;

#ifdef __cplusplus
static_assert(sizeof(sysmgr_req_ctx) == 40 && offsetof(sysmgr_req_ctx, req_id) == 28 &&
                  offsetof(sysmgr_req_ctx, status) == 32,
              "sysmgr_req_ctx layout");
#else
_Static_assert(sizeof(sysmgr_req_ctx) == 40 && offsetof(sysmgr_req_ctx, req_id) == 28 &&
                   offsetof(sysmgr_req_ctx, status) == 32,
               "sysmgr_req_ctx layout");
#endif

/*
 * Answers to gsync events. ctx is the event's sysmgr_req_ctx (pointer-sized: on a 32-bit
 * system it was a 32-bit word); failed is 0 for success, 1 for failure (any non-zero value
 * counts as 1); the third argument of the snapshot answer is reserved and must be 0. An
 * answer to gsync failed is given with sysmgr_gsync_ready_done. Result 0; EINVAL for a null
 * ctx or a non-zero reserved argument; PLAT_ERR_SYSMGR_NO_DAEMON when the answer cannot be
 * delivered.
 */
HADRA_PLAT_API int sysmgr_gsync_snapshot_done(void *ctx, int failed, int reserved) PLAT_NOEXCEPT;
HADRA_PLAT_API int sysmgr_gsync_ready_done(void *ctx, int failed) PLAT_NOEXCEPT;
/* The status code that came with a gsync failed event: PLAT_ERR_SYSMGR_GSYNC_FATAL,
   PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE or any other platform code. EINVAL for a null ctx. */
HADRA_PLAT_API uint32_t sysmgr_gsync_ready_is_success(void *ctx) PLAT_NOEXCEPT;

/*
 * Answer to a switchover request. request: the 25-byte MTS reference of the request (the
 * first bytes of its sysmgr_req_ctx, or a copy of them); status 0 for success or the
 * client's own status. The reference is only read; the caller still owns the message and
 * drops it. Result 0; EINVAL for a null request; PLAT_ERR_SYSMGR_NO_DAEMON.
 */
HADRA_PLAT_API int sysmgr_switchover_done(const void *request, int32_t status) PLAT_NOEXCEPT;

/* Non-zero when this is the service's first start after a switchover (configuration key
   SWOVER_FIRST_START, default 0). */
HADRA_PLAT_API int sysmgr_is_swover_first_start(void) PLAT_NOEXCEPT;
/* Non-zero when the system manager has seen this service's handshake before this start,
   i.e. the service ran and went away without being told to (configuration key
   HANDSHAKE_DONE, default 0). */
HADRA_PLAT_API int sysmgr_conditional_srv_was_handshake_done(void) PLAT_NOEXCEPT;

/*
 * Handshake query. Ask the system manager whether the service uuid has its handshake
 * running: a message of opcode SYSMGR_OPC_HS_QUERY from sap to the system manager's SAP
 * (SYSMGR_SAP on this supervisor) whose payload is uuid as 4 bytes, most significant first.
 * *msg receives the reference of the sent query (the caller drops it with mts_drop(sap, msg)
 * once it has read what it needs, e.g. mts_rr_token_get). The system manager answers later
 * with a message of opcode SYSMGR_OPC_HS_RESPONSE to sap that carries the query's
 * request-response token; its payload is uuid, then 1 (running) or 0, each 4 bytes, most
 * significant first.
 * Result 0 when the query went out; otherwise -1 with errno from the send (ECONNREFUSED:
 * no system manager listening) or EINVAL (sap 0, uuid 0, null msg), and *msg names nothing.
 */
#define SYSMGR_SAP 0x1e00u
#define SYSMGR_OPC_HS_QUERY 0x1e01u
#define SYSMGR_OPC_HS_RESPONSE 0x1e02u
HADRA_PLAT_API int sysmgrcmn_nbs_is_srv_hs_running(uint32_t sap, uint32_t uuid, mts_msg_ref *msg) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
