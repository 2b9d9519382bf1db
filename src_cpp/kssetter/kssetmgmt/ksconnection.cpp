// The client end of the settings socket: framing into a reusable buffer, whole sends,
// fixed-length receives, and the rules for a server that goes away mid-request. While the
// thread holds the settings lock a lost connection is reported as such, because the lock
// went with it.
#include <kssetter/ksconnection.h>

#include "kssetter/kssetmgmt/protocol.h"
#include "kssetter/kssetmgmt/setmgmt_private.h"
#include "kssys.h"

#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <utility>

namespace ks {
namespace setMgmt {

namespace {

constexpr uint64_t kInitialCapacity = 4096;

// The socket address is derived from the install root once per process.
const sockaddr_un& serverAddress() {
    static sockaddr_un address;
    static std::once_flag once;
    std::call_once(once, [] {
        std::memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        const path socketPath(common_path::run, setter::kSocketName);
        const size_t n = std::min(socketPath.size(), sizeof address.sun_path - 1);
        std::memcpy(address.sun_path, socketPath.c_str(), n);
    });
    return address;
}

}  // namespace

Connection::~Connection() { reset(); }

Connection::Connection(Connection&& other) noexcept
    : fd(std::exchange(other.fd, -1)),
      buffer(std::move(other.buffer)),
      capacity(std::exchange(other.capacity, 0)),
      lockHeld(std::exchange(other.lockHeld, false)) {}

Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        reset();
        fd = std::exchange(other.fd, -1);
        buffer = std::move(other.buffer);
        capacity = std::exchange(other.capacity, 0);
        lockHeld = std::exchange(other.lockHeld, false);
    }
    return *this;
}

int Connection::init() {
    if (isUp()) return 0;
    reset();
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        _get_kserrno().set(E_SYSTEM);
        KSLOG_INFO(_log_channel(), "Failed to connect to kssetter");
        return -1;
    }
    const sockaddr_un& address = serverAddress();
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        _get_kserrno().set(E_SYSTEM);
        reset();
        KSLOG_INFO(_log_channel(), "Failed to connect to kssetter");
        return -1;
    }
    KSLOG_DEBUG(_log_channel(), "Successfully connected to kssetter.");
    if (!buffer) {
        buffer.reset(new (std::nothrow) unsigned char[kInitialCapacity]);
        capacity = buffer ? kInitialCapacity : 0;
    }
    return 0;
}

bool Connection::isUp() {
    if (fd < 1) return false;
    unsigned char byte;
    const ssize_t n = sys::recv_some(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0 || (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))) return true;
    KSLOG_INFO(_log_channel(), "Connection with kssetter seems down...");
    reset();
    return false;
}

void Connection::reset() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool Connection::resizeBuffer(unsigned long length) {
    const uint64_t newCapacity = std::max<uint64_t>(capacity * 2, length);
    unsigned char* grown = new (std::nothrow) unsigned char[newCapacity];
    if (!grown) {
        errno = ENOMEM;
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    buffer.reset(grown);
    capacity = newCapacity;
    KSLOG_INFO(_log_channel(), "Increased buffer size to {:d} for socket {:d}", capacity, fd);
    return true;
}

int64_t Connection::setCmdIntro(setter::CmdType cmd, unsigned long bodyLength) {
    // The server hangs up on a larger announced body without reading it, which would reach
    // the caller as a broken pipe on a lost connection. Refused here instead, before a byte
    // goes out, so that the connection serves the next request.
    if (bodyLength > setter::kMaxBodyLength) {
        _get_kserrno().set(E_INVAL, "Request of {:d} bytes exceeds the server's limit of {:d} bytes",
                           static_cast<uint64_t>(bodyLength), setter::kMaxBodyLength);
        return -1;
    }
    const uint64_t total = setter::kHeaderSize + bodyLength;
    if (total > capacity && !resizeBuffer(total)) return -1;
    setter::encodeHeader(buffer.get(), cmd, bodyLength);
    return static_cast<int64_t>(setter::kHeaderSize);
}

int64_t Connection::setCmdIntroAndKey(setter::CmdType cmd, const std::string& key, bool withLockByte) {
    const uint64_t bodyLength = setter::keyBodySize(key, withLockByte);
    const int64_t offset = setCmdIntro(cmd, bodyLength);
    if (offset < 0) return -1;
    setter::encodeKeyBody(buffer.get() + offset, key, withLockByte, lockHeld);
    return offset + static_cast<int64_t>(bodyLength);
}

void Connection::fillBuffer(unsigned long offset, const unsigned char* data, unsigned long length) {
    if (length) std::memcpy(buffer.get() + offset, data, length);
}

int64_t Connection::failIo(bool resetOnError) {
    if (resetOnError) reset();
    if (lockHeld) _get_kserrno().set(E_DISCONNECTED, "Can't communicate with server");
    return -1;
}

int64_t Connection::send(const unsigned char* data, unsigned long length, bool resetOnError) {
    if (!sys::send_full(fd, data, length)) {
        _get_kserrno().set(E_SYSTEM);
        return failIo(resetOnError);
    }
    return static_cast<int64_t>(length);
}

int64_t Connection::send(unsigned long length, bool resetOnError) { return send(buffer.get(), length, resetOnError); }

int64_t Connection::recv(unsigned char* out, unsigned long length, bool resetOnError, bool blocking) {
    if (blocking) return recvAtLeast(out, length, length, resetOnError);
    const ssize_t got = sys::recv_full(fd, out, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    // A short count: nothing more was waiting (EAGAIN), or the peer closed the socket.
    if (got == static_cast<ssize_t>(length) || (got >= 0 && errno == EAGAIN)) return got;
    if (got >= 0) _get_kserrno().set(E_FAULT, "Peer has closed socket");
    else _get_kserrno().set(E_SYSTEM);
    return failIo(resetOnError);
}

namespace {

// A reply from a server that is not waiting for the disk arrives microseconds after the
// request: less than a sleep and wake-up of the waiting thread cost. So a thread whose last
// reply came that quickly polls for the next one for a short while, yielding the processor
// between tries (to the server itself, on a small machine), before it sleeps; one whose
// replies keep it waiting longer (a durable write, a loaded machine) sleeps at once.
constexpr auto kReplyPoll = std::chrono::microseconds(50);
thread_local bool t_repliesComeQuickly = true;

}  // namespace

int64_t Connection::recvAtLeast(unsigned char* out, unsigned long least, unsigned long most, bool resetOnError) {
    using Clock = std::chrono::steady_clock;
    unsigned long got = 0;
    const Clock::time_point start = Clock::now();
    if (t_repliesComeQuickly) {
        while (got < least) {
            const ssize_t n = sys::recv_some(fd, out + got, most - got, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                got += static_cast<unsigned long>(n);
                continue;
            }
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) break;
            if (Clock::now() - start > kReplyPoll) break;
            sched_yield();
        }
        if (got >= least) {
            // A yield that let other work run for long does not make the reply quick.
            t_repliesComeQuickly = Clock::now() - start <= kReplyPoll;
            return static_cast<int64_t>(got);
        }
    }
    while (got < least) {
        const ssize_t n = sys::recv_some(fd, out + got, most - got, MSG_NOSIGNAL);
        if (n > 0) {
            got += static_cast<unsigned long>(n);
            continue;
        }
        if (n == 0) _get_kserrno().set(E_FAULT, "Peer has closed socket");
        else _get_kserrno().set(E_SYSTEM);
        return failIo(resetOnError);
    }
    t_repliesComeQuickly = Clock::now() - start <= 2 * kReplyPoll;
    return static_cast<int64_t>(got);
}

int64_t Connection::recv(unsigned long length, bool resetOnError, bool blocking) {
    if (length > capacity && !resizeBuffer(length)) return -1;
    return recv(buffer.get(), length, resetOnError, blocking);
}

bool Connection::inputDataAvailable(int timeoutMs) {
    if (fd < 0) {
        // poll() would ignore the descriptor and wait out the whole time-out.
        errno = EBADF;
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    pollfd p{fd, POLLIN, 0};
    const int n = sys::poll_events(&p, 1, timeoutMs);
    if (n < 0) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    if (n == 0) {
        _get_kserrno().set(E_TIMEDOUT);
        return false;
    }
    if (p.revents != POLLIN) {
        _get_kserrno().set(E_FAULT, "revents = {:d}", static_cast<int>(p.revents));
        return false;
    }
    return true;
}

void Connection::setErrno(int64_t result) {
    switch (result) {
        case setter::kResultKeyNotFound: _get_kserrno().set(E_INVAL, "Key not found"); break;
        case setter::kResultOutOfMemory: _get_kserrno().set(E_FAULT, "Out of memory"); break;
        case setter::kResultParseError: _get_kserrno().set(E_FAULT, "Failed to parse data"); break;
        case setter::kResultInvalidOperation: _get_kserrno().set(E_INVAL, "Invalid operation"); break;
        case setter::kResultLockLost: _get_kserrno().set(E_DISCONNECTED); break;
        default:
            if (result <= setter::kResultSystemError && result >= setter::kResultSystemError - setter::kMaxReportedErrno) {
                errno = static_cast<int>(setter::kResultSystemError - result);
                _get_kserrno().set(E_SYSTEM);
            }
            break;  // other codes without a meaning leave the error as it was
    }
}

}  // namespace setMgmt
}  // namespace ks
