// The client's side of the system-manager procedures (see procedures.h): the exported calls,
// and the local link that serves them while no system-manager daemon does.
//
// Local link state is one small record under a mutex: the answers given since the last
// reset (the newest kAnswerKeep), the two restart facts (configuration keys
// SWOVER_FIRST_START and HANDSHAKE_DONE, read on first use, overridable by test setters),
// and the counter that numbers the request contexts tests make.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "mts/core.h"
#include "sysmgr/procedures.h"

namespace sm = hadra::plat::sysmgr;
using hadra::plat::Call;

namespace {

constexpr size_t kAnswerKeep = 256;

struct State {
  std::mutex mu;
  bool loaded = false;
  int swover_first_start = 0;
  int handshake_done = 0;
  uint32_t next_req_id = 1;
  std::deque<sm::Answer> answers;
};

State& state() {
  static auto* s = new State();
  return *s;
}

// Runs fn on the state under its lock, with the restart facts loaded.
template <class F>
auto with_state(F fn) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (!s.loaded) {
    s.loaded = true;
    s.swover_first_start = plat_config_get_long("SWOVER_FIRST_START", 0) != 0 ? 1 : 0;
    s.handshake_done = plat_config_get_long("HANDSHAKE_DONE", 0) != 0 ? 1 : 0;
  }
  return fn(s);
}

void reset() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.loaded = false;
  s.answers.clear();
  s.next_req_id = 1;
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

// ---- The local link ----

int local_answer(const sm::Answer& a) {
  with_state([&](State& s) {
    if (s.answers.size() == kAnswerKeep) s.answers.pop_front();
    s.answers.push_back(a);
    return 0;
  });
  return 0;
}

int local_swover_first_start() {
  return with_state([](State& s) { return s.swover_first_start; });
}

int local_handshake_done() {
  return with_state([](State& s) { return s.handshake_done; });
}

void put_be32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

// The query is a message even without a daemon: whoever holds SYSMGR_SAP (a test playing the
// system manager, later the daemon) receives it and answers with mts_reply.
int local_hs_query(uint32_t sap, uint32_t uuid, mts_msg_ref* out) {
  namespace mts = hadra::plat::mts;
  uint8_t payload[4];
  put_be32(payload, uuid);
  mts::Outgoing o;
  if (mts::resolve(sap, MTS_ADDR_LOCAL, SYSMGR_SAP, &o.route) != 0) return -1;
  o.src_sap = sap;
  o.opcode = SYSMGR_OPC_HS_QUERY;
  o.hdr = payload;
  o.hdr_len = sizeof payload;
  return mts::send(o, out);
}

constexpr sm::ProcLink kLocalLink = {&local_answer, &local_swover_first_start, &local_handshake_done, &local_hs_query};
std::atomic<const sm::ProcLink*> g_link{nullptr};  // null: as configured

// A gsync answer for the event of ctx.
int gsync_answer(Call& c, void* ctx, int failed, sm::AnswerKind kind) {
  if (ctx == nullptr) return c.ret(EINVAL);
  const auto* rc = static_cast<const sysmgr_req_ctx*>(ctx);
  sm::Answer a{kind, rc->req_id, failed != 0 ? 1 : 0, rc->msg};
  return c.ret(sm::proc_link().answer(a));
}

}  // namespace

namespace hadra::plat::sysmgr {

void set_proc_link(const ProcLink* link) noexcept { g_link.store(link); }

const ProcLink& proc_link() noexcept {
  if (const ProcLink* l = g_link.load(); l != nullptr) return *l;
  const ProcLink* d = daemon_proc_link();
  return d != nullptr ? *d : kLocalLink;
}

}  // namespace hadra::plat::sysmgr

extern "C" {

HADRA_PLAT_API int sysmgr_gsync_snapshot_done(void* ctx, int failed, int reserved) noexcept {
  Call c("sysmgr", "sysmgr_gsync_snapshot_done", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  c.args("req=%u failed=%d reserved=%d", ctx != nullptr ? static_cast<sysmgr_req_ctx*>(ctx)->req_id : 0u, failed,
         reserved);
  if (c.faulted()) return c.fail<int>();
  if (reserved != 0) return c.ret(EINVAL);
  return gsync_answer(c, ctx, failed, sm::AnswerKind::kGsyncSnapshotDone);
}

HADRA_PLAT_API int sysmgr_gsync_ready_done(void* ctx, int failed) noexcept {
  Call c("sysmgr", "sysmgr_gsync_ready_done", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  c.args("req=%u failed=%d", ctx != nullptr ? static_cast<sysmgr_req_ctx*>(ctx)->req_id : 0u, failed);
  if (c.faulted()) return c.fail<int>();
  return gsync_answer(c, ctx, failed, sm::AnswerKind::kGsyncReadyDone);
}

HADRA_PLAT_API uint32_t sysmgr_gsync_ready_is_success(void* ctx) noexcept {
  Call c("sysmgr", "sysmgr_gsync_ready_is_success", EINVAL);
  c.args("req=%u", ctx != nullptr ? static_cast<sysmgr_req_ctx*>(ctx)->req_id : 0u);
  if (c.faulted()) return c.fail<uint32_t>();
  if (ctx == nullptr) return c.ret(static_cast<uint32_t>(EINVAL));
  return c.ret(static_cast<const sysmgr_req_ctx*>(ctx)->status);
}

HADRA_PLAT_API int sysmgr_switchover_done(const void* request, int32_t status) noexcept {
  Call c("sysmgr", "sysmgr_switchover_done", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  mts_msg_ref ref{};
  if (request != nullptr) std::memcpy(&ref, request, sizeof ref);  // 25 bytes, any alignment
  c.args("kind=%u sap=%u gen=%llu status=%d", ref.kind, ref.sap, static_cast<unsigned long long>(ref.gen),
         static_cast<int>(status));
  if (c.faulted()) return c.fail<int>();
  if (request == nullptr) return c.ret(EINVAL);
  return c.ret(sm::proc_link().answer(sm::Answer{sm::AnswerKind::kSwitchoverDone, 0, status, ref}));
}

HADRA_PLAT_API int sysmgr_is_swover_first_start(void) noexcept {
  Call c("sysmgr", "sysmgr_is_swover_first_start", 0);
  if (c.faulted()) return c.fail<int>();
  return c.ret(sm::proc_link().is_swover_first_start());
}

HADRA_PLAT_API int sysmgr_conditional_srv_was_handshake_done(void) noexcept {
  Call c("sysmgr", "sysmgr_conditional_srv_was_handshake_done", 0);
  if (c.faulted()) return c.fail<int>();
  return c.ret(sm::proc_link().handshake_done());
}

HADRA_PLAT_API int sysmgrcmn_nbs_is_srv_hs_running(uint32_t sap, uint32_t uuid, mts_msg_ref* msg) noexcept {
  Call c("sysmgr", "sysmgrcmn_nbs_is_srv_hs_running", -1);
  c.args("sap=%u uuid=0x%x", sap, uuid);
  if (msg != nullptr) std::memset(msg, 0, sizeof *msg);
  if (c.faulted()) return c.fail<int>();
  if (sap == 0 || uuid == 0 || msg == nullptr) {
    errno = EINVAL;
    return c.ret(-1);
  }
  return c.ret(sm::proc_link().hs_query(sap, uuid, msg));
}

// ---- Testing interface ----

HADRA_PLAT_API void plat_test_sysmgr_ctx_init(sysmgr_req_ctx* ctx, uint32_t status) noexcept {
  if (ctx == nullptr) return;
  std::memset(ctx, 0, sizeof *ctx);
  ctx->status = status;
  ctx->req_id = with_state([](State& s) { return s.next_req_id++; });
}

HADRA_PLAT_API size_t plat_test_sysmgr_answer_count(void) noexcept {
  return with_state([](State& s) { return s.answers.size(); });
}

HADRA_PLAT_API int plat_test_sysmgr_answer_get(size_t i, plat_test_sysmgr_answer* out) noexcept {
  return with_state([&](State& s) {
    if (out == nullptr || i >= s.answers.size()) return -1;
    const sm::Answer& a = s.answers[i];
    out->kind = static_cast<int>(a.kind);
    out->req_id = a.req_id;
    out->value = a.value;
    out->msg = a.msg;
    return 0;
  });
}

HADRA_PLAT_API void plat_test_sysmgr_set_swover_first_start(int on) noexcept {
  with_state([&](State& s) { return s.swover_first_start = on != 0 ? 1 : 0; });
}

HADRA_PLAT_API void plat_test_sysmgr_set_handshake_done(int on) noexcept {
  with_state([&](State& s) { return s.handshake_done = on != 0 ? 1 : 0; });
}

}  // extern "C"
