// The PSS reads: round trips on a real file, walks in key order, positioning onto missing
// keys, the HA-state gate, and what each read does when the PSS layer fails.
#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

std::string str(const void *p, uint32_t n) { return p != nullptr ? std::string(static_cast<const char *>(p), n) : "-"; }

class PssReadTest : public PssOpsTest {
 protected:
  void SetUp() override {
    PssOpsTest::SetUp();
    fill({{"a", "one"}, {"c", "three!"}, {"d", "four"}});
  }
  // get_first at start, then get_next until the null key: "key=value" per record.
  std::string walk(const char *start) {
    void *k = const_cast<char *>(start), *v = nullptr;
    uint32_t n = 0;
    std::string out;
    for (int rc = hadra_pss_get_first(e_, &k, static_cast<uint32_t>(std::strlen(start)), &v, &n);
         rc == 1 && k != nullptr; rc = hadra_pss_get_next(e_, &k, &v, &n))
      out += str(k, 1) + "=" + str(v, n) + " ";
    return v == nullptr ? out : "value left behind";
  }
};

TEST_F(PssReadTest, RoundTripsWalksAndPositions) {
  ASSERT_EQ(hadra_pss_update(e_, "b", 1, "two", 3), 1);
  void *v = nullptr, *k = nullptr;
  uint32_t n = 0;
  ASSERT_EQ(hadra_pss_fetch(e_, "b", 1, &v, &n), 1);
  EXPECT_EQ(str(v, n), "two");
  EXPECT_EQ(hadra_pss_fetch(e_, "zz", 2, &v, &n), 0);  // not stored: 0, null, no report
  EXPECT_EQ(v, nullptr);
  EXPECT_EQ(plat_test_log_count(), 0u);

  EXPECT_EQ(walk("a"), "a=one b=two c=three! d=four ");
  EXPECT_EQ(walk("bb"), "c=three! d=four ");  // starts at the next stored key
  EXPECT_EQ(walk("e"), "");                   // nothing at or after it: 1 with null outputs
  // move2key onto a missing key positions on the next one, so get_next gives the one after.
  EXPECT_EQ(hadra_pss_move2key(e_, "bb", 2), 1);
  ASSERT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
  EXPECT_EQ(str(k, 1) + str(v, n), "dfour");
  EXPECT_EQ(hadra_pss_move2key(e_, "x", 1), 1);
  ASSERT_EQ(hadra_pss_get_next(e_, &k, &v, &n), 1);
  EXPECT_EQ(k, nullptr);
}

TEST_F(PssReadTest, StatesAndArgumentsThatStopAReadOnlyFetchReports) {
  plat_test_sysmgr_set_supstate(HADRA_SUP_STANDBY);
  for (uint32_t state : {HADRA_HA_STANDBY, HADRA_HA_RECOVER}) {
    e_->state = state;
    EXPECT_EQ(walk("a"), "a=one c=three! d=four ");
  }
  void *k = const_cast<char *>("a"), *v = nullptr, *none = nullptr;
  plat_trace_start();
  EXPECT_EQ(hadra_pss_get_first(e_, &none, 1, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_first(e_, &k, 0, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_next(e_, nullptr, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 0), 0);
  e_->state = HADRA_HA_DISABLE;
  EXPECT_EQ(hadra_pss_get_first(e_, &k, 1, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_get_next(e_, &k, &v, nullptr), 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 0);
  EXPECT_EQ(plat_test_log_count(), 0u);
  EXPECT_EQ(hadra_pss_fetch(e_, "a", 1, &v, nullptr), 0);
  EXPECT_TRUE(logged({"API_FAILED_HA", "disable", "hadra_pss_fetch", "routes", e_->uri}));
  EXPECT_EQ(hadra_pss_fetch(e_, "abc", 3, nullptr, nullptr), 0);
  EXPECT_TRUE(logged({"hadra_pss_fetch: Arguments - entry present, key present, key_len 3, value missing"}));
  EXPECT_TRUE(trace_calls("pss").empty());
}

// Each failing PSS call is named in the report, and the outputs are left null.
TEST_F(PssReadTest, PssFailuresAreReportedWithTheCallAndLeaveNullOutputs) {
  auto first = [&](void **k, void **v) {
    *k = const_cast<char *>("a");
    return hadra_pss_get_first(e_, k, 1, v, nullptr);
  };
  auto next = [&](void **k, void **v) { return hadra_pss_get_next(e_, k, v, nullptr); };
  auto fetch = [&](void **, void **v) { return hadra_pss_fetch(e_, "a", 1, v, nullptr); };
  const std::pair<const char *, std::function<int(void **, void **)>> cases[] = {
      {"pss2_move2key", first},     {"pss2_getkey", first},  {"pss2_getvalue", first},
      {"pss2_move2location", next}, {"pss2_getvalue", next}, {"pss2_fetch", fetch}};
  for (const auto &[call, read] : cases) {
    plat_fault_arm(call, 0, 1, PLAT_ERR_PSS_IO, 0);
    void *k = nullptr, *v = &k;
    EXPECT_EQ(read(&k, &v), 0) << call;
    EXPECT_EQ(k, nullptr) << call;
    EXPECT_EQ(v, nullptr) << call;
    EXPECT_TRUE(logged({"PSS_HA", call})) << call;
  }
  plat_test_log_capture(1);
  plat_fault_arm("pss2_move2key", 0, 1, PLAT_ERR_PSS_NO_RECORD, 0);
  EXPECT_EQ(hadra_pss_move2key(e_, "a", 1), 1);  // "no record" is an answer, not a failure
  EXPECT_EQ(plat_test_log_count(), 0u);
}

}  // namespace
}  // namespace hadra::test
