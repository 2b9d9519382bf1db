// One stream socket to the settings server with its request buffer.
//
// A Connection frames requests into a buffer that only grows (so steady traffic allocates
// nothing), sends them whole, receives replies of known length, and turns the server's
// negative results into the thread's error record. It is used by one thread at a time:
// the client API keeps one per thread, each notification handle owns one.
#pragma once

#include <ksexport.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ks {
namespace setter {

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

}  // namespace setter

namespace setMgmt {

class KS_EXPORT Connection {
public:
    Connection() = default;
    ~Connection();
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Connects to the server's socket unless already up; 0 or -1 (E_SYSTEM).
    int init();
    // Peeks without waiting; a closed peer or a socket error closes the socket.
    bool isUp();
    void reset();

    // Frame building: each returns the number of bytes written to the buffer, or -1.
    int64_t setCmdIntro(setter::CmdType cmd, unsigned long bodyLength);
    int64_t setCmdIntroAndKey(setter::CmdType cmd, const std::string& key, bool withLockByte);
    void fillBuffer(unsigned long offset, const unsigned char* data, unsigned long length);
    // Grows to max(2 * capacity, length); the old contents are dropped.
    bool resizeBuffer(unsigned long length);

    int64_t send(const unsigned char* data, unsigned long length, bool resetOnError);
    int64_t send(unsigned long length, bool resetOnError);
    // Blocking: all `length` bytes or -1. Non-blocking: what was there, or -1.
    int64_t recv(unsigned char* out, unsigned long length, bool resetOnError, bool blocking);
    int64_t recv(unsigned long length, bool resetOnError, bool blocking);
    // Blocking: at least `least` and at most `most` bytes (what has arrived), or -1.
    int64_t recvAtLeast(unsigned char* out, unsigned long least, unsigned long most, bool resetOnError);

    bool inputDataAvailable(int timeoutMs);

    // Maps a negative server result to the thread's error record.
    static void setErrno(int64_t result);

    int fd = -1;
    std::unique_ptr<unsigned char[]> buffer;
    uint64_t capacity = 0;
    bool lockHeld = false;

private:
    int64_t failIo(bool resetOnError);
};

}  // namespace setMgmt
}  // namespace ks
