// Disabling: the end of a registered database's life in the library.
//
// A disabled entry is closed, its store destroyed, and the standby told to destroy its copy;
// the entry returns to HADRA_HA_DISABLE with an empty uri, which every later walk over the
// registry passes over until the index is registered again. It keeps its index, name, kind,
// flags and sync callback.
//
// Disabling happens when initialisation fails (every database), at close (every database),
// when the client disables one database, and on the standby when the dispatcher receives
// PSS_DESTROY or SDB_DESTROY (the sender sends nothing from the standby, so that echo ends
// there). The destroy message is sent whatever the entry's no_sync: an unsynced database's
// copy on the standby, if one was ever made, must not outlive it.
//
// Nothing here reports: the close, destroy and sync steps report their own failures, and
// none of them stops the disabling. The entry ends disabled in every case.
#include "core/diag.h"
#include "core/registry.h"
#include "hadra/lifecycle.h"
#include "lifecycle/lifecycle.h"
#include "pss/life.h"
#include "sdb/lifecycle.h"
#include "sync/apply.h"

namespace hadra::lifecycle {

void disable(hadra_ha_pss_entry &entry) noexcept {
  if (entry.state == HADRA_HA_DISABLE) return;
  HADRA_DBG("Disabling PSS %s\n", entry.uri);
  if (entry.db_type == HADRA_DB_PSS)
    pss::disable(entry);
  else if (entry.db_type == HADRA_DB_SDB)
    sdb::disable(entry);
  mark_disabled(entry);
}

void disable_all() noexcept {
  HADRA_DBG("Disabling all PSS databases\n");
  for (hadra_ha_pss_entry &entry : registry_entries()) disable(entry);
}

namespace {

// PSS_DESTROY and SDB_DESTROY end the standby's copy as the active ended its own: the whole
// disabling, whose sync sends nothing on the standby.
int apply_destroy(const sync::Change &c) noexcept {
  disable(*c.entry);
  return 1;
}

HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_DESTROY, sync::Target::kPssFile, apply_destroy, sync::Callback::kNone);
HADRA_SYNC_APPLIER(HADRA_SYNC_SDB_DESTROY, sync::Target::kSdb, apply_destroy, sync::Callback::kNone);

}  // namespace
}  // namespace hadra::lifecycle

extern "C" {

HADRA_API void hadra_ha_disable(hadra_ha_pss_entry *entry) noexcept {
  if (entry != nullptr) hadra::lifecycle::disable(*entry);
}

HADRA_API void hadra_ha_disable_all(void) noexcept { hadra::lifecycle::disable_all(); }

}  // extern "C"
