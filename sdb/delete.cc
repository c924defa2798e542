// SDB deletes: one key, or a list of keys, each repeated on the standby as one SDB_DELETE
// message (opcode 5). The _notify forms let the caller choose how the write is completed;
// the plain forms always send the update notification. The dispatcher applies a received
// SDB_DELETE with hadra_sdb_delete, whose own sync sends nothing on the standby.
//
// The platform's list delete takes count key datums lying one after another. A caller's
// list of sdb_kv usually points into exactly such an array (entry i at element i); it is
// then handed over as it is. Any other layout is gathered into a temporary array first, so
// the platform never reads past what the caller gave.
#include "core/diag.h"
#include "core/mem.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "sdb/ops.h"
#include "sync/send.h"

namespace hadra::sdb {
namespace {

// True when entry i's key is element i of one array starting at entry 0's key.
bool keys_contiguous(const sdb_kv* list, uint32_t count) noexcept {
  const datum* first = list[0].key;
  if (first == nullptr) return false;
  for (uint32_t i = 1; i < count; ++i)
    if (list[i].key != first + i) return false;
  return true;
}

// The list's key datums as one array: the caller's own when it is one, otherwise a copy of
// the datums (not of the key bytes) held by *owned. Null when the copy cannot be allocated.
const datum* key_array(const sdb_kv* list, uint32_t count, HeapArray<datum>* owned) noexcept {
  if (keys_contiguous(list, count)) return list[0].key;
  *owned = heap_array<datum>(count);
  if (*owned == nullptr) return nullptr;
  for (uint32_t i = 0; i < count; ++i) (*owned)[i] = list[i].key != nullptr ? *list[i].key : datum{nullptr, 0};
  return owned->get();
}

bool has_key(const datum* key) noexcept { return key != nullptr && key->dptr != nullptr && key->dsize != 0; }

int remove_list(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count, uint32_t notify) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  HeapArray<datum> owned;
  const datum* keys = key_array(list, count, &owned);
  if (keys == nullptr) {
    plat_syslog(PLAT_LOG_CRIT, "SDB delete list: key array alloc failed for %u keys\n", count);
    return 0;
  }
  const uint32_t rc = sdb_delete_list(entry->uri, keys, count);
  owned.reset();
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "SDB delete list fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  complete_write(entry, notify);
  if (entry->no_sync != 0) return 1;
  for (uint32_t i = 0; i < count; ++i)
    if (has_key(list[i].key)) (void)sync::send(entry, list[i].key, nullptr, HADRA_SYNC_SDB_DELETE);
  return 1;
}

}  // namespace

int remove(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, uint32_t notify) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0) return 0;
  const datum kd{const_cast<void*>(key), key_len};
  const uint32_t rc = sdb_delete(entry->uri, &kd);
  if (rc != 0) {
    HADRA_DBG("ERROR: Could not write to SDB %s (%s)\n", entry->uri, syserr2str(rc));
    return 0;
  }
  complete_write(entry, notify);
  if (entry->no_sync == 0) (void)sync::send(entry, &kd, nullptr, HADRA_SYNC_SDB_DELETE);
  return 1;
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_sdb_delete_notify(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len,
                                      uint32_t notify) noexcept {
  return hadra::sdb::remove(entry, key, key_len, notify);
}

HADRA_API int hadra_sdb_delete(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len) noexcept {
  return hadra::sdb::remove(entry, key, key_len, 1);
}

HADRA_API int hadra_sdb_delete_list_notify(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count,
                                           uint32_t notify) noexcept {
  return hadra::sdb::remove_list(entry, list, count, notify);
}

HADRA_API int hadra_sdb_delete_list(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count) noexcept {
  return hadra::sdb::remove_list(entry, list, count, 1);
}

}  // extern "C"
