// SDB lifecycle: create, open, close and destroy an SDB or MSDB, destroy whatever is stored
// at a URI, and the create/delete notification that announces an SDB's birth and end.
//
// Life of an SDB as the library drives it:
//
//   registered --start-up--> destroyed + created (announced) + opened read-write, or
//                            opened with its old contents after a stateful restart
//              --writes----> updates and their notifications (other files)
//              --disable---> closed, destruction begun, delete announced, destruction done
//
// Nothing here reads or changes an entry's HA state or asks the supervisor state: both
// supervisors create, open and destroy their SDBs the same way, and the notifications leave
// from whichever supervisor acts. Failures are debug lines only (the SDB library's own
// errors are for developers), except the notification's, which are always logged: a lost
// notification leaves other processes with a stale view of the SDB.
#include "sdb/lifecycle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/diag.h"
#include "hadra/handle.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"

namespace hadra::sdb {
namespace {

constexpr char kNotifyFn[] = "hadra_create_del_notification";

const char *err_text(uint32_t code) noexcept {
  const char *t = syserr2str(code);
  return t != nullptr ? t : "unknown error";
}

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
  syslog_log(2, "mts_send_notify() failed in  %s() - 0x%x(%s)", kNotifyFn, static_cast<unsigned>(err),
             std::strerror(err));
  return 0;
}

int notify(const hadra_ha_pss_entry *entry, bool is_create) noexcept {
  if (entry == nullptr) return 0;
  const sdb_create_del_msg msg = {is_create ? SDB_NOTIFY_CREATE : SDB_NOTIFY_DELETE, entry->uri};
  uint32_t size = fu_sdb_create_del_msg_get_tlv_sz(&msg);
  void *buf = std::malloc(size);
  if (buf == nullptr) {
    syslog_log(2, "malloc failed in %s()", kNotifyFn);
    return 0;
  }
  int result = 0;
  uint32_t elements = 0;
  if (fu_sdb_create_del_msg_to_tlv(&msg, &buf, &size, 0, &elements, 1) != 0)
    syslog_log(2, "fu_sdb_create_del_msg_to_tlv() failed in  %s()", kNotifyFn);
  else
    result = send_notification(*entry, buf, size, is_create);
  std::free(buf);  // the encoder may have grown it: free what it left in buf
  return result;
}

int create(hadra_ha_pss_entry *entry) noexcept {
  if (entry == nullptr) return 0;
  const uint32_t flags = entry->is_msdb != 0 ? SDB_CREATE_MSDB : SDB_CREATE_SDB;
  uint32_t rc = sdb_create(entry->uri, flags, sysmgr_uuid_get_before_handshake(), 0);
  // An SDB that is already there is announced and registered like a new one: its other
  // users learn that this client (re)started with it.
  if (rc != 0 && rc != PLAT_ERR_SDB_EXISTS) {
    HADRA_DBG("ERROR: Could not create SDB %s (%s)\n", entry->uri, err_text(rc));
    return 0;
  }
  if (notify(entry, true) == 0) return 0;
  rc = sdb_register(&entry->update_opcode, 1);
  if (rc != 0) {
    HADRA_DBG("ERROR: Could not register sdb opcode, rc=0x%x [%s]\n", rc, err_text(rc));
    return 0;
  }
  return 1;
}

int open(const char *uri, int read_write) noexcept {
  if (uri == nullptr) return 0;
  const uint32_t rw_flag = read_write != 0 ? SDB_OPEN_RW : SDB_OPEN_READ;
  const uint32_t uuid = sysmgr_uuid_get_before_handshake();
  uint32_t rc = sdb_open(uri, rw_flag, uuid, 0, 0);
  if (rc == PLAT_ERR_SDB_ALREADY_OPEN) return 1;  // ours already; recovered when it was first opened
  if (rc != 0) {
    HADRA_DBG("ERROR: Could not open SDB %s (%s), rw_flag %d, uuid %d\n", uri, err_text(rc),
              static_cast<int>(rw_flag), static_cast<int>(uuid));
    return 0;
  }
  if (read_write == 0) return 1;
  rc = sdb_recover(hadra_ha_handle.sap);
  if (rc != 0) {
    HADRA_DBG("ERROR: Could not recover SDB %s (%s)\n", uri, err_text(rc));
    return 0;
  }
  return 1;
}

int close(const char *uri) noexcept {
  if (uri == nullptr) return 0;
  const uint32_t rc = sdb_close(uri);
  if (rc == 0) return 1;
  HADRA_DBG("ERROR: Could not close SDB %s (%s)\n", uri, err_text(rc));
  return 0;
}

// The delete notification sits between the two halves of the destruction so that no
// process can open the SDB any more once others hear that it is gone. Failures of the
// first half are told and passed over: destroying an SDB that is not open, or that a
// crash left half destroyed, must still end with it gone.
int destroy(hadra_ha_pss_entry *entry) noexcept {
  if (entry == nullptr) return 0;
  uint32_t rc = sdb_close(entry->uri);
  if (rc != 0) HADRA_DBG("WARNING: Failed to close SDB %s (%s)\n", entry->uri, err_text(rc));
  rc = sdb_destroy_begin(entry->uri);
  if (rc != 0) HADRA_DBG("ERROR: sdb_destroy_begin(%s) (%s)\n", entry->uri, err_text(rc));
  if (notify(entry, false) == 0) return 0;
  rc = sdb_destroy_done(entry->uri, hadra_ha_handle.sap, entry->cre_del_opcode);
  if (rc != 0) HADRA_DBG("ERROR: sdb_destroy_done(%s) (%s)\n", entry->uri, err_text(rc));
  return 1;
}

int uri_destroy(const char *uri) noexcept {
  if (uri == nullptr) {
    HADRA_DBG("ERROR: hadra sdb destroy uri is null");
    return 0;
  }
  uint32_t other = 0;
  uint32_t rc = 0;
  const uint32_t type = pss2_get_psstype(uri, &other, &rc);
  if (rc != 0) {
    HADRA_DBG("ERROR: pss get type failed for %s uri with rc=%s\n", uri, err_text(rc));
    return 0;
  }
  if (type == PSS2_TYPE_PSS2) {
    rc = pss2_destroy(uri);
    if (rc != 0) {
      HADRA_DBG("ERROR: pss2(type %d) %s destroy failed with rc=%s\n", static_cast<int>(PSS2_TYPE_PSS2), uri,
                err_text(rc));
      return 0;
    }
    return 1;
  }
  rc = sdb_destroy(uri);
  if (rc != 0) {
    HADRA_DBG("ERROR: sdb(type %d) %s destroy failed with rc=%s\n", static_cast<int>(type), uri, err_text(rc));
    return 0;
  }
  return 1;
}

}  // namespace

void release(const char *uri) noexcept {
  if (uri != nullptr) (void)sdb_close(uri);
}

}  // namespace hadra::sdb

extern "C" {

int hadra_create_del_notification(const hadra_ha_pss_entry *entry, int is_create) noexcept {
  return hadra::sdb::notify(entry, is_create != 0);
}

HADRA_API int hadra_sdb_create(hadra_ha_pss_entry *entry) noexcept { return hadra::sdb::create(entry); }

HADRA_API int hadra_sdb_open(const char *uri, int read_write) noexcept { return hadra::sdb::open(uri, read_write); }

HADRA_API int hadra_sdb_close(const char *uri) noexcept { return hadra::sdb::close(uri); }

HADRA_API int hadra_sdb_destroy(hadra_ha_pss_entry *entry) noexcept { return hadra::sdb::destroy(entry); }

HADRA_API int hadra_sdb_uri_destroy(const char *uri) noexcept { return hadra::sdb::uri_destroy(uri); }

}  // extern "C"
