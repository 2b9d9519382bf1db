// Event dispatch rate of the executor: two eventfds play ping-pong, each callback draining
// its own descriptor and waking the other, so every event is one wait, one read and one
// write. The same ping-pong runs on raw epoll (the floor: no table, no callbacks) and, when
// built with it, on libuv. Rounds alternate between the loops and the best round of each
// counts, which keeps a busy shared machine from favouring whichever ran first.
#include "bench_util.h"
#include <ksutils/executor.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#ifdef KS_HAVE_LIBUV
#include <uv.h>
#endif

namespace {

using bench::Clock;
using bench::seconds_since;

// One pair of non-blocking eventfds, closed at the end of the round.
struct Pair {
    int a = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    int b = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    ~Pair() {
        ::close(a);
        ::close(b);
    }
};

inline void drain(int fd) {
    uint64_t v;
    if (::read(fd, &v, sizeof v) < 0) std::abort();
}

inline void wake(int fd) {
    const uint64_t one = 1;
    if (::write(fd, &one, sizeof one) < 0) std::abort();
}


double raw_epoll(long events) {
    Pair p;
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event ev {};
    ev.events = EPOLLIN;
    ev.data.fd = p.a;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, p.a, &ev);
    ev.data.fd = p.b;
    ::epoll_ctl(ep, EPOLL_CTL_ADD, p.b, &ev);
    long done = 0;
    const auto start = Clock::now();
    wake(p.a);
    struct epoll_event ready[32];
    while (done < events) {
        const int n = ::epoll_wait(ep, ready, 32, -1);
        for (int i = 0; i < n; ++i) {
            const int fd = ready[i].data.fd;
            drain(fd);
            wake(fd == p.a ? p.b : p.a);
            ++done;
        }
    }
    const double elapsed = seconds_since(start);
    ::close(ep);
    return done / elapsed;
}

double executor(long events) {
    Pair p;
    ks::Executor loop;
    long done = 0;
    loop.add(p.a, EPOLLIN, [&] {
        ks::eventfd_read_notification(p.a);
        ks::eventfd_notify(p.b);
        return ++done, 0;
    });
    loop.add(p.b, EPOLLIN, [&] {
        ks::eventfd_read_notification(p.b);
        ks::eventfd_notify(p.a);
        return ++done, 0;
    });
    const auto start = Clock::now();
    ks::eventfd_notify(p.a);
    while (done < events) loop.tick(std::chrono::milliseconds(-1));
    const double elapsed = seconds_since(start);
    loop.del(p.a);
    loop.del(p.b);
    return done / elapsed;
}

#ifdef KS_HAVE_LIBUV
struct UvPingPong {
    Pair p;
    uv_loop_t loop;
    uv_poll_t pa, pb;
    long done = 0;
    long events = 0;
};

void uv_on_readable(uv_poll_t* handle, int status, int) {
    auto* pp = static_cast<UvPingPong*>(handle->data);
    if (status < 0) std::abort();
    const bool is_a = handle == &pp->pa;
    drain(is_a ? pp->p.a : pp->p.b);
    wake(is_a ? pp->p.b : pp->p.a);
    if (++pp->done >= pp->events) {
        uv_poll_stop(&pp->pa);
        uv_poll_stop(&pp->pb);
    }
}

double libuv(long events) {
    UvPingPong pp;
    pp.events = events;
    uv_loop_init(&pp.loop);
    uv_poll_init(&pp.loop, &pp.pa, pp.p.a);
    uv_poll_init(&pp.loop, &pp.pb, pp.p.b);
    pp.pa.data = pp.pb.data = &pp;
    uv_poll_start(&pp.pa, UV_READABLE, uv_on_readable);
    uv_poll_start(&pp.pb, UV_READABLE, uv_on_readable);
    const auto start = Clock::now();
    wake(pp.p.a);
    uv_run(&pp.loop, UV_RUN_DEFAULT);
    const double elapsed = seconds_since(start);
    uv_close(reinterpret_cast<uv_handle_t*>(&pp.pa), nullptr);
    uv_close(reinterpret_cast<uv_handle_t*>(&pp.pb), nullptr);
    uv_run(&pp.loop, UV_RUN_DEFAULT);
    uv_loop_close(&pp.loop);
    return pp.done / elapsed;
}
#endif

struct Contender {
    const char* name;
    double (*run)(long);
    double best = 0;
};

}  // namespace

int main(int argc, char** argv) {
    const long events = argc > 1 ? std::atol(argv[1]) : 200000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
    std::vector<Contender> contenders = {{"raw epoll", raw_epoll}, {"ks::Executor", executor}};
#ifdef KS_HAVE_LIBUV
    contenders.push_back({"libuv", libuv});
#endif
    for (Contender& c : contenders) c.run(events / 10);  // warm up
    for (int r = 0; r < rounds; ++r)
        for (Contender& c : contenders) c.best = std::max(c.best, c.run(events));

    const double floor = contenders[0].best;
    std::printf("eventfd ping-pong, %ld events per round, best of %d rounds\n", events, rounds);
    std::printf("%-14s %14s %12s\n", "loop", "events/s", "vs raw epoll");
    for (const Contender& c : contenders)
        std::printf("%-14s %14.0f %11.1f%%\n", c.name, c.best, 100.0 * c.best / floor);
#ifdef KS_HAVE_LIBUV
    std::printf("ks::Executor / libuv: %.2f\n", contenders[1].best / contenders[2].best);
#else
    std::printf("libuv: not built (libuv1-dev missing)\n");
#endif
    return 0;
}
