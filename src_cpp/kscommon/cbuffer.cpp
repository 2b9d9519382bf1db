// The connection buffer: a ring of bytes that doubles when full, up to a maximum.
//
// The ring never moves data except when it grows, so a put, a get or a descriptor call
// touches at most two contiguous runs. Emptiness and fullness both look like head == tail
// and are told apart by `count` alone. Every log record starts with the buffer's tag so the
// records of many connections in one daemon can be told apart.
#include <ksutils/cbuffer.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;

class MutexLock {
public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) {
        const int rc = pthread_mutex_lock(&mutex_);
        if (rc != 0) throw std::system_error(rc, std::generic_category(), "pthread_mutex_lock");
    }
    ~MutexLock() { pthread_mutex_unlock(&mutex_); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    pthread_mutex_t& mutex_;
};

std::string make_tag(ConnectionBufferType type, const std::string& name) {
    const char* letter = type == ConnectionBufferType::send ? "s" : type == ConnectionBufferType::receive ? "r" : "";
    return "[" + std::string(letter) + "b-" + name + "]";
}

}  // namespace

ConnectionBuffer::ConnectionBuffer(ConnectionBufferType t, const std::string& name)
    : type(t),
      begin(nullptr),
      end(nullptr),
      capacity(0),
      maximum(0),
      count(0),
      head(nullptr),
      tail(nullptr),
      mutex(PTHREAD_MUTEX_INITIALIZER),
      tag(make_tag(t, name)) {}

ConnectionBuffer::~ConnectionBuffer() { pthread_mutex_destroy(&mutex); }

bool ConnectionBuffer::init(size_t initial, size_t max) {
    if (begin != nullptr) {
        KSLOG_ERROR(kChannel, "BUG: {:s} connection buffer is already initialised", tag);
        _get_kserrno().set(E_INVAL, "{:s} connection buffer is already initialised", tag);
        return false;
    }
    if (initial == 0) {
        // An empty ring could never grow by doubling.
        KSLOG_ERROR(kChannel, "BUG: {:s} connection buffer needs a non-zero initial size", tag);
        _get_kserrno().set(E_INVAL, "{:s} connection buffer needs a non-zero initial size", tag);
        return false;
    }
    storage_.reset(new (std::nothrow) char[initial]);
    if (storage_ == nullptr) {
        KSLOG_ERROR(kChannel, "{:s} failed to allocate connection buffer", tag);
        return false;
    }
    begin = head = tail = storage_.get();
    end = begin + initial;
    capacity = initial;
    maximum = max;
    return true;
}

void ConnectionBuffer::uninit() {
    storage_.reset();
    begin = end = head = tail = nullptr;
    capacity = maximum = count = 0;
}

bool ConnectionBuffer::double_size() {
    if (capacity >= maximum) {
        KSLOG_ERROR(kChannel, "{:s} cannot exceed maximum capacity of connection buffer", tag);
        return false;
    }
    // The limit is checked before doubling and the new size is not clipped to it.
    std::unique_ptr<char[]> grown(capacity <= SIZE_MAX / 2 ? new (std::nothrow) char[capacity * 2] : nullptr);
    if (grown == nullptr) {
        KSLOG_ERROR(kChannel, "{:s} failed to reallocate connection buffer", tag);
        return false;
    }
    if (count != 0) {
        if (head >= tail) {
            const size_t first = static_cast<size_t>(end - head);
            std::memcpy(grown.get(), head, first);
            std::memcpy(grown.get() + first, begin, static_cast<size_t>(tail - begin));
        } else {
            std::memcpy(grown.get(), head, count);
        }
    }
    storage_ = std::move(grown);
    begin = head = storage_.get();
    tail = begin + count;
    capacity *= 2;
    end = begin + capacity;
    KSLOG_TRACE(kChannel, "{:s} count = {:d}, new capacity = {:d}", tag, count, capacity);
    return true;
}

size_t ConnectionBuffer::put(const void* data, size_t len) {
    MutexLock lock(mutex);
    if (count == capacity) {
        KSLOG_TRACE(kChannel, "{:s} put on full connection buffer", tag);
        if (!double_size()) return 0;
    }
    const size_t n = std::min(len, capacity - count);
    const char* src = static_cast<const char*>(data);
    if (n != 0) {
        if (head <= tail) {
            const size_t first = std::min(n, static_cast<size_t>(end - tail));
            std::memcpy(tail, src, first);
            tail += first;
            if (tail == end) tail = begin;
            if (n > first) {
                std::memcpy(tail, src + first, n - first);
                tail += n - first;
            }
        } else {
            std::memcpy(tail, src, n);
            tail += n;
        }
    }
    count += n;
    KSLOG_TRACE(kChannel, "{:s} put {:d} bytes, new count = {:d}, capacity = {:d}", tag, n, count, capacity);
    return n;
}

char* ConnectionBuffer::get(char delimiter) {
    MutexLock lock(mutex);
    if (count == 0) {
        KSLOG_TRACE(kChannel, "{:s} get on empty connection buffer", tag);
        return nullptr;
    }
    size_t length;  // bytes before the delimiter
    if (head < tail) {
        auto* found = static_cast<char*>(std::memchr(head, delimiter, static_cast<size_t>(tail - head)));
        if (found == nullptr) return nullptr;
        length = static_cast<size_t>(found - head);
    } else {
        const size_t first = static_cast<size_t>(end - head);
        auto* found = static_cast<char*>(std::memchr(head, delimiter, first));
        if (found != nullptr) {
            length = static_cast<size_t>(found - head);
        } else {
            found = static_cast<char*>(std::memchr(begin, delimiter, static_cast<size_t>(tail - begin)));
            if (found == nullptr) return nullptr;
            length = first + static_cast<size_t>(found - begin);
        }
    }
    char* message = new (std::nothrow) char[length + 1];
    if (message == nullptr) {
        KSLOG_ERROR(kChannel, "{:s} failed to allocate message buffer", tag);
        return nullptr;
    }
    const size_t first = std::min(length, static_cast<size_t>(end - head));
    std::memcpy(message, head, first);
    std::memcpy(message + first, begin, length - first);
    message[length] = '\0';
    head = begin + (static_cast<size_t>(head - begin) + length + 1) % capacity;
    count -= length + 1;
    if (length != 0)
        KSLOG_TRACE(kChannel, "{:s} get {:d} bytes, new count = {:d}, capacity = {:d}", tag, length + 1, count,
                    capacity);
    return message;
}

long ConnectionBuffer::send_or_write(std::function<long(char*, unsigned long)> io) {
    MutexLock lock(mutex);
    if (count == 0) {
        KSLOG_TRACE(kChannel, "{:s} send on empty connection buffer", tag);
        return 0;
    }
    const size_t run = head < tail ? static_cast<size_t>(tail - head) : static_cast<size_t>(end - head);
    const long sent = io(head, run);
    if (sent < 0 || static_cast<unsigned long>(sent) > run) {
        const int saved = errno;
        if (sent >= 0) KSLOG_ERROR(kChannel, "BUG: {:s} sent {:d} of {:d} bytes", tag, sent, run);
        KSLOG_ERROR(kChannel, "{:s} failed to send", tag);
        errno = saved;
        return -1;
    }
    count -= static_cast<size_t>(sent);
    head += sent;
    if (head == end) head = begin;
    KSLOG_TRACE(kChannel, "{:s} sent {:d} bytes, new count = {:d}, capacity = {:d}", tag, sent, count, capacity);
    return sent;
}

long ConnectionBuffer::read_or_recv(std::function<long(char*, unsigned long)> io) {
    MutexLock lock(mutex);
    if (count == capacity) {
        KSLOG_TRACE(kChannel, "{:s} recv on full connection buffer", tag);
        if (!double_size()) return 0;
    }
    const size_t run = head <= tail ? static_cast<size_t>(end - tail) : static_cast<size_t>(head - tail);
    const long received = io(tail, run);
    if (received < 0 || static_cast<unsigned long>(received) > run) {
        const int saved = errno;
        if (received >= 0) KSLOG_ERROR(kChannel, "BUG: {:s} received {:d} into {:d} bytes", tag, received, run);
        KSLOG_ERROR(kChannel, "{:s} failed to recv", tag);
        errno = saved;
        return -1;
    }
    if (received == 0) {
        const int saved = errno;
        KSLOG_INFO(kChannel, "{:s} connection closed by peer", tag);
        errno = saved;
        return 0;
    }
    count += static_cast<size_t>(received);
    tail += received;
    if (tail == end) tail = begin;
    KSLOG_TRACE(kChannel, "{:s} recv {:d} bytes, new count = {:d}, capacity = {:d}", tag, received, count,
                capacity);
    return received;
}

long ConnectionBuffer::send(int fd, int flags) {
    return send_or_write([fd, flags](char* p, unsigned long n) -> long { return ::send(fd, p, n, flags); });
}

long ConnectionBuffer::write(int fd) {
    return send_or_write([fd](char* p, unsigned long n) -> long { return ::write(fd, p, n); });
}

long ConnectionBuffer::recv(int fd, int flags) {
    return read_or_recv([fd, flags](char* p, unsigned long n) -> long { return ::recv(fd, p, n, flags); });
}

long ConnectionBuffer::read(int fd) {
    return read_or_recv([fd](char* p, unsigned long n) -> long { return ::read(fd, p, n); });
}

}  // namespace ks
