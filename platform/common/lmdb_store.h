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
  // Commits txn through the seam; tells the flusher the store changed.
  int commit(MDB_txn* txn);
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
};

// A consistent, compacted copy of env (one read transaction, free pages left out) written to
// a new file at path, flushed to disk before the call returns; a file already there is
// replaced. 0, or an LMDB or errno value; on failure nothing is left at path.
int env_copy_to(MDB_env* env, const char* path);

}  // namespace hadra::plat
