// The PSS writers: what they store, the sync message each sends (byte for byte), when they
// send nothing, the HA-state gate, failed stores, and how bad arguments are reported.
#include <cerrno>

#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

const Records kStart = {{"alpha", "1"}, {"beta1", "2"}, {"beta2", "3"}};

// Payload for database 3: header (big-endian lengths and opcode), key, data.
Bytes payload(uint8_t opcode, const std::string &key, const std::string &data) {
  Bytes p = {3, 0, 0, static_cast<uint8_t>(key.size()), 0, static_cast<uint8_t>(data.size()), 0, 0, 0, 0, 0, opcode};
  p.insert(p.end(), key.begin(), key.end());
  p.insert(p.end(), data.begin(), data.end());
  return p;
}

// One good call of each writer on kStart: its platform call, message and resulting file.
struct Writer {
  const char *name, *platform_call, *fail_mnemonic;
  std::function<int(hadra_ha_pss_entry *)> call;
  Bytes sent;
  Records after;
};
// clang-format off
const Writer kWriters[] = {
    {"hadra_pss_update", "pss2_store", "PSS_UPDATE", [](auto e) { return hadra_pss_update(e, "gamma", 5, "hi", 2); },
     payload(1, "gamma", "hi"), {{"alpha", "1"}, {"beta1", "2"}, {"beta2", "3"}, {"gamma", "hi"}}},
    {"hadra_pss_delete", "pss2_delete", "PSS_DELETE", [](auto e) { return hadra_pss_delete(e, "alpha", 5); },
     payload(2, "alpha", ""), {{"beta1", "2"}, {"beta2", "3"}}},
    {"hadra_pss_delete_range", "pss2_delete_prefixed_keys", "PSS_DELETE_RANGE",
     [](auto e) { return hadra_pss_delete_range(e, "beta", 4); }, payload(7, "beta", ""), {{"alpha", "1"}}},
    {"hadra_pss_purge", "pss2_purge", "PSS_PURGE", [](auto e) { return hadra_pss_purge(e); }, payload(10, "", ""), {}},
};
// clang-format on

using PssWriteTest = PssOpsTest;

// Also the states in which a write goes through, and that nothing is formatted with the
// debug switches off.
TEST_F(PssWriteTest, WritersStoreThenSendTheirExactMessageInEveryStateButDisable) {
  for (uint32_t state : {HADRA_HA_STANDBY, HADRA_HA_RECOVER, HADRA_HA_ACTIVE}) {
    e_->state = state;
    for (const Writer &w : kWriters) {
      SCOPED_TRACE(w.name);
      fill(kStart);
      plat_trace_start();
      ASSERT_EQ(w.call(e_), 1);
      EXPECT_LT(trace_find(w.platform_call), trace_find("mts_send"));
      EXPECT_EQ(plat_trace_count("plat_syslog"), 0u);
      EXPECT_EQ(stored(), w.after);
      EXPECT_EQ(take_payload(), w.sent);
    }
  }
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssWriteTest, NothingIsSentWhenUnsyncedOnTheStandbyOrAfterAFailedStore) {
  auto each_writer = [&](bool fail) {
    for (const Writer &w : kWriters) {
      fill(kStart);
      if (fail) plat_fault_arm(w.platform_call, 0, 1, PLAT_ERR_PSS_FULL, 0);
      EXPECT_EQ(w.call(e_), fail ? 0 : 1) << w.name;
      // A failed store is the platform's refusal before it touches the file, so the file is
      // not checked then: what the writer does next (its report, no message) is.
      if (!fail) {
        EXPECT_EQ(stored(), w.after) << w.name;
      }
      EXPECT_TRUE(!fail || logged({w.fail_mnemonic})) << w.name;
    }
  };
  e_->no_sync = 1;
  each_writer(false);
  e_->no_sync = 0;
  e_->local_only = 1;
  each_writer(false);
  e_->local_only = 0;
  plat_test_sysmgr_set_supstate(HADRA_SUP_STANDBY);  // the dispatcher's own calls
  each_writer(false);
  plat_test_sysmgr_set_supstate(HADRA_SUP_ACTIVE);
  each_writer(true);
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssWriteTest, DisabledDatabaseRefusesWithItsStateNameAndUri) {
  fill(kStart);
  e_->state = HADRA_HA_DISABLE;
  plat_trace_start();
  for (const Writer &w : kWriters) {
    EXPECT_EQ(w.call(e_), 0);
    EXPECT_TRUE(logged({"API_FAILED_HA", "disable", w.name, "routes", e_->uri})) << w.name;
  }
  EXPECT_TRUE(trace_calls("pss").empty());
  EXPECT_TRUE(trace_calls("mts").empty());
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
  EXPECT_TRUE(
      logged({"INVALID_ARG",
              "hadra_pss_update: Arguments - entry present, key missing, key_len 0, data present, data_len 5"}));
  EXPECT_EQ(hadra_pss_update(e_, "k", 1, "", 0), 0);  // empty data cannot be stored
  EXPECT_EQ(hadra_pss_delete(e_, "k", 0), 0);
  EXPECT_TRUE(logged({"hadra_pss_delete: Arguments - entry present, key present, key_len 0"}));
  EXPECT_EQ(hadra_pss_delete_range(e_, nullptr, 2), 0);
  EXPECT_TRUE(logged({"hadra_pss_delete_range: Arguments - entry present, prefix missing, prefix_len 2"}));
  EXPECT_EQ(hadra_pss_purge(nullptr), 0);
  EXPECT_TRUE(logged({"hadra_pss_purge: Arguments - entry missing"}));
  EXPECT_TRUE(trace_calls("pss").empty());
  // Longer data than one sync message carries is refused, unless the entry is not synced.
  const std::string big(HADRA_SYNC_MAX_LEN + 1, 'x');
  EXPECT_EQ(hadra_pss_update(e_, "big", 3, big.data(), HADRA_SYNC_MAX_LEN + 1), 0);
  EXPECT_TRUE(logged({"INVALID_ARG", "data_len 65536"}));
  e_->local_only = 1;
  EXPECT_EQ(hadra_pss_update(e_, "big", 3, big.data(), HADRA_SYNC_MAX_LEN + 1), 1);
  EXPECT_EQ(stored().at("big"), big);
}

TEST_F(PssWriteTest, RangeDeletionCountsZeroOneAndManyInTheDump) {
  fill({{"a1", ""}, {"a2", ""}, {"a3", ""}, {"gamma", ""}});
  hadra_ha_enable_debug();
  struct {
    std::string prefix, dump;
    size_t left;
  } cases[] = {{"z", "key : 0x7A , keys deleted: 0", 4},
               {"gam", "key : 0x6761 0x6D , keys deleted: 1", 3},
               {"", "key : , keys deleted: 3", 0}};  // an empty prefix matches every record
  for (const auto &c : cases) {
    ASSERT_EQ(hadra_pss_delete_range(e_, c.prefix.data(), static_cast<uint32_t>(c.prefix.size())), 1);
    EXPECT_TRUE(logged({c.dump})) << c.dump;
    EXPECT_EQ(stored().size(), c.left);
    EXPECT_EQ(take_payload(), payload(7, c.prefix, ""));  // a count of 0 is synced too
  }
}

}  // namespace
}  // namespace hadra::test
