// Scheduling hints.
//
// A thread's time slice starts when it first asks, and again whenever it yields: after a
// bracketed call (tsp_after_yield) or when tsp_should_sched_yield answers yes (the caller
// is expected to yield then). The answer is yes once the slice has lasted TSP_SLICE_US
// microseconds of platform time. State is per thread; a reset starts every thread's slice
// afresh (through a generation number, since other threads' state cannot be reached).
//
// The brackets also count nesting, so a test can see that every before has its after.
#include <atomic>

#include "common/call.h"
#include "hadra_platform/config.h"
#include "hadra_platform/tsp.h"

namespace {

constexpr long kDefaultSliceUs = 10000;

std::atomic<uint64_t> g_slice_ns{0};  // 0: not read from configuration yet
std::atomic<uint32_t> g_generation{1};

struct ThreadSlice {
  uint32_t generation = 0;
  uint64_t start_ns = 0;
  int depth = 0;  // open tsp_before_yield brackets
};

thread_local ThreadSlice t_slice;

uint64_t slice_ns() {
  uint64_t ns = g_slice_ns.load(std::memory_order_relaxed);
  if (ns == 0) {
    long us = plat_config_get_long("TSP_SLICE_US", kDefaultSliceUs);
    ns = static_cast<uint64_t>(us > 0 ? us : kDefaultSliceUs) * 1000u;
    g_slice_ns.store(ns, std::memory_order_relaxed);
  }
  return ns;
}

// This thread's slice, restarted when a reset has happened since it was last used.
ThreadSlice& current(uint64_t now) {
  uint32_t gen = g_generation.load(std::memory_order_relaxed);
  if (t_slice.generation != gen) t_slice = {gen, now, 0};
  return t_slice;
}

void reset() {
  g_slice_ns.store(0);
  g_generation.fetch_add(1);
}

const bool g_registered = (hadra::plat::register_reset(&reset), true);

}  // namespace

extern "C" {

HADRA_PLAT_API void tsp_before_yield(void) noexcept {
  hadra::plat::Call c("tsp", "tsp_before_yield", 0);
  if (c.faulted()) return (void)c.fail<int>();
  ThreadSlice& s = current(plat_now_ns());
  ++s.depth;
  c.args("depth=%d", s.depth);
  c.ret_void();
}

HADRA_PLAT_API void tsp_after_yield(void) noexcept {
  hadra::plat::Call c("tsp", "tsp_after_yield", 0);
  if (c.faulted()) return (void)c.fail<int>();
  uint64_t now = plat_now_ns();
  ThreadSlice& s = current(now);
  if (s.depth > 0) --s.depth;
  s.start_ns = now;
  c.args("depth=%d", s.depth);
  c.ret_void();
}

HADRA_PLAT_API int tsp_should_sched_yield(void) noexcept {
  hadra::plat::Call c("tsp", "tsp_should_sched_yield", 0);
  if (c.faulted()) return c.fail<int>();
  uint64_t now = plat_now_ns();
  ThreadSlice& s = current(now);
  if (now - s.start_ns < slice_ns()) return c.ret(0);
  s.start_ns = now;
  return c.ret(1);
}

}  // extern "C"
