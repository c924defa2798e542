/*
 * The database registry: up to ten PSS files, SDBs and MSDBs under fixed indexes 1 to 10.
 *
 * hadra_ha_pss is an exported array of 11 entries (entry 0 is never used), zero at load. A
 * pointer to an entry is the database handle of every PSS and SDB operation. The index must
 * be the same on both supervisors: it is what a sync message names.
 *
 * hadra_ha_pss_entry layout (natural C alignment, 368 bytes) must not change; it is pinned
 * below. `pss_handle` is a 32-bit pss2 handle, not a pointer, so nothing here changes width
 * on 64-bit systems.
 */
#ifndef HADRA_REGISTRY_H
#define HADRA_REGISTRY_H

#include "hadra/types.h"

HADRA_EXTERN_C_BEGIN

#define HADRA_HA_MAX_DB 10      /* usable registry indexes 1..10 */
#define HADRA_HA_NAME_LEN 32    /* bytes of name and cfg_name, NUL included */
#define HADRA_HA_URI_LEN 256    /* bytes of uri, NUL included */

typedef struct hadra_ha_pss_entry {
  uint8_t index;                     /* own number 1..10; first byte of every sync message */
  char name[HADRA_HA_NAME_LEN];      /* registered name (cut to fit), names the snapshot file */
  char uri[HADRA_HA_URI_LEN];        /* complete URI; empty = free or disabled entry */
  char cfg_name[HADRA_HA_NAME_LEN];  /* startup-configuration file name (hadra_pss_set_config) */
  uint32_t pss_handle;               /* open pss2 handle of a PSS file; 0 when closed */
  uint32_t state;                    /* HADRA_HA_DISABLE .. HADRA_HA_ACTIVE */
  uint32_t db_type;                  /* HADRA_DB_PSS or HADRA_DB_SDB */
  uint32_t is_config;                /* 1: configuration file */
  uint32_t local_only;               /* non-zero: PSS writes are not synced */
  uint32_t no_sync;                  /* non-zero: not synced to the standby at all */
  uint32_t preserve;                 /* 1: PSS file survives a stateless restart */
  uint32_t purge_invalid_keys;       /* non-zero: the iterator deletes rejected key types */
  uint32_t cre_del_opcode;           /* SDB: MTS opcode of create/delete notifications */
  uint32_t update_opcode;            /* SDB: MTS opcode of update notifications */
  uint32_t is_msdb;                  /* 1: the SDB is a multi-key SDB */
} hadra_ha_pss_entry;

#define HADRA_ENTRY_LAYOUT_CHECKS(A)                                                             \
  A(sizeof(hadra_ha_pss_entry) == 368 && offsetof(hadra_ha_pss_entry, index) == 0 &&             \
        offsetof(hadra_ha_pss_entry, name) == 1 && offsetof(hadra_ha_pss_entry, uri) == 33 &&     \
        offsetof(hadra_ha_pss_entry, cfg_name) == 289 &&                                          \
        offsetof(hadra_ha_pss_entry, pss_handle) == 324 &&                                        \
        offsetof(hadra_ha_pss_entry, state) == 328 && offsetof(hadra_ha_pss_entry, db_type) == 332 && \
        offsetof(hadra_ha_pss_entry, is_config) == 336 &&                                         \
        offsetof(hadra_ha_pss_entry, local_only) == 340 &&                                        \
        offsetof(hadra_ha_pss_entry, no_sync) == 344 &&                                           \
        offsetof(hadra_ha_pss_entry, preserve) == 348 &&                                          \
        offsetof(hadra_ha_pss_entry, purge_invalid_keys) == 352 &&                                \
        offsetof(hadra_ha_pss_entry, cre_del_opcode) == 356 &&                                    \
        offsetof(hadra_ha_pss_entry, update_opcode) == 360 &&                                     \
        offsetof(hadra_ha_pss_entry, is_msdb) == 364,                                             \
    "hadra_ha_pss_entry layout")
#ifdef __cplusplus
HADRA_ENTRY_LAYOUT_CHECKS(static_assert);
#else
HADRA_ENTRY_LAYOUT_CHECKS(_Static_assert);
#endif

/*
 * Sync callback of a registry index, called on the standby after a sync message was applied
 * to that database: (data or null, key or null, data length, sync opcode). Result ignored.
 */
typedef int (*hadra_ha_sync_cb_fn)(void *data, void *key, uint32_t data_len, uint32_t sync_opcode);

/* The registry; entries 1..10 are used. */
HADRA_API extern hadra_ha_pss_entry hadra_ha_pss[HADRA_HA_MAX_DB + 1];

/* Names of the four HA states, indexed by state ("HADRA_HA_DISABLE" ...). For clients. */
HADRA_API extern const char *const hadra_ha_pss_state2str[4];

/* Non-zero: databases registered from now on are not synced (their no_sync is set). */
HADRA_API extern uint32_t hadra_no_pss_sync;

/*
 * Registration. Each returns the registered entry, or null. index must be 1..10 and name a
 * non-empty NUL-terminated string; the URI is built from the running-configuration URI, the
 * service's file prefix (PSS files only) and the whole name, while `name` keeps what fits in
 * 32 bytes. Registering an index again overwrites its identity; `state` is never changed.
 * PSS registration reports its failures; SDB and MSDB registration fail silently.
 * The _with_callback forms store the sync callback for the index first (1..10 only); a failed
 * registration leaves that callback in place.
 * SDB opcodes: cre_del_opcode is the MTS opcode of the SDB's create/delete notifications;
 * update_opcode that of its update notifications, or 0 for an SDB that sends none (sdb.h).
 */
HADRA_API hadra_ha_pss_entry *hadra_ha_register_pss(uint8_t index, const char *name) HADRA_NOEXCEPT;
HADRA_API hadra_ha_pss_entry *hadra_ha_register_pss_with_callback(uint8_t index, const char *name,
                                                                  hadra_ha_sync_cb_fn callback) HADRA_NOEXCEPT;
HADRA_API hadra_ha_pss_entry *hadra_ha_register_sdb(uint8_t index, const char *name, uint32_t cre_del_opcode,
                                                    uint32_t update_opcode) HADRA_NOEXCEPT;
HADRA_API hadra_ha_pss_entry *hadra_ha_register_sdb_with_callback(uint8_t index, const char *name,
                                                                  uint32_t cre_del_opcode, uint32_t update_opcode,
                                                                  hadra_ha_sync_cb_fn callback) HADRA_NOEXCEPT;
HADRA_API hadra_ha_pss_entry *hadra_ha_register_msdb(uint8_t index, const char *name, uint32_t cre_del_opcode,
                                                     uint32_t update_opcode) HADRA_NOEXCEPT;

/* Entry settings; each does nothing for a null entry. */
HADRA_API void hadra_pss_set_config(hadra_ha_pss_entry *entry, const char *cfg_name) HADRA_NOEXCEPT;
HADRA_API void hadra_pss_set_preserve(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;
HADRA_API int hadra_pss_is_preserve(const hadra_ha_pss_entry *entry) HADRA_NOEXCEPT; /* 0 for null */
HADRA_API void hadra_ha_set_db_recovering(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;
HADRA_API void hadra_ha_set_db_active(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;
HADRA_API int hadra_ha_is_db_standby(const hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;
HADRA_API int hadra_ha_is_db_recovering(const hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* "disable", "standby", "recovering", "active"; "invalid handle" for null, "invalid state"
   for any other state. Static text. */
HADRA_API const char *hadra_ha_state_str(const hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
