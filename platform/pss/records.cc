// Record operations of the PSS store: store, delete, prefix delete, purge, fetch, the size
// limit and the copy of one file into another.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "pss/store.h"

namespace hadra::plat::pss {
namespace {

MDB_val val_of(const datum* d) { return MDB_val{d->dsize, d->dsize > 0 ? d->dptr : nullptr}; }

bool writable(const Handle& h) { return (h.flags & PSS2_OPEN_WRITE) != 0; }
bool readable(const Handle& h) { return (h.flags & PSS2_OPEN_READ) != 0; }

uint32_t saturate(size_t n) { return n > 0xffffffffu ? 0xffffffffu : static_cast<uint32_t>(n); }

struct PutCtx {
  MDB_val k, v;
};

int put_body(MDB_txn* txn, Env& e, void* ctx) {
  auto* c = static_cast<PutCtx*>(ctx);
  return mdb_put(txn, e.recs, &c->k, &c->v, 0);
}

int del_body(MDB_txn* txn, Env& e, void* ctx) {
  return mdb_del(txn, e.recs, static_cast<MDB_val*>(ctx), nullptr);
}

struct PrefixCtx {
  MDB_val prefix;
  size_t count;
};

bool has_prefix(const MDB_val& k, const MDB_val& p) {
  return k.mv_size >= p.mv_size && (p.mv_size == 0 || memcmp(k.mv_data, p.mv_data, p.mv_size) == 0);
}

int prefix_body(MDB_txn* txn, Env& e, void* ctx) {
  auto* c = static_cast<PrefixCtx*>(ctx);
  c->count = 0;
  MDB_cursor* cur;
  int rc = mdb_cursor_open(txn, e.recs, &cur);
  if (rc != 0) return rc;
  for (;;) {
    // Seek afresh after each deletion: simpler than trusting the cursor's state after it,
    // and still one tree descent per record.
    MDB_val k = c->prefix, v;
    rc = mdb_cursor_get(cur, &k, &v, c->prefix.mv_size > 0 ? MDB_SET_RANGE : MDB_FIRST);
    if (rc != 0 || !has_prefix(k, c->prefix)) break;
    if ((rc = mdb_cursor_del(cur, 0)) != 0) break;
    c->count++;
  }
  mdb_cursor_close(cur);
  return rc == MDB_NOTFOUND || rc == 0 ? 0 : rc;
}

int purge_body(MDB_txn* txn, Env& e, void* ctx) {
  MDB_stat st;
  int rc = mdb_stat(txn, e.recs, &st);
  if (rc != 0) return rc;
  *static_cast<size_t*>(ctx) = st.ms_entries;
  return mdb_drop(txn, e.recs, 0);
}

int limit_body(MDB_txn* txn, Env& e, void* ctx) {
  MDB_val k{sizeof kLimitKey - 1, const_cast<char*>(kLimitKey)};
  MDB_val v{sizeof(uint64_t), ctx};
  return mdb_put(txn, e.meta, &k, &v, 0);
}

}  // namespace

uint32_t store(Handle& h, const datum* key, const datum* value) {
  if (!key_ok(*h.env, key) || !value_ok(value)) return PLAT_ERR_PSS_BAD_ARG;
  if (!writable(h)) return PLAT_ERR_PSS_READ_ONLY;
  PutCtx c{val_of(key), val_of(value)};
  // A large value needs more blocks ahead of the map than a write is given by default.
  if (size_t need = 2 * (size_t{key->dsize} + value->dsize); need > kWriteRoom / 2) {
    if (int rc = h.env->store.reserve(need + kWriteRoom); rc != 0) {
      log_failure("allocation", *h.env, rc);
      return map_rc(rc);
    }
  }
  return map_rc(write_txn(*h.env, put_body, &c, false, size_t{key->dsize} + value->dsize));
}

uint32_t remove(Handle& h, const datum* key) {
  if (!key_ok(*h.env, key)) return PLAT_ERR_PSS_BAD_ARG;
  if (!writable(h)) return PLAT_ERR_PSS_READ_ONLY;
  MDB_val k = val_of(key);
  return map_rc(write_txn(*h.env, del_body, &k, true, key->dsize));
}

uint32_t remove_prefixed(Handle& h, const datum* prefix, uint32_t* count) {
  if (count != nullptr) *count = 0;
  if (!value_ok(prefix) || prefix->dsize > h.env->max_key) return PLAT_ERR_PSS_BAD_ARG;
  if (!writable(h)) return PLAT_ERR_PSS_READ_ONLY;
  PrefixCtx c{val_of(prefix), 0};
  int rc = write_txn(*h.env, prefix_body, &c, true);
  if (rc == 0 && count != nullptr) *count = saturate(c.count);
  return map_rc(rc);
}

uint32_t purge(Handle& h, uint32_t* count) {
  if (count != nullptr) *count = 0;
  if (!writable(h)) return PLAT_ERR_PSS_READ_ONLY;
  size_t n = 0;
  int rc = write_txn(*h.env, purge_body, &n, true);
  if (rc == 0 && count != nullptr) *count = saturate(n);
  return map_rc(rc);
}

uint32_t set_limit(Handle& h, uint64_t size) {
  if (size < PSS2_MIN_DBSIZE || size > PSS2_MAX_DBSIZE) return PLAT_ERR_PSS_BAD_ARG;
  if (!writable(h)) return PLAT_ERR_PSS_READ_ONLY;
  int rc = write_txn(*h.env, limit_body, &size, true);
  if (rc != 0) return map_rc(rc);
  h.env->limit = size;
  apply_limit(*h.env);
  return 0;
}

datum* fetch(Handle& h, const datum* key, uint32_t* status) {
  if (!key_ok(*h.env, key) || !readable(h)) {
    *status = PLAT_ERR_PSS_BAD_ARG;
    return nullptr;
  }
  ReadTxn rt(h);
  MDB_val k = val_of(key), v;
  int rc = rt.rc() != 0 ? rt.rc() : mdb_get(rt.txn(), h.env->recs, &k, &v);
  *status = map_rc(rc);
  if (rc != 0) return nullptr;
  h.fetched.fill(v.mv_data, v.mv_size);
  return &h.fetched.d;
}

namespace {

struct Copy {
  MDB_cursor* src;
  size_t chunk;      // records per commit
  bool first = true;  // the first commit also empties the destination
  bool done = false;
};

// One commit's worth of records, appended in key order (the source's order is the
// destination's, so MDB_APPEND holds and skips the tree search).
int copy_body(MDB_txn* txn, Env& e, void* ctx) {
  auto* c = static_cast<Copy*>(ctx);
  int rc = 0;
  if (c->first && (rc = mdb_drop(txn, e.recs, 0)) != 0) return rc;
  MDB_val k, v;
  for (size_t n = 0; n < c->chunk; ++n) {
    rc = mdb_cursor_get(c->src, &k, &v, c->first && n == 0 ? MDB_FIRST : MDB_NEXT);
    if (rc == MDB_NOTFOUND) {
      c->done = true;
      return 0;
    }
    if (rc == 0) rc = mdb_put(txn, e.recs, &k, &v, MDB_APPEND);
    if (rc != 0) return rc;
  }
  return 0;
}

}  // namespace

namespace {

// The meta records of dst (format, parameters, limit), copied into the new file first.
int copy_meta(MDB_txn* from, MDB_dbi fm, MDB_txn* to, MDB_dbi tm) {
  MDB_cursor* c;
  int rc = mdb_cursor_open(from, fm, &c);
  if (rc != 0) return rc;
  MDB_val k, v;
  for (rc = mdb_cursor_get(c, &k, &v, MDB_FIRST); rc == 0; rc = mdb_cursor_get(c, &k, &v, MDB_NEXT))
    if ((rc = mdb_put(to, tm, &k, &v, 0)) != 0) break;
  mdb_cursor_close(c);
  return rc == MDB_NOTFOUND ? 0 : rc;
}

// The copy as a file: LMDB's compacting copy of src (one read transaction, so a consistent
// one), then dst's meta records in place of src's, flushed to disk before the file is
// closed. Its map is dst's: a copy that would not fit dst's limit fails as full.
int write_file_copy(const std::string& tmp, Env& src, Env& dst) {
  MDB_envinfo info;
  mdb_env_info(dst.env, &info);
  const size_t map = info.me_mapsize > dst.limit ? info.me_mapsize : static_cast<size_t>(dst.limit);
  int rc = env_copy_to(src.env, tmp.c_str());
  struct stat st;
  if (rc == 0 && ::stat(tmp.c_str(), &st) != 0) rc = errno;
  if (rc == 0 && static_cast<size_t>(st.st_size) > map) rc = MDB_MAP_FULL;
  MDB_env* env = nullptr;
  if (rc == 0) rc = mdb_env_create(&env);
  if (rc != 0) return rc;
  rc = mdb_env_set_maxdbs(env, 4);
  if (rc == 0) rc = mdb_env_set_mapsize(env, map);
  if (rc == 0) rc = mdb_env_open(env, tmp.c_str(), MDB_NOSUBDIR | MDB_NOLOCK | MDB_NOSYNC | MDB_NOTLS, 0664);
  MDB_txn* txn = nullptr;
  MDB_txn* mt = nullptr;
  MDB_dbi meta;
  if (rc == 0) rc = mdb_txn_begin(env, nullptr, 0, &txn);
  if (rc == 0) rc = mdb_dbi_open(txn, kMetaDb, MDB_CREATE, &meta);
  if (rc == 0) rc = mdb_drop(txn, meta, 0);
  if (rc == 0) rc = mdb_txn_begin(dst.env, nullptr, MDB_RDONLY, &mt);
  if (rc == 0) rc = copy_meta(mt, dst.meta, txn, meta);
  if (mt != nullptr) mdb_txn_abort(mt);
  if (rc == 0) {
    rc = lmdb_ops().txn_commit(txn);
    txn = nullptr;
  }
  if (txn != nullptr) mdb_txn_abort(txn);
  if (rc == 0) rc = lmdb_ops().env_sync(env, 1);
  mdb_env_close(env);
  return rc;
}

int sync_dir_of(const std::string& path) {
  std::string dir = path.substr(0, path.find_last_of('/'));
  int fd = ::open(dir.empty() ? "/" : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  int rc = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return rc;
}

}  // namespace

// The copy is built in a scratch file in dst's directory (LMDB's environment copy of src, at
// file speed), flushed, and renamed over dst's file, whose environment is then opened again: a crash at any point leaves dst's old file
// or the whole copy under dst's name, never part of it. (A destination with a multi-get phase
// open keeps its read transaction on the old file: it gets the copy in one transaction in
// place instead, which LMDB makes as whole.)
uint32_t snapshot(Handle& src, Handle& dst) {
  if (src.env == dst.env || !readable(src)) return PLAT_ERR_PSS_BAD_ARG;
  if (!writable(dst)) return PLAT_ERR_PSS_READ_ONLY;
  if (int rc = apply_batch_settle_all(); rc != 0) return map_rc(rc);  // the copy is of what is committed
  MDB_txn* rtxn;
  int rc = mdb_txn_begin(src.env->env, nullptr, MDB_RDONLY, &rtxn);
  size_t chunk = size_t{dst.env->params.snapshot_chunk != 0 ? dst.env->params.snapshot_chunk : kDefaultChunkKilo} * 1000;
  Copy c{nullptr, chunk};
  if (rc == 0 && (rc = mdb_cursor_open(rtxn, src.env->recs, &c.src)) != 0) mdb_txn_abort(rtxn);
  if (rc != 0) {
    log_failure("snapshot read", *src.env, rc);
    return map_rc(rc);
  }
  Env& d = *dst.env;
  uint32_t err = 0;
  if (d.readers > 0) {
    c.chunk = SIZE_MAX;
    rc = write_txn(d, copy_body, &c, false);
  } else {
    static std::atomic<unsigned> serial{0};
    std::string tmp = d.path + ".tmp-" + std::to_string(::getpid()) + "-" + std::to_string(serial++);
    ::unlink(tmp.c_str());
    rc = write_file_copy(tmp, *src.env, d);
    if (rc == 0 && ::rename(tmp.c_str(), d.path.c_str()) != 0) rc = errno;
    if (rc != 0) {
      log_failure("snapshot copy", d, rc);
      ::unlink(tmp.c_str());
    } else if ((rc = sync_dir_of(d.path)) != 0) {
      log_failure("snapshot copy (directory flush)", d, rc);
    }
    if (rc == 0) err = reopen_env(&d);  // on failure d is gone with its handles
  }
  mdb_cursor_close(c.src);
  mdb_txn_abort(rtxn);
  return rc != 0 ? map_rc(rc) : err;
}

}  // namespace hadra::plat::pss
