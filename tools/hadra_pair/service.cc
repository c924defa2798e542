// The sample service and its two roles. The roles also play the local system manager's
// part towards the service, as no system-manager daemon exists yet: they make its event
// contexts with the platform's testing interface, call the library's sysmgr callbacks with
// them, put the messages the daemon would queue on the service's own queue, and read back
// the answers the service gave. Everything else is what a real service does.
#include "service.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

// The platform's SDB header first: it declares the list records the library's header shares.
#include "hadra_platform/sdb.h"

#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"

namespace hadra::pair {

const char* const kDbNames[kDatabases] = {"routes", "peers", "sessions"};

namespace {

constexpr uint32_t kSap = 3501;
constexpr uint32_t kSyncOpc = 6401;
constexpr uint32_t kCoveredOpc = 6402;  // the active's stream up to here is in the snapshot
constexpr uint32_t kEndOpc = 6403;      // the active's live changes are all sent
// The switchover request as the system manager would queue it: from its own SAP, with an
// opcode of its range that no other message of the service uses.
constexpr uint32_t kSwitchoverReqOpc = SYSMGR_SAP + 0x20;
enum : uint8_t { kRoutes = 1, kPeers = 2, kSessions = 3 };

SupStatus* g_status = nullptr;
const char* g_who = "";
int g_switchover_hooks = 0;

void on_switchover() { ++g_switchover_hooks; }

hadra_ha_pss_entry* db(uint8_t index) { return &hadra_ha_pss[index]; }

// Prints one progress line of this supervisor, in the driver's stream.
void say(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void say(const char* fmt, ...) {
  char text[300];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  std::printf("   [%s] %s\n", g_who, text);
  std::fflush(stdout);
}

// Records why the role failed for the driver's verdict; returns the exit status given.
int fail(int rc, const char* what) {
  std::snprintf(g_status->failure, sizeof g_status->failure, "%s", what);
  say("FAILED: %s", what);
  return rc;
}

void publish() {
  g_status->supstate = sysmgr_supstate_get();
  uint64_t sent = 0;
  for (uint8_t i = 1; i <= kDatabases; ++i) {
    g_status->ha_state[i - 1] = db(i)->state;
    uint64_t seqno = 0;
    unsigned reports = 0;
    if (plat_test_sysmgr_seqno(i, &seqno, &reports) == 0) sent += reports;
  }
  g_status->sent = sent;
}

bool all_in_state(uint32_t state) {
  for (uint8_t i = 1; i <= kDatabases; ++i)
    if (db(i)->state != state) return false;
  return true;
}

// The last answer the service gave the system manager is of kind and says success.
bool answered(int kind) {
  plat_test_sysmgr_answer a{};
  const size_t n = plat_test_sysmgr_answer_count();
  return n > 0 && plat_test_sysmgr_answer_get(n - 1, &a) == 0 && a.kind == kind && a.value == 0;
}

bool start_service() {
  if (mts_bind(kSap) != 0 || hadra_ha_register_pss(kRoutes, "routes") == nullptr ||
      hadra_ha_register_sdb(kPeers, "peers", 6411, 6412) == nullptr ||
      hadra_ha_register_msdb(kSessions, "sessions", 6413, 6414) == nullptr)
    return false;
  hadra_ha_handle_t rec{};
  rec.uuid = 0x5a1;
  rec.sap = kSap;
  rec.opcode = kSyncOpc;
  rec.switchover_cb = &on_switchover;
  std::snprintf(rec.name, sizeof rec.name, "pair-sample");
  return hadra_ha_api_init(&rec) == 1;
}

// ---- The service's records ----------------------------------------------------------------

// Which of the first records the live changes delete, and how many they add of each kind.
bool route_deleted(int i) { return i % 5 == 1; }
bool peer_deleted(int i) { return i % 7 == 1 || i % 7 == 3; }
bool session_deleted(int i) { return i % 4 == 2; }
int added(int records) { return (records + 3) / 4; }

std::string key(const char* kind, int i) {
  char text[32];
  std::snprintf(text, sizeof text, "%s/%05d", kind, i);
  return text;
}

// Values of a few sizes; gen tells the first write from later ones.
std::string value(const char* what, int i, int gen) {
  char text[96];
  std::snprintf(text, sizeof text, "%s %d via 10.%d.%d.1 gen %d ", what, i, i / 250 % 250, i % 250, gen);
  return text + std::string(static_cast<size_t>(i % 5) * 24, '.');
}

datum as_datum(std::string& s) { return datum{s.data(), static_cast<uint32_t>(s.size())}; }

bool put_route(int i, int gen) {
  std::string k = key("route", i), v = value("route", i, gen);
  return hadra_pss_update(db(kRoutes), k.data(), static_cast<uint32_t>(k.size()), v.data(),
                          static_cast<uint32_t>(v.size())) == 1;
}

bool put_peer(int i, int gen) {
  std::string k = key("peer", i), v = value("peer", i, gen);
  return hadra_sdb_update(db(kPeers), k.data(), static_cast<uint32_t>(k.size()), v.data(),
                          static_cast<uint32_t>(v.size()), 1) == 1;
}

// A session's record and its two secondary keys, kept alive for a batch.
struct Session {
  std::string k, v, peer, user;
  datum d[4];
  sdb_skey skeys[2];

  Session(int i, int gen)
      : k(key("sess", i)), v(value("session", i, gen)), peer(key("peer", i / 3)),
        user("user-" + std::to_string((i + gen) % 11)) {
    d[0] = as_datum(k), d[1] = as_datum(v), d[2] = as_datum(peer), d[3] = as_datum(user);
    skeys[0] = {&d[2], 1};
    skeys[1] = {&d[3], 2};
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  sdb_mkey_op op(uint32_t what) { return {&d[0], &d[1], skeys, 2, what}; }
};

bool write_first(int records) {
  bool ok = true;
  for (int i = 0; i < records && ok; ++i) {
    Session s(i, 0);
    ok = put_route(i, 0) && put_peer(i, 0) &&
         hadra_sdb_update_mkey(db(kSessions), &s.d[0], &s.d[1], s.skeys, 2, 1) == 1;
  }
  return ok;
}

bool live_routes(int records) {
  bool ok = true;
  for (int i = 0; i < records; i += 3) ok &= put_route(i, 1);
  for (int i = records; i < records + added(records); ++i) ok &= put_route(i, 1);
  for (int i = 0; i < records; ++i) {
    if (!route_deleted(i)) continue;
    std::string k = key("route", i);
    ok &= hadra_pss_delete(db(kRoutes), k.data(), static_cast<uint32_t>(k.size())) == 1;
  }
  return ok;
}

// Single updates and deletes, then one batch: new peers, rewrites and the other deletes.
bool live_peers(int records) {
  bool ok = true;
  for (int i = 0; i < records; i += 3) ok &= put_peer(i, 1);
  for (int i = 1; i < records; i += 7) {
    std::string k = key("peer", i);
    ok &= hadra_sdb_delete(db(kPeers), k.data(), static_cast<uint32_t>(k.size())) == 1;
  }
  std::vector<std::string> keys, values;
  std::vector<uint32_t> ops;
  for (int i = 0; i < records + added(records); ++i) {
    const bool del = i < records && i % 7 == 3;
    if (i < records && !del && i % 7 != 5) continue;
    keys.push_back(key("peer", i)), values.push_back(value("peer", i, 2));
    ops.push_back(del ? SDB_OP_DELETE : SDB_OP_WRITE);
  }
  std::vector<datum> kd, vd;
  for (size_t j = 0; j < keys.size(); ++j) kd.push_back(as_datum(keys[j])), vd.push_back(as_datum(values[j]));
  std::vector<sdb_list_op> list;
  for (size_t j = 0; j < keys.size(); ++j) list.push_back({ops[j], &kd[j], &vd[j]});
  return ok && hadra_sdb_update_batch(db(kPeers), list.data(), static_cast<uint32_t>(list.size()), 1) == 1;
}

// One MSDB batch: rewrites with new secondary keys, deletes and new sessions.
bool live_sessions(int records) {
  std::vector<std::unique_ptr<Session>> sessions;
  std::vector<sdb_mkey_op> list;
  for (int i = 0; i < records + added(records); ++i) {
    if (i < records && i % 2 != 0) continue;
    sessions.push_back(std::make_unique<Session>(i, 1));
    list.push_back(sessions.back()->op(i < records && session_deleted(i) ? SDB_OP_DELETE : SDB_OP_WRITE));
  }
  return hadra_msdb_update_batch(db(kSessions), list.data(), static_cast<uint32_t>(list.size()), 1) == 1;
}

bool send_marker(uint32_t opcode) {
  return mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, opcode, nullptr, 0, nullptr, 0, nullptr) == 0;
}

// Puts a message on the service's queue as the local system manager would.
bool deliver(uint32_t opcode) { return mts_test_deliver(kSap, SYSMGR_SAP, 0, opcode, 0, 0, 0, nullptr, 0) == 0; }

// ---- Supervisor 2's procedures --------------------------------------------------------------

int gsync(Steps& steps) {
  // What the active sent before its snapshot point is in the snapshot: dropped unseen.
  if (pairkit::wait_for_opcode(kSap, kCoveredOpc, kStepMs) != 0) return fail(21, "no snapshot mark from the active");
  if (!steps.shipped.wait(kStepMs)) return fail(22, "the snapshot area was never shipped");
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_ready(&ctx, kAreaUri, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_READY_DONE))
    return fail(23, "gsync ready was not completed");
  if (!all_in_state(HADRA_HA_STANDBY)) return fail(24, "after gsync ready a database is not HADRA_HA_STANDBY");
  say("gsync ready: copies rebuilt from %s, every database HADRA_HA_STANDBY", kAreaUri);
  return 0;
}

int switchover() {
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (!deliver(kSwitchoverReqOpc) || mts_recv(kSap, &ctx.msg, nullptr) != 0)
    return fail(31, "the switchover request could not be queued");
  plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
  const size_t answers = plat_test_sysmgr_answer_count();
  if (sysmgrcb_switchover(&ctx, 1, nullptr, nullptr, 0) != 1 || g_switchover_hooks != 1)
    return fail(32, "the switchover was not handed to the service's hook");
  if (!all_in_state(HADRA_HA_RECOVER) || plat_test_sysmgr_answer_count() != answers)
    return fail(33, "after the switchover event a database is not HADRA_HA_RECOVER, or it was answered early");
  say("switchover: every database HADRA_HA_RECOVER, the service's hook ran, the answer waits for it");
  if (!deliver(MTS_OPC_YOU_ARE_ALMOST_ACTIVE) || !deliver(MTS_OPC_YOU_ARE_ACTIVE))
    return fail(34, "the active markers could not be queued");
  hadra_ha_drop_active_msgs(kSap);
  if (mts_test_queued(kSap) != 0) return fail(35, "the active markers were left on the queue");
  // The service has recovered from its copies: it makes its databases active and answers.
  for (uint8_t i = 1; i <= kDatabases; ++i) hadra_ha_set_db_active(db(i));
  if (hadra_ha_recovery_done(0) != 0 || !answered(PLAT_TEST_SYSMGR_SWITCHOVER_DONE))
    return fail(36, "hadra_ha_recovery_done did not answer the switchover");
  if (mts_test_held(kSap) != 0) return fail(37, "the switchover request was not released");
  say("recovery done: every database HADRA_HA_ACTIVE, the system manager answered");
  return 0;
}

}  // namespace

void expected_counts(int records, bool after_live, uint64_t out[kDatabases]) {
  for (int d = 0; d < kDatabases; ++d) out[d] = static_cast<uint64_t>(records);
  if (!after_live) return;
  for (int d = 0; d < kDatabases; ++d) out[d] += static_cast<uint64_t>(added(records));
  for (int i = 0; i < records; ++i) {
    out[0] -= route_deleted(i);
    out[1] -= peer_deleted(i);
    out[2] -= session_deleted(i);
  }
}

int run_active(int records, Steps& steps, SupStatus* status) {
  g_status = status, g_who = "sup1";
  if (!start_service() || !all_in_state(HADRA_HA_ACTIVE)) return fail(10, "the service did not start as active");
  status->up = 1;
  if (!write_first(records)) return fail(11, "the first records were not all written");
  publish();
  say("service up as active; wrote %d routes, %d peers, %d sessions", records, records, records);
  steps.written.raise();

  if (!steps.snapshot.wait(kStepMs)) return fail(12, "never asked for a gsync snapshot");
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  if (sysmgrcb_gsync_snapshot(&ctx, kAreaUri, nullptr) != 0 || !answered(PLAT_TEST_SYSMGR_GSYNC_SNAPSHOT_DONE))
    return fail(13, "the gsync snapshot was not completed");
  if (!send_marker(kCoveredOpc)) return fail(14, "the snapshot mark was not sent");
  publish();
  status->sent_at_snapshot = status->sent;
  say("gsync snapshot written to %s", kAreaUri);
  steps.covered.raise();

  if (!steps.live.wait(kStepMs)) return fail(15, "never told to make live changes");
  if (!live_routes(records) || !live_peers(records) || !live_sessions(records))
    return fail(16, "a live change failed");
  if (!send_marker(kEndOpc)) return fail(17, "the end mark was not sent");
  publish();
  say("live changes made: updates, deletes, an SDB batch, an MSDB batch");
  steps.live_sent.raise();
  // Stay until taken down: leaving earlier could take queued messages with this process.
  steps.leave.wait(4 * kStepMs);
  return 0;
}

int run_standby(Steps& steps, SupStatus* status) {
  g_status = status, g_who = "sup2";
  if (!start_service()) return fail(20, "the service did not start");
  if (!all_in_state(HADRA_HA_DISABLE) || plat_test_sysmgr_gsync_requests() != 1)
    return fail(20, "the standby's copies were not destroyed, or no gsync was asked for");
  status->up = 1;
  publish();
  say("service up as standby: copies destroyed (HADRA_HA_DISABLE), gsync asked for");
  steps.standby_up.raise();
  if (int rc = gsync(steps); rc != 0) return rc;
  publish();
  steps.synced.raise();

  pairkit::LoopStats stats;
  const int rc = pairkit::receive_loop(
      kSap, 2 * kStepMs, [](const mts_msg_ref& ref) { return mts_opc_get(&ref) == kEndOpc; }, &stats);
  status->applied = stats.sync;
  publish();
  if (rc != 0) return fail(25, "the receive loop ended before the active's end mark");
  say("receive loop: %llu sync messages dispatched", static_cast<unsigned long long>(stats.sync));
  steps.applied.raise();

  if (!steps.takeover.wait(4 * kStepMs)) return fail(30, "never asked to take over");
  if (int so = switchover(); so != 0) return so;
  publish();
  steps.switched.raise();
  return steps.finish.wait(kStepMs) ? 0 : fail(38, "never told to finish");
}

}  // namespace hadra::pair
