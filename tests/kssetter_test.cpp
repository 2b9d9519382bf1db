// The settings server under bad and heavy clients: malformed frames, clients that vanish
// mid-request or never read their notifications, hundreds of clients at once, and a stop
// while clients are writing, after which every acknowledged write must be in the file.
#include "kssetter_fixture.h"

#include "kssetter/kssetmgmt/protocol.h"

#include <kssetter/ksstorage.h>
#include <ksutils/error.h>

#include <poll.h>

#include <atomic>
#include <map>
#include <mutex>

using namespace kssetter_test;
namespace sm = ks::setMgmt;
using ks::setter::CmdType;

namespace {

std::string frame(uint32_t cmd, const std::string& body, uint64_t announced = UINT64_MAX) {
    const uint64_t length = announced == UINT64_MAX ? body.size() : announced;
    std::string f(reinterpret_cast<const char*>(&cmd), 4);
    f.append(reinterpret_cast<const char*>(&length), 8);
    return f + body;
}

std::string setBody(char lockByte, const std::string& key, uint32_t type, const std::string& value) {
    std::string b(1, lockByte);
    b += key;
    b.push_back('\0');
    b.append(reinterpret_cast<const char*>(&type), 4);
    return b + value;
}

// The next reply's result, or nullopt-like `closed` when the server closed the connection.
struct Answer {
    bool closed = false;
    int64_t result = 0;
};

Answer answer(int fd) {
    Answer a;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 5000) != 1) {
        ADD_FAILURE() << "no answer from the server";
        return a;
    }
    a.closed = !readAll(fd, &a.result, 8);
    return a;
}

bool serverAnswers() {
    bool ok = false;
    inThread([&] {
        ks::storage::DebugInfo debug;
        ok = sm::getDebugInfo(debug) == 0;
    });
    return ok;
}

}  // namespace

class KssetterTest : public ::testing::Test {
protected:
    ClientScope client;
    ServerProcess server;
};

TEST_F(KssetterTest, MalformedFrames) {
    const std::string key = "/bad/key";
    const struct {
        const char* name;
        std::string bytes;
        bool closes;
        int64_t result;
    } cases[] = {
        {"body over the limit", frame(ks::setter::CMD_GET, "", ks::setter::kMaxBodyLength + 1), true, 0},
        {"command 0", frame(0, std::string(1, '\0') + key), true, 0},
        {"command 12", frame(12, std::string(1, '\0') + key), true, 0},
        {"text garbage", "GARBAGE GARBAGE GARBAGE\n", true, 0},
        {"empty get", frame(ks::setter::CMD_GET, ""), false, ks::setter::kResultParseError},
        {"lock byte 2", frame(ks::setter::CMD_GET, "\2" + key), false, ks::setter::kResultParseError},
        {"lock byte without lock", frame(ks::setter::CMD_GET, "\1" + key), false, ks::setter::kResultLockLost},
        {"set without NUL", frame(ks::setter::CMD_SET, std::string(1, '\0') + key), false,
         ks::setter::kResultParseError},
        {"set without type", frame(ks::setter::CMD_SET, std::string(1, '\0') + key + std::string(3, '\0')), false,
         ks::setter::kResultParseError},
        {"set type 7", frame(ks::setter::CMD_SET, setBody('\0', key, 7, "v")), false, ks::setter::kResultParseError},
        {"set none with bytes", frame(ks::setter::CMD_SET, setBody('\0', key, 2, "v")), false,
         ks::setter::kResultParseError},
        {"relative key", frame(ks::setter::CMD_GET, std::string(1, '\0') + "bad"), false,
         ks::setter::kResultInvalidOperation},
        {"key with newline", frame(ks::setter::CMD_SET, setBody('\0', "/a\nb", 0, "v")), false,
         ks::setter::kResultInvalidOperation},
        {"unlock not held", frame(ks::setter::CMD_UNLOCK, std::string(1, '\0') + key), false,
         ks::setter::kResultInvalidOperation},
        {"request on a stream", frame(ks::setter::CMD_NOTIFY, key) + frame(ks::setter::CMD_GET, std::string(1, '\0') + key),
         true, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int fd = connectRaw();
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(writeAll(fd, c.bytes.data(), c.bytes.size()));
        Answer a = answer(fd);
        if (!a.closed && c.bytes.compare(0, 4, frame(ks::setter::CMD_NOTIFY, "").substr(0, 4)) == 0) {
            EXPECT_EQ(0, a.result);  // the subscription itself
            a = answer(fd);
        }
        EXPECT_EQ(c.closes, a.closed);
        if (!c.closes) {
            EXPECT_EQ(c.result, a.result);
        }
        ::close(fd);
        EXPECT_TRUE(serverAnswers());
    }
    std::string value;
    EXPECT_EQ(-1, sm::getKey(key, value));  // none of them stored anything
}

TEST_F(KssetterTest, ClientVanishingMidRequest) {
    const std::string whole = frame(ks::setter::CMD_SET, setBody('\0', "/vanish/k", 0, "value"));
    for (size_t cut : {size_t(5), size_t(12), whole.size() - 1}) {
        const int fd = connectRaw();
        ASSERT_GE(fd, 0);
        ASSERT_TRUE(writeAll(fd, whole.data(), cut));
        ::close(fd);
    }
    // A waiter for a lock that goes away does not inherit it.
    ASSERT_EQ(0, sm::lockKey("/vanish/lock"));
    const int waiter = connectRaw();
    const std::string lock = frame(ks::setter::CMD_LOCK, "/vanish/lock");
    ASSERT_TRUE(writeAll(waiter, lock.data(), lock.size()));
    ASSERT_TRUE(serverAnswers());
    ::close(waiter);
    ASSERT_EQ(0, sm::unlockKey("/vanish/lock"));
    inThread([] {
        EXPECT_EQ(0, sm::lockKey("/vanish/lock"));
        EXPECT_EQ(0, sm::unlockKey("/vanish/lock"));
    });

    EXPECT_TRUE(sm::keyDeleted("/vanish/k"));
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, SlowSubscriberIsDropped) {
    const int slow = connectRaw();
    ASSERT_GE(slow, 0);
    int small = 4096;
    ::setsockopt(slow, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const std::string subscribe = frame(ks::setter::CMD_NOTIFY_KEYS, "/slow");
    ASSERT_TRUE(writeAll(slow, subscribe.data(), subscribe.size()));
    ASSERT_EQ(0, answer(slow).result);
    sm::NotifyHandle* healthy = sm::setNotification("/slow", false);
    ASSERT_NE(nullptr, healthy);

    // About 8 MiB of keyed notifications, twice what the server queues for one client.
    const std::string key = "/slow/" + std::string(1000, 'k');
    constexpr int kChanges = 8000;
    int healthyCount = 0;
    for (int i = 0; i < kChanges; ++i) {
        ASSERT_EQ(0, sm::setKey(key, "v")) << errorText();
        if (i % 100 == 99) {
            int n = sm::waitNotification(healthy, 2000);
            ASSERT_GT(n, 0);
            healthyCount += n;
        }
    }
    while (healthyCount < kChanges) {
        int n = sm::waitNotification(healthy, 2000);
        ASSERT_GT(n, 0);
        healthyCount += n;
    }
    EXPECT_EQ(kChanges, healthyCount);

    // The slow one gets what was queued, then the end of the stream.
    size_t received = 0;
    char chunk[65536];
    for (;;) {
        pollfd p{slow, POLLIN, 0};
        ASSERT_EQ(1, ::poll(&p, 1, 5000));
        ssize_t n = ::recv(slow, chunk, sizeof chunk, 0);
        if (n <= 0) break;
        received += static_cast<size_t>(n);
    }
    EXPECT_LT(received, kChanges * (8 + key.size()));
    ::close(slow);
    sm::cancelNotification(healthy);
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, TwoHundredConcurrentClients) {
    constexpr int kClients = 200, kRounds = 20;
    sm::NotifyHandle* watcher = sm::setNotification("/many/shared", false);
    ASSERT_NE(nullptr, watcher);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kClients; ++t) {
        threads.emplace_back([t, &failures] {
            const std::string mine = "/many/c" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                const std::string v = std::to_string(i);
                ks::storage::NodeInfo info;
                std::vector<std::string> names;
                bool ok = sm::setKey(mine + "/v", v) == 0 && sm::getKeyValue(mine + "/v", "") == v &&
                          sm::statKey(mine + "/v", info) == 0 && info.size == v.size() &&
                          sm::enumSubkeys(mine, names) == 1 && sm::setKey("/many/shared", v) == 0;
                if (i % 5 == 4) ok = ok && sm::deleteKey(mine + "/v") == 0 && sm::keyDeleted(mine + "/v");
                if (!ok) ++failures;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
    int notified = 0;
    while (notified < kClients * kRounds) {
        const int n = sm::waitNotification(watcher, 2000);
        ASSERT_GT(n, 0) << errorText();
        notified += n;
    }
    EXPECT_EQ(kClients * kRounds, notified);
    sm::cancelNotification(watcher);
}

TEST_F(KssetterTest, StopKeepsEveryAcknowledgedWrite) {
    constexpr int kWriters = 4;
    std::mutex m;
    std::map<std::string, std::string> acknowledged;
    std::atomic<bool> started{false};
    std::vector<std::thread> writers;
    for (int t = 0; t < kWriters; ++t) {
        writers.emplace_back([t, &m, &acknowledged, &started] {
            for (int i = 0;; ++i) {
                const std::string key = "/durable/w" + std::to_string(t) + "/k" + std::to_string(i % 50);
                const std::string value = "v" + std::to_string(i) + "\nline two";
                if (sm::setKey(key, value) != 0) return;  // the server has gone
                std::lock_guard<std::mutex> g(m);
                acknowledged[key] = value;
                if (i == 20) started = true;
            }
        });
    }
    while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(0, server.stop(SIGTERM));
    for (auto& w : writers) w.join();
    ASSERT_FALSE(acknowledged.empty());

    EXPECT_EQ(0, ks::storage::Store::checkHash(storagePath()));
    ks::storage::Store saved;
    ASSERT_EQ(0, saved.load(storagePath()));
    for (const auto& [key, value] : acknowledged) {
        std::string got;
        EXPECT_GE(saved.getKey(key, got), 0) << key;
        EXPECT_EQ(value, got) << key;
    }
    server.start();
    for (const auto& [key, value] : acknowledged) EXPECT_EQ(value, sm::getKeyValue(key, "")) << key;
}

TEST_F(KssetterTest, SecondServerRefusesToStart) {
    const std::string command = "'" + kstest::tool_path("kssetter") + "' -root '" + root().path() + "' 2>/dev/null";
    EXPECT_EQ(1, kstest::run(command));
    EXPECT_EQ(1, kstest::run("'" + kstest::tool_path("kssetter") + "' -bogus 2>/dev/null"));
    EXPECT_TRUE(serverAnswers());
}

TEST_F(KssetterTest, CommandLineClient) {
    const std::string cli = "'" + kstest::tool_path("kssetmgmt") + "' -root '" + root().path() + "' ";
    const std::string binFile = root() / "var/tmp/blob";
    ASSERT_TRUE(kstest::write_file(binFile, std::string("\0\1\2\xff", 4)));
    const struct {
        std::string args;
        int status;
        std::string output;  // null-free expectation of standard output
    } steps[] = {
        {"set /cli/name 'the box'", 0, ""},
        {"get /cli/name", 0, "the box"},
        {"stat /cli/name", 0, "string 7\n"},
        {"set-file /cli/blob '" + binFile + "'", 0, ""},
        {"stat /cli/blob", 0, "binary 4\n"},
        {"set /cli/empty ''", 0, ""},
        {"stat /cli/empty", 0, "none 0\n"},
        {"lock-set /cli/locked yes", 0, ""},
        {"get /cli/locked", 0, "yes"},
        {"enum /cli", 0, "blob\nempty\nlocked\nname\n"},
        {"delete /cli/name", 0, ""},
        {"get /cli/name 2>&1", 2, "kssetmgmt: get /cli/name: Key not found (E_INVAL)\n"},
        {"get cli/name 2>/dev/null", 2, ""},
        {"set-file /cli/x '" + root() / "var/tmp/missing" + "' 2>/dev/null", 2, ""},
        {"set-file /cli/x / 2>/dev/null", 2, ""},
        {"frobnicate 2>/dev/null", 1, ""},
        {"watch /cli 0 2>/dev/null", 1, ""},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.args);
        std::string out;
        EXPECT_EQ(s.status, kstest::run(cli + s.args, &out));
        EXPECT_EQ(s.output, out);
    }
    std::string blob;
    EXPECT_EQ(0, kstest::run(cli + "get /cli/blob", &blob));
    EXPECT_EQ(std::string("\0\1\2\xff", 4), blob);

    // watch prints the changed keys as they come and stops after the count.
    std::string watched;
    std::thread watcher([&] { kstest::run(cli + "watch /cli 2", &watched); });
    ks::storage::DebugInfo debug;
    while (sm::getDebugInfo(debug) == 0 && debug.notificationStreams == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(0, sm::setKey("/cli/one", "1"));
    ASSERT_EQ(0, sm::setKey("/cli/one", "2"));
    watcher.join();
    // One line per changed key and wake-up: the two changes may come in one wake-up or two.
    EXPECT_TRUE(watched == "/cli/one\n" || watched == "/cli/one\n/cli/one\n") << watched;
}

TEST_F(KssetterTest, PipelinedRequestsWithoutReading) {
    // About 20 MiB of replies, five times what the server queues before it stops reading.
    const std::string value(1000, 'v');
    ASSERT_EQ(0, sm::setKey("/pipe/value", value));
    constexpr int kRequests = 20000;
    const int fd = connectRaw();
    ASSERT_GE(fd, 0);
    std::thread writer([fd] {
        std::string batch;
        for (int i = 0; i < 100; ++i) batch += frame(ks::setter::CMD_GET, std::string(1, '\0') + "/pipe/value");
        for (int i = 0; i < kRequests / 100; ++i)
            if (!writeAll(fd, batch.data(), batch.size())) return;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_TRUE(serverAnswers());  // others are served while this client lags
    int good = 0;
    for (int i = 0; i < kRequests; ++i) {
        int64_t size = 0;
        std::string got(value.size(), '\0');
        if (!readAll(fd, &size, 8) || size != 1000 || !readAll(fd, &got[0], got.size())) break;
        if (got == value) ++good;
    }
    writer.join();
    EXPECT_EQ(kRequests, good);
    ::close(fd);
}
