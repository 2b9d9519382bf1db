// The sending thread and its per-socket queues.
//
// Two locks: the manager mutex (init, uninit, add, remove) and the map mutex (add, remove,
// and the sending thread for each event); when both are held the manager mutex comes first.
// Each queue has its own mutex, so add() from any thread and the sending thread can work on
// one queue at once. Queues are owned with the default deleter: they hold C++ objects that
// must be destroyed, not only freed.
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
    std::lock_guard<std::mutex> map_lock(map_mutex_);
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
    found->second->push(std::move(buffer));
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.fd = fd;
    if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &ev) != 0 && errno != EEXIST) {
        // Not a descriptor epoll can watch: the buffer would never go.
        _get_kserrno().set(E_INVAL, "cannot watch socket {:d}", fd);
        if (created) queues_.erase(found);
        else found->second->buffers.pop_back();
        return false;
    }
    return true;
}

void TxQueueManager::remove(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_) return;
    std::lock_guard<std::mutex> map_lock(map_mutex_);
    drop(fd);
}

void TxQueueManager::drop(int fd) {
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
    queues_.erase(fd);
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
        std::lock_guard<std::mutex> map_lock(map_mutex_);
        const auto found = queues_.find(fd);
        if (found == queues_.end()) {
            ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
            continue;
        }
        bool broken = ready.events & (EPOLLERR | EPOLLHUP);
        if (!broken) {
            _get_kserrno().set(E_OK);
            if (!found->second->send(fd)) {
                ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);  // queue empty
                continue;
            }
            broken = _get_kserrno().code == E_FAULT && !is_transient(errno);
            if (!broken) continue;
        }
        // The peer is gone: release what cannot be sent instead of spinning on the socket.
        KSLOG_WARN(kChannel, "dropping the Tx queue of socket {:d}: the peer is gone", fd);
        drop(fd);
    }
}

}  // namespace ks
