/*
 * Lifecycle of whole databases: PSS files and SDBs opened, created, copied, closed and
 * destroyed; the per-database start-up run by initialisation; and disabling.
 *
 * Conventions (in addition to those of types.h):
 *  - Results are 1 for success and 0 for failure unless a function says otherwise. Nothing
 *    is retried; a failure is reported where it happens (debug line and, where stated, an
 *    error report) and the caller decides what follows.
 *  - URIs are NUL-terminated strings of at most 255 characters ("<area>:/<path>"), read
 *    during the call only. A null URI is a failure, never a crash.
 *  - PSS handles are the platform's 32-bit pss2 handles; 0 means none. A handle that a
 *    function returns through an out argument belongs to the caller, who closes it with
 *    hadra_pss_close(). Temporary handles are closed before the function returns.
 *  - SDBs are named by URI in the platform's calls; the library's SDB handle is the
 *    registry entry (registry.h). None of these functions changes an entry's HA state except
 *    hadra_ha_db_start() and the disabling functions.
 *  - No locks are taken: a database's lifecycle calls must not overlap other calls on it.
 */
#ifndef HADRA_LIFECYCLE_H
#define HADRA_LIFECYCLE_H

#include "hadra/registry.h"

HADRA_EXTERN_C_BEGIN

/* The platform's 16-byte pss2 parameter record (hadra_platform/pss.h). */
struct pss2_params;

/* Size limit given to every PSS file the library creates: 10 MiB. */
#define HADRA_PSS_MAX_DBSIZE 0xa00000u

/* ---- PSS files ---- */

/* 1 when a PSS file exists at uri and can be opened (probed under uuid and closed again);
   0 otherwise, and for a null uri (then no platform call is made). */
HADRA_API int hadra_pss_exist(const char *uri, uint32_t uuid) HADRA_NOEXCEPT;

/*
 * Create the PSS file at uri, or open it for writing when it exists, and limit it to
 * HADRA_PSS_MAX_DBSIZE bytes. params: a parameter record for a new file, or null for the
 * platform's defaults. The handle is written to *out_handle, even when the open fails (it
 * is then 0). Result 1 with the file open; 0 when uri or out_handle is null, when the open
 * fails (msg_error_HADRA_PSS_CREATE) or when the limit cannot be set
 * (msg_error_HADRA_PSS_SET_DBSIZE: the new file is closed and destroyed again).
 */
HADRA_API int hadra_pss_create(const char *uri, const struct pss2_params *params,
                               uint32_t *out_handle) HADRA_NOEXCEPT;

/* Open the existing PSS file at uri; the handle (0 on failure) goes to *out_handle.
   0 for a null uri or out_handle, and when the open fails (msg_error_HADRA_PSS_OPEN). */
HADRA_API int hadra_pss_open(const char *uri, uint32_t *out_handle) HADRA_NOEXCEPT;

/* Close a pss2 handle. 0 for handle 0 (no platform call) and when the close fails
   (msg_error_HADRA_PSS_CLOSE). */
HADRA_API int hadra_pss_close(uint32_t handle) HADRA_NOEXCEPT;

/*
 * Copy the open PSS file of source_handle into the PSS file at dest_uri, created (or opened)
 * with the source's parameters; the copy's records replace whatever dest_uri held. The
 * source stays open; the destination is closed again whatever the outcome. 0 for a zero
 * handle or null dest_uri, and when the parameters cannot be read
 * (msg_error_HADRA_PSS_GETPARAM), the destination cannot be created, or the copy fails
 * (msg_error_HADRA_PSS_SNAPSHOT; the destination may then hold part of the copy). With
 * HADRA_HA_FLAG_SNAPSHOT_YIELD the copy is bracketed by tsp_before_yield/tsp_after_yield.
 */
HADRA_API int hadra_pss_snapshot_to_uri(uint32_t source_handle, const char *dest_uri) HADRA_NOEXCEPT;

/* Destroy whatever database is stored at uri, a PSS file or an SDB. No result: failures
   (nothing stored there included) are told by hadra_sdb_uri_destroy's debug lines. */
HADRA_API void hadra_destroy_uri(const char *uri) HADRA_NOEXCEPT;

/*
 * Bring one registered database up, as initialisation does for each:
 *  - stateful restart: the old contents are kept (a missing PSS file is created empty);
 *    state HADRA_HA_RECOVER;
 *  - preserved PSS file that exists: kept; state HADRA_HA_ACTIVE;
 *  - otherwise (stateless start, or a case above that failed): a configuration file becomes
 *    a copy of its startup-configuration file (or empty when there is none), an SDB is
 *    destroyed and created afresh, any other PSS file starts empty; state HADRA_HA_ACTIVE.
 * A PSS file stays open in entry->pss_handle. A handle the entry still holds from an
 * earlier start is closed first. Result 1, or 0 with the state left as it was.
 */
HADRA_API int hadra_ha_db_start(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* ---- Disabling ---- */

/*
 * End a database's life in the library: close and destroy its store, tell the standby
 * (PSS_DESTROY or SDB_DESTROY, sent from the active supervisor even for an unsynced
 * database), and leave the entry in HADRA_HA_DISABLE with an empty uri (index, name, kind,
 * flags and callback stay). An entry already disabled (state 0), or null, is left alone.
 * Failures of the steps are reported by them and do not stop the disabling.
 */
HADRA_API void hadra_ha_disable(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* hadra_ha_disable() on entries 1 to 10, in ascending order. */
HADRA_API void hadra_ha_disable_all(void) HADRA_NOEXCEPT;

/* ---- SDBs ---- */

/*
 * Create the entry's SDB (an MSDB when is_msdb is set), announce it with a create
 * notification under cre_del_opcode, and register update_opcode with the platform (not when
 * it is 0: such an SDB sends no update notifications, and there is nothing to register). An
 * SDB that already exists counts as created. 0 for a null entry, and when the creation, the
 * notification or the registration fails.
 */
HADRA_API int hadra_sdb_create(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/*
 * Open the existing SDB at uri in this process, for reading and writing when read_write is
 * non-zero (and then recover it under the client's SAP), else for reading. An SDB that this
 * process has open already gives 1 without recovery. 0 for a null uri, a failed open, or a
 * failed recovery (the SDB then stays open).
 */
HADRA_API int hadra_sdb_open(const char *uri, int read_write) HADRA_NOEXCEPT;

/* Close this process's opening of the SDB at uri. 0 for a null uri or a failed close. */
HADRA_API int hadra_sdb_close(const char *uri) HADRA_NOEXCEPT;

/*
 * Close and destroy the entry's SDB around a delete notification under cre_del_opcode. A
 * failed close or destruction start is told and the destruction goes on. Result 1 (also
 * when the final step fails); 0 for a null entry, and when the notification cannot be sent,
 * in which case the destruction is not completed.
 */
HADRA_API int hadra_sdb_destroy(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* Destroy the database stored at uri: a PSS file with pss2_destroy, anything else with
   sdb_destroy. 1 on success; 0 for a null uri, nothing stored there, or a failed destroy. */
HADRA_API int hadra_sdb_uri_destroy(const char *uri) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
