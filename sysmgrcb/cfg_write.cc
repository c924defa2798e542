// Configuration write: the system manager saves the running configuration as the startup
// configuration, and every PSS file the client marked as a configuration file
// (hadra_pss_set_config) is copied into the area it names, as "<client name>_<cfg_name>".
// A later stateless start rebuilds the file from that copy (pss/life.cc, chosen by lifecycle/db_start.cc).
//
// The files are written one by one; one that cannot be written is reported and does not
// keep the others from being saved. Nothing is answered: the system manager learns of a
// failure from the report only.
#include <cstdio>

#include "core/diag.h"
#include "core/registry.h"
#include "hadra/handle.h"
#include "hadra/lifecycle.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/sysmgr.h"
#include "pss/file.h"
#include "sysmgrcb/common.h"

namespace hadra::sysmgrcb {
namespace {

constexpr char kHandler[] = "sysmgrcb_cfg_write";

// The copy's URI in the area; not ok when the platform cannot form one.
UriCopy startup_copy_uri(const char *cfg_uri, const hadra_ha_pss_entry &e) noexcept {
  char prefix[HADRA_HA_URI_LEN] = {};
  std::snprintf(prefix, sizeof prefix, "%s_", hadra_ha_handle.name);
  return UriCopy(sysmgr_uri_complete(cfg_uri, prefix, e.cfg_name));
}

void write_config_file(const char *cfg_uri, const hadra_ha_pss_entry &e) noexcept {
  const UriCopy dest = startup_copy_uri(cfg_uri, e);
  // A name the platform refuses is a file that cannot be written, like a failed copy.
  if (!dest.ok() || pss::snapshot_to_uri(e.pss_handle, dest.c_str()) == 0)
    report(msg_error_HADRA_API_FAILED, 0, kHandler);
  HADRA_DBG("Snapshot running config to startup config done\n");
}

int cfg_write(const char *cfg_uri) noexcept {
  HADRA_DBG("Received config write.\n");
  for (const hadra_ha_pss_entry &e : registry_entries())
    if (e.is_config != 0 && e.db_type == HADRA_DB_PSS) write_config_file(cfg_uri, e);
  return 0;
}

}  // namespace
}  // namespace hadra::sysmgrcb

extern "C" {

HADRA_API int hadra_sysmgr_cfg_write_cb(void *ctx, const char *cfg_uri) noexcept {
  (void)ctx;
  if (!hadra::sysmgrcb::initialized_or_report(hadra::sysmgrcb::kHandler)) return 0;
  return hadra::sysmgrcb::cfg_write(cfg_uri);
}

}  // extern "C"
