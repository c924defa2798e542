// Log sinks, capture, the facility record and tracebacks.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "hadra_platform/log.h"
#include "support/fixture.h"

namespace {

class LogTest : public hadra::test::PlatformTest {
 protected:
  void TearDown() override {
    unsetenv("HADRA_LOG");
    unsetenv("HADRA_LOG_IDENT");
    PlatformTest::TearDown();
  }
  // Choose the sink as a deployment would: environment, then a fresh platform.
  void use_sink(const char* value) {
    setenv("HADRA_LOG", value, 1);
    plat_test_reset();
    plat_test_set_root(root().c_str());
  }
  static std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  // Split a file line "<time> <level> <ident>[<pid>]: <text>"; false when it does not read so.
  struct Line {
    std::string level, ident, text;
    int pid = 0;
  };
  static bool parse(const std::string& s, Line* out) {
    int y, mo, d, h, mi, sec, us, n = -1;
    char level[16], ident[64];
    if (std::sscanf(s.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6dZ %15s %63[^[][%d]: %n", &y, &mo, &d, &h, &mi, &sec, &us,
                    level, ident, &out->pid, &n) != 10 || n < 0)
      return false;
    out->level = level;
    out->ident = ident;
    out->text = s.substr(static_cast<size_t>(n));
    return true;
  }
};

TEST_F(LogTest, DefaultSinkIsTheFileUnderTheRoot) {
  plat_syslog(PLAT_LOG_INFO, "hello %d\n", 42);
  std::string text = slurp(root() + "/log/platform.log");
  Line l;
  ASSERT_TRUE(parse(text, &l)) << text;
  EXPECT_EQ(l.level, "info");
  EXPECT_EQ(l.pid, getpid());
  EXPECT_STREQ(l.ident.c_str(), sdwrap_sys_facility->name);
  EXPECT_EQ(l.text, "hello 42\n");
}

// A log file on a full disk (here /dev/full, which refuses every write with ENOSPC) must not
// swallow the lines: they go to stderr, after one line naming the file and the cause.
TEST_F(LogTest, ALogFileThatCannotBeWrittenFallsBackToStderr) {
  use_sink("file:/dev/full");
  testing::internal::CaptureStderr();
  plat_syslog(PLAT_LOG_ERR, "first on a full disk");
  plat_syslog(PLAT_LOG_ERR, "second on a full disk");
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("/dev/full cannot be written (No space left on device)"), std::string::npos) << err;
  EXPECT_NE(err.find("first on a full disk"), std::string::npos) << err;
  EXPECT_NE(err.find("second on a full disk"), std::string::npos) << err;
  EXPECT_EQ(err.find("cannot be written"), err.rfind("cannot be written")) << "said once: " << err;
}

TEST_F(LogTest, SinkIsChosenByConfiguration) {
  std::string file = root() + "/custom.log";
  use_sink(("file:" + file).c_str());
  syslog_log(PLAT_LOG_WARNING, "to the file");
  EXPECT_NE(slurp(file).find(" warning "), std::string::npos);

  use_sink("stderr");
  testing::internal::CaptureStderr();
  plat_syslog(PLAT_LOG_CRIT, "to stderr");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find(" crit "), std::string::npos);
  EXPECT_NE(err.find("to stderr"), std::string::npos);

  use_sink(("file:" + root() + "/no/such/dir/x.log").c_str());  // cannot open: stderr, said once
  testing::internal::CaptureStderr();
  plat_syslog(PLAT_LOG_ERR, "still said");
  err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("cannot open log file"), std::string::npos);
  EXPECT_NE(err.find("still said"), std::string::npos);

  use_sink("none");
  plat_test_log_capture(1);
  plat_syslog(PLAT_LOG_ERR, "nowhere but the capture");
  EXPECT_EQ(plat_test_log_count(), 1u);
  EXPECT_EQ(access((root() + "/log/platform.log").c_str(), F_OK), -1);
}

TEST_F(LogTest, CaptureKeepsLevelAndTextAndCutsLongLines) {
  plat_test_log_capture(1);
  plat_syslog(-3, "low");
  plat_syslog(99, "high\n\n");
  std::string big(10000, 'x');
  plat_syslog(PLAT_LOG_INFO, "%s", big.c_str());
  auto l = hadra::test::log_lines();
  ASSERT_EQ(l.size(), 3u);
  EXPECT_EQ(l[0].level, PLAT_LOG_EMERG);  // out-of-range levels are clamped
  EXPECT_EQ(l[1].level, PLAT_LOG_DEBUG);
  EXPECT_EQ(l[1].text, "high");
  EXPECT_EQ(l[2].text.size(), 4096u);
}

TEST_F(LogTest, LinesOfConcurrentThreadsStayWhole) {
  constexpr int kThreads = 4, kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < kLines; ++i) plat_syslog(PLAT_LOG_INFO, "thread %d line %d end", t, i);
    });
  for (auto& th : threads) th.join();
  std::istringstream in(slurp(root() + "/log/platform.log"));
  int n = 0;
  for (std::string line; std::getline(in, line); ++n) {
    Line l;
    int t = -1, i = -1;
    char end[8] = "";
    ASSERT_TRUE(parse(line, &l)) << line;
    EXPECT_EQ(std::sscanf(l.text.c_str(), "thread %d line %d %7s", &t, &i, end), 3) << line;
    EXPECT_STREQ(end, "end");
  }
  EXPECT_EQ(n, kThreads * kLines);
}

TEST_F(LogTest, FacilityTakesTheConfiguredIdentityBeforeTheFirstReport) {
  setenv("HADRA_LOG_IDENT", "routesvc", 1);
  plat_test_reset();
  plat_test_set_root(root().c_str());
  syslog_msg_rate_limit(&msg_error_HADRA_PSS_CLOSE, "x");  // a reporter reads the name next
  EXPECT_STREQ(sdwrap_sys_facility->name, "routesvc");
  EXPECT_NE(std::string(syslog_preamble).find("routesvc"), std::string::npos);
  plat_syslog(PLAT_LOG_INFO, "id");
  EXPECT_NE(slurp(root() + "/log/platform.log").find(" routesvc["), std::string::npos);
}

TEST_F(LogTest, TracebackLogsTheCallersFrames) {
  plat_test_log_capture(1);
  syslog_traceback(0, "HADRA", PLAT_LOG_ERR, 0x730001);
  auto lines = hadra::test::log_lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[0].text.find("0x00730001"), std::string::npos);
  EXPECT_NE(lines[1].text.find("#0"), std::string::npos);
}

}  // namespace
