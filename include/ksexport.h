/* Symbol visibility for libksutils: everything is hidden unless marked KS_EXPORT. */
#ifndef KSEXPORT_H
#define KSEXPORT_H

#define KS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define KS_EXTERN_C_BEGIN extern "C" {
#define KS_EXTERN_C_END }
#else
#define KS_EXTERN_C_BEGIN
#define KS_EXTERN_C_END
#endif

#endif
