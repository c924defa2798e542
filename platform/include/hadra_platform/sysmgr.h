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

PLAT_EXTERN_C_END

#endif
