// The sync sender as the rest of the library calls it; hadra_ha_sync() is its exported face
// for clients. Order of platform calls and results: sync/sender.cc.
#pragma once

#include <cstdint>

#include "hadra/registry.h"

namespace hadra::sync {

// Send one change of entry to the standby: 1 when sent (and its sequence number reported
// where required); 0 for a null entry, on the standby, when a range is longer than
// HADRA_SYNC_MAX_LEN, or when the send or the report failed. Never undoes the local change.
int send(const hadra_ha_pss_entry* entry, const datum* key, const datum* data, uint32_t opcode) noexcept;

// Printable form of the first bytes of buf for debug lines, in a static buffer that the next
// call overwrites (as hadra_ha_dump_buf).
const char* dump_buf(const void* buf, uint32_t len) noexcept;

}  // namespace hadra::sync
