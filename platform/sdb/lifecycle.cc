// SDB lifecycle: create, open, recover, close, destroy, and the opcode registry.
//
// Life of an SDB as seen from one process:
//
//   (nothing) --sdb_create--> stored --sdb_open--> open here --sdb_close--> stored
//   stored/open --sdb_destroy_begin--> being destroyed --sdb_destroy_done--> (nothing)
//   stored/open --sdb_destroy--> (nothing)
//
// "Being destroyed" is a mark in the SDB's meta record, so every process sees it: nobody
// can open the SDB any more and sdb_create replaces it. A client that dies between the two
// steps therefore leaves nothing that blocks the next creation.
#include <cstring>

#include "common/call.h"
#include "sdb/store.h"

namespace sdb = hadra::plat::sdb;
using hadra::plat::Call;

namespace {

const char* show(const char* s) { return s != nullptr ? s : "(null)"; }

uint32_t open_new(const char* uri, const std::string& path, uint32_t rights) {
  auto db = std::make_unique<sdb::Db>();
  db->uri = uri;
  db->path = path;
  db->rights = rights;
  sdb::Meta m;
  if (uint32_t rc = sdb::open_live(path, db->env, m); rc != 0) return rc;
  db->kind = m.kind;
  sdb::context_reset(*db);
  sdb::add_open(std::move(db));
  return 0;
}

// Marks the SDB at path as being destroyed, closing it here first.
uint32_t mark_destroying(const std::string& path) {
  uint32_t rc = sdb::check_stored(path);
  if (rc != 0) return rc;
  sdb::close_open(path);
  sdb::Env env;
  sdb::Meta m;
  rc = sdb::open_existing(path, env, &m);
  if (rc != 0) return rc;
  if (m.state == sdb::kStateDestroying) return 0;
  sdb::Txn txn;
  rc = txn.begin(env, false);
  m.state = sdb::kStateDestroying;
  if (rc == 0) rc = sdb::write_meta(txn.get(), env, m);
  if (rc == 0) rc = txn.commit();
  return rc;
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t sdb_create(const char* uri, uint32_t flags, uint32_t uuid, uint32_t reserved) noexcept {
  Call c("sdb", "sdb_create", PLAT_ERR_SDB_IO);
  c.args("uri=%s flags=0x%x uuid=%u", show(uri), flags, uuid);
  if (c.faulted()) return c.fail<uint32_t>();
  if ((flags != SDB_CREATE_SDB && flags != SDB_CREATE_MSDB) || reserved != 0) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_path(uri, true, [&](const std::string& path) { return sdb::create_at(path, flags, uuid); }));
}

HADRA_PLAT_API uint32_t sdb_open(const char* uri, uint32_t rw_flag, uint32_t uuid, uint32_t reserved1,
                                 uint32_t reserved2) noexcept {
  Call c("sdb", "sdb_open", PLAT_ERR_SDB_IO);
  c.args("uri=%s rw=%u uuid=%u", show(uri), rw_flag, uuid);
  if (c.faulted()) return c.fail<uint32_t>();
  if ((rw_flag != SDB_OPEN_READ && rw_flag != SDB_OPEN_RW) || reserved1 != 0 || reserved2 != 0)
    return c.ret(PLAT_ERR_SDB_BAD_ARG);
  return c.ret(sdb::with_path(uri, false, [&](const std::string& path) {
    if (sdb::Db* db = sdb::find_path(path); db != nullptr) {
      db->rights |= rw_flag;
      return PLAT_ERR_SDB_ALREADY_OPEN;
    }
    return open_new(uri, path, rw_flag);
  }));
}

HADRA_PLAT_API uint32_t sdb_recover(uint32_t sap) noexcept {
  Call c("sdb", "sdb_recover", PLAT_ERR_SDB_IO);
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<uint32_t>();
  auto g = sdb::lock();
  uint32_t rc = 0;
  sdb::for_each_open([&](sdb::Db& db) {
    if ((db.rights & 0x2u) == 0) return;
    int dead = 0;
    if (mdb_reader_check(db.env.env(), &dead) != 0) rc = PLAT_ERR_SDB_IO;
    db.owner_sap = sap;
  });
  return c.ret(rc);
}

HADRA_PLAT_API uint32_t sdb_close(const char* uri) noexcept {
  Call c("sdb", "sdb_close", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  auto g = sdb::lock();
  sdb::Db* db = nullptr;
  uint32_t rc = sdb::find_open(uri, &db);
  if (rc == 0) sdb::close_open(db->path);
  return c.ret(rc);
}

HADRA_PLAT_API uint32_t sdb_destroy_begin(const char* uri) noexcept {
  Call c("sdb", "sdb_destroy_begin", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(sdb::with_path(uri, false, mark_destroying));
}

HADRA_PLAT_API uint32_t sdb_destroy_done(const char* uri, uint32_t sap, uint32_t cre_del_opcode) noexcept {
  Call c("sdb", "sdb_destroy_done", PLAT_ERR_SDB_IO);
  c.args("uri=%s sap=%u opcode=%u", show(uri), sap, cre_del_opcode);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(sdb::with_path(uri, false, sdb::destroy_at));
}

HADRA_PLAT_API uint32_t sdb_destroy(const char* uri) noexcept {
  Call c("sdb", "sdb_destroy", PLAT_ERR_SDB_IO);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(sdb::with_path(uri, false, sdb::destroy_at));
}

HADRA_PLAT_API int sdb_exists(const char* uri) noexcept {
  Call c("sdb", "sdb_exists", 0);
  c.args("uri=%s", show(uri));
  if (c.faulted()) return c.fail<int>();
  auto g = sdb::lock();
  std::string path;
  if (sdb::uri_path(uri, path, false) != 0) return c.ret(0);
  if (sdb::find_path(path) != nullptr) return c.ret(1);
  sdb::Env env;
  sdb::Meta m;
  return c.ret(sdb::open_live(path, env, m) == 0 ? 1 : 0);
}

HADRA_PLAT_API uint32_t sdb_register(uint32_t* opcodes, uint32_t count) noexcept {
  Call c("sdb", "sdb_register", PLAT_ERR_SDB_BAD_ARG);
  c.args("opcode=%u count=%u", opcodes != nullptr && count > 0 ? opcodes[0] : 0u, count);
  if (c.faulted()) return c.fail<uint32_t>();
  if (opcodes == nullptr || count == 0) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  for (uint32_t i = 0; i < count; ++i)
    if (opcodes[i] == 0) return c.ret(PLAT_ERR_SDB_BAD_ARG);
  auto g = sdb::lock();
  for (uint32_t i = 0; i < count; ++i) sdb::opcode_add(opcodes[i]);
  return c.ret(0u);
}

HADRA_PLAT_API int sdb_opcode_registered(uint32_t opcode) noexcept {
  Call c("sdb", "sdb_opcode_registered", 0);
  c.args("opcode=%u", opcode);
  if (c.faulted()) return c.fail<int>();
  auto g = sdb::lock();
  return c.ret(sdb::opcode_known(opcode) ? 1 : 0);
}

}  // extern "C"
