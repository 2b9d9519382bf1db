// The settings socket protocol as both ends see it: where the socket lives, the result
// codes the server answers with, and the limits the server enforces on its clients.
//
// Frames are a 12-byte header (32-bit command, 64-bit body length, host byte order, no
// padding) and a body; every reply but the one to CMD_NOTIFY_END starts with a signed
// 64-bit result. The command numbers themselves are public (ks::setter::CmdType).
#pragma once

#include <kssetter/ksconnection.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ks {
namespace setter {

constexpr const char* kSocketName = "kssetmgmt.skt";
constexpr const char* kStorageFileName = "storage.data";

constexpr size_t kHeaderSize = 12;
constexpr size_t kResultSize = 8;

// Negative results; anything else negative is passed through without a message.
constexpr int64_t kResultKeyNotFound = -1;
constexpr int64_t kResultOutOfMemory = -2;
constexpr int64_t kResultParseError = -3;
constexpr int64_t kResultInvalidOperation = -5;
constexpr int64_t kResultLockLost = -6;

// Largest body the server accepts. A longer announced body is taken for garbage: the
// server closes that connection without reading the body.
constexpr uint64_t kMaxBodyLength = 16u << 20;

// Output the server queues for one connection (notifications a subscriber does not read,
// replies a client does not collect) before it gives up on that connection.
constexpr size_t kMaxPendingOutput = 4u << 20;

struct FrameHeader {
    uint32_t command;
    uint64_t bodyLength;
};

inline void encodeHeader(unsigned char* out, uint32_t command, uint64_t bodyLength) {
    std::memcpy(out, &command, 4);
    std::memcpy(out + 4, &bodyLength, 8);
}

inline FrameHeader decodeHeader(const unsigned char* in) {
    FrameHeader h;
    std::memcpy(&h.command, in, 4);
    std::memcpy(&h.bodyLength, in + 4, 8);
    return h;
}

inline bool isKnownCommand(uint32_t command) { return command >= CMD_SET && command <= CMD_UNLOCK; }

}  // namespace setter
}  // namespace ks
