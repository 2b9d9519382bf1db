/// @file
/// The logging facade: typed levels, bool results and the log statement.
///
/// @code
///   KSLOG_INFO(channel, "connected to {:s} after {:d} ms", peer, elapsed);
/// @endcode
///
/// expands to a can_log() check first, so a suppressed record costs one read-locked
/// comparison and no formatting; an allowed one is formatted with {fmt} after the header
/// template and "[file:line][function()]: ", and handed to the core with signals blocked.
#pragma once

#include <ksexport.h>
#include <kslog.h>
#include <ksutils/string_view.h>

#include <fmt/format.h>

#include <string>

namespace ks {
namespace log {

/// Record levels, most severe first; a record is written when its level is not above the
/// threshold of an output of its channel.
enum class level : unsigned { error = 0, warning = 1, info = 2, debug = 3, trace = 4 };

/// Levels outside warning..trace reach the core as error.
constexpr int to_core(level l) noexcept {
    const unsigned v = static_cast<unsigned>(l);
    return v >= 1 && v <= 4 ? static_cast<int>(v) : 0;
}

/// @name Channel names
/// Names of the channels the appliance's daemons share.
/// @{
KS_EXPORT extern const char* const kKSPppoeDiscoveryChannel;  ///< "pppoe-discovery"
KS_EXPORT extern const char* const kKSDhcpDiscoveryChannel;  ///< "dhcp-discovery"
KS_EXPORT extern const char* const kKSTallisHandlersChannel;  ///< "kstallishandlers"
KS_EXPORT extern const char* const kKSCloudGuardianChannel;  ///< "guardian"
KS_EXPORT extern const char* const kKSParentalChannel;  ///< "parental"
KS_EXPORT extern const char* const kKSKarmaChannel;  ///< "kskarma"
KS_EXPORT extern const char* const kKSExchangeChannel;  ///< "ksexchange"
KS_EXPORT extern const char* const kKSNetMgmtChannel;  ///< "ksnetmgmt"
KS_EXPORT extern const char* const kKSDevMgmtChannel;  ///< "ksdevmgmt"
KS_EXPORT extern const char* const kKSSetMgmtChannel;  ///< "kssetmgmt"
/// @}

/// Starts logging for the program `argv0` (its base name is the identity) under `install_path`
/// (null: the default install root), applying `startup_config` (may be null), else the
/// program's own configuration, else the shared default. Reference-counted: a second call only
/// counts. See kslog_init().
KS_EXPORT bool start(const char* argv0, const char* install_path = nullptr, const char* startup_config = nullptr);
/// Drops one reference taken by start(); the last one stops logging.
KS_EXPORT void stop();
/// True while start() references are held.
KS_EXPORT bool started();

/// True when a record of level `l` on `channel` would be written: ask before formatting it.
inline bool can_log(unsigned long channel, level l) noexcept {
    return kslog_can_log(static_cast<int>(channel), to_core(l)) != 0;
}

/// The handle of the channel `name`, created with copies of the default channel's outputs or
/// re-enabled if it was closed. 0 (the default channel) for an unusable name or a full table,
/// (unsigned long)-1 when logging is not started. See kslog_channel_open().
KS_EXPORT unsigned long open_channel(const char* name);
/// Disables the channel; opening it by name again re-enables it. The default channel 0 stays.
KS_EXPORT void close_channel(unsigned long channel);
/// Gives channel `dst` the outputs and maximum level of `src`.
KS_EXPORT bool copy_channel(unsigned long dst, unsigned long src);
/// The handle of the channel with exactly that name, or (unsigned long)-1.
KS_EXPORT unsigned long get_channel_by_name(const char* name);
/// The number of channel slots in use.
KS_EXPORT unsigned long get_num_channels();
/// The level assumed when none is configured: error.
KS_EXPORT level get_default_level();
/// The largest level of the channel's outputs.
KS_EXPORT level get_channel_max_level(unsigned long channel);
/// The maximum size of a log file in bytes.
KS_EXPORT uint64_t get_max_log_size();
/// The maximum number of files kept per output.
KS_EXPORT uint64_t get_max_num_logs();

/// The current configuration as an "update" document; the caller owns it.
KS_EXPORT json_t* get_log_config();
/// Checks and applies a configuration document ("update" or "save"); logging must be started.
KS_EXPORT bool execute_log_config(const json_t* config);
/// `path` must be NUL-terminated.
KS_EXPORT bool execute_log_config(ks::string_view path);
/// Runs every check of a configuration document without applying it.
KS_EXPORT bool is_valid_log_config(const json_t* config);
/// Loads the JSON file at `path` (NUL-terminated) and checks it.
KS_EXPORT bool is_valid_log_config(ks::string_view path);

/// Hands a formatted record (header template first) to the core with all signals blocked;
/// the core stamps the header into the string's own buffer.
KS_EXPORT void print(unsigned long channel, level l, std::string&& record);
/// Logs a warning on the default channel that no backtrace can be made for `function`.
KS_EXPORT void backtrace(const char* function);

namespace detail {

constexpr const char* source_basename(const char* file) noexcept {
    const char* base = file;
    for (const char* p = file; *p; ++p)
        if (*p == '/') base = p + 1;
    return base;
}

KS_EXPORT void vlog(unsigned long channel, level l, const char* file, int line, const char* function,
                    fmt::string_view format, fmt::format_args args);

template <class... Args>
inline void log(unsigned long channel, level l, const char* file, int line, const char* function,
                fmt::format_string<Args...> format, Args&&... args) {
    vlog(channel, l, file, line, function, format, fmt::make_format_args(args...));
}

}  // namespace detail
}  // namespace log

/// Logs the serialised value ("prefix: value" when a prefix is given).
KS_EXPORT void log_json(unsigned long channel, log::level l, const char* prefix, const json_t* value);

}  // namespace ks

/// Logs a record of level `lvl` on `channel`: a {fmt} format string and its arguments,
/// formatted only when the record would be written.
#define KSLOG(channel, lvl, ...)                                                                         \
    do {                                                                                                  \
        if (::ks::log::can_log((channel), (lvl)))                                                         \
            ::ks::log::detail::log((channel), (lvl), ::ks::log::detail::source_basename(__FILE__), __LINE__, \
                                   __func__, __VA_ARGS__);                                                \
    } while (0)

/// KSLOG() at level error.
#define KSLOG_ERROR(channel, ...) KSLOG(channel, ::ks::log::level::error, __VA_ARGS__)
/// KSLOG() at level warning.
#define KSLOG_WARN(channel, ...) KSLOG(channel, ::ks::log::level::warning, __VA_ARGS__)
/// KSLOG() at level info.
#define KSLOG_INFO(channel, ...) KSLOG(channel, ::ks::log::level::info, __VA_ARGS__)
/// KSLOG() at level debug.
#define KSLOG_DEBUG(channel, ...) KSLOG(channel, ::ks::log::level::debug, __VA_ARGS__)
/// KSLOG() at level trace.
#define KSLOG_TRACE(channel, ...) KSLOG(channel, ::ks::log::level::trace, __VA_ARGS__)
