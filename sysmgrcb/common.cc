// Shared pieces of the system-manager event handlers (see common.h).
#include "sysmgrcb/common.h"

#include "core/diag.h"
#include "hadra/handle.h"

namespace hadra::sysmgrcb {

bool initialized_or_report(const char *handler) noexcept {
  if (hadra_ha_handle.initialized != 0) return true;
  report(msg_error_HADRA_HA_UNINITIALIZED, handler);
  return false;
}

}  // namespace hadra::sysmgrcb
