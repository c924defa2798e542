// Global sync: the snapshot walk on the active, the ready walk on the standby, the failed
// event, the client's hooks and reply flag, and walks that stop part way.
#include <cerrno>
#include <filesystem>

#include "hadra_platform/errors.h"
#include "tests/sysmgrcb/sysmgrcb_fixture.h"

namespace {

using hadra::test::D;
using hadra::test::trace;
using hadra::test::trace_calls;

constexpr const char* kArea = "snap:/g1";

struct HookLog {
  int calls = 0;
  int32_t leave = 1;  // what the hook leaves in the reply flag
  void* ctx = nullptr;
  void* arg = nullptr;
} g_hook;

int gsync_hook(void* ctx, const char*, void* arg, int32_t* reply) {
  ++g_hook.calls;
  g_hook.ctx = ctx;
  g_hook.arg = arg;
  EXPECT_EQ(*reply, 1);
  *reply = g_hook.leave;
  return 99;  // ignored
}

int g_failed_hooks = 0;
void failed_hook() { ++g_failed_hooks; }

class GsyncTest : public hadra::test::SysmgrcbTest {
 protected:
  void SetUp() override {
    SysmgrcbTest::SetUp();
    g_hook = HookLog{};
    g_failed_hooks = 0;
  }

  // The active with records, and a fourth PSS file "late".
  void active_with_records() {
    register_databases();
    init(1);
    late_ = hadra_ha_register_pss(4, "late");
    ASSERT_EQ(hadra_ha_db_start(late_), 1);
    put(pss_, "r1", "v1");
    put(sdb_, "p1", "peer");
    put_mkey(msdb_, "n1", "nbr", "s1");
  }

  // The same client starts on the standby: initialisation destroys its synced copies.
  void become_standby(const hadra_ha_handle_t& r) {
    restart_process();
    register_databases();
    late_ = hadra_ha_register_pss(4, "late");
    init(2, r);
  }

  bool in_snapshot_area(const char* name) const {
    return std::filesystem::exists(std::filesystem::path(root()) / "snap/g1" / name);
  }

  hadra_ha_pss_entry* late_ = nullptr;
};

TEST_F(GsyncTest, SnapshotOnActiveThenReadyOnStandbyCopiesEveryDatabase) {
  active_with_records();
  sysmgr_req_ctx ctx = event();
  plat_trace_start();
  EXPECT_EQ(sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr), 0);
  std::vector<std::string> order;
  for (const std::string& c : trace_calls())
    if (c == "pss2_snapshot" || c.find("write_snapshot") != std::string::npos || c.starts_with("mts_") ||
        c.starts_with("sysmgr_gsync"))
      order.push_back(c);
  EXPECT_EQ(order,
            (std::vector<std::string>{"pss2_snapshot", "sdb_write_snapshot", "mksdb_write_snapshot", "pss2_snapshot",
                                      "mts_sap_get", "mts_pss_snapshot_done", "sysmgr_gsync_snapshot_done"}));
  ASSERT_EQ(answers().size(), 1u);
  EXPECT_EQ(answers()[0].kind, PLAT_TEST_SYSMGR_GSYNC_SNAPSHOT_DONE);
  EXPECT_EQ(answers()[0].req_id, ctx.req_id);
  EXPECT_EQ(answers()[0].value, 0);
  EXPECT_EQ(mts_test_snapshot_done_count(kSap), 1u);
  expect_states(HADRA_HA_ACTIVE);

  become_standby(record());
  expect_states(HADRA_HA_DISABLE);
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, kArea, nullptr), 0);
  expect_states(HADRA_HA_STANDBY);
  EXPECT_EQ(get(pss_, "r1"), "v1");
  EXPECT_EQ(get(sdb_, "p1"), "peer");
  EXPECT_EQ(get(msdb_, "n1"), "nbr");
  std::string s1 = "s1";
  datum sd = D(s1);
  sdb_skey sk{&sd, 1};
  datum *k = nullptr, *v = nullptr;
  EXPECT_EQ(sdb_read_skey(msdb_->uri, &sk, &k, &v), 0u);  // secondary keys came along
  EXPECT_EQ(mts_test_gsync_done_count(kSap), 1u);
  ASSERT_EQ(answers().size(), 1u);  // the restart forgot the snapshot's answer
  EXPECT_EQ(answers()[0].kind, PLAT_TEST_SYSMGR_GSYNC_READY_DONE);
  EXPECT_EQ(answers()[0].value, 0);
}

TEST_F(GsyncTest, HooksSeeTheEventAndMayTakeOverTheAnswer) {
  hadra_ha_handle_t r = record();
  r.gsync_snapshot_cb = &gsync_hook;
  r.gsync_ready_cb = &gsync_hook;
  register_databases();
  init(1, r);
  int arg = 0;
  sysmgr_req_ctx ctx = event();
  for (int32_t leave : {0, 2, 1}) {  // the snapshot is answered only for a flag left at 1
    g_hook.leave = leave;
    EXPECT_EQ(sysmgrcb_gsync_snapshot(&ctx, kArea, &arg), 0);
  }
  EXPECT_EQ(answers().size(), 1u);
  EXPECT_EQ(g_hook.ctx, &ctx);
  EXPECT_EQ(g_hook.arg, &arg);

  become_standby(r);
  g_hook.leave = 0;  // ready: only 0 takes the answer over, and the callback then gives 1
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, kArea, &arg), 1);
  EXPECT_EQ(answers().size(), 0u);
  EXPECT_EQ(mts_test_gsync_done_count(kSap), 1u);  // MTS is told whoever answers
  g_hook.leave = 5;
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, kArea, &arg), 0);
  EXPECT_EQ(answers().size(), 1u);
}

TEST_F(GsyncTest, AFailingEntryEndsTheWalkAndIsAnsweredAsFailed) {
  active_with_records();
  ASSERT_EQ(plat_fault_arm("sdb_write_snapshot", 0, 1, PLAT_FAULT_DEFAULT, ENOSPC), 0);
  sysmgr_req_ctx ctx = event();
  plat_trace_start();
  EXPECT_EQ(sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr), ENOSPC);
  EXPECT_TRUE(in_snapshot_area("routes"));  // entry 1, before the failure
  EXPECT_FALSE(in_snapshot_area("late"));
  EXPECT_EQ(trace_calls("mksdb_write_snapshot").size() + trace_calls("mts_pss_snapshot_done").size(), 0u);
  EXPECT_EQ(answers().back().value, 1);

  ASSERT_EQ(sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr), 0);
  hadra_ha_handle_t r = record();
  r.gsync_ready_cb = &gsync_hook;
  become_standby(r);
  ASSERT_EQ(plat_fault_arm("sdb_open", 1, 1, PLAT_FAULT_DEFAULT, EACCES), 0);  // entry 3's SDB
  plat_trace_start();
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, kArea, nullptr), EACCES);
  EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_STANDBY));
  EXPECT_EQ(msdb_->state, static_cast<uint32_t>(HADRA_HA_DISABLE));
  EXPECT_EQ(late_->state, static_cast<uint32_t>(HADRA_HA_DISABLE));
  for (const auto& c : trace()) EXPECT_EQ(c.args.find("late"), std::string::npos) << c.call;  // never visited
  EXPECT_EQ(mts_test_gsync_done_count(kSap), 0u);
  EXPECT_EQ(g_hook.calls, 1);  // the hook hears of a failure too
  EXPECT_EQ(answers().back().value, 1);

  plat_fault_clear();  // an area that cannot be named fails at the first PSS file
  EXPECT_NE(sysmgrcb_gsync_ready(&ctx, nullptr, nullptr), 0);
}

TEST_F(GsyncTest, UnsyncedDatabasesAreLeftAloneAndMissingSnapshotsStartEmpty) {
  hadra_no_pss_sync = 1;
  register_databases();
  init(2);  // unsynced databases start even on the standby
  sysmgr_req_ctx ctx = event();
  plat_trace_start();
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, kArea, nullptr), 0);
  EXPECT_EQ(sysmgrcb_gsync_snapshot(&ctx, kArea, nullptr), 0);
  EXPECT_EQ(trace_calls("sysmgr_uri_complete").size() + trace_calls("sysmgr_uuid_get").size(), 0u);
  expect_states(HADRA_HA_ACTIVE);
  EXPECT_EQ(mts_test_gsync_done_count(kSap) + mts_test_snapshot_done_count(kSap), 2u);

  restart_process();
  register_databases();
  init(2);
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, "snap:/empty", nullptr), 0);
  expect_states(HADRA_HA_STANDBY);
  EXPECT_EQ(get(pss_, "r1"), "<none>");
  put(pss_, "r1", "new");  // each copy is open for the sync messages to come
  put(msdb_, "n1", "new");
  EXPECT_EQ(answers().back().value, 0);
}

TEST_F(GsyncTest, GsyncFailedActsOnItsReason) {
  hadra_ha_handle_t r = record();
  r.gsync_failed_cb = &failed_hook;
  register_databases();
  init(2, r);
  // Fatal: the child process ends inside the call, with no answer. (First, while no store is
  // open: the leak checker would count what an exiting process leaves open.)
  sysmgr_req_ctx fatal = event(PLAT_ERR_SYSMGR_GSYNC_FATAL);
  EXPECT_EXIT(
      {
        sysmgrcb_gsync_failed(&fatal);
        std::exit(plat_test_sysmgr_answer_count() == 0 ? 7 : 8);
      },
      ::testing::ExitedWithCode(1), "");

  sysmgr_req_ctx other = event(PLAT_ERR_SYSMGR_NO_DAEMON);
  EXPECT_EQ(sysmgrcb_gsync_failed(&other), 0);  // only answered
  expect_states(HADRA_HA_DISABLE);
  EXPECT_EQ(g_failed_hooks, 0);

  sysmgr_req_ctx not_on_active = event(PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE);
  EXPECT_EQ(sysmgrcb_gsync_failed(&not_on_active), 0);  // every database starts empty
  expect_states(HADRA_HA_STANDBY);
  put(pss_, "k", "v");
  put(sdb_, "k", "v");
  EXPECT_EQ(g_failed_hooks, 1);
  ASSERT_EQ(answers().size(), 2u);
  EXPECT_EQ(answers()[0].value + answers()[1].value, 0);

}

}  // namespace
