// The system manager's message set and the client's link to its daemon. The daemon itself,
// the receive loop and the whole procedures are exercised end to end in
// tests/integration/daemon_e2e_test.cc.
#include <cstdlib>

#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "support/fixture.h"
#include "sysmgr/proto.h"

namespace {

namespace proto = hadra::plat::sysmgr::proto;

// Every prefix of an encoding is refused, and so is one trailing byte.
template <class M>
void refuses_every_cut(const M& m) {
  std::vector<uint8_t> b = encode(m);
  M out;
  ASSERT_TRUE(proto::decode(b.data(), b.size(), &out));
  EXPECT_EQ(encode(out), b);
  for (size_t n = 0; n < b.size(); ++n) EXPECT_FALSE(proto::decode(b.data(), n, &out)) << "cut at " << n;
  b.push_back(0);
  EXPECT_FALSE(proto::decode(b.data(), b.size(), &out));
}

TEST(SysmgrProto, MessagesRoundTripAndRefuseTruncationAndTrailingBytes) {
  refuses_every_cut(proto::Hello{proto::kProtoVersion, 0x5a1, 3501, 77, "svc"});
  proto::Answer a;
  a.uuid = 1, a.kind = proto::AnswerKind::kSwitchover, a.req_id = 9, a.value = -3, a.point = 1ull << 40;
  a.at_point[10] = {5, 6};
  refuses_every_cut(a);
  proto::Event ev;
  ev.kind = proto::EventKind::kGsyncReady, ev.uri = "snap:/gsync-1", ev.point = 12, ev.at_point[1] = {12, 4};
  refuses_every_cut(ev);
  proto::PeerHello h;
  h.slot = 2, h.role = 2, h.services = {{7, "x", {{1, 10, 2, 9, 1}}}, {8, "", {}}};
  refuses_every_cut(h);
  const uint8_t data[3] = {1, 2, 3};
  refuses_every_cut(proto::FileData{4, "dir/data.mdb", 65536, data});
  proto::Manifest m;
  m.xfer = 4, m.files = {{"a", 3, 99}, {"b/c", 0, 1}};
  refuses_every_cut(m);
  refuses_every_cut(proto::GsyncFail{4, 7, 5, "file a: checksum"});
  refuses_every_cut(proto::Command{proto::Cmd::kConfigSave, ""});
  refuses_every_cut(proto::CommandReply{0, "{}"});
}

TEST(SysmgrProto, ValuesOutOfRangeAreRefused) {
  proto::Event ev;
  std::vector<uint8_t> b = encode(ev);
  b[0] = 9;  // no such event
  EXPECT_FALSE(proto::decode(b.data(), b.size(), &ev));
  proto::Command c;
  b = encode(c);
  b[0] = 0;
  EXPECT_FALSE(proto::decode(b.data(), b.size(), &c));
  // A shipped file may only name a place inside the area.
  for (const char* bad : {"", "..", "a/../b", "/abs", "a//b", "a/", "."})
    EXPECT_FALSE(proto::valid_file_name(bad)) << bad;
  EXPECT_TRUE(proto::valid_file_name("peers/data.mdb"));
  const uint8_t d[1] = {0};
  b = encode(proto::FileData{1, "../x", 0, d});
  proto::FileData f;
  EXPECT_FALSE(proto::decode(b.data(), b.size(), &f));
  // A peer hello claiming more databases than a service can have.
  proto::PeerHello h;
  h.services = {{7, "x", std::vector<proto::DbSeq>(11, proto::DbSeq{1})}};
  b = encode(h);
  EXPECT_FALSE(proto::decode(b.data(), b.size(), &h));
}

TEST(SysmgrProto, StateFileKeepsRoleAndFactsAndRefusesMalformedLines) {
  proto::StateFile s;
  s.role = 2;
  s.services = {{0x5a1, 1, 0, "crash"}, {2, 0, 1, "controlled"}};
  const std::string text = proto::format_state(s);
  proto::StateFile back;
  ASSERT_TRUE(proto::parse_state(text + "future-key 1\n", &back));
  EXPECT_EQ(back.role, 2);
  ASSERT_EQ(back.services.size(), 2u);
  EXPECT_EQ(back.services[0].uuid, 0x5a1u);
  EXPECT_EQ(back.services[1].last_stop, "controlled");
  EXPECT_FALSE(proto::parse_state("role leader\n", &back));
  EXPECT_FALSE(proto::parse_state("svc 5a1 2 0 crash\n", &back));
  EXPECT_FALSE(proto::parse_state("svc 5a1 1 0 crash extra\n", &back));
}

// With the daemon selected and none running, every call that needs it fails at once.
class SysmgrDaemonLinkTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    setenv("HADRA_SYSMGR", "daemon", 1);
    PlatformTest::SetUp();
  }
  void TearDown() override {
    unsetenv("HADRA_SYSMGR");
    PlatformTest::TearDown();
  }
};

TEST_F(SysmgrDaemonLinkTest, WithoutADaemonCallsAnswerNoDaemonAtOnce) {
  const int no_daemon = static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON);
  EXPECT_EQ(sysmgr_gsync_get(0), no_daemon);  // nothing attached yet
  ASSERT_EQ(mts_bind(0x3300), 0);
  EXPECT_EQ(sysmgr_client_attach(0x3300, "unit"), no_daemon);
  EXPECT_EQ(sysmgr_client_attach(0, "unit"), EINVAL);
  EXPECT_EQ(sysmgr_gsync_get(0), no_daemon);
  sysmgr_req_ctx ctx{};
  EXPECT_EQ(sysmgr_gsync_snapshot_done(&ctx, 0, 0), no_daemon);
  EXPECT_EQ(sysmgr_gsync_ready_done(&ctx, 0), no_daemon);
  EXPECT_EQ(plat_test_sysmgr_answer_count(), 0u);  // the in-process stand-in saw nothing
  EXPECT_EQ(plat_test_sysmgr_gsync_requests(), 0u);
}

}  // namespace
