/*
 * Shared types of the hadra HA library.
 *
 * Conventions of the whole interface:
 *  - Results are integers: 1 for success, 0 for failure, unless a function says otherwise.
 *  - Every pointer argument is tested for null before use; a null where a value is required
 *    is a failure (with a report where the function says so), never a crash.
 *  - Keys, values, names and lists belong to the caller for the duration of a call. The
 *    library copies names and URIs into registry entries and keeps no other pointer.
 *  - Threads: the library takes no lock and starts no thread. Client calls, the dispatcher
 *    and the system-manager callbacks share the handle, the registry and the library's static
 *    buffers; the client must serialise them.
 *  - Pointer width: records exchanged with the platform were laid out for 32-bit pointers.
 *    On 64-bit systems every field or argument that carries a pointer is pointer-sized; every
 *    other field keeps its stated width and, where possible, its offset.
 */
#ifndef HADRA_TYPES_H
#define HADRA_TYPES_H

#include <stddef.h>
#include <stdint.h>

#include "hadra/export.h"

/* datum (a pointer and a 32-bit length) and the SDB list records are the platform's; one
   definition serves both libraries. */
#include "hadra_platform/types.h"

/* HA state of a registry entry. */
enum {
  HADRA_HA_DISABLE = 0, /* not open; operations refuse to write */
  HADRA_HA_STANDBY = 1, /* copy on the standby, filled by gsync and sync messages */
  HADRA_HA_RECOVER = 2, /* opened with old contents after a stateful restart or switchover */
  HADRA_HA_ACTIVE = 3   /* in normal use */
};

/* Kind of a registry entry (db_type). An MSDB is an SDB with is_msdb set. */
enum { HADRA_DB_PSS = 0, HADRA_DB_SDB = 2 };

/* Option bits of hadra_ha_handle.flags; other bits are ignored. */
#define HADRA_HA_FLAG_SEQNO_STATUS 0x1u   /* standby registers for seqno status; no per-message report */
#define HADRA_HA_FLAG_PSS_MGET 0x2u       /* PSS iteration runs inside pss2_mget_begin/done */
#define HADRA_HA_FLAG_SNAPSHOT_YIELD 0x4u /* pss2_snapshot is bracketed by tsp_before/after_yield */

/* Supervisor state as sysmgr_supstate_get() returns it; any other value means neither. */
#define HADRA_SUP_ACTIVE PLAT_SUP_ACTIVE
#define HADRA_SUP_STANDBY PLAT_SUP_STANDBY

/* History event code of every trace record of the library. */
#define HADRA_HA_HIST_EVENT 0x730000u

/* Sync opcodes carried in the sync header. */
enum {
  HADRA_SYNC_PSS_UPDATE = 1,
  HADRA_SYNC_PSS_DELETE = 2,
  HADRA_SYNC_PSS_DESTROY = 3,
  HADRA_SYNC_SDB_UPDATE = 4,
  HADRA_SYNC_SDB_DELETE = 5,
  HADRA_SYNC_SDB_DESTROY = 6,
  HADRA_SYNC_PSS_DELETE_RANGE = 7,
  HADRA_SYNC_SDB_BATCH_UPDATE = 8,
  HADRA_SYNC_MSDB_BATCH_UPDATE = 9,
  HADRA_SYNC_PSS_PURGE = 10
};

#endif
