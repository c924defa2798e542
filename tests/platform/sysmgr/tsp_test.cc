// Scheduling hints on a frozen platform clock.
#include <thread>

#include "hadra_platform/tsp.h"
#include "support/fixture.h"

namespace {

constexpr uint64_t kUs = 1000;

class TspTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_clock_set(1000000 * kUs);
  }
};

TEST_F(TspTest, YieldIsDueOnceASliceHasRun) {
  EXPECT_EQ(tsp_should_sched_yield(), 0);  // the first question starts the slice
  plat_test_clock_advance(9999 * kUs);
  EXPECT_EQ(tsp_should_sched_yield(), 0);
  plat_test_clock_advance(1 * kUs);
  EXPECT_EQ(tsp_should_sched_yield(), 1);
  EXPECT_EQ(tsp_should_sched_yield(), 0);  // answering yes started a new slice
  plat_test_clock_advance(9000 * kUs);
  tsp_before_yield();
  tsp_after_yield();  // a bracketed call yields: new slice
  plat_test_clock_advance(9000 * kUs);
  EXPECT_EQ(tsp_should_sched_yield(), 0);
}

TEST_F(TspTest, SlicesArePerThread) {
  tsp_should_sched_yield();
  plat_test_clock_advance(20000 * kUs);
  int other = -1;
  std::thread([&] { other = tsp_should_sched_yield(); }).join();
  EXPECT_EQ(other, 0);
  EXPECT_EQ(tsp_should_sched_yield(), 1);
}

}  // namespace
