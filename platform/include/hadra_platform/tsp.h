/* Scheduling hints. */
#ifndef HADRA_PLATFORM_TSP_H
#define HADRA_PLATFORM_TSP_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/* Bracket a long platform call during which the thread may be descheduled. */
HADRA_PLAT_API void tsp_before_yield(void) PLAT_NOEXCEPT;
HADRA_PLAT_API void tsp_after_yield(void) PLAT_NOEXCEPT;
/* Non-zero when the calling thread has run a full time slice (configuration key
   TSP_SLICE_US, default 10000 us, platform clock) since it last yielded or asked; asking
   starts a new slice when it answers non-zero, and so does tsp_after_yield(). */
HADRA_PLAT_API int tsp_should_sched_yield(void) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
