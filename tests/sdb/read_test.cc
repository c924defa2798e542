// SDB reads and iteration. Keys start with their key type (the first byte).
#include "tests/sdb/sdb_fixture.h"

namespace {

using Calls = std::vector<std::string>;

int key_type(const void* key) { return *static_cast<const uint8_t*>(key); }
int not_seven(uint8_t type) { return type != 7; }
int record_op(const void* key, const void*, uint32_t, void* arg) {
  static_cast<Calls*>(arg)->push_back(std::string(static_cast<const char*>(key) + 1, 1));
  return 1;
}
int failing_op(const void* key, const void* data, uint32_t len, void* arg) { return record_op(key, data, len, arg) - 1; }

class SdbReadTest : public hadra::test::SdbOpsTest {
 protected:
  void SetUp() override {
    SdbOpsTest::SetUp();
    for (const char* k : {"\x01" "a", "\x01" "b", "\x07" "c", "\x02" "d"}) {
      datum kd{(void*)k, 2}, vd{(void*)"value", 5};
      ASSERT_EQ(sdb_write(sdb_->uri, &kd, &vd), 0u);
    }
  }
  static std::string text(void* p, size_t n) { return p != nullptr ? std::string(static_cast<char*>(p), n) : "<null>"; }
};

TEST_F(SdbReadTest, GetFirstAndNextWalkOnFromTheStartKey) {
  void *key = (void*)"\x01" "b", *data = nullptr;
  uint32_t len = 0;
  ASSERT_EQ(hadra_sdb_get_first(sdb_, &key, 2, &data, &len), 1);
  EXPECT_EQ(text(key, 2) + text(data, len), "\x01" "bvalue");
  ASSERT_EQ(hadra_sdb_get_next(sdb_, &key, &data, nullptr), 1);
  EXPECT_EQ(text(key, 2), "\x02" "d");
  ASSERT_EQ(hadra_sdb_get_next(sdb_, &key, &data, &len), 1);
  EXPECT_EQ(hadra_sdb_get_next(sdb_, &key, &data, &len), 0);
  EXPECT_EQ(text(key, 0) + text(data, 0), "<null><null>");
  // An empty SDB leaves both outputs null.
  key = (void*)"a";
  EXPECT_EQ(hadra_sdb_get_first(standby_, &key, 1, &data, &len), 0);
  EXPECT_EQ(text(key, 0) + text(data, 0), "<null><null>");
}

TEST_F(SdbReadTest, IteratorHandsEachAcceptedRecordToItsTypeOperation) {
  hadra_sdb_type_op_fn ops[256] = {};
  ops[1] = record_op;
  ops[2] = failing_op;
  Calls handed;
  uint32_t visited = 99;
  // Type 7 is rejected: counted, not handed on. Type 2's operation fails; the walk goes on.
  ASSERT_EQ(hadra_sdb_iterator(sdb_, ops, key_type, not_seven, &handed, &visited), 1);
  EXPECT_EQ(visited, 4u);
  EXPECT_EQ(handed, (Calls{"a", "b", "d"}));
  // Empty SDB: success, nothing visited. Cannot position: still 1. Null entry: 0.
  EXPECT_EQ(hadra_sdb_iterator(standby_, ops, key_type, nullptr, &handed, &visited), 1);
  EXPECT_EQ(visited, 0u);
  plat_fault_arm("sdb_iterator_init", 0, 1, PLAT_ERR_SDB_IO, 0);
  EXPECT_EQ(hadra_sdb_iterator(sdb_, ops, key_type, nullptr, &handed, &visited), 1);
  EXPECT_EQ(hadra_sdb_iterator(nullptr, ops, key_type, nullptr, &handed, &visited), 0);
  EXPECT_EQ(handed.size(), 3u);
}

TEST_F(SdbReadTest, ReadsByPrimaryAndSecondaryKeyGiveThePlatformsCode) {
  void* data = nullptr;
  uint32_t len = 0, rc = 99;
  ASSERT_EQ(hadra_sdb_read(sdb_, "\x02" "d", 2, &data, &len, &rc), 1);
  EXPECT_EQ(text(data, len), "value");
  EXPECT_EQ(hadra_sdb_read(sdb_, "\x02" "x", 2, &data, &len, &rc), 0);
  EXPECT_EQ(rc, PLAT_ERR_SDB_NO_RECORD);

  datum k{(void*)"pk", 2}, v{(void*)"pv", 2}, s{(void*)"10.0.0.1", 8}, other{(void*)"10.0.0.2", 8};
  sdb_skey sk{&s, 3}, missing{&other, 3};
  ASSERT_EQ(hadra_sdb_update_mkey(msdb_, &k, &v, &sk, 1, 1), 1);
  datum *found_key = nullptr, *found_data = nullptr;
  ASSERT_EQ(hadra_sdb_read_skey(msdb_, &sk, &found_key, &found_data, &rc), 1);
  EXPECT_EQ(text(found_key->dptr, found_key->dsize) + text(found_data->dptr, found_data->dsize), "pkpv");
  EXPECT_EQ(hadra_sdb_read_skey(msdb_, &missing, nullptr, nullptr, &rc), 0);
  EXPECT_EQ(rc, PLAT_ERR_SDB_NO_RECORD);
}

}  // namespace
