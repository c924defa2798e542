// The active never waits on its standby, and a standby that missed changes never passes for a
// good copy. Two supervisors run by their daemons, real services over ZeroMQ: the standby's
// service is absent, stopped (SIGSTOP) or slow while the active makes 10,000 changes. Each
// run checks that every change was made, that the active's daemon shows the standby behind,
// and that once the standby reads again it is brought back (by the daemons, nothing here asks)
// to a copy equal to the active's, record by record. How fast the active went is measured by
// the benchmark (bench/stream_bench.cc), not here.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>
#include <thread>

#include "hadra/hadra.h"
#include "hadra_platform/mts.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform/sysmgr_client.h"
#include "pairkit/daemons.h"
#include "pairkit/store_dump.h"
#include "pairkit/two_sup.h"

namespace {

namespace pk = hadra::pairkit;
using nlohmann::json;

constexpr uint32_t kSap = 3611;
constexpr uint32_t kSyncOpc = 6521;
constexpr uint32_t kUuid = 0x5e2;
constexpr int kWaitMs = 60000;
constexpr int kChanges = 10000;
constexpr uint8_t kRoutes = 1;

// What the service processes publish, in a page shared across fork.
struct Shared {
  int up[3];
  int written[3];  // changes made by the active, once all are made
  uint32_t state[3];
};
Shared* g_shared = nullptr;

struct ServicePlan {
  int slot = 1;
  int slow_us = 0;  // the standby pauses this long after each sync message
};

// The service: attach, initialise; when go is raised (active) make kChanges changes at once;
// run the receive loop until stop.
int run_service(const ServicePlan& plan, pk::Signal* go, pk::Signal* stop) {
  if (mts_bind(kSap) != 0) return 10;
  (void)sysmgr_client_attach(kSap, "stream-service");
  if (hadra_ha_register_pss(kRoutes, "routes") == nullptr) return 11;
  hadra_ha_handle_t rec{};
  rec.uuid = kUuid;
  rec.sap = kSap;
  rec.opcode = kSyncOpc;
  std::snprintf(rec.name, sizeof rec.name, "stream-service");
  if (hadra_ha_api_init(&rec) != 1) return 12;
  g_shared->up[plan.slot] = 1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(150);
  while (std::chrono::steady_clock::now() < deadline) {
    mts_msg_ref other;
    const int kind = sysmgr_client_next(kSap, 20, &other);
    if (kind == SYSMGR_RX_OTHER) mts_drop(kSap, &other);
    if (kind < 0) return 14;
    if (kind == SYSMGR_RX_SYNC && plan.slow_us != 0) std::this_thread::sleep_for(std::chrono::microseconds(plan.slow_us));
    if (go != nullptr && go->wait(0)) {
      for (int i = 0; i < kChanges; ++i) {
        const std::string k = "k" + std::to_string(i % 2000), v = "value " + std::to_string(i);
        if (hadra_pss_update(&hadra_ha_pss[kRoutes], k.data(), static_cast<uint32_t>(k.size()), v.data(),
                             static_cast<uint32_t>(v.size())) != 1)
          return 15;
      }
      g_shared->written[plan.slot] = kChanges;
    }
    g_shared->state[plan.slot] = hadra_ha_pss[kRoutes].state;
    if (stop != nullptr && stop->wait(0)) break;
  }
  (void)sysmgr_client_detach();
  return 0;
}

// The standby's daemon sees every change the active reported applied, in step.
auto converged(uint64_t want) {
  return [want](const json& st) {
    if (st["peer_reported"].empty() || st["services"].empty()) return false;
    const json& svc = st["services"][0];
    uint64_t applied = 0;
    for (const json& d : svc["databases"]) applied += d["applied"].get<uint64_t>();
    return st["peer_reported"][0]["sent"] == want && applied == want && svc.contains("stream") &&
           !svc["stream"]["out_of_sync"].get<bool>();
  };
}

class StreamPair : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(base_.path().empty());
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = static_cast<Shared*>(page);
    for (int slot = 1; slot <= 2; ++slot) {
      std::string why;
      daemons_[slot] = pk::start_daemon(base_.path(), slot, slot == 1 ? "active" : "standby",
                                        {{"RESYNC_STALL_MS", "500"}}, 10000, &why);
      ASSERT_GT(daemons_[slot], 0) << why;
    }
  }
  void TearDown() override {
    for (pid_t p : services_)
      if (p > 0) kill(p, SIGCONT), kill(p, SIGKILL), waitpid(p, nullptr, 0);
    for (pid_t d : daemons_)
      if (d > 0) pk::stop_daemon(d, 3000);
    munmap(g_shared, sizeof(Shared));
  }

  void start_service(int slot, ServicePlan plan, pk::Signal* go, pk::Signal* stop,
                     std::vector<std::pair<std::string, std::string>> extra = {}) {
    plan.slot = slot;
    extra.emplace_back("UUID", std::to_string(kUuid));
    pk::Supervisor sup{base_.path(), slot, slot == 1 ? "active" : "standby", extra, true};
    services_[slot] = pk::spawn(sup, [plan, go, stop] { return run_service(plan, go, stop); });
    ASSERT_GT(services_[slot], 0);
  }

  bool wait_for(const std::function<bool()>& pred, int ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < deadline) {
      if (pred()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pred();
  }

  json status(int slot) {
    json j;
    EXPECT_EQ(pk::daemon_command(base_.path(), slot, "status", &j), 0);
    return j;
  }

  // The active makes its changes and they all finish; the daemon of slot shows the stream
  // broken: frames that did not leave (the active's), or a copy out of sync (the standby's).
  void changes_finish_and_stream_breaks(pk::Signal& go, int slot) {
    go.raise();
    ASSERT_TRUE(wait_for([] { return g_shared->written[1] == kChanges; })) << "the active's changes did not finish";
    const char* field = slot == 1 ? "sends_missed" : "resyncs";
    json st;
    EXPECT_TRUE(pk::wait_status(base_.path(), slot, [field](const json& j) {
      return !j["services"].empty() && j["services"][0].contains("stream") &&
             j["services"][0]["stream"][field].get<uint64_t>() > 0;
    }, kWaitMs, &st)) << st.dump();
  }

  // The standby catches up by itself; then both copies hold the same records.
  void converges_to_the_same_copy(pk::Signal& stop1, pk::Signal& stop2) {
    json st;
    ASSERT_TRUE(pk::wait_status(base_.path(), 2, converged(kChanges), kWaitMs, &st)) << st.dump();
    stop1.raise();
    stop2.raise();
    std::string why;
    EXPECT_TRUE(pk::wait_children({services_[1], services_[2]}, kWaitMs, &why)) << why;
    services_[1] = services_[2] = -1;
    const auto d1 = pk::dump_root(pk::root_of(base_.path(), 1), {"run"});
    const auto d2 = pk::dump_root(pk::root_of(base_.path(), 2), {"run"});
    EXPECT_EQ(pk::record_count(d1), 2000u);
    EXPECT_EQ(pk::compare_dumps(d1, d2, "sup1", "sup2"), "");
  }

  pk::BaseDir base_{"/tmp/hadra-st-XXXXXX"};
  pid_t daemons_[3] = {-1, -1, -1};
  pid_t services_[3] = {-1, -1, -1};
};

// The active's queue to the peer holds MTS_HWM messages, and its changes travel in groups of
// up to 256: with 10, the 10000 changes cannot all wait in it for an absent or stopped standby.
const std::vector<std::pair<std::string, std::string>> kSmallQueue = {{"MTS_HWM", "10"}};

TEST_F(StreamPair, StandbyAbsentTheActiveFinishesAndTheLateStandbyGetsEverything) {
  pk::Signal go, stop1, stop2;
  start_service(1, {}, &go, &stop1, kSmallQueue);
  ASSERT_TRUE(wait_for([] { return g_shared->up[1] != 0; }));
  changes_finish_and_stream_breaks(go, 1);
  start_service(2, {}, nullptr, &stop2);
  converges_to_the_same_copy(stop1, stop2);
}

TEST_F(StreamPair, StandbyStoppedTheActiveFinishesAndTheResumedStandbyIsBroughtBack) {
  pk::Signal go, stop1, stop2;
  start_service(1, {}, &go, &stop1, kSmallQueue);
  ASSERT_TRUE(wait_for([] { return g_shared->up[1] != 0; }));
  start_service(2, {}, nullptr, &stop2);
  ASSERT_TRUE(wait_for([] { return g_shared->state[2] == HADRA_HA_STANDBY; })) << status(2).dump();
  ASSERT_EQ(kill(services_[2], SIGSTOP), 0);
  changes_finish_and_stream_breaks(go, 1);
  ASSERT_EQ(kill(services_[2], SIGCONT), 0);
  converges_to_the_same_copy(stop1, stop2);
  EXPECT_GE(status(2)["gsync"]["done"].get<int>(), 2);  // the start, then the resync
}

TEST_F(StreamPair, StandbySlowTheActiveFinishesAndTheStandbyResynchronises) {
  pk::Signal go, stop1, stop2;
  start_service(1, {}, &go, &stop1);
  ASSERT_TRUE(wait_for([] { return g_shared->up[1] != 0; }));
  // A standby that reads 500 messages a second, with room for 500 queued: it drops what does
  // not fit and notices.
  start_service(2, {0, 2000}, nullptr, &stop2, {{"MTS_RX_QUEUE_MAX", "500"}});
  ASSERT_TRUE(wait_for([] { return g_shared->state[2] == HADRA_HA_STANDBY; })) << status(2).dump();
  changes_finish_and_stream_breaks(go, 2);
  converges_to_the_same_copy(stop1, stop2);
}

// A standby that takes one change at a time and pauses after each keeps up over time, but
// not with a burst: its queue stops at MTS_RX_HOLD and the rest waits in the link and in the
// active's queue, which has room for all of it. Nothing is lost on the way: the standby ends
// with every change, without a resync.
TEST_F(StreamPair, StandbyBehindWithRoomInTheLinkCatchesUpWithoutAResync) {
  pk::Signal go, stop1, stop2;
  start_service(1, {}, &go, &stop1);
  ASSERT_TRUE(wait_for([] { return g_shared->up[1] != 0; }));
  start_service(2, {0, 100}, nullptr, &stop2, {{"SYNC_APPLY_BATCH", "1"}});
  ASSERT_TRUE(wait_for([] { return g_shared->state[2] == HADRA_HA_STANDBY; })) << status(2).dump();
  go.raise();
  ASSERT_TRUE(wait_for([] { return g_shared->written[1] == kChanges; })) << "the active's changes did not finish";
  json st;
  ASSERT_TRUE(pk::wait_status(base_.path(), 2, converged(kChanges), kWaitMs, &st)) << st.dump();
  EXPECT_EQ(st["services"][0]["stream"]["resyncs"].get<uint64_t>(), 0u) << st.dump();
  EXPECT_EQ(st["gsync"]["done"].get<int>(), 1) << st.dump();  // the one at the start
  EXPECT_EQ(status(1)["services"][0]["stream"]["sends_missed"].get<uint64_t>(), 0u);
  converges_to_the_same_copy(stop1, stop2);
}

}  // namespace
