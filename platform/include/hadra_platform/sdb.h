/*
 * SDB: the platform's shared databases.
 *
 * An SDB is a key-value store that several processes of one supervisor use at the same time;
 * an MSDB is an SDB whose records can also be found by secondary keys. Each SDB is an LMDB
 * environment (a directory holding data.mdb and lock.mdb) at plat_uri_to_path(uri) under the
 * platform root; docs/sdb.md describes the files, the sub-databases and the snapshot format.
 *
 * Conventions of every call in this header:
 *  - Results. Calls return 0 on success or a platform error code (errors.h, PLAT_ERR_SDB_*).
 *    The exceptions say so: sdb_read returns a pointer and stores its code, the TLV size call
 *    returns a size, sdb_exists and sdb_opcode_registered answer 1 or 0.
 *  - URIs are "<area>:/<path>" with a non-empty path (sysmgr.h). A URI that is null, malformed
 *    or names the area itself gives PLAT_ERR_SDB_BAD_URI; so does a URI at which something
 *    other than an SDB is stored (a PSS file, a plain directory).
 *  - Handles. An SDB is named by its URI in every call; there is no handle. Records, reads and
 *    iteration need the SDB open in this process (sdb_open), otherwise PLAT_ERR_SDB_NOT_OPEN.
 *    A process holds at most one opening of an SDB (LMDB allows one environment per file per
 *    process); other processes may hold theirs at the same time.
 *  - Keys are 1 to SDB_KEY_MAX bytes; values 0 bytes or more. A datum with dsize > 0 must
 *    have a non-null dptr. Bad arguments give PLAT_ERR_SDB_BAD_ARG and change nothing.
 *  - Durability. Every write call is one transaction, committed before the call returns: a
 *    list is applied whole or not at all, and a committed change survives a crash of the
 *    process. The disk is flushed at each commit only when the configuration key SDB_SYNC is
 *    1 (default 0: a crash of the host may lose the latest writes, never corrupt the SDB).
 *    SDB_MAP_SIZE (bytes, default 1 GiB) bounds the size of an SDB; beyond it writes give
 *    PLAT_ERR_SDB_FULL.
 *  - Memory. Key, value and list memory belongs to the caller for the duration of a call.
 *    Pointers returned by the read calls (sdb_read, sdb_read_skey, sdb_getkey, sdb_getnext,
 *    sdb_get_skeys) point into buffers that the platform keeps per SDB and per thread: they
 *    stay valid until the next of those calls on the same SDB in the same thread, or until
 *    the SDB is closed. The caller never frees them.
 *  - Threads. Every call is thread-safe; calls of one process are serialised inside the
 *    platform. The iterator position is per SDB (shared by the process's threads).
 *  - After fork() a child must not use the SDBs its parent opened: the child starts with none
 *    open and opens what it needs itself.
 *
 * Pointer width: the list records below were laid out for 32-bit pointers. On a 64-bit system
 * every pointer field is pointer-sized, which moves the fields after it; the offsets of both
 * layouts are pinned below.
 */
#ifndef HADRA_PLATFORM_SDB_H
#define HADRA_PLATFORM_SDB_H

#include "hadra_platform/errors.h"
#include "hadra_platform/plat_export.h"
#include "hadra_platform/types.h"

PLAT_EXTERN_C_BEGIN

/* Creation flags (sdb_create): the kind of the new SDB. */
#define SDB_CREATE_SDB 0x4u      /* plain SDB */
#define SDB_CREATE_MSDB 0x10000u /* multi-key SDB: secondary keys through sdb_write_mkey_list */

/* Access rights (sdb_open rw_flag): bit 0 read, bit 1 write. */
#define SDB_OPEN_READ 0x1u
#define SDB_OPEN_RW 0x3u

/* Operations of sdb_list_op.op and sdb_mkey_op.op: SDB_OP_WRITE, SDB_OP_DELETE (types.h). */

/* Largest key in bytes (primary keys; a secondary key may have at most SDB_KEY_MAX - 2). */
#define SDB_KEY_MAX 511u

/* sdb_iterator_init start argument: position before the first record. */
#define SDB_ITER_FIRST ((const datum *)1)

/* Update-notification context (sdb_get_context_len / sdb_set_context). */
#define SDB_CONTEXT_MAX 100u /* size of the buffer callers hand to sdb_set_context */
#define SDB_CONTEXT_LEN 32u  /* length of the context this platform writes */

/* Create/delete notification types: SDB_NOTIFY_CREATE, SDB_NOTIFY_DELETE (types.h). The list
   records (sdb_kv, sdb_list_op, sdb_skey, sdb_mkey_op, sdb_create_del_msg) are in types.h. */

/*
 * The update-notification context as sdb_context_parse gives it back. On the wire it is
 * SDB_CONTEXT_LEN bytes: these fields in this order, little-endian, no padding but the
 * reserved word. It tells a reader which write of which SDB the notification describes.
 */
typedef struct sdb_context {
  uint16_t version;    /* 1 */
  uint16_t op;         /* the write: 0 none yet, 1 write, 2 list write, 3 list ops, 4 delete,
                          5 delete list, 6 multi-key list, 7 snapshot restore */
  uint32_t records;    /* records the write named */
  uint64_t generation; /* the SDB's write generation after the write (one per committed write) */
  uint32_t key_hash;   /* 32-bit FNV-1a hash of the last key the write named; 0 for none */
  uint32_t uri_hash;   /* 32-bit FNV-1a hash of the SDB's URI as the writer named it */
  uint32_t pid;        /* process of the writer */
  uint32_t reserved;   /* 0 */
} sdb_context;

/* ---- Lifecycle ------------------------------------------------------------------------- */

/*
 * Create an empty SDB at uri. flags: SDB_CREATE_SDB or SDB_CREATE_MSDB (nothing else).
 * uuid: the creating service, stored in the SDB. reserved: 0. The SDB is not opened.
 * Creation is atomic: other processes see either no SDB or a complete empty one.
 * An SDB whose destruction was begun and not completed is replaced by the new one.
 * Results: 0; PLAT_ERR_SDB_EXISTS (0x411a000e) when an SDB is already stored at uri (it is
 * left as it is, whatever its kind); PLAT_ERR_SDB_BAD_URI; PLAT_ERR_SDB_BAD_ARG; PLAT_ERR_SDB_IO.
 */
HADRA_PLAT_API uint32_t sdb_create(const char *uri, uint32_t flags, uint32_t uuid, uint32_t reserved) PLAT_NOEXCEPT;

/*
 * Open an existing SDB in this process. rw_flag: SDB_OPEN_READ (1) or SDB_OPEN_RW (3);
 * writes to an SDB opened for reading give PLAT_ERR_SDB_READ_ONLY. uuid: the opening service
 * (recorded, not checked). reserved1, reserved2: 0.
 * Results: 0; PLAT_ERR_SDB_ALREADY_OPEN (0x411a0003) when this process has it open already,
 * in which case rw_flag may widen its rights (read to read-write) and the opening is
 * otherwise unchanged; PLAT_ERR_SDB_NOT_FOUND (none at uri, or its destruction has begun);
 * PLAT_ERR_SDB_BAD_URI; PLAT_ERR_SDB_BAD_ARG; PLAT_ERR_SDB_IO.
 */
HADRA_PLAT_API uint32_t sdb_open(const char *uri, uint32_t rw_flag, uint32_t uuid, uint32_t reserved1,
                                 uint32_t reserved2) PLAT_NOEXCEPT;

/*
 * Recovery after a read-write open: releases the reader slots that dead processes left in
 * every SDB this process has open for writing (so that their old snapshots stop holding
 * pages), and records sap as the SDBs' owner. 0, or PLAT_ERR_SDB_IO. Nothing open is no error.
 */
HADRA_PLAT_API uint32_t sdb_recover(uint32_t sap) PLAT_NOEXCEPT;

/* Close this process's opening of the SDB. 0; PLAT_ERR_SDB_NOT_OPEN; PLAT_ERR_SDB_BAD_URI. */
HADRA_PLAT_API uint32_t sdb_close(const char *uri) PLAT_NOEXCEPT;

/*
 * Destruction in two steps, around the delete notification that the caller sends.
 * sdb_destroy_begin closes the SDB in this process if open and marks it as being destroyed:
 * from then on no process can open it (NOT_FOUND) and sdb_create replaces it.
 * sdb_destroy_done removes it (whether or not begin was called); sap and cre_del_opcode name
 * the notifying client and are only traced.
 * sdb_destroy does both in one step.
 * Results: 0; PLAT_ERR_SDB_NOT_FOUND; PLAT_ERR_SDB_BAD_URI (something else is stored there:
 * it is never removed); PLAT_ERR_SDB_IO. Processes that still have the SDB open keep reading
 * and writing their copy until they close it; it is gone for everyone else.
 */
HADRA_PLAT_API uint32_t sdb_destroy_begin(const char *uri) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t sdb_destroy_done(const char *uri, uint32_t sap, uint32_t cre_del_opcode) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t sdb_destroy(const char *uri) PLAT_NOEXCEPT;

/* 1 when an SDB (of either kind, not being destroyed) is stored at uri, else 0. */
HADRA_PLAT_API int sdb_exists(const char *uri) PLAT_NOEXCEPT;

/*
 * Register count MTS opcodes (opcodes[0..count-1]) under which this process sends SDB update
 * notifications, so that receivers in the process can tell them from other messages. The
 * opcodes are not changed. Registering an opcode twice is harmless.
 * Results: 0; PLAT_ERR_SDB_BAD_ARG (null, count 0, or an opcode 0).
 */
HADRA_PLAT_API uint32_t sdb_register(uint32_t *opcodes, uint32_t count) PLAT_NOEXCEPT;
/* 1 when opcode was registered with sdb_register in this process, else 0. */
HADRA_PLAT_API int sdb_opcode_registered(uint32_t opcode) PLAT_NOEXCEPT;

/* ---- Writes (the SDB must be open for writing) ------------------------------------------- */

/*
 * Write one record (insert or replace). key and data are required. In an MSDB the record
 * keeps the secondary keys it had.
 */
HADRA_PLAT_API uint32_t sdb_write(const char *uri, const datum *key, const datum *data) PLAT_NOEXCEPT;

/*
 * Write count records in one transaction. An entry whose key or data pointer is null, or
 * whose key or value is empty, is a hole and is passed over (exactly the entries that the HA
 * library does not repeat on the standby); any other bad entry refuses the whole list.
 */
HADRA_PLAT_API uint32_t sdb_write_list(const char *uri, const sdb_kv *list, uint32_t count) PLAT_NOEXCEPT;

/*
 * Perform count operations in order in one transaction: SDB_OP_WRITE writes key with data
 * (data required, may be empty), SDB_OP_DELETE deletes key (a missing key is no error).
 * Another op value, or a bad key, refuses the whole list.
 */
HADRA_PLAT_API uint32_t sdb_list_ops(const char *uri, const sdb_list_op *list, uint32_t count) PLAT_NOEXCEPT;

/* Delete one record (and in an MSDB its secondary keys). PLAT_ERR_SDB_NO_RECORD when absent. */
HADRA_PLAT_API uint32_t sdb_delete(const char *uri, const datum *key) PLAT_NOEXCEPT;

/*
 * Delete the records of count consecutive key datums starting at keys, in one transaction.
 * Missing records are no error; an empty key (null pointer or length 0) is passed over.
 */
HADRA_PLAT_API uint32_t sdb_delete_list(const char *uri, const datum *keys, uint32_t count) PLAT_NOEXCEPT;

/*
 * MSDB only (PLAT_ERR_SDB_BAD_ARG on a plain SDB): perform count sdb_mkey_op entries in order
 * in one transaction. SDB_OP_WRITE writes the value and replaces the record's whole set of
 * secondary keys by the given one (keys it had before and does not list any more are removed
 * from the indexes); SDB_OP_DELETE deletes the record and its secondary keys.
 * A secondary key is identified by (low 16 bits of tag, bytes); several records may share
 * one, and listing one twice in a record stores it once.
 */
HADRA_PLAT_API uint32_t sdb_write_mkey_list(const char *uri, const sdb_mkey_op *list, uint32_t count) PLAT_NOEXCEPT;

/*
 * Complete the preceding write. Every write is already committed when its call returns, so
 * this only checks that the SDB is open: 0 or PLAT_ERR_SDB_NOT_OPEN.
 */
HADRA_PLAT_API uint32_t sdb_write_done(const char *uri) PLAT_NOEXCEPT;

/*
 * Context of this process's last write to the SDB (sdb_context). *len receives its length
 * (SDB_CONTEXT_LEN, never more than SDB_CONTEXT_MAX); sdb_set_context writes that many bytes
 * into buffer. Before any write the context names the SDB's current generation with op 0.
 * Results: 0; PLAT_ERR_SDB_NOT_OPEN; PLAT_ERR_SDB_BAD_ARG (null len or buffer).
 */
HADRA_PLAT_API uint32_t sdb_get_context_len(const char *uri, uint32_t *len) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t sdb_set_context(const char *uri, void *buffer) PLAT_NOEXCEPT;
/* Decode a received context. 0, or PLAT_ERR_SDB_BAD_ARG for a short or unknown context. */
HADRA_PLAT_API uint32_t sdb_context_parse(const void *buf, uint32_t len, sdb_context *out) PLAT_NOEXCEPT;

/* ---- Reads (the SDB must be open) ------------------------------------------------------- */

/*
 * Position the SDB's iterator. start: SDB_ITER_FIRST, or a key datum: the position is then
 * the first record whose key is at or after start (byte order; a datum of length 0 means the
 * first record). Positioning never fails for lack of records. 0; PLAT_ERR_SDB_BAD_ARG (null).
 */
HADRA_PLAT_API uint32_t sdb_iterator_init(const char *uri, const datum *start) PLAT_NOEXCEPT;

/*
 * The record at the iterator: *key and *data receive pointers to its key and value datums.
 * A record deleted since it was reached is replaced by the next one.
 * Results: 0; PLAT_ERR_SDB_NO_ITER when there is no record at or after the position (or the
 * iterator was never positioned); PLAT_ERR_SDB_BAD_ARG for a null out pointer.
 */
HADRA_PLAT_API uint32_t sdb_getkey(const char *uri, datum **key, datum **data) PLAT_NOEXCEPT;

/*
 * Advance to the record after the one at the iterator and give it as sdb_getkey does. Right
 * after sdb_iterator_init, "the one at the iterator" is the record sdb_getkey would give.
 * PLAT_ERR_SDB_NO_ITER at the end (and on every later call until repositioned).
 */
HADRA_PLAT_API uint32_t sdb_getnext(const char *uri, datum **key, datum **data) PLAT_NOEXCEPT;

/*
 * Look a record up by its key. Returns a pointer to its value datum, or null; *rc (may be
 * null) receives 0, PLAT_ERR_SDB_NO_RECORD, PLAT_ERR_SDB_NOT_OPEN, PLAT_ERR_SDB_BAD_ARG, ...
 */
HADRA_PLAT_API datum *sdb_read(const char *uri, const datum *key, uint32_t *rc) PLAT_NOEXCEPT;

/*
 * Look a record up by a secondary key (MSDB). skey (required): the secondary key's bytes and
 * the tag of its index. key and data (each may be null): receive pointers to the found
 * record's primary key and value datums. When several records share the secondary key, the
 * one with the smallest primary key is found.
 * Results: 0; PLAT_ERR_SDB_NO_RECORD; PLAT_ERR_SDB_NOT_OPEN; PLAT_ERR_SDB_BAD_ARG.
 */
HADRA_PLAT_API uint32_t sdb_read_skey(const char *uri, const sdb_skey *skey, datum **key, datum **data) PLAT_NOEXCEPT;

/*
 * The secondary keys stored for the record with key (MSDB): *skeys receives a pointer to
 * *count elements, in the order they were written, each tag being the stored 16 bits.
 * A record without secondary keys gives *count 0. PLAT_ERR_SDB_NO_RECORD when there is no
 * record; PLAT_ERR_SDB_NOT_OPEN; PLAT_ERR_SDB_BAD_ARG.
 */
HADRA_PLAT_API uint32_t sdb_get_skeys(const char *uri, const datum *key, const sdb_skey **skeys,
                                      uint32_t *count) PLAT_NOEXCEPT;

/* ---- Snapshots -------------------------------------------------------------------------- */

/*
 * Write a snapshot of the SDB at db_uri into the snapshot area base_uri (a directory URI),
 * under the service uuid. The snapshot is one LMDB file holding every record, secondary key
 * and tag, at <area>/sdb-snapshots/<uuid>/<db area>/<db path>.snap; it replaces an older
 * snapshot atomically. The SDB need not be open in this process; it stays as it was.
 * sdb_* takes a plain SDB, mksdb_* an MSDB; the other kind gives PLAT_ERR_SDB_BAD_ARG.
 * Results: 0; PLAT_ERR_SDB_NOT_FOUND (no SDB at db_uri); PLAT_ERR_SDB_BAD_URI; PLAT_ERR_SDB_IO.
 */
HADRA_PLAT_API uint32_t sdb_write_snapshot(const char *db_uri, const char *base_uri, uint32_t uuid) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t mksdb_write_snapshot(const char *db_uri, const char *base_uri, uint32_t uuid) PLAT_NOEXCEPT;

/*
 * Rebuild the SDB at db_uri from the snapshot that service uuid wrote into area source_uri.
 * The SDB is created when it does not exist; its records are replaced by the snapshot's at
 * once (readers see the old or the new contents, never a mix): when no process has the SDB
 * open the snapshot file itself becomes its data file (the area no longer holds it), else the
 * records are copied in one transaction. An opening of it in
 * this process stays open, with its iterator unpositioned; one that did not exist is not
 * opened.
 * Results: 0; PLAT_ERR_SDB_NOT_FOUND when the area holds no snapshot of db_uri by uuid (the
 * SDB is then not touched); PLAT_ERR_SDB_BAD_ARG when the snapshot is of the other kind;
 * PLAT_ERR_SDB_BAD_URI; PLAT_ERR_SDB_IO (also for an unreadable snapshot file).
 */
HADRA_PLAT_API uint32_t sdb_read_snapshot(const char *db_uri, const char *source_uri, uint32_t uuid) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t mksdb_read_snapshot(const char *db_uri, const char *source_uri, uint32_t uuid) PLAT_NOEXCEPT;

/* ---- Create/delete notification TLV ----------------------------------------------------- */

/*
 * TLV encoding of an sdb_create_del_msg (docs/sdb.md): elements of a 16-bit type, a 16-bit
 * length and the value, big-endian: 0x0001 the notification type (4 bytes), 0x0002 the URI
 * (its bytes, no NUL).
 *
 * fu_sdb_create_del_msg_get_tlv_sz: the encoding's size in bytes; 0 for a null msg, a type
 * other than 1 or 2, or a null or over-long URI.
 *
 * fu_sdb_create_del_msg_to_tlv(msg, buf, size, offset, count, may_alloc): encode msg at
 * *buf + offset. In: *size bytes are available at *buf. When they do not suffice (or *buf is
 * null) and may_alloc is 1, the encoder grows the block with realloc (so *buf must be null or
 * come from malloc) and stores the new pointer in *buf; with may_alloc 0 that is
 * PLAT_ERR_SDB_BAD_ARG. Out: *size = offset + the encoding's size; *count (may be null) = the
 * number of elements written. The caller frees *buf. 0 or PLAT_ERR_SDB_BAD_ARG.
 *
 * fu_sdb_create_del_msg_from_tlv: decode size bytes at buf into *type and uri (a buffer of
 * uri_size bytes, NUL-terminated on success). Elements of unknown types are passed over.
 * 0; PLAT_ERR_SDB_BAD_ARG for a truncated, duplicated, missing or out-of-range element, or a
 * URI that does not fit uri_size.
 */
HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_get_tlv_sz(const sdb_create_del_msg *msg) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_to_tlv(const sdb_create_del_msg *msg, void **buf, uint32_t *size,
                                                     uint32_t offset, uint32_t *count, int may_alloc) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t fu_sdb_create_del_msg_from_tlv(const void *buf, uint32_t size, uint32_t *type, char *uri,
                                                       size_t uri_size) PLAT_NOEXCEPT;

/* ---- Layout checks ---------------------------------------------------------------------- */

#if defined(__cplusplus)
#define HADRA_SDB_STATIC_ASSERT static_assert
#else
#define HADRA_SDB_STATIC_ASSERT _Static_assert
#endif
HADRA_SDB_STATIC_ASSERT(sizeof(sdb_context) == SDB_CONTEXT_LEN && offsetof(sdb_context, generation) == 8 &&
                            offsetof(sdb_context, reserved) == 28,
                        "sdb_context layout");
HADRA_SDB_STATIC_ASSERT(SDB_CONTEXT_LEN <= SDB_CONTEXT_MAX, "context fits the callers' buffer");
#undef HADRA_SDB_STATIC_ASSERT

PLAT_EXTERN_C_END

#endif
