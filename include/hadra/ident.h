/*
 * Service identity: uuid <-> name, pib instance names, start and stop type names.
 * No state, no platform calls; every returned name is a static string never to be freed.
 * Safe from any thread.
 */
#ifndef HADRA_IDENT_H
#define HADRA_IDENT_H

#include "hadra/types.h"

HADRA_EXTERN_C_BEGIN

/* Start types, as hadra_get_start_reason() returns them. */
enum {
  HADRA_START_UNKNOWN = 0,
  HADRA_START_CRASH = 1,
  HADRA_START_CONTROLLED = 2,
  HADRA_START_CONFIGURATION = 3,
  HADRA_START_STANDBY = 4,
  HADRA_START_SWITCHOVER = 5
};
/* Stop types. */
enum { HADRA_STOP_UNKNOWN = 0, HADRA_STOP_CONTROLLED = 2, HADRA_STOP_DECONFIGURATION = 3 };

/* Name of the service with this uuid, or "unknown". Never null. */
HADRA_API const char *hadra_get_name_from_uuid(uint32_t uuid) HADRA_NOEXCEPT;
/* uuid of the service whose name equals name regardless of case, or 0. name must not be null. */
HADRA_API uint32_t hadra_get_uuid_from_name(const char *name) HADRA_NOEXCEPT;
/*
 * Pib instance name number *counter of the service, or null; *counter advances on every call
 * (also when the result is null). Enumerate with *counter = 0 until null. Null counter: null.
 */
HADRA_API const char *hadra_get_pib_name_from_uuid(uint32_t uuid, uint32_t *counter) HADRA_NOEXCEPT;
/* uuid of the service a pib instance name belongs to, or 0. af 1 = IPv4, else IPv6. */
HADRA_API uint32_t hadra_get_uuid_from_pib_name(uint32_t af, const char *name) HADRA_NOEXCEPT;
/* "unknown", "crash", "controlled", "configuration", "standby", "switchover"; else "invalid". */
HADRA_API const char *hadra_start_type_str(uint32_t type) HADRA_NOEXCEPT;
/* "unknown", "controlled", "deconfiguration"; else "invalid". */
HADRA_API const char *hadra_stop_type_str(uint32_t type) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
