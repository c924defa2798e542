// One SDB through a snapshot area, alone: restores that fall back to an empty database, and
// every step of a restore failing in turn. (The gsync tests carry SDBs and MSDBs through
// whole walks.)
#include <cerrno>

#include "hadra_platform/errors.h"
#include "tests/sysmgrcb/sysmgrcb_fixture.h"

namespace {

class SdbSnapshotTest : public hadra::test::SysmgrcbTest {
 protected:
  void SetUp() override {
    SysmgrcbTest::SetUp();
    register_databases();
    init(1);
    put(sdb_, "a", "1");
    ASSERT_EQ(hadra_sdb_create_sync_snapshot("snap:/s1", sdb_), 1);
  }

  // The standby's view: the database gone, the entry disabled. Gives the create
  // notifications sent to the peer until now.
  int lose_sdb() {
    (void)sdb_close(sdb_->uri);
    (void)sdb_destroy(sdb_->uri);
    EXPECT_EQ(sdb_exists(sdb_->uri), 0);
    sdb_->state = HADRA_HA_DISABLE;
    int n = 0;
    for (const auto& f : hadra::test::take_sent()) n += f.opcode == kCreDelOpcode ? 1 : 0;
    return n;
  }
};

TEST_F(SdbSnapshotTest, ARestoreWithoutSnapshotCreatesTheDatabaseEmpty) {
  lose_sdb();
  EXPECT_EQ(hadra_sdb_restore_sync_snapshot("snap:/nothing", sdb_), 1);
  EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_STANDBY));
  EXPECT_EQ(get(sdb_, "a"), "<none>");
  put(sdb_, "a", "2");       // open for writing
  EXPECT_EQ(lose_sdb(), 1);  // the creation's notification, none besides
  EXPECT_EQ(hadra_sdb_restore_sync_snapshot("snap:/s1", sdb_), 1);
  EXPECT_EQ(get(sdb_, "a"), "1");
  EXPECT_EQ(lose_sdb(), 1);  // a rebuilt database is announced once too
}

TEST_F(SdbSnapshotTest, EveryFailingStepLeavesTheEntryDisabledOrGivesAUsableCopy) {
  int failures = 0;
  for (unsigned n = 0;; ++n) {
    lose_sdb();
    ASSERT_EQ(plat_fault_arm("*", n, 1, PLAT_FAULT_DEFAULT, EIO), 0);
    const int rc = hadra_sdb_restore_sync_snapshot("snap:/s1", sdb_);
    const bool fired = plat_fault_fired() != 0;
    plat_fault_clear();
    if (rc == 1) {
      EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_STANDBY)) << n;
      put(sdb_, "w", "ok");
    } else {
      ++failures;
      EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_DISABLE)) << n;
    }
    if (!fired) break;
    ASSERT_LT(n, 40u);
  }
  EXPECT_GE(failures, 2);  // the announcement and the opening at least

  // A rebuilt database whose announcement fails is not opened.
  lose_sdb();
  ASSERT_EQ(plat_fault_arm("mts_send", 0, 1, -1, EIO), 0);
  EXPECT_EQ(hadra_sdb_restore_sync_snapshot("snap:/s1", sdb_), 0);
  const std::string key = "a";
  datum k = hadra::test::D(key);
  uint32_t rc = 0;
  sdb_read(sdb_->uri, &k, &rc);
  EXPECT_EQ(rc, PLAT_ERR_SDB_NOT_OPEN);
}

}  // namespace
