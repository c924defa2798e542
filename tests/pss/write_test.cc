// The PSS writers: what they store, the sync message each sends (byte for byte), when they
// send nothing, the HA-state gate, failed stores, and how bad arguments are reported.
#include <cerrno>
#include <functional>

#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

// The payload a writer must send for database 3: header, then key, then data.
Bytes sync_payload(uint32_t opcode, const Bytes &key, const Bytes &data) {
  Bytes p = {3, 0, static_cast<uint8_t>(key.size() >> 8), static_cast<uint8_t>(key.size()),
             static_cast<uint8_t>(data.size() >> 8), static_cast<uint8_t>(data.size()), 0, 0,
             0, 0, 0, static_cast<uint8_t>(opcode)};
  p.insert(p.end(), key.begin(), key.end());
  p.insert(p.end(), data.begin(), data.end());
  return p;
}

// One call of each writer with good arguments; the file holds "alpha", "beta1", "beta2".
struct Writer {
  const char *name;
  const char *platform_call;
  std::function<int(hadra_ha_pss_entry *)> call;
  Bytes payload;                                // what it must send
  std::map<std::string, std::string> after;     // the file afterwards
};

std::vector<Writer> writers() {
  return {
      {"hadra_pss_update", "pss2_store",
       [](hadra_ha_pss_entry *e) { return hadra_pss_update(e, "gamma", 5, "hello", 5); },
       sync_payload(1, bytes("gamma"), bytes("hello")),
       {{"alpha", "1"}, {"beta1", "2"}, {"beta2", "3"}, {"gamma", "hello"}}},
      {"hadra_pss_delete", "pss2_delete", [](hadra_ha_pss_entry *e) { return hadra_pss_delete(e, "alpha", 5); },
       sync_payload(2, bytes("alpha"), {}),
       {{"beta1", "2"}, {"beta2", "3"}}},
      {"hadra_pss_delete_range", "pss2_delete_prefixed_keys",
       [](hadra_ha_pss_entry *e) { return hadra_pss_delete_range(e, "beta", 4); },
       sync_payload(7, bytes("beta"), {}),
       {{"alpha", "1"}}},
      {"hadra_pss_purge", "pss2_purge", [](hadra_ha_pss_entry *e) { return hadra_pss_purge(e); },
       sync_payload(10, {}, {}),
       {}},
  };
}

class PssWriteTest : public PssOpsTest {
 protected:
  void SetUp() override {
    PssOpsTest::SetUp();
    put("alpha", "1");
    put("beta1", "2");
    put("beta2", "3");
  }
  void refill() {
    ASSERT_EQ(pss2_purge(e_->pss_handle, nullptr), 0u);
    put("alpha", "1");
    put("beta1", "2");
    put("beta2", "3");
  }
};

TEST_F(PssWriteTest, EachWriterChangesTheFileAndSendsItsExactMessage) {
  for (const Writer &w : writers()) {
    SCOPED_TRACE(w.name);
    refill();
    plat_trace_start();
    ASSERT_EQ(w.call(e_), 1);
    EXPECT_EQ(stored(), w.after);
    EXPECT_EQ(take_payload(), w.payload);
    EXPECT_EQ(mts_test_peer_count(), 0u);
    // The store comes first; the sender's first question follows it.
    EXPECT_LT(trace_find(w.platform_call), trace_find("sysmgr_supstate_get"));
  }
  uint64_t seqno = 0;
  unsigned reports = 0;
  ASSERT_EQ(plat_test_sysmgr_seqno(3, &seqno, &reports), 0);
  EXPECT_EQ(reports, 4u);
}

TEST_F(PssWriteTest, UnsyncedEntriesStoreButSendNothing) {
  for (uint32_t *flag : {&e_->no_sync, &e_->local_only}) {
    *flag = 1;
    for (const Writer &w : writers()) {
      SCOPED_TRACE(w.name);
      refill();
      plat_trace_start();
      ASSERT_EQ(w.call(e_), 1);
      EXPECT_EQ(stored(), w.after);
      EXPECT_EQ(plat_trace_count("sysmgr_supstate_get"), 0u);
      EXPECT_EQ(plat_trace_count("mts_send"), 0u);
    }
    *flag = 0;
  }
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssWriteTest, FailedStoreIsReportedAndNeverSynced) {
  const char *mnemonic[] = {"PSS_UPDATE", "PSS_DELETE", "PSS_DELETE_RANGE", "PSS_PURGE"};
  size_t i = 0;
  for (const Writer &w : writers()) {
    SCOPED_TRACE(w.name);
    refill();
    const auto before = stored();
    plat_test_log_capture(1);
    plat_fault_arm(w.platform_call, 0, 1, PLAT_ERR_PSS_FULL, 0);
    plat_trace_start();
    EXPECT_EQ(w.call(e_), 0);
    plat_fault_clear();
    EXPECT_EQ(stored(), before);
    EXPECT_EQ(plat_trace_count("mts_send"), 0u);
    EXPECT_TRUE(logged({mnemonic[i++]}));
  }
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssWriteTest, DisabledRefusesWithoutTouchingTheFileOtherStatesWrite) {
  e_->state = HADRA_HA_DISABLE;
  for (const Writer &w : writers()) {
    SCOPED_TRACE(w.name);
    plat_trace_start();
    EXPECT_EQ(w.call(e_), 0);
    EXPECT_TRUE(trace_calls("pss").empty());
    EXPECT_TRUE(logged({"API_FAILED_HA", "disable", w.name, "routes", e_->uri}));
  }
  EXPECT_EQ(stored().size(), 3u);
  EXPECT_EQ(mts_test_peer_count(), 0u);

  for (uint32_t state : {HADRA_HA_STANDBY, HADRA_HA_RECOVER, HADRA_HA_ACTIVE}) {
    e_->state = state;
    for (const Writer &w : writers()) {
      SCOPED_TRACE(w.name);
      refill();
      ASSERT_EQ(w.call(e_), 1);
      EXPECT_EQ(stored(), w.after);
      EXPECT_EQ(take_payload(), w.payload);
    }
  }
}

// The standby's dispatcher applies sync messages through these calls: the change lands and
// nothing goes back to the peer.
TEST_F(PssWriteTest, OnTheStandbySupervisorTheChangeIsStoredAndNotSentBack) {
  plat_test_sysmgr_set_supstate(HADRA_SUP_STANDBY);
  e_->state = HADRA_HA_STANDBY;
  for (const Writer &w : writers()) {
    SCOPED_TRACE(w.name);
    refill();
    ASSERT_EQ(w.call(e_), 1);
    EXPECT_EQ(stored(), w.after);
  }
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssWriteTest, FailedSyncKeepsTheLocalChange) {
  plat_fault_arm("mts_send", 0, 0, -1, ENOBUFS);
  EXPECT_EQ(hadra_pss_update(e_, "k", 1, "v", 1), 1);
  EXPECT_EQ(stored().at("k"), "v");
  EXPECT_TRUE(logged({"HA_SYNC"}));
}

TEST_F(PssWriteTest, BadArgumentsAreNamedReadablyAndTouchNothing) {
  plat_trace_start();
  EXPECT_EQ(hadra_pss_update(e_, nullptr, 0, "hello", 5), 0);
  EXPECT_TRUE(logged({"INVALID_ARG",
                      "hadra_pss_update: Arguments - entry present, key missing, key_len 0, data present, data_len 5"}));
  EXPECT_EQ(hadra_pss_update(e_, "k", 1, "", 0), 0);  // empty data cannot be stored
  EXPECT_TRUE(logged({"key present, key_len 1, data present, data_len 0"}));
  EXPECT_EQ(hadra_pss_update(nullptr, "k", 1, "v", 1), 0);
  EXPECT_TRUE(logged({"hadra_pss_update: Arguments - entry missing, key present"}));
  EXPECT_EQ(hadra_pss_delete(e_, "k", 0), 0);
  EXPECT_TRUE(logged({"hadra_pss_delete: Arguments - entry present, key present, key_len 0"}));
  EXPECT_EQ(hadra_pss_delete_range(e_, nullptr, 2), 0);
  EXPECT_TRUE(logged({"hadra_pss_delete_range: Arguments - entry present, prefix missing, prefix_len 2"}));
  EXPECT_EQ(hadra_pss_purge(nullptr), 0);
  EXPECT_TRUE(logged({"hadra_pss_purge: Arguments - entry missing"}));
  EXPECT_TRUE(trace_calls("pss").empty());
  EXPECT_TRUE(trace_calls("mts").empty());
  EXPECT_EQ(stored().size(), 3u);
}

TEST_F(PssWriteTest, ValueTooLongForOneSyncMessageIsRefusedUnlessUnsynced) {
  const std::string big(HADRA_SYNC_MAX_LEN + 1, 'x');
  const auto n = static_cast<uint32_t>(big.size());
  EXPECT_EQ(hadra_pss_update(e_, "big", 3, big.data(), n), 0);
  EXPECT_TRUE(logged({"INVALID_ARG", "data_len 65536"}));
  EXPECT_EQ(stored().count("big"), 0u);
  e_->local_only = 1;
  EXPECT_EQ(hadra_pss_update(e_, "big", 3, big.data(), n), 1);
  EXPECT_EQ(stored().at("big").size(), big.size());
}

TEST_F(PssWriteTest, RangeDeletionCountsZeroOneAndManyInTheDump) {
  put("gamma", "4");
  hadra_ha_enable_debug();
  struct Case {
    std::string prefix, dump;
    size_t left;
  } cases[] = {{"z", "key : 0x7A , keys deleted: 0", 4},
               {"gam", "key : 0x6761 0x6D , keys deleted: 1", 3},
               {"", "key : , keys deleted: 3", 0}};  // an empty prefix matches every record
  for (const Case &c : cases) {
    SCOPED_TRACE(c.prefix);
    ASSERT_EQ(hadra_pss_delete_range(e_, c.prefix.data(), static_cast<uint32_t>(c.prefix.size())), 1);
    EXPECT_TRUE(logged({c.dump}));
    EXPECT_EQ(stored().size(), c.left);
    EXPECT_EQ(take_payload(), sync_payload(7, bytes(c.prefix), {}));  // a count of 0 is synced too
  }
}

TEST_F(PssWriteTest, DebugLinesNameTheFileAndDumpTheKey) {
  hadra_ha_enable_debug();
  ASSERT_EQ(hadra_pss_update(e_, "abc", 3, "hello", 5), 1);
  EXPECT_TRUE(logged({"Updating ", e_->uri, ", key_len 3, data_len 5"}));
  EXPECT_TRUE(logged({"key : 0x6162 0x63 "}));
  ASSERT_EQ(hadra_pss_delete(e_, "abc", 3), 1);
  EXPECT_TRUE(logged({"Deleting ", e_->uri, " key_len 3"}));
  ASSERT_EQ(hadra_pss_purge(e_), 1);
  EXPECT_TRUE(logged({"Purging ", e_->uri, ", 3 records"}));
}

TEST_F(PssWriteTest, NothingIsFormattedWithTheSwitchesOff) {
  plat_trace_start();
  for (const Writer &w : writers()) {
    refill();
    ASSERT_EQ(w.call(e_), 1);
  }
  EXPECT_EQ(plat_trace_count("plat_syslog"), 0u);
  EXPECT_EQ(plat_trace_count("sdwrap_hist_event"), 0u);
  EXPECT_EQ(plat_trace_count("sdwrap_his_log_event_for_uuid_inst"), 0u);
  EXPECT_EQ(plat_test_log_count(), 0u);
}

}  // namespace
}  // namespace hadra::test
