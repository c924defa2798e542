// Internal interface of the PSS store: open stores, handles, transactions.
//
// Design. Each PSS file is one LMDB environment (MDB_NOSUBDIR) holding two named databases:
// "records" (the client's keys and values, in byte order) and "meta" (format tag, parameter
// record, size limit). LMDB must not open one environment twice in a process, so an Env is
// shared by every handle on the same file (found by device and inode, which also catches two
// URIs naming one file) and closed with its last handle.
//
// One mutex serialises every call of the service in this process; it is held for the whole
// call, transactions included, so no transaction outlives a call except the read
// transaction of a multi-get phase, which belongs to one handle. Environments are opened
// with MDB_NOTLS so that this read transaction may coexist with the write transactions of
// the same thread.
//
// The size limit is LMDB's map size. A write that does not fit fails with MDB_MAP_FULL and
// is rolled back. Deletes need fresh pages too (copy on write), so a delete that hits the
// limit is retried once with the map grown by a slack and the map is then set back (LMDB
// never shrinks it below the pages in use); that is what keeps a full file cleanable.
#pragma once

#include <lmdb.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "common/lmdb_store.h"
#include "hadra_platform/pss.h"

namespace hadra::plat::pss {

// Meta keys and the format tag of a PSS file.
inline constexpr char kRecordsDb[] = "records";
inline constexpr char kMetaDb[] = "meta";
inline constexpr char kFormatKey[] = "format";
inline constexpr char kParamsKey[] = "params";
inline constexpr char kLimitKey[] = "max_dbsize";
inline constexpr char kFormatTag[] = "pss/1";
inline constexpr uint32_t kFormatVersion = 1;
inline constexpr size_t kMaxHandles = 1024;
inline constexpr uint32_t kDefaultChunkKilo = 16;  // snapshot records per commit, in thousands

struct Env {
  std::string path;
  dev_t dev = 0;
  ino_t ino = 0;
  MDB_env* env = nullptr;
  StoreEnv store;  // durability, blocks ahead of the writable map, the commit seam
  MDB_dbi recs = 0;
  MDB_dbi meta = 0;
  int refs = 0;             // handles on this environment in this process
  int readers = 0;          // open multi-get phases (their read transactions)
  uint64_t limit = PSS2_DEFAULT_MAX_DBSIZE;
  bool limit_pending = false;  // limit changed while a phase was open: map not yet resized
  uint32_t max_key = PSS2_MAX_KEY_LEN;
  pss2_params params{};
};

enum class Pos { kNone, kAt, kEnd };

// A byte buffer handed out through a datum. Every fill allocates afresh, so a pointer kept
// past its documented lifetime is a use after free that the sanitizers report.
struct OutBuf {
  std::unique_ptr<uint8_t[]> bytes;
  datum d{nullptr, 0};
  void fill(const void* p, size_t n);
  void clear() {
    bytes.reset();
    d = datum{nullptr, 0};
  }
};

struct Handle {
  uint32_t id = 0;
  uint32_t flags = 0;
  Env* env = nullptr;
  Pos pos = Pos::kNone;
  OutBuf key;    // the position (a copy of the key), handed out by getkey
  OutBuf value;  // getvalue
  OutBuf fetched;
  MDB_txn* mget = nullptr;
};

// The service mutex; every exported call holds it.
std::mutex& lock();

// ---- files.cc: environments, handles, files ----
uint32_t open_handle(const char* uri, uint32_t flags, const pss2_params* params, bool exclusive,
                     uint32_t* handle);
uint32_t close_handle(uint32_t id);
Handle* find_handle(uint32_t id);
uint32_t destroy_file(const char* uri);
uint32_t file_type(const char* uri, uint32_t* type, uint32_t* version);
uint32_t check_params(const pss2_params* p);
// Closes e's LMDB environment and opens the file at e.path again (after a copy was renamed
// over it). On failure every handle on e is closed and e is gone.
uint32_t reopen_env(Env* e);

// ---- txn.cc: transactions and error mapping ----
uint32_t map_rc(int rc);
// Storage failure worth a log line (anything but a missing record or a full file).
void log_failure(const char* what, const Env& e, int rc);
bool key_ok(const Env& e, const datum* key);
bool value_ok(const datum* v);
class ReadTxn {
 public:
  explicit ReadTxn(Handle& h);  // the phase's transaction, or a fresh one
  ~ReadTxn();
  ReadTxn(const ReadTxn&) = delete;
  ReadTxn& operator=(const ReadTxn&) = delete;
  int rc() const { return rc_; }
  MDB_txn* txn() const { return txn_; }

 private:
  MDB_txn* txn_ = nullptr;
  bool owned_ = false;
  int rc_ = 0;
};
// Runs body(txn) in one write transaction of e and commits it; body returns an LMDB code.
// With may_grow, a transaction that fills the map is retried once with room to spare. A plain
// record write gives batch_size (its key and value bytes, at least 1): it joins the thread's
// apply batch when one is open.
using TxnBody = int (*)(MDB_txn* txn, Env& e, void* ctx);
int write_txn(Env& e, TxnBody body, void* ctx, bool may_grow, size_t batch_size = 0);
int write_begin(Env& e, MDB_txn** txn);
// Blocks ahead of the writable map for a write of about bytes (see lmdb_store.h).
inline constexpr size_t kWriteRoom = size_t{8} << 20;
// Sets LMDB's map to the file's limit when no read transaction of this process is open.
void apply_limit(Env& e);

// ---- records.cc ----
uint32_t store(Handle& h, const datum* key, const datum* value);
uint32_t remove(Handle& h, const datum* key);
uint32_t remove_prefixed(Handle& h, const datum* prefix, uint32_t* count);
uint32_t purge(Handle& h, uint32_t* count);
uint32_t set_limit(Handle& h, uint64_t size);
uint32_t snapshot(Handle& src, Handle& dst);
datum* fetch(Handle& h, const datum* key, uint32_t* status);

// ---- cursor.cc ----
uint32_t move_to_key(Handle& h, const datum* key);
uint32_t move_to(Handle& h, uint32_t location);
datum* get_key(Handle& h, uint32_t* status);
datum* get_value(Handle& h, uint32_t* status);
uint32_t mget_begin(Handle& h, uint32_t* records);
uint32_t mget_done(Handle& h);
void end_phase(Handle& h);

}  // namespace hadra::plat::pss
