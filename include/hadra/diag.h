/*
 * Diagnostics switches.
 *
 * The library reports through three channels: the debug log (platform log, level 6) while
 * hadra_debug_ha is set; the history trace (the same lines with a thread tag, recorded in a
 * platform history buffer) while hadra_sdwrap_dbg_elem is set; and rate-limited error
 * reports, whatever the switches. With both switches 0 nothing is formatted.
 */
#ifndef HADRA_DIAG_H
#define HADRA_DIAG_H

#include "hadra/types.h"

HADRA_EXTERN_C_BEGIN

HADRA_API extern uint32_t hadra_debug_ha;        /* non-zero: debug log on */
HADRA_API extern uint32_t hadra_sdwrap_dbg_elem; /* non-zero: history trace on; stored in each record */
/* History buffer handed to the platform with every trace record. Pointer-sized: it names a
   platform history buffer (a 32-bit word on 32-bit systems). */
HADRA_API extern void *hadra_sdwrap_dbg_buf;

HADRA_API void hadra_ha_enable_debug(void) HADRA_NOEXCEPT;  /* hadra_debug_ha = 1 */
HADRA_API void hadra_ha_disable_debug(void) HADRA_NOEXCEPT; /* hadra_debug_ha = 0 */
/* Set the history element and buffer; elem 0 turns the trace off. */
HADRA_API void hadra_sdwrap_dbg_elem_set(uint32_t elem, void *buf) HADRA_NOEXCEPT;

HADRA_EXTERN_C_END

#endif
