// MSDB batch updates: multi-key list writes, repeated on the standby as MSDB_BATCH_UPDATE
// messages (opcode 9) packed in the shared batch buffer, and their application there.
//
// An MSDB record carries its value and its secondary keys (each a byte string with a 16-bit
// tag naming the index it belongs to). The batch layout and the sender's refusals are in
// batch.h. On the standby the list is rebuilt with every datum pointing into the received
// message: keys, values and secondary keys are never copied. A tag travels as 16 bits and
// is read back widened with its sign, so 0x8001 arrives as 0xffff8001; the platform keeps
// only the low 16 bits of a tag, so both name the same index.
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

constexpr const char* kStandbyBatch = "hadra_msdb_update_batch_on_standby";

// First pass over a received batch: how many secondary keys it holds in all.
class SkeyCounter final : public BatchSink {
 public:
  void record(uint32_t, const RecordView& r) noexcept override { total += r.skey_count; }
  void skey(uint32_t, uint32_t, const SkeyView&) noexcept override {}
  uint64_t total = 0;
};

// Second pass: fills the list, its datums and its secondary-key arrays.
class MkeyListSink final : public BatchSink {
 public:
  MkeyListSink(sdb_mkey_op* list, datum* datums, sdb_skey* skeys, datum* skey_datums) noexcept
      : list_(list), datums_(datums), skeys_(skeys), skey_datums_(skey_datums) {}

  void record(uint32_t i, const RecordView& r) noexcept override {
    datum* key = &datums_[2 * i];
    *key = {const_cast<uint8_t*>(r.key), r.key_len};
    datum* data = nullptr;
    if (r.has_data && r.data_len != 0) {
      data = key + 1;
      *data = {const_cast<uint8_t*>(r.data), r.data_len};
    }
    base_ = next_;
    next_ += r.skey_count;
    sdb_skey* skeys = r.skey_count != 0 ? &skeys_[base_] : nullptr;
    list_[i] = {key, data, skeys, static_cast<int32_t>(r.skey_count), r.op};
  }
  void skey(uint32_t, uint32_t j, const SkeyView& s) noexcept override {
    datum* d = &skey_datums_[base_ + j];
    *d = {const_cast<uint8_t*>(s.key), s.len};
    skeys_[base_ + j] = {d, s.tag};
  }

 private:
  sdb_mkey_op* list_;
  datum* datums_;
  sdb_skey* skeys_;
  datum* skey_datums_;
  uint64_t base_ = 0;
  uint64_t next_ = 0;
};

bool batch_sendable(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count) noexcept {
  if (entry->no_sync != 0) return true;
  uint32_t bad = 0;
  const char* why = unsendable(list, count, &bad);
  if (why == nullptr) return true;
  plat_syslog(2, "MSDB write batch refused for %s: record %u: %s\n", entry->uri, bad, why);
  return false;
}

// Rebuilds the list of a batch already walked once (total secondary keys known) and writes
// it. 1 when written; 0 when an allocation failed (nothing written) or the write failed.
int rebuild_and_write(const hadra_ha_pss_entry* entry, const uint8_t* batch, uint32_t len, uint32_t count,
                      uint64_t total_skeys) noexcept {
  auto* list = static_cast<sdb_mkey_op*>(std::malloc(sizeof(sdb_mkey_op) * count));
  if (list == nullptr) {
    plat_syslog(2, "%s: list alloc failed", kStandbyBatch);
    return 0;
  }
  // One block for every secondary-key element and every datum (key and value per record,
  // one per secondary key).
  const size_t block = sizeof(sdb_skey) * total_skeys + sizeof(datum) * (2 * uint64_t{count} + total_skeys);
  void* mem = std::malloc(block);
  if (mem == nullptr) {
    std::free(list);
    return 0;
  }
  auto* skeys = static_cast<sdb_skey*>(mem);
  auto* datums = reinterpret_cast<datum*>(skeys + total_skeys);
  MkeyListSink sink(list, datums, skeys, datums + 2 * uint64_t{count});
  (void)walk_batch(batch, len, true, &sink);  // the first pass found it whole
  const uint32_t rc = sdb_write_mkey_list(entry->uri, list, count);
  if (rc != 0)
    plat_syslog(2, "%s: MSDB write batch fail, rc=0x%x [%s]\n", kStandbyBatch, rc, syserr2str(rc));
  else
    (void)hadra_sdb_update_notification(entry);
  std::free(mem);
  std::free(list);
  return rc == 0 ? 1 : 0;
}

}  // namespace

int apply_msdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* bytes = static_cast<const uint8_t*>(batch);
  SkeyCounter counter;
  if (!walk_batch(bytes, len, true, &counter)) {
    plat_syslog(2, "%s: malformed batch of %u bytes\n", kStandbyBatch, len);
    return 0;
  }
  return rebuild_and_write(entry, bytes, len, batch_count(bytes, len), counter.total);
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_msdb_update_batch(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count,
                                      uint32_t notify) noexcept {
  if (entry == nullptr || list == nullptr || count == 0) return 0;
  if (!hadra::sdb::batch_sendable(entry, list, count)) return 0;
  const uint32_t rc = sdb_write_mkey_list(entry->uri, list, count);
  if (rc != 0) {
    HADRA_DBG("ERROR: MSDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    plat_syslog(2, "MSDB write batch fail, rc=0x%x [%s]\n", rc, syserr2str(rc));
    return 0;
  }
  hadra::sdb::complete_write(entry, notify);
  if (entry->no_sync != 0) return 1;
  uint8_t* buf = hadra::sdb::batch_buffer("hadra_msdb_sync_batch");
  if (buf != nullptr) hadra::sdb::send_batches(entry, buf, list, count);
  return 1;
}

HADRA_API int hadra_sdb_update_mkey(const hadra_ha_pss_entry* entry, const datum* key, const datum* data,
                                    const sdb_skey* skeys, int32_t skey_count, uint32_t notify) noexcept {
  if (entry == nullptr || key == nullptr || data == nullptr) return 0;
  const sdb_mkey_op op{const_cast<datum*>(key), const_cast<datum*>(data), const_cast<sdb_skey*>(skeys), skey_count,
                       0};
  return hadra_msdb_update_batch(entry, &op, 1, notify);
}

// As for SDB batches, the sync header in front of the batch bounds what may be read.
HADRA_API int hadra_msdb_update_batch_on_standby(const hadra_ha_pss_entry* entry, const void* batch) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* hdr = static_cast<const uint8_t*>(batch) - HADRA_SYNC_HDR_LEN;
  return hadra::sdb::apply_msdb_batch(entry, batch, hadra::sync::get_be16(hdr + 4));
}

}  // extern "C"
