// Registration, entry settings, HA-state texts and the return to load state.
#include <string>

#include "core/handle.h"
#include "core/registry.h"
#include "hadra/diag.h"
#include "hadra_platform/log.h"
#include "support/fixture.h"

namespace hadra::test {
namespace {

int cb_a(void *, void *, uint32_t, uint32_t) { return 0; }
int cb_b(void *, void *, uint32_t, uint32_t) { return 0; }

bool all_zero(const void *p, size_t n) {
  const auto *b = static_cast<const unsigned char *>(p);
  for (size_t i = 0; i < n; ++i)
    if (b[i] != 0) return false;
  return true;
}

class RegistryTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
  }

  // True when a captured log line contains every one of the given pieces.
  static bool logged(std::initializer_list<std::string> pieces) {
    char line[4096];
    int level = 0;
    for (size_t i = 0; i < plat_test_log_count(); ++i) {
      if (plat_test_log_get(i, &level, line, sizeof line) != 0) continue;
      std::string s(line);
      bool all = true;
      for (const auto &p : pieces) all = all && s.find(p) != std::string::npos;
      if (all) return true;
    }
    return false;
  }
};

TEST_F(RegistryTest, EveryRegistrationRefusesIndexesOutsideOneToTen) {
  for (uint8_t bad : {uint8_t{0}, uint8_t{11}, uint8_t{255}}) {
    EXPECT_EQ(hadra_ha_register_pss(bad, "p"), nullptr);
    EXPECT_EQ(hadra_ha_register_pss_with_callback(bad, "p", cb_a), nullptr);
    EXPECT_EQ(hadra_ha_register_sdb(bad, "s", 1, 2), nullptr);
    EXPECT_EQ(hadra_ha_register_sdb_with_callback(bad, "s", 1, 2, cb_a), nullptr);
    EXPECT_EQ(hadra_ha_register_msdb(bad, "m", 1, 2), nullptr);
    EXPECT_EQ(hadra::sync_callback(bad), nullptr);
  }
  EXPECT_EQ(hadra_ha_register_pss(10, "p"), &hadra_ha_pss[10]);
  EXPECT_EQ(hadra_ha_register_sdb(1, "s", 1, 2), &hadra_ha_pss[1]);
  // Only PSS registration reports, with the name folded into its text and the index.
  EXPECT_TRUE(logged({"HA_INVALID_INDEX", "hadra_ha_register_pss in File p", "11"}));
}

TEST_F(RegistryTest, EmptyNameIsRefused) {
  EXPECT_EQ(hadra_ha_register_pss(1, ""), nullptr);
  EXPECT_EQ(hadra_ha_register_pss(1, nullptr), nullptr);
  EXPECT_TRUE(logged({"INVALID_ARG", "hadra_ha_register_pss"}));
  size_t lines = plat_test_log_count();
  EXPECT_EQ(hadra_ha_register_sdb(1, "", 1, 2), nullptr);
  EXPECT_EQ(hadra_ha_register_msdb(1, nullptr, 1, 2), nullptr);
  EXPECT_EQ(plat_test_log_count(), lines);
  EXPECT_EQ(hadra_ha_pss[1].uri[0], '\0');
}

TEST_F(RegistryTest, PssEntryTakesIdentityAndLeavesStateAlone) {
  plat_test_sysmgr_set_file_prefix("bgp_");
  hadra_no_pss_sync = 1;
  hadra_ha_pss[4].state = HADRA_HA_ACTIVE;
  hadra_ha_pss[4].local_only = 1;
  hadra_ha_pss_entry *e = hadra_ha_register_pss(4, "routes");
  ASSERT_EQ(e, &hadra_ha_pss[4]);
  EXPECT_EQ(e->index, 4);
  EXPECT_STREQ(e->name, "routes");
  EXPECT_STREQ(e->uri, "run:/bgp_routes");
  EXPECT_EQ(e->no_sync, 1u);
  EXPECT_EQ(e->local_only, 0u);
  EXPECT_EQ(e->state, static_cast<uint32_t>(HADRA_HA_ACTIVE));
  EXPECT_EQ(e->db_type, static_cast<uint32_t>(HADRA_DB_PSS));
  // SDBs are named without the service's file prefix.
  EXPECT_STREQ(hadra_ha_register_sdb(5, "peers", 7, 8)->uri, "run:/peers");
}

TEST_F(RegistryTest, LongNameIsCutWhileUriKeepsItWhole) {
  const std::string name(40, 'n');
  hadra_ha_pss_entry *e = hadra_ha_register_pss(2, name.c_str());
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(std::string(e->name), name.substr(0, 31));
  EXPECT_EQ(std::string(e->uri), "run:/" + name);
}

TEST_F(RegistryTest, ReregistrationOverwritesIdentityButNotKind) {
  hadra_ha_pss_entry *e = hadra_ha_register_msdb(3, "multi", 100, 101);
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->db_type, static_cast<uint32_t>(HADRA_DB_SDB));
  EXPECT_EQ(e->is_msdb, 1u);
  EXPECT_EQ(e->cre_del_opcode, 100u);
  EXPECT_EQ(e->update_opcode, 101u);
  // An index that held an SDB keeps saying so when a PSS file is registered over it.
  ASSERT_EQ(hadra_ha_register_pss(3, "file"), e);
  EXPECT_EQ(e->db_type, static_cast<uint32_t>(HADRA_DB_SDB));
  EXPECT_STREQ(e->name, "file");
  ASSERT_EQ(hadra_ha_register_sdb(3, "plain", 1, 2), e);
  EXPECT_EQ(e->is_msdb, 0u);
  // Duplicate names are allowed.
  EXPECT_NE(hadra_ha_register_sdb(6, "plain", 1, 2), nullptr);
}

TEST_F(RegistryTest, CallbacksAreStoredForValidIndexesAndSurviveFailures) {
  EXPECT_NE(hadra_ha_register_pss_with_callback(5, "p", cb_a), nullptr);
  EXPECT_EQ(hadra::sync_callback(5), cb_a);
  EXPECT_EQ(hadra_ha_register_sdb_with_callback(5, "", 1, 2, cb_b), nullptr);
  EXPECT_EQ(hadra::sync_callback(5), cb_b);
  plat_test_sysmgr_set_running_cfg_uri(nullptr);
  EXPECT_EQ(hadra_ha_register_pss_with_callback(6, "p", cb_a), nullptr);
  EXPECT_EQ(hadra::sync_callback(6), cb_a);
  EXPECT_EQ(hadra::sync_callback(16), nullptr);
}

TEST_F(RegistryTest, NoUriFromThePlatformIsReported) {
  plat_test_sysmgr_set_running_cfg_uri(nullptr);
  plat_test_sysmgr_set_file_prefix("pfx");
  plat_trace_start();
  EXPECT_EQ(hadra_ha_register_pss(1, "p"), nullptr);
  EXPECT_EQ(hadra_ha_register_sdb(2, "s", 1, 2), nullptr);
  EXPECT_EQ(hadra_ha_pss[1].uri[0], '\0');
  EXPECT_EQ(trace_calls("sysmgr_"),
            (std::vector<std::string>{"sysmgr_running_cfg_uri_get", "sysmgr_file_prefix_get", "sysmgr_uri_complete",
                                      "sysmgr_running_cfg_uri_get", "sysmgr_uri_complete"}));
  EXPECT_TRUE(logged({"API_FAILED", "hadra_ha_register_pss: running_cfg - , file_prefix - pfx"}));
}

TEST_F(RegistryTest, SettingsIgnoreNullAndSetTheirField) {
  hadra_pss_set_config(nullptr, "x");
  hadra_pss_set_preserve(nullptr);
  hadra_ha_set_db_recovering(nullptr);
  hadra_ha_set_db_active(nullptr);
  EXPECT_EQ(hadra_pss_is_preserve(nullptr), 0);
  EXPECT_EQ(hadra_ha_is_db_standby(nullptr), 0);
  EXPECT_EQ(hadra_ha_is_db_recovering(nullptr), 0);

  hadra_ha_pss_entry *e = hadra_ha_register_pss(7, "cfg");
  ASSERT_NE(e, nullptr);
  hadra_pss_set_config(e, std::string(50, 'c').c_str());
  EXPECT_EQ(e->is_config, 1u);
  EXPECT_EQ(std::string(e->cfg_name), std::string(31, 'c'));
  hadra_pss_set_preserve(e);
  EXPECT_EQ(hadra_pss_is_preserve(e), 1);
  hadra_ha_set_db_recovering(e);
  EXPECT_EQ(hadra_ha_is_db_recovering(e), 1);
  EXPECT_EQ(hadra_ha_is_db_standby(e), 0);
  hadra_ha_set_db_active(e);
  EXPECT_EQ(e->state, static_cast<uint32_t>(HADRA_HA_ACTIVE));
  e->state = HADRA_HA_STANDBY;
  EXPECT_EQ(hadra_ha_is_db_standby(e), 1);
}

TEST_F(RegistryTest, StateTexts) {
  hadra_ha_pss_entry e{};
  const char *expected[] = {"disable", "standby", "recovering", "active"};
  const char *names[] = {"HADRA_HA_DISABLE", "HADRA_HA_STANDBY", "HADRA_HA_RECOVER", "HADRA_HA_ACTIVE"};
  for (uint32_t s = 0; s < 4; ++s) {
    e.state = s;
    EXPECT_STREQ(hadra_ha_state_str(&e), expected[s]);
    EXPECT_STREQ(hadra_ha_pss_state2str[s], names[s]);
  }
  e.state = 7;
  EXPECT_STREQ(hadra_ha_state_str(&e), "invalid state");
  EXPECT_STREQ(hadra_ha_state_str(nullptr), "invalid handle");
}

TEST_F(RegistryTest, ResetReturnsEveryPieceToLoadState) {
  hadra_ha_register_pss_with_callback(1, "p", cb_a);
  hadra_no_pss_sync = 1;
  hadra_ha_enable_debug();
  hadra_sdwrap_dbg_elem_set(3, &hadra_ha_pss);
  hadra_ha_handle.uuid = 9;
  hadra_ha_handle.flags = 0xfffffff8u;  // bits outside the three options mean nothing
  EXPECT_FALSE(hadra::handle_flag(HADRA_HA_FLAG_SEQNO_STATUS));
  EXPECT_FALSE(hadra::handle_flag(HADRA_HA_FLAG_SNAPSHOT_YIELD));

  hadra_internal_reset();
  EXPECT_TRUE(all_zero(hadra_ha_pss, sizeof hadra_ha_pss));
  EXPECT_TRUE(all_zero(&hadra_ha_handle, sizeof hadra_ha_handle));
  EXPECT_EQ(hadra::sync_callback(1), nullptr);
  EXPECT_EQ(hadra_no_pss_sync, 0u);
  EXPECT_EQ(hadra_debug_ha, 0u);
  EXPECT_EQ(hadra_sdwrap_dbg_elem, 0u);
  EXPECT_EQ(hadra_sdwrap_dbg_buf, nullptr);
}

}  // namespace
}  // namespace hadra::test
