// Foundation utilities: abort, hexadecimal text, human-readable sizes, C-object deleters.
#include <ksutils/error.h>
#include <ksutils/miscutl.h>

#include <jansson.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>

namespace ks {

void abort(ks::string_view message) noexcept {
    // writev keeps message and newline together when several threads abort at once.
    struct iovec parts[2] = {{const_cast<char*>(message.data()), message.size()},
                             {const_cast<char*>("\n"), 1}};
    ssize_t rc = ::writev(STDERR_FILENO, parts, 2);
    (void)rc;
    std::abort();
}

std::string hex_encode(const void* data, size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    auto bytes = static_cast<const uint8_t*>(data);
    std::string text(size * 2, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0f];
    }
    return text;
}

namespace {
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool hex_decode(ks::string_view text, ks::buffer& out) {
    if (text.size() % 2 != 0) {
        _get_kserrno().set(E_INVAL, "Hexadecimal text of odd length");
        return false;
    }
    const size_t start = out.size();
    out.reserve(start + text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = hex_value(text[i]);
        int lo = hex_value(text[i + 1]);
        if (hi < 0 || lo < 0) {
            out.resize(start);
            _get_kserrno().set(E_INVAL, "Invalid hexadecimal character at offset {:d}", static_cast<int>(hi < 0 ? i : i + 1));
            return false;
        }
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return true;
}

std::string human_size(uint64_t bytes) {
    static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return fmt::format("{} B", bytes);
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    return fmt::format("{:.1f} {}", value, kUnits[unit]);
}

void PtrDeleter::operator()(json_t* value) const noexcept { json_decref(value); }
void PtrDeleter::operator()(FILE* file) const noexcept {
    if (file) std::fclose(file);
}
void PtrDeleter::operator()(char* text) const noexcept { std::free(text); }
void PtrDeleter::operator()(void* block) const noexcept { std::free(block); }

}  // namespace ks
