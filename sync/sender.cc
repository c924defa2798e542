// The sync sender: the one path by which a change made on the active supervisor reaches the
// standby.
//
// Order of platform calls for one change (fixed; tests check it through the platform trace):
//
//   sysmgr_supstate_get        -> standby: stop here, nothing sent, result 0
//   mts_send                   -> header + key + data as one payload to the peer's same SAP
//   (mts_opc_name_get, mts_msg_id_get: only while a debug switch is on)
//   mts_ha_seqno_get           -> read from the reference before it is released
//   mts_drop                   -> release the sender's reference
//   sysmgr_seqno_sync          -> report the number for the entry's index, unless the client
//                                 registered for sequence-number status instead
//
// A failed sync never undoes the local change; callers ignore the result. Nothing here
// allocates or formats unless a report or a debug switch asks for it.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/diag.h"
#include "hadra/handle.h"
#include "hadra/sync.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "sync/send.h"
#include "wire/sync_msg.h"

namespace hadra::sync {
namespace {

// A range the 16-bit header fields cannot describe is refused before anything is sent:
// truncating the length would make the standby apply a different change.
bool ranges_fit(const hadra_ha_pss_entry* entry, const datum* key, const datum* data, uint32_t opcode) noexcept {
  const uint32_t key_len = key != nullptr ? key->dsize : 0;
  const uint32_t data_len = data != nullptr ? data->dsize : 0;
  if (key_len <= HADRA_SYNC_MAX_LEN && data_len <= HADRA_SYNC_MAX_LEN) return true;
  if (report_wanted(msg_error_HADRA_HA_SYNC)) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "sync of database %u opcode %u refused: key %u bytes, data %u bytes (most %u each)",
                  entry->index, opcode, key_len, data_len, HADRA_SYNC_MAX_LEN);
    report(msg_error_HADRA_HA_SYNC, static_cast<const char*>(text));
  }
  return false;
}

int report_seqno(uint8_t index, uint64_t seqno) noexcept {
  if ((hadra_ha_handle.flags & HADRA_HA_FLAG_SEQNO_STATUS) != 0) return 1;
  const int rc = sysmgr_seqno_sync(index, seqno);
  if (rc != 0) {
    report(msg_error_HADRA_HA_SEQNO_SYNC, hadra_syserr2str(static_cast<uint32_t>(rc), 0));
    return 0;
  }
  if (seqno == 0) return 1;
  HADRA_DBG("Sync message send to standby, seqno = %llu\n", static_cast<unsigned long long>(seqno));
  return 1;
}

}  // namespace

int send(const hadra_ha_pss_entry* entry, const datum* key, const datum* data, uint32_t sync_opcode) noexcept {
  mts_xbuf_desc desc;
  std::memset(&desc, 0, sizeof desc);
  desc.kind = MTS_XBUF_PIECES;

  if (entry == nullptr) return 0;
  if (sysmgr_supstate_get() == HADRA_SUP_STANDBY) return 0;
  if (!ranges_fit(entry, key, data, sync_opcode)) return 0;

  // The key always precedes the data; an absent range leaves its length 0 and no piece.
  mts_piece pieces[3] = {};
  uint32_t count = 0;
  uint32_t key_len = 0;
  uint32_t data_len = 0;
  if (key != nullptr) {
    key_len = key->dsize;
    pieces[count++] = {key->dptr, key->dsize};
  }
  if (data != nullptr) {
    data_len = data->dsize;
    pieces[count++] = {data->dptr, data->dsize};
  }
  desc.pieces = pieces;
  desc.count = count;
  const hadra_sync_hdr hdr = wire::make_hdr(entry->index, key_len, data_len, sync_opcode);

  const uint32_t sap = hadra_ha_handle.sap;
  const uint32_t opcode = hadra_ha_handle.opcode;
  mts_msg_ref ref;
  std::memset(&ref, 0, sizeof ref);
  if (mts_send(sap, HADRA_SYNC_PEER_ADDR, MTS_SAP_SAME, opcode, &hdr, HADRA_SYNC_HDR_LEN, &ref, 0, &desc) == -1) {
    report(msg_error_HADRA_HA_SYNC, static_cast<const char*>(std::strerror(errno)));
    return 0;
  }
  HADRA_DBG("MTS Send SAP: %d Opcode: %s(%d) MSG_ID: %x", static_cast<int>(sap), mts_opc_name_get(opcode),
            static_cast<int>(opcode), mts_msg_id_get(&ref));
  const uint64_t seqno = mts_ha_seqno_get(&ref);
  mts_drop(sap, &ref);
  return report_seqno(entry->index, seqno);
}

}  // namespace hadra::sync

extern "C" HADRA_API int hadra_ha_sync(const hadra_ha_pss_entry* entry, const datum* key, const datum* data,
                                       uint32_t sync_opcode) noexcept {
  return hadra::sync::send(entry, key, data, sync_opcode);
}
