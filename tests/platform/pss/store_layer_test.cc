// The layer beneath both stores: the durability setting, blocks allocated ahead of the
// writable map, and failures of LMDB's own calls (through the seam), for PSS files and SDBs.
#include <lmdb.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/lmdb_store.h"
#include "hadra_platform/config.h"
#include "hadra_platform/sdb.h"
#include "pss/store.h"
#include "tests/platform/pss/pss_support.h"

namespace hadra::test {
namespace {

namespace plat = hadra::plat;

// Seam replacements. The failing commit aborts the transaction as LMDB's commit frees it
// whatever its result.
std::atomic<int> g_commits{0}, g_fail_at{-1}, g_fail_rc{0}, g_syncs{0}, g_fallocate_rc{0};
int counting_commit(MDB_txn* txn) {
  if (g_commits++ == g_fail_at) {
    mdb_txn_abort(txn);
    return g_fail_rc;
  }
  return mdb_txn_commit(txn);
}
int counting_sync(MDB_env* env, int force) {
  ++g_syncs;
  return mdb_env_sync(env, force);
}
int failing_sync(MDB_env*, int) { return EIO; }
int full_disk(int, off_t, off_t) { return g_fallocate_rc; }

class StoreLayerTest : public PssTest {
 protected:
  void SetUp() override {
    PssTest::SetUp();
    g_commits = 0;
    g_fail_at = -1;
    g_syncs = 0;
    plat::lmdb_ops().txn_commit = counting_commit;
    plat::lmdb_ops().env_sync = counting_sync;
  }
  void TearDown() override {
    plat::reset_lmdb_ops();
    for (const char* k : {"HADRA_DURABILITY", "HADRA_DURABILITY_DELAY_MS", "HADRA_STORE_WRITEMAP"}) unsetenv(k);
    plat_config_reload();
    PssTest::TearDown();
  }
  static void set(const char* key, const char* value) {
    setenv(key, value, 1);
    plat_config_reload();
  }
  static unsigned flags_of(uint32_t h) {
    unsigned f = 0;
    mdb_env_get_flags(plat::pss::find_handle(h)->env->env, &f);
    return f;
  }
};

// Each setting opens stores as documented; group flushes a changed store within its delay
// and once more when it closes, none and sync never leave it to the flusher.
TEST_F(StoreLayerTest, DurabilitySettingDecidesWhoFlushesCommits) {
  set("HADRA_DURABILITY", "sync");
  uint32_t s = open("run:/sync");
  EXPECT_EQ(flags_of(s) & (MDB_NOSYNC | MDB_WRITEMAP), unsigned{MDB_WRITEMAP});
  set("HADRA_DURABILITY", "none");
  uint32_t n = open("run:/none");
  EXPECT_EQ(flags_of(n) & MDB_NOSYNC, unsigned{MDB_NOSYNC});
  ASSERT_EQ(put(n, "k", "v"), 0u);
  set("HADRA_STORE_WRITEMAP", "0");
  EXPECT_EQ(flags_of(open("run:/plain")) & MDB_WRITEMAP, 0u);

  set("HADRA_DURABILITY", "group");
  set("HADRA_DURABILITY_DELAY_MS", "5");
  uint32_t g = open("run:/group");
  g_syncs = 0;
  ASSERT_EQ(put(g, "k", "v"), 0u);
  for (int i = 0; i < 400 && g_syncs == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(g_syncs, 1) << "the flusher wrote the changed store out once";
  ASSERT_EQ(put(g, "k2", "v"), 0u);
  int before = g_syncs;
  ASSERT_EQ(pss2_close(g), 0u);
  EXPECT_GE(g_syncs, before) << "closing flushes what the delay still owed";
  EXPECT_EQ(get(n, "k"), "v");

  // An unknown value is named in the log and taken as the default.
  plat_test_log_capture(1);
  set("HADRA_DURABILITY", "always");
  EXPECT_EQ(flags_of(open("run:/odd")) & MDB_NOSYNC, unsigned{MDB_NOSYNC});
  EXPECT_TRUE(logged({"DURABILITY=always"}));
}

// A full disk fails the write that needs new blocks, with an error naming the file, before
// the map is touched; what was stored stays readable and writes work once space returns.
TEST_F(StoreLayerTest, FullDiskFailsTheWriteNotTheWriter) {
  uint32_t h = open("run:/big");
  ASSERT_EQ(pss2_set_max_dbsize(h, uint64_t{256} << 20), 0u);
  ASSERT_EQ(put(h, "small", "kept"), 0u);
  plat_test_log_capture(1);
  g_fallocate_rc = ENOSPC;
  plat::lmdb_ops().fallocate = full_disk;
  const std::string big(std::string::size_type{6} << 20, 'x');
  EXPECT_EQ(put(h, "big", big), PLAT_ERR_PSS_IO);
  EXPECT_TRUE(logged({plat::pss::find_handle(h)->env->path, "No space left on device"}));
  EXPECT_EQ(get(h, "small"), "kept");
  EXPECT_EQ(get(h, "big"), std::nullopt);
  // A store that cannot get its first blocks is not created at all.
  ASSERT_EQ(sdb_create("run:/full-sdb", SDB_CREATE_SDB, 1, 0), PLAT_ERR_SDB_FULL);
  EXPECT_EQ(sdb_exists("run:/full-sdb"), 0);

  plat::reset_lmdb_ops();
  EXPECT_EQ(put(h, "big", big), 0u);
  EXPECT_EQ(get(h, "big")->size(), big.size());
  EXPECT_EQ(sdb_create("run:/full-sdb", SDB_CREATE_SDB, 1, 0), 0u);
}

// A copy whose flush fails leaves the destination as it was and nothing beside it.
TEST_F(StoreLayerTest, CopyThatCannotBeFlushedChangesNothing) {
  uint32_t src = open("run:/src");
  uint32_t dst = open("snap:/copy");
  ASSERT_EQ(put(src, "new", "1"), 0u);
  ASSERT_EQ(put(dst, "old", "1"), 0u);
  plat::lmdb_ops().env_sync = failing_sync;
  EXPECT_EQ(pss2_snapshot(src, dst), PLAT_ERR_PSS_IO);
  EXPECT_EQ(walk(dst), std::vector<std::string>{"old"});
  size_t files = 0;
  for ([[maybe_unused]] const auto& f : std::filesystem::directory_iterator(path("snap"))) ++files;
  EXPECT_EQ(files, 2u) << "the file and its lock file only";
}

// Fail the Nth commit of a session beneath the platform's calls, with each error LMDB's
// commit can give, for every N: each call works or fails as documented, and afterwards every
// acknowledged change is in the stores and no refused one is.
TEST_F(StoreLayerTest, FailedCommitsLoseNothingAcknowledged) {
  const int errors[] = {EIO, ENOSPC, MDB_MAP_FULL};
  int runs = 0;
  for (int n = 0;; ++n, ++runs) {
    const std::string pss = "run:/loop" + std::to_string(n), sdb = "run:/sdb" + std::to_string(n);
    g_commits = 0;
    g_fail_at = n;
    g_fail_rc = errors[n % 3];
    std::vector<std::string> pss_acked, sdb_acked;
    uint32_t err = 0;
    uint32_t h = pss2_open(pss.c_str(), PSS2_OPEN_FLAGS_CREATE, 1, 0, nullptr, &err);
    for (const char* k : {"a", "b", "c"})
      if (h != 0 && put(h, k, "v") == 0) pss_acked.push_back(k);
    bool deleted = false;
    if (h != 0 && !pss_acked.empty()) {
      datum k = D(pss_acked[0]);
      deleted = pss2_delete(h, &k, 0) == 0;
    }
    bool sdb_made = sdb_create(sdb.c_str(), SDB_CREATE_SDB, 1, 0) == 0;
    if (sdb_made && sdb_open(sdb.c_str(), SDB_OPEN_RW, 1, 0, 0) == 0) {
      for (const char* k : {"x", "y"}) {
        datum kd = D(k), vd = D("v");
        if (sdb_write(sdb.c_str(), &kd, &vd) == 0) sdb_acked.push_back(k);
      }
      sdb_close(sdb.c_str());
    }
    if (h != 0) pss2_close(h);
    const bool fired = g_commits > n;
    g_fail_at = -1;

    if (h != 0) {
      uint32_t r = open(pss.c_str(), PSS2_OPEN_FLAGS_OPEN);
      std::vector<std::string> want(pss_acked.begin() + (deleted ? 1 : 0), pss_acked.end());
      EXPECT_EQ(walk(r), want) << "commit " << n << " failed";
      pss2_close(r);
    } else {
      EXPECT_EQ(err, PLAT_ERR_PSS_IO) << "commit " << n;
    }
    if (sdb_made) {
      ASSERT_EQ(sdb_open(sdb.c_str(), SDB_OPEN_READ, 1, 0, 0), 0u) << "commit " << n;
      for (const char* k : {"x", "y"}) {
        datum kd = D(k);
        uint32_t rc = 1;
        sdb_read(sdb.c_str(), &kd, &rc);
        bool acked = std::find(sdb_acked.begin(), sdb_acked.end(), k) != sdb_acked.end();
        EXPECT_EQ(rc == 0, acked) << "commit " << n << " key " << k;
      }
      sdb_close(sdb.c_str());
    } else {
      EXPECT_EQ(sdb_exists(sdb.c_str()), 0) << "a refused creation leaves nothing, commit " << n;
    }
    if (!fired) break;
  }
  EXPECT_GE(runs, 8);
}

// ---- The apply batch ----

std::optional<std::string> sdb_get(const char* uri, const std::string& k) {
  datum kd = D(k);
  uint32_t rc = 1;
  const datum* v = sdb_read(uri, &kd, &rc);
  return v != nullptr && rc == 0 ? std::optional<std::string>(S(v)) : std::nullopt;
}

// Writes of a batch commit once per store; until then this thread reads them (fetch, cursor,
// SDB read) and another thread does not. A purge inside the batch commits it first.
TEST_F(StoreLayerTest, ABatchCommitsEachStoreOnceAndItsThreadReadsWhatItHolds) {
  const uint32_t h = open("run:/batched");
  ASSERT_EQ(sdb_create("run:/bsdb", SDB_CREATE_SDB, 1, 0), 0u);
  ASSERT_EQ(sdb_open("run:/bsdb", SDB_OPEN_RW, 1, 0, 0), 0u);
  g_commits = 0;
  plat::apply_batch_begin();
  for (int i = 0; i < 40; ++i) {
    const std::string k = "k" + std::to_string(i);
    ASSERT_EQ(put(h, k, "v" + std::to_string(i)), 0u);
    const std::string v = "s" + k;
    datum kd = D(k), vd = D(v);
    ASSERT_EQ(sdb_write("run:/bsdb", &kd, &vd), 0u);
  }
  datum gone = D("k0");
  ASSERT_EQ(pss2_delete(h, &gone, PSS2_DELETE_KEY), 0u);
  EXPECT_EQ(get(h, "k7"), "v7");
  EXPECT_EQ(get(h, "k0"), std::nullopt);
  EXPECT_EQ(walk(h).size(), 39u);
  EXPECT_EQ(sdb_get("run:/bsdb", "k7"), "sk7");
  std::optional<std::string> elsewhere = "unread";
  std::thread([&] { elsewhere = sdb_get("run:/bsdb", "k7"); }).join();
  EXPECT_EQ(elsewhere, std::nullopt) << "nothing is committed before the batch ends";
  EXPECT_EQ(g_commits, 0);
  EXPECT_EQ(plat::apply_batch_end(true), 0);
  EXPECT_EQ(g_commits, 2);
  std::thread([&] { elsewhere = sdb_get("run:/bsdb", "k39"); }).join();
  EXPECT_EQ(elsewhere, "sk39");
  EXPECT_EQ(get(h, "k39"), "v39");

  plat::apply_batch_begin();
  ASSERT_EQ(put(h, "before", "1"), 0u);
  uint32_t purged = 0;
  ASSERT_EQ(pss2_purge(h, &purged), 0u);
  EXPECT_EQ(purged, 40u);
  ASSERT_EQ(put(h, "after", "1"), 0u);
  EXPECT_EQ(plat::apply_batch_end(true), 0);
  EXPECT_EQ(walk(h), std::vector<std::string>{"after"});
  ASSERT_EQ(sdb_close("run:/bsdb"), 0u);
}

// Near the end of its map a store answers inside a batch as it does alone: the writes that
// fit are stored, the one that does not is refused as full without failing the batch, and a
// delete still grows the map it needs.
TEST_F(StoreLayerTest, ABatchNearAFullMapGivesWhatSingleWritesGive) {
  auto fill = [&](uint32_t h, bool batched) {
    std::vector<uint32_t> results;
    if (batched) plat::apply_batch_begin();
    const std::string v(3000, 'v');
    for (int i = 0; i < 800; ++i) results.push_back(put(h, "key" + std::to_string(i), v));
    datum k = D("key1");
    results.push_back(pss2_delete(h, &k, PSS2_DELETE_KEY));
    EXPECT_FALSE(plat::apply_batch_failed());
    if (batched) {
      EXPECT_EQ(plat::apply_batch_end(true), 0);
    }
    return results;
  };
  const uint32_t one = open("run:/one"), many = open("run:/many");
  ASSERT_EQ(pss2_set_max_dbsize(one, 2u << 20), 0u);
  ASSERT_EQ(pss2_set_max_dbsize(many, 2u << 20), 0u);
  g_commits = 0;
  const std::vector<uint32_t> alone = fill(one, false);
  const int single_commits = g_commits.exchange(0);
  ASSERT_NE(std::count(alone.begin(), alone.end(), PLAT_ERR_PSS_FULL), 0) << "the limit was reached";
  EXPECT_EQ(fill(many, true), alone);
  EXPECT_LT(g_commits, single_commits) << "the writes with room to spare went in fewer commits";
  EXPECT_EQ(walk(many), walk(one));
}

}  // namespace
}  // namespace hadra::test
