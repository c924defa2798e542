// The exported MTS calls: trace, fault injection, argument checks, then the core.
#include <cerrno>
#include <cstdio>
#include <type_traits>

#include "common/call.h"
#include "hadra_platform/log.h"
#include "hadra_platform/mts.h"
#include "mts/core.h"

namespace mts = hadra::plat::mts;
using hadra::plat::Call;

namespace {

// The call named call: reads one field of a held message; failure (bad reference) gives
// dflt with errno EINVAL, and dflt is also what an injected fault returns.
template <class R, class F>
R read_field(const char* call, const mts_msg_ref* ref, R dflt, F field) {
  long long natural = 0;
  if constexpr (!std::is_pointer_v<R>) natural = static_cast<long long>(dflt);
  Call c("mts", call, natural);
  if (ref != nullptr) c.args("sap=%u slot=%u gen=%llu", ref->sap, ref->slot, static_cast<unsigned long long>(ref->gen));
  if (c.faulted()) return c.fail<R>();
  mts::MsgInfo mi;
  if (!mts::info(ref, &mi)) return c.ret(dflt);
  return c.ret(field(mi));
}

// Trace arguments of a send (only formatted while the trace is on).
void trace_send(Call& c, uint32_t src, uint32_t addr, uint32_t dsap, uint32_t opcode, uint32_t hdr_len,
                uint32_t flags, const mts_xbuf_desc* desc) {
  if (!c.tracing()) return;
  c.args("src=%u addr=0x%x dsap=%u opc=%u hdr_len=%u flags=%u pieces=%d", src, addr, dsap, opcode, hdr_len, flags,
         desc != nullptr ? static_cast<int>(desc->count) : -1);
}

}  // namespace

extern "C" {

HADRA_PLAT_API int mts_bind(uint32_t sap) noexcept {
  Call c("mts", "mts_bind", -1);
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<int>();
  return c.ret(mts::bind(sap));
}

HADRA_PLAT_API int mts_unbind(uint32_t sap) noexcept {
  Call c("mts", "mts_unbind", -1);
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<int>();
  return c.ret(mts::unbind(sap));
}

HADRA_PLAT_API int mts_send(uint32_t src_sap, uint32_t dest_addr, uint32_t dest_sap, uint32_t opcode, const void* hdr,
                            uint32_t hdr_len, mts_msg_ref* out_ref, uint32_t flags,
                            const mts_xbuf_desc* desc) noexcept {
  Call c("mts", "mts_send", -1);
  trace_send(c, src_sap, dest_addr, dest_sap, opcode, hdr_len, flags, desc);
  if (c.faulted()) {
    if (out_ref != nullptr) *out_ref = mts_msg_ref{};
    return c.fail<int>();
  }
  mts::Outgoing o{src_sap, mts::Route{}, opcode, hdr, hdr_len, desc, flags, 0};
  if (mts::resolve(src_sap, dest_addr, dest_sap, &o.route) != 0) {
    if (out_ref != nullptr) *out_ref = mts_msg_ref{};
    return c.ret(-1);
  }
  return c.ret(mts::send(o, out_ref));
}

HADRA_PLAT_API int mts_reply(uint32_t sap, const mts_msg_ref* request, uint32_t opcode, const void* hdr,
                             uint32_t hdr_len, mts_msg_ref* out_ref, uint32_t flags,
                             const mts_xbuf_desc* desc) noexcept {
  Call c("mts", "mts_reply", -1);
  c.args("sap=%u opc=%u hdr_len=%u", sap, opcode, hdr_len);
  if (out_ref != nullptr) *out_ref = mts_msg_ref{};
  if (c.faulted()) return c.fail<int>();
  mts::MsgInfo mi;
  if (request == nullptr || request->sap != sap || request->kind != MTS_REF_RECEIVED || !mts::info(request, &mi)) {
    errno = EINVAL;
    return c.ret(-1);
  }
  // Back to where the request came from, under the request's token.
  mts::Outgoing o{sap, mts::Route{mi.from_peer, mi.h.src_sap}, opcode, hdr, hdr_len, desc, flags, mi.h.rr_token};
  return c.ret(mts::send(o, out_ref));
}

HADRA_PLAT_API int mts_recv(uint32_t sap, mts_msg_ref* ref, const mts_recv_opts* opts) noexcept {
  Call c("mts", "mts_recv", -1);
  c.args("sap=%u block=%u", sap, opts != nullptr ? opts->flags & MTS_RECV_BLOCK : 0u);
  if (c.faulted()) {
    if (ref != nullptr) *ref = mts_msg_ref{};
    return c.fail<int>();
  }
  return c.ret(mts::recv(sap, ref, opts));
}

HADRA_PLAT_API void mts_flush(uint32_t timeout_ms) noexcept {
  Call c("mts", "mts_flush", 0);
  c.args("timeout_ms=%u", timeout_ms);
  mts::flush(static_cast<int>(timeout_ms > 60000 ? 60000 : timeout_ms));
  c.ret_void();
}

HADRA_PLAT_API int mts_fd_get(uint32_t sap) noexcept {
  Call c("mts", "mts_fd_get", -1);
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<int>();
  return c.ret(mts::ready_fd(sap));
}

HADRA_PLAT_API int mts_drop(uint32_t sap, const mts_msg_ref* ref) noexcept {
  Call c("mts", "mts_drop", -1);
  if (ref != nullptr)
    c.args("sap=%u slot=%u gen=%llu", sap, ref->slot, static_cast<unsigned long long>(ref->gen));
  if (c.faulted()) return c.fail<int>();
  return c.ret(mts::drop(sap, ref));
}

HADRA_PLAT_API uint32_t mts_opc_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_opc_get", ref, 0u, [](const mts::MsgInfo& m) { return m.h.opcode; });
}

HADRA_PLAT_API int mts_sync_event_get(const mts_msg_ref* ref) noexcept {
  return read_field<int>("mts_sync_event_get", ref, -1,
                         [](const mts::MsgInfo& m) { return static_cast<int>(m.h.sync_event); });
}

HADRA_PLAT_API void* mts_payload_get(const mts_msg_ref* ref) noexcept {
  return read_field<void*>("mts_payload_get", ref, nullptr, [](const mts::MsgInfo& m) { return m.payload; });
}

HADRA_PLAT_API uint32_t mts_payload_size(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_payload_size", ref, 0u, [](const mts::MsgInfo& m) { return m.h.payload_len; });
}

HADRA_PLAT_API uint64_t mts_ha_seqno_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint64_t>("mts_ha_seqno_get", ref, 0u, [](const mts::MsgInfo& m) { return m.h.ha_seqno; });
}

HADRA_PLAT_API uint32_t mts_msg_id_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_msg_id_get", ref, 0u, [](const mts::MsgInfo& m) { return m.h.msg_id; });
}

HADRA_PLAT_API uint32_t mts_rr_token_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_rr_token_get", ref, 0u, [](const mts::MsgInfo& m) { return m.h.rr_token; });
}

HADRA_PLAT_API uint32_t mts_src_sap_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_src_sap_get", ref, 0u, [](const mts::MsgInfo& m) { return m.h.src_sap; });
}

HADRA_PLAT_API uint32_t mts_msg_flags_get(const mts_msg_ref* ref) noexcept {
  return read_field<uint32_t>("mts_msg_flags_get", ref, 0u,
                              [](const mts::MsgInfo& m) { return static_cast<uint32_t>(m.h.flags); });
}

HADRA_PLAT_API const char* mts_opc_name_get(uint32_t opcode) noexcept {
  // Never fails, so it is traced but not offered to fault injection.
  Call c("mts", "mts_opc_name_get", 0);
  c.args("opc=%u", opcode);
  if (opcode == MTS_OPC_YOU_ARE_ALMOST_ACTIVE) return c.ret("YOU_ARE_ALMOST_ACTIVE");
  if (opcode == MTS_OPC_YOU_ARE_ACTIVE) return c.ret("YOU_ARE_ACTIVE");
  static thread_local char name[24];
  std::snprintf(name, sizeof name, "opc_%u", opcode);
  return c.ret(static_cast<const char*>(name));
}

HADRA_PLAT_API mts_sap_id mts_sap_get(uint32_t sap) noexcept {
  Call c("mts", "mts_sap_get", 0);
  c.args("sap=%u", sap);
  if (c.faulted()) return c.fail<mts_sap_id>();
  if (sap == 0) errno = EINVAL;
  return c.ret(static_cast<mts_sap_id>(sap));
}

}  // extern "C"

namespace {

int record_done(Call& c, uint32_t sap, uint32_t count, const mts_sap_id* ids, bool snapshot) {
  c.args("sap=%u count=%u id=%u", sap, count, ids != nullptr && count != 0 ? ids[0] : 0u);
  if (c.faulted()) return c.fail<int>();
  bool ok = count != 0 && ids != nullptr;
  for (uint32_t i = 0; ok && i < count; ++i) ok = ids[i] != 0;
  if (!ok) {
    errno = EINVAL;
    return c.ret(-1);
  }
  for (uint32_t i = 0; i < count; ++i) {
    mts::record_done(ids[i], snapshot);
    plat_syslog(PLAT_LOG_INFO, "MTS: SAP %u: %s done", ids[i], snapshot ? "gsync snapshot" : "gsync");
  }
  return c.ret(0);
}

}  // namespace

extern "C" {

HADRA_PLAT_API int mts_pss_snapshot_done(uint32_t sap, uint32_t count, const mts_sap_id* ids) noexcept {
  Call c("mts", "mts_pss_snapshot_done", -1);
  return record_done(c, sap, count, ids, true);
}

HADRA_PLAT_API int mts_gsync_done(uint32_t sap, uint32_t count, const mts_sap_id* ids) noexcept {
  Call c("mts", "mts_gsync_done", -1);
  return record_done(c, sap, count, ids, false);
}

}  // extern "C"
