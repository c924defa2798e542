// Positions of PSS handles and multi-get phases.
//
// A position is a copy of a key, not an LMDB cursor: no transaction has to stay open
// between calls, and the position keeps its meaning when records come and go. Each move
// opens a cursor in the handle's read transaction (a fresh one, or the phase's), seeks from
// the copied key and copies the key it lands on.
#include "pss/store.h"

namespace hadra::plat::pss {
namespace {

bool positionable(const Handle& h) {
  return (h.flags & PSS2_OPEN_CURSOR) != 0 && (h.flags & PSS2_OPEN_READ) != 0;
}

// The seek of one move: the cursor's operation and, for seeks from the position, the key.
using Seek = int (*)(MDB_cursor* cur, const Handle& h, MDB_val* k, MDB_val* v);

int seek_first(MDB_cursor* cur, const Handle&, MDB_val* k, MDB_val* v) {
  return mdb_cursor_get(cur, k, v, MDB_FIRST);
}

int seek_last(MDB_cursor* cur, const Handle&, MDB_val* k, MDB_val* v) {
  return mdb_cursor_get(cur, k, v, MDB_LAST);
}

MDB_val position_val(const Handle& h) { return MDB_val{h.key.d.dsize, h.key.d.dptr}; }

int compare(MDB_cursor* cur, const MDB_val* a, const MDB_val* b) {
  return mdb_cmp(mdb_cursor_txn(cur), mdb_cursor_dbi(cur), a, b);
}

// A step lands strictly past the position, or the file's keys are out of order (a damaged
// copy): then the step fails instead of going round in circles for ever.
int moved(MDB_cursor* cur, int rc, const MDB_val* k, const MDB_val* at, int direction) {
  return rc == 0 && compare(cur, k, at) * direction <= 0 ? MDB_CORRUPTED : rc;
}

// First key after the position (which may have been deleted since).
int seek_next(MDB_cursor* cur, const Handle& h, MDB_val* k, MDB_val* v) {
  if (h.pos == Pos::kNone) return seek_first(cur, h, k, v);
  if (h.pos == Pos::kEnd) return MDB_NOTFOUND;
  MDB_val at = position_val(h);
  *k = at;
  int rc = mdb_cursor_get(cur, k, v, MDB_SET_RANGE);
  if (rc == 0 && compare(cur, k, &at) == 0) rc = mdb_cursor_get(cur, k, v, MDB_NEXT);
  return moved(cur, rc, k, &at, 1);
}

// Last key before the position; from no position or the end, the last key.
int seek_prev(MDB_cursor* cur, const Handle& h, MDB_val* k, MDB_val* v) {
  if (h.pos != Pos::kAt) return seek_last(cur, h, k, v);
  MDB_val at = position_val(h);
  *k = at;
  int rc = mdb_cursor_get(cur, k, v, MDB_SET_RANGE);
  if (rc == MDB_NOTFOUND)
    rc = mdb_cursor_get(cur, k, v, MDB_LAST);
  else if (rc == 0)
    rc = mdb_cursor_get(cur, k, v, MDB_PREV);
  return moved(cur, rc, k, &at, -1);
}

// Runs one seek and moves the position to where it landed (the end when nowhere).
// *exact tells whether the landing key equals want (for move2key).
int run_seek(Handle& h, Seek seek, const MDB_val* want, bool* exact) {
  ReadTxn rt(h);
  if (rt.rc() != 0) return rt.rc();
  MDB_cursor* cur;
  int rc = mdb_cursor_open(rt.txn(), h.env->recs, &cur);
  if (rc != 0) return rc;
  MDB_val k{0, nullptr}, v;
  if (want != nullptr) {
    k = *want;
    rc = mdb_cursor_get(cur, &k, &v, MDB_SET_RANGE);
  } else {
    rc = seek(cur, h, &k, &v);
  }
  if (rc == 0) {
    if (exact != nullptr) *exact = mdb_cmp(rt.txn(), h.env->recs, &k, want) == 0;
    h.key.fill(k.mv_data, k.mv_size);
    h.pos = Pos::kAt;
  } else if (rc == MDB_NOTFOUND) {
    h.key.clear();
    h.pos = Pos::kEnd;
  }
  mdb_cursor_close(cur);
  return rc;
}

constexpr Seek kSeeks[] = {nullptr, seek_first, seek_last, seek_next, seek_prev};

}  // namespace

uint32_t move_to_key(Handle& h, const datum* key) {
  if (!positionable(h) || !key_ok(*h.env, key)) return PLAT_ERR_PSS_BAD_ARG;
  MDB_val want{key->dsize, key->dptr};
  bool exact = false;
  int rc = run_seek(h, nullptr, &want, &exact);
  if (rc == 0 && !exact) return PLAT_ERR_PSS_NO_RECORD;
  return map_rc(rc);
}

uint32_t move_to(Handle& h, uint32_t location) {
  if (!positionable(h) || location == 0 || location >= sizeof kSeeks / sizeof kSeeks[0])
    return PLAT_ERR_PSS_BAD_ARG;
  return map_rc(run_seek(h, kSeeks[location], nullptr, nullptr));
}

datum* get_key(Handle& h, uint32_t* status) {
  *status = positionable(h) ? 0 : PLAT_ERR_PSS_BAD_ARG;
  return *status == 0 && h.pos == Pos::kAt ? &h.key.d : nullptr;
}

datum* get_value(Handle& h, uint32_t* status) {
  if (!positionable(h)) {
    *status = PLAT_ERR_PSS_BAD_ARG;
    return nullptr;
  }
  if (h.pos != Pos::kAt) {
    *status = PLAT_ERR_PSS_NO_RECORD;
    return nullptr;
  }
  ReadTxn rt(h);
  MDB_val k = position_val(h), v;
  int rc = rt.rc() != 0 ? rt.rc() : mdb_get(rt.txn(), h.env->recs, &k, &v);
  *status = map_rc(rc);
  if (rc != 0) return nullptr;
  h.value.fill(v.mv_data, v.mv_size);
  return &h.value.d;
}

uint32_t mget_begin(Handle& h, uint32_t* records) {
  if (records != nullptr) *records = 0;
  if (!positionable(h) || h.mget != nullptr) return PLAT_ERR_PSS_BAD_ARG;
  MDB_txn* txn;
  int rc = h.env->store.settle();  // the phase reads what is committed
  if (rc == 0) rc = mdb_txn_begin(h.env->env, nullptr, MDB_RDONLY, &txn);
  MDB_stat st;
  if (rc == 0 && (rc = mdb_stat(txn, h.env->recs, &st)) != 0) mdb_txn_abort(txn);
  if (rc != 0) {
    log_failure("multi-get", *h.env, rc);
    return map_rc(rc);
  }
  h.mget = txn;
  h.env->readers++;
  if (records != nullptr) *records = st.ms_entries > 0xffffffffu ? 0xffffffffu : static_cast<uint32_t>(st.ms_entries);
  return 0;
}

void end_phase(Handle& h) {
  if (h.mget == nullptr) return;
  mdb_txn_abort(h.mget);
  h.mget = nullptr;
  if (--h.env->readers == 0 && h.env->limit_pending) apply_limit(*h.env);
}

uint32_t mget_done(Handle& h) {
  if (h.mget == nullptr) return PLAT_ERR_PSS_BAD_ARG;
  end_phase(h);
  return 0;
}

}  // namespace hadra::plat::pss
