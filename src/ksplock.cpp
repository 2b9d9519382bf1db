// Process locks over fcntl whole-file write locks. The lock belongs to the process, not to
// the descriptor: closing any descriptor of the file in the holder releases it, so the
// file is opened once and kept open for as long as the lock is needed.
#include <ksplock.h>
#include <ksutils/error.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

int lock_op(int fd, int cmd, short type, struct flock& lk) {
    lk = {};
    lk.l_type = type;
    lk.l_whence = SEEK_SET;
    int rc;
    do {
        rc = ::fcntl(fd, cmd, &lk);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

// Best effort: a lock file opened read-only still locks, it just carries no pid text.
void write_pid(int fd) {
    char text[32];
    int n = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(::getpid()));
    if (::ftruncate(fd, 0) == 0) {
        ssize_t rc = ::pwrite(fd, text, static_cast<size_t>(n), 0);
        (void)rc;
    }
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
    struct flock lk;
    if (lock_op(fd, F_SETLK, F_WRLCK, lk) == 0) {
        write_pid(fd);
        return 1;
    }
    if (errno == EACCES || errno == EAGAIN) return 0;
    ks::_get_kserrno().set(ks::E_SYSTEM);
    return -1;
}

int plock_wait_lock(int fd) {
    struct flock lk;
    if (lock_op(fd, F_SETLKW, F_WRLCK, lk) == 0) {
        write_pid(fd);
        return 1;
    }
    ks::_get_kserrno().set(ks::E_SYSTEM);
    return -1;
}

int plock_unlock(int fd) {
    struct flock lk;
    if (lock_op(fd, F_SETLK, F_UNLCK, lk) == 0) return 0;
    ks::_get_kserrno().set(ks::E_SYSTEM);
    return -1;
}

int plock_get_pid(int fd, pid_t* pid) {
    struct flock lk;
    if (lock_op(fd, F_GETLK, F_WRLCK, lk) != 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM);
        return -1;
    }
    if (lk.l_type == F_UNLCK) return 0;
    if (pid) *pid = lk.l_pid;
    return 1;
}

int plock_is_locked(int fd) { return plock_get_pid(fd, nullptr); }

void plock_close(int fd) {
    if (fd >= 0) ::close(fd);
}

}  // extern "C"
