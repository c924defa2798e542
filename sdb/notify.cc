// Completion of an SDB write and the update notification.
//
// After every write the platform's SDB layer holds a context for it (which SDB, which write
// generation, which key). On the active supervisor the library forwards that context to the
// peer as the whole payload of one message under the SDB's update_opcode, so that readers
// there can tell which change the notification describes. The message has no sync header;
// the dispatcher never parses it. On the standby the context is still asked for and filled
// (the platform expects the same calls on both sides) but nothing is sent.
//
//   sdb_get_context_len -> failure, or longer than our 100-byte buffer: nothing sent
//   sdb_set_context     -> failure: the buffer holds no context, nothing sent
//   sysmgr_supstate_get -> not active, or the SDB's update_opcode is 0 (registered
//                          without update notifications): nothing sent
//   mts_send + mts_drop
//   sdb_write_done      -> on every path: a write is never left uncompleted
#include <array>
#include <cerrno>
#include <cstring>

#include "core/diag.h"
#include "hadra/handle.h"
#include "hadra_platform/log.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "sdb/ops.h"

namespace hadra::sdb {
namespace {

using ContextBuf = std::array<uint8_t, HADRA_SDB_CONTEXT_BUF_SIZE>;
static_assert(SDB_CONTEXT_MAX <= HADRA_SDB_CONTEXT_BUF_SIZE, "the platform's context fits our buffer");

// The context as one notification message to the peer: no pieces, flagged as a store-change
// notification that expects no answer.
void send_context(const hadra_ha_pss_entry* entry, const ContextBuf& ctx, uint32_t len) noexcept {
  mts_xbuf_desc desc;
  std::memset(&desc, 0, sizeof desc);
  desc.kind = MTS_XBUF_PIECES;
  desc.notify = 1;
  desc.no_reply = 1;
  const uint32_t sap = hadra_ha_handle.sap;
  mts_msg_ref ref;
  std::memset(&ref, 0, sizeof ref);
  if (mts_send(sap, MTS_ADDR_PEER, MTS_SAP_SAME, entry->update_opcode, ctx.data(), len, &ref, 0, &desc) < 0) {
    plat_syslog(PLAT_LOG_CRIT, "mts-send failed. %d\n", errno);
    return;
  }
  mts_drop(sap, &ref);
}

// Length of the context of the entry's last write, or false when it cannot be had.
bool context_len(const hadra_ha_pss_entry* entry, uint32_t* len) noexcept {
  const uint32_t rc = sdb_get_context_len(entry->uri, len);
  if (rc != 0) {
    HADRA_DBG("ERROR, sdb_get_context_len %s\n", syserr2str(rc));
    return false;
  }
  if (*len > HADRA_SDB_CONTEXT_BUF_SIZE) {
    // Filling it would write past the buffer; sending part of it would mislead the reader.
    HADRA_DBG("ERROR, SDB context of %u bytes is longer than %u\n", *len, HADRA_SDB_CONTEXT_BUF_SIZE);
    return false;
  }
  return true;
}

}  // namespace

void complete_write(const hadra_ha_pss_entry* entry, uint32_t notify) noexcept {
  if (notify != 0)
    (void)update_notification(entry);
  else
    (void)sdb_write_done(entry->uri);
}

int update_notification(const hadra_ha_pss_entry* entry) noexcept {
  if (entry == nullptr) return 0;
  uint32_t len = 0;
  if (!context_len(entry, &len)) {
    (void)sdb_write_done(entry->uri);
    return 0;
  }
  ContextBuf ctx;
  const uint32_t rc = sdb_set_context(entry->uri, ctx.data());
  if (rc != 0)
    HADRA_DBG("ERROR, sdb_set_context %s\n", syserr2str(rc));
  else if (sysmgr_supstate_get() == HADRA_SUP_ACTIVE && entry->update_opcode != 0)
    send_context(entry, ctx, len);
  (void)sdb_write_done(entry->uri);
  return 1;
}

}  // namespace hadra::sdb

extern "C" int hadra_sdb_update_notification(const hadra_ha_pss_entry* entry) noexcept {
  return hadra::sdb::update_notification(entry);
}
