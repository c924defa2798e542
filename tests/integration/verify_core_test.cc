// The comparing core of verify on two stores side by side, with no daemons: the cases a live
// pair rarely produces. One side empty, many records only on the other, binary keys and keys
// that are prefixes of others, secondary keys that alone differ, and a store never opened.
#include <gtest/gtest.h>
#include <lmdb.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "verify_core.h"

namespace {

namespace vc = hadra::sysmgrd::verify;
namespace proto = hadra::plat::sysmgr::proto;
using Records = std::map<std::string, std::string>;

class VerifyCore : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/hadra-vcore-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // An SDB-shaped store (a directory) holding recs, and mkeys records when given.
  std::string store(const std::string& name, const Records& recs, const Records& mkeys = {}) {
    const std::string path = dir_ + "/" + name;
    std::filesystem::create_directories(path);
    MDB_env* env = nullptr;
    MDB_txn* txn = nullptr;
    MDB_dbi r, m;
    EXPECT_EQ(mdb_env_create(&env), 0);
    mdb_env_set_maxdbs(env, 4);
    EXPECT_EQ(mdb_env_open(env, path.c_str(), 0, 0644), 0);
    EXPECT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
    EXPECT_EQ(mdb_dbi_open(txn, "records", MDB_CREATE, &r), 0);
    EXPECT_EQ(mdb_dbi_open(txn, "mkeys", MDB_CREATE, &m), 0);
    auto put = [&](MDB_dbi dbi, const Records& from) {
      for (const auto& [k, v] : from) {
        MDB_val kv{k.size(), const_cast<char*>(k.data())}, vv{v.size(), const_cast<char*>(v.data())};
        EXPECT_EQ(mdb_put(txn, dbi, &kv, &vv, 0), 0);
      }
    };
    put(r, recs);
    put(m, mkeys);
    EXPECT_EQ(mdb_txn_commit(txn), 0);
    mdb_env_close(env);
    return path;
  }

  // Runs a comparison of a (driving) against b, through encoded messages; the keys found.
  std::map<std::string, std::string> compare(const std::string& a, const std::string& b, vc::Verifier::Settings s = {}) {
    std::string why;
    auto va = vc::StoreView::open(a, &why);
    auto vb = vc::StoreView::open(b, &why);
    EXPECT_TRUE(va && vb) << why;
    std::map<std::string, std::string> out;
    if (!va || !vb) return out;
    vc::Verifier v(*va, "run:/x", s);
    proto::VerifyReq req;
    int rounds = 0;
    while (v.next(&req) && ++rounds < 1000) {
      const auto bytes = encode(req);
      proto::VerifyReq got;
      EXPECT_TRUE(proto::decode(bytes.data(), bytes.size(), &got));
      const auto back = encode(vc::answer_request(*vb, got));
      proto::VerifyAns ans;
      EXPECT_TRUE(proto::decode(back.data(), back.size(), &ans));
      EXPECT_TRUE(v.on_answer(ans, &why)) << why;
    }
    truncated_ = v.truncated();
    for (const vc::Difference& d : v.differences())
      out[d.key] = d.local && d.peer ? "both" : d.local ? "local" : "peer";
    return out;
  }

  std::string dir_;
  bool truncated_ = false;
};

Records numbered(int n, const std::string& prefix = "k") {
  Records r;
  for (int i = 0; i < n; ++i) r[prefix + std::to_string(100000 + i)] = "v" + std::to_string(i);
  return r;
}

TEST_F(VerifyCore, OneSideEmptyOrHoldingManyMoreRecords) {
  const std::string empty = store("empty", {}), full = store("full", numbered(3000));
  EXPECT_TRUE(compare(empty, empty).empty());
  const auto from_empty = compare(empty, full);
  EXPECT_EQ(from_empty.size(), 3000u);
  EXPECT_EQ(from_empty.begin()->second, "peer");
  const auto from_full = compare(full, empty, {16, 8, 4096});
  EXPECT_EQ(from_full.size(), 3000u);
  EXPECT_EQ(from_full.begin()->second, "local");
  // A range far beyond what one answer lists: the result says it is cut short.
  const std::string huge = store("huge", numbered(static_cast<int>(vc::kMaxListEntries) + 10));
  EXPECT_EQ(compare(empty, huge).size(), vc::kMaxListEntries);
  EXPECT_TRUE(truncated_);
}

TEST_F(VerifyCore, BinaryAndPrefixKeysAndSecondaryKeysAloneDiffering) {
  Records a = numbered(500), b = a;
  const std::string bin("\x00\xff\x01", 3), prefix = "k100001";  // a key that begins another
  a[bin] = "x";
  b[prefix.substr(0, 5)] = "short";
  b["k100250"] = "changed";
  const std::string mk1("\x01\0\0\0\x01\0\x02\0u1", 10), mk2("\x01\0\0\0\x01\0\x02\0u2", 10);
  const auto found = compare(store("a", a, {{"k100300", mk1}}), store("b", b, {{"k100300", mk2}}), {8, 4, 4096});
  EXPECT_EQ(found, (std::map<std::string, std::string>{
                       {bin, "local"}, {"k1000", "peer"}, {"k100250", "both"}, {"k100300", "both"}}));
}

TEST_F(VerifyCore, TheSecondLookKeepsOnlyWhatStillDiffers) {
  Records a = numbered(50), b = a;
  b.erase("k100007");               // not applied yet when first compared
  b["k100009"] = "stale";           // a real difference
  const std::string pa = store("a", a), pb = store("b", b);
  std::string why;
  auto va = vc::StoreView::open(pa, &why);
  auto vb = vc::StoreView::open(pb, &why);
  ASSERT_TRUE(va && vb) << why;
  const std::vector<vc::Difference> first = {{"k100007", true, false, 1, 0}, {"k100009", true, true, 1, 2},
                                             {"k1000", false, true, 0, 3}};
  vb.reset();
  b["k100007"] = a["k100007"];      // the standby caught up meanwhile
  store("b", b);
  vb = vc::StoreView::open(pb, &why);
  const proto::VerifyAns ans = vc::answer_request(*vb, vc::point_request(9, "run:/x", first));
  const std::vector<vc::Difference> left = vc::recheck(*va, first, ans);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].key, "k100009");
  EXPECT_TRUE(left[0].local && left[0].peer);
  EXPECT_EQ(left[0].local_digest, vc::record_digest("v9", ""));
  EXPECT_EQ(left[0].peer_digest, vc::record_digest("stale", ""));
}

TEST_F(VerifyCore, AStoreNoProcessOpenedIsNotReadUnchecked) {
  const std::string path = store("shipped", numbered(3));
  std::filesystem::remove(path + "/lock.mdb");
  std::string why;
  EXPECT_EQ(vc::StoreView::open(path, &why), nullptr);
  EXPECT_NE(why.find("no lock file"), std::string::npos) << why;
  EXPECT_FALSE(std::filesystem::exists(path + "/lock.mdb"));
  EXPECT_EQ(vc::StoreView::open(dir_ + "/none", &why), nullptr);
  EXPECT_NE(why.find("none"), std::string::npos) << why;
}

}  // namespace
