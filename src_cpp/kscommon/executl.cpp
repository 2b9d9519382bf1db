// Commands and scripts run on behalf of the daemons.
//
// The parent prepares everything a child needs (argument vector, kept descriptors, the
// interpreter's name) before it forks, because the child of a multi-threaded process may
// only make async-signal-safe calls until it executes the program. Scripts are written as
// I/O vectors, 512 pieces per writev, with SIGPIPE held back so an interpreter that exits
// early turns into an error instead of killing the daemon. The timed form writes the script
// without blocking inside its wait loop, so an interpreter that stops reading cannot hold
// the caller past the time limit; it polls instead of select(), which cannot watch
// descriptor numbers past FD_SETSIZE.
#include <ksutils/error.h>
#include <ksutils/executl.h>
#include <ksutils/executor.h>
#include <ksutils/fork.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "childutl.h"
#include "kssys.h"

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;
constexpr size_t kIovecBatch = 512;
constexpr size_t kReadChunk = 4096;

ks::string_view errno_text(int err) { return ks::string_view(std::strerror(err)); }

bool make_pipe(unique_fd& read_end, unique_fd& write_end) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        const int err = errno;
        _get_kserrno().set(E_FAULT, "pipe failed: errno={:d}, {:s}", err, errno_text(err));
        return false;
    }
    read_end.reset(fds[0]);
    write_end.reset(fds[1]);
    return true;
}

// The script as pieces (words, blanks, line breaks) written in batches of I/O vectors.
class script_writer {
public:
    explicit script_writer(const std::vector<std::vector<std::string>>& lines) {
        static const char blank = ' ', newline = '\n';
        for (const auto& line : lines) {
            for (size_t i = 0; i < line.size(); ++i) {
                if (i) pieces_.push_back({const_cast<char*>(&blank), 1});
                if (!line[i].empty()) pieces_.push_back({const_cast<char*>(line[i].data()), line[i].size()});
            }
            pieces_.push_back({const_cast<char*>(&newline), 1});
        }
    }

    bool done() const { return next_ == pieces_.size(); }

    // One writev of up to 512 pieces; false with the error record set on failure. A
    // descriptor that would block is not a failure: nothing was written.
    bool write_some(int fd) {
        const size_t count = std::min(kIovecBatch, pieces_.size() - next_);
        const ssize_t n = sys::writev_some(fd, pieces_.data() + next_, static_cast<int>(count));
        if (n < 0) {
            const int err = errno;
            if (err == EAGAIN) return true;
            _get_kserrno().set(E_FAULT, "writev failed: errno={:d}, {:s}", err, errno_text(err));
            return false;
        }
        advance(static_cast<size_t>(n));
        return true;
    }

    // Writes everything into a blocking descriptor; 0 or -1.
    int write_all(int fd) {
        while (!done())
            if (!write_some(fd)) return -1;
        return 0;
    }

private:
    void advance(size_t n) {
        while (n && next_ < pieces_.size()) {
            iovec& piece = pieces_[next_];
            const size_t used = std::min(n, piece.iov_len);
            piece.iov_base = static_cast<char*>(piece.iov_base) + used;
            piece.iov_len -= used;
            n -= used;
            if (piece.iov_len == 0) ++next_;
        }
    }

    std::vector<iovec> pieces_;
    size_t next_ = 0;
};

// Holds SIGPIPE back for the calling thread while the script is written: a write to an
// interpreter that already exited fails with EPIPE instead of ending the process.
class sigpipe_guard {
public:
    sigpipe_guard() {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    }
    ~sigpipe_guard() {
        if (!was_pending_) {
            const timespec none{0, 0};
            while (::sigtimedwait(&pipe_, nullptr, &none) == SIGPIPE) {
            }
        }
        ::pthread_sigmask(SIG_SETMASK, &old_, nullptr);
    }
    sigpipe_guard(const sigpipe_guard&) = delete;
    sigpipe_guard& operator=(const sigpipe_guard&) = delete;

private:
    sigset_t pipe_, old_;
    bool was_pending_ = false;
};

// Waits for the child; 0 for a zero exit status, else the status (or -1) with the record set.
int wait_child(pid_t pid) {
    int status = 0;
    if (sys::wait_pid(pid, &status, 0) < 0) {
        _get_kserrno().set(E_FAULT, "waitpid failed: {:s}", errno_text(errno));
        return -1;
    }
    if (!WIFEXITED(status)) {
        _get_kserrno().set(E_FAULT, "waitpid failed: {:s}", ks::string_view("child terminated abnormally"));
        return -1;
    }
    const int code = WEXITSTATUS(status);
    if (code != 0) _get_kserrno().set(E_SYSTEM, "child's return code = {:d}", code);
    return code;
}

// The child's first steps: die with the parent, make sure the parent is still the one that
// forked us, and take a process group of our own.
bool enter_own_group(pid_t parent, bool die_with_parent) {
    if (die_with_parent && (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent)) ::_exit(1);
    return ::setpgid(0, 0) == 0;
}

// The child's side of exec_command, on data the parent prepared.
struct command_child {
    const exec_command_ctx& ctx;
    const std::vector<int>& keep;
    int given[3];
    const char** argv;
    long limit;
    pid_t parent;
    bool detached;

    // Without a callback and without the detaching double fork, the child runs nothing of
    // the caller's, so it can share the parent's memory until it executes the program.
    // Sanitizer runtimes keep per-thread state that a child on a borrowed stack corrupts
    // (ASan unpoisons the parent's stack when the child calls a no-return function), so
    // sanitized builds always fork.
    bool can_share_memory() const {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        return false;
#else
        return !ctx.on_child_error && !detached;
#endif
    }

    [[noreturn]] void run() const {
        if (!detached) {
            if (!enter_own_group(parent, true)) fail();
        } else {
            if (::setsid() < 0) ::_exit(errno);
            const pid_t grandchild = ::fork();
            if (grandchild < 0) ::_exit(errno);
            if (grandchild > 0) ::_exit(0);
        }
        // Given descriptors move above 2 first, so that mapping one number cannot
        // overwrite another that is still to be mapped.
        int source[3];
        for (int target = 0; target < 3; ++target)
            source[target] = given[target] >= 0 ? ::fcntl(given[target], F_DUPFD_CLOEXEC, 3) : -1;
        for (int target = 0; target < 3; ++target) {
            if (source[target] >= 0) {
                ::dup2(source[target], target);
            } else if (!ctx.keep_fds.count(target)) {
                const int null_fd = ::open("/dev/null", O_RDWR);
                if (null_fd >= 0 && null_fd != target) {
                    ::dup2(null_fd, target);
                    ::close(null_fd);
                }
            } else {
                child::keep_on_exec(target);
            }
        }
        for (int fd : keep) child::keep_on_exec(fd);
        child::close_from(3, keep.data(), keep.size(), limit);
        char* const* argvp = const_cast<char* const*>(argv);
        if (ctx.envp) ::execvpe(argvp[0], argvp, ctx.envp);
        else ::execvp(argvp[0], argvp);
        fail();
    }

    [[noreturn]] void fail() const {
        const int err = errno;
        if (ctx.on_child_error) ctx.on_child_error();
        ::_exit(err);
    }
};

// Starts the child the way posix_spawn does: it borrows the parent's memory and the parent
// waits until it has executed the program (CLONE_VM | CLONE_VFORK), so the cost does not grow
// with the parent's size the way fork's copy of the page tables does. The library's fork
// hooks are for children that go on running library code; this one only executes. Signals
// are blocked around the start, and the child resets every caught signal to its default
// before it unblocks them, so no handler of the parent ever runs on the borrowed memory.
pid_t spawn_sharing_memory(const command_child& child) {
    constexpr size_t kStackSize = 256 * 1024;
    void* stack = ::mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED) return -1;
    sigset_t all, old;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old);
    struct start {
        const command_child& child;
        const sigset_t& mask;
        static int main(void* arg) {
            const start& s = *static_cast<const start*>(arg);
            for (int sig = 1; sig < NSIG; ++sig) {
                struct sigaction sa {};
                if (::sigaction(sig, nullptr, &sa) == 0 && sa.sa_handler != SIG_IGN && sa.sa_handler != SIG_DFL) {
                    sa.sa_handler = SIG_DFL;
                    sa.sa_flags = 0;
                    ::sigaction(sig, &sa, nullptr);
                }
            }
            ::pthread_sigmask(SIG_SETMASK, &s.mask, nullptr);
            s.child.run();
        }
    } args{child, old};
    const pid_t pid = ::clone(&start::main, static_cast<char*>(stack) + kStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD,
                              &args);
    const int err = errno;
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    ::munmap(stack, kStackSize);
    errno = err;
    return pid;
}

}  // namespace

std::string command_to_str(const char** argv) {
    std::string text;
    for (const char** word = argv; word && *word; ++word) {
        if (word != argv) text += ' ';
        text += *word;
    }
    return text;
}

int exec_command(const char** argv) { return exec_command(argv, exec_command_ctx()); }

int exec_command(const char** argv, const exec_command_ctx& ctx) {
    ctx.has_result = false;
    if (!argv || !argv[0]) {
        _get_kserrno().set(E_INVAL, "empty command");
        return -1;
    }
    const long limit = ::sysconf(_SC_OPEN_MAX);
    if (limit < 0) {
        _get_kserrno().set(E_SYSTEM, "sysconf failed");
        return -1;
    }
    // Prepared before the fork: the child must not allocate.
    const std::vector<int> keep(ctx.keep_fds.lower_bound(0), ctx.keep_fds.end());
    const command_child child{ctx,   keep,  {ctx.stdin_fd, ctx.stdout_fd, ctx.stderr_fd},
                              argv,  limit, ::getpid(),
                              !ctx.wait && ctx.detach};
    const pid_t pid = child.can_share_memory() ? spawn_sharing_memory(child) : ks::fork();
    if (pid < 0) {
        const int err = errno;
        _get_kserrno().set(E_FAULT, "fork failed for \"{:s}\"; errno={:d}", command_to_str(argv), err);
        return -1;
    }
    if (pid == 0) child.run();
    const bool detached = child.detached;

    KSLOG_DEBUG(kChannel, "child PID: {:d}", static_cast<int>(pid));
    ctx.pid = pid;
    if (detached) {
        // The intermediate child ends at once; collect it so that it leaves no zombie.
        sys::wait_pid(pid, nullptr, 0);
        return 0;
    }
    if (!ctx.wait) return 0;
    ctx.result = wait_child(pid);
    ctx.has_result = true;
    return ctx.result == 0 ? 0 : -1;
}

int exec_script(const std::vector<std::vector<std::string>>& lines, const ks::string_view& interpreter) {
    unique_fd script_in, script_out;
    if (!make_pipe(script_in, script_out)) return -1;
    const long limit = ::sysconf(_SC_OPEN_MAX);
    if (limit < 0) {
        _get_kserrno().set(E_SYSTEM, "sysconf failed");
        return -1;
    }
    const std::string program(interpreter);
    script_writer script(lines);
    const pid_t parent = ::getpid();

    const pid_t pid = ks::fork();
    if (pid < 0) {
        const int err = errno;
        _get_kserrno().set(E_FAULT, "fork failed: errno={:d}, {:s}", err, errno_text(err));
        return -1;
    }
    if (pid == 0) {
        if (::setpgid(0, 0) != 0) ::_exit(errno);
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(1);
        ::dup2(script_in.get(), 0);
        const int null_fd = ::open("/dev/null", O_RDWR);
        ::dup2(null_fd, 1);
        ::dup2(null_fd, 2);
        child::close_from(3, nullptr, 0, limit);
        ::execlp(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        ::_exit(errno);
    }

    script_in.reset();
    int written;
    {
        sigpipe_guard guard;
        written = script.write_all(script_out.get());
    }
    script_out.reset();
    return wait_child(pid) != 0 ? -1 : written;
}

int exec_script(const std::vector<std::vector<std::string>>& lines, int timeout_seconds,
                const ks::string_view& interpreter) {
    unique_fd script_in, script_out, output_in, output_out;
    if (!make_pipe(script_in, script_out) || !make_pipe(output_in, output_out)) return -1;
    const std::string program(interpreter);
    const char* argv[] = {program.c_str(), nullptr};
    exec_command_ctx ctx;
    ctx.stdin_fd = script_in.get();
    ctx.stdout_fd = output_out.get();
    ctx.stderr_fd = output_out.get();
    ctx.wait = false;
    if (exec_command(argv, ctx) != 0) return -1;
    const pid_t pid = ctx.pid;
    script_in.reset();
    output_out.reset();

    const int timer = timer_init(timer_type::monotonic);
    if (timer < 0 || timer_start(timer, timeout_seconds, 0) != 0) {
        _get_kserrno().set(E_SYSTEM, "cannot start the script's timer");
        ::kill(-pid, SIGTERM);
        wait_child(pid);
        if (timer >= 0) timer_uninit(timer);
        return -1;
    }
    sys::set_nonblocking(script_out.get(), true);
    sys::set_nonblocking(output_in.get(), true);

    script_writer script(lines);
    sigpipe_guard guard;
    std::string output;
    char chunk[kReadChunk];
    // Reads what the pipe holds now; false at end of file or on an error.
    auto read_output = [&] {
        for (;;) {
            const ssize_t n = sys::read_some(output_in.get(), chunk, sizeof chunk);
            if (n > 0) {
                output.append(chunk, static_cast<size_t>(n));
                continue;
            }
            return n < 0 && errno == EAGAIN;
        }
    };
    int status = 0;
    bool exited = false;
    while (!exited) {
        if (script_out && script.done()) script_out.reset();
        pollfd fds[3] = {{timer, POLLIN, 0}, {output_in.get(), POLLIN, 0}, {script_out.get(), POLLOUT, 0}};
        const int ready = ::poll(fds, 3, 1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            KSLOG_ERROR(kChannel, "select(): {}", errno_text(errno));
            _get_kserrno().set(E_SYSTEM);
            break;
        }
        if (ready == 0) {
            exited = sys::wait_pid(pid, &status, WNOHANG) == pid;
            continue;
        }
        if (fds[2].revents & (POLLOUT | POLLERR | POLLHUP)) {
            if (!script.write_some(script_out.get())) script_out.reset();
        }
        if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) {
            if (!read_output()) output_in.reset();
        }
        if (fds[0].revents & POLLIN) {
            timer_tick(timer);
            KSLOG_WARN(kChannel, "Script timed-out. Killing it...");
            ::kill(-pid, SIGKILL);
        }
    }
    timer_uninit(timer);
    if (!exited) {
        KSLOG_DEBUG(kChannel, "Script did not run completly");
        ::kill(-pid, SIGKILL);
        sys::wait_pid(pid, nullptr, 0);
        return -1;
    }
    // What the interpreter wrote just before it ended is still in the pipe.
    if (output_in) read_output();

    std::string rendered;
    if (WIFEXITED(status)) rendered = fmt::format("{:d}", WEXITSTATUS(status));
    else if (WIFSIGNALED(status)) rendered = fmt::format("{:d} (killed by signal)", WTERMSIG(status));
    else rendered = fmt::format("{:d} (unknown)", status);
    if (!output.empty()) KSLOG_INFO(kChannel, "Script retcode={:s}, output='{:s}'", rendered, output);
    else KSLOG_INFO(kChannel, "Script retcode={:s}", rendered);
    if (rendered == "0") return 0;
    _get_kserrno().set(E_FAULT, "script exited with error/timeout");
    return -1;
}

}  // namespace ks
