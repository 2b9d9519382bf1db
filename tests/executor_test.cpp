// Executor dispatch rules, timers, the helpers and their log records.
#include <ksutils/error.h>
#include <ksutils/executor.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "kslogcapture.h"

using namespace std::chrono_literals;
using kstest::has_record;

namespace {

int new_eventfd() { return ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }
bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

template <class Pred>
bool tick_until(ks::Executor& loop, Pred done) {
    for (int i = 0; i < 500 && !done(); ++i) loop.tick(10ms);
    return done();
}

long timer_ms(int tfd, bool interval) {
    struct itimerspec t {};
    EXPECT_EQ(::timerfd_gettime(tfd, &t), 0);
    const struct timespec& ts = interval ? t.it_interval : t.it_value;
    return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

TEST(Executor, RegistrationResultsAndLogRecords) {
    kstest::LogCapture log("executor_test");
    ASSERT_TRUE(log.started());
    const int efd = new_eventfd(), file = ::open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    const std::string fd = std::to_string(efd), next = std::to_string(efd + 2);
    auto loop = std::make_unique<ks::Executor>();
    auto nop = [] { return 0; };
    int tfd = -1;

    // The record after the header: level, then "[source:line][function()]: " and the text.
    const struct { const char* what; std::function<int()> run; int result; std::string record; } cases[] = {
        {"add", [&] { return loop->add(efd, EPOLLIN, nop); }, 0, "trace [executorutl.cpp:*]: epoll: Add fd=" + fd},
        {"invalid", [&] { return loop->add(-1, EPOLLIN, nop); }, -1, "error [*]: BUG: Can not register invalid fd=-1"},
        {"too large", [&] { return loop->add(1024, EPOLLIN, nop); }, -1, "error [*]: BUG: Can not register fd=1024"},
        {"duplicate", [&] { return loop->add(efd, EPOLLOUT, nop); }, -1, "error [*]: BUG: fd=" + fd + " already tracked"},
        {"refused by the kernel", [&] { return loop->add(file, EPOLLIN, nop); }, -1, "trace [*]: epoll: Add fd="},
        {"mod unknown", [&] { return loop->mod(efd + 2, EPOLLIN, nop); }, -1, "error [*]: fd=" + next + " was not registered"},
        {"mod too large", [&] { return loop->mod(5000, EPOLLIN, nop); }, -1, "error [*]: fd=5000 was not registered"},
        {"del unknown", [&] { return loop->del(efd + 2); }, -1, "error [*]: fd=" + next + " was not registered"},
        {"del invalid", [&] { return loop->del(-1); }, -1, "error [*]: fd=-1 was not registered"},
        {"timer", [&] { return (tfd = loop->start_timer(250ms, 0ms, nullptr)) >= 0 ? 0 : -1; }, 0,
         "trace [*]: Starting timer tfd=* timeout=250 milliseconds=0"},
        {"notify", [&] { return ks::eventfd_notify(-1) ? 0 : -1; }, -1, "error [miscutl.cpp:*]: write[9] Bad file descriptor"},
        {"drain", [&] { return ks::eventfd_read_notification(efd) ? 0 : -1; }, -1,
         "error [miscutl.cpp:*]: read[11] Resource temporarily unavailable"},
    };
    for (const auto& c : cases) {
        int result = 0;
        const std::string text = log.during([&] { result = c.run(); });
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_TRUE(has_record(text, c.record)) << c.what << ":\n" << text;
    }
    EXPECT_EQ(loop->count, 2) << "the refused descriptor is not counted";

    // The destructor reports each leftover once.
    const std::string text = log.during([&] { loop.reset(); });
    const std::string bug = "error [executorutl.cpp:*]: BUG: Please executor->del() all file descriptors on cleanup.";
    EXPECT_TRUE(has_record(text, bug + "\n*" + bug)) << text;
    EXPECT_FALSE(has_record(text, bug + "\n*" + bug + "\n*" + bug)) << text;
    EXPECT_TRUE(is_open(efd) && is_open(tfd)) << "the executor closes nothing it was given";
    for (int f : {efd, file, tfd}) ::close(f);
}

TEST(Executor, DispatchRules) {
    ks::Executor loop;
    EXPECT_FALSE(loop.tick(10ms)) << "nothing registered";

    // Readable only by hang-up (a pipe's read end without writer): never dispatched, still registered.
    int p[2];
    ASSERT_EQ(::pipe2(p, O_NONBLOCK | O_CLOEXEC), 0);
    ::close(p[1]);
    ASSERT_EQ(loop.add(p[0], EPOLLIN, [] { return ADD_FAILURE(), 0; }), 0);
    EXPECT_TRUE(loop.tick(0ms));
    EXPECT_EQ(loop.del(p[0]), 0);
    ::close(p[0]);

    // Readable and writable at once: one call per tick; only -1 unregisters, closing nothing.
    for (int result : {0, 1, 42, -2, -1}) {
        kstest::SocketPair sp;
        ASSERT_EQ(::write(sp.peer, "x", 1), 1);
        int calls = 0;
        ASSERT_EQ(loop.add(sp.ours, EPOLLIN | EPOLLOUT, [&] { return ++calls, result; }), 0);
        EXPECT_EQ(loop.tick(1000ms), result != -1) << result;
        loop.tick(0ms);
        EXPECT_EQ(calls, result == -1 ? 1 : 2) << result;
        EXPECT_TRUE(is_open(sp.ours));
        if (result != -1) loop.del(sp.ours);
    }

    // mod without a callback changes only the mask; a callback replacing itself lives until it returns.
    const int efd = new_eventfd();
    const std::string label(100, 'x');
    std::string last;
    ASSERT_EQ(loop.add(efd, EPOLLIN, [&] { return last = "first", 0; }), 0);
    ASSERT_EQ(loop.mod(efd, EPOLLOUT, nullptr), 0);  // an eventfd is always writable
    loop.tick(1000ms);
    EXPECT_EQ(last, "first");
    ASSERT_EQ(loop.mod(efd, EPOLLOUT, [&, efd, label] {
        loop.mod(efd, EPOLLOUT, [&, efd, label] { return loop.del(efd), last = label + "!", 0; });
        return last = label, 0;
    }), 0);
    loop.tick(1000ms);
    EXPECT_EQ(last, label);
    EXPECT_FALSE(loop.tick(1000ms));
    EXPECT_EQ(last, label + "!");
    ::close(efd);

    // Whichever of two ready descriptors runs first deletes or replaces the other: the batch sees the table now.
    const int fds[2] = {new_eventfd(), new_eventfd()};
    for (bool re_add : {true, false}) {
        std::string calls;
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(loop.add(fds[i], EPOLLIN, [&, other = fds[1 - i], re_add] {
                calls += "old ";
                EXPECT_EQ(loop.del(other), 0);
                if (re_add) loop.add(other, EPOLLIN, [&] { return calls += "new", 0; });
                return 0;
            }), 0);
            ASSERT_TRUE(ks::eventfd_notify(fds[i]));
        }
        loop.tick(1000ms);
        EXPECT_EQ(calls, re_add ? "old new" : "old ");
        EXPECT_EQ(loop.count, re_add ? 2 : 1);
        for (int fd : fds) {
            loop.del(fd);
            EXPECT_TRUE(ks::eventfd_read_notification(fd)) << "the counter was set, and is drained";
        }
    }
    for (int fd : fds) ::close(fd);
}

TEST(Executor, TimersFollowTheCallbackResultAndTheHelpers) {
    ks::Executor loop;
    // A one-hour period: the first call can only come from the immediate first expiry.
    const int results[] = {500, 0, -1};
    size_t calls = 0;
    const int tfd = loop.start_timer(1h, [&] { return results[calls++]; });
    ASSERT_GE(tfd, 0);
    for (size_t expected = 1; expected <= 3; ++expected) {
        ASSERT_TRUE(tick_until(loop, [&] { return calls == expected; })) << calls;
        EXPECT_TRUE(expected == 3 || timer_ms(tfd, true) == 500) << "the callback's 500 became the period";
    }
    EXPECT_TRUE(loop.count == 0 && !ks::timer_is_running(tfd)) << "-1 unregistered and closed the timer";

    // One-shot: silent but registered until update_timer re-arms it; del closes it.
    int fired = 0;
    const int once = loop.start_timer(20ms, 0ms, [&] { return ++fired, 0; });
    ASSERT_TRUE(tick_until(loop, [&] { return fired == 1; }));
    EXPECT_TRUE(loop.tick(30ms));
    EXPECT_EQ(fired, 1);
    ASSERT_EQ(loop.update_timer(once, 1h, 0ms), 0);
    ASSERT_EQ(loop.update_timer(once, 10ms, 0ms), 0) << "re-arms a running timer too";
    EXPECT_TRUE(tick_until(loop, [&] { return fired == 2; })) << fired;
    EXPECT_TRUE(loop.del(once) == 0 && !is_open(once)) << "del closes a timer";

    EXPECT_EQ(ks::timer_init(static_cast<ks::timer_type>(2)), -1);
    EXPECT_EQ(kstest::error_text(), "E_INVAL invalid timer type 2");
    const int fd = ks::timer_init(ks::timer_type::realtime);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ks::timer_tick(fd), 0u) << "nothing pending";
    ASSERT_EQ(ks::timer_start(fd, 2, 0), 0);
    EXPECT_EQ(ks::timer_start_ms(fd, 1, 1), 0) << "running: accepted, unchanged";
    EXPECT_TRUE(timer_ms(fd, false) > 1000 && timer_ms(fd, true) == 0) << "two seconds, one-shot";
    ASSERT_EQ(ks::timer_stop(fd), 0);
    EXPECT_FALSE(ks::timer_is_running(fd));
    EXPECT_EQ(ks::timer_uninit(fd), 0);
    EXPECT_EQ(ks::timer_tick(fd), ~uint64_t(0)) << "closed";
    EXPECT_TRUE(ks::timer_uninit(fd) == -1 && ks::_get_kserrno().code == ks::E_SYSTEM) << "closed twice";
}
