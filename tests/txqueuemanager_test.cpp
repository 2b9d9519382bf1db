// Transmit queues over socket pairs with small send buffers, slow readers and peers that go away.
#include <ksutils/txqueuemanager.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>
#include <utility>

#include "kslogcapture.h"

namespace {

// A socket pair whose sending end has a small buffer, so that sends stop part-way.
struct Connection : kstest::SocketPair {
    Connection() {
        const int small = 4096;
        ::setsockopt(ours, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    }
    std::string read_slowly(size_t n) const {
        std::string got;
        char chunk[3000];
        while (got.size() < n) {
            pollfd p{peer, POLLIN, 0};
            if (::poll(&p, 1, 5000) != 1) break;
            const ssize_t r = ::recv(peer, chunk, sizeof chunk, 0);
            if (r <= 0) break;
            got.append(chunk, static_cast<size_t>(r));
            if (got.size() % 7 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return got;
    }
};

// Whether any epoll instance of this process watches `fd` (from /proc/self/fdinfo).
bool watched(int fd) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir("/proc/self/fdinfo"), &::closedir);
    while (dirent* e = ::readdir(dir.get())) {
        std::ifstream info(std::string("/proc/self/fdinfo/") + e->d_name);
        for (std::string word; info >> word;)
            if (word == "tfd:" && info >> word && word == std::to_string(fd)) return true;
    }
    return false;
}

std::string pattern(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i * 31 + i / 997);
    return s;
}

// Counts releases; each buffer's callback must come exactly once.
struct Releases {
    std::atomic<int> count{0};
    ks::TxBuffer buffer(const std::string& bytes) {
        return ks::TxBuffer(bytes.data(), bytes.size(), [this](bool, uint64_t, const void*) { ++count; });
    }
};

TEST(TxQueueManager, FourThreadsSixteenSocketsKeepPerSocketOrder) {
    constexpr int kThreads = 4, kSockets = 16, kPerThread = 200;
    std::vector<Connection> conns(kSockets);
    Releases released;
    // Records "T:NNNN;" so that each socket's reader can check every thread's sequence.
    std::vector<std::string> records;
    for (int t = 0; t < kThreads; ++t)
        for (int n = 0; n < kPerThread; ++n) records.push_back(fmt::format("{}:{:04d};", t, n));
    ks::TxQueueManager m;
    ASSERT_TRUE(m.init());
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            for (int n = 0; n < kPerThread; ++n)
                for (auto& c : conns) EXPECT_TRUE(m.add(c.ours, released.buffer(records[t * kPerThread + n])));
        });
    const size_t per_socket = kThreads * kPerThread * 7;
    for (auto& c : conns) {
        const std::string got = c.read_slowly(per_socket);
        ASSERT_EQ(per_socket, got.size());
        int next[kThreads] = {};
        for (size_t at = 0; at < got.size(); at += 7) {
            const int t = got[at] - '0', n = std::stoi(got.substr(at + 2, 4));
            ASSERT_EQ(next[t]++, n) << "thread " << t;
        }
    }
    for (auto& w : writers) w.join();
    m.uninit();
    EXPECT_EQ(kThreads * kPerThread * kSockets, released.count);
}

// Every buffer is released once: a peer gone mid-stream (no SIGPIPE), a slow one that gets
// every byte in order across partial sends, and what nobody read (by uninit).
TEST(TxQueueManager, ReleasesEveryBufferOnceWhateverThePeersDo) {
    const int fds = kstest::open_descriptors();
    Releases released;
    const std::string bytes = pattern(1 << 20, 'z'), first = pattern(3 << 20, 'x'), second = pattern(1 << 20, 'y');
    ks::TxQueueManager m;
    ASSERT_TRUE(m.init());
    EXPECT_FALSE(m.init());
    EXPECT_FALSE(m.add(-1, released.buffer(bytes)));
    {
        Connection gone, alive;
        for (int i = 0; i < 4; ++i) ASSERT_TRUE(m.add(gone.ours, released.buffer(bytes)));
        gone.read_slowly(100000);
        ::close(std::exchange(gone.peer, -1));
        EXPECT_TRUE(kstest::wait_until([&] { return released.count == 5; }, std::chrono::seconds(2)))
            << released.count << ": the dead socket's buffers are released";
        ASSERT_TRUE(m.add(alive.ours, released.buffer(first)) && m.add(alive.ours, released.buffer(second)));
        EXPECT_TRUE(alive.read_slowly(first.size() + second.size()) == first + second) << "bytes lost, repeated or reordered";
        EXPECT_TRUE(kstest::wait_until([&] { return released.count == 7 && !watched(alive.ours); }, std::chrono::seconds(2)))
            << released.count << " released; an empty queue's socket leaves the epoll set";
        m.remove(gone.ours);
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(m.add(alive.ours, released.buffer(bytes)));  // nobody reads
        m.uninit();
        EXPECT_EQ(12, released.count) << "pending buffers released by uninit";
        EXPECT_FALSE(m.add(alive.ours, released.buffer(bytes))) << "not running";
    }
    EXPECT_EQ(13, released.count);
    EXPECT_EQ(fds, kstest::open_descriptors());
}

// remove() in the middle of a socket's buffers: each is released once, and nothing more goes
// to that descriptor number, which the caller may reuse at once.
TEST(TxQueueManager, RemoveDuringSendsReleasesOnceAndSendsNothingAfter) {
    Releases released;
    const std::string bytes = pattern(256 << 10, 'r'), note = "x";
    ks::TxQueueManager m;
    ASSERT_TRUE(m.init());
    int queued = 0;
    for (int round = 0; round < 40; ++round) {
        Connection c, other;
        const int large = 1 << 20;  // long sends: remove() is likely to land in one
        ::setsockopt(c.ours, SOL_SOCKET, SO_SNDBUF, &large, sizeof large);
        std::atomic<bool> stop{false};
        std::thread reader([&] {  // the socket does not block: poll, until the end of the stream
            char sink[65536];
            for (pollfd p{c.peer, POLLIN, 0}; !stop && ::poll(&p, 1, 10) >= 0;)
                if (::recv(c.peer, sink, sizeof sink, 0) == 0) break;
        });
        for (int i = 0; i < 16; ++i, ++queued) ASSERT_TRUE(m.add(c.ours, released.buffer(bytes)));
        std::this_thread::sleep_for(std::chrono::microseconds(20 * round));
        m.remove(c.ours);
        ::dup2(other.ours, c.ours);  // the number now names another socket
        stop = true;
        ::shutdown(c.peer, SHUT_RDWR);
        reader.join();
        ASSERT_TRUE(m.add(c.ours, released.buffer(note)));
        ++queued;
        EXPECT_EQ("x", other.read_slowly(1));
        char extra;
        EXPECT_EQ(-1, ::recv(other.peer, &extra, 1, MSG_DONTWAIT)) << "round " << round << ": sent after remove()";
        m.remove(c.ours);
    }
    m.uninit();
    EXPECT_EQ(queued, released.count);
}

}  // namespace
