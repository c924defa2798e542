// The batch buffer and the sending of packed batches: step 3 of the SDB and MSDB batch
// writers (ops.h). The packing itself is the wire format's (wire/batch.h).
#include <cstdlib>

#include "core/reset.h"
#include "hadra/sdb.h"
#include "hadra_platform/log.h"
#include "sdb/batch.h"
#include "sdb/ops.h"
#include "sync/send.h"

HADRA_API uint8_t* hadra_sdb_sync_buf = nullptr;
HADRA_API uint8_t* hadra_msdb_sync_buf = nullptr;

namespace hadra::sdb {
namespace {

// The buffer lives for the life of the process; tests return the library to its load state.
void reset_batch_buffer() noexcept {
  std::free(hadra_sdb_sync_buf);
  hadra_sdb_sync_buf = nullptr;
}
HADRA_RESET_HOOK(reset_batch_buffer);

// The batch buffer (hadra_sdb_sync_buf), allocated on first use. Null when it cannot be
// allocated; the failure is logged at level 2 naming step.
uint8_t* batch_buffer(const char* step) noexcept {
  if (hadra_sdb_sync_buf == nullptr) {
    hadra_sdb_sync_buf = static_cast<uint8_t*>(std::malloc(wire::kBatchBufSize));
    if (hadra_sdb_sync_buf == nullptr) plat_syslog(PLAT_LOG_CRIT, "malloc failed in %s", step);
  }
  return hadra_sdb_sync_buf;
}

// Each full batch becomes one sync message of the entry under the batch opcode.
class SyncOut final : public wire::BatchOut {
 public:
  SyncOut(const hadra_ha_pss_entry* entry, uint32_t opcode) noexcept : entry_(entry), opcode_(opcode) {}
  void flush(uint8_t* buf, uint32_t len) noexcept override {
    datum data{buf, len};
    (void)sync::send(entry_, nullptr, &data, opcode_);
  }

 private:
  const hadra_ha_pss_entry* entry_;
  uint32_t opcode_;
};

template <class Op>
void sync_list(const hadra_ha_pss_entry* entry, const Op* list, uint32_t count, uint32_t opcode,
               const char* step) noexcept {
  // The local change stands whatever happens from here on; without a buffer the standby is
  // not told.
  uint8_t* buf = batch_buffer(step);
  if (buf == nullptr) return;
  SyncOut out(entry, opcode);
  wire::encode_batches(buf, list, count, &out);
}

}  // namespace

void sync_batches(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count, const char* step) noexcept {
  sync_list(entry, list, count, HADRA_SYNC_SDB_BATCH_UPDATE, step);
}

void sync_batches(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count, const char* step) noexcept {
  sync_list(entry, list, count, HADRA_SYNC_MSDB_BATCH_UPDATE, step);
}

}  // namespace hadra::sdb
