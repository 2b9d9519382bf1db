// The thread's error record. Messages are written into streams that are rewound, not
// reallocated, and formatting goes through a stack buffer, so a thread that reports
// errors of a size it has seen before allocates nothing.
#include <ksutils/error.h>

#include <cerrno>
#include <cstring>

namespace ks {
namespace {

constexpr size_t kNameRoom = 64;
constexpr size_t kMessageRoom = 512;

struct CodeText {
    const char* name;
    const char* message;
};

constexpr CodeText kCodes[] = {
    {"E_OK", "Operation successfull"},
    {"E_SYSTEM", "System error: {:s}"},
    {"E_FAULT", "Access violation"},
    {"E_TIMEDOUT", "Operation timed out"},
    {"E_INVAL", "Invalid argument"},
    {"E_NOENT", "No such file or directory"},
    {"E_DISCONNECTED", "Client has disconnected from server"},
    {"E_AGAIN", "Try again"},
};

bool known(int code) { return code >= 0 && code < static_cast<int>(std::size(kCodes)); }

}  // namespace

ks::string_view error_name(int code) noexcept { return known(code) ? kCodes[code].name : ""; }

ks::string_view error_default_message(int code) noexcept {
    return known(code) ? kCodes[code].message : "Unknown error";
}

_KSErrorStorage::_KSErrorStorage(int c) : code(c), name(kNameRoom), message(kMessageRoom) { set(c); }

_KSErrorStorage& _KSErrorStorage::set(int c) {
    const int saved_errno = errno;
    code = c;
    message.reset();
    if (c == E_SYSTEM) {
        message.write_text("System error: ");
        message.write_text(std::strerror(saved_errno));
    } else {
        message.write_text(error_default_message(c));
    }
    set_name();
    errno = saved_errno;
    return *this;
}

_KSErrorStorage& _KSErrorStorage::set(int c, ks::string_view text) {
    code = c;
    message.reset();
    message.write_text(text);
    set_name();
    return *this;
}

_KSErrorStorage& _KSErrorStorage::vset(int c, ks::string_view format, fmt::format_args args) {
    fmt::memory_buffer text;
    fmt::vformat_to(std::back_inserter(text), fmt::string_view(format.data(), format.size()), args);
    return set(c, ks::string_view(text.data(), text.size()));
}

void _KSErrorStorage::set_name() {
    name.reset();
    if (known(code)) {
        name.write_text(kCodes[code].name);
        return;
    }
    fmt::memory_buffer text;
    fmt::format_to(std::back_inserter(text), "UNKNOWN(0x{:x})", code);
    name.write_text(ks::string_view(text.data(), text.size()));
}

_KSErrorStorage& _get_kserrno() {
    thread_local _KSErrorStorage record(E_OK);
    return record;
}

template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const ks::string_view&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const std::string&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const unsigned&, const ks::string_view&,
                                               const ks::string_view&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const unsigned&, const ks::string_view&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const ks::string_view&, const int&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&, const std::string&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&, const ks::string_view&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const int&, char* const&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const char* const&);
template _KSErrorStorage& _KSErrorStorage::set(int, ks::string_view, const char&);

}  // namespace ks
