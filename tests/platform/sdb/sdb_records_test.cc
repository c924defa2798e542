// SDB records: writes, lists, deletes, iteration, read buffers and the write context.
#include <stdlib.h>

#include <string>
#include <thread>

#include "platform/sdb/sdb_fixture.h"

namespace hadra::test {
namespace {

class SdbRecords : public SdbTest {
 protected:
  void SetUp() override {
    SdbTest::SetUp();
    create_open();
  }
};

TEST_F(SdbRecords, WriteReadOverwriteDeleteAndBadKeys) {
  EXPECT_EQ(put("k", "v1"), 0u);
  EXPECT_EQ(put("k", "v2"), 0u);
  EXPECT_EQ(put("e", ""), 0u);  // an empty value is a value
  EXPECT_EQ(get("k"), "v2");
  EXPECT_EQ(get("e"), "");
  datum kd = D("k");
  EXPECT_EQ(sdb_delete(kUri, &kd), 0u);
  EXPECT_EQ(sdb_delete(kUri, &kd), PLAT_ERR_SDB_NO_RECORD);
  EXPECT_EQ(get("k"), "<none>");
  std::string longest(SDB_KEY_MAX, 'x'), too_long(SDB_KEY_MAX + 1, 'x');
  EXPECT_EQ(put(longest, "v"), 0u);
  EXPECT_EQ(put(too_long, "v"), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(put("", "v"), PLAT_ERR_SDB_BAD_ARG);
  datum bad{nullptr, 3};
  EXPECT_EQ(sdb_write(kUri, &bad, &kd), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(sdb_write(kUri, &kd, &bad), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(sdb_write(kUri, &kd, nullptr), PLAT_ERR_SDB_BAD_ARG);
  uint32_t rc = 0;
  EXPECT_EQ(sdb_read(kUri, nullptr, &rc), nullptr);
  EXPECT_EQ(rc, PLAT_ERR_SDB_BAD_ARG);
}

TEST_F(SdbRecords, WriteListSkipsHolesAndIsAllOrNothing) {
  std::string k1 = "a", k2 = "b", k3 = "c", v = "v", empty, too_long(SDB_KEY_MAX + 1, 'x');
  datum a = D(k1), b = D(k2), c = D(k3), vd = D(v), ed = D(empty), ld = D(too_long);
  sdb_kv holes[4] = {{&a, &vd}, {&b, nullptr}, {&c, &ed}, {nullptr, &vd}};
  EXPECT_EQ(sdb_write_list(kUri, holes, 4), 0u);
  EXPECT_EQ(all(), std::vector<std::string>{"a=v"});
  sdb_kv bad[2] = {{&b, &vd}, {&ld, &vd}};
  EXPECT_EQ(sdb_write_list(kUri, bad, 2), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(get("b"), "<none>");
  EXPECT_EQ(sdb_write_list(kUri, holes, 0), PLAT_ERR_SDB_BAD_ARG);
}

TEST_F(SdbRecords, ListOpsApplyInOrderAndRefuseUnknownOps) {
  std::string k = "k", v1 = "1", v2 = "2", gone = "missing";
  datum kd = D(k), d1 = D(v1), d2 = D(v2), gd = D(gone);
  sdb_list_op ops[4] = {{SDB_OP_WRITE, &kd, &d1}, {SDB_OP_DELETE, &kd, nullptr}, {SDB_OP_WRITE, &kd, &d2},
                        {SDB_OP_DELETE, &gd, nullptr}};
  EXPECT_EQ(sdb_list_ops(kUri, ops, 4), 0u);
  EXPECT_EQ(get("k"), "2");
  sdb_list_op bad[2] = {{SDB_OP_DELETE, &kd, nullptr}, {7, &kd, nullptr}};
  EXPECT_EQ(sdb_list_ops(kUri, bad, 2), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(get("k"), "2");
}

TEST_F(SdbRecords, IterationIsInKeyOrder) {
  EXPECT_TRUE(all().empty());
  datum *k = nullptr, *v = nullptr;
  EXPECT_EQ(sdb_getnext(kUri, &k, &v), PLAT_ERR_SDB_NO_ITER);
  for (const char* key : {"b2", "a", "c", "b1", "\xff"}) ASSERT_EQ(put(key, std::string("v") + key), 0u);
  EXPECT_EQ(all(), (std::vector<std::string>{"a=va", "b1=vb1", "b2=vb2", "c=vc", "\xff=v\xff"}));
  // A start key that is not stored positions at the next record.
  std::string start = "b";
  datum sd = D(start);
  ASSERT_EQ(sdb_iterator_init(kUri, &sd), 0u);
  ASSERT_EQ(sdb_getkey(kUri, &k, &v), 0u);
  EXPECT_EQ(S(k), "b1");
  // Deleting the current record does not lose the walk's place.
  datum b1 = D("b1");
  ASSERT_EQ(sdb_delete(kUri, &b1), 0u);
  ASSERT_EQ(sdb_getnext(kUri, &k, &v), 0u);
  EXPECT_EQ(S(k), "b2");
  ASSERT_EQ(sdb_getnext(kUri, &k, &v), 0u);
  ASSERT_EQ(sdb_getnext(kUri, &k, &v), 0u);
  EXPECT_EQ(sdb_getnext(kUri, &k, &v), PLAT_ERR_SDB_NO_ITER);
  EXPECT_EQ(sdb_getkey(kUri, &k, &v), PLAT_ERR_SDB_NO_ITER);  // stays at the end
  // Right after positioning, getnext gives the record after the one getkey would.
  ASSERT_EQ(sdb_iterator_init(kUri, SDB_ITER_FIRST), 0u);
  ASSERT_EQ(sdb_getnext(kUri, &k, &v), 0u);
  EXPECT_EQ(S(k), "b2");
  EXPECT_EQ(sdb_iterator_init(kUri, nullptr), PLAT_ERR_SDB_BAD_ARG);
}

TEST_F(SdbRecords, ReturnedPointersLiveUntilTheNextReadOfThatSdbInThatThread) {
  const char* other = "run:/svc/other";
  create_open(other);
  ASSERT_EQ(put("k", "mine"), 0u);
  ASSERT_EQ(put("k", "other", other), 0u);
  datum kd = D("k");
  uint32_t rc = 1;
  datum* mine = sdb_read(kUri, &kd, &rc);
  ASSERT_EQ(rc, 0u);
  EXPECT_EQ(get("k", other), "other");  // another SDB
  std::thread t([&] { EXPECT_EQ(get("k"), "mine"); });  // another thread
  t.join();
  EXPECT_EQ(S(mine), "mine");
}

TEST_F(SdbRecords, ContextNamesTheLastWrite) {
  uint32_t len = 0;
  ASSERT_EQ(sdb_get_context_len(kUri, &len), 0u);
  ASSERT_EQ(len, SDB_CONTEXT_LEN);
  ASSERT_LE(len, SDB_CONTEXT_MAX);
  uint8_t buf[SDB_CONTEXT_MAX];
  sdb_context ctx{};
  ASSERT_EQ(sdb_set_context(kUri, buf), 0u);
  ASSERT_EQ(sdb_context_parse(buf, len, &ctx), 0u);
  EXPECT_EQ(ctx.op, 0);
  EXPECT_EQ(ctx.generation, 0u);
  std::string k1 = "one", k2 = "two", v = "v";
  datum d1 = D(k1), d2 = D(k2), vd = D(v);
  sdb_kv list[2] = {{&d1, &vd}, {&d2, &vd}};
  ASSERT_EQ(put("x", "y"), 0u);
  ASSERT_EQ(sdb_write_list(kUri, list, 2), 0u);
  ASSERT_EQ(sdb_set_context(kUri, buf), 0u);
  ASSERT_EQ(sdb_context_parse(buf, len, &ctx), 0u);
  EXPECT_EQ(ctx.op, 2);
  EXPECT_EQ(ctx.records, 2u);
  EXPECT_EQ(ctx.generation, 2u);
  EXPECT_EQ(ctx.key_hash, 0xbe248829u);  // FNV-1a of "two"
  EXPECT_EQ(ctx.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(sdb_context_parse(buf, len - 1, &ctx), PLAT_ERR_SDB_BAD_ARG);
  EXPECT_EQ(sdb_set_context("run:/svc/unopened", buf), PLAT_ERR_SDB_NOT_OPEN);
}

// With a small map, a list that does not fit fails as a whole and what was there stays.
TEST_F(SdbRecords, FullSdbRefusesTheWholeList) {
  sdb_close(kUri);
  setenv("HADRA_SDB_MAP_SIZE", "1048576", 1);
  ASSERT_EQ(sdb_open(kUri, SDB_OPEN_RW, kUuid, 0, 0), 0u);
  unsetenv("HADRA_SDB_MAP_SIZE");
  ASSERT_EQ(put("keep", "1"), 0u);
  std::string big(400 * 1024, 'b'), k[3] = {"a", "b", "c"};
  datum bd = D(big), kd[3] = {D(k[0]), D(k[1]), D(k[2])};
  sdb_kv list[3] = {{&kd[0], &bd}, {&kd[1], &bd}, {&kd[2], &bd}};
  EXPECT_EQ(sdb_write_list(kUri, list, 3), PLAT_ERR_SDB_FULL);
  EXPECT_EQ(all(), std::vector<std::string>{"keep=1"});
}

}  // namespace
}  // namespace hadra::test
