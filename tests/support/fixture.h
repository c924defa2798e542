// Shared fixture: every test gets a fresh platform root, a reset platform and library, and
// helpers to read the platform call trace.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
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

// A datum over s, which must outlive its use (temporaries are refused), and a datum's bytes.
inline datum D(const std::string& s) { return datum{const_cast<char*>(s.data()), static_cast<uint32_t>(s.size())}; }
datum D(std::string&&) = delete;
inline datum D(const char* literal) {
  return datum{const_cast<char*>(literal), static_cast<uint32_t>(std::strlen(literal))};
}
inline std::string S(const datum* d) {
  return d == nullptr ? "<null>" : std::string(static_cast<const char*>(d->dptr), d->dsize);
}

// Log lines captured since plat_test_log_capture(1), oldest first.
struct LogLine {
  int level;
  std::string text;
};
std::vector<LogLine> log_lines();
// Number of captured lines holding every piece (a report must carry its parameters).
size_t log_count(std::initializer_list<std::string> pieces);
inline bool logged(std::initializer_list<std::string> pieces) { return log_count(pieces) != 0; }
std::string last_log_line();

// One message sent to the peer through the loopback, from its wire frame.
struct SentFrame {
  uint32_t opcode = 0;
  uint8_t flags = 0;  // bit 0 notification, bit 1 no reply wanted
  std::vector<uint8_t> payload;
  // The sync opcode of a sync message (the last byte of its big-endian header word).
  uint32_t sync_opcode() const { return payload.size() < 12 ? 0 : payload[11] | (payload[10] << 8); }
};
// The oldest max messages sent to the peer (all by default), taken off the outbox.
std::vector<SentFrame> take_sent(size_t max = SIZE_MAX);

// Runs body in a forked child process: its exit code, or -1 when it did not exit normally.
int run_in_child(const std::function<int()>& body);

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
