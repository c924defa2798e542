// Trace and fault injection shared by every platform service.
//
// Each exported platform call opens with a Call:
//
//   extern "C" int pss2_close(uint32_t h) noexcept {
//     plat::Call c("pss", "pss2_close", PLAT_ERR_PSS_BAD_HANDLE);   // natural failure value
//     c.args("h=%u", h);                       // formatted only while the trace is on
//     if (c.faulted()) return c.fail<int>();   // injected failure: errno set, traced
//     int rc = ...;
//     return c.ret(rc);
//   }
//
// Nothing is formatted and no lock is taken unless tracing or a fault is armed. Services
// call each other's internal functions, not the exported calls, so that the trace shows only
// what the caller asked for.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <type_traits>

namespace hadra::plat {

extern std::atomic<bool> g_trace_on;
extern std::atomic<int> g_faults_armed;

struct FaultHit {
  bool fire = false;
  long long result = 0;
  int err = 0;
};

FaultHit fault_check(const char* call);
long trace_open(const char* service, const char* call);
void trace_args(long slot, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void trace_close(long slot, long long result, bool faulted);

class Call {
 public:
  Call(const char* service, const char* call, long long natural_failure = -1) noexcept
      : natural_(natural_failure) {
    if (g_faults_armed.load(std::memory_order_relaxed) != 0) hit_ = fault_check(call);
    if (g_trace_on.load(std::memory_order_relaxed)) slot_ = trace_open(service, call);
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool tracing() const noexcept { return slot_ >= 0; }
  bool faulted() const noexcept { return hit_.fire; }
  int fault_errno() const noexcept { return hit_.err; }

  template <class... A>
  void args(const char* fmt, A... a) noexcept {
    if (slot_ >= 0) trace_args(slot_, fmt, a...);
  }

  // Result of an injected failure, converted to the call's result type.
  template <class R>
  R fail() noexcept {
    long long v = hit_.result == kDefault ? natural_ : hit_.result;
    if (hit_.err != 0) errno = hit_.err;
    if (slot_ >= 0) trace_close(slot_, v, true);
    if constexpr (std::is_pointer_v<R>)
      return nullptr;
    else
      return static_cast<R>(v);
  }

  template <class R>
  R ret(R r) noexcept {
    if (slot_ >= 0) {
      if constexpr (std::is_pointer_v<R>)
        trace_close(slot_, r != nullptr ? 1 : 0, false);
      else
        trace_close(slot_, static_cast<long long>(r), false);
    }
    return r;
  }
  void ret_void() noexcept {
    if (slot_ >= 0) trace_close(slot_, 0, false);
  }

  static constexpr long long kDefault = -0x7fffffffffffffffLL - 1;

 private:
  long long natural_;
  FaultHit hit_{};
  long slot_ = -1;
};

// Hooks that each service registers so that plat_test_reset() can put it back in its
// start state (close stores, drop endpoints, clear tables).
using ResetFn = void (*)();
void register_reset(ResetFn fn);
void run_resets();

}  // namespace hadra::plat
