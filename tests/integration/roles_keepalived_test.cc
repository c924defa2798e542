// The keepalived role source on two hosts: each supervisor in a network namespace of its own,
// the two linked through a bridge in a third (the HA link, private addresses only), one
// keepalived each (unicast peers, its configuration, pid files and notify script in a temporary
// directory), daemons with ROLE_SOURCE keepalived following them through the notify script.
// Stopping the active's keepalived, and separately cutting the active's side of the link, moves
// the role: the old active's service is stopped, the new active's takes over, never both
// active, and the new active holds every change the loss report does not list.
//
// Runs as root; skips with the reason where namespaces, bridges or keepalived are not there.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "pairkit/daemons.h"
#include "pairkit/store_dump.h"
#include "roles_service.h"

#ifndef HADRA_SOURCE_DIR
#error "HADRA_SOURCE_DIR names the source tree (for the notify script)"
#endif

namespace {

using namespace roles_test;
using nlohmann::json;
namespace fs = std::filesystem;

bool run(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

// h1 and h2 are the hosts; "link" holds the bridge both hosts' cables plug into, so that one
// host's cable can be pulled while the other still sees its own link up.
class Hosts {
 public:
  Hosts() {
    if (geteuid() != 0) {
      why_ = "needs root to make network namespaces";
      return;
    }
    if (!run("command -v keepalived")) {
      why_ = "keepalived is not installed";
      return;
    }
    const std::string tag = std::to_string(getpid());
    for (int s = 0; s <= 2; ++s) ns_[s] = "hadra-ka-" + tag + "-" + std::to_string(s);
    net_ = "10.233." + std::to_string(getpid() % 250) + ".";
    const std::string& br = ns_[0];
    ok_ = run("ip netns add " + ns_[0]) && run("ip netns add " + ns_[1]) && run("ip netns add " + ns_[2]) &&
          run("ip -n " + br + " link add hbr type bridge") && run("ip -n " + br + " link set hbr up");
    for (int s = 1; s <= 2 && ok_; ++s) {
      const std::string port = "p" + std::to_string(s);
      ok_ = run("ip link add eth0 netns " + ns_[s] + " type veth peer name " + port + " netns " + br) &&
            run("ip -n " + br + " link set " + port + " master hbr") && run("ip -n " + br + " link set " + port + " up") &&
            run("ip -n " + ns_[s] + " addr add " + address(s) + "/24 dev eth0") &&
            run("ip -n " + ns_[s] + " link set eth0 up") && run("ip -n " + ns_[s] + " link set lo up");
    }
    if (!ok_) why_ = "network namespaces, veth pairs or bridges are not available here";
  }
  ~Hosts() {
    for (const std::string& n : ns_)
      if (!n.empty()) run("ip netns del " + n);  // the veth pairs and the bridge go with them
  }
  bool ok() const { return ok_; }
  const std::string& why() const { return why_; }
  const std::string& ns(int slot) const { return ns_[slot]; }
  std::string address(int slot) const { return net_ + std::to_string(slot); }
  // Pulls host slot's cable out of the bridge: its side of the link goes down, the other's
  // stays up.
  bool cut(int slot) const { return run("ip -n " + ns_[0] + " link set p" + std::to_string(slot) + " down"); }

 private:
  std::string ns_[3], net_, why_;
  bool ok_ = false;
};

class KeepalivedPair : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(base_.path().empty());
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = static_cast<Shared*>(page);
    if (!hosts_.ok()) return;
    // keepalived runs scripts only from paths no other user can change.
    notify_ = base_.path() + "/hadra-notify";
    fs::copy_file(std::string(HADRA_SOURCE_DIR) + "/dist/keepalived/hadra-notify", notify_);
    chmod(notify_.c_str(), 0755);
    chmod(base_.path().c_str(), 0755);
    for (int s = 1; s <= 2; ++s) {
      net_[s] = {{"MTS_LOCAL", "tcp://" + hosts_.address(s) + ":{port}"},
                 {"MTS_PEER", "tcp://" + hosts_.address(3 - s) + ":{port}"}};
      pk::use_netns(s, hosts_.ns(s), net_[s]);
    }
  }
  void TearDown() override {
    for (int s = 1; s <= 2; ++s) stop_keepalived(s);
    for (pid_t& p : services_)
      if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    for (pid_t& d : daemons_)
      if (d > 0) pk::stop_daemon(d, 3000);
    pk::use_netns(1, "");
    pk::use_netns(2, "");
    munmap(g_shared, sizeof(Shared));
  }

  std::string file(int slot, const char* what) const { return base_.path() + "/ka" + std::to_string(slot) + what; }

  void start_keepalived(int slot) {
    const std::string root = pk::root_of(base_.path(), slot);
    std::ofstream conf(file(slot, ".conf"));
    conf << "global_defs {\n  enable_script_security\n  script_user root\n  vrrp_version 3\n}\n"
         << "vrrp_instance hadra {\n  state BACKUP\n  nopreempt\n  interface eth0\n  virtual_router_id 51\n"
         << "  priority 100\n  advert_int 0.2\n  unicast_src_ip " << hosts_.address(slot) << "\n"
         << "  unicast_peer {\n    " << hosts_.address(3 - slot) << "\n  }\n"
         << "  virtual_ipaddress {\n    " << hosts_.address(100) << "/24 dev eth0\n  }\n"
         << "  notify \"" << notify_ << " --bin " << pk::sysmgrd_path() << " " << root << "\"\n}\n";
    conf.close();
    const std::string cmd = "ip netns exec " + hosts_.ns(slot) + " keepalived --vrrp -f " + file(slot, ".conf") +
                            " -p " + file(slot, ".pid") + " -r " + file(slot, ".vrrp.pid") + " -c " +
                            file(slot, ".checkers.pid") + " -D -l >" + file(slot, ".log") + " 2>&1";
    ASSERT_TRUE(run(cmd)) << "keepalived did not start: see " << file(slot, ".log");
    keepalived_[slot] = true;
  }

  void stop_keepalived(int slot) {
    if (!keepalived_[slot]) return;
    std::ifstream in(file(slot, ".pid"));
    pid_t pid = 0;
    in >> pid;
    if (pid > 0) {
      kill(pid, SIGTERM);
      for (int i = 0; i < 300 && kill(pid, 0) == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      if (kill(pid, 0) == 0) kill(pid, SIGKILL);
    }
    keepalived_[slot] = false;
  }

  void start_daemon(int slot) {
    std::string why;
    auto extra = net_[slot];
    extra.push_back({"ROLE_SOURCE", "keepalived"});
    extra.push_back({"FENCE_MS", "500"});
    daemons_[slot] = pk::start_daemon(base_.path(), slot, "standby", extra, 10000, &why);
    ASSERT_GT(daemons_[slot], 0) << why;
  }

  void start_service(int slot) {
    pk::Supervisor sup{base_.path(), slot, "standby", {{"UUID", std::to_string(kUuid)}, {"MTS_HWM", "5000"}}, true};
    sup.extra.insert(sup.extra.end(), net_[slot].begin(), net_[slot].end());
    pk::Signal* live = &live_[slot];
    pk::Signal* stop = &stop_[slot];
    services_[slot] = pk::spawn(sup, [slot, live, stop] {
      g_slot = slot;
      return run_service(live, stop);
    });
    ASSERT_GT(services_[slot], 0);
  }

  bool alive(int slot) {
    if (services_[slot] > 0 && waitpid(services_[slot], nullptr, WNOHANG) == services_[slot]) services_[slot] = -1;
    return services_[slot] > 0;
  }
  bool in_state(int slot, uint32_t st) const { return g_shared->state[slot][1] == st && g_shared->state[slot][2] == st; }

  // Polls cond for at most kWaitMs; never two live active services meanwhile.
  bool until(const std::function<bool()>& cond) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    while (Clock::now() < deadline) {
      const bool a1 = in_state(1, HADRA_HA_ACTIVE), a2 = in_state(2, HADRA_HA_ACTIVE);
      EXPECT_FALSE(a1 && a2 && alive(1) && alive(2)) << "both services are active";
      if (cond()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  json status(int slot) {
    json j;
    EXPECT_EQ(pk::daemon_command(base_.path(), slot, "status", &j), 0);
    return j;
  }

  // Both daemons, keepalived 1 then 2 (slot 1 wins the first election and keeps the role: both
  // are nopreempt backups), slot 1's service writes, slot 2's is rebuilt by gsync.
  void start_pair() {
    start_daemon(1);
    start_daemon(2);
    if (HasFatalFailure()) return;
    start_keepalived(1);
    if (HasFatalFailure()) return;
    json st;
    ASSERT_TRUE(pk::wait_status(base_.path(), 1, [](const json& j) { return j["role"] == "active"; }, kWaitMs, &st))
        << st.dump();
    start_keepalived(2);
    if (HasFatalFailure()) return;
    start_service(1);
    ASSERT_TRUE(until([&] { return g_shared->up[1] != 0 && in_state(1, HADRA_HA_ACTIVE); }));
    start_service(2);
    ASSERT_TRUE(until([&] { return g_shared->up[2] != 0 && in_state(2, HADRA_HA_STANDBY); })) << status(2).dump();
    EXPECT_EQ(status(2)["role"], "standby");
  }

  // After the role moved: the old active's service was stopped, the new one is active, and
  // its copies hold everything the old active wrote except what the loss report lists.
  void role_moved_to_2() {
    ASSERT_TRUE(until([&] { return !alive(1) && in_state(2, HADRA_HA_ACTIVE); })) << status(2).dump();
    const json st = status(2);
    EXPECT_EQ(st["role"], "active");
    EXPECT_EQ(st["role_source"]["source"], "keepalived");
    ASSERT_TRUE(st["loss_report"]["known"]) << st.dump();
    const uint64_t lost = st["loss_report"]["lost"];
    stop_[2].raise();
    std::string why;
    EXPECT_TRUE(pk::wait_children({services_[2]}, kWaitMs, &why)) << why;
    services_[2] = -1;
    const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
    const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
    EXPECT_GE(pk::record_count(d1), 2u * kRecords);
    if (lost == 0)
      EXPECT_EQ(pk::compare_dumps(d1, d2, "old active", "new active"), "");
    else
      EXPECT_GE(pk::record_count(d2) + lost, pk::record_count(d1)) << st["loss_report"].dump();
  }

  Hosts hosts_;
  pk::BaseDir base_{"/tmp/hadra-ka-XXXXXX"};
  std::string notify_;
  std::vector<std::pair<std::string, std::string>> net_[3];
  bool keepalived_[3] = {false, false, false};
  pk::Signal live_[3], stop_[3];
  pid_t daemons_[3] = {-1, -1, -1};
  pid_t services_[3] = {-1, -1, -1};
};

TEST_F(KeepalivedPair, StoppingTheActivesKeepalivedMovesTheRole) {
  if (!hosts_.ok()) GTEST_SKIP() << "keepalived pair skipped: " << hosts_.why();
  start_pair();
  if (HasFatalFailure()) return;
  stop_keepalived(1);
  role_moved_to_2();
  EXPECT_EQ(status(1)["role"], "standby");
}

TEST_F(KeepalivedPair, CuttingTheActivesLinkMovesTheRole) {
  if (!hosts_.ok()) GTEST_SKIP() << "keepalived pair skipped: " << hosts_.why();
  start_pair();
  if (HasFatalFailure()) return;
  ASSERT_TRUE(hosts_.cut(1));
  role_moved_to_2();
  // Its keepalived saw the fault: it stays standby while cut off.
  EXPECT_EQ(status(1)["role"], "standby");
}

}  // namespace
