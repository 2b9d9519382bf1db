// The running daemon: the settings thread, the stop notifications and -execute-log-config.
//
// The settings thread owns everything that concerns every daemon alike: it applies a new
// log configuration when "/tmp/daemon/<name>/logging/config" changes, runs the
// default-settings callbacks when "/default_settings" changes, keeps the crash collector
// connection alive, and is the one place where a stop request (a signal's byte in the stop
// pipe, or the run callback returning) becomes the daemon's stop notifications: stop
// descriptors first, then the flag, then the callback. The main thread only runs the
// daemon's own run callback.
#include <ksutils/ksdaemon.h>

#include <kssetter/ksmonitoredkey.h>
#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>
#include <ksutils/kscrash.h>
#include <ksutils/kslog.h>

#include "kssys.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ks {
namespace daemon {

namespace {

// Subscriptions that failed (no settings server yet) are retried after a growing pause,
// so a missing server costs one attempt and one log record per pause, not per second.
constexpr int kMaxRetrySeconds = 30;

struct WatchedKey {
    ks::setMgmt::MonitoredKey key;
    int retry_in = 0;    // loop rounds to wait before the next subscription attempt
    int retry_pause = 1;
};

}  // namespace

void Instance::on_stop_fd(int fd) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stop_fds_.push_back(fd);
    }
    protect_fd(fd);
}

int Instance::on_stop_pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        _get_kserrno().set(E_SYSTEM, "Failed to create a stop pipe: {:s}", std::strerror(errno));
        return -1;
    }
    {
        std::lock_guard<std::mutex> guard(mutex_);
        owned_stop_pipes_.emplace_back(fds[0]);
        owned_stop_pipes_.emplace_back(fds[1]);
        stop_fds_.push_back(fds[1]);
    }
    protect_fd(fds[0]);
    protect_fd(fds[1]);
    KSLOG_DEBUG(0, "STOP PIPE: ({:d}, {:d})", fds[0], fds[1]);
    return fds[0];
}

int Instance::add_default_settings_callback(const std::function<bool()>& callback) {
    std::lock_guard<std::mutex> guard(callbacks_mutex_);
    const int id = next_callback_id_++;
    default_settings_callbacks_.emplace(id, callback);
    return id;
}

void Instance::remove_default_settings_callback(int id) {
    std::lock_guard<std::mutex> guard(callbacks_mutex_);
    default_settings_callbacks_.erase(id);
}

std::function<bool()> Instance::get_load_settings_function(const std::function<bool()>& loader) {
    return [loader]() {
        if (!loader) {
            KSLOG_ERROR(0, "BUG: empty settings loader");
            return false;
        }
        const bool ok = loader();
        if (!ok) KSLOG_ERROR(0, "Loading the default settings failed: {:s}", _get_kserrno().message_view());
        return ok;
    };
}

// One byte '1' to `fd`, never blocking: 1 written, -1 failed (and logged).
bool Instance::write_stop_byte(int fd) {
    pollfd p{fd, POLLOUT, 0};
    const int ready = ::poll(&p, 1, 0);
    if (ready < 0) {
        KSLOG_ERROR(0, "poll() error ({:d}) on fd {:d}", errno, fd);
        return false;
    }
    if (p.revents != POLLOUT) {
        KSLOG_WARN(0, "revents ({:d}) not POLLOUT on fd {:d}", static_cast<int>(p.revents), fd);
        return false;
    }
    const char one = '1';
    if (ks::sys::write_full(fd, &one, 1)) return true;
    KSLOG_ERROR(0, "write() error ({:d}) on fd {:d}", errno, fd);
    return false;
}

void Instance::stop_notifications() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (int fd : stop_fds_) {
            const int result = write_stop_byte(fd) ? 1 : -1;
            KSLOG_INFO(0, "Wrote stop signal on fd {:d} ({:d})", fd, result);
        }
    }
    if (stop_flag_) stop_flag_->store(1);
    if (stop_callback_) stop_callback_();
}

int Instance::run_daemon() {
    if (ks::setMgmt::init() < 0) return -1;
    if (crash_method_ != ExceptionHandlerMethod::none && init_exception_handler(name_.c_str(), crash_method_) != 0)
        KSLOG_DEBUG(0, "Exception Handler initialization failed");

    settings_thread_ = std::thread(&Instance::daemon_settings_thread, this);
    // The settings thread must end whichever way the run callback leaves.
    struct Joiner {
        Instance& self;
        ~Joiner() {
            self.write_stop_byte(self.stop_pipe_write_.get());
            if (self.settings_thread_.joinable()) self.settings_thread_.join();
            ks::setMgmt::uninit();
            {
                std::lock_guard<std::mutex> guard(self.protected_mutex_);
                self.protected_fds_.erase(self.pidfile_.fd());
            }
            self.pidfile_.close();
        }
    } joiner{*this};
    return run_callback_();
}

void Instance::daemon_settings_thread() {
    add_exception_handler_thread();
    std::vector<WatchedKey> keys;
    keys.push_back({ks::setMgmt::MonitoredKey(
        log_config_key_, [this](const ks::path& key, void* context) { return handle_log_config_change(key, context); })});
    keys.push_back({ks::setMgmt::MonitoredKey("/default_settings", [this](const ks::path& key, void* context) {
        return handle_default_settings_change(key, context);
    })});
    handle_default_settings_change(ks::path("/default_settings"), nullptr);

    const int stop_fd = stop_pipe_read_.get();
    for (;;) {
        check_exception_handler_connection();

        fd_set readable;
        FD_ZERO(&readable);
        int highest = -1;
        if (stop_fd >= 0 && stop_fd < FD_SETSIZE) {
            FD_SET(stop_fd, &readable);
            highest = stop_fd;
        }
        for (WatchedKey& watched : keys) {
            int fd = -1;
            if (watched.key.handle != nullptr) {
                fd = watched.key.get_fd();
            } else if (watched.retry_in > 0) {
                --watched.retry_in;
            } else {
                fd = watched.key.get_fd();
                if (fd < 0) {
                    watched.retry_in = watched.retry_pause;
                    watched.retry_pause = std::min(watched.retry_pause * 2, kMaxRetrySeconds);
                } else {
                    watched.retry_pause = 1;
                }
            }
            if (fd < 0 || fd >= FD_SETSIZE) continue;
            FD_SET(fd, &readable);
            highest = std::max(highest, fd);
        }

        timeval timeout{1, 0};
        const int ready = ::select(highest + 1, &readable, nullptr, nullptr, &timeout);
        if (ready < 0) {
            if (errno != EINTR) KSLOG_ERROR(0, "Error at select: errno={:d} ({:s})", errno, std::strerror(errno));
            continue;
        }
        if (ready == 0) continue;
        if (stop_fd >= 0 && FD_ISSET(stop_fd, &readable)) break;
        for (WatchedKey& watched : keys) {
            if (watched.key.handle == nullptr) continue;
            const int fd = ks::setMgmt::getNotificationFd(watched.key.handle);
            if (fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &readable)) watched.key.read_notifications();
        }
    }

    KSLOG_INFO(0, "stopping daemon_settings_thread...");
    stop_notifications();
    for (WatchedKey& watched : keys) watched.key.cancel();
}

bool Instance::handle_log_config_change(const ks::path&, void*) {
    std::string file;
    if (ks::setMgmt::getKey(log_config_key_.str(), file) < 0) {
        KSLOG_ERROR(0, "Failed to get key '{:s}'", log_config_key_.view());
        return false;
    }
    if (ks::log::execute_log_config(ks::string_view(file.c_str(), file.size()))) {
        KSLOG_TRACE(0, "Successfully executed action from '{:s}'", file);
        return true;
    }
    KSLOG_ERROR(0, "Failed to execute action from '{:s}'", file);
    return false;
}

bool Instance::handle_default_settings_change(const ks::path&, void*) {
    std::lock_guard<std::mutex> guard(callbacks_mutex_);
    for (const auto& entry : default_settings_callbacks_) {
        KSLOG_DEBUG(0, "Running default settings callback {:d}", entry.first);
        if (entry.second) entry.second();
    }
    return true;
}

int Instance::do_execute_log_config() {
    if (!open_pidfile()) {
        fmt::print(stderr, "Error: {}\n", _get_kserrno().message_view());
        return 1;
    }
    pid_t pid = 0;
    if (!find_running_pid(pid, "No instance seems to be currently running")) return -1;

    const std::string given(runtime_log_config_->data(), runtime_log_config_->size());
    char resolved[PATH_MAX];
    if (!::realpath(given.c_str(), resolved)) {
        _get_kserrno().set(E_NOENT, "Failed to resolve path '{:s}'", given);
        return -1;
    }
    const std::string file(resolved);
    if (!ks::log::is_valid_log_config(ks::string_view(file.c_str(), file.size()))) {
        _get_kserrno().set(E_INVAL, "Static log config validation failed for '{:s}'. Please check logs.", file);
        return -1;
    }
    std::printf("Static log config validation OK. Sending log config '%s' to daemon ...\n", file.c_str());
    std::fflush(stdout);

    if (ks::setMgmt::init() < 0) return -1;
    int result = 0;
    if (ks::setMgmt::lockKey(log_key_.str()) < 0) {
        result = -1;
    } else {
        if (ks::setMgmt::setKey(log_config_key_.str(), file) < 0) {
            _get_kserrno().set(E_FAULT, "Failed to set key '{:s}'", log_config_key_.view());
            result = -1;
        }
        const int saved_code = _get_kserrno().code;
        const std::string saved_message(_get_kserrno().message_view().data(), _get_kserrno().message_view().size());
        ks::setMgmt::unlockKey(log_key_.str());
        if (result < 0) _get_kserrno().set(saved_code, ks::string_view(saved_message));
    }
    ks::setMgmt::uninit();
    return result;
}

}  // namespace daemon
}  // namespace ks
