// Base64 and hexadecimal decoding of arbitrary text must not crash, and what is encoded
// must decode to the same bytes.
#include <ksutils/buffer.h>
#include <ksutils/crypto.h>
#include <ksutils/miscutl.h>

#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::string decoded, encoded, back;
    ks::base64_decode(input, decoded);
    if (ks::base64_encode(input, encoded) && (!ks::base64_decode(encoded, back) || back != input)) __builtin_trap();

    ks::buffer bytes, round;
    ks::hex_decode(ks::string_view(input), bytes);
    if (!ks::hex_decode(ks::string_view(ks::hex_encode(input)), round) || round.as_text() != input) __builtin_trap();
    return 0;
}
