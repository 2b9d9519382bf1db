// The settings protocol: every request, reply and notification survives encode + decode
// with each field intact, and the decoders refuse short or malformed input without reading
// past it (the ASan build checks the "without reading past it").
#include "kssetter/kssetmgmt/protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace ks::setter;
using namespace std::string_literals;

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

TEST(Protocol, EveryRequestRoundTrips) {
    const std::string binary = "\0\1\xff"s;
    const Request requests[] = {
        {CMD_SET, true, "/a/b", ks::storage::String, "text\nwith lines"},
        {CMD_SET, false, "/bin", ks::storage::Binary, binary},
        {CMD_SET, false, "/none", ks::storage::None, ""},
        {CMD_GET, true, "/a", ks::storage::None, ""},
        {CMD_DELETE, false, "/a", ks::storage::None, ""},
        {CMD_STAT, false, "/", ks::storage::None, ""},
        {CMD_ENUM, true, "/x/y", ks::storage::None, ""},
        {CMD_NOTIFY, false, "/n", ks::storage::None, ""},
        {CMD_NOTIFY_KEYS, false, "/n", ks::storage::None, ""},
        {CMD_NOTIFY_END, false, "", ks::storage::None, ""},
        {CMD_DEBUG_INFO, false, "", ks::storage::None, ""},
        {CMD_LOCK, false, "/l", ks::storage::None, ""},
        {CMD_UNLOCK, true, "/l", ks::storage::None, ""},
    };
    for (const Request& sent : requests) {
        SCOPED_TRACE(sent.command);
        const std::string wire = encodeRequest(sent);
        FrameHeader header{};
        size_t frameSize = 0;
        ASSERT_EQ(Decoded::ok, decodeFrame(bytes(wire), wire.size(), header, frameSize));
        EXPECT_EQ(wire.size(), frameSize);
        EXPECT_EQ(uint32_t(sent.command), header.command);
        Request got;
        ASSERT_TRUE(decodeRequest(header.command, bytes(wire) + kHeaderSize, header.bodyLength, got));
        EXPECT_EQ(sent.key, got.key);
        EXPECT_EQ(sent.lockHeld && carriesLockByte(sent.command), got.lockHeld);
        EXPECT_EQ(sent.type, got.type);
        EXPECT_EQ(sent.value, got.value);
        // Every prefix of a frame is incomplete, never bad or ok.
        for (size_t n = 0; n < wire.size(); ++n)
            EXPECT_EQ(Decoded::incomplete, decodeFrame(bytes(wire), n, header, frameSize)) << n;
    }
    // The documented SET body: key length + value length + 6.
    EXPECT_EQ(4u + 3u + 6u, encodeRequest({CMD_SET, false, "/bin", ks::storage::Binary, binary}).size() - kHeaderSize);
}

TEST(Protocol, EveryReplyRoundTrips) {
    ks::storage::NodeInfo info;
    info.type = ks::storage::Binary;
    info.size = 77;
    ks::storage::DebugInfo debug;
    debug.memoryCount = 1234;
    debug.connections = 3;
    std::string value, stat, listing, debugReply, error;
    std::memcpy(appendValueReply(value, 3), "v\0w", 3);
    appendNodeInfoReply(stat, info);
    appendNamesReply(listing, {"alpha", "b"});
    appendDebugInfoReply(debugReply, debug);
    appendResult(error, kResultKeyNotFound);
    // The payload as its decoder reads it.
    const auto decoded = [](CmdType command, ks::string_view payload) -> std::string {
        ks::storage::NodeInfo i;
        ks::storage::DebugInfo d;
        std::vector<std::string> names;
        int empty = -1;
        switch (command) {
            case CMD_STAT: return decodeNodeInfo(payload, i) ? std::to_string(i.type) + " " + std::to_string(i.size) : "?";
            case CMD_ENUM:
                decodeNames(payload, names, empty);
                return ::testing::PrintToString(names) + " " + std::to_string(empty);
            case CMD_DEBUG_INFO:
                return decodeDebugInfo(payload, d) ? std::to_string(d.memoryCount) + " " + std::to_string(d.connections) : "?";
            default: return std::string(payload);
        }
    };
    const struct {
        CmdType command;
        std::string wire;
        int64_t result;
        std::string payload;
    } cases[] = {{CMD_GET, value, 3, "v\0w"s},  {CMD_STAT, stat, 0, "1 77"}, {CMD_ENUM, listing, 8, "{ \"alpha\", \"b\" } 0"},
                 {CMD_DEBUG_INFO, debugReply, 0, "1234 3"}, {CMD_GET, error, -1, ""}, {CMD_STAT, error, -1, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        Reply reply;
        size_t consumed = 0;
        ASSERT_EQ(Decoded::ok, decodeReply(c.command, bytes(c.wire), c.wire.size(), reply, consumed));
        EXPECT_EQ(c.wire.size(), consumed);
        EXPECT_EQ(c.result, reply.result);
        EXPECT_EQ(c.payload, c.result < 0 ? std::string(reply.payload) : decoded(c.command, reply.payload));
        for (size_t n = 0; n < c.wire.size(); ++n)
            EXPECT_EQ(Decoded::incomplete, decodeReply(c.command, bytes(c.wire), n, reply, consumed)) << n;
    }
}

TEST(Protocol, NotificationsRoundTrip) {
    std::string plain, keyed;
    appendNotification(plain, false, "/ignored");
    EXPECT_EQ("\1", plain);
    appendNotification(keyed, true, "/a/b");
    appendNotification(keyed, true, "");
    ks::string_view key;
    size_t consumed = 0;
    ASSERT_EQ(Decoded::ok, decodeKeyNotification(bytes(keyed), keyed.size(), key, consumed));
    EXPECT_EQ("/a/b", key);
    const size_t first = consumed;
    ASSERT_EQ(Decoded::ok, decodeKeyNotification(bytes(keyed) + first, keyed.size() - first, key, consumed));
    EXPECT_EQ("", key);
    EXPECT_EQ(keyed.size(), first + consumed);
    EXPECT_EQ(Decoded::incomplete, decodeKeyNotification(bytes(keyed), first - 1, key, consumed));
}

TEST(Protocol, MalformedInputIsRefused) {
    const uint64_t huge = kMaxBodyLength + 1;
    const std::string hugeLength(reinterpret_cast<const char*>(&huge), 8);
    const auto header = [](uint32_t command, uint64_t length) {
        return std::string(reinterpret_cast<const char*>(&command), 4) +
               std::string(reinterpret_cast<const char*>(&length), 8);
    };
    FrameHeader h{};
    size_t size = 0;
    EXPECT_EQ(Decoded::bad, decodeFrame(bytes(header(0, 0)), 12, h, size));
    EXPECT_EQ(Decoded::bad, decodeFrame(bytes(header(12, 0)), 12, h, size));
    EXPECT_EQ(Decoded::bad, decodeFrame(bytes(header(CMD_GET, huge)), 12, h, size));

    const uint32_t string = ks::storage::String, none = ks::storage::None, unknown = 3;
    const auto type = [](uint32_t t) { return std::string(reinterpret_cast<const char*>(&t), 4); };
    const struct {
        CmdType command;
        std::string body;
    } bodies[] = {
        {CMD_GET, ""},                                // no lock byte
        {CMD_GET, "\2/a"},                            // lock byte neither 0 nor 1
        {CMD_SET, "\0/a"s},                           // no NUL after the key
        {CMD_SET, "\0/a\0\0\0"s},                     // type cut short
        {CMD_SET, "\0/a\0"s + type(unknown)},         // unknown type
        {CMD_SET, "\0/a\0"s + type(none) + "x"},      // a value for no value
        {CMD_UNLOCK, ""},
    };
    for (const auto& b : bodies) {
        Request r;
        EXPECT_FALSE(decodeRequest(b.command, bytes(b.body), b.body.size(), r)) << b.command << " " << b.body.size();
    }
    Request r;
    EXPECT_TRUE(decodeRequest(CMD_SET, bytes("\0/a\0"s + type(string)), 8, r));

    Reply reply;
    EXPECT_EQ(Decoded::bad, decodeReply(CMD_GET, bytes(hugeLength), 8, reply, size));
    EXPECT_EQ(Decoded::bad, decodeReply(CMD_NOTIFY_END, bytes(hugeLength), 8, reply, size));
    ks::string_view key;
    EXPECT_EQ(Decoded::bad, decodeKeyNotification(bytes(hugeLength), 8, key, size));
    ks::storage::NodeInfo info;
    EXPECT_FALSE(decodeNodeInfo("short", info));
    EXPECT_FALSE(decodeNodeInfo(type(unknown) + std::string(8, '\0'), info));
    std::vector<std::string> names;
    int empty = 0;
    decodeNames("\0a\0\0b"s, names, empty);  // empty names skipped, an unterminated last name kept
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), names);
    EXPECT_EQ(2, empty);
}

TEST(Protocol, KeyGrammar) {
    const struct {
        std::string key;
        KeyFault fault;
    } cases[] = {
        {"/", KeyFault::none},
        {"/a/b", KeyFault::none},
        {"", KeyFault::noLeadingDelimiter},
        {"a/b", KeyFault::noLeadingDelimiter},
        {"/a/", KeyFault::trailingDelimiter},
        {"/a//b", KeyFault::emptyComponent},
        {"/a=b", KeyFault::reservedCharacter},
        {"/a|b", KeyFault::reservedCharacter},
        {"/a\nb", KeyFault::reservedCharacter},
        {"/a\0b"s, KeyFault::reservedCharacter},
    };
    for (const auto& c : cases) EXPECT_EQ(c.fault, keyFault(c.key)) << c.key;
    EXPECT_EQ("/", parentKey("/a"));
    EXPECT_EQ("/a/b", parentKey("/a/b/c"));
}

}  // namespace
