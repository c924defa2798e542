// The whole sync path between two supervisors: two processes, each with its own root, over
// the platform's ZeroMQ transport and the real shared libraries.
//
// The standby registers the same databases as the active, initialises as a standby and
// brings its copies up empty (what a gsync from an empty active would leave), then runs the
// client's receive loop: every message goes to hadra_ha_dispatch. The active initialises,
// makes every kind of change the library syncs (PSS update, delete, delete range, purge;
// SDB single, list and batch writes, single, list and unnotified deletes; MSDB batches and
// the one-record form; a PSS file and an SDB destroyed), then sends a done message carrying
// the number of callbacks the standby should have seen per sync opcode. When the standby has
// applied everything it says so and both end; the driver then reads both roots record by
// record, secondary keys included, and requires them to be equal.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

// The platform's SDB header first: it declares the list records the library's header shares.
#include "hadra_platform/sdb.h"

#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_platform/mts.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"

namespace {

using hadra::pairkit::Bytes;

constexpr uint32_t kSap = 3301;
constexpr uint32_t kSyncOpc = 6001;
constexpr uint32_t kDoneOpc = 6002;
constexpr uint32_t kUuid = 0x4d2;
constexpr uint32_t kSeed = 20261123;
constexpr int kWaitMs = 30000;

// Registry of the test client, the same on both supervisors.
enum : uint8_t { kRoutes = 1, kNeighbors = 2, kPeers = 3, kSessions = 4, kScratchPss = 5, kScratchSdb = 6 };

// Callbacks seen on the standby, by sync opcode.
std::array<uint32_t, 11> g_callbacks{};

int count_callback(void*, void*, uint32_t, uint32_t opcode) {
  if (opcode < g_callbacks.size()) ++g_callbacks[opcode];
  return 0;
}

bool register_databases(bool with_callbacks) {
  hadra_ha_sync_cb_fn cb = with_callbacks ? count_callback : nullptr;
  return hadra_ha_register_pss_with_callback(kRoutes, "routes", cb) != nullptr &&
         hadra_ha_register_pss_with_callback(kNeighbors, "neighbors", cb) != nullptr &&
         hadra_ha_register_sdb_with_callback(kPeers, "peers", 6101, 6102, cb) != nullptr &&
         hadra_ha_register_msdb(kSessions, "sessions", 6103, 6104) != nullptr &&
         hadra_ha_register_pss_with_callback(kScratchPss, "scratch", cb) != nullptr &&
         hadra_ha_register_sdb_with_callback(kScratchSdb, "scratch_sdb", 6105, 6106, cb) != nullptr;
}

bool init_library() {
  hadra_ha_handle_t rec{};
  rec.uuid = kUuid;
  rec.sap = kSap;
  rec.opcode = kSyncOpc;
  std::snprintf(rec.name, sizeof rec.name, "e2e");
  return hadra_ha_api_init(&rec) == 1;
}

// ---- The active's script --------------------------------------------------------------

// Deterministic bytes (xorshift), so a failure can be replayed from the printed seed.
class Gen {
 public:
  explicit Gen(uint32_t seed) : x_(seed | 1) {}
  uint32_t next() {
    x_ ^= x_ << 13, x_ ^= x_ >> 17, x_ ^= x_ << 5;
    return x_;
  }
  Bytes bytes(size_t n) {
    Bytes b(n);
    for (auto& c : b) c = static_cast<uint8_t>(next());
    return b;
  }

 private:
  uint32_t x_;
};

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
datum dat(Bytes& b) { return datum{b.data(), static_cast<uint32_t>(b.size())}; }

// Runs the changes, counting per sync opcode the callbacks the standby must make.
class Script {
 public:
  explicit Script(uint32_t seed) : gen_(seed) {}
  bool ok() const { return failures_ == 0; }
  const std::array<uint32_t, 11>& expected() const { return expected_; }
  uint32_t min_batches() const { return min_batches_; }

  void run() {
    pss_changes();
    sdb_changes();
    msdb_changes();
    destroys();
  }

 private:
  hadra_ha_pss_entry* e(uint8_t index) { return &hadra_ha_pss[index]; }
  void check(bool ok, const char* what) {
    if (ok) return;
    ++failures_;
    hadra::pairkit::log("active", "FAILED: %s", what);
  }
  void pss_put(uint8_t index, const std::string& key, size_t value_len) {
    Bytes k = text(key), v = gen_.bytes(value_len);
    check(hadra_pss_update(e(index), k.data(), k.size(), v.data(), v.size()) == 1, "hadra_pss_update");
    ++expected_[HADRA_SYNC_PSS_UPDATE];
  }

  void pss_changes() {
    for (int i = 0; i < 300; ++i) {
      char key[32];
      std::snprintf(key, sizeof key, "route/%03d/%d", i % 120, i);
      pss_put(kRoutes, key, 1 + gen_.next() % 3000);
    }
    for (int i = 0; i < 20; ++i) pss_put(kRoutes, "route/000/0", 5 + i);  // one key rewritten
    for (int i = 0; i < 300; i += 7) {
      char key[32];
      std::snprintf(key, sizeof key, "route/%03d/%d", i % 120, i);
      Bytes k = text(key);
      check(hadra_pss_delete(e(kRoutes), k.data(), k.size()) == 1, "hadra_pss_delete");
      ++expected_[HADRA_SYNC_PSS_DELETE];
    }
    for (const char* prefix : {"route/01", "route/1", "no-such-prefix"}) {
      Bytes p = text(prefix);
      check(hadra_pss_delete_range(e(kRoutes), p.data(), p.size()) == 1, "hadra_pss_delete_range");
      ++expected_[HADRA_SYNC_PSS_DELETE_RANGE];
    }
    for (int i = 0; i < 50; ++i) pss_put(kNeighbors, "old/" + std::to_string(i), 64);
    check(hadra_pss_purge(e(kNeighbors)) == 1, "hadra_pss_purge");
    for (int i = 0; i < 10; ++i) pss_put(kNeighbors, "new/" + std::to_string(i), 32);
  }

  void sdb_changes() {
    for (int i = 0; i < 40; ++i) {
      Bytes k = text("peer-" + std::to_string(i)), v = gen_.bytes(1 + gen_.next() % 500);
      check(hadra_sdb_update(e(kPeers), k.data(), k.size(), v.data(), v.size(), i % 2) == 1, "hadra_sdb_update");
      ++expected_[HADRA_SYNC_SDB_UPDATE];
    }
    sdb_list_write();
    sdb_batches();
    for (int i = 0; i < 40; i += 5) {
      Bytes k = text("peer-" + std::to_string(i));
      const int notify = i % 10 == 0;
      check(hadra_sdb_delete_notify(e(kPeers), k.data(), k.size(), notify) == 1, "hadra_sdb_delete_notify");
      ++expected_[HADRA_SYNC_SDB_DELETE];
    }
    // A list delete: one message per listed key, an empty key in the middle sends nothing.
    std::vector<Bytes> keys = {text("list-1"), Bytes(), text("list-3"), text("peer-1")};
    std::vector<datum> kd;
    for (auto& k : keys) kd.push_back(dat(k));
    std::vector<sdb_kv> list;
    for (auto& d : kd) list.push_back({&d, nullptr});
    check(hadra_sdb_delete_list(e(kPeers), list.data(), list.size()) == 1, "hadra_sdb_delete_list");
    expected_[HADRA_SYNC_SDB_DELETE] += 3;
  }

  void sdb_list_write() {
    std::vector<Bytes> keys, values;
    for (int i = 0; i < 6; ++i) keys.push_back(text("list-" + std::to_string(i)));
    for (int i = 0; i < 6; ++i) values.push_back(gen_.bytes(i == 2 ? 0 : 100 + i));  // an empty value is a hole
    std::vector<datum> kd, vd;
    for (int i = 0; i < 6; ++i) kd.push_back(dat(keys[i])), vd.push_back(dat(values[i]));
    std::vector<sdb_kv> list;
    for (int i = 0; i < 6; ++i) list.push_back({&kd[i], &vd[i]});
    check(hadra_sdb_update_list(e(kPeers), list.data(), list.size()) == 1, "hadra_sdb_update_list");
    expected_[HADRA_SYNC_SDB_UPDATE] += 5;
  }

  // Writes and deletes in one list; large enough to be split over several messages.
  void sdb_batches() {
    std::vector<Bytes> keys, values;
    for (int i = 0; i < 90; ++i) {
      keys.push_back(text("batch-" + std::to_string(i)));
      values.push_back(gen_.bytes(i % 3 == 0 ? 1500 : 10));
    }
    std::vector<datum> kd, vd;
    for (int i = 0; i < 90; ++i) kd.push_back(dat(keys[i])), vd.push_back(dat(values[i]));
    std::vector<sdb_list_op> ops;
    for (int i = 0; i < 90; ++i) ops.push_back({i % 10 == 9 ? SDB_OP_DELETE : SDB_OP_WRITE, &kd[i], &vd[i]});
    check(hadra_sdb_update_batch(e(kPeers), ops.data(), ops.size(), 1) == 1, "hadra_sdb_update_batch");
    check(hadra_sdb_update_batch(e(kPeers), ops.data() + 30, 10, 0) == 1, "hadra_sdb_update_batch (again)");
    min_batches_ += 2;
  }

  void msdb_changes() {
    constexpr int kCount = 120;
    std::vector<Bytes> keys, values, sk;
    for (int i = 0; i < kCount; ++i) {
      keys.push_back(text("sess-" + std::to_string(i)));
      values.push_back(gen_.bytes(i % 4 == 0 ? 900 : 20));
      sk.push_back(text("addr-" + std::to_string(i % 17)));
    }
    std::vector<datum> kd, vd, skd;
    for (int i = 0; i < kCount; ++i) kd.push_back(dat(keys[i])), vd.push_back(dat(values[i])), skd.push_back(dat(sk[i]));
    // Two secondary keys per record, one with a tag that has bit 15 set.
    std::vector<std::array<sdb_skey, 2>> skeys(kCount);
    std::vector<sdb_mkey_op> ops;
    for (int i = 0; i < kCount; ++i) {
      skeys[i] = {sdb_skey{&skd[i], 0x0001}, sdb_skey{&kd[i], 0x8002}};
      datum* data = i % 11 == 5 ? nullptr : &vd[i];  // a record without value
      ops.push_back({&kd[i], data, skeys[i].data(), i % 13 == 0 ? 0 : 2, SDB_OP_WRITE});
    }
    check(hadra_msdb_update_batch(e(kSessions), ops.data(), ops.size(), 1) == 1, "hadra_msdb_update_batch");
    for (int i = 0; i < kCount; i += 6) ops[i].op = SDB_OP_DELETE;
    check(hadra_msdb_update_batch(e(kSessions), ops.data(), 60, 0) == 1, "hadra_msdb_update_batch (deletes)");
    // The one-record form changes a record's value and replaces its secondary keys.
    sdb_skey one{&skd[3], 0x0003};
    check(hadra_sdb_update_mkey(e(kSessions), &kd[7], &vd[8], &one, 1, 1) == 1, "hadra_sdb_update_mkey");
  }

  void destroys() {
    for (int i = 0; i < 5; ++i) pss_put(kScratchPss, "s" + std::to_string(i), 10);
    Bytes k = text("x"), v = text("y");
    check(hadra_sdb_update(e(kScratchSdb), k.data(), k.size(), v.data(), v.size(), 1) == 1, "scratch sdb");
    ++expected_[HADRA_SYNC_SDB_UPDATE];
    hadra_ha_disable(e(kScratchPss));
    hadra_ha_disable(e(kScratchSdb));
  }

  Gen gen_;
  std::array<uint32_t, 11> expected_{};
  uint32_t min_batches_ = 0;
  int failures_ = 0;
};

// What the done message carries: the callbacks to expect, by sync opcode, then the least
// number of SDB batch messages (their split depends on the sizes).
struct DoneMsg {
  std::array<uint32_t, 11> callbacks;
  uint32_t min_batches;
};

int run_active(hadra::pairkit::Signal& ready, hadra::pairkit::Signal& finished) {
  if (mts_bind(kSap) != 0 || !register_databases(false)) return 10;
  if (!ready.wait(kWaitMs)) return hadra::pairkit::log("active", "standby never became ready"), 11;
  if (!init_library()) return hadra::pairkit::log("active", "initialisation failed"), 12;
  Script s(kSeed);
  s.run();
  DoneMsg done{s.expected(), s.min_batches()};
  if (mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, kDoneOpc, &done, sizeof done, nullptr, 0, nullptr) != 0)
    return hadra::pairkit::log("active", "done message not sent"), 13;
  // Stay until the standby has applied everything: leaving earlier could take queued
  // messages down with this process's sockets.
  if (!finished.wait(kWaitMs)) return hadra::pairkit::log("active", "standby never finished"), 14;
  return s.ok() ? 0 : 15;
}

// ---- The standby ----------------------------------------------------------------------

// The standby's initialisation destroys its copies and asks for a gsync; here the copies
// are brought up empty instead, as a gsync from an active that holds nothing would leave them.
bool bring_up_copies() {
  for (uint8_t i = kRoutes; i <= kScratchSdb; ++i) {
    if (hadra_ha_db_start(&hadra_ha_pss[i]) != 1) return false;
    hadra_ha_pss[i].state = HADRA_HA_STANDBY;
  }
  return true;
}

int check_callbacks(const DoneMsg& done) {
  int bad = 0;
  for (uint32_t op = 1; op <= 10; ++op) {
    uint32_t want = done.callbacks[op];
    if (op == HADRA_SYNC_SDB_BATCH_UPDATE) {
      if (g_callbacks[op] >= done.min_batches) continue;
      want = done.min_batches;
    }
    if (g_callbacks[op] == want) continue;
    hadra::pairkit::log("standby", "FAILED: opcode %u: %u callbacks, expected %u", op, g_callbacks[op], want);
    ++bad;
  }
  return bad;
}

int run_standby(hadra::pairkit::Signal& ready, hadra::pairkit::Signal& finished) {
  if (mts_bind(kSap) != 0 || !register_databases(true)) return 20;
  if (!init_library() || !bring_up_copies()) return hadra::pairkit::log("standby", "start failed"), 21;
  ready.raise();
  DoneMsg done{};
  bool got_done = false;
  hadra::pairkit::LoopStats stats;
  const int rc = hadra::pairkit::receive_loop(kSap, kWaitMs, [&](const mts_msg_ref& ref) {
    if (mts_opc_get(&ref) != kDoneOpc) return false;  // SDB notifications: not for the dispatcher
    if (mts_payload_size(&ref) == sizeof done) std::memcpy(&done, mts_payload_get(&ref), sizeof done), got_done = true;
    return true;
  }, &stats);
  hadra::pairkit::log("standby", "%llu sync messages, %llu others", static_cast<unsigned long long>(stats.sync),
                 static_cast<unsigned long long>(stats.other));
  if (rc != 0 || !got_done) return hadra::pairkit::log("standby", "receive loop ended without done"), 22;
  int bad = check_callbacks(done);
  // The destroys disabled the standby's entries as well.
  if (hadra_ha_pss[kScratchPss].state != HADRA_HA_DISABLE || hadra_ha_pss[kScratchPss].pss_handle != 0 ||
      hadra_ha_pss[kScratchSdb].state != HADRA_HA_DISABLE)
    hadra::pairkit::log("standby", "FAILED: destroyed entries still enabled"), ++bad;
  finished.raise();
  return bad == 0 ? 0 : 23;
}

TEST(SyncEndToEnd, EveryKindOfChangeLeavesBothSupervisorsWithTheSameRecords) {
  hadra::pairkit::BaseDir base;
  ASSERT_FALSE(base.path().empty());
  std::printf("sync e2e: seed %u, base %s\n", kSeed, base.path().c_str());
  hadra::pairkit::Signal ready, finished;
  const pid_t standby = hadra::pairkit::spawn({base.path(), 2, "standby"}, [&] { return run_standby(ready, finished); });
  ASSERT_GT(standby, 0);
  const pid_t active = hadra::pairkit::spawn({base.path(), 1, "active"}, [&] { return run_active(ready, finished); });
  ASSERT_GT(active, 0);
  std::string why;
  ASSERT_TRUE(hadra::pairkit::wait_children({standby, active}, 3 * kWaitMs, &why)) << why;

  const hadra::pairkit::RootDump a = hadra::pairkit::dump_root(hadra::pairkit::root_of(base.path(), 1));
  const hadra::pairkit::RootDump s = hadra::pairkit::dump_root(hadra::pairkit::root_of(base.path(), 2));
  EXPECT_EQ(hadra::pairkit::compare_dumps(a, s), "");
  // The stores that must be left, and nothing else: the destroyed ones are gone on both.
  std::vector<std::string> uris;
  for (const auto& [uri, store] : a) uris.push_back(uri + " " + store.kind);
  EXPECT_EQ(uris, (std::vector<std::string>{"run:/neighbors pss", "run:/peers sdb", "run:/routes pss",
                                            "run:/sessions sdb"}));
  EXPECT_EQ(a.at("run:/neighbors").records.size(), 10u);  // the purge took the older ones
  EXPECT_GT(hadra::pairkit::record_count(a), 300u);
  size_t skeys = 0;
  for (const auto& r : a.at("run:/sessions").records) skeys += r.skeys.size();
  EXPECT_GT(skeys, 100u);  // secondary keys were compared, not two empty sets
}

}  // namespace
