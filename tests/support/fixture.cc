#include "support/fixture.h"

#include <stdlib.h>

#include <filesystem>

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
