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
syslog_msg_format g_fmt = {"TEST_MSG", "%%%s-%d-TEST_MSG: code %d, %s", 3, {}};
syslog_msg_desc g_desc = {9001, 0x55, "msg_error_HADRA_TEST", "%d %s", "test message", 3, 1, {}, &g_fmt};

int g_evaluations = 0;
int counted(int v) { return ++g_evaluations, v; }

using Calls = std::vector<std::string>;

class DiagTest : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_log_set_facility("hadra", 7);
    plat_test_log_capture(1);
    buf_ = sdwrap_hist_buf_create("diag-test", 8);
    ASSERT_NE(buf_, nullptr);
  }
  void TearDown() override {
    sdwrap_hist_buf_destroy(buf_);
    PlatformTest::TearDown();
  }
  // The last record of buf: its element word and text.
  static std::pair<uint32_t, std::string> last(sdwrap_hist_buf *buf, sdwrap_hist_rec &r) {
    uint32_t elem = 0;
    if (sdwrap_hist_get(buf, sdwrap_hist_count(buf) - 1, &r) != 0) return {0, ""};
    std::memcpy(&elem, r.data, sizeof elem);
    return {elem, reinterpret_cast<const char *>(r.data + 4)};
  }
  sdwrap_hist_buf *buf_ = nullptr;
};

TEST_F(DiagTest, SwitchesOffCostNothingButReportsStillAppear) {
  hadra_sdwrap_dbg_elem_set(0, buf_);
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s %d\n", "routes", counted(1));
  HADRA_DUMP("key %d\n", counted(2));
  EXPECT_EQ(g_evaluations, 0);
  EXPECT_EQ(plat_trace_size(), 0u);
  report(g_desc, 5, "text");
  EXPECT_EQ(trace_calls(), (Calls{"syslog_msg_rate_limit", "plat_syslog", "syslog_traceback"}));
}

TEST_F(DiagTest, DebugLogAloneWritesLevelSix) {
  hadra_ha_enable_debug();
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s\n", "routes");
  EXPECT_EQ(trace_calls(), Calls{"plat_syslog"});
  ASSERT_EQ(log_lines().size(), 1u);
  EXPECT_EQ(log_lines()[0].text.find("Disabling PSS routes"), 0u);
  EXPECT_EQ(log_lines()[0].level, 6);
}

TEST_F(DiagTest, TraceRecordCarriesElementUuidThreadTagAndIsCutAt200) {
  hadra_ha_handle.uuid = 777;
  hadra_sdwrap_dbg_elem_set(42, buf_);
  plat_trace_start();
  HADRA_DBG("Disabling PSS %s\n", "routes");
  EXPECT_EQ(trace_find("plat_syslog"), -1);
  sdwrap_hist_rec r;
  const std::string want = "[" + std::to_string(hadra_get_thread_pid()) + "]: Disabling PSS routes\n";
  EXPECT_EQ(last(buf_, r), std::make_pair(42u, want));
  EXPECT_EQ(r.uuid, 777u);
  EXPECT_EQ(r.event, HADRA_HA_HIST_EVENT);
  EXPECT_EQ(r.length, 4 + want.size() + 1);

  HADRA_DBG("%s\n", std::string(300, 'x').c_str());
  EXPECT_EQ(last(buf_, r).second.size(), 199u);
  EXPECT_EQ(r.length, 204u);
}

TEST_F(DiagTest, DumpGoesThroughFilterToDefaultBufferAndDbgout) {
  sdwrap_hist_buf *def = sdwrap_hist_default_buf();
  hadra_sdwrap_dbg_elem_set(5, buf_);
  plat_test_hist_set_debug_elem(5, 1);
  plat_trace_start();
  HADRA_DUMP("key %s\n", std::string(600, 'k').c_str());
  EXPECT_EQ(trace_calls(), (Calls{"sdwrap_hist_event_subtype_check", "sdwrap_hist_event", "sdwrap_chk_int", "dbgout"}));
  sdwrap_hist_rec r;
  EXPECT_EQ(last(def, r).first, 5u);
  EXPECT_EQ(r.length, 516u);  // 511 characters of text
  EXPECT_EQ(sdwrap_hist_count(buf_), 0u);

  plat_test_hist_filter_event(HADRA_HA_HIST_EVENT, 1);
  plat_test_hist_set_debug_elem(5, 0);
  plat_trace_clear();
  HADRA_DUMP("key %s\n", "k");
  EXPECT_EQ(trace_calls(), (Calls{"sdwrap_hist_event_subtype_check", "sdwrap_chk_int"}));
}

TEST_F(DiagTest, ReportWritesUpperCaseFacilityAndParameterRecord) {
  char saved[sizeof syslog_preamble];
  std::memcpy(saved, syslog_preamble, sizeof saved);
  std::memset(syslog_preamble, 'P', sizeof syslog_preamble - 1);  // longer than the 40 copied
  std::memset(syslog_vmsg_params, 0xab, sizeof syslog_vmsg_params);
  plat_test_log_set_facility("hadra_Core", 7);
  report(g_desc, 5, "text");
  ASSERT_FALSE(log_lines().empty());  // the report, then its traceback
  EXPECT_EQ(log_lines()[0].text, "%HADRA_CORE-3-TEST_MSG: code 5, text");
  EXPECT_EQ(log_lines()[0].level, 3);

  unsigned char want[sizeof syslog_vmsg_params] = {};
  want[0] = want[64] = 1;  // little-endian words of 1; words at 16 and 20 stay 0
  std::memset(want + 24, 'P', 40);
  want[72] = want[73] = ' ';
  EXPECT_EQ(std::memcmp(syslog_vmsg_params, want, sizeof want), 0);
  std::memcpy(syslog_preamble, saved, sizeof saved);

  plat_test_log_set_facility(std::string(150, 'f').c_str(), 7);
  EXPECT_EQ(std::string(facility_name_upper()), std::string(99, 'F'));
}

TEST_F(DiagTest, FacilityLevelAndRateLimiterStopReports) {
  plat_trace_start();
  plat_test_log_set_facility(nullptr, 0);
  report(g_desc, 1, "a");
  plat_test_log_set_facility("hadra", 2);  // below the descriptor's threshold of 3
  EXPECT_FALSE(report_wanted(g_desc));
  report(g_desc, 1, "a");
  EXPECT_EQ(plat_trace_size(), 0u);

  plat_test_log_set_facility("hadra", 3);
  plat_test_clock_set(1000000000ull);
  plat_test_log_set_rate_limit(1, 60000000000ull);
  report(g_desc, 7, "same");
  plat_trace_clear();
  report(g_desc, 7, "same");
  EXPECT_EQ(trace_calls(), Calls{"syslog_msg_rate_limit"});  // no line, no traceback
}

}  // namespace
}  // namespace hadra::test
