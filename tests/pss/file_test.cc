// Whole PSS files on real files: creation under its size limit (undone when the limit cannot
// be set) and copies that take the source's parameters and leave no handle of their own open.
#include "support/stores.h"

namespace {

using hadra::test::count_records;
using hadra::test::Files;
using hadra::test::open_store_files;
using hadra::test::put_records;
using hadra::test::trace_find;

class PssFileTest : public hadra::test::PlatformTest {};

TEST_F(PssFileTest, CreateLimitsTheFileOrTakesItAwayAgain) {
  EXPECT_EQ(hadra_pss_exist("run:/a", 9), 0);
  uint32_t h = 0;
  plat_trace_start();
  ASSERT_EQ(hadra_pss_create("run:/a", nullptr, &h), 1);
  EXPECT_NE(hadra::test::trace()[trace_find("pss2_set_max_dbsize")].args.find("size=10485760"), std::string::npos);
  EXPECT_EQ(hadra_pss_exist("run:/a", 9), 1);
  EXPECT_EQ(hadra_pss_close(h), 1);
  EXPECT_EQ(open_store_files(root()), Files{});  // the probes closed theirs

  plat_fault_arm("pss2_set_max_dbsize", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(hadra_pss_create("run:/b", nullptr, &h), 0);
  EXPECT_FALSE(hadra::test::exists_at("run:/b"));
  EXPECT_EQ(open_store_files(root()), Files{});
}

TEST_F(PssFileTest, SnapshotCopiesWithTheSourcesParametersAndClosesTheCopy) {
  pss2_params params{PSS2_PARAMS_VERSION, 100, 0, 0, 0};
  uint32_t err = 0;
  pss2_close(pss2_open("run:/src", PSS2_OPEN_FLAGS_CREATE, 0, 0, &params, &err));
  ASSERT_TRUE(put_records("run:/src", 5));
  ASSERT_TRUE(put_records("run:/old", 3, "stale"));
  uint32_t src = pss2_open("run:/src", PSS2_OPEN_FLAGS_OPEN, 0, 0, nullptr, &err);
  hadra_ha_handle.flags = HADRA_HA_FLAG_SNAPSHOT_YIELD;
  plat_trace_start();
  ASSERT_EQ(hadra_pss_snapshot_to_uri(src, "run:/new"), 1);
  const int snap = trace_find("pss2_snapshot");
  EXPECT_TRUE(snap > 0 && trace_find("tsp_before_yield") == snap - 1 && trace_find("tsp_after_yield") == snap + 1);
  ASSERT_EQ(hadra_pss_snapshot_to_uri(src, "run:/old"), 1);  // its records are replaced
  EXPECT_EQ(count_records("run:/new") + count_records("run:/old"), 10);
  uint32_t dst = pss2_open("run:/new", PSS2_OPEN_FLAGS_OPEN, 0, 0, nullptr, &err);
  pss2_get_params(dst, &params);
  EXPECT_EQ(params.max_key_len, 100u);
  pss2_close(dst);

  // A failed copy closes the destination it opened; the source stays open either way.
  plat_fault_arm("pss2_snapshot", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(hadra_pss_snapshot_to_uri(src, "run:/failed"), 0);
  EXPECT_EQ(hadra::test::count_open(src), 5);
  pss2_close(src);
  EXPECT_EQ(open_store_files(root()), Files{});
}

}  // namespace
