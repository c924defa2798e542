// The database registry as the rest of the library sees it.
//
// hadra_ha_pss (include/hadra/registry.h) holds entries 0 to 10; only 1 to 10 are ever
// registered, and every walk visits them in ascending order (registry_entries()). An entry
// whose `uri` is empty is free or disabled. hadra_ha_pss_cb holds the sync callback given
// at registration of each index; the standby dispatcher calls it after applying a message.
#pragma once

#include <cstdint>
#include <span>

#include "hadra/registry.h"

extern "C" {
// Sync callbacks by registry index (16 slots, only 1 to 10 are ever set). Library-internal.
extern hadra_ha_sync_cb_fn hadra_ha_pss_cb[16];
}

namespace hadra {

constexpr uint32_t kFirstIndex = 1;
constexpr uint32_t kLastIndex = HADRA_HA_MAX_DB;

inline bool valid_index(uint32_t index) noexcept { return index >= kFirstIndex && index <= kLastIndex; }

// Entries 1 to 10, in the order every walk over the registry uses.
inline std::span<hadra_ha_pss_entry, HADRA_HA_MAX_DB> registry_entries() noexcept {
  return std::span<hadra_ha_pss_entry, HADRA_HA_MAX_DB>(hadra_ha_pss + kFirstIndex, HADRA_HA_MAX_DB);
}

// The entry of a registry index, or null outside 1..10 (for instance an index read from a
// received message).
inline hadra_ha_pss_entry *entry_at(uint32_t index) noexcept {
  return valid_index(index) ? &hadra_ha_pss[index] : nullptr;
}

inline bool entry_in_use(const hadra_ha_pss_entry &e) noexcept { return e.uri[0] != '\0'; }

// The sync callback registered for index, or null (none, or index outside the table).
inline hadra_ha_sync_cb_fn sync_callback(uint32_t index) noexcept {
  return index < sizeof hadra_ha_pss_cb / sizeof hadra_ha_pss_cb[0] ? hadra_ha_pss_cb[index] : nullptr;
}

// The entry's HA state as text, as hadra_ha_state_str.
const char *state_text(const hadra_ha_pss_entry *entry) noexcept;

// The end of every disabling, whatever the kind: state HADRA_HA_DISABLE and an empty uri,
// which every later walk over the registry passes over.
void mark_disabled(hadra_ha_pss_entry &entry) noexcept;

}  // namespace hadra
