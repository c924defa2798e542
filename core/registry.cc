// Database registry: registration of PSS files, SDBs and MSDBs, per-entry settings and the
// HA-state accessors.
//
// Registration only fills an entry: it opens nothing and never changes the entry's state
// (start-up does that, at initialisation). It does not look for duplicates: registering an
// index again overwrites the entry's identity, and two indexes may carry the same name.
// PSS registration reports each refusal; SDB and MSDB registration refuse silently.
#include "core/registry.h"

#include <cstdio>
#include <cstring>

#include "core/diag.h"
#include "core/reset.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/sysmgr.h"

extern "C" {
HADRA_API hadra_ha_pss_entry hadra_ha_pss[HADRA_HA_MAX_DB + 1] = {};
// Exported through its declaration (a const object needs the extern form to be visible).
extern const char *const hadra_ha_pss_state2str[4] = {"HADRA_HA_DISABLE", "HADRA_HA_STANDBY",
                                                      "HADRA_HA_RECOVER", "HADRA_HA_ACTIVE"};
HADRA_API uint32_t hadra_no_pss_sync = 0;
hadra_ha_sync_cb_fn hadra_ha_pss_cb[16] = {};
}

namespace hadra {
namespace {

void reset_registry() noexcept {
  std::memset(hadra_ha_pss, 0, sizeof hadra_ha_pss);
  std::memset(hadra_ha_pss_cb, 0, sizeof hadra_ha_pss_cb);
  hadra_no_pss_sync = 0;
}
HADRA_RESET_HOOK(reset_registry);

bool empty_name(const char *name) noexcept { return name == nullptr || name[0] == '\0'; }

const char *or_empty(const char *s) noexcept { return s != nullptr ? s : ""; }

// Identity common to every kind of database: the index, the name cut to fit, the whole URI,
// and the sync switch as it stands now.
hadra_ha_pss_entry *fill_identity(uint8_t index, const char *name, const char *uri) noexcept {
  hadra_ha_pss_entry &e = hadra_ha_pss[index];
  e.index = index;
  hadra_strcpy(e.name, sizeof e.name, name);
  hadra_strcpy(e.uri, sizeof e.uri, uri);
  e.no_sync = hadra_no_pss_sync;
  return &e;
}

void report_bad_index(uint8_t index, const char *name) noexcept {
  if (!report_wanted(msg_error_HADRA_HA_INVALID_INDEX)) return;
  char where[192];
  std::snprintf(where, sizeof where, "hadra_ha_register_pss in File %s", name);
  report(msg_error_HADRA_HA_INVALID_INDEX, static_cast<const char *>(where), static_cast<int>(index));
}

void report_no_uri(const char *running_cfg, const char *prefix) noexcept {
  if (!report_wanted(msg_error_HADRA_API_FAILED)) return;
  char text[2 * HADRA_HA_URI_LEN + 64];
  std::snprintf(text, sizeof text, "hadra_ha_register_pss: running_cfg - %s, file_prefix - %s", or_empty(running_cfg),
                or_empty(prefix));
  report(msg_error_HADRA_API_FAILED, 0, static_cast<const char *>(text));
}

hadra_ha_pss_entry *register_pss(uint8_t index, const char *name) noexcept {
  if (empty_name(name)) {
    report(msg_error_HADRA_INVALID_ARG, 0, "hadra_ha_register_pss");
    return nullptr;
  }
  if (!valid_index(index)) {
    report_bad_index(index, name);
    return nullptr;
  }
  const char *running_cfg = sysmgr_running_cfg_uri_get();
  const char *prefix = sysmgr_file_prefix_get();
  const char *uri = sysmgr_uri_complete(running_cfg, prefix, name);
  if (uri == nullptr) {
    report_no_uri(running_cfg, prefix);
    return nullptr;
  }
  // db_type is left alone: an index that held an SDB keeps saying so.
  hadra_ha_pss_entry *e = fill_identity(index, name, uri);
  e->local_only = 0;
  return e;
}

hadra_ha_pss_entry *register_sdb(uint8_t index, const char *name, uint32_t cre_del_opcode,
                                 uint32_t update_opcode) noexcept {
  if (empty_name(name) || !valid_index(index)) return nullptr;
  // SDBs live under the running configuration without the service's file prefix.
  const char *uri = sysmgr_uri_complete(sysmgr_running_cfg_uri_get(), nullptr, name);
  if (uri == nullptr) return nullptr;
  hadra_ha_pss_entry *e = fill_identity(index, name, uri);
  e->db_type = HADRA_DB_SDB;
  e->cre_del_opcode = cre_del_opcode;
  e->update_opcode = update_opcode;
  e->is_msdb = 0;
  return e;
}

void store_callback(uint8_t index, hadra_ha_sync_cb_fn callback) noexcept {
  if (valid_index(index)) hadra_ha_pss_cb[index] = callback;
}

}  // namespace
}  // namespace hadra

const char *hadra::state_text(const hadra_ha_pss_entry *entry) noexcept {
  static constexpr const char *kStateText[] = {"disable", "standby", "recovering", "active"};
  if (entry == nullptr) return "invalid handle";
  if (entry->state >= sizeof kStateText / sizeof kStateText[0]) return "invalid state";
  return kStateText[entry->state];
}

void hadra::mark_disabled(hadra_ha_pss_entry &entry) noexcept {
  entry.state = HADRA_HA_DISABLE;
  std::memset(entry.uri, 0, sizeof entry.uri);
}

using hadra::register_pss;
using hadra::register_sdb;
using hadra::store_callback;

extern "C" {

HADRA_API hadra_ha_pss_entry *hadra_ha_register_pss(uint8_t index, const char *name) noexcept {
  return register_pss(index, name);
}

HADRA_API hadra_ha_pss_entry *hadra_ha_register_pss_with_callback(uint8_t index, const char *name,
                                                                  hadra_ha_sync_cb_fn callback) noexcept {
  store_callback(index, callback);
  return register_pss(index, name);
}

HADRA_API hadra_ha_pss_entry *hadra_ha_register_sdb(uint8_t index, const char *name, uint32_t cre_del_opcode,
                                                    uint32_t update_opcode) noexcept {
  return register_sdb(index, name, cre_del_opcode, update_opcode);
}

HADRA_API hadra_ha_pss_entry *hadra_ha_register_sdb_with_callback(uint8_t index, const char *name,
                                                                  uint32_t cre_del_opcode, uint32_t update_opcode,
                                                                  hadra_ha_sync_cb_fn callback) noexcept {
  store_callback(index, callback);
  return register_sdb(index, name, cre_del_opcode, update_opcode);
}

HADRA_API hadra_ha_pss_entry *hadra_ha_register_msdb(uint8_t index, const char *name, uint32_t cre_del_opcode,
                                                     uint32_t update_opcode) noexcept {
  hadra_ha_pss_entry *e = register_sdb(index, name, cre_del_opcode, update_opcode);
  if (e != nullptr) e->is_msdb = 1;
  return e;
}

HADRA_API void hadra_pss_set_config(hadra_ha_pss_entry *entry, const char *cfg_name) noexcept {
  if (entry == nullptr) return;
  entry->is_config = 1;
  hadra_strcpy(entry->cfg_name, sizeof entry->cfg_name, cfg_name);
}

HADRA_API void hadra_pss_set_preserve(hadra_ha_pss_entry *entry) noexcept {
  if (entry != nullptr) entry->preserve = 1;
}

HADRA_API int hadra_pss_is_preserve(const hadra_ha_pss_entry *entry) noexcept {
  return entry != nullptr ? static_cast<int>(entry->preserve) : 0;
}

HADRA_API void hadra_ha_set_db_recovering(hadra_ha_pss_entry *entry) noexcept {
  if (entry != nullptr) entry->state = HADRA_HA_RECOVER;
}

HADRA_API void hadra_ha_set_db_active(hadra_ha_pss_entry *entry) noexcept {
  if (entry != nullptr) entry->state = HADRA_HA_ACTIVE;
}

HADRA_API int hadra_ha_is_db_standby(const hadra_ha_pss_entry *entry) noexcept {
  return entry != nullptr && entry->state == HADRA_HA_STANDBY ? 1 : 0;
}

HADRA_API int hadra_ha_is_db_recovering(const hadra_ha_pss_entry *entry) noexcept {
  return entry != nullptr && entry->state == HADRA_HA_RECOVER ? 1 : 0;
}

HADRA_API const char *hadra_ha_state_str(const hadra_ha_pss_entry *entry) noexcept { return hadra::state_text(entry); }

}  // extern "C"
