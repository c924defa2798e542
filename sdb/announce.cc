// The create/delete notification: how an SDB's birth and end are announced to the peer
// supervisor (lifecycle.h). A lost notification leaves other processes with a stale view of
// the SDB, so its failures are always logged, whatever the debug switches.
#include <cerrno>
#include <cstring>

#include "core/mem.h"
#include "hadra/handle.h"
#include "hadra_platform/log.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sdb.h"
#include "sdb/lifecycle.h"

namespace hadra::sdb {
namespace {

constexpr char kNotifyFn[] = "hadra_create_del_notification";

// The extra-buffer descriptor of a delete notification: no pieces, and the two flag bytes
// that mark a store-change notification expecting no answer.
mts_xbuf_desc delete_descriptor() noexcept {
  mts_xbuf_desc d;
  std::memset(&d, 0, sizeof d);
  d.kind = MTS_XBUF_PIECES;
  d.notify = 1;
  d.no_reply = 1;
  return d;
}

int send_notification(const hadra_ha_pss_entry &entry, const void *buf, uint32_t size, bool is_create) noexcept {
  const mts_xbuf_desc desc = delete_descriptor();
  const int rc = mts_send(hadra_ha_handle.sap, MTS_ADDR_PEER, MTS_SAP_SAME, entry.cre_del_opcode, buf, size,
                          nullptr, 0, is_create ? nullptr : &desc);
  if (rc == 0) return 1;
  const int err = errno;
  syslog_log(PLAT_LOG_CRIT, "mts_send_notify() failed in  %s() - 0x%x(%s)", kNotifyFn, static_cast<unsigned>(err),
             std::strerror(err));
  return 0;
}

}  // namespace

int announce(const hadra_ha_pss_entry *entry, bool is_create) noexcept {
  if (entry == nullptr) return 0;
  const sdb_create_del_msg msg = {is_create ? SDB_NOTIFY_CREATE : SDB_NOTIFY_DELETE, entry->uri};
  uint32_t size = fu_sdb_create_del_msg_get_tlv_sz(&msg);
  // The encoder may grow the block: the owner frees whatever it holds in the end.
  HeapBlock buf(size);
  if (buf.get() == nullptr) {
    syslog_log(PLAT_LOG_CRIT, "malloc failed in %s()", kNotifyFn);
    return 0;
  }
  uint32_t elements = 0;
  if (fu_sdb_create_del_msg_to_tlv(&msg, buf.slot(), &size, 0, &elements, 1) != 0) {
    syslog_log(PLAT_LOG_CRIT, "fu_sdb_create_del_msg_to_tlv() failed in  %s()", kNotifyFn);
    return 0;
  }
  return send_notification(*entry, buf.get(), size, is_create);
}

}  // namespace hadra::sdb

extern "C" int hadra_create_del_notification(const hadra_ha_pss_entry *entry, int is_create) noexcept {
  return hadra::sdb::announce(entry, is_create != 0);
}
