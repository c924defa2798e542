/*
 * Platform configuration.
 *
 * A value of key K is looked up, in this order: the environment variable HADRA_<K>; the line
 * "K = value" of the configuration file named by HADRA_CONFIG (or <root>/platform.conf when it
 * exists); the default. Keys used by the platform:
 *   ROOT          supervisor root directory; default ${TMPDIR:-/tmp}/hadra-<uid>/sup<SLOT>
 *   SLOT          supervisor slot, 1 or 2; default 1
 *   SUPSTATE      "active", "standby" or "none" (or 1, 2, 0); default active
 *   RUNNING_URI   running-configuration base URI; default "run:/"
 *   STARTUP_URI   startup-configuration base URI; default none
 *   FILE_PREFIX   file-name prefix of the service; default none
 *   STATEFUL      1 when the service was restarted with its state kept; default 0
 *   LOG           stderr | syslog | file:<path> | none; default file <root>/log/platform.log
 *   LOG_IDENT     identity of log lines; default the program name
 *   RATE_BURST, RATE_INTERVAL_MS   rate limit of error reports; default 3 per 1000 ms
 *   TSP_SLICE_US  time slice after which tsp_should_sched_yield() answers yes; default 10000
 *   SWOVER_FIRST_START, HANDSHAKE_DONE   1: first start after a switchover / this service's
 *                 handshake with the system manager is done; default 0
 *   DURABILITY    when store commits reach the disk: sync (before the call returns), group
 *                 (within DURABILITY_DELAY_MS, default 100 ms, by a flusher thread) or none
 *                 (when the kernel writes them); default group. Every setting keeps a commit
 *                 across a crash of the process; README "Durability and failure" says what
 *                 each keeps across a power cut.
 *   PSS_SYNC, SDB_SYNC   1: sync for that store kind whatever DURABILITY says
 *   STORE_WRITEMAP 0: open stores without LMDB's writable map (slower commits; see
 *                 platform/common/lmdb_store.h); default 1
 *   ROOT_GROUP    a group that shares the root: directories the platform makes under the
 *                 root are 0750 and sockets 0660 with that group (default none: 0700 and 0600,
 *                 set explicitly whatever the umask). For the directories, read from the
 *                 environment only (the configuration file lives under the root).
 *   MTS_KEY_FILE  this supervisor's key pair for the transport ("public = <z85>" and
 *                 "secret = <z85>" lines; made by `hadra-sysmgrd --keygen <file>`, mode 0600);
 *                 default none. When set, every socket of the ZeroMQ transport uses CURVE and
 *                 admits only this key and the peer's; every process of the supervisor reads it.
 *   MTS_PEER_KEY  the peer supervisor's public key (40 Z85 characters), or the path of a file
 *                 with a "public = " line; required with MTS_KEY_FILE. See docs/security.md.
 * Services keep their own keys next to their contracts (mts.h, pss.h, sdb.h).
 *
 * Areas under the root: run/ and startup/ (configurations), snap/ (gsync snapshots), log/
 * (platform log), sysmgr/ (system-manager tables such as the sequence-number table), sock/
 * (transport sockets).
 */
#ifndef HADRA_PLATFORM_CONFIG_H
#define HADRA_PLATFORM_CONFIG_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/* Value of key, or dflt. The result stays valid until plat_config_reload(). */
HADRA_PLAT_API const char *plat_config_get(const char *key, const char *dflt) PLAT_NOEXCEPT;
HADRA_PLAT_API long plat_config_get_long(const char *key, long dflt) PLAT_NOEXCEPT;
/* Forget cached values and read environment and file again. */
HADRA_PLAT_API void plat_config_reload(void) PLAT_NOEXCEPT;
/* The supervisor's root directory (created on first use). */
HADRA_PLAT_API const char *plat_root(void) PLAT_NOEXCEPT;
/*
 * Map a URI ("<area>:/<path>") to its file path under the root, creating parent directories
 * when mkdirs is non-zero. 0 on success; -1 (errno EINVAL or ENAMETOOLONG) for a URI that is
 * malformed, escapes the root or does not fit out.
 */
HADRA_PLAT_API int plat_uri_to_path(const char *uri, char *out, size_t out_size, int mkdirs) PLAT_NOEXCEPT;
/* Platform clock in nanoseconds (monotonic; tests may set it). */
HADRA_PLAT_API uint64_t plat_now_ns(void) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
