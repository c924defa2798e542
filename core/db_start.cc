// Start-up of one registered database, run by initialisation for each.
//
// How the service was started decides what a database keeps:
//
//   stateful restart  the old contents, as they are (a PSS file that is missing is created
//                     empty); the client recovers from them: state HADRA_HA_RECOVER
//   preserved file    a PSS file marked with hadra_pss_set_preserve keeps its contents
//                     across a stateless start: state HADRA_HA_ACTIVE
//   stateless start   a configuration file becomes a copy of its file in the startup
//                     configuration (empty when there is none); an SDB is destroyed and
//                     created afresh; any other PSS file starts empty: HADRA_HA_ACTIVE
//
// The first case that applies and succeeds decides. A stateful or preserved start that does
// not succeed falls through to the stateless start, so a database whose old contents cannot
// be opened still comes up, empty. A preserved SDB is never kept: only PSS files can be.
//
// A started PSS file stays open in the entry's pss_handle; an SDB is opened read-write in
// the process. On failure the entry's state is left as it was and the entry holds no
// handle; initialisation then disables every database.
#include "core/diag.h"
#include "core/pss_file.h"
#include "core/registry.h"
#include "hadra/lifecycle.h"
#include "hadra_platform/sysmgr.h"
#include "sdb/lifecycle.h"

namespace hadra {
namespace {

// Outcome of one way of starting: up; not up, try the stateless start; or failed for good,
// with or without the start-up's closing debug line.
enum class Start { kUp, kFallThrough, kFailed, kFailedQuietly };

Start stateful_sdb(hadra_ha_pss_entry &e) noexcept {
  if (hadra_sdb_open(e.uri, 1) == 0) return Start::kFallThrough;
  e.state = HADRA_HA_RECOVER;
  return Start::kUp;
}

Start stateful_pss(hadra_ha_pss_entry &e) noexcept {
  // The handle of a file created because it was missing is not the one the database keeps:
  // it is closed before the file is opened again, or it would stay open for good.
  if (hadra_pss_exist(e.uri, hadra_ha_handle.uuid) == 0 && hadra_pss_create(e.uri, nullptr, &e.pss_handle) != 0)
    pss_release_handle(e.pss_handle);
  if (hadra_pss_open(e.uri, &e.pss_handle) == 0) return Start::kFallThrough;
  e.state = HADRA_HA_RECOVER;
  return Start::kUp;
}

Start stateful(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateful restart\n");
  if (e.db_type == HADRA_DB_SDB) return stateful_sdb(e);
  if (e.db_type == HADRA_DB_PSS) return stateful_pss(e);
  return Start::kFallThrough;
}

Start preserved(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateful restart(preserve)\n");
  if (e.db_type != HADRA_DB_PSS) return Start::kFallThrough;
  if (hadra_pss_exist(e.uri, hadra_ha_handle.uuid) == 0 || hadra_pss_open(e.uri, &e.pss_handle) == 0)
    return Start::kFallThrough;
  e.state = HADRA_HA_ACTIVE;
  return Start::kUp;
}

Start created_active(hadra_ha_pss_entry &e) noexcept {
  if (hadra_pss_create(e.uri, nullptr, &e.pss_handle) == 0) return Start::kFailedQuietly;
  e.state = HADRA_HA_ACTIVE;
  return Start::kUp;
}

// A configuration file starts as a copy of its startup-configuration file. A copy that
// fails fails the start-up rather than leaving the file empty: an empty configuration
// would silently replace the one the operator saved.
Start stateless_config(hadra_ha_pss_entry &e) noexcept {
  if (sysmgr_startup_cfg_uri_get() == nullptr) return created_active(e);
  const char *startup_uri =
      sysmgr_uri_complete(sysmgr_startup_cfg_uri_get(), sysmgr_file_prefix_get(), e.cfg_name);
  uint32_t startup_handle = 0;
  if (hadra_pss_exist(startup_uri, hadra_ha_handle.uuid) == 0 || hadra_pss_open(startup_uri, &startup_handle) == 0)
    return created_active(e);
  const int copied = hadra_pss_snapshot_to_uri(startup_handle, e.uri);
  hadra_pss_close(startup_handle);
  if (copied == 0) return Start::kFailedQuietly;
  if (hadra_pss_open(e.uri, &e.pss_handle) == 0) return Start::kFailed;
  e.state = HADRA_HA_ACTIVE;
  return Start::kUp;
}

Start stateless_sdb(hadra_ha_pss_entry &e) noexcept {
  hadra_sdb_destroy(&e);
  if (hadra_sdb_create(&e) == 0) {
    HADRA_DBG("Failed to create %s", e.uri);
    return Start::kFailed;
  }
  if (hadra_sdb_open(e.uri, 1) == 0) {
    HADRA_DBG("Failed to open %s", e.uri);
    // An open whose recovery failed stays open, and a database that did not start is
    // never disabled: without this it would stay open in the process for good.
    sdb::release(e.uri);
    return Start::kFailed;
  }
  e.state = HADRA_HA_ACTIVE;
  return Start::kUp;
}

Start stateless_pss(hadra_ha_pss_entry &e) noexcept {
  hadra_destroy_uri(e.uri);
  if (hadra_pss_create(e.uri, nullptr, &e.pss_handle) == 0) return Start::kFailed;
  e.state = HADRA_HA_ACTIVE;
  return Start::kUp;
}

Start stateless(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateless restart\n");
  if (e.is_config != 0) return stateless_config(e);
  if (e.db_type == HADRA_DB_SDB) return stateless_sdb(e);
  if (e.db_type == HADRA_DB_PSS) return stateless_pss(e);
  return Start::kFailed;
}

Start first_attempt(hadra_ha_pss_entry &e) noexcept {
  if (sysmgr_is_stateful_restart() != 0) return stateful(e);
  if (e.preserve != 0) return preserved(e);
  return Start::kFallThrough;
}

int db_start(hadra_ha_pss_entry &e) noexcept {
  // A handle left from an earlier start (a second initialisation) would be overwritten and
  // leak; it may also have been closed already by a destroy, so it goes without a report.
  pss_release_handle(e.pss_handle);
  Start s = first_attempt(e);
  if (s == Start::kFallThrough) s = stateless(e);
  if (s == Start::kUp) return 1;
  // No handle is open on failure; what may be left is the number of one that a failed
  // create closed again, which must not be taken for a live handle later.
  e.pss_handle = 0;
  if (s == Start::kFailed) HADRA_DBG("PSS initialization failed");
  return 0;
}

}  // namespace
}  // namespace hadra

extern "C" HADRA_API int hadra_ha_db_start(hadra_ha_pss_entry *entry) noexcept {
  return entry != nullptr ? hadra::db_start(*entry) : 0;
}
