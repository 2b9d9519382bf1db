/// @file
/// A growable ring of bytes between a non-blocking socket (or pipe) and a protocol framed by
/// a delimiter character.
///
/// @code
///   ks::ConnectionBuffer in(ks::ConnectionBufferType::receive, "ctl");   // logs as [rb-ctl]
///   in.init(4096, 65536);
///   if (in.recv(sock, 0) > 0)
///       while (char* line = in.get('\n')) { handle(line); delete[] line; }
/// @endcode
///
/// @code
///   ks::ConnectionBuffer out(ks::ConnectionBufferType::send, "ctl");     // logs as [sb-ctl]
///   out.init(4096, 65536);
///   out.put(reply.data(), reply.size());    // may take less: put the rest again later
///   out.send(sock, MSG_NOSIGNAL);           // one contiguous run per call
/// @endcode
///
/// The storage doubles when a put or a receive finds it full, up to the maximum given to
/// init. Every operation on the contents holds the buffer's mutex for its whole run, the
/// descriptor call included, so a producer and a consumer may live on different threads.
#pragma once

#include <ksexport.h>

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace ks {

/// Which way a ConnectionBuffer carries bytes; it also names the buffer in log records.
enum class ConnectionBufferType : int { send = 0, receive = 1 };

/// A growable ring of bytes with a mutex, framed by a delimiter character (see the file
/// description for an example).
class KS_EXPORT ConnectionBuffer {
public:
    /// No storage yet: call init before use. `name` goes into the tag of every log record.
    ConnectionBuffer(ConnectionBufferType type, const std::string& name);
    ~ConnectionBuffer();
    /// Neither copied nor moved: another thread may hold the mutex. Own it through a
    /// std::unique_ptr where it has to change hands.
    ConnectionBuffer(const ConnectionBuffer&) = delete;
    ConnectionBuffer& operator=(const ConnectionBuffer&) = delete;

    /// Allocates `initial` bytes (not zero) that may grow by doubling while the capacity is
    /// below `maximum`. Only for a buffer without storage (new or uninit-ed). Not locked.
    bool init(size_t initial, size_t maximum);
    /// Frees the storage and forgets the contents. Not locked.
    void uninit();

    /// Appends up to `len` bytes and returns how many were taken. A full buffer grows first;
    /// otherwise a put that does not fit takes what fits, and the caller puts the rest again.
    /// 0 when the buffer is full at its maximum.
    size_t put(const void* data, size_t len);
    /// Takes the oldest message ending at `delimiter` and returns it NUL-terminated without
    /// the delimiter, allocated with new[] (release it with delete[]). Null when no complete
    /// message is held; nothing is consumed then.
    char* get(char delimiter);

    /// Drain one contiguous run of the held bytes into the descriptor: a wrapped buffer
    /// needs two calls. The descriptor's result: bytes sent, or -1 (contents unchanged,
    /// errno tells why); 0 on an empty buffer, without calling the descriptor.
    long send(int fd, int flags);
    /// send() with write(2), for descriptors that are not sockets.
    long write(int fd);
    /// Fill one contiguous run of free space from the descriptor. Bytes read, -1 on error
    /// (errno tells why), 0 at end of file or when the buffer is full at its maximum.
    long recv(int fd, int flags);
    /// recv() with read(2), for descriptors that are not sockets.
    long read(int fd);
    /// The same with any I/O function taking (pointer, length) and returning a count or -1.
    long send_or_write(std::function<long(char*, unsigned long)> io);
    /// recv() with any I/O function.
    long read_or_recv(std::function<long(char*, unsigned long)> io);

    /// Doubles the storage, keeping the contents in order; false at the maximum or when
    /// out of memory. The caller holds the mutex.
    bool double_size();

    ConnectionBufferType type;  ///< send or receive
    char* begin;  ///< first byte of the storage
    char* end;  ///< one past the last byte of the storage
    size_t capacity;  ///< bytes of storage
    size_t maximum;  ///< the capacity the storage may grow to
    size_t count;  ///< bytes held
    char* head;    ///< oldest byte
    char* tail;    ///< next byte to fill
    pthread_mutex_t mutex;  ///< held by every operation on the contents
    std::string tag;  ///< "[sb-NAME]" or "[rb-NAME]", the prefix of log records

private:
    // Owns the storage that begin .. end views.
    std::unique_ptr<char[]> storage_;
};

}  // namespace ks
