// SDB reads and iteration: thin layers over the platform's read calls.
//
// Reads change nothing, are never synced and behave the same on both supervisors; the
// entry's HA state is not consulted. Every result is a pointer into the platform's own
// storage: no key or value byte is copied here.
//
// The platform keeps one iterator position per SDB. hadra_sdb_get_first and
// hadra_sdb_iterator (re)position it; hadra_sdb_get_next continues from wherever the last of
// them left it, so a whole-database walk also moves the position get_next continues from.
#include <sched.h>

#include "core/diag.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform/strutil.h"
#include "hadra_platform/tsp.h"
#include "sdb/ops.h"

namespace hadra::sdb {
namespace {

// Copies the record the platform handed back into the caller's outputs.
void give_record(const datum* kd, const datum* dd, void** key, void** data, uint32_t* data_len) noexcept {
  *key = kd != nullptr ? kd->dptr : nullptr;
  *data = dd != nullptr ? dd->dptr : nullptr;
  if (data_len != nullptr) *data_len = dd != nullptr ? dd->dsize : 0;
}

// One record of the walk: classify, filter, hand on. Failures are logged and passed over.
void visit(const hadra_ha_pss_entry* entry, const datum* kd, const datum* dd, const hadra_sdb_type_op_fn* type_ops,
           hadra_sdb_key_type_fn key_type_fn, hadra_sdb_valid_type_fn valid_type_fn, void* arg) noexcept {
  const void* key = kd != nullptr ? kd->dptr : nullptr;
  const uint8_t t = key_type_fn != nullptr ? static_cast<uint8_t>(key_type_fn(key)) : 0;
  if (valid_type_fn != nullptr && valid_type_fn(t) == 0) {
    HADRA_DBG("Invalid key type %d in %s", static_cast<int>(t), entry->uri);
    return;
  }
  if (type_ops == nullptr) return;
  const hadra_sdb_type_op_fn op = type_ops[t];
  const void* data = dd != nullptr ? dd->dptr : nullptr;
  const uint32_t data_len = dd != nullptr ? dd->dsize : 0;
  if (op == nullptr || op(key, data, data_len, arg) == 0)
    HADRA_DBG("Failed operation for %s key type %d", entry->uri, static_cast<int>(t));
}

}  // namespace
}  // namespace hadra::sdb

using hadra::sdb::give_record;

extern "C" {

HADRA_API int hadra_sdb_get_first(const hadra_ha_pss_entry* entry, void** key, uint32_t key_len, void** data,
                                  uint32_t* data_len) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0 || data == nullptr) return 0;
  const datum start{*key, key_len};
  *key = nullptr;
  *data = nullptr;
  if (sdb_iterator_init(entry->uri, &start) != 0) return 0;
  datum* kd = nullptr;
  datum* dd = nullptr;
  if (sdb_getkey(entry->uri, &kd, &dd) != 0) return 0;
  give_record(kd, dd, key, data, data_len);
  return 1;
}

HADRA_API int hadra_sdb_get_next(const hadra_ha_pss_entry* entry, void** key, void** data,
                                 uint32_t* data_len) noexcept {
  if (entry == nullptr || key == nullptr || data == nullptr) return 0;
  *key = nullptr;
  *data = nullptr;
  datum* kd = nullptr;
  datum* dd = nullptr;
  if (sdb_getnext(entry->uri, &kd, &dd) != 0) return 0;
  give_record(kd, dd, key, data, data_len);
  return 1;
}

HADRA_API int hadra_sdb_iterator(const hadra_ha_pss_entry* entry, const hadra_sdb_type_op_fn* type_ops,
                                 hadra_sdb_key_type_fn key_type_fn, hadra_sdb_valid_type_fn valid_type_fn, void* arg,
                                 uint32_t* visited) noexcept {
  if (visited != nullptr) *visited = 0;
  if (entry == nullptr) return 0;
  const uint32_t rc = sdb_iterator_init(entry->uri, SDB_ITER_FIRST);
  if (rc != 0) {
    HADRA_DBG("Failed to init SDB iterator for %s - %s", entry->uri, syserr2str(rc));
    return 1;
  }
  datum* kd = nullptr;
  datum* dd = nullptr;
  if (sdb_getkey(entry->uri, &kd, &dd) != 0) return 1;
  do {
    if (visited != nullptr) ++*visited;
    if (tsp_should_sched_yield() != 0) sched_yield();
    hadra::sdb::visit(entry, kd, dd, type_ops, key_type_fn, valid_type_fn, arg);
  } while (sdb_getnext(entry->uri, &kd, &dd) == 0);
  return 1;
}

HADRA_API int hadra_sdb_read(const hadra_ha_pss_entry* entry, const void* key, uint32_t key_len, void** data,
                             uint32_t* data_len, uint32_t* rc) noexcept {
  if (entry == nullptr || key == nullptr || key_len == 0) return 0;
  const datum kd{const_cast<void*>(key), key_len};
  uint32_t code = 0;
  const datum* dd = sdb_read(entry->uri, &kd, &code);
  if (rc != nullptr) *rc = code;
  if (code != 0) {
    HADRA_DBG("ERROR: Could not read SDB %s (%s)\n", entry->uri, syserr2str(code));
    return 0;
  }
  if (dd != nullptr) {
    if (data != nullptr) *data = dd->dptr;
    if (data_len != nullptr) *data_len = dd->dsize;
  }
  return 1;
}

HADRA_API int hadra_sdb_read_skey(const hadra_ha_pss_entry* entry, const sdb_skey* skey, datum** key, datum** data,
                                  uint32_t* rc) noexcept {
  if (entry == nullptr || skey == nullptr) return 0;
  const uint32_t code = sdb_read_skey(entry->uri, skey, key, data);
  if (rc != nullptr) *rc = code;
  if (code == 0) return 1;
  HADRA_DBG("ERROR: Could not read SDB %s (%s)\n", entry->uri, syserr2str(code));
  return 0;
}

}  // extern "C"
