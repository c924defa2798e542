// The client's side of the system-manager procedures, where the platform does more than pass
// an answer on (the library's tests read the answers back): refusals, the handshake query
// without a listener, and a link that replaces the local service.
#include <cerrno>

#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "support/fixture.h"
#include "sysmgr/procedures.h"

namespace {

class SysmgrProceduresTest : public hadra::test::PlatformTest {};

TEST_F(SysmgrProceduresTest, BadArgumentsAreRefusedWithoutAnAnswer) {
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE);
  EXPECT_EQ(sysmgr_gsync_snapshot_done(nullptr, 0, 0), EINVAL);
  EXPECT_EQ(sysmgr_gsync_snapshot_done(&ctx, 0, 1), EINVAL);  // reserved must be 0
  EXPECT_EQ(sysmgr_gsync_ready_done(nullptr, 1), EINVAL);
  EXPECT_EQ(sysmgr_switchover_done(nullptr, 0), EINVAL);
  EXPECT_EQ(sysmgr_gsync_ready_is_success(nullptr), static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(sysmgr_gsync_ready_is_success(&ctx), PLAT_ERR_SYSMGR_SRV_NOT_ON_ACTIVE);
  EXPECT_EQ(plat_test_sysmgr_answer_count(), 0u);

  mts_msg_ref query;
  EXPECT_EQ(sysmgrcmn_nbs_is_srv_hs_running(0x3100, 300, &query), -1);  // nobody listens
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(query.kind, MTS_REF_NONE);
  EXPECT_EQ(sysmgrcmn_nbs_is_srv_hs_running(0x3100, 0, &query), -1);
  EXPECT_EQ(errno, EINVAL);
}

// A daemon client takes over by replacing the link; the exported calls stay as they are.
int g_daemon_answers = 0;
int daemon_answer(const hadra::plat::sysmgr::Answer&) {
  return ++g_daemon_answers, static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
}
int yes() { return 1; }
int no_query(uint32_t, uint32_t, mts_msg_ref*) { return errno = ENOTCONN, -1; }

TEST_F(SysmgrProceduresTest, ALinkReplacesTheLocalService) {
  const hadra::plat::sysmgr::ProcLink daemon = {&daemon_answer, &yes, &yes, &no_query};
  hadra::plat::sysmgr::set_proc_link(&daemon);
  sysmgr_req_ctx ctx;
  plat_test_sysmgr_ctx_init(&ctx, 0);
  mts_msg_ref ref{};
  EXPECT_EQ(sysmgr_gsync_ready_done(&ctx, 0), static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  EXPECT_EQ(sysmgr_switchover_done(&ref, 0), static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  EXPECT_EQ(sysmgr_is_swover_first_start() + sysmgr_conditional_srv_was_handshake_done(), 2);
  EXPECT_EQ(sysmgrcmn_nbs_is_srv_hs_running(5, 300, &ref), -1);
  EXPECT_EQ(errno, ENOTCONN);
  hadra::plat::sysmgr::set_proc_link(nullptr);
  EXPECT_EQ(g_daemon_answers, 2);
  EXPECT_EQ(plat_test_sysmgr_answer_count(), 0u);
}

}  // namespace
