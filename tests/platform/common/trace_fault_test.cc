// The call trace and fault injection that every platform service shares.
#include <cerrno>

#include "common/call.h"
#include "support/fixture.h"

namespace {

using hadra::test::trace;

// A stand-in service call, shaped like every exported platform call.
int probe_call(int x) {
  hadra::plat::Call c("test", "probe_call", -7);
  c.args("x=%d", x);
  if (c.faulted()) return c.fail<int>();
  return c.ret(x * 2);
}

const char* probe_ptr() {
  hadra::plat::Call c("test", "probe_ptr");
  if (c.faulted()) return c.fail<const char*>();
  return c.ret("value");
}

class TraceFaultTest : public hadra::test::PlatformTest {};

TEST_F(TraceFaultTest, TraceRecordsCallsInOrderOnlyWhileOn) {
  probe_call(1);
  EXPECT_EQ(plat_trace_size(), 0u);
  plat_trace_start();
  probe_call(2);
  probe_ptr();
  plat_trace_stop();
  probe_call(3);
  auto t = trace();
  ASSERT_EQ(t.size(), 2u);
  EXPECT_EQ(t[0].service, "test");
  EXPECT_EQ(t[0].call, "probe_call");
  EXPECT_EQ(t[0].args, "x=2");
  EXPECT_EQ(t[0].result, 4);
  EXPECT_TRUE(t[0].has_result);
  EXPECT_EQ(t[1].call, "probe_ptr");
  EXPECT_EQ(t[1].result, 1);  // pointers are traced as null / non-null
  EXPECT_EQ(plat_trace_count("probe_call"), 1u);
}

TEST_F(TraceFaultTest, TraceKeepsTheNewestRecordsWhenFull) {
  plat_trace_start();
  for (int i = 0; i < PLAT_TRACE_CAP + 10; ++i) probe_call(i);
  EXPECT_EQ(plat_trace_size(), static_cast<size_t>(PLAT_TRACE_CAP));
  EXPECT_EQ(plat_trace_dropped(), 10u);
  EXPECT_EQ(trace().front().args, "x=10");
}

TEST_F(TraceFaultTest, FaultSkipsThenFailsCountTimes) {
  ASSERT_EQ(plat_fault_arm("probe_call", 2, 2, 99, EIO), 0);
  plat_trace_start();
  int r[6];
  for (int i = 0; i < 6; ++i) {
    errno = 0;
    r[i] = probe_call(1);
    if (i == 2) {
      EXPECT_EQ(errno, EIO);
    }
  }
  EXPECT_EQ(r[0], 2);
  EXPECT_EQ(r[1], 2);
  EXPECT_EQ(r[2], 99);
  EXPECT_EQ(r[3], 99);
  EXPECT_EQ(r[4], 2);
  EXPECT_EQ(plat_fault_fired(), 2u);
  EXPECT_TRUE(trace()[2].faulted);
  EXPECT_FALSE(trace()[4].faulted);
}

TEST_F(TraceFaultTest, DefaultResultAndWildcardAndPersistentFaults) {
  // count 0 = every later call; PLAT_FAULT_DEFAULT = the call's own failure value.
  plat_fault_arm("*", 1, 0, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(probe_call(5), 10);
  EXPECT_EQ(probe_call(5), -7);
  EXPECT_EQ(probe_ptr(), nullptr);
  EXPECT_EQ(probe_call(5), -7);
  plat_fault_clear();
  EXPECT_EQ(probe_call(5), 10);
  EXPECT_STREQ(probe_ptr(), "value");
}

TEST_F(TraceFaultTest, ResetDisarmsAndStopsTrace) {
  plat_fault_arm("probe_call", 0, 0, 1, 0);
  plat_trace_start();
  plat_test_reset();
  EXPECT_EQ(probe_call(4), 8);
  EXPECT_EQ(plat_trace_size(), 0u);
}

}  // namespace
