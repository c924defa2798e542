// Start-up of one database on real files, for every way a service can be started: what the
// database keeps, the state it comes up in, and that nothing but the entry's own handle stays
// open. The fault loop fails each platform call of each start-up in turn.
#include <cerrno>

#include "support/stores.h"

namespace {

using hadra::test::count_open;
using hadra::test::Files;
using hadra::test::open_store_files;
using hadra::test::put_records;

class StartTest;

// One way of starting: records (or, for the SDB, its one record) there before the start and
// after it, and the state it comes up in.
struct Case {
  const char* name;
  bool sdb;
  int before;
  void (*setup)(StartTest&);
  uint32_t state;
  int after;
};

class StartTest : public hadra::test::PlatformTest {
 public:
  void SetUp() override {
    PlatformTest::SetUp();
    prepare();
  }

  void prepare() {
    hadra::test::fresh_start(root());
    plat_test_sysmgr_set_file_prefix("p_");
    hadra_ha_handle.sap = 0x3301;
    pss_ = hadra_ha_register_pss(1, "routes");
    sdb_ = hadra_ha_register_sdb(2, "nbrs", 0x601, 0x602);
  }

  void put_sdb_record() {
    ASSERT_EQ(sdb_create(sdb_->uri, SDB_CREATE_SDB, 0, 0), 0u);
    ASSERT_EQ(sdb_open(sdb_->uri, SDB_OPEN_RW, 0, 0, 0), 0u);
    ASSERT_EQ(sdb_write(sdb_->uri, &key_, &key_), 0u);
    ASSERT_EQ(sdb_close(sdb_->uri), 0u);
  }

  hadra_ha_pss_entry* arrange(const Case& c) {
    prepare();
    if (c.sdb && c.before > 0) put_sdb_record();
    if (!c.sdb && c.before > 0) put_records(pss_->uri, c.before);
    c.setup(*this);
    return c.sdb ? sdb_ : pss_;
  }
  // Records of the started database: the walk of its PSS handle, or whether the SDB still
  // holds its record; -1 when the store is not open in this process.
  int records(const Case& c) {
    if (!c.sdb) return count_open(pss_->pss_handle);
    uint32_t rc = 0;
    const bool found = sdb_read(sdb_->uri, &key_, &rc) != nullptr;
    return rc == PLAT_ERR_SDB_NOT_OPEN ? -1 : found ? 1 : 0;
  }

  hadra_ha_pss_entry* pss_ = nullptr;
  hadra_ha_pss_entry* sdb_ = nullptr;
  datum key_{const_cast<char*>("key"), 3};
};

void stateful(StartTest&) { plat_test_sysmgr_set_stateful_restart(1); }
void preserved(StartTest& t) { hadra_pss_set_preserve(t.pss_); }
void stateless(StartTest&) {}
void config(StartTest& t) { hadra_pss_set_config(t.pss_, "routes.cfg"); }
void startup_file(StartTest& t) {
  config(t);
  plat_test_sysmgr_set_startup_cfg_uri("startup:/");
  put_records("startup:/p_routes.cfg", 6, "cfg");  // the prefix applies to the startup file
}

const Case kCases[] = {
    {"stateful keeps a file", false, 4, stateful, HADRA_HA_RECOVER, 4},
    {"stateful creates a missing file", false, 0, stateful, HADRA_HA_RECOVER, 0},
    {"preserved file is kept", false, 4, preserved, HADRA_HA_ACTIVE, 4},
    {"preserved but missing file is created", false, 0, preserved, HADRA_HA_ACTIVE, 0},
    {"stateless empties a file", false, 4, stateless, HADRA_HA_ACTIVE, 0},
    {"configuration without startup configuration", false, 0, config, HADRA_HA_ACTIVE, 0},
    {"configuration copied from its startup file", false, 2, startup_file, HADRA_HA_ACTIVE, 6},
    {"stateful keeps an SDB", true, 1, stateful, HADRA_HA_RECOVER, 1},
    {"stateful recreates a missing SDB", true, 0, stateful, HADRA_HA_ACTIVE, 0},
    {"preserved SDB is recreated", true, 1, [](StartTest& t) { hadra_pss_set_preserve(t.sdb_); }, HADRA_HA_ACTIVE, 0},
    {"stateless recreates an SDB", true, 1, stateless, HADRA_HA_ACTIVE, 0},
};


TEST_F(StartTest, StartingAgainReleasesTheHandleOfTheFirstStart) {
  plat_test_sysmgr_set_stateful_restart(1);
  ASSERT_EQ(hadra_ha_db_start(pss_), 1);
  const uint32_t first = pss_->pss_handle;
  ASSERT_EQ(hadra_ha_db_start(pss_), 1);
  EXPECT_EQ(pss2_close(first), PLAT_ERR_PSS_BAD_HANDLE);
}

// Each kind with each of its platform calls failed in turn, and finally with none failing.
// Unfailed, the kind keeps what it should and comes up in its state. Whatever fails, the
// database is either up (in its kind's state, or active after falling through to a fresh
// start; readable, with its old records, its new ones or none) or not started (state
// untouched, no handle). Either way nothing but the database's own handle or opening is
// left open (the creator's handle of a missing file, the startup file's, a copy's), unless
// the failed call was a close itself.
TEST_F(StartTest, EachKindComesUpWithWhatItKeepsWhateverFails) {
  for (const Case& c : kCases) {
    for (unsigned n = 0;; ++n) {
      hadra_ha_pss_entry* e = arrange(c);
      plat_trace_start();
      plat_fault_arm("*", n, 1, PLAT_FAULT_DEFAULT, EIO);
      const int rc = hadra_ha_db_start(e);
      const bool fired = plat_fault_fired() != 0;
      plat_fault_clear();
      const std::string failed = hadra::test::faulted_call();
      SCOPED_TRACE(std::string(c.name) + ", failing call " + std::to_string(n + 1) + ": " + failed);
      const int r = rc == 1 ? records(c) : 0;
      if (!fired) {
        EXPECT_EQ(rc, 1);
        EXPECT_EQ(e->state, c.state);
        EXPECT_EQ(r, c.after);
      } else if (rc == 1) {
        EXPECT_TRUE(e->state == c.state || e->state == HADRA_HA_ACTIVE) << e->state;
        EXPECT_TRUE(r == c.before || r == c.after || r == 0) << r;
      } else {
        EXPECT_EQ(e->state, 0u);
        EXPECT_EQ(e->pss_handle, 0u);
      }
      if (rc == 1) {
        EXPECT_EQ(c.sdb ? sdb_close(e->uri) : pss2_close(e->pss_handle), 0u);
      }
      if (failed.find("close") == std::string::npos) {
        EXPECT_EQ(open_store_files(root()), Files{});
      }
      if (!fired) break;
    }
  }
}

}  // namespace
