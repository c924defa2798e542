// SDB batches: the bytes the active side sends, how records are split over messages, what
// the sender refuses, and what the standby applies (and refuses) from a received batch.
#include "sdb/batch.h"

#include <cerrno>
#include <deque>
#include <memory>

#include "tests/sdb/sdb_fixture.h"

namespace {

using hadra::test::Bytes;

class SdbBatchTest : public hadra::test::SdbOpsTest {
 protected:
  // One list entry of the test's own storage.
  sdb_list_op op(uint32_t code, const std::string& key, const std::string& value = "") {
    keys_.push_back({const_cast<char*>(own(key).data()), static_cast<uint32_t>(key.size())});
    datum* k = &keys_.back();
    if (code != 0) return {code, k, nullptr};
    values_.push_back({const_cast<char*>(own(value).data()), static_cast<uint32_t>(value.size())});
    return {code, k, &values_.back()};
  }
  const std::string& own(const std::string& s) { return strings_.emplace_back(s); }

  std::deque<std::string> strings_;
  std::deque<datum> keys_, values_;
};

TEST_F(SdbBatchTest, RecordsAreLaidOutByteForByte) {
  // One write of key "k" with value "vv" for database 2: big-endian header, little-endian batch.
  sdb_list_op w = op(0, "k", "vv");
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, &w, 1, 0), 1);
  EXPECT_EQ(sent_sync(), std::vector<Bytes>({{2, 0, 0, 0, 0, 15, 0, 0, 0, 0, 0, 8, 1, 0, 0, 0, 0, 0, 1, 0, 0x6b, 2, 0,
                                              0, 0, 0x76, 0x76}}));
  // One delete of a 4-byte key is 12 bytes of batch: count, op 1, key length, key.
  sdb_list_op d = op(1, "abcd");
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, &d, 1, 0), 1);
  auto msgs = sent_sync();
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_EQ(Bytes(msgs[0].begin() + 4, msgs[0].end()),
            (Bytes{0, 12, 0, 0, 0, 0, 0, 8, 1, 0, 0, 0, 1, 0, 4, 0, 'a', 'b', 'c', 'd'}));
}

TEST_F(SdbBatchTest, RecordsThatDoNotFitStartANewMessageWithItsOwnCount) {
  // Two records of 30018 bytes: after the first only 29978 bytes are left.
  sdb_list_op two[] = {op(0, "key-0000-1", std::string(30000, 'x')), op(0, "key-0000-2", std::string(30000, 'y'))};
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, two, 2, 0), 1);
  auto msgs = sent_sync();
  ASSERT_EQ(msgs.size(), 2u);
  for (const Bytes& m : msgs) {
    ASSERT_EQ(m.size(), 12u + 30022u);
    EXPECT_EQ((m[4] << 8) | m[5], 30022);
    EXPECT_EQ(Bytes(m.begin() + 12, m.begin() + 16), (Bytes{1, 0, 0, 0}));
  }
  EXPECT_EQ(msgs[1][16 + 4 + 10 + 4], 'y');
}

TEST_F(SdbBatchTest, StandbyAppliesWhatTheActiveSentAndEndsWithTheSameRecords) {
  sdb_list_op first[] = {op(0, "a", "1"), op(0, "b", "2"), op(0, "c", "3"), op(0, "big", std::string(59960, 'z'))};
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, first, 4, 1), 1);
  sdb_list_op second[] = {op(1, "b"), op(0, "a", "one"), op(1, "never-written")};
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, second, 3, 1), 1);
  auto msgs = sent_sync();
  ASSERT_EQ(msgs.size(), 3u);  // the big record did not fit after the first three

  plat_test_sysmgr_set_supstate(2);
  plat_trace_start();
  for (const Bytes& m : msgs) EXPECT_EQ(hadra_sdb_update_batch_on_standby(standby_, m.data() + 12), 1);
  EXPECT_EQ(records(standby_), records(sdb_));
  EXPECT_EQ(value(standby_, "a"), "one");
  EXPECT_EQ(value(standby_, "b"), "<missing>");
  // Each message is one platform call, completed there without a notification going out.
  EXPECT_EQ(plat_trace_count("sdb_list_ops"), 3u);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 3u);
  EXPECT_TRUE(sent().empty());
}

TEST_F(SdbBatchTest, ListsTheStandbyCouldNotReadBackAreRefusedBeforeAnyWrite) {
  plat_test_log_capture(1);
  plat_trace_start();
  // The largest record that fits fills the buffer exactly; one byte more is refused.
  sdb_list_op fits = op(0, "k", std::string(HADRA_SDB_BATCH_BUF_SIZE - 4 - 9, 'f'));
  ASSERT_EQ(hadra_sdb_update_batch(sdb_, &fits, 1, 0), 1);
  ASSERT_EQ(sent_sync().at(0).size(), 12u + HADRA_SDB_BATCH_BUF_SIZE);

  const std::string long_key(HADRA_SDB_BATCH_FIELD_LIMIT, 'k');
  sdb_list_op refused[] = {op(0, "k", std::string(HADRA_SDB_BATCH_BUF_SIZE - 4 - 8, 'f')), op(0, long_key, "v"),
                           op(0x8000, "k"), sdb_list_op{0, &keys_.front(), nullptr}, sdb_list_op{1, nullptr, nullptr}};
  plat_trace_clear();
  for (const sdb_list_op& r : refused) {
    sdb_list_op list[] = {op(0, "fine", "v"), r};
    EXPECT_EQ(hadra_sdb_update_batch(sdb_, list, 2, 1), 0);
  }
  EXPECT_EQ(plat_trace_count("sdb_list_ops"), 0u);
  EXPECT_EQ(level2_lines(), 5u);
  EXPECT_EQ(value(sdb_, "fine"), "<missing>");
  EXPECT_TRUE(sent().empty());

  // Unsynced, nothing has to be carried: the platform alone judges the list.
  sdb_->no_sync = 1;
  sdb_list_op big = op(0, "big", std::string(HADRA_SDB_BATCH_BUF_SIZE, 'b'));
  EXPECT_EQ(hadra_sdb_update_batch(sdb_, &big, 1, 0), 1);
  EXPECT_TRUE(sent_sync().empty());
}

// Every platform call of a synced batch failed in turn: the result is the local outcome,
// and whatever reached the outbox applies cleanly on the standby.
TEST_F(SdbBatchTest, FaultAtEachPlatformCallLeavesTheCopiesConsistent) {
  unsigned n = 0;
  for (;; ++n) {
    sdb_list_op list[] = {op(0, "r" + std::to_string(n), "v"), op(1, "absent")};
    plat_fault_clear();
    plat_trace_start();
    plat_fault_arm("*", n, 1, PLAT_FAULT_DEFAULT, EIO);
    const int rc = hadra_sdb_update_batch(sdb_, list, 2, 1);
    const bool fired = plat_fault_fired() > 0;
    plat_fault_clear();
    EXPECT_EQ(value(sdb_, "r" + std::to_string(n)) != "<missing>", rc == 1) << "fault at call " << n;
    // A failed local write is neither completed nor sent.
    if (rc == 0) {
      EXPECT_EQ(plat_trace_count("sdb_write_done") + sent().size(), 0u) << "fault at call " << n;
    }
    for (const Bytes& m : sent_sync()) EXPECT_EQ(hadra::sdb::apply_sdb_batch(standby_, m.data() + 12, m.size() - 12), 1);
    if (rc == 1 && !fired) break;
  }
  EXPECT_GE(n, 12u);  // the write, its completion, the notification and the sync were all failed once
}

// Crafted batches, each in a buffer of exactly its own size, so a read past the end is caught.
TEST_F(SdbBatchTest, MalformedBatchesAreRefusedWithoutReadingPastThem) {
  const std::vector<std::pair<bool, Bytes>> bad = {
      {false, {}},                                                 // no count
      {false, {0, 0, 0, 0}},                                       // no record
      {false, {2, 0, 0, 0, 1, 0, 1, 0, 'a'}},                      // two announced, one present
      {false, {1, 0, 0, 0, 1, 0, 9, 0, 'a'}},                      // key longer than the batch
      {false, {1, 0, 0, 0, 1, 0, 0xff, 0xff}},                     // negative key length
      {false, {1, 0, 0, 0, 0, 0, 1, 0, 'a', 5, 0, 0, 0, 'v'}},     // value longer than the batch
      {false, {1, 0, 0, 0, 1, 0, 1, 0, 'a', 'x'}},                 // bytes left over
      {false, {0xff, 0xff, 0xff, 0x7f, 1, 0, 1, 0, 'a'}},          // absurd count
      {true, {1, 0, 0, 0, 0, 0, 1, 0, 'a', 0, 0, 0, 0}},           // MSDB: no secondary-key count
      {true, {1, 0, 0, 0, 0, 0, 1, 0, 'a', 0, 0, 0, 0, 0xff, 0xff}},  // negative count
      {true, {1, 0, 0, 0, 0, 0, 1, 0, 'a', 0, 0, 0, 0, 1, 0, 2, 0, 'x'}},  // secondary key cut short
      {true, {1, 0, 0, 0, 0, 0, 1, 0, 'a', 0, 0, 0, 0, 1, 0, 1, 0, 'x', 0}},  // tag cut short
  };
  plat_test_log_capture(1);
  plat_trace_start();
  for (const auto& [msdb, b] : bad) {
    std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size() + 1]);
    std::copy(b.begin(), b.end(), exact.get());
    const uint32_t len = static_cast<uint32_t>(b.size());
    EXPECT_EQ(msdb ? hadra::sdb::apply_msdb_batch(standby_msdb_, exact.get(), len)
                   : hadra::sdb::apply_sdb_batch(standby_, exact.get(), len), 0);
  }
  EXPECT_EQ(plat_trace_count("sdb_list_ops") + plat_trace_count("sdb_write_mkey_list"), 0u);
  EXPECT_EQ(level2_lines(), bad.size());
}

}  // namespace

namespace {

// Collects every batch the encoder hands out.
struct Collect final : hadra::wire::BatchOut {
  void flush(uint8_t* buf, uint32_t len) noexcept override { batches.emplace_back(buf, buf + len); }
  std::vector<Bytes> batches;
};

// The ops the standby reads back from a batch.
struct Ops final : hadra::wire::BatchSink {
  void record(uint32_t, const hadra::wire::RecordView& r) noexcept override { ops.push_back(r.op); }
  void skey(uint32_t, uint32_t, const hadra::wire::SkeyView&) noexcept override {}
  std::vector<uint32_t> ops;
};

// An op travels as its low 16 bits and the standby widens them with their sign. Ops from
// 0xffff8000 up come back as they left and are carried like any other op; those from 0x8000
// to 0xffff7fff would arrive as another op and stay refused.
TEST_F(SdbBatchTest, OpsThatWidenBackToThemselvesAreCarried) {
  const std::vector<uint32_t> carried = {0, 1, 0x7fff, 0xffff8000u, 0xfffffffeu, 0xffffffffu};
  std::vector<sdb_list_op> list;
  std::vector<sdb_mkey_op> mlist;
  for (uint32_t o : carried) {
    list.push_back(op(o, "k" + std::to_string(list.size()), "v"));
    mlist.push_back({list.back().key, list.back().data, nullptr, 0, o});
  }
  uint32_t bad = 0;
  ASSERT_EQ(hadra::wire::unsendable(list.data(), list.size(), &bad), nullptr);
  ASSERT_EQ(hadra::wire::unsendable(mlist.data(), mlist.size(), &bad), nullptr);

  Bytes buf(HADRA_SDB_BATCH_BUF_SIZE);
  for (bool msdb : {false, true}) {
    Collect out;
    if (msdb)
      hadra::wire::encode_batches(buf.data(), mlist.data(), mlist.size(), &out);
    else
      hadra::wire::encode_batches(buf.data(), list.data(), list.size(), &out);
    ASSERT_EQ(out.batches.size(), 1u);
    Ops read;
    ASSERT_TRUE(hadra::wire::walk_batch(out.batches[0].data(), out.batches[0].size(), msdb, &read));
    EXPECT_EQ(read.ops, carried) << (msdb ? "MSDB" : "SDB");
  }

  for (uint32_t o : {0x8000u, 0xffffu, 0x10000u, 0xffff7fffu}) {
    sdb_list_op e = op(o, "k");
    sdb_mkey_op m{e.key, nullptr, nullptr, 0, o};
    EXPECT_NE(hadra::wire::unsendable(&e, 1, &bad), nullptr) << std::hex << o;
    EXPECT_NE(hadra::wire::unsendable(&m, 1, &bad), nullptr) << std::hex << o;
  }

  // The library refuses nothing more: the platform judges such an op itself.
  sdb_list_op e = op(0xffffffffu, "k");
  plat_trace_start();
  (void)hadra_sdb_update_batch(sdb_, &e, 1, 1);
  EXPECT_EQ(plat_trace_count("sdb_list_ops"), 1u);
}

}  // namespace
