// The one owner of a file descriptor: closes it on destruction, moves, never copies.
#pragma once

#include <unistd.h>

#include <cerrno>

#include <utility>

namespace ks {

class unique_fd {
public:
    constexpr unique_fd() noexcept = default;
    explicit constexpr unique_fd(int fd) noexcept : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    // Closes the held descriptor (keeping errno) and takes `fd`.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            int saved = errno;
            ::close(fd_);
            errno = saved;
        }
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace ks
