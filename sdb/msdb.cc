// MSDB batch updates: multi-key list writes, repeated on the standby as MSDB_BATCH_UPDATE
// messages (opcode 9) packed in the shared batch buffer. standby.cc applies them there.
//
// An MSDB record carries its value and its secondary keys (each a byte string with a 16-bit
// tag naming the index it belongs to). The batch layout and the sender's refusals are in
// wire/batch.h.
#include "core/diag.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "sdb/batch.h"
#include "sdb/ops.h"

namespace hadra::sdb {
namespace {

bool batch_sendable(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count) noexcept {
  if (entry->no_sync != 0) return true;
  uint32_t bad = 0;
  const char* why = wire::unsendable(list, count, &bad);
  if (why == nullptr) return true;
  plat_syslog(PLAT_LOG_CRIT, "MSDB write batch refused for %s: record %u: %s\n", entry->uri, bad, why);
  return false;
}

int update_mkey_batch(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count,
                      uint32_t notify) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  if (!batch_sendable(entry, list, count)) return 0;
  const uint32_t rc = sdb_write_mkey_list(entry->uri, list, count);
  if (rc != 0) {
    HADRA_DBG("ERROR: MSDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    plat_syslog(PLAT_LOG_CRIT, "MSDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  complete_write(entry, notify);
  if (entry->no_sync == 0) sync_batches(entry, list, count, "hadra_msdb_sync_batch");
  return 1;
}

}  // namespace
}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_msdb_update_batch(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count,
                                      uint32_t notify) noexcept {
  return hadra::sdb::update_mkey_batch(entry, list, count, notify);
}

HADRA_API int hadra_sdb_update_mkey(const hadra_ha_pss_entry* entry, const datum* key, const datum* data,
                                    const sdb_skey* skeys, int32_t skey_count, uint32_t notify) noexcept {
  if (entry == nullptr || key == nullptr || data == nullptr) return 0;
  const sdb_mkey_op op{const_cast<datum*>(key), const_cast<datum*>(data), const_cast<sdb_skey*>(skeys), skey_count,
                       0};
  return hadra::sdb::update_mkey_batch(entry, &op, 1, notify);
}

}  // extern "C"
