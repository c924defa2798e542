// Who gets through to a SAP over ZeroMQ: with keys, only this supervisor's and the peer's;
// a frame that claims more than its connection proves is refused; a refusal is logged with
// where it came from. Raw sockets play the strangers, over tcp on loopback.
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "mts/auth.h"
#include "mts/core.h"
#include "mts_support.h"

namespace hadra::test {
namespace {

namespace auth = plat::mts::auth;

constexpr uint32_t kSap = 100;
constexpr uint32_t kOpc = 3001;

struct Keys {
  std::string pub, sec;
  Keys() {
    char p[41], s[41];
    EXPECT_EQ(zmq_curve_keypair(p, s), 0);
    pub = p;
    sec = s;
  }
  std::string file() const { return "public = " + pub + "\nsecret = " + sec + "\n"; }
};

template <class P>
bool eventually(P pred) {
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

bool logged(const std::string& what) {
  char line[1024];
  int level = 0;
  for (size_t i = 0; i < plat_test_log_count(); ++i)
    if (plat_test_log_get(i, &level, line, sizeof line) == 0 && std::string(line).find(what) != std::string::npos)
      return true;
  return false;
}

Bytes frame(uint8_t node, uint8_t sync_event, const std::string& payload) {
  plat::mts::WireHdr h;
  h.sync_event = sync_event;
  h.src_node = node;
  h.opcode = kOpc;
  h.src_sap = kSap;
  h.dst_sap = kSap;
  h.epoch = 7;
  return encoded_frame(h, payload);
}

class MtsAuthTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    key_file_ = root() + "/sup.key";
    std::ofstream(key_file_) << own_.file();
    port_base_ = 30000 + static_cast<long>(::getpid() % 20000);
    set("TRANSPORT", "zmq");
    set("MTS_LOCAL", "tcp://127.0.0.1:{port}");
    set("MTS_PEER", "tcp://127.0.0.1:{port}");
    set("MTS_PORT_BASE", std::to_string(port_base_));
    set("MTS_KEY_FILE", key_file_);
    set("MTS_PEER_KEY", peer_.pub);
    plat_test_log_capture(1);
    ctx_ = zmq_ctx_new();
  }
  void TearDown() override {
    for (void* s : socks_) zmq_close(s);
    zmq_ctx_term(ctx_);
    plat_test_log_capture(0);
    PlatformTest::TearDown();
    for (const std::string& k : set_) unsetenv(k.c_str());
    plat_config_reload();
  }
  void set(const std::string& key, const std::string& v) {
    set_.push_back("HADRA_" + key);
    setenv(set_.back().c_str(), v.c_str(), 1);
    plat_config_reload();
  }
  // A sender that connects to kSap with key pair k (none: no key at all).
  void* client(const Keys* k) {
    void* s = zmq_socket(ctx_, ZMQ_PUSH);
    int zero = 0;
    zmq_setsockopt(s, ZMQ_LINGER, &zero, sizeof zero);
    if (k != nullptr) {
      zmq_setsockopt(s, ZMQ_CURVE_SERVERKEY, own_.pub.c_str(), 41);
      zmq_setsockopt(s, ZMQ_CURVE_PUBLICKEY, k->pub.c_str(), 41);
      zmq_setsockopt(s, ZMQ_CURVE_SECRETKEY, k->sec.c_str(), 41);
    }
    const std::string url = "tcp://127.0.0.1:" + std::to_string(port_base_ + kSap);
    EXPECT_EQ(zmq_connect(s, url.c_str()), 0);
    socks_.push_back(s);
    return s;
  }
  static void send(void* s, const Bytes& f) { (void)zmq_send(s, f.data(), f.size(), ZMQ_DONTWAIT); }

  Keys own_, peer_, stranger_;
  std::string key_file_;
  long port_base_ = 0;
  void* ctx_ = nullptr;
  std::vector<void*> socks_;
  std::vector<std::string> set_;
};

TEST_F(MtsAuthTest, OnlyThePeerKeyFeedsTheStandbyAndStrangersAreLoggedWithTheirAddress) {
  if (zmq_has("curve") == 0) GTEST_SKIP() << "this ZeroMQ has no CURVE";
  ASSERT_EQ(mts_bind(kSap), 0);
  const uint64_t refused_before = auth::refusals();

  // A stranger's key and a sender without a key never get a frame in; the stranger is logged.
  send(client(&stranger_), frame(2, MTS_SYNC_EVENT_UPDATE, "stranger"));
  send(client(nullptr), frame(2, MTS_SYNC_EVENT_UPDATE, "nokey"));
  EXPECT_TRUE(eventually([] { return logged("unknown key"); }));
  EXPECT_TRUE(logged("127.0.0.1"));
  // A process of this supervisor (its own key) cannot pass itself off as the peer, nor send a
  // sync message as itself.
  void* local = client(&own_);
  send(local, frame(2, MTS_SYNC_EVENT_UPDATE, "forged"));
  send(local, frame(1, MTS_SYNC_EVENT_UPDATE, "forged-own"));
  EXPECT_TRUE(eventually([] { return logged("claims another node"); }));
  EXPECT_TRUE(eventually([] { return logged("sent a sync message"); }));
  // A malformed frame is logged with where it came from and why it is no frame.
  void* peer = client(&peer_);
  send(peer, bytes("garbage"));
  EXPECT_TRUE(eventually([] { return logged("refused a malformed frame from 127.0.0.1"); }));
  EXPECT_TRUE(logged("shorter than a frame header"));
  // What the peer and this supervisor's own processes send gets through, as what it is.
  send(peer, frame(2, MTS_SYNC_EVENT_UPDATE, "from-peer"));
  send(local, frame(1, 0, "from-local"));

  std::vector<std::string> got;
  mts_recv_opts w = wait_ms(5000);
  for (int i = 0; i < 2; ++i) {
    mts_msg_ref r;
    ASSERT_EQ(mts_recv(kSap, &r, &w), 0);
    plat::mts::MsgInfo mi;
    ASSERT_TRUE(plat::mts::info(&r, &mi));
    const Bytes p = payload_of(r);
    got.emplace_back(std::string(p.begin(), p.end()) + (mi.from_peer ? "/peer" : "/local"));
    mts_drop(kSap, &r);
  }
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{"from-local/local", "from-peer/peer"}));
  EXPECT_GE(auth::refusals() - refused_before, 3u);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(mts_test_queued(kSap), 0u);
}

// A flood of refusals logs a burst per reason, each line with its source, reason and running
// total; the rest is counted, and the count is said once the window has passed although no
// refusal follows. Another reason has a burst of its own.
class MtsRefusalLines : public PlatformTest {};

TEST_F(MtsRefusalLines, AFloodIsCountedPerReasonAndTheCountIsSaidWithoutAnotherRefusal) {
  plat_test_clock_set(1000000000ull);
  plat_test_log_set_rate_limit(2, 1000000000ull);
  plat_test_log_capture(1);
  const uint64_t before = auth::refusals();
  for (int i = 0; i < 7; ++i) auth::log_refusal("a connection", "10.0.0.9 (key abc)", "unknown key");
  auth::log_refusal("a frame", "10.0.0.7 (node 2 SAP 9 to SAP 9)", "the peer's key claims this supervisor's node");
  EXPECT_EQ(auth::refusals() - before, 8u);
  size_t lines = 0;
  char line[1024];
  for (size_t i = 0; i < plat_test_log_count(); ++i)
    if (plat_test_log_get(i, nullptr, line, sizeof line) == 0 &&
        std::string(line).find("refused a connection from 10.0.0.9 (key abc): unknown key (") != std::string::npos)
      ++lines;
  EXPECT_EQ(lines, 2u);
  EXPECT_TRUE(logged("refused a frame from 10.0.0.7 (node 2 SAP 9 to SAP 9): the peer's key claims"));
  plat_test_clock_advance(1000000000ull);
  EXPECT_TRUE(eventually([] { return logged("5 similar messages suppressed (MTS refusals: unknown key)"); }));
}

TEST_F(MtsAuthTest, UnusableKeysStopTheTransportWithAReasonNamingTheFile) {
  std::ofstream(key_file_) << "public = " << own_.pub << "\nsecret = " << stranger_.sec << "\n";
  EXPECT_EQ(mts_bind(kSap), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(logged(key_file_ + ": the public key is not the secret key's"));
  EXPECT_EQ(mts_send(kSap, MTS_ADDR_PEER, 0, kOpc, "x", 1, nullptr, 0, nullptr), -1);
}

class MtsModesTest : public PlatformTest {
 protected:
  void TearDown() override {
    unsetenv("HADRA_TRANSPORT");
    unsetenv("HADRA_MTS_LOCAL");
    unsetenv("HADRA_ROOT_GROUP");
    plat_test_log_capture(0);
    PlatformTest::TearDown();
    plat_config_reload();
  }
};

TEST_F(MtsModesTest, SocketsAndTheDirectoriesUnderTheRootAreTheOwnersAloneWhateverTheUmask) {
  const mode_t old = ::umask(0);
  setenv("HADRA_TRANSPORT", "zmq", 1);
  setenv("HADRA_MTS_LOCAL", ("ipc://" + root() + "/private/sock/sap-{sap}").c_str(), 1);
  plat_config_reload();
  const int bound = mts_bind(kSap);
  char path[4096];
  const int mapped = plat_uri_to_path("run:/deep/er/file", path, sizeof path, 1);
  ::umask(old);
  ASSERT_EQ(bound, 0);
  ASSERT_EQ(mapped, 0);
  auto mode = [](const std::string& p) {
    struct stat st {};
    EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
    return st.st_mode & 07777;
  };
  EXPECT_EQ(mode(root() + "/private/sock"), 0700u);
  EXPECT_EQ(mode(root() + "/private/sock/sap-" + std::to_string(kSap)), 0600u);
  EXPECT_EQ(mode(root() + "/run/deep"), 0700u);
  EXPECT_EQ(mode(root() + "/run/deep/er"), 0700u);
  mts_unbind(kSap);
}

// With the socket directory shared with a group, a process of another user whose only tie is
// a supplementary group gets to the socket file but not past the connection check: the
// socket's peer credentials carry its own uid and gid. Refused, and logged with its uid.
TEST_F(MtsModesTest, AnotherUserOverIpcIsRefusedAndLoggedWithItsCredentials) {
  if (::geteuid() != 0 || ::getgrnam("nogroup") == nullptr) GTEST_SKIP() << "needs root and the group nogroup";
  const gid_t group = ::getgrnam("nogroup")->gr_gid;
  setenv("HADRA_TRANSPORT", "zmq", 1);
  setenv("HADRA_ROOT_GROUP", "nogroup", 1);
  const std::string url = "ipc://" + root() + "/shared/sap-" + std::to_string(kSap);
  setenv("HADRA_MTS_LOCAL", ("ipc://" + root() + "/shared/sap-{sap}").c_str(), 1);
  plat_config_reload();
  ASSERT_EQ(::chmod(root().c_str(), 0711), 0);  // the other user may pass through the root
  plat_test_log_capture(1);
  ASSERT_EQ(mts_bind(kSap), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::setgroups(1, &group) != 0 || ::setgid(4321) != 0 || ::setuid(4321) != 0) _exit(2);
    void* ctx = zmq_ctx_new();
    void* s = zmq_socket(ctx, ZMQ_PUSH);
    int linger = 1000;
    zmq_setsockopt(s, ZMQ_LINGER, &linger, sizeof linger);
    if (zmq_connect(s, url.c_str()) != 0) _exit(3);
    const Bytes f = frame(1, 0, "other-user");
    (void)zmq_send(s, f.data(), f.size(), 0);
    zmq_close(s);
    zmq_ctx_term(ctx);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  EXPECT_TRUE(eventually([] { return logged("neither the supervisor's nor in its group"); }));
  EXPECT_TRUE(logged("uid 4321"));
  mts_msg_ref r;
  EXPECT_EQ(mts_recv(kSap, &r, nullptr), -1);
  EXPECT_EQ(errno, EAGAIN);
  mts_unbind(kSap);
}

TEST(MtsAuthRules, KeyFilesAndVerdicts) {
  Keys a, b;
  std::string pub, sec, why;
  EXPECT_TRUE(auth::parse_key_file("# c\n public = " + a.pub + "\nsecret=" + a.sec + "\n", &pub, &sec, &why)) << why;
  EXPECT_EQ(pub, a.pub);
  for (const std::string& bad : {"public = " + a.pub + "\n", "public = " + a.pub + "\nsecret = " + b.sec + "\n",
                                 "public = short\nsecret = " + a.sec + "\n", "public " + a.pub + "\n",
                                 "public = " + a.pub + "\npublic = " + a.pub + "\nsecret = " + a.sec + "\n"})
    EXPECT_FALSE(auth::parse_key_file(bad, &pub, &sec, &why)) << bad;

  // Over ipc, the connecting process's credentials (as ZeroMQ gives them, after a name).
  auth::Policy open;
  open.uid = 1000;
  open.gid = 50;
  open.ipc = true;
  EXPECT_TRUE(auth::judge({"localhost:1000:1000:1", "NULL", ""}, open).ok);
  EXPECT_TRUE(auth::judge({":0:0:1", "NULL", ""}, open).ok);
  EXPECT_TRUE(auth::judge({"localhost:1001:50:1", "NULL", ""}, open).ok);  // the configured group
  EXPECT_FALSE(auth::judge({"localhost:1001:1001:1", "NULL", ""}, open).ok);
  EXPECT_FALSE(auth::judge({"localhost:junk", "NULL", ""}, open).ok);
  EXPECT_FALSE(auth::judge({"", "NULL", ""}, open).ok);
  open.ipc = false;
  EXPECT_EQ(auth::judge({"10.0.0.2", "NULL", ""}, open).user_id, "open");

  // Claims: a local connection keeps to its own node and sends no sync; the peer's key must
  // not claim this node.
  plat::mts::WireHdr h;
  h.src_node = 2;
  EXPECT_NE(auth::refuse_claim(h, auth::Source::kLocal, 1), nullptr);
  EXPECT_EQ(auth::refuse_claim(h, auth::Source::kPeer, 1), nullptr);
  h.src_node = 1;
  EXPECT_NE(auth::refuse_claim(h, auth::Source::kPeer, 1), nullptr);
  EXPECT_EQ(auth::refuse_claim(h, auth::Source::kLocal, 1), nullptr);
}

}  // namespace
}  // namespace hadra::test
