/// @file
/// @brief One stream socket to the settings server with its request buffer.
///
/// A Connection frames requests into a buffer that only grows (so steady traffic allocates
/// nothing), sends them whole, receives replies of known length, and turns the server's
/// negative results into the thread's error record. It is used by one thread at a time:
/// the client API keeps one per thread, each notification handle owns one.
#pragma once

#include <ksexport.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ks {
/// The settings server's wire protocol.
namespace setter {

/// The request codes of the settings protocol. Key requests carry a lock byte (whether the
/// sender holds the settings lock) before the key unless noted.
enum CmdType : uint32_t {
    CMD_SET = 1,
    CMD_GET = 2,
    CMD_DELETE = 3,
    CMD_STAT = 4,
    CMD_ENUM = 5,
    CMD_NOTIFY = 6,
    CMD_NOTIFY_KEYS = 7,
    CMD_NOTIFY_END = 8,
    CMD_DEBUG_INFO = 9,
    CMD_LOCK = 10,
    CMD_UNLOCK = 11,
};
/// @var CMD_SET
/// Sets a key: the key with its NUL, the 32-bit value type, the value bytes.
/// @var CMD_GET
/// Gets a key's value; the reply's result is the number of value bytes that follow.
/// @var CMD_DELETE
/// Deletes a key.
/// @var CMD_STAT
/// A key's type and size; a ks::storage::NodeInfo follows the reply's result.
/// @var CMD_ENUM
/// A key's child names, each ended by a NUL; the result is the number of bytes that follow.
/// @var CMD_NOTIFY
/// Subscribes to changes of a key (no lock byte): one notification per change.
/// @var CMD_NOTIFY_KEYS
/// Subscribes to changes of a key (no lock byte), each notification naming the changed key.
/// @var CMD_NOTIFY_END
/// Ends a notification stream (header only; no reply).
/// @var CMD_DEBUG_INFO
/// The server's ks::storage::DebugInfo record (no body).
/// @var CMD_LOCK
/// Takes the settings lock on a key (no lock byte); waits while another connection holds it.
/// @var CMD_UNLOCK
/// Releases the settings lock.

}  // namespace setter

namespace setMgmt {

/// One stream socket to the settings server with its request buffer (see the file's
/// description).
class KS_EXPORT Connection {
public:
    /// Not connected, no buffer.
    Connection() = default;
    /// Closes the socket.
    ~Connection();
    /// Takes `other`'s socket and buffer, leaving it unconnected.
    Connection(Connection&& other) noexcept;
    /// Closes this socket and takes `other`'s socket and buffer.
    Connection& operator=(Connection&& other) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Connects to the server's socket unless already up; 0 or -1 (E_SYSTEM).
    int init();
    /// Peeks without waiting; a closed peer or a socket error closes the socket.
    bool isUp();
    /// Closes the socket; the buffer stays.
    void reset();

    /// @name Frame building
    /// Each returns the number of bytes written to the buffer, or -1.
    /// @{

    /// Writes the header of a request with a body of `bodyLength` bytes, growing the buffer
    /// for the whole frame; a body over the server's limit is refused (E_INVAL).
    int64_t setCmdIntro(setter::CmdType cmd, unsigned long bodyLength);
    /// Writes the header and a key body: the lock byte (lockHeld) when asked, then the key.
    int64_t setCmdIntroAndKey(setter::CmdType cmd, const std::string& key, bool withLockByte);
    /// @}
    /// Copies `length` bytes of `data` into the buffer at `offset` (the frame must fit).
    void fillBuffer(unsigned long offset, const unsigned char* data, unsigned long length);
    /// Grows to max(2 * capacity, length); the old contents are dropped.
    bool resizeBuffer(unsigned long length);

    /// Sends all `length` bytes of `data`: `length`, or -1 (E_SYSTEM; E_DISCONNECTED while
    /// the lock is held), closing the socket first with `resetOnError`.
    int64_t send(const unsigned char* data, unsigned long length, bool resetOnError);
    /// Sends the first `length` bytes of the buffer, as the form above does.
    int64_t send(unsigned long length, bool resetOnError);
    /// Blocking: all `length` bytes or -1. Non-blocking: what was there, or -1.
    /// A closed peer is E_FAULT; with `resetOnError` a failure closes the socket.
    int64_t recv(unsigned char* out, unsigned long length, bool resetOnError, bool blocking);
    /// Receives into the buffer (grown to `length` if needed), as the form above does.
    int64_t recv(unsigned long length, bool resetOnError, bool blocking);
    /// Blocking: at least `least` and at most `most` bytes (whatever has arrived by then),
    /// or -1 with the errors of recv().
    int64_t recvAtLeast(unsigned char* out, unsigned long least, unsigned long most, bool resetOnError);

    /// Waits up to `timeoutMs` (negative: no limit) for something to read; false on time-out
    /// (E_TIMEDOUT) or failure.
    bool inputDataAvailable(int timeoutMs);

    /// Maps a negative server result to the thread's error record.
    static void setErrno(int64_t result);

    /// The socket, or -1 when not connected.
    int fd = -1;
    /// The request (and reply) buffer; it only grows.
    std::unique_ptr<unsigned char[]> buffer;
    /// Size of the buffer in bytes.
    uint64_t capacity = 0;
    /// Whether this connection holds the settings lock (sent as the lock byte).
    bool lockHeld = false;

private:
    int64_t failIo(bool resetOnError);
};

}  // namespace setMgmt
}  // namespace ks
