// The HA handle as the library reads it, and the supervisor state.
//
// hadra_ha_handle (include/hadra/handle.h) is the client's identity and options for the life
// of the library in this process. Initialisation and close write it; everything else reads
// it in place. Only bits 0 to 2 of `flags` mean anything: the helpers below test exactly
// one bit, so any other bits a client sets are ignored.
#pragma once

#include "hadra/handle.h"
#include "hadra_platform/sysmgr.h"

namespace hadra {

inline bool handle_flag(uint32_t bit) noexcept { return (hadra_ha_handle.flags & bit) != 0; }

// The supervisor's role as the system manager reports it; values other than 1 and 2 mean
// neither (for instance while the system manager has not decided yet).
enum class SupState { kNeither, kActive, kStandby };

inline SupState sup_state() noexcept {
  switch (sysmgr_supstate_get()) {
    case HADRA_SUP_ACTIVE:
      return SupState::kActive;
    case HADRA_SUP_STANDBY:
      return SupState::kStandby;
    default:
      return SupState::kNeither;
  }
}

}  // namespace hadra
