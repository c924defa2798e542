// SDB updates on the active supervisor: one record, a list of records, a batch of list
// operations. The standby applies what they send in standby.cc.
//
// On the active supervisor each writer applies the change locally, completes the write
// (ops.h) and, unless the entry's no_sync is set, repeats it on the standby:
//
//   hadra_sdb_update         one SDB_UPDATE message (opcode 4)
//   hadra_sdb_update_list    one SDB_UPDATE message per complete entry of the list
//   hadra_sdb_update_batch   SDB_BATCH_UPDATE messages (opcode 8) packed in the shared batch
//                            buffer (wire/batch.h), each starting with its own record count
//
// No HA state is consulted here: the dispatcher and the client decide when writes may happen.
#include "core/diag.h"
#include "hadra/sync.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "sdb/batch.h"
#include "sdb/ops.h"
#include "sync/send.h"

namespace hadra::sdb {
namespace {

bool complete_entry(const sdb_kv& e) noexcept {
  return e.key != nullptr && e.key->dptr != nullptr && e.key->dsize != 0 && e.data != nullptr &&
         e.data->dptr != nullptr && e.data->dsize != 0;
}

// Refuses, before anything is written, a batch the standby could not be given as it is.
bool batch_sendable(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count) noexcept {
  if (entry->no_sync != 0) return true;
  uint32_t bad = 0;
  const char* why = wire::unsendable(list, count, &bad);
  if (why == nullptr) return true;
  plat_syslog(PLAT_LOG_CRIT, "SDB write batch refused for %s: record %u: %s\n", entry->uri, bad, why);
  return false;
}

// One sync message carries at most HADRA_SYNC_MAX_LEN key bytes and as many data bytes. A
// longer record stored here would never reach the standby, whose copy would then silently
// differ, so a synced SDB refuses it before anything is written (as the PSS writers do).
bool syncable(const hadra_ha_pss_entry* entry, const datum& key, const datum& data, const char* fn) noexcept {
  if (entry->no_sync != 0 || (key.dsize <= HADRA_SYNC_MAX_LEN && data.dsize <= HADRA_SYNC_MAX_LEN)) return true;
  plat_syslog(PLAT_LOG_CRIT, "%s refused for %s: key %u bytes, data %u bytes (most %u each can be synced)\n", fn,
              entry->uri, key.dsize, data.dsize, HADRA_SYNC_MAX_LEN);
  return false;
}

// The whole list is refused when one complete entry could not be synced: half a list on the
// active and nothing of it on the standby is worse than a clear refusal.
bool list_syncable(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count) noexcept {
  for (uint32_t i = 0; i < count; ++i)
    if (complete_entry(list[i]) && !syncable(entry, *list[i].key, *list[i].data, "SDB write list")) return false;
  return true;
}

}  // namespace

int update(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, const void* data, uint32_t data_len,
           uint32_t notify) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || data == nullptr || data_len == 0) return 0;
  const datum kd{const_cast<void*>(key), key_len};
  const datum dd{const_cast<void*>(data), data_len};
  if (!syncable(entry, kd, dd, "SDB write")) return 0;
  const uint32_t rc = sdb_write(entry->uri, &kd, &dd);
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "SDB write fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  complete_write(entry, notify);
  if (entry->no_sync == 0) (void)sync::send(entry, &kd, &dd, HADRA_SYNC_SDB_UPDATE);
  return 1;
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_sdb_update(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, const void* data,
                               uint32_t data_len, uint32_t notify) noexcept {
  return hadra::sdb::update(entry, key, key_len, data, data_len, notify);
}

HADRA_API int hadra_sdb_update_list(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  if (!hadra::sdb::list_syncable(entry, list, count)) return 0;
  const uint32_t rc = sdb_write_list(entry->uri, list, count);
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "SDB write list fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  (void)hadra::sdb::update_notification(entry);
  if (entry->no_sync != 0) return 1;
  for (uint32_t i = 0; i < count; ++i)
    if (hadra::sdb::complete_entry(list[i]))
      (void)hadra::sync::send(entry, list[i].key, list[i].data, HADRA_SYNC_SDB_UPDATE);
  return 1;
}

HADRA_API int hadra_sdb_update_batch(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count,
                                     uint32_t notify) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  if (!hadra::sdb::batch_sendable(entry, list, count)) return 0;
  const uint32_t rc = sdb_list_ops(entry->uri, list, count);
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "SDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  hadra::sdb::complete_write(entry, notify);
  if (entry->no_sync == 0) hadra::sdb::sync_batches(entry, list, count, "hadra_sdb_sync_batch");
  return 1;
}

}  // extern "C"
