// Small helpers the benchmarks share: a steady clock and a scratch directory.
#ifndef KSUTILS_BENCH_UTIL_H
#define KSUTILS_BENCH_UTIL_H

#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A new directory under $TMPDIR (or /tmp) named after `name`; empty when it cannot be made.
inline std::string temp_dir(const char* name) {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/" + name + ".XXXXXX";
    if (!::mkdtemp(templ.data())) return {};
    return templ;
}

}  // namespace bench

#endif
