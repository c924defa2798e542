/* Export macro of libhadra_platform.so. */
#ifndef HADRA_PLATFORM_EXPORT_H
#define HADRA_PLATFORM_EXPORT_H

#if defined(HADRA_PLATFORM_BUILD)
#define HADRA_PLAT_API __attribute__((visibility("default")))
#else
#define HADRA_PLAT_API
#endif

#ifdef __cplusplus
#define PLAT_EXTERN_C_BEGIN extern "C" {
#define PLAT_EXTERN_C_END }
#define PLAT_NOEXCEPT noexcept
#else
#define PLAT_EXTERN_C_BEGIN
#define PLAT_EXTERN_C_END
#define PLAT_NOEXCEPT
#endif

#if defined(__GNUC__)
#define PLAT_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define PLAT_PRINTF(f, a)
#endif

/* datum and the other records shared with the HA library. */
#include "hadra_platform/types.h"

#endif
