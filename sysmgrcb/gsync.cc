// Global sync (gsync): the bulk copy of every database of the client from its instance on the
// active supervisor to its instance on a standby that has just started.
//
//   standby init         destroys its copies of the synced databases (HADRA_HA_DISABLE) and
//                        asks the system manager for a gsync
//   active: snapshot     sysmgrcb_gsync_snapshot writes every database into a snapshot area
//                        the system manager names; MTS and the system manager are told
//   (area shipped)       the system manager brings the area's files to the standby
//   standby: ready       sysmgrcb_gsync_ready rebuilds every database from the area, each
//                        becoming HADRA_HA_STANDBY; MTS and the system manager are told
//   standby: failed      sysmgrcb_gsync_failed instead: end the process, start empty, or
//                        only report, as the reason says
//
// Both walks visit entries 1 to 10 in order and stop at the first database that cannot be
// handled: a standby is either a whole copy or none, and the system manager hears of the
// failure. What the walk does with each entry is a table row per kind of database.
//
// A PSS file travels as a PSS copy named <area>/<file prefix><registered name>, which both
// sides form alike (pss/snapshot.h); an SDB travels in the SDB library's own snapshot format
// (sdb/snapshot.h). Each store carries out its part; this file walks and answers.
//
// The client's hook may take over the answer to the system manager through the reply flag:
// the library sets it to 1, and a snapshot hook that leaves anything else, or a ready hook
// that leaves 0, answers later itself.
#include <cerrno>
#include <cstdlib>

#include "core/diag.h"
#include "core/registry.h"
#include "hadra/handle.h"
#include "hadra/lifecycle.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "pss/snapshot.h"
#include "sdb/snapshot.h"
#include "sysmgrcb/common.h"

namespace hadra::sysmgrcb {
namespace {

// What a walk does with each kind of entry; each action gives 1 or 0.
using EntryAction = int (*)(hadra_ha_pss_entry &entry, const char *base_uri) noexcept;
struct WalkActions {
  EntryAction pss;  // a synced PSS file (an unsynced one counts as done)
  EntryAction sdb;  // an SDB or MSDB, synced or not (the SDB step decides)
};

// The result of a walk, and the errno value of its failing step.
struct WalkResult {
  int result = 1;
  int error = 0;
};

WalkResult walk(const WalkActions &actions, const char *base_uri) noexcept {
  WalkResult w;
  errno = 0;  // so that a failure tells its own errno, not one left from before the event
  for (hadra_ha_pss_entry &e : registry_entries()) {
    if (!entry_in_use(e)) continue;
    if (e.db_type == HADRA_DB_SDB)
      w.result = actions.sdb(e, base_uri);
    else if (e.db_type == HADRA_DB_PSS)
      w.result = e.no_sync != 0 ? 1 : actions.pss(e, base_uri);
    else
      continue;
    if (w.result == 0) {
      // A failed step that left errno untouched must still not read as success (0).
      w.error = errno != 0 ? errno : EIO;
      break;
    }
  }
  return w;
}

// ---- Active side ----

int snapshot_pss(hadra_ha_pss_entry &e, const char *base_uri) noexcept { return pss::snapshot_to_area(e, base_uri); }

int snapshot_sdb(hadra_ha_pss_entry &e, const char *base_uri) noexcept {
  return sdb::create_sync_snapshot(base_uri, &e);
}

constexpr WalkActions kSnapshotActions = {&snapshot_pss, &snapshot_sdb};

// ---- Standby side ----

int restore_pss(hadra_ha_pss_entry &e, const char *base_uri) noexcept { return pss::restore_from_area(e, base_uri); }

int restore_sdb(hadra_ha_pss_entry &e, const char *base_uri) noexcept {
  return sdb::restore_sync_snapshot(base_uri, &e);
}

constexpr WalkActions kRestoreActions = {&restore_pss, &restore_sdb};

// Tells MTS that the snapshot (active) or the gsync (standby) of the client's SAP is done.
void tell_mts_done(bool snapshot) noexcept {
  const uint32_t sap = hadra_ha_handle.sap;
  if (sap == 0) return;
  const mts_sap_id id = mts_sap_get(sap);
  if (snapshot)
    (void)mts_pss_snapshot_done(sap, 1, &id);
  else
    (void)mts_gsync_done(sap, 1, &id);
}

// The client's gsync hook with a reply flag preset to 1; gives the flag's final value.
int32_t call_gsync_hook(hadra_ha_gsync_hook_fn hook, void *ctx, const char *base_uri, void *arg) noexcept {
  int32_t reply = 1;
  if (hook != nullptr) (void)hook(ctx, base_uri, arg, &reply);
  return reply;
}

int gsync_snapshot(void *ctx, const char *base_uri, void *arg) noexcept {
  HADRA_DBG("Received gsync snapshot request from standby SUP");
  const WalkResult w = walk(kSnapshotActions, base_uri);
  if (w.result == 1) tell_mts_done(true);
  const int32_t reply = call_gsync_hook(hadra_ha_handle.gsync_snapshot_cb, ctx, base_uri, arg);
  if (reply == 1) (void)sysmgr_gsync_snapshot_done(ctx, w.result == 0 ? 1 : 0, 0);
  HADRA_DBG("gsync snapshot %s", w.result == 1 ? "successful" : "failed");
  return w.result == 1 ? 0 : w.error;
}

int gsync_ready(void *ctx, const char *base_uri, void *arg) noexcept {
  HADRA_DBG("Received gsync ready message from active SUP");
  const WalkResult w = walk(kRestoreActions, base_uri);
  if (w.result == 1) tell_mts_done(false);
  const int32_t reply = call_gsync_hook(hadra_ha_handle.gsync_ready_cb, ctx, base_uri, arg);
  HADRA_DBG("gsync ready %s", w.result == 1 ? "successful" : "failed");
  if (reply == 0) return 1;
  (void)sysmgr_gsync_ready_done(ctx, w.result == 0 ? 1 : 0);
  return w.result == 1 ? 0 : w.error;
}

// ---- Gsync failed: the active supervisor does not run this service ----

// Nothing will come from the active supervisor, so the standby starts with empty databases
// that the sync messages fill from now on. No failure stops the walk: each database that can
// be started is better than none.
void start_all_empty() noexcept {
  for (hadra_ha_pss_entry &e : registry_entries()) {
    if (!entry_in_use(e)) continue;
    if (e.db_type == HADRA_DB_PSS)
      pss::start_empty_standby(e);
    else if (e.db_type == HADRA_DB_SDB)
      sdb::start_empty_standby(e);
  }
}

int gsync_failed(void *ctx) noexcept {
  HADRA_DBG("Received gsync failed message from active SUP");
  const uint32_t code = sysmgr_gsync_ready_is_success(ctx);
  if (code == PLAT_ERR_SYSMGR_GSYNC_FATAL) {
    // The standby cannot become a copy of the active: the system manager restarts the
    // service, which starts the whole procedure afresh.
    HADRA_DBG("Got fatal gsync error");
    std::exit(1);
  }
  if (code == PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE) {
    HADRA_DBG("Service not running on active supervisor");
    start_all_empty();
    if (hadra_ha_handle.gsync_failed_cb != nullptr) hadra_ha_handle.gsync_failed_cb();
  }
  (void)sysmgr_gsync_ready_done(ctx, 0);
  HADRA_DBG("gsync failed, error: %s", hadra_syserr2str(code, 0));
  return 0;
}

}  // namespace
}  // namespace hadra::sysmgrcb

extern "C" {

HADRA_API int sysmgrcb_gsync_snapshot(void *ctx, const char *base_uri, void *arg) noexcept {
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_gsync_snapshot")) {
    (void)sysmgr_gsync_snapshot_done(ctx, 0, 0);
    return 0;
  }
  return hadra::sysmgrcb::gsync_snapshot(ctx, base_uri, arg);
}

HADRA_API int sysmgrcb_gsync_ready(void *ctx, const char *base_uri, void *arg) noexcept {
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_gsync_ready")) {
    (void)sysmgr_gsync_ready_done(ctx, 0);
    return 0;
  }
  return hadra::sysmgrcb::gsync_ready(ctx, base_uri, arg);
}

HADRA_API int sysmgrcb_gsync_failed(void *ctx) noexcept {
  if (!hadra::sysmgrcb::initialized_or_report("sysmgrcb_gsync_failed")) {
    (void)sysmgr_gsync_ready_done(ctx, 0);
    return 0;
  }
  return hadra::sysmgrcb::gsync_failed(ctx);
}

}  // extern "C"
