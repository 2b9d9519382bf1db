// Executor dispatch rules, timers, cross-thread wake-ups and the timer/eventfd helpers.
#include <ksutils/error.h>
#include <ksutils/executor.h>
#include <ksutils/kslog.h>

#include <gtest/gtest.h>

#include "kstest.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace {

// Owns the descriptors a test creates, so a failed assertion leaks nothing.
struct Fds {
    std::vector<int> fds;
    ~Fds() {
        for (int fd : fds)
            if (fd >= 0) ::close(fd);
    }
    int keep(int fd) {
        fds.push_back(fd);
        return fd;
    }
    int eventfd() { return keep(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)); }
    std::pair<int, int> pipe() {
        int p[2];
        EXPECT_EQ(::pipe2(p, O_NONBLOCK | O_CLOEXEC), 0);
        return {keep(p[0]), keep(p[1])};
    }
    // Closes early, and forgets it so the destructor does not close a reused number.
    void close(int fd) {
        for (int& f : fds)
            if (f == fd) f = -1;
        ::close(fd);
    }
};

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// Removes whatever the test left registered, so the destructor has nothing to report.
void del_all(ks::Executor& loop) {
    for (int fd = 0; fd < ks::Executor::kTableSize; ++fd)
        if (loop.events[fd].type != ks::Executor::EventType::none) loop.del(fd);
}

// Ticks until `done` holds or a generous number of ticks passed.
template <class Pred>
void tick_until(ks::Executor& loop, Pred done) {
    for (int i = 0; i < 500 && !done(); ++i) loop.tick(10ms);
}

long remaining_ms(int tfd, bool interval = false) {
    struct itimerspec t {};
    EXPECT_EQ(::timerfd_gettime(tfd, &t), 0);
    const struct timespec& ts = interval ? t.it_interval : t.it_value;
    return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// The default channel at trace level on standard error, in a throw-away install root.
class LogCapture {
public:
    LogCapture() {
        const std::string config = root_ / "etc/logging/capture.json";
        kstest::write_file(config, R"({"action":"update","channels":{"default":[{"file":":stderr","level":"trace"}]}})");
        started_ = ks::log::start("executor_test", root_.path().c_str(), config.c_str());
    }
    ~LogCapture() {
        if (started_) ks::log::stop();
    }
    bool started() const { return started_; }
    // What was logged while `fn` ran.
    template <class Fn>
    std::string during(Fn fn) {
        testing::internal::CaptureStderr();
        fn();
        return testing::internal::GetCapturedStderr();
    }

private:
    kstest::InstallRoot root_;
    bool started_ = false;
};

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

TEST(Executor, RejectsBadDescriptorsAndKeepsTheFirstRegistration) {
    ks::Executor loop;
    Fds fds;
    const int efd = fds.eventfd();
    int calls = 0;
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&] { ++calls; return ks::eventfd_read_notification(efd) ? 0 : -1; }), 0);

    struct Case {
        const char* what;
        int (*op)(ks::Executor&, int);
        int fd;
    };
    auto add = [](ks::Executor& l, int fd) { return l.add(fd, EPOLLIN, [] { return 0; }); };
    auto mod = [](ks::Executor& l, int fd) { return l.mod(fd, EPOLLOUT, nullptr); };
    auto del = [](ks::Executor& l, int fd) { return l.del(fd); };
    const Case cases[] = {
        {"add invalid", add, -1},          {"add too large", add, ks::Executor::kTableSize},
        {"add far too large", add, 70000}, {"add duplicate", add, efd},
        {"mod unknown", mod, efd + 1},     {"mod invalid", mod, -3},
        {"mod too large", mod, 5000},      {"del unknown", del, efd + 1},
        {"del invalid", del, -1},          {"del too large", del, ks::Executor::kTableSize},
    };
    for (const Case& c : cases) EXPECT_EQ(c.op(loop, c.fd), -1) << c.what;
    EXPECT_EQ(loop.count, 1);

    // A descriptor the kernel refuses (a regular file) is not counted.
    const int file = fds.keep(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(file, 0);
    EXPECT_EQ(loop.add(file, EPOLLIN, [] { return 0; }), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(loop.count, 1);
    EXPECT_EQ(loop.events[file].type, ks::Executor::EventType::none);

    // The first registration still works after the duplicate was refused.
    ASSERT_TRUE(ks::eventfd_notify(efd));
    EXPECT_TRUE(loop.tick(1000ms));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loop.del(efd), 0);
    EXPECT_TRUE(is_open(efd)) << "ordinary descriptors are never closed by the executor";
    EXPECT_FALSE(loop.tick(0ms));
}

TEST(Executor, ErrorOrHangupAloneCallsNothing) {
    struct Case {
        const char* what;
        bool watch_read_end;  // otherwise the write end; the other end is closed
    };
    for (const Case c : {Case{"read end, writer gone: EPOLLHUP", true}, Case{"write end, reader gone: EPOLLERR", false}}) {
        ks::Executor loop;
        Fds fds;
        auto [r, w] = fds.pipe();
        const int watched = c.watch_read_end ? r : w;
        int calls = 0;
        ASSERT_EQ(loop.add(watched, EPOLLIN, [&] { return ++calls, 0; }), 0) << c.what;
        fds.close(c.watch_read_end ? w : r);
        EXPECT_TRUE(loop.tick(0ms)) << c.what;
        EXPECT_TRUE(loop.tick(0ms)) << c.what;
        EXPECT_EQ(calls, 0) << c.what;
        EXPECT_EQ(loop.del(watched), 0);
    }
}

TEST(Executor, CallbackResultDecidesRegistration) {
    // Readable and writable at once: the callback still runs once per tick.
    for (int result : {0, 1, 42, -2, -1}) {
        ks::Executor loop;
        Fds fds;
        int sv[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv), 0);
        fds.keep(sv[0]);
        fds.keep(sv[1]);
        ASSERT_EQ(::write(sv[1], "x", 1), 1);
        int calls = 0;
        ASSERT_EQ(loop.add(sv[0], EPOLLIN | EPOLLOUT, [&] { return ++calls, result; }), 0);
        const bool still = loop.tick(1000ms);
        EXPECT_EQ(calls, 1) << result;
        EXPECT_EQ(still, result != -1) << result;
        loop.tick(0ms);
        EXPECT_EQ(calls, result == -1 ? 1 : 2) << result;
        EXPECT_TRUE(is_open(sv[0])) << result;
        if (result != -1) {
            EXPECT_EQ(loop.del(sv[0]), 0);
        }
    }
}

TEST(Executor, ModChangesMaskAndOptionallyCallback) {
    ks::Executor loop;
    Fds fds;
    const int efd = fds.eventfd();  // always writable, readable once notified
    std::vector<std::string> calls;
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&] { calls.push_back("first"); return 0; }), 0);
    loop.tick(0ms);
    EXPECT_TRUE(calls.empty());

    ASSERT_EQ(loop.mod(efd, EPOLLOUT, nullptr), 0);  // keeps the callback
    loop.tick(1000ms);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0], "first");

    ASSERT_EQ(loop.mod(efd, EPOLLOUT, [&] { calls.push_back("second"); return 0; }), 0);
    loop.tick(1000ms);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1], "second");
    EXPECT_EQ(loop.events[efd].type, ks::Executor::EventType::descriptor);
    EXPECT_EQ(loop.del(efd), 0);
}

TEST(Executor, SlotsAreConsultedAtDispatchTime) {
    ks::Executor loop;
    Fds fds;
    const int a = fds.eventfd();
    const int b = fds.eventfd();
    std::vector<std::pair<int, std::string>> calls;

    // Whichever runs first unregisters the other and registers it again with a new
    // callback; the second entry of the batch must reach the new callback.
    std::function<int()> make[2];
    for (int i = 0; i < 2; ++i) {
        const int self = i == 0 ? a : b;
        const int other = i == 0 ? b : a;
        make[i] = [&, self, other] {
            calls.emplace_back(self, "old");
            EXPECT_EQ(loop.del(other), 0);
            EXPECT_EQ(loop.add(other, EPOLLIN, [&, other] { calls.emplace_back(other, "new"); return 0; }), 0);
            return 0;
        };
    }
    ASSERT_EQ(loop.add(a, EPOLLIN, make[0]), 0);
    ASSERT_EQ(loop.add(b, EPOLLIN, make[1]), 0);
    ASSERT_TRUE(ks::eventfd_notify(a));
    ASSERT_TRUE(ks::eventfd_notify(b));
    loop.tick(1000ms);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].second, "old");
    EXPECT_EQ(calls[1].second, "new");
    EXPECT_NE(calls[0].first, calls[1].first);

    // Deleted without re-registration: the later entry is skipped.
    del_all(loop);
    calls.clear();
    for (int i = 0; i < 2; ++i) {
        const int self = i == 0 ? a : b;
        const int other = i == 0 ? b : a;
        ASSERT_EQ(loop.add(self, EPOLLIN, [&, self, other] { calls.emplace_back(self, "old"); return loop.del(other), 0; }), 0);
    }
    loop.tick(1000ms);
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(loop.count, 1);
    del_all(loop);
}

TEST(Executor, CallbackMayReplaceOrDeleteItselfWhileRunning) {
    ks::Executor loop;
    Fds fds;
    const int efd = fds.eventfd();
    ASSERT_TRUE(ks::eventfd_notify(efd));
    std::string seen;
    // The captured text must stay alive after the callback removed its own registration.
    const std::string label(64, 'x');
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&loop, &seen, efd, label] {
        loop.del(efd);
        seen = label;
        return 0;
    }), 0);
    EXPECT_FALSE(loop.tick(1000ms));
    EXPECT_EQ(seen, label);

    int replaced = 0;
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&loop, &seen, &replaced, efd, label] {
        loop.mod(efd, EPOLLIN, [&replaced, efd] { ++replaced; return ks::eventfd_read_notification(efd) ? 0 : -1; });
        seen = label + "!";
        return 0;
    }), 0);
    loop.tick(1000ms);
    EXPECT_EQ(seen, label + "!");
    loop.tick(1000ms);
    EXPECT_EQ(replaced, 1) << "the replacement runs from the next event on";
    EXPECT_EQ(loop.del(efd), 0);
}

TEST(Executor, TickReportsWhetherAnythingIsRegistered) {
    ks::Executor loop;
    EXPECT_FALSE(loop.tick(10ms));
    Fds fds;
    const int efd = fds.eventfd();
    ASSERT_EQ(loop.add(efd, EPOLLIN, [] { return 0; }), 0);
    EXPECT_TRUE(loop.tick(10ms));
    EXPECT_EQ(loop.del(efd), 0);
    EXPECT_FALSE(loop.tick(0ms));
}

TEST(Executor, TimerFiresAtOnceThenFollowsCallbackResult) {
    ks::Executor loop;
    // A one-hour period: the first call can only come from the immediate first expiry.
    std::vector<int> results = {500, 0, -1};
    size_t calls = 0;
    const int tfd = loop.start_timer(1h, [&] { return results[calls++]; });
    ASSERT_GE(tfd, 0);
    EXPECT_EQ(loop.events[tfd].type, ks::Executor::EventType::timer);
    EXPECT_EQ(remaining_ms(tfd, true), 3600 * 1000);

    tick_until(loop, [&] { return calls == 1; });
    ASSERT_EQ(calls, 1u);
    EXPECT_EQ(remaining_ms(tfd, true), 500) << "the callback's 500 is the new period";

    // Re-armed with the creation timeout (0), so it fires again at once, then keeps going.
    tick_until(loop, [&] { return calls == 2; });
    ASSERT_EQ(calls, 2u);
    EXPECT_TRUE(ks::timer_is_running(tfd));
    EXPECT_EQ(remaining_ms(tfd, true), 500);

    tick_until(loop, [&] { return calls == 3; });
    ASSERT_EQ(calls, 3u);
    EXPECT_EQ(loop.count, 0);
    EXPECT_EQ(loop.events[tfd].type, ks::Executor::EventType::none);
    EXPECT_FALSE(is_open(tfd)) << "-1 closes the timer";
    EXPECT_FALSE(ks::timer_is_running(tfd));
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_SYSTEM);
}

TEST(Executor, OneShotTimerStaysRegisteredUntilUpdated) {
    ks::Executor loop;
    int calls = 0;
    const int tfd = loop.start_timer(20ms, 0ms, [&] { return ++calls, 0; });
    ASSERT_GE(tfd, 0);
    tick_until(loop, [&] { return calls == 1; });
    ASSERT_EQ(calls, 1);
    EXPECT_FALSE(ks::timer_is_running(tfd));
    EXPECT_TRUE(loop.tick(30ms));
    EXPECT_EQ(calls, 1);

    // A stopped timer is armed again by update_timer, a running one re-armed.
    ASSERT_EQ(loop.update_timer(tfd, 0ms, 0ms), 0);
    tick_until(loop, [&] { return calls == 2; });
    EXPECT_EQ(calls, 2);
    ASSERT_EQ(loop.update_timer(tfd, 1h, 0ms), 0);
    ASSERT_EQ(loop.update_timer(tfd, 10ms, 0ms), 0);
    EXPECT_LE(remaining_ms(tfd), 10);
    tick_until(loop, [&] { return calls == 3; });
    EXPECT_EQ(calls, 3);

    EXPECT_EQ(loop.del(tfd), 0);
    EXPECT_FALSE(is_open(tfd)) << "del closes timers";
}

TEST(Executor, EmptyTimerCallbackOnlyDrainsTheTimer) {
    ks::Executor loop;
    const int tfd = loop.start_timer(0ms, 0ms, nullptr);
    ASSERT_GE(tfd, 0);
    loop.tick(1000ms);
    EXPECT_EQ(ks::timer_tick(tfd), 0u) << "the expiry was consumed";
    EXPECT_EQ(loop.del(tfd), 0);
}

TEST(Executor, WakesUpFromAnotherThread) {
    ks::Executor loop;
    Fds fds;
    const int efd = fds.eventfd();
    std::atomic<int> sent{0};
    int woken = 0;
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&] {
        EXPECT_TRUE(ks::eventfd_read_notification(efd));
        ++woken;
        return 0;
    }), 0);
    std::thread notifier([&] {
        for (int i = 0; i < 3; ++i) {
            // Wait until the loop consumed the previous wake-up before sending the next.
            while (sent.load() != i) std::this_thread::yield();
            EXPECT_TRUE(ks::eventfd_notify(efd));
        }
    });
    for (int i = 0; i < 3; ++i) {
        sent.store(i);
        while (woken == i) loop.tick(1000ms);
    }
    notifier.join();
    EXPECT_EQ(woken, 3);
    EXPECT_EQ(loop.del(efd), 0);
}

TEST(Executor, LeftoverRegistrationsDoNotCrashTheDestructor) {
    Fds fds;
    const int efd = fds.eventfd();
    int tfd;
    {
        ks::Executor loop;
        ASSERT_EQ(loop.add(efd, EPOLLIN, [] { return 0; }), 0);
        tfd = loop.start_timer(1h, [] { return 0; });
        ASSERT_GE(tfd, 0);
    }
    fds.keep(tfd);
    EXPECT_TRUE(is_open(efd));
    EXPECT_TRUE(is_open(tfd)) << "the destructor closes nothing it was given";
}

TEST(TimerHelpers, ArmStopAndClose) {
    EXPECT_EQ(ks::timer_init(static_cast<ks::timer_type>(2)), -1);
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_INVAL);

    for (ks::timer_type type : {ks::timer_type::realtime, ks::timer_type::monotonic}) {
        const int fd = ks::timer_init(type);
        ASSERT_GE(fd, 0);
        EXPECT_TRUE(::fcntl(fd, F_GETFL) & O_NONBLOCK);
        EXPECT_FALSE(ks::timer_is_running(fd));
        EXPECT_EQ(ks::timer_tick(fd), 0u) << "nothing pending";

        ASSERT_EQ(ks::timer_start(fd, 2, 0), 0);
        EXPECT_TRUE(ks::timer_is_running(fd));
        EXPECT_GT(remaining_ms(fd), 1000);
        EXPECT_LE(remaining_ms(fd), 2000);
        EXPECT_EQ(remaining_ms(fd, true), 0) << "one-shot";

        // Already running: accepted but nothing changes.
        EXPECT_EQ(ks::timer_start_ms(fd, 1, 1), 0);
        EXPECT_GT(remaining_ms(fd), 1000);
        EXPECT_EQ(remaining_ms(fd, true), 0);

        ASSERT_EQ(ks::timer_stop(fd), 0);
        EXPECT_FALSE(ks::timer_is_running(fd));

        // A zero timeout still fires (at once) instead of disarming.
        ASSERT_EQ(ks::timer_start_ms(fd, 0, 0), 0);
        uint64_t expirations = 0;
        for (int i = 0; i < 1000 && expirations == 0; ++i) {
            expirations = ks::timer_tick(fd);
            if (expirations == 0) std::this_thread::sleep_for(1ms);
        }
        EXPECT_EQ(expirations, 1u);

        ASSERT_EQ(ks::timer_start_ms(fd, 1500, 250), 0);
        EXPECT_EQ(remaining_ms(fd, true), 250);
        EXPECT_EQ(ks::timer_uninit(fd), 0);
        EXPECT_FALSE(is_open(fd));
    }

    // A closed descriptor: every helper reports a system error.
    Fds fds;
    const int closed = fds.eventfd();
    fds.close(closed);
    EXPECT_EQ(ks::timer_start_ms(closed, 10, 0), -1);
    EXPECT_FALSE(ks::timer_is_running(closed));
    EXPECT_EQ(ks::timer_tick(closed), ~uint64_t(0));
    EXPECT_EQ(ks::timer_stop(closed), -1);
    EXPECT_EQ(ks::timer_uninit(closed), -1);
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_SYSTEM);
}

TEST(EventNotifications, ReportFailures) {
    Fds fds;
    const int efd = fds.eventfd();
    EXPECT_FALSE(ks::eventfd_read_notification(efd)) << "nothing to drain";
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_TRUE(ks::eventfd_notify(efd));
    EXPECT_TRUE(ks::eventfd_notify(efd));
    EXPECT_TRUE(ks::eventfd_read_notification(efd));
    EXPECT_FALSE(ks::eventfd_read_notification(efd)) << "one read drains every notification";
    EXPECT_FALSE(ks::eventfd_notify(-1));
    EXPECT_EQ(errno, EBADF);
}

TEST(EpollEventsToString, FormatsModifiersThenEvents) {
    const struct {
        unsigned events;
        const char* text;
    } cases[] = {
        {0, "MODS: (none), EVENTS: (none)"},
        {EPOLLIN | EPOLLET, "MODS: ET, EVENTS: IN"},
        {2147483653u, "MODS: ET, EVENTS: IN OUT"},
        {EPOLLHUP | EPOLLERR | EPOLLPRI | EPOLLRDHUP | EPOLLOUT | EPOLLIN, "MODS: (none), EVENTS: IN OUT RDHUP PRI ERR HUP"},
        {EPOLLEXCLUSIVE | EPOLLWAKEUP | EPOLLONESHOT | EPOLLET, "MODS: ET ONESHOT WAKEUP EXCLUSIVE, EVENTS: (none)"},
        {EPOLLMSG | EPOLLRDNORM | EPOLLONESHOT, "MODS: ONESHOT, EVENTS: (none)"},
    };
    for (const auto& c : cases) EXPECT_STREQ(ks::epoll_events_to_string(c.events), c.text) << c.events;

    // The buffer belongs to the calling thread.
    const char* mine = ks::epoll_events_to_string(EPOLLIN);
    std::thread([] { ks::epoll_events_to_string(EPOLLOUT | EPOLLET); }).join();
    EXPECT_STREQ(mine, "MODS: (none), EVENTS: IN");
}

TEST(ExecutorLog, RecordsMisuseAndChanges) {
    LogCapture log;
    ASSERT_TRUE(log.started());
    Fds fds;
    const int efd = fds.eventfd();
    const std::string fd = std::to_string(efd);
    const std::string other = std::to_string(efd + 1);
    auto loop = std::make_unique<ks::Executor>();
    int tfd = -1;

    // Each case's texts must appear in this order in what it logged.
    const struct {
        const char* what;
        std::function<void()> run;
        std::vector<std::string> expected;
    } cases[] = {
        {"add", [&] { loop->add(efd, EPOLLIN, [] { return 0; }); }, {"trace [executorutl.cpp:", "epoll: Add fd=" + fd}},
        {"add invalid", [&] { loop->add(-1, EPOLLIN, nullptr); },
         {"error [executorutl.cpp:", "BUG: Can not register invalid fd=-1\n"}},
        {"add too large", [&] { loop->add(1024, EPOLLIN, nullptr); }, {"error [", "BUG: Can not register fd=1024"}},
        {"add duplicate", [&] { loop->add(efd, EPOLLIN, nullptr); }, {"error [", "BUG: fd=" + fd + " already tracked\n"}},
        {"mod", [&] { loop->mod(efd, EPOLLOUT, nullptr); }, {"trace [", "epoll: Modify fd=" + fd + "\n"}},
        {"mod unknown", [&] { loop->mod(efd + 1, EPOLLOUT, nullptr); },
         {"error [", "fd=" + other + " was not registered with this executor instance\n"}},
        {"del", [&] { loop->del(efd); }, {"trace [", "epoll: Delete fd=" + fd + "\n"}},
        {"del unknown", [&] { loop->del(efd); },
         {"error [", "fd=" + fd + " was not registered with this executor instance\n"}},
        {"timer", [&] { tfd = loop->start_timer(250ms, 0ms, nullptr); },
         {"trace [", "Starting timer tfd=", " timeout=250 milliseconds=0\n"}},
        {"notify", [&] { ks::eventfd_notify(-1); }, {"error [miscutl.cpp:", "write[9] Bad file descriptor\n"}},
        {"drain", [&] { ks::eventfd_read_notification(efd); },
         {"error [miscutl.cpp:", "read[11] Resource temporarily unavailable\n"}},
    };
    for (const auto& c : cases) {
        const std::string text = log.during(c.run);
        size_t at = 0;
        for (const std::string& e : c.expected) {
            at = text.find(e, at);
            ASSERT_NE(at, std::string::npos) << c.what << ": no \"" << e << "\" in:\n" << text;
        }
    }

    // The destructor reports each registration left behind, once.
    ASSERT_GE(tfd, 0);
    fds.keep(tfd);
    ASSERT_EQ(loop->add(efd, EPOLLIN, [] { return 0; }), 0);
    const std::string text = log.during([&] { loop.reset(); });
    EXPECT_EQ(occurrences(text, "]: BUG: Please executor->del() all file descriptors on cleanup.\n"), 2u) << text;
}
