// The settings server under bad clients: malformed frames, clients that vanish mid-request
// or never read what they asked for, and a second server started beside it.
#include "kssetter_fixture.h"

#include "kssetter/kssetmgmt/protocol.h"

using namespace kssetter_test;
using namespace ks::setter;
namespace sm = ks::setMgmt;

namespace {

constexpr int64_t kClosed = INT64_MIN;

// The next reply's result, or kClosed when the server closed the connection.
int64_t answer(int fd) {
    pollfd p{fd, POLLIN, 0};
    int64_t result = kClosed;
    if (::poll(&p, 1, 5000) != 1) {
        ADD_FAILURE() << "no answer from the server";
        return kClosed;
    }
    return readAll(fd, &result, 8) ? result : kClosed;
}

// Whether the server answers a new client.
bool serverAnswers() {
    ks::storage::DebugInfo debug;
    bool ok = false;
    inThread([&] { ok = sm::getDebugInfo(debug) == 0; });
    return ok;
}

}  // namespace

using KssetterTest = WithServer;

TEST_F(KssetterTest, MalformedFrames) {
    const std::string key = "/bad/key", plainKey = '\0' + key;
    // One row per way the server answers; the malformed bodies themselves: protocol_test.
    const std::tuple<const char*, std::string, int64_t> cases[] = {  // name, bytes, answer
        {"text garbage", "GARBAGE GARBAGE GARBAGE\n", kClosed},
        {"set type 7", frame(CMD_SET, setBody(plainKey, 7, "v")), kResultParseError},
        {"lock byte without lock", frame(CMD_GET, "\1" + key), kResultLockLost},
        {"relative key", frame(CMD_GET, "\0bad"s), kResultInvalidOperation},
        {"request on the notification stream", frame(CMD_NOTIFY, key) + frame(CMD_GET, plainKey), kClosed},
    };
    for (const auto& [name, bytes, expected] : cases) {
        SCOPED_TRACE(name);
        const ks::unique_fd fd = connectRaw();
        ASSERT_TRUE(writeAll(fd.get(), bytes));
        int64_t got = answer(fd.get());
        // Past the subscription's own answer, if it came before the connection was closed.
        if (got == 0 && bytes.compare(0, 4, frame(CMD_NOTIFY, ""), 0, 4) == 0) got = answer(fd.get());
        EXPECT_EQ(expected, got);
        EXPECT_TRUE(serverAnswers());
    }
    EXPECT_TRUE(sm::keyDeleted(key));  // none of them stored anything
}

TEST_F(KssetterTest, ClientVanishingMidRequest) {
    const std::string whole = frame(CMD_SET, setBody("\0/vanish/k"s, 0, "value"));
    for (size_t cut : {size_t(5), size_t(12), whole.size() - 1})
        ASSERT_TRUE(writeAll(connectRaw().get(), whole.substr(0, cut)));  // and closes
    // A waiter for a lock that goes away does not inherit it.
    ASSERT_EQ(0, sm::lockKey("/vanish/lock"));
    ks::unique_fd waiter = connectRaw();
    ASSERT_TRUE(writeAll(waiter.get(), frame(CMD_LOCK, "/vanish/lock")));
    ASSERT_TRUE(serverAnswers());
    waiter.reset();
    ASSERT_EQ(0, sm::unlockKey("/vanish/lock"));
    inThread([] {
        EXPECT_EQ(0, sm::lockKey("/vanish/lock"));
        EXPECT_EQ(0, sm::unlockKey("/vanish/lock"));
    });
    EXPECT_TRUE(sm::keyDeleted("/vanish/k"));
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, SlowSubscriberIsDropped) {
    const ks::unique_fd slow = connectRaw();
    int small = 4096;
    ::setsockopt(slow.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    ASSERT_TRUE(writeAll(slow.get(), frame(CMD_NOTIFY_KEYS, "/slow")));
    ASSERT_EQ(0, answer(slow.get()));
    sm::NotifyHandle* healthy = sm::setNotification("/slow", false);
    ASSERT_NE(nullptr, healthy);

    // About 8 MiB of keyed notifications, twice what the server queues for one client; the
    // healthy subscriber keeps reading.
    const std::string key = "/slow/" + std::string(1000, 'k');
    constexpr int kChanges = 8000;
    int healthyCount = 0;
    for (int i = 0; i < kChanges; ++i) {
        ASSERT_EQ(0, sm::setKey(key, "v")) << kstest::error_text();
        if (i % 100 == 99) healthyCount += collect(healthy, 1);
    }
    EXPECT_EQ(kChanges, healthyCount + collect(healthy, kChanges - healthyCount));

    // The slow one gets what was queued, then the end of the stream.
    size_t received = 0;
    char chunk[65536];
    for (;;) {
        pollfd p{slow.get(), POLLIN, 0};
        ASSERT_EQ(1, ::poll(&p, 1, 5000));
        const ssize_t n = ::recv(slow.get(), chunk, sizeof chunk, 0);
        if (n <= 0) break;
        received += static_cast<size_t>(n);
    }
    EXPECT_LT(received, kChanges * (8 + key.size()));
    sm::cancelNotification(healthy);
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, SecondServerRefusesToStart) {
    const std::string tool = "'" + kstest::tool_path("kssetter") + "' ";
    EXPECT_EQ(1, kstest::run(tool + "-root '" + root().path() + "' 2>/dev/null"));
    EXPECT_EQ(1, kstest::run(tool + "-bogus 2>/dev/null"));
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, PipelinedRequestsWithoutReading) {
    // About 20 MiB of replies, five times what the server queues before it stops reading.
    const std::string value(1000, 'v');
    ASSERT_EQ(0, sm::setKey("/pipe/value", value));
    constexpr int kRequests = 20000;
    const ks::unique_fd fd = connectRaw();
    std::string batch;
    for (int i = 0; i < 100; ++i) batch += frame(CMD_GET, "\0/pipe/value"s);
    std::thread writer([&] {
        for (int i = 0; i < kRequests / 100; ++i)
            if (!writeAll(fd.get(), batch)) return;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(serverAnswers());  // others are served while this client lags
    int good = 0;
    for (std::string got(value.size(), '\0'); good < kRequests; ++good) {
        int64_t size = 0;
        if (!readAll(fd.get(), &size, 8) || size != 1000 || !readAll(fd.get(), &got[0], got.size()) || got != value) break;
    }
    writer.join();
    EXPECT_EQ(kRequests, good);
}
