// What a freshly forked child does before it executes a program, shared by the command
// runner and the supervised subprocesses. Everything here is an async-signal-safe system
// call on data prepared before the fork: no allocation, no locks, no logging.
#pragma once
#include "kssys.h"

#include <linux/close_range.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace ks::child {

// Closes every descriptor from `from` up except the sorted `keep[0..count)`.
inline void close_from(int from, const int* keep, size_t count, long limit) {
    auto close_span = [limit](unsigned lo, unsigned hi) {
        if (lo > hi) return;
        if (::syscall(SYS_close_range, lo, hi, 0) == 0) return;
        // Kernels before 5.9: one close per number, bounded by the descriptor limit.
        for (long fd = lo; fd <= static_cast<long>(hi) && fd < limit; ++fd) ::close(static_cast<int>(fd));
    };
    unsigned lo = static_cast<unsigned>(from);
    for (size_t i = 0; i < count; ++i) {
        if (keep[i] < from) continue;
        if (static_cast<unsigned>(keep[i]) > lo) close_span(lo, static_cast<unsigned>(keep[i]) - 1);
        lo = static_cast<unsigned>(keep[i]) + 1;
    }
    close_span(lo, ~0U);
}

// Keeps `fd` open across exec.
inline void keep_on_exec(int fd) { sys::set_cloexec(fd, false); }

}  // namespace ks::child
