// The exported PSS calls: trace and fault injection, argument checks, the service lock, and
// the handle lookup; the work is done by the store's internal functions.
#include <mutex>

#include "common/call.h"
#include "hadra_platform/pss.h"
#include "pss/store.h"

namespace {

namespace pss = hadra::plat::pss;
using hadra::plat::Call;
using Guard = std::lock_guard<std::mutex>;

const char* str(const char* s) { return s != nullptr ? s : "(null)"; }
uint32_t len(const datum* d) { return d != nullptr ? d->dsize : 0; }

// Failure of a call that returns a status: the injected value, also stored in *out.
uint32_t fail_status(Call& c, uint32_t* out) {
  auto v = c.fail<uint32_t>();
  if (out != nullptr) *out = v;
  return v;
}

// Failure of a call that returns a handle, a type or a datum and reports through *out.
template <class R>
R fail_out(Call& c, uint32_t* out) {
  if (out != nullptr) *out = PLAT_ERR_PSS_IO;
  return c.fail<R>();
}

// Runs fn(handle) under the service lock, or gives PLAT_ERR_PSS_BAD_HANDLE.
template <class Fn>
uint32_t with_handle(uint32_t id, Fn fn) {
  Guard g(pss::lock());
  pss::Handle* h = pss::find_handle(id);
  return h != nullptr ? fn(*h) : PLAT_ERR_PSS_BAD_HANDLE;
}

// The datum-returning reads: fn(handle, status) under the lock; the status joins the trace.
template <class Fn>
datum* read_call(Call& c, uint32_t id, uint32_t* status, Fn fn) {
  if (status == nullptr) return c.ret<datum*>(nullptr);
  datum* d = nullptr;
  *status = with_handle(id, [&](pss::Handle& h) {
    uint32_t st = 0;
    d = fn(h, &st);
    return st;
  });
  if (c.tracing()) c.args("h=%u status=%#x", id, *status);
  return c.ret(d);
}

uint32_t open_call(Call& c, const char* uri, uint32_t flags, const pss2_params* params, bool exclusive,
                   uint32_t* error) {
  uint32_t h = 0;
  uint32_t err;
  {
    Guard g(pss::lock());
    err = pss::open_handle(uri, flags, params, exclusive, &h);
  }
  if (error != nullptr) *error = err;
  if (c.tracing()) c.args("uri=%s flags=%u err=%#x", str(uri), flags, err);
  return c.ret(h);
}

}  // namespace

extern "C" {

HADRA_PLAT_API uint32_t pss2_open(const char* uri, uint32_t flags, uint32_t uuid, uint32_t reserved,
                                  const pss2_params* params, uint32_t* error) noexcept {
  Call c("pss", "pss2_open", 0);
  c.args("uri=%s flags=%u uuid=%u", str(uri), flags, uuid);
  if (c.faulted()) return fail_out<uint32_t>(c, error);
  if (error == nullptr) return c.ret<uint32_t>(0);
  if (reserved != 0) {
    *error = PLAT_ERR_PSS_BAD_ARG;
    return c.ret<uint32_t>(0);
  }
  return open_call(c, uri, flags, params, false, error);
}

HADRA_PLAT_API uint32_t pss2_close(uint32_t handle) noexcept {
  Call c("pss", "pss2_close", PLAT_ERR_PSS_BAD_HANDLE);
  c.args("h=%u", handle);
  if (c.faulted()) return c.fail<uint32_t>();
  Guard g(pss::lock());
  return c.ret(pss::close_handle(handle));
}

HADRA_PLAT_API uint32_t pss2_destroy(const char* uri) noexcept {
  Call c("pss", "pss2_destroy", PLAT_ERR_PSS_IO);
  c.args("uri=%s", str(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  Guard g(pss::lock());
  return c.ret(pss::destroy_file(uri));
}

HADRA_PLAT_API uint32_t pss2_get_psstype(const char* uri, uint32_t* other, uint32_t* rc) noexcept {
  Call c("pss", "pss2_get_psstype", 0);
  c.args("uri=%s", str(uri));
  if (c.faulted()) return fail_out<uint32_t>(c, rc);
  uint32_t type = 0, version = 0, err;
  {
    Guard g(pss::lock());
    err = pss::file_type(uri, &type, &version);
  }
  if (other != nullptr) *other = version;
  if (rc != nullptr) *rc = err;
  if (c.tracing()) c.args("uri=%s rc=%#x", str(uri), err);
  return c.ret(type);
}

HADRA_PLAT_API uint32_t pss2_set_max_dbsize(uint32_t handle, uint64_t size) noexcept {
  Call c("pss", "pss2_set_max_dbsize", PLAT_ERR_PSS_IO);
  c.args("h=%u size=%llu", handle, static_cast<unsigned long long>(size));
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(with_handle(handle, [&](pss::Handle& h) { return pss::set_limit(h, size); }));
}

HADRA_PLAT_API uint32_t pss2_get_params(uint32_t handle, pss2_params* params) noexcept {
  Call c("pss", "pss2_get_params", PLAT_ERR_PSS_IO);
  c.args("h=%u", handle);
  if (c.faulted()) return c.fail<uint32_t>();
  if (params == nullptr) return c.ret(PLAT_ERR_PSS_BAD_ARG);
  return c.ret(with_handle(handle, [&](pss::Handle& h) {
    *params = h.env->params;
    uint64_t mib = (h.env->limit + (1u << 20) - 1) >> 20;
    params->max_dbsize_mib = mib > 0xffffffffu ? 0xffffffffu : static_cast<uint32_t>(mib);
    return 0u;
  }));
}

HADRA_PLAT_API uint32_t pss2_snapshot(uint32_t source_handle, uint32_t dest_handle) noexcept {
  Call c("pss", "pss2_snapshot", PLAT_ERR_PSS_IO);
  c.args("src=%u dst=%u", source_handle, dest_handle);
  if (c.faulted()) return c.fail<uint32_t>();
  Guard g(pss::lock());
  pss::Handle* src = pss::find_handle(source_handle);
  pss::Handle* dst = pss::find_handle(dest_handle);
  if (src == nullptr || dst == nullptr) return c.ret(PLAT_ERR_PSS_BAD_HANDLE);
  return c.ret(pss::snapshot(*src, *dst));
}

HADRA_PLAT_API uint32_t pss2_store(uint32_t handle, const datum* key, const datum* value) noexcept {
  Call c("pss", "pss2_store", PLAT_ERR_PSS_IO);
  c.args("h=%u klen=%u vlen=%u", handle, len(key), len(value));
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(with_handle(handle, [&](pss::Handle& h) { return pss::store(h, key, value); }));
}

HADRA_PLAT_API uint32_t pss2_delete(uint32_t handle, const datum* key, uint32_t mode) noexcept {
  Call c("pss", "pss2_delete", PLAT_ERR_PSS_IO);
  c.args("h=%u klen=%u mode=%u", handle, len(key), mode);
  if (c.faulted()) return c.fail<uint32_t>();
  if (mode != PSS2_DELETE_KEY) return c.ret(PLAT_ERR_PSS_BAD_ARG);
  return c.ret(with_handle(handle, [&](pss::Handle& h) { return pss::remove(h, key); }));
}

HADRA_PLAT_API uint32_t pss2_delete_prefixed_keys(uint32_t handle, const datum* prefix, uint32_t flags,
                                                  uint32_t* count) noexcept {
  Call c("pss", "pss2_delete_prefixed_keys", PLAT_ERR_PSS_IO);
  c.args("h=%u plen=%u flags=%u", handle, len(prefix), flags);
  if (count != nullptr) *count = 0;
  if (c.faulted()) return c.fail<uint32_t>();
  if (flags != 0) return c.ret(PLAT_ERR_PSS_BAD_ARG);
  uint32_t n = 0;
  uint32_t rc = with_handle(handle, [&](pss::Handle& h) { return pss::remove_prefixed(h, prefix, &n); });
  if (count != nullptr) *count = n;
  if (c.tracing()) c.args("h=%u plen=%u flags=%u count=%u", handle, len(prefix), flags, n);
  return c.ret(rc);
}

HADRA_PLAT_API uint32_t pss2_purge(uint32_t handle, uint32_t* count) noexcept {
  Call c("pss", "pss2_purge", PLAT_ERR_PSS_IO);
  c.args("h=%u", handle);
  if (count != nullptr) *count = 0;
  if (c.faulted()) return c.fail<uint32_t>();
  uint32_t n = 0;
  uint32_t rc = with_handle(handle, [&](pss::Handle& h) { return pss::purge(h, &n); });
  if (count != nullptr) *count = n;
  if (c.tracing()) c.args("h=%u count=%u", handle, n);
  return c.ret(rc);
}

HADRA_PLAT_API datum* pss2_fetch(uint32_t handle, const datum* key, uint32_t* status) noexcept {
  Call c("pss", "pss2_fetch");
  c.args("h=%u klen=%u", handle, len(key));
  if (c.faulted()) return fail_out<datum*>(c, status);
  return read_call(c, handle, status, [&](pss::Handle& h, uint32_t* st) { return pss::fetch(h, key, st); });
}

HADRA_PLAT_API uint32_t pss2_move2key(uint32_t* handle, uint32_t mode, const datum* key,
                                      uint32_t* status) noexcept {
  Call c("pss", "pss2_move2key", PLAT_ERR_PSS_IO);
  c.args("h=%u mode=%u klen=%u", handle != nullptr ? *handle : 0, mode, len(key));
  if (c.faulted()) return fail_status(c, status);
  uint32_t rc = PLAT_ERR_PSS_BAD_ARG;
  if (handle != nullptr && mode == PSS2_MOVE_MODE)
    rc = with_handle(*handle, [&](pss::Handle& h) { return pss::move_to_key(h, key); });
  if (status != nullptr) *status = rc;
  return c.ret(rc);
}

HADRA_PLAT_API uint32_t pss2_move2location(uint32_t* handle, uint32_t mode, uint32_t location,
                                           uint32_t* status) noexcept {
  Call c("pss", "pss2_move2location", PLAT_ERR_PSS_IO);
  c.args("h=%u mode=%u loc=%u", handle != nullptr ? *handle : 0, mode, location);
  if (c.faulted()) return fail_status(c, status);
  uint32_t rc = PLAT_ERR_PSS_BAD_ARG;
  if (handle != nullptr && mode == PSS2_MOVE_MODE)
    rc = with_handle(*handle, [&](pss::Handle& h) { return pss::move_to(h, location); });
  if (status != nullptr) *status = rc;
  return c.ret(rc);
}

HADRA_PLAT_API datum* pss2_getkey(uint32_t handle, uint32_t* status) noexcept {
  Call c("pss", "pss2_getkey");
  c.args("h=%u", handle);
  if (c.faulted()) return fail_out<datum*>(c, status);
  return read_call(c, handle, status, [](pss::Handle& h, uint32_t* st) { return pss::get_key(h, st); });
}

HADRA_PLAT_API datum* pss2_getvalue(uint32_t handle, uint32_t* status) noexcept {
  Call c("pss", "pss2_getvalue");
  c.args("h=%u", handle);
  if (c.faulted()) return fail_out<datum*>(c, status);
  return read_call(c, handle, status, [](pss::Handle& h, uint32_t* st) { return pss::get_value(h, st); });
}

HADRA_PLAT_API uint32_t pss2_mget_begin(uint32_t handle, uint32_t* records) noexcept {
  Call c("pss", "pss2_mget_begin", PLAT_ERR_PSS_IO);
  c.args("h=%u", handle);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(with_handle(handle, [&](pss::Handle& h) { return pss::mget_begin(h, records); }));
}

HADRA_PLAT_API uint32_t pss2_mget_done(uint32_t handle) noexcept {
  Call c("pss", "pss2_mget_done", PLAT_ERR_PSS_IO);
  c.args("h=%u", handle);
  if (c.faulted()) return c.fail<uint32_t>();
  return c.ret(with_handle(handle, [](pss::Handle& h) { return pss::mget_done(h); }));
}

HADRA_PLAT_API uint32_t pss_open(const char* uri, uint32_t* err) noexcept {
  Call c("pss", "pss_open", 0);
  c.args("uri=%s", str(uri));
  if (c.faulted()) return fail_out<uint32_t>(c, err);
  return open_call(c, uri, PSS2_OPEN_FLAGS_OPEN, nullptr, false, err);
}

HADRA_PLAT_API uint32_t pss_create(const char* uri, uint32_t* err) noexcept {
  Call c("pss", "pss_create", 0);
  c.args("uri=%s", str(uri));
  if (c.faulted()) return fail_out<uint32_t>(c, err);
  return open_call(c, uri, PSS2_OPEN_FLAGS_CREATE, nullptr, true, err);
}

HADRA_PLAT_API uint32_t pss_close(uint32_t handle) noexcept {
  Call c("pss", "pss_close", PLAT_ERR_PSS_BAD_HANDLE);
  c.args("h=%u", handle);
  if (c.faulted()) return c.fail<uint32_t>();
  Guard g(pss::lock());
  return c.ret(pss::close_handle(handle));
}

HADRA_PLAT_API uint32_t pss_destroy(const char* uri) noexcept {
  Call c("pss", "pss_destroy", PLAT_ERR_PSS_IO);
  c.args("uri=%s", str(uri));
  if (c.faulted()) return c.fail<uint32_t>();
  Guard g(pss::lock());
  return c.ret(pss::destroy_file(uri));
}

}  // extern "C"
