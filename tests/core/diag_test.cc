// The three report channels: debug log, history trace (and record dump), error reports.
#include <cstring>
#include <string>

#include "core/diag.h"
#include "hadra_platform/strutil.h"
#include "support/fixture.h"

namespace hadra::test {
namespace {

// A descriptor of our own, so that the checks do not depend on the platform catalogue:
// severity 3, traceback asked for, logged at level 3.
syslog_msg_format g_test_fmt = {"TEST_MSG", "%%%s-%d-TEST_MSG: code %d, %s", 3, {}};
syslog_msg_desc g_test_desc = {9001, 0x55, "msg_error_HADRA_TEST", "%d %s", "test message", 3, 1, {}, &g_test_fmt};

int g_arg_evaluations = 0;
int counted(int v) {
  ++g_arg_evaluations;
  return v;
}

struct LogLine {
  int level;
  std::string text;
};

std::vector<LogLine> log_lines() {
  std::vector<LogLine> out;
  char buf[4096];
  for (size_t i = 0; i < plat_test_log_count(); ++i) {
    int level = 0;
    if (plat_test_log_get(i, &level, buf, sizeof buf) == 0) out.push_back({level, buf});
  }
  return out;
}

std::string record_text(const sdwrap_hist_rec &r) {
  return std::string(reinterpret_cast<const char *>(r.data + 4));
}

uint32_t record_elem(const sdwrap_hist_rec &r) {
  uint32_t elem;
  std::memcpy(&elem, r.data, sizeof elem);
  return elem;
}

class DiagTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
    std::memcpy(saved_preamble_, syslog_preamble, sizeof saved_preamble_);
    buf_ = sdwrap_hist_buf_create("diag-test", 8);
    ASSERT_NE(buf_, nullptr);
    g_arg_evaluations = 0;
  }
  void TearDown() override {
    std::memcpy(syslog_preamble, saved_preamble_, sizeof saved_preamble_);
    sdwrap_hist_buf_destroy(buf_);
    PlatformTest::TearDown();
  }

  sdwrap_hist_buf *buf_ = nullptr;
  char saved_preamble_[sizeof syslog_preamble];
};

TEST_F(DiagTest, SwitchesOffFormatNothingButReportsStillAppear) {
  hadra_ha_enable_debug();
  hadra_ha_disable_debug();
  hadra_sdwrap_dbg_elem_set(0, buf_);
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s %d\n", "routes", counted(1));
  HADRA_DUMP("key %d\n", counted(2));
  EXPECT_EQ(g_arg_evaluations, 0);
  EXPECT_EQ(plat_trace_size(), 0u);

  report(g_test_desc, 5, "text");
  EXPECT_EQ(trace_calls(), (std::vector<std::string>{"syslog_msg_rate_limit", "plat_syslog", "syslog_traceback"}));
}

TEST_F(DiagTest, DebugLogAloneWritesLevelSixAndNoRecord) {
  hadra_ha_enable_debug();
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s\n", "routes");
  EXPECT_EQ(trace_calls(), std::vector<std::string>{"plat_syslog"});
  auto lines = log_lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 6);
  EXPECT_EQ(lines[0].text.find("Disabling PSS routes"), 0u);
  EXPECT_EQ(sdwrap_hist_count(buf_), 0u);
}

TEST_F(DiagTest, TraceRecordCarriesElementUuidAndThreadTag) {
  hadra_ha_handle.uuid = 777;
  hadra_sdwrap_dbg_elem_set(42, buf_);
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s\n", "routes");
  EXPECT_EQ(trace_find("plat_syslog"), -1);
  EXPECT_NE(trace_find("sdwrap_his_log_event_for_uuid_inst"), -1);
  ASSERT_EQ(sdwrap_hist_count(buf_), 1u);
  sdwrap_hist_rec r;
  ASSERT_EQ(sdwrap_hist_get(buf_, 0, &r), 0);
  const std::string want = "[" + std::to_string(hadra_get_thread_pid()) + "]: Disabling PSS routes\n";
  EXPECT_EQ(r.uuid, 777u);
  EXPECT_EQ(r.event, HADRA_HA_HIST_EVENT);
  EXPECT_EQ(record_elem(r), 42u);
  EXPECT_EQ(record_text(r), want);
  EXPECT_EQ(r.length, 4 + want.size() + 1);
}

TEST_F(DiagTest, LongTraceTextIsCutTo199Characters) {
  hadra_sdwrap_dbg_elem_set(1, buf_);
  const std::string body(300, 'x');
  HADRA_DBG("%s\n", body.c_str());
  sdwrap_hist_rec r;
  ASSERT_EQ(sdwrap_hist_get(buf_, 0, &r), 0);
  EXPECT_EQ(record_text(r).size(), 199u);
  EXPECT_EQ(record_text(r).rfind("[", 0), 0u);
  EXPECT_EQ(r.length, 204u);
}

TEST_F(DiagTest, DumpRecordsIntoDefaultBufferAndEchoesWhenAsked) {
  sdwrap_hist_buf *def = sdwrap_hist_default_buf();
  const uint32_t before = sdwrap_hist_count(def);
  hadra_sdwrap_dbg_elem_set(5, buf_);
  plat_test_hist_set_debug_elem(5, 1);
  const std::string key(600, 'k');
  plat_trace_start();
  HADRA_DUMP("key %s\n", key.c_str());
  EXPECT_EQ(trace_calls(), (std::vector<std::string>{"sdwrap_hist_event_subtype_check", "sdwrap_hist_event",
                                                     "sdwrap_chk_int", "dbgout"}));
  ASSERT_EQ(sdwrap_hist_count(def), before + 1);
  sdwrap_hist_rec r;
  ASSERT_EQ(sdwrap_hist_get(def, sdwrap_hist_count(def) - 1, &r), 0);
  EXPECT_EQ(record_elem(r), 5u);
  EXPECT_EQ(record_text(r).size(), 511u);
  EXPECT_EQ(r.length, 516u);
  EXPECT_EQ(sdwrap_hist_count(buf_), 0u);

  // Filtered event and an element that does not ask for printing: nothing is recorded.
  plat_test_hist_filter_event(HADRA_HA_HIST_EVENT, 1);
  plat_test_hist_set_debug_elem(5, 0);
  plat_trace_clear();
  HADRA_DUMP("key %s\n", "k");
  EXPECT_EQ(trace_calls(), (std::vector<std::string>{"sdwrap_hist_event_subtype_check", "sdwrap_chk_int"}));
}

TEST_F(DiagTest, ReportWritesUpperCaseFacilityParamsAndTraceback) {
  plat_test_log_set_facility("hadra_Core", 7);
  std::memset(syslog_vmsg_params, 0xab, sizeof syslog_vmsg_params);
  std::memset(syslog_preamble, 'P', sizeof syslog_preamble - 1);  // fills all 40 bytes and more
  plat_trace_start();
  report(g_test_desc, 5, "text");
  EXPECT_EQ(trace_calls(), (std::vector<std::string>{"syslog_msg_rate_limit", "plat_syslog", "syslog_traceback"}));
  auto lines = log_lines();
  ASSERT_GE(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].text, "%HADRA_CORE-3-TEST_MSG: code 5, text");

  const unsigned char *p = syslog_vmsg_params;
  uint32_t w0, w16, w20, w64;
  std::memcpy(&w0, p, 4);
  std::memcpy(&w16, p + 16, 4);
  std::memcpy(&w20, p + 20, 4);
  std::memcpy(&w64, p + 64, 4);
  EXPECT_EQ(w0, 1u);
  EXPECT_EQ(w16, 0u);
  EXPECT_EQ(w20, 0u);
  EXPECT_EQ(w64, 1u);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(p + 24), 40), std::string(40, 'P'));
  EXPECT_EQ(p[72], ' ');
  EXPECT_EQ(p[73], ' ');
  size_t nonzero = 0;
  for (size_t i = 0; i < sizeof syslog_vmsg_params; ++i) nonzero += p[i] != 0;
  EXPECT_EQ(nonzero, 1u + 40 + 1 + 2);  // both words of 1, the preamble, the two blanks
}

TEST_F(DiagTest, FacilityNameIsCutTo99Characters) {
  const std::string name(150, 'f');
  plat_test_log_set_facility(name.c_str(), 7);
  EXPECT_EQ(std::string(facility_name_upper()), std::string(99, 'F'));
  plat_test_log_set_facility("", 7);
  EXPECT_STREQ(facility_name_upper(), "");
}

TEST_F(DiagTest, NoFacilityOrLowLevelStopsBeforeTheRateLimiter) {
  plat_test_log_set_facility(nullptr, 0);
  EXPECT_FALSE(report_wanted(g_test_desc));
  plat_trace_start();
  report(g_test_desc, 1, "a");
  plat_test_log_set_facility("hadra", 2);  // below the descriptor's threshold of 3
  EXPECT_FALSE(report_wanted(g_test_desc));
  report(g_test_desc, 1, "a");
  EXPECT_EQ(plat_trace_size(), 0u);
  plat_test_log_set_facility("hadra", 3);
  EXPECT_TRUE(report_wanted(g_test_desc));
}

TEST_F(DiagTest, RateLimiterRefusalSuppressesLineAndTraceback) {
  plat_test_clock_set(1000000000ull);
  plat_test_log_set_rate_limit(1, 60000000000ull);
  report(g_test_desc, 7, "same");
  plat_trace_start();
  report(g_test_desc, 7, "same");
  EXPECT_EQ(trace_calls(), std::vector<std::string>{"syslog_msg_rate_limit"});
  // Other parameters are another message.
  report(g_test_desc, 8, "same");
  EXPECT_NE(trace_find("plat_syslog"), -1);
}

}  // namespace
}  // namespace hadra::test
