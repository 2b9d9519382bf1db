// The system-call layer and the library's fork hooks; see kssys.h for why they are one.
#include "kssys.h"

#include <ksfork.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace ks {
namespace sys {

namespace {

// Runs `op(done)` until `size` bytes are done. `op` returns what the system call did;
// `eof_ok` lets a read stop at the end of file.
template <class Op>
ssize_t loop(size_t size, bool eof_ok, Op op) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = op(done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) {
            if (eof_ok) break;
            errno = EIO;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

int fcntl_retry(int fd, int cmd, struct flock& lk) {
    int rc;
    do {
        rc = ::fcntl(fd, cmd, &lk);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

struct flock whole_file(short type) {
    struct flock lk = {};
    lk.l_type = type;
    lk.l_whence = SEEK_SET;  // start 0, length 0: the whole file, however it grows
    return lk;
}

}  // namespace

ssize_t read_some(int fd, void* data, size_t size) {
    for (;;) {
        const ssize_t n = ::read(fd, data, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

ssize_t read_full(int fd, void* data, size_t size) {
    auto* p = static_cast<char*>(data);
    return loop(size, true, [&](size_t done) { return ::read(fd, p + done, size - done); });
}

ssize_t pread_full(int fd, void* data, size_t size, off_t offset) {
    auto* p = static_cast<char*>(data);
    return loop(size, true, [&](size_t done) {
        return ::pread(fd, p + done, size - done, offset + static_cast<off_t>(done));
    });
}

bool write_full(int fd, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    return loop(size, false, [&](size_t done) { return ::write(fd, p + done, size - done); }) >= 0;
}

bool pwrite_full(int fd, const void* data, size_t size, off_t offset) {
    const auto* p = static_cast<const char*>(data);
    return loop(size, false, [&](size_t done) {
               return ::pwrite(fd, p + done, size - done, offset + static_cast<off_t>(done));
           }) >= 0;
}

bool send_full(int fd, const void* data, size_t size) {
    const auto* p = static_cast<const char*>(data);
    return loop(size, false, [&](size_t done) { return ::send(fd, p + done, size - done, MSG_NOSIGNAL); }) >= 0;
}

int lock_file(int fd, bool wait) {
    struct flock lk = whole_file(F_WRLCK);
    if (fcntl_retry(fd, wait ? F_SETLKW : F_SETLK, lk) == 0) return 1;
    return !wait && (errno == EACCES || errno == EAGAIN) ? 0 : -1;
}

int unlock_file(int fd) {
    struct flock lk = whole_file(F_UNLCK);
    return fcntl_retry(fd, F_SETLK, lk) == 0 ? 0 : -1;
}

int lock_holder(int fd, pid_t* pid) {
    struct flock lk = whole_file(F_WRLCK);
    if (fcntl_retry(fd, F_GETLK, lk) != 0) return -1;
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
