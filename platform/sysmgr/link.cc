// Requests that act: served by the system-manager daemon once its client is plugged in
// (set_link). Until then the local link serves them in this process: a gsync request is
// counted and answered with success, which is what a test of the start-up sequence needs.
#include <atomic>

#include "common/call.h"
#include "hadra_platform/errors.h"
#include "hadra_platform/sysmgr.h"
#include "hadra_platform_testing.h"
#include "sysmgr/sysmgr_internal.h"

namespace {

std::atomic<unsigned> g_gsync_requests{0};

int local_gsync_get(int) {
  g_gsync_requests.fetch_add(1);
  return 0;
}

constexpr hadra::plat::sysmgr::Link kLocalLink = {&local_gsync_get};
std::atomic<const hadra::plat::sysmgr::Link*> g_link{nullptr};  // null: as configured

void reset() { g_gsync_requests.store(0); }

const bool g_registered = (hadra::plat::register_reset(&reset), true);

}  // namespace

namespace hadra::plat::sysmgr {

void set_link(const Link* link) noexcept { g_link.store(link); }

const Link& link() noexcept {
  if (const Link* l = g_link.load(); l != nullptr) return *l;
  const Link* d = daemon_link();
  return d != nullptr ? *d : kLocalLink;
}

}  // namespace hadra::plat::sysmgr

extern "C" {

HADRA_PLAT_API int sysmgr_gsync_get(int arg) noexcept {
  hadra::plat::Call c("sysmgr", "sysmgr_gsync_get", static_cast<int>(PLAT_ERR_SYSMGR_NO_DAEMON));
  c.args("arg=%d", arg);
  if (c.faulted()) return c.fail<int>();
  return c.ret(hadra::plat::sysmgr::link().gsync_get(arg));
}

HADRA_PLAT_API unsigned plat_test_sysmgr_gsync_requests(void) noexcept { return g_gsync_requests.load(); }

}  // extern "C"
