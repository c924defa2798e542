// History buffers: ring order, record cut, dump, bad buffers. The filters are driven by the
// library's diagnostics tests.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hadra_platform/log.h"
#include "support/fixture.h"

namespace {

class HistTest : public hadra::test::PlatformTest {
 protected:
  // A trace record as the library makes it: element word, then terminated text.
  static std::vector<uint8_t> text_record(uint32_t elem, const std::string& text) {
    std::vector<uint8_t> r(4 + text.size() + 1);
    std::memcpy(r.data(), &elem, 4);
    std::memcpy(r.data() + 4, text.c_str(), text.size() + 1);
    return r;
  }
  std::string dump(const sdwrap_hist_buf* b, int* count) {
    std::string path = root() + "/dump.txt";
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    *count = sdwrap_hist_dump(b, fd);
    close(fd);
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
};

TEST_F(HistTest, RingKeepsTheNewestRecordsInOrder) {
  sdwrap_hist_buf* b = sdwrap_hist_buf_create("ring", 4);
  ASSERT_NE(b, nullptr);
  for (uint32_t i = 0; i < 6; ++i) ASSERT_EQ(sdwrap_his_log_event_for_uuid_inst(77, 0x730000, b, 0, 4, &i), 0);
  ASSERT_EQ(sdwrap_hist_count(b), 4u);
  for (uint32_t i = 0; i < 4; ++i) {
    sdwrap_hist_rec rec;
    ASSERT_EQ(sdwrap_hist_get(b, i, &rec), 0);
    uint32_t v;
    std::memcpy(&v, rec.data, 4);
    EXPECT_EQ(v, i + 2);
    EXPECT_EQ(rec.seq, i + 2);
    EXPECT_EQ(rec.uuid, 77u);
    EXPECT_EQ(rec.event, 0x730000u);
  }
  sdwrap_hist_rec rec;
  EXPECT_EQ(sdwrap_hist_get(b, 4, &rec), -1);
  EXPECT_EQ(sdwrap_hist_get(b, 0, nullptr), -1);
}

TEST_F(HistTest, LongRecordsAreCutAt1024Bytes) {
  std::vector<uint8_t> big(2000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
  ASSERT_EQ(sdwrap_hist_event(0x730000, static_cast<uint32_t>(big.size()), big.data()), 0);
  sdwrap_hist_rec rec;
  ASSERT_EQ(sdwrap_hist_get(sdwrap_hist_default_buf(), 0, &rec), 0);
  EXPECT_EQ(rec.length, 1024u);
  EXPECT_EQ(std::memcmp(rec.data, big.data(), 1024), 0);
  EXPECT_EQ(rec.uuid, 0u);
}

TEST_F(HistTest, DumpShowsTextRecordsAsTextAndOthersInHex) {
  auto r = text_record(9, "hadra_ha_sync: MTS Send\n");
  uint8_t raw[3] = {0xde, 0xad, 0x01};
  sdwrap_his_log_event_for_uuid_inst(1, 0x730000, nullptr, 0, static_cast<uint32_t>(r.size()), r.data());
  sdwrap_hist_event(0x12, sizeof raw, raw);
  int count = 0;
  std::string out = dump(nullptr, &count);
  EXPECT_EQ(count, 2);
  EXPECT_NE(out.find("elem=9 hadra_ha_sync: MTS Send\n"), std::string::npos) << out;
  EXPECT_NE(out.find("dead01\n"), std::string::npos) << out;
  EXPECT_EQ(sdwrap_hist_dump(nullptr, -1), -1);
}

TEST_F(HistTest, BadBuffersAndArgumentsAreRefused) {
  EXPECT_EQ(sdwrap_hist_buf_create("zero", 0), nullptr);
  EXPECT_EQ(sdwrap_hist_buf_create("huge", PLAT_HIST_MAX_RECORDS + 1), nullptr);
  sdwrap_hist_buf* b = sdwrap_hist_buf_create("gone", 2);
  sdwrap_hist_buf_destroy(b);
  uint32_t v = 1;
  // A stale pointer, as the library's exported buffer switch may hold, is never written.
  EXPECT_EQ(sdwrap_his_log_event_for_uuid_inst(1, 2, b, 0, 4, &v), -1);
  EXPECT_EQ(sdwrap_hist_count(b), 0u);
  int junk = 0;
  EXPECT_EQ(sdwrap_his_log_event_for_uuid_inst(1, 2, &junk, 0, 4, &v), -1);
  EXPECT_EQ(sdwrap_hist_event(1, 4, nullptr), -1);
  EXPECT_EQ(sdwrap_hist_event(1, 0, nullptr), 0);  // an empty record is fine
}

TEST_F(HistTest, ConcurrentWritersGetDistinctSequenceNumbers) {
  sdwrap_hist_buf* b = sdwrap_hist_buf_create("mt", 4000);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 4; ++t)
    threads.emplace_back([b, t] {
      for (uint32_t i = 0; i < 1000; ++i) sdwrap_his_log_event_for_uuid_inst(t, 1, b, 0, 4, &i);
    });
  for (auto& th : threads) th.join();
  ASSERT_EQ(sdwrap_hist_count(b), 4000u);
  sdwrap_hist_rec rec;
  for (uint32_t i = 0; i < 4000; ++i) {
    ASSERT_EQ(sdwrap_hist_get(b, i, &rec), 0);
    ASSERT_EQ(rec.seq, i);
  }
}

}  // namespace
