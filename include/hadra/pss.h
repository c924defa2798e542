/*
 * Record operations on registered PSS files.
 *
 * Every call takes the database's registry entry (a pointer into hadra_ha_pss, as
 * hadra_ha_register_pss returned it) as its handle and works on the entry's open PSS file.
 *
 * Writes: hadra_pss_update, hadra_pss_delete, hadra_pss_delete_range, hadra_pss_purge.
 *  - Refused with a report in HA state HADRA_HA_DISABLE; accepted in standby, recovering and
 *    active (the standby's dispatcher applies sync messages through these same calls).
 *  - The change is applied to the local file first. Only when that succeeded, and the entry
 *    has neither `no_sync` nor `local_only` set, is it handed to hadra_ha_sync() as one sync
 *    message (on the standby supervisor the sender sends nothing). A failed sync is reported
 *    by the sender and never undoes the local change: the result stays 1.
 *  - Bad arguments are reported (msg_error_HADRA_INVALID_ARG, naming which argument was
 *    missing) and give 0; a failed store is reported with its own message and gives 0.
 *
 * Reads: hadra_pss_get_first, hadra_pss_get_next, hadra_pss_move2key, hadra_pss_fetch,
 * hadra_pss_iterator. They send nothing and work on either supervisor in every HA state but
 * disabled (the iterator does not look at the state at all).
 *  - Position: the entry's PSS handle has one position, shared by get_first, get_next,
 *    move2key and the iterator. Calls that move it must not run at the same time on one
 *    entry.
 *  - Returned memory: key and value pointers handed out point into memory that belongs to the
 *    PSS layer. The library copies nothing and frees nothing. A key stays valid until the
 *    next call that moves the entry's position; a value until the next read or move on the
 *    entry; a fetched value until the next fetch. Never write through them.
 *  - "No record" (PSS status 0x40480003) is not an error: each call below says what it gives.
 *
 * Threads: no locks; the client serialises calls on one entry (see hadra/types.h).
 */
#ifndef HADRA_PSS_H
#define HADRA_PSS_H

#include "hadra/registry.h"

HADRA_EXTERN_C_BEGIN

/* ---- Writes ---- */

/*
 * Store data under key (both required, lengths non-zero), replacing a record that is there,
 * then sync it (PSS_UPDATE). A synced entry also refuses data_len above 65535 before storing
 * anything: one sync message cannot carry more, and the standby must never miss a record
 * that the active holds. Result 1 when the record was stored, 0 otherwise.
 */
HADRA_API int hadra_pss_update(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, const void *data,
                               uint32_t data_len) HADRA_NOEXCEPT;

/*
 * Delete the record of key (required, length non-zero), then sync (PSS_DELETE). Deleting a
 * key that is not stored is a failed delete (reported, nothing synced). Result 1 or 0.
 */
HADRA_API int hadra_pss_delete(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) HADRA_NOEXCEPT;

/*
 * Delete every record whose key begins with prefix (required; prefix_len 0 matches every
 * record), then sync the prefix (PSS_DELETE_RANGE); the standby repeats the deletion itself.
 * Result 1 when the deletion ran, also when it matched nothing; 0 on failure.
 */
HADRA_API int hadra_pss_delete_range(hadra_ha_pss_entry *entry, const void *prefix,
                                     uint32_t prefix_len) HADRA_NOEXCEPT;

/*
 * Remove every record of the file (its parameters and size limit stay), then sync
 * (PSS_PURGE). The debug line shows how many records went. Result 1 or 0.
 */
HADRA_API int hadra_pss_purge(hadra_ha_pss_entry *entry) HADRA_NOEXCEPT;

/* ---- Positioned reads ---- */

/*
 * Position at *key (key_len non-zero bytes), or at the first key after it when it is not
 * stored, and read the record there: *key = its key, *value = its value, *value_len (may be
 * null) = the value's length. When there is no record at or after the key: result 1 with
 * *key and *value null. The found key's length is not returned.
 * Result 0, without a report, for a null entry, key or value, key_len 0 or a disabled
 * database; 0 with a report when the PSS layer fails (then *key and *value are null).
 */
HADRA_API int hadra_pss_get_first(hadra_ha_pss_entry *entry, void **key, uint32_t key_len, void **value,
                                  uint32_t *value_len) HADRA_NOEXCEPT;

/*
 * Step to the next record and read it, as hadra_pss_get_first. At the end of the file the
 * result is 1 with *key and *value null: a walk stops on the null key, not on the result.
 * From a fresh handle (never positioned) the next record is the first one.
 */
HADRA_API int hadra_pss_get_next(hadra_ha_pss_entry *entry, void **key, void **value,
                                 uint32_t *value_len) HADRA_NOEXCEPT;

/*
 * Position at key, or at the first key after it when it is not stored (both give 1), without
 * reading. 0 without a report for bad arguments or a disabled database; 0 with a report when
 * the PSS layer fails.
 */
HADRA_API int hadra_pss_move2key(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) HADRA_NOEXCEPT;

/*
 * Look key up without moving the position: *value = the stored value, *value_len (may be
 * null) = its length; result 1. A key that is not stored gives 0 without a report and
 * *value null. Bad arguments and a disabled database are reported and give 0; so is a
 * failure of the PSS layer.
 */
HADRA_API int hadra_pss_fetch(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, void **value,
                              uint32_t *value_len) HADRA_NOEXCEPT;

/* ---- Whole-file walk ---- */

/*
 * Operation for one key type: the record's key and value as the PSS layer holds them (read
 * only), the value's length, and the iterator's arg. Returns non-zero for success.
 * arg is pointer-sized (a 32-bit word on 32-bit systems) so that it can carry a pointer.
 */
typedef int (*hadra_pss_type_op_fn)(const void *key, const void *value, uint32_t value_len, void *arg);
/* Key type of a record from its key; only the low 8 bits of the result are used. */
typedef int (*hadra_pss_key_type_fn)(const void *key);
/* Non-zero when records of this key type are acceptable. */
typedef int (*hadra_pss_valid_type_fn)(uint8_t key_type);

/*
 * Walk every record from the first to the last and hand each to type_ops[key type].
 *  - type_ops: table indexed by key type, or null (records are read but handed to nobody).
 *    It must have an entry for every type that can reach it; a null entry counts as a failed
 *    operation.
 *  - key_type_fn: null gives every record type 0. valid_type_fn: null accepts every type.
 *    A rejected record is skipped and, when the entry's purge_invalid_keys is set, deleted.
 *  - arg: passed unchanged to every operation.
 *  - count (may be null): set to 0, then incremented at the start of every pass of the walk,
 *    one pass per record met (a pass that finds no key at the position ends the walk and
 *    still counts).
 * A rejected type, an unreadable value or a failed operation is written to the debug output
 * and the walk goes on; none changes the result. With HADRA_HA_FLAG_PSS_MGET in the HA
 * handle's flags the walk reads one consistent view (pss2_mget_begin .. pss2_mget_done).
 * The entry's HA state is not consulted; the position ends at the end of the file.
 * Result 1 when the walk ran to its end; 0 for a null entry, when the multi-get phase could
 * not begin, or when there is no first record (which includes an empty file).
 */
HADRA_API int hadra_pss_iterator(hadra_ha_pss_entry *entry, const hadra_pss_type_op_fn *type_ops,
                                 hadra_pss_key_type_fn key_type_fn, hadra_pss_valid_type_fn valid_type_fn,
                                 void *arg, uint32_t *count) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
