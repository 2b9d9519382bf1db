/// @file
/// The owner of one process lock file (see ksplock.h): movable, closes on destruction.
#pragma once

#include <ksplock.h>
#include <ksutils/string_view.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>

#include <string>

namespace ks {

/// Owner of a process lock file descriptor; the members call the plock_ functions of ksplock.h.
class ProcessLock {
public:
    ProcessLock() = default;

    /// Opens (with O_CREAT creates) the lock file, closing any held one; false with E_SYSTEM in
    /// the error record.
    bool open(ks::string_view path, int flags = O_RDWR | O_CREAT) {
        fd_.reset(plock_open(std::string(path).c_str(), flags));
        return static_cast<bool>(fd_);
    }
    /// Takes the lock without waiting: 1 taken, 0 held by another process, -1 error.
    int lock() noexcept { return plock_lock(fd_.get()); }
    /// Waits for the lock: 1 taken, -1 error.
    int wait_lock() noexcept { return plock_wait_lock(fd_.get()); }
    /// Releases the lock: 0, or -1 on error.
    int unlock() noexcept { return plock_unlock(fd_.get()); }
    /// 1 and the holder's pid in `pid` when another process holds the lock, 0 when nobody does,
    /// -1 on error.
    int holder_pid(pid_t& pid) noexcept { return plock_get_pid(fd_.get(), &pid); }
    /// 1 when another process holds the lock, 0 when not, -1 on error.
    int is_locked() noexcept { return plock_is_locked(fd_.get()); }
    /// Closes the file, which releases the lock.
    void close() noexcept { fd_.reset(); }

    /// The lock file's descriptor, or -1.
    int fd() const noexcept { return fd_.get(); }
    /// True when a lock file is open.
    bool is_open() const noexcept { return static_cast<bool>(fd_); }

private:
    unique_fd fd_;
};

}  // namespace ks
