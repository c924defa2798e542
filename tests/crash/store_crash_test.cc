// Stores killed mid-write: a child process writes PSS records, SDB records, lists and
// batches, makes PSS copies and SDB snapshots and restores its SDB from the snapshot (what
// a standby does in a gsync), reporting each call that returned success
// over a pipe; the parent kills it (SIGKILL) after a random delay, then reopens everything:
//   - every store and snapshot file passes the structure check and LMDB's own mdb_stat;
//   - every change the child reported is there;
//   - a copy or snapshot under its final name is whole: it holds exactly the records its
//     source held when it was made (a marker record written just before says how many).
// The next child goes on from where the last one was stopped. The run counts its kill points
// and fails below kMinKills; it is bounded by kBudget.
#include <gtest/gtest.h>
#include <lmdb.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>
#include <set>
#include <string>
#include <vector>

#include "common/lmdb_check.h"
#include "hadra_platform/config.h"
#include "hadra_platform/pss.h"
#include "hadra_platform/sdb.h"
#include "hadra_platform_testing.h"

namespace {

constexpr int kMinKills = 200;
constexpr auto kBudget = std::chrono::seconds(150);
constexpr const char* kSrc = "run:/src";
constexpr const char* kCopy = "snap:/copy";
constexpr const char* kSdb = "run:/peers";
constexpr const char* kArea = "snap:/area";
constexpr uint32_t kUuid = 77;
constexpr int kEvery = 40;  // records between lists, batches and copies

std::string num(const char* tag, long i) {
  char b[32];
  std::snprintf(b, sizeof b, "%s%08ld", tag, i);
  return b;
}
datum D(const std::string& s) { return datum{const_cast<char*>(s.data()), static_cast<uint32_t>(s.size())}; }
datum D(std::string&&) = delete;  // the bytes must outlive the datum

// ---- The child ----

void tell(int fd, char what, long i) {
  char line[32];
  int n = std::snprintf(line, sizeof line, "%c %ld\n", what, i);
  if (write(fd, line, static_cast<size_t>(n)) != n) _exit(3);
}

uint32_t sdb_put(const std::string& k, const std::string& v) {
  datum kd = D(k), vd = D(v);
  return sdb_write(kSdb, &kd, &vd);
}

// Writes from record start on until killed, in cycles: p<i>, s<i>, and every kEvery records
// a list, a batch, the markers, a PSS copy, an SDB snapshot and its restore. Records are written in
// order and a new child redoes the cycle it was stopped in (Reported::next), so the p and s
// records always run from 0 without a gap.
[[noreturn]] void child(int fd, long start) {
  uint32_t err = 0;
  uint32_t src = pss2_open(kSrc, PSS2_OPEN_FLAGS_CREATE, kUuid, 0, nullptr, &err);
  if (src == 0 || pss2_set_max_dbsize(src, uint64_t{256} << 20) != 0) _exit(4);
  uint32_t rc = sdb_create(kSdb, SDB_CREATE_SDB, kUuid, 0);
  if ((rc != 0 && rc != PLAT_ERR_SDB_EXISTS) || sdb_open(kSdb, SDB_OPEN_RW, kUuid, 0, 0) != 0) _exit(5);
  for (long i = start;; ++i) {
    std::string k = num("p", i), v = "value " + k;
    datum kd = D(k), vd = D(v);
    if (pss2_store(src, &kd, &vd) != 0) _exit(6);
    tell(fd, 'P', i);
    if (sdb_put(num("s", i), v) != 0) _exit(7);
    tell(fd, 'S', i);
    if (i % kEvery != 0) continue;
    std::vector<std::string> keys, vals;
    for (int j = 0; j < 10; ++j) keys.push_back(num("l", i * 100 + j)), vals.push_back("list " + keys.back());
    std::vector<datum> kds, vds;
    for (int j = 0; j < 10; ++j) kds.push_back(D(keys[j])), vds.push_back(D(vals[j]));
    std::vector<sdb_kv> list;
    for (int j = 0; j < 10; ++j) list.push_back(sdb_kv{&kds[j], &vds[j]});
    if (sdb_write_list(kSdb, list.data(), 10) != 0) _exit(8);
    tell(fd, 'L', i);
    std::vector<sdb_list_op> ops;
    for (int j = 0; j < 10; ++j) ops.push_back(sdb_list_op{SDB_OP_WRITE, &kds[j], &vds[j]});
    for (auto& k2 : keys) k2[0] = 'b';  // the batch writes b* records under the same numbers
    for (int j = 0; j < 10; ++j) kds[j] = D(keys[j]);
    if (sdb_list_ops(kSdb, ops.data(), 10) != 0) _exit(9);
    tell(fd, 'B', i);
    // The markers say how many records the copies must hold.
    const std::string marker = "zz-count", mark = std::to_string(i);
    datum mk = D(marker), mv = D(mark);
    if (pss2_store(src, &mk, &mv) != 0 || sdb_put("zz-count", mark) != 0) _exit(10);
    uint32_t dst = pss2_open(kCopy, PSS2_OPEN_FLAGS_CREATE, kUuid, 0, nullptr, &err);
    if (dst == 0 || pss2_set_max_dbsize(dst, uint64_t{256} << 20) != 0 || pss2_snapshot(src, dst) != 0) _exit(11);
    pss2_close(dst);
    tell(fd, 'C', i);
    if (sdb_write_snapshot(kSdb, kArea, kUuid) != 0) _exit(12);
    tell(fd, 'N', i);
    // The standby's side of a gsync: the SDB's contents replaced by the snapshot (the same
    // records, so a restore cut short shows as missing ones).
    if (i % (4 * kEvery) != 0) continue;  // (every fourth cycle: a restore costs the whole SDB)
    if (sdb_read_snapshot(kSdb, kArea, kUuid) != 0) _exit(13);
    tell(fd, 'R', i);
  }
}

// ---- The parent's checks ----

struct Reported {
  long next = -1;  // where the next child starts: the last reported record's cycle again, or
                   // the next cycle when the last report ended one (no record is skipped, and
                   // none written past the last report survives the next copy)
  std::vector<std::pair<char, long>> events;
};

// Reads what the pipe holds now into all; false at its end.
bool drain(int fd, std::string& all) {
  char buf[4096];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) all.append(buf, static_cast<size_t>(n));
  return n > 0;
}

Reported parse_reports(const std::string& all) {
  Reported r;
  size_t at = 0;
  for (size_t nl; (nl = all.find('\n', at)) != std::string::npos; at = nl + 1) {
    char what = all[at];
    long i = std::strtol(all.c_str() + at + 2, nullptr, 10);
    r.events.emplace_back(what, i);
    const bool cycle_done = what == 'R' || (what == 'N' && i % (4 * kEvery) != 0) || (what == 'S' && i % kEvery != 0);
    r.next = cycle_done ? i + 1 : i;
  }
  return r;
}

std::string path_of(const char* uri) {
  char buf[4096];
  return plat_uri_to_path(uri, buf, sizeof buf, 0) == 0 ? buf : "";
}

// LMDB's own tool reads every database of the file (when it is installed).
bool mdb_stat_ok(const std::string& path, bool subdir) {
  static const bool have = std::system("command -v mdb_stat >/dev/null 2>&1") == 0;
  if (!have) return true;
  std::string cmd = "mdb_stat -a " + std::string(subdir ? "" : "-n ") + "'" + path + "' >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// Keys of a snapshot file (no lock file, read only) starting with prefix, and the marker.
bool snapshot_counts(const std::string& path, char prefix, long* count, long* mark) {
  MDB_env* env;
  if (mdb_env_create(&env) != 0) return false;
  mdb_env_set_maxdbs(env, 4);
  MDB_txn* txn = nullptr;
  MDB_dbi dbi;
  MDB_cursor* cur = nullptr;
  struct stat st {};
  *count = 0;
  *mark = -1;
  if (::stat(path.c_str(), &st) == 0 && st.st_size == 0) return mdb_env_close(env), true;
  bool ok = mdb_env_open(env, path.c_str(), MDB_NOSUBDIR | MDB_RDONLY | MDB_NOLOCK, 0644) == 0 &&
            mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) == 0;
  // A file created but stopped before its first commit has no records database: it holds none.
  bool has = ok && mdb_dbi_open(txn, "records", 0, &dbi) == 0 && mdb_cursor_open(txn, dbi, &cur) == 0;
  MDB_val k, v;
  for (int rc = has ? mdb_cursor_get(cur, &k, &v, MDB_FIRST) : MDB_NOTFOUND; rc == 0;
       rc = mdb_cursor_get(cur, &k, &v, MDB_NEXT)) {
    const std::string key(static_cast<char*>(k.mv_data), k.mv_size);
    if (key[0] == prefix) ++*count;
    if (key == "zz-count") *mark = std::strtol(std::string(static_cast<char*>(v.mv_data), v.mv_size).c_str(), nullptr, 10);
  }
  if (cur != nullptr) mdb_cursor_close(cur);
  if (txn != nullptr) mdb_txn_abort(txn);
  mdb_env_close(env);
  return ok;
}

// A PSS file as a crash may leave it: sound to the structure check and to mdb_stat, or empty
// (created, killed before LMDB wrote its first pages: a store that holds nothing yet).
bool whole(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && st.st_size == 0) return true;
  return hadra::plat::lmdb_file_check(path) == hadra::plat::LmdbFile::kSound && mdb_stat_ok(path, false);
}

class StoreCrash : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/hadra-crash-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    plat_test_reset();
    plat_test_set_root(root_.c_str());
  }
  void TearDown() override {
    plat_test_reset();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

  // Everything the child reported is stored; every copy under its final name is whole.
  void check(const Reported& r, long* pss_copies, long* sdb_snaps) {
    const std::string src = path_of(kSrc), copy = path_of(kCopy), sdb = path_of(kSdb);
    bool any_p = false;
    for (auto [what, i] : r.events) any_p |= what == 'P';
    if (!std::filesystem::exists(src)) {
      ASSERT_FALSE(any_p) << "the source is gone";
      return;
    }
    ASSERT_TRUE(whole(src)) << src;
    if (std::filesystem::exists(sdb)) {
      ASSERT_TRUE(mdb_stat_ok(sdb, true)) << sdb;
    }
    uint32_t err = 0;
    uint32_t h = pss2_open(kSrc, PSS2_OPEN_FLAGS_OPEN, kUuid, 0, nullptr, &err);
    if (h == 0 && err == PLAT_ERR_PSS_NOT_FOUND) {  // killed while creating it: nothing stored yet
      ASSERT_FALSE(any_p) << "the source lost its records";
    } else {
      ASSERT_NE(h, 0u) << "source reopened: " << std::hex << err;
    }
    bool sdb_open_ok = sdb_open(kSdb, SDB_OPEN_READ, kUuid, 0, 0) == 0;
    long last_copy = -1, last_snap = -1;
    for (auto [what, i] : r.events) {
      std::vector<std::string> keys;
      if (what == 'P') {
        std::string k = num("p", i);
        datum kd = D(k);
        uint32_t st = 1;
        datum* v = pss2_fetch(h, &kd, &st);
        ASSERT_TRUE(v != nullptr && std::string(static_cast<char*>(v->dptr), v->dsize) == "value " + k) << k;
        continue;
      }
      if (what == 'C') last_copy = i;
      if (what == 'N') last_snap = i;
      if (what == 'S') keys.push_back(num("s", i));
      for (int j = 0; j < 10 && (what == 'L' || what == 'B'); ++j) keys.push_back(num(what == 'L' ? "l" : "b", i * 100 + j));
      ASSERT_TRUE(keys.empty() || sdb_open_ok) << "SDB reopened";
      for (const auto& k : keys) {
        datum kd = D(k);
        uint32_t rc = 1;
        sdb_read(kSdb, &kd, &rc);
        ASSERT_EQ(rc, 0u) << "reported " << what << " " << k << " is missing";
      }
    }
    pss2_close(h);
    if (sdb_open_ok) sdb_close(kSdb);

    // A copy is whole: as many p records as the marker (records 0..mark) says, no more, no less.
    if (std::filesystem::exists(copy)) {
      ASSERT_TRUE(whole(copy)) << copy;
      long count = 0, mark = -1;
      ASSERT_TRUE(snapshot_counts(copy, 'p', &count, &mark)) << copy;
      if (mark >= 0 || count > 0) {
        ASSERT_EQ(count, mark + 1) << "partial copy under " << copy;
        ++*pss_copies;
      }
      ASSERT_GE(mark, last_copy) << "a reported copy was lost";
    } else {
      ASSERT_EQ(last_copy, -1) << "a reported copy is gone";
    }
    std::set<std::string> snaps;
    const std::string area = path_of(kArea);
    if (std::filesystem::exists(area))
      for (const auto& f : std::filesystem::recursive_directory_iterator(area))
        if (f.is_regular_file() && f.path().extension() == ".snap") snaps.insert(f.path());
    ASSERT_LE(snaps.size(), 1u);
    for (const auto& snap : snaps) {
      ASSERT_EQ(hadra::plat::lmdb_file_check(snap), hadra::plat::LmdbFile::kSound) << snap;
      long count = 0, mark = -1;
      ASSERT_TRUE(snapshot_counts(snap, 's', &count, &mark)) << snap;
      ASSERT_EQ(count, mark + 1) << "partial snapshot " << snap;
      ASSERT_GE(mark, last_snap) << "a reported snapshot was lost";
      ++*sdb_snaps;
    }
    if (snaps.empty()) {
      ASSERT_EQ(last_snap, -1) << "a reported snapshot is gone";
    }
  }

  std::string root_;
};

TEST_F(StoreCrash, KilledWritersLeaveWholeStoresAndEveryReportedChange) {
  std::mt19937 rng(static_cast<unsigned>(std::random_device{}()));
  const auto begin = std::chrono::steady_clock::now();
  long next = 0, kills = 0, pss_copies = 0, sdb_snaps = 0;
  while (kills < kMinKills && std::chrono::steady_clock::now() - begin < kBudget) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      child(fds[1], next);
    }
    close(fds[1]);
    // A quarter of the kills land while the child opens its stores; the others after a
    // random number of reported changes (up to several cycles) and a random delay, so that
    // they fall anywhere in writes, lists, batches, copies and snapshots.
    std::string got;
    if (rng() % 4 == 0) {
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 5000));
    } else {
      const long want = 1 + static_cast<long>(rng() % (3 * kEvery));
      const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      pollfd p{fds[0], POLLIN, 0};
      while (std::count(got.begin(), got.end(), '\n') < want && std::chrono::steady_clock::now() < until)
        if (poll(&p, 1, 10) > 0 && !drain(fds[0], got)) break;
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
    }
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    while (drain(fds[0], got)) {
    }
    Reported r = parse_reports(got);
    close(fds[0]);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the child ended by itself (status " << status << ") after " << r.events.size() << " changes";
    ++kills;
    check(r, &pss_copies, &sdb_snaps);
    if (HasFatalFailure()) return;
    if (r.next >= 0) next = r.next;
  }
  std::printf("store crash test: %ld kill points, %ld records, %ld PSS copies and %ld SDB snapshots found whole\n",
              kills, next, pss_copies, sdb_snaps);
  EXPECT_GE(kills, kMinKills) << "the time budget ran out first";
}

}  // namespace
