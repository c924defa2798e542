// What the PSS and SDB stores share about their LMDB environments: how a live store is opened
// (the durability setting, the writable map), the space a write may use, the group-commit
// flusher, and a thin seam over the LMDB and file calls that write, so that tests can make
// them fail beneath the platform's calls.
//
// Durability (configuration key DURABILITY, read when a store is opened):
//   sync   every commit is flushed to disk before the call returns;
//   group  (default) the call returns once the commit is in the store (a crash of the process
//          keeps it); a flusher thread writes every changed store to disk within
//          DURABILITY_DELAY_MS (default 100 ms, 1..10000), and a store is flushed when closed;
//   none   the commit is in the store, the kernel writes it out when it likes.
// The older keys PSS_SYNC=1 and SDB_SYNC=1, and PSS2_PARAM_SYNC, still ask for sync.
//
// Writable map. Live stores are opened with MDB_WRITEMAP: a commit writes its pages in the
// map instead of one pwrite per page. The map covers the whole size limit of the store but
// its file is sparse, and a page written where the disk has no block left would kill the
// process (SIGBUS). Blocks are therefore allocated ahead of the writer (reserve()): a write
// that cannot get its blocks fails with ENOSPC before it touches the map. On a file system
// that cannot allocate ahead (logged once) a full disk still kills the writer: there, or
// wherever that matters more than speed, STORE_WRITEMAP=0 opens stores without the map.
#pragma once

#include <lmdb.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace hadra::plat {

enum class Durability { kSync, kGroup, kNone };

// The configured setting; force_sync: the store or an older key asks for sync.
Durability durability(bool force_sync);
const char* durability_name(Durability d);

// LMDB calls that write or sync, and the one file call the stores make beneath them. Tests
// swap entries (ENOSPC, EIO, MDB_MAP_FULL, ...); reset_lmdb_ops() puts LMDB's back.
struct LmdbOps {
  int (*txn_commit)(MDB_txn* txn);
  int (*env_sync)(MDB_env* env, int force);
  int (*fallocate)(int fd, off_t offset, off_t len);  // 0 or an errno value
};
LmdbOps& lmdb_ops();
void reset_lmdb_ops();

// Why a store call failed, as an operator reads it: a full disk (ENOSPC) says so, an I/O
// error (EIO) too, anything else is LMDB's or the C library's text.
const char* failure_cause(int rc);
// Logs, rate-limited per file and operation, that `what` on the store file at path failed
// and why ("sdb: commit of /r/run/x failed: the disk is full (No space left on device)").
void report_failure(const char* service, const char* what, const char* path, int rc);
// The same for an environment; its file is asked of LMDB.
void report_failure(const char* service, const char* what, MDB_env* env, int rc);
// The last write a store of this thread could not make (a commit, or blocks for the map):
// the LMDB or errno value and the store's file. serial counts such failures, so a caller can
// tell whether a call it made failed beneath the platform's own report (the standby's receive
// loop names the cause of an apply the store refused).
struct WriteFailure {
  uint64_t serial = 0;
  int rc = 0;
  char path[256] = {};
};
const WriteFailure& last_write_failure();

// Apply batch. The standby's receive loop applies a run of queued changes in one write
// transaction per store: while a batch is open on this thread, the plain record writes of the
// stores (a PSS store or delete, an SDB writer) join the store's batch transaction and their
// commit only counts; reads on this thread use that transaction, so they see what was just
// applied. Anything else that touches a store (closing it, resizing its map, copies,
// snapshots, purges, limits, a write that might not fit in the map) first commits the store's
// batch (settle). A write that fails inside a batch aborts every transaction of the batch and
// is recorded as a write failure (last_write_failure()): the loop then counts the whole run as
// not applied. A batch holds its stores' LMDB writer locks from one call to the next: writes
// to those stores from another thread of the process would wait for it while holding the
// service's lock, which is why a service's store calls belong to its receive loop's thread. apply_batch_end commits (or, after a failure or with commit=false, aborts) what
// is left; 0, or the first failure's LMDB or errno value.
void apply_batch_begin();
// Payload bytes of the change about to be applied (sizes the room kept in the map).
void apply_batch_expect(size_t bytes);
bool apply_batch_open();
bool apply_batch_failed();
int apply_batch_end(bool commit);
// Commits the batch transaction of every store on this thread, keeping the batch open.
int apply_batch_settle_all();

// One live store environment as the stores open it.
class StoreEnv {
 public:
  // Flags for mdb_env_open of a live store at path (a file with MDB_NOSUBDIR in extra):
  // the writable map and the sync flag chosen by the setting.
  unsigned open_flags(unsigned extra, bool force_sync);
  // After mdb_env_open succeeded: allocates the blocks of the pages in use and some room,
  // joins the flusher for group. 0, or an errno value (the disk is full).
  int opened(MDB_env* env);
  // Before the environment closes: leaves the flusher, flushes what group still owes.
  void closing();
  // Makes sure extra bytes beyond the pages in use have disk blocks (writable map only).
  // 0, or an errno value (ENOSPC) when the disk cannot give them.
  int reserve(size_t extra);
  // Commits txn through the seam; tells the flusher the store changed. The batch's own
  // transaction is not committed here (0: it stays open until the batch settles).
  int commit(MDB_txn* txn);
  // ---- the apply batch (see above) ----
  // This store's open batch transaction on this thread, or null.
  MDB_txn* batch_txn() const;
  // For a plain record write of about size bytes (0: unknown, the loop's announced payload
  // stands for it): the batch transaction to write in (*txn set, true), or false with *adopt
  // when the caller begins one of its own and hands it to batch_adopt (a batch is open and
  // the map has room), or false without: an ordinary write.
  bool batch_join(size_t size, MDB_txn** txn, bool* adopt);
  void batch_adopt(size_t size, MDB_txn* txn);
  // A write in the batch failed with rc: the batch is aborted and the failure recorded.
  void batch_fail(int rc);
  // Commits this store's batch transaction now (0 when there is none).
  int settle();
  bool writemap() const { return writemap_; }
  Durability mode() const { return mode_; }
  // After fork(): the child forgets the environment without flushing or closing it.
  void abandon();

 private:
  MDB_env* env_ = nullptr;
  Durability mode_ = Durability::kGroup;
  bool writemap_ = false;
  void* tracked_ = nullptr;  // the flusher's node (group)
  off_t allocated_ = 0;  // bytes from the start of the file known to have blocks
  bool room_for_batch(size_t changes, size_t bytes) const;
};

// A consistent, compacted copy of env (one read transaction, free pages left out) written to
// a new file at path, flushed to disk before the call returns; a file already there is
// replaced. An apply batch of env on this thread is committed first. 0, or an LMDB or errno value; on failure nothing is left at path.
int env_copy_to(MDB_env* env, const char* path);

}  // namespace hadra::plat
