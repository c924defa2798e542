// SDB writes: single records, lists, list operations, deletes and MSDB multi-key lists, and
// the context that describes the process's last write.
//
// Each exported writer checks its whole input first and then applies it in one LMDB write
// transaction, so a refused or failed list leaves the SDB exactly as it was. The commit also
// bumps the SDB's write generation and records the process's last-write context.
//
// Secondary keys of an MSDB record live in two places kept in step by every writer:
//   "mkeys":  primary key -> count (u32) then per key tag (u16), length (u16), bytes (LE)
//   "skeys":  tag (u16, big-endian) + secondary-key bytes -> primary key (duplicates sorted)
// The first tells a rewrite or delete which index entries to remove; the second answers
// lookups by secondary key.
#include <algorithm>
#include <atomic>
#include <set>
#include <string>

#include "common/call.h"
#include "hadra_platform_testing.h"
#include "sdb/bytes.h"
#include "sdb/store.h"

namespace sdb = hadra::plat::sdb;
using hadra::plat::Call;

namespace {

const char* show(const char* s) { return s != nullptr ? s : "(null)"; }
uint32_t len_of(const datum* d) { return d != nullptr ? d->dsize : 0; }

// Context length a test made sdb_get_context_len report (0: the real one).
std::atomic<uint32_t> g_test_context_len{0};
void forget_test_context_len() { g_test_context_len = 0; }
[[maybe_unused]] const bool g_reset_registered = (hadra::plat::register_reset(&forget_test_context_len), true);

// Removes the record's secondary keys from the index and forgets its list.
uint32_t drop_skeys(MDB_txn* txn, const sdb::Env& env, MDB_val key) {
  MDB_val v;
  int rc = mdb_get(txn, env.mkeys, &key, &v);
  if (rc == MDB_NOTFOUND) return 0;
  if (rc != 0) return sdb::map_err(rc);
  std::string list(sdb::view_of(v));  // the map page may change under the deletes below
  const auto* p = reinterpret_cast<const uint8_t*>(list.data());
  size_t n = list.size(), at = 4;
  uint64_t count = n >= 4 ? sdb::get_le(p, 4) : 0;
  for (uint64_t i = 0; i < count && at + 4 <= n; ++i) {
    uint32_t tag = static_cast<uint32_t>(sdb::get_le(p + at, 2));
    size_t len = static_cast<size_t>(sdb::get_le(p + at + 2, 2));
    if (at + 4 + len > n) break;
    std::string ik = sdb::index_key(tag, p + at + 4, len);
    MDB_val k = sdb::val_of(ik);
    rc = mdb_del(txn, env.skeys, &k, &key);
    if (rc != 0 && rc != MDB_NOTFOUND) return sdb::map_err(rc);
    at += 4 + len;
  }
  rc = mdb_del(txn, env.mkeys, &key, nullptr);
  return rc == MDB_NOTFOUND ? 0 : sdb::map_err(rc);
}

// Indexes the record under each of its secondary keys and stores their list.
uint32_t put_skeys(MDB_txn* txn, const sdb::Env& env, MDB_val key, const sdb_skey* skeys, int32_t n) {
  std::set<std::string> seen;
  std::string list(4, '\0');
  uint32_t stored = 0;
  for (int32_t i = 0; i < n; ++i) {
    const datum* s = skeys[i].skey;
    std::string ik = sdb::index_key(skeys[i].tag, s->dptr, s->dsize);
    if (!seen.insert(ik).second) continue;
    MDB_val k = sdb::val_of(ik);
    int rc = mdb_put(txn, env.skeys, &k, &key, MDB_NODUPDATA);
    if (rc != 0 && rc != MDB_KEYEXIST) return sdb::map_err(rc);
    uint8_t hdr[4];
    sdb::put_le(hdr, skeys[i].tag & 0xffffu, 2);
    sdb::put_le(hdr + 2, s->dsize, 2);
    list.append(reinterpret_cast<const char*>(hdr), 4);
    list.append(static_cast<const char*>(s->dptr), s->dsize);
    ++stored;
  }
  if (stored == 0) return 0;
  sdb::put_le(reinterpret_cast<uint8_t*>(list.data()), stored, 4);
  MDB_val v = sdb::val_of(list);
  return sdb::map_err(mdb_put(txn, env.mkeys, &key, &v, 0));
}

// One write transaction in progress: where records go, and what its context will tell.
struct Writer {
  MDB_txn* txn;
  const sdb::Env& env;
  sdb::WriteNote& note;
};

uint32_t put_record(Writer& w, const datum* key, const datum* data) {
  static char empty[1];
  MDB_val k = sdb::val_of(key), v{0, empty};
  if (data != nullptr && data->dsize > 0) v = sdb::val_of(data);
  w.note.key(key->dptr, key->dsize);
  return sdb::map_err(mdb_put(w.txn, w.env.records, &k, &v, 0));
}

// Deletes the record and its secondary keys; a missing record gives NO_RECORD.
uint32_t del_record(Writer& w, const datum* key) {
  MDB_val k = sdb::val_of(key);
  w.note.key(key->dptr, key->dsize);
  int rc = mdb_del(w.txn, w.env.records, &k, nullptr);
  if (rc != 0) return sdb::map_err(rc);
  return drop_skeys(w.txn, w.env, k);
}

uint32_t del_if_present(Writer& w, const datum* key) {
  uint32_t rc = del_record(w, key);
  return rc == PLAT_ERR_SDB_NO_RECORD ? 0 : rc;
}

// Runs each(writer, i) for i in [0, count) in one write transaction of db; the first
// failure aborts the transaction, so a list is applied whole or not at all.
template <class F>
uint32_t apply_each(sdb::Db& db, sdb::WriteOp op, uint32_t count, F&& each) {
  return sdb::write_txn(db, op, [&](MDB_txn* txn, sdb::WriteNote& note) {
    Writer w{txn, db.env, note};
    for (uint32_t i = 0; i < count; ++i)
      if (uint32_t rc = each(w, i); rc != 0) return rc;
    return 0u;
  });
}

// apply_each on the SDB named by uri.
template <class F>
uint32_t write_each(const char* uri, sdb::WriteOp op, uint32_t count, F&& each) {
  return sdb::with_open(uri, [&](sdb::Db& db) { return apply_each(db, op, count, each); });
}

// A list argument: present, not empty, and every entry acceptable.
template <class T, class P>
bool list_ok(const T* list, uint32_t count, P ok) {
  return list != nullptr && count != 0 && std::all_of(list, list + count, ok);
}

// A write-list entry that the HA library would not repeat on the standby.
bool is_hole(const sdb_kv& e) {
  return e.key == nullptr || e.data == nullptr || e.key->dsize == 0 || e.key->dptr == nullptr ||
         e.data->dsize == 0 || e.data->dptr == nullptr;
}

bool list_op_ok(const sdb_list_op& e) {
  if (!sdb::key_ok(e.key)) return false;
  if (e.op == SDB_OP_WRITE) return sdb::value_ok(e.data);
  return e.op == SDB_OP_DELETE;
}

bool skey_ok(const sdb_skey& s) { return sdb::key_ok(s.skey) && s.skey->dsize <= SDB_KEY_MAX - 2; }

bool mkey_op_ok(const sdb_mkey_op& e) {
  if (!sdb::key_ok(e.key)) return false;
  if (e.op == SDB_OP_DELETE) return true;
  if (e.op != SDB_OP_WRITE || e.skey_count < 0) return false;
  if (e.data != nullptr && !sdb::value_ok(e.data)) return false;
  if (e.skey_count > 0 && e.skeys == nullptr) return false;
  for (int32_t i = 0; i < e.skey_count; ++i)
    if (!skey_ok(e.skeys[i])) return false;
  return true;
}

// A delete-list entry without a key, which the list skips.
bool no_key(const datum& k) { return k.dsize == 0 || k.dptr == nullptr; }

uint32_t apply_mkey_op(Writer& w, const sdb_mkey_op& e) {
  if (e.op == SDB_OP_DELETE) return del_if_present(w, e.key);
  uint32_t rc = put_record(w, e.key, e.data);
  MDB_val k = sdb::val_of(e.key);
  if (rc == 0) rc = drop_skeys(w.txn, w.env, k);
  if (rc == 0) rc = put_skeys(w.txn, w.env, k, e.skeys, e.skey_count);
  return rc;
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t sdb_write(const char* uri, const datum* key, const datum* data) noexcept {
  Call c("sdb", "sdb_write", PLAT_ERR_SDB_IO);
  c.args("uri=%s klen=%u dlen=%u", show(uri), len_of(key), len_of(data));
  if (c.faulted()) return c.fail<uint32_t>();
  if (!sdb::key_ok(key) || !sdb::value_ok(data)) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(write_each(uri, sdb::WriteOp::kWrite, 1, [&](Writer& w, uint32_t) { return put_record(w, key, data); }));
}

HADRA_PLAT_API uint32_t sdb_write_list(const char* uri, const sdb_kv* list, uint32_t count) noexcept {
  Call c("sdb", "sdb_write_list", PLAT_ERR_SDB_IO);
  c.args("uri=%s count=%u", show(uri), count);
  if (c.faulted()) return c.fail<uint32_t>();
  if (!list_ok(list, count, [](const sdb_kv& e) { return is_hole(e) || e.key->dsize <= SDB_KEY_MAX; }))
    return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(write_each(uri, sdb::WriteOp::kWriteList, count, [&](Writer& w, uint32_t i) {
    return is_hole(list[i]) ? 0u : put_record(w, list[i].key, list[i].data);
  }));
}

HADRA_PLAT_API uint32_t sdb_list_ops(const char* uri, const sdb_list_op* list, uint32_t count) noexcept {
  Call c("sdb", "sdb_list_ops", PLAT_ERR_SDB_IO);
  c.args("uri=%s count=%u", show(uri), count);
  if (c.faulted()) return c.fail<uint32_t>();
  if (!list_ok(list, count, list_op_ok)) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(write_each(uri, sdb::WriteOp::kListOps, count, [&](Writer& w, uint32_t i) {
    const sdb_list_op& e = list[i];
    return e.op == SDB_OP_WRITE ? put_record(w, e.key, e.data) : del_if_present(w, e.key);
  }));
}

HADRA_PLAT_API uint32_t sdb_delete(const char* uri, const datum* key) noexcept {
  Call c("sdb", "sdb_delete", PLAT_ERR_SDB_IO);
  c.args("uri=%s klen=%u", show(uri), len_of(key));
  if (c.faulted()) return c.fail<uint32_t>();
  if (!sdb::key_ok(key)) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(write_each(uri, sdb::WriteOp::kDelete, 1, [&](Writer& w, uint32_t) { return del_record(w, key); }));
}

HADRA_PLAT_API uint32_t sdb_delete_list(const char* uri, const datum* keys, uint32_t count) noexcept {
  Call c("sdb", "sdb_delete_list", PLAT_ERR_SDB_IO);
  c.args("uri=%s count=%u", show(uri), count);
  if (c.faulted()) return c.fail<uint32_t>();
  if (!list_ok(keys, count, [](const datum& k) { return no_key(k) || sdb::key_ok(&k); }))
    return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(write_each(uri, sdb::WriteOp::kDeleteList, count, [&](Writer& w, uint32_t i) {
    return no_key(keys[i]) ? 0u : del_if_present(w, &keys[i]);
  }));
}

HADRA_PLAT_API uint32_t sdb_write_mkey_list(const char* uri, const sdb_mkey_op* list, uint32_t count) noexcept {
  Call c("sdb", "sdb_write_mkey_list", PLAT_ERR_SDB_IO);
  c.args("uri=%s count=%u", show(uri), count);
  if (c.faulted()) return c.fail<uint32_t>();
  if (!list_ok(list, count, mkey_op_ok)) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) {
    if (db.kind != SDB_CREATE_MSDB) return PLAT_ERR_SDB_BAD_ARG;
    return apply_each(db, sdb::WriteOp::kMkeyList, count,
                      [&](Writer& w, uint32_t i) { return apply_mkey_op(w, list[i]); });
  }));
}

HADRA_PLAT_API uint32_t sdb_write_done(const char* uri) noexcept {
  Call c("sdb", "sdb_write_done", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(sdb::with_open(uri, [](sdb::Db&) { return 0u; }));
}

HADRA_PLAT_API uint32_t sdb_get_context_len(const char* uri, uint32_t* len) noexcept {
  Call c("sdb", "sdb_get_context_len", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  if (len == nullptr) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db&) {
    uint32_t claimed = g_test_context_len;
    *len = claimed != 0 ? claimed : SDB_CONTEXT_LEN;
    return 0u;
  }));
}

HADRA_PLAT_API void plat_test_sdb_set_context_len(uint32_t len) noexcept { g_test_context_len = len; }

HADRA_PLAT_API uint32_t sdb_set_context(const char* uri, void* buffer) noexcept {
  Call c("sdb", "sdb_set_context", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  if (buffer == nullptr) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_open(uri, [&](sdb::Db& db) {
    auto* b = static_cast<uint8_t*>(buffer);
    const sdb_context& x = db.last;
    sdb::put_le(b, x.version, 2);
    sdb::put_le(b + 2, x.op, 2);
    sdb::put_le(b + 4, x.records, 4);
    sdb::put_le(b + 8, x.generation, 8);
    sdb::put_le(b + 16, x.key_hash, 4);
    sdb::put_le(b + 20, x.uri_hash, 4);
    sdb::put_le(b + 24, x.pid, 4);
    sdb::put_le(b + 28, 0, 4);
    return 0u;
  }));
}

HADRA_PLAT_API uint32_t sdb_context_parse(const void* buf, uint32_t len, sdb_context* out) noexcept {
  Call c("sdb", "sdb_context_parse", PLAT_ERR_SDB_BAD_ARG);
  c.args("len=%u", len);
  if (c.faulted()) return c.fail<uint32_t>();
  const auto* b = static_cast<const uint8_t*>(buf);
  if (b == nullptr || out == nullptr || len < SDB_CONTEXT_LEN || sdb::get_le(b, 2) != 1)
    return c.ret(PLAT_ERR_SDB_BAD_ARG);
  out->version = 1;
  out->op = static_cast<uint16_t>(sdb::get_le(b + 2, 2));
  out->records = static_cast<uint32_t>(sdb::get_le(b + 4, 4));
  out->generation = sdb::get_le(b + 8, 8);
  out->key_hash = static_cast<uint32_t>(sdb::get_le(b + 16, 4));
  out->uri_hash = static_cast<uint32_t>(sdb::get_le(b + 20, 4));
  out->pid = static_cast<uint32_t>(sdb::get_le(b + 24, 4));
  out->reserved = 0;
  return c.ret(0u);
}

}  // extern "C"
