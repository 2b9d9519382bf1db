// write_all and writev_all: writers that never leave a partial record in a regular file.
// A failed or short write is undone by truncating back to the position where it began,
// so readers of encrypted logs never meet a torn block.
#include <kswrite.h>

#include <unistd.h>

#include <cerrno>

namespace {

// Truncating back only makes sense for a seekable file; for pipes and terminals the
// position is unknown (-1) and the bytes already written cannot be taken back.
void truncate_back(int fd, off_t start) {
    if (start < 0) return;
    int saved = errno;
    if (::ftruncate(fd, start) == 0) ::lseek(fd, start, SEEK_SET);
    errno = saved;
}

}  // namespace

extern "C" {

ssize_t write_all(int fd, const void* data, size_t length, int all_or_nothing) {
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    auto bytes = static_cast<const char*>(data);
    size_t written = 0;
    while (written < length) {
        ssize_t n = ::write(fd, bytes + written, length - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == ENOSPC) {
            truncate_back(fd, start);
            return -1;
        }
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
    if (written < length && all_or_nothing) {
        truncate_back(fd, start);
        return -1;
    }
    if (written < length && written == 0) return -1;
    return static_cast<ssize_t>(written);
}

ssize_t writev_all(int fd, const struct iovec* iov, int count) {
    if (count < 0 || (count > 0 && iov == nullptr)) {
        errno = EINVAL;
        return -1;
    }
    size_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    const off_t start = ::lseek(fd, 0, SEEK_CUR);
    for (int attempt = 0; attempt < 3;) {
        if (start >= 0 && ::lseek(fd, start, SEEK_SET) < 0) break;
        ssize_t n = ::writev(fd, iov, count);
        if (n < 0 && errno == EINTR) continue;
        if (n >= 0 && static_cast<size_t>(n) == total) return n;
        if (n < 0 && errno == ENOSPC) break;
        ++attempt;
    }
    truncate_back(fd, start);
    return -1;
}

}  // extern "C"
