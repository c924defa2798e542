// Two supervisors run by their system-manager daemons: each supervisor is a hadra-sysmgrd
// process and a service process with its own root, over the ZeroMQ transport. The service is
// a real client: it attaches to its daemon, initialises the library and runs the platform's
// receive loop; nothing here plays the system manager's part.
//
// Covered: the daemon's start and stop (a second daemon on a root refused, a service with no
// daemon answered at once); gsync through the daemons with verified shipping, live changes,
// kill -9 of the active and a takeover whose loss report says 0 lost; a shipment damaged on
// the way refused; the active's service killed in the middle of a gsync; a planned
// switchover; the configuration write all or nothing; a standby whose disk or store refuses
// changes goes out of sync and converges once they are taken again.
#include <gtest/gtest.h>
#include <lmdb.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "hadra_platform/sdb.h"

#include "hadra/hadra.h"
#include "hadra/sdb.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "hadra_platform_testing.h"
#include "pairkit/daemons.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"

namespace {

namespace fs = std::filesystem;
namespace pk = hadra::pairkit;
using nlohmann::json;

constexpr uint32_t kSap = 3601;
constexpr uint32_t kSyncOpc = 6501;
constexpr uint32_t kUuid = 0x6e2;
constexpr int kWaitMs = 20000;
enum : uint8_t { kRoutes = 1, kPeers = 2 };

// What a service process publishes for the test, in a page shared across fork.
struct Shared {
  int up[3];
  uint32_t state[3][3];  // [slot][index]
  int switched[3];
  int in_snapshot[3];
  int attach_rc[3];
  uint32_t start_reason[3];
  int store_fault[3];     // set by the test: commits of the slot's stores fail with it (0: not)
  int store_fault_on[3];  // what the service made of it
  int written[3];         // keep_writing: records written so far
};

Shared* g_shared = nullptr;
int g_slot = 0;

struct ServiceSpec {
  int records = 0;      // written at start when active
  bool stall_snapshot = false;
  bool stall_switchover = false;  // the switchover hook never answers
  bool keep_writing = false;      // when active: new records all the time, until killed
};

void publish() {
  for (uint8_t i = 1; i <= 2; ++i) g_shared->state[g_slot][i] = hadra_ha_pss[i].state;
}

void stalled_switchover() {
  g_shared->in_snapshot[g_slot] = 2;
  std::this_thread::sleep_for(std::chrono::seconds(60));
}

void on_switchover() {
  hadra_ha_drop_active_msgs(kSap);
  for (uint8_t i = 1; i <= 2; ++i) hadra_ha_set_db_active(&hadra_ha_pss[i]);
  (void)hadra_ha_recovery_done(0);
  g_shared->switched[g_slot] = 1;
}

int stall_snapshot(void*, const char*, void*, int32_t*) {
  g_shared->in_snapshot[g_slot] = 1;
  std::this_thread::sleep_for(std::chrono::seconds(60));
  return 0;
}

std::string key(int i) { return "k" + std::to_string(100000 + i); }

bool write_records(int from, int to, int gen) {
  for (int i = from; i < to; ++i) {
    const std::string k = key(i), v = "value " + std::to_string(i) + " gen " + std::to_string(gen);
    if (hadra_pss_update(&hadra_ha_pss[kRoutes], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                         static_cast<uint32_t>(v.size())) != 1 ||
        hadra_sdb_update(&hadra_ha_pss[kPeers], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                         static_cast<uint32_t>(v.size()), 1) != 1)
      return false;
  }
  return true;
}

// The service: attach, initialise, write when active, then run the receive loop until told to
// stop. live: raised by the test to make further changes (records .. 2*records, deletes).
int run_service(const ServiceSpec& svc, pk::Signal* live, pk::Signal* stop) {
  if (mts_bind(kSap) != 0) return 10;
  g_shared->attach_rc[g_slot] = sysmgr_client_attach(kSap, "e2e-service");
  if (hadra_ha_register_pss(kRoutes, "routes") == nullptr ||
      hadra_ha_register_sdb(kPeers, "peers", 6511, 6512) == nullptr)
    return 11;
  hadra_pss_set_config(&hadra_ha_pss[kRoutes], "routes.cfg");
  hadra_ha_handle_t rec{};
  rec.uuid = kUuid;
  rec.sap = kSap;
  rec.opcode = kSyncOpc;
  rec.switchover_cb = svc.stall_switchover ? &stalled_switchover : &on_switchover;
  if (svc.stall_snapshot) rec.gsync_snapshot_cb = &stall_snapshot;
  std::snprintf(rec.name, sizeof rec.name, "e2e-service");
  if (hadra_ha_api_init(&rec) != 1) return 12;
  if (sysmgr_supstate_get() == 1 && !write_records(0, svc.records, 0)) return 13;
  g_shared->start_reason[g_slot] = hadra_get_start_reason();
  publish();
  g_shared->up[g_slot] = 1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (std::chrono::steady_clock::now() < deadline) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 20, &other);
    if (kind == SYSMGR_RX_OTHER) mts_drop(kSap, &other);
    if (kind < 0) return 14;
    if (live != nullptr && live->wait(0)) {
      if (!write_records(svc.records, 2 * svc.records, 1) || !write_records(0, svc.records / 2, 2)) return 15;
      for (int i = 0; i < svc.records; i += 5) {
        const std::string k = key(i);
        if (hadra_pss_delete(&hadra_ha_pss[kRoutes], k.data(), static_cast<uint32_t>(k.size())) != 1) return 16;
      }
    }
    if (const int f = g_shared->store_fault[g_slot]; f != g_shared->store_fault_on[g_slot]) {
      plat_test_store_fail_commits(f);
      g_shared->store_fault_on[g_slot] = f;
    }
    if (svc.keep_writing && sysmgr_supstate_get() == 1) {
      static int next = svc.records;
      if (!write_records(next, next + 20, 3)) return 17;
      next += 20;
      g_shared->written[g_slot] = next;
    }
    publish();
    if (stop != nullptr && stop->wait(0)) break;
  }
  (void)sysmgr_client_detach();
  return 0;
}

// The active reported want sync messages and the standby applied as many (the snapshot's
// share included), per the standby's daemon.
auto caught_up(uint64_t want) {
  return [want](const json& st) {
    if (st["peer_reported"].empty() || st["services"].empty()) return false;
    uint64_t sent = st["peer_reported"][0]["sent"], applied = 0;
    for (const json& d : st["services"][0]["databases"]) applied += d["applied"].get<uint64_t>();
    return sent == want && applied == want;
  };
}

// Two databases; the first records, then the live changes: new records, rewrites, deletes.
constexpr uint64_t sync_messages(int records, bool live) {
  return 2u * static_cast<uint64_t>(records) +
         (live ? 2u * static_cast<uint64_t>(records) + static_cast<uint64_t>(records) + static_cast<uint64_t>((records + 4) / 5) : 0u);
}

// One run: a base directory, a page shared with the services, the daemons and services.
class DaemonPair : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(base_.path().empty());
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = static_cast<Shared*>(page);
  }
  void TearDown() override {
    pk::use_netns(1, "");
    pk::use_netns(2, "");
    for (pid_t& p : services_)
      if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    for (pid_t& d : daemons_)
      if (d > 0) pk::stop_daemon(d, 3000);
    munmap(g_shared, sizeof(Shared));
  }

  void start_daemon(int slot, const char* supstate, std::vector<std::pair<std::string, std::string>> extra = {}) {
    extra.insert(extra.end(), net_[slot].begin(), net_[slot].end());
    std::string why;
    daemons_[slot] = pk::start_daemon(base_.path(), slot, supstate, extra, 10000, &why);
    ASSERT_GT(daemons_[slot], 0) << why;
  }

  void start_service(int slot, const char* supstate, ServiceSpec svc, pk::Signal* live = nullptr,
                     pk::Signal* stop = nullptr) {
    pk::Supervisor sup{base_.path(), slot, supstate, {{"UUID", std::to_string(kUuid)}, {"MTS_HWM", "5000"}}, true};
    sup.extra.insert(sup.extra.end(), net_[slot].begin(), net_[slot].end());
    services_[slot] = pk::spawn(sup, [slot, svc, live, stop] {
      g_slot = slot;
      return run_service(svc, live, stop);
    });
    ASSERT_GT(services_[slot], 0);
  }

  bool wait_up(int slot) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (std::chrono::steady_clock::now() < deadline) {
      if (g_shared->up[slot] != 0) return true;
      if (waitpid(services_[slot], nullptr, WNOHANG) == services_[slot]) return services_[slot] = -1, false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  // True once the daemon of slot lists the service process of that slot: its hello arrived, so
  // the daemon will notice how the process ends.
  bool wait_listed(int slot) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (std::chrono::steady_clock::now() < deadline) {
      json out;
      if (pk::daemon_command(base_.path(), slot, "status", &out) == 0)
        for (const auto& sv : out["services"])
          if (sv.value("pid", 0) == services_[slot]) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  bool all_in_state(int slot, uint32_t state) {
    return g_shared->state[slot][1] == state && g_shared->state[slot][2] == state;
  }

  bool wait_state(int slot, uint32_t state) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (std::chrono::steady_clock::now() < deadline && !all_in_state(slot, state))
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return all_in_state(slot, state);
  }

  json status(int slot) {
    json j;
    EXPECT_EQ(pk::daemon_command(base_.path(), slot, "status", &j), 0);
    return j;
  }

  void kill_supervisor(int slot) {
    kill(services_[slot], SIGKILL), waitpid(services_[slot], nullptr, 0), services_[slot] = -1;
    kill(daemons_[slot], SIGKILL), waitpid(daemons_[slot], nullptr, 0), daemons_[slot] = -1;
  }

  // Gsync through the daemons, live changes, kill -9 of the active supervisor (daemon and
  // service), a takeover whose loss report says 0 lost, and the same records on both sides.
  // restart_standby: the standby's daemon is stopped and started again after the gsync, while
  // its service runs; it must serve the service again and lose nothing.
  void gsync_live_takeover(int records, bool restart_standby = false) {
    start_daemon(1, "active");
    start_daemon(2, "standby");
    if (HasFatalFailure()) return;
    pk::Signal live, stop2;
    start_service(1, "active", {records}, &live);
    ASSERT_TRUE(wait_up(1));
    start_service(2, "standby", {}, nullptr, &stop2);
    ASSERT_TRUE(wait_up(2));
    ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY)) << status(2).dump();
    EXPECT_EQ(status(2)["gsync"]["done"], 1);
    if (restart_standby) {
      ASSERT_EQ(pk::stop_daemon(daemons_[2], 3000), 0);
      start_daemon(2, "active");  // the role kept in its state file wins over the setting
      ASSERT_GT(daemons_[2], 0);
      const json again = status(2);
      EXPECT_EQ(again["role"], "standby");
      ASSERT_EQ(again["services"].size(), 1u) << again.dump();
      EXPECT_EQ(again["services"][0]["sap"], kSap);
    }
    live.raise();
    json st;
    ASSERT_TRUE(pk::wait_status(base_.path(), 2, caught_up(sync_messages(records, true)), kWaitMs, &st)) << st.dump();

    kill_supervisor(1);
    // A takeover is refused while the peer still counts as up.
    ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return !j["peer"]["up"]; }, kWaitMs, &st));
    json out;
    ASSERT_EQ(pk::daemon_command(base_.path(), 2, "takeover", &out), 0) << out.dump();
    EXPECT_TRUE(out["loss_report"]["known"]);
    EXPECT_EQ(out["loss_report"]["lost"], 0) << out["loss_report"].dump();
    EXPECT_EQ(out["loss_report"]["databases"].size(), 2u);
    ASSERT_TRUE(wait_state(2, HADRA_HA_ACTIVE));
    EXPECT_EQ(g_shared->switched[2], 1);
    ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return !j["switchover"]["running"]; }, kWaitMs,
                                &st));
    EXPECT_TRUE(st["switchover"]["notes"].empty()) << st.dump();
    stop2.raise();
    std::string why;
    EXPECT_TRUE(pk::wait_children({services_[2]}, kWaitMs, &why)) << why;
    services_[2] = -1;
    const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
    const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
    EXPECT_EQ(d1.size(), 3u);  // routes, peers and the start-reason marker
    EXPECT_EQ(pk::compare_dumps(d1, d2, "sup1", "sup2"), "");
  }

  void shipment_fails(const char* fault, const char* reason);
  void store_refuses(int err, const char* cause);
  // Both daemons (the standby's retrying a failed gsync soon) and both services, the active
  // one with `records` records of each kind and a signal to go on writing.
  void start_pair_retrying(int records, pk::Signal* live, pk::Signal* stop1, pk::Signal* stop2) {
    start_daemon(1, "active");
    start_daemon(2, "standby", {{"RESYNC_RETRY_MS", "300"}, {"RESYNC_RETRY_MAX_MS", "1200"}});
    start_service(1, "active", {records}, live, stop1);
    ASSERT_TRUE(wait_up(1));
    start_service(2, "standby", {}, nullptr, stop2);
    ASSERT_TRUE(wait_up(2));
  }

  // Stops both services and compares their stores record by record.
  void stop_and_compare(pk::Signal& stop1, pk::Signal& stop2) {
    stop1.raise();
    stop2.raise();
    std::string why;
    EXPECT_TRUE(pk::wait_children({services_[1], services_[2]}, kWaitMs, &why)) << why;
    services_[1] = services_[2] = -1;
    const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
    const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
    EXPECT_GE(d1.size(), 2u);
    EXPECT_EQ(pk::compare_dumps(d1, d2, "sup1", "sup2"), "");
  }

  pk::BaseDir base_{"/tmp/hadra-d2e-XXXXXX"};
  std::vector<std::pair<std::string, std::string>> net_[3];  // transport settings per slot
  pid_t daemons_[3] = {-1, -1, -1};
  pid_t services_[3] = {-1, -1, -1};
};

TEST_F(DaemonPair, StartsOnceStopsCleanlyAndServicesWithoutOneAreAnsweredAtOnce) {
  // No daemon yet: a service learns it at once, and so does its gsync request.
  pk::Signal stop;
  start_service(1, "standby", {}, nullptr, &stop);
  ASSERT_TRUE(wait_up(1));
  EXPECT_EQ(static_cast<uint32_t>(g_shared->attach_rc[1]), PLAT_ERR_SYSMGR_NO_DAEMON);
  stop.raise();
  std::string why;
  EXPECT_TRUE(pk::wait_children({services_[1]}, kWaitMs, &why)) << why;
  services_[1] = -1;

  start_daemon(1, "active");
  std::string second;
  EXPECT_LT(pk::start_daemon(base_.path(), 1, "active", {}, 3000, &second), 0);
  EXPECT_NE(second.find("ended at start"), std::string::npos) << second;
  // Malformed, truncated and unknown messages are logged and dropped; the daemon serves on.
  pk::Supervisor sup{base_.path(), 1, "active", {}, true};
  const pid_t junk = pk::spawn(sup, [] {
    const uint8_t bytes[] = {1, 2, 3, 0xff, 0xff, 0xff, 0xff, 9};
    for (uint32_t opc : {0x1e10u, 0x1e11u, 0x1e12u, 0x1e13u, 0x1e40u, 0x1e01u, 0x1e7fu, 5u})
      for (uint32_t n : {0u, 3u, 8u})
        if (mts_send(0x3700, MTS_ADDR_LOCAL, SYSMGR_SAP, opc, bytes, n, nullptr, 0, nullptr) != 0) return 1;
    mts_flush(1000);
    return 0;
  });
  std::string junk_why;
  EXPECT_TRUE(pk::wait_children({junk}, kWaitMs, &junk_why)) << junk_why;
  const json st = status(1);
  EXPECT_EQ(st["role"], "active");
  EXPECT_EQ(st["slot"], 1);
  EXPECT_TRUE(st["services"].empty()) << st.dump();
  EXPECT_EQ(pk::stop_daemon(daemons_[1], 3000), 0);
  daemons_[1] = -1;
  // Everything the daemon wrote is under its root.
  for (const auto& e : fs::directory_iterator(base_.path())) EXPECT_EQ(e.path().filename(), "sup1");
  EXPECT_EQ(pk::daemon_command(base_.path(), 1, "status", nullptr), 3);
}

TEST_F(DaemonPair, GsyncLiveChangesAndTakeoverAfterKillLoseNothing) { gsync_live_takeover(200); }

TEST_F(DaemonPair, ADaemonRestartedWhileItsServiceRunsServesItAgain) { gsync_live_takeover(50, true); }

// Each supervisor on a host of its own: a network namespace each, a veth pair between them
// with private addresses, tcp between the daemons and between the services.
class NetnsPair {
 public:
  NetnsPair() {
    if (geteuid() != 0) {
      why_ = "needs root to make network namespaces";
      return;
    }
    const int id = getpid() % 250;
    for (int s = 1; s <= 2; ++s) ns_[s] = "hadra-e2e-" + std::to_string(getpid()) + "-" + std::to_string(s);
    net_ = "10.231." + std::to_string(id) + ".";
    const std::string veth = "hd" + std::to_string(getpid());
    ok_ = run("ip netns add " + ns_[1]) && run("ip netns add " + ns_[2]) &&
          run("ip link add " + veth + "a netns " + ns_[1] + " type veth peer name " + veth + "b netns " + ns_[2]);
    for (int s = 1; s <= 2 && ok_; ++s) {
      const std::string dev = veth + (s == 1 ? "a" : "b");
      ok_ = run("ip -n " + ns_[s] + " addr add " + address(s) + "/30 dev " + dev) &&
            run("ip -n " + ns_[s] + " link set " + dev + " up") && run("ip -n " + ns_[s] + " link set lo up");
    }
    if (!ok_) why_ = "network namespaces or veth pairs are not available here";
  }
  ~NetnsPair() {
    for (int s = 1; s <= 2; ++s)
      if (!ns_[s].empty()) run("ip netns del " + ns_[s]);  // the veth pair goes with them
  }
  bool ok() const { return ok_; }
  const std::string& why() const { return why_; }
  const std::string& ns(int slot) const { return ns_[slot]; }
  std::string address(int slot) const { return net_ + std::to_string(slot); }

 private:
  static bool run(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }
  std::string ns_[3], net_, why_;
  bool ok_ = false;
};

TEST_F(DaemonPair, TwoHostsOverTcpInTheirOwnNetworkNamespaces) {
  NetnsPair hosts;
  if (!hosts.ok()) GTEST_SKIP() << "two-hosts variant skipped: " << hosts.why();
  // The link between the hosts is authenticated and encrypted: each supervisor has a key pair
  // made by the daemon, and knows the other's public key.
  std::string pub[3];
  for (int s = 1; s <= 2; ++s) {
    const std::string file = base_.path() + "/sup" + std::to_string(s) + ".key";
    FILE* p = ::popen((pk::sysmgrd_path() + " --keygen " + file).c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[128] = {};
    const bool got = std::fgets(line, sizeof line, p) != nullptr;
    ASSERT_EQ(::pclose(p), 0);
    ASSERT_TRUE(got);
    pub[s] = std::string(line).substr(0, 40);
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
  }
  for (int s = 1; s <= 2; ++s) {
    net_[s] = {{"MTS_LOCAL", "tcp://" + hosts.address(s) + ":{port}"},
               {"MTS_PEER", "tcp://" + hosts.address(3 - s) + ":{port}"},
               {"MTS_KEY_FILE", base_.path() + "/sup" + std::to_string(s) + ".key"},
               {"MTS_PEER_KEY", pub[3 - s]}};
    pk::use_netns(s, hosts.ns(s), net_[s]);
  }
  gsync_live_takeover(100);
}

// A gsync whose shipment goes wrong on the way ends as gsync failed for the standby's service,
// with a reason naming the file, and leaves no area behind.
void DaemonPair::shipment_fails(const char* fault, const char* reason) {
  start_daemon(1, "active", {{"FAULT_SHIP", fault}, {"GSYNC_TIMEOUT_MS", "20000"}});
  start_daemon(2, "standby", {{"GSYNC_TIMEOUT_MS", "1500"}});
  start_service(1, "active", {50});
  ASSERT_TRUE(wait_up(1));
  start_service(2, "standby", {});
  ASSERT_TRUE(wait_up(2));
  json st;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["gsync"]["failed"] == 1; }, kWaitMs, &st));
  const std::string error = st["gsync"]["last_error"];
  EXPECT_NE(error.find(reason), std::string::npos) << error;
  EXPECT_NE(error.find("file"), std::string::npos) << error;
  EXPECT_EQ(st["gsync"]["done"], 0);
  EXPECT_FALSE(all_in_state(2, HADRA_HA_STANDBY));
  for (const auto& e : fs::directory_iterator(pk::root_of(base_.path(), 2) + "/snap"))
    EXPECT_FALSE(e.path().filename().string().starts_with(".incoming")) << e.path();
}

TEST_F(DaemonPair, AShipmentDamagedOnTheWayIsRefusedAndLeavesNoArea) { shipment_fails("corrupt", "checksum"); }

// Damaged before its checksum was taken (4 KiB of zeros in the SDB snapshot): the checksum
// matches, the store check does not, and the standby never takes the empty copy for its state.
TEST_F(DaemonPair, ASnapshotDamagedAtItsSourceIsRefusedByName) { shipment_fails("zeros", "not a store file"); }

// A standby whose disk is full: the gsync fails with the cause and the file, the standby stays
// out of sync, and what the active changes meanwhile is never applied to the unusable copy;
// the daemon tries again with a growing wait (shown in status), and once there is room one of
// its gsyncs converges, with no command. The standby's snapshot area is a 32 MiB tmpfs in a
// private mount namespace (skipped where that cannot be made), filled up at first; a shipped
// PSS copy is as long as its store's map (10 MiB), so the empty tmpfs has room for it.
TEST_F(DaemonPair, AStandbyWithAFullDiskStaysOutOfSyncThenConverges) {
  const std::string snap = pk::root_of(base_.path(), 2) + "/snap";
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    GTEST_SKIP() << "no private mount namespace here (needs root)";
  fs::create_directories(snap);
  if (::mount("tmpfs", snap.c_str(), "tmpfs", 0, "size=32m") != 0) GTEST_SKIP() << "no tmpfs here";
  struct Unmount {
    std::string dir;
    ~Unmount() { ::umount2(dir.c_str(), MNT_DETACH); }
  } unmount{snap};
  {
    std::ofstream fill(snap + "/fill", std::ios::binary);
    const std::string block(4096, 'f');
    while (fill.write(block.data(), static_cast<std::streamsize>(block.size())) && fill.flush()) {
    }
  }
  pk::Signal live, stop1, stop2;
  start_pair_retrying(50, &live, &stop1, &stop2);
  if (HasFatalFailure()) return;
  json st;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["gsync"]["failed"] >= 2; }, kWaitMs, &st));
  const std::string error = st["gsync"]["last_error"];
  EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
  EXPECT_EQ(st["gsync"]["done"], 0);
  EXPECT_FALSE(all_in_state(2, HADRA_HA_STANDBY));
  // Changes while it cannot take them: held during a gsync, then dropped, never applied.
  live.raise();
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) {
    if (j["services"].empty()) return false;
    const json& s = j["services"][0]["stream"];
    return s["out_of_sync"] == true && s["reason"] == "gsync failed" && s["gsyncs_failed_in_row"] >= 2 &&
           j["peer_reported"].size() == 1 && j["peer_reported"][0]["sent"] == sync_messages(50, true);
  }, kWaitMs, &st)) << st.dump();
  // Room again: a retry of the daemon brings the standby in, with everything the active made.
  fs::remove(snap + "/fill");
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, caught_up(sync_messages(50, true)), kWaitMs, &st)) << st.dump();
  EXPECT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  EXPECT_EQ(st["services"][0]["stream"]["out_of_sync"], false) << st.dump();
  stop_and_compare(stop1, stop2);
}

// A standby whose store refuses a change (beneath the store: every commit fails as on a full
// or failing disk): one line says it is out of sync, with the database and the cause; status
// shows it; nothing after the refused change is applied; and once the store works again a
// resync (from the backlog or a gsync) leaves both copies identical record by record.
void DaemonPair::store_refuses(int err, const char* cause) {
  pk::Signal live, stop1, stop2;
  start_pair_retrying(100, &live, &stop1, &stop2);
  if (HasFatalFailure()) return;
  ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  g_shared->store_fault[2] = err;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (g_shared->store_fault_on[2] != err && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(g_shared->store_fault_on[2], err);
  live.raise();
  json st;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) {
    if (j["services"].empty()) return false;
    const json& s = j["services"][0]["stream"];
    return s["out_of_sync"] == true && s["apply_failed"] >= 1;
  }, kWaitMs, &st)) << st.dump();
  std::ifstream log(pk::root_of(base_.path(), 2) + "/log/platform.log");
  const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
  const size_t line = text.find("standby out of sync: apply of");
  ASSERT_NE(line, std::string::npos) << text;
  const std::string first = text.substr(line, text.find('\n', line) - line);
  EXPECT_NE(first.find(cause), std::string::npos) << first;
  EXPECT_NE(first.find("1 apply failed"), std::string::npos) << first;
  EXPECT_TRUE(first.find("run:/routes") != std::string::npos || first.find("run:/peers") != std::string::npos) << first;
  // Still out of sync while the store refuses: no retry pretends otherwise.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(status(2)["services"][0]["stream"]["out_of_sync"], true);
  g_shared->store_fault[2] = 0;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, caught_up(sync_messages(100, true)), kWaitMs, &st)) << st.dump();
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) {
    return !j["services"].empty() && j["services"][0]["stream"]["out_of_sync"] == false;
  }, kWaitMs, &st)) << st.dump();
  stop_and_compare(stop1, stop2);
}

TEST_F(DaemonPair, AStandbyWhoseDiskIsFullForChangesGoesOutOfSyncThenConverges) {
  store_refuses(ENOSPC, "No space left on device");
}
TEST_F(DaemonPair, AStandbyWhoseStoreMapIsFullGoesOutOfSyncThenConverges) {
  store_refuses(MDB_MAP_FULL, "MDB_MAP_FULL");
}

// The loss report at a takeover counts what the old active had reported (every heartbeat),
// so changes it committed after its last report are not in it. When the old active's daemon
// comes back, it tells the new active how far its dead service had really sent, and the
// report is amended: per database, what the old active's stores hold beyond the new active's
// copies is what the amended report says is missing (within the one change a kill can catch
// between a commit and its report). The standby's stores refuse the last changes, so some are
// really lost.
TEST_F(DaemonPair, TheOldActiveComingBackAmendsTheLossReportWithWhatItSentLast) {
  start_daemon(1, "active");
  start_daemon(2, "standby");
  ServiceSpec writer{50};
  writer.keep_writing = true;
  pk::Signal stop2;
  start_service(1, "active", writer);
  ASSERT_TRUE(wait_up(1));
  start_service(2, "standby", {}, nullptr, &stop2);
  ASSERT_TRUE(wait_up(2));
  ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  auto written = [&](int n) {
    while (g_shared->written[1] < n && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return g_shared->written[1];
  };
  const int before = written(400);
  // The last changes never reach the standby's stores (they refuse every commit), so the old
  // active's last numbers matter.
  g_shared->store_fault[2] = EIO;
  while (g_shared->store_fault_on[2] != EIO && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  written(before + 200);
  kill_supervisor(1);
  g_shared->store_fault[2] = 0;
  json st, out;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return !j["peer"]["up"]; }, kWaitMs, &st));
  ASSERT_EQ(pk::daemon_command(base_.path(), 2, "takeover", &out), 0) << out.dump();
  ASSERT_TRUE(out["loss_report"]["known"]);
  EXPECT_FALSE(out["loss_report"]["amended"]);
  const uint64_t reported = out["loss_report"]["lost"];
  stop2.raise();
  std::string why;
  EXPECT_TRUE(pk::wait_children({services_[2]}, kWaitMs, &why)) << why;
  services_[2] = -1;
  // The old active's stores as the kill left them, against the new active's.
  const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
  const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
  // The old active comes back as standby (its role source says so; here its role is not kept).
  fs::remove(pk::root_of(base_.path(), 1) + "/sysmgr/state");
  start_daemon(1, "standby");
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["loss_report"]["amended"] == true; },
                              kWaitMs, &st)) << st.dump();
  uint64_t lost = 0;
  int compared = 0;
  for (const json& row : st["loss_report"]["databases"]) {
    const std::string uri = row["database"] == kRoutes ? "run:/routes" : "run:/peers";
    lost += row["missing"].get<uint64_t>();
    // A gsync the refusing stores could not rebuild from may have left a database without its
    // file (the library rebuilds a PSS file in place): only a copy that is there is compared.
    if (d1.count(uri) == 0 || d2.count(uri) == 0) continue;
    ++compared;
    std::set<std::string> have;
    for (const auto& r : d2.at(uri).records) have.insert(std::string(r.key.begin(), r.key.end()));
    uint64_t beyond = 0;
    for (const auto& r : d1.at(uri).records) beyond += have.count(std::string(r.key.begin(), r.key.end())) == 0;
    const uint64_t missing = row["missing"];
    EXPECT_LE(missing, beyond) << uri << " " << row.dump();
    EXPECT_GE(missing + 1, beyond) << uri << " " << row.dump();
  }
  EXPECT_GE(compared, 1);
  EXPECT_GE(lost, reported);
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(st["loss_report"]["lost"], lost);
  RecordProperty("lost_at_takeover", std::to_string(reported));
  RecordProperty("lost_amended", std::to_string(lost));
}

TEST_F(DaemonPair, AShipmentWhoseManifestNeverComesTimesOut) { shipment_fails("stall", "manifest never arrived"); }

TEST_F(DaemonPair, AServiceKilledWhileWritingItsSnapshotFailsTheGsyncWithAReason) {
  start_daemon(1, "active");
  start_daemon(2, "standby");
  start_service(1, "active", {ServiceSpec{20, true}});
  ASSERT_TRUE(wait_up(1));
  start_service(2, "standby", {});
  ASSERT_TRUE(wait_up(2));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (g_shared->in_snapshot[1] == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(g_shared->in_snapshot[1], 1);
  kill(services_[1], SIGKILL), waitpid(services_[1], nullptr, 0), services_[1] = -1;
  json st;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["gsync"]["failed"] == 1; }, kWaitMs, &st));
  const std::string error = st["gsync"]["last_error"];
  EXPECT_NE(error.find("went away"), std::string::npos) << error;
  // The old active's daemon counts the service's end as a crash.
  const json facts = status(1)["restart_facts"];
  ASSERT_EQ(facts.size(), 1u);
  EXPECT_EQ(facts[0]["last_stop"], "crash");
}

TEST_F(DaemonPair, ARegsyncAndAPlannedSwitchoverMoveTheActiveRoleWithNothingLost) {
  start_daemon(1, "active");
  start_daemon(2, "standby");
  start_service(1, "active", {100});
  ASSERT_TRUE(wait_up(1));
  start_service(2, "standby", {});
  ASSERT_TRUE(wait_up(2));
  ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  json st, out;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, caught_up(sync_messages(100, false)), kWaitMs, &st)) << st.dump();
  // A second gsync asked of the standby's daemon rebuilds the running copies.
  EXPECT_EQ(pk::daemon_command(base_.path(), 1, "gsync", &out), 1) << "only a standby is rebuilt";
  ASSERT_EQ(pk::daemon_command(base_.path(), 2, "gsync", &out), 0) << out.dump();
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["gsync"]["done"] == 2; }, kWaitMs, &st))
      << st.dump();
  ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  EXPECT_EQ(pk::daemon_command(base_.path(), 2, "switchover", &out), 1) << "only the active steps down";
  ASSERT_EQ(pk::daemon_command(base_.path(), 1, "switchover", &out), 0) << out.dump();
  ASSERT_TRUE(wait_state(2, HADRA_HA_ACTIVE));
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return j["role"] == "active"; }, kWaitMs, &st));
  EXPECT_EQ(st["loss_report"]["lost"], 0) << st["loss_report"].dump();
  EXPECT_EQ(status(1)["role"], "standby");
  EXPECT_EQ(pk::compare_dumps(pk::dump_root(pk::root_of(base_.path(), 1), {"run"}),
                              pk::dump_root(pk::root_of(base_.path(), 2), {"run"}), "sup1", "sup2"),
            "");
}

// A takeover goes on without a service that does not answer, or dies, with a note of it.
TEST_F(DaemonPair, ATakeoverGoesOnWithoutAServiceThatStopsAnswering) {
  start_daemon(1, "active");
  start_daemon(2, "standby", {{"SWITCHOVER_TIMEOUT_MS", "60000"}});
  start_service(1, "active", {20});
  ASSERT_TRUE(wait_up(1));
  ServiceSpec stalls;
  stalls.stall_switchover = true;
  start_service(2, "standby", stalls);
  ASSERT_TRUE(wait_up(2));
  ASSERT_TRUE(wait_state(2, HADRA_HA_STANDBY));
  kill_supervisor(1);
  json st, out;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return !j["peer"]["up"]; }, kWaitMs, &st));
  ASSERT_EQ(pk::daemon_command(base_.path(), 2, "takeover", &out), 0) << out.dump();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
  while (g_shared->in_snapshot[2] != 2 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(g_shared->in_snapshot[2], 2);  // inside its hook
  EXPECT_TRUE(status(2)["switchover"]["running"]);
  kill(services_[2], SIGKILL), waitpid(services_[2], nullptr, 0), services_[2] = -1;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, [](const json& j) { return !j["switchover"]["running"]; }, kWaitMs,
                              &st));
  ASSERT_EQ(st["switchover"]["notes"].size(), 1u) << st.dump();
  EXPECT_NE(st["switchover"]["notes"][0].get<std::string>().find("died"), std::string::npos);
  EXPECT_EQ(st["role"], "active");
}

// The start reason comes from what the daemon saw: a first start, a controlled stop (the
// service said bye), a crash (it went away without one), across a restart of the daemon too.
TEST_F(DaemonPair, StartReasonsFollowHowTheServiceLastStopped) {
  start_daemon(1, "active");
  auto run_once = [&](bool crash) {
    g_shared->up[1] = 0;
    pk::Signal stop;
    start_service(1, "active", {1}, nullptr, &stop);
    EXPECT_TRUE(wait_up(1));
    // A kill before the daemon saw the service's hello would look like no start at all.
    EXPECT_TRUE(wait_listed(1));
    if (crash) {
      kill(services_[1], SIGKILL), waitpid(services_[1], nullptr, 0);
    } else {
      stop.raise();
      std::string why;
      EXPECT_TRUE(pk::wait_children({services_[1]}, kWaitMs, &why)) << why;
    }
    services_[1] = -1;
    return g_shared->start_reason[1];
  };
  EXPECT_EQ(run_once(false), 3u);  // configuration: the first start
  EXPECT_EQ(run_once(true), 2u);   // after a controlled stop
  EXPECT_EQ(run_once(false), 1u);  // after the crash
  ASSERT_EQ(pk::stop_daemon(daemons_[1], 3000), 0);
  start_daemon(1, "active");
  EXPECT_EQ(run_once(false), 2u);  // the facts outlived the daemon
}

TEST_F(DaemonPair, TheConfigurationWriteReplacesTheStartupAreaOnlyWhenEveryServiceWrote) {
  start_daemon(1, "active", {{"CFG_TIMEOUT_MS", "1500"}});
  pk::Signal stop;
  start_service(1, "active", {10}, nullptr, &stop);
  ASSERT_TRUE(wait_up(1));
  const std::string startup = pk::root_of(base_.path(), 1) + "/startup";
  json out;
  ASSERT_EQ(pk::daemon_command(base_.path(), 1, "config-save", &out), 0) << out.dump();
  ASSERT_TRUE(fs::is_directory(startup));
  EXPECT_TRUE(fs::exists(startup + "/e2e-service_routes.cfg"));
  std::ofstream(startup + "/marker") << "first";
  // A service that no longer answers: the write fails and the startup area stays as it was.
  kill(services_[1], SIGSTOP);
  EXPECT_EQ(pk::daemon_command(base_.path(), 1, "config-save", &out), 1);
  EXPECT_NE(out["failures"][0].get<std::string>().find("no answer"), std::string::npos) << out.dump();
  EXPECT_TRUE(fs::exists(startup + "/marker"));
  for (const auto& e : fs::directory_iterator(pk::root_of(base_.path(), 1) + "/stage")) ADD_FAILURE() << e.path();
  kill(services_[1], SIGCONT);
}

}  // namespace
