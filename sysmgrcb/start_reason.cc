// Why this instance of the client started, its removal from the configuration, and its
// questions to the system manager about other services.
//
// Start reason. A marker PSS file, "<running config>/<prefix>hadra_cfg_<uuid>", lives as
// long as the service stays configured: created at its first start in a configuration and
// destroyed only when the client is deconfigured. So at a start:
//
//   marker present   the service ran before in this configuration: a crash (1) when the
//                    system manager had seen its handshake, else a controlled restart (2)
//   marker absent    a new start: configuration (3), or switchover (5) when this is the
//                    first start after one, on the active supervisor; standby (4) on the
//                    standby; the marker is created
//   anything else    unknown (0)
//
// The reason is decided once per process and cached, whatever that first call returned.
//
// Notifications. Each query sysmgr_notify sends is recorded (service uuid, request-response
// token) in the exported table sysmgr_server_notify, so that the response, which carries the
// same token, can be matched to the service asked about. The table holds 100 queries for the
// life of the process; a query that could not be recorded is not sent.
#include <cstdio>
#include <cstring>

#include "core/diag.h"
#include "core/reset.h"
#include "hadra/ident.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "ident/services.h"

extern "C" {
HADRA_API char hadra_cfg_uri[HADRA_CFG_URI_LEN];
HADRA_API sysmgr_server_notify_entry sysmgr_server_notify[HADRA_NOTIFY_ENTRIES];
}

namespace hadra::sysmgrcb {
namespace {

bool start_reason_known = false;
uint32_t start_reason = HADRA_START_UNKNOWN;
uint32_t notify_count = 0;

void reset_start_state() noexcept {
  start_reason_known = false;
  start_reason = HADRA_START_UNKNOWN;
  notify_count = 0;
  std::memset(hadra_cfg_uri, 0, sizeof hadra_cfg_uri);
  std::memset(sysmgr_server_notify, 0, sizeof sysmgr_server_notify);
}
HADRA_RESET_HOOK(reset_start_state);

// Fills hadra_cfg_uri; false when no URI can be formed for the marker.
bool form_marker_uri() noexcept {
  const char *running = sysmgr_running_cfg_uri_get();
  const char *prefix = sysmgr_file_prefix_get();
  const char *base = sysmgr_uri_complete(running, prefix, "hadra_cfg");
  if (base == nullptr) return false;
  char base_copy[HADRA_CFG_URI_LEN];
  std::snprintf(base_copy, sizeof base_copy, "%s", base);
  const uint32_t uuid = sysmgr_uuid_get_before_handshake();
  hadra_snprintf(hadra_cfg_uri, sizeof hadra_cfg_uri, "%s_%x", base_copy, uuid);
  return true;
}

// No marker yet: the reason of a new start, or unknown when the supervisor is neither.
uint32_t new_start_reason() noexcept {
  if (sysmgr_supstate_get() == HADRA_SUP_ACTIVE)
    return sysmgr_is_swover_first_start() != 0 ? HADRA_START_SWITCHOVER : HADRA_START_CONFIGURATION;
  if (sysmgr_supstate_get() == HADRA_SUP_STANDBY) return HADRA_START_STANDBY;
  return HADRA_START_UNKNOWN;
}

// Creates the marker and opens it again to be sure it is usable. Failures go to standard
// output: the start reason is asked for so early that no log may be set up yet.
bool create_marker() noexcept {
  uint32_t err = 0;
  const uint32_t created = ::pss_create(hadra_cfg_uri, &err);
  if (err != 0) {
    std::printf("PSS create error = %s\n", hadra_syserr2str(err, 0));
    return false;
  }
  const uint32_t reopened = ::pss_open(hadra_cfg_uri, &err);
  const bool ok = err == 0;
  if (!ok)
    std::printf("PSS open error = %s\n", hadra_syserr2str(err, 0));
  else
    (void)::pss_close(reopened);
  // The creation's own handle is temporary too; closed last so the reopening is a real test.
  (void)::pss_close(created);
  return ok;
}

uint32_t decide_start_reason() noexcept {
  if (!form_marker_uri()) return HADRA_START_UNKNOWN;
  uint32_t err = 0;
  const uint32_t marker = ::pss_open(hadra_cfg_uri, &err);
  if (err == 0) {
    start_reason = sysmgr_conditional_srv_was_handshake_done() != 0 ? HADRA_START_CRASH : HADRA_START_CONTROLLED;
    (void)::pss_close(marker);
    return start_reason;
  }
  if (err != PLAT_ERR_PSS_NOT_FOUND) return HADRA_START_UNKNOWN;
  start_reason = new_start_reason();
  if (start_reason == HADRA_START_UNKNOWN) return HADRA_START_UNKNOWN;
  // A marker that cannot be made fails only this call: the reason itself is known and stays.
  return create_marker() ? start_reason : uint32_t{HADRA_START_UNKNOWN};
}

uint32_t get_start_reason() noexcept {
  if (start_reason_known) return start_reason;
  start_reason = HADRA_START_UNKNOWN;
  start_reason_known = true;
  return decide_start_reason();
}

// ---- Notifications ----

int notify(uint32_t sap, const char *name) noexcept {
  if (name == nullptr) return 0;
  const uint32_t uuid = ident::uuid_from_name(name);
  if (uuid == 0) return 0;
  if (notify_count >= HADRA_NOTIFY_ENTRIES) {
    HADRA_DBG("sysmgr_notify: table of %d queries full, %s not asked about\n", HADRA_NOTIFY_ENTRIES, name);
    return 0;
  }
  mts_msg_ref msg;
  std::memset(&msg, 0, sizeof msg);
  if (sysmgrcmn_nbs_is_srv_hs_running(sap, uuid, &msg) != 0) return 0;
  sysmgr_server_notify[notify_count] = {uuid, mts_rr_token_get(&msg)};
  ++notify_count;
  (void)mts_drop(sap, &msg);
  return 1;
}

uint32_t response_uuid(const void *msg) noexcept {
  const uint32_t token = mts_rr_token_get(static_cast<const mts_msg_ref *>(msg));
  if (token == 0) return 0;  // no message: no query was ever sent with token 0
  for (const sysmgr_server_notify_entry &e : sysmgr_server_notify) {
    if (e.uuid == 0) return 0;
    if (e.rr_token == token) return e.uuid;
  }
  return 0;
}

}  // namespace
}  // namespace hadra::sysmgrcb

extern "C" {

HADRA_API uint32_t hadra_get_start_reason(void) noexcept { return hadra::sysmgrcb::get_start_reason(); }

// Relies on hadra_get_start_reason() having named the marker earlier in the process.
HADRA_API uint32_t hadra_deconfiguration_complete(void) noexcept { return ::pss_destroy(hadra_cfg_uri); }

HADRA_API int sysmgr_notify(uint32_t sap, const char *name) noexcept { return hadra::sysmgrcb::notify(sap, name); }

HADRA_API uint32_t sysmgr_notify_response_uuid_get(const void *msg) noexcept {
  return hadra::sysmgrcb::response_uuid(msg);
}

}  // extern "C"
