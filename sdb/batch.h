// The SDB store's side of batches: sending the batches its writers pack, and applying those
// that arrive on the standby. The bytes themselves are the wire format's (wire/batch.h).
#pragma once

#include <cstdint>

#include "hadra/sdb.h"
#include "wire/batch.h"

namespace hadra::sdb {

// Step 3 of the batch writers (batch_sync.cc): the records packed into the batch buffer and
// sent as SDB_BATCH_UPDATE (sdb_list_op) or MSDB_BATCH_UPDATE (sdb_mkey_op) messages. The
// list must have passed wire::unsendable(). step names the caller in the log line of a
// buffer that cannot be allocated, in which case the standby is not told.
void sync_batches(const hadra_ha_pss_entry* entry, const sdb_list_op* list, uint32_t count, const char* step) noexcept;
void sync_batches(const hadra_ha_pss_entry* entry, const sdb_mkey_op* list, uint32_t count, const char* step) noexcept;

// The standby's batch appliers (standby.cc), bounded by len, the bytes of the batch the
// caller may read (the sync header's data_len). The exported forms take len from the sync
// header that precedes the batch. Result 1 when applied, else 0.
int apply_sdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept;
int apply_msdb_batch(const hadra_ha_pss_entry* entry, const void* batch, uint32_t len) noexcept;

}  // namespace hadra::sdb
