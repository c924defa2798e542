/*
 * Types and constants that the platform and the HA library share: the one place where each
 * is defined. Both libhadra_platform.so's contract headers and the library's public headers
 * include this header, so a name means the same thing whatever is included first.
 *
 * Pointer width: the list records were laid out for 32-bit pointers. On a 64-bit system every
 * pointer field is pointer-sized, which moves the fields after it; the offsets of both layouts
 * are pinned at the end. The layouts must not change: clients and both libraries exchange them.
 */
#ifndef HADRA_PLATFORM_TYPES_H
#define HADRA_PLATFORM_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A byte string as the PSS and SDB calls and the sync sender take it: pointer, then 32-bit
   length. */
typedef struct datum {
  void *dptr;     /* first byte; may be null when dsize is 0 */
  uint32_t dsize; /* number of bytes */
} datum;

/* Supervisor state as sysmgr_supstate_get() gives it; any other value means neither. */
#define PLAT_SUP_ACTIVE 1
#define PLAT_SUP_STANDBY 2

/* ---- SDB list records ------------------------------------------------------------------- */

/* Entry of sdb_write_list / sdb_delete_list (hadra_sdb_update_list, hadra_sdb_delete_list):
   one record. */
typedef struct sdb_kv {
  datum *key;  /* the record's key */
  datum *data; /* its value (not read by the deletes) */
} sdb_kv;

/* Entry of sdb_list_ops (hadra_sdb_update_batch): one operation. */
typedef struct sdb_list_op {
  uint32_t op; /* SDB_OP_WRITE (0): write key with data; any other value is an operation on
                  the key alone, whose meaning is the platform's (SDB_OP_DELETE deletes) */
  datum *key;  /* the record's key */
  datum *data; /* its value; read only when op is SDB_OP_WRITE */
} sdb_list_op;

/* A secondary key of an MSDB record. */
typedef struct sdb_skey {
  datum *skey;  /* the secondary key's bytes */
  uint32_t tag; /* the index the key belongs to; only the low 16 bits are stored and synced */
} sdb_skey;

/* Entry of sdb_write_mkey_list (hadra_msdb_update_batch): one MSDB operation. */
typedef struct sdb_mkey_op {
  datum *key;         /* the primary key */
  datum *data;        /* the value, or null for an empty one */
  sdb_skey *skeys;    /* the record's secondary keys (op 0); may be null when skey_count is 0 */
  int32_t skey_count; /* number of elements of skeys; must not be negative */
  uint32_t op;        /* SDB_OP_WRITE or another operation, as in sdb_list_op */
} sdb_mkey_op;

/* The record handed to the create/delete notification TLV encoder. */
typedef struct sdb_create_del_msg {
  uint32_t type;   /* SDB_NOTIFY_CREATE or SDB_NOTIFY_DELETE */
  const char *uri; /* the SDB's URI, NUL-terminated, shorter than 256 bytes */
} sdb_create_del_msg;

/* Operations of sdb_list_op.op and sdb_mkey_op.op. */
#define SDB_OP_WRITE 0u  /* write the record (value, and for an MSDB its secondary keys) */
#define SDB_OP_DELETE 1u /* delete the record and its secondary keys; a missing key is no error */

/* Create/delete notification types (sdb_create_del_msg.type). */
#define SDB_NOTIFY_CREATE 1u
#define SDB_NOTIFY_DELETE 2u

#ifdef __cplusplus
}
#define HADRA_TYPES_ASSERT static_assert
#else
#define HADRA_TYPES_ASSERT _Static_assert
#endif
#define HADRA_TYPES_P sizeof(void *)
HADRA_TYPES_ASSERT(HADRA_TYPES_P == 4 || HADRA_TYPES_P == 8, "pointers are 32 or 64 bits");
HADRA_TYPES_ASSERT(offsetof(datum, dsize) == HADRA_TYPES_P, "datum layout");
HADRA_TYPES_ASSERT(sizeof(sdb_kv) == 2 * HADRA_TYPES_P && offsetof(sdb_kv, data) == HADRA_TYPES_P, "sdb_kv layout");
HADRA_TYPES_ASSERT(offsetof(sdb_list_op, op) == 0 && offsetof(sdb_list_op, key) == HADRA_TYPES_P &&
                       offsetof(sdb_list_op, data) == 2 * HADRA_TYPES_P && sizeof(sdb_list_op) == 3 * HADRA_TYPES_P,
                   "sdb_list_op layout");
HADRA_TYPES_ASSERT(offsetof(sdb_skey, tag) == HADRA_TYPES_P && sizeof(sdb_skey) == 2 * HADRA_TYPES_P,
                   "sdb_skey layout");
HADRA_TYPES_ASSERT(offsetof(sdb_mkey_op, data) == HADRA_TYPES_P && offsetof(sdb_mkey_op, skeys) == 2 * HADRA_TYPES_P &&
                       offsetof(sdb_mkey_op, skey_count) == 3 * HADRA_TYPES_P &&
                       offsetof(sdb_mkey_op, op) == 3 * HADRA_TYPES_P + 4 &&
                       sizeof(sdb_mkey_op) == 3 * HADRA_TYPES_P + 8,
                   "sdb_mkey_op layout");
HADRA_TYPES_ASSERT(offsetof(sdb_create_del_msg, uri) == HADRA_TYPES_P &&
                       sizeof(sdb_create_del_msg) == 2 * HADRA_TYPES_P,
                   "sdb_create_del_msg layout");
#undef HADRA_TYPES_P
#undef HADRA_TYPES_ASSERT

#endif
