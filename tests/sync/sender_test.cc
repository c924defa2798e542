// The sync sender: byte layout of the messages it sends, the order of its platform calls,
// and what it does when a platform call fails or a range cannot be described.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "hadra/hadra.h"
#include "hadra_mts_testing.h"
#include "support/fixture.h"

namespace {

using hadra::test::trace_calls;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kSap = 0x1234;
constexpr uint32_t kOpcode = 0x4321;

class SyncSenderTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    hadra_ha_handle.sap = kSap;
    hadra_ha_handle.opcode = kOpcode;
    plat_test_sysmgr_set_supstate(1);
    entry_ = hadra_ha_register_pss(3, "routes");
    ASSERT_NE(entry_, nullptr);
  }

  // Payload and MTS opcode of the oldest message sent to the peer (taken off the outbox).
  static Bytes take_payload(uint32_t* opcode = nullptr) {
    auto f = hadra::test::take_sent(1);
    if (opcode != nullptr && !f.empty()) *opcode = f[0].opcode;
    return f.empty() ? Bytes() : f[0].payload;
  }

  hadra_ha_pss_entry* entry_ = nullptr;
};

TEST_F(SyncSenderTest, MessagesAreLaidOutByteForByte) {
  uint8_t k[] = {0x61, 0x62};
  datum key{k, 2};
  ASSERT_EQ(hadra_ha_sync(entry_, &key, nullptr, HADRA_SYNC_PSS_DELETE), 1);
  uint32_t opcode = 0;
  EXPECT_EQ(take_payload(&opcode), (Bytes{3, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 2, 0x61, 0x62}));
  EXPECT_EQ(opcode, kOpcode);

  // A purge (or a destroy) is the bare header.
  ASSERT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 1);
  EXPECT_EQ(take_payload(), (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10}));

  // Key then data, back to back: the value starts at offset 12 + 3.
  uint8_t k3[] = {1, 2, 3}, v5[] = {9, 8, 7, 6, 5};
  datum key3{k3, 3}, val5{v5, 5};
  ASSERT_EQ(hadra_ha_sync(entry_, &key3, &val5, HADRA_SYNC_PSS_UPDATE), 1);
  Bytes p = take_payload();
  ASSERT_EQ(p.size(), 20u);
  EXPECT_EQ(p[5], 5);
  EXPECT_EQ(Bytes(p.begin() + 15, p.end()), Bytes(v5, v5 + 5));

  // Data without a key (batches): key_len 0, the data right after the header.
  ASSERT_EQ(hadra_ha_sync(entry_, nullptr, &val5, HADRA_SYNC_SDB_BATCH_UPDATE), 1);
  p = take_payload();
  EXPECT_EQ(Bytes(p.begin(), p.begin() + 12), (Bytes{3, 0, 0, 0, 0, 5, 0, 0, 0, 0, 0, 8}));
}

TEST_F(SyncSenderTest, CallOrderAndSequenceNumberReport) {
  plat_trace_start();
  uint8_t k[] = {1};
  datum key{k, 1};
  ASSERT_EQ(hadra_ha_sync(entry_, &key, &key, HADRA_SYNC_PSS_UPDATE), 1);
  EXPECT_EQ(trace_calls(),
            (std::vector<std::string>{"sysmgr_supstate_get", "mts_send", "mts_ha_seqno_get", "mts_drop",
                                      "sysmgr_seqno_sync"}));
  uint64_t seqno = 0;
  unsigned reports = 0;
  ASSERT_EQ(plat_test_sysmgr_seqno(3, &seqno, &reports), 0);
  EXPECT_EQ(seqno, 1u);
  ASSERT_EQ(hadra_ha_sync(entry_, &key, nullptr, HADRA_SYNC_PSS_DELETE), 1);
  plat_test_sysmgr_seqno(3, &seqno, &reports);
  EXPECT_EQ(seqno, 2u);
  EXPECT_EQ(reports, 2u);
}

TEST_F(SyncSenderTest, StandbySendsNothingAndAsksOnlyTheState) {
  plat_test_sysmgr_set_supstate(2);
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 0);
  EXPECT_EQ(trace_calls(), std::vector<std::string>{"sysmgr_supstate_get"});
  EXPECT_EQ(mts_test_peer_count(), 0u);
  EXPECT_EQ(hadra_ha_sync(nullptr, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 0);
}

TEST_F(SyncSenderTest, SeqnoStatusModeMakesNoPerMessageReport) {
  hadra_ha_handle.flags = HADRA_HA_FLAG_SEQNO_STATUS;
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 1);
  EXPECT_EQ(plat_trace_count("sysmgr_seqno_sync"), 0u);
  EXPECT_EQ(mts_test_peer_count(), 1u);
}

TEST_F(SyncSenderTest, SequenceNumberZeroIsStillReportedWithoutDebugLine) {
  hadra_ha_enable_debug();
  plat_fault_arm("mts_ha_seqno_get", 0, 1, 0, 0);
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 1);
  auto t = hadra::test::trace();
  int seqno_sync = hadra::test::trace_find("sysmgr_seqno_sync");
  ASSERT_GE(seqno_sync, 0);
  EXPECT_NE(t[seqno_sync].args.find("seqno=0"), std::string::npos) << t[seqno_sync].args;
  // The only debug line is the send line, before the sequence number is read.
  EXPECT_EQ(plat_trace_count("plat_syslog"), 1u);
  EXPECT_LT(hadra::test::trace_find("plat_syslog"), hadra::test::trace_find("mts_ha_seqno_get"));
}

TEST_F(SyncSenderTest, FailedReportReturnsZeroAfterTheMessageWentOut) {
  plat_fault_arm("sysmgr_seqno_sync", 0, 1, 0x801e0003, 0);
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 0);
  EXPECT_EQ(mts_test_peer_count(), 1u);
  EXPECT_EQ(plat_trace_count("plat_syslog"), 1u);  // the HA_SEQNO_SYNC report
}

TEST_F(SyncSenderTest, FailedSendIsReportedAndNothingIsDropped) {
  plat_fault_arm("mts_send", 0, 1, -1, ENOBUFS);
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, nullptr, nullptr, HADRA_SYNC_PSS_PURGE), 0);
  EXPECT_EQ(trace_calls("mts_"), std::vector<std::string>{"mts_send"});
  EXPECT_EQ(plat_trace_count("sysmgr_seqno_sync"), 0u);
  ASSERT_EQ(plat_trace_count("plat_syslog"), 1u);
}

TEST_F(SyncSenderTest, RangesBeyondSixteenBitsAreRefusedNotTruncated) {
  std::vector<uint8_t> big(HADRA_SYNC_MAX_LEN + 1, 0xab);
  datum key{big.data(), HADRA_SYNC_MAX_LEN + 1};
  datum max{big.data(), HADRA_SYNC_MAX_LEN};
  plat_test_log_capture(1);
  plat_trace_start();
  EXPECT_EQ(hadra_ha_sync(entry_, &key, nullptr, HADRA_SYNC_PSS_UPDATE), 0);
  EXPECT_EQ(hadra_ha_sync(entry_, &max, &key, HADRA_SYNC_PSS_UPDATE), 0);
  EXPECT_EQ(plat_trace_count("mts_send"), 0u);
  EXPECT_EQ(plat_trace_count("plat_syslog"), 2u);
  // The largest lengths the header can carry do go out, whole.
  EXPECT_EQ(hadra_ha_sync(entry_, &max, &max, HADRA_SYNC_PSS_UPDATE), 1);
  Bytes p = take_payload();
  ASSERT_EQ(p.size(), 12u + 2 * HADRA_SYNC_MAX_LEN);
  EXPECT_EQ(p[2], 0xff);
  EXPECT_EQ(p[5], 0xff);
}

}  // namespace
