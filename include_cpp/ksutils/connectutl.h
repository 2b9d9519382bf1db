// Socket addresses, hardware addresses, an owning socket and the Internet checksum.
//
// `address` is exactly a kernel sockaddr_storage whose family decides what it holds (IPv4,
// IPv6 or a local socket path), so it passes to system calls as it is. Text forms have no
// port syntax on input; on output an IPv6 port follows a dot ("fe80::1.53"), not brackets.
// Nothing here logs or touches the thread's error record: results are bools, counts or
// empty values, and a failed system call leaves errno as the call set it.
#pragma once
#include <ksexport.h>
#include <ksutils/buffer.h>
#include <ksutils/string_view.h>

#include <netinet/in.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

namespace ks::sockutl {

enum class network_proto : uint8_t { none = 0, ipv4 = 1, ipv6 = 2, local = 3 };
enum class transport_type : uint8_t { none = 0, stream = 1, datagram = 2 };

class KS_EXPORT address {
public:
    address() noexcept;
    // Only the family: AF_INET, AF_INET6, AF_UNIX, or AF_UNSPEC for none.
    explicit address(network_proto proto) noexcept;
    explicit address(const sockaddr_in& sa) noexcept;
    explicit address(const sockaddr_in6& sa) noexcept;
    explicit address(const sockaddr_un& sa) noexcept;
    address(const in_addr& a, unsigned short port) noexcept;
    address(const in6_addr& a, unsigned short port) noexcept;
    explicit address(ks::string_view text) noexcept;
    address(ks::string_view text, unsigned short port) noexcept;
    // The netmask of a prefix length: 24 for ipv4 is 255.255.255.0; too long gives all ones.
    address(unsigned char prefix, network_proto proto) noexcept;
    address(const address& other) noexcept;
    address(address&& other) noexcept;
    address& operator=(const address& other) noexcept;
    address& operator=(address&& other) noexcept;

    // Parses an IPv4 or IPv6 address without port, or a local path starting with '/';
    // returns whether `out` became valid.
    static bool parse_addr(ks::string_view text, address& out) noexcept;
    static bool parse_addr(ks::string_view text, unsigned short port, address& out) noexcept;

    // Copies a kernel address of family AF_INET, AF_INET6 or AF_UNIX; any other empties it.
    address& operator=(const sockaddr* sa) noexcept;
    address& operator=(unsigned short port) noexcept;
    void port(unsigned short port) noexcept;
    unsigned short port() const noexcept;

    network_proto proto() const noexcept;
    operator network_proto() const noexcept { return proto(); }
    int af() const noexcept { return storage_.ss_family; }
    bool is_valid() const noexcept { return proto() != network_proto::none; }
    bool is_v4() const noexcept { return proto() == network_proto::ipv4; }
    bool is_v6() const noexcept { return proto() == network_proto::ipv6; }
    bool is_v4_or_v6() const noexcept { return is_v4() || is_v6(); }

    operator sockaddr*() noexcept { return reinterpret_cast<sockaddr*>(&storage_); }
    operator const sockaddr*() const noexcept { return reinterpret_cast<const sockaddr*>(&storage_); }
    // The length system calls take: 16 (IPv4), 28 (IPv6), 110 (local), else 128.
    operator unsigned int() const noexcept;

    // The IPv4 address, host order unless network_order.
    uint32_t to_binary(bool network_order) const noexcept;
    // Leading one bits of a mask; 0 for protocols other than IPv4 and IPv6.
    unsigned char to_prefix() const noexcept;
    address to_subnet(unsigned char prefix) const noexcept;
    bool is_netmask() const noexcept;
    bool is_in_subnet(const address& subnet, const address& mask) const noexcept;
    // In fe80::/64 (deliberately not the whole fe80::/10 block); never for IPv4.
    bool is_link_local() const noexcept;
    // Family first, then (IP) port, then the address bytes.
    int compare(const address& other) const noexcept;
    size_t hash(bool with_port) const noexcept;
    // "(invalid)", "192.168.1.1:53", "fe80::1.53" or the local path.
    std::string to_string(bool with_port) const;

    bool operator==(const address& other) const noexcept { return compare(other) == 0; }
    bool operator!=(const address& other) const noexcept { return compare(other) != 0; }
    bool operator<(const address& other) const noexcept { return compare(other) < 0; }

private:
    sockaddr_in& v4() noexcept { return reinterpret_cast<sockaddr_in&>(storage_); }
    const sockaddr_in& v4() const noexcept { return reinterpret_cast<const sockaddr_in&>(storage_); }
    sockaddr_in6& v6() noexcept { return reinterpret_cast<sockaddr_in6&>(storage_); }
    const sockaddr_in6& v6() const noexcept { return reinterpret_cast<const sockaddr_in6&>(storage_); }
    sockaddr_un& un() noexcept { return reinterpret_cast<sockaddr_un&>(storage_); }
    const sockaddr_un& un() const noexcept { return reinterpret_cast<const sockaddr_un&>(storage_); }

    sockaddr_storage storage_;
};

class KS_EXPORT macaddr {
public:
    macaddr() noexcept;
    explicit macaddr(const sockaddr_ll* sa) noexcept;
    explicit macaddr(const sockaddr_ll& sa) noexcept;
    // The six bytes at the view's position, if it has that many; otherwise zero.
    explicit macaddr(const ks::buffer_view& view) noexcept;
    explicit macaddr(ks::string_view text) noexcept;
    macaddr(const macaddr& other) noexcept = default;
    macaddr(macaddr&& other) noexcept;
    macaddr& operator=(const macaddr& other) noexcept = default;
    macaddr& operator=(macaddr&& other) noexcept;
    macaddr& operator=(const sockaddr_ll* sa) noexcept;
    macaddr& operator=(const sockaddr_ll& sa) noexcept;
    // Unchanged unless the view has six bytes at its position.
    macaddr& operator=(const ks::buffer_view& view) noexcept;

    operator sockaddr_ll() const noexcept;

    // Six two-digit hexadecimal groups of either case joined by ':', not all zero.
    static bool is_valid(ks::string_view text);
    // Leaves `out` unchanged when the text is not valid.
    static bool parse_str(ks::string_view text, macaddr& out);
    bool is_valid() const noexcept;
    operator bool() const noexcept { return is_valid(); }
    bool is_broadcast() const noexcept;
    // "0a:1b:2c:3d:4e:5f", or upper case.
    std::string to_string(bool upper = false) const;
    const uint8_t* bytes() const noexcept { return bytes_; }

    bool operator==(const macaddr& other) const noexcept;
    bool operator!=(const macaddr& other) const noexcept { return !(*this == other); }

private:
    uint8_t bytes_[6];
};

// Owns one socket descriptor; movable, not copyable.
class KS_EXPORT socket {
public:
    socket() noexcept = default;
    socket(network_proto l3, transport_type l4) noexcept;
    ~socket();
    socket(socket&& other) noexcept;
    socket& operator=(socket&& other) noexcept;
    socket(const socket&) = delete;
    socket& operator=(const socket&) = delete;

    void close() noexcept;
    network_proto l3() const noexcept { return l3_; }
    transport_type l4() const noexcept { return l4_; }
    int fd() const noexcept { return fd_; }
    bool is_listening() const noexcept { return listening_; }
    bool is_valid() const noexcept {
        return l3_ != network_proto::none && l4_ != transport_type::none && fd_ >= 0;
    }
    explicit operator bool() const noexcept { return is_valid(); }

    address local_addr() const noexcept;
    address remote_addr() const noexcept;
    bool bind(const address& addr) noexcept;
    bool listen() noexcept;
    bool connect(const address& addr) noexcept;
    socket accept() noexcept;

    // Sends the unread part of `data`; after n > 0 bytes `rest` views the bytes of `data`
    // after the first n counted from the view's start. Returns send's result.
    long send(const ks::buffer_view& data, ks::buffer_view& rest) noexcept;
    // Sends the unread part and advances the view past what went.
    long send(ks::buffer_view& data) noexcept;
    long send(const address& to, ks::buffer_view& data) noexcept;
    // One recv of at most len bytes into scratch, appended to out.
    long recv(ks::buffer& out, void* scratch, size_t len);
    // Receives until end of stream (the total) or EAGAIN (the total so far); another
    // failure, EINTR included, returns -1.
    long recv_all(ks::buffer& out, void* scratch, size_t len);
    long recv(address& from, ks::buffer& out, void* scratch, size_t len);
    bool set_blocking(bool blocking) noexcept;

private:
    socket(int fd, network_proto l3, transport_type l4) noexcept : fd_(fd), l3_(l3), l4_(l4) {}

    int fd_ = -1;
    network_proto l3_ = network_proto::none;
    transport_type l4_ = transport_type::none;
    bool listening_ = false;
};

// The Internet checksum: feed 16-bit words in machine order (pieces of even length but the
// last), then fold and complement.
KS_EXPORT unsigned inet_cksum_feed(unsigned sum, const void* data, int len) noexcept;
KS_EXPORT uint16_t inet_cksum_done(unsigned sum) noexcept;
KS_EXPORT uint16_t inet_cksum(const void* data, int len) noexcept;

}  // namespace ks::sockutl
