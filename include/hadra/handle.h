/*
 * The HA handle: identity of the client service, its system-manager hooks and option bits.
 *
 * One exported record, hadra_ha_handle, zero at load, filled by initialisation and cleared
 * by close. The same layout is the argument of hadra_ha_api_init().
 *
 * Layout note: the hook fields are pointers. On a 32-bit system each took a 32-bit word and
 * the record was 80 bytes; on 64-bit systems they are pointer-sized and 8-aligned, so they
 * start at offset 24 (after 4 bytes of padding) and `name` moves to 72. The widths of all
 * other fields are unchanged. The layout must not change: it is pinned below.
 */
#ifndef HADRA_HANDLE_H
#define HADRA_HANDLE_H

#include "hadra/types.h"

HADRA_EXTERN_C_BEGIN

/* Hook without arguments (switchover, switchover done, active marker, gsync failed). */
typedef void (*hadra_ha_hook_fn)(void);

/*
 * Gsync hook: called with the gsync event's three arguments (ctx, base URI, arg) and a
 * pointer to a reply flag that the library presets to 1. A hook that sets the flag to 0
 * takes over the reply to the system manager; the hook's result is ignored. Each argument that carries a pointer (ctx,
 * base URI, arg, reply-flag pointer) is pointer-sized here rather than a 32-bit word.
 */
typedef int (*hadra_ha_gsync_hook_fn)(void *ctx, const char *base_uri, void *arg, int32_t *reply);

typedef struct hadra_ha_handle_t {
  uint32_t uuid;        /* client service uuid; tags history records, passed to pss2_open */
  uint32_t sap;         /* client MTS SAP: source of sync messages and notifications */
  uint32_t opcode;      /* MTS opcode of the client's sync messages */
  uint32_t initialized; /* 1 after a successful initialisation; never copied from the caller */
  uint32_t spare;       /* copied at initialisation, never read */
  hadra_ha_hook_fn switchover_cb;           /* null: the library completes a switchover itself */
  hadra_ha_hook_fn switchover_done_cb;      /* switchover-done event */
  hadra_ha_gsync_hook_fn gsync_snapshot_cb; /* gsync-snapshot event */
  hadra_ha_gsync_hook_fn gsync_ready_cb;    /* gsync-ready event */
  hadra_ha_hook_fn active_marker_cb;        /* switchover active-marker event */
  hadra_ha_hook_fn gsync_failed_cb;         /* gsync failed */
  char name[32];                            /* client name, NUL-terminated */
  uint32_t flags;                           /* HADRA_HA_FLAG_* bits */
} hadra_ha_handle_t;

#ifdef __cplusplus
static_assert(sizeof(void *) == 8, "hadra records are laid out for 64-bit pointers");
static_assert(sizeof(hadra_ha_handle_t) == 112, "hadra_ha_handle_t layout");
static_assert(offsetof(hadra_ha_handle_t, uuid) == 0 && offsetof(hadra_ha_handle_t, sap) == 4 &&
                  offsetof(hadra_ha_handle_t, opcode) == 8 &&
                  offsetof(hadra_ha_handle_t, initialized) == 12 &&
                  offsetof(hadra_ha_handle_t, spare) == 16 &&
                  offsetof(hadra_ha_handle_t, switchover_cb) == 24 &&
                  offsetof(hadra_ha_handle_t, switchover_done_cb) == 32 &&
                  offsetof(hadra_ha_handle_t, gsync_snapshot_cb) == 40 &&
                  offsetof(hadra_ha_handle_t, gsync_ready_cb) == 48 &&
                  offsetof(hadra_ha_handle_t, active_marker_cb) == 56 &&
                  offsetof(hadra_ha_handle_t, gsync_failed_cb) == 64 &&
                  offsetof(hadra_ha_handle_t, name) == 72 && offsetof(hadra_ha_handle_t, flags) == 104,
              "hadra_ha_handle_t offsets");
#else
_Static_assert(sizeof(void *) == 8, "hadra records are laid out for 64-bit pointers");
_Static_assert(sizeof(hadra_ha_handle_t) == 112, "hadra_ha_handle_t layout");
_Static_assert(offsetof(hadra_ha_handle_t, switchover_cb) == 24 &&
                   offsetof(hadra_ha_handle_t, name) == 72 && offsetof(hadra_ha_handle_t, flags) == 104,
               "hadra_ha_handle_t offsets");
#endif

/* The client's HA handle. Written by initialisation and close only. */
HADRA_API extern hadra_ha_handle_t hadra_ha_handle;

/*
 * Initialise the library for this client. record (may be null: the handle keeps what it
 * holds) supplies uuid, sap, opcode, spare, the six hooks, name and flags. Starts every
 * registered database according to how the service was started and, on the standby, asks
 * the system manager for a gsync. Result 1; 0 when a database could not be started, in
 * which case every database is disabled and `initialized` is left as it was.
 */
HADRA_API int hadra_ha_api_init(const hadra_ha_handle_t *record) HADRA_NOEXCEPT;

/* Initialise a client that is never synced: copies only uuid and sap, marks every database
   unsynced and starts each whatever the supervisor state. Result 1 or 0 as above. */
HADRA_API int hadra_ha_no_gsync_api_init(const hadra_ha_handle_t *record) HADRA_NOEXCEPT;

/* Disable every database (closing and destroying it) and clear the handle to all zero. */
HADRA_API void hadra_ha_api_close(void) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
