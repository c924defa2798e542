// Internals of the SDB service: LMDB environments, the SDB's meta record, and the table of
// SDBs this process has open.
//
// Every exported sdb_* call takes the service lock (lock()) for its whole duration, so the
// table, each SDB's iterator and its last-write context need no further locking. LMDB does
// the locking between processes: one writer at a time per SDB, readers never blocked.
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "common/lmdb_store.h"
#include "hadra_platform/sdb.h"

namespace hadra::plat::sdb {

// Meta record ("sdb" in the "meta" sub-database), 32 bytes little-endian on disk.
inline constexpr char kMagic[8] = {'H', 'A', 'D', 'R', 'A', 'S', 'D', 'B'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kStateLive = 0;
inline constexpr uint32_t kStateDestroying = 1;

struct Meta {
  uint32_t kind = SDB_CREATE_SDB;  // SDB_CREATE_SDB or SDB_CREATE_MSDB
  uint32_t uuid = 0;               // creating service
  uint32_t state = kStateLive;
  uint64_t generation = 0;  // committed write transactions since creation
};

// Operation codes of the context (sdb_context.op).
enum class WriteOp : uint16_t {
  kNone = 0,
  kWrite = 1,
  kWriteList = 2,
  kListOps = 3,
  kDelete = 4,
  kDeleteList = 5,
  kMkeyList = 6,
  kRestore = 7
};

// What a write transaction touched, for its context.
struct WriteNote {
  uint32_t records = 0;
  uint32_t key_hash = 0;
  void key(const void* p, size_t n);
};

uint32_t fnv1a(const void* p, size_t n);

// An LMDB environment with the SDB's four sub-databases.
class Env {
 public:
  Env() = default;
  ~Env() { close(); }
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // Open the environment at path (a directory, or a file with MDB_NOSUBDIR). extra: further
  // LMDB flags; without MDB_NOLOCK it is a live store (durability setting, writable map),
  // with it a snapshot file that this process alone reads or writes. Then creates the sub-databases and the meta record (create=true) or opens
  // them and checks the meta record (create=false: PLAT_ERR_SDB_BAD_URI when it is missing).
  uint32_t open(const std::string& path, unsigned extra, bool create, const Meta& init = Meta{});
  void close();
  // Forget the environment without closing it: after fork() the parent's environment must
  // not be touched by the child, not even to close it.
  void abandon() {
    env_ = nullptr;
    store_.abandon();
  }
  bool is_open() const { return env_ != nullptr; }

  MDB_env* env() const { return env_; }
  // The live store's layer, or null for a snapshot file.
  StoreEnv* store() const { return live_ ? &store_ : nullptr; }
  MDB_dbi meta = 0, records = 0, mkeys = 0, skeys = 0;

 private:
  MDB_env* env_ = nullptr;
  bool live_ = false;
  mutable StoreEnv store_;
};

// A transaction that aborts unless committed. Begins again after another process grew the map.
// While an apply batch is open on this thread (lmdb_store.h), a read uses the store's batch
// transaction, and a write begun with batchable (a plain record write) joins it; any other
// write first commits what the batch holds for the store.
class Txn {
 public:
  Txn() = default;
  ~Txn() { abort(); }
  Txn(const Txn&) = delete;
  Txn& operator=(const Txn&) = delete;
  uint32_t begin(const Env& env, bool read_only, bool batchable = false);
  uint32_t commit();
  // A batched write that ends uncommitted fails the whole batch (with rc, a platform code).
  void abort();
  void fail(uint32_t rc);
  MDB_txn* get() const { return txn_; }

 private:
  MDB_txn* txn_ = nullptr;
  StoreEnv* store_ = nullptr;  // the live store a write transaction commits through
  bool batch_ = false;         // the batch's transaction: neither committed nor aborted here
};

// A cursor closed when it goes out of scope (before its transaction ends).
struct Cursor {
  MDB_cursor* c = nullptr;
  Cursor() = default;
  ~Cursor() {
    if (c != nullptr) mdb_cursor_close(c);
  }
  Cursor(const Cursor&) = delete;
  Cursor& operator=(const Cursor&) = delete;
};

// LMDB result to platform code.
uint32_t map_err(int rc);
uint32_t read_meta(MDB_txn* txn, const Env& env, Meta& out);
uint32_t write_meta(MDB_txn* txn, const Env& env, const Meta& m);

// Key checks shared by the writers and readers.
bool key_ok(const datum* k);
bool value_ok(const datum* d);
inline MDB_val val_of(const datum* d) { return MDB_val{d->dsize, d->dptr}; }
inline MDB_val val_of(std::string_view s) { return MDB_val{s.size(), const_cast<char*>(s.data())}; }
inline std::string_view view_of(const MDB_val& v) { return {static_cast<const char*>(v.mv_data), v.mv_size}; }

// Key of the secondary-key index: the tag's low 16 bits big-endian, then the key's bytes.
std::string index_key(uint32_t tag, const void* p, size_t n);

// One SDB open in this process.
struct Db {
  uint64_t id = 0;  // never reused within the process
  std::string uri, path;
  Env env;
  uint32_t kind = SDB_CREATE_SDB;
  uint32_t rights = SDB_OPEN_READ;
  uint32_t owner_sap = 0;
  // Iterator: unpositioned, at a start key (not yet resolved to a record), at a record, at end.
  enum class Iter { kNone, kStart, kAt, kEnd } iter = Iter::kNone;
  std::string iter_key;  // start key (empty: first record) or the current record's key
  sdb_context last{};    // context of this process's last write
};

// The service lock; every exported call holds it throughout.
std::unique_lock<std::mutex> lock();

// Path of the SDB named by uri: 0 or PLAT_ERR_SDB_BAD_URI (also for a URI without a path).
uint32_t uri_path(const char* uri, std::string& out, bool mkdirs);
// The open SDB at path / named by uri, or null (with the lock held).
Db* find_path(const std::string& path);
// Resolve uri to the SDB open in this process: 0 with *out set, PLAT_ERR_SDB_BAD_URI or
// PLAT_ERR_SDB_NOT_OPEN.
uint32_t find_open(const char* uri, Db** out);
// Takes the lock, resolves uri to its open SDB and runs f(db); or the resolution's error.
template <class F>
uint32_t with_open(const char* uri, F&& f) {
  auto g = lock();
  Db* db = nullptr;
  uint32_t rc = find_open(uri, &db);
  return rc != 0 ? rc : f(*db);
}
// Takes the lock, resolves uri to its path (see uri_path) and runs f(path); or the
// resolution's error. For calls that work on the stored SDB whether it is open here or not.
template <class F>
uint32_t with_path(const char* uri, bool mkdirs, F&& f) {
  auto g = lock();
  std::string path;
  uint32_t rc = uri_path(uri, path, mkdirs);
  return rc != 0 ? rc : f(path);
}
Db* add_open(std::unique_ptr<Db> db);
void close_open(const std::string& path);
bool id_is_open(uint64_t id);
// Visit every open SDB.
template <class F>
void for_each_open(F&& f);

// What is stored at a path.
enum class Stored { kNothing, kSdb, kOther };
Stored probe(const std::string& path);
// probe() as a result: 0 for an SDB, PLAT_ERR_SDB_NOT_FOUND for nothing, PLAT_ERR_SDB_BAD_URI
// for anything else.
uint32_t check_stored(const std::string& path);

// Open the environment of the SDB stored at path (not open in this process); meta, when
// given, receives its meta record.
uint32_t open_existing(const std::string& path, Env& env, Meta* meta);
// The same for an SDB that must be usable: stored (check_stored) and not being destroyed
// (PLAT_ERR_SDB_NOT_FOUND). meta receives its meta record.
uint32_t open_live(const std::string& path, Env& env, Meta& meta);
// Further flags with which SDB environments are opened (durability: see lmdb_store.h; map
// size: SDB_MAP_SIZE).
unsigned env_flags();
// Blocks ahead of the writable map for an ordinary write transaction.
inline constexpr size_t kWriteRoom = size_t{8} << 20;

// Opcodes registered with sdb_register (forgotten by the reset hook).
void opcode_add(uint32_t opcode);
bool opcode_known(uint32_t opcode);

// Internal operations shared by several exported calls.
uint32_t create_at(const std::string& path, uint32_t kind, uint32_t uuid);
uint32_t destroy_at(const std::string& path);
void context_reset(Db& db);

// Runs body(txn, note) in one write transaction of db; on success bumps the generation,
// commits and records the context. body returns 0 or an error code (which aborts).
template <class F>
uint32_t write_txn(Db& db, WriteOp op, F&& body);
uint32_t finish_write(Db& db, Txn& txn, WriteOp op, const WriteNote& note);

template <class F>
uint32_t write_txn(Db& db, WriteOp op, F&& body) {
  if ((db.rights & 0x2u) == 0) return PLAT_ERR_SDB_READ_ONLY;
  Txn txn;
  uint32_t rc = txn.begin(db.env, false, true);
  if (rc != 0) return rc;
  WriteNote note;
  rc = body(txn.get(), note);
  if (rc != 0) {
    txn.fail(rc);
    return rc;
  }
  return finish_write(db, txn, op, note);
}

// Table access for for_each_open.
void visit_open(void (*fn)(Db&, void*), void* arg);
template <class F>
void for_each_open(F&& f) {
  visit_open([](Db& db, void* a) { (*static_cast<F*>(a))(db); }, &f);
}

}  // namespace hadra::plat::sdb
