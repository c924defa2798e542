// The PSS reads: round trips on a real file, walks in key order, positioning onto missing
// keys, the HA-state gate, and what each read does when the PSS layer fails.
#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

std::string str(const void *p, uint32_t n) { return std::string(static_cast<const char *>(p), n); }

class PssReadTest : public PssOpsTest {
 protected:
  void SetUp() override {
    PssOpsTest::SetUp();
    // Stored out of order: the walk must come back in key order.
    put("d", "four");
    put("a", "one");
    put("c", "three!");
  }

  // Walks from start with get_first / get_next until the null key; "key=value" per record.
  std::vector<std::string> walk(const std::string &start) {
    std::vector<std::string> out;
    void *k = const_cast<char *>(start.data());
    void *v = nullptr;
    uint32_t n = 0;
    EXPECT_EQ(hadra_pss_get_first(e_, &k, static_cast<uint32_t>(start.size()), &v, &n), 1);
    while (k != nullptr) {
      out.push_back(str(k, 1) + "=" + str(v, n));
      EXPECT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
    }
    EXPECT_EQ(v, nullptr);
    return out;
  }
};

TEST_F(PssReadTest, UpdateThenFetchRoundTrips) {
  ASSERT_EQ(hadra_pss_update(e_, "b", 1, "two", 3), 1);
  void *v = nullptr;
  uint32_t n = 0;
  ASSERT_EQ(hadra_pss_fetch(e_, "b", 1, &v, &n), 1);
  EXPECT_EQ(str(v, n), "two");
  ASSERT_EQ(hadra_pss_fetch(e_, "c", 1, &v, nullptr), 1);  // the length is optional
  EXPECT_EQ(str(v, 6), "three!");
  // A missing key: 0, null value, and no report.
  plat_test_log_capture(1);
  EXPECT_EQ(hadra_pss_fetch(e_, "zz", 2, &v, &n), 0);
  EXPECT_EQ(v, nullptr);
  EXPECT_EQ(plat_test_log_count(), 0u);
}

TEST_F(PssReadTest, WalksGoInKeyOrderAndEndOnANullKey) {
  ASSERT_EQ(hadra_pss_update(e_, "b", 1, "two", 3), 1);
  EXPECT_EQ(walk("a"), (std::vector<std::string>{"a=one", "b=two", "c=three!", "d=four"}));
  // Starting on a key that is not stored begins at the next one.
  EXPECT_EQ(walk("bb"), (std::vector<std::string>{"c=three!", "d=four"}));
  // Nothing at or after the start key: 1 with null outputs.
  EXPECT_TRUE(walk("e").empty());
  // The end stays the end.
  void *k = reinterpret_cast<void *>(1), *v = k;
  EXPECT_EQ(hadra_pss_get_next(e_, &k, &v, nullptr), 1);
  EXPECT_EQ(k, nullptr);
  EXPECT_EQ(v, nullptr);
}

TEST_F(PssReadTest, Move2KeyPositionsOnOrAfterTheKey) {
  void *k = nullptr, *v = nullptr;
  uint32_t n = 0;
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 1);
  ASSERT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
  EXPECT_EQ(str(k, 1), "c");
  // "b" is not stored: the position is "c", so the next record is "d".
  EXPECT_EQ(hadra_pss_move2key(e_, "b", 1), 1);
  ASSERT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
  EXPECT_EQ(str(k, 1), "d");
  EXPECT_EQ(str(v, n), "four");
  // Past the last key: still 1, and there is no next record.
  EXPECT_EQ(hadra_pss_move2key(e_, "x", 1), 1);
  ASSERT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
  EXPECT_EQ(k, nullptr);
}

TEST_F(PssReadTest, ReadsWorkInEveryStateButDisabledWhereOnlyFetchReports) {
  plat_test_sysmgr_set_supstate(HADRA_SUP_STANDBY);
  for (uint32_t state : {HADRA_HA_STANDBY, HADRA_HA_RECOVER, HADRA_HA_ACTIVE}) {
    e_->state = state;
    EXPECT_EQ(walk("a").size(), 3u);
    void *v = nullptr;
    EXPECT_EQ(hadra_pss_fetch(e_, "d", 1, &v, nullptr), 1);
  }
  e_->state = HADRA_HA_DISABLE;
  plat_test_log_capture(1);
  plat_trace_start();
  void *k = const_cast<char *>("a"), *v = nullptr;
  EXPECT_EQ(hadra_pss_get_first(e_, &k, 1, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_next(e_, &k, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 0);
  EXPECT_EQ(plat_test_log_count(), 0u);
  EXPECT_EQ(hadra_pss_fetch(e_, "a", 1, &v, nullptr), 0);
  EXPECT_TRUE(logged({"API_FAILED_HA", "disable", "hadra_pss_fetch", "routes", e_->uri}));
  EXPECT_TRUE(trace_calls("pss").empty());
  EXPECT_EQ(mts_test_peer_count(), 0u);
}

TEST_F(PssReadTest, MissingArgumentsFailAndOnlyFetchSaysWhich) {
  void *k = const_cast<char *>("a"), *v = nullptr, *none = nullptr;
  plat_trace_start();
  EXPECT_EQ(hadra_pss_get_first(nullptr, &k, 1, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_first(e_, &k, 0, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_first(e_, &none, 1, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_first(e_, &k, 1, nullptr, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_next(e_, nullptr, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_move2key(e_, nullptr, 1), 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 0), 0);
  EXPECT_EQ(plat_test_log_count(), 0u);
  EXPECT_EQ(hadra_pss_fetch(e_, "abc", 3, nullptr, nullptr), 0);
  EXPECT_TRUE(logged(
      {"INVALID_ARG", "hadra_pss_fetch: Arguments - entry present, key present, key_len 3, value missing"}));
  EXPECT_EQ(hadra_pss_fetch(e_, nullptr, 0, &v, nullptr), 0);
  EXPECT_TRUE(logged({"entry present, key missing, key_len 0, value present"}));
  EXPECT_TRUE(trace_calls("pss").empty());
}

// Each failing PSS call is named in the report, and the outputs are left null.
TEST_F(PssReadTest, PssFailuresAreReportedWithTheCallAndLeaveNullOutputs) {
  struct Case {
    const char *fail;
    std::function<int(void **k, void **v)> read;
  } cases[] = {
      {"pss2_move2key",
       [&](void **k, void **v) { *k = const_cast<char *>("a"); return hadra_pss_get_first(e_, k, 1, v, nullptr); }},
      {"pss2_getkey",
       [&](void **k, void **v) { *k = const_cast<char *>("a"); return hadra_pss_get_first(e_, k, 1, v, nullptr); }},
      {"pss2_getvalue",
       [&](void **k, void **v) { *k = const_cast<char *>("a"); return hadra_pss_get_first(e_, k, 1, v, nullptr); }},
      {"pss2_move2location", [&](void **k, void **v) { return hadra_pss_get_next(e_, k, v, nullptr); }},
      {"pss2_getvalue", [&](void **k, void **v) { return hadra_pss_get_next(e_, k, v, nullptr); }},
      {"pss2_fetch", [&](void **k, void **v) { *k = nullptr; return hadra_pss_fetch(e_, "a", 1, v, nullptr); }},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.fail);
    plat_test_log_capture(1);
    plat_fault_arm(c.fail, 0, 1, PLAT_ERR_PSS_IO, 0);
    void *k = nullptr, *v = reinterpret_cast<void *>(1);
    EXPECT_EQ(c.read(&k, &v), 0);
    plat_fault_clear();
    EXPECT_EQ(k, nullptr);
    EXPECT_EQ(v, nullptr);
    EXPECT_TRUE(logged({"PSS_HA", c.fail}));
  }
  // move2key alone: a failure is reported, "no record" is not.
  plat_test_log_capture(1);
  plat_fault_arm("pss2_move2key", 0, 1, PLAT_ERR_PSS_NO_RECORD, 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 1);
  plat_fault_arm("pss2_move2key", 0, 1, PLAT_ERR_PSS_IO, 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 0);
  EXPECT_EQ(plat_test_log_count(), 1u);
}

}  // namespace
}  // namespace hadra::test
