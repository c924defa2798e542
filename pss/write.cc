// The PSS writers: update, delete, delete by prefix and purge.
//
// Each follows the same four steps, in this order:
//
//   1. arguments      -> msg_error_HADRA_INVALID_ARG, result 0
//   2. HA state       -> disabled: msg_error_HADRA_API_FAILED_HA, result 0; standby,
//                        recovering and active all write (the standby's dispatcher applies
//                        sync messages through these very calls)
//   3. local store    -> failure: the writer's own message, result 0, nothing synced, so
//                        the standby never holds a change that the active does not
//   4. debug line, key dump, then hadra_ha_sync() unless the entry is unsynced; result 1
//      whatever the sync gave, because a lost sync message must not undo or fail a change
//      that is already in the local file (the sender reports its own failures)
//
// Sync opcodes: update 1 (key and data), delete 2 (key), delete range 7 (the prefix; the
// standby repeats the prefix deletion, the count is not sent), purge 10 (header only).
#include "core/diag.h"
#include "hadra/sync.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/strutil.h"
#include "pss/ops.h"
#include "sync/apply.h"
#include "sync/send.h"

namespace hadra::pss {
namespace {

// Step 2, the HA-state gate (each writer has checked its own arguments already).
bool may_write(const hadra_ha_pss_entry *e, const char *fn) noexcept {
  if (!is_disabled(e)) return true;
  report_disabled(e, fn);
  return false;
}

void sync_change(const hadra_ha_pss_entry *e, const datum *key, const datum *data, uint32_t opcode) noexcept {
  if (is_synced(e)) (void)sync::send(e, key, data, opcode);
}

int store_update(hadra_ha_pss_entry *e, const void *key, uint32_t key_len, const void *data,
                 uint32_t data_len) noexcept {
  // One sync message carries at most 65535 data bytes. Storing a longer value that the
  // sender must then refuse would leave the standby without the record, so refuse it here,
  // before anything changes. Unsynced entries may store what the file accepts.
  if (data_len > HADRA_SYNC_MAX_LEN && is_synced(e)) {
    report_bad_arg_text("hadra_pss_update", "data_len", data_len, HADRA_SYNC_MAX_LEN);
    return 0;
  }
  if (!may_write(e, "hadra_pss_update")) return 0;
  const datum k = as_datum(key, key_len);
  const datum d = as_datum(data, data_len);
  const uint32_t rc = pss2_store(e->pss_handle, &k, &d);
  if (rc != 0) {
    report(msg_error_HADRA_PSS_UPDATE, hadra_syserr2str(rc, 0));
    return 0;
  }
  HADRA_DBG("Updating %s, key_len %d, data_len %d\n", field_text(e->uri), static_cast<int>(key_len),
            static_cast<int>(data_len));
  HADRA_DUMP("key : %s\n", sync::dump_buf(key, key_len));
  sync_change(e, &k, &d, HADRA_SYNC_PSS_UPDATE);
  return 1;
}

int store_delete(hadra_ha_pss_entry *e, const void *key, uint32_t key_len) noexcept {
  if (!may_write(e, "hadra_pss_delete")) return 0;
  const datum k = as_datum(key, key_len);
  const uint32_t rc = pss2_delete(e->pss_handle, &k, PSS2_DELETE_KEY);
  if (rc != 0) {
    report(msg_error_HADRA_PSS_DELETE, hadra_syserr2str(rc, 0));
    return 0;
  }
  HADRA_DBG("Deleting %s key_len %d\n", field_text(e->uri), static_cast<int>(key_len));
  HADRA_DUMP("key : %s\n", sync::dump_buf(key, key_len));
  sync_change(e, &k, nullptr, HADRA_SYNC_PSS_DELETE);
  return 1;
}

int store_delete_range(hadra_ha_pss_entry *e, const void *prefix, uint32_t prefix_len) noexcept {
  if (!may_write(e, "hadra_pss_delete_range")) return 0;
  const datum p = as_datum(prefix, prefix_len);
  uint32_t count = 0;
  const uint32_t rc = pss2_delete_prefixed_keys(e->pss_handle, &p, 0, &count);
  if (rc != 0) {
    report(msg_error_HADRA_PSS_DELETE_RANGE, hadra_syserr2str(rc, 0));
    return 0;
  }
  HADRA_DBG("Deleting multiple entries in %s, len %d\n", field_text(e->uri), static_cast<int>(prefix_len));
  HADRA_DUMP("key : %s, keys deleted: %u\n", sync::dump_buf(prefix, prefix_len), count);
  sync_change(e, &p, nullptr, HADRA_SYNC_PSS_DELETE_RANGE);
  return 1;
}

int store_purge(hadra_ha_pss_entry *e) noexcept {
  if (!may_write(e, "hadra_pss_purge")) return 0;
  uint32_t count = 0;
  const uint32_t rc = pss2_purge(e->pss_handle, &count);
  if (rc != 0) {
    report(msg_error_HADRA_PSS_PURGE, hadra_syserr2str(rc, 0));
    return 0;
  }
  HADRA_DBG("Purging %s, %u records\n", field_text(e->uri), count);
  sync_change(e, nullptr, nullptr, HADRA_SYNC_PSS_PURGE);
  return 1;
}

}  // namespace

int update(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, const void *data,
           uint32_t data_len) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || data == nullptr || data_len == 0) {
    report_bad_args("hadra_pss_update", {ptr_arg("entry", entry), ptr_arg("key", key), len_arg("key_len", key_len),
                                         ptr_arg("data", data), len_arg("data_len", data_len)});
    return 0;
  }
  return store_update(entry, key, key_len, data, data_len);
}

int remove(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0) {
    report_bad_args("hadra_pss_delete", {ptr_arg("entry", entry), ptr_arg("key", key), len_arg("key_len", key_len)});
    return 0;
  }
  return store_delete(entry, key, key_len);
}

// A prefix of length 0 is accepted: it matches every record.
int remove_range(hadra_ha_pss_entry *entry, const void *prefix, uint32_t prefix_len) noexcept {
  if (entry == nullptr || prefix == nullptr) {
    report_bad_args("hadra_pss_delete_range",
                    {ptr_arg("entry", entry), ptr_arg("prefix", prefix), len_arg("prefix_len", prefix_len)});
    return 0;
  }
  return store_delete_range(entry, prefix, prefix_len);
}

int purge(hadra_ha_pss_entry *entry) noexcept {
  if (entry == nullptr) {
    report_bad_args("hadra_pss_purge", {ptr_arg("entry", entry)});
    return 0;
  }
  return store_purge(entry);
}

namespace {

// The standby applies a received change with the writer that made it on the active; its own
// sync attempt sends nothing there. The writers' checks stay: a message whose key length is
// 0, or whose database was disabled in the meantime, is refused with the client's report.
using sync::Callback;
using sync::Change;
using sync::Target;

int apply_update(const Change &c) noexcept { return update(c.entry, c.key, c.key_len, c.data, c.data_len); }
int apply_delete(const Change &c) noexcept { return remove(c.entry, c.key, c.key_len); }
int apply_delete_range(const Change &c) noexcept { return remove_range(c.entry, c.key, c.key_len); }
int apply_purge(const Change &c) noexcept { return purge(c.entry); }

HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_UPDATE, Target::kPssFile, apply_update, Callback::kDataKey);
HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_DELETE, Target::kPssFile, apply_delete, Callback::kKeyOnly);
HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_DELETE_RANGE, Target::kPssFile, apply_delete_range, Callback::kKeyOnly);
HADRA_SYNC_APPLIER(HADRA_SYNC_PSS_PURGE, Target::kPssFile, apply_purge, Callback::kNone);

}  // namespace
}  // namespace hadra::pss

extern "C" HADRA_API int hadra_pss_update(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len,
                                          const void *data, uint32_t data_len) noexcept {
  return hadra::pss::update(entry, key, key_len, data, data_len);
}

extern "C" HADRA_API int hadra_pss_delete(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) noexcept {
  return hadra::pss::remove(entry, key, key_len);
}

extern "C" HADRA_API int hadra_pss_delete_range(hadra_ha_pss_entry *entry, const void *prefix,
                                                uint32_t prefix_len) noexcept {
  return hadra::pss::remove_range(entry, prefix, prefix_len);
}

extern "C" HADRA_API int hadra_pss_purge(hadra_ha_pss_entry *entry) noexcept { return hadra::pss::purge(entry); }
