// PSS store: records, positions, multi-get phases and the lifetime of returned datums.
#include <thread>

#include "tests/platform/pss/pss_support.h"

namespace hadra::test {
namespace {

class PssRecordsTest : public PssTest {};

TEST_F(PssRecordsTest, StoreFetchReplaceAndDelete) {
  uint32_t h = open("run:/rec");
  EXPECT_EQ(put(h, "k1", "one"), 0u);
  EXPECT_EQ(put(h, "k1", "uno"), 0u);
  EXPECT_EQ(put(h, "k2", ""), 0u);  // empty values are records too
  EXPECT_EQ(get(h, "k1"), "uno");
  uint32_t st = 1;
  datum k2 = D("k2");
  datum* v = pss2_fetch(h, &k2, &st);
  ASSERT_NE(v, nullptr);
  EXPECT_NE(v->dptr, nullptr);  // a null pointer would read as "no record"
  EXPECT_EQ(v->dsize, 0u);
  datum k1 = D("k1"), nope = D("nope");
  EXPECT_EQ(pss2_delete(h, &k1, PSS2_DELETE_KEY), 0u);
  EXPECT_EQ(pss2_delete(h, &k1, PSS2_DELETE_KEY), PLAT_ERR_PSS_NO_RECORD);
  EXPECT_EQ(pss2_fetch(h, &nope, &st), nullptr);
  EXPECT_EQ(st, PLAT_ERR_PSS_NO_RECORD);
  EXPECT_EQ(pss2_delete(h, &k2, 2), PLAT_ERR_PSS_BAD_ARG);
}

TEST_F(PssRecordsTest, KeyLengthsAreCheckedNeverTrusted) {
  uint32_t h = open("run:/keys");
  std::string max(PSS2_MAX_KEY_LEN, 'k'), over(PSS2_MAX_KEY_LEN + 1, 'k');
  EXPECT_EQ(put(h, max, "v"), 0u);
  EXPECT_EQ(put(h, over, "v"), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(put(h, "", "v"), PLAT_ERR_PSS_BAD_ARG);
  datum null_key{nullptr, 3}, v = D("v"), null_val{nullptr, 2}, k = D("k");
  EXPECT_EQ(pss2_store(h, &null_key, &v), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_store(h, &k, &null_val), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_store(h, nullptr, &v), PLAT_ERR_PSS_BAD_ARG);
  datum o = D(over);
  uint32_t st = 0;
  EXPECT_EQ(pss2_move2key(&h, 1, &o, &st), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_fetch(h, &o, &st), nullptr);
  EXPECT_EQ(st, PLAT_ERR_PSS_BAD_ARG);
  uint32_t n = 9;
  EXPECT_EQ(pss2_delete_prefixed_keys(h, &o, 0, &n), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(get(h, max), "v");
  // A file may ask for shorter keys than the store allows.
  pss2_params p{PSS2_PARAMS_VERSION, 4, 0, 0, 0};
  uint32_t s = open("run:/short", PSS2_OPEN_FLAGS_CREATE, &p);
  EXPECT_EQ(put(s, "abcd", "v"), 0u);
  EXPECT_EQ(put(s, "abcde", "v"), PLAT_ERR_PSS_BAD_ARG);
}

TEST_F(PssRecordsTest, WalkGoesInKeyOrderAndEndsWithNoRecord) {
  uint32_t h = open("run:/walk");
  for (const char* k : {"m", "b", "z", "a", "mm"}) ASSERT_EQ(put(h, k, std::string("v") + k), 0u);
  uint32_t end = 0;
  EXPECT_EQ(walk(h, &end), (std::vector<std::string>{"a", "b", "m", "mm", "z"}));
  EXPECT_EQ(end, PLAT_ERR_PSS_NO_RECORD);
  // At the end there is no key (not an error) and no value; next stays at the end.
  uint32_t st = 1;
  EXPECT_EQ(pss2_getkey(h, &st), nullptr);
  EXPECT_EQ(st, 0u);
  EXPECT_EQ(pss2_getvalue(h, &st), nullptr);
  EXPECT_EQ(st, PLAT_ERR_PSS_NO_RECORD);
  EXPECT_EQ(pss2_move2location(&h, 1, PSS2_LOC_NEXT, &st), PLAT_ERR_PSS_NO_RECORD);
  // Backwards: prev from the end is the last record.
  EXPECT_EQ(pss2_move2location(&h, 1, PSS2_LOC_PREV, &st), 0u);
  EXPECT_EQ(S(pss2_getkey(h, &st)), "z");
  EXPECT_EQ(pss2_move2location(&h, 1, PSS2_LOC_PREV, &st), 0u);
  EXPECT_EQ(S(pss2_getvalue(h, &st)), "vmm");
  EXPECT_EQ(pss2_move2location(&h, 1, 5, &st), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_move2location(&h, 2, PSS2_LOC_FIRST, &st), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(pss2_move2location(nullptr, 1, PSS2_LOC_FIRST, &st), PLAT_ERR_PSS_BAD_ARG);
}

// The datums stay readable for as long as the header promises; the sanitizers watch.
TEST_F(PssRecordsTest, ReturnedDatumsLiveUntilTheNextPositioningCall) {
  uint32_t h = open("run:/life");
  ASSERT_EQ(put(h, "k1", std::string(3000, 'x')), 0u);
  ASSERT_EQ(put(h, "k2", "two"), 0u);
  uint32_t st = 0;
  ASSERT_EQ(pss2_move2location(&h, 1, PSS2_LOC_FIRST, &st), 0u);
  datum* k = pss2_getkey(h, &st);
  datum* v = pss2_getvalue(h, &st);
  ASSERT_NE(k, nullptr);
  ASSERT_NE(v, nullptr);
  datum k2 = D("k2");
  datum* f = pss2_fetch(h, &k2, &st);
  ASSERT_EQ(put(h, "k3", "three"), 0u);
  ASSERT_EQ(pss2_delete(h, &k2, PSS2_DELETE_KEY), 0u);
  EXPECT_EQ(S(k), "k1");
  EXPECT_EQ(S(v), std::string(3000, 'x'));
  EXPECT_EQ(S(f), "two");
  // A move hands out a new key; a pointer kept across it is not used again.
  ASSERT_EQ(pss2_move2key(&h, 1, k, &st), 0u);  // the position's own key as the argument
  EXPECT_EQ(S(pss2_getkey(h, &st)), "k1");
}

TEST_F(PssRecordsTest, MultiGetSeesItsSnapshotWhileWritesGoOn) {
  uint32_t h = open("run:/mget");
  for (const char* k : {"a", "b", "c"}) ASSERT_EQ(put(h, k, "v"), 0u);
  uint32_t other = open("run:/mget", PSS2_OPEN_FLAGS_OPEN);
  uint32_t n = 0;
  ASSERT_EQ(pss2_mget_begin(h, &n), 0u);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(pss2_mget_begin(h, &n), PLAT_ERR_PSS_BAD_ARG);
  ASSERT_EQ(put(h, "b2", "new"), 0u);        // written and committed at once ...
  datum a = D("a");
  ASSERT_EQ(pss2_delete(other, &a, PSS2_DELETE_KEY), 0u);
  EXPECT_EQ(get(other, "b2"), "new");         // ... visible to other handles ...
  EXPECT_EQ(walk(h), (std::vector<std::string>{"a", "b", "c"}));  // ... not in the phase
  EXPECT_EQ(pss2_mget_done(h), 0u);
  EXPECT_EQ(pss2_mget_done(h), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(walk(h), (std::vector<std::string>{"b", "b2", "c"}));
  EXPECT_EQ(pss2_mget_begin(h, nullptr), 0u);
  EXPECT_EQ(pss2_close(h), 0u);  // closing ends the phase
}

TEST_F(PssRecordsTest, ProbeHandlesOnlyRead) {
  uint32_t w = open("run:/probe");
  ASSERT_EQ(put(w, "k", "v"), 0u);
  uint32_t r = open("run:/probe", PSS2_OPEN_FLAGS_PROBE);
  EXPECT_EQ(get(r, "k"), "v");
  uint32_t n = 0, st = 0;
  EXPECT_EQ(put(r, "k", "x"), PLAT_ERR_PSS_READ_ONLY);
  EXPECT_EQ(pss2_purge(r, &n), PLAT_ERR_PSS_READ_ONLY);
  EXPECT_EQ(pss2_set_max_dbsize(r, 1 << 20), PLAT_ERR_PSS_READ_ONLY);
  EXPECT_EQ(pss2_move2location(&r, 1, PSS2_LOC_FIRST, &st), PLAT_ERR_PSS_BAD_ARG);  // no position
  EXPECT_EQ(pss2_mget_begin(r, &n), PLAT_ERR_PSS_BAD_ARG);
  EXPECT_EQ(get(w, "k"), "v");
}

TEST_F(PssRecordsTest, ThreadsShareOneFileSafely) {
  uint32_t h0 = open("run:/threads");
  auto writer = [this](char tag) {
    uint32_t h = open("run:/threads", PSS2_OPEN_FLAGS_OPEN);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(put(h, std::string(1, tag) + std::to_string(i), "v"), 0u);
    EXPECT_EQ(pss2_close(h), 0u);
  };
  std::thread t1(writer, 'a'), t2(writer, 'b');
  t1.join();
  t2.join();
  datum all{nullptr, 0};
  uint32_t n = 0;
  EXPECT_EQ(pss2_delete_prefixed_keys(h0, &all, 0, &n), 0u);
  EXPECT_EQ(n, 400u);
}

}  // namespace
}  // namespace hadra::test
