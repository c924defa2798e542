// Rate limiter of error reports and the message catalogue.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>
#include <string>
#include <vector>

#include "hadra_platform/config.h"
#include "hadra_platform/log.h"
#include "support/fixture.h"

namespace {

constexpr uint64_t kSecond = 1000000000ull;

class RateLimitTest : public hadra::test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    plat_test_clock_set(5 * kSecond);
    plat_test_log_set_rate_limit(3, kSecond);
    plat_test_log_capture(1);
  }
  static int open_failed(const char* uri) { return syslog_msg_rate_limit(&msg_error_HADRA_PSS_OPEN, uri, "io"); }
  static std::string last_line() { return hadra::test::last_log_line(); }
};

TEST_F(RateLimitTest, BurstPerDistinctParametersThenSuppressed) {
  std::vector<int> a;
  for (int i = 0; i < 5; ++i) a.push_back(open_failed("run:/a"));
  EXPECT_EQ(a, (std::vector<int>{1, 1, 1, 0, 0}));
  // Same descriptor, other object: a key of its own.
  EXPECT_EQ(open_failed("run:/b"), 1);
  // Same parameters, other descriptor: also its own.
  EXPECT_EQ(syslog_msg_rate_limit(&msg_error_HADRA_PSS_CREATE, "run:/a", "io"), 1);
  EXPECT_EQ(plat_test_log_count(), 0u);  // deciding logs nothing by itself
}

TEST_F(RateLimitTest, NewWindowAllowsAgainAndSaysHowManyWereDropped) {
  for (int i = 0; i < 5; ++i) open_failed("run:/a");
  plat_test_clock_advance(kSecond - 1);
  EXPECT_EQ(open_failed("run:/a"), 0);
  plat_test_clock_advance(1);
  EXPECT_EQ(open_failed("run:/a"), 1);
  ASSERT_EQ(plat_test_log_count(), 1u);
  EXPECT_NE(last_line().find("3 similar messages suppressed"), std::string::npos) << last_line();
  EXPECT_NE(last_line().find("run:/a"), std::string::npos);
  // The count was said once; the rest of the new burst passes quietly.
  EXPECT_EQ(open_failed("run:/a"), 1);
  EXPECT_EQ(plat_test_log_count(), 1u);
}

TEST_F(RateLimitTest, EvictedKeyStillReportsItsDroppedLines) {
  for (int i = 0; i < 4; ++i) open_failed("run:/first");
  for (int i = 0; i < 256; ++i) open_failed(("run:/other" + std::to_string(i)).c_str());
  ASSERT_EQ(plat_test_log_count(), 1u);
  EXPECT_NE(last_line().find("1 similar message suppressed (run:/first io)"), std::string::npos) << last_line();
  // The key starts over: a full burst again.
  EXPECT_EQ(open_failed("run:/first"), 1);
}

// A count is said without another line of its key: within a bounded time after its window
// (on the real clock here), and at exit for a window that has not passed yet.
TEST_F(RateLimitTest, SuppressedCountsAreSaidOnATimerAndAtExit) {
  plat_test_clock_real();
  plat_test_log_set_rate_limit(1, 50 * 1000000ull);
  for (int i = 0; i < 4; ++i) open_failed("run:/timer");
  const auto said = [] { return hadra::test::logged({"3 similar messages suppressed", "run:/timer"}); };
  const auto start = std::chrono::steady_clock::now();
  while (!said() && std::chrono::steady_clock::now() - start < std::chrono::seconds(5))
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(said()) << "no count within 5 s of a 50 ms window";
  EXPECT_EQ(open_failed("run:/timer"), 1) << "the key starts a new window";
  EXPECT_EQ(hadra::test::log_count({"suppressed", "run:/timer"}), 1u) << "the count is said once";

  // A child whose window is an hour long exits: the count goes out on its way.
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(out[1], STDERR_FILENO);
    setenv("HADRA_LOG", "stderr", 1);
    plat_config_reload();
    plat_test_reset();
    plat_test_log_set_rate_limit(1, 3600 * kSecond);
    for (int i = 0; i < 3; ++i) open_failed("run:/exit");
    std::exit(0);
  }
  close(out[1]);
  std::string text;
  char buf[512];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) text.append(buf, static_cast<size_t>(n));
  close(out[0]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(text.find("2 similar messages suppressed (run:/exit io)"), std::string::npos) << text;
}

// Conversions of a printf format ("%%" excluded), e.g. "%u %s" -> {"u", "s"}.
std::vector<std::string> conversions(const char* f) {
  std::vector<std::string> out;
  for (const char* p = std::strchr(f, '%'); p != nullptr; p = std::strchr(p, '%')) {
    size_t n = std::strspn(p + 1, "-+ #0123456789.hlLqjzt");
    if (p[1 + n] != '%') out.emplace_back(p + 1, n + 1);
    p += n + 2;
  }
  return out;
}

#define HADRA_TEST_MSG(m) {#m, &msg_error_HADRA_##m},
struct NamedMsg {
  const char* mnemonic;
  const syslog_msg_desc* desc;
};
const NamedMsg kCatalogue[] = {PLAT_HADRA_MESSAGES(HADRA_TEST_MSG)};

TEST(MessageCatalogue, FormatsAgreeWithTheirParameters) {
  std::set<uint32_t> ids;
  for (const auto& [m, d] : kCatalogue) {
    SCOPED_TRACE(m);
    EXPECT_EQ(std::string(d->name), std::string("msg_error_HADRA_") + m);
    ASSERT_NE(d->fmt, nullptr);
    EXPECT_STREQ(d->fmt->mnemonic, m);
    std::string prefix = std::string("%%%s-%d-") + m + ": ";
    ASSERT_EQ(std::string(d->fmt->format).compare(0, prefix.size(), prefix), 0) << d->fmt->format;
    EXPECT_EQ(conversions(d->fmt->format + prefix.size()), conversions(d->param_format));
    EXPECT_LE(d->severity, PLAT_LOG_DEBUG);
    EXPECT_EQ(d->fmt->level, d->severity);
    EXPECT_GT(std::strlen(d->explanation), 20u);
    EXPECT_TRUE(ids.insert(d->msg_id).second) << "duplicate number";
  }
  EXPECT_EQ(ids.size(), 20u);
}

}  // namespace
