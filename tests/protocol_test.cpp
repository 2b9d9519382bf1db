// The decoders refuse short or malformed input without reading past it (the ASan build
// checks that part), and the key grammar. Well-formed records are in kssetmgmt_test.
#include "kssetter/kssetmgmt/protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace ks::setter;
using namespace std::string_literals;

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }
template <class T>
std::string raw(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

TEST(Protocol, MalformedInputIsRefused) {
    const uint64_t huge = kMaxBodyLength + 1;
    const std::string hugeLength = raw(huge);
    FrameHeader h{};
    size_t size = 0;
    const std::pair<uint32_t, uint64_t> headers[] = {{0, 0}, {12, 0}, {CMD_GET, huge}};
    for (const auto& [command, length] : headers)
        EXPECT_EQ(Decoded::bad, decodeFrame(bytes(raw(command) + raw(length)), 12, h, size)) << command;

    const uint32_t string = ks::storage::String, none = ks::storage::None, unknown = 3;
    const std::pair<CmdType, std::string> bodies[] = {
        {CMD_GET, ""},                               // no lock byte
        {CMD_GET, "\2/a"},                           // lock byte neither 0 nor 1
        {CMD_SET, "\0/a"s},                          // no NUL after the key
        {CMD_SET, "\0/a\0\0\0"s},                    // type cut short
        {CMD_SET, "\0/a\0"s + raw(unknown)},         // unknown type
        {CMD_SET, "\0/a\0"s + raw(none) + "x"},      // a value for no value
    };
    Request r;
    for (const auto& [command, body] : bodies)
        EXPECT_FALSE(decodeRequest(command, bytes(body), body.size(), r)) << command << " " << body.size();
    EXPECT_TRUE(decodeRequest(CMD_SET, bytes("\0/a\0"s + raw(string)), 8, r));

    Reply reply;
    EXPECT_EQ(Decoded::incomplete, decodeReply(CMD_GET, bytes(hugeLength), 7, reply, size));
    EXPECT_EQ(Decoded::incomplete, decodeReply(CMD_STAT, bytes(std::string(8, '\0')), 8, reply, size));
    EXPECT_EQ(Decoded::bad, decodeReply(CMD_GET, bytes(hugeLength), 8, reply, size));
    EXPECT_EQ(Decoded::bad, decodeReply(CMD_NOTIFY_END, bytes(hugeLength), 8, reply, size));
    ks::string_view key;
    EXPECT_EQ(Decoded::bad, decodeKeyNotification(bytes(hugeLength), 8, key, size));
    ks::storage::NodeInfo info;
    EXPECT_FALSE(decodeNodeInfo("short", info));
    EXPECT_FALSE(decodeNodeInfo(raw(unknown) + std::string(8, '\0'), info));
    std::vector<std::string> names;
    int empty = 0;
    decodeNames("\0a\0\0b"s, names, empty);  // empty names skipped, an unterminated last name kept
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), names);
    EXPECT_EQ(2, empty);
}

TEST(Protocol, KeyGrammar) {
    const std::pair<std::string, KeyFault> cases[] = {
        {"/", KeyFault::none},
        {"/a/b", KeyFault::none},
        // The other faults, with the client's message for each, are in kssetmgmt_test.
        {"a/b", KeyFault::noLeadingDelimiter},
        {"/a|b", KeyFault::reservedCharacter},
        {"/a\0b"s, KeyFault::reservedCharacter},
    };
    for (const auto& [key, fault] : cases) EXPECT_EQ(fault, keyFault(key)) << key;
    EXPECT_EQ("/", parentKey("/a"));
    EXPECT_EQ("/a/b", parentKey("/a/b/c"));
}

}  // namespace
