/* Export macro of libhadra_sysmgr.so. */
#ifndef HADRA_EXPORT_H
#define HADRA_EXPORT_H

#if defined(HADRA_BUILD)
#define HADRA_API __attribute__((visibility("default")))
#else
#define HADRA_API
#endif

#ifdef __cplusplus
#define HADRA_EXTERN_C_BEGIN extern "C" {
#define HADRA_EXTERN_C_END }
#define HADRA_NOEXCEPT noexcept
#else
#define HADRA_EXTERN_C_BEGIN
#define HADRA_EXTERN_C_END
#define HADRA_NOEXCEPT
#endif

#endif
