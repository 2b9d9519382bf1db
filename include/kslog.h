/** @file
 * @brief The log core (C interface).
 *
 * Named channels at five levels, fanned out to standard output, standard
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

/** @name Levels
 * Smaller is more severe: a record is emitted when its level is not above the threshold. */
/** @{ */
#define KSLOG_LEVEL_ERROR 0    /**< Errors: "error". */
#define KSLOG_LEVEL_WARNING 1  /**< Warnings: "warn" in records, "warning" in configurations. */
#define KSLOG_LEVEL_INFO 2     /**< Information: "info". */
#define KSLOG_LEVEL_DEBUG 3    /**< Debugging: "debug". */
#define KSLOG_LEVEL_TRACE 4    /**< The most verbose: "trace". */
/** @} */

/** Every record begins with this 37-character template, which the core overwrites in place
 * with the time, milliseconds, process id and level word. */
#define KSLOG_HEADER_TEMPLATE "yyyy-mm-dd HH:MM:SS.__m ___pid __lvl "
#define KSLOG_HEADER_SIZE 37    /**< Length of KSLOG_HEADER_TEMPLATE; shorter records are ignored. */
#define KSLOG_MAX_RECORD 4095   /**< Longer records are cut to this length. */

/** Starts logging for the program at `executable_path` (its base name is the identity) under
 * `install_path` (null: kspath_default_install_path()), applying `startup_config` (may be
 * null), else the program's own configuration, else the shared default. Reference-counted:
 * a second call only counts. 0, or -1 (and "Failed to initialize kslog" on standard error). */
KS_EXPORT int kslog_init(const char* executable_path, const char* install_path, const char* startup_config);
/** Drops one reference taken by kslog_init; the last one tears everything down. */
KS_EXPORT void kslog_uninit(void);
/** Non-zero while kslog_init references are held. */
KS_EXPORT int kslog_initialized(void);
/** The part of `path` after its last '/', or null if `path` is null or that part is empty
 * or longer than 511 characters. */
KS_EXPORT const char* kslog_identity(const char* path);

/** The handle of the channel `name`, re-enabled if it was closed; a new channel starts with
 * copies of the default channel's outputs. A name that is null, empty or longer than 31
 * characters, or a full table (64 channels), gives 0, the default channel; -1 when
 * logging is not initialised. */
KS_EXPORT int kslog_channel_open(const char* name);
/** Disables the channel: it keeps its name and outputs, and opening it by name again
 * re-enables it. The default channel 0 and unknown handles are left alone. */
KS_EXPORT void kslog_channel_close(int channel);
/** Gives channel `dst` (which must be enabled) the outputs and maximum level of `src`;
 * 0 or -1. */
KS_EXPORT int kslog_channel_copy(int dst, int src);
/** Number of channel slots in use (0 when logging is not initialised). */
KS_EXPORT int kslog_get_num_channels(void);
/** The handle of the channel with exactly that name, or -1. */
KS_EXPORT int kslog_channel_get_by_name(const char* name);

/** Non-zero when a record of `level` on `channel` would be emitted: ask before formatting
 * it. */
KS_EXPORT int kslog_can_log(int channel, int level);
/** The largest level of the channel's outputs (0 for an invalid channel or when logging
 * is not initialised). */
KS_EXPORT int kschlog_get_max_level(int channel);
/** The global maximum size of a log file in bytes (262144 when not initialised). */
KS_EXPORT uint64_t kslog_get_max_log_size(void);
/** The global maximum number of files kept per output (2 when not initialised). */
KS_EXPORT uint64_t kslog_get_max_num_logs(void);

/** Stamps the header into `buffer` and emits the record; `length` is the untruncated length
 * (what snprintf returned). Records over 4095 bytes are cut and end in "[TRUNCATED]\n",
 * so the buffer must hold at least 4096 bytes when `length` exceeds that. */
KS_EXPORT void kslog_log_full(int channel, int level, char* buffer, size_t length);

/** @name Level words
 * Record words ("error", "warn", "info", "debug", "trace") appear in record headers; user
 * words ("warning" instead of "warn") in configuration documents. Unknown text maps to 0;
 * the level-to-text forms take only levels 0 to 4. */
/** @{ */
/** The record word of `level`. */
KS_EXPORT const char* kslog_lvl_to_logstr(int level);
/** The user word of `level`. */
KS_EXPORT const char* kslog_lvl_to_userstr(int level);
/** The level of a record word. */
KS_EXPORT int kslog_logstr_to_lvl(const char* text);
/** The level of a user word. */
KS_EXPORT int kslog_userstr_to_lvl(const char* text);
/** @} */

/** @name Configuration documents ("update", "save")
 * JSON documents with an "action": "update" sets the global file limits and the outputs of
 * the channels it lists; "save" writes the current configuration to a file as an "update"
 * document. Failures are logged on the default channel. */
/** @{ */
/** Runs every check of `config` without applying it; 0 when valid, -1 otherwise. */
KS_EXPORT int kslog_is_valid_config(const json_t* config);
/** Loads the JSON file at `path` and checks it as kslog_is_valid_config does; 0 or -1. */
KS_EXPORT int kslog_is_valid_config_from_path(const char* path);
/** Checks and applies `config`; logging must be initialised. 0 or -1. */
KS_EXPORT int kslog_execute_config(const json_t* config);
/** Loads the JSON file at `path` and executes it as kslog_execute_config does; 0 or -1. */
KS_EXPORT int kslog_execute_config_from_path(const char* path);
/** The current configuration as a new "update" document, owned by the caller. */
KS_EXPORT json_t* kslog_get_config(void);
/** Logs the limits and the start-up defaults with their sources, at trace level. */
KS_EXPORT void kslog_print_settings(void);
/** @} */

KS_EXTERN_C_END

#endif
