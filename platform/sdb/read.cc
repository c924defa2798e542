// SDB reads: the iterator, lookups by primary and by secondary key, and a record's
// secondary keys.
//
// Every read runs in its own short LMDB read transaction, so a reader never holds pages
// between calls and never delays a writer of another process. What a read hands out is
// copied into buffers kept per thread and per SDB (keyed by the opening's id, never reused),
// which is what lets the pointers outlive the transaction: they stay valid until the next
// read of the same SDB in the same thread.
//
// The iterator keeps a copy of the key it stands on rather than an LMDB cursor, for the same
// reason: each step finds its place again with a range search, so records written or
// deleted between steps (by this process or another) are simply met or not met.
#include <string>
#include <unordered_map>
#include <vector>

#include "common/call.h"
#include "sdb/bytes.h"
#include "sdb/store.h"

namespace sdb = hadra::plat::sdb;
using hadra::plat::Call;

namespace {

const char* show(const char* s) { return s != nullptr ? s : "(null)"; }
uint32_t len_of(const datum* d) { return d != nullptr ? d->dsize : 0; }

struct ReadBuf {
  std::string key, value;
  datum kd{}, vd{};
  std::string skraw;  // copied secondary-key list of sdb_get_skeys
  std::vector<datum> skd;
  std::vector<sdb_skey> sk;
};

constexpr size_t kPruneAbove = 8;
thread_local std::unordered_map<uint64_t, ReadBuf> t_bufs;

// The calling thread's buffers for db; buffers of SDBs closed since are let go now and then.
ReadBuf& buf_for(const sdb::Db& db) {
  if (t_bufs.size() > kPruneAbove) {
    for (auto it = t_bufs.begin(); it != t_bufs.end();)
      it = sdb::id_is_open(it->first) ? std::next(it) : t_bufs.erase(it);
  }
  return t_bufs[db.id];
}

void fill(ReadBuf& b, const MDB_val* k, const MDB_val& v) {
  if (k != nullptr) {
    b.key.assign(static_cast<const char*>(k->mv_data), k->mv_size);
    b.kd = datum{b.key.data(), static_cast<uint32_t>(b.key.size())};
  }
  b.value.assign(static_cast<const char*>(v.mv_data), v.mv_size);
  b.vd = datum{b.value.data(), static_cast<uint32_t>(b.value.size())};
}

// One step of the iterator: the record at the position, or (advance) the one after it.
uint32_t iter_step(sdb::Db& db, bool advance, datum** key, datum** data) {
  using Iter = sdb::Db::Iter;
  if (db.iter == Iter::kNone || db.iter == Iter::kEnd) return PLAT_ERR_SDB_NO_ITER;
  sdb::Txn txn;
  uint32_t rc = txn.begin(db.env, true);
  if (rc != 0) return rc;
  sdb::Cursor cur;  // closed before the transaction ends
  if (int e = mdb_cursor_open(txn.get(), db.env.records, &cur.c); e != 0) return sdb::map_err(e);
  MDB_val k = sdb::val_of(db.iter_key), v;
  int e = db.iter_key.empty() ? mdb_cursor_get(cur.c, &k, &v, MDB_FIRST) : mdb_cursor_get(cur.c, &k, &v, MDB_SET_RANGE);
  // Stepping past the current record; if it was deleted, the range search already did.
  bool at_current = db.iter == Iter::kStart || sdb::view_of(k) == db.iter_key;
  if (e == 0 && advance && at_current) e = mdb_cursor_get(cur.c, &k, &v, MDB_NEXT);
  if (e == MDB_NOTFOUND) {
    db.iter = Iter::kEnd;
    return PLAT_ERR_SDB_NO_ITER;
  }
  if (e != 0) return sdb::map_err(e);
  db.iter = Iter::kAt;
  db.iter_key.assign(sdb::view_of(k));
  ReadBuf& b = buf_for(db);
  fill(b, &k, v);
  *key = &b.kd;
  *data = &b.vd;
  return 0;
}

// Begins a read transaction of db and finds the record stored under key in it: k and v
// receive the key and the value (valid while txn lasts).
uint32_t find_record(const sdb::Db& db, sdb::Txn& txn, const datum* key, MDB_val& k, MDB_val& v) {
  uint32_t rc = txn.begin(db.env, true);
  if (rc != 0) return rc;
  k = sdb::val_of(key);
  return sdb::map_err(mdb_get(txn.get(), db.env.records, &k, &v));
}

uint32_t read_key(sdb::Db& db, const datum* key, datum** out) {
  sdb::Txn txn;
  MDB_val k, v;
  if (uint32_t rc = find_record(db, txn, key, k, v); rc != 0) return rc;
  ReadBuf& b = buf_for(db);
  fill(b, nullptr, v);
  *out = &b.vd;
  return 0;
}

uint32_t read_by_skey(sdb::Db& db, const sdb_skey& s, datum** key, datum** data) {
  sdb::Txn txn;
  uint32_t rc = txn.begin(db.env, true);
  if (rc != 0) return rc;
  std::string ik = sdb::index_key(s.tag, s.skey->dptr, s.skey->dsize);
  MDB_val k = sdb::val_of(ik), pk, v;
  int e = mdb_get(txn.get(), db.env.skeys, &k, &pk);  // first duplicate: smallest primary key
  if (e == 0) e = mdb_get(txn.get(), db.env.records, &pk, &v);
  if (e != 0) return sdb::map_err(e);
  ReadBuf& b = buf_for(db);
  fill(b, &pk, v);
  if (key != nullptr) *key = &b.kd;
  if (data != nullptr) *data = &b.vd;
  return 0;
}

// Decodes a stored secondary-key list into b's arrays; false when it is malformed.
bool decode_skeys(ReadBuf& b) {
  const auto* p = reinterpret_cast<const uint8_t*>(b.skraw.data());
  size_t n = b.skraw.size(), at = 4;
  uint64_t count = n >= 4 ? sdb::get_le(p, 4) : 0;
  b.skd.clear();
  b.sk.clear();
  std::vector<uint32_t> tags;
  for (uint64_t i = 0; i < count; ++i) {
    if (at + 4 > n) return false;
    size_t len = static_cast<size_t>(sdb::get_le(p + at + 2, 2));
    if (at + 4 + len > n) return false;
    tags.push_back(static_cast<uint32_t>(sdb::get_le(p + at, 2)));
    b.skd.push_back(datum{b.skraw.data() + at + 4, static_cast<uint32_t>(len)});
    at += 4 + len;
  }
  for (size_t i = 0; i < b.skd.size(); ++i) b.sk.push_back(sdb_skey{&b.skd[i], tags[i]});
  return true;
}

uint32_t skeys_of(sdb::Db& db, const datum* key, const sdb_skey** skeys, uint32_t* count) {
  sdb::Txn txn;
  MDB_val k, v;
  if (uint32_t rc = find_record(db, txn, key, k, v); rc != 0) return rc;
  ReadBuf& b = buf_for(db);
  int e = mdb_get(txn.get(), db.env.mkeys, &k, &v);
  if (e != 0 && e != MDB_NOTFOUND) return sdb::map_err(e);
  b.skraw.assign(e == 0 ? sdb::view_of(v) : std::string_view{});
  if (!decode_skeys(b)) return PLAT_ERR_SDB_IO;
  *skeys = b.sk.empty() ? nullptr : b.sk.data();
  *count = static_cast<uint32_t>(b.sk.size());
  return 0;
}

// sdb_getkey and sdb_getnext differ only in their names and in whether they step on.
uint32_t iter_call(const char* call, const char* uri, bool advance, datum** key, datum** data) {
  Call c("sdb", call, PLAT_ERR_SDB_NO_ITER);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  if (key == nullptr || data == nullptr) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) { return iter_step(db, advance, key, data); }));
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t sdb_iterator_init(const char* uri, const datum* start) noexcept {
  Call c("sdb", "sdb_iterator_init", PLAT_ERR_SDB_IO);
  bool first = start == SDB_ITER_FIRST;
  c.args("uri=%s start=%s klen=%u", show(uri), first ? "first" : "key", first ? 0u : len_of(start));
  if (c.faulted()) return c.fail<uint32_t>();
  if (start == nullptr || (!first && start->dsize > 0 && !sdb::key_ok(start))) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) {
    db.iter = sdb::Db::Iter::kStart;
    if (first || start->dsize == 0)
      db.iter_key.clear();
    else
      db.iter_key.assign(static_cast<const char*>(start->dptr), start->dsize);
    return 0u;
  }));
}

HADRA_PLAT_API uint32_t sdb_getkey(const char* uri, datum** key, datum** data) noexcept {
  return iter_call("sdb_getkey", uri, false, key, data);
}

HADRA_PLAT_API uint32_t sdb_getnext(const char* uri, datum** key, datum** data) noexcept {
  return iter_call("sdb_getnext", uri, true, key, data);
}

HADRA_PLAT_API datum* sdb_read(const char* uri, const datum* key, uint32_t* rc) noexcept {
  Call c("sdb", "sdb_read", PLAT_ERR_SDB_IO);
  c.args("uri=%s klen=%u", show(uri), len_of(key));
  if (c.faulted()) {
    uint32_t code = c.fail<uint32_t>();
    if (rc != nullptr) *rc = code;
    return nullptr;
  }
  datum* out = nullptr;
  uint32_t code = !sdb::key_ok(key) ? PLAT_ERR_SDB_BAD_ARG
                                    : sdb::with_open(uri, [&](sdb::Db& db) { return read_key(db, key, &out); });
  if (rc != nullptr) *rc = code;
  return c.ret(out);
}

HADRA_PLAT_API uint32_t sdb_read_skey(const char* uri, const sdb_skey* skey, datum** key, datum** data) noexcept {
  Call c("sdb", "sdb_read_skey", PLAT_ERR_SDB_IO);
  c.args("uri=%s tag=%u sklen=%u", show(uri), skey != nullptr ? skey->tag & 0xffffu : 0u,
         skey != nullptr ? len_of(skey->skey) : 0u);
  if (c.faulted()) return c.fail<uint32_t>();
  if (skey == nullptr || !sdb::key_ok(skey->skey) || skey->skey->dsize > SDB_KEY_MAX - 2)
    return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) { return read_by_skey(db, *skey, key, data); }));
}

HADRA_PLAT_API uint32_t sdb_get_skeys(const char* uri, const datum* key, const sdb_skey** skeys,
                                      uint32_t* count) noexcept {
  Call c("sdb", "sdb_get_skeys", PLAT_ERR_SDB_IO);
  c.args("uri=%s klen=%u", show(uri), len_of(key));
  if (c.faulted()) return c.fail<uint32_t>();
  if (!sdb::key_ok(key) || skeys == nullptr || count == nullptr) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) { return skeys_of(db, key, skeys, count); }));
}

}  // extern "C"
