// The PSS reads: get_first, get_next, move2key and fetch.
//
// Thin layers over the platform's positioned reads. What they add:
//  - the gate: a disabled database reads nothing (fetch reports it, the others fail
//    silently, as their callers walk files in loops and test the result themselves);
//  - "no record" (status 0x40480003) is never reported: get_first reads on from wherever
//    move2key left the position (the next key, or the end), get_next and get_first give 1
//    with null outputs at the end, move2key gives 1, fetch gives 0;
//  - any other status is reported (msg_error_HADRA_PSS_HA with the failing call's name);
//  - the outputs hold null on every failure once they have been touched, so a caller that
//    ignores the result still never follows a stale pointer.
// Pointers handed out are the PSS layer's own; nothing is copied. No debug lines: reads are
// the hot path of a client's lookups.
#include "core/diag.h"
#include "hadra_platform/pss.h"
#include "pss/ops.h"

namespace hadra::pss {
namespace {

// A record read at the current position; key null when there is none.
struct Record {
  const datum *key = nullptr;
  const datum *value = nullptr;
};

// getkey then getvalue at the current position. False (reported) when either call fails.
// A position without a key (the end) stops before the value is asked for.
bool read_at_position(const hadra_ha_pss_entry *e, Record *out) noexcept {
  uint32_t status = 0;
  out->key = pss2_getkey(e->pss_handle, &status);
  if (status != 0) {
    report_read_failure("pss2_getkey", status);
    return false;
  }
  if (out->key == nullptr || out->key->dsize == 0) {
    out->key = nullptr;
    return true;
  }
  out->value = pss2_getvalue(e->pss_handle, &status);
  if (status != 0) {
    report_read_failure("pss2_getvalue", status);
    return false;
  }
  return true;
}

// Hands a read record to the caller. A key without a value still gives the key; *value_len
// is written only together with a value.
void give_record(const Record &r, void **key, void **value, uint32_t *value_len) noexcept {
  if (r.key == nullptr) return;
  *key = r.key->dptr;
  if (r.value == nullptr) return;
  *value = r.value->dptr;
  if (value_len != nullptr) *value_len = r.value->dsize;
}

// Moves to key; PLAT_ERR_PSS_NO_RECORD (positioned after the key, or at the end) counts as success.
bool move_to_key(hadra_ha_pss_entry *e, const void *key, uint32_t key_len) noexcept {
  const datum k = as_datum(key, key_len);
  uint32_t status = 0;
  (void)pss2_move2key(&e->pss_handle, PSS2_MOVE_MODE, &k, &status);
  if (status == 0 || status == PLAT_ERR_PSS_NO_RECORD) return true;
  report_read_failure("pss2_move2key", status);
  return false;
}

int get_first(hadra_ha_pss_entry *e, void **key, uint32_t key_len, void **value, uint32_t *value_len) noexcept {
  const void *start = *key;
  *key = nullptr;
  *value = nullptr;
  Record r;
  if (!move_to_key(e, start, key_len) || !read_at_position(e, &r)) return 0;
  give_record(r, key, value, value_len);
  return 1;
}

int get_next(hadra_ha_pss_entry *e, void **key, void **value, uint32_t *value_len) noexcept {
  *key = nullptr;
  *value = nullptr;
  uint32_t status = 0;
  (void)pss2_move2location(&e->pss_handle, PSS2_MOVE_MODE, PSS2_LOC_NEXT, &status);
  if (status == PLAT_ERR_PSS_NO_RECORD) return 1;
  if (status != 0) {
    report_read_failure("pss2_move2location", status);
    return 0;
  }
  Record r;
  if (!read_at_position(e, &r)) return 0;
  give_record(r, key, value, value_len);
  return 1;
}

int fetch(hadra_ha_pss_entry *e, const void *key, uint32_t key_len, void **value, uint32_t *value_len) noexcept {
  *value = nullptr;
  const datum k = as_datum(key, key_len);
  uint32_t status = 0;
  const datum *v = pss2_fetch(e->pss_handle, &k, &status);
  if (status == PLAT_ERR_PSS_NO_RECORD) return 0;
  if (status != 0) {
    report_read_failure("pss2_fetch", status);
    return 0;
  }
  if (v == nullptr) return 0;  // a layer that gives neither value nor status has nothing to give
  *value = v->dptr;
  if (value_len != nullptr) *value_len = v->dsize;
  return 1;
}

}  // namespace
}  // namespace hadra::pss

using namespace hadra::pss;

extern "C" HADRA_API int hadra_pss_get_first(hadra_ha_pss_entry *entry, void **key, uint32_t key_len, void **value,
                                             uint32_t *value_len) noexcept {
  // *key is the start key: a null one is as missing as a null key argument.
  if (entry == nullptr || key == nullptr || *key == nullptr || value == nullptr || key_len == 0 ||
      is_disabled(entry))
    return 0;
  return get_first(entry, key, key_len, value, value_len);
}

extern "C" HADRA_API int hadra_pss_get_next(hadra_ha_pss_entry *entry, void **key, void **value,
                                            uint32_t *value_len) noexcept {
  if (entry == nullptr || key == nullptr || value == nullptr || is_disabled(entry)) return 0;
  return get_next(entry, key, value, value_len);
}

extern "C" HADRA_API int hadra_pss_move2key(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || is_disabled(entry)) return 0;
  return move_to_key(entry, key, key_len) ? 1 : 0;
}

extern "C" HADRA_API int hadra_pss_fetch(hadra_ha_pss_entry *entry, const void *key, uint32_t key_len, void **value,
                                         uint32_t *value_len) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || value == nullptr) {
    report_bad_args("hadra_pss_fetch", {ptr_arg("entry", entry), ptr_arg("key", key), len_arg("key_len", key_len),
                                        ptr_arg("value", value)});
    return 0;
  }
  if (is_disabled(entry)) {
    report_disabled(entry, "hadra_pss_fetch");
    return 0;
  }
  return fetch(entry, key, key_len, value, value_len);
}
