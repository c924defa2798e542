// SDB lifecycle on real SDBs: creation flags by kind, the platform's "already" answers,
// recovery after a read-write open only, a destruction that goes on past a failed close, and
// the create/delete notifications as the peer receives them (TLV payload, descriptor flags).
#include <cerrno>

#include "support/stores.h"

namespace {

using Frame = hadra::test::SentFrame;
using hadra::test::take_sent;
using hadra::test::trace_calls;
using hadra::test::trace_find;
using Calls = std::vector<std::string>;

class SdbLifecycleTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    hadra_ha_handle.sap = 0x2201;
    plat_test_sysmgr_set_uuid(77);
    sdb_ = hadra_ha_register_sdb(2, "routes", 0x501, 0x502);
    msdb_ = hadra_ha_register_msdb(3, "nbrs", 0x511, 0x512);
  }

  std::string args_of(const std::string& call) {
    int i = trace_find(call);
    return i < 0 ? "<no call>" : hadra::test::trace()[i].args;
  }
  bool has(const std::string& call, const std::string& text) { return args_of(call).find(text) != std::string::npos; }

  // The notification's type, after checking that it names the entry's URI.
  uint32_t notification_type(const Frame& f, const hadra_ha_pss_entry* e) {
    uint32_t type = 0;
    char uri[HADRA_HA_URI_LEN] = "";
    EXPECT_EQ(fu_sdb_create_del_msg_from_tlv(f.payload.data(), f.payload.size(), &type, uri, sizeof uri), 0u);
    EXPECT_STREQ(uri, e->uri);
    EXPECT_EQ(f.opcode, e->cre_del_opcode);
    return type;
  }

  hadra_ha_pss_entry* sdb_ = nullptr;
  hadra_ha_pss_entry* msdb_ = nullptr;
};

TEST_F(SdbLifecycleTest, CreateByKindAnnouncesThenRegistersAlsoWhenItExists) {
  plat_trace_start();
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);
  EXPECT_TRUE(has("sdb_create", "flags=0x4 uuid=77"));
  EXPECT_TRUE(has("mts_send", "pieces=-1"));  // no descriptor
  EXPECT_TRUE(has("sdb_register", "opcode=1282 count=1"));
  EXPECT_LT(trace_find("mts_send"), trace_find("sdb_register"));
  plat_trace_start();
  ASSERT_EQ(hadra_sdb_create(msdb_), 1);
  EXPECT_TRUE(has("sdb_create", "flags=0x10000"));
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);  // exists already: announced and registered again
  EXPECT_EQ(plat_trace_count("sdb_register"), 2u);

  std::vector<Frame> f = take_sent();
  ASSERT_EQ(f.size(), 3u);
  EXPECT_EQ(notification_type(f[0], sdb_), SDB_NOTIFY_CREATE);
  EXPECT_EQ(f[0].flags, 0);
  EXPECT_EQ(notification_type(f[1], msdb_), SDB_NOTIFY_CREATE);
}

TEST_F(SdbLifecycleTest, CreateStopsAtTheFirstFailingStep) {
  plat_test_log_capture(1);
  // {call failed, notifications sent, registrations, level-2 lines (notification failures)}
  const struct {
    const char* call;
    size_t sent, registered, logged;
  } steps[] = {{"sdb_create", 0, 0, 0}, {"mts_send", 0, 0, 1}, {"sdb_register", 1, 1, 0}};
  for (const auto& s : steps) {
    SCOPED_TRACE(s.call);
    plat_fault_arm(s.call, 0, 1, s.call[0] == 'm' ? -1 : PLAT_FAULT_DEFAULT, ENOBUFS);
    plat_trace_start();
    const size_t lines = plat_test_log_count();
    EXPECT_EQ(hadra_sdb_create(sdb_), 0);
    EXPECT_EQ(take_sent().size(), s.sent);
    EXPECT_EQ(plat_trace_count("sdb_register"), s.registered);
    EXPECT_EQ(plat_test_log_count() - lines, s.logged);
    plat_fault_clear();
  }
}

TEST_F(SdbLifecycleTest, OnlyAReadWriteOpenRecovers) {
  EXPECT_EQ(hadra_sdb_open(sdb_->uri, 1), 0);  // not created
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);
  plat_trace_start();
  ASSERT_EQ(hadra_sdb_open(sdb_->uri, 0), 1);
  EXPECT_TRUE(has("sdb_open", "rw=1 uuid=77"));
  ASSERT_EQ(hadra_sdb_close(sdb_->uri), 1);
  ASSERT_EQ(hadra_sdb_open(sdb_->uri, 1), 1);
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_open", "sdb_close", "sdb_open", "sdb_recover"}));
  EXPECT_TRUE(has("sdb_recover", "sap=8705"));

  plat_trace_start();  // open already: success without recovery
  EXPECT_EQ(hadra_sdb_open(sdb_->uri, 1), 1);
  EXPECT_EQ(trace_calls("sdb_"), Calls{"sdb_open"});

  // A failed recovery fails the open and leaves the SDB open.
  ASSERT_EQ(hadra_sdb_close(sdb_->uri), 1);
  EXPECT_EQ(hadra_sdb_close(sdb_->uri), 0);
  plat_fault_arm("sdb_recover", 0, 1, PLAT_FAULT_DEFAULT, 0);
  EXPECT_EQ(hadra_sdb_open(sdb_->uri, 1), 0);
  EXPECT_EQ(hadra_sdb_close(sdb_->uri), 1);
}

TEST_F(SdbLifecycleTest, DestroyGoesOnAfterAFailedCloseAndAnnouncesTheDelete) {
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);
  take_sent();
  plat_trace_start();
  EXPECT_EQ(hadra_sdb_destroy(sdb_), 1);  // never opened: the close fails
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_close", "sdb_destroy_begin", "sdb_destroy_done"}));
  EXPECT_LT(trace_find("mts_send"), trace_find("sdb_destroy_done"));
  EXPECT_TRUE(has("sdb_destroy_done", "sap=8705 opcode=1281"));
  EXPECT_EQ(sdb_exists(sdb_->uri), 0);
  std::vector<Frame> f = take_sent();
  ASSERT_EQ(f.size(), 1u);
  EXPECT_EQ(notification_type(f[0], sdb_), SDB_NOTIFY_DELETE);
  // Descriptor bytes 35 and 36 reach the peer as "notification" and "no reply wanted".
  EXPECT_EQ(f[0].flags, MTS_MSG_NOTIFY | MTS_MSG_NO_REPLY);
  EXPECT_EQ(hadra_sdb_destroy(sdb_), 1);  // nothing there at all: still 1

  // A delete that cannot be announced is begun (no longer to be opened) but not completed.
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);
  plat_fault_arm("mts_send", 0, 1, -1, EAGAIN);
  plat_trace_start();
  EXPECT_EQ(hadra_sdb_destroy(sdb_), 0);
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_close", "sdb_destroy_begin"}));
  EXPECT_EQ(sdb_exists(sdb_->uri), 0);
}

TEST_F(SdbLifecycleTest, UriDestroyPicksTheCallByWhatIsStored) {
  ASSERT_EQ(hadra_sdb_create(sdb_), 1);
  ASSERT_TRUE(hadra::test::put_records("run:/file", 1));
  plat_trace_start();
  EXPECT_EQ(hadra_sdb_uri_destroy("run:/file"), 1);
  EXPECT_EQ(hadra_sdb_uri_destroy(sdb_->uri), 1);
  EXPECT_EQ(hadra_sdb_uri_destroy(sdb_->uri), 0);  // nothing stored any more
  EXPECT_EQ(hadra_sdb_uri_destroy(nullptr), 0);
  EXPECT_EQ(trace_calls(), (Calls{"pss2_get_psstype", "pss2_destroy", "pss2_get_psstype", "sdb_destroy",
                                  "pss2_get_psstype"}));
  EXPECT_FALSE(hadra::test::exists_at("run:/file"));
  EXPECT_EQ(sdb_exists(sdb_->uri), 0);
}

}  // namespace

namespace {

// An SDB registered with update opcode 0 wants no update notifications: the platform refuses
// to register opcode 0, so creation skips the registration instead of failing, and writes
// complete without sending anything under opcode 0.
TEST_F(SdbLifecycleTest, UpdateOpcodeZeroCreatesWithoutNotifications) {
  hadra_ha_pss_entry* quiet = hadra_ha_register_sdb(4, "quiet", 0x521, 0);
  ASSERT_NE(quiet, nullptr);
  plat_test_sysmgr_set_supstate(1);
  plat_trace_start();
  ASSERT_EQ(hadra_ha_db_start(quiet), 1);
  EXPECT_EQ(quiet->state, HADRA_HA_ACTIVE);
  EXPECT_EQ(plat_trace_count("sdb_register"), 0u);
  take_sent();  // the create notification
  quiet->no_sync = 1;
  ASSERT_EQ(hadra_sdb_update(quiet, "k", 1, "v", 1, 1), 1);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 1u);
  EXPECT_TRUE(take_sent().empty());
}

}  // namespace
