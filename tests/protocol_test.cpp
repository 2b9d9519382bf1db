// The settings protocol's decoders refuse short or malformed input without reading past it
// (the ASan build checks the "without reading past it"), and the key grammar. Well-formed
// records travel between the client and the server in kssetmgmt_test, and the client's
// request bytes are compared there with the documented layout.
#include "kssetter/kssetmgmt/protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace ks::setter;
using namespace std::string_literals;

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

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
    };
    for (const auto& b : bodies) {
        Request r;
        EXPECT_FALSE(decodeRequest(b.command, bytes(b.body), b.body.size(), r)) << b.command << " " << b.body.size();
    }
    Request r;
    EXPECT_TRUE(decodeRequest(CMD_SET, bytes("\0/a\0"s + type(string)), 8, r));

    Reply reply;
    EXPECT_EQ(Decoded::incomplete, decodeReply(CMD_GET, bytes(hugeLength), 7, reply, size));
    EXPECT_EQ(Decoded::incomplete, decodeReply(CMD_STAT, bytes(std::string(8, '\0')), 8, reply, size));
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
        // The other faults, with the client's message for each, are in kssetmgmt_test.
        {"a/b", KeyFault::noLeadingDelimiter},
        {"/a|b", KeyFault::reservedCharacter},
        {"/a\0b"s, KeyFault::reservedCharacter},
    };
    for (const auto& c : cases) EXPECT_EQ(c.fault, keyFault(c.key)) << c.key;
    EXPECT_EQ("/", parentKey("/a"));
    EXPECT_EQ("/a/b", parentKey("/a/b/c"));
}

}  // namespace
