// Initialisation and shutdown of the library.
//
// The library has two states, told by hadra_ha_handle.initialized: not initialised (after
// load and after close) and initialised (after a successful initialisation). The
// system-manager handlers act only while it is 1.
//
// Initialisation records the client's identity in the handle and brings every registered
// database up according to the supervisor's role, asked anew at every decision:
//
//   active (1)            every database is started (hadra_ha_db_start)
//   standby (2)           an unsynced database is started; a synced one is destroyed and
//                         stays disabled until gsync brings the active's copy, which is
//                         requested once all databases were seen
//   neither               an unsynced database is started; a synced one is left alone
//
// One database that cannot be started fails the whole initialisation: every database is
// disabled and `initialized` keeps its value. Initialisation is not refused a second time:
// it copies the record again and starts every database again.
//
// Close disables every database and clears the handle; registry entries keep their names,
// flags and callbacks.
#include <cstring>

#include "core/diag.h"
#include "core/handle.h"
#include "core/registry.h"
#include "hadra/lifecycle.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "lifecycle/lifecycle.h"
#include "pss/file.h"

namespace hadra::lifecycle {
namespace {

constexpr uint32_t kSeqnoTableEntries = HADRA_HA_MAX_DB;

// Everything of the caller's record but `initialized`, which only initialisation sets.
void copy_record(const hadra_ha_handle_t &r) noexcept {
  hadra_ha_handle_t &h = hadra_ha_handle;
  h.uuid = r.uuid;
  h.sap = r.sap;
  h.opcode = r.opcode;
  h.spare = r.spare;
  h.switchover_cb = r.switchover_cb;
  h.switchover_done_cb = r.switchover_done_cb;
  h.gsync_snapshot_cb = r.gsync_snapshot_cb;
  h.gsync_ready_cb = r.gsync_ready_cb;
  h.active_marker_cb = r.active_marker_cb;
  h.gsync_failed_cb = r.gsync_failed_cb;
  hadra_strcpy(h.name, sizeof h.name, r.name);
  h.flags = r.flags;
}

// One registered database at initialisation; false when it had to be started and could not.
bool bring_up(hadra_ha_pss_entry &e) noexcept {
  if (sysmgr_supstate_get() == HADRA_SUP_ACTIVE || e.no_sync != 0) return db_start(e) != 0;
  // The standby's copy of a synced database is worthless until gsync replaces it; removing
  // it now keeps a stale copy from ever being read.
  if (sysmgr_supstate_get() == HADRA_SUP_STANDBY) pss::destroy_uri_told(e.uri);
  return true;
}

void request_gsync() noexcept {
  if (handle_flag(HADRA_HA_FLAG_SEQNO_STATUS))
    (void)sysmgr_seqno_status_register();
  else
    (void)sysmgr_seqno_table_alloc(kSeqnoTableEntries);
  HADRA_DBG("Initiating GSYNC from standby card\n");
  (void)sysmgr_gsync_get(0);
}

int api_init(const hadra_ha_handle_t *record) noexcept {
  if (record != nullptr) copy_record(*record);
  bool sync_wanted = false;
  int count = 0;
  for (hadra_ha_pss_entry &e : registry_entries()) {
    if (!entry_in_use(e)) continue;
    ++count;
    if (e.no_sync == 0) sync_wanted = true;
    if (!bring_up(e)) {
      disable_all();
      return 0;
    }
  }
  HADRA_DBG(" Number of PSS files registered %d \n", count);
  if (sync_wanted && sysmgr_supstate_get() == HADRA_SUP_STANDBY) request_gsync();
  hadra_ha_handle.initialized = 1;
  return 1;
}

// A client that is never synced: every database starts whatever the supervisor's role, and
// is marked unsynced, as is every database registered later.
int no_gsync_init(const hadra_ha_handle_t *record) noexcept {
  if (record != nullptr) {
    hadra_ha_handle.uuid = record->uuid;
    hadra_ha_handle.sap = record->sap;
  }
  hadra_no_pss_sync = 1;
  for (hadra_ha_pss_entry &e : registry_entries()) {
    if (!entry_in_use(e)) continue;
    if (db_start(e) == 0) {
      disable_all();
      return 0;
    }
    e.no_sync = hadra_no_pss_sync;
  }
  hadra_ha_handle.initialized = 1;
  return 1;
}

}  // namespace
}  // namespace hadra::lifecycle

extern "C" {

HADRA_API int hadra_ha_api_init(const hadra_ha_handle_t *record) noexcept { return hadra::lifecycle::api_init(record); }

HADRA_API int hadra_ha_no_gsync_api_init(const hadra_ha_handle_t *record) noexcept {
  return hadra::lifecycle::no_gsync_init(record);
}

HADRA_API void hadra_ha_api_close(void) noexcept {
  HADRA_DBG("Closing hadra HA libary api\n");
  hadra::lifecycle::disable_all();
  std::memset(&hadra_ha_handle, 0, sizeof hadra_ha_handle);
}

}  // extern "C"
