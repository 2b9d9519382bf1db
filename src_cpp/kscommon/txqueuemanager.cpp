// The sending thread and its per-socket queues.
//
// Two locks: the manager mutex (init, uninit, add, remove) and the map mutex (add, remove,
// and the sending thread around each send); when both are held the manager mutex comes
// first. The sending thread holds the map mutex only to find a queue's front buffer and to
// retire it, never across the send itself or a release callback, so add() from an event
// loop never waits for a socket. The front buffer stays in its queue while it is being sent
// (a deque keeps its elements in place when others are appended), and remove() waits for
// that send to end before destroying the queue. Queues are owned with the default deleter:
// they hold C++ objects that must be destroyed, not only freed.
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/txqueuemanager.h>

#include "kssys.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;

bool is_transient(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == EINTR || err == ENOBUFS; }

}  // namespace

// ---- TxBuffer ---------------------------------------------------------------------------

TxBuffer::~TxBuffer() { release(); }

TxBuffer::TxBuffer(TxBuffer&& other) noexcept
    : data_(other.data_), size_(other.size_), release_(std::move(other.release_)), value_(other.value_),
      sent_(other.sent_), flag_(other.flag_) {
    other.release_ = nullptr;
}

TxBuffer& TxBuffer::operator=(TxBuffer&& other) noexcept {
    if (this != &other) {
        release();
        data_ = other.data_;
        size_ = other.size_;
        release_ = std::move(other.release_);
        other.release_ = nullptr;
        value_ = other.value_;
        sent_ = other.sent_;
        flag_ = other.flag_;
    }
    return *this;
}

void TxBuffer::release() noexcept {
    if (!release_) return;
    auto callback = std::move(release_);
    release_ = nullptr;
    callback(flag_, value_, data_);
}

bool TxBuffer::send(int fd) {
    const size_t outstanding = size_ - sent_;
    const ssize_t n = ::send(fd, data_ + sent_, outstanding, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
        const int err = errno;
        _get_kserrno().set(E_FAULT, "failed to send to socket {:d}", fd);
        errno = err;
        return false;
    }
    sent_ += static_cast<size_t>(n);
    KSLOG_TRACE(kChannel, "sent {:d}/{:d} bytes to socket {:d}", n, outstanding, fd);
    return sent_ == size_;
}

// ---- TxQueue ----------------------------------------------------------------------------

void TxQueueManager::TxQueue::push(TxBuffer buffer) {
    std::lock_guard<std::mutex> lock(mutex);
    buffers.push_back(std::move(buffer));
}

bool TxQueueManager::TxQueue::send(int fd) {
    std::lock_guard<std::mutex> lock(mutex);
    if (buffers.empty()) return false;
    if (buffers.front().send(fd)) buffers.pop_front();
    return true;
}

// ---- TxQueueManager ---------------------------------------------------------------------

TxQueueManager::~TxQueueManager() { uninit(); }

bool TxQueueManager::init() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) return false;
    unique_fd epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll) {
        _get_kserrno().set(E_SYSTEM, "failed to create epoll");
        return false;
    }
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) {
        _get_kserrno().set(E_SYSTEM, "failed to create stop pipe");
        return false;
    }
    epoll_ = std::move(epoll);
    stop_read_.reset(pipe_fds[0]);
    stop_write_.reset(pipe_fds[1]);
    task_ = std::async(std::launch::async, [this] { return run_task(); });
    running_ = true;
    return true;
}

void TxQueueManager::uninit() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) return;
    // The pipe is new with every start and takes this one byte only, so it is never full.
    sys::write_full(stop_write_.get(), "x", 1);
    task_.get();
    {
        std::lock_guard<std::mutex> map_lock(map_mutex_);
        queues_.clear();
    }
    epoll_.reset();
    stop_read_.reset();
    stop_write_.reset();
    running_ = false;
}

bool TxQueueManager::add(int fd, TxBuffer buffer) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) return false;
    if (fd < 0) {
        _get_kserrno().set(E_INVAL, "cannot queue for socket {:d}", fd);
        return false;
    }
    std::unique_lock<std::mutex> map_lock(map_mutex_);
    auto found = queues_.find(fd);
    const bool created = found == queues_.end();
    if (created) {
        std::unique_ptr<TxQueue> queue(new (std::nothrow) TxQueue());
        if (!queue) {
            _get_kserrno().set(E_SYSTEM, "failed to create Tx queue");
            return false;
        }
        found = queues_.emplace(fd, std::move(queue)).first;
    }
    TxQueue& queue = *found->second;
    // Buffers are taken off a queue only under the map mutex and its socket leaves the epoll
    // set when the last one goes, so only an idle queue needs registering; the sending thread
    // registers it again itself if it is still taking it out of the set.
    const bool idle = queue.buffers.empty() && sending_fd_ != fd;
    queue.push(std::move(buffer));
    map_lock.unlock();
    if (!idle) return true;
    // Outside the map mutex: an unwatched socket gets no events, so the sending thread
    // cannot reach it, and the manager mutex keeps out every other add() and remove().
    if (!watch(fd)) {
        _get_kserrno().set(E_INVAL, "cannot watch socket {:d}", fd);
        std::unique_ptr<TxQueue> refused;  // released after the map mutex
        TxBuffer last;
        map_lock.lock();
        // An event the sending thread took before an earlier remove() of this number may
        // still lead it to the queue: wait for that send, then take back what is left.
        sent_.wait(map_lock, [this, fd] { return sending_fd_ != fd; });
        found = queues_.find(fd);
        if (found != queues_.end() && created) {
            refused = std::move(found->second);
            queues_.erase(found);
        } else if (found != queues_.end() && !found->second->buffers.empty()) {
            last = std::move(found->second->buffers.back());
            found->second->buffers.pop_back();
        }
        map_lock.unlock();
        return false;
    }
    return true;
}

bool TxQueueManager::watch(int fd) {
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.fd = fd;
    return ::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) == 0 || errno == EEXIST;
}

void TxQueueManager::remove(int fd) {
    std::unique_ptr<TxQueue> dropped;  // released last, after both locks
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) return;
    std::unique_lock<std::mutex> map_lock(map_mutex_);
    // The caller may close `fd` once this returns: no send to it may still be under way.
    sent_.wait(map_lock, [this, fd] { return sending_fd_ != fd; });
    dropped = drop(fd);
}

std::unique_ptr<TxQueueManager::TxQueue> TxQueueManager::drop(int fd) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    std::unique_ptr<TxQueue> queue;
    const auto found = queues_.find(fd);
    if (found == queues_.end()) return queue;
    queue = std::move(found->second);
    queues_.erase(found);
    return queue;
}

bool TxQueueManager::run_task() {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = stop_read_.get();
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stop_read_.get(), &ev) != 0) return false;
    for (;;) {
        epoll_event ready{};
        const int n = ::epoll_wait(epoll_.get(), &ready, 1, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) continue;
        const int fd = ready.data.fd;
        if (fd == stop_read_.get()) return true;
        if (!send_front(fd, ready.events)) {
            // The peer is gone: release what cannot be sent instead of spinning on the socket.
            KSLOG_WARN(kChannel, "dropping the Tx queue of socket {:d}: the peer is gone", fd);
        }
    }
}

// One event of `fd`: sends from its front buffer, and on to the next one as long as each
// goes completely (the socket has room, and an epoll wake-up per buffer would be wasted).
// False when the peer is gone and the queue was dropped. Finished buffers and dropped
// queues are destroyed (their release callbacks run) after the map mutex is released.
bool TxQueueManager::send_front(int fd, uint32_t events) {
    for (bool more = true; more;) {
        std::unique_ptr<TxQueue> dropped;
        TxBuffer* front = nullptr;
        {
            std::lock_guard<std::mutex> map_lock(map_mutex_);
            const auto found = queues_.find(fd);
            if (found == queues_.end()) {
                ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
                return true;
            }
            if (events & (EPOLLERR | EPOLLHUP)) {
                dropped = drop(fd);
                return false;
            }
            TxQueue& queue = *found->second;
            if (queue.buffers.empty()) {
                ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
                return true;
            }
            front = &queue.buffers.front();
            sending_fd_ = fd;
        }
        const size_t before = front->sent();
        const bool done = front->send(fd);
        // A send that moved nothing failed; errno tells whether to try again at the next event.
        const bool broken = !done && front->sent() == before && !is_transient(errno);
        TxBuffer finished;
        bool leave = false;  // the queue is empty: the socket leaves the epoll set
        {
            std::lock_guard<std::mutex> map_lock(map_mutex_);
            TxQueue& queue = *queues_.find(fd)->second;  // remove() waited for this send
            if (broken) {
                dropped = drop(fd);
            } else if (done) {
                std::lock_guard<std::mutex> queue_lock(queue.mutex);
                finished = std::move(queue.buffers.front());
                queue.buffers.pop_front();
                leave = queue.buffers.empty();
            }
            more = done && !leave;
            if (!leave) sending_fd_ = -1;
        }
        if (leave) leave_epoll(fd);
        sent_.notify_all();
        if (broken) return false;
    }
    return true;
}

// Takes an emptied queue's socket out of the epoll set without holding the map mutex
// across the system call; an add() meanwhile sees `sending_fd_` and leaves the socket to
// this thread, so it is registered again here if the queue filled up in between.
void TxQueueManager::leave_epoll(int fd) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    std::unique_lock<std::mutex> map_lock(map_mutex_);
    if (!queues_.find(fd)->second->buffers.empty()) {
        map_lock.unlock();
        watch(fd);
        map_lock.lock();
    }
    sending_fd_ = -1;
}

}  // namespace ks
