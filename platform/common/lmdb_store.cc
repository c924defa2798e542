// Live store environments: durability, blocks allocated ahead of the writable map, the
// group-commit flusher, and the seam over the calls that write (see lmdb_store.h).
#include "common/lmdb_store.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "log/log_internal.h"
#include "hadra_platform_testing.h"

namespace hadra::plat {
namespace {

int real_fallocate(int fd, off_t offset, off_t len) {
  // fallocate(2), not posix_fallocate: glibc's fallback writes into the file, under the map.
  return ::fallocate(fd, 0, offset, len) == 0 ? 0 : errno;
}

constexpr LmdbOps kLmdb{&mdb_txn_commit, &mdb_env_sync, &real_fallocate};
LmdbOps g_ops = kLmdb;

constexpr off_t kMinStep = off_t{4} << 20;  // blocks allocated ahead at least this far

// One store in group mode. The node outlives nothing: the store removes it when it closes.
struct Tracked {
  MDB_env* env = nullptr;
  std::atomic<bool> dirty{false};
};

// The flusher: a thread that wakes every delay and flushes the stores that changed. It holds
// its mutex while flushing, so a store that closes waits for the flush of its environment.
struct Flusher {
  std::mutex mu;
  std::condition_variable cv;
  std::vector<Tracked*> stores;
  bool running = false;
};

Flusher* g_flusher = new Flusher();  // never destroyed: the thread may outlive exit handlers
// The delay, read when a store joins: the flusher itself never reads the configuration (that
// would make the root directory again behind a caller that removed it).
std::atomic<long> g_delay_ms{100};

long delay_ms() {
  long ms = plat_config_get_long("DURABILITY_DELAY_MS", 100);
  return ms < 1 ? 1 : ms > 10000 ? 10000 : ms;
}

void flush_one(Tracked& t) {
  if (!t.dirty.exchange(false, std::memory_order_acq_rel)) return;
  if (int rc = g_ops.env_sync(t.env, 1); rc != 0) {
    t.dirty.store(true, std::memory_order_relaxed);  // owed still: tried again next round
    report_failure("store", "flushing to disk", t.env, rc);
  }
}

void flusher_loop(Flusher* f) {
  std::unique_lock<std::mutex> g(f->mu);
  for (;;) {
    f->cv.wait_for(g, std::chrono::milliseconds(g_delay_ms.load(std::memory_order_relaxed)));
    for (Tracked* t : f->stores) flush_one(*t);
  }
}

// A child of fork() has no flusher thread and must not touch its parent's environments: it
// starts from a fresh flusher (the old one, maybe locked by a thread that is not there, is
// left alone).
Flusher* g_retired = nullptr;  // the parent's, kept reachable: it is not ours to free
void forget_batch();
void after_fork_child() {
  g_retired = g_flusher;
  g_flusher = new Flusher();
  forget_batch();  // the parent's transactions: not the child's to commit or abort
}
[[maybe_unused]] const bool g_fork_registered = (pthread_atfork(nullptr, nullptr, after_fork_child), true);

thread_local WriteFailure t_failure;

int note_failure(MDB_env* env, int rc) {
  if (rc == 0) return 0;
  ++t_failure.serial;
  t_failure.rc = rc;
  const char* path = nullptr;
  if (env == nullptr || mdb_env_get_path(env, &path) != 0 || path == nullptr) path = "?";
  std::snprintf(t_failure.path, sizeof t_failure.path, "%s", path);
  return rc;
}

// ---- The apply batch of this thread ----

struct BatchEntry {
  StoreEnv* store;
  MDB_env* env;
  MDB_txn* txn;
  size_t changes;  // commits that only counted
  size_t bytes;    // payload announced for the writes that joined
};

struct Batch {
  bool open = false;
  int failed = 0;     // the first failure's value: everything of the batch is aborted
  size_t expect = 0;  // payload of the change being applied
  std::vector<BatchEntry> envs;
};

thread_local Batch t_batch;

void forget_batch() { t_batch = Batch(); }

BatchEntry* batch_entry(const StoreEnv* s) {
  for (BatchEntry& e : t_batch.envs)
    if (e.store == s) return &e;
  return nullptr;
}

// Aborts every transaction of the batch after a failure (rc, recorded for env when note).
void abort_batch(MDB_env* env, int rc, bool note) {
  for (BatchEntry& e : t_batch.envs) mdb_txn_abort(e.txn);
  t_batch.envs.clear();
  if (t_batch.failed == 0) t_batch.failed = rc;
  if (note) note_failure(env, rc);
}

}  // namespace

void apply_batch_begin() {
  if (t_batch.open) (void)apply_batch_end(true);
  t_batch.open = true;
  t_batch.failed = 0;
  t_batch.expect = 0;
}

void apply_batch_expect(size_t bytes) { t_batch.expect = bytes; }
bool apply_batch_open() { return t_batch.open; }
bool apply_batch_failed() { return t_batch.open && t_batch.failed != 0; }

int apply_batch_settle_all() {
  while (!t_batch.envs.empty())
    if (int rc = t_batch.envs.front().store->settle(); rc != 0) return rc;
  return t_batch.failed;
}

int apply_batch_end(bool commit) {
  if (!t_batch.open) return 0;
  if (!commit && t_batch.failed == 0) abort_batch(nullptr, ECANCELED, false);
  const int rc = apply_batch_settle_all();
  forget_batch();
  return rc;
}

const char* failure_cause(int rc) {
  switch (rc) {
    case ENOSPC: return "the disk is full (No space left on device)";
    case EDQUOT: return "the disk quota is used up (Disk quota exceeded)";
    case EIO: return "I/O error (Input/output error)";
    case EROFS: return "the file system is read-only";
    default: return mdb_strerror(rc);  // LMDB's codes, and the C library's text for errno values
  }
}

void report_failure(const char* service, const char* what, const char* path, int rc) {
  if (rc == 0) return;
  char key[512];
  std::snprintf(key, sizeof key, "%s %s %s", service, what, path != nullptr ? path : "?");
  log::limited_writef(key, PLAT_LOG_ERR, "%s: %s of %s failed: %s", service, what, path != nullptr ? path : "?",
                      failure_cause(rc));
}

void report_failure(const char* service, const char* what, MDB_env* env, int rc) {
  const char* path = nullptr;
  if (env != nullptr) mdb_env_get_path(env, &path);
  report_failure(service, what, path, rc);
}
const WriteFailure& last_write_failure() { return t_failure; }

LmdbOps& lmdb_ops() { return g_ops; }
void reset_lmdb_ops() { g_ops = kLmdb; }

Durability durability(bool force_sync) {
  if (force_sync) return Durability::kSync;
  const char* v = plat_config_get("DURABILITY", "group");
  if (std::strcmp(v, "sync") == 0) return Durability::kSync;
  if (std::strcmp(v, "none") == 0) return Durability::kNone;
  if (std::strcmp(v, "group") != 0)
    plat_syslog(PLAT_LOG_WARNING, "store: DURABILITY=%s is not sync, group or none; using group", v);
  return Durability::kGroup;
}

const char* durability_name(Durability d) {
  return d == Durability::kSync ? "sync" : d == Durability::kGroup ? "group" : "none";
}

unsigned StoreEnv::open_flags(unsigned extra, bool force_sync) {
  mode_ = durability(force_sync);
  writemap_ = plat_config_get_long("STORE_WRITEMAP", 1) != 0;
  unsigned flags = extra & ~static_cast<unsigned>(MDB_NOSYNC | MDB_WRITEMAP);
  if (writemap_) flags |= MDB_WRITEMAP;
  if (mode_ != Durability::kSync) flags |= MDB_NOSYNC;
  return flags;
}

int StoreEnv::opened(MDB_env* env) {
  env_ = env;
  allocated_ = 0;
  if (int rc = reserve(0); rc != 0) return rc;
  if (mode_ == Durability::kGroup) {
    auto* t = new Tracked();
    t->env = env;
    g_delay_ms.store(delay_ms(), std::memory_order_relaxed);
    Flusher* f = g_flusher;
    std::lock_guard<std::mutex> g(f->mu);
    f->stores.push_back(t);
    tracked_ = t;
    if (!f->running) {
      f->running = true;
      std::thread(flusher_loop, f).detach();
    }
  }
  return 0;
}

void StoreEnv::closing() {
  if (env_ == nullptr) return;
  (void)settle();
  if (tracked_ != nullptr) {
    auto* t = static_cast<Tracked*>(tracked_);
    Flusher* f = g_flusher;
    std::lock_guard<std::mutex> g(f->mu);
    for (size_t i = 0; i < f->stores.size(); ++i)
      if (f->stores[i] == t) {
        f->stores.erase(f->stores.begin() + static_cast<long>(i));
        break;
      }
    flush_one(*t);  // what the delay still owed
    delete t;
    tracked_ = nullptr;
  }
  env_ = nullptr;
}

void StoreEnv::abandon() {
  if (BatchEntry* e = batch_entry(this)) t_batch.envs.erase(t_batch.envs.begin() + (e - t_batch.envs.data()));
  env_ = nullptr;
  tracked_ = nullptr;  // the parent's; the child's flusher never saw it
}

int StoreEnv::reserve(size_t extra) {
  if (!writemap_ || env_ == nullptr) return 0;
  MDB_envinfo info;
  MDB_stat st;
  if (mdb_env_info(env_, &info) != 0 || mdb_env_stat(env_, &st) != 0) return EIO;
  const auto map = static_cast<off_t>(info.me_mapsize);
  const auto used = static_cast<off_t>((info.me_last_pgno + 1) * st.ms_psize);
  off_t want = used + static_cast<off_t>(extra);
  if (want > map) want = map;  // beyond the map LMDB refuses the write itself (full)
  if (want <= allocated_) return 0;
  off_t step = used / 8 > kMinStep ? used / 8 : kMinStep;
  off_t target = want + step < map ? want + step : map;
  int fd = -1;
  if (mdb_env_get_fd(env_, &fd) != 0) return EIO;
  int rc = g_ops.fallocate(fd, 0, target);
  if (rc == ENOSPC && target > want) rc = g_ops.fallocate(fd, 0, want);  // no room to spare
  else if (rc == 0) want = target;
  if (rc == EOPNOTSUPP) {
    static std::atomic<bool> told{false};
    if (!told.exchange(true)) {
      const char* path = nullptr;
      mdb_env_get_path(env_, &path);
      plat_syslog(PLAT_LOG_WARNING,
                  "store: the file system of %s cannot allocate blocks ahead; a full disk will stop "
                  "the writing process (STORE_WRITEMAP=0 avoids it)",
                  path != nullptr ? path : "?");
    }
    allocated_ = map;  // nothing more to try
    return 0;
  }
  if (rc != 0) return note_failure(env_, rc);
  allocated_ = want;
  return 0;
}

int StoreEnv::commit(MDB_txn* txn) {
  if (BatchEntry* e = batch_entry(this); e != nullptr && e->txn == txn) {
    ++e->changes;
    return 0;
  }
  int rc = g_ops.txn_commit(txn);
  if (rc == 0 && tracked_ != nullptr) static_cast<Tracked*>(tracked_)->dirty.store(true, std::memory_order_release);
  return note_failure(env_, rc);
}

MDB_txn* StoreEnv::batch_txn() const {
  const BatchEntry* e = batch_entry(this);
  return e != nullptr ? e->txn : nullptr;
}

// The map must hold what the batch may still add: LMDB fails a write that does not fit and
// then refuses the whole transaction, while an ordinary write that fills the map is retried
// with a grown one. Pages per change (the copied path of the tree, a split) and the payload
// three times over (leaf pages half full, overflow pages rounded up) are counted against the
// pages the last commit left in use.
size_t batch_need(size_t changes, size_t bytes, size_t page) {
  return (changes + 1) * 8 * page + 3 * bytes + (size_t{256} << 10);
}

bool StoreEnv::room_for_batch(size_t changes, size_t bytes) const {
  MDB_envinfo info;
  MDB_stat st;
  if (mdb_env_info(env_, &info) != 0 || mdb_env_stat(env_, &st) != 0) return false;
  const size_t used = (info.me_last_pgno + 1) * st.ms_psize;
  return used + batch_need(changes, bytes, st.ms_psize) <= info.me_mapsize;
}

bool StoreEnv::batch_join(size_t size, MDB_txn** txn, bool* adopt) {
  *txn = nullptr;
  *adopt = false;
  if (!t_batch.open || env_ == nullptr) return false;
  BatchEntry* e = batch_entry(this);
  const size_t changes = e != nullptr ? e->changes : 0;
  const size_t bytes = (e != nullptr ? e->bytes : 0) + (size > t_batch.expect ? size : t_batch.expect);
  if (!room_for_batch(changes, bytes)) {
    if (e != nullptr) (void)settle();  // this write goes alone, after what the batch holds
    return false;
  }
  if (e == nullptr) {
    *adopt = true;
    return false;
  }
  // Blocks ahead of the map for what the batch may still write beyond the last commit.
  if (int rc = reserve(batch_need(changes, bytes, 4096) + (size_t{8} << 20)); rc != 0) {
    abort_batch(env_, rc, false);  // reserve recorded it
    return false;
  }
  e->bytes = bytes;
  *txn = e->txn;
  return true;
}

void StoreEnv::batch_adopt(size_t size, MDB_txn* txn) {
  t_batch.envs.push_back(BatchEntry{this, env_, txn, 0, size > t_batch.expect ? size : t_batch.expect});
}

void StoreEnv::batch_fail(int rc) { abort_batch(env_, rc != 0 ? rc : EIO, true); }

int StoreEnv::settle() {
  BatchEntry* e = batch_entry(this);
  if (e == nullptr) return 0;
  MDB_txn* txn = e->txn;
  t_batch.envs.erase(t_batch.envs.begin() + (e - t_batch.envs.data()));
  if (t_batch.failed != 0) {  // joined after the failure: goes with the rest of the batch
    mdb_txn_abort(txn);
    return 0;
  }
  const int rc = commit(txn);  // no longer the batch's: a real commit, recorded when it fails
  if (rc != 0) {
    report_failure("store", "commit of applied changes", env_, rc);
    abort_batch(env_, rc, false);
  }
  return rc;
}

int env_copy_to(MDB_env* env, const char* path) {
  for (BatchEntry& e : t_batch.envs)
    if (e.env == env) {
      if (int rc = e.store->settle(); rc != 0) return rc;
      break;
    }
  ::unlink(path);
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  int rc = mdb_env_copyfd2(env, fd, MDB_CP_COMPACT);
  if (rc == 0 && ::fsync(fd) != 0) rc = errno;
  if (::close(fd) != 0 && rc == 0) rc = errno;
  if (rc != 0) ::unlink(path);
  return rc;
}

}  // namespace hadra::plat

namespace {
std::atomic<int> g_forced_commit_rc{0};
int forced_commit_failure(MDB_txn* txn) {
  mdb_txn_abort(txn);  // LMDB's commit frees the transaction whatever its result
  return g_forced_commit_rc.load();
}
}  // namespace

extern "C" HADRA_PLAT_API void plat_test_store_fail_commits(int err) noexcept {
  g_forced_commit_rc.store(err);
  hadra::plat::lmdb_ops().txn_commit = err != 0 ? &forced_commit_failure : &mdb_txn_commit;
}
