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

enum class level : unsigned { error = 0, warning = 1, info = 2, debug = 3, trace = 4 };

/// Levels outside warning..trace reach the core as error.
constexpr int to_core(level l) noexcept {
    const unsigned v = static_cast<unsigned>(l);
    return v >= 1 && v <= 4 ? static_cast<int>(v) : 0;
}

KS_EXPORT extern const char* const kKSPppoeDiscoveryChannel;
KS_EXPORT extern const char* const kKSDhcpDiscoveryChannel;
KS_EXPORT extern const char* const kKSTallisHandlersChannel;
KS_EXPORT extern const char* const kKSCloudGuardianChannel;
KS_EXPORT extern const char* const kKSParentalChannel;
KS_EXPORT extern const char* const kKSKarmaChannel;
KS_EXPORT extern const char* const kKSExchangeChannel;
KS_EXPORT extern const char* const kKSNetMgmtChannel;
KS_EXPORT extern const char* const kKSDevMgmtChannel;
KS_EXPORT extern const char* const kKSSetMgmtChannel;

KS_EXPORT bool start(const char* argv0, const char* install_path = nullptr, const char* startup_config = nullptr);
KS_EXPORT void stop();
KS_EXPORT bool started();

inline bool can_log(unsigned long channel, level l) noexcept {
    return kslog_can_log(static_cast<int>(channel), to_core(l)) != 0;
}

KS_EXPORT unsigned long open_channel(const char* name);
KS_EXPORT void close_channel(unsigned long channel);
KS_EXPORT bool copy_channel(unsigned long dst, unsigned long src);
KS_EXPORT unsigned long get_channel_by_name(const char* name);
KS_EXPORT unsigned long get_num_channels();
KS_EXPORT level get_default_level();
KS_EXPORT level get_channel_max_level(unsigned long channel);
KS_EXPORT uint64_t get_max_log_size();
KS_EXPORT uint64_t get_max_num_logs();

/// The current configuration as an "update" document; the caller owns it.
KS_EXPORT json_t* get_log_config();
KS_EXPORT bool execute_log_config(const json_t* config);
/// `path` must be NUL-terminated.
KS_EXPORT bool execute_log_config(ks::string_view path);
KS_EXPORT bool is_valid_log_config(const json_t* config);
KS_EXPORT bool is_valid_log_config(ks::string_view path);

/// Hands a formatted record (header template first) to the core with all signals blocked;
/// the core stamps the header into the string's own buffer.
KS_EXPORT void print(unsigned long channel, level l, std::string&& record);
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

#define KSLOG(channel, lvl, ...)                                                                         \
    do {                                                                                                  \
        if (::ks::log::can_log((channel), (lvl)))                                                         \
            ::ks::log::detail::log((channel), (lvl), ::ks::log::detail::source_basename(__FILE__), __LINE__, \
                                   __func__, __VA_ARGS__);                                                \
    } while (0)

#define KSLOG_ERROR(channel, ...) KSLOG(channel, ::ks::log::level::error, __VA_ARGS__)
#define KSLOG_WARN(channel, ...) KSLOG(channel, ::ks::log::level::warning, __VA_ARGS__)
#define KSLOG_INFO(channel, ...) KSLOG(channel, ::ks::log::level::info, __VA_ARGS__)
#define KSLOG_DEBUG(channel, ...) KSLOG(channel, ::ks::log::level::debug, __VA_ARGS__)
#define KSLOG_TRACE(channel, ...) KSLOG(channel, ::ks::log::level::trace, __VA_ARGS__)
