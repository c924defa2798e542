// Shared pieces of the system-manager event handlers (see common.h).
#include "sysmgrcb/common.h"

#include <cstring>

#include "core/diag.h"
#include "hadra/handle.h"

namespace hadra::sysmgrcb {

bool initialized_or_report(const char *handler) noexcept {
  if (hadra_ha_handle.initialized != 0) return true;
  report(msg_error_HADRA_HA_UNINITIALIZED, handler);
  return false;
}

UriCopy::UriCopy(const char *uri) noexcept {
  if (uri == nullptr) return;
  // A URI the platform completed never exceeds its limit; cut to fit all the same.
  const size_t n = strnlen(uri, sizeof text_ - 1);
  std::memcpy(text_, uri, n);
  text_[n] = '\0';
  ok_ = true;
}

}  // namespace hadra::sysmgrcb
