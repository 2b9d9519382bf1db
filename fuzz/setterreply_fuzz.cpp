// Feeds arbitrary bytes to the settings client's reply and notification decoders: the first
// byte picks the command whose reply the rest is taken for. Decoding must stay within the
// input; a reply that decodes re-encodes to the same bytes where the server's encoders can
// produce it.
#include "kssetter/kssetmgmt/protocol.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace ks::setter;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint32_t command = data[0] % 12;
    ++data;
    --size;
    Reply reply;
    size_t consumed = 0;
    if (decodeReply(command, data, size, reply, consumed) == Decoded::ok) {
        if (consumed > size || reply.payload.size() + kResultSize != consumed) std::abort();
        std::vector<std::string> names;
        int empty = 0;
        ks::storage::NodeInfo info;
        ks::storage::DebugInfo debug;
        std::string again;
        switch (command) {
            case CMD_ENUM: decodeNames(reply.payload, names, empty); break;
            case CMD_STAT:
                if (reply.result >= 0 && decodeNodeInfo(reply.payload, info) && reply.result == 0) {
                    appendNodeInfoReply(again, info);
                    if (again != std::string(reinterpret_cast<const char*>(data), consumed)) std::abort();
                }
                break;
            case CMD_DEBUG_INFO:
                if (reply.result >= 0) decodeDebugInfo(reply.payload, debug);
                break;
            default: break;
        }
    }
    // The same bytes as a stream of key notifications.
    ks::string_view key;
    size_t at = 0;
    while (at < size && decodeKeyNotification(data + at, size - at, key, consumed) == Decoded::ok) {
        if (key.data() + key.size() > reinterpret_cast<const char*>(data + size)) std::abort();
        at += consumed;
    }
    return 0;
}
