// Addresses checked against Python's ipaddress over thousands of generated cases (one
// python3 run answers them all), the checksum against an independent RFC 1071 sum, MAC
// text forms, and sockets used for real on loopback.
#include <ksutils/connectutl.h>
#include <ksutils/miscutl.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>

#include <cstring>
#include <random>
#include <sstream>
#include <thread>

#include "kstest.h"

namespace {

using namespace ks::sockutl;
using Socket = ks::sockutl::socket;

// Random cases with their answers computed by the library, in the oracle's line format.
struct Cases {
    std::string input, expected_by_library;

    void add(const std::string& line, const std::string& answer) {
        input += line + "\n";
        expected_by_library += answer + "\n";
    }
};

std::string random_v4(std::mt19937& rng) {
    return std::to_string(rng() % 256) + "." + std::to_string(rng() % 256) + "." + std::to_string(rng() % 256) + "." +
           std::to_string(rng() % 256);
}

// Groups that are often zero, so compressed forms and long zero runs come up.
std::string random_v6(std::mt19937& rng) {
    char groups[8][5];
    std::string text;
    for (int i = 0; i < 8; ++i) {
        const unsigned v = rng() % 5 < 2 ? 0 : (rng() % 3 ? rng() % 0x10000 : 0xfe80 + rng() % 2);
        std::snprintf(groups[i], sizeof groups[i], "%x", v);
        text += (i ? ":" : "") + std::string(groups[i]);
    }
    address a{ks::string_view(text)};
    return rng() % 2 ? a.to_string(false) : text;  // compressed or full form
}

TEST(Address, AgreesWithPythonIpaddress) {
    std::mt19937 rng(20261125);
    Cases cases;
    auto parsed = [](const std::string& text) {
        address a{ks::string_view(text)};
        if (!a.is_valid()) return std::string("invalid");
        return std::string(a.is_v4() ? "v4 " : "v6 ") + a.to_string(false) + " ll=" + (a.is_link_local() ? "1" : "0");
    };
    const char* fixed[] = {"", "10.0.0.1", "fe80::1", "fe80:0:0:1::1", "10.0.0.1:80", "[::1]:80", "1.2.3", "256.1.1.1",
                           "01.2.3.4", "::", "::1", "::ffff:1.2.3.4", "::1.2.3.4", "1::2::3", "g::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "0:0:0:0:0:0:0:0:0"};
    for (const char* text : fixed) cases.add(std::string("P ") + text, parsed(text));
    for (int i = 0; i < 3000; ++i) {
        const bool v4 = i % 2;
        const std::string text = v4 ? random_v4(rng) : random_v6(rng);
        const unsigned bits = v4 ? 32 : 128;
        const address a{ks::string_view(text)};
        cases.add("P " + text, parsed(text));

        const unsigned prefix = rng() % (bits + 10);
        const address mask(static_cast<unsigned char>(prefix), v4 ? network_proto::ipv4 : network_proto::ipv6);
        cases.add("M " + std::to_string(bits) + " " + std::to_string(prefix), mask.to_string(false));
        EXPECT_EQ(std::min(prefix, bits), mask.to_prefix()) << prefix;

        // Masks with one bit flipped now and then, so non-masks are tested as well.
        std::string packed(bits / 8, '\0');
        ::inet_pton(v4 ? AF_INET : AF_INET6, mask.to_string(false).c_str(), packed.data());
        if (rng() % 2) packed[rng() % packed.size()] ^= static_cast<char>(1 << rng() % 8);
        char back[INET6_ADDRSTRLEN];
        ::inet_ntop(v4 ? AF_INET : AF_INET6, packed.data(), back, sizeof back);
        const address odd{ks::string_view(back)};
        cases.add(std::string("N ") + back, "prefix=" + std::to_string(odd.to_prefix()) +
                                               " netmask=" + (odd.is_netmask() ? "1" : "0"));

        // A subnet near the address half the time, a random one otherwise.
        const std::string net = rng() % 2 ? a.to_subnet(static_cast<unsigned char>(rng() % bits)).to_string(false)
                                          : (v4 ? random_v4(rng) : random_v6(rng));
        const unsigned net_prefix = rng() % (bits + 1);
        const address subnet{ks::string_view(net)}, net_mask(static_cast<unsigned char>(net_prefix), a.proto());
        cases.add("S " + text + " " + net + " " + std::to_string(net_prefix),
                  std::string("in=") + (a.is_in_subnet(subnet, net_mask) ? "1" : "0") +
                      " subnet=" + subnet.to_subnet(static_cast<unsigned char>(net_prefix)).to_string(false));

        std::string bytes(rng() % 1500, '\0');
        for (char& c : bytes) c = static_cast<char>(rng());
        const uint16_t sum = inet_cksum(bytes.data(), static_cast<int>(bytes.size()));
        cases.add("C " + ks::hex_encode(bytes), std::to_string(ntohs(sum)));
    }

    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "cases", cases.input));
    std::string oracle;
    ASSERT_EQ(0, kstest::run("python3 '" KS_SOURCE_DIR "/tests/support/ipaddress_oracle.py' < '" + (dir / "cases") + "'",
                             &oracle));
    std::istringstream in(cases.input), ours(cases.expected_by_library), theirs(oracle);
    int mismatches = 0;
    for (std::string c, a, b; std::getline(in, c) && std::getline(ours, a) && std::getline(theirs, b);)
        if (a != b && ++mismatches <= 20) ADD_FAILURE() << c.substr(0, 120) << "\n  ours:   " << a << "\n  python: " << b;
    EXPECT_EQ(0, mismatches);
}

TEST(Address, TextFormsComparisonAndHash) {
    address a(ks::string_view("192.168.1.1"), 53), b(ks::string_view("fe80::1"), 53), local(ks::string_view("/run/x.sock"));
    EXPECT_EQ("192.168.1.1:53", a.to_string(true));
    EXPECT_EQ("fe80::1.53", b.to_string(true));
    EXPECT_EQ("/run/x.sock", local.to_string(true));
    EXPECT_EQ("(invalid)", address().to_string(true));
    EXPECT_EQ(16u, static_cast<unsigned>(a));
    EXPECT_EQ(28u, static_cast<unsigned>(b));
    EXPECT_EQ(110u, static_cast<unsigned>(local));
    // Ports are compared before the address; families before anything.
    EXPECT_LT(address(ks::string_view("10.0.0.9"), 1).compare(address(ks::string_view("10.0.0.1"), 2)), 0);
    EXPECT_LT(local.compare(a), 0);
    EXPECT_LT(a.compare(b), 0);
    EXPECT_FALSE(a.is_in_subnet(address(ks::string_view("::")), address(0, network_proto::ipv6)));
    EXPECT_EQ(80, address(ks::string_view("10.0.0.1"), 80).port());
    // Neither zones, surrounding blanks nor NULs are part of the grammar (Python accepts zones).
    for (const std::string& text : {std::string("fe80::1%eth0"), std::string("1.2.3.4 "), std::string(" ::1"),
                                   std::string("1.2.3.4\0x", 9), std::string("::1\0", 4)})
        EXPECT_FALSE(address(ks::string_view(text.data(), text.size())).is_valid()) << text;

    address moved(std::move(a));
    EXPECT_EQ("192.168.1.1:53", moved.to_string(true));
    EXPECT_FALSE(a.is_valid());  // NOLINT: moving empties the source
}

TEST(MacAddr, TextForms) {
    const struct {
        const char* text;
        bool valid;
    } cases[] = {{"00:00:00:00:00:00", false}, {"0a:1b:2c:3d:4e", false}, {"0a-1b-2c-3d-4e-5f", false},
                 {"0A:1b:2C:3d:4E:5f", true},  {"ff:ff:ff:ff:ff:ff", true}, {"0g:1b:2c:3d:4e:5f", false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.valid, macaddr::is_valid(ks::string_view(c.text))) << c.text;
        macaddr m;
        EXPECT_EQ(c.valid, macaddr::parse_str(ks::string_view(c.text), m)) << c.text;
    }
    const macaddr m(ks::string_view("0A:1b:2C:3d:4E:5f"));
    EXPECT_EQ("0a:1b:2c:3d:4e:5f", m.to_string(false));
    EXPECT_EQ("0A:1B:2C:3D:4E:5F", m.to_string(true));
    EXPECT_TRUE(macaddr(ks::string_view("ff:ff:ff:ff:ff:ff")).is_broadcast());
    const uint8_t wire[] = {0, 0xde, 0xad, 0xbe, 0xef, 0, 1};
    EXPECT_EQ("de:ad:be:ef:00:01", macaddr(ks::buffer_view(wire, sizeof wire, 1)).to_string());
    EXPECT_FALSE(macaddr(ks::buffer_view(wire, sizeof wire, 2)).is_valid()) << "five bytes left";
    const sockaddr_ll ll = m;
    EXPECT_EQ(m, macaddr(ll));
}

TEST(Checksum, FeedsInPiecesAndOddBytes) {
    const uint8_t one = 1, word[] = {1, 0};
    EXPECT_EQ(inet_cksum_feed(0, &one, 1), inet_cksum_feed(0, word, 2));
    EXPECT_EQ(0xFFFF, inet_cksum(nullptr, 0));
    std::string data(1001, 'k');
    const unsigned pieces = inet_cksum_feed(inet_cksum_feed(0, data.data(), 500), data.data() + 500, 501);
    EXPECT_EQ(inet_cksum(data.data(), 1001), inet_cksum_done(pieces));
}

// Client and server on one loopback for each kind of socket: a partial send resumed from the
// exact byte, recv_all until the peer closes, the addresses as text.
TEST(Socket, LoopbackStreamsAndDatagrams) {
    kstest::TempDir dir;
    const struct {
        network_proto l3;
        const char* where;
        const char* local_prefix;
    } streams[] = {{network_proto::ipv4, "127.0.0.1", "127.0.0.1:"},
                   {network_proto::ipv6, "::1", "::1."},
                   {network_proto::local, nullptr, nullptr}};
    std::string payload(4 << 20, '\0');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7 + i / 251);
    for (const auto& s : streams) {
        SCOPED_TRACE(s.where ? s.where : "local");
        const std::string where = s.where ? s.where : dir / "stream.sock";
        Socket server(s.l3, transport_type::stream);
        ASSERT_TRUE(server.bind(address(ks::string_view(where)))) << where;
        EXPECT_TRUE(server.listen());
        const address bound = server.local_addr();
        Socket client(s.l3, transport_type::stream);
        ASSERT_TRUE(client.connect(bound)) << bound.to_string(true);
        Socket peer = server.accept();
        ASSERT_TRUE(peer.is_valid());
        if (s.where) {
            EXPECT_EQ(client.local_addr().to_string(true), peer.remote_addr().to_string(true));
            EXPECT_EQ(0u, client.remote_addr().to_string(true).rfind(s.local_prefix, 0));
        } else {
            EXPECT_EQ(where, peer.local_addr().to_string(false));
        }

        // Small buffers and no reader yet: the first send cannot take 4 MiB and must stop short.
        const int small = 64 << 10;
        for (int fd : {client.fd(), peer.fd()}) {
            ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small));
            ASSERT_EQ(0, ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
        }
        ASSERT_TRUE(client.set_blocking(false));
        const ks::buffer_view whole(payload);
        ks::buffer_view rest;
        const long first = client.send(whole, rest);
        ASSERT_GT(first, 0);
        ASSERT_LT(static_cast<size_t>(first), payload.size());
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
    ASSERT_TRUE(a.bind(address(ks::string_view("127.0.0.1"))));
    ASSERT_TRUE(b.bind(address(ks::string_view("127.0.0.1"))));
    ks::buffer_view hello(std::string_view("hello"));
    EXPECT_EQ(5, b.send(a.local_addr(), hello));
    address from;
    ks::buffer got;
    char scratch[64];
    EXPECT_EQ(5, a.recv(from, got, scratch, sizeof scratch));
    EXPECT_EQ("hello", got.as_text());
    EXPECT_EQ(b.local_addr(), from);

    Socket refused(network_proto::ipv4, transport_type::stream);
    EXPECT_FALSE(refused.connect(address(ks::string_view("::1"), 1))) << "protocol differs";
    EXPECT_FALSE(Socket(network_proto::none, transport_type::stream).is_valid());
    Socket listener(network_proto::ipv4, transport_type::datagram);
    EXPECT_FALSE(listener.listen()) << "datagram sockets cannot listen";
    EXPECT_TRUE(listener.is_listening());
}

}  // namespace
