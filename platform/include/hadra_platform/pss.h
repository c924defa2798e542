/*
 * PSS: persistent storage files.
 *
 * A PSS file is a sorted map of byte-string keys to byte-string values, kept in one LMDB file
 * at plat_uri_to_path(uri) under the platform root (docs/pss.md describes the layout). It is
 * named by its URI ("<area>:/<path>", see sysmgr.h) and, while open, by a handle.
 *
 * Conventions
 *  - Handles are 32-bit numbers, never 0 (0 means "no handle"). They come from one table per
 *    process; a closed handle is never handed out again soon (a generation counter is part
 *    of the number), so a stale handle fails with PLAT_ERR_PSS_BAD_HANDLE instead of reaching
 *    another file. Several handles may be open on one file at the same time.
 *  - Results. Calls that return uint32_t give 0 on success or a code of errors.h
 *    (PLAT_ERR_PSS_*, or PSS2_ERR_READ_ONLY below). Calls with an out status set it to 0 or
 *    to such a code. PLAT_ERR_PSS_NO_RECORD (0x40480003) is a status, not a failure: there is
 *    no record at the key or position asked for.
 *  - Keys are 1 to 511 bytes (the store's limit; a file may set a lower one in its
 *    parameters); a longer or empty key fails with PLAT_ERR_PSS_BAD_ARG. Values may be empty
 *    (dsize 0, dptr may then be null). A datum with dsize > 0 needs a non-null dptr.
 *  - Caller's memory: keys, values and parameter records are read during the call only.
 *  - Returned memory: pss2_getkey, pss2_getvalue and pss2_fetch return a pointer to a datum
 *    held by the handle; the datum and the bytes it points to belong to the handle:
 *      getkey:   valid until the next positioning call (move2key, move2location) or close;
 *      getvalue: valid until the next getvalue or positioning call, or close;
 *      fetch:    valid until the next fetch, or close.
 *    Writes through the handle (store, delete, purge, ...) do not invalidate them, so a key
 *    returned by getkey may be passed straight to pss2_delete.
 *  - Durability: a write returns only after its transaction committed; another handle or
 *    process sees it at once and it survives a crash of the calling process. When it reaches
 *    the disk follows configuration key DURABILITY (config.h; by default within 100 ms). With
 *    PSS_SYNC=1, or a file created with PSS2_PARAM_SYNC, every commit is flushed to disk
 *    before the call returns.
 *  - Threads: every call is thread-safe; the calls of one process are serialised. A handle's
 *    position and returned datums must not be shared by threads that use it at once.
 *  - Processes: other processes of the supervisor may open the same file; writes are
 *    serialised by the store's lock. Handles do not survive fork(): a child opens its own.
 *  - Every call goes through the platform trace and fault injection (service "pss").
 */
#ifndef HADRA_PLATFORM_PSS_H
#define HADRA_PLATFORM_PSS_H

#include "hadra_platform/errors.h"
#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/* Write through a handle that was opened without PSS2_OPEN_WRITE. (Not yet in errors.h.) */
#ifndef PLAT_ERR_PSS_READ_ONLY
#define PLAT_ERR_PSS_READ_ONLY 0x8048000bu
#endif

/* ---- Flags of pss2_open. The usual values: 27 create, 11 open, 1 probe. ---- */
#define PSS2_OPEN_READ 0x01u   /* records may be read */
#define PSS2_OPEN_WRITE 0x02u  /* records and the size limit may be changed */
#define PSS2_OPEN_CURSOR 0x08u /* the handle keeps a position (move, getkey, getvalue, mget) */
#define PSS2_OPEN_CREATE 0x10u /* create the file when it does not exist */
#define PSS2_OPEN_FLAGS_CREATE 27u /* READ | WRITE | CURSOR | CREATE */
#define PSS2_OPEN_FLAGS_OPEN 11u   /* READ | WRITE | CURSOR */
#define PSS2_OPEN_FLAGS_PROBE 1u   /* READ: test that the file exists and can be opened */

/* ---- Parameters of a file ---- */

/* Version of the parameter record; the only one accepted. */
#define PSS2_PARAMS_VERSION 8u
/* Bits of pss2_params.flags. */
#define PSS2_PARAM_SYNC 0x0001u /* flush every commit to disk, whatever PSS_SYNC says */
/* Size limit of a file created without a limit of its own (pss2_params null or 0 MiB). */
#define PSS2_DEFAULT_MAX_DBSIZE (10u * 1024u * 1024u)
/* Bounds of pss2_set_max_dbsize. */
#define PSS2_MIN_DBSIZE (64u * 1024u)
#define PSS2_MAX_DBSIZE (1ull << 40)
/* Longest key the store accepts. */
#define PSS2_MAX_KEY_LEN 511u

/*
 * The parameter record of a file: given when the file is created, stored in the file, read
 * back with pss2_get_params. A copy of a file is created with its source's record.
 * Exchanged with the library by layout: 16 bytes, the layout must not change.
 */
typedef struct pss2_params {
  uint32_t version;        /* 0: PSS2_PARAMS_VERSION (8) */
  uint32_t max_key_len;    /* 4: longest key the file accepts, 1..511; 0 = 511 */
  uint16_t snapshot_chunk; /* 8: kept, no longer read: pss2_snapshot copies the source's
                                 file whole instead of committing records in chunks */
  uint16_t flags;          /* 10: PSS2_PARAM_* bits; other bits must be 0 */
  uint32_t max_dbsize_mib; /* 12: size limit in MiB at creation, 0 = PSS2_DEFAULT_MAX_DBSIZE;
                                  pss2_get_params reports the current limit, rounded up */
} pss2_params;

#ifdef __cplusplus
static_assert(sizeof(pss2_params) == 16, "pss2_params is 16 bytes");
static_assert(offsetof(pss2_params, max_key_len) == 4 && offsetof(pss2_params, snapshot_chunk) == 8 &&
                  offsetof(pss2_params, flags) == 10 && offsetof(pss2_params, max_dbsize_mib) == 12,
              "pss2_params layout");
#else
_Static_assert(sizeof(pss2_params) == 16, "pss2_params is 16 bytes");
_Static_assert(offsetof(pss2_params, snapshot_chunk) == 8 && offsetof(pss2_params, max_dbsize_mib) == 12,
               "pss2_params layout");
#endif

/* Results of pss2_get_psstype. */
#define PSS2_TYPE_OTHER 1u /* something else is stored at the URI (an SDB, another file) */
#define PSS2_TYPE_PSS2 3u  /* a PSS file */

/* ---- Files ---- */

/*
 * Open the PSS file at uri with flags (PSS2_OPEN_*); returns the handle, or 0 with *error set.
 * uuid identifies the caller (recorded in the trace only). reserved must be 0. params is used
 * only when the file is created (null: defaults); an existing file keeps its own.
 * *error: 0; PLAT_ERR_PSS_NOT_FOUND (no file and no PSS2_OPEN_CREATE); PLAT_ERR_PSS_BAD_URI
 * (malformed URI, or something that is not a PSS file is stored there); PLAT_ERR_PSS_BAD_ARG
 * (null uri or error, unknown flags, reserved not 0, bad params); PLAT_ERR_PSS_TOO_MANY;
 * PLAT_ERR_PSS_IO. error must not be null (then 0 is returned and nothing else happens).
 * A file that no process has opened since it arrived (no lock file "<file>-lock" beside it,
 * as with a copy shipped from the other supervisor) has its structure checked before it is
 * mapped: a damaged or cut-short one gives PLAT_ERR_PSS_IO and an error line in the log, and
 * pss2_get_psstype and pss2_destroy take it for something other than a PSS file.
 */
HADRA_PLAT_API uint32_t pss2_open(const char *uri, uint32_t flags, uint32_t uuid, uint32_t reserved,
                                  const pss2_params *params, uint32_t *error) PLAT_NOEXCEPT;
/* Close a handle; the file's store closes with its last handle in the process. 0 or
   PLAT_ERR_PSS_BAD_HANDLE. A multi-get phase still open on the handle ends. */
HADRA_PLAT_API uint32_t pss2_close(uint32_t handle) PLAT_NOEXCEPT;
/*
 * Destroy the PSS file at uri: every handle of this process on it is closed first (later
 * calls with them fail with PLAT_ERR_PSS_BAD_HANDLE), then the file and its lock file are
 * removed. Processes that still have it open keep reading their old copy.
 * 0; PLAT_ERR_PSS_NOT_FOUND; PLAT_ERR_PSS_BAD_URI (not a PSS file: left alone);
 * PLAT_ERR_PSS_BAD_ARG (null uri); PLAT_ERR_PSS_IO.
 */
HADRA_PLAT_API uint32_t pss2_destroy(const char *uri) PLAT_NOEXCEPT;
/*
 * Kind of what is stored at uri: PSS2_TYPE_PSS2 or PSS2_TYPE_OTHER, with *rc 0; 0 with *rc
 * PLAT_ERR_PSS_NOT_FOUND (nothing there), PLAT_ERR_PSS_BAD_URI, PLAT_ERR_PSS_BAD_ARG or
 * PLAT_ERR_PSS_IO.
 * *other (may be null) receives the file's format version for a PSS file, else 0.
 */
HADRA_PLAT_API uint32_t pss2_get_psstype(const char *uri, uint32_t *other, uint32_t *rc) PLAT_NOEXCEPT;
/*
 * Set the file's size limit in bytes (PSS2_MIN_DBSIZE..PSS2_MAX_DBSIZE, else BAD_ARG). The
 * limit is stored in the file and holds for every later opener. It never goes below the space
 * the file already uses. A write that would take the file beyond it fails with
 * PLAT_ERR_PSS_FULL and changes nothing; deletes and purge still work on a full file.
 * 0; PLAT_ERR_PSS_BAD_HANDLE; PLAT_ERR_PSS_BAD_ARG; PLAT_ERR_PSS_READ_ONLY; PLAT_ERR_PSS_IO.
 */
HADRA_PLAT_API uint32_t pss2_set_max_dbsize(uint32_t handle, uint64_t size) PLAT_NOEXCEPT;
/* Fill *params with the file's parameter record. 0; BAD_HANDLE; BAD_ARG (null params). */
HADRA_PLAT_API uint32_t pss2_get_params(uint32_t handle, pss2_params *params) PLAT_NOEXCEPT;
/*
 * Make the file of dest_handle a copy of the file of source_handle: dest's records are
 * replaced by every record of source (dest keeps its own parameters and limit). The copy is
 * written to a scratch file beside dest's, flushed to disk and renamed over it: after a
 * failure or a crash dest's file holds its old records or the whole copy, never a part.
 * 0; BAD_HANDLE; BAD_ARG (both handles on one file); READ_ONLY (dest); PLAT_ERR_PSS_FULL
 * (dest's limit reached); PLAT_ERR_PSS_IO.
 */
HADRA_PLAT_API uint32_t pss2_snapshot(uint32_t source_handle, uint32_t dest_handle) PLAT_NOEXCEPT;

/* ---- Writes (each one transaction, committed before the call returns) ---- */

/* Store value under key, replacing a record that is there. 0; BAD_HANDLE; BAD_ARG (key or
   value); READ_ONLY; PLAT_ERR_PSS_FULL (size limit; nothing changed); PLAT_ERR_PSS_IO. */
HADRA_PLAT_API uint32_t pss2_store(uint32_t handle, const datum *key, const datum *value) PLAT_NOEXCEPT;
/* Delete the record of key; mode must be PSS2_DELETE_KEY (1). 0; PLAT_ERR_PSS_NO_RECORD when
   there is none; BAD_HANDLE; BAD_ARG; READ_ONLY; IO. */
#define PSS2_DELETE_KEY 1u
HADRA_PLAT_API uint32_t pss2_delete(uint32_t handle, const datum *key, uint32_t mode) PLAT_NOEXCEPT;
/*
 * Delete every record whose key begins with prefix (dsize 0: every record); flags must be 0.
 * *count (may be null) receives the number deleted, 0 included. 0; BAD_HANDLE; BAD_ARG (prefix
 * longer than a key can be, bad flags); READ_ONLY; IO (then nothing was deleted).
 */
HADRA_PLAT_API uint32_t pss2_delete_prefixed_keys(uint32_t handle, const datum *prefix, uint32_t flags,
                                                  uint32_t *count) PLAT_NOEXCEPT;
/* Remove every record of the file (parameters and limit stay); *count (may be null) receives
   how many were removed. 0; BAD_HANDLE; READ_ONLY; IO. */
HADRA_PLAT_API uint32_t pss2_purge(uint32_t handle, uint32_t *count) PLAT_NOEXCEPT;

/* ---- Reads ---- */

/*
 * Value stored under key, or null. *status: 0; PLAT_ERR_PSS_NO_RECORD; BAD_HANDLE; BAD_ARG;
 * IO. status must not be null (then null is returned).
 */
HADRA_PLAT_API datum *pss2_fetch(uint32_t handle, const datum *key, uint32_t *status) PLAT_NOEXCEPT;

/*
 * Positions. A handle opened with PSS2_OPEN_CURSOR has a position: none (just opened), at a
 * key, or at the end. The position is a copy of a key, so it stays meaningful when records
 * are written or deleted: "next" is the first key after it that exists at that moment.
 * The handle is passed by address (it is never changed); mode must be PSS2_MOVE_MODE (1).
 *
 * pss2_move2key: position at key when it is stored (status 0); otherwise at the first key
 * after it (status PLAT_ERR_PSS_NO_RECORD), or at the end when there is none (same status).
 * pss2_move2location: PSS2_LOC_FIRST, PSS2_LOC_LAST, PSS2_LOC_NEXT (from no position: the
 * first record), PSS2_LOC_PREV (from no position or the end: the last record). When there is
 * no such record the position becomes the end and the status PLAT_ERR_PSS_NO_RECORD.
 * Both return their status, and store it in *status when status is not null. Other statuses:
 * BAD_HANDLE; BAD_ARG (bad mode, location or key, handle without PSS2_OPEN_CURSOR); IO.
 */
#define PSS2_MOVE_MODE 1u
#define PSS2_LOC_FIRST 1u
#define PSS2_LOC_LAST 2u
#define PSS2_LOC_NEXT 3u
#define PSS2_LOC_PREV 4u
HADRA_PLAT_API uint32_t pss2_move2key(uint32_t *handle, uint32_t mode, const datum *key,
                                      uint32_t *status) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t pss2_move2location(uint32_t *handle, uint32_t mode, uint32_t location,
                                           uint32_t *status) PLAT_NOEXCEPT;
/*
 * Key at the position, or null with *status 0 when the position is none or the end (there is
 * no key to give; that is not an error). The key is the position's own: it is given even when
 * its record was deleted after the move. *status BAD_HANDLE or BAD_ARG otherwise.
 */
HADRA_PLAT_API datum *pss2_getkey(uint32_t handle, uint32_t *status) PLAT_NOEXCEPT;
/* Value of the record at the position, or null with *status PLAT_ERR_PSS_NO_RECORD (no
   position, the end, or the record was deleted since), BAD_HANDLE, BAD_ARG or IO. */
HADRA_PLAT_API datum *pss2_getvalue(uint32_t handle, uint32_t *status) PLAT_NOEXCEPT;

/*
 * Multi-get phase: from pss2_mget_begin to pss2_mget_done the handle's reads (moves,
 * getvalue, fetch) see the file as it was at begin, in one read transaction, which also
 * makes a long walk cheaper. Writes through this or any handle still work and commit at
 * once; reads through this handle see them only after pss2_mget_done. Size limit changes
 * made meanwhile apply once no phase is open on the file in this process.
 * begin: 0; BAD_HANDLE; BAD_ARG (a phase is already open, or no PSS2_OPEN_CURSOR); IO.
 * *records (may be null) receives the number of records in the view.
 * done: 0; BAD_HANDLE; BAD_ARG (no phase open).
 */
HADRA_PLAT_API uint32_t pss2_mget_begin(uint32_t handle, uint32_t *records) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t pss2_mget_done(uint32_t handle) PLAT_NOEXCEPT;

/* ---- The older calls (one handle kind, no parameters) ---- */

/* Open an existing file for reading and writing (like pss2_open with flags 11). Returns the
   handle, or 0 with *err PLAT_ERR_PSS_NOT_FOUND (0x80480002) when there is no file, or
   another pss2_open error. */
HADRA_PLAT_API uint32_t pss_open(const char *uri, uint32_t *err) PLAT_NOEXCEPT;
/* Create a new file with default parameters and open it (flags 27); *err
   PLAT_ERR_PSS_EXISTS when a file is already there, else as pss2_open. */
HADRA_PLAT_API uint32_t pss_create(const char *uri, uint32_t *err) PLAT_NOEXCEPT;
/* As pss2_close and pss2_destroy. */
HADRA_PLAT_API uint32_t pss_close(uint32_t handle) PLAT_NOEXCEPT;
HADRA_PLAT_API uint32_t pss_destroy(const char *uri) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
