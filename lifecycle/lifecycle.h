// The top of the library's stack: initialisation and close, the start-up of each registered
// database and disabling. These drive both stores (pss/life.h, sdb/lifecycle.h) through a
// database's life and are the only code that knows both kinds.
#pragma once

#include "hadra/registry.h"

namespace hadra::lifecycle {

// As hadra_ha_db_start: 1 when the database is up.
int db_start(hadra_ha_pss_entry &e) noexcept;

// As hadra_ha_disable and hadra_ha_disable_all.
void disable(hadra_ha_pss_entry &e) noexcept;
void disable_all() noexcept;

}  // namespace hadra::lifecycle
