// The standby's side of SDB and MSDB changes: the appliers of the sync messages that the
// active's writers send, registered in the dispatcher's apply table.
//
//   SDB_UPDATE (4)         the active's single-record writer, completed with the update
//                          notification (which sends nothing on the standby)
//   SDB_DELETE (5)         the active's single-key delete, likewise
//   SDB_BATCH_UPDATE (8)   the records rebuilt into an sdb_list_op list, one sdb_list_ops
//   MSDB_BATCH_UPDATE (9)  the records rebuilt into an sdb_mkey_op list, one
//                          sdb_write_mkey_list
//
// A batch is read by the bounded reader of wire/batch.h, which never reads past the bytes the
// sync header describes. The rebuilt list points into the received message: keys, values and
// secondary keys are never copied. A tag travels as 16 bits and is read back widened with its
// sign, so 0x8001 arrives as 0xffff8001; the platform keeps only the low 16 bits of a tag, so
// both name the same index. An op travels the same way (wire/batch.h says which ops arrive
// as they left).
#include "core/mem.h"
#include "hadra/sdb.h"
#include "hadra_platform/log.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "sdb/batch.h"
#include "sdb/ops.h"
#include "sync/apply.h"
#include "wire/sync_msg.h"

namespace hadra::sdb {
namespace {

using wire::BatchSink;
using wire::RecordView;
using wire::SkeyView;

constexpr const char* kSdbBatch = "hadra_sdb_update_batch_on_standby";
constexpr const char* kMsdbBatch = "hadra_msdb_update_batch_on_standby";

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

// Rebuilds the list of a batch already walked once (total secondary keys known) and writes
// it. 1 when written; 0 when an allocation failed (nothing written) or the write failed.
int rebuild_and_write(const hadra_ha_pss_entry* entry, const uint8_t* batch, uint32_t len, uint32_t count,
                      uint64_t total_skeys) noexcept {
  HeapArray<sdb_mkey_op> list = heap_array<sdb_mkey_op>(count);
  if (list == nullptr) {
    plat_syslog(PLAT_LOG_CRIT, "%s: list alloc failed", kMsdbBatch);
    return 0;
  }
  HeapArray<sdb_skey> skeys = heap_array<sdb_skey>(total_skeys);
  // Datums: key and value per record, one per secondary key.
  HeapArray<datum> datums = heap_array<datum>(2 * uint64_t{count} + total_skeys);
  if (skeys == nullptr || datums == nullptr) {
    plat_syslog(PLAT_LOG_CRIT, "%s: secondary-key alloc failed", kMsdbBatch);
    return 0;
  }
  MkeyListSink sink(list.get(), datums.get(), skeys.get(), datums.get() + 2 * uint64_t{count});
  (void)wire::walk_batch(batch, len, true, &sink);  // the first pass found it whole
  const uint32_t rc = sdb_write_mkey_list(entry->uri, list.get(), count);
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "%s: MSDB write batch fail, rc=0x%x [%s]\n", kMsdbBatch, rc, syserr2str(rc));
    return 0;
  }
  (void)hadra::sdb::update_notification(entry);
  return 1;
}

}  // namespace

int apply_sdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* bytes = static_cast<const uint8_t*>(batch);
  const uint32_t count = wire::batch_count(bytes, len);
  if (count == 0) {
    plat_syslog(PLAT_LOG_CRIT, "%s: malformed batch of %u bytes\n", kSdbBatch, len);
    return 0;
  }
  HeapArray<sdb_list_op> list = heap_array<sdb_list_op>(count);
  if (list == nullptr) {
    plat_syslog(PLAT_LOG_CRIT, "%s: list alloc failed", kSdbBatch);
    return 0;
  }
  HeapArray<datum> datums = heap_array<datum>(2 * uint64_t{count});
  if (datums == nullptr) {
    plat_syslog(PLAT_LOG_CRIT, "%s: datum alloc failed", kSdbBatch);
    return 0;
  }
  SdbListSink sink(list.get(), datums.get());
  if (!wire::walk_batch(bytes, len, false, &sink)) {
    plat_syslog(PLAT_LOG_CRIT, "%s: malformed batch of %u bytes\n", kSdbBatch, len);
    return 0;
  }
  const uint32_t rc = sdb_list_ops(entry->uri, list.get(), count);
  if (rc != 0) {
    plat_syslog(PLAT_LOG_CRIT, "%s: SDB write batch fail, rc=0x%x [%s]\n", kSdbBatch, rc, syserr2str(rc));
    return 0;
  }
  (void)hadra::sdb::update_notification(entry);
  return 1;
}

int apply_msdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  const auto* bytes = static_cast<const uint8_t*>(batch);
  SkeyCounter counter;
  if (!wire::walk_batch(bytes, len, true, &counter)) {
    plat_syslog(PLAT_LOG_CRIT, "%s: malformed batch of %u bytes\n", kMsdbBatch, len);
    return 0;
  }
  return rebuild_and_write(entry, bytes, len, wire::batch_count(bytes, len), counter.total);
}

namespace {

using sync::Callback;
using sync::Change;
using sync::Target;

// The standby completes SDB writes with the update notification (which sends nothing there).
int apply_update(const Change& c) noexcept { return update(c.entry, c.key, c.key_len, c.data, c.data_len, 1); }
int apply_delete(const Change& c) noexcept { return remove(c.entry, c.key, c.key_len, 1); }
// A batch starts right after the header and is data_len bytes long (its senders put no key
// before it); the bounded appliers read nothing beyond that.
int apply_batch(const Change& c) noexcept { return apply_sdb_batch(c.entry, c.key, c.data_len); }
int apply_mkey_batch(const Change& c) noexcept { return apply_msdb_batch(c.entry, c.key, c.data_len); }

HADRA_SYNC_APPLIER(HADRA_SYNC_SDB_UPDATE, Target::kSdb, apply_update, Callback::kDataKey);
HADRA_SYNC_APPLIER(HADRA_SYNC_SDB_DELETE, Target::kSdb, apply_delete, Callback::kKeyOnly);
HADRA_SYNC_APPLIER(HADRA_SYNC_SDB_BATCH_UPDATE, Target::kSdb, apply_batch, Callback::kBatch);
HADRA_SYNC_APPLIER(HADRA_SYNC_MSDB_BATCH_UPDATE, Target::kSdb, apply_mkey_batch, Callback::kNone);

}  // namespace
}  // namespace hadra::sdb

// The exported forms get the batch alone: it sits right after the sync header of its
// message, whose data length bounds what may be read.
extern "C" {

HADRA_API int hadra_sdb_update_batch_on_standby(const hadra_ha_pss_entry* entry, const void* batch) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  return hadra::sdb::apply_sdb_batch(entry, batch, hadra::wire::data_len_before(batch));
}

HADRA_API int hadra_msdb_update_batch_on_standby(const hadra_ha_pss_entry* entry, const void* batch) noexcept {
  if (entry == nullptr || batch == nullptr) return 0;
  return hadra::sdb::apply_msdb_batch(entry, batch, hadra::wire::data_len_before(batch));
}

}  // extern "C"
