/** @file
 * @brief Symbol visibility and C linkage for the library's headers.
 *
 * Symbol visibility for libksutils: everything is hidden unless marked KS_EXPORT. */
#ifndef KSEXPORT_H
#define KSEXPORT_H

/** Marks a function or class as part of the library's exported interface. */
#define KS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
/** Opens a block of declarations with C linkage (unmangled names) when compiled as C++. */
#define KS_EXTERN_C_BEGIN extern "C" {
/** Closes a block opened by KS_EXTERN_C_BEGIN. */
#define KS_EXTERN_C_END }
#else
#define KS_EXTERN_C_BEGIN
#define KS_EXTERN_C_END
#endif

#endif
