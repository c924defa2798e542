// MTS over the loopback transport: what goes on the wire, numbering on the HA link, held
// references, receive rules, and the receiver's checks on what the peer sends. (The
// completion records of gsync are checked by the library's gsync tests.)
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include <poll.h>

#include "mts/core.h"
#include "mts_support.h"

namespace hadra::test {
namespace {

constexpr uint32_t kSap = 100;
constexpr uint32_t kOpc = 3001;

class MtsLoopbackTest : public PlatformTest {
 protected:
  // Send hdr + pieces from kSap to the same SAP on the peer; returns mts_send's result.
  int send_peer(const Bytes& hdr, const std::vector<mts_piece>& pieces, mts_msg_ref* ref = nullptr,
                uint32_t sap = kSap) {
    Desc d(pieces);
    return mts_send(sap, MTS_ADDR_PEER, MTS_SAP_SAME, kOpc, hdr.data(), static_cast<uint32_t>(hdr.size()), ref, 0,
                    d.get());
  }
};

TEST_F(MtsLoopbackTest, MultiPieceSendLeavesAsOnePayloadByteForByte) {
  // A sync header, a key and a value: the shape of every record change.
  Bytes hdr = {3, 0, 0, 3, 0, 5, 0, 0, 0, 0, 0, 1};
  Bytes key = bytes("abc"), data = bytes("vwxyz");
  mts_msg_ref ref;
  ASSERT_EQ(send_peer(hdr, {{key.data(), 3}, {data.data(), 5}}, &ref), 0);

  PeerFrame f = take_peer_frame();
  Bytes want = hdr;
  want.insert(want.end(), key.begin(), key.end());
  want.insert(want.end(), data.begin(), data.end());
  EXPECT_EQ(f.payload(), want);
  EXPECT_EQ(f.h.payload_len, 20u);
  EXPECT_EQ(f.h.opcode, kOpc);
  EXPECT_EQ(f.h.src_sap, kSap);
  EXPECT_EQ(f.h.dst_sap, kSap);  // "same SAP on the peer" is resolved by the sender
  EXPECT_EQ(f.h.sync_event, MTS_SYNC_EVENT_UPDATE);
  EXPECT_EQ(f.h.ha_seqno, 1u);
  EXPECT_EQ(f.h.msg_id, mts_msg_id_get(&ref));
  EXPECT_EQ(f.h.rr_token, mts_rr_token_get(&ref));
  EXPECT_EQ(mts_payload_size(&ref), 20u);
  EXPECT_EQ(mts_payload_get(&ref), nullptr);  // a sent message's payload is not kept
  EXPECT_EQ(mts_drop(kSap, &ref), 0);
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(MtsLoopbackTest, HeaderOnlySendsCarryJustTheHeader) {
  Bytes hdr = {3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10};
  ASSERT_EQ(send_peer(hdr, {}), 0);                                          // descriptor, no pieces
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, hdr.data(), 12, nullptr, 0, nullptr), 0);  // no descriptor
  Bytes empty;
  ASSERT_EQ(send_peer(hdr, {{empty.data(), 0}}), 0);                         // an empty piece
  for (int i = 0; i < 3; ++i) {
    PeerFrame f = take_peer_frame();
    EXPECT_EQ(f.payload(), hdr);
    EXPECT_EQ(f.raw.size(), plat::mts::kWireHdrSize + 12);
  }
}

TEST_F(MtsLoopbackTest, SequenceNumbersRisePerSendingEndpointAndFailedSendsTakeNone) {
  Bytes hdr(12, 0);
  auto seq_of_send = [&](uint32_t sap) {
    mts_msg_ref ref;
    EXPECT_EQ(send_peer(hdr, {}, &ref, sap), 0);
    uint64_t s = mts_ha_seqno_get(&ref);
    EXPECT_EQ(mts_drop(sap, &ref), 0);
    return s;
  };
  EXPECT_EQ(seq_of_send(100), 1u);
  EXPECT_EQ(seq_of_send(200), 1u);
  EXPECT_EQ(seq_of_send(100), 2u);
  // A send the transport itself refuses (too big) leaves no frame and no reference. (An
  // injected failure would prove nothing here: it returns before the transport is reached.)
  Bytes huge(MTS_PAYLOAD_MAX, 0);
  mts_msg_ref failed;
  std::memset(&failed, 0xff, sizeof failed);
  EXPECT_EQ(send_peer(hdr, {{huge.data(), MTS_PAYLOAD_MAX}}, &failed), -1);
  EXPECT_EQ(failed.kind, MTS_REF_NONE);
  EXPECT_EQ(mts_test_peer_count(), 3u);
  EXPECT_EQ(seq_of_send(100), 3u);
  EXPECT_EQ(seq_of_send(200), 2u);

  // Within the supervisor there is no HA numbering.
  ASSERT_EQ(mts_bind(300), 0);
  mts_msg_ref ref;
  ASSERT_EQ(mts_send(100, MTS_ADDR_LOCAL, 300, kOpc, hdr.data(), 12, &ref, 0, nullptr), 0);
  EXPECT_EQ(mts_ha_seqno_get(&ref), 0u);
  EXPECT_EQ(mts_sync_event_get(&ref), MTS_SYNC_EVENT_NONE);
}

TEST_F(MtsLoopbackTest, DroppedAndForeignReferencesAreRefused) {
  Bytes hdr(12, 1);
  mts_msg_ref ref;
  ASSERT_EQ(send_peer(hdr, {}, &ref), 0);
  mts_msg_ref copy = ref;  // a reference is a value: copies name the same message
  EXPECT_EQ(mts_test_held(kSap), 1u);
  EXPECT_EQ(mts_drop(kSap + 1, &ref), -1);  // another SAP does not hold it
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_drop(kSap, &copy), 0);
  EXPECT_EQ(mts_test_held(kSap), 0u);

  errno = 0;
  EXPECT_EQ(mts_drop(kSap, &ref), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(mts_opc_get(&ref), 0u);
  EXPECT_EQ(mts_ha_seqno_get(&ref), 0u);
  EXPECT_EQ(mts_sync_event_get(&ref), -1);

  // A slot reused by a later message does not revive the old reference.
  mts_msg_ref next;
  ASSERT_EQ(send_peer(hdr, {}, &next), 0);
  EXPECT_EQ(next.slot, ref.slot);
  EXPECT_EQ(mts_drop(kSap, &ref), -1);
  EXPECT_EQ(mts_ha_seqno_get(&next), 2u);

  mts_msg_ref zero{};  // what a client holds before its first switchover
  EXPECT_EQ(mts_drop(kSap, &zero), -1);
  EXPECT_EQ(mts_drop(kSap, nullptr), -1);
  mts_msg_ref junk;
  std::memset(&junk, 0xa5, sizeof junk);
  EXPECT_EQ(mts_drop(0xa5a5a5a5u, &junk), -1);
  EXPECT_EQ(mts_payload_get(&junk), nullptr);
}

TEST_F(MtsLoopbackTest, BadSendArgumentsGetClearErrors) {
  Bytes hdr(12, 0);
  mts_piece null_piece{nullptr, 4};
  Desc bad_kind({}), null_list({}), with_null({null_piece});
  bad_kind.get()->kind = 0;
  null_list.get()->count = 1;
  Desc too_many(std::vector<mts_piece>(MTS_XBUF_MAX_PIECES + 1, mts_piece{hdr.data(), 1}));
  struct Case {
    uint32_t src, addr, dsap;
    const void* hdr;
    uint32_t len, flags;
    const mts_xbuf_desc* d;
    int err;
  } cases[] = {
      {0, MTS_ADDR_PEER, 0, hdr.data(), 12, 0, nullptr, EINVAL},
      {kSap, MTS_ADDR_PEER, 0, nullptr, 12, 0, nullptr, EINVAL},
      {kSap, MTS_ADDR_PEER, 0, hdr.data(), 12, 0x80, nullptr, EINVAL},
      {kSap, MTS_ADDR_PEER, 0, hdr.data(), 12, 0, bad_kind.get(), EINVAL},
      {kSap, MTS_ADDR_PEER, 0, hdr.data(), 12, 0, null_list.get(), EINVAL},
      {kSap, MTS_ADDR_PEER, 0, hdr.data(), 12, 0, with_null.get(), EINVAL},
      {kSap, MTS_ADDR_PEER, 0, hdr.data(), 12, 0, too_many.get(), EINVAL},
      {kSap, MTS_ADDR_LOCAL, 0, hdr.data(), 12, 0, nullptr, EINVAL},
      {kSap, 0x12345678u, 0, hdr.data(), 12, 0, nullptr, EHOSTUNREACH},
      {kSap, MTS_ADDR_LOCAL, 555, hdr.data(), 12, 0, nullptr, ECONNREFUSED},  // nobody bound
  };
  for (const Case& c : cases) {
    errno = 0;
    mts_msg_ref ref;
    EXPECT_EQ(mts_send(c.src, c.addr, c.dsap, kOpc, c.hdr, c.len, &ref, c.flags, c.d), -1);
    EXPECT_EQ(errno, c.err) << "src " << c.src << " addr " << c.addr << " dsap " << c.dsap;
    EXPECT_EQ(ref.kind, MTS_REF_NONE);
  }
  EXPECT_EQ(mts_test_peer_count(), 0u);
  EXPECT_EQ(mts_test_held(kSap), 0u);
}

TEST_F(MtsLoopbackTest, ReceiveWaitsAtMostItsTimeout) {
  mts_msg_ref ref;
  EXPECT_EQ(mts_recv(kSap, &ref, nullptr), -1);
  EXPECT_EQ(errno, EADDRNOTAVAIL);  // not bound
  ASSERT_EQ(mts_bind(kSap), 0);
  EXPECT_EQ(mts_bind(kSap), -1);
  EXPECT_EQ(errno, EADDRINUSE);
  EXPECT_EQ(mts_recv(kSap, &ref, nullptr), -1);
  EXPECT_EQ(errno, EAGAIN);
  mts_recv_opts o = wait_ms(20);
  EXPECT_EQ(mts_recv(kSap, &ref, &o), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  o.flags = 0x10;
  EXPECT_EQ(mts_recv(kSap, &ref, &o), -1);
  EXPECT_EQ(errno, EINVAL);

  // Unbinding wakes a receiver that is waiting. The trace shows when it has entered the call.
  plat_trace_start();
  int rc = 0, err = 0;
  std::thread waiter([&] {
    mts_recv_opts w = wait_ms(10000);
    mts_msg_ref r;
    rc = mts_recv(kSap, &r, &w);
    err = errno;
  });
  while (plat_trace_count("mts_recv") == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(10));  // from the trace record to the wait
  EXPECT_EQ(mts_unbind(kSap), 0);
  waiter.join();
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(err, ECONNABORTED);
  EXPECT_EQ(mts_unbind(kSap), -1);
}

TEST_F(MtsLoopbackTest, PeerFramesFedBackAreReceivedInOrderWithTheirFields) {
  ASSERT_EQ(mts_bind(kSap), 0);  // this process plays the peer too
  Bytes hdr = bytes("0123456789ab");
  mts_piece note{"ctx", 3};
  Desc d({note});
  d.get()->notify = 1;
  d.get()->no_reply = 1;
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, hdr.data(), 12, nullptr, 0, d.get()), 0);
  ASSERT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc + 1, hdr.data(), 5, nullptr, 0, nullptr), 0);
  EXPECT_EQ(mts_test_peer_forward(0), 2u);

  mts_msg_ref a, b;
  ASSERT_EQ(mts_recv(kSap, &a, nullptr), 0);
  ASSERT_EQ(mts_recv(kSap, &b, nullptr), 0);
  EXPECT_EQ(payload_of(a), bytes("0123456789abctx"));
  EXPECT_EQ(mts_opc_get(&a), kOpc);
  EXPECT_EQ(mts_sync_event_get(&a), MTS_SYNC_EVENT_UPDATE);
  EXPECT_EQ(mts_ha_seqno_get(&a), 1u);
  EXPECT_EQ(mts_msg_flags_get(&a), MTS_MSG_NOTIFY | MTS_MSG_NO_REPLY);
  EXPECT_EQ(mts_src_sap_get(&a), kSap);
  EXPECT_EQ(payload_of(b), bytes("01234"));
  EXPECT_EQ(mts_ha_seqno_get(&b), 2u);
  EXPECT_EQ(mts_msg_flags_get(&b), 0u);
  EXPECT_EQ(mts_test_held(kSap), 2u);
  EXPECT_EQ(mts_drop(kSap, &a), 0);
  EXPECT_EQ(mts_drop(kSap, &b), 0);
}

TEST_F(MtsLoopbackTest, RepeatsAreDroppedAndGapsCountedAndLogged) {
  ASSERT_EQ(mts_bind(kSap), 0);
  Bytes hdr(12, 7);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(send_peer(hdr, {}), 0);
  PeerFrame f[4] = {take_peer_frame(), take_peer_frame(), take_peer_frame(), take_peer_frame()};
  plat_test_log_capture(1);

  EXPECT_EQ(mts_test_feed(f[0].raw.data(), f[0].raw.size()), 0);
  EXPECT_EQ(mts_test_feed(f[0].raw.data(), f[0].raw.size()), 1);  // resent: must not apply twice
  EXPECT_EQ(mts_test_feed(f[3].raw.data(), f[3].raw.size()), 0);  // 2 and 3 lost
  EXPECT_EQ(mts_test_feed(f[2].raw.data(), f[2].raw.size()), 1);  // late: behind the stream

  mts_test_counters c;
  ASSERT_EQ(mts_test_counters_get(kSap, &c), 0);
  EXPECT_EQ(c.delivered, 2u);
  EXPECT_EQ(c.repeats, 2u);
  EXPECT_EQ(c.gaps, 1u);
  EXPECT_EQ(c.missing, 2u);
  auto lines = log_lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const LogLine& l) { return l.level == PLAT_LOG_ERR; }), 1);

  mts_msg_ref r;
  ASSERT_EQ(mts_recv(kSap, &r, nullptr), 0);
  EXPECT_EQ(mts_ha_seqno_get(&r), 1u);
  ASSERT_EQ(mts_recv(kSap, &r, nullptr), 0);
  EXPECT_EQ(mts_ha_seqno_get(&r), 4u);
  EXPECT_EQ(mts_recv(kSap, &r, nullptr), -1);

  // A restarted sender (new endpoint, new stream) starts counting again without a repeat.
  ASSERT_EQ(mts_unbind(kSap), 0);
  ASSERT_EQ(mts_bind(kSap), 0);
  ASSERT_EQ(send_peer(hdr, {}), 0);
  PeerFrame again = take_peer_frame();
  EXPECT_EQ(again.h.ha_seqno, 1u);
  EXPECT_EQ(mts_test_feed(again.raw.data(), again.raw.size()), 0);
}

TEST_F(MtsLoopbackTest, MalformedFramesAreRefusedAndCounted) {
  ASSERT_EQ(mts_bind(kSap), 0);
  Bytes hdr(12, 0);
  ASSERT_EQ(send_peer(hdr, {}), 0);
  PeerFrame good = take_peer_frame();

  Bytes bad_magic = good.raw;
  bad_magic[0] ^= 0xff;
  Bytes short_by_one(good.raw.begin(), good.raw.end() - 1);  // length field says 12
  Bytes long_len = good.raw;
  plat::mts::put_le(long_len.data() + 40, 0xffffffffu, 4);
  Bytes bad_version = good.raw;
  bad_version[4] = 9;
  for (const Bytes* b : {&bad_magic, &short_by_one, &long_len, &bad_version}) {
    EXPECT_EQ(mts_test_feed(b->data(), b->size()), -1);
    EXPECT_EQ(errno, EBADMSG);
  }
  EXPECT_EQ(mts_test_feed(good.raw.data(), 10), -1);  // shorter than a header
  Bytes elsewhere = good.raw;
  plat::mts::put_le(elsewhere.data() + 16, kSap + 1, 4);
  plat_test_log_capture(1);
  EXPECT_EQ(mts_test_feed(elsewhere.data(), elsewhere.size()), -1);
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  // Dropped, and said with its sender and the SAP it was meant for.
  EXPECT_TRUE(logged({"dropped a frame", "SAP " + std::to_string(kSap) + " for SAP " + std::to_string(kSap + 1),
                      "nothing receives"}))
      << last_log_line();

  mts_test_counters c;
  ASSERT_EQ(mts_test_counters_get(0, &c), 0);
  EXPECT_EQ(c.bad_frames, 5u);
  EXPECT_EQ(c.undeliverable, 1u);
  EXPECT_EQ(mts_test_queued(kSap), 0u);
  EXPECT_EQ(mts_test_feed(good.raw.data(), good.raw.size()), 0);  // the original still passes
}

TEST_F(MtsLoopbackTest, LocalMessagesAndRepliesShareTheRequestToken) {
  ASSERT_EQ(mts_bind(10), 0);
  ASSERT_EQ(mts_bind(20), 0);
  Bytes q = bytes("query");
  mts_msg_ref sent, got, reply;
  ASSERT_EQ(mts_send(10, MTS_ADDR_LOCAL, 20, kOpc, q.data(), 5, &sent, 0, nullptr), 0);
  ASSERT_EQ(mts_recv(20, &got, nullptr), 0);
  EXPECT_NE(mts_rr_token_get(&sent), 0u);
  EXPECT_EQ(mts_rr_token_get(&got), mts_rr_token_get(&sent));
  EXPECT_EQ(mts_sync_event_get(&got), MTS_SYNC_EVENT_NONE);
  EXPECT_EQ(payload_of(got), q);

  ASSERT_EQ(mts_reply(20, &got, kOpc + 1, "ok", 2, nullptr, 0, nullptr), 0);
  ASSERT_EQ(mts_recv(10, &reply, nullptr), 0);
  EXPECT_EQ(mts_rr_token_get(&reply), mts_rr_token_get(&sent));
  EXPECT_EQ(mts_src_sap_get(&reply), 20u);
  EXPECT_EQ(mts_reply(10, &sent, kOpc, "x", 1, nullptr, 0, nullptr), -1);  // not a received message
  EXPECT_EQ(errno, EINVAL);

  // A request from the peer is answered over the HA link.
  ASSERT_EQ(mts_test_deliver(20, 77, 1, kOpc, MTS_SYNC_EVENT_UPDATE, 0, 4242, "p", 1), 0);
  ASSERT_EQ(mts_recv(20, &got, nullptr), 0);
  ASSERT_EQ(mts_reply(20, &got, kOpc + 2, "r", 1, nullptr, 0, nullptr), 0);
  PeerFrame f = take_peer_frame();
  EXPECT_EQ(f.h.dst_sap, 77u);
  EXPECT_EQ(f.h.rr_token, 4242u);
  EXPECT_EQ(f.h.ha_seqno, 1u);
}

// The client's queue at a switchover is cleared by the library's switchover tests; here only
// the names its log lines give those messages.
TEST_F(MtsLoopbackTest, OpcodeNames) {
  EXPECT_STREQ(mts_opc_name_get(MTS_OPC_YOU_ARE_ALMOST_ACTIVE), "YOU_ARE_ALMOST_ACTIVE");
  EXPECT_STREQ(mts_opc_name_get(MTS_OPC_YOU_ARE_ACTIVE), "YOU_ARE_ACTIVE");
  EXPECT_STREQ(mts_opc_name_get(4711), "opc_4711");
}

TEST_F(MtsLoopbackTest, OutboxKeepsTheNewestFrames) {
  ScopedConfig keep("MTS_LOOPBACK_KEEP", "3");
  plat_test_reset();  // the transport reads its settings when first used after a reset
  plat_test_set_root(root().c_str());
  Bytes hdr(12, 0);
  for (int i = 0; i < 5; ++i) ASSERT_EQ(send_peer(hdr, {}), 0);
  EXPECT_EQ(mts_test_peer_count(), 3u);
  EXPECT_EQ(mts_test_peer_dropped(), 2u);
  EXPECT_EQ(take_peer_frame().h.ha_seqno, 3u);
}

// An event loop polls the descriptor: readable exactly while a message waits, and the last
// number sent on a stream is what a snapshot point is taken from.
TEST_F(MtsLoopbackTest, TheDescriptorIsReadableWhileAMessageWaits) {
  auto readable = [](int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN) != 0;
  };
  EXPECT_EQ(mts_fd_get(kSap), -1);  // not bound
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  ASSERT_EQ(mts_bind(kSap), 0);
  const int fd = mts_fd_get(kSap);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(mts_fd_get(kSap), fd);
  EXPECT_FALSE(readable(fd));
  for (int i = 0; i < 2; ++i) ASSERT_EQ(mts_send(kSap + 1, MTS_ADDR_LOCAL, kSap, kOpc, "x", 1, nullptr, 0, nullptr), 0);
  EXPECT_TRUE(readable(fd));
  mts_msg_ref got;
  ASSERT_EQ(mts_recv(kSap, &got, nullptr), 0);
  EXPECT_TRUE(readable(fd));  // one more waits
  ASSERT_EQ(mts_recv(kSap, &got, nullptr), 0);
  EXPECT_FALSE(readable(fd));

  uint32_t epoch = 0;
  EXPECT_EQ(hadra::plat::mts::last_sent(kSap, kSap, &epoch), 0u);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(send_peer(Bytes(4, 0), {}), 0);
  EXPECT_EQ(hadra::plat::mts::last_sent(kSap, kSap, &epoch), 3u);
  EXPECT_EQ(take_peer_frame().h.epoch, epoch);
}

}  // namespace
}  // namespace hadra::test
