// A supervised child program and its NUL-framed messages.
//
// The socket pair is non-blocking on the daemon's side only: the child's standard output
// is a blocking socket, as programs expect of their standard output. The child is prepared
// entirely in the parent (argument vector, environment block) and between fork and exec
// makes only async-signal-safe calls; an exec failure therefore is not logged by the child
// but reported as its exit status (the error number), which reap() logs. A message larger
// than the buffer is dropped up to its terminating NUL, so its tail never poses as a
// message of its own. A graceful stop polls for the child's exit every few milliseconds for
// up to three seconds before SIGKILL, so a well-behaved child is not waited on for a second.
#include <ksutils/fork.h>
#include <ksutils/ksdaemon.h>
#include <ksutils/kslog.h>
#include <ksutils/subprocess.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>

#include "childutl.h"
#include "kssys.h"

extern char** environ;

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;
constexpr auto kStopWait = std::chrono::seconds(3);
constexpr auto kStopPoll = std::chrono::milliseconds(5);

ks::string_view errno_text(int err) { return ks::string_view(std::strerror(err)); }

std::string describe(const Subprocess& p) { return fmt::format("(type={}, pid={:d})", type_name(p.type()), p.pid()); }

}  // namespace

const char* type_name(Subprocess::Type type) noexcept {
    switch (type) {
        case Subprocess::Type::AVAHI: return "AVAHI";
        case Subprocess::Type::LEASES: return "LEASES";
        case Subprocess::Type::UPNP: return "UPNP";
        default: return "GENERIC";
    }
}

std::ostream& operator<<(std::ostream& os, const Subprocess& p) { return os << describe(p); }

Subprocess::Subprocess(Type type, std::string command)
    : type_(type), command_(std::move(command)), buffer_(new char[kBufferSize]) {}

Subprocess::~Subprocess() { stop(true); }

bool Subprocess::start() {
    if (fork_exec()) return true;
    ++failures_;
    return false;
}

bool Subprocess::restart() {
    if (pid_ > 0) stop(true);
    return start();
}

bool Subprocess::fork_exec() {
    daemon_end_.reset();
    child_end_.reset();
    KSLOG_DEBUG(kChannel, "{} spawn timestamp: {:d}", describe(*this),
                static_cast<long long>(std::chrono::steady_clock::now().time_since_epoch().count()));
    if (command_.find_first_not_of(' ') == std::string::npos) return false;
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) {
        KSLOG_ERROR(kChannel, "socketpair() failed: {:s}", errno_text(errno));
        return false;
    }
    daemon_end_.reset(pair[0]);
    child_end_.reset(pair[1]);
    sys::set_nonblocking(pair[1], false);

    std::vector<std::string> words;
    std::istringstream split(command_);
    for (std::string word; split >> word;) words.push_back(std::move(word));
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    const auto daemon = ks::daemon::instance();
    char* const* envp = daemon ? daemon->environment().envp() : environ;

    const long limit = ::sysconf(_SC_OPEN_MAX);
    if (limit < 0) {
        KSLOG_ERROR(kChannel, "sysconf() failed");
        reset();
        return false;
    }
    const int child_end = child_end_.get();
    const pid_t pid = ks::fork();
    if (pid < 0) {
        KSLOG_ERROR(kChannel, "fork() failed: {:s}", errno_text(errno));
        reset();
        return false;
    }
    if (pid == 0) {
        if (::dup2(child_end, 1) < 0) ::_exit(errno);
        child::close_from(3, nullptr, 0, limit);
        ::close(0);
        if (::open("/dev/null", O_RDWR) != 0) ::_exit(2);
        if (::dup2(0, 2) != 2) ::_exit(2);
        ::execvpe(argv[0], argv.data(), envp);
        ::_exit(errno);
    }
    child_end_.reset();
    pid_ = pid;
    return true;
}

bool Subprocess::reap(bool wait) {
    if (pid_ <= 0) return false;
    int status = 0;
    const pid_t got = sys::wait_pid(pid_, &status, wait ? 0 : WNOHANG);
    if (got < 0) {
        KSLOG_ERROR(kChannel, "waitpid() failed: {:s}", errno_text(errno));
        return false;
    }
    if (got == 0) return false;
    if (WIFSIGNALED(status)) KSLOG_INFO(kChannel, "Subprocess {} exited abnormally", describe(*this));
    else KSLOG_INFO(kChannel, "Subprocess {} exited normally ({:d})", describe(*this), WEXITSTATUS(status));
    return true;
}

std::vector<std::string> Subprocess::recv() {
    std::vector<std::string> messages;
    if (pid_ <= 0 || !daemon_end_) return messages;
    const ssize_t n = sys::recv_some(daemon_end_.get(), buffer_.get() + fill_, kBufferSize - fill_, 0);
    if (n == 0) {
        KSLOG_WARN(kChannel, "Subprocess {} terminated prematurely", describe(*this));
        reap(true);
        reset();
        ++failures_;
        return messages;
    }
    if (n < 0) {
        if (errno != EAGAIN) KSLOG_ERROR(kChannel, "recv() failed: {:s}", errno_text(errno));
        return messages;
    }
    fill_ += static_cast<size_t>(n);
    const char* start = buffer_.get();
    const char* const end = start + fill_;
    for (const char* nul; (nul = static_cast<const char*>(std::memchr(start, '\0', end - start)));) {
        if (!discarding_) messages.emplace_back(start, nul);
        discarding_ = false;
        start = nul + 1;
    }
    fill_ = static_cast<size_t>(end - start);
    if (fill_ == kBufferSize) {
        KSLOG_ERROR(kChannel, "Received message larger than buffer");
        fill_ = 0;
        discarding_ = true;
    } else if (discarding_) {
        fill_ = 0;
    } else if (start != buffer_.get()) {
        std::memmove(buffer_.get(), start, fill_);
    }
    return messages;
}

void Subprocess::stop(bool graceful) {
    if (pid_ <= 0) return;
    bool closed = false, failed = false;
    while (daemon_end_) {
        const ssize_t n = sys::recv_some(daemon_end_.get(), buffer_.get(), kBufferSize, MSG_DONTWAIT);
        if (n > 0) continue;
        if (n == 0) closed = true;
        else if (errno != EAGAIN) {
            KSLOG_ERROR(kChannel, "recv() failed: {:s}", errno_text(errno));
            failed = true;
        }
        break;
    }
    if (daemon_end_ && !closed && (failed || graceful) &&
        ::send(daemon_end_.get(), "1", 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1)
        KSLOG_ERROR(kChannel, "send() failed: {:s}", errno_text(errno));
    for (auto waited = std::chrono::milliseconds(0); waited < kStopWait; waited += kStopPoll) {
        if (reap(false)) {
            reset();
            return;
        }
        std::this_thread::sleep_for(kStopPoll);
    }
    if (::kill(pid_, SIGKILL) == 0) reap(true);
    reset();
}

void Subprocess::reset() {
    fill_ = 0;
    discarding_ = false;
    pid_ = -1;
    daemon_end_.reset();
    child_end_.reset();
}

}  // namespace ks
