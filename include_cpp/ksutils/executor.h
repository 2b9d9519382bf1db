/// @file
/// The single-threaded event loop of the daemons: a table of callbacks indexed by file
/// descriptor over one epoll instance, and timers that are timerfds in the same table.
///
/// @code
///   ks::Executor loop;
///   loop.add(sock, EPOLLIN, [&] { return on_readable(); });     // -1 unregisters
///   int tfd = loop.start_timer(std::chrono::seconds(5), [&] { return poll_peers(); });
///   while (running && loop.tick(std::chrono::milliseconds(1000))) {}
///   loop.del(tfd);                                              // closes the timer
///   loop.del(sock);                                             // sock stays open
/// @endcode
///
/// An executor belongs to the thread that calls tick(); callbacks run on that thread and may
/// add, mod, del and start timers on the same executor. Other threads wake the loop by
/// writing to a registered eventfd with eventfd_notify().
#pragma once

#include <ksexport.h>

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <functional>

namespace ks {

/// A single-threaded event loop over one epoll instance (see the file description).
class KS_EXPORT Executor {
public:
    /// Descriptors index the table directly, so only 0 .. kTableSize - 1 can be registered.
    static constexpr int kTableSize = 1024;
    /// Ready descriptors handled per tick.
    static constexpr int kBatchSize = 32;

    /// What a slot holds.
    enum class EventType : uint32_t {
        none = 0,        ///< slot free
        descriptor = 1,  ///< added by the caller, never closed by the executor
        timer = 2,       ///< a timerfd made by start_timer, closed by del
    };

    /// One slot. `ev` is handed to epoll_ctl as it is: its mask is what the descriptor is
    /// registered for and its data word holds the descriptor number.
    struct Event {
        Event() noexcept : ev{}, type(EventType::none) {}
        /// A slot for `fd` registered for `events`.
        Event(unsigned events, int fd, std::function<int()> cb, EventType t) noexcept
            : ev{}, callback(std::move(cb)), type(t) {
            ev.events = events;
            ev.data.u64 = static_cast<uint32_t>(fd);
        }
        /// Takes the slot of `other`, which keeps no callback.
        Event(Event&& other) noexcept : ev(other.ev), callback(std::move(other.callback)), type(other.type) {
            other.callback = nullptr;
        }
        /// Takes the slot of `other`, which keeps no callback.
        Event& operator=(Event&& other) noexcept {
            if (this == &other) return *this;
            ev = other.ev;
            callback = std::move(other.callback);
            other.callback = nullptr;
            type = other.type;
            return *this;
        }
        Event(const Event&) = delete;
        Event& operator=(const Event&) = delete;

        struct epoll_event ev;  ///< what epoll_ctl is given
        std::function<int()> callback;  ///< run when the descriptor is ready; -1 unregisters it
        EventType type;  ///< what the slot holds
    };

    /// Creates the epoll instance (close-on-exec); all slots start empty.
    Executor();
    /// Reports every slot still in use as a bug; closes only the epoll instance.
    ~Executor();
    /// Not movable either: timer callbacks remember the executor's address.
    Executor(const Executor&) = delete;
    Executor& operator=(const Executor&) = delete;

    /// Registers `fd` for `events` (EPOLLIN and/or EPOLLOUT, plus any epoll flags).
    /// 0, or -1 for a negative, too large or already registered descriptor (logged as
    /// "BUG: ...") or when the kernel refuses it (errno tells why).
    int add(int fd, unsigned events, std::function<int()> cb);
    /// add() recording the slot's type; a timer slot is closed by del().
    int add(int fd, unsigned events, std::function<int()> cb, EventType type);
    /// Changes the mask, and the callback unless `cb` is empty. 0 or -1. If the kernel
    /// refuses the change the slot is dropped from the table.
    int mod(int fd, unsigned events, std::function<int()> cb);
    /// Unregisters `fd` and closes it if it is a timer; the kernel's result, or -1 for a
    /// descriptor that is not registered.
    int del(int fd);

    /// Waits up to `timeout` (negative: no limit; 0: poll) and dispatches at most 32 ready
    /// descriptors. A callback runs when its descriptor is readable and registered for
    /// EPOLLIN, or writable and registered for EPOLLOUT; an error or hang-up alone calls
    /// nothing (the owner sees it on its next read or write). A callback that returns -1 is
    /// unregistered at once. Returns true while anything is still registered.
    bool tick(std::chrono::milliseconds timeout);

    /// Starts a monotonic timer: first expiry after `timeout`, then every `period` (0: once).
    /// Returns the timer descriptor (the handle for update_timer and del) or -1.
    /// The callback's result steers the timer: 0 keeps it as armed, -1 stops and closes it,
    /// any other value r re-arms it with `timeout` as the first expiry and r ms as period.
    int start_timer(std::chrono::milliseconds timeout, std::chrono::milliseconds period, std::function<int()> cb);
    /// Fires at once, then every `period`.
    int start_timer(std::chrono::milliseconds period, std::function<int()> cb);
    /// Re-arms a timer whether or not it is running; 0 or -1.
    int update_timer(int tfd, std::chrono::milliseconds timeout, std::chrono::milliseconds period);

    Event events[kTableSize];  ///< the slots, indexed by descriptor
    int epoll_fd;  ///< the epoll instance
    int count;  ///< slots in use
};

/// The clock of a timer descriptor.
enum class timer_type : int { realtime = 0, monotonic = 1 };

/// @name Timer descriptors
/// Timer descriptors for callers that run their own loop. On failure these set the thread's
/// error record and return -1 (false for timer_is_running, all-ones for timer_tick).
/// @{

/// A non-blocking timerfd on the given clock; E_INVAL for an unknown clock.
KS_EXPORT int timer_init(timer_type type);
/// Arms the timer relative to now, unless it is already running (then nothing changes and
/// the result is 0 too: stop it first to change it). A period of 0 fires once.
KS_EXPORT int timer_start_ms(int fd, long timeout_ms, long period_ms);
/// timer_start_ms() in seconds.
KS_EXPORT int timer_start(int fd, long timeout_s, long period_s);
/// True when the timer is armed.
KS_EXPORT bool timer_is_running(int fd);
/// Expirations since the last call; 0 when none are pending.
KS_EXPORT uint64_t timer_tick(int fd);
/// Disarms the timer; 0 or -1.
KS_EXPORT int timer_stop(int fd);
/// Stops and closes; if stopping fails the descriptor stays open and the result is -1.
KS_EXPORT int timer_uninit(int fd);

/// @}

/// Wakes the loop that watches the eventfd `fd` (adds 1 to its counter). Failures are
/// logged and reported as false.
KS_EXPORT bool eventfd_notify(int fd);
/// Drains the eventfd's counter; call it from the loop's callback. Failures (EAGAIN
/// included) are logged and reported as false.
KS_EXPORT bool eventfd_read_notification(int fd);

/// "MODS: ET, EVENTS: IN OUT" for an epoll mask, for log records. The text lives in a
/// buffer of the calling thread that the next call overwrites.
KS_EXPORT const char* epoll_events_to_string(unsigned events);

}  // namespace ks
