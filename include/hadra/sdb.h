/*
 * SDB and MSDB record operations: reads and iteration, single, list and batch writes,
 * deletes, and multi-key batches.
 *
 * An SDB is one of the platform's shared databases; an MSDB is an SDB whose records can also
 * be found by secondary keys. The database handle is the SDB's registry entry (registry.h);
 * its `uri` names the SDB in every platform call. The SDB must be open in this process.
 *
 * Conventions of this header:
 *  - Results are 1 for success and 0 for failure. "Success" of a write means the local
 *    write succeeded: a change that could not be sent to the standby is still a success, and
 *    a failed sync never undoes the local change.
 *  - Writes are applied locally, then completed, then, unless the entry's `no_sync` is set,
 *    repeated on the standby by sync messages (single records and deletes one message each,
 *    batches packed into messages of at most HADRA_SDB_BATCH_BUF_SIZE bytes).
 *  - Completion: where a function takes `notify`, non-zero completes the write with the
 *    update notification (on the active supervisor the SDB's context is sent to the peer
 *    under the entry's `update_opcode`), 0 with a bare completion that sends nothing.
 *    An SDB registered with update_opcode 0 sends no update notifications at all: its
 *    writes are completed as with notify, and nothing goes out under opcode 0.
 *  - Reads return pointers into storage that the platform owns (valid until the next read
 *    or positioning call on the same SDB in the same thread); nothing is copied, and no
 *    function here returns the length of a found key.
 *  - Keys, values and lists belong to the caller for the duration of a call.
 *  - Threads: no lock is taken. Batch calls share one process-wide buffer
 *    (hadra_sdb_sync_buf); SDB and MSDB batch calls must not run at the same time.
 *  - Pointer width: the list records were laid out for 32-bit pointers. On 64-bit systems
 *    every pointer field is pointer-sized, which moves the fields after it; both layouts are
 *    pinned where they are defined, in hadra_platform/types.h.
 */
#ifndef HADRA_SDB_H
#define HADRA_SDB_H

#include "hadra/registry.h"

HADRA_EXTERN_C_BEGIN

/* The list records sdb_kv, sdb_list_op, sdb_skey and sdb_mkey_op, and sdb_create_del_msg, are the
   platform's (hadra_platform/types.h, included through registry.h); their layouts are pinned there. */

/* Size of the batch buffer, and so the most bytes (count and records) of one batch message. */
#define HADRA_SDB_BATCH_BUF_SIZE 60000u
/* Size of the buffer that receives an SDB's update-notification context. */
#define HADRA_SDB_CONTEXT_BUF_SIZE 100u
/* Keys, secondary keys and secondary-key counts of a synced batch must stay below this: the
   standby reads them back as signed 16-bit values. */
#define HADRA_SDB_BATCH_FIELD_LIMIT 0x8000u

/*
 * The batch buffer: null at load; HADRA_SDB_BATCH_BUF_SIZE bytes allocated by the first batch
 * that must be synced, then kept for the life of the process and shared by SDB and MSDB
 * batches. hadra_msdb_sync_buf is exported beside it for clients and never used here.
 */
HADRA_API extern uint8_t *hadra_sdb_sync_buf;
HADRA_API extern uint8_t *hadra_msdb_sync_buf;

/* ---- Reads and iteration (nothing is synced; the HA state is not consulted) ------------- */

/*
 * Position the SDB's iterator at the first record whose key is at or after the start key
 * (*key, key_len bytes) and give that record. entry, key, key_len and data are required.
 * On success *key and *data point to the record's key and value and *data_len (optional)
 * receives the value's length. With a required argument missing, nothing is touched; on any
 * other failure (no such record included) *key and *data are null. Result 1 or 0.
 */
HADRA_API int hadra_sdb_get_first(const hadra_ha_pss_entry *entry, void **key, uint32_t key_len, void **data,
                                  uint32_t *data_len) HADRA_NOEXCEPT;

/*
 * The record after the iterator's position (set by hadra_sdb_get_first or moved by
 * hadra_sdb_iterator), given as hadra_sdb_get_first gives it. 0 at the end.
 */
HADRA_API int hadra_sdb_get_next(const hadra_ha_pss_entry *entry, void **key, void **data,
                                 uint32_t *data_len) HADRA_NOEXCEPT;

/* The iterator's callbacks have the shapes of the PSS iterator's, so a client may use the
   same functions for both. */
/* Key type of a record, from its key; only the low 8 bits are used. */
typedef int (*hadra_sdb_key_type_fn)(const void *key);
/* Non-zero when records of this key type are to be handed on. */
typedef int (*hadra_sdb_valid_type_fn)(uint8_t key_type);
/* Operation on one record (key, value, value length, the iterator's arg); non-zero on success. */
typedef int (*hadra_sdb_type_op_fn)(const void *key, const void *data, uint32_t data_len, void *arg);

/*
 * Walk every record in key order and hand each one to type_ops[key type]. type_ops: a table
 * indexed by key type that holds an operation for every type that can reach it (up to 256);
 * null: records are counted but not handed on. key_type_fn null: every record has type 0.
 * valid_type_fn (optional) rejects types: a rejected record is counted, not handed on. A
 * null operation in the table counts as a failed one. A failing operation does not stop the
 * walk. *visited (optional) receives the number of records met. The walk moves the position
 * that hadra_sdb_get_next continues from, and offers the processor to other threads when the
 * platform asks for it. Result: 0 for a null entry; otherwise 1, also when the iterator
 * could not be positioned or the SDB is empty.
 */
HADRA_API int hadra_sdb_iterator(const hadra_ha_pss_entry *entry, const hadra_sdb_type_op_fn *type_ops,
                                 hadra_sdb_key_type_fn key_type_fn, hadra_sdb_valid_type_fn valid_type_fn, void *arg,
                                 uint32_t *visited) HADRA_NOEXCEPT;

/*
 * Look a record up by its primary key. data, data_len and rc are optional; *rc receives the
 * platform's result code (0 found; the platform's "no record" code for a missing key). On
 * success *data / *data_len receive the value. Result 1 when found; 0 for a missing
 * argument (entry, key, key_len) or a platform code other than 0.
 */
HADRA_API int hadra_sdb_read(const hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, void **data,
                             uint32_t *data_len, uint32_t *rc) HADRA_NOEXCEPT;

/*
 * Look an MSDB record up by a secondary key. skey (required): the secondary key's bytes and
 * its tag; key and data (each optional): receive pointers to the found record's primary-key
 * and value datums. When several records share the secondary key, the one with the smallest
 * primary key is found. *rc (optional) receives the platform's result code. Result 1 or 0.
 */
HADRA_API int hadra_sdb_read_skey(const hadra_ha_pss_entry *entry, const sdb_skey *skey, datum **key, datum **data,
                                  uint32_t *rc) HADRA_NOEXCEPT;

/* ---- Updates ---------------------------------------------------------------------------- */

/*
 * Write one record; synced as one SDB_UPDATE message. key, key_len, data and data_len are
 * all required: an empty key or an empty value is refused (0, nothing written).
 * A failed platform write is logged at level 2 and gives 0: nothing completed, nothing sent.
 */
HADRA_API int hadra_sdb_update(const hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, const void *data,
                               uint32_t data_len, uint32_t notify) HADRA_NOEXCEPT;

/*
 * Write count records (list of sdb_kv) in one platform call and complete with the update
 * notification; synced as one SDB_UPDATE message per record. Entries with a null or empty
 * key or value are written by nobody and skipped silently by the sync.
 */
HADRA_API int hadra_sdb_update_list(const hadra_ha_pss_entry *entry, const sdb_kv *list,
                                    uint32_t count) HADRA_NOEXCEPT;

/*
 * Perform count operations (list of sdb_list_op) in one platform call; synced as
 * SDB_BATCH_UPDATE messages packed into the batch buffer, in list order, each starting
 * with its own record count. When the SDB is synced, a list that cannot be carried is
 * refused before anything is written (0, level-2 log line): an entry without key (or, for
 * op 0, without value), an op from 0x8000 to 0xffff7fff, a key of
 * HADRA_SDB_BATCH_FIELD_LIMIT bytes or more, or a record larger than a batch message can
 * hold. An op travels as its low 16 bits and the standby widens them with their sign, so
 * ops below 0x8000 and from 0xffff8000 up reach it unchanged and are carried; what an op
 * other than 0 and 1 does is the platform's to decide.
 */
HADRA_API int hadra_sdb_update_batch(const hadra_ha_pss_entry *entry, const sdb_list_op *list, uint32_t count,
                                     uint32_t notify) HADRA_NOEXCEPT;

/*
 * Standby: apply a received SDB batch. batch points to the payload of an SDB_BATCH_UPDATE
 * sync message at offset 12, right after the sync header, whose data length bounds what is
 * read: a batch whose records do not fit it, or that holds no record, is refused (0,
 * level-2 log line, nothing written). Keys and values are not copied. On success the write
 * is completed with the update notification. Result 1 when applied, else 0.
 */
HADRA_API int hadra_sdb_update_batch_on_standby(const hadra_ha_pss_entry *entry, const void *batch) HADRA_NOEXCEPT;

/* ---- Deletes ---------------------------------------------------------------------------- */

/*
 * Delete the record with the given key; synced as one SDB_DELETE message. key and key_len
 * are required. A platform failure (a missing record included) gives 0, nothing synced.
 * hadra_sdb_delete is the same with notify 1.
 */
HADRA_API int hadra_sdb_delete_notify(const hadra_ha_pss_entry *entry, const void *key, uint32_t key_len,
                                      uint32_t notify) HADRA_NOEXCEPT;
HADRA_API int hadra_sdb_delete(const hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) HADRA_NOEXCEPT;

/*
 * Delete the records whose keys the list gives (only each entry's key is read) in one
 * platform call; missing records are no error. Synced as one SDB_DELETE message per entry
 * with a non-empty key; entries with a null or empty key are skipped silently. The key
 * datums are best laid out as one array in list order (entry i pointing to element i):
 * they are then handed to the platform as they are, otherwise gathered into a temporary
 * array first. A platform failure is logged at level 2 and gives 0, nothing synced.
 * hadra_sdb_delete_list is the same with notify 1.
 */
HADRA_API int hadra_sdb_delete_list_notify(const hadra_ha_pss_entry *entry, const sdb_kv *list, uint32_t count,
                                           uint32_t notify) HADRA_NOEXCEPT;
HADRA_API int hadra_sdb_delete_list(const hadra_ha_pss_entry *entry, const sdb_kv *list,
                                    uint32_t count) HADRA_NOEXCEPT;

/* ---- MSDB batches ----------------------------------------------------------------------- */

/*
 * Perform count multi-key operations (list of sdb_mkey_op) in one platform call; synced as
 * MSDB_BATCH_UPDATE messages packed as hadra_sdb_update_batch packs its own. When the MSDB
 * is synced, a list that cannot be carried is refused before anything is written (0,
 * level-2 log line): an entry without key, a negative skey_count or one of
 * HADRA_SDB_BATCH_FIELD_LIMIT or more, secondary keys missing or of
 * HADRA_SDB_BATCH_FIELD_LIMIT bytes or more, an op from 0x8000 to 0xffff7fff (as for
 * hadra_sdb_update_batch), a key as long, or a record larger than a batch message can hold. Tags travel as their low 16 bits and come
 * back on the standby widened with their sign (0x8001 arrives as 0xffff8001).
 */
HADRA_API int hadra_msdb_update_batch(const hadra_ha_pss_entry *entry, const sdb_mkey_op *list, uint32_t count,
                                      uint32_t notify) HADRA_NOEXCEPT;

/*
 * Write one MSDB record with its secondary keys: hadra_msdb_update_batch of the single
 * entry {key, data, skeys, skey_count, op 0}. key and data are required (0 otherwise).
 */
HADRA_API int hadra_sdb_update_mkey(const hadra_ha_pss_entry *entry, const datum *key, const datum *data,
                                    const sdb_skey *skeys, int32_t skey_count, uint32_t notify) HADRA_NOEXCEPT;

/*
 * Standby: apply a received MSDB batch (payload offset 12 of an MSDB_BATCH_UPDATE message),
 * bounded and refused as hadra_sdb_update_batch_on_standby. Result 1 when applied, else 0.
 */
HADRA_API int hadra_msdb_update_batch_on_standby(const hadra_ha_pss_entry *entry, const void *batch) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
