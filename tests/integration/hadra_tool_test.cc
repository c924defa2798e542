// The operator's tool against a live pair: two daemons and a real service on each supervisor
// (a PSS file and an SDB), the tool run as the operator runs it and its output checked.
//
// One pair serves the whole run, in order: status while the active writes, verify of equal
// copies, verify finding exactly the records changed behind the library's back on the
// standby and repairing exactly those, dump, gsync, switchover; then bad input.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <lmdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr_client.h"
#include "pairkit/daemons.h"
#include "pairkit/two_sup.h"
#include "log/hist_ring.h"
#include "verify_core.h"

namespace {

namespace pk = hadra::pairkit;
using nlohmann::json;

constexpr uint32_t kSap = 3611;
constexpr uint32_t kUuid = 0x7a1;
constexpr int kWaitMs = 20000;
constexpr int kRecords = 300;
enum : uint8_t { kRoutes = 1, kPeers = 2 };

struct Shared {
  int up[3];
  uint32_t state[3][3];
  int writing[3];
};
Shared* g_shared = nullptr;
int g_slot = 0;

std::string key(int i) { return "k" + std::to_string(100000 + i); }

bool write_one(int i, int gen) {
  const std::string k = key(i), v = "value " + std::to_string(i) + " gen " + std::to_string(gen);
  return hadra_pss_update(&hadra_ha_pss[kRoutes], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                          static_cast<uint32_t>(v.size())) == 1 &&
         hadra_sdb_update(&hadra_ha_pss[kPeers], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                          static_cast<uint32_t>(v.size()), 1) == 1;
}

void on_switchover() {
  hadra_ha_drop_active_msgs(kSap);
  for (uint8_t i = 1; i <= 2; ++i) hadra_ha_set_db_active(&hadra_ha_pss[i]);
  (void)hadra_ha_recovery_done(0);
}

// The service: the active writes kRecords records, then more, slowly, while `writes` runs.
int run_service(pk::Signal* slow_writes, pk::Signal* stop) {
  if (mts_bind(kSap) != 0) return 10;
  (void)sysmgr_client_attach(kSap, "tool-service");
  if (hadra_ha_register_pss(kRoutes, "routes") == nullptr ||
      hadra_ha_register_sdb(kPeers, "peers", 6521, 6522) == nullptr)
    return 11;
  hadra_ha_handle_t rec{};
  rec.uuid = kUuid;
  rec.sap = kSap;
  rec.opcode = 6520;
  rec.switchover_cb = &on_switchover;
  std::snprintf(rec.name, sizeof rec.name, "tool-service");
  if (hadra_ha_api_init(&rec) != 1) return 12;
  if (sysmgr_supstate_get() == 1)
    for (int i = 0; i < kRecords; ++i)
      if (!write_one(i, 0)) return 13;
  g_shared->up[g_slot] = 1;
  int next = kRecords, left = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  while (std::chrono::steady_clock::now() < deadline) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 10, &other);
    if (kind == SYSMGR_RX_OTHER) mts_drop(kSap, &other);
    if (kind < 0) return 14;
    if (slow_writes != nullptr && slow_writes->wait(0)) left = 100;
    if (left > 0) {
      g_shared->writing[g_slot] = 1;
      if (!write_one(next++, 1)) return 15;
      if (--left == 0) g_shared->writing[g_slot] = 0;
    }
    for (uint8_t i = 1; i <= 2; ++i) g_shared->state[g_slot][i] = hadra_ha_pss[i].state;
    if (stop != nullptr && stop->wait(0)) break;
  }
  (void)sysmgr_client_detach();
  return 0;
}

// A free loopback port for the metrics (the kernel's pick; given back at once).
int free_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0)
    port = ntohs(sa.sin_port);
  ::close(fd);
  return port;
}

// GET path from 127.0.0.1:port; the whole answer, headers included ("" when it failed).
std::string http_get(int port, const std::string& path) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  timeval tv{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string out;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
    const std::string req = "GET " + path + " HTTP/1.0\r\nHost: localhost\r\n\r\n";
    if (::send(fd, req.data(), req.size(), 0) == static_cast<ssize_t>(req.size())) {
      char buf[4096];
      ssize_t n;
      while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
    }
  }
  ::close(fd);
  return out;
}

// The samples of a Prometheus text answer: "name{labels}" -> value. Every line must be a
// comment or a well-formed sample; a malformed one fails the test.
std::map<std::string, double> parse_metrics(const std::string& body) {
  static const std::regex sample(R"(([a-zA-Z_:][a-zA-Z0-9_:]*(\{[^}]*\})?) (-?[0-9.eE+-]+))");
  std::map<std::string, double> out;
  std::istringstream in(body);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::smatch m;
    EXPECT_TRUE(std::regex_match(line, m, sample)) << line;
    if (!m.empty()) out[m[1]] = std::stod(m[3]);
  }
  return out;
}

// The samples served on port, once pred holds for them (the text is rendered every 500 ms).
template <class F>
bool scrape_until(int port, std::map<std::string, double>* m, F pred) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string answer = http_get(port, "/metrics");
    const size_t body = answer.find("\r\n\r\n");
    if (answer.rfind("HTTP/1.", 0) == 0 && body != std::string::npos) {
      *m = parse_metrics(answer.substr(body + 4));
      if (pred(*m)) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return false;
}

// Changes the digest of one record of the standby's history ring that says it applied the
// message (database index, HA number ha), as if another payload had been applied: the
// planted divergence. false when no such record is held.
bool plant_divergence(const std::string& ring_path, uint8_t index, uint64_t* ha, uint64_t* digest) {
  namespace hist = hadra::plat::hist;
  const int fd = ::open(ring_path.c_str(), O_RDWR);
  if (fd < 0) return false;
  const size_t size = hist::ring_file_size(hist::kRingRecords);
  void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return false;
  auto* h = static_cast<hist::RingHdr*>(map);
  auto* recs = reinterpret_cast<hist::RingRec*>(static_cast<char*>(map) + sizeof(hist::RingHdr));
  // The middle one of the applied records of the database: neither end of what both hold.
  std::vector<hist::RingRec*> applied;
  for (uint32_t i = 0; i < h->cap; ++i)
    if (recs[i].guard.load() != 0 && recs[i].kind == hist::kApplied && recs[i].index == index) applied.push_back(&recs[i]);
  std::sort(applied.begin(), applied.end(), [](auto* a, auto* b) { return a->ha_seqno < b->ha_seqno; });
  const bool ok = applied.size() > 10;
  if (ok) {
    hist::RingRec* r = applied[applied.size() / 2];
    r->digest ^= 0x5a5a;
    *ha = r->ha_seqno;
    *digest = r->digest;
  }
  ::munmap(map, size);
  return ok;
}

struct ToolRun {
  int exit = -1;
  std::string out, err;
};

class HadraTool : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(base_.path().empty());
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = static_cast<Shared*>(page);
  }
  void TearDown() override {
    for (pid_t& p : services_)
      if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    for (pid_t& d : daemons_)
      if (d > 0) pk::stop_daemon(d, 3000);
    munmap(g_shared, sizeof(Shared));
  }

  // Runs the tool as the operator of slot does; bounded by its --timeout and by timeout(1).
  ToolRun tool(int slot, const std::string& args, const char* stdin_from = "/dev/null") {
    const std::string err = base_.path() + "/tool.err";
    const std::string cmd = "HADRA_SLOT=" + std::to_string(slot) + " timeout 60 " + HADRA_TOOL_PATH + " --root " +
                            pk::root_of(base_.path(), slot) + " " + args + " <" + stdin_from + " 2>" + err;
    ToolRun r;
    FILE* p = ::popen(cmd.c_str(), "r");
    if (p == nullptr) return r;
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0) r.out.append(buf.data(), n);
    const int st = ::pclose(p);
    r.exit = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    std::ifstream in(err);
    std::stringstream ss;
    ss << in.rdbuf();
    r.err = ss.str();
    return r;
  }

  json tool_json(int slot, const std::string& args, int want_exit = 0) {
    const ToolRun r = tool(slot, args + " --json");
    EXPECT_EQ(r.exit, want_exit) << args << ": " << r.err;
    json j = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << r.out;
    return j;
  }

  void start_pair() {
    std::string why;
    metrics_port_ = free_port();
    daemons_[1] = pk::start_daemon(base_.path(), 1, "active", {{"METRICS_PORT", std::to_string(metrics_port_)}}, 10000,
                                   &why);
    ASSERT_GT(daemons_[1], 0) << why;
    metrics_port2_ = free_port();
    daemons_[2] = pk::start_daemon(base_.path(), 2, "standby", {{"METRICS_PORT", std::to_string(metrics_port2_)}},
                                   10000, &why);
    ASSERT_GT(daemons_[2], 0) << why;
    start_service(1, "active", &writes_, &stop_[1]);
    ASSERT_TRUE(wait_for([] { return g_shared->up[1] != 0; }));
    start_service(2, "standby", nullptr, &stop_[2]);
    ASSERT_TRUE(wait_for([] { return g_shared->state[2][1] == HADRA_HA_STANDBY && g_shared->state[2][2] == HADRA_HA_STANDBY; }));
  }

  void start_service(int slot, const char* supstate, pk::Signal* writes, pk::Signal* stop) {
    pk::Supervisor sup{base_.path(), slot, supstate, {{"UUID", std::to_string(kUuid)}, {"MTS_HWM", "5000"}}, true};
    services_[slot] = pk::spawn(sup, [slot, writes, stop] {
      g_slot = slot;
      return run_service(writes, stop);
    });
    ASSERT_GT(services_[slot], 0);
  }

  template <class F>
  bool wait_for(F pred, int ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < deadline) {
      if (pred()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
  }

  // The standby applied everything the active sent, per the standby's daemon.
  bool caught_up() {
    return wait_for([&] {
      const json st = tool_json(2, "status");
      uint64_t sent = 0, applied = 0;
      for (const json& s : st.value("peer_services", json::array()))
        for (const json& d : s["databases"]) sent += d["sent"].get<uint64_t>();
      for (const json& s : st.value("services", json::array()))
        for (const json& d : s["databases"]) applied += d["applied"].get<uint64_t>();
      return sent > 0 && sent == applied;
    });
  }

  pk::BaseDir base_{"/tmp/hadra-tool-XXXXXX"};
  int metrics_port_ = 0, metrics_port2_ = 0;
  pk::Signal writes_, stop_[3];
  pid_t daemons_[3] = {-1, -1, -1};
  pid_t services_[3] = {-1, -1, -1};
};

// Changes records of the store at path directly, as a fault or a person would, behind the
// library and the daemons: one rewritten, one deleted, one added.
void tamper(const std::string& path, bool is_dir) {
  MDB_env* env = nullptr;
  ASSERT_EQ(mdb_env_create(&env), 0);
  mdb_env_set_maxdbs(env, 8);
  ASSERT_EQ(mdb_env_open(env, path.c_str(), is_dir ? 0 : MDB_NOSUBDIR, 0644), 0) << path;
  MDB_txn* txn = nullptr;
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  MDB_dbi dbi;
  ASSERT_EQ(mdb_dbi_open(txn, "records", 0, &dbi), 0);
  std::string k1 = key(10), v1 = "changed behind its back", k2 = key(20), k3 = "zz-stray";
  MDB_val a{k1.size(), k1.data()}, av{v1.size(), v1.data()}, b{k2.size(), k2.data()}, c{k3.size(), k3.data()};
  EXPECT_EQ(mdb_put(txn, dbi, &a, &av, 0), 0);
  EXPECT_EQ(mdb_del(txn, dbi, &b, nullptr), 0);
  EXPECT_EQ(mdb_put(txn, dbi, &c, &av, 0), 0);
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
}

TEST_F(HadraTool, EverySubcommandAgainstALivePair) {
  start_pair();
  if (HasFatalFailure()) return;

  // status while the active writes: a table with both supervisors and every database.
  writes_.raise();
  ASSERT_TRUE(wait_for([] { return g_shared->writing[1] != 0; }));
  const ToolRun table = tool(1, "status");
  ASSERT_EQ(table.exit, 0) << table.err;
  EXPECT_NE(table.out.find("supervisor 1  active"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find("link up"), std::string::npos) << table.out;
  EXPECT_EQ(table.out.find("\033["), std::string::npos) << "colour without a terminal";
  EXPECT_EQ(table.out.find("no peer"), std::string::npos) << table.out;
  size_t rows = 0;
  for (size_t at = 0; (at = table.out.find("tool-service", at)) != std::string::npos; ++at) ++rows;
  EXPECT_EQ(rows, 2u) << table.out;
  // Databases by their registered names, the lag in time too.
  EXPECT_NE(table.out.find(" routes "), std::string::npos) << table.out;
  EXPECT_NE(table.out.find(" peers "), std::string::npos) << table.out;
  const json st = tool_json(2, "status");
  EXPECT_EQ(st["role"], "standby");
  EXPECT_EQ(st["peer"]["role"], "active");
  ASSERT_TRUE(wait_for([] { return g_shared->writing[1] == 0; }));
  ASSERT_TRUE(caught_up());
  // Caught up: on both sides a lag of 0 ms (the standby has it from the active's pings), and
  // the link's round trip measured.
  for (int slot : {1, 2})
    EXPECT_TRUE(wait_for([&] {
      const json s2 = tool_json(slot, "status");
      bool all_zero = s2["db_info"].size() == 2 && s2["peer"]["rtt_ms"].is_number();
      for (const json& v : s2["db_info"]) all_zero = all_zero && v["lag_ms"].is_number() && v["lag_ms"] == 0;
      return all_zero;
    })) << tool_json(slot, "status").dump();
  {
    const json s1 = tool_json(1, "status");
    std::set<std::string> names;
    for (const json& v : s1["db_info"]) names.insert(v["name"].get<std::string>());
    EXPECT_EQ(names, (std::set<std::string>{"routes", "peers"})) << s1.dump();
    EXPECT_GT(s1["peer"]["rtt_ms"].get<double>(), 0.0);
    EXPECT_LT(s1["peer"]["rtt_ms"].get<double>(), 1000.0);
  }

  // history: both supervisors merged by time; every message the active sent was applied by
  // the standby with the same digest, until one applied record is changed behind its back.
  {
    const json h = tool_json(1, "history --both --max 8192");
    std::map<int, size_t> by_kind;
    uint64_t last = 0;
    bool ordered = true;
    for (const json& e : h["entries"]) {
      by_kind[e["slot"].get<int>() * 10 + (e["kind"] == "sent" ? 1 : e["kind"] == "applied" ? 2 : 3)]++;
      ordered = ordered && e["time_ns"].get<uint64_t>() >= last;
      last = e["time_ns"].get<uint64_t>();
    }
    EXPECT_TRUE(ordered);
    // Two stores: the active sent every change as a message; the standby, started after the
    // first kRecords, had those in its gsync's snapshot and applied the later ones.
    EXPECT_EQ(by_kind[11], 2u * (kRecords + 100)) << h["entries"].size();
    EXPECT_EQ(by_kind[22], 2u * 100);
    EXPECT_EQ(by_kind[12] + by_kind[21], 0u);
    const json d = tool_json(2, "history --diverge");
    EXPECT_EQ(d["divergence"]["found"], false) << d["divergence"].dump();
    EXPECT_EQ(d["divergence"]["compared"], 2u * 100);
    EXPECT_EQ(tool(1, "history --max 3").out.size() > 0, true);
  }
  {
    const std::string ring = pk::root_of(base_.path(), 2) + "/log/hist-" + std::to_string(services_[2]) + ".ring";
    uint64_t ha = 0, digest = 0;
    ASSERT_TRUE(plant_divergence(ring, kPeers, &ha, &digest)) << ring;
    char hex[20];
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(digest));
    for (int slot : {1, 2}) {
      const json d = tool_json(slot, "history --diverge", 1)["divergence"];
      EXPECT_EQ(d["found"], true);
      EXPECT_EQ(d["what"], "payload differs") << d.dump();
      EXPECT_EQ(d["ha_seqno"], ha) << d.dump();
      EXPECT_EQ(d["db"], kPeers);
      EXPECT_EQ(d["db_name"], "peers");
      EXPECT_EQ(d["service"], "tool-service");
      EXPECT_EQ(d["applied"]["digest"], hex);
      EXPECT_EQ(d["applied"]["slot"], 2);
      EXPECT_EQ(d["sent"]["slot"], 1);
      EXPECT_NE(d["sent"]["digest"], hex);
    }
    const ToolRun text = tool(1, "history --diverge --max 1");
    EXPECT_EQ(text.exit, 1);
    EXPECT_NE(text.out.find("first divergence: tool-service db peers, HA number " + std::to_string(ha)), std::string::npos)
        << text.out;
  }

  // Equal copies: nothing to report, from either side.
  json v = tool_json(1, "verify");
  EXPECT_EQ(v["differences"], 0) << v.dump();
  ASSERT_EQ(v["stores"].size(), 2u) << v.dump();
  for (const json& s : v["stores"]) EXPECT_EQ(s["records"], kRecords + 100) << s.dump();
  EXPECT_EQ(tool_json(2, "verify")["differences"], 0);
  // Unknown services and databases: one line naming them.
  for (const auto& [args, says] : std::vector<std::pair<std::string, std::string>>{
           {"verify nosuch", "no service nosuch on either supervisor"},
           {"verify tool-service nosuch", "no database nosuch of tool-service"},
           {"dump run:/nosuch", "nosuch"}}) {
    const ToolRun r = tool(1, args);
    EXPECT_EQ(r.exit, 1) << args;
    EXPECT_NE(r.err.find(says), std::string::npos) << args << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << ": " << r.err;
  }

  // Three records changed behind the library on the standby, in each store: exactly those.
  const std::string root2 = pk::root_of(base_.path(), 2);
  const std::vector<std::string> stores = hadra::sysmgrd::verify::list_stores(root2);
  ASSERT_EQ(stores.size(), 2u);
  for (const std::string& uri : stores) {
    const std::string path = hadra::sysmgrd::verify::store_path(root2, uri);
    tamper(path, std::filesystem::is_directory(path));
  }
  v = tool_json(1, "verify", 1);
  EXPECT_EQ(v["differences"], 6) << v.dump();
  for (const json& s : v["stores"]) {
    std::set<std::string> seen;
    for (const json& d : s["differences"]) seen.insert(d["key"].get<std::string>() + "/" + d["only_on"].get<std::string>());
    EXPECT_EQ(seen, (std::set<std::string>{key(10) + "/", key(20) + "/active", "zz-stray/standby"})) << s.dump();
  }
  const ToolRun text = tool(1, "verify");
  EXPECT_EQ(text.exit, 1);
  EXPECT_NE(text.out.find("key " + key(20) + "  only on active"), std::string::npos) << text.out;
  // Only the active repairs; then exactly those records are sent, and the copies agree.
  EXPECT_EQ(tool(2, "verify --repair").exit, 1);
  v = tool_json(1, "verify --repair");
  for (const json& s : v["stores"]) EXPECT_EQ(s["repaired"], 3) << s.dump();
  v = tool_json(1, "verify");
  EXPECT_EQ(v["differences"], 0) << v.dump();
  // Narrowed down: far fewer bytes than the stores hold.
  EXPECT_LT(v["bytes_received"].get<uint64_t>(), 20000u) << v.dump();

  // Metrics, scraped over HTTP and parsed: the role, the link, per database the numbers.
  // The text is rendered every 500 ms: wait until it shows the standby caught up.
  std::map<std::string, double> m;
  const std::string db1 = "{slot=\"1\",service=\"tool-service\",db=\"1\"}";
  ASSERT_TRUE(wait_for([&] {
    const std::string answer = http_get(metrics_port_, "/metrics");
    const size_t body = answer.find("\r\n\r\n");
    if (answer.rfind("HTTP/1.", 0) != 0 || body == std::string::npos) return false;
    EXPECT_NE(answer.find("text/plain; version=0.0.4"), std::string::npos) << answer.substr(0, body);
    m = parse_metrics(answer.substr(body + 4));
    return m.count("hadra_peer_up{slot=\"1\"}") == 1 && m.count("hadra_db_lag_messages" + db1) == 1 &&
           m["hadra_db_lag_messages" + db1] == 0;
  })) << "lag " << m["hadra_db_lag_messages" + db1];
  EXPECT_EQ(m["hadra_supervisor_role{slot=\"1\",role=\"active\"}"], 1);
  EXPECT_EQ(m["hadra_peer_up{slot=\"1\"}"], 1);
  EXPECT_EQ(m["hadra_db_sent_messages_total" + db1], kRecords + 100) << db1;
  EXPECT_EQ(m["hadra_db_out_of_sync" + db1], 0);
  EXPECT_EQ(m.count("hadra_gsyncs_total{slot=\"1\",result=\"done\"}"), 1u);
  EXPECT_NE(http_get(metrics_port_, "/other").find("404"), std::string::npos);
  EXPECT_GT(m["hadra_db_sent_bytes_total" + db1], static_cast<double>(kRecords + 100)) << "one byte a message at least";
  EXPECT_EQ(m["hadra_db_lag_seconds" + db1], 0);
  EXPECT_EQ(m.count("hadra_db_info{slot=\"1\",service=\"tool-service\",db=\"1\",name=\"routes\",uri=\"" +
                    [&] {
                      for (const std::string& u : stores)
                        if (u.ends_with("routes")) return u;
                      return std::string();
                    }() + "\"}"),
            1u);
  EXPECT_EQ(m["hadra_peer_role{slot=\"1\",role=\"standby\"}"], 1);
  EXPECT_GT(m["hadra_peer_rtt_seconds{slot=\"1\"}"], 0);
  // The bytes of every message the active sent, and of those the standby applied (the ones
  // after its gsync), as the history shows them message by message.
  std::map<std::string, double> m2;
  const std::string db1_2 = "{slot=\"2\",service=\"tool-service\",db=\"1\"}";
  double sent_bytes = 0, applied_bytes = 0;
  const json both = tool_json(1, "history --both --max 8192");
  for (const json& e : both["entries"])
    if (e["kind"] != "event" && e["db"] == 1) (e["kind"] == "sent" ? sent_bytes : applied_bytes) += e["bytes"].get<double>();
  EXPECT_EQ(m["hadra_db_sent_bytes_total" + db1], sent_bytes);
  EXPECT_TRUE(scrape_until(metrics_port2_, &m2, [&](auto& x) {
    return x["hadra_db_applied_bytes_total" + db1_2] == applied_bytes;
  })) << m2["hadra_db_applied_bytes_total" + db1_2] << " vs " << applied_bytes;

  // dump: the records of one store, as text and JSON.
  const json d = tool_json(2, "dump " + stores[0]);
  EXPECT_EQ(d["records"].size(), static_cast<size_t>(kRecords + 100));
  EXPECT_EQ(d["records"][0]["key"], key(0));
  EXPECT_EQ(tool(2, "dump " + stores[0]).out.find(key(0) + " = value 0 gen 0"), 0u);

  // gsync on the standby rebuilds it from the active.
  const json before = tool_json(2, "status");
  EXPECT_EQ(tool(2, "gsync tool-service").exit, 0);
  ASSERT_TRUE(wait_for([&] { return tool_json(2, "status")["gsync"]["done"] > before["gsync"]["done"]; }));
  // Its duration, Prometheus style.
  EXPECT_TRUE(scrape_until(metrics_port2_, &m2, [](auto& x) {
    return x["hadra_gsync_duration_seconds_count{slot=\"2\",result=\"done\"}"] >= 1 &&
           x["hadra_gsync_duration_seconds_sum{slot=\"2\",result=\"done\"}"] > 0;
  }));
  EXPECT_EQ(tool(1, "gsync").exit, 1);  // not on the active

  // switchover: confirmation needed without a terminal, then done with --yes.
  const ToolRun refused = tool(1, "switchover");
  EXPECT_EQ(refused.exit, 2);
  EXPECT_NE(refused.err.find("--yes"), std::string::npos) << refused.err;
  ASSERT_EQ(tool(1, "switchover --yes").exit, 0);
  EXPECT_TRUE(wait_for([&] { return tool_json(2, "status")["role"] == "active"; }));
  // A peer whose daemon stops answering (frozen, its link not yet seen down): the history
  // that needs it ends at --timeout with one line, never hangs.
  ASSERT_EQ(kill(daemons_[1], SIGSTOP), 0);
  // On a terminal (script(1) gives it one), a verify that runs long shows its progress while
  // it waits; this one waits for a peer that no longer answers, until its --timeout.
  {
    const std::string cmd = "HADRA_SLOT=2 timeout 30 script -qec '" + std::string(HADRA_TOOL_PATH) + " --root " +
                            pk::root_of(base_.path(), 2) + " --timeout 2500 verify' /dev/null </dev/null";
    std::string out;
    FILE* p = ::popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    std::array<char, 4096> buf;
    size_t n;
    while ((n = std::fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
    const int st = ::pclose(p);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 1) << out;
    EXPECT_NE(out.find("0/2 stores"), std::string::npos) << out;
    EXPECT_NE(out.find("ETA ?"), std::string::npos) << out;
    EXPECT_NE(out.find("hadra: "), std::string::npos) << out;
  }
  const auto t0 = std::chrono::steady_clock::now();
  const ToolRun frozen = tool(2, "--timeout 400 history --both");
  const auto took = std::chrono::steady_clock::now() - t0;
  kill(daemons_[1], SIGCONT);
  EXPECT_EQ(frozen.exit, 1) << frozen.out;
  EXPECT_TRUE(frozen.err.find("did not send its history in time") != std::string::npos ||
              frozen.err.find("the peer is down") != std::string::npos)
      << frozen.err;
  EXPECT_EQ(std::count(frozen.err.begin(), frozen.err.end(), '\n'), 1) << frozen.err;
  EXPECT_LT(took, std::chrono::seconds(4));
  EXPECT_TRUE(scrape_until(metrics_port2_, &m2, [](auto& x) {
    return x["hadra_switchover_duration_seconds_count{slot=\"2\"}"] == 1 &&
           x["hadra_switchovers_total{slot=\"2\"}"] == 1 && x["hadra_supervisor_role{slot=\"2\",role=\"active\"}"] == 1;
  }));
}

TEST_F(HadraTool, BadInputGivesOneLineAndANonZeroExit) {
  // No daemon on the root: one line, exit 3, no hang.
  ToolRun r = tool(1, "status");
  EXPECT_EQ(r.exit, 3);
  EXPECT_NE(r.err.find("no hadra-sysmgrd runs on root"), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  r = tool(1, "frobnicate");
  EXPECT_EQ(r.exit, 2);
  EXPECT_EQ(r.err, "hadra: unknown subcommand frobnicate (see hadra --help)\n");
  EXPECT_NE(tool(1, "dump nonsense").exit, 0);
  r = tool(1, "dump run:/no/such/store");
  EXPECT_EQ(r.exit, 1);
  EXPECT_NE(r.err.find("run/no/such/store"), std::string::npos) << r.err;

  // Ring files of ended processes: the daemon keeps the newest four and removes the rest;
  // a live process's ring is never touched.
  const std::string logs = pk::root_of(base_.path(), 1) + "/log";
  std::filesystem::create_directories(logs);
  auto ring = [&](long pid) { return logs + "/hist-" + std::to_string(pid) + ".ring"; };
  for (int i = 0; i < 6; ++i) {
    std::ofstream(ring(2147483000 + i)) << "x";
    const auto t = std::filesystem::file_time_type::clock::now() - std::chrono::hours(10 - i);
    std::filesystem::last_write_time(ring(2147483000 + i), t);
  }
  std::ofstream(ring(::getpid())) << "x";
  std::filesystem::last_write_time(ring(::getpid()),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(20));

  std::string why;
  daemons_[1] = pk::start_daemon(base_.path(), 1, "active", {}, 10000, &why);
  ASSERT_GT(daemons_[1], 0) << why;
  EXPECT_TRUE(wait_for([&] { return !std::filesystem::exists(ring(2147483001)); }));
  EXPECT_FALSE(std::filesystem::exists(ring(2147483000)));
  for (int i = 2; i < 6; ++i) EXPECT_TRUE(std::filesystem::exists(ring(2147483000 + i))) << i;
  EXPECT_TRUE(std::filesystem::exists(ring(::getpid())));
  // A peer that is gone: verify says so at once.
  r = tool(1, "verify");
  EXPECT_EQ(r.exit, 1);
  EXPECT_EQ(r.err, "hadra: the peer is down: nothing to compare with\n");
  EXPECT_EQ(r.out, "");
  r = tool(1, "gsync nosuch");
  EXPECT_EQ(r.exit, 1);
  EXPECT_NE(r.err.find("no service nosuch"), std::string::npos) << r.err;
  // Every subcommand that needs the peer says it is down, in one line.
  for (const char* args : {"history --both", "history --diverge", "switchover --yes"}) {
    r = tool(1, args);
    EXPECT_EQ(r.exit, 1) << args;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << ": " << r.err;
    EXPECT_NE(r.err.find("peer"), std::string::npos) << args << ": " << r.err;
  }
  // This supervisor's own history needs no peer; bad settings are refused before asking.
  EXPECT_EQ(tool(1, "history").exit, 0);
  r = tool(1, "history --max 0");
  EXPECT_EQ(r.exit, 2);
  EXPECT_NE(r.err.find("--max"), std::string::npos) << r.err;
  EXPECT_NE(tool(1, "history --help").out.find("hadra history --diverge"), std::string::npos);
  EXPECT_NE(tool(1, "status --help").out.find("hadra status --watch"), std::string::npos);
}

}  // namespace
