// The sample service and its two roles. Nothing here plays the system manager: the daemon
// of each supervisor delivers the gsync and switchover events, and the platform's receive
// loop hands them to the library.
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
#include <chrono>

#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"

namespace hadra::pair {

const char* const kDbNames[kDatabases] = {"routes", "peers", "sessions"};

namespace {

constexpr uint32_t kSap = 3501;
constexpr uint32_t kSyncOpc = 6401;
enum : uint8_t { kRoutes = 1, kPeers = 2, kSessions = 3 };

SupStatus* g_status = nullptr;
const char* g_who = "";
hadra_ha_pss_entry* db(uint8_t index) { return &hadra_ha_pss[index]; }

// The switchover hook: the active markers the daemon queued are taken off the queue, the
// service has recovered from its copies (they are complete), makes its databases active and
// answers the daemon.
void on_switchover() {
  hadra_ha_drop_active_msgs(kSap);
  for (uint8_t i = 1; i <= kDatabases; ++i) hadra_ha_set_db_active(db(i));
  if (hadra_ha_recovery_done(0) == 0) g_status->switched = 1;
}

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
  for (uint8_t i = 1; i <= kDatabases; ++i) g_status->ha_state[i - 1] = db(i)->state;
}

bool all_in_state(uint32_t state) {
  for (uint8_t i = 1; i <= kDatabases; ++i)
    if (db(i)->state != state) return false;
  return true;
}

bool start_service() {
  if (mts_bind(kSap) != 0 || sysmgr_client_attach(kSap, "pair-sample") != 0 ||
      hadra_ha_register_pss(kRoutes, "routes") == nullptr ||
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

// The receive loop for up to ms, or until until() holds; false when the loop failed.
template <class F>
bool serve(int ms, F until) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (std::chrono::steady_clock::now() < deadline) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 20, &other);
    if (kind < 0) return false;
    if (kind == SYSMGR_RX_OTHER) (void)mts_drop(kSap, &other);
    publish();
    if (until()) return true;
  }
  return true;
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
  // The daemon's gsync snapshot event arrives through the loop; the live changes when asked.
  if (!serve(4 * kStepMs, [&] { return steps.live.wait(0); })) return fail(12, "the receive loop failed");
  if (!live_routes(records) || !live_peers(records) || !live_sessions(records))
    return fail(16, "a live change failed");
  publish();
  say("live changes made: updates, deletes, an SDB batch, an MSDB batch");
  steps.live_sent.raise();
  // Stay until taken down.
  serve(4 * kStepMs, [] { return false; });
  return 0;
}

int run_standby(Steps& steps, SupStatus* status) {
  g_status = status, g_who = "sup2";
  if (!start_service()) return fail(20, "the service did not start");
  if (!all_in_state(HADRA_HA_DISABLE)) return fail(20, "the standby's copies were not destroyed");
  status->up = 1;
  publish();
  say("service up as standby: copies destroyed (HADRA_HA_DISABLE), gsync asked of the daemon");
  // Gsync ready, the live changes and the switchover all arrive through the loop.
  if (!serve(8 * kStepMs, [&] { return steps.finish.wait(0); })) return fail(25, "the receive loop failed");
  (void)sysmgr_client_detach();
  return 0;
}

}  // namespace hadra::pair
