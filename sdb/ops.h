// Internal pieces shared by the SDB record operations (reads, updates, deletes, MSDB batches).
//
// Every write follows the same three steps, in this order:
//
//   1. the local platform write (sdb_write, sdb_write_list, sdb_list_ops, sdb_delete,
//      sdb_delete_list, sdb_write_mkey_list); on failure nothing else happens;
//   2. its completion: the update notification (hadra_sdb_update_notification) or a bare
//      sdb_write_done, as the caller's notify asks;
//   3. unless the entry's no_sync is set, the sync to the standby (sync::send), whose
//      result is ignored: a failed sync never undoes the local change.
//
// On the standby the same operations run from the dispatcher (standby.cc registers them in
// its apply table): the sender sends nothing there, and the update notification only
// completes the write.
#pragma once

#include <cstdint>

#include "hadra/sdb.h"

// Completes the platform write of an SDB and, on the active supervisor, sends the SDB's
// context for that write to the peer under the entry's update_opcode (no sync header; MTS
// descriptor flags notify and no_reply set). The write is completed on every path past a
// null entry: when the context cannot be had (its length unavailable, or longer than the
// 100-byte buffer) nothing is sent and the result is 0; when it cannot be filled nothing is
// sent and the result is 1. Callers ignore the result. hadra_sdb_update_notification is its
// C name, hidden, for the library's own tests.
extern "C" __attribute__((visibility("hidden"))) int hadra_sdb_update_notification(
    const hadra_ha_pss_entry* entry) noexcept;

namespace hadra::sdb {

int update_notification(const hadra_ha_pss_entry* entry) noexcept;

// Step 2 above: notify non-zero completes with the update notification, 0 with
// sdb_write_done alone.
void complete_write(const hadra_ha_pss_entry* entry, uint32_t notify) noexcept;

// The single-record writers as the library calls them, with every check of their exported
// forms (hadra_sdb_update, hadra_sdb_delete_notify).
int update(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, const void* data, uint32_t data_len,
           uint32_t notify) noexcept;
int remove(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, uint32_t notify) noexcept;

}  // namespace hadra::sdb
