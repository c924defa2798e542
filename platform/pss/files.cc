// PSS files: opening and creating stores, the handle table, destroying files, telling a PSS
// file from anything else stored at a URI, and the reset and fork hooks.
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "common/call.h"
#include "common/lmdb_check.h"
#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "pss/store.h"

namespace hadra::plat::pss {
namespace {

struct Slot {
  Handle* h = nullptr;
  uint32_t gen = 0;
};

// Handle numbers: bits 0..10 hold the slot + 1 (never 0), bits 11..31 the slot's generation,
// bumped at every close so that a stale number does not reach the slot's next handle.
constexpr uint32_t kSlotBits = 11;
constexpr uint32_t kSlotMask = (1u << kSlotBits) - 1;
static_assert(kMaxHandles < kSlotMask, "slot numbers fit their bits");

struct Table {
  std::array<Slot, kMaxHandles> slots{};
  size_t next = 0;  // where the search for a free slot starts (round robin)
  std::vector<Env*> envs;
};

Table& table() {
  static auto* t = new Table();  // never destroyed: handles may be closed during exit
  return *t;
}

Env* find_env(dev_t dev, ino_t ino) {
  for (Env* e : table().envs)
    if (e->dev == dev && e->ino == ino) return e;
  return nullptr;
}

void close_env(Env* e) {
  auto& envs = table().envs;
  for (size_t i = 0; i < envs.size(); ++i)
    if (envs[i] == e) {
      envs.erase(envs.begin() + static_cast<long>(i));
      break;
    }
  e->store.closing();
  mdb_env_close(e->env);
  delete e;
}

uint32_t path_of(const char* uri, bool mkdirs, std::string* out) {
  if (uri == nullptr) return PLAT_ERR_PSS_BAD_ARG;
  char buf[4096];
  if (plat_uri_to_path(uri, buf, sizeof buf, mkdirs ? 1 : 0) != 0) return PLAT_ERR_PSS_BAD_URI;
  *out = buf;
  return 0;
}

// What an opened environment holds: a PSS file, an unfinished creation (an empty store, left
// by a crash between creating the file and its first commit), or something else.
enum class Kind { kPss, kEmpty, kOther };

Kind read_kind(MDB_txn* txn, MDB_dbi* meta) {
  MDB_dbi main_db;
  if (mdb_dbi_open(txn, nullptr, 0, &main_db) != 0) return Kind::kOther;
  if (mdb_dbi_open(txn, kMetaDb, 0, meta) == 0) {
    MDB_val k{sizeof kFormatKey - 1, const_cast<char*>(kFormatKey)}, v;
    if (mdb_get(txn, *meta, &k, &v) == 0 && v.mv_size == sizeof kFormatTag - 1 &&
        memcmp(v.mv_data, kFormatTag, v.mv_size) == 0)
      return Kind::kPss;
    return Kind::kOther;
  }
  MDB_stat st;
  if (mdb_stat(txn, main_db, &st) == 0 && st.ms_entries == 0) return Kind::kEmpty;
  return Kind::kOther;
}

MDB_val text_val(const char* s) { return MDB_val{strlen(s), const_cast<char*>(s)}; }

// Writes the format tag, parameters and limit of a new file (or of an unfinished one).
int init_body(MDB_txn* txn, Env& e, void* ctx) {
  const auto* p = static_cast<const pss2_params*>(ctx);
  int rc = mdb_dbi_open(txn, kRecordsDb, MDB_CREATE, &e.recs);
  if (rc == 0) rc = mdb_dbi_open(txn, kMetaDb, MDB_CREATE, &e.meta);
  if (rc != 0) return rc;
  MDB_val k = text_val(kFormatKey), v;
  if (mdb_get(txn, e.meta, &k, &v) == 0) return 0;  // another process finished it meanwhile
  MDB_val tag = text_val(kFormatTag);
  MDB_val pk = text_val(kParamsKey), pv{sizeof *p, const_cast<pss2_params*>(p)};
  uint64_t limit = p->max_dbsize_mib != 0 ? uint64_t{p->max_dbsize_mib} << 20 : PSS2_DEFAULT_MAX_DBSIZE;
  MDB_val lk = text_val(kLimitKey), lv{sizeof limit, &limit};
  rc = mdb_put(txn, e.meta, &k, &tag, 0);
  if (rc == 0) rc = mdb_put(txn, e.meta, &pk, &pv, 0);
  if (rc == 0) rc = mdb_put(txn, e.meta, &lk, &lv, 0);
  return rc;
}

// Reads the parameters and limit of an open PSS file.
int load_meta(Env& e) {
  MDB_txn* txn;
  int rc = mdb_txn_begin(e.env, nullptr, MDB_RDONLY, &txn);
  if (rc != 0) return rc;
  rc = mdb_dbi_open(txn, kRecordsDb, 0, &e.recs);
  if (rc == 0) rc = mdb_dbi_open(txn, kMetaDb, 0, &e.meta);
  MDB_val k = text_val(kParamsKey), v;
  if (rc == 0) rc = mdb_get(txn, e.meta, &k, &v);
  if (rc == 0 && v.mv_size == sizeof e.params) memcpy(&e.params, v.mv_data, sizeof e.params);
  k = text_val(kLimitKey);
  if (rc == 0 && mdb_get(txn, e.meta, &k, &v) == 0 && v.mv_size == sizeof e.limit)
    memcpy(&e.limit, v.mv_data, sizeof e.limit);
  // The limit becomes the size of the map: one that no setter could have stored (a damaged
  // or foreign file) would make the remapping fail and leave LMDB without its map.
  if (rc == 0 && (e.limit < PSS2_MIN_DBSIZE || e.limit > PSS2_MAX_DBSIZE)) rc = MDB_CORRUPTED;
  // A file of ours always has both sub-databases and its parameters: one without is damaged.
  if (rc == MDB_NOTFOUND) rc = MDB_CORRUPTED;
  if (rc != 0) {
    mdb_txn_abort(txn);
    return rc;
  }
  return mdb_txn_commit(txn);  // keeps the database handles for the environment
}

bool want_sync(const pss2_params& p) {
  return plat_config_get_long("PSS_SYNC", 0) == 1 || (p.flags & PSS2_PARAM_SYNC) != 0;
}

// Makes sure the freshly opened e is a PSS file: initialises a new or unfinished one when
// create is set, refuses a finished one when exclusive is, loads its meta.
uint32_t prepare(Env& e, bool create, bool exclusive) {
  int dead;
  mdb_reader_check(e.env, &dead);  // slots of processes that died inside a read
  MDB_txn* txn;
  MDB_dbi meta;
  Kind kind = Kind::kOther;
  int rc = mdb_txn_begin(e.env, nullptr, MDB_RDONLY, &txn);
  if (rc != 0) return map_rc(rc);
  kind = read_kind(txn, &meta);
  mdb_txn_abort(txn);
  if (kind == Kind::kOther) return PLAT_ERR_PSS_BAD_URI;
  if (kind == Kind::kPss && exclusive) return PLAT_ERR_PSS_EXISTS;
  if (kind == Kind::kEmpty && !create) return PLAT_ERR_PSS_NOT_FOUND;
  if (kind == Kind::kEmpty && (rc = write_txn(e, init_body, &e.params, false)) != 0) return map_rc(rc);
  if ((rc = load_meta(e)) != 0) return map_rc(rc);
  struct stat st;
  if (stat(e.path.c_str(), &st) != 0) return PLAT_ERR_PSS_IO;
  e.dev = st.st_dev;
  e.ino = st.st_ino;
  // The header promises 511; an LMDB built with a smaller key limit lowers it.
  auto store_max = static_cast<uint32_t>(mdb_env_get_maxkeysize(e.env));
  e.max_key = e.params.max_key_len != 0 ? e.params.max_key_len : PSS2_MAX_KEY_LEN;
  if (e.max_key > store_max) e.max_key = store_max;
  // The file's own parameters may ask for what the setting did not.
  if (want_sync(e.params) && e.store.mode() != Durability::kSync) {
    e.store.closing();
    e.store.open_flags(0, true);
    mdb_env_set_flags(e.env, MDB_NOSYNC, 0);
    if (int rc = e.store.opened(e.env); rc != 0) return map_rc(rc);
  }
  apply_limit(e);
  return 0;
}

// A file without a lock file beside it has not been opened since it arrived (every opener
// makes one): it may be a copy shipped from the other supervisor, cut short or damaged on the
// way, and LMDB would read past its end. Such a file is checked before LMDB maps it. A file
// with a lock file may have a writer changing pages under a check; it is LMDB's own.
bool damaged_arrival(const std::string& path, const struct stat& st) {
  if (st.st_size == 0 || access((path + "-lock").c_str(), F_OK) == 0 || lmdb_file_check(path) != LmdbFile::kDamaged)
    return false;
  plat_syslog(PLAT_LOG_ERR, "PSS: %s is damaged or cut short; not opened", path.c_str());
  return true;
}

// Opens the LMDB environment of e->path (see prepare). Returns a platform code; on failure
// e has no environment.
uint32_t open_lmdb(Env* e, bool create, bool exclusive) {
  int rc = mdb_env_create(&e->env);
  if (rc == 0) rc = mdb_env_set_maxdbs(e->env, 4);
  unsigned flags = e->store.open_flags(MDB_NOSUBDIR | MDB_NOTLS, want_sync(e->params));
  if (rc == 0 && (rc = mdb_env_open(e->env, e->path.c_str(), flags, 0664)) != 0 && rc != MDB_INVALID &&
      rc != MDB_VERSION_MISMATCH)
    log_failure("opening", *e, rc);  // e.g. no room for the file or its lock file
  if (rc == 0 && (rc = e->store.opened(e->env)) != 0) log_failure("allocation", *e, rc);
  uint32_t err = rc == MDB_INVALID || rc == MDB_VERSION_MISMATCH ? PLAT_ERR_PSS_BAD_URI : map_rc(rc);
  if (err == 0) err = prepare(*e, create, exclusive);
  if (err != 0) {
    e->store.closing();
    if (e->env != nullptr) mdb_env_close(e->env);
    e->env = nullptr;
  }
  return err;
}

// Opens the LMDB environment of an existing or new file (see prepare). Returns a platform
// code; *out is the new Env.
uint32_t open_env(const std::string& path, bool create, bool exclusive, const pss2_params& params, Env** out) {
  auto* e = new Env();
  e->path = path;
  e->params = params;
  if (uint32_t err = open_lmdb(e, create, exclusive); err != 0) {
    delete e;
    return err;
  }
  *out = e;
  return 0;
}

// The Env of the file at path, opened when needed; its reference count is not yet raised.
uint32_t acquire_env(const std::string& path, bool create, bool exclusive, const pss2_params& params,
                     Env** out) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (!S_ISREG(st.st_mode)) return PLAT_ERR_PSS_BAD_URI;
    if (Env* e = find_env(st.st_dev, st.st_ino)) {
      if (exclusive) return PLAT_ERR_PSS_EXISTS;
      *out = e;
      return 0;
    }
    if (damaged_arrival(path, st)) return PLAT_ERR_PSS_IO;
  } else if (errno != ENOENT) {
    return errno == ENOTDIR ? PLAT_ERR_PSS_BAD_URI : PLAT_ERR_PSS_IO;
  } else if (!create) {
    return PLAT_ERR_PSS_NOT_FOUND;
  }
  Env* e = nullptr;
  uint32_t err = open_env(path, create, exclusive, params, &e);
  if (err != 0) return err;
  table().envs.push_back(e);
  *out = e;
  return 0;
}

uint32_t new_handle(Env* e, uint32_t flags, uint32_t* out) {
  Table& t = table();
  for (size_t n = 0; n < kMaxHandles; ++n) {
    size_t i = (t.next + n) % kMaxHandles;
    if (t.slots[i].h != nullptr) continue;
    auto* h = new Handle();
    h->id = (t.slots[i].gen << kSlotBits) | static_cast<uint32_t>(i + 1);
    h->flags = flags;
    h->env = e;
    e->refs++;
    t.slots[i].h = h;
    t.next = (i + 1) % kMaxHandles;
    *out = h->id;
    return 0;
  }
  return PLAT_ERR_PSS_TOO_MANY;
}

bool has_free_slot() {
  for (const Slot& s : table().slots)
    if (s.h == nullptr) return true;
  return false;
}

void free_slot(size_t i) {
  Slot& s = table().slots[i];
  Handle* h = s.h;
  s.h = nullptr;
  s.gen = (s.gen + 1) & (0xffffffffu >> kSlotBits);
  end_phase(*h);
  Env* e = h->env;
  delete h;
  if (--e->refs == 0) close_env(e);
}

// Peeks into a file that this process does not have open: without the lock file, read only,
// so that nothing of another opener (in this process or another) is disturbed.
Kind peek_kind(const std::string& path) {
  MDB_env* env;
  if (mdb_env_create(&env) != 0) return Kind::kOther;
  mdb_env_set_maxdbs(env, 4);
  Kind kind = Kind::kOther;
  MDB_txn* txn;
  if (mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0664) == 0 &&
      mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) == 0) {
    MDB_dbi meta;
    kind = read_kind(txn, &meta);
    mdb_txn_abort(txn);
  }
  mdb_env_close(env);
  return kind;
}

// Kind of the regular file at path: open here, empty (a crash before the first write of
// the store), or read from the file.
uint32_t kind_of(const std::string& path, Kind* kind, Env** open_env_out) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0)
    return errno == ENOENT ? PLAT_ERR_PSS_NOT_FOUND : errno == ENOTDIR ? PLAT_ERR_PSS_BAD_URI : PLAT_ERR_PSS_IO;
  *open_env_out = nullptr;
  if (!S_ISREG(st.st_mode)) {
    *kind = Kind::kOther;
  } else if (Env* e = find_env(st.st_dev, st.st_ino)) {
    *open_env_out = e;
    *kind = Kind::kPss;
  } else {
    *kind = st.st_size == 0 ? Kind::kEmpty : damaged_arrival(path, st) ? Kind::kOther : peek_kind(path);
  }
  return 0;
}

void reset() {
  std::lock_guard<std::mutex> g(lock());
  Table& t = table();
  for (size_t i = 0; i < kMaxHandles; ++i)
    if (t.slots[i].h != nullptr) free_slot(i);
  t.next = 0;
}

// A child of fork() must not touch its parent's environments (LMDB's rule): it forgets
// them without closing anything. The table lock is held across fork() so that the child
// never inherits it locked by a thread that does not exist there.
void before_fork() { lock().lock(); }
void after_fork_parent() { lock().unlock(); }
void after_fork_child() {
  Table& t = table();
  for (Slot& s : t.slots) s.h = nullptr;  // leaked on purpose: the parent's memory
  t.envs.clear();
  lock().unlock();
}

const bool g_registered = (register_reset(&reset),
                           pthread_atfork(before_fork, after_fork_parent, after_fork_child), true);

}  // namespace

std::mutex& lock() {
  static auto* m = new std::mutex();
  return *m;
}

uint32_t check_params(const pss2_params* p) {
  if (p == nullptr) return 0;
  if (p->version != PSS2_PARAMS_VERSION || p->max_key_len > PSS2_MAX_KEY_LEN ||
      (p->flags & ~PSS2_PARAM_SYNC) != 0 || (uint64_t{p->max_dbsize_mib} << 20) > PSS2_MAX_DBSIZE)
    return PLAT_ERR_PSS_BAD_ARG;
  return 0;
}

uint32_t open_handle(const char* uri, uint32_t flags, const pss2_params* params, bool exclusive,
                     uint32_t* handle) {
  constexpr uint32_t kKnown = PSS2_OPEN_READ | PSS2_OPEN_WRITE | PSS2_OPEN_CURSOR | PSS2_OPEN_CREATE;
  *handle = 0;
  if ((flags & ~kKnown) != 0 || (flags & (PSS2_OPEN_READ | PSS2_OPEN_WRITE)) == 0) return PLAT_ERR_PSS_BAD_ARG;
  bool create = (flags & PSS2_OPEN_CREATE) != 0;
  if (create && check_params(params) != 0) return PLAT_ERR_PSS_BAD_ARG;
  std::string path;
  uint32_t err = path_of(uri, create, &path);
  if (err != 0) return err;
  if (!has_free_slot()) return PLAT_ERR_PSS_TOO_MANY;
  pss2_params p{PSS2_PARAMS_VERSION, 0, 0, 0, 0};
  if (create && params != nullptr) p = *params;
  Env* e = nullptr;
  err = acquire_env(path, create, exclusive, p, &e);
  if (err != 0) return err;
  return new_handle(e, flags, handle);
}

Handle* find_handle(uint32_t id) {
  uint32_t slot = id & kSlotMask;
  if (slot == 0 || slot > kMaxHandles) return nullptr;
  Handle* h = table().slots[slot - 1].h;
  return h != nullptr && h->id == id ? h : nullptr;
}

uint32_t reopen_env(Env* e) {
  e->store.closing();
  mdb_env_close(e->env);
  e->env = nullptr;
  e->limit_pending = false;
  uint32_t err = open_lmdb(e, false, false);
  if (err == 0) return 0;
  plat_syslog(PLAT_LOG_ERR, "PSS: %s could not be opened again after its copy was put in place; its handles are closed",
              e->path.c_str());
  // The handles cannot go on without an environment: close them; the last one frees e.
  Table& t = table();
  auto& envs = t.envs;
  for (size_t i = 0; i < envs.size(); ++i)
    if (envs[i] == e) {
      envs.erase(envs.begin() + static_cast<long>(i));
      break;
    }
  for (size_t i = 0; i < kMaxHandles; ++i)
    if (t.slots[i].h != nullptr && t.slots[i].h->env == e) {
      Slot& s = t.slots[i];
      s.gen = (s.gen + 1) & (0xffffffffu >> kSlotBits);
      delete s.h;
      s.h = nullptr;
    }
  delete e;
  return err;
}

uint32_t close_handle(uint32_t id) {
  if (find_handle(id) == nullptr) return PLAT_ERR_PSS_BAD_HANDLE;
  free_slot((id & kSlotMask) - 1);
  return 0;
}

// Path and kind of what is stored at uri, and its environment when it is open here.
uint32_t kind_at(const char* uri, std::string* path, Kind* kind, Env** open) {
  const uint32_t err = path_of(uri, false, path);
  return err != 0 ? err : kind_of(*path, kind, open);
}

uint32_t file_type(const char* uri, uint32_t* type, uint32_t* version) {
  std::string path;
  Kind kind = Kind::kOther;
  Env* open = nullptr;
  if (const uint32_t err = kind_at(uri, &path, &kind, &open); err != 0) return err;
  *type = kind == Kind::kOther ? PSS2_TYPE_OTHER : PSS2_TYPE_PSS2;
  *version = kind == Kind::kPss ? kFormatVersion : 0;
  return 0;
}

uint32_t destroy_file(const char* uri) {
  std::string path;
  Kind kind = Kind::kOther;
  Env* open = nullptr;
  if (const uint32_t err = kind_at(uri, &path, &kind, &open); err != 0) return err;
  if (kind == Kind::kOther) return PLAT_ERR_PSS_BAD_URI;
  if (open != nullptr) {
    // The library leaves handles open on files it destroys (a creation handle opened again,
    // a copy that failed): closing them here keeps the destruction from failing on them.
    // The last free_slot closes the environment: stop before looking at it again.
    Table& t = table();
    int left = open->refs;
    for (size_t i = 0; i < kMaxHandles && left > 0; ++i)
      if (t.slots[i].h != nullptr && t.slots[i].h->env == open) {
        --left;
        free_slot(i);
      }
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) return PLAT_ERR_PSS_IO;
  std::string lockfile = path + "-lock";
  unlink(lockfile.c_str());
  return 0;
}

}  // namespace hadra::plat::pss
