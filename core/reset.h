// Returning the library to its load state.
//
// The library's state is static: the handle, the registry, the sync-callback table, the
// debug switches and whatever buffers a subsystem keeps. hadra_internal_reset() puts all of
// it back as it was when the library was loaded, so that one process can run many tests.
//
// Each subsystem that keeps state of its own registers a reset function next to that state:
//
//   namespace { void reset_sync_buffers() noexcept { ... } }
//   HADRA_RESET_HOOK(reset_sync_buffers);
//
// Hooks run in an unspecified order, so a hook must only touch its own subsystem's state.
// Registration happens during static initialisation and links a node into a list whose head
// is constant-initialised, so it works whatever order the objects are initialised in.
#pragma once

namespace hadra {

using ResetFn = void (*)() noexcept;

class ResetHook {
 public:
  explicit ResetHook(ResetFn fn) noexcept;
  ResetHook(const ResetHook &) = delete;
  ResetHook &operator=(const ResetHook &) = delete;

 private:
  friend void run_reset_hooks() noexcept;
  ResetFn fn_;
  ResetHook *next_;
};

void run_reset_hooks() noexcept;

}  // namespace hadra

#define HADRA_RESET_CAT2(a, b) a##b
#define HADRA_RESET_CAT(a, b) HADRA_RESET_CAT2(a, b)
#define HADRA_RESET_HOOK(fn) static ::hadra::ResetHook HADRA_RESET_CAT(hadra_reset_hook_, __LINE__){fn}

// Library state back to load state. Hidden: for the library's own tests, never exported.
extern "C" __attribute__((visibility("hidden"))) void hadra_internal_reset(void);
