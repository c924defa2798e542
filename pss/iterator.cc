// The PSS iterator: one walk over every record of a file, each record handed to the client's
// operation for its key type.
//
//   [mget_begin]            only with HADRA_HA_FLAG_PSS_MGET; failure: result 0, no done
//   move to first record    failure (empty file included): result 0, mget closed
//   pass, repeated:         count++, yield if asked, key at the position (none: stop),
//                           type, validity (rejected: maybe delete, skip), value (unreadable:
//                           skip), operation (failed: noted), move to next (fails: stop)
//   [mget_done]             always, once the phase was opened
//
// The walk tolerates bad records: every problem with one record is written to the debug
// output and the walk goes on; the result only says whether the walk could start. Keys and
// values are the PSS layer's own memory, handed on uncopied; a key stays valid across the
// delete of a rejected record, and the position survives that delete (the platform's
// position is a copy of the key), so "next" still finds the record after it.
#include <sched.h>

#include "core/diag.h"
#include "hadra/handle.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/tsp.h"
#include "pss/ops.h"

namespace hadra::pss {
namespace {

struct Walk {
  hadra_ha_pss_entry *e;
  const hadra_pss_type_op_fn *ops;
  hadra_pss_key_type_fn key_type_fn;
  hadra_pss_valid_type_fn valid_type_fn;
  void *arg;
  uint32_t *count;
  bool mget;  // a multi-get phase is open and must be closed
};

const char *uri_of(const Walk &w) noexcept { return field_text(w.e->uri); }

// Opens the multi-get phase when the client asked for one. False: the walk cannot start.
bool open_phase(Walk &w) noexcept {
  if ((hadra_ha_handle.flags & HADRA_HA_FLAG_PSS_MGET) == 0) return true;
  // The begin call's own result is the only status there is for it.
  const uint32_t rc = pss2_mget_begin(w.e->pss_handle, nullptr);
  if (rc != 0) {
    HADRA_DBG("Failed to begin mget for %s - %s", uri_of(w), syserr2str(rc));
    return false;
  }
  w.mget = true;
  return true;
}

void close_phase(Walk &w) noexcept {
  if (w.mget) (void)pss2_mget_done(w.e->pss_handle);
  w.mget = false;
}

bool move_first(Walk &w) noexcept {
  uint32_t status = 0;
  (void)pss2_move2location(&w.e->pss_handle, PSS2_MOVE_MODE, PSS2_LOC_FIRST, &status);
  if (status == 0) return true;
  HADRA_DBG("Failed to get first key for %s - %s", uri_of(w), syserr2str(status));
  return false;
}

bool move_next(Walk &w) noexcept {
  uint32_t status = 0;
  (void)pss2_move2location(&w.e->pss_handle, PSS2_MOVE_MODE, PSS2_LOC_NEXT, &status);
  return status == 0;
}

uint8_t key_type_of(const Walk &w, const void *key) noexcept {
  return w.key_type_fn != nullptr ? static_cast<uint8_t>(w.key_type_fn(key) & 0xff) : 0;
}

// A record whose type the client rejects is never handed on; it is deleted when the entry
// asks for it. Returns false when the record was rejected.
bool accept_type(const Walk &w, const datum *key, uint8_t type) noexcept {
  if (w.valid_type_fn == nullptr || w.valid_type_fn(type) != 0) return true;
  HADRA_DBG("Invalid key type %d in %s", static_cast<int>(type), uri_of(w));
  if (w.e->purge_invalid_keys != 0) (void)pss2_delete(w.e->pss_handle, key, PSS2_DELETE_KEY);
  return false;
}

void hand_on(const Walk &w, const datum *key, const datum *value, uint8_t type) noexcept {
  if (w.ops == nullptr) return;
  const hadra_pss_type_op_fn op = w.ops[type];
  // A missing operation would be a call through null; it counts as a failed one instead.
  if (op != nullptr && op(key->dptr, value->dptr, value->dsize, w.arg) != 0) return;
  HADRA_DBG("Failed operation for %s key type %d", uri_of(w), static_cast<int>(type));
}

// One pass over the record at the position. False when there is no key: the walk ends.
bool visit(const Walk &w) noexcept {
  if (w.count != nullptr) ++*w.count;
  if (tsp_should_sched_yield() != 0) (void)sched_yield();
  uint32_t status = 0;
  const datum *key = pss2_getkey(w.e->pss_handle, &status);
  if (key == nullptr) return false;
  const uint8_t type = key_type_of(w, key->dptr);
  if (!accept_type(w, key, type)) return true;
  const datum *value = pss2_getvalue(w.e->pss_handle, &status);
  if (value == nullptr || status != 0) {
    HADRA_DBG("Failed get value for %s - %s", uri_of(w), syserr2str(status));
    return true;
  }
  hand_on(w, key, value, type);
  return true;
}

int walk(Walk &w) noexcept {
  if (!open_phase(w)) return 0;
  if (!move_first(w)) {
    close_phase(w);
    return 0;
  }
  while (visit(w) && move_next(w)) {
  }
  close_phase(w);
  return 1;
}

}  // namespace
}  // namespace hadra::pss

extern "C" HADRA_API int hadra_pss_iterator(hadra_ha_pss_entry *entry, const hadra_pss_type_op_fn *type_ops,
                                            hadra_pss_key_type_fn key_type_fn, hadra_pss_valid_type_fn valid_type_fn,
                                            void *arg, uint32_t *count) noexcept {
  if (count != nullptr) *count = 0;
  if (entry == nullptr) return 0;
  hadra::pss::Walk w{entry, type_ops, key_type_fn, valid_type_fn, arg, count, false};
  return hadra::pss::walk(w);
}
