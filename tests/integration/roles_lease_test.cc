// The lease role source on one host: two daemons with ROLE_SOURCE lease, a real service on
// each. kill -9 of the active's daemon, and separately of the active's service, moves the
// role to the standby; the old active comes back as standby, is rebuilt by gsync and holds
// the same records as the new active after further changes. Throughout, at most one live
// service is active, and the lease's holder is the daemon that says it is active.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "pairkit/daemons.h"
#include "pairkit/store_dump.h"
#include "roles_service.h"

namespace {

using namespace roles_test;
using nlohmann::json;

class LeasePair : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(base_.path().empty());
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = static_cast<Shared*>(page);
    lease_ = base_.path() + "/hadra-pair.lease";
  }
  void TearDown() override {
    for (pid_t& p : services_)
      if (p > 0) kill(p, SIGKILL), waitpid(p, nullptr, 0);
    for (pid_t& d : daemons_)
      if (d > 0) pk::stop_daemon(d, 3000);
    munmap(g_shared, sizeof(Shared));
  }

  void start_daemon(int slot) {
    std::string why;
    daemons_[slot] = pk::start_daemon(base_.path(), slot, "standby",
                                      {{"ROLE_SOURCE", "lease"}, {"LEASE_POLL_MS", "50"}, {"FENCE_MS", "500"}},
                                      10000, &why);
    ASSERT_GT(daemons_[slot], 0) << why;
  }

  void start_service(int slot) {
    g_shared->up[slot] = 0;
    g_shared->state[slot][1] = g_shared->state[slot][2] = 0;
    // The setting says active: the daemon's role (its state file) decides.
    pk::Supervisor sup{base_.path(), slot, "active", {{"UUID", std::to_string(kUuid)}, {"MTS_HWM", "5000"}}, true};
    pk::Signal* live = &live_[slot];
    pk::Signal* stop = &stop_[slot];
    services_[slot] = pk::spawn(sup, [slot, live, stop] {
      g_slot = slot;
      return run_service(live, stop);
    });
    ASSERT_GT(services_[slot], 0);
  }

  // Reaps services that ended (fenced, killed); true while slot's service runs.
  bool alive(int slot) {
    if (services_[slot] > 0 && waitpid(services_[slot], nullptr, WNOHANG) == services_[slot]) services_[slot] = -1;
    return services_[slot] > 0;
  }

  bool is_active(int slot) const {
    return g_shared->state[slot][1] == HADRA_HA_ACTIVE && g_shared->state[slot][2] == HADRA_HA_ACTIVE;
  }

  pid_t lease_holder() const {
    const int fd = open(lease_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    struct flock q {};
    q.l_type = F_WRLCK;
    q.l_whence = SEEK_SET;
    const pid_t pid = fcntl(fd, F_GETLK, &q) == 0 && q.l_type != F_UNLCK ? q.l_pid : 0;
    close(fd);
    return pid;
  }

  // Never two writers: the states are read first, the processes' lives after, so a service
  // counted here was alive while it said it was active.
  void check_one_active() {
    const bool a1 = is_active(1), a2 = is_active(2);
    const bool both = a1 && a2 && alive(1) && alive(2);
    ASSERT_FALSE(both) << "both services are active";
    const pid_t holder = lease_holder();
    ASSERT_TRUE(holder == 0 || holder == daemons_[1] || holder == daemons_[2]) << "lease held by pid " << holder;
  }

  // Polls cond until it holds (true) or kWaitMs passes, checking the pair all along.
  bool until(const std::function<bool()>& cond) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kWaitMs);
    while (Clock::now() < deadline) {
      check_one_active();
      if (::testing::Test::HasFatalFailure()) return false;
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

  bool standby_in_sync(int slot) {
    return alive(slot) && g_shared->up[slot] != 0 && g_shared->state[slot][1] == HADRA_HA_STANDBY &&
           g_shared->state[slot][2] == HADRA_HA_STANDBY;
  }

  // The pair as the test starts it: slot 1 takes the lease first, slot 2 waits; slot 1's
  // service writes, slot 2's is rebuilt by gsync.
  void start_pair() {
    start_daemon(1);
    if (HasFatalFailure()) return;
    start_daemon(2);
    if (HasFatalFailure()) return;
    EXPECT_EQ(status(1)["role"], "active");
    EXPECT_EQ(status(2)["role"], "standby");
    EXPECT_EQ(lease_holder(), daemons_[1]);
    start_service(1);
    ASSERT_TRUE(until([&] { return g_shared->up[1] != 0 && is_active(1); }));
    start_service(2);
    ASSERT_TRUE(until([&] { return standby_in_sync(2); })) << status(2).dump();
  }

  // After the role moved to slot 2: slot 1 comes back as standby and converges by gsync, then
  // the new active's changes reach it; both copies hold the same records.
  void old_active_rejoins(bool restart_daemon) {
    if (restart_daemon) {
      start_daemon(1);
      if (HasFatalFailure()) return;
    }
    json st;
    ASSERT_TRUE(pk::wait_status(base_.path(), 1, [](const json& j) { return j["role"] == "standby"; }, kWaitMs, &st))
        << st.dump();
    EXPECT_EQ(lease_holder(), daemons_[2]);
    start_service(1);
    ASSERT_TRUE(until([&] { return standby_in_sync(1); })) << status(1).dump();
    live_[2].raise();
    // Converged: what the new active reported is what the standby applied.
    ASSERT_TRUE(pk::wait_status(base_.path(), 1,
                                [](const json& j) {
                                  if (j["peer_reported"].empty() || j["services"].empty()) return false;
                                  uint64_t applied = 0;
                                  for (const json& d : j["services"][0]["databases"]) applied += d["applied"].get<uint64_t>();
                                  return j["peer_reported"][0]["sent"].get<uint64_t>() == applied && applied >= 2 * kRecords;
                                },
                                kWaitMs, &st))
        << st.dump();
    ASSERT_TRUE(until([&] { return true; }));
    stop_[1].raise();
    stop_[2].raise();
    std::string why;
    EXPECT_TRUE(pk::wait_children({services_[1], services_[2]}, kWaitMs, &why)) << why;
    services_[1] = services_[2] = -1;
    const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
    const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
    EXPECT_GE(pk::record_count(d2), 2u * 2 * kRecords);
    EXPECT_EQ(pk::compare_dumps(d2, d1, "new active", "old active"), "");
  }

  pk::BaseDir base_{"/tmp/hadra-lease-XXXXXX"};
  std::string lease_;
  pk::Signal live_[3], stop_[3];
  pid_t daemons_[3] = {-1, -1, -1};
  pid_t services_[3] = {-1, -1, -1};
};

TEST_F(LeasePair, KillOfTheActiveDaemonMovesTheRoleAndTheOldActiveRejoinsAsStandby) {
  start_pair();
  if (HasFatalFailure()) return;
  kill(daemons_[1], SIGKILL), waitpid(daemons_[1], nullptr, 0), daemons_[1] = -1;
  // The new holder stops the dead daemon's service before its own becomes active.
  ASSERT_TRUE(until([&] { return !alive(1) && is_active(2); })) << status(2).dump();
  const json st = status(2);
  EXPECT_EQ(st["role"], "active");
  EXPECT_EQ(lease_holder(), daemons_[2]);
  EXPECT_EQ(st["role_source"]["services_stopped"], 1) << st.dump();
  EXPECT_EQ(st["loss_report"]["lost"], 0) << st["loss_report"].dump();
  old_active_rejoins(true);
}

TEST_F(LeasePair, KillOfTheActiveServiceMovesTheRoleAndItRestartsAsStandby) {
  start_pair();
  if (HasFatalFailure()) return;
  kill(services_[1], SIGKILL), waitpid(services_[1], nullptr, 0), services_[1] = -1;
  ASSERT_TRUE(until([&] { return is_active(2); })) << status(2).dump();
  EXPECT_EQ(lease_holder(), daemons_[2]);
  EXPECT_NE(status(1)["role_source"]["last_change"].get<std::string>().find("died"), std::string::npos);
  old_active_rejoins(false);
}

// A planned switchover gives the lease to the peer and stops the old active's service.
TEST_F(LeasePair, APlannedSwitchoverHandsTheLeaseOverAndStopsTheOldActivesService) {
  start_pair();
  if (HasFatalFailure()) return;
  json out;
  ASSERT_EQ(pk::daemon_command(base_.path(), 1, "switchover", &out), 0) << out.dump();
  ASSERT_TRUE(until([&] { return !alive(1) && is_active(2); })) << status(2).dump();
  EXPECT_EQ(lease_holder(), daemons_[2]);
  EXPECT_EQ(pk::daemon_command(base_.path(), 1, "takeover", &out), 1) << "the lease is the peer's";
  old_active_rejoins(false);
}

}  // namespace
