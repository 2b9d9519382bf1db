// Throughput of TxQueueManager against a hand-written epoll writer that does the same job
// (partial non-blocking sends to 8 sockets, each drained by its own reader thread), in the
// same run; and the latency of add() itself. Goal: at least 0.9x the hand-written writer.
#include <ksutils/txqueuemanager.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kSockets = 8;
constexpr size_t kChunk = 64 * 1024;
constexpr int kChunksPerSocket = 800;

double now_s() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

struct Pairs {
    std::vector<int> ours, peers;
    std::vector<std::thread> readers;
    Pairs() {
        for (int i = 0; i < kSockets; ++i) {
            int sv[2];
            ::socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
            ours.push_back(sv[0]);
            peers.push_back(sv[1]);
        }
        for (int fd : peers)
            readers.emplace_back([fd] {
                static thread_local char sink[256 * 1024];
                size_t left = kChunk * kChunksPerSocket;
                while (left) {
                    const ssize_t n = ::recv(fd, sink, std::min(left, sizeof sink), 0);
                    if (n <= 0) break;
                    left -= static_cast<size_t>(n);
                }
            });
    }
    void finish() {
        for (auto& r : readers) r.join();
        for (int fd : ours) ::close(fd);
        for (int fd : peers) ::close(fd);
    }
};

// The baseline: one thread, one epoll set, an offset per socket.
double hand_written(const std::string& chunk) {
    Pairs p;
    const double start = now_s();
    const int ep = ::epoll_create1(0);
    std::vector<size_t> sent(kSockets, 0);
    const size_t total = kChunk * kChunksPerSocket;
    for (int i = 0; i < kSockets; ++i) {
        epoll_event ev{EPOLLOUT, {}};
        ev.data.u32 = static_cast<uint32_t>(i);
        ::epoll_ctl(ep, EPOLL_CTL_ADD, p.ours[i], &ev);
    }
    for (int active = kSockets; active > 0;) {
        epoll_event ready;
        if (::epoll_wait(ep, &ready, 1, -1) != 1) continue;
        const int i = static_cast<int>(ready.data.u32);
        const size_t offset = sent[i] % kChunk;
        const ssize_t n = ::send(p.ours[i], chunk.data() + offset, kChunk - offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) sent[i] += static_cast<size_t>(n);
        if (sent[i] == total) {
            ::epoll_ctl(ep, EPOLL_CTL_DEL, p.ours[i], nullptr);
            --active;
        }
    }
    ::close(ep);
    p.finish();
    return now_s() - start;
}

double library(const std::string& chunk, std::vector<double>& add_ns) {
    Pairs p;
    ks::TxQueueManager m;
    m.init();
    std::atomic<int> released{0};
    const double start = now_s();
    for (int n = 0; n < kChunksPerSocket; ++n)
        for (int fd : p.ours) {
            const double before = now_s();
            m.add(fd, ks::TxBuffer(chunk.data(), chunk.size(), [&](bool, uint64_t, const void*) { ++released; }));
            add_ns.push_back((now_s() - before) * 1e9);
        }
    p.finish();
    const double elapsed = now_s() - start;
    m.uninit();
    return released == kSockets * kChunksPerSocket ? elapsed : -1;
}

}  // namespace

int main() {
    const std::string chunk(kChunk, 'q');
    const double mib = kSockets * kChunksPerSocket * kChunk / 1048576.0;
    const double base = hand_written(chunk);
    std::vector<double> add_ns;
    const double ours = library(chunk, add_ns);
    if (ours < 0) {
        std::printf("failed: not every buffer was released\n");
        return 1;
    }
    std::sort(add_ns.begin(), add_ns.end());
    std::printf("%d sockets, %.0f MiB: hand-written epoll writer %.1f MiB/s, TxQueueManager %.1f MiB/s\n", kSockets,
                mib, mib / base, mib / ours);
    std::printf("ratio TxQueueManager / hand-written: %.2fx (goal >= 0.9x)\n", base / ours);
    std::printf("add(): median %.0f ns, p90 %.0f ns, p99 %.0f ns\n", add_ns[add_ns.size() / 2],
                add_ns[add_ns.size() * 9 / 10], add_ns[add_ns.size() * 99 / 100]);
    return 0;
}
