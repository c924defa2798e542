// Registration, entry settings, HA-state texts and the return to load state.
#include <string>

#include "core/handle.h"
#include "core/registry.h"
#include "hadra/diag.h"
#include "support/fixture.h"

namespace hadra::test {
namespace {

int cb_a(void *, void *, uint32_t, uint32_t) { return 0; }

class RegistryTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
  }
};

TEST_F(RegistryTest, RefusesBadIndexOrEmptyNameReportingOnlyForPss) {
  for (uint8_t bad : {uint8_t{0}, uint8_t{11}, uint8_t{255}}) {
    EXPECT_EQ(hadra_ha_register_pss_with_callback(bad, "p", cb_a), nullptr);
    EXPECT_EQ(hadra_ha_register_sdb_with_callback(bad, "s", 1, 2, cb_a), nullptr);
    EXPECT_EQ(hadra_ha_register_msdb(bad, "m", 1, 2), nullptr);
    EXPECT_EQ(hadra::sync_callback(bad), nullptr);
  }
  EXPECT_TRUE(logged({"HA_INVALID_INDEX", "hadra_ha_register_pss in File p"}));
  EXPECT_EQ(hadra_ha_register_pss(1, nullptr), nullptr);
  EXPECT_TRUE(logged({"INVALID_ARG", "hadra_ha_register_pss"}));
  const size_t lines = plat_test_log_count();
  EXPECT_EQ(hadra_ha_register_sdb(1, "", 1, 2), nullptr);
  EXPECT_EQ(plat_test_log_count(), lines);
  EXPECT_EQ(hadra_ha_register_pss(10, "p"), &hadra_ha_pss[10]);
}

TEST_F(RegistryTest, PssEntryTakesIdentityAndLeavesStateAlone) {
  plat_test_sysmgr_set_file_prefix("bgp_");
  hadra_no_pss_sync = 1;
  hadra_ha_pss[4].state = HADRA_HA_ACTIVE;
  hadra_ha_pss[4].local_only = 1;
  const std::string name(40, 'n');
  hadra_ha_pss_entry *e = hadra_ha_register_pss(4, name.c_str());
  ASSERT_EQ(e, &hadra_ha_pss[4]);
  EXPECT_EQ(e->index, 4);
  EXPECT_EQ(std::string(e->name), name.substr(0, 31));
  EXPECT_EQ(std::string(e->uri), "run:/bgp_" + name);  // built from the whole name
  EXPECT_EQ(e->no_sync, 1u);
  EXPECT_EQ(e->local_only, 0u);
  EXPECT_EQ(e->state, static_cast<uint32_t>(HADRA_HA_ACTIVE));
  // SDBs are named without the service's file prefix.
  EXPECT_STREQ(hadra_ha_register_sdb(5, "peers", 7, 8)->uri, "run:/peers");
}

TEST_F(RegistryTest, ReregistrationOverwritesIdentityButNotKind) {
  hadra_ha_pss_entry *e = hadra_ha_register_msdb(3, "multi", 100, 101);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->db_type, static_cast<uint32_t>(HADRA_DB_SDB));
  EXPECT_EQ(e->is_msdb, 1u);
  EXPECT_EQ(e->update_opcode, 101u);
  ASSERT_EQ(hadra_ha_register_pss(3, "file"), e);
  EXPECT_EQ(e->db_type, static_cast<uint32_t>(HADRA_DB_SDB));
  EXPECT_STREQ(e->name, "file");
}

// The callback is stored before registration is tried, and a failure leaves it there.
TEST_F(RegistryTest, NoUriFromThePlatformIsReportedAndKeepsTheCallback) {
  plat_test_sysmgr_set_running_cfg_uri(nullptr);
  plat_test_sysmgr_set_file_prefix("pfx");
  plat_trace_start();
  EXPECT_EQ(hadra_ha_register_pss_with_callback(1, "p", cb_a), nullptr);
  EXPECT_EQ(hadra_ha_register_sdb(2, "s", 1, 2), nullptr);
  EXPECT_EQ(hadra_ha_pss[1].uri[0], '\0');
  EXPECT_EQ(hadra::sync_callback(1), cb_a);
  EXPECT_EQ(trace_calls("sysmgr_"),
            (std::vector<std::string>{"sysmgr_running_cfg_uri_get", "sysmgr_file_prefix_get", "sysmgr_uri_complete",
                                      "sysmgr_running_cfg_uri_get", "sysmgr_uri_complete"}));
  EXPECT_TRUE(logged({"API_FAILED", "hadra_ha_register_pss: running_cfg - , file_prefix - pfx"}));
}

TEST_F(RegistryTest, SettingsIgnoreNullAndStateTextsCoverBadValues) {
  hadra_pss_set_config(nullptr, "x");
  hadra_pss_set_preserve(nullptr);
  hadra_ha_set_db_active(nullptr);
  EXPECT_EQ(hadra_pss_is_preserve(nullptr) + hadra_ha_is_db_standby(nullptr) + hadra_ha_is_db_recovering(nullptr), 0);
  EXPECT_STREQ(hadra_ha_state_str(nullptr), "invalid handle");
  hadra_ha_pss_entry *e = hadra_ha_register_pss(7, "cfg");
  ASSERT_NE(e, nullptr);
  hadra_pss_set_config(e, std::string(50, 'c').c_str());
  EXPECT_EQ(std::string(e->cfg_name), std::string(31, 'c'));
  hadra_ha_set_db_recovering(e);
  EXPECT_STREQ(hadra_ha_state_str(e), "recovering");
  e->state = 7;
  EXPECT_STREQ(hadra_ha_state_str(e), "invalid state");
}

TEST_F(RegistryTest, ResetReturnsEveryPieceToLoadState) {
  hadra_ha_register_pss_with_callback(1, "p", cb_a);
  hadra_no_pss_sync = 1;
  hadra_ha_enable_debug();
  hadra_sdwrap_dbg_elem_set(3, &hadra_ha_pss);
  hadra_ha_handle.uuid = 9;
  hadra_ha_handle.flags = 0xfffffff8u;  // bits outside the three options mean nothing
  EXPECT_FALSE(hadra::handle_flag(HADRA_HA_FLAG_SEQNO_STATUS | HADRA_HA_FLAG_PSS_MGET | HADRA_HA_FLAG_SNAPSHOT_YIELD));

  hadra_internal_reset();
  const std::string zeros(sizeof hadra_ha_pss, '\0');
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(hadra_ha_pss), sizeof hadra_ha_pss), zeros);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(&hadra_ha_handle), sizeof hadra_ha_handle),
            zeros.substr(0, sizeof hadra_ha_handle));
  EXPECT_EQ(hadra::sync_callback(1), nullptr);
  EXPECT_EQ(hadra_no_pss_sync + hadra_debug_ha + hadra_sdwrap_dbg_elem, 0u);
  EXPECT_EQ(hadra_sdwrap_dbg_buf, nullptr);
}

}  // namespace
}  // namespace hadra::test
