// SDB deletes: single keys and key lists, their completion and their SDB_DELETE messages.
#include "tests/sdb/sdb_fixture.h"

namespace {

using hadra::test::Bytes;
using hadra::test::trace_calls;
using Calls = std::vector<std::string>;

class SdbDeleteTest : public hadra::test::SdbOpsTest {
 protected:
  void put(const hadra_ha_pss_entry* e, const std::string& k) {
    datum kd{const_cast<char*>(k.data()), static_cast<uint32_t>(k.size())}, vd{(void*)"v", 1};
    ASSERT_EQ(sdb_write(e->uri, &kd, &vd), 0u);
  }
};

TEST_F(SdbDeleteTest, DeleteRemovesCompletesAndSyncsTheKey) {
  put(sdb_, "ab");
  plat_trace_start();
  ASSERT_EQ(hadra_sdb_delete(sdb_, "ab", 2), 1);
  EXPECT_EQ(value(sdb_, "ab"), "<missing>");
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_delete", "sdb_get_context_len", "sdb_set_context", "sdb_write_done",
                                        "sdb_read"}));
  EXPECT_EQ(sent_sync(), std::vector<Bytes>({{2, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 5, 'a', 'b'}}));

  // notify 0 completes without asking for the context.
  put(sdb_, "ab");
  plat_trace_clear();
  ASSERT_EQ(hadra_sdb_delete_notify(sdb_, "ab", 2, 0), 1);
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_delete", "sdb_write_done"}));
  EXPECT_EQ(sent_sync().size(), 1u);

  // A missing key is the platform's failure: nothing completed, nothing synced.
  plat_trace_clear();
  EXPECT_EQ(hadra_sdb_delete(sdb_, "ab", 2), 0);
  EXPECT_EQ(trace_calls("sdb_"), (Calls{"sdb_delete"}));
  EXPECT_TRUE(sent().empty());
  // A zero length never reaches the platform.
  plat_trace_clear();
  EXPECT_EQ(hadra_sdb_delete(sdb_, "ab", 0), 0);
  EXPECT_EQ(hadra_sdb_delete_list(sdb_, nullptr, 1), 0);
  EXPECT_EQ(plat_trace_size(), 0u);
}

TEST_F(SdbDeleteTest, ListDeleteIsOneCallAndOneMessagePerNonEmptyKey) {
  // The same three keys, the second empty: as one array of datums, and scattered (with a
  // missing datum pointer thrown in), which the library gathers for the platform.
  datum keys[] = {{(void*)"k1", 2}, {(void*)"k2", 0}, {(void*)"k3", 2}};
  sdb_kv contiguous[] = {{&keys[0], nullptr}, {&keys[1], nullptr}, {&keys[2], nullptr}};
  sdb_kv scattered[] = {{&keys[2], nullptr}, {nullptr, nullptr}, {&keys[1], nullptr}, {&keys[0], nullptr}};
  for (auto [list, count] : {std::pair{contiguous, 3u}, std::pair{scattered, 4u}}) {
    for (const char* k : {"k1", "k2", "k3"}) put(sdb_, k);
    plat_trace_start();
    ASSERT_EQ(hadra_sdb_delete_list(sdb_, list, count), 1);
    EXPECT_EQ(plat_trace_count("sdb_delete_list"), 1u);
    EXPECT_EQ(records(sdb_), (Calls{"k2=v"}));
    auto msgs = sent_sync();
    ASSERT_EQ(msgs.size(), 2u);
    for (const Bytes& m : msgs) EXPECT_EQ(m[11], HADRA_SYNC_SDB_DELETE);
  }
}

}  // namespace
