// MSDB secondary keys: lookups after writes, rewrites and deletes; tags; refusals.
#include "platform/sdb/sdb_fixture.h"

namespace hadra::test {
namespace {

class SdbMsdb : public SdbTest {
 protected:
  void SetUp() override {
    SdbTest::SetUp();
    create_open(kUri, SDB_CREATE_MSDB);
  }
  using V = std::vector<std::string>;
};

TEST_F(SdbMsdb, FindsByEachSecondaryKeyAndARewriteReplacesTheSet) {
  ASSERT_EQ(put_mkey("r1", "one", {{1, "old"}, {2, "kept"}}), 0u);
  ASSERT_EQ(put_mkey("r2", "two", {{1, "ip-b"}}), 0u);
  EXPECT_EQ(by_skey(1, "old"), "r1=one");
  EXPECT_EQ(by_skey(2, "old"), "<none>");  // the tag names the index
  EXPECT_EQ(by_skey(1, "ip-b"), "r2=two");
  ASSERT_EQ(put_mkey("r1", "uno", {{2, "kept"}, {3, "new"}}), 0u);
  EXPECT_EQ(by_skey(1, "old"), "<none>");
  EXPECT_EQ(by_skey(2, "kept"), "r1=uno");
  EXPECT_EQ(by_skey(3, "new"), "r1=uno");
  EXPECT_EQ(skeys_of("r1"), (V{"2:kept", "3:new"}));
  ASSERT_EQ(put_mkey("r1", "bare", {}), 0u);
  EXPECT_EQ(skeys_of("r1"), V{});
  EXPECT_EQ(by_skey(2, "kept"), "<none>");
}

TEST_F(SdbMsdb, DeletesRemoveSecondaryKeys) {
  ASSERT_EQ(put_mkey("r1", "one", {{1, "a"}}), 0u);
  ASSERT_EQ(put_mkey("r2", "two", {{1, "b"}}), 0u);
  ASSERT_EQ(put_mkey("r3", "three", {{1, "c"}}), 0u);
  std::string k1 = "r1", k2 = "r2";
  datum d1 = D(k1), d2 = D(k2);
  sdb_mkey_op del{&d1, nullptr, nullptr, 0, SDB_OP_DELETE};
  EXPECT_EQ(sdb_write_mkey_list(kUri, &del, 1), 0u);
  EXPECT_EQ(sdb_delete(kUri, &d2), 0u);
  EXPECT_EQ(by_skey(1, "a"), "<none>");
  EXPECT_EQ(by_skey(1, "b"), "<none>");
  EXPECT_EQ(by_skey(1, "c"), "r3=three");
  EXPECT_EQ(skeys_of("r1"), V{"<error>"});  // no record
}

TEST_F(SdbMsdb, SharedKeysTagsAndPlainWrites) {
  ASSERT_EQ(put_mkey("r2", "two", {{1, "shared"}, {1, "shared"}}), 0u);
  ASSERT_EQ(put_mkey("r1", "one", {{0x18000, "shared"}}), 0u);
  EXPECT_EQ(skeys_of("r2"), V{"1:shared"});                 // listed twice, stored once
  EXPECT_EQ(skeys_of("r1"), V{std::to_string(0x8000) + ":shared"});  // 16-bit tags
  EXPECT_EQ(by_skey(0x8000, "shared"), "r1=one");
  ASSERT_EQ(put_mkey("r0", "zero", {{1, "shared"}}), 0u);
  EXPECT_EQ(by_skey(1, "shared"), "r0=zero");  // smallest primary key wins
  ASSERT_EQ(put("r0", "plain"), 0u);           // a plain write keeps the secondary keys
  EXPECT_EQ(by_skey(1, "shared"), "r0=plain");
  // A null value writes an empty one.
  std::string k = "r9", s = "s9";
  datum kd = D(k), sd = D(s);
  sdb_skey sk{&sd, 4};
  sdb_mkey_op op{&kd, nullptr, &sk, 1, SDB_OP_WRITE};
  ASSERT_EQ(sdb_write_mkey_list(kUri, &op, 1), 0u);
  EXPECT_EQ(by_skey(4, "s9"), "r9=");
}

TEST_F(SdbMsdb, BadListsAreRefusedWhole) {
  std::string k = "k", v = "v", longest(SDB_KEY_MAX - 1, 's');
  datum kd = D(k), vd = D(v), ld = D(longest);
  sdb_skey too_long{&ld, 1}, none{nullptr, 1};
  sdb_mkey_op good{&kd, &vd, nullptr, 0, SDB_OP_WRITE};
  sdb_mkey_op bad[] = {{&kd, &vd, nullptr, -1, SDB_OP_WRITE}, {&kd, &vd, nullptr, 1, SDB_OP_WRITE},
                       {&kd, &vd, &too_long, 1, SDB_OP_WRITE}, {&kd, &vd, &none, 1, SDB_OP_WRITE},
                       {nullptr, &vd, nullptr, 0, SDB_OP_WRITE}, {&kd, &vd, nullptr, 0, 2}};
  for (const auto& b : bad) {
    sdb_mkey_op list[2] = {good, b};
    EXPECT_EQ(sdb_write_mkey_list(kUri, list, 2), PLAT_ERR_SDB_BAD_ARG);
  }
  EXPECT_EQ(get("k"), "<none>");
  const char* plain = "run:/svc/plain";
  create_open(plain);
  EXPECT_EQ(sdb_write_mkey_list(plain, &good, 1), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(by_skey(1, "x", plain), "<none>");
}

}  // namespace
}  // namespace hadra::test
