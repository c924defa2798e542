// Switchover on the client that becomes active: state changes, immediate and deferred
// answers, the recovery guard, clearing the client's queue, and events before initialisation.
#include <cerrno>
#include <cstring>

#include "hadra_platform/errors.h"
#include "tests/sysmgrcb/sysmgrcb_fixture.h"

namespace {

using hadra::test::trace_calls;

struct Hooks {
  int switchover = 0, done = 0, marker = 0;
  bool recover_inside = false;  // the switchover hook recovers and answers at once
} g_hooks;

void on_switchover() {
  ++g_hooks.switchover;
  if (g_hooks.recover_inside) {
    EXPECT_EQ(hadra_ha_recovery_done(0), 0);
  }
}
void on_done() { ++g_hooks.done; }
void on_marker() { ++g_hooks.marker; }

class SwitchoverTest : public hadra::test::SysmgrcbTest {
 protected:
  void SetUp() override {
    SysmgrcbTest::SetUp();
    g_hooks = Hooks{};
    ASSERT_EQ(mts_bind(kSap), 0);
    register_databases();
  }

  hadra_ha_handle_t hooked() const {
    hadra_ha_handle_t r = record();
    r.switchover_cb = &on_switchover;
    r.switchover_done_cb = &on_done;
    r.active_marker_cb = &on_marker;
    return r;
  }

  static void queue(uint32_t opcode) { ASSERT_EQ(mts_test_deliver(kSap, 1, 0, opcode, 0, 0, 0, nullptr, 0), 0); }

  // A switchover request received on the client's queue, as its event context.
  static sysmgr_req_ctx request() {
    queue(0x1e10);
    sysmgr_req_ctx ctx = event();
    EXPECT_EQ(mts_recv(kSap, &ctx.msg, nullptr), 0);
    return ctx;
  }
};

TEST_F(SwitchoverTest, OnlyStandbyDatabasesBecomeRecoveringAndTheAnswerIsImmediate) {
  init(2);
  pss_->state = HADRA_HA_STANDBY;
  msdb_->state = HADRA_HA_ACTIVE;  // sdb_ stays disabled
  sysmgr_req_ctx ctx = request();
  for (int hot : {1, 0}) {  // cold is handled as hot
    EXPECT_EQ(sysmgrcb_switchover(&ctx, hot, nullptr, nullptr, hot), 0);
    EXPECT_EQ(pss_->state, static_cast<uint32_t>(HADRA_HA_RECOVER));
    EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_DISABLE));
    EXPECT_EQ(msdb_->state, static_cast<uint32_t>(HADRA_HA_ACTIVE));
  }
  auto a = answers();
  ASSERT_EQ(a.size(), 2u);
  EXPECT_EQ(a[0].kind, PLAT_TEST_SYSMGR_SWITCHOVER_DONE);
  EXPECT_EQ(a[0].value, 0);
  EXPECT_EQ(std::memcmp(&a[0].msg, &ctx.msg, sizeof ctx.msg), 0);
}

TEST_F(SwitchoverTest, AHookDefersTheAnswerToTheOneRecoveryThatFollows) {
  init(2, hooked());
  errno = 0;
  EXPECT_EQ(hadra_ha_recovery_done(0), -1);  // no switchover yet: refused, nothing answered
  EXPECT_EQ(errno, EINVAL);
  sdb_->state = HADRA_HA_STANDBY;
  sysmgr_req_ctx ctx = request();
  EXPECT_EQ(sysmgrcb_switchover(&ctx, 1, nullptr, nullptr, 0), 1);
  EXPECT_EQ(g_hooks.switchover, 1);
  EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_RECOVER));
  EXPECT_EQ(answers().size(), 0u);

  const mts_msg_ref sent = ctx.msg;
  std::memset(&ctx, 0, sizeof ctx);  // the library kept its own copy
  plat_trace_start();
  EXPECT_EQ(hadra_ha_recovery_done(-3), 0);
  EXPECT_EQ(hadra_ha_recovery_done(0), -1);  // already answered
  ASSERT_EQ(answers().size(), 1u);
  EXPECT_EQ(answers()[0].value, -3);
  EXPECT_EQ(std::memcmp(&answers()[0].msg, &sent, sizeof sent), 0);
  EXPECT_EQ(trace_calls("mts_drop").size(), 1u);
  EXPECT_EQ(mts_test_held(kSap), 0u);
  EXPECT_EQ(sdb_->state, static_cast<uint32_t>(HADRA_HA_RECOVER));  // the client sets active itself

  g_hooks.recover_inside = true;
  ctx = request();
  EXPECT_EQ(sysmgrcb_switchover(&ctx, 1, nullptr, nullptr, 0), 1);
  EXPECT_EQ(answers().size(), 2u);
}

TEST_F(SwitchoverTest, DropActiveMessagesTakesTwoMessagesAtMost) {
  queue(MTS_OPC_YOU_ARE_ALMOST_ACTIVE);
  queue(MTS_OPC_YOU_ARE_ACTIVE);
  plat_trace_start();
  hadra_ha_drop_active_msgs(kSap);
  EXPECT_EQ(trace_calls(),
            (std::vector<std::string>{"tsp_before_yield", "mts_recv", "tsp_after_yield", "mts_opc_get", "mts_drop",
                                      "tsp_before_yield", "mts_recv", "tsp_after_yield", "mts_opc_get", "mts_drop"}));
  EXPECT_EQ(mts_test_queued(kSap) + mts_test_held(kSap), 0u);

  // An unexpected first message is kept and ends the clearing.
  queue(42);
  queue(MTS_OPC_YOU_ARE_ACTIVE);
  plat_trace_clear();
  hadra_ha_drop_active_msgs(kSap);
  EXPECT_EQ(trace_calls("mts_recv").size(), 1u);
  EXPECT_EQ(trace_calls("mts_drop").size(), 0u);
  EXPECT_EQ(mts_test_queued(kSap), 1u);

  // A failed first receive does not stop the second (which takes the YOU_ARE_ACTIVE left).
  ASSERT_EQ(plat_fault_arm("mts_recv", 0, 1, -1, EIO), 0);
  plat_trace_clear();
  hadra_ha_drop_active_msgs(kSap);
  EXPECT_EQ(trace_calls("mts_recv").size(), 2u);
  EXPECT_EQ(trace_calls("mts_drop").size(), 1u);
  EXPECT_EQ(mts_test_queued(kSap), 0u);
}

TEST_F(SwitchoverTest, EventsReachTheirHooksOnlyAfterInitialisation) {
  hadra_ha_handle = hooked();  // hooks known, not initialised
  pss_->state = HADRA_HA_STANDBY;
  sysmgr_req_ctx ctx = event(PLAT_ERR_SYSMGR_GSYNC_FATAL);  // must not end the process here
  plat_trace_start();
  EXPECT_EQ(sysmgrcb_switchover(&ctx, 1, nullptr, nullptr, 0), 0);
  EXPECT_EQ(sysmgrcb_switchover_active_marker() + sysmgrcb_switchover_done(), 0);
  EXPECT_EQ(sysmgrcb_gsync_snapshot(&ctx, "snap:/x", nullptr), 0);
  EXPECT_EQ(sysmgrcb_gsync_ready(&ctx, "snap:/x", nullptr), 0);
  EXPECT_EQ(sysmgrcb_gsync_failed(&ctx), 0);
  EXPECT_EQ(hadra_sysmgr_cfg_write_cb(nullptr, "startup:/"), 0);
  std::vector<int> kinds;
  for (const auto& a : answers()) kinds.push_back(a.kind * 10 + a.value);  // every answer a success
  EXPECT_EQ(kinds, (std::vector<int>{30, 10, 20, 20}));
  EXPECT_EQ(trace_calls("sysmgr_uri_complete").size() + trace_calls("sysmgr_gsync_ready_is_success").size(), 0u);
  EXPECT_EQ(pss_->state, static_cast<uint32_t>(HADRA_HA_STANDBY));
  EXPECT_EQ(g_hooks.switchover + g_hooks.done + g_hooks.marker, 0);

  hadra_ha_handle.initialized = 1;
  EXPECT_EQ(sysmgrcb_switchover_active_marker() + sysmgrcb_switchover_done() + sysmgrcb_switchover_done(), 0);
  EXPECT_EQ(g_hooks.marker * 10 + g_hooks.done, 12);
}

}  // namespace
