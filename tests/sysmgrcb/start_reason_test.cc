// Start reason and its marker file, deconfiguration, the handshake-query table, and the
// configuration write.
#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/sysmgrcb/sysmgrcb_fixture.h"

namespace {

using hadra::test::trace_calls;

class StartReasonTest : public hadra::test::SysmgrcbTest {
 protected:
  // A new process of the service on supervisor state sup.
  void new_start(int sup, const char* prefix = nullptr) {
    restart_process();
    plat_test_sysmgr_set_uuid(kUuid);
    plat_test_sysmgr_set_supstate(sup);
    plat_test_sysmgr_set_file_prefix(prefix);
  }
};

TEST_F(StartReasonTest, NewStartsByRoleAndTheCachedSecondCall) {
  struct Case {
    int sup, swover;
    uint32_t reason;
  };
  for (Case c : {Case{1, 0, 3}, Case{1, 1, 5}, Case{2, 1, 4}, Case{0, 0, 0}}) {
    new_start(c.sup);
    plat_test_sysmgr_set_swover_first_start(c.swover);
    plat_trace_start();
    EXPECT_EQ(hadra_get_start_reason(), c.reason);
    EXPECT_EQ(trace_calls("pss_create").size(), c.reason != 0 ? 1u : 0u);  // the marker
    EXPECT_EQ(std::string(hadra_cfg_uri), "run:/hadra_cfg_1a2");
    plat_trace_clear();
    EXPECT_EQ(hadra_get_start_reason(), c.reason);
    EXPECT_EQ(plat_trace_size(), 0u);  // no platform call for a known reason
    hadra_deconfiguration_complete();  // next case starts unconfigured
  }
}

TEST_F(StartReasonTest, AMarkerFromAnEarlierRunMeansARestartUntilDeconfigured) {
  new_start(1, "p1_");
  ASSERT_EQ(hadra_get_start_reason(), 3u);
  EXPECT_EQ(std::string(hadra_cfg_uri), "run:/p1_hadra_cfg_1a2");
  new_start(1, "p1_");
  EXPECT_EQ(hadra_get_start_reason(), 2u);  // controlled restart
  new_start(2, "p1_");
  plat_test_sysmgr_set_handshake_done(1);
  EXPECT_EQ(hadra_get_start_reason(), 1u);  // crash
  EXPECT_EQ(hadra_deconfiguration_complete(), 0u);
  new_start(1, "p1_");
  EXPECT_EQ(hadra_get_start_reason(), 3u);
}

TEST_F(StartReasonTest, AFailureGivesUnknownButADecidedReasonStays) {
  plat_test_sysmgr_set_running_cfg_uri(nullptr);  // no marker URI: unknown for good
  EXPECT_EQ(hadra_get_start_reason(), 0u);
  plat_test_sysmgr_set_running_cfg_uri("run:/");
  EXPECT_EQ(hadra_get_start_reason(), 0u);
  for (unsigned skip : {0u, 1u}) {  // the marker is not created / not reopened
    new_start(2);
    ASSERT_EQ(plat_fault_arm(skip == 0 ? "pss_create" : "pss_open", skip, 1, PLAT_FAULT_DEFAULT, 0), 0);
    EXPECT_EQ(hadra_get_start_reason(), 0u);
    EXPECT_EQ(hadra_get_start_reason(), 4u);
  }
  new_start(1);
  ASSERT_EQ(plat_fault_arm("pss_open", 0, 1, PLAT_FAULT_DEFAULT, 0), 0);  // not "no such file"
  EXPECT_EQ(hadra_get_start_reason(), 0u);
  EXPECT_EQ(hadra_get_start_reason(), 0u);
}

class NotifyTest : public hadra::test::SysmgrcbTest {
 protected:
  void SetUp() override {
    SysmgrcbTest::SetUp();
    ASSERT_EQ(mts_bind(kSap), 0);
  }
};

TEST_F(NotifyTest, AResponseIsMatchedToTheServiceAskedAbout) {
  EXPECT_EQ(sysmgr_notify(kSap, nullptr) + sysmgr_notify(kSap, "no-such-service"), 0);
  EXPECT_EQ(sysmgr_notify(kSap, "bgp"), 0);  // nobody holds the system manager's SAP
  ASSERT_EQ(mts_bind(SYSMGR_SAP), 0);        // the test plays the system manager
  ASSERT_EQ(sysmgr_notify(kSap, "bgp") + sysmgr_notify(kSap, "ospf"), 2);
  EXPECT_EQ(sysmgr_server_notify[0].uuid * 1000 + sysmgr_server_notify[1].uuid, 566538u);
  EXPECT_EQ(mts_test_held(kSap), 0u);  // the queries' references were released

  mts_msg_ref q[2], r;
  ASSERT_EQ(mts_recv(SYSMGR_SAP, &q[0], nullptr) + mts_recv(SYSMGR_SAP, &q[1], nullptr), 0);
  for (int i : {1, 0})
    ASSERT_EQ(mts_reply(SYSMGR_SAP, &q[i], SYSMGR_OPC_HS_RESPONSE, nullptr, 0, nullptr, 0, nullptr), 0);
  for (uint32_t uuid : {538u, 566u}) {  // answered in the other order
    ASSERT_EQ(mts_recv(kSap, &r, nullptr), 0);
    EXPECT_EQ(sysmgr_notify_response_uuid_get(&r), uuid);
    mts_drop(kSap, &r);
  }
  EXPECT_EQ(sysmgr_notify_response_uuid_get(&r), 0u);  // names nothing any more
}

TEST_F(NotifyTest, AFullTableRefusesTheQueryAndEndsTheLookup) {
  ASSERT_EQ(mts_bind(SYSMGR_SAP), 0);
  for (int i = 0; i < HADRA_NOTIFY_ENTRIES; ++i) ASSERT_EQ(sysmgr_notify(kSap, "bgp"), 1);
  plat_trace_start();
  EXPECT_EQ(sysmgr_notify(kSap, "bgp"), 0);
  EXPECT_EQ(trace_calls("sysmgrcmn").size(), 0u);  // no query that could not be recorded
  // No entry matches: the walk ends after entry 99 (reading further shows under ASan).
  mts_msg_ref r;
  ASSERT_EQ(mts_test_deliver(kSap, SYSMGR_SAP, 0, SYSMGR_OPC_HS_RESPONSE, 0, 0, 0x7fff1234, nullptr, 0), 0);
  ASSERT_EQ(mts_recv(kSap, &r, nullptr), 0);
  EXPECT_EQ(sysmgr_notify_response_uuid_get(&r), 0u);
  sysmgr_server_notify[99].rr_token = 0x7fff1234;
  EXPECT_EQ(sysmgr_notify_response_uuid_get(&r), 566u);
}

using CfgWriteTest = hadra::test::SysmgrcbTest;

TEST_F(CfgWriteTest, ConfigurationFilesAreCopiedAndOneFailureDoesNotStopTheOthers) {
  hadra_ha_pss_entry* a = hadra_ha_register_pss(1, "cfg_a");
  hadra_ha_pss_entry* sdb = hadra_ha_register_sdb(2, "cfg_sdb", kCreDelOpcode, 0x4403);
  hadra_ha_pss_entry* b = hadra_ha_register_pss(3, "cfg_b");
  ASSERT_NE(hadra_ha_register_pss(4, "plain"), nullptr);
  hadra_pss_set_config(a, "aaa");
  hadra_pss_set_config(sdb, "sss");
  hadra_pss_set_config(b, "bbb");
  init(1);
  put(b, "k", "from b");
  namespace fs = std::filesystem;
  auto files_in = [&](const char* dir) {
    std::vector<std::string> names;  // LMDB's lock files aside
    for (const auto& f : fs::directory_iterator(fs::path(root()) / dir))
      if (!f.path().filename().string().ends_with("-lock")) names.push_back(f.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  };
  EXPECT_EQ(hadra_sysmgr_cfg_write_cb(nullptr, "startup:/"), 0);
  EXPECT_EQ(files_in("startup"), (std::vector<std::string>{"svc_aaa", "svc_bbb"}));
  uint32_t h = 0;
  ASSERT_EQ(hadra_pss_open("startup:/svc_bbb", &h), 1);
  EXPECT_EQ(get(nullptr, "k", h), "from b");
  hadra_pss_close(h);

  ASSERT_EQ(plat_fault_arm("pss2_get_params", 0, 1, PLAT_FAULT_DEFAULT, 0), 0);  // the first copy fails
  EXPECT_EQ(hadra_sysmgr_cfg_write_cb(nullptr, "startup:/second"), 0);
  EXPECT_EQ(files_in("startup/second"), std::vector<std::string>{"svc_bbb"});
  EXPECT_EQ(hadra_sysmgr_cfg_write_cb(nullptr, "not a uri") + hadra_sysmgr_cfg_write_cb(nullptr, nullptr), 0);
}

}  // namespace
