// MTS over ZeroMQ within one process: the "peer" address is pointed at this process's own
// sockets, so frames really cross an ipc:// socket and the I/O thread. Order, numbering and
// bytes of every payload size are the two-process test's; these are the socket's edge cases.
#include <zmq.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "mts_support.h"

namespace hadra::test {
namespace {

constexpr uint32_t kSap = 100;
constexpr uint32_t kOpc = 3001;

class MtsZmqTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    setenv("HADRA_TRANSPORT", "zmq", 1);
    setenv("HADRA_MTS_PEER", ("ipc://" + root() + "/sock/sap-{sap}").c_str(), 1);
    plat_config_reload();
  }
  void TearDown() override {
    PlatformTest::TearDown();
    unsetenv("HADRA_TRANSPORT");
    unsetenv("HADRA_MTS_PEER");
    plat_config_reload();
  }
  std::string url(uint32_t sap) const { return "ipc://" + root() + "/sock/sap-" + std::to_string(sap); }

  // Waits (bounded) until pred holds; the I/O thread works on its own time.
  template <class P>
  static bool eventually(P pred) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!pred()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
};

// A peer frame from SAP 9 of node 2, numbered seqno.
Bytes peer_frame(uint64_t seqno, const std::string& payload) {
  plat::mts::WireHdr h;
  h.sync_event = MTS_SYNC_EVENT_UPDATE;
  h.src_node = 2;
  h.opcode = kOpc;
  h.src_sap = 9;
  h.dst_sap = kSap;
  h.ha_seqno = seqno;
  h.epoch = 5;
  return encoded_frame(h, payload);
}

TEST_F(MtsZmqTest, RebindingAfterUnbindReceivesAgain) {
  ASSERT_EQ(mts_bind(kSap), 0);
  EXPECT_STREQ(mts_test_transport(), "zmq");
  ASSERT_EQ(mts_unbind(kSap), 0);
  ASSERT_EQ(mts_bind(kSap), 0);
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, "abc", 3, nullptr, 0, nullptr), 0);
  mts_recv_opts w = wait_ms(5000);
  mts_msg_ref r;
  ASSERT_EQ(mts_recv(kSap, &r, &w), 0);
  EXPECT_EQ(payload_of(r), bytes("abc"));
}

TEST_F(MtsZmqTest, MisbehavingSenderIsRefusedAndTheLinkGoesOn) {
  ASSERT_EQ(mts_bind(kSap), 0);
  void* ctx = zmq_ctx_new();
  void* raw = zmq_socket(ctx, ZMQ_PUSH);
  ASSERT_EQ(zmq_connect(raw, url(kSap).c_str()), 0);
  // Garbage, then one well-formed frame from SAP 9 twice (a resend after a reconnect).
  ASSERT_EQ(zmq_send(raw, "garbage", 7, 0), 7);
  const Bytes frame = peer_frame(1, "zz");
  ASSERT_EQ(zmq_send(raw, frame.data(), frame.size(), 0), static_cast<int>(frame.size()));
  ASSERT_EQ(zmq_send(raw, frame.data(), frame.size(), 0), static_cast<int>(frame.size()));

  mts_recv_opts w = wait_ms(5000);
  mts_msg_ref r;
  ASSERT_EQ(mts_recv(kSap, &r, &w), 0);
  EXPECT_EQ(payload_of(r), bytes("zz"));
  EXPECT_EQ(mts_src_sap_get(&r), 9u);
  mts_test_counters c{}, total{};
  EXPECT_TRUE(eventually([&] {
    mts_test_counters_get(kSap, &c);
    mts_test_counters_get(0, &total);
    return c.repeats == 1 && total.bad_frames == 1;
  }));
  EXPECT_EQ(mts_test_queued(kSap), 0u);

  // Our own sender is still heard after all that.
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, "ok", 2, nullptr, 0, nullptr), 0);
  ASSERT_EQ(mts_recv(kSap, &r, &w), 0);
  EXPECT_EQ(payload_of(r), bytes("ok"));
  zmq_close(raw);
  zmq_ctx_term(ctx);
}

// Frames as one bundle; extra bytes after the last frame when trailing is set.
Bytes bundle_of(const std::vector<Bytes>& frames, size_t trailing = 0) {
  Bytes b(plat::mts::kBundleHdrSize);
  plat::mts::put_le(b.data(), plat::mts::kBundleMagic, 4);
  plat::mts::put_le(b.data() + 4, frames.size(), 4);
  for (const Bytes& f : frames) {
    uint8_t len[4];
    plat::mts::put_le(len, f.size(), 4);
    b.insert(b.end(), len, len + 4);
    b.insert(b.end(), f.begin(), f.end());
  }
  b.resize(b.size() + trailing, 'x');
  return b;
}

// Groups of frames travel as bundles: a bundle arrives as its frames, in order, each checked
// as a frame of its own; one whose lengths do not add up is refused whole as one bad frame,
// and the link goes on.
TEST_F(MtsZmqTest, ABundleArrivesAsItsFramesAndAMalformedOneIsRefusedWhole) {
  ASSERT_EQ(mts_bind(kSap), 0);
  void* ctx = zmq_ctx_new();
  void* raw = zmq_socket(ctx, ZMQ_PUSH);
  ASSERT_EQ(zmq_connect(raw, url(kSap).c_str()), 0);
  auto push = [&](const Bytes& b) { return zmq_send(raw, b.data(), b.size(), 0) == static_cast<int>(b.size()); };
  Bytes misnumbered = peer_frame(3, "three");
  misnumbered[16] ^= 0x40;  // another destination: refused alone, its neighbours go on
  ASSERT_TRUE(push(bundle_of({peer_frame(1, "one"), peer_frame(2, "two"), misnumbered, peer_frame(4, "four")})));
  ASSERT_TRUE(push(bundle_of({peer_frame(5, "five")}, 1)));  // a byte past its last frame
  Bytes cut = bundle_of({peer_frame(6, "six"), peer_frame(7, "seven")});
  cut.pop_back();  // the last frame runs past the end
  ASSERT_TRUE(push(cut));
  ASSERT_TRUE(push(bundle_of({})));  // no frames
  ASSERT_TRUE(push(bundle_of({peer_frame(8, "eight")})));

  mts_recv_opts w = wait_ms(5000);
  mts_msg_ref r;
  for (const char* want : {"one", "two", "four", "eight"}) {
    ASSERT_EQ(mts_recv(kSap, &r, &w), 0) << want;
    EXPECT_EQ(payload_of(r), bytes(want));
    EXPECT_EQ(mts_drop(kSap, &r), 0);
  }
  mts_test_counters c{}, total{};
  EXPECT_TRUE(eventually([&] {
    mts_test_counters_get(kSap, &c);
    mts_test_counters_get(0, &total);
    return total.bad_frames == 3 && total.undeliverable == 1;
  })) << total.bad_frames << " bad, " << total.undeliverable << " undeliverable";
  // Numbers 3, 5, 6 and 7 never arrived: the stream shows the hole before 8.
  EXPECT_EQ(c.missing, 4u);
  EXPECT_EQ(mts_test_queued(kSap), 0u);
  zmq_close(raw);
  zmq_ctx_term(ctx);
}

// A receiver that falls behind leaves its sender's frames in the link: its queue stops at
// MTS_RX_HOLD, and once it reads again every frame comes, in order, none lost or repeated.
TEST_F(MtsZmqTest, AReceiverThatFallsBehindHoldsItsFramesInTheLink) {
  ScopedConfig hold("MTS_RX_HOLD", "8");
  ScopedConfig alone("MTS_COALESCE_MAX", "1");  // frames one by one: the hold is met exactly
  ASSERT_EQ(mts_bind(kSap), 0);
  constexpr int kFrames = 300;
  for (int i = 0; i < kFrames; ++i) {
    const std::string p = "frame " + std::to_string(i);
    ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, p.data(), static_cast<uint32_t>(p.size()), nullptr, 0, nullptr), 0);
  }
  EXPECT_TRUE(eventually([] { return mts_test_queued(kSap) >= 8; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // given time, the I/O thread takes no more
  EXPECT_EQ(mts_test_queued(kSap), 8u);
  mts_recv_opts w = wait_ms(5000);
  for (int i = 0; i < kFrames; ++i) {
    mts_msg_ref r;
    ASSERT_EQ(mts_recv(kSap, &r, &w), 0) << "frame " << i;
    EXPECT_EQ(payload_of(r), bytes("frame " + std::to_string(i)));
    EXPECT_EQ(mts_ha_seqno_get(&r), static_cast<uint64_t>(i) + 1);
    EXPECT_EQ(mts_drop(kSap, &r), 0);
    EXPECT_LE(mts_test_queued(kSap), 8u);
  }
  mts_test_counters c{};
  ASSERT_EQ(mts_test_counters_get(kSap, &c), 0);
  EXPECT_EQ(c.missing + c.repeats + c.overflows + c.sends_missed, 0u);
}

TEST_F(MtsZmqTest, AddressesThatCannotBeBoundAreReported) {
  {
    ScopedConfig local("MTS_LOCAL", "ipc://" + root() + "/" + std::string(120, 'x') + "/sap-{sap}");
    EXPECT_EQ(mts_bind(kSap), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);  // longer than a socket address holds
  }
  plat_test_reset();
  plat_test_set_root(root().c_str());
  ScopedConfig local("MTS_LOCAL", "tcp://127.0.0.1:{port}");
  ScopedConfig base("MTS_PORT_BASE", "65500");
  EXPECT_EQ(mts_bind(kSap), -1);
  EXPECT_EQ(errno, EADDRNOTAVAIL);  // 65500 + 100 is no port
}

TEST_F(MtsZmqTest, SendsToAnAbsentPeerStopWhenTheQueueIsFull) {
  ScopedConfig peer("MTS_PEER", "ipc://" + root() + "/nobody/sap-{sap}");
  ScopedConfig hwm("MTS_HWM", "2");
  ScopedConfig timeout("MTS_PEER_SEND_TIMEOUT_MS", "20");
  ScopedConfig alone("MTS_COALESCE_MAX", "1");  // each blocking send meets the full queue itself
  int sent = 0, rc = 0;
  while (sent < 100 && (rc = mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, "q", 1, nullptr, MTS_SEND_NONBLOCK, nullptr)) == 0)
    ++sent;
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(sent, 100);
  // A blocking send waits at most the peer bound and then takes its number all the same: the
  // change stands, the frame is counted as missed and the stream is broken.
  plat_test_log_capture(1);
  mts_msg_ref ref;
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, "q", 1, &ref, 0, nullptr), 0);
  EXPECT_EQ(mts_ha_seqno_get(&ref), static_cast<uint64_t>(sent) + 1);
  EXPECT_EQ(mts_drop(kSap, &ref), 0);
  int broken = 0;
  uint64_t missed = 0;
  ASSERT_EQ(mts_test_tx_state(kSap, kSap, nullptr, &broken, &missed), 0);
  EXPECT_EQ(broken, 1);
  EXPECT_EQ(missed, 1u);
  EXPECT_EQ(mts_test_held(kSap), 0u);
}

}  // namespace
}  // namespace hadra::test
