// The service both role tests run on each supervisor: it writes kRecords when it starts
// active, rewrites and adds records when the test raises `live` (once it is active), and runs
// the platform's receive loop until told to stop. It publishes its databases' HA states in a
// page shared across fork. Included by one test file per executable.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "pairkit/two_sup.h"

namespace roles_test {

namespace pk = hadra::pairkit;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kSap = 3611;
constexpr uint32_t kUuid = 0x6e3;
constexpr int kWaitMs = 20000;
constexpr int kRecords = 100;

// What a service process publishes, in a page shared across fork.
struct Shared {
  int up[3];
  uint32_t state[3][3];  // [slot][database index]
};
inline Shared* g_shared = nullptr;
inline int g_slot = 0;

inline void publish() {
  for (uint8_t i = 1; i <= 2; ++i) g_shared->state[g_slot][i] = hadra_ha_pss[i].state;
}

inline void on_switchover() {
  hadra_ha_drop_active_msgs(kSap);
  for (uint8_t i = 1; i <= 2; ++i) hadra_ha_set_db_active(&hadra_ha_pss[i]);
  (void)hadra_ha_recovery_done(0);
}

inline bool write_records(int from, int to, const char* gen) {
  for (int i = from; i < to; ++i) {
    const std::string k = "k" + std::to_string(100000 + i), v = std::string("value ") + gen + std::to_string(i);
    if (hadra_pss_update(&hadra_ha_pss[1], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                         static_cast<uint32_t>(v.size())) != 1 ||
        hadra_sdb_update(&hadra_ha_pss[2], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                         static_cast<uint32_t>(v.size()), 1) != 1)
      return false;
  }
  return true;
}

// A service: writes kRecords when it starts active; on `live` (once active) rewrites them.
inline int run_service(pk::Signal* live, pk::Signal* stop) {
  if (mts_bind(kSap) != 0) return 10;
  (void)sysmgr_client_attach(kSap, "role-service");
  if (hadra_ha_register_pss(1, "routes") == nullptr || hadra_ha_register_sdb(2, "peers", 6521, 6522) == nullptr)
    return 11;
  hadra_ha_handle_t rec{};
  rec.uuid = kUuid;
  rec.sap = kSap;
  rec.opcode = 6531;
  rec.switchover_cb = &on_switchover;
  std::snprintf(rec.name, sizeof rec.name, "role-service");
  if (hadra_ha_api_init(&rec) != 1) return 12;
  if (sysmgr_supstate_get() == 1 && !write_records(0, kRecords, "a")) return 13;
  publish();
  g_shared->up[g_slot] = 1;
  const auto deadline = Clock::now() + std::chrono::seconds(120);
  while (Clock::now() < deadline) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 20, &other);
    if (kind == SYSMGR_RX_OTHER) mts_drop(kSap, &other);
    if (kind < 0) return 14;
    publish();
    if (live->wait(0) && !write_records(kRecords / 2, 2 * kRecords, "b")) return 15;
    if (stop->wait(0)) break;
  }
  (void)sysmgr_client_detach();
  return 0;
}

}  // namespace roles_test
