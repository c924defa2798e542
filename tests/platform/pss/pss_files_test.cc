// PSS store: files on disk, handles, size limits, parameters, copies, crash survival,
// destruction, and a fault loop. (The older create/open calls are those of the start-reason
// marker, checked by its tests.)
#include <lmdb.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pss/store.h"
#include "tests/platform/pss/pss_support.h"

namespace hadra::test {
namespace {

class PssFilesTest : public PssTest {
 protected:
  bool exists(const char* rel) const {
    struct stat st;
    return stat(path(rel).c_str(), &st) == 0;
  }
  std::vector<std::string> files_in(const char* rel) const {
    std::vector<std::string> out;
    for (const auto& f : std::filesystem::directory_iterator(path(rel))) out.push_back(f.path().filename());
    std::sort(out.begin(), out.end());
    return out;
  }
};

TEST_F(PssFilesTest, OpenFlagsDecideBetweenCreateOpenAndProbe) {
  // The error of an open that must fail (a handle given back is a failure of its own).
  auto refused = [](const char* uri, uint32_t flags, uint32_t reserved = 0) {
    uint32_t err = 0;
    return pss2_open(uri, flags, 1, reserved, nullptr, &err) == 0 ? err : 0xffffffffu;
  };
  EXPECT_EQ(refused("run:/f", PSS2_OPEN_FLAGS_OPEN), PLAT_ERR_PSS_NOT_FOUND);
  EXPECT_EQ(refused("run:/f", PSS2_OPEN_FLAGS_PROBE), PLAT_ERR_PSS_NOT_FOUND);
  EXPECT_FALSE(exists("run/f"));
  uint32_t h = open("run:/f");
  EXPECT_TRUE(exists("run/f"));
  EXPECT_NE(open("run:/f", PSS2_OPEN_FLAGS_PROBE), 0u);
  EXPECT_EQ(refused("run:/f", 0x40 | 11), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(refused("run:/f", 11, 5), PLAT_ERR_PSS_BAD_ARG);  // reserved argument
  EXPECT_EQ(refused("no-colon", 27), PLAT_ERR_PSS_BAD_URI);
  EXPECT_EQ(refused(nullptr, 27), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_open("run:/f", 27, 1, 0, nullptr, nullptr), 0u);
  EXPECT_EQ(pss2_close(h), 0u);
  EXPECT_EQ(pss2_close(h), PLAT_ERR_PSS_BAD_HANDLE);
  EXPECT_EQ(pss2_close(0), PLAT_ERR_PSS_BAD_HANDLE);
}

TEST_F(PssFilesTest, FileIsAPlainStoreThatOutsideToolsRead) {
  uint32_t h = open("run:/dumped");
  ASSERT_EQ(put(h, "visible-key", "visible-value"), 0u);
  ASSERT_EQ(pss2_close(h), 0u);
  if (system("command -v mdb_dump >/dev/null 2>&1") != 0) GTEST_SKIP() << "mdb_dump not installed";
  std::string cmd = "mdb_dump -n -p -s records " + path("run/dumped");
  FILE* p = popen(cmd.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string out;
  char buf[256];
  while (fgets(buf, sizeof buf, p) != nullptr) out += buf;
  EXPECT_EQ(pclose(p), 0);
  EXPECT_NE(out.find("visible-key"), std::string::npos) << out;
  EXPECT_NE(out.find("visible-value"), std::string::npos) << out;
}

TEST_F(PssFilesTest, HandlesShareAFileAndOutliveEachOther) {
  uint32_t a = open("run:/shared");
  uint32_t b = open("run:/shared", PSS2_OPEN_FLAGS_OPEN);
  EXPECT_NE(a, b);
  ASSERT_EQ(put(a, "k", "from a"), 0u);
  EXPECT_EQ(get(b, "k"), "from a");
  ASSERT_EQ(pss2_close(a), 0u);
  EXPECT_EQ(put(a, "k", "stale"), PLAT_ERR_PSS_BAD_HANDLE);
  ASSERT_EQ(put(b, "k2", "from b"), 0u);
  ASSERT_EQ(pss2_close(b), 0u);  // the last handle closes the store
  uint32_t c = open("run:/shared", PSS2_OPEN_FLAGS_OPEN);
  EXPECT_NE(c, a);  // numbers of closed handles are not handed out again at once
  EXPECT_EQ(get(c, "k"), "from a");
  EXPECT_EQ(get(c, "k2"), "from b");
}

TEST_F(PssFilesTest, HandleTableHasALimit) {
  std::vector<uint32_t> hs;
  uint32_t err = 0;
  for (size_t i = 0; i < plat::pss::kMaxHandles; ++i) hs.push_back(open("run:/many", i == 0 ? 27 : 11));
  EXPECT_EQ(pss2_open("run:/many", 11, 1, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_TOO_MANY);
  EXPECT_EQ(pss2_close(hs.back()), 0u);
  EXPECT_NE(open("run:/many", 11), 0u);
}

// A writer in another process that dies without closing anything: its committed records are
// in the file, seen at once by a handle that was open all along, and after a reopen. The
// child inherits this process's open store and must not use it: it opens its own.
TEST_F(PssFilesTest, RecordsSurviveACrashedWriterInAnotherProcess) {
  uint32_t mine = open("run:/crash");
  ASSERT_EQ(put(mine, "parent", "v"), 0u);
  ASSERT_EQ(run_in_child([] {
              uint32_t err = 1;
              uint32_t h = pss2_open("run:/crash", 11, 1, 0, nullptr, &err);
              int bad = h == 0 ? 1 : 0;
              for (int i = 0; i < 50; ++i) {
                std::string k = "k" + std::to_string(i);
                datum kd = D(k), vd = D("v");
                bad |= pss2_store(h, &kd, &vd) != 0 ? 1 : 0;
              }
              return bad;  // exits without closing
            }),
            0);
  EXPECT_EQ(walk(mine).size(), 51u);
  ASSERT_EQ(pss2_close(mine), 0u);
  uint32_t h = open("run:/crash", PSS2_OPEN_FLAGS_OPEN);
  EXPECT_EQ(walk(h).size(), 51u);
  EXPECT_EQ(get(h, "k49"), "v");
}

TEST_F(PssFilesTest, SizeLimitStopsWritesButNotReadsOrCleanup) {
  uint32_t h = open("run:/small");
  EXPECT_EQ(pss2_set_max_dbsize(h, PSS2_MIN_DBSIZE - 1), PLAT_ERR_PSS_BAD_ARG);
  ASSERT_EQ(pss2_set_max_dbsize(h, 128 * 1024), 0u);
  std::string value(1000, 'v');
  int stored = 0;
  uint32_t rc = 0;
  while ((rc = put(h, "k" + std::to_string(stored), value)) == 0 && stored < 1000) ++stored;
  ASSERT_EQ(rc, PLAT_ERR_PSS_FULL);
  EXPECT_GT(stored, 20);
  EXPECT_EQ(get(h, "k0"), value);
  // The limit is part of the file: a later opener is held to it as well (the opener may
  // reuse a few pages that the last writer freed, but the file does not grow).
  ASSERT_EQ(pss2_close(h), 0u);
  h = open("run:/small", PSS2_OPEN_FLAGS_OPEN);
  while ((rc = put(h, "k" + std::to_string(stored), value)) == 0 && stored < 1000) ++stored;
  EXPECT_EQ(rc, PLAT_ERR_PSS_FULL);
  struct stat st;
  ASSERT_EQ(stat(path("run/small").c_str(), &st), 0);
  EXPECT_LE(st.st_size, 128 * 1024);
  EXPECT_EQ(walk(h).size(), static_cast<size_t>(stored));
  pss2_params p{};
  ASSERT_EQ(pss2_get_params(h, &p), 0u);
  EXPECT_EQ(p.max_dbsize_mib, 1u);  // 128 KiB, rounded up
  // A full file can still be cleaned, and then written again.
  datum k0 = D("k0");
  EXPECT_EQ(pss2_delete(h, &k0, PSS2_DELETE_KEY), 0u);
  uint32_t n = 0;
  EXPECT_EQ(pss2_purge(h, &n), 0u);
  EXPECT_EQ(n, static_cast<uint32_t>(stored - 1));
  EXPECT_EQ(put(h, "again", value), 0u);
  ASSERT_EQ(pss2_set_max_dbsize(h, 1 << 20), 0u);
  EXPECT_EQ(put(h, "more", value), 0u);
}

TEST_F(PssFilesTest, LimitChangedDuringAMultiGetAppliesAfterIt) {
  uint32_t h = open("run:/pending");
  uint32_t w = open("run:/pending", PSS2_OPEN_FLAGS_OPEN);
  ASSERT_EQ(pss2_mget_begin(h, nullptr), 0u);
  ASSERT_EQ(pss2_set_max_dbsize(w, 64 * 1024), 0u);
  ASSERT_EQ(pss2_mget_done(h), 0u);
  std::string value(2000, 'v');
  uint32_t rc = 0;
  for (int i = 0; i < 100 && rc == 0; ++i) rc = put(w, "k" + std::to_string(i), value);
  EXPECT_EQ(rc, PLAT_ERR_PSS_FULL);
}

TEST_F(PssFilesTest, ParametersAreKeptCheckedAndCopied) {
  uint32_t d = open("run:/defaults");
  pss2_params p{};
  ASSERT_EQ(pss2_get_params(d, &p), 0u);
  EXPECT_EQ(p.version, PSS2_PARAMS_VERSION);
  EXPECT_EQ(p.max_dbsize_mib, 10u);
  EXPECT_EQ(pss2_get_params(d, nullptr), PLAT_ERR_PSS_BAD_ARG);
  uint32_t err = 0;
  pss2_params bad{7, 32, 30, 0, 0};
  EXPECT_EQ(pss2_open("run:/bad", 27, 1, 0, &bad, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_BAD_ARG);
  pss2_params mine{PSS2_PARAMS_VERSION, 32, 30, PSS2_PARAM_SYNC, 2};
  uint32_t h = open("run:/mine", 27, &mine);
  ASSERT_EQ(pss2_close(h), 0u);
  h = open("run:/mine", 27, &p);  // an existing file keeps its own parameters
  pss2_params back{};
  ASSERT_EQ(pss2_get_params(h, &back), 0u);
  EXPECT_EQ(0, memcmp(&back, &mine, sizeof mine));
}

TEST_F(PssFilesTest, CommitsFlushToDiskOnlyWhenAsked) {
  auto nosync = [](uint32_t h) {
    unsigned flags = 0;
    mdb_env_get_flags(plat::pss::find_handle(h)->env->env, &flags);
    return (flags & MDB_NOSYNC) != 0;
  };
  EXPECT_TRUE(nosync(open("run:/lazy")));
  pss2_params p{PSS2_PARAMS_VERSION, 0, 0, PSS2_PARAM_SYNC, 0};
  EXPECT_FALSE(nosync(open("run:/careful", 27, &p)));
  setenv("HADRA_PSS_SYNC", "1", 1);
  EXPECT_FALSE(nosync(open("run:/synced")));
  unsetenv("HADRA_PSS_SYNC");
}

TEST_F(PssFilesTest, SnapshotMakesTheDestinationACopy) {
  uint32_t src = open("run:/src");
  for (int i = 0; i < 2500; ++i) ASSERT_EQ(put(src, "k" + std::to_string(100000 + i), "v" + std::to_string(i)), 0u);
  pss2_params p{};
  ASSERT_EQ(pss2_get_params(src, &p), 0u);
  p.snapshot_chunk = 1;  // a thousand records per commit
  uint32_t dst = open("snap:/copy", 27, &p);
  uint32_t other = open("snap:/copy", 11);
  ASSERT_EQ(put(dst, "stale", "from before"), 0u);
  struct stat before {}, after {};
  ASSERT_EQ(::stat(path("snap/copy").c_str(), &before), 0);
  ASSERT_EQ(pss2_snapshot(src, dst), 0u);
  // A new file was put in place whole, nothing is left beside it, and every handle on the
  // destination reads the copy.
  ASSERT_EQ(::stat(path("snap/copy").c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(files_in("snap"), (std::vector<std::string>{"copy", "copy-lock"}));
  EXPECT_EQ(get(dst, "stale"), std::nullopt);
  EXPECT_EQ(walk(dst), walk(src));
  EXPECT_EQ(get(other, "k102499"), "v2499");
  pss2_params kept{};
  ASSERT_EQ(pss2_get_params(dst, &kept), 0u);
  EXPECT_EQ(kept.snapshot_chunk, 1u);
  ASSERT_EQ(put(dst, "after", "copy"), 0u);
  EXPECT_EQ(get(other, "after"), "copy");
  uint32_t same = open("run:/src", 11);
  EXPECT_EQ(pss2_snapshot(src, same), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_snapshot(src, 12345), PLAT_ERR_PSS_BAD_HANDLE);
  // A destination too small for the copy says so.
  uint32_t tiny = open("snap:/tiny");
  ASSERT_EQ(pss2_set_max_dbsize(tiny, 64 * 1024), 0u);
  EXPECT_EQ(pss2_snapshot(src, tiny), PLAT_ERR_PSS_FULL);
}

// A copy that arrives without its lock file (shipped from the other supervisor) is checked
// before LMDB maps it: whole it opens with every record, cut short it is refused, not mapped.
TEST_F(PssFilesTest, ShippedCopyIsCheckedBeforeItIsMapped) {
  uint32_t src = open("run:/src");
  for (int i = 0; i < 2000; ++i) ASSERT_EQ(put(src, "k" + std::to_string(100000 + i), std::string(40, 'v')), 0u);
  ASSERT_EQ(pss2_close(src), 0u);
  std::ifstream in(path("run/src"), std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GT(bytes.size(), 16384u);
  ::mkdir(path("snap").c_str(), 0755);
  std::ofstream(path("snap/whole"), std::ios::binary) << bytes;
  // The file spans its whole map (the writable map's sparse tail): cut into its pages.
  std::ofstream(path("snap/cut"), std::ios::binary) << bytes.substr(0, bytes.find_last_not_of('\0') / 2);

  uint32_t whole = open("snap:/whole", PSS2_OPEN_FLAGS_OPEN);
  EXPECT_EQ(walk(whole).size(), 2000u);
  uint32_t err = 0, other = 0, rc = 1;
  EXPECT_EQ(pss2_open("snap:/cut", PSS2_OPEN_FLAGS_OPEN, 1, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_IO);
  EXPECT_EQ(pss2_get_psstype("snap:/cut", &other, &rc), PSS2_TYPE_OTHER);
  EXPECT_FALSE(exists("snap/cut-lock"));

  // A size limit no setter stores would become the size of the map: the file is refused.
  ASSERT_EQ(pss2_close(whole), 0u);
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi meta;
  uint64_t huge = uint64_t{1} << 62;
  MDB_val k{sizeof plat::pss::kLimitKey - 1, const_cast<char*>(plat::pss::kLimitKey)}, v{sizeof huge, &huge};
  ASSERT_EQ(mdb_env_create(&env), 0);
  mdb_env_set_maxdbs(env, 4);
  ASSERT_EQ(mdb_env_open(env, path("snap/whole").c_str(), MDB_NOSUBDIR, 0664), 0);
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  ASSERT_EQ(mdb_dbi_open(txn, plat::pss::kMetaDb, 0, &meta), 0);
  ASSERT_EQ(mdb_put(txn, meta, &k, &v, 0), 0);
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
  EXPECT_EQ(pss2_open("snap:/whole", PSS2_OPEN_FLAGS_OPEN, 1, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_IO);
}

// A copy whose keys are out of order (written under another ordering, or damaged) must end a
// walk with an error; the walk steps from key to key and would otherwise circle for ever.
TEST_F(PssFilesTest, WalkOverKeysOutOfOrderEndsWithAnError) {
  ASSERT_EQ(pss2_close(open("run:/odd")), 0u);
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi recs;
  // Stored in the order a, c, b: from c, the next key by byte order is c again, then b.
  auto odd_order = [](const MDB_val* a, const MDB_val* b) {
    auto rank = [](const MDB_val* v) { return std::string("acb").find(*static_cast<const char*>(v->mv_data)); };
    return static_cast<int>(rank(a)) - static_cast<int>(rank(b));
  };
  ASSERT_EQ(mdb_env_create(&env), 0);
  mdb_env_set_maxdbs(env, 4);
  ASSERT_EQ(mdb_env_open(env, path("run/odd").c_str(), MDB_NOSUBDIR, 0664), 0);
  ASSERT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
  ASSERT_EQ(mdb_dbi_open(txn, plat::pss::kRecordsDb, 0, &recs), 0);
  ASSERT_EQ(mdb_set_compare(txn, recs, +odd_order), 0);
  for (const char* key : {"a", "b", "c"}) {
    MDB_val k{1, const_cast<char*>(key)}, v{1, const_cast<char*>("v")};
    ASSERT_EQ(mdb_put(txn, recs, &k, &v, 0), 0);
  }
  ASSERT_EQ(mdb_txn_commit(txn), 0);
  mdb_env_close(env);
  // A bounded walk, so that a regression fails here instead of hanging.
  uint32_t h = open("run:/odd", PSS2_OPEN_FLAGS_OPEN), st = 0, rc = pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st);
  std::vector<std::string> keys;
  for (int steps = 0; rc == 0 && steps < 10; ++steps, rc = pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st))
    keys.push_back(S(pss2_getkey(h, &st)));
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(rc, PLAT_ERR_PSS_IO);
}

// The library destroys files whose creation handles it never closed: destroying closes them.
TEST_F(PssFilesTest, DestroyClosesHandlesAndRemovesTheFile) {
  uint32_t a = open("run:/gone");
  uint32_t b = open("run:/gone", 11);
  ASSERT_EQ(put(a, "k", "v"), 0u);
  uint32_t other = 0, rc = 1;
  EXPECT_EQ(pss2_get_psstype("run:/gone", &other, &rc), PSS2_TYPE_PSS2);
  EXPECT_EQ(rc, 0u);
  EXPECT_EQ(pss2_destroy("run:/gone"), 0u);
  EXPECT_FALSE(exists("run/gone"));
  EXPECT_FALSE(exists("run/gone-lock"));
  EXPECT_EQ(put(a, "k", "v"), PLAT_ERR_PSS_BAD_HANDLE);
  EXPECT_EQ(pss2_close(b), PLAT_ERR_PSS_BAD_HANDLE);
  EXPECT_EQ(pss2_destroy("run:/gone"), PLAT_ERR_PSS_NOT_FOUND);
  EXPECT_EQ(pss2_get_psstype("run:/gone", &other, &rc), 0u);
  EXPECT_EQ(rc, PLAT_ERR_PSS_NOT_FOUND);
  uint32_t again = open("run:/gone");  // a new, empty file
  EXPECT_TRUE(walk(again).empty());
}

TEST_F(PssFilesTest, WhatIsNotAPssFileIsLeftAlone) {
  ASSERT_EQ(mkdir(path("run").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(path("run/store-dir").c_str(), 0755), 0);
  std::ofstream(path("run/text")) << "not a store\n";
  uint32_t other = 9, rc = 1, err = 0;
  EXPECT_EQ(pss2_get_psstype("run:/store-dir", &other, &rc), PSS2_TYPE_OTHER);
  EXPECT_EQ(rc, 0u);
  EXPECT_EQ(pss2_get_psstype("run:/text", &other, &rc), PSS2_TYPE_OTHER);
  EXPECT_EQ(other, 0u);
  EXPECT_EQ(pss2_destroy("run:/store-dir"), PLAT_ERR_PSS_BAD_URI);
  EXPECT_EQ(pss2_destroy("run:/text"), PLAT_ERR_PSS_BAD_URI);
  EXPECT_EQ(pss2_open("run:/text", 27, 1, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_BAD_URI);
  EXPECT_TRUE(exists("run/store-dir"));
  EXPECT_TRUE(exists("run/text"));
  // An empty file is a creation that died before its first commit: it is finished now.
  std::ofstream(path("run/empty"));
  EXPECT_EQ(pss2_get_psstype("run:/empty", &other, &rc), PSS2_TYPE_PSS2);
  EXPECT_EQ(pss2_open("run:/empty", 11, 1, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, PLAT_ERR_PSS_NOT_FOUND);
  EXPECT_NE(open("run:/empty"), 0u);
}

TEST_F(PssFilesTest, ResetClosesEverything) {
  uint32_t h = open("run:/reset");
  ASSERT_EQ(pss2_mget_begin(h, nullptr), 0u);
  plat_test_reset();
  plat_test_set_root(root().c_str());
  EXPECT_EQ(put(h, "k", "v"), PLAT_ERR_PSS_BAD_HANDLE);
  uint32_t again = open("run:/reset", 11);  // the store can be opened again in this process
  EXPECT_EQ(put(again, "k", "v"), 0u);
}

}  // namespace
}  // namespace hadra::test
