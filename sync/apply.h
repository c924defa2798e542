// The standby dispatcher's apply table, filled by the stores.
//
// The dispatcher (sync/dispatch.cc) knows the wire format and the checks every sync message
// passes, but not how a change is applied: each store that owns a sync opcode registers, at
// static initialisation, the row that applies it, next to the code that makes the same change
// on the active supervisor:
//
//   HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_UPDATE, Target::kPssFile, apply_update, Callback::kDataKey);
//
// So the dispatcher never includes a store, and adding an opcode touches the wire format
// (include/hadra/types.h, wire/sync_msg.h's report texts) and the store that applies it.
// Registration only writes one row of a zero-initialised table, so it works whatever order
// the objects are initialised in. A row that no store registered leaves its opcode ignored.
#pragma once

#include <cstdint>

#include "hadra/registry.h"

namespace hadra::sync {

// A sync message that passed every check: its entry and the parts of its payload.
struct Change {
  hadra_ha_pss_entry* entry;
  uint8_t* key;  // payload + 12; also where a batch starts
  uint32_t key_len;
  uint8_t* data;  // payload + 12 + key_len
  uint32_t data_len;
};

// What the entry must be for the change to be applied.
enum class Target : uint8_t {
  kPssFile,  // its PSS file is open (pss_handle non-zero)
  kSdb,      // it is an SDB or MSDB
};

// What the sync callback is handed after a successful apply.
enum class Callback : uint8_t {
  kNone,
  kDataKey,  // (data, key, data_len, opcode)
  kKeyOnly,  // (null, key, data_len, opcode)
  kBatch,    // (batch, null, data_len, opcode)
};

// Applies one change; non-zero when applied. Reports its own failures.
using ApplyFn = int (*)(const Change&) noexcept;

struct ApplyRow {
  Target target;
  ApplyFn apply;  // null: no store registered the opcode
  Callback callback;
};

// The row registered for a sync opcode; a row with a null apply for unknown opcodes.
const ApplyRow& apply_row(uint32_t opcode) noexcept;

class ApplyRegistration {
 public:
  ApplyRegistration(uint32_t opcode, ApplyRow row) noexcept;
  ApplyRegistration(const ApplyRegistration&) = delete;
  ApplyRegistration& operator=(const ApplyRegistration&) = delete;
};

}  // namespace hadra::sync

#define HADRA_SYNC_APPLY_CAT2(a, b) a##b
#define HADRA_SYNC_APPLY_CAT(a, b) HADRA_SYNC_APPLY_CAT2(a, b)
#define HADRA_SYNC_APPLIER(opcode, target, fn, callback)                                       \
  static ::hadra::sync::ApplyRegistration HADRA_SYNC_APPLY_CAT(hadra_sync_applier_, __LINE__){ \
      opcode, ::hadra::sync::ApplyRow{target, fn, callback}}
