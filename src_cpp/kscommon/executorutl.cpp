// The epoll executor, timerfd helpers and eventfd wake-ups.
//
// The executor keeps one slot per descriptor number, and the slot's epoll_event is what
// the kernel gets, so dispatching a ready descriptor is an array index: no map, no search,
// no allocation. Slots are consulted when an event is dispatched, not when it was
// collected, which is what lets callbacks add, delete and re-register descriptors in the
// middle of a batch. A running callback is moved out of its slot for the duration of the
// call, so a callback that deletes or replaces its own registration is not destroyed
// while it runs.
#include <ksutils/error.h>
#include <ksutils/executor.h>
#include <ksutils/kslog.h>

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace ks {

namespace {

constexpr unsigned long kChannel = 0;

// The wake-up helpers' records carry the name operators filter the misc utilities by.
constexpr const char* kNotifySource = "miscutl.cpp";

int to_epoll_timeout(std::chrono::milliseconds timeout) {
    const auto ms = timeout.count();
    if (ms < 0) return -1;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// Calls the slot's callback with the callback moved out of the slot, and puts it back
// afterwards unless the call unregistered the descriptor or installed a new callback.
int run_callback(Executor::Event& slot) {
    struct Restore {
        Executor::Event& slot;
        std::function<int()> running;
        ~Restore() {
            if (slot.type != Executor::EventType::none && !slot.callback) slot.callback = std::move(running);
        }
    } guard{slot, std::move(slot.callback)};
    slot.callback = nullptr;
    return guard.running();
}

bool is_running(const struct itimerspec& spec) { return spec.it_value.tv_sec != 0 || spec.it_value.tv_nsec != 0; }

void set_timespec(struct timespec& ts, long ms) {
    ts.tv_sec = ms / 1000;
    ts.tv_nsec = (ms % 1000) * 1000000L;
}

void set_system_error(const char* call, int fd) {
    const int saved = errno;
    _get_kserrno().set(E_SYSTEM, "{:s}(fd={:d}): {:s}", ks::string_view(call), fd,
                       ks::string_view(std::strerror(saved)));
    errno = saved;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Executor

Executor::Executor() : epoll_fd(::epoll_create1(EPOLL_CLOEXEC)), count(0) {
    if (epoll_fd < 0) KSLOG_ERROR(kChannel, "epoll_create1: {:s}", ks::string_view(std::strerror(errno)));
}

Executor::~Executor() {
    for (const Event& slot : events) {
        if (slot.type != EventType::none)
            KSLOG_ERROR(kChannel, "BUG: Please executor->del() all file descriptors on cleanup.");
    }
    if (epoll_fd >= 0) ::close(epoll_fd);
}

int Executor::add(int fd, unsigned events_mask, std::function<int()> cb) {
    return add(fd, events_mask, std::move(cb), EventType::descriptor);
}

int Executor::add(int fd, unsigned events_mask, std::function<int()> cb, EventType type) {
    if (fd < 0) {
        KSLOG_ERROR(kChannel, "BUG: Can not register invalid fd={:d}", fd);
        return -1;
    }
    if (fd >= kTableSize) {
        KSLOG_ERROR(kChannel, "BUG: Can not register fd={:d}, descriptors must be below {:d}", fd, kTableSize);
        return -1;
    }
    Event& slot = events[fd];
    if (slot.type != EventType::none) {
        KSLOG_ERROR(kChannel, "BUG: fd={:d} already tracked", fd);
        return -1;
    }
    KSLOG_TRACE(kChannel, "epoll: Add fd={:d}", fd);
    slot = Event(events_mask, fd, std::move(cb), type);
    if (::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &slot.ev) < 0) {
        // Drop the callback too: whatever it captured should not outlive the failure.
        const int saved = errno;
        slot = Event();
        errno = saved;
        return -1;
    }
    ++count;
    return 0;
}

int Executor::mod(int fd, unsigned events_mask, std::function<int()> cb) {
    if (fd < 0 || fd >= kTableSize || events[fd].type == EventType::none) {
        KSLOG_ERROR(kChannel, "fd={:d} was not registered with this executor instance", fd);
        return -1;
    }
    Event& slot = events[fd];
    if (cb) {
        slot = Event(events_mask, fd, std::move(cb), slot.type);
    } else {
        slot.ev.events = events_mask;
        slot.ev.data.u64 = static_cast<uint32_t>(fd);
    }
    KSLOG_TRACE(kChannel, "epoll: Modify fd={:d}", fd);
    if (::epoll_ctl(epoll_fd, EPOLL_CTL_MOD, fd, &slot.ev) < 0) {
        // The slot leaves the table but stays counted: the kernel may still hold the
        // descriptor, so the loop must not believe it has nothing left to wait for.
        slot.type = EventType::none;
        return -1;
    }
    return 0;
}

int Executor::del(int fd) {
    if (fd < 0 || fd >= kTableSize || events[fd].type == EventType::none) {
        KSLOG_ERROR(kChannel, "fd={:d} was not registered with this executor instance", fd);
        return -1;
    }
    KSLOG_TRACE(kChannel, "epoll: Delete fd={:d}", fd);
    Event& slot = events[fd];
    const int rc = ::epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
    const int saved = errno;
    if (slot.type == EventType::timer) timer_uninit(fd);
    slot = Event();
    --count;
    errno = saved;
    return rc;
}

bool Executor::tick(std::chrono::milliseconds timeout) {
    struct epoll_event ready[kBatchSize];
    const int n = ::epoll_wait(epoll_fd, ready, kBatchSize, to_epoll_timeout(timeout));
    for (int i = 0; i < n; ++i) {
        const uint64_t fd = ready[i].data.u64;
        if (fd >= static_cast<uint64_t>(kTableSize)) continue;
        Event& slot = events[fd];
        // Only readiness the descriptor asked for counts; error and hang-up bits alone
        // reach the owner through its next read or write.
        if ((slot.ev.events & ready[i].events & (EPOLLIN | EPOLLOUT)) == 0 || !slot.callback) continue;
        if (run_callback(slot) == -1) del(static_cast<int>(fd));
    }
    return count > 0;
}

int Executor::start_timer(std::chrono::milliseconds timeout, std::chrono::milliseconds period,
                          std::function<int()> cb) {
    const int tfd = timer_init(timer_type::monotonic);
    if (tfd < 0) return -1;
    const long timeout_ms = timeout.count();
    auto on_expiry = [this, tfd, timeout_ms, cb = std::move(cb)]() -> int {
        if (timer_tick(tfd) == 0) return 0;
        if (!cb) return 0;
        const int result = cb();
        if (result == -1) {
            del(tfd);
        } else if (result != 0) {
            timer_stop(tfd);
            if (timer_start_ms(tfd, timeout_ms, result) < 0)
                KSLOG_ERROR(kChannel, "Can not re-arm timer tfd={:d} with period {:d} ms", tfd, result);
        }
        // The wrapper handled the timer's fate itself; tick must not delete it again.
        return 0;
    };
    if (add(tfd, EPOLLIN, std::move(on_expiry), EventType::timer) < 0) {
        timer_uninit(tfd);
        return -1;
    }
    KSLOG_TRACE(kChannel, "Starting timer tfd={:d} timeout={:d} milliseconds={:d}", tfd, timeout_ms,
                static_cast<long>(period.count()));
    if (timer_start_ms(tfd, timeout_ms, period.count()) < 0) {
        del(tfd);
        return -1;
    }
    return tfd;
}

int Executor::start_timer(std::chrono::milliseconds period, std::function<int()> cb) {
    return start_timer(std::chrono::milliseconds(0), period, std::move(cb));
}

int Executor::update_timer(int tfd, std::chrono::milliseconds timeout, std::chrono::milliseconds period) {
    timer_stop(tfd);
    return timer_start_ms(tfd, timeout.count(), period.count());
}

// ---------------------------------------------------------------------------------------
// Timer descriptors

int timer_init(timer_type type) {
    if (type != timer_type::realtime && type != timer_type::monotonic) {
        _get_kserrno().set(E_INVAL, "invalid timer type {:d}", static_cast<int>(type));
        return -1;
    }
    const clockid_t clock = type == timer_type::realtime ? CLOCK_REALTIME : CLOCK_MONOTONIC;
    const int fd = ::timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        set_system_error("timerfd_create", -1);
        return -1;
    }
    return fd;
}

int timer_start_ms(int fd, long timeout_ms, long period_ms) {
    struct itimerspec current;
    if (::timerfd_gettime(fd, &current) < 0) {
        set_system_error("timerfd_gettime", fd);
        return -1;
    }
    if (is_running(current)) return 0;
    struct itimerspec arm {};
    set_timespec(arm.it_value, timeout_ms);
    // An all-zero first expiry would disarm the timer instead of firing it at once.
    if (arm.it_value.tv_sec == 0 && arm.it_value.tv_nsec == 0) arm.it_value.tv_nsec = 1;
    set_timespec(arm.it_interval, period_ms);
    if (::timerfd_settime(fd, 0, &arm, nullptr) < 0) {
        set_system_error("timerfd_settime", fd);
        return -1;
    }
    return 0;
}

int timer_start(int fd, long timeout_s, long period_s) { return timer_start_ms(fd, timeout_s * 1000, period_s * 1000); }

bool timer_is_running(int fd) {
    struct itimerspec current;
    if (::timerfd_gettime(fd, &current) < 0) {
        set_system_error("timerfd_gettime", fd);
        return false;
    }
    return is_running(current);
}

uint64_t timer_tick(int fd) {
    uint64_t expirations = 0;
    const ssize_t n = ::read(fd, &expirations, sizeof expirations);
    if (n > 0) return expirations;
    if (n == 0 || errno == EAGAIN) return 0;
    set_system_error("read", fd);
    return ~uint64_t(0);
}

int timer_stop(int fd) {
    const struct itimerspec disarm {};
    if (::timerfd_settime(fd, 0, &disarm, nullptr) < 0) {
        set_system_error("timerfd_settime", fd);
        return -1;
    }
    return 0;
}

int timer_uninit(int fd) {
    if (timer_stop(fd) < 0) return -1;
    return ::close(fd);
}

// ---------------------------------------------------------------------------------------
// Event notifications

bool eventfd_notify(int fd) {
    const uint64_t one = 1;
    if (::write(fd, &one, sizeof one) != -1) return true;
    const int saved = errno;
    if (log::can_log(kChannel, log::level::error))
        log::detail::log(kChannel, log::level::error, kNotifySource, __LINE__, __func__, "write[{:d}] {:s}", saved,
                         ks::string_view(std::strerror(saved)));
    errno = saved;
    return false;
}

bool eventfd_read_notification(int fd) {
    uint64_t value;
    if (::read(fd, &value, sizeof value) != -1) return true;
    const int saved = errno;
    if (log::can_log(kChannel, log::level::error))
        log::detail::log(kChannel, log::level::error, kNotifySource, __LINE__, __func__, "read[{:d}] {:s}", saved,
                         ks::string_view(std::strerror(saved)));
    errno = saved;
    return false;
}

const char* epoll_events_to_string(unsigned events) {
    static thread_local char text[128];
    struct Flag {
        unsigned bit;
        const char* name;
    };
    static constexpr Flag kMods[] = {
        {EPOLLET, " ET"}, {EPOLLONESHOT, " ONESHOT"}, {EPOLLWAKEUP, " WAKEUP"}, {EPOLLEXCLUSIVE, " EXCLUSIVE"}};
    static constexpr Flag kEvents[] = {{EPOLLIN, " IN"},       {EPOLLOUT, " OUT"}, {EPOLLRDHUP, " RDHUP"},
                                       {EPOLLPRI, " PRI"},     {EPOLLERR, " ERR"}, {EPOLLHUP, " HUP"}};
    constexpr unsigned kModBits = 0xf0000000u;
    constexpr unsigned kEventBits = 0x201fu;

    // The longest possible text is well under the buffer, so plain appends are safe.
    char* out = text;
    auto append = [&out](const char* s) {
        const size_t n = std::strlen(s);
        std::memcpy(out, s, n);
        out += n;
    };
    append("MODS:");
    if (events & kModBits) {
        for (const Flag& f : kMods)
            if (events & f.bit) append(f.name);
    } else {
        append(" (none)");
    }
    append(", EVENTS:");
    if (events & kEventBits) {
        for (const Flag& f : kEvents)
            if (events & f.bit) append(f.name);
    } else {
        append(" (none)");
    }
    *out = '\0';
    return text;
}

}  // namespace ks
