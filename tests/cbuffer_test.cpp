// Connection buffer: growth, delimiter framing, descriptor I/O with its log records, a
// randomized run against a plain byte queue over a socket pair, and two threads sharing it.
#include <ksutils/cbuffer.h>
#include <ksutils/kslog.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kstest.h"

namespace {

using Type = ks::ConnectionBufferType;

std::string get(ks::ConnectionBuffer& b, char delimiter = '\n') {
    std::unique_ptr<char[]> m(b.get(delimiter));
    return m ? std::string(m.get()) : "<null>";
}

size_t put(ks::ConnectionBuffer& b, const std::string& s) { return b.put(s.data(), s.size()); }

struct SocketPair {
    int ours = -1, peer = -1;
    SocketPair() {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0) ours = sv[0], peer = sv[1];
    }
    ~SocketPair() { ::close(ours), ::close(peer); }
    std::string drain_peer() const {
        std::string out;
        char chunk[4096];
        for (ssize_t n; (n = ::read(peer, chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<size_t>(n));
        return out;
    }
};

// Whether `text` holds `pattern`, where '*' stands for any run of characters within a line.
bool has_record(const std::string& text, const std::string& pattern) {
    std::vector<std::string> pieces(1);
    for (char c : pattern) {
        if (c == '*') pieces.emplace_back();
        else pieces.back().push_back(c);
    }
    for (size_t start = text.find(pieces[0]); start != std::string::npos; start = text.find(pieces[0], start + 1)) {
        size_t pos = start + pieces[0].size(), i = 1;
        for (; i < pieces.size(); ++i) {
            const size_t at = text.find(pieces[i], pos);
            if (at == std::string::npos || text.find('\n', pos) < at) break;
            pos = at + pieces[i].size();
        }
        if (i == pieces.size()) return true;
    }
    return false;
}

// What the default channel logs at trace level while `fn` runs, read from standard error.
class LogCapture {
public:
    LogCapture() {
        const std::string config = root_ / "etc/logging/capture.json";
        kstest::write_file(config, R"({"action":"update","channels":{"default":[{"file":":stderr","level":"trace"}]}})");
        started_ = ks::log::start("cbuffer_test", root_.path().c_str(), config.c_str());
    }
    ~LogCapture() {
        if (started_) ks::log::stop();
    }
    bool started() const { return started_; }
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

}  // namespace

TEST(ConnectionBuffer, GrowsByDoublingOnlyWhenFull) {
    const struct {
        size_t initial, maximum;
        std::vector<size_t> lengths, taken, capacities;
    } cases[] = {
        {4, 16, {10, 6, 2, 100, 1}, {4, 4, 2, 6, 0}, {4, 8, 16, 16, 16}},  // a partial put grows on the next one
        {16, 16, {16, 5}, {16, 0}, {16, 16}},
        {3000, 4096, {3000, 4000, 1}, {3000, 3000, 0}, {3000, 6000, 6000}},  // the check precedes the doubling
    };
    for (const auto& c : cases) {
        ks::ConnectionBuffer b(Type::send, "grow");
        ASSERT_TRUE(b.init(c.initial, c.maximum));
        std::string held;
        for (size_t i = 0; i < c.lengths.size(); ++i) {
            std::string data(c.lengths[i], '\0');
            for (char& ch : data) ch = static_cast<char>('a' + (held.size() + (&ch - &data[0])) % 26);
            EXPECT_EQ(put(b, data), c.taken[i]) << c.initial << " step " << i;
            EXPECT_EQ(b.capacity, c.capacities[i]) << c.initial << " step " << i;
            held += data.substr(0, c.taken[i]);
        }
        // Growth kept the bytes in order.
        std::string drained;
        b.send_or_write([&](char* p, unsigned long n) { return drained.append(p, n), static_cast<long>(n); });
        EXPECT_EQ(drained, held);
    }
    ks::ConnectionBuffer b(Type::send, "misuse");
    EXPECT_EQ(put(b, "abc"), 0u) << "no storage yet";
    EXPECT_FALSE(b.init(0, 16));
    ASSERT_TRUE(b.init(2, 2));
    EXPECT_FALSE(b.init(4, 8)) << "a second init would lose the storage";
}

TEST(ConnectionBuffer, DescriptorIoAndLogRecords) {
    LogCapture log;
    ASSERT_TRUE(log.started());
    SocketPair sp;
    ks::ConnectionBuffer out(Type::send, "ctl"), in(Type::receive, "ctl");
    ASSERT_TRUE(out.init(4, 8));
    ASSERT_TRUE(in.init(4, 4));
    bool called = false;
    auto spy = [&](char*, unsigned long) -> long { return called = true, 1; };

    const struct {
        const char* what;
        std::function<long()> run;
        long result;
        std::string records;  // after the header; '*' is any text within a line
    } cases[] = {
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
        {"send failure", [&] { return out.send(-1, 0); }, -1, "error [cbuffer.cpp:*]: [sb-ctl] failed to send\n"},
        {"send", [&] { return out.send(sp.ours, MSG_NOSIGNAL); }, 8, "]: [sb-ctl] sent 8 bytes, new count = 0, capacity = 8\n"},
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
        {"send to a closed peer", [&] {
             const long sent = put(out, "m") == 1 ? out.send(sp.ours, MSG_NOSIGNAL) : -2;
             return errno == EPIPE && out.count == 1 ? sent : -2;
         }, -1, "failed to send\n"},
    };
    for (const auto& c : cases) {
        long result = 0;
        const std::string text = log.during([&] { result = c.run(); });
        EXPECT_EQ(result, c.result) << c.what;
        EXPECT_TRUE(has_record(text, c.records)) << c.what << ":\n" << text;
    }
    EXPECT_FALSE(called) << "empty send and full receive do not call the descriptor";
}

// Random puts, gets, sends and receives against a plain byte queue. Phases of filling and
// draining drive the buffer to its maximum and back, through every wrap-around shape.
TEST(ConnectionBuffer, MatchesAByteQueueUnderRandomUse) {
    constexpr size_t kInitial = 8, kMaximum = 512;
    SocketPair sp;
    ks::ConnectionBuffer b(Type::receive, "model");
    ASSERT_TRUE(b.init(kInitial, kMaximum));
    std::mt19937 rng(20260522);
    auto uniform = [&](size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng); };
    auto random_bytes = [&](size_t n) {
        std::string s(n, '\0');
        for (char& c : s) c = uniform(0, 15) == 0 ? '\n' : static_cast<char>(uniform(1, 255));  // no NUL
        return s;
    };
    std::deque<char> model;  // what the buffer must hold, oldest first
    std::string in_flight;   // written by the peer, not received yet
    size_t capacity = kInitial, refused = 0, wrapped_messages = 0;
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
            ASSERT_EQ(b.put(data.data(), data.size()), taken);
            model.insert(model.end(), data.begin(), data.begin() + static_cast<long>(taken));
        } else if (op == 'G') {
            const bool wrapped = b.count > 0 && b.head >= b.tail;
            const std::string message = get(b);
            const auto delimiter = std::find(model.begin(), model.end(), '\n');
            if (delimiter == model.end()) {
                ASSERT_EQ(message, "<null>");
            } else {
                ASSERT_EQ(message, std::string(model.begin(), delimiter));
                model.erase(model.begin(), delimiter + 1);
                wrapped_messages += wrapped;
            }
        } else if (op == 'S') {
            const long sent = b.send(sp.ours, MSG_NOSIGNAL);
            ASSERT_EQ(sent > 0, !model.empty());
            const std::string arrived = sp.drain_peer();
            ASSERT_EQ(arrived.size(), static_cast<size_t>(std::max(sent, 0L)));
            ASSERT_TRUE(std::equal(arrived.begin(), arrived.end(), model.begin()));
            model.erase(model.begin(), model.begin() + static_cast<long>(arrived.size()));
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
                ASSERT_GT(got, 0);
                ASSERT_LE(static_cast<size_t>(got), in_flight.size());
                model.insert(model.end(), in_flight.begin(), in_flight.begin() + got);
                in_flight.erase(0, static_cast<size_t>(got));
            }
        }
        ASSERT_EQ(b.count, model.size());
        ASSERT_EQ(b.capacity, capacity);
    }
    EXPECT_EQ(b.capacity, kMaximum);
    EXPECT_GT(refused, 0u);
    EXPECT_GT(wrapped_messages, 100u);
}

TEST(ConnectionBuffer, ProducerAndConsumerOnTwoThreads) {
    ks::ConnectionBuffer b(Type::send, "threads");
    ASSERT_TRUE(b.init(16, 256));
    constexpr int kMessages = 20000;
    std::thread producer([&] {
        for (int i = 0; i < kMessages; ++i) {
            const std::string m = std::to_string(i) + "\n";
            for (size_t done = 0; done < m.size();) {
                const size_t n = b.put(m.data() + done, m.size() - done);
                if (n == 0) std::this_thread::yield();
                done += n;
            }
        }
    });
    for (int next = 0; next < kMessages;) {
        const std::string m = get(b);
        if (m == "<null>") {
            std::this_thread::yield();
            continue;
        }
        EXPECT_EQ(m, std::to_string(next++));
    }
    producer.join();
}
