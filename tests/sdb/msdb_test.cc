// MSDB batches: record bytes, the standby's rebuild of records, secondary keys and tags,
// and the lists the sender refuses.
#include "sdb/batch.h"

#include "tests/sdb/sdb_fixture.h"

namespace {

using hadra::test::Bytes;
using Calls = std::vector<std::string>;

class MsdbBatchTest : public hadra::test::SdbOpsTest {
 protected:
  // Batch of the only sync message sent since the last call.
  Bytes only_batch() {
    auto msgs = sent_sync();
    EXPECT_EQ(msgs.size(), 1u);
    if (msgs.size() != 1) return {};
    EXPECT_EQ(msgs[0][11], HADRA_SYNC_MSDB_BATCH_UPDATE);
    return Bytes(msgs[0].begin() + 12, msgs[0].end());
  }
  // Secondary keys stored for key, as "tag:bytes".
  static Calls skeys_of(const hadra_ha_pss_entry* e, const std::string& key) {
    datum k{const_cast<char*>(key.data()), static_cast<uint32_t>(key.size())};
    const sdb_skey* s = nullptr;
    uint32_t n = 0;
    Calls out;
    if (sdb_get_skeys(e->uri, &k, &s, &n) != 0) return {"<none>"};
    for (uint32_t i = 0; i < n; ++i)
      out.push_back(std::to_string(s[i].tag) + ":" + std::string(static_cast<char*>(s[i].skey->dptr), s[i].skey->dsize));
    return out;
  }

  datum k4_{(void*)"kkkk", 4}, v6_{(void*)"vvvvvv", 6}, s3_{(void*)"sss", 3}, a_{(void*)"a", 1}, b_{(void*)"b", 1};
};

TEST_F(MsdbBatchTest, RecordsAreLaidOutByteForByte) {
  // 4-byte key, 6-byte value, one 3-byte secondary key: a 27-byte record, a 31-byte batch.
  sdb_skey sk{&s3_, 0x1234};
  ASSERT_EQ(hadra_sdb_update_mkey(msdb_, &k4_, &v6_, &sk, 1, 0), 1);
  EXPECT_EQ(only_batch(), (Bytes{1, 0, 0, 0, 0, 0, 4, 0, 'k', 'k', 'k', 'k', 6, 0, 0, 0, 'v', 'v', 'v', 'v', 'v', 'v',
                                 1, 0, 3, 0, 's', 's', 's', 0x34, 0x12}));
  // Without secondary keys the record still ends with a count of 0.
  ASSERT_EQ(hadra_sdb_update_mkey(msdb_, &a_, &b_, nullptr, 0, 0), 1);
  EXPECT_EQ(only_batch(), (Bytes{1, 0, 0, 0, 0, 0, 1, 0, 'a', 1, 0, 0, 0, 'b', 0, 0}));
  // No value: length 0 and no bytes. Another op: key alone, even with secondary keys listed.
  sdb_mkey_op list[] = {{&b_, nullptr, nullptr, 0, 0}, {&a_, &b_, &sk, 1, 1}};
  ASSERT_EQ(hadra_msdb_update_batch(msdb_, list, 2, 0), 1);
  EXPECT_EQ(only_batch(), (Bytes{2, 0, 0, 0, 0, 0, 1, 0, 'b', 0, 0, 0, 0, 0, 0, 1, 0, 1, 0, 'a'}));
  EXPECT_EQ(hadra_sdb_update_mkey(msdb_, &a_, nullptr, nullptr, 0, 0), 0);
}

// Reads a batch back the way the standby does, keeping the tags it hands on.
struct TagSink final : hadra::wire::BatchSink {
  void record(uint32_t, const hadra::wire::RecordView&) noexcept override {}
  void skey(uint32_t, uint32_t, const hadra::wire::SkeyView& s) noexcept override { tags.push_back(s.tag); }
  std::vector<uint32_t> tags;
};

TEST_F(MsdbBatchTest, StandbyEndsWithTheSameRecordsSecondaryKeysAndTags) {
  datum s1{(void*)"10.0.0.1", 8}, s2{(void*)"eth0", 4}, big{nullptr, 30000};
  std::string filler(30000, 'f');
  big.dptr = filler.data();
  sdb_skey sk[] = {{&s1, 0x1234}, {&s2, 0xabcd8001}};
  sdb_mkey_op list[] = {{&k4_, &v6_, sk, 2, 0}, {&a_, nullptr, &sk[1], 1, 0}, {&b_, &big, nullptr, 0, 0},
                        {&s3_, &big, nullptr, 0, 0}, {&b_, nullptr, nullptr, 0, 1}};
  ASSERT_EQ(hadra_msdb_update_batch(msdb_, list, 5, 1), 1);
  auto msgs = sent_sync();
  ASSERT_EQ(msgs.size(), 2u);  // the second 30 kB value did not fit after the first

  TagSink tags;
  ASSERT_TRUE(hadra::wire::walk_batch(msgs[0].data() + 12, static_cast<uint32_t>(msgs[0].size() - 12), true, &tags));
  EXPECT_EQ(tags.tags, (std::vector<uint32_t>{0x1234, 0xffff8001, 0xffff8001}));

  plat_test_sysmgr_set_supstate(2);
  plat_trace_start();
  for (const Bytes& m : msgs) EXPECT_EQ(hadra_msdb_update_batch_on_standby(standby_msdb_, m.data() + 12), 1);
  EXPECT_EQ(plat_trace_count("sdb_write_mkey_list"), 2u);
  EXPECT_EQ(records(standby_msdb_), records(msdb_));
  for (const char* k : {"kkkk", "a", "sss"}) EXPECT_EQ(skeys_of(standby_msdb_, k), skeys_of(msdb_, k)) << k;
  EXPECT_EQ(skeys_of(standby_msdb_, "kkkk"), (Calls{"4660:10.0.0.1", "32769:eth0"}));
  datum* found = nullptr;
  sdb_skey by_tag{&s2, 0x8001};
  ASSERT_EQ(hadra_sdb_read_skey(standby_msdb_, &by_tag, &found, nullptr, nullptr), 1);
  EXPECT_EQ(std::string(static_cast<char*>(found->dptr), found->dsize), "a");
  EXPECT_TRUE(sent().empty());
}

TEST_F(MsdbBatchTest, RefusedListsFailedWritesAndUnsyncedWrites) {
  plat_test_log_capture(1);
  plat_trace_start();
  std::string long_skey(HADRA_SDB_BATCH_FIELD_LIMIT, 's');
  datum ls{long_skey.data(), static_cast<uint32_t>(long_skey.size())};
  sdb_skey bad_len{&ls, 1};
  std::vector<sdb_skey> too_many(HADRA_SDB_BATCH_FIELD_LIMIT, sdb_skey{&s3_, 1});
  sdb_mkey_op refused[] = {{&a_, &b_, nullptr, -1, 0},
                           {&a_, &b_, too_many.data(), static_cast<int32_t>(too_many.size()), 0},
                           {&a_, &b_, &bad_len, 1, 0},
                           {&a_, &b_, nullptr, 1, 0},
                           {nullptr, &b_, nullptr, 0, 0}};
  for (const sdb_mkey_op& r : refused) EXPECT_EQ(hadra_msdb_update_batch(msdb_, &r, 1, 1), 0);
  EXPECT_EQ(plat_trace_count("sdb_write_mkey_list"), 0u);
  EXPECT_EQ(level2_lines(), 5u);

  plat_fault_arm("sdb_write_mkey_list", 0, 1, PLAT_ERR_SDB_IO, 0);
  EXPECT_EQ(hadra_sdb_update_mkey(msdb_, &a_, &b_, nullptr, 0, 1), 0);
  EXPECT_EQ(level2_lines(), 6u);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 0u);
  EXPECT_TRUE(sent().empty());

  msdb_->no_sync = 1;
  ASSERT_EQ(hadra_sdb_update_mkey(msdb_, &a_, &b_, nullptr, 0, 0), 1);
  EXPECT_EQ(value(msdb_, "a"), "b");
  EXPECT_TRUE(sent().empty());
}

}  // namespace
