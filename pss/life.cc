// A registered PSS file's start-up and disabling (life.h).
#include "pss/life.h"

#include "core/diag.h"
#include "core/handle.h"
#include "hadra_platform/sysmgr.h"
#include "pss/file.h"
#include "sync/send.h"

namespace hadra::pss {
namespace {

bool created_active(hadra_ha_pss_entry &e) noexcept {
  if (create(e.uri, nullptr, &e.pss_handle) == 0) return false;
  e.state = HADRA_HA_ACTIVE;
  return true;
}

// A configuration file starts as a copy of its startup-configuration file. A copy that
// fails fails the start-up rather than leaving the file empty: an empty configuration
// would silently replace the one the operator saved.
bool start_config(hadra_ha_pss_entry &e) noexcept {
  if (sysmgr_startup_cfg_uri_get() == nullptr) return created_active(e);
  const char *startup_uri =
      sysmgr_uri_complete(sysmgr_startup_cfg_uri_get(), sysmgr_file_prefix_get(), e.cfg_name);
  uint32_t startup_handle = 0;
  if (exist(startup_uri, hadra_ha_handle.uuid) == 0 || open(startup_uri, &startup_handle) == 0)
    return created_active(e);
  const int copied = snapshot_to_uri(startup_handle, e.uri);
  close(startup_handle);
  if (copied == 0) return false;
  if (open(e.uri, &e.pss_handle) == 0) {
    HADRA_DBG("PSS initialization failed");
    return false;
  }
  e.state = HADRA_HA_ACTIVE;
  return true;
}

}  // namespace

bool start_stateful(hadra_ha_pss_entry &e) noexcept {
  // The handle of a file created because it was missing is not the one the database keeps:
  // it is closed before the file is opened again, or it would stay open for good.
  if (exist(e.uri, hadra_ha_handle.uuid) == 0 && create(e.uri, nullptr, &e.pss_handle) != 0)
    release_handle(e.pss_handle);
  if (open(e.uri, &e.pss_handle) == 0) return false;
  e.state = HADRA_HA_RECOVER;
  return true;
}

bool start_preserved(hadra_ha_pss_entry &e) noexcept {
  if (exist(e.uri, hadra_ha_handle.uuid) == 0 || open(e.uri, &e.pss_handle) == 0) return false;
  e.state = HADRA_HA_ACTIVE;
  return true;
}

bool start_stateless(hadra_ha_pss_entry &e) noexcept {
  if (e.is_config != 0) return start_config(e);
  destroy_uri_told(e.uri);
  if (create(e.uri, nullptr, &e.pss_handle) == 0) {
    HADRA_DBG("PSS initialization failed");
    return false;
  }
  e.state = HADRA_HA_ACTIVE;
  return true;
}

void disable(hadra_ha_pss_entry &e) noexcept {
  close(e.pss_handle);
  destroy_uri_told(e.uri);
  (void)sync::send(&e, nullptr, nullptr, HADRA_SYNC_PSS_DESTROY);
  e.pss_handle = 0;
}

}  // namespace hadra::pss
