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
#include "hadra/lifecycle.h"
#include "hadra_platform/sysmgr.h"
#include "lifecycle/lifecycle.h"
#include "pss/file.h"
#include "pss/life.h"
#include "sdb/lifecycle.h"

namespace hadra::lifecycle {
namespace {

bool stateful(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateful restart\n");
  if (e.db_type == HADRA_DB_SDB) return sdb::start_stateful(e);
  if (e.db_type == HADRA_DB_PSS) return pss::start_stateful(e);
  return false;
}

bool preserved(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateful restart(preserve)\n");
  return e.db_type == HADRA_DB_PSS && pss::start_preserved(e);
}

// The start that always applies when no other did. A failure has told itself.
bool stateless(hadra_ha_pss_entry &e) noexcept {
  HADRA_DBG("Initializing stateless restart\n");
  if (e.is_config != 0) return pss::start_stateless(e);
  if (e.db_type == HADRA_DB_SDB) return sdb::start_stateless(e);
  if (e.db_type == HADRA_DB_PSS) return pss::start_stateless(e);
  HADRA_DBG("PSS initialization failed");
  return false;
}

// Up by the first start that applies: a stateful restart, or a preserved file; false when
// neither applies or it did not succeed.
bool first_attempt(hadra_ha_pss_entry &e) noexcept {
  if (sysmgr_is_stateful_restart() != 0) return stateful(e);
  if (e.preserve != 0) return preserved(e);
  return false;
}

}  // namespace

int db_start(hadra_ha_pss_entry &e) noexcept {
  // A handle left from an earlier start (a second initialisation) would be overwritten and
  // leak; it may also have been closed already by a destroy, so it goes without a report.
  pss::release_handle(e.pss_handle);
  if (first_attempt(e) || stateless(e)) return 1;
  // No handle is open on failure; what may be left is the number of one that a failed
  // create closed again, which must not be taken for a live handle later.
  e.pss_handle = 0;
  return 0;
}

}  // namespace hadra::lifecycle

extern "C" HADRA_API int hadra_ha_db_start(hadra_ha_pss_entry *entry) noexcept {
  return entry != nullptr ? hadra::lifecycle::db_start(*entry) : 0;
}
