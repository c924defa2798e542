// Switchover, on the client that becomes active.
//
//   1  switchover request     every HADRA_HA_STANDBY database becomes HADRA_HA_RECOVER
//   2a no switchover hook     the request is answered with success at once
//   2b switchover hook        the request's message reference is kept and the hook called;
//                             the client recovers its state and then calls
//                             hadra_ha_recovery_done, which answers and releases the request
//   3  active marker, done    passed to the client's hooks
//   4  client clears queue    hadra_ha_drop_active_msgs takes YOU_ARE_ALMOST_ACTIVE and
//                             YOU_ARE_ACTIVE off the client's queue
//
// The library never makes a database HADRA_HA_ACTIVE here: only the client knows when its
// recovered state is usable (hadra_ha_set_db_active).
//
// The kept request is the one piece of state: the 25-byte message reference and whether a
// deferred answer is still owed. The bytes stay after the answer; the flag does not, so a
// recovery with no request behind it is refused instead of answering a request that no
// longer exists (or never did) and dropping a message that is not the client's.
#include <cerrno>
#include <cstring>

#include "core/diag.h"
#include "core/registry.h"
#include "core/reset.h"
#include "hadra/handle.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/tsp.h"
#include "sysmgrcb/common.h"

namespace hadra::sysmgrcb {
namespace {

mts_msg_ref switchover_msg;       // the deferred request; zero until the first one
bool switchover_pending = false;  // an answer is owed through hadra_ha_recovery_done

void reset_switchover() noexcept {
  std::memset(&switchover_msg, 0, sizeof switchover_msg);
  switchover_pending = false;
}
HADRA_RESET_HOOK(reset_switchover);

void recover_standby_databases() noexcept {
  for (hadra_ha_pss_entry &e : registry_entries())
    if (entry_in_use(e) && e.state == HADRA_HA_STANDBY) e.state = HADRA_HA_RECOVER;
}

int switchover(void *ctx, int hot, int seq_mismatch) noexcept {
  HADRA_DBG("Received %s SUP switchover message\n", hot != 0 ? "hot" : "cold");
  if (seq_mismatch != 0) HADRA_DBG("Switchover sequence number mismatch");
  recover_standby_databases();
  int result = 0;
  if (hadra_ha_handle.switchover_cb != nullptr) {
    // Kept before the hook runs: a hook may finish its recovery, and answer, at once.
    if (ctx != nullptr)
      std::memcpy(&switchover_msg, ctx, sizeof switchover_msg);
    else
      std::memset(&switchover_msg, 0, sizeof switchover_msg);
    switchover_pending = true;
    hadra_ha_handle.switchover_cb();
    result = 1;
  } else {
    (void)sysmgr_switchover_done(ctx, 0);
  }
  HADRA_DBG("Switchover in progress");
  return result;
}

// ---- Clearing the client's queue ----

constexpr uint32_t kAlmostActive = MTS_OPC_YOU_ARE_ALMOST_ACTIVE;  // 1806
constexpr uint32_t kActive = MTS_OPC_YOU_ARE_ACTIVE;               // 1807
constexpr char kDropFn[] = "hadra_ha_drop_active_msgs";

// Blocking, with a bounded wait: the two messages are on their way when the client clears
// its queue, and a lost one must not hang the client.
mts_recv_opts drop_recv_options() noexcept {
  mts_recv_opts o;
  std::memset(&o, 0, sizeof o);
  o.flags = MTS_RECV_BLOCK;
  o.timeout_s = 5;
  return o;
}

void report_mts(const char *call, int err) noexcept {
  report(msg_error_HADRA_MTS, call, err, std::strerror(err), kDropFn);
}

enum class Take { kNext, kStop };

// One receive of the expected opcode. A failed receive lets the next step run; a message of
// another opcode ends the clearing and stays undropped (the caller learns of it from the
// report; the platform releases it with the endpoint).
Take take_expected(uint32_t sap, const mts_recv_opts &opts, uint32_t expected, const char *seen) noexcept {
  mts_msg_ref msg;
  std::memset(&msg, 0, sizeof msg);
  tsp_before_yield();
  const int rc = mts_recv(sap, &msg, &opts);
  const int err = errno;
  tsp_after_yield();
  if (rc < 0) {
    report_mts("tsp_mts_recv()", err);
    return Take::kNext;
  }
  const uint32_t opcode = mts_opc_get(&msg);
  if (opcode != expected) {
    report(msg_error_HADRA_MTS_UNK_OPC, "client", static_cast<int>(opcode));
    return Take::kStop;
  }
  HADRA_DBG("%s", seen);
  if (mts_drop(sap, &msg) == -1) report_mts("mts_drop()", errno);
  return Take::kNext;
}

void drop_active_msgs(uint32_t sap) noexcept {
  const mts_recv_opts opts = drop_recv_options();
  HADRA_DBG("Trying to drop ALMOST_ACTIVE and ACTIVE on client queue.\n");
  if (take_expected(sap, opts, kAlmostActive, "Received YOU_ARE_ALMOST_ACTIVE on client queue") == Take::kStop) return;
  (void)take_expected(sap, opts, kActive, "Received YOU_ARE_ACTIVE on client queue");
}

// ---- The deferred answer ----

int recovery_done(int32_t status) noexcept {
  HADRA_DBG("Service recovery done, %d", static_cast<int>(status));
  if (!switchover_pending) {
    report(msg_error_HADRA_API_FAILED, 0,
           "hadra_ha_recovery_done: no switchover is waiting for the service's recovery");
    errno = EINVAL;
    return -1;
  }
  switchover_pending = false;
  (void)sysmgr_switchover_done(&switchover_msg, status);
  return mts_drop(hadra_ha_handle.sap, &switchover_msg);
}

}  // namespace
}  // namespace hadra::sysmgrcb

extern "C" {

HADRA_API int sysmgrcb_switchover(void *ctx, int hot, void *reserved1, void *reserved2, int seq_mismatch) noexcept {
  (void)reserved1;
  (void)reserved2;
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_switchover")) {
    (void)sysmgr_switchover_done(ctx, 0);
    return 0;
  }
  return hadra::sysmgrcb::switchover(ctx, hot, seq_mismatch);
}

HADRA_API int sysmgrcb_switchover_active_marker(void) noexcept {
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_switchover_active_marker")) return 0;
  HADRA_DBG("Received switchover active marker message.\n");
  if (hadra_ha_handle.active_marker_cb != nullptr) hadra_ha_handle.active_marker_cb();
  return 0;
}

HADRA_API int sysmgrcb_switchover_done(void) noexcept {
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_switchover_done")) return 0;
  HADRA_DBG("Received switchover done message.\n");
  if (hadra_ha_handle.switchover_done_cb != nullptr) hadra_ha_handle.switchover_done_cb();
  return 0;
}

HADRA_API void hadra_ha_drop_active_msgs(uint32_t sap) noexcept { hadra::sysmgrcb::drop_active_msgs(sap); }

HADRA_API int hadra_ha_recovery_done(int32_t status) noexcept { return hadra::sysmgrcb::recovery_done(status); }

}  // extern "C"
