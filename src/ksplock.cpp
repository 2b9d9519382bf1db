// Process locks over fcntl whole-file write locks. The lock belongs to the process, not to
// the descriptor: closing any descriptor of the file in the holder releases it, so the
// file is opened once and kept open for as long as the lock is needed.
#include <ksplock.h>
#include <ksutils/error.h>

#include "kssys.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Best effort: a lock file opened read-only still locks, it just carries no pid text.
void write_pid(int fd) {
    char text[32];
    int n = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(ks::sys::current_pid()));
    if (::ftruncate(fd, 0) == 0) (void)ks::sys::pwrite_full(fd, text, static_cast<size_t>(n), 0);
}

}  // namespace

extern "C" {

int plock_open(const char* path, int flags) {
    if (!path) {
        ks::_get_kserrno().set(ks::E_INVAL);
        return -1;
    }
    int fd = ::open(path, flags | O_CLOEXEC, 0644);
    if (fd < 0) ks::_get_kserrno().set(ks::E_SYSTEM, "Failed to open lock file {:s}: {:s}", path, std::strerror(errno));
    return fd;
}

int plock_lock(int fd) {
    const int rc = ks::sys::lock_file(fd, false);
    if (rc == 1) write_pid(fd);
    if (rc < 0) ks::_get_kserrno().set(ks::E_SYSTEM);
    return rc;
}

int plock_wait_lock(int fd) {
    if (ks::sys::lock_file(fd, true) == 1) {
        write_pid(fd);
        return 1;
    }
    ks::_get_kserrno().set(ks::E_SYSTEM);
    return -1;
}

int plock_unlock(int fd) {
    if (ks::sys::unlock_file(fd) == 0) return 0;
    ks::_get_kserrno().set(ks::E_SYSTEM);
    return -1;
}

int plock_get_pid(int fd, pid_t* pid) {
    const int rc = ks::sys::lock_holder(fd, pid);
    if (rc < 0) ks::_get_kserrno().set(ks::E_SYSTEM);
    return rc;
}

int plock_is_locked(int fd) { return plock_get_pid(fd, nullptr); }

void plock_close(int fd) {
    if (fd >= 0) ::close(fd);
}

}  // extern "C"
