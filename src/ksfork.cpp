// Fork hooks. The table is append-only and read without a lock in the child, where a
// lock held by another parent thread at the fork could never be released.
#include <ksfork.h>

#include <unistd.h>

#include <atomic>
#include <mutex>

namespace {

constexpr int kMaxHandlers = 64;
std::atomic<void (*)(void)> g_handlers[kMaxHandlers];
std::atomic<int> g_count{0};
std::mutex g_register_mutex;

}  // namespace

extern "C" {

int kslib_atfork(void (*child_handler)(void)) {
    if (!child_handler) return -1;
    std::lock_guard<std::mutex> guard(g_register_mutex);
    int n = g_count.load(std::memory_order_relaxed);
    for (int i = 0; i < n; ++i)
        if (g_handlers[i].load(std::memory_order_relaxed) == child_handler) return 0;
    if (n == kMaxHandlers) return -1;
    g_handlers[n].store(child_handler, std::memory_order_relaxed);
    g_count.store(n + 1, std::memory_order_release);
    return 0;
}

pid_t ksfork(void) {
    pid_t pid = ::fork();
    if (pid == 0) {
        int n = g_count.load(std::memory_order_acquire);
        for (int i = 0; i < n; ++i) g_handlers[i].load(std::memory_order_relaxed)();
    }
    return pid;
}

}  // extern "C"
