// PSS files in a gsync snapshot area (snapshot.h).
#include "pss/snapshot.h"

#include "core/diag.h"
#include "core/handle.h"
#include "core/uri.h"
#include "hadra_platform/sysmgr.h"
#include "pss/file.h"

namespace hadra::pss {
namespace {

constexpr char kRestorePss[] = "hadra_restore_pss_sync_snapshot";

// The URI of the entry's PSS copy in the area, or null.
const char *copy_uri(const char *base_uri, const hadra_ha_pss_entry &e) noexcept {
  return sysmgr_uri_complete(base_uri, sysmgr_file_prefix_get(), e.name);
}

// The entry's file is about to be (re)opened: a handle it still holds from an earlier gsync
// would otherwise be lost.
void forget_old_handle(hadra_ha_pss_entry &e) noexcept {
  if (e.pss_handle != 0) release_handle(e.pss_handle);
}

// The area holds no copy of the file: it starts empty.
int restore_empty(hadra_ha_pss_entry &e) noexcept {
  forget_old_handle(e);
  if (create(e.uri, nullptr, &e.pss_handle) == 0) {
    HADRA_DBG("hadra_pss_create failed in %s", kRestorePss);
    return 0;
  }
  e.state = HADRA_HA_STANDBY;
  return 1;
}

}  // namespace

int snapshot_to_area(hadra_ha_pss_entry &e, const char *base_uri) noexcept {
  const UriCopy dest(copy_uri(base_uri, e));
  HADRA_DBG("pss base_uri: %s, sysmgr_file_prefixi: %s, handle: %s, dest_uri: %s", uri_text(base_uri),
            uri_text(sysmgr_file_prefix_get()), e.name, uri_text(dest.c_str()));
  if (!dest.ok()) return 0;
  if (snapshot_to_uri(e.pss_handle, dest.c_str()) == 0) return 0;
  HADRA_DBG("Successful snapshot from %s to %s", e.uri, dest.c_str());
  return 1;
}

int restore_from_area(hadra_ha_pss_entry &e, const char *base_uri) noexcept {
  const UriCopy src(copy_uri(base_uri, e));
  if (!src.ok()) return 0;
  if (exist(src.c_str(), hadra_ha_handle.uuid) == 0) return restore_empty(e);
  uint32_t snapshot = 0;
  if (open(src.c_str(), &snapshot) == 0) {
    HADRA_DBG("hadra_pss_open failed in %s", kRestorePss);
    return 0;
  }
  const int copied = snapshot_to_uri(snapshot, e.uri);
  // Closed on failure too: an open handle keeps the area's file mapped for the process.
  close(snapshot);
  if (copied == 0) return 0;
  forget_old_handle(e);
  if (open(e.uri, &e.pss_handle) == 0) return 0;
  e.state = HADRA_HA_STANDBY;
  HADRA_DBG("Successful snapshot from %s to %s", src.c_str(), e.uri);
  return 1;
}

void start_empty_standby(hadra_ha_pss_entry &e) noexcept {
  // A file that exists is an unsynced one, opened at initialisation: keep it.
  if (exist(e.uri, hadra_ha_handle.uuid) == 0 && create(e.uri, nullptr, &e.pss_handle) == 0)
    HADRA_DBG("Failed to open %s", e.uri);
  e.state = HADRA_HA_STANDBY;
}

}  // namespace hadra::pss
