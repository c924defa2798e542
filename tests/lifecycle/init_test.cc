// Initialisation, disabling and close on real stores: what each supervisor role does with
// synced and unsynced databases and when gsync is asked for, how one failing database takes
// every other down, the destroy messages the standby receives, and that close leaves an
// all-zero handle and no store open.
#include <cerrno>
#include <cstring>

#include "support/stores.h"

namespace {

using hadra::test::Files;
using Frame = hadra::test::SentFrame;
using hadra::test::take_sent;
using hadra::test::open_store_files;
using Ops = std::vector<uint32_t>;

constexpr uint32_t kSyncOpcode = 0x4402;

void on_switchover() {}

class InitTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    prepare();
  }

  // The active supervisor, a PSS file holding 3 records, an SDB, and the client's record.
  void prepare() {
    hadra::test::fresh_start(root());
    pss_ = hadra_ha_register_pss(1, "routes");
    sdb_ = hadra_ha_register_sdb(2, "nbrs", 0x601, 0x602);
    ASSERT_TRUE(hadra::test::put_records(pss_->uri, 3));
    record_ = hadra_ha_handle_t{};
    record_.uuid = 42;
    record_.sap = 0x4401;
    record_.opcode = kSyncOpcode;
    record_.initialized = 7;
    record_.switchover_cb = on_switchover;
    std::strcpy(record_.name, "routing");
  }

  // Sync opcodes of the sync messages sent to the peer, and the MTS opcodes of the rest.
  Ops sent() {
    Ops out;
    for (const Frame& f : take_sent()) out.push_back(f.opcode == kSyncOpcode ? f.sync_opcode() : f.opcode);
    return out;
  }

  hadra_ha_handle_t record_{};
  hadra_ha_pss_entry* pss_ = nullptr;
  hadra_ha_pss_entry* sdb_ = nullptr;
};

TEST_F(InitTest, EachRoleStartsDestroysOrLeavesEachDatabase) {
  const struct {
    int supstate;
    uint32_t pss_no_sync, flags, pss_state;
    int pss_records;  // after initialisation; -1: destroyed
    unsigned gsync;
    int table, status;
  } roles[] = {
      {1, 0, 0, HADRA_HA_ACTIVE, 0, 0, 0, 0},                            // active: everything starts
      {2, 0, 0, HADRA_HA_DISABLE, -1, 1, 1, 0},                          // standby: synced copy goes
      {2, 0, HADRA_HA_FLAG_SEQNO_STATUS, HADRA_HA_DISABLE, -1, 1, 0, 1},  // status, not a table
      {2, 1, 0, HADRA_HA_ACTIVE, 0, 0, 0, 0},                            // nothing synced: no gsync
      {0, 0, 0, HADRA_HA_DISABLE, 3, 0, 0, 0},                           // neither: synced left alone
  };
  for (const auto& r : roles) {
    SCOPED_TRACE("supstate " + std::to_string(r.supstate) + ", flags " + std::to_string(r.flags));
    prepare();
    plat_test_sysmgr_set_supstate(r.supstate);
    pss_->no_sync = r.pss_no_sync;
    sdb_->no_sync = 1;
    record_.flags = r.flags;
    ASSERT_EQ(hadra_ha_api_init(&record_), 1);
    EXPECT_EQ(hadra_ha_handle.initialized, 1u);  // set, never copied
    EXPECT_STREQ(hadra_ha_handle.name, "routing");
    EXPECT_EQ(pss_->state, r.pss_state);
    EXPECT_NE(pss_->uri[0], '\0');  // a synced standby copy stays registered for gsync
    EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_ACTIVE));
    if (pss_->state == HADRA_HA_DISABLE) {
      EXPECT_EQ(hadra::test::count_records(pss_->uri), r.pss_records);
    }
    EXPECT_EQ(plat_test_sysmgr_gsync_requests(), r.gsync);
    EXPECT_EQ(plat_test_sysmgr_seqno_table_allocated(), r.table);
    EXPECT_EQ(plat_test_sysmgr_seqno_status_registered(), r.status);
  }
}

TEST_F(InitTest, OneFailingDatabaseDisablesEveryDatabase) {
  plat_fault_arm("sdb_create", 0, 0, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(hadra_ha_api_init(&record_), 0);
  EXPECT_EQ(hadra_ha_handle.initialized, 0u);
  EXPECT_EQ(pss_->state, 0u);
  EXPECT_EQ(pss_->uri[0], '\0');
  EXPECT_FALSE(hadra::test::exists_at("run:/routes"));
  // The PSS file had started, so its end is announced (after the SDB's delete notification).
  EXPECT_EQ(sent(), (Ops{0x601, HADRA_SYNC_PSS_DESTROY}));
}

TEST_F(InitTest, NoGsyncInitialisationStartsEverythingUnsynced) {
  plat_test_sysmgr_set_supstate(2);
  ASSERT_EQ(hadra_ha_no_gsync_api_init(&record_), 1);
  EXPECT_EQ(hadra_ha_handle.sap, 0x4401u);
  EXPECT_EQ(hadra_ha_handle.opcode, 0u);  // only uuid and sap are taken
  EXPECT_EQ(hadra_ha_handle.switchover_cb, nullptr);
  EXPECT_EQ(pss_->state + sdb_->state, 2u * HADRA_HA_ACTIVE);
  EXPECT_EQ(pss_->no_sync + sdb_->no_sync + hadra_ha_register_pss(4, "later")->no_sync, 3u);
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
  EXPECT_EQ(plat_test_sysmgr_seqno_table_allocated(), 0);
}

TEST_F(InitTest, DisablingAnnouncesTheDestroyEvenUnsyncedAndClearsTheUri) {
  hadra_ha_register_msdb(5, "adj", 0x611, 0x612);
  ASSERT_EQ(hadra_ha_api_init(&record_), 1);
  take_sent();
  pss_->no_sync = sdb_->no_sync = 1;
  hadra_ha_disable(pss_);
  std::vector<Frame> f = take_sent();
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(f[0].payload, (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, HADRA_SYNC_PSS_DESTROY}));
  EXPECT_EQ(pss_->pss_handle, 0u);
  EXPECT_EQ(std::string(pss_->uri, sizeof pss_->uri), std::string(sizeof pss_->uri, '\0'));
  EXPECT_STREQ(pss_->name, "routes");
  // Ascending, passing over the disabled entry; an SDB's delete notification comes first.
  hadra_ha_disable_all();
  EXPECT_EQ(sent(), (Ops{0x601, HADRA_SYNC_SDB_DESTROY, 0x611, HADRA_SYNC_SDB_DESTROY}));
  // An entry that is not started is left alone, uri included.
  hadra_ha_pss_entry* idle = hadra_ha_register_pss(6, "idle");
  plat_trace_start();
  hadra_ha_disable(idle);
  EXPECT_EQ(plat_trace_size(), 0u);
  EXPECT_NE(hadra_ha_pss[6].uri[0], '\0');
}

TEST_F(InitTest, CloseLeavesAnAllZeroHandleAndNoStoreOpen) {
  hadra_pss_set_config(hadra_ha_register_pss(6, "cfg"), "cfg");
  plat_test_sysmgr_set_startup_cfg_uri("startup:/");
  ASSERT_TRUE(hadra::test::put_records("startup:/cfg", 2));
  ASSERT_EQ(hadra_ha_api_init(&record_), 1);
  ASSERT_FALSE(open_store_files(root()).empty());
  hadra_ha_api_close();
  const hadra_ha_handle_t zero{};
  EXPECT_EQ(std::memcmp(&hadra_ha_handle, &zero, sizeof zero), 0);
  EXPECT_EQ(open_store_files(root()), Files{});
  plat_trace_start();
  hadra_ha_api_close();  // nothing is enabled any more
  EXPECT_EQ(plat_trace_size(), 0u);
}

// Each platform call of an initialisation failed in turn: it either succeeds with every
// database up, or fails with every database disabled and `initialized` still 0; after
// close no store stays open (unless the failed call was a close itself).
TEST_F(InitTest, FaultLoopEndsInSuccessOrEverythingDisabled) {
  for (unsigned n = 0;; ++n) {
    prepare();
    hadra_ha_register_msdb(5, "adj", 0x611, 0x612);
    plat_trace_start();
    plat_fault_arm("*", n, 1, PLAT_FAULT_DEFAULT, EIO);
    const int rc = hadra_ha_api_init(&record_);
    const bool fired = plat_fault_fired() != 0;
    plat_fault_clear();
    const std::string failed = hadra::test::faulted_call();
    SCOPED_TRACE("failing call " + std::to_string(n + 1) + ": " + failed);
    EXPECT_EQ(hadra_ha_handle.initialized, rc == 1 ? 1u : 0u);
    // A supervisor state that cannot be read counts as neither: synced databases wait.
    for (int i : {1, 2, 5}) {
      if (rc == 0 || failed != "sysmgr_supstate_get") {
        EXPECT_EQ(hadra_ha_pss[i].state != 0, rc == 1) << i;
      }
    }
    hadra_ha_api_close();
    if (failed.find("close") == std::string::npos) {
      EXPECT_EQ(open_store_files(root()), Files{});
    }
    if (!fired) break;
  }
}

}  // namespace
