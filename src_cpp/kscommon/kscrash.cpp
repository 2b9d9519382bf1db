// The crash reporter: signal handlers that write a report and let the process die.
//
// A crashed process may have a corrupt heap, held locks and an exhausted stack, so the
// handler runs on an alternate stack and uses only async-signal-safe calls: open, write,
// read, send, close, clock_gettime, sigaction, raise, alarm. Everything it needs is made
// ready in init_exception_handler: the report directory and program name in static
// buffers, libgcc's unwinder loaded (glibc's backtrace() loads it lazily through dlopen,
// which a handler must not do), and the collector socket with a send timeout. The handler
// then re-raises the signal with its default action, so parents and core dumps see the
// crash as it was.
#include <ksutils/error.h>
#include <ksutils/kscrash.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include "kssys.h"

#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kAltStackSize = 128 * 1024;
constexpr int kMaxFrames = 64;
constexpr unsigned kWatchdogSeconds = 10;
constexpr int kCollectorSendTimeoutMs = 2000;

struct CrashState {
    char directory[4096] = {};
    char program[256] = {};
    char socket_path[sizeof(sockaddr_un::sun_path)] = {};
    std::atomic<int> method{0};
    std::atomic<int> collector_fd{-1};
    std::atomic<int> in_handler{0};
    bool installed = false;
};

CrashState g_crash;

thread_local void* t_alt_stack = nullptr;

// ---- Async-signal-safe text output -------------------------------------------------------

// A small fixed buffer that flushes to one descriptor; no allocation, no locale.
class SafeWriter {
public:
    explicit SafeWriter(int fd, bool socket) : fd_(fd), socket_(socket) {}
    ~SafeWriter() { flush(); }

    SafeWriter& text(const char* s) {
        while (*s) put(*s++);
        return *this;
    }
    SafeWriter& bytes(const char* s, size_t n) {
        for (size_t i = 0; i < n; ++i) put(s[i]);
        return *this;
    }
    SafeWriter& dec(long long v) {
        char digits[24];
        int n = 0;
        unsigned long long u = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
        do {
            digits[n++] = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u);
        if (v < 0) put('-');
        while (n) put(digits[--n]);
        return *this;
    }
    SafeWriter& hex(uintptr_t v) {
        static const char kDigits[] = "0123456789abcdef";
        text("0x");
        for (int shift = static_cast<int>(sizeof v * 8) - 4; shift >= 0; shift -= 4) put(kDigits[(v >> shift) & 0xf]);
        return *this;
    }
    void flush() {
        if (ok_ && used_ > 0)
            ok_ = socket_ ? ks::sys::send_full(fd_, buf_, used_) : ks::sys::write_full(fd_, buf_, used_);
        used_ = 0;
    }
    bool ok() const { return ok_; }
    int fd() const { return fd_; }

private:
    void put(char c) {
        if (used_ == sizeof buf_) flush();
        buf_[used_++] = c;
    }

    int fd_;
    bool socket_;
    bool ok_ = true;
    size_t used_ = 0;
    char buf_[1024];
};

const char* signal_name(int sig) {
    switch (sig) {
        case SIGSEGV: return "SIGSEGV";
        case SIGBUS: return "SIGBUS";
        case SIGILL: return "SIGILL";
        case SIGFPE: return "SIGFPE";
        case SIGABRT: return "SIGABRT";
        default: return "?";
    }
}

uintptr_t program_counter(const void* context) {
    if (!context) return 0;
    const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
    return static_cast<uintptr_t>(uc->uc_mcontext.pc);
#else
    (void)uc;
    return 0;
#endif
}

void write_report(SafeWriter& out, int sig, const siginfo_t* info, const void* context) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    out.text("crash report\nprogram: ").text(g_crash.program);
    out.text("\npid: ").dec(::getpid()).text("\ntid: ").dec(::gettid());
    out.text("\nsignal: ").dec(sig).text(" (").text(signal_name(sig)).text(")");
    out.text("\ncode: ").dec(info ? info->si_code : 0);
    out.text("\nfault address: ").hex(info ? reinterpret_cast<uintptr_t>(info->si_addr) : 0);
    out.text("\nprogram counter: ").hex(program_counter(context));
    out.text("\ntime: ").dec(static_cast<long long>(now.tv_sec));
    out.text("\nbacktrace:\n");
    out.flush();

    void* frames[kMaxFrames];
    const int depth = ::backtrace(frames, kMaxFrames);
    // One "object(function+offset) [address]" line per frame, written straight to the
    // descriptor without allocating.
    if (depth > 0) ::backtrace_symbols_fd(frames, depth, out.fd());
    out.text("memory map:\n");
    out.flush();

    const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps >= 0) {
        char chunk[2048];
        ssize_t n;
        while ((n = ks::sys::read_some(maps, chunk, sizeof chunk)) > 0) out.bytes(chunk, static_cast<size_t>(n));
        ::close(maps);
    }
    out.text("end of report\n");
    out.flush();
}

// "<dir>/<program>-<pid>-<seconds>.crash", built without snprintf.
bool report_file_name(char* out, size_t room) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    size_t used = 0;
    auto add = [&](const char* s) {
        while (*s && used + 1 < room) out[used++] = *s++;
        return *s == '\0';
    };
    auto add_dec = [&](long long v) {
        char digits[24];
        int n = 0;
        do {
            digits[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v > 0);
        bool fits = true;
        while (n) {
            if (used + 1 >= room) fits = false;
            else out[used++] = digits[n - 1];
            --n;
        }
        return fits;
    };
    const bool ok = add(g_crash.directory) && add("/") && add(g_crash.program) && add("-") && add_dec(::getpid()) &&
                    add("-") && add_dec(static_cast<long long>(now.tv_sec)) && add(".crash");
    out[used] = '\0';
    return ok;
}

int open_report_file() {
    char name[4096 + 300];
    if (!report_file_name(name, sizeof name)) return -1;
    return ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640);
}

void crash_handler(int sig, siginfo_t* info, void* context) {
    const int saved_errno = errno;
    // The process is dying: whatever happens below, it must not outlive the watchdog.
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    ::sigemptyset(&dfl.sa_mask);
    ::sigaction(SIGALRM, &dfl, nullptr);
    ::alarm(kWatchdogSeconds);

    if (g_crash.in_handler.exchange(1) != 0) {
        // Another thread is writing its report; that thread's re-raise ends us both. Wait for
        // it a bounded time, then die on our own.
        for (int i = 0; i < 50 && g_crash.in_handler.load() == 1; ++i) {
            timespec tick{0, 100 * 1000 * 1000};
            ::nanosleep(&tick, nullptr);
        }
    } else {
        bool written = false;
        const int collector = g_crash.collector_fd.load();
        if (g_crash.method.load() == static_cast<int>(ks::ExceptionHandlerMethod::collector) && collector >= 0) {
            SafeWriter out(collector, true);
            write_report(out, sig, info, context);
            written = out.ok();
        }
        if (!written) {
            const int fd = open_report_file();
            if (fd >= 0) {
                SafeWriter out(fd, false);
                write_report(out, sig, info, context);
                out.flush();
                ::fsync(fd);
                ::close(fd);
            }
        }
    }

    // SA_RESETHAND has restored the default action; re-raise so that a signal sent with
    // kill() ends the process too (a hardware fault would simply recur on return).
    ::sigaction(sig, &dfl, nullptr);
    errno = saved_errno;
    ::raise(sig);
}

int set_alt_stack() {
    if (t_alt_stack) return 0;
    void* mem = ::mmap(nullptr, kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        ks::_get_kserrno().set(ks::E_SYSTEM);
        return -1;
    }
    stack_t ss{};
    ss.ss_sp = mem;
    ss.ss_size = kAltStackSize;
    ss.ss_flags = 0;
    if (::sigaltstack(&ss, nullptr) != 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM);
        ::munmap(mem, kAltStackSize);
        return -1;
    }
    t_alt_stack = mem;
    return 0;
}

void close_collector() {
    const int fd = g_crash.collector_fd.exchange(-1);
    if (fd >= 0) ::close(fd);
}

// A non-blocking connect to the collector; the socket then blocks with a send timeout.
int connect_collector() {
    if (g_crash.socket_path[0] == '\0') return -1;
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, g_crash.socket_path, sizeof addr.sun_path);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    ks::sys::set_nonblocking(fd, false);
    timeval timeout{kCollectorSendTimeoutMs / 1000, (kCollectorSendTimeoutMs % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    g_crash.collector_fd.store(fd);
    return 0;
}

}  // namespace

namespace ks {

int init_exception_handler(const char* program, ExceptionHandlerMethod method) {
    if (method == ExceptionHandlerMethod::none) {
        uninit_exception_handler();
        return 0;
    }
    if (!program || !*program || std::strlen(program) >= sizeof g_crash.program) {
        _get_kserrno().set(E_INVAL, "Invalid program name for crash reports");
        return -1;
    }
    const ks::path dir(common_path::crash);
    if (!dir.good()) {
        _get_kserrno().set(E_NOENT, "No install root: cannot place crash reports");
        return -1;
    }
    if (!dir.mkdirp(0755)) return -1;
    if (dir.size() >= sizeof g_crash.directory) {
        _get_kserrno().set(E_INVAL, "Crash directory path too long: '{:s}'", dir.view());
        return -1;
    }
    std::memcpy(g_crash.directory, dir.c_str(), dir.size() + 1);
    std::memcpy(g_crash.program, program, std::strlen(program) + 1);

    // Loads the unwinder now; the first backtrace() would otherwise dlopen inside the handler.
    void* warm[2];
    ::backtrace(warm, 2);

    g_crash.method.store(static_cast<int>(method));
    if (method == ExceptionHandlerMethod::collector) {
        const ks::path sock(common_path::run, kCrashCollectorSocket);
        if (sock.size() < sizeof g_crash.socket_path) std::memcpy(g_crash.socket_path, sock.c_str(), sock.size() + 1);
        close_collector();
        if (connect_collector() != 0)
            KSLOG_WARN(0, "Crash collector not reachable at '{:s}'; reports go to '{:s}'", sock.view(), dir.view());
    }

    if (set_alt_stack() != 0) return -1;
    struct sigaction sa {};
    sa.sa_sigaction = crash_handler;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESETHAND;
    ::sigemptyset(&sa.sa_mask);
    // While one report is written, further faults of any kind take their default action.
    for (int sig : kCrashSignals) ::sigaddset(&sa.sa_mask, sig);
    // A collector that hung up must not turn the crash into a SIGPIPE death.
    ::sigaddset(&sa.sa_mask, SIGPIPE);
    for (int sig : kCrashSignals) {
        if (::sigaction(sig, &sa, nullptr) != 0) {
            _get_kserrno().set(E_SYSTEM);
            return -1;
        }
    }
    g_crash.installed = true;
    KSLOG_DEBUG(0, "Crash reports of '{:s}' go to '{:s}'", g_crash.program, g_crash.directory);
    return 0;
}

void uninit_exception_handler() {
    if (g_crash.installed) {
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        ::sigemptyset(&dfl.sa_mask);
        for (int sig : kCrashSignals) ::sigaction(sig, &dfl, nullptr);
        g_crash.installed = false;
    }
    g_crash.method.store(0);
    close_collector();
    if (t_alt_stack) {
        stack_t ss{};
        ss.ss_flags = SS_DISABLE;
        ::sigaltstack(&ss, nullptr);
        ::munmap(t_alt_stack, kAltStackSize);
        t_alt_stack = nullptr;
    }
}

int add_exception_handler_thread() { return set_alt_stack(); }

int check_exception_handler_connection() {
    if (g_crash.method.load() != static_cast<int>(ExceptionHandlerMethod::collector)) return 0;
    const int fd = g_crash.collector_fd.load();
    if (fd >= 0) {
        // The collector never sends: readable means it closed or failed.
        pollfd p{fd, POLLIN | POLLRDHUP, 0};
        const int n = ::poll(&p, 1, 0);
        if (n == 0) return 0;
        KSLOG_INFO(0, "Crash collector connection lost; reconnecting");
        close_collector();
    }
    return connect_collector();
}

const char* crash_report_directory() { return g_crash.directory; }

}  // namespace ks
