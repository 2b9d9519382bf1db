// Arbitrary text as an IP address, a local path and a MAC address. Parsing must not
// crash; what parses must print to a text that parses back to the same value.
#include <ksutils/connectutl.h>

#include <cstdint>
#include <string>

using ks::sockutl::address;
using ks::sockutl::macaddr;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ks::string_view text(reinterpret_cast<const char*>(data), size);
    address a;
    if (address::parse_addr(text, a)) {
        const std::string printed = a.to_string(false);
        if (a.is_v4_or_v6()) {
            const address back{ks::string_view(printed)};
            if (back != a) __builtin_trap();
            a.to_prefix(), a.is_netmask(), a.is_link_local(), a.hash(true);
            (void)a.to_subnet(static_cast<unsigned char>(size));
        }
    }
    macaddr m;
    if (macaddr::parse_str(text, m)) {
        macaddr back;
        if (!macaddr::parse_str(ks::string_view(m.to_string(true)), back) || back != m) __builtin_trap();
    }
    return 0;
}
