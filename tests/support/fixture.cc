#include "support/fixture.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "hadra_mts_testing.h"

namespace hadra::test {

std::vector<TraceCall> trace() {
  std::vector<TraceCall> out;
  size_t n = plat_trace_size();
  out.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    plat_trace_rec r;
    if (plat_trace_get(i, &r) != 0) break;
    out.push_back({r.service, r.call, r.args, r.result, r.has_result != 0, r.faulted != 0});
  }
  return out;
}

std::vector<std::string> trace_calls(const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& c : trace())
    if (c.call.compare(0, prefix.size(), prefix) == 0) out.push_back(c.call);
  return out;
}

int trace_find(const std::string& call, size_t from) {
  auto t = trace();
  for (size_t i = from; i < t.size(); ++i)
    if (t[i].call == call) return static_cast<int>(i);
  return -1;
}

std::vector<LogLine> log_lines() {
  std::vector<LogLine> out;
  char text[8192];
  int level = -1;
  for (size_t i = 0; plat_test_log_get(i, &level, text, sizeof text) == 0; ++i) out.push_back({level, text});
  return out;
}

size_t log_count(std::initializer_list<std::string> pieces) {
  size_t n = 0;
  for (const LogLine& l : log_lines()) {
    bool all = true;
    for (const std::string& p : pieces) all = all && l.text.find(p) != std::string::npos;
    n += all ? 1 : 0;
  }
  return n;
}

std::string last_log_line() {
  auto lines = log_lines();
  return lines.empty() ? "" : lines.back().text;
}

std::vector<SentFrame> take_sent(size_t max) {
  std::vector<SentFrame> out;
  static std::vector<uint8_t> b(MTS_TEST_WIRE_HDR_SIZE + MTS_PAYLOAD_MAX);
  for (long n; out.size() < max && (n = mts_test_peer_read(b.data(), b.size(), 1)) >= MTS_TEST_WIRE_HDR_SIZE;)
    out.push_back({b[8] | (b[9] << 8) | (b[10] << 16) | (uint32_t{b[11]} << 24), b[6],
                   std::vector<uint8_t>(b.begin() + MTS_TEST_WIRE_HDR_SIZE, b.begin() + n)});
  return out;
}

int run_in_child(const std::function<int()>& body) {
  pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "hadra-test-XXXXXX").string();
  char* p = mkdtemp(tmpl.data());
  if (p == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = p;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void PlatformTest::SetUp() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "hadra-test-XXXXXX").string();
  char* p = mkdtemp(tmpl.data());
  ASSERT_NE(p, nullptr);
  root_ = p;
  plat_test_reset();
  plat_test_set_root(root_.c_str());
  hadra_internal_reset();
}

void PlatformTest::TearDown() {
  hadra_internal_reset();
  plat_test_reset();
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

}  // namespace hadra::test

// The library defines the real one; this stand-in lets platform-only builds link.
extern "C" __attribute__((weak)) void hadra_internal_reset(void) {}
