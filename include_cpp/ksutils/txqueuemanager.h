/// @file
/// Non-blocking transmission to many sockets: a caller hands a buffer for a socket to add()
/// and returns at once; one sending thread waits with epoll until the socket is writable and
/// sends as much as it takes, resuming partial sends at the exact byte, until the socket's
/// queue is empty, then stops watching it.
///
/// Every buffer's release callback runs exactly once, on whichever path the buffer ends:
/// sent completely, its queue removed, the manager stopped, or refused by add(). A socket
/// whose peer went away (a send fails for good, or epoll reports an error or hang-up) has its
/// queue dropped and its buffers released, so the thread never spins on a dead socket.
#pragma once
#include <ksexport.h>
#include <ksutils/unique_fd.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace ks {

/// Bytes queued for one socket, with the callback that releases them once they are done with.
class KS_EXPORT TxBuffer {
public:
    /// Called once when the buffer ends, with the flag, the value and the data pointer the
    /// creator gave, so the owner of the bytes can free them.
    using Release = std::function<void(bool flag, uint64_t value, const void* data)>;

    TxBuffer() noexcept = default;
    /// Refers to `size` bytes at `data` (not copied: they must live until `release` is called
    /// with `flag`, `value` and `data`).
    TxBuffer(const void* data, size_t size, Release release = nullptr, uint64_t value = 0, bool flag = false)
        : data_(static_cast<const uint8_t*>(data)), size_(size), release_(std::move(release)), value_(value),
          flag_(flag) {}
    ~TxBuffer();
    /// Takes the bytes and the release duty of `other`.
    TxBuffer(TxBuffer&& other) noexcept;
    /// Releases the held bytes, then takes the bytes and the release duty of `other`.
    TxBuffer& operator=(TxBuffer&& other) noexcept;
    TxBuffer(const TxBuffer&) = delete;
    TxBuffer& operator=(const TxBuffer&) = delete;

    /// One send of what is left; true when the buffer is now completely sent. A failure
    /// sets E_FAULT in the error record (errno tells why) and returns false.
    bool send(int fd);
    /// The number of bytes.
    size_t size() const noexcept { return size_; }
    /// How many of them are sent.
    size_t sent() const noexcept { return sent_; }

private:
    void release() noexcept;

    const uint8_t* data_ = nullptr;
    size_t size_ = 0;
    Release release_;
    uint64_t value_ = 0;
    size_t sent_ = 0;
    bool flag_ = false;
};

/// Queues buffers for many sockets and sends them from one thread (see the file description).
class KS_EXPORT TxQueueManager {
public:
    /// The buffers waiting for one socket, oldest first.
    struct TxQueue {
        /// Appends a buffer.
        void push(TxBuffer buffer);
        /// False when the queue is empty; otherwise one send from the front buffer.
        bool send(int fd);

        std::mutex mutex;  ///< guards `buffers`
        std::deque<TxBuffer> buffers;  ///< the waiting buffers
    };

    TxQueueManager() = default;
    ~TxQueueManager();
    TxQueueManager(const TxQueueManager&) = delete;
    TxQueueManager& operator=(const TxQueueManager&) = delete;

    /// Starts the sending thread; false when already running or on failure.
    bool init();
    /// Stops the thread and releases every pending buffer.
    void uninit();
    /// Queues the buffer for `fd`; false (the buffer released) when not running or `fd`
    /// cannot be watched.
    bool add(int fd, TxBuffer buffer);
    /// Stops watching `fd` and releases its pending buffers.
    void remove(int fd);
    /// The sending thread's body.
    bool run_task();
    /// True while the sending thread runs.
    bool running() const noexcept { return running_; }

private:
    std::unique_ptr<TxQueue> drop(int fd);  // with the map mutex held
    bool send_front(int fd, uint32_t events);
    bool watch(int fd);
    void leave_epoll(int fd);

    std::mutex mutex_;
    bool running_ = false;
    unique_fd epoll_;
    unique_fd stop_read_, stop_write_;
    std::mutex map_mutex_;
    std::unordered_map<int, std::unique_ptr<TxQueue>> queues_;
    std::future<bool> task_;
    // The socket the sending thread is sending to outside the map mutex (-1: none);
    // remove() waits on `sent_` until it is another one.
    int sending_fd_ = -1;
    std::condition_variable sent_;
};

}  // namespace ks
