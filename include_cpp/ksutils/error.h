/// @file
/// The thread's error record: the library's errno, with a name and a message attached.
///
/// A failing operation returns its plain failure value and leaves the detail here; callers
/// read the record of their own thread right after the failure. The two text streams are
/// rewound between calls, so reporting an error allocates only when a message is longer
/// than anything this thread reported before.
#pragma once

#include <ksexport.h>
#include <ksutils/streams.h>
#include <ksutils/string_view.h>

#include <fmt/format.h>

#include <string>

template <>
struct fmt::formatter<ks::basic_string_view<char>> : fmt::formatter<fmt::string_view> {
    template <class FormatContext>
    auto format(const ks::basic_string_view<char>& s, FormatContext& ctx) const {
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), ctx);
    }
};

namespace ks {

constexpr int E_OK = 0;  ///< success ("Operation successfull")
constexpr int E_SYSTEM = 1;  ///< a system call failed; the message carries strerror(errno)
constexpr int E_FAULT = 2;  ///< an operation failed ("Access violation")
constexpr int E_TIMEDOUT = 3;  ///< "Operation timed out"
constexpr int E_INVAL = 4;  ///< bad input ("Invalid argument")
constexpr int E_NOENT = 5;  ///< something looked for is absent ("No such file or directory")
constexpr int E_DISCONNECTED = 6;  ///< the peer went away ("Client has disconnected from server")
constexpr int E_AGAIN = 7;  ///< "Try again"

/// An error record: a code, its name and a message. Each thread has one, see _get_kserrno().
class KS_EXPORT _KSErrorStorage {
public:
    /// A record holding `code` with its default message.
    explicit _KSErrorStorage(int code = E_OK);
    _KSErrorStorage(const _KSErrorStorage&) = delete;
    _KSErrorStorage& operator=(const _KSErrorStorage&) = delete;

    /// Stores the code with its default message; for E_SYSTEM the message carries
    /// strerror(errno), so call it before anything else can change errno.
    _KSErrorStorage& set(int code);
    /// Stores the code with `message`.
    _KSErrorStorage& set(int code, ks::string_view message);
    /// Stores the code with a message formatted by {fmt} from `format` and `args`.
    template <class... Args>
    _KSErrorStorage& set(int code, ks::string_view format, const Args&... args) {
        return vset(code, format, fmt::make_format_args(args...));
    }
    /// set() with the arguments already packed.
    _KSErrorStorage& vset(int code, ks::string_view format, fmt::format_args args);

    /// Rewrites the name from the code: "E_..." for known codes, "UNKNOWN(0x..)" otherwise.
    void set_name();

    /// The code's name ("E_INVAL", ...).
    ks::string_view name_view() const noexcept { return name.view(); }
    /// The message.
    ks::string_view message_view() const noexcept { return message.view(); }

    int code;  ///< one of the E_ constants
    basic_memstream name;  ///< the code's name
    basic_memstream message;  ///< the message
};

/// The calling thread's record, created on first use with code E_OK.
KS_EXPORT _KSErrorStorage& _get_kserrno();

/// The symbolic name of a code ("E_OK", "E_INVAL", ...); "" for an unknown code.
KS_EXPORT ks::string_view error_name(int code) noexcept;
/// The default message of a code ("Unknown error" for an unknown code).
KS_EXPORT ks::string_view error_default_message(int code) noexcept;

// Instances that other modules link against; the template above serves any other list.
/// @cond
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const ks::string_view&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const std::string&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const unsigned&,
                                                                const ks::string_view&, const ks::string_view&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const unsigned&,
                                                                const ks::string_view&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const ks::string_view&,
                                                                const int&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&,
                                                                const std::string&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&,
                                                                const ks::string_view&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&, char* const&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const char* const&);
extern template KS_EXPORT _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const char&);

/// @endcond
}  // namespace ks
