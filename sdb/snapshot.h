// SDB sync snapshots: how one SDB or MSDB of the registry travels through a gsync snapshot
// area. The exported operations (hadra_sdb_create_sync_snapshot,
// hadra_sdb_restore_sync_snapshot) are declared in include/hadra/sysmgrcb.h beside the gsync
// callbacks that use them.
//
// The snapshot's format and its file names inside the area are the SDB library's: the
// active side asks it to write the database under this service's uuid, the standby side asks
// it to rebuild the database from what that uuid wrote. The library only picks the pair of
// calls that fits the database's kind and decides what follows.
#pragma once

#include <cstdint>

#include "hadra/registry.h"

namespace hadra::sdb {

// The platform's snapshot calls for one kind of database: (db_uri, area_uri, uuid) -> 0 or a
// platform status.
struct SnapshotCalls {
  uint32_t (*write)(const char *db_uri, const char *base_uri, uint32_t uuid) noexcept;
  uint32_t (*read)(const char *db_uri, const char *source_uri, uint32_t uuid) noexcept;
};

// The mksdb_* pair for an MSDB entry, the sdb_* pair otherwise.
const SnapshotCalls &snapshot_calls(const hadra_ha_pss_entry &entry) noexcept;

// As hadra_sdb_create_sync_snapshot and hadra_sdb_restore_sync_snapshot.
int create_sync_snapshot(const char *base_uri, const hadra_ha_pss_entry *entry) noexcept;
int restore_sync_snapshot(const char *source_uri, hadra_ha_pss_entry *entry) noexcept;

// Standby side when no gsync will come (the active does not run the service): the SDB is
// created (announced) and opened empty; state HADRA_HA_STANDBY whatever happened.
void start_empty_standby(hadra_ha_pss_entry &e) noexcept;

}  // namespace hadra::sdb
