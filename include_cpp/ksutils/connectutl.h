/// @file
/// @brief Socket addresses, hardware addresses, an owning socket and the Internet checksum.
///
/// `address` is exactly a kernel sockaddr_storage whose family decides what it holds (IPv4,
/// IPv6 or a local socket path), so it passes to system calls as it is. Text forms have no
/// port syntax on input; on output an IPv6 port follows a dot ("fe80::1.53"), not brackets.
/// Nothing here logs or touches the thread's error record: results are bools, counts or
/// empty values, and a failed system call leaves errno as the call set it.
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

/// Socket addresses, hardware addresses and sockets.
namespace ks::sockutl {

/// The network protocol of an address or socket.
enum class network_proto : uint8_t { none = 0, ipv4 = 1, ipv6 = 2, local = 3 };
/// @var network_proto::none
/// No address (AF_UNSPEC).
/// @var network_proto::ipv4
/// IPv4 (AF_INET).
/// @var network_proto::ipv6
/// IPv6 (AF_INET6).
/// @var network_proto::local
/// A local socket path (AF_UNIX).

/// The transport of a socket.
enum class transport_type : uint8_t { none = 0, stream = 1, datagram = 2 };
/// @var transport_type::none
/// No socket.
/// @var transport_type::stream
/// SOCK_STREAM.
/// @var transport_type::datagram
/// SOCK_DGRAM.

/// An IPv4, IPv6 or local socket address, laid out as a kernel sockaddr_storage; ports are
/// given and returned in host order.
class KS_EXPORT address {
public:
    /// The empty address (protocol none).
    address() noexcept;
    /// Only the family: AF_INET, AF_INET6, AF_UNIX, or AF_UNSPEC for none.
    explicit address(network_proto proto) noexcept;
    /// A copy of a kernel IPv4 address.
    explicit address(const sockaddr_in& sa) noexcept;
    /// A copy of a kernel IPv6 address.
    explicit address(const sockaddr_in6& sa) noexcept;
    /// A copy of a kernel local socket address.
    explicit address(const sockaddr_un& sa) noexcept;
    /// An IPv4 address and port.
    address(const in_addr& a, unsigned short port) noexcept;
    /// An IPv6 address and port.
    address(const in6_addr& a, unsigned short port) noexcept;
    /// The address parse_addr() reads from `text` (empty when it reads none).
    explicit address(ks::string_view text) noexcept;
    /// The address parse_addr() reads from `text`, with `port`.
    address(ks::string_view text, unsigned short port) noexcept;
    /// The netmask of a prefix length: 24 for ipv4 is 255.255.255.0; too long gives all ones.
    address(unsigned char prefix, network_proto proto) noexcept;
    /// A copy of `other`.
    address(const address& other) noexcept;
    /// Takes `other`'s address, leaving it empty.
    address(address&& other) noexcept;
    /// Copies `other`.
    address& operator=(const address& other) noexcept;
    /// Takes `other`'s address, leaving it empty.
    address& operator=(address&& other) noexcept;

    /// Parses an IPv4 or IPv6 address without port, or a local path starting with '/';
    /// returns whether `out` became valid.
    static bool parse_addr(ks::string_view text, address& out) noexcept;
    /// parse_addr(ks::string_view, address&), then sets the port (ignored for a local path).
    static bool parse_addr(ks::string_view text, unsigned short port, address& out) noexcept;

    /// Copies a kernel address of family AF_INET, AF_INET6 or AF_UNIX; any other empties it.
    address& operator=(const sockaddr* sa) noexcept;
    /// Sets the port of an IPv4 or IPv6 address; no effect on others.
    address& operator=(unsigned short port) noexcept;
    /// Sets the port of an IPv4 or IPv6 address; no effect on others.
    void port(unsigned short port) noexcept;
    /// The port of an IPv4 or IPv6 address; 0 for others.
    unsigned short port() const noexcept;

    /// The protocol, from the family.
    network_proto proto() const noexcept;
    /// The protocol, as proto() gives it.
    operator network_proto() const noexcept { return proto(); }
    /// The raw family value (AF_INET, ...).
    int af() const noexcept { return storage_.ss_family; }
    /// True unless the protocol is none.
    bool is_valid() const noexcept { return proto() != network_proto::none; }
    /// True for an IPv4 address.
    bool is_v4() const noexcept { return proto() == network_proto::ipv4; }
    /// True for an IPv6 address.
    bool is_v6() const noexcept { return proto() == network_proto::ipv6; }
    /// True for an IPv4 or IPv6 address.
    bool is_v4_or_v6() const noexcept { return is_v4() || is_v6(); }

    /// The kernel address, for system calls.
    operator sockaddr*() noexcept { return reinterpret_cast<sockaddr*>(&storage_); }
    /// The kernel address, for system calls.
    operator const sockaddr*() const noexcept { return reinterpret_cast<const sockaddr*>(&storage_); }
    /// The length system calls take: 16 (IPv4), 28 (IPv6), 110 (local), else 128.
    operator unsigned int() const noexcept;

    /// The IPv4 address, host order unless network_order.
    uint32_t to_binary(bool network_order) const noexcept;
    /// Leading one bits of a mask; 0 for protocols other than IPv4 and IPv6.
    unsigned char to_prefix() const noexcept;
    /// The network part of this address under the netmask of `prefix`, port 0; empty unless
    /// this is an IPv4 or IPv6 address.
    address to_subnet(unsigned char prefix) const noexcept;
    /// True for an IPv4 or IPv6 netmask: one bits, then only zero bits.
    bool is_netmask() const noexcept;
    /// True when this address, `subnet` and `mask` have one protocol (IPv4 or IPv6) and this
    /// address lies in `subnet` under `mask`.
    bool is_in_subnet(const address& subnet, const address& mask) const noexcept;
    /// In fe80::/64 (deliberately not the whole fe80::/10 block); never for IPv4.
    bool is_link_local() const noexcept;
    /// Family first, then (IP) port, then the address bytes.
    int compare(const address& other) const noexcept;
    /// A hash of the address, and of the port with `with_port`.
    size_t hash(bool with_port) const noexcept;
    /// "(invalid)", "192.168.1.1:53", "fe80::1.53" or the local path.
    std::string to_string(bool with_port) const;

    /// Equal under compare().
    bool operator==(const address& other) const noexcept { return compare(other) == 0; }
    /// Different under compare().
    bool operator!=(const address& other) const noexcept { return compare(other) != 0; }
    /// Ordered by compare().
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

/// A six-byte hardware (MAC) address; all zero is the invalid address.
class KS_EXPORT macaddr {
public:
    /// The all-zero (invalid) address.
    macaddr() noexcept;
    /// The six bytes of a link-layer address; zero for a null pointer.
    explicit macaddr(const sockaddr_ll* sa) noexcept;
    /// The six bytes of a link-layer address.
    explicit macaddr(const sockaddr_ll& sa) noexcept;
    /// The six bytes at the view's position, if it has that many; otherwise zero.
    explicit macaddr(const ks::buffer_view& view) noexcept;
    /// The address parse_str() reads from `text`; zero when the text is not valid.
    explicit macaddr(ks::string_view text) noexcept;
    /// A copy of `other`.
    macaddr(const macaddr& other) noexcept = default;
    /// Takes `other`'s bytes, leaving it zero.
    macaddr(macaddr&& other) noexcept;
    /// Copies `other`.
    macaddr& operator=(const macaddr& other) noexcept = default;
    /// Takes `other`'s bytes, leaving it zero.
    macaddr& operator=(macaddr&& other) noexcept;
    /// Takes the six bytes of a link-layer address; a null pointer leaves it unchanged.
    macaddr& operator=(const sockaddr_ll* sa) noexcept;
    /// Takes the six bytes of a link-layer address.
    macaddr& operator=(const sockaddr_ll& sa) noexcept;
    /// Unchanged unless the view has six bytes at its position.
    macaddr& operator=(const ks::buffer_view& view) noexcept;

    /// A link-layer address: family AF_PACKET, length 6, these bytes, every other field zero.
    operator sockaddr_ll() const noexcept;

    /// Six two-digit hexadecimal groups of either case joined by ':', not all zero.
    static bool is_valid(ks::string_view text);
    /// Reads `text` into `out` and returns whether `out` is valid.
    /// Leaves `out` unchanged when the text is not valid.
    static bool parse_str(ks::string_view text, macaddr& out);
    /// True unless all six bytes are zero.
    bool is_valid() const noexcept;
    /// As is_valid().
    operator bool() const noexcept { return is_valid(); }
    /// True when all six bytes are 0xff.
    bool is_broadcast() const noexcept;
    /// "0a:1b:2c:3d:4e:5f", or upper case.
    std::string to_string(bool upper = false) const;
    /// The six bytes.
    const uint8_t* bytes() const noexcept { return bytes_; }

    /// Equal when the six bytes are.
    bool operator==(const macaddr& other) const noexcept;
    /// Different when any byte is.
    bool operator!=(const macaddr& other) const noexcept { return !(*this == other); }

private:
    uint8_t bytes_[6];
};

/// Owns one socket descriptor; movable, not copyable.
class KS_EXPORT socket {
public:
    /// No socket.
    socket() noexcept = default;
    /// A new socket of that protocol and transport (blocking, no flags); invalid when the
    /// kernel refuses it.
    socket(network_proto l3, transport_type l4) noexcept;
    /// Closes the socket.
    ~socket();
    /// Takes `other`'s socket.
    socket(socket&& other) noexcept;
    /// Closes this socket and takes `other`'s.
    socket& operator=(socket&& other) noexcept;
    socket(const socket&) = delete;
    socket& operator=(const socket&) = delete;

    /// Shuts the socket down and closes it; no effect when there is none.
    void close() noexcept;
    /// The network protocol.
    network_proto l3() const noexcept { return l3_; }
    /// The transport.
    transport_type l4() const noexcept { return l4_; }
    /// The descriptor, or -1.
    int fd() const noexcept { return fd_; }
    /// True after listen().
    bool is_listening() const noexcept { return listening_; }
    /// True when the socket has a protocol, a transport and a descriptor.
    bool is_valid() const noexcept {
        return l3_ != network_proto::none && l4_ != transport_type::none && fd_ >= 0;
    }
    /// As is_valid().
    explicit operator bool() const noexcept { return is_valid(); }

    /// The local address (getsockname); empty on failure.
    address local_addr() const noexcept;
    /// The peer's address (getpeername); empty on failure.
    address remote_addr() const noexcept;
    /// Binds to `addr` (of the socket's protocol) with SO_REUSEADDR set.
    bool bind(const address& addr) noexcept;
    /// Listens with a backlog of 128.
    bool listen() noexcept;
    /// Connects to `addr`; false when its protocol is not the socket's.
    bool connect(const address& addr) noexcept;
    /// The next connection on a listening socket; an invalid socket on failure.
    socket accept() noexcept;

    /// Sends the unread part of `data`; after n > 0 bytes `rest` views the bytes of `data`
    /// after the first n counted from the view's start. Returns send's result.
    long send(const ks::buffer_view& data, ks::buffer_view& rest) noexcept;
    /// Sends the unread part and advances the view past what went.
    long send(ks::buffer_view& data) noexcept;
    /// Sends the unread part to `to` (sendto) and advances the view past what went.
    long send(const address& to, ks::buffer_view& data) noexcept;
    /// One recv of at most len bytes into scratch, appended to out.
    long recv(ks::buffer& out, void* scratch, size_t len);
    /// Receives until end of stream (the total) or EAGAIN (the total so far); another
    /// failure, EINTR included, returns -1.
    long recv_all(ks::buffer& out, void* scratch, size_t len);
    /// One recvfrom of at most len bytes into scratch, appended to out; `from` gets the sender.
    long recv(address& from, ks::buffer& out, void* scratch, size_t len);
    /// Sets the socket blocking or non-blocking; false for an invalid socket or on failure.
    bool set_blocking(bool blocking) noexcept;

private:
    socket(int fd, network_proto l3, transport_type l4) noexcept : fd_(fd), l3_(l3), l4_(l4) {}

    int fd_ = -1;
    network_proto l3_ = network_proto::none;
    transport_type l4_ = transport_type::none;
    bool listening_ = false;
};

/// @name The Internet checksum
/// Feed 16-bit words in machine order (pieces of even length but the
/// last), then fold and complement.
/// @{

/// Adds `len` bytes of `data` to the running `sum` (start with 0).
KS_EXPORT unsigned inet_cksum_feed(unsigned sum, const void* data, int len) noexcept;
/// Folds and complements a running sum into the checksum.
KS_EXPORT uint16_t inet_cksum_done(unsigned sum) noexcept;
/// The checksum of `len` bytes of `data` in one piece.
KS_EXPORT uint16_t inet_cksum(const void* data, int len) noexcept;
/// @}

}  // namespace ks::sockutl
