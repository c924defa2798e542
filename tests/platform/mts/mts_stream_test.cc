// The HA link when the peer does not keep up: a sender is never held up beyond its bound and
// the frames that did not leave still take their numbers, so the receiver sees the hole; a
// receiver whose queue is full drops peer frames and marks the stream instead of growing.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "mts/core.h"
#include "mts_support.h"

namespace hadra::test {
namespace {

constexpr uint32_t kSap = 140;
constexpr uint32_t kOpc = 3101;

class MtsStreamTest : public PlatformTest {
 protected:
  int send_peer(uint32_t flags = 0, uint64_t* seqno = nullptr) {
    const Bytes hdr(12, 1);
    mts_msg_ref ref;
    const int rc = mts_send(kSap, MTS_ADDR_PEER, MTS_SAP_SAME, kOpc, hdr.data(), 12, &ref, flags, nullptr);
    if (rc == 0 && seqno != nullptr) *seqno = mts_ha_seqno_get(&ref);
    if (rc == 0) mts_drop(kSap, &ref);
    return rc;
  }
  // Feeds every frame the loopback kept, in order; the feeds' results.
  std::vector<int> feed_all() {
    std::vector<int> out;
    while (mts_test_peer_count() != 0) {
      PeerFrame f = take_peer_frame();
      out.push_back(mts_test_feed(f.raw.data(), f.raw.size()));
    }
    return out;
  }
  // Receives one message: its number and what the stream went through before it.
  std::pair<uint64_t, uint8_t> take() {
    mts_msg_ref r;
    EXPECT_EQ(mts_recv(kSap, &r, nullptr), 0);
    plat::mts::MsgInfo mi;
    EXPECT_TRUE(plat::mts::info(&r, &mi));
    mts_drop(kSap, &r);
    return {mi.h.ha_seqno, mi.trouble};
  }
  static long error_lines() {
    auto lines = log_lines();
    return std::count_if(lines.begin(), lines.end(), [](const LogLine& l) { return l.level <= PLAT_LOG_WARNING; });
  }
};

TEST_F(MtsStreamTest, FramesThatCannotLeaveTakeTheirNumbersAndBreakTheStreamUntilOneLeaves) {
  ASSERT_EQ(mts_bind(kSap), 0);
  plat_test_log_capture(1);
  uint64_t n = 0;
  ASSERT_EQ(send_peer(0, &n), 0);
  EXPECT_EQ(n, 1u);
  // The peer stops taking frames: each change still succeeds for the caller, numbered.
  mts_test_peer_refuse(3);
  for (uint64_t want = 2; want <= 4; ++want) {
    ASSERT_EQ(send_peer(0, &n), 0);
    EXPECT_EQ(n, want);
  }
  uint64_t last = 0, missed = 0;
  int broken = 0;
  ASSERT_EQ(mts_test_tx_state(kSap, kSap, &last, &broken, &missed), 0);
  EXPECT_EQ(last, 4u);
  EXPECT_EQ(broken, 1);
  EXPECT_EQ(missed, 3u);
  EXPECT_EQ(error_lines(), 1);  // one line when the break starts, not one per change

  ASSERT_EQ(send_peer(0, &n), 0);  // the peer reads again
  EXPECT_EQ(n, 5u);
  ASSERT_EQ(mts_test_tx_state(kSap, kSap, &last, &broken, &missed), 0);
  EXPECT_EQ(broken, 0);
  EXPECT_EQ(error_lines(), 2);  // and one with the count when it ends
  mts_test_counters c;
  ASSERT_EQ(mts_test_counters_get(kSap, &c), 0);
  EXPECT_EQ(c.sends_missed, 3u);
  EXPECT_EQ(c.breaks, 1u);

  // The receiver sees the hole: 1, then 5 marked as following a gap of three.
  EXPECT_EQ(feed_all(), (std::vector<int>{0, 0}));
  EXPECT_EQ(take(), (std::pair<uint64_t, uint8_t>{1, 0}));
  EXPECT_EQ(take(), (std::pair<uint64_t, uint8_t>{5, plat::mts::kTroubleGap}));

  // A non-blocking send (its caller retries) fails and gives its number back.
  mts_test_peer_refuse(1);
  EXPECT_EQ(send_peer(MTS_SEND_NONBLOCK), -1);
  EXPECT_EQ(errno, EAGAIN);
  ASSERT_EQ(send_peer(0, &n), 0);
  EXPECT_EQ(n, 6u);
}

TEST_F(MtsStreamTest, FullReceiveQueueDropsPeerFramesAndMarksTheNextOne) {
  ScopedConfig bound("MTS_RX_QUEUE_MAX", "2");
  ASSERT_EQ(mts_bind(kSap), 0);
  plat_test_log_capture(1);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(send_peer(), 0);
  EXPECT_EQ(feed_all(), (std::vector<int>{0, 0, 1, 1}));  // 3 and 4 dropped at the bound
  // Messages within the supervisor (the daemon's) still queue.
  ASSERT_EQ(mts_test_deliver(kSap, SYSMGR_SAP, 0, 77, 0, 0, 0, nullptr, 0), 0);
  mts_test_counters c;
  ASSERT_EQ(mts_test_counters_get(kSap, &c), 0);
  EXPECT_EQ(c.overflows, 2u);
  EXPECT_EQ(error_lines(), 1);
  for (int i = 0; i < 3; ++i) take();

  // The next frame taken carries the mark; a repeated frame marks the one after it.
  ASSERT_EQ(send_peer(), 0);
  ASSERT_EQ(send_peer(), 0);
  PeerFrame f5 = take_peer_frame(), f6 = take_peer_frame();
  EXPECT_EQ(mts_test_feed(f5.raw.data(), f5.raw.size()), 0);
  EXPECT_EQ(mts_test_feed(f5.raw.data(), f5.raw.size()), 1);
  EXPECT_EQ(mts_test_feed(f6.raw.data(), f6.raw.size()), 0);
  EXPECT_EQ(take(), (std::pair<uint64_t, uint8_t>{5, plat::mts::kTroubleOverflow}));
  EXPECT_EQ(take(), (std::pair<uint64_t, uint8_t>{6, plat::mts::kTroubleRepeat}));
}

// Blocking sends to the peer travel in groups: numbered when sent, handed over together when
// the group fills, when the sender turns to receiving, or by the flusher when the oldest has
// waited long enough; a group that cannot leave counts every frame of it as missed.
TEST_F(MtsStreamTest, GroupedSendsKeepTheirOrderAndNumbersAndAGroupThatCannotLeaveIsMissed) {
  ScopedConfig max("MTS_COALESCE_MAX", "4");
  ScopedConfig wait("MTS_COALESCE_US", "100000");
  ASSERT_EQ(mts_bind(kSap), 0);
  plat_test_log_capture(1);
  // The numbers of the frames that went, in order; each is passed on to the receiver.
  auto numbers = [] {
    std::vector<uint64_t> out;
    while (mts_test_peer_count() != 0) {
      PeerFrame f = take_peer_frame();
      out.push_back(f.h.ha_seqno);
      EXPECT_EQ(mts_test_feed(f.raw.data(), f.raw.size()), 0);
    }
    return out;
  };
  // The first frame of a stream goes alone (it shows the link works); then groups of four.
  ASSERT_EQ(send_peer(), 0);
  EXPECT_EQ(numbers(), (std::vector<uint64_t>{1}));
  for (int i = 0; i < 3; ++i) ASSERT_EQ(send_peer(), 0);
  EXPECT_EQ(mts_test_peer_count(), 0u);
  uint64_t n = 0;
  ASSERT_EQ(send_peer(0, &n), 0);
  EXPECT_EQ(n, 5u);
  EXPECT_EQ(numbers(), (std::vector<uint64_t>{2, 3, 4, 5}));

  // A sender that turns to receiving lets what waits go first; so does any other send.
  ASSERT_EQ(send_peer(), 0);
  EXPECT_EQ(mts_test_peer_count(), 0u);
  EXPECT_EQ(take().first, 1u);
  EXPECT_EQ(numbers(), (std::vector<uint64_t>{6}));
  ASSERT_EQ(send_peer(), 0);
  ASSERT_EQ(send_peer(MTS_SEND_NONBLOCK), 0);
  EXPECT_EQ(numbers(), (std::vector<uint64_t>{7, 8}));

  // The peer takes nothing: the whole group is missed from its first number on, in one line.
  mts_test_peer_refuse(1);  // the group's first frame is refused: the rest do not follow it
  for (int i = 0; i < 4; ++i) ASSERT_EQ(send_peer(), 0);
  uint64_t last = 0, missed = 0;
  int broken = 0;
  ASSERT_EQ(mts_test_tx_state(kSap, kSap, &last, &broken, &missed), 0);
  EXPECT_EQ(last, 12u);
  EXPECT_EQ(broken, 1);
  EXPECT_EQ(missed, 4u);
  EXPECT_EQ(error_lines(), 1);
  EXPECT_TRUE(logged({"HA number 9 for the peer's SAP"}));
  // The next group leaves; the break ends with its count, and the receiver sees the hole.
  for (int i = 0; i < 4; ++i) ASSERT_EQ(send_peer(), 0);
  ASSERT_EQ(mts_test_tx_state(kSap, kSap, &last, &broken, &missed), 0);
  EXPECT_EQ(broken, 0);
  EXPECT_TRUE(logged({"4 changes missed for the peer's SAP 140 (HA numbers 9..12"}));
  EXPECT_EQ(numbers(), (std::vector<uint64_t>{13, 14, 15, 16}));
  for (uint64_t want : {2, 3, 4, 5, 6, 7, 8}) EXPECT_EQ(take().first, want);
  EXPECT_EQ(take(), (std::pair<uint64_t, uint8_t>{13, plat::mts::kTroubleGap}));
}

TEST_F(MtsStreamTest, AGroupWhoseSenderFallsSilentLeavesWithinItsWait) {
  ScopedConfig max("MTS_COALESCE_MAX", "64");
  ScopedConfig wait("MTS_COALESCE_US", "2000");
  ASSERT_EQ(mts_bind(kSap), 0);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(send_peer(), 0);
  EXPECT_LT(mts_test_peer_count(), 3u);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (mts_test_peer_count() < 3 && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(mts_test_peer_count(), 3u);
}

}  // namespace
}  // namespace hadra::test
