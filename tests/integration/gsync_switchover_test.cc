// A fresh standby brought up by gsync, kept current by sync messages, then made active by a
// switchover: two processes, each with its own root, over the ZeroMQ transport and the real
// shared libraries. The test plays the system manager; a daemon will later do its part over
// the peer link (the shipping of the snapshot area included).
//
//   1. The standby starts: initialisation destroys its copies and asks for a gsync.
//   2. The active starts, writes its first records, is asked for a snapshot into
//      snap:/gsync-1, and marks the point of its message stream that the snapshot covers.
//   3. The driver ships the area: it copies the area's files from the active's root to the
//      standby's, leaving LMDB's lock files behind.
//   4. The standby drops what the snapshot covers (the platform will hold such messages back
//      from an unsynced standby) and takes gsync ready: every database HADRA_HA_STANDBY. With
//      both processes idle, the driver compares the two running configurations.
//   5. The active makes live changes; the standby's receive loop dispatches them.
//   6. Switchover on the standby: the client has a switchover hook, so the answer is
//      deferred; every database becomes HADRA_HA_RECOVER; YOU_ARE_ALMOST_ACTIVE and
//      YOU_ARE_ACTIVE are cleared from its queue; the client sets its databases active and
//      answers through hadra_ha_recovery_done.
//   7. Both end, and the new active must hold every record of the old one.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "hadra_platform/sdb.h"

#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"

namespace {

using hadra::pairkit::log;

constexpr uint32_t kSap = 3401;
constexpr uint32_t kCoveredOpc = 6202;  // the active's stream up to here is in the snapshot
constexpr uint32_t kDoneOpc = 6203;     // the active's live changes are all sent
constexpr int kWaitMs = 30000;
constexpr const char* kArea = "snap:/gsync-1";
enum : uint8_t { kRoutes = 1, kPeers = 2, kSessions = 3 };

struct Steps {
  hadra::pairkit::Signal standby_up, covered, shipped, synced, compared, finished;
};

int g_switchover_hooks = 0;
void on_switchover() { ++g_switchover_hooks; }

bool start_client() {
  if (mts_bind(kSap) != 0 || hadra_ha_register_pss(kRoutes, "routes") == nullptr ||
      hadra_ha_register_sdb(kPeers, "peers", 6301, 6302) == nullptr ||
      hadra_ha_register_msdb(kSessions, "sessions", 6303, 6304) == nullptr)
    return false;
  hadra_ha_handle_t rec{};
  rec.uuid = 0x4d3;
  rec.sap = kSap;
  rec.opcode = 6201;
  rec.switchover_cb = &on_switchover;
  std::snprintf(rec.name, sizeof rec.name, "gsync");
  return hadra_ha_api_init(&rec) == 1;
}

hadra_ha_pss_entry* e(uint8_t index) { return &hadra_ha_pss[index]; }

bool all_in_state(uint32_t state) {
  for (uint8_t i : {kRoutes, kPeers, kSessions})
    if (e(i)->state != state) return log("check", "entry %u in state %u, not %u", i, e(i)->state, state), false;
  return true;
}

// The last answer the client gave the system manager is of kind and says success.
bool answered(int kind) {
  plat_test_sysmgr_answer a{};
  const size_t n = plat_test_sysmgr_answer_count();
  return n > 0 && plat_test_sysmgr_answer_get(n - 1, &a) == 0 && a.kind == kind && a.value == 0;
}

// ---- The active ----

// count records in each database; MSDB records get a secondary key each.
bool write_round(const std::string& tag, int count) {
  bool ok = true;
  for (int i = 0; i < count; ++i) {
    std::string k = tag + "-" + std::to_string(i), v = "value of " + k + std::string(i % 7 * 40, '.');
    std::string addr = "addr-" + tag + std::to_string(i % 9);
    ok &= hadra_pss_update(e(kRoutes), k.data(), k.size(), v.data(), v.size()) == 1;
    ok &= hadra_sdb_update(e(kPeers), k.data(), k.size(), v.data(), v.size(), i % 2) == 1;
    datum kd{k.data(), static_cast<uint32_t>(k.size())}, vd{v.data(), static_cast<uint32_t>(v.size())};
    datum sd{addr.data(), static_cast<uint32_t>(addr.size())};
    sdb_skey sk{&sd, 0x0001};
    sdb_mkey_op op{&kd, &vd, &sk, 1, SDB_OP_WRITE};
    ok &= hadra_msdb_update_batch(e(kSessions), &op, 1, 1) == 1;
  }
  return ok;
}

bool live_changes() {
  bool ok = write_round("live", 60);
  for (int i = 0; i < 40; i += 3) {  // 14 of the first records go
    const std::string k = "first-" + std::to_string(i);
    ok &= hadra_pss_delete(e(kRoutes), k.data(), k.size()) == 1;
    ok &= hadra_sdb_delete_notify(e(kPeers), k.data(), k.size(), 1) == 1;
  }
  return ok;
}

bool send_marker(uint32_t opcode) {
  return mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, opcode, nullptr, 0, nullptr, 0, nullptr) == 0;
}

int run_active(Steps& r) {
  if (!r.standby_up.wait(kWaitMs) || !start_client()) return log("active", "start failed"), 10;
  if (!write_round("first", 40)) return log("active", "first records not written"), 11;
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_SNAPSHOT_DONE))
    return log("active", "snapshot failed"), 12;
  if (!send_marker(kCoveredOpc)) return 13;
  r.covered.raise();
  if (!r.compared.wait(2 * kWaitMs)) return log("active", "never told to go on"), 14;
  if (!live_changes() || !send_marker(kDoneOpc)) return log("active", "live changes failed"), 15;
  // Stay until the standby has taken everything: leaving earlier could lose queued messages.
  return r.finished.wait(kWaitMs) ? 0 : 16;
}

// ---- The standby ----

int gsync(Steps& r) {
  if (hadra::pairkit::wait_for_opcode(kSap, kCoveredOpc, kWaitMs) != 0 || !r.shipped.wait(kWaitMs)) return 1;
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_ready(&ctx, kArea, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_READY_DONE)) return 2;
  if (!all_in_state(HADRA_HA_STANDBY)) return 3;
  return mts_test_gsync_done_count(mts_sap_get(kSap)) == 1 ? 0 : 4;
}

// The test, as the system manager, puts a message on the client's queue.
bool deliver(uint32_t opcode) { return mts_test_deliver(kSap, SYSMGR_SAP, 0, opcode, 0, 0, 0, nullptr, 0) == 0; }

int switchover() {
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (!deliver(0x1e20) || mts_recv(kSap, &ctx.msg, nullptr) != 0) return 1;
  plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
  const size_t answers = plat_test_sysmgr_answer_count();
  if (sysmgrcb_switchover(&ctx, 1, nullptr, nullptr, 0) != 1 || g_switchover_hooks != 1) return 2;
  if (!all_in_state(HADRA_HA_RECOVER) || plat_test_sysmgr_answer_count() != answers) return 3;  // deferred
  if (!deliver(MTS_OPC_YOU_ARE_ALMOST_ACTIVE) || !deliver(MTS_OPC_YOU_ARE_ACTIVE)) return 4;
  hadra_ha_drop_active_msgs(kSap);
  if (mts_test_queued(kSap) != 0) return 5;
  for (uint8_t i : {kRoutes, kPeers, kSessions}) hadra_ha_set_db_active(e(i));  // the client has recovered
  if (hadra_ha_recovery_done(0) != 0 || !answered(PLAT_TEST_SYSMGR_SWITCHOVER_DONE)) return 6;
  return mts_test_held(kSap) == 0 && all_in_state(HADRA_HA_ACTIVE) ? 0 : 7;
}

int run_standby(Steps& r) {
  if (!start_client() || !all_in_state(HADRA_HA_DISABLE) || plat_test_sysmgr_gsync_requests() != 1) return 20;
  r.standby_up.raise();
  if (int rc = gsync(r); rc != 0) return log("standby", "gsync step %d failed", rc), 20 + rc;
  r.synced.raise();
  hadra::pairkit::LoopStats stats;
  const int rc = hadra::pairkit::receive_loop(
      kSap, 2 * kWaitMs, [](const mts_msg_ref& ref) { return mts_opc_get(&ref) == kDoneOpc; }, &stats);
  if (rc != 0 || stats.sync == 0) return log("standby", "receive loop: %d", rc), 30;
  if (int so = switchover(); so != 0) return log("standby", "switchover step %d failed", so), 30 + so;
  r.finished.raise();
  return 0;
}

// ---- The driver ----

bool ship_area(const std::string& base) {
  // The PSS copy and two SDB snapshots at least.
  return hadra::pairkit::ship_area(base, 1, 2, "snap/gsync-1", nullptr) >= 3;
}

std::string compare_running(const std::string& base, size_t* records) {
  const hadra::pairkit::RootDump a = hadra::pairkit::dump_root(hadra::pairkit::root_of(base, 1), {"run"});
  const hadra::pairkit::RootDump s = hadra::pairkit::dump_root(hadra::pairkit::root_of(base, 2), {"run"});
  *records = hadra::pairkit::record_count(s);
  return a.size() == 3 ? hadra::pairkit::compare_dumps(a, s) : "the active holds " + std::to_string(a.size()) + " stores";
}

TEST(GsyncSwitchoverEndToEnd, AStandbyBroughtUpByGsyncTakesOverWithEveryRecord) {
  hadra::pairkit::BaseDir base;
  ASSERT_FALSE(base.path().empty());
  std::printf("gsync e2e: base %s\n", base.path().c_str());
  Steps r;
  const pid_t standby = hadra::pairkit::spawn({base.path(), 2, "standby"}, [&] { return run_standby(r); });
  const pid_t active = hadra::pairkit::spawn({base.path(), 1, "active"}, [&] { return run_active(r); });
  ASSERT_TRUE(standby > 0 && active > 0);
  std::string after_gsync = "never synced";
  size_t synced_records = 0;
  if (r.covered.wait(2 * kWaitMs) && ship_area(base.path())) {
    r.shipped.raise();
    if (r.synced.wait(2 * kWaitMs)) after_gsync = compare_running(base.path(), &synced_records);
    r.compared.raise();
  }
  std::string why;
  ASSERT_TRUE(hadra::pairkit::wait_children({standby, active}, 3 * kWaitMs, &why)) << why;
  EXPECT_EQ(after_gsync, "");
  EXPECT_EQ(synced_records, 3u * 40u);

  size_t records = 0;
  EXPECT_EQ(compare_running(base.path(), &records), "");
  EXPECT_EQ(records, 86u + 86u + 100u);  // 100 routes and peers less 14 deleted, 100 sessions
}

}  // namespace
