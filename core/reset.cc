// The list of reset hooks and hadra_internal_reset().
#include "core/reset.h"

namespace hadra {

namespace {
constinit ResetHook *g_reset_hooks = nullptr;
}

ResetHook::ResetHook(ResetFn fn) noexcept : fn_(fn), next_(g_reset_hooks) { g_reset_hooks = this; }

void run_reset_hooks() noexcept {
  for (ResetHook *h = g_reset_hooks; h != nullptr; h = h->next_)
    if (h->fn_ != nullptr) h->fn_();
}

}  // namespace hadra

extern "C" void hadra_internal_reset(void) { hadra::run_reset_hooks(); }
