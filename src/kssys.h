// The library's one system-call layer (private). Every module that reads, writes or
// receives in full, waits for a child, switches a descriptor's blocking or close-on-exec
// flag, locks a whole file or needs its own process id comes here, so a fix to short
// counts, EINTR or ENOSPC handling is made once.
//
// Everything here is a plain loop over system calls: no allocation, no locks, no error
// record, so it may be used between fork and exec and inside a crash handler. Failures
// leave errno as the failing call set it.
//
// Fork safety: the library has one mechanism, a single pthread_atfork child handler
// installed when the library is loaded. After every fork of the process (ksfork, fork(2)
// itself, or a fork made inside another library) it forgets the cached process id; after a
// fork made through ksfork (ks::fork) it then runs the hooks registered with kslib_atfork
// (ks::lib_atfork), in registration order, which re-create the locks of the modules with
// process-wide state. A plain fork(2) runs no hooks: a program that forks by hand and goes
// on using the library in the child takes that on itself, as before exec. Children made by
// clone(CLONE_VM | CLONE_VFORK) (posix_spawn, exec_command's fast path) run nothing before
// exec and need none of it.
#pragma once

#include <poll.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>

namespace ks {
namespace sys {

// The system calls themselves, retried on EINTR and otherwise returning what they return.
ssize_t read_some(int fd, void* data, size_t size);
ssize_t recv_some(int fd, void* data, size_t size, int flags);
ssize_t writev_some(int fd, const struct iovec* iov, int count);
pid_t wait_pid(pid_t pid, int* status, int options);
// Each retry waits the whole `timeout_ms` again.
int poll_events(struct pollfd* fds, nfds_t count, int timeout_ms);

// Reads until `size` bytes or the end of file: the count read (short only at the end of
// file, errno then 0), or -1 on an error.
ssize_t read_full(int fd, void* data, size_t size);
ssize_t pread_full(int fd, void* data, size_t size, off_t offset);

// Receives until `size` bytes are in: the count received, or -1 on an error. The count is
// short when the peer closed the stream first (errno then 0) or when a receive that may not
// wait (MSG_DONTWAIT, a non-blocking socket) found nothing more (errno EAGAIN).
ssize_t recv_full(int fd, void* data, size_t size, int flags);

// Writes every byte, completing short writes and retrying EINTR: true when all went out;
// false on an error, errno EIO when the descriptor took nothing. `written`, when not null,
// receives the count that went out either way.
bool write_full(int fd, const void* data, size_t size, size_t* written = nullptr);
bool pwrite_full(int fd, const void* data, size_t size, off_t offset);
// The same over a socket, with MSG_NOSIGNAL: a peer that went away is an error, not SIGPIPE.
bool send_full(int fd, const void* data, size_t size);

// Set (`on`) or clear O_NONBLOCK, or FD_CLOEXEC, keeping the descriptor's other flags:
// true, or false on an error.
bool set_nonblocking(int fd, bool on);
bool set_cloexec(int fd, bool on);

// Whole-file fcntl write locks. They belong to the process, not to the descriptor: closing
// any descriptor of the file releases them, so the holder keeps one open.
// lock_file: 1 taken, 0 held by another process (only when not waiting), -1 on an error.
int lock_file(int fd, bool wait);
// 0, or -1 on an error.
int unlock_file(int fd);
// 1 with the holder's process id in `pid` (when not null) while another process holds a
// lock that excludes ours, 0 when free, -1 on an error.
int lock_holder(int fd, pid_t* pid);

// getpid() without the system call: cached, and forgotten in every forked child.
pid_t current_pid();

}  // namespace sys
}  // namespace ks
