// Shared fixture: every test gets a fresh platform root, a reset platform and library, and
// helpers to read the platform call trace.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hadra_platform_testing.h"

namespace hadra::test {

// One record of the platform trace, as tests read it.
struct TraceCall {
  std::string service, call, args;
  long long result;
  bool has_result, faulted;
};

std::vector<TraceCall> trace();
// Names of the traced calls, in order; with a filter, only calls whose name starts with it.
std::vector<std::string> trace_calls(const std::string& prefix = "");
// Index of the first record of call at or after from, or -1.
int trace_find(const std::string& call, size_t from = 0);

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  const std::string& root() const { return root_; }

 private:
  std::string root_;
};

// A scratch directory under the system temp directory, removed by the destructor.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace hadra::test

// Library state back to load state (registry, handle, switches, callback table, buffers).
// Defined by the library (internal, not exported from the shared library).
extern "C" void hadra_internal_reset(void);
