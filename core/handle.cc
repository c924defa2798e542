// The client's HA handle: zero at load, written by initialisation and close.
#include "core/handle.h"

#include <cstring>

#include "core/reset.h"

extern "C" {
HADRA_API hadra_ha_handle_t hadra_ha_handle = {};
}

namespace hadra {
namespace {

void reset_handle() noexcept { std::memset(&hadra_ha_handle, 0, sizeof hadra_ha_handle); }
HADRA_RESET_HOOK(reset_handle);

}  // namespace
}  // namespace hadra
