// The PSS iterator: dispatch by key type in key order, rejected types with and without
// purging, records that fail, the multi-get phase, and the per-pass count.
#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

// Each operation appends "<op>:<key>=<value>" to the string that arg points to.
template <int Op, int Result = 1>
int op(const void *key, const void *value, uint32_t len, void *arg) {
  *static_cast<std::string *>(arg) += std::to_string(Op) + ":" + std::string(static_cast<const char *>(key), 2) +
                                      "=" + std::string(static_cast<const char *>(value), len) + " ";
  return Result;
}
const hadra_pss_type_op_fn kOps[] = {op<0>, op<1>, op<2>};

// Keys are two characters, the first naming the type ('a' 0, 'b' 1, 'c' 2); only the low 8
// bits of the key type count.
int type_of(const void *key) { return *static_cast<const char *>(key) - 'a' + 0x100; }
int reject_b(uint8_t type) { return type != 1; }

class PssIteratorTest : public PssOpsTest {
 protected:
  void SetUp() override {
    PssOpsTest::SetUp();
    fill({{"c1", "C"}, {"a1", "A"}, {"b1", "B"}});
    hadra_ha_enable_debug();
  }
  int iterate(const hadra_pss_type_op_fn *ops, hadra_pss_valid_type_fn valid = nullptr,
              hadra_pss_key_type_fn key_type = type_of) {
    seen_.clear();
    count_ = 99;
    return hadra_pss_iterator(e_, ops, key_type, valid, &seen_, &count_);
  }
  std::string seen_;
  uint32_t count_ = 0;
};

TEST_F(PssIteratorTest, EveryRecordGoesToItsTypeInKeyOrderOnePassEach) {
  plat_trace_start();
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(seen_, "0:a1=A 1:b1=B 2:c1=C ");
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(plat_trace_count("tsp_should_sched_yield"), 3u);  // the processor is offered every pass
  EXPECT_EQ(iterate(kOps, nullptr, nullptr), 1);               // no key-type function: all type 0
  EXPECT_EQ(seen_, "0:a1=A 0:b1=B 0:c1=C ");
  plat_trace_start();
  EXPECT_EQ(iterate(nullptr), 1);  // no operations: every value is still read
  EXPECT_EQ(plat_trace_count("pss2_getvalue"), 3u);
}

TEST_F(PssIteratorTest, RejectedTypesAreSkippedAndDeletedOnlyWhenAsked) {
  EXPECT_EQ(iterate(kOps, reject_b), 1);
  EXPECT_EQ(seen_, "0:a1=A 2:c1=C ");
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(stored().count("b1"), 1u);
  EXPECT_TRUE(logged({"Invalid key type 1 in ", e_->uri}));
  e_->purge_invalid_keys = 1;
  EXPECT_EQ(iterate(kOps, reject_b), 1);
  EXPECT_EQ(seen_, "0:a1=A 2:c1=C ");  // the deletion does not lose the walk's place
  EXPECT_EQ(stored(), (Records{{"a1", "A"}, {"c1", "C"}}));
  EXPECT_EQ(mts_test_peer_count(), 0u);  // removing bad records is local
}

TEST_F(PssIteratorTest, FailingOperationsAndUnreadableValuesDoNotStopTheWalk) {
  const hadra_pss_type_op_fn ops[] = {op<0>, op<1, 0>, nullptr};
  plat_fault_arm("pss2_getvalue", 0, 1, PLAT_ERR_PSS_IO, 0);  // the first record's value
  EXPECT_EQ(iterate(ops), 1);
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(seen_, "1:b1=B ");
  EXPECT_TRUE(logged({"Failed get value for ", e_->uri, " - "}));
  EXPECT_TRUE(logged({"Failed operation for ", e_->uri, " key type 1"}));
  EXPECT_TRUE(logged({"Failed operation for ", e_->uri, " key type 2"}));  // a hole in the table
}

TEST_F(PssIteratorTest, MultiGetPhaseBracketsTheWalkAndIsClosedOnAFailedStart) {
  hadra_ha_handle.flags = HADRA_HA_FLAG_PSS_MGET;
  plat_trace_start();
  EXPECT_EQ(iterate(kOps), 1);
  auto calls = trace_calls("pss2_m");
  EXPECT_EQ(calls.front() + " " + calls.back(), "pss2_mget_begin pss2_mget_done");
  EXPECT_EQ(seen_, "0:a1=A 1:b1=B 2:c1=C ");

  plat_trace_start();
  plat_fault_arm("pss2_move2location", 0, 1, PLAT_ERR_PSS_IO, 0);
  EXPECT_EQ(iterate(kOps), 0);
  EXPECT_EQ(trace_calls("pss2_m"),
            (std::vector<std::string>{"pss2_mget_begin", "pss2_move2location", "pss2_mget_done"}));
  EXPECT_EQ(count_, 0u);
  EXPECT_TRUE(logged({"Failed to get first key for ", e_->uri}));

  plat_trace_start();
  plat_fault_arm("pss2_mget_begin", 0, 1, PLAT_ERR_PSS_IO, 0);
  EXPECT_EQ(iterate(kOps), 0);  // a phase that did not begin is not closed
  EXPECT_EQ(trace_calls("pss2_m"), std::vector<std::string>{"pss2_mget_begin"});
  EXPECT_TRUE(logged({"Failed to begin mget for ", e_->uri}));
}

TEST_F(PssIteratorTest, WalksThatCannotStartOrFindNoKey) {
  plat_fault_arm("pss2_getkey", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(iterate(kOps), 1);  // first move fine, no key: one pass, nothing handed on
  EXPECT_EQ(count_, 1u);
  EXPECT_EQ(seen_, "");
  count_ = 7;
  EXPECT_EQ(hadra_pss_iterator(nullptr, kOps, type_of, nullptr, nullptr, &count_), 0);
  EXPECT_EQ(count_, 0u);
  fill({});
  EXPECT_EQ(iterate(kOps), 0);  // an empty file has no first record
  fill({{"a2", "x"}});
  e_->state = HADRA_HA_DISABLE;  // the state is not consulted
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(seen_, "0:a2=x ");
}

}  // namespace
}  // namespace hadra::test
