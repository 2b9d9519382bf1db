// Encoding and decoding of the settings protocol's records and the one key grammar; see
// protocol.h. Every decoder compares each announced length with the bytes it was given
// before it touches them.
#include "kssetter/kssetmgmt/protocol.h"

#include <ksutils/error.h>

namespace ks {
namespace setter {

namespace {

constexpr char kDelimiter = '/';
// The record separators of the settings file; the NUL makes this six characters long.
constexpr ks::string_view kReserved("\t\r\n|=\0", 6);
constexpr size_t kTypeSize = sizeof(uint32_t);

const char* chars(const unsigned char* p) { return reinterpret_cast<const char*>(p); }

void appendRaw(std::string& out, const void* data, size_t size) { out.append(static_cast<const char*>(data), size); }

}  // namespace

// ---- keys ------------------------------------------------------------------------------

bool hasReservedCharacter(ks::string_view key) noexcept { return key.find_first_of(kReserved) != ks::string_view::npos; }

KeyFault keyFault(ks::string_view key) noexcept {
    if (key.empty() || key[0] != kDelimiter) return KeyFault::noLeadingDelimiter;
    if (key.size() > 1) {
        if (key.back() == kDelimiter) return KeyFault::trailingDelimiter;
        if (key.find("//") != ks::string_view::npos) return KeyFault::emptyComponent;
    }
    return hasReservedCharacter(key) ? KeyFault::reservedCharacter : KeyFault::none;
}

ks::string_view parentKey(ks::string_view key) noexcept {
    const size_t slash = key.rfind(kDelimiter);
    if (slash == 0 || slash == ks::string_view::npos) return ks::string_view("/", 1);
    return key.substr(0, slash);
}

// ---- requests --------------------------------------------------------------------------

bool carriesLockByte(uint32_t command) noexcept {
    switch (command) {
        case CMD_SET:
        case CMD_GET:
        case CMD_DELETE:
        case CMD_STAT:
        case CMD_ENUM:
        case CMD_UNLOCK: return true;
        default: return false;
    }
}

bool carriesKey(uint32_t command) noexcept {
    return isKnownCommand(command) && command != CMD_NOTIFY_END && command != CMD_DEBUG_INFO;
}

void encodeKeyBody(unsigned char* out, ks::string_view key, bool withLockByte, bool lockHeld) noexcept {
    if (withLockByte) *out++ = lockHeld ? 1 : 0;
    if (!key.empty()) std::memcpy(out, key.data(), key.size());
}

uint64_t bodySize(const Request& r) noexcept {
    if (r.command == CMD_SET) return 1 + r.key.size() + 1 + kTypeSize + r.value.size();
    if (!carriesKey(r.command)) return 0;
    return keyBodySize(r.key, carriesLockByte(r.command));
}

void encodeRequest(const Request& r, unsigned char* out) noexcept {
    const uint64_t length = bodySize(r);
    encodeHeader(out, r.command, length);
    unsigned char* body = out + kHeaderSize;
    if (r.command != CMD_SET) {
        if (carriesKey(r.command)) encodeKeyBody(body, r.key, carriesLockByte(r.command), r.lockHeld);
        return;
    }
    encodeKeyBody(body, r.key, true, r.lockHeld);
    body += 1 + r.key.size();
    *body++ = 0;
    const uint32_t type = r.type;
    std::memcpy(body, &type, kTypeSize);
    if (!r.value.empty()) std::memcpy(body + kTypeSize, r.value.data(), r.value.size());
}

std::string encodeRequest(const Request& r) {
    std::string out(kHeaderSize + bodySize(r), '\0');
    encodeRequest(r, reinterpret_cast<unsigned char*>(&out[0]));
    return out;
}

Decoded decodeFrame(const unsigned char* data, size_t size, FrameHeader& header, size_t& frameSize) noexcept {
    if (size < kHeaderSize) return Decoded::incomplete;
    std::memcpy(&header.command, data, 4);
    std::memcpy(&header.bodyLength, data + 4, 8);
    if (!isKnownCommand(header.command) || header.bodyLength > kMaxBodyLength) return Decoded::bad;
    if (size - kHeaderSize < header.bodyLength) return Decoded::incomplete;
    frameSize = kHeaderSize + static_cast<size_t>(header.bodyLength);
    return Decoded::ok;
}

bool decodeRequest(uint32_t command, const unsigned char* body, uint64_t length, Request& out) noexcept {
    if (!isKnownCommand(command)) return false;
    out = Request{};
    out.command = static_cast<CmdType>(command);
    if (!carriesKey(command)) return true;  // whatever body they have is ignored
    if (carriesLockByte(command)) {
        if (length < 1 || body[0] > 1) return false;
        out.lockHeld = body[0] == 1;
        ++body;
        --length;
    }
    if (command != CMD_SET) {
        out.key = ks::string_view(chars(body), static_cast<size_t>(length));
        return true;
    }
    const auto* nul = static_cast<const unsigned char*>(std::memchr(body, '\0', static_cast<size_t>(length)));
    if (!nul) return false;
    out.key = ks::string_view(chars(body), static_cast<size_t>(nul - body));
    const uint64_t rest = length - out.key.size() - 1;
    if (rest < kTypeSize) return false;
    uint32_t type;
    std::memcpy(&type, nul + 1, kTypeSize);
    const uint64_t valueSize = rest - kTypeSize;
    if (type > storage::None || (type == storage::None && valueSize != 0)) return false;
    out.type = static_cast<storage::ValueType>(type);
    out.value = ks::string_view(chars(nul + 1 + kTypeSize), static_cast<size_t>(valueSize));
    return true;
}

// ---- replies ---------------------------------------------------------------------------

uint64_t replyPayloadSize(uint32_t command, int64_t result) noexcept {
    if (result < 0) return 0;
    switch (command) {
        case CMD_GET:
        case CMD_ENUM: return static_cast<uint64_t>(result);
        case CMD_STAT: return sizeof(storage::NodeInfo);
        case CMD_DEBUG_INFO: return sizeof(storage::DebugInfo);
        default: return 0;
    }
}

void appendResult(std::string& out, int64_t result) { appendRaw(out, &result, sizeof result); }

unsigned char* appendValueReply(std::string& out, size_t size) {
    appendResult(out, static_cast<int64_t>(size));
    const size_t at = out.size();
    out.resize(at + size);
    return reinterpret_cast<unsigned char*>(&out[at]);
}

void appendNodeInfoReply(std::string& out, const storage::NodeInfo& info) {
    appendResult(out, 0);
    appendRaw(out, &info, sizeof info);
}

void appendNamesReply(std::string& out, const std::vector<std::string>& names) {
    int64_t total = 0;
    for (const std::string& name : names) total += static_cast<int64_t>(name.size() + 1);
    appendResult(out, total);
    for (const std::string& name : names) out.append(name.c_str(), name.size() + 1);
}

void appendDebugInfoReply(std::string& out, const storage::DebugInfo& info) {
    appendResult(out, 0);
    appendRaw(out, &info, sizeof info);
}

Decoded decodeReply(uint32_t command, const unsigned char* data, size_t size, Reply& out, size_t& consumed) noexcept {
    if (command == CMD_NOTIFY_END || !isKnownCommand(command)) return Decoded::bad;
    if (size < kResultSize) return Decoded::incomplete;
    std::memcpy(&out.result, data, kResultSize);
    const uint64_t payload = replyPayloadSize(command, out.result);
    if (payload > kMaxBodyLength) return Decoded::bad;
    if (size - kResultSize < payload) return Decoded::incomplete;
    out.payload = ks::string_view(chars(data + kResultSize), static_cast<size_t>(payload));
    consumed = kResultSize + static_cast<size_t>(payload);
    return Decoded::ok;
}

void decodeNames(ks::string_view payload, std::vector<std::string>& names, int& empty) {
    empty = 0;
    size_t at = 0;
    while (at < payload.size()) {
        size_t nul = payload.find('\0', at);
        if (nul == ks::string_view::npos) nul = payload.size();
        if (nul == at)
            ++empty;
        else
            names.emplace_back(payload.data() + at, nul - at);
        at = nul + 1;
    }
}

bool decodeNodeInfo(ks::string_view payload, storage::NodeInfo& info) noexcept {
    if (payload.size() != sizeof info) return false;
    storage::NodeInfo decoded;
    std::memcpy(&decoded, payload.data(), sizeof decoded);
    if (decoded.type > storage::None) return false;
    info = decoded;
    return true;
}

bool decodeDebugInfo(ks::string_view payload, storage::DebugInfo& info) noexcept {
    if (payload.size() != sizeof info) return false;
    std::memcpy(&info, payload.data(), sizeof info);
    return true;
}

// ---- one request over a client connection ----------------------------------------------

bool checkClientKey(ks::string_view key) {
    switch (keyFault(key)) {
        case KeyFault::noLeadingDelimiter:
            _get_kserrno().set(E_INVAL, "Invalid key format (key must start with {:c})", kDelimiter);
            return false;
        case KeyFault::trailingDelimiter:
            _get_kserrno().set(E_INVAL, "Invalid key format (key must not end with {:c})", kDelimiter);
            return false;
        case KeyFault::emptyComponent:
            _get_kserrno().set(E_INVAL, "Invalid key format (no consecutive '{:c}' allowed)", kDelimiter);
            return false;
        case KeyFault::reservedCharacter:
        case KeyFault::none: return true;
    }
    return true;
}

int64_t sendFrame(setMgmt::Connection& c, Request r) {
    r.lockHeld = c.lockHeld;
    const uint64_t body = bodySize(r);
    if (c.setCmdIntro(r.command, body) < 0) return -1;  // grows the buffer to the frame
    encodeRequest(r, c.buffer.get());
    return c.send(static_cast<unsigned long>(kHeaderSize + body), true) < 0 ? -1 : 0;
}

int64_t sendRequest(setMgmt::Connection& c, Request r) {
    if (sendFrame(c, r) < 0) return -1;
    int64_t result = 0;
    if (c.recv(reinterpret_cast<unsigned char*>(&result), sizeof result, true, true) < 0) return -1;
    if (result < 0) {
        setMgmt::Connection::setErrno(result);
        return -1;
    }
    return result;
}

namespace {

// The rest of the reply is still in the socket: the next request starts on a fresh one.
int64_t failParse(setMgmt::Connection& c) {
    c.reset();
    _get_kserrno().set(E_FAULT, "Failed to parse data");
    return -1;
}

}  // namespace

int64_t receiveReply(setMgmt::Connection& c, uint32_t command, Reply& reply) {
    if (c.capacity < kResultSize && !c.resizeBuffer(kResultSize)) {
        c.reset();
        return -1;
    }
    // One request is in flight, so whatever arrives belongs to its reply: take all there is.
    const int64_t got = c.recvAtLeast(c.buffer.get(), kResultSize, c.capacity, true);
    if (got < 0) return -1;
    int64_t result;
    std::memcpy(&result, c.buffer.get(), sizeof result);
    const uint64_t payload = replyPayloadSize(command, result);
    const uint64_t total = kResultSize + payload;
    if (payload > kMaxBodyLength || static_cast<uint64_t>(got) > total) return failParse(c);
    if (result < 0) {
        setMgmt::Connection::setErrno(result);
        return -1;
    }
    if (total > c.capacity) {
        const std::string head(reinterpret_cast<const char*>(c.buffer.get()), static_cast<size_t>(got));
        if (!c.resizeBuffer(total)) {
            c.reset();
            return -1;
        }
        std::memcpy(c.buffer.get(), head.data(), head.size());
    }
    if (static_cast<uint64_t>(got) < total &&
        c.recv(c.buffer.get() + got, static_cast<unsigned long>(total - got), true, true) < 0)
        return -1;
    size_t consumed = 0;
    if (decodeReply(command, c.buffer.get(), total, reply, consumed) != Decoded::ok) return failParse(c);
    return result;
}

// ---- notifications ---------------------------------------------------------------------

void appendNotification(std::string& out, bool reportKeys, ks::string_view changedKey) {
    if (!reportKeys) {
        out.push_back('\1');
        return;
    }
    const uint64_t length = changedKey.size();
    appendRaw(out, &length, sizeof length);
    out.append(changedKey.data(), changedKey.size());
}

bool decodeKeyRecordLength(const unsigned char* prefix, uint64_t& length) noexcept {
    std::memcpy(&length, prefix, kKeyRecordPrefix);
    return length <= kMaxBodyLength;
}

Decoded decodeKeyNotification(const unsigned char* data, size_t size, ks::string_view& key, size_t& consumed) noexcept {
    if (size < kKeyRecordPrefix) return Decoded::incomplete;
    uint64_t length;
    if (!decodeKeyRecordLength(data, length)) return Decoded::bad;
    if (size - kKeyRecordPrefix < length) return Decoded::incomplete;
    key = ks::string_view(chars(data + kKeyRecordPrefix), static_cast<size_t>(length));
    consumed = kKeyRecordPrefix + static_cast<size_t>(length);
    return Decoded::ok;
}

}  // namespace setter
}  // namespace ks
