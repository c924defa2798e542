// What the system-manager event handlers share.
//
// Every event handler acts only after initialisation: before it the event is reported as
// arriving too early and answered as the handler's own rule says, so that the system manager
// is never left waiting on a service that is still starting.
#pragma once

#include <cstdint>

#include "core/uri.h"
#include "hadra/registry.h"

namespace hadra::sysmgrcb {

// True when the library is initialised; otherwise reports msg_error_HADRA_HA_UNINITIALIZED
// with the handler's name and gives false.
bool initialized_or_report(const char *handler) noexcept;

}  // namespace hadra::sysmgrcb
