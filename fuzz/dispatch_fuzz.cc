// Fuzz target of the standby dispatcher: every input is the payload of a message received
// under the client's sync opcode with the sync-update event, as the peer supervisor would
// send it. The dispatcher must apply it, ignore it or refuse it, and never touch memory
// outside the registry, the callback table or the payload: the payload lives in a buffer of
// exactly its size, so AddressSanitizer sees any read past it.
//
// The standby holds a PSS file (index 1, with a sync callback), an SDB (2, with callback),
// an MSDB (3, with callback, which its batches must never call) and a second PSS file (4,
// without callback) in a scratch platform root; 5 to 10 are unregistered. A destroy message
// disables its entry, so every disabled entry is brought back after each input; every few
// thousand inputs the whole state is rebuilt so that the stores stay small and fast.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "core/registry.h"
#include "core/reset.h"
#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/mts.h"
#include "hadra_platform_testing.h"

namespace {

constexpr uint32_t kSap = 0x4001;
constexpr uint32_t kOpc = 0x0777;
constexpr unsigned kRebuildEvery = 4096;

std::string g_root;
unsigned g_runs = 0;

// Reads every byte the dispatcher claims to hand over. The key's length is not passed to
// callbacks, so only its first byte could be read, and not even that for an empty key.
int touch_callback(void* data, void*, uint32_t data_len, uint32_t) {
  const auto* p = static_cast<const volatile uint8_t*>(data);
  uint8_t x = 0;
  if (p != nullptr)
    for (uint32_t i = 0; i < data_len; ++i) x ^= p[i];
  return x;
}

enum class Kind { kPss, kSdb, kMsdb };
struct Db {
  uint8_t index;
  Kind kind;
  const char* name;
  bool callback;
};
constexpr Db kDbs[] = {
    {1, Kind::kPss, "file", true},
    {2, Kind::kSdb, "table", true},
    {3, Kind::kMsdb, "multi", true},
    {4, Kind::kPss, "plain", false},
};

hadra_ha_pss_entry* register_db(const Db& d) {
  hadra_ha_sync_cb_fn cb = d.callback ? touch_callback : nullptr;
  switch (d.kind) {
    case Kind::kPss:
      return hadra_ha_register_pss_with_callback(d.index, d.name, cb);
    case Kind::kSdb:
      return hadra_ha_register_sdb_with_callback(d.index, d.name, 501, 502, cb);
    case Kind::kMsdb:
      hadra_ha_pss_cb[d.index] = cb;
      return hadra_ha_register_msdb(d.index, d.name, 503, 504);
  }
  return nullptr;
}

void start(const Db& d) {
  hadra_ha_pss_entry* e = register_db(d);
  if (e == nullptr || hadra_ha_db_start(e) != 1) {
    std::fprintf(stderr, "dispatch_fuzz: cannot start database %u\n", d.index);
    abort();
  }
  e->state = HADRA_HA_STANDBY;
}

void setup() {
  hadra_internal_reset();
  plat_test_reset();
  plat_test_set_root(g_root.c_str());
  plat_test_sysmgr_set_supstate(2);
  hadra_ha_handle.sap = kSap;
  hadra_ha_handle.opcode = kOpc;
  hadra_ha_enable_debug();  // the debug lines and key dumps are fuzzed too
  if (mts_bind(kSap) != 0) abort();
  for (const Db& d : kDbs) start(d);
}

void restore_disabled() {
  for (const Db& d : kDbs)
    if (hadra_ha_pss[d.index].state == HADRA_HA_DISABLE) start(d);
}

void remove_root() {
  plat_test_reset();
  std::error_code ec;
  std::filesystem::remove_all(g_root, ec);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("HADRA_LOG", "none", 1);
  char tmpl[] = "/tmp/hadra-fuzz-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) abort();
  g_root = tmpl;
  atexit(remove_root);
  setup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > MTS_PAYLOAD_MAX) return -1;
  if (mts_test_deliver(kSap, kSap, 1, kOpc, MTS_SYNC_EVENT_UPDATE, 0, 0, size != 0 ? data : nullptr,
                       static_cast<uint32_t>(size)) != 0)
    abort();
  mts_msg_ref ref;
  if (mts_recv(kSap, &ref, nullptr) != 0) abort();
  if (hadra_ha_dispatch(&ref) != 0) abort();  // a sync message is never handed back
  mts_drop(kSap, &ref);
  restore_disabled();
  if (++g_runs % kRebuildEvery == 0) setup();
  return 0;
}
