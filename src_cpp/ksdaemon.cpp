// The daemon object's start-up: command line, actions, detaching, PID file and -stop.
//
// Detaching is the classic double fork: the launching process waits on a report pipe
// while its grandchild sets itself up (new session, PID file lock, descriptors closed,
// /dev/null on 0-2). Any failure on the way travels back through the pipe as one report
// (code, errno, message) and becomes the launcher's "Error: ..." and exit status 127;
// end of file on the pipe means the daemon is up. The PID file lock is the single source
// of truth about a running instance: a stale file left by a killed daemon holds no lock,
// so it never blocks a new start. The run loop and the settings thread live in
// ksdaemon_settings.cpp.
#include <ksutils/ksdaemon.h>

#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>
#include <ksutils/fork.h>
#include <ksutils/kslog.h>
#include <ksutils/miscutl.h>

#include "kssys.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

namespace ks {
namespace daemon {

namespace {

constexpr int kStopWaitRounds = 20;
constexpr std::chrono::milliseconds kMaxLockPoll{10};
constexpr uint64_t kMaxReportMessage = 2048;

std::mutex g_instance_mutex;
std::shared_ptr<Instance> g_instance;
std::atomic<long> g_instance_calls{0};

// The stop pipe's write end, for the signal handler.
std::atomic<int> g_stop_pipe_write{-1};

std::string daemon_name(const char* argv0) {
    if (!argv0 || !*argv0) return std::string();
    const char* slash = std::strrchr(argv0, '/');
    return slash ? std::string(slash + 1) : std::string(argv0);
}

void print_error() {
    const auto& e = _get_kserrno();
    fmt::print(stderr, "Error: {}\n", std::string_view(e.message_view().data(), e.message_view().size()));
    std::fflush(stderr);
}

void signal_stop_handler(int sig) {
    if (sig != SIGINT && sig != SIGTERM) return;
    const int saved = errno;
    const int fd = g_stop_pipe_write.load();
    if (fd >= 0) {
        const char one = '1';
        (void)sys::write_full(fd, &one, 1);
    }
    errno = saved;
}

// Reads the detached process's start-up report: 0 when it started (end of file without a
// report), -1 with the reported error, or -1 when the pipe could not be read.
int read_report(int fd) {
    int32_t code = 0;
    const ssize_t got = sys::read_full(fd, &code, sizeof code);
    if (got < 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to read the start-up report: {:s}", std::strerror(errno));
        return -1;
    }
    if (got == 0) return 0;
    int32_t saved_errno = 0;
    uint64_t length = 0;
    auto read_exact = [fd](void* data, size_t size) {
        return sys::read_full(fd, data, size) == static_cast<ssize_t>(size);
    };
    if (got != sizeof code || !read_exact(&saved_errno, sizeof saved_errno) || !read_exact(&length, sizeof length)) {
        _get_kserrno().set(E_FAULT, "The daemon's start-up report is incomplete");
        return -1;
    }
    if (length == 0 || length > kMaxReportMessage) {
        errno = EINVAL;
        _get_kserrno().set(E_SYSTEM, "The daemon's start-up report has an invalid length {:d}", length);
        return -1;
    }
    std::string message(length, '\0');
    if (!read_exact(message.data(), message.size())) {
        _get_kserrno().set(E_FAULT, "The daemon's start-up report is incomplete");
        return -1;
    }
    _get_kserrno().set(code, ks::string_view(message));
    if (code == E_SYSTEM) errno = saved_errno;
    return -1;
}

// Closes every descriptor below `limit` that is not in `keep` (ascending), a range at a time.
void close_unprotected(const std::map<int, int>& keep, long limit) {
    auto close_span = [](unsigned lo, unsigned hi) {
        if (lo > hi) return;
        if (::close_range(lo, hi, 0) == 0) return;
        for (unsigned fd = lo; fd <= hi; ++fd) ::close(static_cast<int>(fd));
    };
    unsigned lo = 0;
    for (const auto& entry : keep) {
        if (entry.first < 0 || entry.first >= limit) continue;
        const auto fd = static_cast<unsigned>(entry.first);
        if (fd > lo) close_span(lo, fd - 1);
        lo = fd + 1;
    }
    if (limit > 0 && lo < static_cast<unsigned long>(limit)) close_span(lo, static_cast<unsigned>(limit - 1));
}

// True once `pid` no longer holds the lock: it is free, or a newer instance took it. A
// lock that cannot be read counts as still held.
bool lock_released(ks::ProcessLock& lock, pid_t pid) {
    pid_t holder = 0;
    const int held = lock.holder_pid(holder);
    return held == 0 || (held == 1 && holder != pid);
}

// Waits until `pid` lets the lock go (true) or `deadline` passes (false). The lock gives no
// notice of its release, so it is looked at after 1 ms, then at intervals doubling up to
// kMaxLockPoll: a daemon that exits at once is seen within a few ms, one that takes its
// time costs a hundred cheap fcntl calls a second.
bool wait_released(ks::ProcessLock& lock, pid_t pid, std::chrono::steady_clock::time_point deadline) {
    for (std::chrono::steady_clock::duration pause = std::chrono::milliseconds(1);;
         pause = std::min<std::chrono::steady_clock::duration>(pause * 2, kMaxLockPoll)) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        std::this_thread::sleep_for(std::min(pause, deadline - now));
        if (lock_released(lock, pid)) return true;
    }
}

}  // namespace

// A forked child re-creates the locks another thread may have held at the fork.
void reset_mutexes_after_fork() {
    new (&g_instance_mutex) std::mutex;
    if (Instance* self = g_instance.get()) {
        new (&self->mutex_) std::mutex;
        new (&self->callbacks_mutex_) std::mutex;
        new (&self->protected_mutex_) std::mutex;
    }
}

std::shared_ptr<Instance> instance(int argc, char** argv) {
    std::lock_guard<std::mutex> guard(g_instance_mutex);
    if (!g_instance) {
        g_instance.reset(new Instance(argc, argv));
        ks::lib_atfork(&reset_mutexes_after_fork);
    }
    g_instance_calls.fetch_add(1);
    return g_instance;
}

std::shared_ptr<Instance> instance() {
    std::lock_guard<std::mutex> guard(g_instance_mutex);
    return g_instance;
}

Instance::Instance(int argc, char** argv)
    : argc_(argc),
      argv_(argv),
      name_(daemon_name(argc > 0 && argv ? argv[0] : nullptr)),
      action_(ks::cl::help("To specify the action you want performed use one of the following:"),
              ks::cl::values(ks::cl::value("start", StartupAction::start, "start the daemon"),
                             ks::cl::value("stop", StartupAction::stop, "stop the daemon"),
                             ks::cl::value("version", StartupAction::version, "print version information"),
                             ks::cl::value("execute-log-config", StartupAction::execute_log_config,
                                           "execute action from log config"),
                             ks::cl::value("help", StartupAction::help, "print usage information"))),
      no_detach_("no-detach", ks::cl::in("start"), ks::cl::at_most(1),
                 ks::cl::help("do not detach from the controlling terminal")),
      start_log_config_("log-config", ks::cl::in("start"), ks::cl::optional, ks::cl::value_name("FILE"),
                        ks::cl::help("startup log config")),
      runtime_log_config_("log-config", ks::cl::in("execute-log-config"), ks::cl::exactly(1),
                          ks::cl::value_name("FILE"), ks::cl::help("log config at runtime")),
      log_key_("/tmp/daemon", name_, "logging"),
      log_config_key_(log_key_, "config") {
    // Programs the daemon starts must not inherit our library path; environment() keeps it.
    ::unsetenv("LD_LIBRARY_PATH");
}

Instance::~Instance() {
    if (settings_thread_.joinable()) settings_thread_.detach();
    int expected = stop_pipe_write_.get();
    g_stop_pipe_write.compare_exchange_strong(expected, -1);
    if (logging_) ks::log::stop();
}

void Instance::protect_fd(int fd) {
    if (fd < 0) return;
    std::lock_guard<std::mutex> guard(protected_mutex_);
    protected_fds_[fd] = fd;
}

std::map<int, int> Instance::protected_fds() const {
    std::lock_guard<std::mutex> guard(protected_mutex_);
    return protected_fds_;
}

int Instance::run() {
    ks::abort_if(!run_callback_, "Please set the run callback with on_run()");
    bool no_stop_notification;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        no_stop_notification = !stop_callback_ && !stop_flag_ && stop_fds_.empty();
    }
    ks::abort_if(no_stop_notification,
                 "Please set the stop notification callback with on_stop(), the stop notification flag with "
                 "on_stop_flag() AND/OR the stop notification filedescriptor with on_stop_fd()");

    if (!check_command_line(true)) return 1;
    if (!do_kslog_setup()) {
        print_error();
        return 1;
    }

    int status = 0;
    switch (*action_) {
        case StartupAction::start: status = do_run(); break;
        case StartupAction::stop: status = do_stop(); break;
        case StartupAction::execute_log_config: status = do_execute_log_config(); break;
        case StartupAction::version:
            std::fputs("VERSIONINFO!\n", stdout);
            std::fflush(stdout);
            break;
        case StartupAction::help: ks::cl::print_help(stderr); break;
    }
    if (status < 0) {
        if (!detached_child_) print_error();
        status = 127;
    }
    if (logging_) {
        ks::log::stop();
        logging_ = false;
    }
    return status;
}

bool Instance::check_command_line(bool report) {
    if (!command_line_checked_) {
        command_line_ok_ = ks::cl::parse(argc_, argv_);
        command_line_checked_ = true;
    }
    if (!command_line_ok_ && report) {
        print_error();
        ks::cl::print_usage(stderr);
        std::fflush(stderr);
    }
    return command_line_ok_;
}

bool Instance::do_kslog_setup() {
    if (logging_) {
        ks::log::stop();
        logging_ = false;
    }
    if (name_.empty() || !ks::log::start(name_.c_str(), nullptr, nullptr)) {
        const char* root = kspath_default_install_path();
        if (!root)
            _get_kserrno().set(E_NOENT, "kslog setup failed: no install root found");
        else
            _get_kserrno().set(E_FAULT, "kslog setup failed (install root '{:s}')", root);
        return false;
    }
    logging_ = true;
    if (*action_ == StartupAction::start && start_log_config_.occurrences() > 0) {
        const std::string config(start_log_config_->data(), start_log_config_->size());
        if (!ks::log::execute_log_config(ks::string_view(config.c_str(), config.size()))) {
            _get_kserrno().set(E_INVAL, "Failed to execute log config '{:s}'", config);
            return false;
        }
    }
    return true;
}

int Instance::do_run() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to create the stop pipe: {:s}", std::strerror(errno));
        return -1;
    }
    stop_pipe_read_.reset(fds[0]);
    stop_pipe_write_.reset(fds[1]);
    protect_fd(fds[0]);
    protect_fd(fds[1]);
    g_stop_pipe_write.store(fds[1]);

    sigset_t none;
    ::sigemptyset(&none);
    struct sigaction sa {};
    sa.sa_handler = signal_stop_handler;
    sa.sa_flags = SA_RESTART;
    ::sigemptyset(&sa.sa_mask);
    if (::pthread_sigmask(SIG_SETMASK, &none, nullptr) != 0 || ::sigaction(SIGTERM, &sa, nullptr) != 0 ||
        ::sigaction(SIGINT, &sa, nullptr) != 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to install the stop signal handlers: {:s}", std::strerror(errno));
        return 1;
    }

    _get_kserrno().set(E_OK);
    const int result = daemonize();
    if (result < 0 && _get_kserrno().code == E_OK) _get_kserrno().set(E_SYSTEM);
    return result;
}

bool Instance::open_pidfile() {
    {
        std::lock_guard<std::mutex> guard(protected_mutex_);
        protected_fds_.erase(pidfile_.fd());
    }
    pidfile_.close();
    const ks::path file(common_path::run, name_ + ".pid");
    if (!file.good()) {
        _get_kserrno().set(E_NOENT, "No install root found for the PID file");
        return false;
    }
    if (!pidfile_.open(file.view())) {
        _get_kserrno().set(E_SYSTEM, "Failed to open PID file '{:s}': {:s}", file.view(), std::strerror(errno));
        return false;
    }
    KSLOG_DEBUG(0, "PID file fd: {:d}", pidfile_.fd());
    protect_fd(pidfile_.fd());
    return true;
}

// Opens the PID file and takes its lock for the whole life of this process.
static bool lock_pidfile(Instance& self, ks::ProcessLock& lock) {
    if (!self.open_pidfile()) return false;
    const int taken = lock.lock();
    if (taken == 1) return true;
    if (taken < 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to lock the PID file: {:s}", std::strerror(errno));
        return false;
    }
    pid_t holder = 0;
    lock.holder_pid(holder);
    _get_kserrno().set(E_FAULT, "Daemon '{:s}' is already running with pid {:d}", self.name(), static_cast<int>(holder));
    return false;
}

void Instance::send_report() {
    const int fd = report_pipe_write_.get();
    if (fd < 0) return;
    const auto& e = _get_kserrno();
    const int32_t code = e.code == E_OK ? E_FAULT : e.code;
    const int32_t saved_errno = errno;
    std::string message(e.message_view().data(), e.message_view().size());
    if (message.empty()) message = std::string(error_default_message(code));
    if (message.size() > kMaxReportMessage) message.resize(kMaxReportMessage);
    const uint64_t length = message.size();
    // Four writes, as the launching process reads them.
    sys::write_full(fd, &code, sizeof code) && sys::write_full(fd, &saved_errno, sizeof saved_errno) &&
        sys::write_full(fd, &length, sizeof length) && sys::write_full(fd, message.data(), message.size());
}

// A detached process that cannot start reports why and leaves at once, without running
// the exit handlers it inherited from the launching process.
void Instance::fail_detached() {
    if (_get_kserrno().code == E_OK) _get_kserrno().set(E_FAULT, "Daemon start-up failed");
    KSLOG_ERROR(0, "Start-up failed: {:s}", _get_kserrno().message_view());
    // The launcher returns as soon as it reads the report: by then no lock may be left
    // for a caller that looks at the PID file next.
    pidfile_.close();
    send_report();
    if (logging_) ks::log::stop();
    ::_exit(127);
}

int Instance::daemonize() {
    const char* root = kspath_default_install_path();
    KSLOG_INFO(0, "Current install path is '{:s}'.", root ? root : "");

    if (no_detach()) {
        if (!lock_pidfile(*this, pidfile_)) return -1;
        if (pre_run_callback_ && !pre_run_callback_()) {
            if (_get_kserrno().code == E_OK) _get_kserrno().set(E_FAULT, "The pre-run callback failed");
            return -1;
        }
        if (::setpgid(0, 0) != 0) {
            KSLOG_ERROR(0, "setpgid failed");
            ::_exit(errno);
        }
        return run_daemon();
    }

    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to create the report pipe: {:s}", std::strerror(errno));
        return -1;
    }
    ks::unique_fd report_read(report[0]);
    report_pipe_write_.reset(report[1]);
    protect_fd(report[1]);
    KSLOG_DEBUG(0, "kserrno pipe fd: {:d}", report[1]);

    // Nothing buffered may be written twice by the children.
    std::fflush(nullptr);
    const pid_t child = ks::fork();
    if (child < 0) {
        _get_kserrno().set(E_SYSTEM, "fork failed: {:s}", std::strerror(errno));
        return -1;
    }
    if (child > 0) {
        report_pipe_write_.reset();
        int status = 0;
        const pid_t reaped = sys::wait_pid(child, &status, WNOHANG);
        const int result = read_report(report_read.get());
        // The intermediate process leaves right after its own fork; do not leave a zombie.
        if (reaped == 0) sys::wait_pid(child, &status, 0);
        return result;
    }

    // The first child: a new session, then the daemon proper in a grandchild. It has
    // nothing to log unless it fails, so it starts its logger (a key file read and a random
    // generator seeded, a good part of the way to the run callback) only then.
    detached_child_ = true;
    report_read.reset();
    auto fail_first_child = [this](const char* call) {
        const int saved = errno;
        do_kslog_setup();
        errno = saved;
        _get_kserrno().set(E_SYSTEM, "{:s} failed: {:s}", call, std::strerror(saved));
        fail_detached();
    };
    if (::setsid() < 0) fail_first_child("setsid");
    const pid_t grandchild = ks::fork();
    if (grandchild < 0) fail_first_child("fork");
    if (grandchild > 0) {
        if (logging_) ks::log::stop();
        ::_exit(0);
    }

    do_kslog_setup();
    if (::setpgid(0, 0) != 0) {
        KSLOG_ERROR(0, "setpgid failed");
        ::_exit(errno);
    }
    if (!lock_pidfile(*this, pidfile_)) fail_detached();
    ::umask(0);
    const long limit = ::sysconf(_SC_OPEN_MAX);
    if (limit < 0) {
        _get_kserrno().set(E_SYSTEM, "sysconf(_SC_OPEN_MAX) failed: {:s}", std::strerror(errno));
        fail_detached();
    }
    const std::map<int, int> keep = protected_fds();
    if (ks::log::can_log(0, ks::log::level::debug)) {
        std::string list;
        for (const auto& entry : keep) list += (list.empty() ? "" : ", ") + std::to_string(entry.first);
        KSLOG_DEBUG(0, "Protected FDs: {}", list);
    }
    // The logger holds descriptors of its own; it is started again once 0-2 are in place.
    if (logging_) {
        ks::log::stop();
        logging_ = false;
    }
    close_unprotected(keep, limit);
    static const char* const kStdNames[] = {"STDIN", "STDOUT", "STDERR"};
    const int null_fd = ::open("/dev/null", O_RDWR);
    for (int fd = 0; fd < 3; ++fd) {
        const int got = fd == 0 ? null_fd : ::dup2(0, fd);
        if (got != fd) {
            _get_kserrno().set(E_FAULT, "Got invalid file descriptor {:d} when trying to reopen {:s} handle", got,
                               kStdNames[fd]);
            fail_detached();
        }
    }

    if (!do_kslog_setup()) {
        _get_kserrno().set(E_FAULT, "kslog setup failed");
        fail_detached();
    }
    if (pre_run_callback_ && !pre_run_callback_()) {
        if (_get_kserrno().code == E_OK) _get_kserrno().set(E_FAULT, "The pre-run callback failed");
        fail_detached();
    }
    // Closing our end of the report pipe tells the launching process that we are up.
    {
        std::lock_guard<std::mutex> guard(protected_mutex_);
        protected_fds_.erase(report_pipe_write_.get());
    }
    report_pipe_write_.reset();
    detached_child_ = false;
    return run_daemon();
}

bool Instance::find_running_pid(pid_t& pid, ks::string_view nobody) {
    const int held = pidfile_.holder_pid(pid);
    if (held < 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to query the PID file lock: {:s}", std::strerror(errno));
        return false;
    }
    if (held == 0) {
        _get_kserrno().set(E_NOENT, nobody);
        return false;
    }
    return true;
}

int Instance::do_stop() {
    if (!open_pidfile()) {
        print_error();
        return 1;
    }
    pid_t pid = 0;
    if (!find_running_pid(pid, "No previously running instance found")) return -1;
    if (::kill(pid, SIGTERM) != 0) {
        _get_kserrno().set(E_FAULT, "Failed to send TERM signal to {:d}: {:s}", static_cast<int>(pid),
                           std::strerror(errno));
        return -1;
    }
    std::printf("Sending stop signal to %d ...", static_cast<int>(pid));
    std::fflush(stdout);

    // One dot for every second started, as the operator has always seen them, but the
    // answer comes as soon as the lock is let go.
    const auto start = std::chrono::steady_clock::now();
    bool gone = lock_released(pidfile_, pid);
    for (int round = 0; !gone && round < kStopWaitRounds; ++round) {
        std::fputc('.', stdout);
        std::fflush(stdout);
        gone = wait_released(pidfile_, pid, start + std::chrono::seconds(round + 1));
    }
    std::printf(" %s\n", gone ? "done" : "failed");
    std::fflush(stdout);
    return gone ? 0 : 1;
}

}  // namespace daemon
}  // namespace ks
