// Addresses and the checksum against Python's ipaddress and RFC 1071; MAC texts; loopback sockets.
#include <ksutils/connectutl.h>
#include <ksutils/miscutl.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>

#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "kstest.h"

namespace {

using namespace ks::sockutl;
using Socket = ks::sockutl::socket;

std::string random_v4(std::mt19937& rng) {
    std::string text;
    for (int i = 0; i < 4; ++i) text += (i ? "." : "") + std::to_string(rng() % 256);
    return text;
}

// Groups that are often zero, so compressed forms and long zero runs come up.
std::string random_v6(std::mt19937& rng) {
    std::string text;
    for (int i = 0; i < 8; ++i) {
        const unsigned v = rng() % 5 < 2 ? 0 : (rng() % 3 ? rng() % 0x10000 : 0xfe80 + rng() % 2);
        text += fmt::format("{}{:x}", i ? ":" : "", v);
    }
    return rng() % 2 ? address(ks::string_view(text)).to_string(false) : text;  // compressed or full form
}

TEST(Address, AgreesWithPythonIpaddress) {
    std::mt19937 rng(20261125);
    std::string input, ours;  // the cases in the oracle's line format, and the library's answers
    const auto add = [&](const std::string& line, const std::string& answer) {
        input += line + "\n";
        ours += answer + "\n";
    };
    const auto parsed = [](const std::string& text) {
        address a{ks::string_view(text)};
        if (!a.is_valid()) return std::string("invalid");
        return std::string(a.is_v4() ? "v4 " : "v6 ") + a.to_string(false) + " ll=" + (a.is_link_local() ? "1" : "0");
    };
    for (const char* text : {"", "10.0.0.1", "fe80::1", "fe80:0:0:1::1", "10.0.0.1:80", "[::1]:80", "1.2.3",
                             "256.1.1.1", "01.2.3.4", "::", "::1", "::ffff:1.2.3.4", "::1.2.3.4", "1::2::3", "g::1",
                             "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "0:0:0:0:0:0:0:0:0"})
        add(std::string("P ") + text, parsed(text));
    add("C ", std::to_string(ntohs(inet_cksum(nullptr, 0))));
    for (int i = 0; i < 3000; ++i) {
        const bool v4 = i % 2;
        const std::string text = v4 ? random_v4(rng) : random_v6(rng);
        const unsigned bits = v4 ? 32 : 128;
        const address a{ks::string_view(text)};
        add("P " + text, parsed(text));

        const unsigned prefix = rng() % (bits + 10);
        const address mask(static_cast<unsigned char>(prefix), v4 ? network_proto::ipv4 : network_proto::ipv6);
        add("M " + std::to_string(bits) + " " + std::to_string(prefix), mask.to_string(false));

        // Masks with one bit flipped now and then, so non-masks are tested as well.
        std::string packed(bits / 8, '\0');
        ::inet_pton(v4 ? AF_INET : AF_INET6, mask.to_string(false).c_str(), packed.data());
        if (rng() % 2) packed[rng() % packed.size()] ^= static_cast<char>(1 << rng() % 8);
        char back[INET6_ADDRSTRLEN];
        ::inet_ntop(v4 ? AF_INET : AF_INET6, packed.data(), back, sizeof back);
        const address odd{ks::string_view(back)};
        add(std::string("N ") + back,
            "prefix=" + std::to_string(odd.to_prefix()) + " netmask=" + (odd.is_netmask() ? "1" : "0"));

        // A subnet near the address half the time, a random one otherwise.
        const std::string net = rng() % 2 ? a.to_subnet(static_cast<unsigned char>(rng() % bits)).to_string(false)
                                          : (v4 ? random_v4(rng) : random_v6(rng));
        const unsigned net_prefix = rng() % (bits + 1);
        const address subnet{ks::string_view(net)}, net_mask(static_cast<unsigned char>(net_prefix), a.proto());
        add("S " + text + " " + net + " " + std::to_string(net_prefix),
            std::string("in=") + (a.is_in_subnet(subnet, net_mask) ? "1" : "0") +
                " subnet=" + subnet.to_subnet(static_cast<unsigned char>(net_prefix)).to_string(false));

        // Random bytes, summed whole or fed in two pieces split at an even length.
        std::string bytes(rng() % 1500, '\0');
        for (char& c : bytes) c = static_cast<char>(rng());
        const int size = static_cast<int>(bytes.size()), cut = static_cast<int>(rng() % (bytes.size() / 2 + 1)) * 2;
        const uint16_t sum = v4 ? inet_cksum(bytes.data(), size)
                                : inet_cksum_done(inet_cksum_feed(inet_cksum_feed(0, bytes.data(), cut),
                                                                  bytes.data() + cut, size - cut));
        add("C " + ks::hex_encode(bytes), std::to_string(ntohs(sum)));
    }

    kstest::TempDir dir;
    std::string oracle;
    ASSERT_TRUE(kstest::write_file(dir / "cases", input));
    ASSERT_EQ(0, kstest::run("python3 '" KS_SOURCE_DIR "/tests/support/ipaddress_oracle.py' < '" + (dir / "cases") + "'",
                             &oracle));
    std::istringstream cases(input), answers(ours), theirs(oracle);
    int mismatches = 0;
    for (std::string c, a, b; std::getline(cases, c) && std::getline(answers, a) && std::getline(theirs, b);)
        if (a != b && ++mismatches <= 20) ADD_FAILURE() << c.substr(0, 120) << "\n  ours:   " << a << "\n  python: " << b;
    EXPECT_EQ(0, mismatches);
}

TEST(Address, TextFormsComparisonAndMove) {
    address a(ks::string_view("192.168.1.1"), 53), b(ks::string_view("fe80::1"), 53), local(ks::string_view("/run/x.sock"));
    EXPECT_EQ((std::vector<std::string>{"192.168.1.1:53", "fe80::1.53", "/run/x.sock", "(invalid)"}),
              (std::vector<std::string>{a.to_string(true), b.to_string(true), local.to_string(true),
                                        address().to_string(true)}));
    // Ports are compared before the address; families before anything.
    EXPECT_LT(address(ks::string_view("10.0.0.9"), 1).compare(address(ks::string_view("10.0.0.1"), 2)), 0);
    EXPECT_LT(local.compare(a), 0);
    EXPECT_LT(a.compare(b), 0);
    EXPECT_FALSE(a.is_in_subnet(address(ks::string_view("::")), address(0, network_proto::ipv6)));
    // Neither zones, surrounding blanks nor NULs are part of the grammar (Python accepts zones).
    for (const std::string& text : {std::string("fe80::1%eth0"), std::string("1.2.3.4 "), std::string(" ::1"),
                                   std::string("1.2.3.4\0x", 9), std::string("::1\0", 4)})
        EXPECT_FALSE(address(ks::string_view(text.data(), text.size())).is_valid()) << text;

    address moved(std::move(a));
    EXPECT_EQ("192.168.1.1:53", moved.to_string(true));
    EXPECT_FALSE(a.is_valid());  // NOLINT: moving empties the source
}

TEST(MacAddr, TextForms) {
    const std::pair<const char*, bool> cases[] = {
        {"00:00:00:00:00:00", false}, {"0a:1b:2c:3d:4e", false}, {"0a-1b-2c-3d-4e-5f", false},
        {"0A:1b:2C:3d:4E:5f", true},  {"ff:ff:ff:ff:ff:ff", true}, {"0g:1b:2c:3d:4e:5f", false}};
    for (const auto& [text, valid] : cases) {
        EXPECT_EQ(valid, macaddr::is_valid(ks::string_view(text))) << text;
        macaddr m;
        EXPECT_EQ(valid, macaddr::parse_str(ks::string_view(text), m)) << text;
    }
    const macaddr m(ks::string_view("0A:1b:2C:3d:4E:5f"));
    EXPECT_EQ("0a:1b:2c:3d:4e:5f 0A:1B:2C:3D:4E:5F", m.to_string(false) + " " + m.to_string(true));
    EXPECT_TRUE(macaddr(ks::string_view("ff:ff:ff:ff:ff:ff")).is_broadcast());
    const uint8_t wire[] = {0, 0xde, 0xad, 0xbe, 0xef, 0, 1};
    EXPECT_EQ("de:ad:be:ef:00:01", macaddr(ks::buffer_view(wire, sizeof wire, 1)).to_string());
    EXPECT_FALSE(macaddr(ks::buffer_view(wire, sizeof wire, 2)).is_valid()) << "five bytes left";
    EXPECT_EQ(m, macaddr(static_cast<sockaddr_ll>(m)));
}

// Each kind of stream socket on loopback: a partial send resumed at the exact byte, recv_all to the close.
TEST(Socket, LoopbackStreamsAndDatagrams) {
    kstest::TempDir dir;
    const std::pair<network_proto, const char*> streams[] = {
        {network_proto::ipv4, "127.0.0.1"}, {network_proto::ipv6, "::1"}, {network_proto::local, nullptr}};
    std::string payload(4 << 20, '\0');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 + i / 251);
    for (const auto& [l3, ip] : streams) {
        const std::string where = ip ? ip : dir / "stream.sock";
        SCOPED_TRACE(where);
        Socket server(l3, transport_type::stream);
        ASSERT_TRUE(server.bind(address(ks::string_view(where))) && server.listen());
        Socket client(l3, transport_type::stream);
        ASSERT_TRUE(client.connect(server.local_addr())) << server.local_addr().to_string(true);
        Socket peer = server.accept();
        ASSERT_TRUE(peer.is_valid());
        EXPECT_EQ(ip ? client.local_addr().to_string(true) : where,
                  ip ? peer.remote_addr().to_string(true) : peer.local_addr().to_string(false));
        EXPECT_EQ(0u, client.remote_addr().to_string(true).rfind(where, 0));

        // Small buffers and no reader yet: the first send cannot take 4 MiB and must stop short.
        const int small = 64 << 10;
        ASSERT_EQ(0, ::setsockopt(client.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small));
        ASSERT_EQ(0, ::setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
        ASSERT_TRUE(client.set_blocking(false));
        ks::buffer_view rest;
        const long first = client.send(ks::buffer_view(payload), rest);
        ASSERT_TRUE(first > 0 && static_cast<size_t>(first) < payload.size()) << first;
        ASSERT_EQ(reinterpret_cast<const uint8_t*>(payload.data()) + first, rest.current());

        std::string received;
        std::thread reader([&] {
            ks::buffer got;
            char scratch[1000];
            EXPECT_EQ(static_cast<long>(payload.size()), peer.recv_all(got, scratch, sizeof scratch));
            received.assign(got.as_text());
        });
        // The sender never blocks: each send goes as far as the socket takes it, then waits for room.
        while (!rest.done()) {
            if (client.send(rest) >= 0) continue;
            pollfd room{client.fd(), POLLOUT, 0};
            if (errno != EAGAIN || ::poll(&room, 1, 60000) != 1) break;
        }
        client.close();
        reader.join();
        EXPECT_TRUE(rest.done()) << std::strerror(errno);
        EXPECT_TRUE(received == payload) << "bytes lost, repeated or out of order";
    }

    Socket a(network_proto::ipv4, transport_type::datagram), b(network_proto::ipv4, transport_type::datagram);
    ASSERT_TRUE(a.bind(address(ks::string_view("127.0.0.1"))) && b.bind(address(ks::string_view("127.0.0.1"))));
    ks::buffer_view hello(std::string_view("hello"));
    EXPECT_EQ(5, b.send(a.local_addr(), hello));
    address from;
    ks::buffer got;
    char scratch[64];
    EXPECT_EQ(5, a.recv(from, got, scratch, sizeof scratch));
    EXPECT_EQ("hello from " + b.local_addr().to_string(true), std::string(got.as_text()) + " from " + from.to_string(true));

    EXPECT_FALSE(Socket(network_proto::ipv4, transport_type::stream).connect(address(ks::string_view("::1"), 1)))
        << "protocol differs";
    EXPECT_FALSE(Socket(network_proto::none, transport_type::stream).is_valid());
    EXPECT_FALSE(a.listen()) << "datagram sockets cannot listen";
}

}  // namespace
