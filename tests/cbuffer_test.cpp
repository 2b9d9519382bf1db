// Connection buffer: growth, delimiter framing, descriptor I/O, and a randomized run
// against a plain byte queue over a real socket pair.
#include <ksutils/cbuffer.h>
#include <ksutils/kslog.h>

#include <gtest/gtest.h>

#include "kstest.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>

namespace {

using Type = ks::ConnectionBufferType;

struct Message {
    std::unique_ptr<char[]> text;
    explicit Message(char* p) : text(p) {}
    bool null() const { return !text; }
    std::string str() const { return text ? std::string(text.get()) : std::string("<null>"); }
};

Message get(ks::ConnectionBuffer& b, char delimiter = '\n') { return Message(b.get(delimiter)); }

size_t put(ks::ConnectionBuffer& b, const std::string& s) { return b.put(s.data(), s.size()); }

struct SocketPair {
    int ours = -1, peer = -1;
    SocketPair() {
        int sv[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0) ours = sv[0], peer = sv[1];
    }
    ~SocketPair() {
        if (ours >= 0) ::close(ours);
        if (peer >= 0) ::close(peer);
    }
    // Everything the peer can read right now.
    std::string drain_peer() const {
        std::string out;
        char chunk[4096];
        ssize_t n;
        while ((n = ::read(peer, chunk, sizeof chunk)) > 0) out.append(chunk, static_cast<size_t>(n));
        return out;
    }
};

// The default channel at trace level on standard error, in a throw-away install root.
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

TEST(ConnectionBuffer, TagNamesTypeAndConnection) {
    const struct {
        Type type;
        const char* name;
        const char* tag;
    } cases[] = {
        {Type::send, "ctl", "[sb-ctl]"},
        {Type::receive, "ctl", "[rb-ctl]"},
        {static_cast<Type>(7), "x", "[b-x]"},
        {Type::receive, "", "[rb-]"},
    };
    for (const auto& c : cases) EXPECT_EQ(ks::ConnectionBuffer(c.type, c.name).tag, c.tag);
}

TEST(ConnectionBuffer, GrowsByDoublingOnlyWhenFull) {
    struct Step {
        size_t len;
        size_t taken;
        size_t capacity_after;
    };
    const struct {
        const char* what;
        size_t initial, maximum;
        std::vector<Step> steps;
    } cases[] = {
        {"partial puts grow on the next put", 4, 16, {{10, 4, 4}, {6, 4, 8}, {2, 2, 16}, {100, 6, 16}, {1, 0, 16}}},
        {"at the maximum nothing more fits", 16, 16, {{16, 16, 16}, {1, 0, 16}, {5, 0, 16}}},
        {"the last doubling may pass the maximum", 3000, 4096, {{3000, 3000, 3000}, {4000, 3000, 6000}, {1, 0, 6000}}},
        {"zero-length put", 4, 8, {{0, 0, 4}}},
    };
    for (const auto& c : cases) {
        ks::ConnectionBuffer b(Type::send, "grow");
        ASSERT_TRUE(b.init(c.initial, c.maximum)) << c.what;
        std::string expected;
        size_t fill = 0;
        for (const Step& s : c.steps) {
            std::string data;
            for (size_t i = 0; i < s.len; ++i) data += static_cast<char>('a' + (fill + i) % 26);
            EXPECT_EQ(put(b, data), s.taken) << c.what;
            expected += data.substr(0, s.taken);
            fill += s.taken;
            EXPECT_EQ(b.capacity, s.capacity_after) << c.what;
            EXPECT_EQ(b.count, expected.size()) << c.what;
        }
        // Growth kept the bytes in order.
        expected += '\n';
        if (b.count < b.capacity) {
            ASSERT_EQ(put(b, "\n"), 1u);
            EXPECT_EQ(get(b).str(), expected.substr(0, expected.size() - 1)) << c.what;
        }
    }
}

TEST(ConnectionBuffer, CutsMessagesAtTheDelimiter) {
    ks::ConnectionBuffer b(Type::receive, "ctl");
    ASSERT_TRUE(b.init(16, 64));
    EXPECT_TRUE(get(b).null()) << "empty";
    ASSERT_EQ(put(b, "ab\ncd"), 5u);
    EXPECT_EQ(get(b).str(), "ab");
    EXPECT_EQ(b.count, 2u) << "the delimiter is consumed with the message";
    EXPECT_TRUE(get(b).null());
    EXPECT_EQ(b.count, 2u) << "an incomplete message stays";
    ASSERT_EQ(put(b, "\n\n;x;"), 5u);
    EXPECT_EQ(get(b).str(), "cd");
    EXPECT_EQ(get(b).str(), "") << "a delimiter at the head is an empty message";
    EXPECT_EQ(b.count, 3u);
    EXPECT_EQ(get(b, ';').str(), "");
    EXPECT_EQ(get(b, ';').str(), "x");
    EXPECT_EQ(b.count, 0u);

    // A message wrapping around the end of the storage comes back whole, in order.
    ks::ConnectionBuffer w(Type::receive, "wrap");
    ASSERT_TRUE(w.init(8, 8));
    ASSERT_EQ(put(w, "12345\n"), 6u);
    EXPECT_EQ(get(w).str(), "12345");
    ASSERT_EQ(put(w, "abcdef\n"), 7u);  // 2 bytes at the end, 5 at the start
    EXPECT_LT(w.tail, w.head);
    EXPECT_EQ(get(w).str(), "abcdef");
    ASSERT_EQ(put(w, "ghijklm\n"), 8u);  // full, delimiter in the second piece
    EXPECT_EQ(w.count, w.capacity);
    EXPECT_EQ(get(w).str(), "ghijklm");
    // Wrapped and full, delimiter in the first piece.
    ASSERT_EQ(put(w, "n\nopqrst"), 8u);
    EXPECT_EQ(get(w).str(), "n");
    EXPECT_TRUE(get(w).null());
}

TEST(ConnectionBuffer, DescriptorIo) {
    SocketPair sp;
    ASSERT_GE(sp.ours, 0);
    ks::ConnectionBuffer out(Type::send, "io");
    ks::ConnectionBuffer in(Type::receive, "io");
    ASSERT_TRUE(out.init(8, 8));
    ASSERT_TRUE(in.init(8, 16));

    // Empty send buffer: the descriptor is not called.
    bool called = false;
    EXPECT_EQ(out.send_or_write([&](char*, unsigned long) -> long { return called = true, 0; }), 0);
    EXPECT_FALSE(called);

    // A wrapped queue drains in two runs.
    ASSERT_EQ(put(out, "123456"), 6u);
    EXPECT_EQ(out.send_or_write([](char*, unsigned long) -> long { return 4; }), 4);
    ASSERT_EQ(put(out, "abcdef"), 6u);
    EXPECT_EQ(out.send(sp.ours, MSG_NOSIGNAL), 4);
    EXPECT_EQ(out.write(sp.ours), 4);
    EXPECT_EQ(out.count, 0u);
    EXPECT_EQ(sp.drain_peer(), "56abcdef");

    // Would-block is -1 with errno intact; contents unchanged.
    EXPECT_EQ(in.recv(sp.ours, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(in.read(sp.ours), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(::write(sp.peer, "hello\n", 6), 6);
    EXPECT_EQ(in.recv(sp.ours, 0), 6);
    EXPECT_EQ(get(in).str(), "hello");
    ASSERT_EQ(::write(sp.peer, "world\nmore", 10), 10);
    EXPECT_EQ(in.read(sp.ours), 2) << "one contiguous run up to the end of the storage";
    EXPECT_EQ(in.recv(sp.ours, 0), 6) << "then the run at the start, up to the head";
    EXPECT_EQ(in.count, in.capacity);
    EXPECT_EQ(in.recv(sp.ours, 0), 2) << "full: grows to 16 first";
    EXPECT_EQ(in.capacity, 16u);
    EXPECT_EQ(in.recv(sp.ours, 0), -1);
    EXPECT_EQ(get(in).str(), "world");
    EXPECT_TRUE(get(in).null());

    // A receive buffer full at its maximum reports 0 without touching the descriptor.
    ks::ConnectionBuffer full(Type::receive, "full");
    ASSERT_TRUE(full.init(4, 4));
    ASSERT_EQ(put(full, "abcd"), 4u);
    called = false;
    EXPECT_EQ(full.read_or_recv([&](char*, unsigned long) -> long { return called = true, 1; }), 0);
    EXPECT_FALSE(called);

    // An I/O function claiming more than it was offered is refused.
    ASSERT_EQ(put(out, "xy"), 2u);
    EXPECT_EQ(out.send_or_write([](char*, unsigned long n) -> long { return static_cast<long>(n) + 1; }), -1);
    EXPECT_EQ(out.count, 2u);

    // The peer goes away: end of file on receive, EPIPE on send, nothing lost.
    ::close(sp.peer);
    sp.peer = -1;
    EXPECT_EQ(in.recv(sp.ours, 0), 0);
    EXPECT_EQ(in.count, 4u);
    EXPECT_EQ(out.send(sp.ours, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(out.count, 2u);
}

TEST(ConnectionBuffer, MisuseIsRefusedWithoutCrashing) {
    ks::ConnectionBuffer b(Type::send, "misuse");
    // No storage yet: nothing is taken, nothing is returned.
    EXPECT_EQ(put(b, "abc"), 0u);
    EXPECT_TRUE(get(b).null());
    EXPECT_EQ(b.send_or_write([](char*, unsigned long) -> long { return 1; }), 0);
    EXPECT_EQ(b.read_or_recv([](char*, unsigned long) -> long { return 1; }), 0);

    EXPECT_FALSE(b.init(0, 16));
    ASSERT_TRUE(b.init(4, 8));
    EXPECT_FALSE(b.init(4, 8)) << "a second init would lose the storage";
    ASSERT_EQ(put(b, "ab"), 2u);
    b.uninit();
    EXPECT_EQ(b.count, 0u);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.begin, nullptr);
    ASSERT_TRUE(b.init(2, 2));
    ASSERT_EQ(put(b, "c\n"), 2u);
    EXPECT_EQ(get(b).str(), "c");
}

// Random puts, gets, sends and receives against a plain byte queue. The buffer starts
// small and is driven to its maximum and back many times, so every wrap-around shape and
// every growth step is exercised.
TEST(ConnectionBuffer, MatchesAByteQueueUnderRandomUse) {
    constexpr size_t kInitial = 8, kMaximum = 512;
    SocketPair sp;
    ASSERT_GE(sp.ours, 0);
    ks::ConnectionBuffer b(Type::receive, "model");
    ASSERT_TRUE(b.init(kInitial, kMaximum));

    std::mt19937 rng(20260522);
    auto uniform = [&](size_t lo, size_t hi) { return std::uniform_int_distribution<size_t>(lo, hi)(rng); };
    auto random_bytes = [&](size_t n) {
        std::string s(n, '\0');
        for (char& c : s) c = uniform(0, 15) == 0 ? '\n' : static_cast<char>(uniform(0, 255));
        return s;
    };

    std::deque<char> model;     // what the buffer must hold, oldest first
    std::string in_flight;      // written by the peer, not yet received
    size_t model_capacity = kInitial;
    size_t refused_at_maximum = 0, wrapped_gets = 0, messages = 0;

    // Adds room the way the buffer must: by doubling, and only when completely full.
    auto grow_if_full = [&]() {
        if (model.size() < model_capacity) return true;
        if (model_capacity >= kMaximum) return false;
        model_capacity *= 2;
        return true;
    };

    for (int step = 0; step < 40000; ++step) {
        const bool filling = (step / 700) % 2 == 0;
        const size_t op = uniform(0, 9);
        if (op < (filling ? 3u : 1u)) {  // put
            const std::string data = random_bytes(uniform(0, 100));
            const size_t expected = grow_if_full() ? std::min(data.size(), model_capacity - model.size()) : 0;
            if (model.size() == model_capacity) ++refused_at_maximum;
            ASSERT_EQ(b.put(data.data(), data.size()), expected) << "step " << step;
            model.insert(model.end(), data.begin(), data.begin() + static_cast<long>(expected));
        } else if (op < (filling ? 5u : 5u)) {  // get
            const bool wrapped = b.count > 0 && b.head >= b.tail;
            Message m = get(b);
            auto delim = std::find(model.begin(), model.end(), '\n');
            if (delim == model.end()) {
                ASSERT_TRUE(m.null()) << "step " << step;
            } else {
                ASSERT_FALSE(m.null()) << "step " << step;
                const std::string expected(model.begin(), delim);
                ASSERT_EQ(std::string(m.text.get(), expected.size()), expected) << "step " << step;
                ASSERT_EQ(m.text[expected.size()], '\0');
                model.erase(model.begin(), delim + 1);
                ++messages;
                if (wrapped) ++wrapped_gets;
            }
        } else if (op < (filling ? 6u : 8u)) {  // send to the peer
            const long sent = b.send(sp.ours, MSG_NOSIGNAL);
            if (model.empty()) {
                ASSERT_EQ(sent, 0) << "step " << step;
            } else {
                ASSERT_GT(sent, 0) << "step " << step;
            }
            const std::string arrived = sp.drain_peer();
            ASSERT_EQ(arrived.size(), static_cast<size_t>(std::max(sent, 0L)));
            ASSERT_TRUE(std::equal(arrived.begin(), arrived.end(), model.begin())) << "step " << step;
            model.erase(model.begin(), model.begin() + static_cast<long>(arrived.size()));
        } else if (op < (filling ? 8u : 9u)) {  // the peer writes
            const std::string data = random_bytes(uniform(1, 120));
            ASSERT_EQ(::write(sp.peer, data.data(), data.size()), static_cast<ssize_t>(data.size()));
            in_flight += data;
        } else {  // receive from the peer
            const bool room = grow_if_full();
            const long got = b.recv(sp.ours, 0);
            if (!room) {
                ASSERT_EQ(got, 0) << "step " << step;
            } else if (in_flight.empty()) {
                ASSERT_EQ(got, -1) << "step " << step;
                ASSERT_EQ(errno, EAGAIN);
            } else {
                ASSERT_GT(got, 0) << "step " << step;
                ASSERT_LE(static_cast<size_t>(got), in_flight.size());
                model.insert(model.end(), in_flight.begin(), in_flight.begin() + got);
                in_flight.erase(0, static_cast<size_t>(got));
            }
        }
        ASSERT_EQ(b.count, model.size()) << "step " << step;
        ASSERT_EQ(b.capacity, model_capacity) << "step " << step;
    }
    EXPECT_EQ(b.capacity, kMaximum);
    EXPECT_GT(refused_at_maximum, 0u);
    EXPECT_GT(wrapped_gets, 0u);
    EXPECT_GT(messages, 1000u);
}

TEST(ConnectionBuffer, ProducerAndConsumerOnTwoThreads) {
    ks::ConnectionBuffer b(Type::send, "threads");
    ASSERT_TRUE(b.init(16, 256));
    constexpr int kMessages = 20000;
    std::thread producer([&] {
        for (int i = 0; i < kMessages; ++i) {
            const std::string m = std::to_string(i) + "\n";
            size_t done = 0;
            while (done < m.size()) {
                const size_t n = b.put(m.data() + done, m.size() - done);
                if (n == 0) std::this_thread::yield();
                done += n;
            }
        }
    });
    int next = 0;
    while (next < kMessages) {
        Message m = get(b);
        if (m.null()) {
            std::this_thread::yield();
            continue;
        }
        EXPECT_EQ(m.str(), std::to_string(next));
        ++next;
    }
    producer.join();
    EXPECT_EQ(b.count, 0u);
}

TEST(ConnectionBufferLog, EveryRecordCarriesTheTag) {
    LogCapture log;
    ASSERT_TRUE(log.started());
    SocketPair sp;
    ASSERT_GE(sp.ours, 0);
    ks::ConnectionBuffer out(Type::send, "ctl");
    ks::ConnectionBuffer in(Type::receive, "ctl");
    ASSERT_TRUE(out.init(4, 8));
    ASSERT_TRUE(in.init(4, 4));
    ks::ConnectionBuffer eof(Type::receive, "eof");
    ASSERT_TRUE(eof.init(8, 8));

    // Each case's records, in order; every one must start with the level and source.
    const struct {
        const char* what;
        std::function<void()> run;
        std::vector<std::string> records;
    } cases[] = {
        {"send empty", [&] { out.send(sp.ours, 0); }, {"trace [cbuffer.cpp:", "[sb-ctl] send on empty connection buffer\n"}},
        {"put", [&] { out.put("abcd", 4); }, {"trace [", "[sb-ctl] put 4 bytes, new count = 4, capacity = 4\n"}},
        {"grow", [&] { out.put("ef", 2); },
         {"[sb-ctl] put on full connection buffer\n", "[sb-ctl] count = 4, new capacity = 8\n",
          "[sb-ctl] put 2 bytes, new count = 6, capacity = 8\n"}},
        {"at maximum", [&] { out.put("ghij", 4), out.put("k", 1); },
         {"[sb-ctl] put 2 bytes, new count = 8, capacity = 8\n", "[sb-ctl] put on full connection buffer\n",
          "error [cbuffer.cpp:", "[sb-ctl] cannot exceed maximum capacity of connection buffer\n"}},
        {"send", [&] { out.send(sp.ours, MSG_NOSIGNAL); }, {"[sb-ctl] sent 8 bytes, new count = 0, capacity = 8\n"}},
        {"send failure", [&] { out.put("x", 1), out.send(-1, 0); }, {"error [", "[sb-ctl] failed to send\n"}},
        {"get empty", [&] { delete[] in.get('\n'); }, {"trace [", "[rb-ctl] get on empty connection buffer\n"}},
        {"would block", [&] { in.recv(sp.ours, 0); }, {"error [", "[rb-ctl] failed to recv\n"}},
        {"recv", [&] { EXPECT_EQ(::write(sp.peer, "ab\ncd", 5), 5); in.recv(sp.ours, 0); },
         {"[rb-ctl] recv 4 bytes, new count = 4, capacity = 4\n"}},
        {"get", [&] { delete[] in.get('\n'); }, {"[rb-ctl] get 3 bytes, new count = 1, capacity = 4\n"}},
        {"recv full", [&] { in.put("xyz", 3), in.recv(sp.ours, 0); },
         {"[rb-ctl] recv on full connection buffer\n", "[rb-ctl] cannot exceed maximum capacity of connection buffer\n"}},
        {"peer closed", [&] { sp.drain_peer(), ::close(sp.peer), sp.peer = -1, eof.recv(sp.ours, 0), eof.recv(sp.ours, 0); },
         {"[rb-eof] recv 1 bytes, new count = 1, capacity = 8\n", " info [cbuffer.cpp:", "[rb-eof] connection closed by peer\n"}},
    };
    for (const auto& c : cases) {
        const std::string text = log.during(c.run);
        size_t at = 0;
        for (const std::string& e : c.records) {
            at = text.find(e, at);
            ASSERT_NE(at, std::string::npos) << c.what << ": no \"" << e << "\" in:\n" << text;
        }
    }
}
