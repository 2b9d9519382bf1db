// The system-call layer and the library's fork hooks; see kssys.h for why they are one.
#include "kssys.h"

#include <ksfork.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace ks {
namespace sys {

namespace {

// Calls `call` again while it fails with EINTR.
template <class Call>
auto retry(Call call) {
    decltype(call()) rc;
    do {
        rc = call();
    } while (rc < 0 && errno == EINTR);
    return rc;
}

// When a transfer may stop before `size` bytes are done.
enum class stop_short { never, at_end, at_end_or_empty };

// Runs `op(done)` until `size` bytes are done, `done` counting them; `op` returns what the
// system call did. False on an error (errno EIO for an end where `stop` allows none).
template <class Op>
bool loop(size_t size, stop_short stop, size_t& done, Op op) {
    while (done < size) {
        const ssize_t n = retry([&] { return op(done); });
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0) return stop == stop_short::at_end_or_empty && errno == EAGAIN;
        if (stop == stop_short::never) {
            errno = EIO;
            return false;
        }
        errno = 0;
        return true;
    }
    return true;
}

template <class Op>
ssize_t count_of(size_t size, stop_short stop, Op op) {
    size_t done = 0;
    return loop(size, stop, done, op) ? static_cast<ssize_t>(done) : -1;
}

int fcntl_lock(int fd, int cmd, struct flock& lk) {
    return retry([&] { return ::fcntl(fd, cmd, &lk); });
}

struct flock whole_file(short type) {
    struct flock lk = {};
    lk.l_type = type;
    lk.l_whence = SEEK_SET;  // start 0, length 0: the whole file, however it grows
    return lk;
}

bool set_flag(int fd, int get, int set, int flag, bool on) {
    const int flags = ::fcntl(fd, get);
    if (flags < 0) return false;
    const int wanted = on ? flags | flag : flags & ~flag;
    return wanted == flags || ::fcntl(fd, set, wanted) == 0;
}

}  // namespace

ssize_t read_some(int fd, void* data, size_t size) {
    return retry([&] { return ::read(fd, data, size); });
}

ssize_t recv_some(int fd, void* data, size_t size, int flags) {
    return retry([&] { return ::recv(fd, data, size, flags); });
}

ssize_t writev_some(int fd, const struct iovec* iov, int count) {
    return retry([&] { return ::writev(fd, iov, count); });
}

pid_t wait_pid(pid_t pid, int* status, int options) {
    return retry([&] { return ::waitpid(pid, status, options); });
}

int poll_events(struct pollfd* fds, nfds_t count, int timeout_ms) {
    return retry([&] { return ::poll(fds, count, timeout_ms); });
}

ssize_t read_full(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    return count_of(size, stop_short::at_end, [&](size_t done) { return ::read(fd, p + done, size - done); });
}

ssize_t pread_full(int fd, void* data, size_t size, off_t offset) {
    auto* p = static_cast<char*>(data);
    return count_of(size, stop_short::at_end, [&](size_t done) {
        return ::pread(fd, p + done, size - done, offset + static_cast<off_t>(done));
    });
}

ssize_t recv_full(int fd, void* data, size_t size, int flags) {
    auto* p = static_cast<char*>(data);
    return count_of(size, stop_short::at_end_or_empty,
                    [&](size_t done) { return ::recv(fd, p + done, size - done, flags); });
}

bool write_full(int fd, const void* data, size_t size, size_t* written) {
    const auto* p = static_cast<const char*>(data);
    size_t sent = 0;
    const bool ok =
        loop(size, stop_short::never, sent, [&](size_t done) { return ::write(fd, p + done, size - done); });
    if (written) *written = sent;
    return ok;
}

bool pwrite_full(int fd, const void* data, size_t size, off_t offset) {
    const auto* p = static_cast<const char*>(data);
    return count_of(size, stop_short::never, [&](size_t done) {
               return ::pwrite(fd, p + done, size - done, offset + static_cast<off_t>(done));
           }) >= 0;
}

bool send_full(int fd, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    return count_of(size, stop_short::never,
                    [&](size_t done) { return ::send(fd, p + done, size - done, MSG_NOSIGNAL); }) >= 0;
}

bool set_nonblocking(int fd, bool on) { return set_flag(fd, F_GETFL, F_SETFL, O_NONBLOCK, on); }

bool set_cloexec(int fd, bool on) { return set_flag(fd, F_GETFD, F_SETFD, FD_CLOEXEC, on); }

int lock_file(int fd, bool wait) {
    struct flock lk = whole_file(F_WRLCK);
    if (fcntl_lock(fd, wait ? F_SETLKW : F_SETLK, lk) == 0) return 1;
    return !wait && (errno == EACCES || errno == EAGAIN) ? 0 : -1;
}

int unlock_file(int fd) {
    struct flock lk = whole_file(F_UNLCK);
    return fcntl_lock(fd, F_SETLK, lk) == 0 ? 0 : -1;
}

int lock_holder(int fd, pid_t* pid) {
    struct flock lk = whole_file(F_WRLCK);
    if (fcntl_lock(fd, F_GETLK, lk) != 0) return -1;
    if (lk.l_type == F_UNLCK) return 0;
    if (pid) *pid = lk.l_pid;
    return 1;
}

namespace {

std::atomic<pid_t> g_pid{0};

constexpr int kMaxHandlers = 64;
std::atomic<void (*)(void)> g_handlers[kMaxHandlers];
std::atomic<int> g_count{0};
std::mutex g_register_mutex;

// Set by ksfork around its fork(2); the child is a copy of the forking thread, so it
// inherits the value.
thread_local bool t_library_fork = false;

// The child side of every fork. The hook table is append-only and read without a lock:
// a lock that another parent thread held at the fork could never be released here.
void after_fork_in_child() {
    g_pid.store(0, std::memory_order_relaxed);
    if (!t_library_fork) return;
    t_library_fork = false;
    const int n = g_count.load(std::memory_order_acquire);
    for (int i = 0; i < n; ++i) g_handlers[i].load(std::memory_order_relaxed)();
}

// Installed while the library loads, before any code of it can cache a pid or register a
// hook, so no fork is ever missed.
const int g_fork_handler_installed = pthread_atfork(nullptr, nullptr, after_fork_in_child);

}  // namespace

pid_t current_pid() {
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = ::getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

}  // namespace sys
}  // namespace ks

extern "C" {

int kslib_atfork(void (*child_handler)(void)) {
    using namespace ks::sys;
    if (!child_handler || g_fork_handler_installed != 0) return -1;
    std::lock_guard<std::mutex> guard(g_register_mutex);
    const int n = g_count.load(std::memory_order_relaxed);
    for (int i = 0; i < n; ++i)
        if (g_handlers[i].load(std::memory_order_relaxed) == child_handler) return 0;
    if (n == kMaxHandlers) return -1;
    g_handlers[n].store(child_handler, std::memory_order_relaxed);
    g_count.store(n + 1, std::memory_order_release);
    return 0;
}

pid_t ksfork(void) {
    ks::sys::t_library_fork = true;
    const pid_t pid = ::fork();
    ks::sys::t_library_fork = false;
    return pid;
}

}  // extern "C"
