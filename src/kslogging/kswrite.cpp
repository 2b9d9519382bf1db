// write_all and writev_all: writers that never leave a partial record in a regular file.
// A failed or short write is undone by truncating back to the position where it began,
// so a writer that lives on leaves no torn block; one killed mid-write can, and the reader
// of encrypted logs resumes after it at the next key block.
#include <kswrite.h>

#include "kssys.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Where a write that has put `done` bytes in so far began; -1 for descriptors without a
// position (pipes, terminals), whose bytes cannot be taken back. Asked only on failure,
// so a write that succeeds at once costs one system call.
off_t start_of_write(int fd, size_t done) {
    const int saved = errno;
    const off_t now = ::lseek(fd, 0, SEEK_CUR);
    errno = saved;
    return now < 0 ? -1 : now - static_cast<off_t>(done);
}

void truncate_back(int fd, off_t start) {
    if (start < 0) return;
    const int saved = errno;
    if (::ftruncate(fd, start) == 0) ::lseek(fd, start, SEEK_SET);
    errno = saved;
}

}  // namespace

extern "C" {

ssize_t write_all(int fd, const void* data, size_t length, int all_or_nothing) {
    size_t written = 0;
    if (ks::sys::write_full(fd, data, length, &written)) return static_cast<ssize_t>(length);
    if (errno == ENOSPC || all_or_nothing) {
        // Nothing went in, nothing to take back; and the position of an O_APPEND descriptor
        // says where the file ends only after a write of its own.
        if (written > 0) truncate_back(fd, start_of_write(fd, written));
        return -1;
    }
    return written == 0 ? -1 : static_cast<ssize_t>(written);
}

ssize_t writev_all(int fd, const struct iovec* iov, int count) {
    if (count < 0 || (count > 0 && iov == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    // The first attempt starts where the descriptor stands; the start is looked up only
    // when an attempt falls short, and every later attempt rewrites from there.
    off_t start = -2;  // not known yet
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (start >= 0 && ::lseek(fd, start, SEEK_SET) < 0) break;
        const ssize_t n = ks::sys::writev_some(fd, iov, count);
        if (n >= 0 && static_cast<size_t>(n) == total) return n;
        if (start == -2) {
            if (n <= 0) return -1;  // nothing went in
            start = start_of_write(fd, static_cast<size_t>(n));
        }
        if (n < 0 && errno == ENOSPC) break;
        // Without a position, or with O_APPEND (which writes at the end wherever the position
        // stands), a retry would add a second copy: give up at once.
        if (start < 0 || (::fcntl(fd, F_GETFL) & O_APPEND)) break;
    }
    truncate_back(fd, start);
    return -1;
}

}  // extern "C"
