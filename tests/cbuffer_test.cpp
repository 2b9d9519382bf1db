// Connection buffer: descriptor I/O with its log records, a byte-queue model, two threads.
#include <ksutils/cbuffer.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "kslogcapture.h"

using Type = ks::ConnectionBufferType;
using kstest::has_record;

namespace {

std::string get(ks::ConnectionBuffer& b, char delimiter = '\n') {
    std::unique_ptr<char[]> m(b.get(delimiter));
    return m ? std::string(m.get()) : "<null>";
}

size_t put(ks::ConnectionBuffer& b, const std::string& s) { return b.put(s.data(), s.size()); }

}  // namespace

TEST(ConnectionBuffer, DescriptorIoAndLogRecords) {
    kstest::LogCapture log("cbuffer_test");
    ASSERT_TRUE(log.started());
    kstest::SocketPair sp;
    ks::ConnectionBuffer out(Type::send, "ctl"), in(Type::receive, "ctl");
    ASSERT_TRUE(out.init(4, 8) && in.init(4, 4));
    bool called = false;
    auto spy = [&](char*, unsigned long) -> long { return called = true, 1; };

    // The records after the header; '*' is any text within a line.
    const struct { const char* what; std::function<long()> run; long result; std::string records; } cases[] = {
        {"send empty", [&] { return out.send_or_write(spy); }, 0, "trace [cbuffer.cpp:*]: [sb-ctl] send on empty connection buffer\n"},
        {"put", [&] { return long(put(out, "abc")); }, 3, "]: [sb-ctl] put 3 bytes, new count = 3, capacity = 4\n"},
        {"partial send", [&] { return out.send_or_write([](char*, unsigned long) { return 2L; }); }, 2,
         "]: [sb-ctl] sent 2 bytes, new count = 1, capacity = 4\n"},
        {"wrap", [&] { return long(put(out, "defgh")); }, 3, "put 3 bytes, new count = 4, capacity = 4\n"},
        {"grow", [&] { return long(put(out, "gh")); }, 2,
         "]: [sb-ctl] put on full connection buffer\n*]: [sb-ctl] count = 4, new capacity = 8\n"
         "*]: [sb-ctl] put 2 bytes, new count = 6, capacity = 8\n"},
        {"at maximum", [&] { return long(put(out, "ijk")) * 10 + long(put(out, "l")); }, 20,
         "put on full connection buffer\n*error [cbuffer.cpp:*]: [sb-ctl] cannot exceed maximum capacity of connection buffer\n"},
        {"send failure", [&] {  // errno is the system call's, and nothing is taken out
             const long sent = out.send(-1, 0);
             return errno == EBADF && out.count == 8 ? sent : -2;
         }, -1, "error [cbuffer.cpp:*]: [sb-ctl] failed to send\n"},
        {"send", [&] {  // the bytes of the ring grown while wrapped, in order
             const long n = out.send(sp.ours, MSG_NOSIGNAL);
             return sp.drain_peer() == "cdefghij" ? n : -2;
         }, 8, "]: [sb-ctl] sent 8 bytes, new count = 0, capacity = 8\n"},
        {"get empty", [&] { return long(get(in) == "<null>"); }, 1, "]: [rb-ctl] get on empty connection buffer\n"},
        {"would block", [&] { return in.recv(sp.ours, 0); }, -1, "error [cbuffer.cpp:*]: [rb-ctl] failed to recv\n"},
        {"recv", [&] { return ::write(sp.peer, "ab\ncd", 5) == 5 ? in.recv(sp.ours, 0) : -2; }, 4,
         "]: [rb-ctl] recv 4 bytes, new count = 4, capacity = 4\n"},
        {"get", [&] { return long(get(in).size()); }, 2, "]: [rb-ctl] get 3 bytes, new count = 1, capacity = 4\n"},
        {"recv at maximum", [&] { return put(in, "xyz") == 3 ? in.read_or_recv(spy) : -2; }, 0,
         "]: [rb-ctl] recv on full connection buffer\n*]: [rb-ctl] cannot exceed maximum capacity of connection buffer\n"},
        {"peer closes", [&] {
             if (get(in, 'z') != "cxy" || in.read(sp.ours) != 1) return -2L;
             sp.drain_peer();
             ::close(std::exchange(sp.peer, -1));
             return in.recv(sp.ours, 0);
         }, 0,
         "]: [rb-ctl] recv 1 bytes, new count = 1, capacity = 4\n* info [cbuffer.cpp:*]: [rb-ctl] connection closed by peer\n"},
    };
    for (const auto& c : cases) {
        long result = 0;
        const std::string text = log.during([&] { result = c.run(); });
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_TRUE(has_record(text, c.records)) << c.what << ":\n" << text;
    }
    EXPECT_FALSE(called) << "empty send and full receive do not call the descriptor";
}

// Random use against a plain byte queue, filling and draining to the maximum and back through
// every wrap-around shape; the last doubling passes the odd maximum, checked before doubling.
TEST(ConnectionBuffer, MatchesAByteQueueUnderRandomUse) {
    constexpr size_t kInitial = 8, kMaximum = 500;
    kstest::SocketPair sp;
    ks::ConnectionBuffer b(Type::receive, "model");
    EXPECT_FALSE(b.init(0, 16));
    ASSERT_TRUE(b.init(kInitial, kMaximum));
    EXPECT_FALSE(b.init(4, 8)) << "a second init would lose the storage";
    std::mt19937 rng(20260522);
    auto uniform = [&](size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng); };
    auto random_bytes = [&](size_t n) {
        std::string s(n, '\0');
        for (char& c : s) c = uniform(0, 15) == 0 ? '\n' : static_cast<char>(uniform(1, 255));  // no NUL
        return s;
    };
    std::string model;      // what the buffer must hold, oldest first
    std::string in_flight;  // written by the peer, not received yet
    size_t capacity = kInitial, refused = 0;
    auto room = [&] {  // grows the model like the buffer: doubling, only when full
        if (model.size() < capacity) return true;
        return capacity < kMaximum ? (capacity *= 2, true) : (++refused, false);
    };

    for (int step = 0; step < 40000; ++step) {
        SCOPED_TRACE(step);
        // Put, Get, Send, peer Writes, Receive: draining and filling phases alternate.
        const char op = ((step / 700) % 2 ? "PGGGGSSSWR" : "PPPGGSWWRR")[uniform(0, 9)];
        if (op == 'P') {
            const std::string data = random_bytes(uniform(0, 100));
            const size_t taken = room() ? std::min(data.size(), capacity - model.size()) : 0;
            ASSERT_EQ(put(b, data), taken);
            model += data.substr(0, taken);
        } else if (op == 'G') {
            const size_t delimiter = model.find('\n');
            ASSERT_EQ(get(b), delimiter == std::string::npos ? "<null>" : model.substr(0, delimiter));
            if (delimiter != std::string::npos) model.erase(0, delimiter + 1);
        } else if (op == 'S') {
            const long sent = b.send(sp.ours, MSG_NOSIGNAL);
            ASSERT_EQ(sent > 0, !model.empty());
            ASSERT_EQ(sp.drain_peer(), model.substr(0, static_cast<size_t>(std::max(sent, 0L))));
            model.erase(0, static_cast<size_t>(std::max(sent, 0L)));
        } else if (op == 'W') {
            const std::string data = random_bytes(uniform(1, 120));
            ASSERT_EQ(::write(sp.peer, data.data(), data.size()), static_cast<ssize_t>(data.size()));
            in_flight += data;
        } else {
            const bool has_room = room();
            const long got = b.recv(sp.ours, 0);
            if (!has_room || in_flight.empty()) {
                ASSERT_EQ(got, has_room ? -1 : 0);
            } else {
                ASSERT_TRUE(got > 0 && static_cast<size_t>(got) <= in_flight.size()) << got;
                model += in_flight.substr(0, static_cast<size_t>(got));
                in_flight.erase(0, static_cast<size_t>(got));
            }
        }
        ASSERT_EQ(b.count, model.size());
        ASSERT_EQ(b.capacity, capacity);
    }
    EXPECT_GT(refused, 0u) << "the maximum was reached";
}

TEST(ConnectionBuffer, ProducerAndConsumerOnTwoThreads) {
    ks::ConnectionBuffer b(Type::send, "threads");
    ASSERT_TRUE(b.init(16, 256));
    constexpr int kMessages = 20000;
    std::thread producer([&] {
        for (int i = 0; i < kMessages; ++i) {
            const std::string m = std::to_string(i) + "\n";
            for (size_t done = 0; done < m.size(); std::this_thread::yield())
                done += b.put(m.data() + done, m.size() - done);
        }
    });
    for (int next = 0; next < kMessages; std::this_thread::yield())
        for (std::string m; (m = get(b)) != "<null>";) EXPECT_EQ(m, std::to_string(next++));
    producer.join();
}
