// Transactions of the PSS store, the size limit, and LMDB result codes in platform terms.
#include <cstring>

#include "hadra_platform/log.h"
#include "log/log_internal.h"
#include "pss/store.h"

namespace hadra::plat::pss {
namespace {

// Map size for a delete that hit the limit (see store.h): the current map (which may be
// above the limit when the limit was set below what the file already used) plus room for
// the copied pages of a large prefix deletion.
uint64_t grown(const Env& e) {
  MDB_envinfo info;
  mdb_env_info(e.env, &info);
  uint64_t now = info.me_mapsize > e.limit ? info.me_mapsize : e.limit;
  return now + (now / 4 > (256u << 10) ? now / 4 : (256u << 10));
}

int set_map(Env& e, uint64_t size) {
  (void)e.store.settle();  // LMDB resizes no map under an open transaction
  return mdb_env_set_mapsize(e.env, static_cast<size_t>(size));
}

}  // namespace

void OutBuf::fill(const void* p, size_t n) {
  // Never a null pointer, not even for an empty value: null means "no record" to callers.
  // The old buffer is freed only after the copy: p may point into it.
  std::unique_ptr<uint8_t[]> fresh(new uint8_t[n > 0 ? n : 1]);
  if (n > 0) memcpy(fresh.get(), p, n);
  bytes.swap(fresh);
  d = datum{bytes.get(), static_cast<uint32_t>(n)};
}

uint32_t map_rc(int rc) {
  switch (rc) {
    case 0:
      return 0;
    case MDB_NOTFOUND:
      return PLAT_ERR_PSS_NO_RECORD;
    case MDB_MAP_FULL:
      return PLAT_ERR_PSS_FULL;
    case MDB_BAD_VALSIZE:
    case EINVAL:
      return PLAT_ERR_PSS_BAD_ARG;
    case ENOENT:
      return PLAT_ERR_PSS_NOT_FOUND;
    case ENOSPC:  // the disk, not the file's limit: logged with the file's name
      return PLAT_ERR_PSS_IO;
    default:
      return PLAT_ERR_PSS_IO;
  }
}

void log_failure(const char* what, const Env& e, int rc) {
  if (rc == 0 || rc == MDB_NOTFOUND || rc == MDB_MAP_FULL) return;
  report_failure("pss", what, e.path.c_str(), rc);
}

bool key_ok(const Env& e, const datum* key) {
  return key != nullptr && key->dptr != nullptr && key->dsize > 0 && key->dsize <= e.max_key;
}

bool value_ok(const datum* v) { return v != nullptr && (v->dsize == 0 || v->dptr != nullptr); }

ReadTxn::ReadTxn(Handle& h) {
  if (h.mget != nullptr) {
    txn_ = h.mget;
    return;
  }
  if ((txn_ = h.env->store.batch_txn()) != nullptr) return;  // sees what the batch applied
  rc_ = mdb_txn_begin(h.env->env, nullptr, MDB_RDONLY, &txn_);
  if (rc_ == MDB_MAP_RESIZED && h.env->readers == 0) {
    // Another process grew the file past our map: take its size and try again.
    mdb_env_set_mapsize(h.env->env, 0);
    rc_ = mdb_txn_begin(h.env->env, nullptr, MDB_RDONLY, &txn_);
  }
  owned_ = rc_ == 0;
  if (rc_ != 0) {
    txn_ = nullptr;
    log_failure("read transaction", *h.env, rc_);
  }
}

ReadTxn::~ReadTxn() {
  if (owned_) mdb_txn_abort(txn_);
}

void apply_limit(Env& e) {
  if (e.readers > 0) {
    e.limit_pending = true;
    return;
  }
  e.limit_pending = false;
  set_map(e, e.limit);  // LMDB keeps the map at least as large as the pages in use
}

int write_begin(Env& e, MDB_txn** txn) {
  if (int rc = e.store.settle(); rc != 0) return rc;
  if (e.limit_pending) apply_limit(e);
  if (int rc = e.store.reserve(kWriteRoom); rc != 0) return rc;
  int rc = mdb_txn_begin(e.env, nullptr, 0, txn);
  if (rc == MDB_MAP_RESIZED && e.readers == 0) {
    mdb_env_set_mapsize(e.env, 0);
    rc = mdb_txn_begin(e.env, nullptr, 0, txn);
  }
  return rc;
}

namespace {

// A plain record write joins the thread's apply batch when one is open (see lmdb_store.h).
int run_once(Env& e, TxnBody body, void* ctx, size_t batch_size) {
  MDB_txn* txn = nullptr;
  bool adopt = false;
  const bool joined = batch_size != 0 && e.store.batch_join(batch_size, &txn, &adopt);
  int rc = joined ? 0 : write_begin(e, &txn);
  if (rc != 0) return rc;
  if (adopt) e.store.batch_adopt(batch_size, txn);
  rc = body(txn, e, ctx);
  if (rc != 0) {
    if (joined || adopt)
      e.store.batch_fail(rc);
    else
      mdb_txn_abort(txn);
    return rc;
  }
  return e.store.commit(txn);  // frees txn whatever the result (a batch's: only counted)
}

}  // namespace

int write_txn(Env& e, TxnBody body, void* ctx, bool may_grow, size_t batch_size) {
  int rc = run_once(e, body, ctx, batch_size);
  if (rc != MDB_MAP_FULL || !may_grow || e.readers > 0 || apply_batch_failed()) {
    log_failure("write", e, rc);
    return rc;
  }
  if (set_map(e, grown(e)) != 0) return rc;
  rc = run_once(e, body, ctx, 0);
  apply_limit(e);
  log_failure("write", e, rc);
  return rc;
}

}  // namespace hadra::plat::pss
