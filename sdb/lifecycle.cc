// SDB lifecycle: create, open, close and destroy an SDB or MSDB, and its start-up and
// disabling as a registered database. The create/delete notification is in announce.cc;
// destroying whatever is stored at a URI is with the PSS files (pss/file.cc), whose type
// query tells a PSS file from an SDB.
//
// Life of an SDB as the library drives it:
//
//   registered --start-up--> destroyed + created (announced) + opened read-write, or
//                            opened with its old contents after a stateful restart
//              --writes----> updates and their notifications (other files)
//              --disable---> closed, destruction begun, delete announced, destruction done
//
// Create, open, close and destroy neither read nor change an entry's HA state nor ask the
// supervisor state (only the start-up sets the state it reached): both supervisors create,
// open and destroy their SDBs the same way, and the notifications leave
// from whichever supervisor acts. Failures are debug lines only (the SDB library's own
// errors are for developers), except the notification's, which are always logged: a lost
// notification leaves other processes with a stale view of the SDB.
#include "sdb/lifecycle.h"

#include "core/diag.h"
#include "hadra/handle.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"
#include "sync/send.h"

namespace hadra::sdb {
namespace {

const char *err_text(uint32_t code) noexcept {
  const char *t = syserr2str(code);
  return t != nullptr ? t : "unknown error";
}

}  // namespace

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
  if (announce(entry, true) == 0) return 0;
  // Update opcode 0 means the SDB sends no update notifications: there is nothing to
  // register, and the platform refuses opcode 0.
  if (entry->update_opcode == 0) return 1;
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
  if (announce(entry, false) == 0) return 0;
  rc = sdb_destroy_done(entry->uri, hadra_ha_handle.sap, entry->cre_del_opcode);
  if (rc != 0) HADRA_DBG("ERROR: sdb_destroy_done(%s) (%s)\n", entry->uri, err_text(rc));
  return 1;
}

void release(const char *uri) noexcept {
  if (uri != nullptr) (void)sdb_close(uri);
}

bool start_stateful(hadra_ha_pss_entry &e) noexcept {
  if (open(e.uri, 1) == 0) return false;
  e.state = HADRA_HA_RECOVER;
  return true;
}

bool start_stateless(hadra_ha_pss_entry &e) noexcept {
  (void)destroy(&e);
  if (create(&e) == 0) {
    HADRA_DBG("Failed to create %s", e.uri);
    HADRA_DBG("PSS initialization failed");
    return false;
  }
  if (open(e.uri, 1) == 0) {
    HADRA_DBG("Failed to open %s", e.uri);
    // An open whose recovery failed stays open, and a database that did not start is
    // never disabled: without this it would stay open in the process for good.
    release(e.uri);
    HADRA_DBG("PSS initialization failed");
    return false;
  }
  e.state = HADRA_HA_ACTIVE;
  return true;
}

void disable(hadra_ha_pss_entry &e) noexcept {
  (void)destroy(&e);
  (void)sync::send(&e, nullptr, nullptr, HADRA_SYNC_SDB_DESTROY);
}

}  // namespace hadra::sdb

extern "C" {

HADRA_API int hadra_sdb_create(hadra_ha_pss_entry *entry) noexcept { return hadra::sdb::create(entry); }

HADRA_API int hadra_sdb_open(const char *uri, int read_write) noexcept { return hadra::sdb::open(uri, read_write); }

HADRA_API int hadra_sdb_close(const char *uri) noexcept { return hadra::sdb::close(uri); }

HADRA_API int hadra_sdb_destroy(hadra_ha_pss_entry *entry) noexcept { return hadra::sdb::destroy(entry); }

}  // extern "C"
