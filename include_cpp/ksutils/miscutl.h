/// @file
/// Small utilities of the foundation layer: aborting on declaration mistakes, hexadecimal
/// text, human-readable sizes, and the deleter for unique pointers to C objects.
#pragma once

#include <ksexport.h>
#include <ksutils/buffer.h>
#include <ksutils/string_view.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

struct json_t;

namespace ks {

/// Writes the message and a newline to standard error, then aborts. For programming errors
/// in declarations only; run-time failures go through the error record.
[[noreturn]] KS_EXPORT void abort(ks::string_view message) noexcept;
/// ks::abort(message) when `condition` holds.
inline void abort_if(bool condition, ks::string_view message) noexcept {
    if (condition) ks::abort(message);
}

/// Lower-case hexadecimal text of the bytes.
KS_EXPORT std::string hex_encode(const void* data, size_t size);
/// Lower-case hexadecimal text of the bytes of `bytes`.
inline std::string hex_encode(ks::string_view bytes) { return hex_encode(bytes.data(), bytes.size()); }
/// Appends the decoded bytes to `out`; an odd length or a non-hex character fails with
/// E_INVAL and leaves `out` unchanged. Both cases of letters are accepted.
KS_EXPORT bool hex_decode(ks::string_view text, ks::buffer& out);

/// "512 B", "1.5 KiB", "20.0 MiB", ... (binary multiples, one decimal above bytes).
KS_EXPORT std::string human_size(uint64_t bytes);

/// Deleter for unique pointers to C objects: json_t drops its reference, FILE is closed,
/// anything else allocated with malloc is freed.
struct KS_EXPORT PtrDeleter {
    /// Drops one reference of `value`.
    void operator()(json_t* value) const noexcept;
    /// Closes `file`.
    void operator()(FILE* file) const noexcept;
    /// Frees `text`.
    void operator()(char* text) const noexcept;
    /// Frees `block`.
    void operator()(void* block) const noexcept;
};

/// A unique pointer to a C object, released by PtrDeleter.
template <class T>
using unique_c_ptr = std::unique_ptr<T, PtrDeleter>;

}  // namespace ks
