// The owner of one process lock file (see ksplock.h): movable, closes on destruction.
#pragma once

#include <ksplock.h>
#include <ksutils/string_view.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>

#include <string>

namespace ks {

class ProcessLock {
public:
    ProcessLock() = default;

    bool open(ks::string_view path, int flags = O_RDWR | O_CREAT) {
        fd_.reset(plock_open(std::string(path).c_str(), flags));
        return static_cast<bool>(fd_);
    }
    int lock() noexcept { return plock_lock(fd_.get()); }
    int wait_lock() noexcept { return plock_wait_lock(fd_.get()); }
    int unlock() noexcept { return plock_unlock(fd_.get()); }
    int holder_pid(pid_t& pid) noexcept { return plock_get_pid(fd_.get(), &pid); }
    int is_locked() noexcept { return plock_is_locked(fd_.get()); }
    void close() noexcept { fd_.reset(); }

    int fd() const noexcept { return fd_.get(); }
    bool is_open() const noexcept { return static_cast<bool>(fd_); }

private:
    unique_fd fd_;
};

}  // namespace ks
