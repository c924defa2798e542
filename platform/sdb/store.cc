// LMDB environments, the meta record and the table of open SDBs.
//
// Layout of an SDB (docs/sdb.md): a directory at the URI's path with LMDB's data.mdb and
// lock.mdb, four named sub-databases: "meta" (one record "sdb"), "records" (primary key ->
// value), "mkeys" (primary key -> the record's secondary keys, MSDB) and "skeys" (a
// duplicate-sorted index: tag + secondary key -> primary keys, MSDB).
//
// Creation builds the environment in a scratch directory beside the target and renames it
// into place, so another process sees either nothing or a complete SDB, and two creators
// racing for one URI get one SDB and one "exists".
#include "sdb/store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "sdb/bytes.h"

namespace hadra::plat::sdb {
namespace {

constexpr size_t kMetaSize = 32;
constexpr char kMetaKey[] = "sdb";
constexpr long kDefaultMapSize = 1L << 30;
constexpr long kMinMapSize = 1L << 20;

struct Table {
  std::mutex mu;
  std::map<std::string, std::unique_ptr<Db>> open;  // by path
  std::set<uint32_t> opcodes;
  pid_t pid = 0;
  uint64_t next_id = 1;
};

Table& table() {
  static Table* t = new Table;  // never destroyed: calls may come from atexit handlers
  return *t;
}

// Environments inherited over fork() belong to the parent: drop them unclosed.
void forget_after_fork(Table& t) {
  pid_t now = ::getpid();
  if (t.pid == now) return;
  for (auto& [path, db] : t.open) db->env.abandon();
  t.open.clear();
  t.pid = now;
}

void reset_all() {
  Table& t = table();
  std::lock_guard<std::mutex> g(t.mu);
  forget_after_fork(t);
  t.open.clear();
  t.opcodes.clear();
}

[[maybe_unused]] const bool g_reset_registered = (register_reset(&reset_all), true);

std::string join(const std::string& dir, const char* name) { return dir + "/" + name; }

bool remove_files(const std::string& path) {
  for (const char* f : {"data.mdb", "lock.mdb"})
    if (::unlink(join(path, f).c_str()) != 0 && errno != ENOENT) return false;
  return ::rmdir(path.c_str()) == 0 || errno == ENOENT;
}

uint32_t open_dbis(Env& env, MDB_txn* txn, bool create) {
  unsigned c = create ? MDB_CREATE : 0;
  struct {
    const char* name;
    unsigned flags;
    MDB_dbi* dbi;
  } const dbs[] = {{"meta", c, &env.meta},
                   {"records", c, &env.records},
                   {"mkeys", c, &env.mkeys},
                   {"skeys", c | MDB_DUPSORT, &env.skeys}};
  for (const auto& d : dbs) {
    int rc = mdb_dbi_open(txn, d.name, d.flags, d.dbi);
    if (rc == MDB_NOTFOUND || rc == MDB_INCOMPATIBLE) return PLAT_ERR_SDB_BAD_URI;
    if (rc != 0) return map_err(rc);
  }
  return 0;
}

}  // namespace

uint32_t fnv1a(const void* p, size_t n) {
  uint32_t h = 2166136261u;
  const auto* b = static_cast<const uint8_t*>(p);
  for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 16777619u;
  return h;
}

void WriteNote::key(const void* p, size_t n) {
  ++records;
  key_hash = fnv1a(p, n);
}

uint32_t map_err(int rc) {
  switch (rc) {
    case 0: return 0;
    case MDB_NOTFOUND: return PLAT_ERR_SDB_NO_RECORD;
    case MDB_MAP_FULL:
    case MDB_TXN_FULL: return PLAT_ERR_SDB_FULL;
    case MDB_BAD_VALSIZE: return PLAT_ERR_SDB_BAD_ARG;
    case ENOSPC: return PLAT_ERR_SDB_FULL;  // the disk: no blocks for the store's map
    default: return PLAT_ERR_SDB_IO;
  }
}

unsigned env_flags() { return 0; }

uint32_t Env::open(const std::string& path, unsigned extra, bool create, const Meta& init) {
  close();
  long map = plat_config_get_long("SDB_MAP_SIZE", kDefaultMapSize);
  if (map < kMinMapSize) map = kMinMapSize;
  int rc = mdb_env_create(&env_);
  if (rc != 0) {
    env_ = nullptr;
    return PLAT_ERR_SDB_IO;
  }
  live_ = (extra & MDB_NOLOCK) == 0;
  unsigned flags = live_ ? store_.open_flags(extra, plat_config_get_long("SDB_SYNC", 0) == 1) : extra;
  if (mdb_env_set_maxdbs(env_, 4) != 0 || mdb_env_set_mapsize(env_, static_cast<size_t>(map)) != 0 ||
      (rc = mdb_env_open(env_, path.c_str(), flags | MDB_NOTLS, 0644)) != 0) {
    if (rc != 0) report_failure("sdb", "opening", path.c_str(), rc);
    close();
    return PLAT_ERR_SDB_IO;
  }
  if (live_ && (rc = store_.opened(env_)) != 0) {
    report_failure("sdb", "opening (blocks for its store)", path.c_str(), rc);
    close();
    return PLAT_ERR_SDB_FULL;
  }
  Txn txn;
  uint32_t r = txn.begin(*this, !create);
  if (r == 0) r = open_dbis(*this, txn.get(), create);
  if (r == 0 && create) r = write_meta(txn.get(), *this, init);
  if (r == 0 && !create) {
    Meta m;
    r = read_meta(txn.get(), *this, m);
  }
  if (r == 0) r = txn.commit();
  txn.abort();  // before the environment goes: aborting afterwards frees its names twice
  if (r != 0) close();
  return r;
}

void Env::close() {
  if (env_ != nullptr) {
    if (live_) store_.closing();
    mdb_env_close(env_);
  }
  env_ = nullptr;
}

uint32_t Txn::begin(const Env& env, bool read_only, bool batchable) {
  abort();
  unsigned flags = read_only ? MDB_RDONLY : 0;
  store_ = read_only ? nullptr : env.store();
  bool adopt = false;
  if (StoreEnv* live = env.store(); live != nullptr) {
    if (read_only) {
      txn_ = live->batch_txn();  // sees what the batch applied
      batch_ = txn_ != nullptr;
      if (batch_) return 0;
    } else if (batchable && live->batch_join(0, &txn_, &adopt)) {
      batch_ = true;
      return 0;
    } else if (int rc = live->settle(); rc != 0) {
      return map_err(rc);
    }
  }
  if (store_ != nullptr) {
    if (int rc = store_->reserve(kWriteRoom); rc != 0) {
      report_failure("sdb", "write", env.env(), rc);
      return map_err(rc);
    }
  }
  int rc = mdb_txn_begin(env.env(), nullptr, flags, &txn_);
  if (rc == MDB_MAP_RESIZED) {  // another process grew the map: adopt its size
    mdb_env_set_mapsize(env.env(), 0);
    rc = mdb_txn_begin(env.env(), nullptr, flags, &txn_);
  }
  if (rc != 0) {
    txn_ = nullptr;
    report_failure("sdb", read_only ? "read transaction" : "write transaction", env.env(), rc);
  } else if (adopt) {
    store_->batch_adopt(0, txn_);
    batch_ = true;
  }
  return map_err(rc);
}

uint32_t Txn::commit() {
  if (txn_ == nullptr) return PLAT_ERR_SDB_IO;
  if (batch_ && store_ == nullptr) {  // a read of the batch's transaction
    txn_ = nullptr;
    batch_ = false;
    return 0;
  }
  MDB_env* env = mdb_txn_env(txn_);  // the commit frees txn_, its file is named after it
  int rc = store_ != nullptr ? store_->commit(txn_) : lmdb_ops().txn_commit(txn_);
  txn_ = nullptr;
  batch_ = false;
  if (rc != 0) report_failure("sdb", "commit", env, rc);
  return map_err(rc);
}

void Txn::fail(uint32_t rc) {
  if (txn_ != nullptr && batch_ && store_ != nullptr) {
    // The batch's value for the receive loop's report: the store's own words for the failure.
    store_->batch_fail(rc == PLAT_ERR_SDB_FULL ? MDB_MAP_FULL : rc == PLAT_ERR_SDB_NO_RECORD ? MDB_NOTFOUND : EIO);
    txn_ = nullptr;
    batch_ = false;
  }
  abort();
}

void Txn::abort() {
  if (batch_) {
    if (txn_ != nullptr && store_ != nullptr) store_->batch_fail(EIO);  // a write left unfinished
    txn_ = nullptr;  // a read of the batch's transaction: nothing to end
    batch_ = false;
  }
  if (txn_ != nullptr) mdb_txn_abort(txn_);
  txn_ = nullptr;
}

uint32_t read_meta(MDB_txn* txn, const Env& env, Meta& out) {
  MDB_val k{sizeof kMetaKey - 1, const_cast<char*>(kMetaKey)}, v;
  int rc = mdb_get(txn, env.meta, &k, &v);
  if (rc == MDB_NOTFOUND) return PLAT_ERR_SDB_BAD_URI;
  if (rc != 0) return map_err(rc);
  const auto* b = static_cast<const uint8_t*>(v.mv_data);
  if (v.mv_size != kMetaSize || std::memcmp(b, kMagic, sizeof kMagic) != 0 || get_le(b + 8, 4) != kVersion)
    return PLAT_ERR_SDB_BAD_URI;
  out.kind = static_cast<uint32_t>(get_le(b + 12, 4));
  out.uuid = static_cast<uint32_t>(get_le(b + 16, 4));
  out.state = static_cast<uint32_t>(get_le(b + 20, 4));
  out.generation = get_le(b + 24, 8);
  return 0;
}

uint32_t write_meta(MDB_txn* txn, const Env& env, const Meta& m) {
  uint8_t b[kMetaSize];
  std::memcpy(b, kMagic, sizeof kMagic);
  put_le(b + 8, kVersion, 4);
  put_le(b + 12, m.kind, 4);
  put_le(b + 16, m.uuid, 4);
  put_le(b + 20, m.state, 4);
  put_le(b + 24, m.generation, 8);
  MDB_val k{sizeof kMetaKey - 1, const_cast<char*>(kMetaKey)}, v{sizeof b, b};
  return map_err(mdb_put(txn, env.meta, &k, &v, 0));
}

std::string index_key(uint32_t tag, const void* p, size_t n) {
  std::string k(2, '\0');
  put_be(reinterpret_cast<uint8_t*>(k.data()), tag & 0xffffu, 2);
  k.append(static_cast<const char*>(p), n);
  return k;
}

bool key_ok(const datum* k) { return k != nullptr && k->dsize > 0 && k->dsize <= SDB_KEY_MAX && k->dptr != nullptr; }
bool value_ok(const datum* d) { return d != nullptr && (d->dsize == 0 || d->dptr != nullptr); }

std::unique_lock<std::mutex> lock() {
  Table& t = table();
  std::unique_lock<std::mutex> g(t.mu);
  forget_after_fork(t);
  return g;
}

uint32_t uri_path(const char* uri, std::string& out, bool mkdirs) {
  if (uri == nullptr) return PLAT_ERR_SDB_BAD_URI;
  const char* colon = std::strchr(uri, ':');
  if (colon == nullptr) return PLAT_ERR_SDB_BAD_URI;
  const char* rest = colon + 1;
  while (*rest == '/') ++rest;
  if (*rest == '\0') return PLAT_ERR_SDB_BAD_URI;  // the area itself is never an SDB
  char buf[4096];
  if (plat_uri_to_path(uri, buf, sizeof buf, mkdirs ? 1 : 0) != 0) return PLAT_ERR_SDB_BAD_URI;
  out = buf;
  return 0;
}

Db* find_path(const std::string& path) {
  auto& open = table().open;
  auto it = open.find(path);
  return it == open.end() ? nullptr : it->second.get();
}

uint32_t find_open(const char* uri, Db** out) {
  std::string path;
  uint32_t rc = uri_path(uri, path, false);
  if (rc != 0) return rc;
  *out = find_path(path);
  return *out != nullptr ? 0 : PLAT_ERR_SDB_NOT_OPEN;
}

Db* add_open(std::unique_ptr<Db> db) {
  Table& t = table();
  db->id = t.next_id++;
  Db* raw = db.get();
  t.open[db->path] = std::move(db);
  return raw;
}

void close_open(const std::string& path) { table().open.erase(path); }

bool id_is_open(uint64_t id) {
  for (const auto& [path, db] : table().open)
    if (db->id == id) return true;
  return false;
}

void visit_open(void (*fn)(Db&, void*), void* arg) {
  for (auto& [path, db] : table().open) fn(*db, arg);
}

void opcode_add(uint32_t opcode) { table().opcodes.insert(opcode); }
bool opcode_known(uint32_t opcode) { return table().opcodes.count(opcode) != 0; }

Stored probe(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return errno == ENOENT ? Stored::kNothing : Stored::kOther;
  if (!S_ISDIR(st.st_mode)) return Stored::kOther;
  return ::stat(join(path, "data.mdb").c_str(), &st) == 0 && S_ISREG(st.st_mode) ? Stored::kSdb : Stored::kOther;
}

uint32_t check_stored(const std::string& path) {
  switch (probe(path)) {
    case Stored::kSdb: return 0;
    case Stored::kNothing: return PLAT_ERR_SDB_NOT_FOUND;
    default: return PLAT_ERR_SDB_BAD_URI;
  }
}

uint32_t open_existing(const std::string& path, Env& env, Meta* meta) {
  uint32_t rc = env.open(path, env_flags(), false);
  if (rc != 0 || meta == nullptr) return rc;
  Txn txn;
  rc = txn.begin(env, true);
  if (rc == 0) rc = read_meta(txn.get(), env, *meta);
  return rc;
}

uint32_t open_live(const std::string& path, Env& env, Meta& meta) {
  uint32_t rc = check_stored(path);
  if (rc == 0) rc = open_existing(path, env, &meta);
  if (rc == 0 && meta.state == kStateDestroying) rc = PLAT_ERR_SDB_NOT_FOUND;
  return rc;
}

uint32_t create_at(const std::string& path, uint32_t kind, uint32_t uuid) {
  if (find_path(path) != nullptr) return PLAT_ERR_SDB_EXISTS;
  Stored s = probe(path);
  if (s == Stored::kOther) return PLAT_ERR_SDB_BAD_URI;
  if (s == Stored::kSdb) {
    Env old;
    Meta m;
    uint32_t rc = open_existing(path, old, &m);
    if (rc != 0) return rc;
    if (m.state != kStateDestroying) return PLAT_ERR_SDB_EXISTS;
    old.close();  // an unfinished destruction: finish it, then create afresh
    if (!remove_files(path)) return PLAT_ERR_SDB_IO;
  }
  static std::atomic<unsigned> counter{0};
  char suffix[48];
  std::snprintf(suffix, sizeof suffix, ".new-%d-%u", static_cast<int>(::getpid()), counter.fetch_add(1));
  std::string tmp = path + suffix;
  if (::mkdir(tmp.c_str(), 0755) != 0) return PLAT_ERR_SDB_IO;
  Env env;
  Meta init;
  init.kind = kind;
  init.uuid = uuid;
  uint32_t rc = env.open(tmp, env_flags(), true, init);
  env.close();
  if (rc == 0 && ::rename(tmp.c_str(), path.c_str()) != 0)
    rc = (errno == EEXIST || errno == ENOTEMPTY) ? PLAT_ERR_SDB_EXISTS : PLAT_ERR_SDB_IO;
  if (rc != 0) remove_files(tmp);
  return rc;
}

uint32_t destroy_at(const std::string& path) {
  if (uint32_t rc = check_stored(path); rc != 0) return rc;
  close_open(path);
  {
    Env env;  // only what carries our meta record is ever removed
    uint32_t rc = open_existing(path, env, nullptr);
    if (rc != 0) return rc;
  }
  return remove_files(path) ? 0 : PLAT_ERR_SDB_IO;
}

uint32_t finish_write(Db& db, Txn& txn, WriteOp op, const WriteNote& note) {
  Meta m;
  uint32_t rc = read_meta(txn.get(), db.env, m);
  if (rc != 0) return rc;
  ++m.generation;
  rc = write_meta(txn.get(), db.env, m);
  if (rc == 0) rc = txn.commit();
  if (rc != 0) return rc;
  db.last = sdb_context{1, static_cast<uint16_t>(op), note.records, m.generation, note.key_hash,
                        fnv1a(db.uri.data(), db.uri.size()), static_cast<uint32_t>(::getpid()), 0};
  return 0;
}

void context_reset(Db& db) {
  Meta m;
  Txn txn;
  if (txn.begin(db.env, true) == 0) read_meta(txn.get(), db.env, m);
  db.last = sdb_context{1, 0, 0, m.generation, 0, fnv1a(db.uri.data(), db.uri.size()),
                        static_cast<uint32_t>(::getpid()), 0};
}

}  // namespace hadra::plat::sdb
