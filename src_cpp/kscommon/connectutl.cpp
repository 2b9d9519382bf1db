// Addresses, MACs, the owning socket and the Internet checksum.
//
// Text parsing copies into a small stack buffer (inet_pton needs a NUL) and the MAC grammar
// is matched by hand: the same language as the pattern "six two-digit hexadecimal groups
// joined by ':'", without a regular expression engine on every call.
#include <ksutils/connectutl.h>

#include "kssys.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <utility>

namespace ks::sockutl {

namespace {

constexpr size_t kSeed = 0xc70f6907UL;
constexpr size_t kMaxPath = sizeof(sockaddr_un::sun_path) - 1;  // 107: room for the NUL

size_t hash_bytes(const void* data, size_t size) { return std::_Hash_bytes(data, size, kSeed); }

// The netmask bytes of a prefix over `size` bytes; a prefix past the end gives all ones.
void mask_bytes(unsigned prefix, uint8_t* out, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        if (prefix >= 8) {
            out[i] = 0xFF;
            prefix -= 8;
        } else {
            out[i] = static_cast<uint8_t>(0xFF << (8 - prefix));
            prefix = 0;
        }
    }
}

unsigned leading_ones(const uint8_t* bytes, size_t size) {
    unsigned ones = 0;
    for (size_t i = 0; i < size; ++i)
        for (int bit = 7; bit >= 0; --bit) {
            if (!(bytes[i] >> bit & 1)) return ones;
            ++ones;
        }
    return ones;
}

bool is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

}  // namespace

// ---- address --------------------------------------------------------------------------

address::address() noexcept { std::memset(&storage_, 0, sizeof storage_); }

address::address(network_proto proto) noexcept : address() {
    switch (proto) {
        case network_proto::ipv4: storage_.ss_family = AF_INET; break;
        case network_proto::ipv6: storage_.ss_family = AF_INET6; break;
        case network_proto::local: storage_.ss_family = AF_UNIX; break;
        default: storage_.ss_family = AF_UNSPEC; break;
    }
}

address::address(const sockaddr_in& sa) noexcept : address() { std::memcpy(&storage_, &sa, sizeof sa); }
address::address(const sockaddr_in6& sa) noexcept : address() { std::memcpy(&storage_, &sa, sizeof sa); }
address::address(const sockaddr_un& sa) noexcept : address() { std::memcpy(&storage_, &sa, sizeof sa); }

address::address(const in_addr& a, unsigned short port) noexcept : address() {
    v4().sin_family = AF_INET;
    v4().sin_addr = a;
    v4().sin_port = htons(port);
}

address::address(const in6_addr& a, unsigned short port) noexcept : address() {
    v6().sin6_family = AF_INET6;
    v6().sin6_addr = a;
    v6().sin6_port = htons(port);
}

address::address(ks::string_view text) noexcept : address() { parse_addr(text, *this); }

address::address(ks::string_view text, unsigned short port) noexcept : address() { parse_addr(text, port, *this); }

address::address(unsigned char prefix, network_proto proto) noexcept : address() {
    if (proto == network_proto::ipv4) {
        v4().sin_family = AF_INET;
        mask_bytes(prefix, reinterpret_cast<uint8_t*>(&v4().sin_addr), 4);
    } else if (proto == network_proto::ipv6) {
        v6().sin6_family = AF_INET6;
        mask_bytes(prefix, v6().sin6_addr.s6_addr, 16);
    }
}

address::address(const address& other) noexcept { std::memcpy(&storage_, &other.storage_, sizeof storage_); }

address::address(address&& other) noexcept {
    std::memcpy(&storage_, &other.storage_, sizeof storage_);
    std::memset(&other.storage_, 0, sizeof storage_);
}

address& address::operator=(const address& other) noexcept {
    std::memmove(&storage_, &other.storage_, sizeof storage_);
    return *this;
}

address& address::operator=(address&& other) noexcept {
    if (this != &other) {
        std::memcpy(&storage_, &other.storage_, sizeof storage_);
        std::memset(&other.storage_, 0, sizeof storage_);
    }
    return *this;
}

bool address::parse_addr(ks::string_view text, address& out) noexcept {
    std::memset(&out.storage_, 0, sizeof out.storage_);
    if (text.empty()) return false;
    if (text[0] == '/') {
        out.un().sun_family = AF_UNIX;
        std::memcpy(out.un().sun_path, text.data(), std::min(text.size(), kMaxPath));
        return true;
    }
    char copy[INET6_ADDRSTRLEN + 1];
    // A NUL inside the text would end the copy early and let "1.2.3.4\0junk" through.
    if (text.size() >= sizeof copy || std::memchr(text.data(), '\0', text.size())) return false;
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    if (::inet_pton(AF_INET, copy, &out.v4().sin_addr) == 1) {
        out.v4().sin_family = AF_INET;
        return true;
    }
    if (::inet_pton(AF_INET6, copy, &out.v6().sin6_addr) == 1) {
        out.v6().sin6_family = AF_INET6;
        return true;
    }
    std::memset(&out.storage_, 0, sizeof out.storage_);
    return false;
}

bool address::parse_addr(ks::string_view text, unsigned short port, address& out) noexcept {
    parse_addr(text, out);
    out.port(port);
    return out.is_valid();
}

address& address::operator=(const sockaddr* sa) noexcept {
    std::memset(&storage_, 0, sizeof storage_);
    if (!sa) return *this;
    switch (sa->sa_family) {
        case AF_INET: std::memcpy(&storage_, sa, sizeof(sockaddr_in)); break;
        case AF_INET6: std::memcpy(&storage_, sa, sizeof(sockaddr_in6)); break;
        case AF_UNIX: std::memcpy(&storage_, sa, sizeof(sockaddr_un)); break;
        default: break;
    }
    return *this;
}

address& address::operator=(unsigned short p) noexcept {
    port(p);
    return *this;
}

void address::port(unsigned short p) noexcept {
    if (is_v4()) v4().sin_port = htons(p);
    else if (is_v6()) v6().sin6_port = htons(p);
}

unsigned short address::port() const noexcept {
    if (is_v4()) return ntohs(v4().sin_port);
    if (is_v6()) return ntohs(v6().sin6_port);
    return 0;
}

network_proto address::proto() const noexcept {
    switch (storage_.ss_family) {
        case AF_INET: return network_proto::ipv4;
        case AF_INET6: return network_proto::ipv6;
        case AF_UNIX: return network_proto::local;
        default: return network_proto::none;
    }
}

address::operator unsigned int() const noexcept {
    switch (proto()) {
        case network_proto::ipv4: return sizeof(sockaddr_in);
        case network_proto::ipv6: return sizeof(sockaddr_in6);
        case network_proto::local: return sizeof(sockaddr_un);
        default: return sizeof(sockaddr_storage);
    }
}

uint32_t address::to_binary(bool network_order) const noexcept {
    const uint32_t raw = v4().sin_addr.s_addr;
    return network_order ? raw : ntohl(raw);
}

unsigned char address::to_prefix() const noexcept {
    if (is_v4()) return static_cast<unsigned char>(leading_ones(reinterpret_cast<const uint8_t*>(&v4().sin_addr), 4));
    if (is_v6()) return static_cast<unsigned char>(leading_ones(v6().sin6_addr.s6_addr, 16));
    return 0;
}

address address::to_subnet(unsigned char prefix) const noexcept {
    if (!is_v4_or_v6()) return address();
    const address mask(prefix, proto());
    address subnet(proto());
    if (is_v4()) {
        subnet.v4().sin_addr.s_addr = v4().sin_addr.s_addr & mask.v4().sin_addr.s_addr;
    } else {
        for (int i = 0; i < 16; ++i)
            subnet.v6().sin6_addr.s6_addr[i] = v6().sin6_addr.s6_addr[i] & mask.v6().sin6_addr.s6_addr[i];
    }
    return subnet;
}

bool address::is_netmask() const noexcept {
    if (is_v4()) {
        const uint32_t mask = to_binary(false);
        const unsigned ones = leading_ones(reinterpret_cast<const uint8_t*>(&v4().sin_addr), 4);
        return ones == 32 || mask == (ones ? ~0u << (32 - ones) : 0u);
    }
    if (is_v6()) {
        const uint8_t* b = v6().sin6_addr.s6_addr;
        int i = 0;
        while (i < 16 && b[i] == 0xFF) ++i;
        if (i == 16) return true;
        static const uint8_t partial[] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE};
        if (std::find(std::begin(partial), std::end(partial), b[i]) == std::end(partial)) return false;
        return std::all_of(b + i + 1, b + 16, [](uint8_t x) { return x == 0; });
    }
    return false;
}

bool address::is_in_subnet(const address& subnet, const address& mask) const noexcept {
    if (!is_v4_or_v6() || subnet.proto() != proto() || mask.proto() != proto()) return false;
    if (is_v4()) {
        const uint32_t m = mask.to_binary(false);
        return (subnet.to_binary(false) & m) == (to_binary(false) & m);
    }
    for (int i = 0; i < 16; ++i)
        if ((subnet.v6().sin6_addr.s6_addr[i] ^ v6().sin6_addr.s6_addr[i]) & mask.v6().sin6_addr.s6_addr[i]) return false;
    return true;
}

bool address::is_link_local() const noexcept {
    static const address link_local(ks::string_view("fe80::"));
    static const address mask(64, network_proto::ipv6);
    return is_v6() && is_in_subnet(link_local, mask);
}

int address::compare(const address& other) const noexcept {
    if (storage_.ss_family != other.storage_.ss_family) return storage_.ss_family - other.storage_.ss_family;
    switch (proto()) {
        case network_proto::none: return 0;
        case network_proto::local: return std::strncmp(un().sun_path, other.un().sun_path, sizeof un().sun_path);
        default: break;
    }
    if (port() != other.port()) return static_cast<int>(port()) - static_cast<int>(other.port());
    if (is_v4()) return std::memcmp(&v4().sin_addr, &other.v4().sin_addr, 4);
    return std::memcmp(&v6().sin6_addr, &other.v6().sin6_addr, 16);
}

size_t address::hash(bool with_port) const noexcept {
    const size_t port_bits = with_port ? 2u * port() : 0u;
    switch (proto()) {
        case network_proto::ipv4: return static_cast<size_t>(v4().sin_addr.s_addr) ^ port_bits;
        case network_proto::ipv6: return hash_bytes(v6().sin6_addr.s6_addr, 16) ^ port_bits;
        case network_proto::local: return hash_bytes(un().sun_path, sizeof un().sun_path);
        default: return hash_bytes(&storage_, sizeof storage_);
    }
}

std::string address::to_string(bool with_port) const {
    char text[INET6_ADDRSTRLEN + 8];
    switch (proto()) {
        case network_proto::ipv4:
            ::inet_ntop(AF_INET, &v4().sin_addr, text, sizeof text);
            if (with_port) std::snprintf(text + std::strlen(text), 8, ":%hu", port());
            return text;
        case network_proto::ipv6:
            ::inet_ntop(AF_INET6, &v6().sin6_addr, text, sizeof text);
            if (with_port) std::snprintf(text + std::strlen(text), 8, ".%hu", port());
            return text;
        case network_proto::local: return std::string(un().sun_path, ::strnlen(un().sun_path, kMaxPath));
        default: return "(invalid)";
    }
}

// ---- macaddr --------------------------------------------------------------------------

macaddr::macaddr() noexcept { std::memset(bytes_, 0, sizeof bytes_); }

macaddr::macaddr(const sockaddr_ll* sa) noexcept : macaddr() {
    if (sa) std::memcpy(bytes_, sa->sll_addr, sizeof bytes_);
}

macaddr::macaddr(const sockaddr_ll& sa) noexcept : macaddr(&sa) {}

macaddr::macaddr(const ks::buffer_view& view) noexcept : macaddr() { *this = view; }

macaddr::macaddr(ks::string_view text) noexcept : macaddr() { parse_str(text, *this); }

macaddr::macaddr(macaddr&& other) noexcept : macaddr() { std::swap(bytes_, other.bytes_); }

macaddr& macaddr::operator=(macaddr&& other) noexcept {
    if (this != &other) {
        std::memcpy(bytes_, other.bytes_, sizeof bytes_);
        std::memset(other.bytes_, 0, sizeof bytes_);
    }
    return *this;
}

macaddr& macaddr::operator=(const sockaddr_ll* sa) noexcept {
    if (sa) std::memcpy(bytes_, sa->sll_addr, sizeof bytes_);
    return *this;
}

macaddr& macaddr::operator=(const sockaddr_ll& sa) noexcept { return *this = &sa; }

macaddr& macaddr::operator=(const ks::buffer_view& view) noexcept {
    if (view.data() && view.remaining() >= sizeof bytes_) std::memcpy(bytes_, view.current(), sizeof bytes_);
    return *this;
}

macaddr::operator sockaddr_ll() const noexcept {
    sockaddr_ll sa{};
    sa.sll_family = AF_PACKET;
    sa.sll_halen = sizeof bytes_;
    std::memcpy(sa.sll_addr, bytes_, sizeof bytes_);
    return sa;
}

bool macaddr::is_valid(ks::string_view text) {
    if (text == ks::string_view("00:00:00:00:00:00") || text.size() != 17) return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (i % 3 == 2 ? text[i] != ':' : !is_hex(text[i])) return false;
    return true;
}

bool macaddr::parse_str(ks::string_view text, macaddr& out) {
    if (!is_valid(text)) return false;
    char copy[18];
    std::memcpy(copy, text.data(), 17);
    copy[17] = '\0';
    uint8_t* b = out.bytes_;
    std::sscanf(copy, "%2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]);
    return out.is_valid();
}

bool macaddr::is_valid() const noexcept {
    return std::any_of(std::begin(bytes_), std::end(bytes_), [](uint8_t b) { return b != 0; });
}

bool macaddr::is_broadcast() const noexcept {
    return std::all_of(std::begin(bytes_), std::end(bytes_), [](uint8_t b) { return b == 0xFF; });
}

std::string macaddr::to_string(bool upper) const {
    char text[18];
    std::snprintf(text, sizeof text, upper ? "%02X:%02X:%02X:%02X:%02X:%02X" : "%02x:%02x:%02x:%02x:%02x:%02x",
                  bytes_[0], bytes_[1], bytes_[2], bytes_[3], bytes_[4], bytes_[5]);
    return text;
}

bool macaddr::operator==(const macaddr& other) const noexcept {
    return std::memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
}

// ---- socket ---------------------------------------------------------------------------

socket::socket(network_proto l3, transport_type l4) noexcept : l3_(l3), l4_(l4) {
    const int domain = l3 == network_proto::ipv4   ? AF_INET
                       : l3 == network_proto::ipv6 ? AF_INET6
                       : l3 == network_proto::local ? AF_UNIX
                                                    : 0;
    const int type = l4 == transport_type::stream ? SOCK_STREAM : l4 == transport_type::datagram ? SOCK_DGRAM : -1;
    fd_ = ::socket(domain, type, 0);
}

socket::~socket() { close(); }

socket::socket(socket&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      l3_(std::exchange(other.l3_, network_proto::none)),
      l4_(std::exchange(other.l4_, transport_type::none)),
      listening_(std::exchange(other.listening_, false)) {}

socket& socket::operator=(socket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        l3_ = std::exchange(other.l3_, network_proto::none);
        l4_ = std::exchange(other.l4_, transport_type::none);
        listening_ = std::exchange(other.listening_, false);
    }
    return *this;
}

void socket::close() noexcept {
    if (fd_ < 0) return;
    ::shutdown(fd_, SHUT_RDWR);
    ::close(fd_);
    fd_ = -1;
}

address socket::local_addr() const noexcept {
    address a;
    socklen_t len = sizeof(sockaddr_storage);
    if (!is_valid() || ::getsockname(fd_, static_cast<sockaddr*>(a), &len) != 0) return address();
    return a;
}

address socket::remote_addr() const noexcept {
    address a;
    socklen_t len = sizeof(sockaddr_storage);
    if (!is_valid() || ::getpeername(fd_, static_cast<sockaddr*>(a), &len) != 0) return address();
    return a;
}

bool socket::bind(const address& addr) noexcept {
    if (!is_valid() || !addr.is_valid() || addr.proto() != l3_) return false;
    const int one = 1;
    if (::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) return false;
    return ::bind(fd_, static_cast<const sockaddr*>(addr), static_cast<unsigned int>(addr)) == 0;
}

bool socket::listen() noexcept {
    listening_ = true;
    return ::listen(fd_, 128) == 0;
}

bool socket::connect(const address& addr) noexcept {
    if (addr.proto() != l3_) return false;
    return ::connect(fd_, static_cast<const sockaddr*>(addr), static_cast<unsigned int>(addr)) == 0;
}

socket socket::accept() noexcept {
    address peer(l3_);
    socklen_t len = static_cast<unsigned int>(peer);
    const int fd = ::accept(fd_, static_cast<sockaddr*>(peer), &len);
    if (fd < 0) return socket();
    return socket(fd, l3_, l4_);
}

long socket::send(const ks::buffer_view& data, ks::buffer_view& rest) noexcept {
    const long n = ::send(fd_, data.current(), data.remaining(), 0);
    if (n >= 1) {
        const size_t sent = static_cast<size_t>(n);
        rest = sent >= data.size() ? ks::buffer_view() : ks::buffer_view(data.data() + sent, data.size() - sent);
    }
    return n;
}

long socket::send(ks::buffer_view& data) noexcept {
    const long n = ::send(fd_, data.current(), data.remaining(), 0);
    if (n > 0 && static_cast<size_t>(n) <= data.remaining()) data.advance(static_cast<size_t>(n));
    return n;
}

long socket::send(const address& to, ks::buffer_view& data) noexcept {
    const long n = ::sendto(fd_, data.current(), data.remaining(), 0, static_cast<const sockaddr*>(to),
                            static_cast<unsigned int>(to));
    if (n > 0 && static_cast<size_t>(n) <= data.remaining()) data.advance(static_cast<size_t>(n));
    return n;
}

long socket::recv(ks::buffer& out, void* scratch, size_t len) {
    const long n = ::recv(fd_, scratch, len, 0);
    if (n > 0) out.append(scratch, static_cast<size_t>(n));
    return n;
}

long socket::recv_all(ks::buffer& out, void* scratch, size_t len) {
    long total = 0;
    for (;;) {
        const long n = recv(out, scratch, len);
        if (n > 0) {
            total += n;
            continue;
        }
        if (n == 0) return total;
        return errno == EAGAIN ? total : n;
    }
}

long socket::recv(address& from, ks::buffer& out, void* scratch, size_t len) {
    sockaddr_storage sender{};
    socklen_t sender_len = sizeof sender;
    const long n = ::recvfrom(fd_, scratch, len, 0, reinterpret_cast<sockaddr*>(&sender), &sender_len);
    if (n >= 0) {
        from = reinterpret_cast<const sockaddr*>(&sender);
        out.append(scratch, static_cast<size_t>(n));
    }
    return n;
}

bool socket::set_blocking(bool blocking) noexcept {
    return is_valid() && sys::set_nonblocking(fd_, !blocking);
}

// ---- checksum -------------------------------------------------------------------------

unsigned inet_cksum_feed(unsigned sum, const void* data, int len) noexcept {
    const auto* p = static_cast<const uint8_t*>(data);
    for (; len > 1; p += 2, len -= 2) {
        uint16_t word;
        std::memcpy(&word, p, 2);
        sum += word;
    }
    if (len == 1) sum += *p;
    return sum;
}

uint16_t inet_cksum_done(unsigned sum) noexcept {
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

uint16_t inet_cksum(const void* data, int len) noexcept { return inet_cksum_done(inet_cksum_feed(0, data, len)); }

}  // namespace ks::sockutl
