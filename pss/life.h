// A registered PSS file's life in the registry: its start-up when the library initialises
// and its end when it is disabled. Which start-up applies (stateful restart, preserved file,
// stateless start) is decided by the library's start-up (lifecycle/db_start.cc); each
// function here carries out one of them for a PSS entry.
//
// A started file stays open in the entry's pss_handle, and the entry's state says how it
// started. A start-up that does not succeed leaves the state as it was.
#pragma once

#include "hadra/registry.h"

namespace hadra::pss {

// Stateful restart: the old contents as they are (a missing file is created empty); state
// HADRA_HA_RECOVER. False when the file cannot be opened.
bool start_stateful(hadra_ha_pss_entry &e) noexcept;

// Preserved file on a stateless start: its contents, if the file exists and opens; state
// HADRA_HA_ACTIVE. False otherwise.
bool start_preserved(hadra_ha_pss_entry &e) noexcept;

// Stateless start: a configuration file becomes a copy of its file in the startup
// configuration (empty when there is none); any other file starts empty. State
// HADRA_HA_ACTIVE. False (with the start-up's closing debug line where the failure has no
// line of its own) when the file cannot be made.
bool start_stateless(hadra_ha_pss_entry &e) noexcept;

// Disabling: closes and destroys the file and tells the standby to destroy its copy
// (whatever the entry's no_sync: an unsynced file's copy, if one was ever made, must not
// outlive it); the entry holds no handle afterwards. The caller marks the entry disabled.
void disable(hadra_ha_pss_entry &e) noexcept;

}  // namespace hadra::pss
