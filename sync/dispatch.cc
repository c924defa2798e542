// The standby dispatcher: the receiving end of the sync protocol.
//
// The client hands every MTS message it receives to hadra_ha_dispatch(). A sync message (the
// client's sync opcode as MTS opcode, sync event 2) names a registry index and a change; the
// dispatcher applies that change to the standby's copy with the very operation that made it
// on the active supervisor, found in the apply table that the stores fill (sync/apply.h),
// then tells the client through the index's sync callback. The
// operations try to sync the change on; the sender refuses on the standby, so nothing echoes.
//
//   read event, MTS opcode, payload, size   (always all four, in this order)
//   MTS opcode not the client's             -> -1, silently: not ours
//   debug line "Received MTS sync message"  (before the event is looked at)
//   event not 2                             -> 0
//   no payload                              -> 0, debug line "without payload"
//   sync opcode 0 or above 10               -> 0, silently
//   index outside 1..10, header lengths     -> 0, invalid-index report (opcode text, index)
//   beyond the payload, entry of the wrong
//   kind (PSS opcode without an open file,
//   SDB opcode on a non-SDB entry)
//   apply; on success the row's callback    -> 0
//
// The message is trusted for nothing: the index selects an entry only inside 1..10, and every
// byte handed on (key, data, batch) lies inside the received payload. Batches are applied by
// the SDB subsystem's bounded readers, which stop at the end of the bytes the header
// describes. The dispatcher keeps no state and neither drops nor answers the message.
#include <cstdint>

#include "core/diag.h"
#include "core/registry.h"
#include "hadra/handle.h"
#include "hadra/sync.h"
#include "hadra_platform/mts.h"
#include "sync/apply.h"
#include "wire/sync_msg.h"

namespace hadra::sync {
namespace {

using wire::decode;
using wire::Decoded;
using wire::DecodeResult;
using wire::opcode_report_text;

constexpr uint32_t kLastOpcode = HADRA_SYNC_PSS_PURGE;

// One row per sync opcode, indexed by it; row 0 is never used (opcode 0 is ignored). Zero
// before any store registers (constant-initialised): an unregistered opcode is ignored.
constinit ApplyRow g_rows[kLastOpcode + 1] = {};

bool entry_fits(const hadra_ha_pss_entry& e, Target t) noexcept {
  return t == Target::kPssFile ? e.pss_handle != 0 : e.db_type == HADRA_DB_SDB;
}

void notify_client(const ApplyRow& row, const Change& c, uint8_t index, uint32_t opcode) noexcept {
  const hadra_ha_sync_cb_fn cb = sync_callback(index);
  if (cb == nullptr) return;
  switch (row.callback) {
    case Callback::kDataKey:
      cb(c.data, c.key, c.data_len, opcode);
      return;
    case Callback::kKeyOnly:
      cb(nullptr, c.key, c.data_len, opcode);
      return;
    case Callback::kBatch:
      cb(c.key, nullptr, c.data_len, opcode);
      return;
    case Callback::kNone:
      return;
  }
}

// Refuses what cannot be applied, with the report the operator knows for a database that is
// not there: the opcode's text and the index as received.
void refuse(uint32_t opcode, uint8_t index) noexcept {
  report(msg_error_HADRA_HA_INVALID_INDEX, opcode_report_text(opcode), static_cast<int>(index));
}

// Steps after the payload is known to hold a header with a valid sync opcode.
void dispatch_change(uint8_t* payload, uint32_t size) noexcept {
  Decoded d;
  const DecodeResult fit = decode(payload, size, &d);
  const ApplyRow& row = g_rows[d.opcode];
  if (row.apply == nullptr) return;
  hadra_ha_pss_entry* entry = entry_at(d.db_index);
  if (entry == nullptr || fit != DecodeResult::kOk || !entry_fits(*entry, row.target)) {
    refuse(d.opcode, d.db_index);
    return;
  }
  uint8_t* const key = payload + HADRA_SYNC_HDR_LEN;
  const Change c{entry, key, d.key_len, key + d.key_len, d.data_len};
  if (row.apply(c) != 0 && row.callback != Callback::kNone) notify_client(row, c, d.db_index, d.opcode);
}

}  // namespace

const ApplyRow& apply_row(uint32_t opcode) noexcept {
  static constexpr ApplyRow kNoRow{Target::kSdb, nullptr, Callback::kNone};
  return opcode <= kLastOpcode ? g_rows[opcode] : kNoRow;
}

ApplyRegistration::ApplyRegistration(uint32_t opcode, ApplyRow row) noexcept {
  if (opcode >= 1 && opcode <= kLastOpcode) g_rows[opcode] = row;
}

}  // namespace hadra::sync

extern "C" HADRA_API int hadra_ha_dispatch(const mts_msg_ref* msg) noexcept {
  using namespace hadra::sync;
  if (msg == nullptr) return -1;
  const int event = mts_sync_event_get(msg);
  const uint32_t opcode = mts_opc_get(msg);
  auto* const payload = static_cast<uint8_t*>(mts_payload_get(msg));
  const uint32_t size = mts_payload_size(msg);

  if (opcode != hadra_ha_handle.opcode) return -1;
  HADRA_DBG("Received MTS sync message, opcde %d, event %d, len %d\n", static_cast<int>(opcode), event,
            static_cast<int>(size));
  if (event != MTS_SYNC_EVENT_UPDATE) return 0;
  // A payload too short for a header carries no change: like one without payload.
  if (payload == nullptr || size < HADRA_SYNC_HDR_LEN) {
    HADRA_DBG("Sync update message without payload\n");
    return 0;
  }
  const uint32_t sync_opcode = hadra::wire::get_be32(payload + 8);
  if (sync_opcode == 0 || sync_opcode > kLastOpcode) return 0;
  dispatch_change(payload, size);
  return 0;
}
