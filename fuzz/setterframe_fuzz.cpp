// Feeds arbitrary bytes to the settings server's frame decoder as one connection's input
// stream: frames are cut and their requests decoded exactly as the server does. Nothing
// may be read past the input, and every request that decodes must encode back to the very
// bytes it came from (the client and the server agree on every frame the server accepts).
#include "kssetter/kssetmgmt/protocol.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace ks::setter;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t at = 0;
    while (at < size) {
        FrameHeader header{};
        size_t frameSize = 0;
        if (decodeFrame(data + at, size - at, header, frameSize) != Decoded::ok) break;
        const unsigned char* frame = data + at;
        at += frameSize;
        Request request;
        if (!decodeRequest(header.command, frame + kHeaderSize, header.bodyLength, request)) continue;
        if (!carriesKey(header.command)) continue;  // their bodies are ignored, not echoed
        const std::string again = encodeRequest(request);
        if (again.size() != frameSize || std::memcmp(again.data(), frame, frameSize) != 0) std::abort();
        (void)keyFault(request.key);
    }
    return 0;
}
