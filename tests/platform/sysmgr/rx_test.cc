// The receive loop's routing, with the library's entry points replaced by recorders: what a
// gsync holds back and lets through, which events reach which callback, and what goes back
// to the caller. Messages come through the loopback transport as the daemon and the peer
// would send them.
#include <lmdb.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "common/lmdb_store.h"
#include "hadra_mts_testing.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "mts/core.h"
#include "../mts/mts_support.h"
#include "support/fixture.h"
#include "sysmgr/client.h"
#include "sysmgr/seqno_table.h"

namespace {

namespace cl = hadra::plat::sysmgr::client;
namespace proto = hadra::plat::sysmgr::proto;

constexpr uint32_t kSap = 0x3500;
constexpr uint32_t kSyncOpc = 6601;

// What the fake library saw.
struct Seen {
  std::vector<uint64_t> dispatched;  // HA numbers, in order
  std::vector<std::string> calls;
  int dispatch_result = 0;
  int switchover_result = 1;
  int ready_result = 0;
  std::vector<uint64_t> refuse;  // HA numbers whose next dispatch the store refuses
  uint32_t failures = 0;
};
Seen* g_seen = nullptr;

int fake_dispatch(const mts_msg_ref* m) noexcept {
  const uint64_t n = mts_ha_seqno_get(m);
  g_seen->dispatched.push_back(n);
  auto& r = g_seen->refuse;
  if (auto it = std::find(r.begin(), r.end(), n); it != r.end()) r.erase(it), ++g_seen->failures;
  return g_seen->dispatch_result;
}
uint64_t fake_failures() noexcept { return g_seen->failures; }
int fake_gsync(void*, const char* uri, void*) noexcept {
  return g_seen->calls.push_back(std::string("ready ") + uri), g_seen->ready_result;
}
int fake_snapshot(void*, const char* uri, void*) noexcept { return g_seen->calls.push_back(std::string("snapshot ") + uri), 0; }
int fake_failed(void* ctx) noexcept {
  g_seen->calls.push_back("failed " + std::to_string(static_cast<sysmgr_req_ctx*>(ctx)->status));
  return 0;
}
int fake_switchover(void*, int, void*, void*, int mismatch) noexcept {
  g_seen->calls.push_back("switchover " + std::to_string(mismatch));
  return g_seen->switchover_result;
}
int fake_marker() noexcept { return g_seen->calls.push_back("marker"), 0; }
int fake_done() noexcept { return g_seen->calls.push_back("done"), 0; }
int fake_cfg(void*, const char* uri) noexcept { return g_seen->calls.push_back(std::string("cfg ") + uri), 0; }

const cl::Lib kFake = {&fake_dispatch,   &fake_snapshot, &fake_gsync, &fake_failed, &fake_switchover,
                       &fake_marker,     &fake_done,     &fake_cfg,   nullptr,      nullptr};
// The same, telling the loop which dispatches the store refused.
const cl::Lib kFakeCounting = {&fake_dispatch, &fake_snapshot, &fake_gsync, &fake_failed, &fake_switchover,
                               &fake_marker,   &fake_done,     &fake_cfg,   nullptr,      nullptr,
                               &fake_failures};

constexpr uint32_t kActive = 0x3700;

class ReceiveLoopTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    g_seen = &seen_;
    cl::set_library(&kFake);
    ASSERT_EQ(mts_bind(kSap), 0);
    ASSERT_EQ(sysmgr_client_attach(kSap, "unit"), 0);  // the in-process system manager
    plat_test_sysmgr_set_supstate(PLAT_SUP_STANDBY);    // sync messages are for a standby
  }
  void TearDown() override {
    cl::set_library(nullptr);
    PlatformTest::TearDown();
  }

  // A sync message from the peer for registry index 1.
  void from_peer(uint64_t seqno) {
    const uint8_t payload[4] = {1, 0, 0, 0};
    ASSERT_EQ(mts_test_deliver(kSap, kSap, 1, kSyncOpc, MTS_SYNC_EVENT_UPDATE, seqno, 0, payload, sizeof payload), 0);
  }
  // count sync changes sent by the active's SAP to the peer: database 1, no key or data,
  // sync opcode 1.
  void send_changes(int count) {
    const uint8_t payload[12] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    for (int i = 0; i < count; ++i)
      ASSERT_EQ(mts_send(kActive, MTS_ADDR_PEER, kSap, kSyncOpc, payload, 12, nullptr, 0, nullptr), 0);
  }
  // Everything queued, through the loop.
  void drain() {
    while (next() != SYSMGR_RX_NONE) {
    }
  }
  void from_daemon(const proto::Event& ev) {
    const std::vector<uint8_t> b = encode(ev);
    ASSERT_EQ(mts_test_deliver(kSap, SYSMGR_SAP, 0, proto::kEvent, 0, 0, 0, b.data(), static_cast<uint32_t>(b.size())),
              0);
  }
  int next() {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 0, &other);
    if (kind == SYSMGR_RX_OTHER) mts_drop(kSap, &other);
    return kind;
  }

  Seen seen_;
};

TEST_F(ReceiveLoopTest, DuringAGsyncSyncMessagesWaitAndOnlyThoseAfterTheSnapshotAreApplied) {
  cl::state().gsync.pending = true;  // as after the service's gsync request
  for (uint64_t n = 1; n <= 5; ++n) from_peer(n);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  EXPECT_TRUE(seen_.dispatched.empty());
  hadra::plat::mts::MsgInfo mi;
  ASSERT_TRUE(hadra::plat::mts::info(&cl::state().held.front(), &mi));

  proto::Event ready;
  ready.kind = proto::EventKind::kGsyncReady;
  ready.uri = "snap:/gsync-1";
  ready.point = 3;  // the snapshot holds 1..3
  ready.epoch = mi.h.epoch;
  ready.at_point[1] = {3, 3};
  from_daemon(ready);
  EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  EXPECT_EQ(seen_.calls, std::vector<std::string>{"ready snap:/gsync-1"});
  from_peer(6);
  while (next() != SYSMGR_RX_NONE) {
  }
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{4, 5, 6}));  // in order, none twice
  EXPECT_EQ(mts_test_held(kSap), 0u);
  // The applied table counts from the snapshot's share.
  hadra::plat::sysmgr::SeqnoTable t;
  const std::string path = root() + "/sysmgr/applied-" + std::to_string(getpid()) + ".tbl";
  FILE* f = std::fopen(path.c_str(), "rb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fread(&t, sizeof t, 1, f), 1u);
  std::fclose(f);
  EXPECT_EQ(t.slot[1].reports, 6u);
  EXPECT_EQ(t.slot[1].seqno, 6u);
}

// The applied table, as the daemon reads it.
hadra::plat::sysmgr::SeqnoTable applied_table(const std::string& root) {
  hadra::plat::sysmgr::SeqnoTable t{};
  const std::string path = root + "/sysmgr/applied-" + std::to_string(getpid()) + ".tbl";
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    EXPECT_EQ(std::fread(&t, sizeof t, 1, f), 1u);
    std::fclose(f);
  }
  return t;
}

// A sync stream is only taken from the same service on the peer: frames made by another
// endpoint of this process are relabelled as coming from kSap there.
void as_same_service(std::vector<uint8_t>& frame) {
  for (int i = 0; i < 4; ++i) frame[12 + i] = static_cast<uint8_t>(kSap >> (8 * i));
}

// A gsync that fails (the daemon says so, or the copies cannot be rebuilt from the snapshot)
// leaves copies that nothing may be applied to: what was held is dropped and counted, the copy
// stays out of sync, and the service does not ask again by itself (the daemon retries after
// its back-off). Held beyond the bound on a gsync that worked: another is asked for at once.
TEST_F(ReceiveLoopTest, AFailedGsyncDropsWhatItHeldAndLeavesTheRetryToTheDaemon) {
  namespace sm = hadra::plat::sysmgr;
  hadra::test::ScopedConfig hold("SYNC_HOLD_MAX", "2");
  plat_test_log_capture(1);
  proto::Event failed;
  failed.kind = proto::EventKind::kGsyncFailed;
  failed.status = 7;
  proto::Event ready;
  ready.kind = proto::EventKind::kGsyncReady;
  ready.uri = "snap:/gsync-1";
  for (int variant = 0; variant < 2; ++variant) {
    SCOPED_TRACE(variant == 0 ? "gsync failed" : "rebuild failed");
    seen_ = Seen();
    seen_.ready_result = 5;
    cl::state().gsync.pending = true;
    const uint64_t base = 10u * static_cast<uint64_t>(variant);
    for (uint64_t n = 1; n <= 3; ++n) from_peer(base + n);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(next(), SYSMGR_RX_SYNC);
    EXPECT_EQ(cl::state().held.size(), 2u);
    const unsigned asked = plat_test_sysmgr_gsync_requests();
    const sm::SeqnoTable before = applied_table(root());
    from_daemon(variant == 0 ? failed : ready);
    EXPECT_EQ(next(), SYSMGR_RX_EVENT);
    from_peer(base + 4);  // a live change after it: not applied either, and no request
    EXPECT_EQ(next(), SYSMGR_RX_SYNC);
    EXPECT_TRUE(seen_.dispatched.empty());
    EXPECT_TRUE(cl::state().held.empty());
    EXPECT_EQ(mts_test_held(kSap), 0u);
    EXPECT_EQ(plat_test_sysmgr_gsync_requests(), asked);
    const sm::SeqnoTable t = applied_table(root());
    EXPECT_EQ(t.out_of_sync, sm::kOutOfSyncGsyncFailed);
    EXPECT_EQ(t.missed - before.missed, 3u);  // the two held and the live one
  }
  // A gsync that worked after too many held: asked again.
  seen_ = Seen();
  cl::state().gsync.pending = true;
  for (uint64_t n = 21; n <= 23; ++n) from_peer(n);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  hadra::plat::mts::MsgInfo mi;
  ASSERT_TRUE(hadra::plat::mts::info(&cl::state().held.front(), &mi));
  ready.point = 20;
  ready.epoch = mi.h.epoch;
  const unsigned asked = plat_test_sysmgr_gsync_requests();
  from_daemon(ready);
  EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), asked + 1);
  EXPECT_EQ(applied_table(root()).out_of_sync, 0u);
}

// Sends five sync changes from src to kSap and takes their frames off the loopback, each
// relabelled as from the same service, for a test to deliver (or lose) one by one.
std::vector<std::vector<uint8_t>> five_frames_from(uint32_t src) {
  std::vector<std::vector<uint8_t>> frames;
  const uint8_t payload[4] = {1, 0, 0, 0};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(mts_send(src, MTS_ADDR_PEER, kSap, kSyncOpc, payload, 4, nullptr, 0, nullptr), 0);
    std::vector<uint8_t> f(static_cast<size_t>(mts_test_peer_read(nullptr, 0, 0)));
    mts_test_peer_read(f.data(), f.size(), 1);
    as_same_service(f);
    frames.push_back(f);
  }
  return frames;
}

// A dropped, a duplicated and a reordered sync message (frames played to the endpoint as the
// faulty link would hand them over): each stops the applying at once, marks the copy out of
// sync for the daemon and asks for one gsync; gsync ready brings it back in step.
TEST_F(ReceiveLoopTest, AMissingRepeatedOrReorderedMessageStopsApplyingUntilAGsync) {
  namespace sm = hadra::plat::sysmgr;
  struct Case {
    std::vector<uint64_t> arrive;  // HA numbers in arrival order
    std::vector<uint64_t> applied;
    uint32_t why;
    uint32_t missed;
  };
  const Case cases[] = {{{1, 2, 4, 5}, {1, 2}, sm::kOutOfSyncGap, 1},
                        {{1, 2, 2, 3}, {1, 2}, sm::kOutOfSyncRepeat, 0},
                        {{1, 3, 2, 4}, {1}, sm::kOutOfSyncGap, 1}};
  hadra::test::ScopedConfig no_resend("MTS_BACKLOG_BYTES", "0");  // straight to the gsync
  plat_test_log_capture(1);
  uint32_t resyncs = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    seen_.dispatched.clear();
    // A fresh stream each time (a restarted sender): play frames through a sending endpoint.
    const uint32_t src = 0x3600 + resyncs;
    ASSERT_EQ(mts_bind(src), 0);
    const std::vector<std::vector<uint8_t>> frames = five_frames_from(src);
    const unsigned asked = plat_test_sysmgr_gsync_requests();
    for (uint64_t n : c.arrive) (void)mts_test_feed(frames[n - 1].data(), frames[n - 1].size());
    while (next() != SYSMGR_RX_NONE) {
    }
    EXPECT_EQ(seen_.dispatched, c.applied);
    EXPECT_EQ(plat_test_sysmgr_gsync_requests(), asked + 1);
    sm::SeqnoTable t = applied_table(root());
    EXPECT_EQ(t.out_of_sync, c.why);
    EXPECT_EQ(t.resyncs, ++resyncs);

    // Gsync ready at the active's point 5: what comes after it is applied again.
    hadra::plat::mts::MsgInfo mi;
    mts_msg_ref probe;
    ASSERT_EQ(mts_send(src, MTS_ADDR_PEER, kSap, kSyncOpc, "\x01\0\0\0", 4, &probe, 0, nullptr), 0);
    ASSERT_TRUE(hadra::plat::mts::info(&probe, &mi));
    mts_drop(src, &probe);
    proto::Event ready;
    ready.kind = proto::EventKind::kGsyncReady;
    ready.uri = "snap:/gsync-1";
    ready.point = 5;
    ready.epoch = mi.h.epoch;
    from_daemon(ready);
    EXPECT_EQ(next(), SYSMGR_RX_EVENT);
    std::vector<uint8_t> f6(static_cast<size_t>(mts_test_peer_read(nullptr, 0, 0)));
    mts_test_peer_read(f6.data(), f6.size(), 1);
    as_same_service(f6);
    ASSERT_EQ(mts_test_feed(f6.data(), f6.size()), 0);
    EXPECT_EQ(next(), SYSMGR_RX_SYNC);
    EXPECT_EQ(seen_.dispatched.back(), 6u);
    EXPECT_EQ(applied_table(root()).out_of_sync, 0u);
    seen_.calls.clear();
    ASSERT_EQ(mts_unbind(src), 0);
  }
}

// Moves every frame the loopback kept for the peer to its endpoint in this process. A sync
// stream is only taken from the same service on the peer, so kActive's frames are relabelled
// as kSap's, and what the standby sends back to "kSap on the peer" is handed to kActive.
void forward_all() {
  while (mts_test_peer_count() != 0) {
    std::vector<uint8_t> f(static_cast<size_t>(mts_test_peer_read(nullptr, 0, 0)));
    mts_test_peer_read(f.data(), f.size(), 1);
    auto put = [&](size_t at, uint32_t v) {
      for (int i = 0; i < 4; ++i) f[at + i] = static_cast<uint8_t>(v >> (8 * i));
    };
    const uint32_t src = static_cast<uint32_t>(f[12] | f[13] << 8 | f[14] << 16 | static_cast<uint32_t>(f[15]) << 24);
    if (src == kActive)
      put(12, kSap);
    else
      put(16, kActive);
    (void)mts_test_feed(f.data(), f.size());
  }
}

// One process plays both sides: endpoint kActive sends the stream to kSap (the standby). A
// lost frame is asked for again and comes from the active's backlog: back in step without a
// gsync, each change applied once and in order.
TEST_F(ReceiveLoopTest, AHoleTheActiveStillHoldsIsFilledByAResendWithoutAGsync) {
  ASSERT_EQ(mts_bind(kActive), 0);
  plat_test_log_capture(1);
  const uint8_t payload[4] = {1, 0, 0, 0};
  const std::vector<std::vector<uint8_t>> frames = five_frames_from(kActive);
  for (int n : {1, 2, 4}) ASSERT_EQ(mts_test_feed(frames[n - 1].data(), frames[n - 1].size()), 0);  // 3 lost
  while (next() != SYSMGR_RX_NONE) {
  }
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1, 2}));
  EXPECT_EQ(applied_table(root()).out_of_sync, hadra::plat::sysmgr::kOutOfSyncGap);

  forward_all();  // the standby's request reaches the active's endpoint
  mts_msg_ref other;
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();  // 3, 4, 5 again and the reply that closes them
  ASSERT_EQ(mts_send(kActive, MTS_ADDR_PEER, kSap, kSyncOpc, payload, 4, nullptr, 0, nullptr), 0);
  forward_all();  // and a live change after them
  while (next() != SYSMGR_RX_NONE) {
  }
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
  const hadra::plat::sysmgr::SeqnoTable t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, 0u);
  EXPECT_EQ(t.slot[1].reports, 6u);
}

// The active never waits for room while it resends: a queue to the standby that is full ends
// the part it sent (the reply says so), and the standby asks for the rest, without a gsync.
TEST_F(ReceiveLoopTest, AResendThatFindsTheQueueFullIsFinishedInParts) {
  ASSERT_EQ(mts_bind(kActive), 0);
  plat_test_log_capture(1);
  const std::vector<std::vector<uint8_t>> frames = five_frames_from(kActive);
  for (int n : {1, 4}) ASSERT_EQ(mts_test_feed(frames[n - 1].data(), frames[n - 1].size()), 0);  // 2, 3 lost
  while (next() != SYSMGR_RX_NONE) {
  }
  forward_all();  // the request reaches the active
  mts_test_peer_refuse(1);  // its queue to the standby is full for the first frame resent
  mts_msg_ref other;
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();  // only the reply: nothing went
  while (next() != SYSMGR_RX_NONE) {
  }
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1}));
  forward_all();  // the standby asked for the rest
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();
  while (next() != SYSMGR_RX_NONE) {
  }
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
  EXPECT_EQ(applied_table(root()).out_of_sync, 0u);
}

TEST_F(ReceiveLoopTest, EventsReachTheirCallbacksAndEverythingElseGoesBack) {
  // Not for the loop: a local message of the service, and a peer message the dispatcher refuses.
  ASSERT_EQ(mts_test_deliver(kSap, 900, 0, 77, 0, 0, 0, "x", 1), 0);
  EXPECT_EQ(next(), SYSMGR_RX_OTHER);
  seen_.dispatch_result = -1;
  from_peer(1);
  EXPECT_EQ(next(), SYSMGR_RX_OTHER);

  proto::Event ev;
  for (auto [kind, uri] : {std::pair{proto::EventKind::kGsyncSnapshot, "snap:/gsync-2"},
                           std::pair{proto::EventKind::kCfgWrite, "stage:/cfg-1"},
                           std::pair{proto::EventKind::kActiveMarker, ""},
                           std::pair{proto::EventKind::kSwitchoverDone, ""}}) {
    ev.kind = kind, ev.uri = uri;
    from_daemon(ev);
    EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  }
  // A switchover whose answer the library keeps for later: the request stays held, and this
  // supervisor is now active.
  ev.kind = proto::EventKind::kSwitchover, ev.status = 1, ev.uri = "";
  from_daemon(ev);
  EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  EXPECT_EQ(mts_test_held(kSap), 1u);
  EXPECT_EQ(sysmgr_supstate_get(), 1);
  // The markers the service did not take itself, and a damaged event, are dropped.
  ASSERT_EQ(mts_test_deliver(kSap, SYSMGR_SAP, 0, MTS_OPC_YOU_ARE_ACTIVE, 0, 0, 0, nullptr, 0), 0);
  EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  ASSERT_EQ(mts_test_deliver(kSap, SYSMGR_SAP, 0, proto::kEvent, 0, 0, 0, "\x04", 1), 0);
  EXPECT_EQ(next(), SYSMGR_RX_EVENT);
  EXPECT_EQ(seen_.calls, (std::vector<std::string>{"snapshot snap:/gsync-2", "cfg stage:/cfg-1", "marker", "done",
                                                   "switchover 1"}));
  EXPECT_EQ(next(), SYSMGR_RX_NONE);
}

TEST_F(ReceiveLoopTest, OnlyThePeersStreamChangesACopyAndOnlyOnAStandby) {
  plat_test_log_capture(1);
  const uint8_t payload[4] = {1, 0, 0, 0};
  // A process of this supervisor, and another service's stream on the peer.
  ASSERT_EQ(mts_test_deliver(kSap, kSap, 0, kSyncOpc, MTS_SYNC_EVENT_UPDATE, 0, 0, payload, sizeof payload), 0);
  ASSERT_EQ(mts_test_deliver(kSap, kSap + 1, 1, kSyncOpc, MTS_SYNC_EVENT_UPDATE, 0, 0, payload, sizeof payload), 0);
  // A forged update sent to the active: refused there, so never forwarded either.
  for (int i = 0; i < 2; ++i) EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  plat_test_sysmgr_set_supstate(PLAT_SUP_ACTIVE);
  from_peer(1);
  EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  EXPECT_TRUE(seen_.dispatched.empty());
  EXPECT_EQ(mts_test_held(kSap), 0u);
  std::string all;
  char line[512];
  int level = 0;
  for (size_t i = 0; i < plat_test_log_count(); ++i)
    if (plat_test_log_get(i, &level, line, sizeof line) == 0) all += std::string(line) + "\n";
  EXPECT_NE(all.find("not from the peer supervisor"), std::string::npos) << all;
  EXPECT_NE(all.find("another service's stream"), std::string::npos) << all;
  EXPECT_NE(all.find("not the standby"), std::string::npos) << all;
  // A notification of the peer's service (not the sync opcode; a standby rebuilt by a gsync
  // announces its SDBs) is the client's on the active, not a refused change.
  hadra_ha_handle_t handle{};
  handle.opcode = kSyncOpc;
  cl::Lib with_handle = kFake;
  with_handle.handle = &handle;
  cl::set_library(&with_handle);
  const size_t lines = plat_test_log_count();
  ASSERT_EQ(mts_test_deliver(kSap, kSap, 1, kSyncOpc + 1, MTS_SYNC_EVENT_UPDATE, 0, 0, payload, sizeof payload), 0);
  EXPECT_EQ(next(), SYSMGR_RX_OTHER);
  EXPECT_EQ(plat_test_log_count(), lines);
  from_peer(2);  // the sync opcode still is refused there
  EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  EXPECT_TRUE(seen_.dispatched.empty());
  cl::set_library(&kFake);
  // On the standby again, the peer's own stream is applied.
  plat_test_sysmgr_set_supstate(PLAT_SUP_STANDBY);
  from_peer(3);
  EXPECT_EQ(next(), SYSMGR_RX_SYNC);
  EXPECT_EQ(seen_.dispatched, std::vector<uint64_t>{3});
  plat_test_log_capture(0);
}

}  // namespace

// A change the store refuses (the dispatcher counts it): nothing after it is applied, the
// applied table says why and counts it for the index, one line names it, and the active
// resends from that very change. A store that works again is back in step without a gsync;
// one that refuses the resend too stays out of sync and leaves the gsync to its daemon.
TEST_F(ReceiveLoopTest, AChangeTheStoreRefusesStopsTheStreamUntilAResendOrAGsync) {
  namespace sm = hadra::plat::sysmgr;
  cl::set_library(&kFakeCounting);
  ASSERT_EQ(mts_bind(kActive), 0);
  plat_test_log_capture(1);
  auto send = [&](int count) { send_changes(count); };
  // 1..3 arrive queued, so they are applied as one transaction: the refusal of 3 takes 1
  // and 2 with it, and the stream goes back to 1.
  seen_.refuse = {3};
  send(5);
  forward_all();
  drain();
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1, 2, 3}));  // 4 and 5 wait
  sm::SeqnoTable t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, sm::kOutOfSyncApplyFailed);
  EXPECT_EQ(t.slot[1].failed, 1u);
  EXPECT_EQ(t.slot[1].reports, 0u);  // nothing of the batch claimed
  bool logged = false;
  for (size_t i = 0; i < plat_test_log_count(); ++i) {
    char line[512];
    int level = 0;
    plat_test_log_get(i, &level, line, sizeof line);
    const std::string l = line;
    logged = logged || (l.find("standby out of sync: apply of sync opcode 1 (HA number 3)") != std::string::npos &&
                        l.find("the 2 changes applied with it") != std::string::npos &&
                        l.find("1 apply failed") != std::string::npos);
  }
  EXPECT_TRUE(logged);
  // The request reaches the active, which resends 1..5; the store takes them now.
  forward_all();
  mts_msg_ref other;
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();
  drain();
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{1, 2, 3, 1, 2, 3, 4, 5}));
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
  t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, 0u);
  EXPECT_EQ(t.slot[1].reports, 5u);

  // Refused again, and refused in the resend: nothing more applied, no request of its own.
  seen_.dispatched.clear();
  seen_.refuse = {6, 6};
  send(2);
  forward_all();
  drain();
  forward_all();
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();
  drain();
  send(1);
  forward_all();
  drain();
  EXPECT_EQ(seen_.dispatched, (std::vector<uint64_t>{6, 6}));
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
  t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, sm::kOutOfSyncApplyFailed);
  EXPECT_EQ(t.slot[1].failed, 3u);
}

namespace {

// A dispatcher that applies each change to a PSS file (key: the HA number) and reads it back
// at once, as a client callback may.
uint32_t g_store = 0;
std::atomic<int> g_commits{0};
int g_read_back = 0;
int counting_commit(MDB_txn* txn) { return ++g_commits, mdb_txn_commit(txn); }
int failing_commit(MDB_txn* txn) { return mdb_txn_abort(txn), EIO; }
int storing_dispatch(const mts_msg_ref* m) noexcept {
  const std::string k = std::to_string(mts_ha_seqno_get(m));
  g_seen->dispatched.push_back(mts_ha_seqno_get(m));
  datum kd = hadra::test::D(k), vd = hadra::test::D(k);
  (void)pss2_store(g_store, &kd, &vd);
  uint32_t st = 1;
  if (const datum* v = pss2_fetch(g_store, &kd, &st); v != nullptr && hadra::test::S(v) == k) ++g_read_back;
  return 0;
}
const cl::Lib kStoring = {&storing_dispatch, &fake_snapshot, &fake_gsync, &fake_failed, &fake_switchover,
                          &fake_marker,      &fake_done,     &fake_cfg,   nullptr,      nullptr};

}  // namespace

// Changes queued behind each other are applied in one commit, each readable by the callback
// right after its apply, and told as applied only then. A commit that fails at the end of such
// a run takes the whole run back: out of sync with its count, none of it applied or claimed,
// and the resend of the active (applied as a run too) brings the copy back, identical.
TEST_F(ReceiveLoopTest, QueuedChangesCommitTogetherAndAFailedCommitTakesTheRunBack) {
  namespace sm = hadra::plat::sysmgr;
  namespace plat = hadra::plat;
  cl::set_library(&kStoring);
  uint32_t err = 1;
  g_store = pss2_open("run:/copy", PSS2_OPEN_FLAGS_CREATE, 7, 0, nullptr, &err);
  ASSERT_EQ(err, 0u);
  ASSERT_EQ(mts_bind(kActive), 0);
  plat_test_log_capture(1);
  auto send = [&](int count) {
    send_changes(count);
    forward_all();
  };
  auto keys = [&] {
    std::vector<std::string> out;
    uint32_t h = g_store, st = 0;
    for (uint32_t rc = pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st); rc == 0;
         rc = pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st))
      out.push_back(hadra::test::S(pss2_getkey(h, &st)));
    return out;
  };
  plat::lmdb_ops().txn_commit = counting_commit;
  g_commits = 0;
  send(5);
  drain();
  EXPECT_EQ(g_commits, 1);
  EXPECT_EQ(g_read_back, 5);
  EXPECT_EQ(keys(), (std::vector<std::string>{"1", "2", "3", "4", "5"}));
  EXPECT_EQ(applied_table(root()).slot[1].reports, 5u);

  plat::lmdb_ops().txn_commit = failing_commit;
  send(3);
  drain();
  sm::SeqnoTable t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, sm::kOutOfSyncApplyFailed);
  EXPECT_EQ(t.slot[1].reports, 5u) << "nothing of the failed run claimed";
  EXPECT_EQ(keys().size(), 5u);
  bool logged = false;
  for (size_t i = 0; i < plat_test_log_count(); ++i) {
    char line[512];
    int level = 0;
    plat_test_log_get(i, &level, line, sizeof line);
    logged = logged || std::string(line).find("apply of 3 changes in one transaction (HA numbers 6..8") !=
                           std::string::npos;
  }
  EXPECT_TRUE(logged);

  plat::lmdb_ops().txn_commit = counting_commit;
  g_commits = 0;
  forward_all();  // the request for a resend reaches the active
  mts_msg_ref other;
  EXPECT_EQ(sysmgr_client_next(kActive, 0, &other), SYSMGR_RX_EVENT);
  forward_all();
  drain();
  EXPECT_EQ(g_commits, 1) << "the resent frames, queued together, are applied as one run";
  plat::reset_lmdb_ops();
  t = applied_table(root());
  EXPECT_EQ(t.out_of_sync, 0u);
  EXPECT_EQ(t.slot[1].reports, 8u);
  EXPECT_EQ(keys(), (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7", "8"}));
  EXPECT_EQ(pss2_close(g_store), 0u);
}
