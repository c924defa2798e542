// What the system-manager event handlers share.
//
// Every event handler acts only after initialisation: before it the event is reported as
// arriving too early and answered as the handler's own rule says, so that the system manager
// is never left waiting on a service that is still starting.
#pragma once

#include <cstdint>

#include "hadra/registry.h"

namespace hadra::sysmgrcb {

// True when the library is initialised; otherwise reports msg_error_HADRA_HA_UNINITIALIZED
// with the handler's name and gives false.
bool initialized_or_report(const char *handler) noexcept;

// A URI the platform completed (or null), copied out of the platform's per-thread buffer so
// that later platform calls cannot overwrite it. ok() is false for a null URI.
class UriCopy {
 public:
  explicit UriCopy(const char *uri) noexcept;
  bool ok() const noexcept { return ok_; }
  const char *c_str() const noexcept { return ok_ ? text_ : nullptr; }

 private:
  bool ok_ = false;
  char text_[HADRA_HA_URI_LEN] = {};
};

}  // namespace hadra::sysmgrcb
