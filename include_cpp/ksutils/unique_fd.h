/// @file
/// The one owner of a file descriptor: closes it on destruction, moves, never copies.
#pragma once

#include <unistd.h>

#include <cerrno>

#include <utility>

namespace ks {

/// Owner of one file descriptor (-1: none).
class unique_fd {
public:
    constexpr unique_fd() noexcept = default;
    /// Takes ownership of `fd`.
    explicit constexpr unique_fd(int fd) noexcept : fd_(fd) {}
    ~unique_fd() { reset(); }
    /// Takes the descriptor of `other`, which is left empty.
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    /// Closes the held descriptor and takes the one of `other`.
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    /// The held descriptor, or -1.
    int get() const noexcept { return fd_; }
    /// True when a descriptor is held.
    explicit operator bool() const noexcept { return fd_ >= 0; }
    /// Gives up ownership without closing: returns the descriptor and holds -1.
    int release() noexcept { return std::exchange(fd_, -1); }
    /// Closes the held descriptor (keeping errno) and takes `fd`.
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
