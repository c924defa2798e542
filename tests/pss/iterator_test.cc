// The PSS iterator: dispatch by key type in file order, rejected types with and without
// purging, records that fail, the multi-get phase, and the per-pass count.
#include "pss/pss_fixture.h"

namespace hadra::test {
namespace {

// What the operations saw: "<op>:<key>=<value>" per call.
using Calls = std::vector<std::string>;

template <int Op, int Result = 1>
int record_op(const void *key, const void *value, uint32_t len, void *arg) {
  auto *calls = static_cast<Calls *>(arg);
  calls->push_back(std::to_string(Op) + ":" + std::string(static_cast<const char *>(key), 2) + "=" +
                   std::string(static_cast<const char *>(value), len));
  return Result;
}

// Keys are two characters; the first names the type: 'a' -> 0, 'b' -> 1, 'c' -> 2.
int type_of(const void *key) { return *static_cast<const char *>(key) - 'a' + 0x100; }  // high bits ignored
int reject_b(uint8_t type) { return type != 1; }

const hadra_pss_type_op_fn kOps[] = {record_op<0>, record_op<1>, record_op<2>};

class PssIteratorTest : public PssOpsTest {
 protected:
  void SetUp() override {
    PssOpsTest::SetUp();
    put("c1", "C");
    put("a1", "A");
    put("b1", "B");
  }
  int iterate(const hadra_pss_type_op_fn *ops, hadra_pss_valid_type_fn valid = nullptr,
              hadra_pss_key_type_fn key_type = type_of) {
    count_ = 12345;
    return hadra_pss_iterator(e_, ops, key_type, valid, &calls_, &count_);
  }
  Calls calls_;
  uint32_t count_ = 0;
};

TEST_F(PssIteratorTest, EveryRecordGoesToItsTypeInKeyOrderOnePassEach) {
  plat_trace_start();
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(calls_, (Calls{"0:a1=A", "1:b1=B", "2:c1=C"}));
  EXPECT_EQ(count_, 3u);
  // The processor is offered once per pass.
  EXPECT_EQ(plat_trace_count("tsp_should_sched_yield"), count_);
  EXPECT_EQ(plat_trace_count("pss2_mget_begin"), 0u);
  // Without a key-type function every record is type 0.
  calls_.clear();
  EXPECT_EQ(iterate(kOps, nullptr, nullptr), 1);
  EXPECT_EQ(calls_, (Calls{"0:a1=A", "0:b1=B", "0:c1=C"}));
}

TEST_F(PssIteratorTest, WithoutOperationsEveryKeyAndValueIsStillRead) {
  plat_trace_start();
  EXPECT_EQ(iterate(nullptr), 1);
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(plat_trace_count("pss2_getvalue"), 3u);
}

TEST_F(PssIteratorTest, RejectedTypesAreSkippedAndDeletedOnlyWhenAsked) {
  hadra_ha_enable_debug();
  EXPECT_EQ(iterate(kOps, reject_b), 1);
  EXPECT_EQ(calls_, (Calls{"0:a1=A", "2:c1=C"}));
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(stored().count("b1"), 1u);
  EXPECT_TRUE(logged({"Invalid key type 1 in ", e_->uri}));

  e_->purge_invalid_keys = 1;
  calls_.clear();
  EXPECT_EQ(iterate(kOps, reject_b), 1);
  // The deletion does not lose the walk's place: "c1" is still visited after it.
  EXPECT_EQ(calls_, (Calls{"0:a1=A", "2:c1=C"}));
  EXPECT_EQ(stored(), (std::map<std::string, std::string>{{"a1", "A"}, {"c1", "C"}}));
  EXPECT_EQ(mts_test_peer_count(), 0u);  // a purge of bad records is local
}

TEST_F(PssIteratorTest, FailingOperationsAndUnreadableValuesDoNotStopTheWalk) {
  hadra_ha_enable_debug();
  const hadra_pss_type_op_fn ops[] = {record_op<0>, record_op<1, 0>, nullptr};
  plat_fault_arm("pss2_getvalue", 0, 1, PLAT_ERR_PSS_IO, 0);  // the first record's value
  EXPECT_EQ(iterate(ops), 1);
  EXPECT_EQ(count_, 3u);
  EXPECT_EQ(calls_, (Calls{"1:b1=B"}));
  EXPECT_TRUE(logged({"Failed get value for ", e_->uri, " - "}));
  EXPECT_TRUE(logged({"Failed operation for ", e_->uri, " key type 1"}));
  // A hole in the table is a failed operation, not a call through null.
  EXPECT_TRUE(logged({"Failed operation for ", e_->uri, " key type 2"}));
}

TEST_F(PssIteratorTest, MultiGetPhaseBracketsTheWalkAndIsClosedOnAFailedStart) {
  hadra_ha_handle.flags = HADRA_HA_FLAG_PSS_MGET;
  plat_trace_start();
  EXPECT_EQ(iterate(kOps), 1);
  auto calls = trace_calls("pss2_m");
  ASSERT_GE(calls.size(), 2u);
  EXPECT_EQ(calls.front(), "pss2_mget_begin");
  EXPECT_EQ(calls.back(), "pss2_mget_done");
  EXPECT_EQ(calls_.size(), 3u);

  hadra_ha_enable_debug();
  plat_trace_start();
  plat_fault_arm("pss2_move2location", 0, 1, PLAT_ERR_PSS_IO, 0);
  EXPECT_EQ(iterate(kOps), 0);
  EXPECT_EQ(trace_calls("pss2_m"),
            (std::vector<std::string>{"pss2_mget_begin", "pss2_move2location", "pss2_mget_done"}));
  EXPECT_EQ(count_, 0u);
  EXPECT_TRUE(logged({"Failed to get first key for ", e_->uri}));

  // A phase that cannot begin is not closed, and the walk does not start.
  plat_trace_start();
  plat_fault_arm("pss2_mget_begin", 0, 1, PLAT_ERR_PSS_IO, 0);
  EXPECT_EQ(iterate(kOps), 0);
  EXPECT_EQ(trace_calls("pss2_m"), std::vector<std::string>{"pss2_mget_begin"});
  EXPECT_TRUE(logged({"Failed to begin mget for ", e_->uri}));
  // The next walk can open its own phase: nothing was left open.
  calls_.clear();
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(calls_.size(), 3u);
}

TEST_F(PssIteratorTest, WalksThatCannotStartOrFindNoKey) {
  // The first move succeeds but no key can be read: one pass, result 1.
  plat_fault_arm("pss2_getkey", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(count_, 1u);
  EXPECT_TRUE(calls_.empty());
  plat_fault_clear();

  count_ = 7;
  EXPECT_EQ(hadra_pss_iterator(nullptr, kOps, type_of, nullptr, nullptr, &count_), 0);
  EXPECT_EQ(count_, 0u);

  // An empty file has no first record.
  ASSERT_EQ(pss2_purge(e_->pss_handle, nullptr), 0u);
  EXPECT_EQ(iterate(kOps), 0);
  EXPECT_EQ(count_, 0u);
  // The state is not consulted: a disabled entry with an open file is walked all the same.
  put("a2", "x");
  e_->state = HADRA_HA_DISABLE;
  EXPECT_EQ(iterate(kOps), 1);
  EXPECT_EQ(calls_, (Calls{"0:a2=x"}));
}

}  // namespace
}  // namespace hadra::test
