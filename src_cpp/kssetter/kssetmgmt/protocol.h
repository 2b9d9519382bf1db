// The settings socket protocol as both ends see it: where the socket lives, the result
// codes, the limits the server enforces, the one grammar of a settings key, and the typed
// encoding and decoding of every request, reply and notification record.
//
// Frames are a 12-byte header (32-bit command, 64-bit body length, host byte order, no
// padding) and a body; every reply but the one to CMD_NOTIFY_END starts with a signed
// 64-bit result. The client connection and the settings server both go through this module,
// so the two ends cannot drift apart. Decoders take any bytes: they check every length
// against what they were given and answer `incomplete` or `bad` rather than read past it.
// The functions are exported because the server and the fuzz targets live outside the
// shared library; the header itself is private to the library's tree.
#pragma once

#include <ksexport.h>
#include <kssetter/ksconnection.h>
#include <kssetter/ksstorage.h>
#include <ksutils/string_view.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

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
// A persistent change the server could not make durable (a full or failing disk) is refused
// with kResultSystemError minus the errno that refused it; the client reports E_SYSTEM with
// that errno's text. The store is as if the request had never come.
constexpr int64_t kResultSystemError = -1000;
constexpr int kMaxReportedErrno = 4095;

// Largest body the server accepts. A longer announced body is taken for garbage: the
// server closes that connection without reading the body. The client refuses to frame one
// (E_INVAL), so a too large value costs neither the connection nor a held lock.
constexpr uint64_t kMaxBodyLength = 16u << 20;

// Output the server queues for one connection (notifications a subscriber does not read,
// replies a client does not collect) before it gives up on that connection.
constexpr size_t kMaxPendingOutput = 4u << 20;

// ---- keys ------------------------------------------------------------------------------

// What is wrong with a key, checked in this order. The client refuses the shape faults
// before any I/O and leaves the characters to the server; the store needs only a leading
// delimiter and the characters its file format reserves.
enum class KeyFault {
    none,
    noLeadingDelimiter,  // empty, or not starting with "/"
    trailingDelimiter,   // "/a/"
    emptyComponent,      // "/a//b"
    reservedCharacter,   // tab, CR, LF, "|", "=", NUL: the settings file's separators
};
KS_EXPORT KeyFault keyFault(ks::string_view key) noexcept;
KS_EXPORT bool hasReservedCharacter(ks::string_view key) noexcept;
inline bool isValidKey(ks::string_view key) noexcept { return keyFault(key) == KeyFault::none; }
// "/" for "/" and for a top-level key, else the key up to its last delimiter.
KS_EXPORT ks::string_view parentKey(ks::string_view key) noexcept;

// ---- requests --------------------------------------------------------------------------

struct FrameHeader {
    uint32_t command;
    uint64_t bodyLength;
};

// One request of any kind. Which fields travel depends on the command: the lock byte goes
// with SET, GET, DELETE, STAT, ENUM and UNLOCK; the key with all but NOTIFY_END and
// DEBUG_INFO; type and value with SET only.
struct Request {
    CmdType command = CMD_GET;
    bool lockHeld = false;
    ks::string_view key;
    storage::ValueType type = storage::None;
    ks::string_view value;
};

// A request of `command` about `key`; a SET also needs its type and value filled in.
inline Request makeRequest(CmdType command, ks::string_view key = {}) {
    Request r;
    r.command = command;
    r.key = key;
    return r;
}

KS_EXPORT bool carriesLockByte(uint32_t command) noexcept;
KS_EXPORT bool carriesKey(uint32_t command) noexcept;
inline bool isKnownCommand(uint32_t command) { return command >= CMD_SET && command <= CMD_UNLOCK; }

inline void encodeHeader(unsigned char* out, uint32_t command, uint64_t bodyLength) {
    std::memcpy(out, &command, 4);
    std::memcpy(out + 4, &bodyLength, 8);
}

// Body of a key request: [lock byte] key, without NUL.
inline uint64_t keyBodySize(ks::string_view key, bool withLockByte) { return key.size() + (withLockByte ? 1 : 0); }
KS_EXPORT void encodeKeyBody(unsigned char* out, ks::string_view key, bool withLockByte, bool lockHeld) noexcept;

// The body length of `r`, and `r` framed (header and body) into `out`, which holds at least
// kHeaderSize + bodySize(r) bytes.
KS_EXPORT uint64_t bodySize(const Request& r) noexcept;
KS_EXPORT void encodeRequest(const Request& r, unsigned char* out) noexcept;
KS_EXPORT std::string encodeRequest(const Request& r);

enum class Decoded { ok, incomplete, bad };

// The frame at the start of `data`: `incomplete` until header and body are all there,
// `bad` for an unknown command or a body above kMaxBodyLength (known from the header
// alone). On `ok`, `frameSize` is header plus body.
KS_EXPORT Decoded decodeFrame(const unsigned char* data, size_t size, FrameHeader& header, size_t& frameSize) noexcept;
// The typed request of a whole frame's body; false when the body does not parse (answered
// with kResultParseError). Views point into `body`.
KS_EXPORT bool decodeRequest(uint32_t command, const unsigned char* body, uint64_t length, Request& out) noexcept;

// ---- replies ---------------------------------------------------------------------------

// How many bytes follow a reply's result for `command`.
KS_EXPORT uint64_t replyPayloadSize(uint32_t command, int64_t result) noexcept;

struct Reply {
    int64_t result = 0;
    ks::string_view payload;  // GET: the value; ENUM: the names; STAT, DEBUG_INFO: the record
};

KS_EXPORT void appendResult(std::string& out, int64_t result);
// Result plus payload, as the server sends them.
// The value reply is appended with room for `size` value bytes, which the caller fills in
// place through the returned pointer (no copy of the value on the way out).
KS_EXPORT unsigned char* appendValueReply(std::string& out, size_t size);
KS_EXPORT void appendNodeInfoReply(std::string& out, const storage::NodeInfo& info);
KS_EXPORT void appendNamesReply(std::string& out, const std::vector<std::string>& names);
KS_EXPORT void appendDebugInfoReply(std::string& out, const storage::DebugInfo& info);

// The reply to `command` at the start of `data`; `consumed` is its size on `ok`. A reply
// whose result announces more than kMaxBodyLength bytes is `bad`.
KS_EXPORT Decoded decodeReply(uint32_t command, const unsigned char* data, size_t size, Reply& out,
                              size_t& consumed) noexcept;
// ENUM payload: NUL-ended names (a last name without NUL is kept). Empty names are
// skipped and counted in `empty`.
KS_EXPORT void decodeNames(ks::string_view payload, std::vector<std::string>& names, int& empty);
KS_EXPORT bool decodeNodeInfo(ks::string_view payload, storage::NodeInfo& info) noexcept;
KS_EXPORT bool decodeDebugInfo(ks::string_view payload, storage::DebugInfo& info) noexcept;

// ---- one request over a client connection ----------------------------------------------

// The client's check of a key's shape, done before any I/O: false with E_INVAL and the
// fault in the error record. Characters are left to the server ("Invalid operation").
KS_EXPORT bool checkClientKey(ks::string_view key);

// Frames `r` into the buffer of `c` (connected) with the connection's own lock byte and
// sends it: 0, or -1 with the error record set as the connection reports it.
KS_EXPORT int64_t sendFrame(setMgmt::Connection& c, Request r);
// Frames `r` into the buffer of `c` (connected) with the connection's own lock byte, sends
// it and reads the 8-byte result and nothing more (a subscription's stream follows it). Answers the result, or -1 with the error record set: an
// I/O failure as the connection reports it, a negative result mapped by setErrno. For
// callers that receive a reply's payload themselves.
KS_EXPORT int64_t sendRequest(setMgmt::Connection& c, Request r);
// The whole reply to `command` on a connection that carries nothing but replies to its own
// requests: result and payload come with one recv when they have arrived together, into the
// buffer of `c`, and `reply.payload` points there until the next request on `c`. Answers the
// result, or -1 with the error record set (a negative result mapped by setErrno). A reply
// that does not decode, or bytes beyond it, close `c` ("Failed to parse data"): the stream
// is out of step.
KS_EXPORT int64_t receiveReply(setMgmt::Connection& c, uint32_t command, Reply& reply);

// ---- notifications ---------------------------------------------------------------------

// A plain subscriber gets one byte per change; a CMD_NOTIFY_KEYS subscriber the changed key
// with its 64-bit length in front.
constexpr size_t kKeyRecordPrefix = 8;
KS_EXPORT void appendNotification(std::string& out, bool reportKeys, ks::string_view changedKey);
// A key record at the start of `data`; `bad` when its length exceeds kMaxBodyLength.
KS_EXPORT Decoded decodeKeyNotification(const unsigned char* data, size_t size, ks::string_view& key,
                                        size_t& consumed) noexcept;
// The announced length of a key record from its 8-byte prefix; false when too long.
KS_EXPORT bool decodeKeyRecordLength(const unsigned char* prefix, uint64_t& length) noexcept;

}  // namespace setter
}  // namespace ks
