// SDB sync snapshots (see snapshot.h).
//
// Writing leaves the database as it was: open, in its HA state. Restoring makes the
// database a standby copy. A snapshot that cannot be read is not a failure of the restore:
// the standby then starts with an empty database, which the sync messages that follow keep
// current, rather than failing the whole gsync; only a database that cannot be created,
// announced or opened fails it.
#include "sdb/snapshot.h"

#include "core/diag.h"
#include "hadra/sysmgrcb.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/sysmgr.h"
#include "sdb/lifecycle.h"

namespace hadra::sdb {
namespace {

constexpr SnapshotCalls kSdbCalls = {&sdb_write_snapshot, &sdb_read_snapshot};
constexpr SnapshotCalls kMsdbCalls = {&mksdb_write_snapshot, &mksdb_read_snapshot};

}  // namespace

int create_sync_snapshot(const char *base_uri, const hadra_ha_pss_entry *entry) noexcept {
  if (entry == nullptr) return 0;
  if (entry->no_sync != 0) return 1;
  HADRA_DBG("dest_uri: %s, handle->data_uri: %s\n", uri_text(base_uri), entry->name);
  HADRA_DBG("hadra_sdb_create_sync_snapshot base_uri: %s\n", uri_text(base_uri));
  if (base_uri == nullptr) return 0;
  const uint32_t rc = snapshot_calls(*entry).write(entry->uri, base_uri, sysmgr_uuid_get());
  HADRA_DBG("sdb hadra_sdb_snapshot: %d\n", rc == 0 ? 1 : 0);
  if (rc != 0) return 0;
  HADRA_DBG("Successful snapshot from %s to %s", entry->uri, base_uri);
  return 1;
}

namespace {

// After the read: a rebuilt database is announced to its other users like a new one; one
// that could not be rebuilt is created empty (the creation announces it itself).
bool prepare_restored(const char *source_uri, hadra_ha_pss_entry *entry, uint32_t read_rc) noexcept {
  if (read_rc != 0) {
    HADRA_DBG("Failed snapshot restore from %s to %s", source_uri, entry->uri);
    if (create(entry) != 0) return true;
    HADRA_DBG("Failed to create %s", entry->uri);
    return false;
  }
  if (announce(entry, true) != 0) return true;
  HADRA_DBG("Failed to send create/del notification");
  return false;
}

}  // namespace

int restore_sync_snapshot(const char *source_uri, hadra_ha_pss_entry *entry) noexcept {
  if (entry == nullptr) return 0;
  if (entry->no_sync != 0) return 1;
  HADRA_DBG("source_uri: %s, handle->data_uri: %s\n", uri_text(source_uri), entry->uri);
  if (source_uri == nullptr) return 0;
  const uint32_t rc = snapshot_calls(*entry).read(entry->uri, source_uri, sysmgr_uuid_get());
  if (!prepare_restored(source_uri, entry, rc)) return 0;
  if (open(entry->uri, 1) == 0) {
    HADRA_DBG("Failed snapshot open of %s", entry->uri);
    return 0;
  }
  entry->state = HADRA_HA_STANDBY;
  HADRA_DBG("Successful snapshot from %s to %s", source_uri, entry->uri);
  return 1;
}

const SnapshotCalls &snapshot_calls(const hadra_ha_pss_entry &entry) noexcept {
  return entry.is_msdb != 0 ? kMsdbCalls : kSdbCalls;
}

void start_empty_standby(hadra_ha_pss_entry &e) noexcept {
  if (create(&e) == 0) HADRA_DBG("Failed to create %s", e.uri);
  if (open(e.uri, 1) == 0) HADRA_DBG("Failed to open %s", e.uri);
  e.state = HADRA_HA_STANDBY;
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_sdb_create_sync_snapshot(const char *base_uri, hadra_ha_pss_entry *entry) noexcept {
  return hadra::sdb::create_sync_snapshot(base_uri, entry);
}

HADRA_API int hadra_sdb_restore_sync_snapshot(const char *source_uri, hadra_ha_pss_entry *entry) noexcept {
  return hadra::sdb::restore_sync_snapshot(source_uri, entry);
}

}  // extern "C"
