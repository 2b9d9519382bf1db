/* The log core: named channels at five levels, fanned out to standard output, standard
 * error or encrypted rotating files shared between channels and processes, configured by
 * JSON documents at start and at run time. Channel handles are indices; -1 is failure. */
#ifndef KSLOG_H
#define KSLOG_H

#include <ksexport.h>
#include <kswrite.h>

#include <jansson.h>
#include <stddef.h>
#include <stdint.h>

KS_EXTERN_C_BEGIN

#define KSLOG_LEVEL_ERROR 0
#define KSLOG_LEVEL_WARNING 1
#define KSLOG_LEVEL_INFO 2
#define KSLOG_LEVEL_DEBUG 3
#define KSLOG_LEVEL_TRACE 4

/* Every record begins with this 37-character template, which the core overwrites in place
 * with the time, milliseconds, process id and level word. */
#define KSLOG_HEADER_TEMPLATE "yyyy-mm-dd HH:MM:SS.__m ___pid __lvl "
#define KSLOG_HEADER_SIZE 37
#define KSLOG_MAX_RECORD 4095

KS_EXPORT int kslog_init(const char* executable_path, const char* install_path, const char* startup_config);
KS_EXPORT void kslog_uninit(void);
KS_EXPORT int kslog_initialized(void);
KS_EXPORT const char* kslog_identity(const char* path);

KS_EXPORT int kslog_channel_open(const char* name);
KS_EXPORT void kslog_channel_close(int channel);
KS_EXPORT int kslog_channel_copy(int dst, int src);
KS_EXPORT int kslog_get_num_channels(void);
KS_EXPORT int kslog_channel_get_by_name(const char* name);

KS_EXPORT int kslog_can_log(int channel, int level);
KS_EXPORT int kschlog_get_max_level(int channel);
KS_EXPORT uint64_t kslog_get_max_log_size(void);
KS_EXPORT uint64_t kslog_get_max_num_logs(void);

/* Stamps the header into `buffer` and emits the record; `length` is the untruncated length
 * (what snprintf returned). Records over 4095 bytes are cut and end in "[TRUNCATED]\n",
 * so the buffer must hold at least 4096 bytes when `length` exceeds that. */
KS_EXPORT void kslog_log_full(int channel, int level, char* buffer, size_t length);

KS_EXPORT const char* kslog_lvl_to_logstr(int level);
KS_EXPORT const char* kslog_lvl_to_userstr(int level);
KS_EXPORT int kslog_logstr_to_lvl(const char* text);
KS_EXPORT int kslog_userstr_to_lvl(const char* text);

/* Configuration documents ("update", "save"). */
KS_EXPORT int kslog_is_valid_config(const json_t* config);
KS_EXPORT int kslog_is_valid_config_from_path(const char* path);
KS_EXPORT int kslog_execute_config(const json_t* config);
KS_EXPORT int kslog_execute_config_from_path(const char* path);
KS_EXPORT json_t* kslog_get_config(void);
KS_EXPORT void kslog_print_settings(void);

KS_EXTERN_C_END

#endif
