// SDB single and list updates, and the update notification that completes every write.
#include <cerrno>

#include "hadra_platform/sdb.h"
#include "sdb/ops.h"
#include "tests/sdb/sdb_fixture.h"

namespace {

using hadra::test::Bytes;
using hadra::test::trace_calls;
using Calls = std::vector<std::string>;

class SdbUpdateTest : public hadra::test::SdbOpsTest {
 protected:
  int update(const std::string& k, const std::string& v, uint32_t notify = 1) {
    return hadra_sdb_update(sdb_, k.data(), static_cast<uint32_t>(k.size()), v.data(), static_cast<uint32_t>(v.size()),
                            notify);
  }
  // Messages under the update opcode: the notifications.
  static size_t notifications(const std::vector<hadra::test::SentMsg>& msgs) {
    size_t n = 0;
    for (const auto& m : msgs) n += m.opcode == kUpdateOpcode;
    return n;
  }
};

TEST_F(SdbUpdateTest, WriteIsCompletedAndNotifiedThenSynced) {
  plat_trace_start();
  ASSERT_EQ(update("key", "value"), 1);
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_write", "sdb_get_context_len", "sdb_set_context", "sdb_write_done"}));
  EXPECT_EQ(value(sdb_, "key"), "value");
  auto msgs = sent();
  ASSERT_EQ(msgs.size(), 2u);
  // The notification goes first, as the whole payload, flagged notify and no-reply.
  EXPECT_EQ(msgs[0].opcode, kUpdateOpcode);
  EXPECT_EQ(msgs[0].flags, MTS_MSG_NOTIFY | MTS_MSG_NO_REPLY);
  sdb_context ctx;
  ASSERT_EQ(sdb_context_parse(msgs[0].payload.data(), static_cast<uint32_t>(msgs[0].payload.size()), &ctx), 0u);
  EXPECT_EQ(ctx.op, 1u);
  EXPECT_EQ(msgs[1].opcode, kSyncOpcode);
  EXPECT_EQ(msgs[1].payload, (Bytes{2, 0, 0, 3, 0, 5, 0, 0, 0, 0, 0, 4, 'k', 'e', 'y', 'v', 'a', 'l', 'u', 'e'}));

  // An empty key or value is refused before the platform is asked.
  plat_trace_clear();
  EXPECT_EQ(update("key", ""), 0);
  EXPECT_TRUE(trace_calls("sdb_").empty());
}

TEST_F(SdbUpdateTest, ListSyncsOneMessagePerCompleteEntry) {
  datum k[] = {{(void*)"k1", 2}, {(void*)"k2", 2}, {(void*)"", 0}, {(void*)"k4", 2}};
  datum v[] = {{(void*)"v1", 2}, {(void*)"v4", 2}};
  sdb_kv list[] = {{&k[0], &v[0]}, {&k[1], nullptr}, {&k[2], &v[0]}, {&k[3], &v[1]}};
  ASSERT_EQ(hadra_sdb_update_list(sdb_, list, 4), 1);
  EXPECT_EQ(records(sdb_), (Calls{"k1=v1", "k4=v4"}));
  auto msgs = sent_sync();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(Bytes(msgs[0].begin() + 12, msgs[0].end()), hadra::test::bytes_of("k1v1"));
  EXPECT_EQ(Bytes(msgs[1].begin() + 12, msgs[1].end()), hadra::test::bytes_of("k4v4"));
}

TEST_F(SdbUpdateTest, FailedPlatformWriteCompletesAndSendsNothing) {
  plat_test_log_capture(1);
  datum k{(void*)"k", 1}, v{(void*)"v", 1};
  sdb_kv list[] = {{&k, &v}};
  plat_fault_arm("sdb_write", 0, 1, PLAT_ERR_SDB_FULL, 0);
  plat_fault_arm("sdb_write_list", 0, 1, PLAT_ERR_SDB_IO, 0);
  plat_fault_arm("sdb_delete_list", 0, 1, PLAT_ERR_SDB_IO, 0);
  plat_trace_start();
  EXPECT_EQ(update("k", "v"), 0);
  EXPECT_EQ(hadra_sdb_update_list(sdb_, list, 1), 0);
  EXPECT_EQ(hadra_sdb_delete_list(sdb_, list, 1), 0);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 0u);
  EXPECT_EQ(plat_trace_count("sdb_get_context_len"), 0u);
  EXPECT_EQ(level2_lines(), 3u);
  EXPECT_TRUE(sent().empty());
}

// A record over 65535 bytes was stored on the active and never reached the standby.
TEST_F(SdbUpdateTest, RecordTooLongToSyncIsRefusedBeforeItIsStored) {
  plat_test_log_capture(1);
  const std::string big(HADRA_SYNC_MAX_LEN + 1, 'x');
  const std::string most(HADRA_SYNC_MAX_LEN, 'y');
  plat_trace_start();
  EXPECT_EQ(update("k", big), 0);
  EXPECT_EQ(update(big, "v"), 0);
  datum k{(void*)"a", 1}, bk{(void*)big.data(), static_cast<uint32_t>(big.size())}, v{(void*)"v", 1};
  sdb_kv list[] = {{&k, &v}, {&bk, &v}};
  EXPECT_EQ(hadra_sdb_update_list(sdb_, list, 2), 0);
  EXPECT_EQ(plat_trace_count("sdb_write"), 0u);
  EXPECT_EQ(plat_trace_count("sdb_write_list"), 0u);
  EXPECT_TRUE(records(sdb_).empty());
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(level2_lines(), 3u);
  // The largest syncable record goes through whole; an unsynced SDB keeps what the store takes.
  ASSERT_EQ(update("k", most), 1);
  const auto synced = sent_sync();
  ASSERT_EQ(synced.size(), 1u);
  EXPECT_EQ(synced[0].size(), 12u + 1u + most.size());
  sdb_->no_sync = 1;
  EXPECT_EQ(update("n", big), 1);
}

// (Unsynced batches: batch_test.cc and msdb_test.cc.)
TEST_F(SdbUpdateTest, UnsyncedWritersChangeTheStoreAndSendNoSyncMessage) {
  sdb_->no_sync = 1;
  datum k{(void*)"lk", 2}, v{(void*)"lv", 2};
  sdb_kv list[] = {{&k, &v}};
  ASSERT_EQ(update("k", "v"), 1);
  ASSERT_EQ(hadra_sdb_update_list(sdb_, list, 1), 1);
  EXPECT_EQ(records(sdb_), (Calls{"k=v", "lk=lv"}));
  ASSERT_EQ(hadra_sdb_delete(sdb_, "k", 1), 1);
  ASSERT_EQ(hadra_sdb_delete_list(sdb_, list, 1), 1);
  EXPECT_TRUE(records(sdb_).empty());
  auto msgs = sent();
  EXPECT_EQ(msgs.size(), 4u);
  EXPECT_EQ(notifications(msgs), msgs.size());  // completions still notify; nothing is synced
}

TEST_F(SdbUpdateTest, NotificationGoesOutOnlyFromTheActive) {
  plat_test_sysmgr_set_supstate(2);
  plat_trace_start();
  ASSERT_EQ(update("k", "v"), 1);
  // The context is still asked for and filled, and the write completed; nothing goes out.
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_write", "sdb_get_context_len", "sdb_set_context", "sdb_write_done"}));
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(hadra_sdb_update_notification(nullptr), 0);
}

TEST_F(SdbUpdateTest, WriteIsCompletedWhenTheContextCannotBeHadOrSent) {
  plat_test_log_capture(1);
  // Length unavailable, longer than the 100-byte buffer, or not filled: nothing is sent.
  plat_fault_arm("sdb_get_context_len", 0, 1, PLAT_ERR_SDB_IO, 0);
  plat_trace_start();
  EXPECT_EQ(hadra_sdb_update_notification(sdb_), 0);
  // The platform's context is 32 bytes; the setter makes it claim a longer one.
  plat_test_sdb_set_context_len(HADRA_SDB_CONTEXT_BUF_SIZE + 1);
  EXPECT_EQ(hadra_sdb_update_notification(sdb_), 0);
  plat_test_sdb_set_context_len(0);
  EXPECT_EQ(plat_trace_count("sdb_set_context"), 0u);
  plat_fault_arm("sdb_set_context", 0, 1, PLAT_ERR_SDB_IO, 0);
  EXPECT_EQ(hadra_sdb_update_notification(sdb_), 1);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 3u);
  EXPECT_EQ(plat_trace_count("mts_send"), 0u);

  // A failed send is logged; the write is still completed and the writer succeeds.
  plat_fault_arm("mts_send", 0, 1, -1, ENOBUFS);
  EXPECT_EQ(update("k", "v"), 1);
  EXPECT_EQ(plat_trace_count("sdb_write_done"), 4u);
  EXPECT_EQ(level2_lines(), 1u);
  auto msgs = sent();
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_EQ(msgs[0].opcode, kSyncOpcode);
}

}  // namespace
