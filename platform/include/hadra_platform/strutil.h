/*
 * String helpers of the platform. All bounded functions keep the destination NUL-terminated
 * (when size > 0) and never write beyond size bytes.
 */
#ifndef HADRA_PLATFORM_STRUTIL_H
#define HADRA_PLATFORM_STRUTIL_H

#include "hadra_platform/plat_export.h"

PLAT_EXTERN_C_BEGIN

/* snprintf with the platform's bounds rule; returns the length written (not wanted): at
   most size - 1, 0 for a null buf, zero size or null fmt. */
HADRA_PLAT_API int hadra_snprintf(char *buf, size_t size, const char *fmt, ...) PLAT_NOEXCEPT PLAT_PRINTF(3, 4);
/* Copy src into dest of size bytes, cut to fit; returns dest. Null src copies "". */
HADRA_PLAT_API char *hadra_strcpy(char *dest, size_t size, const char *src) PLAT_NOEXCEPT;
/* Append as much of src as fits in dest of size bytes; returns dest. A dest that is not
   terminated within size bytes is cut to size - 1 and nothing is appended. */
HADRA_PLAT_API char *hadra_strcat(char *dest, size_t size, const char *src) PLAT_NOEXCEPT;
/*
 * Text of a platform error code or errno value (see errors.h); flags is reserved (pass 0).
 * The text is static or in a per-thread ring of four buffers: it stays valid until the
 * fourth following call on the same thread, so one line may show several codes.
 */
HADRA_PLAT_API const char *hadra_syserr2str(uint32_t code, int flags) PLAT_NOEXCEPT;
HADRA_PLAT_API const char *syserr2str(uint32_t code) PLAT_NOEXCEPT;
/* Kernel id of the calling thread. */
HADRA_PLAT_API uint32_t hadra_get_thread_pid(void) PLAT_NOEXCEPT;

PLAT_EXTERN_C_END

#endif
