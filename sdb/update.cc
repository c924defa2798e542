// SDB updates: one record, a list of records, a batch of list operations, and the standby's
// application of a received batch.
//
// On the active supervisor each writer applies the change locally, completes the write
// (ops.h) and, unless the entry's no_sync is set, repeats it on the standby:
//
//   hadra_sdb_update         one SDB_UPDATE message (opcode 4)
//   hadra_sdb_update_list    one SDB_UPDATE message per complete entry of the list
//   hadra_sdb_update_batch   SDB_BATCH_UPDATE messages (opcode 8) packed in the shared batch
//                            buffer (batch.h), each starting with its own record count
//
// The dispatcher on the standby applies SDB_UPDATE with hadra_sdb_update (whose own sync
// sends nothing there) and SDB_BATCH_UPDATE with the bounded batch applier below. No HA
// state is consulted here: the dispatcher and the client decide when writes may happen.
#include <cstdlib>

#include "core/diag.h"
#include "hadra/sync.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "sdb/batch.h"
#include "sdb/ops.h"
#include "sync/msg.h"

namespace hadra::sdb {
namespace {

constexpr const char* kStandbyBatch = "hadra_sdb_update_batch_on_standby";

bool complete_entry(const sdb_kv& e) noexcept {
  return e.key != nullptr && e.key->dptr != nullptr && e.key->dsize != 0 && e.data != nullptr &&
         e.data->dptr != nullptr && e.data->dsize != 0;
}

// Fills list entry i and its two datums from each record of a received batch.
class SdbListSink final : public BatchSink {
 public:
  SdbListSink(sdb_list_op* list, datum* datums) noexcept : list_(list), datums_(datums) {}
  void record(uint32_t i, const RecordView& r) noexcept override {
    datum* key = &datums_[2 * i];
    datum* data = key + 1;
    *key = {const_cast<uint8_t*>(r.key), r.key_len};
    *data = r.has_data ? datum{const_cast<uint8_t*>(r.data), r.data_len} : datum{nullptr, 0};
    list_[i] = {r.op, key, data};
  }
  void skey(uint32_t, uint32_t, const SkeyView&) noexcept override {}

 private:
  sdb_list_op* list_;
  datum* datums_;
};

// Refuses, before anything is written, a batch the standby could not be given as it is.
bool batch_sendable(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count) noexcept {
  if (entry->no_sync != 0) return true;
  uint32_t bad = 0;
  const char* why = unsendable(list, count, &bad);
  if (why == nullptr) return true;
  plat_syslog(2, "SDB write batch refused for %s: record %u: %s\n", entry->uri, bad, why);
  return false;
}

}  // namespace

int apply_sdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* bytes = static_cast<const uint8_t*>(batch);
  const uint32_t count = batch_count(bytes, len);
  if (count == 0) {
    plat_syslog(2, "%s: malformed batch of %u bytes\n", kStandbyBatch, len);
    return 0;
  }
  auto* list = static_cast<sdb_list_op*>(std::malloc(sizeof(sdb_list_op) * count));
  if (list == nullptr) {
    plat_syslog(2, "%s: list alloc failed", kStandbyBatch);
    return 0;
  }
  auto* datums = static_cast<datum*>(std::malloc(sizeof(datum) * 2 * count));
  if (datums == nullptr) {
    plat_syslog(2, "%s: datum alloc failed", kStandbyBatch);
    std::free(list);
    return 0;
  }
  SdbListSink sink(list, datums);
  uint32_t rc = 0;
  const bool whole = walk_batch(bytes, len, false, &sink);
  if (!whole)
    plat_syslog(2, "%s: malformed batch of %u bytes\n", kStandbyBatch, len);
  else if ((rc = sdb_list_ops(entry->uri, list, count)) != 0)
    plat_syslog(2, "%s: SDB write batch fail, rc=0x%x [%s]\n", kStandbyBatch, rc, syserr2str(rc));
  else
    (void)hadra_sdb_update_notification(entry);
  std::free(datums);
  std::free(list);
  return whole && rc == 0 ? 1 : 0;
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_sdb_update(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, const void* data,
                               uint32_t data_len, uint32_t notify) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || data == nullptr || data_len == 0) return 0;
  const datum kd{const_cast<void*>(key), key_len};
  const datum dd{const_cast<void*>(data), data_len};
  const uint32_t rc = sdb_write(entry->uri, &kd, &dd);
  if (rc != 0) {
    plat_syslog(2, "SDB write fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  hadra::sdb::complete_write(entry, notify);
  if (entry->no_sync == 0) (void)hadra_ha_sync(entry, &kd, &dd, HADRA_SYNC_SDB_UPDATE);
  return 1;
}

HADRA_API int hadra_sdb_update_list(const hadra_ha_pss_entry* entry, const sdb_kv* list, uint32_t count) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  const uint32_t rc = sdb_write_list(entry->uri, list, count);
  if (rc != 0) {
    plat_syslog(2, "SDB write list fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  (void)hadra_sdb_update_notification(entry);
  if (entry->no_sync != 0) return 1;
  for (uint32_t i = 0; i < count; ++i)
    if (hadra::sdb::complete_entry(list[i])) (void)hadra_ha_sync(entry, list[i].key, list[i].data, HADRA_SYNC_SDB_UPDATE);
  return 1;
}

HADRA_API int hadra_sdb_update_batch(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count,
                                     uint32_t notify) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  if (!hadra::sdb::batch_sendable(entry, list, count)) return 0;
  const uint32_t rc = sdb_list_ops(entry->uri, list, count);
  if (rc != 0) {
    plat_syslog(2, "SDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  hadra::sdb::complete_write(entry, notify);
  if (entry->no_sync != 0) return 1;
  // The local change stands whatever happens from here on; without a buffer the standby is
  // not told.
  uint8_t* buf = hadra::sdb::batch_buffer("hadra_sdb_sync_batch");
  if (buf != nullptr) hadra::sdb::send_batches(entry, buf, list, count);
  return 1;
}

// The batch sits right after the sync header of its message; the header's data length
// bounds what may be read.
HADRA_API int hadra_sdb_update_batch_on_standby(const hadra_ha_pss_entry* entry, const void* batch) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* hdr = static_cast<const uint8_t*>(batch) - HADRA_SYNC_HDR_LEN;
  return hadra::sdb::apply_sdb_batch(entry, batch, hadra::sync::get_be16(hdr + 4));
}

}  // extern "C"
