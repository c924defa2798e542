/*
 * The system manager's procedures, as the client takes part in them: global sync (gsync),
 * switchover, the configuration write, and the client's recovery, start reason and service
 * notifications.
 *
 * Who calls what:
 *  - sysmgrcb_* and hadra_sysmgr_cfg_write_cb are called by the platform's system-manager
 *    layer inside the client, when the system manager delivers an event; they keep the
 *    platform's fixed names. hadra_ha_drop_active_msgs, hadra_ha_recovery_done,
 *    hadra_get_start_reason, hadra_deconfiguration_complete, sysmgr_notify and
 *    sysmgr_notify_response_uuid_get are called by the client.
 *  - Each event callback acts only after a successful initialisation (hadra_ha_api_init).
 *    Before it, the event is reported (msg_error_HADRA_HA_UNINITIALIZED), answered with
 *    success where the event expects an answer, and nothing else happens.
 *
 * Conventions (in addition to those of types.h):
 *  - ctx is the system manager's request context of the event (the platform's
 *    sysmgr_req_ctx). The library only hands it back in its answer, except that a deferred
 *    switchover keeps a copy of its first 25 bytes, the MTS reference of the request
 *    message. ctx, the unused switchover arguments and arg are pointer-sized here: each was
 *    a 32-bit word on 32-bit systems.
 *  - Results follow each callback's own rule (0, 1 or an errno value), stated below.
 *  - The callbacks walk the registry (entries 1 to 10, in order) and change `state` and
 *    `pss_handle` of its entries without a lock: the client must not run PSS or SDB
 *    operations on another thread while one of them runs.
 *  - URIs are NUL-terminated "<area>:/<path>" strings, read during the call only.
 */
#ifndef HADRA_SYSMGRCB_H
#define HADRA_SYSMGRCB_H

#include "hadra/registry.h"

HADRA_EXTERN_C_BEGIN

/* ---- Switchover (on the supervisor that becomes active) ---- */

/*
 * Switchover request. Every database in HADRA_HA_STANDBY becomes HADRA_HA_RECOVER; other
 * states are kept. Without a switchover hook in the handle the request is answered at once
 * with success and the result is 0. With one, the request's message reference is kept, the
 * hook is called, and the result is 1: the answer is then the client's, given through
 * hadra_ha_recovery_done(). hot: non-zero for a hot switchover (only the debug trace
 * differs); reserved1 and reserved2 are not used; seq_mismatch: non-zero when the system
 * manager found the sync sequence numbers out of step (traced only). The client sets its
 * databases HADRA_HA_ACTIVE itself (hadra_ha_set_db_active) once it has recovered.
 */
HADRA_API int sysmgrcb_switchover(void *ctx, int hot, void *reserved1, void *reserved2,
                                  int seq_mismatch) HADRA_NOEXCEPT;

/* Switchover active-marker / switchover-done events: call the client's hook when it has
   one. Result 0. */
HADRA_API int sysmgrcb_switchover_active_marker(void) HADRA_NOEXCEPT;
HADRA_API int sysmgrcb_switchover_done(void) HADRA_NOEXCEPT;

/*
 * Take YOU_ARE_ALMOST_ACTIVE and then YOU_ARE_ACTIVE off the client's queue sap and drop
 * them: exactly two blocking receives. A failed receive is reported and the next step still
 * runs; a message of another opcode is reported and left undropped, and ends the call.
 */
HADRA_API void hadra_ha_drop_active_msgs(uint32_t sap) HADRA_NOEXCEPT;

/*
 * The client has recovered after a switchover whose answer it took over: the system manager
 * is answered with status (0 for success, passed unchanged) and the kept request message is
 * released. Result: that of releasing the message (0, or -1 with errno set). Called when no
 * switchover is waiting for the client's answer (none yet, or already answered), it reports
 * msg_error_HADRA_API_FAILED, answers nothing and gives -1 with errno EINVAL. Database
 * states are not changed.
 */
HADRA_API int hadra_ha_recovery_done(int32_t status) HADRA_NOEXCEPT;

/* ---- Global sync ---- */

/*
 * Gsync hooks, on both sides: the library sets a reply flag to 1 and passes its address to
 * the handle's gsync_snapshot_cb / gsync_ready_cb with (ctx, base_uri, arg). A hook that
 * leaves anything but 1 in it (snapshot) or 0 in it (ready) answers the system manager itself.
 */

/*
 * Active side: write every registered database into the snapshot area base_uri: a PSS file
 * as a copy named by the service's file prefix and its registered name, an SDB through the
 * SDB library. The first database that cannot be written ends the walk. On success MTS is
 * told that the snapshot of the client's SAP is complete. Result 0 on success, else the
 * errno value left by the failing step. Databases are left open and in their state.
 */
HADRA_API int sysmgrcb_gsync_snapshot(void *ctx, const char *base_uri, void *arg) HADRA_NOEXCEPT;

/*
 * Standby side: rebuild every registered database from the snapshot area base_uri and set
 * it HADRA_HA_STANDBY; a PSS file the area does not hold is created empty, an SDB whose
 * snapshot cannot be read is created empty. Unsynced databases are not touched. The first
 * database that cannot be rebuilt ends the walk (later ones keep their state) and MTS is not
 * told that gsync is complete. Result 0 on success, the errno value of the failing step on
 * failure, and 1 when the gsync_ready_cb hook took the answer over.
 */
HADRA_API int sysmgrcb_gsync_ready(void *ctx, const char *base_uri, void *arg) HADRA_NOEXCEPT;

/*
 * Standby side: gsync did not succeed. The reason is the status of the event: a fatal gsync
 * error (0x401e0010) ends the process with exit status 1 without an answer; "service not
 * running on the active supervisor" (0x401e0011) starts every registered database empty in
 * HADRA_HA_STANDBY and calls gsync_failed_cb; any other reason is only reported. Then the
 * event is answered with success. Result 0.
 */
HADRA_API int sysmgrcb_gsync_failed(void *ctx) HADRA_NOEXCEPT;

/*
 * Write one database's snapshot into / rebuild it from the area (used by the gsync
 * callbacks; entry is an SDB or MSDB entry). An entry with no_sync set gives 1 and is left
 * alone. Write: 0 for a null area or a failed write; the database stays open and in its
 * state. Restore: an unreadable or missing snapshot gives an empty database; on success the
 * database is open and HADRA_HA_STANDBY; 0 for a null area, or when the database cannot be
 * announced, created or opened.
 */
HADRA_API int hadra_sdb_create_sync_snapshot(const char *base_uri, hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;
HADRA_API int hadra_sdb_restore_sync_snapshot(const char *source_uri, hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* ---- Configuration write ---- */

/*
 * The system manager saves the running configuration: every PSS configuration file
 * (hadra_pss_set_config) is copied into the area cfg_uri as "<client name>_<cfg_name>"
 * (formed by the platform's URI completion). A copy that fails is reported and the others
 * are still made. ctx is not used. Result 0; nothing is answered.
 */
HADRA_API int hadra_sysmgr_cfg_write_cb(void *ctx, const char *cfg_uri) HADRA_NOEXCEPT;

/* ---- Start reason, deconfiguration, notifications ---- */

/* URI of the start-reason marker PSS file; filled by the first hadra_get_start_reason(). */
#define HADRA_CFG_URI_LEN 256
HADRA_API extern char hadra_cfg_uri[HADRA_CFG_URI_LEN];

/*
 * Why this instance of the client started: 0 unknown, 1 crash, 2 controlled restart,
 * 3 configuration, 4 standby, 5 switchover (names: hadra_start_type_str). Decided at the
 * first call from the marker PSS file (present: 1 or 2; absent: 3, 4 or 5, and the marker is
 * created) and cached: later calls return the first decision without any platform call.
 */
HADRA_API uint32_t hadra_get_start_reason(void) HADRA_NOEXCEPT;

/* The client was removed from the configuration: destroy the marker PSS file, so that the
   next start counts as a configuration start. Result: the platform's destroy status (0). */
HADRA_API uint32_t hadra_deconfiguration_complete(void) HADRA_NOEXCEPT;

/* One query of sysmgr_notify: the service asked about (0: entry unused) and the
   request-response token of the query. Layout fixed: two 32-bit words. */
typedef struct sysmgr_server_notify_entry {
  uint32_t uuid;
  uint32_t rr_token;
} sysmgr_server_notify_entry;

#define HADRA_NOTIFY_ENTRIES 100
/* Queries made by sysmgr_notify, in order; entries are never removed. */
HADRA_API extern sysmgr_server_notify_entry sysmgr_server_notify[HADRA_NOTIFY_ENTRIES];

/*
 * Ask the system manager, from the client's SAP sap, whether the service called name has its
 * handshake running, and record the query. 1 when the query went out and was recorded; 0 for
 * a null or unknown name, a query that could not be sent, or a full table (100 queries).
 */
HADRA_API int sysmgr_notify(uint32_t sap, const char *name) HADRA_NOEXCEPT;

/* The uuid of the service that the system manager's response msg (a 25-byte MTS message
   reference) answers, found by its request-response token; 0 when no query matches. */
HADRA_API uint32_t sysmgr_notify_response_uuid_get(const void *msg) HADRA_NOEXCEPT;

#if defined(__cplusplus)
static_assert(sizeof(sysmgr_server_notify_entry) == 8 && offsetof(sysmgr_server_notify_entry, rr_token) == 4,
              "sysmgr_server_notify_entry layout");
#else
_Static_assert(sizeof(sysmgr_server_notify_entry) == 8 && offsetof(sysmgr_server_notify_entry, rr_token) == 4,
               "sysmgr_server_notify_entry layout");
#endif

HADRA_EXTERN_C_END

#endif
