// PSS files in a gsync snapshot area: how one PSS file of the registry travels from the
// active supervisor to the standby. The copy is named <area>/<file prefix><registered name>,
// which both sides form alike; it is a PSS file like any other (file.h copies it).
#pragma once

#include "hadra/registry.h"

namespace hadra::pss {

// Active side: copy the entry's open file into the area base_uri. 1 when copied.
int snapshot_to_area(hadra_ha_pss_entry &e, const char *base_uri) noexcept;

// Standby side: rebuild the entry's file from its copy in the area base_uri (empty when the
// area holds none) and open it: state HADRA_HA_STANDBY. 1 when rebuilt; 0 leaves the state.
int restore_from_area(hadra_ha_pss_entry &e, const char *base_uri) noexcept;

// Standby side when no gsync will come (the active does not run the service): the entry's
// file starts empty unless it exists already (an unsynced file opened at initialisation);
// state HADRA_HA_STANDBY whatever happened.
void start_empty_standby(hadra_ha_pss_entry &e) noexcept;

}  // namespace hadra::pss
