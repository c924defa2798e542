// Call trace, fault injection and the reset registry shared by every platform service.
//
// Both mechanisms sit behind one relaxed atomic load each, so an untraced, unarmed call
// costs two loads. Everything else takes a mutex: tests are the only users.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "common/call.h"
#include "hadra_platform_testing.h"

namespace hadra::plat {

std::atomic<bool> g_trace_on{false};
std::atomic<int> g_faults_armed{0};

namespace {

struct Fault {
  char call[48];
  unsigned skip;
  unsigned count;  // 0: every later call
  long long result;
  int err;
  unsigned seen;
  unsigned fired;
};

constexpr size_t kMaxFaults = 32;

struct State {
  std::mutex mu;
  // Ring of trace records; seq of record i is base_seq + i for the records held.
  std::vector<plat_trace_rec> ring = std::vector<plat_trace_rec>(PLAT_TRACE_CAP);
  uint64_t next_seq = 0;   // sequence number of the next record
  uint64_t first_seq = 0;  // sequence number of the oldest record held
  Fault faults[kMaxFaults];
  size_t nfaults = 0;
  unsigned fired = 0;
};

State& state() {
  static State* s = new State();  // never destroyed: calls may come during exit
  return *s;
}

std::vector<ResetFn>& resets() {
  static auto* v = new std::vector<ResetFn>();
  return *v;
}

bool matches(const char* pattern, const char* call) {
  return std::strcmp(pattern, "*") == 0 || std::strcmp(pattern, call) == 0;
}

plat_trace_rec* slot_rec(State& s, long slot) {
  auto seq = static_cast<uint64_t>(slot);
  if (seq < s.first_seq || seq >= s.next_seq) return nullptr;
  return &s.ring[seq % PLAT_TRACE_CAP];
}

}  // namespace

FaultHit fault_check(const char* call) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  FaultHit hit;
  for (size_t i = 0; i < s.nfaults; ++i) {
    Fault& f = s.faults[i];
    if (!matches(f.call, call)) continue;
    unsigned n = f.seen++;
    if (n < f.skip) continue;
    if (f.count != 0 && n - f.skip >= f.count) continue;
    if (!hit.fire) {
      hit = {true, f.result, f.err};
      ++f.fired;
      ++s.fired;
    }
  }
  return hit;
}

long trace_open(const char* service, const char* call) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  uint64_t seq = s.next_seq++;
  if (s.next_seq - s.first_seq > PLAT_TRACE_CAP) s.first_seq = s.next_seq - PLAT_TRACE_CAP;
  plat_trace_rec& r = s.ring[seq % PLAT_TRACE_CAP];
  std::memset(&r, 0, sizeof r);
  r.seq = seq;
  std::snprintf(r.service, sizeof r.service, "%s", service);
  std::snprintf(r.call, sizeof r.call, "%s", call);
  return static_cast<long>(seq);
}

void trace_args(long slot, const char* fmt, ...) {
  char buf[sizeof(plat_trace_rec::args)];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (plat_trace_rec* r = slot_rec(s, slot)) std::memcpy(r->args, buf, sizeof buf);
}

void trace_close(long slot, long long result, bool faulted) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (plat_trace_rec* r = slot_rec(s, slot)) {
    r->result = result;
    r->has_result = 1;
    r->faulted = faulted ? 1 : 0;
  }
}

void register_reset(ResetFn fn) { resets().push_back(fn); }

void run_resets() {
  for (ResetFn fn : resets()) fn();
}

}  // namespace hadra::plat

using hadra::plat::g_faults_armed;
using hadra::plat::g_trace_on;
using hadra::plat::state;

extern "C" {

HADRA_PLAT_API void plat_trace_start(void) noexcept {
  plat_trace_clear();
  g_trace_on.store(true);
}

HADRA_PLAT_API void plat_trace_stop(void) noexcept { g_trace_on.store(false); }

HADRA_PLAT_API void plat_trace_clear(void) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.first_seq = s.next_seq = 0;
}

HADRA_PLAT_API size_t plat_trace_size(void) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return static_cast<size_t>(s.next_seq - s.first_seq);
}

HADRA_PLAT_API int plat_trace_get(size_t i, plat_trace_rec* out) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (out == nullptr || i >= s.next_seq - s.first_seq) return -1;
  *out = s.ring[(s.first_seq + i) % PLAT_TRACE_CAP];
  return 0;
}

HADRA_PLAT_API uint64_t plat_trace_dropped(void) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.first_seq;
}

HADRA_PLAT_API size_t plat_trace_count(const char* call) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  size_t n = 0;
  for (uint64_t q = s.first_seq; q < s.next_seq; ++q)
    if (call != nullptr && std::strcmp(s.ring[q % PLAT_TRACE_CAP].call, call) == 0) ++n;
  return n;
}

HADRA_PLAT_API int plat_fault_arm(const char* call, unsigned skip, unsigned count, long long result,
                                  int err) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  if (call == nullptr || s.nfaults == hadra::plat::kMaxFaults) return -1;
  auto& f = s.faults[s.nfaults++];
  std::snprintf(f.call, sizeof f.call, "%s", call);
  f.skip = skip;
  f.count = count;
  f.result = result;
  f.err = err;
  f.seen = 0;
  f.fired = 0;
  g_faults_armed.store(static_cast<int>(s.nfaults));
  return 0;
}

HADRA_PLAT_API void plat_fault_clear(void) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.nfaults = 0;
  s.fired = 0;
  g_faults_armed.store(0);
}

HADRA_PLAT_API unsigned plat_fault_fired(void) noexcept {
  auto& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return s.fired;
}

}  // extern "C"
