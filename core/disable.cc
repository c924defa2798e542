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
#include <cstring>

#include "core/diag.h"
#include "core/registry.h"
#include "hadra/lifecycle.h"
#include "hadra/sync.h"

namespace hadra {
namespace {

void disable_pss(hadra_ha_pss_entry &entry) noexcept {
  hadra_pss_close(entry.pss_handle);
  hadra_destroy_uri(entry.uri);
  hadra_ha_sync(&entry, nullptr, nullptr, HADRA_SYNC_PSS_DESTROY);
  entry.pss_handle = 0;
}

void disable_sdb(hadra_ha_pss_entry &entry) noexcept {
  hadra_sdb_destroy(&entry);
  hadra_ha_sync(&entry, nullptr, nullptr, HADRA_SYNC_SDB_DESTROY);
}

void disable(hadra_ha_pss_entry &entry) noexcept {
  if (entry.state == HADRA_HA_DISABLE) return;
  HADRA_DBG("Disabling PSS %s\n", entry.uri);
  if (entry.db_type == HADRA_DB_PSS)
    disable_pss(entry);
  else if (entry.db_type == HADRA_DB_SDB)
    disable_sdb(entry);
  entry.state = HADRA_HA_DISABLE;
  std::memset(entry.uri, 0, sizeof entry.uri);
}

}  // namespace
}  // namespace hadra

extern "C" {

HADRA_API void hadra_ha_disable(hadra_ha_pss_entry *entry) noexcept {
  if (entry != nullptr) hadra::disable(*entry);
}

HADRA_API void hadra_ha_disable_all(void) noexcept {
  HADRA_DBG("Disabling all PSS databases\n");
  for (hadra_ha_pss_entry &entry : hadra::registry_entries()) hadra::disable(entry);
}

}  // extern "C"
