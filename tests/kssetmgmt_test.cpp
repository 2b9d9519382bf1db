// The settings client against the settings server we ship (over the real socket on a
// temporary install root), and against a scripted stand-in where exact request bytes or a
// broken reply matter.
#include "kssetter_fixture.h"

#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>

#include <atomic>
#include <mutex>
#include <set>

using namespace kssetter_test;
namespace sm = ks::setMgmt;
using ks::storage::NodeInfo;

namespace {

std::string frameBody(const std::string& lockAndKey, uint32_t type, const std::string& value) {
    std::string body = lockAndKey;
    body.push_back('\0');
    body.append(reinterpret_cast<const char*>(&type), 4);
    return body + value;
}

// Catches one request on the stand-in server and answers it with `reply`.
Frame capture(FakeServer& fake, const std::function<void()>& request, const std::string& reply = result(0)) {
    Frame frame;
    fake.serve([&](int fd) {
        if (readFrame(fd, frame)) writeAll(fd, reply.data(), reply.size());
    });
    inThread(request);
    fake.join();
    return frame;
}

}  // namespace

TEST(SetMgmtClient, KeyFormatErrorsBeforeAnyIo) {
    ClientScope client;
    FakeServer fake;
    const struct {
        const char* key;
        const char* message;
    } cases[] = {
        {"", "Invalid key format (key must start with /)"},
        {"a", "Invalid key format (key must start with /)"},
        {"/a/", "Invalid key format (key must not end with /)"},
        {"/a//b", "Invalid key format (no consecutive '/' allowed)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        inThread([&] {
            std::string value;
            NodeInfo info;
            std::vector<std::string> names;
            const std::function<int()> calls[] = {
                [&] { return static_cast<int>(sm::getKey(c.key, value)); },
                [&] { return sm::setKey(c.key, "v"); },
                [&] { return sm::deleteKey(c.key); },
                [&] { return sm::statKey(c.key, info); },
                [&] { return sm::enumSubkeys(c.key, names); },
                [&] { return sm::lockKey(c.key); },
                [&] { return sm::setNotification(c.key, false) ? 0 : -1; },
            };
            for (const auto& call : calls) {
                EXPECT_EQ(-1, call());
                EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code);
                EXPECT_EQ(c.message, errorText());
            }
        });
    }
    EXPECT_FALSE(fake.connectionPending());
}

TEST(SetMgmtClient, RequestBytes) {
    ClientScope client;
    FakeServer fake;
    const std::string key5000 = "/" + std::string(4999, 'k');
    const unsigned char bin[] = {0, 1, 2, 0xff};
    const struct {
        const char* name;
        std::function<void()> request;
        uint32_t command;
        std::string body;
    } cases[] = {
        {"set string", [] { sm::setKey("/a/b", "xy"); }, ks::setter::CMD_SET,
         frameBody(std::string("\0/a/b", 5), ks::storage::String, "xy")},
        {"set empty", [] { sm::setKey("/a", ""); }, ks::setter::CMD_SET,
         frameBody(std::string("\0/a", 3), ks::storage::None, "")},
        {"set binary", [&] { sm::setKey("/a", bin, sizeof bin); }, ks::setter::CMD_SET,
         frameBody(std::string("\0/a", 3), ks::storage::Binary, std::string(reinterpret_cast<const char*>(bin), 4))},
        {"set binary empty", [&] { sm::setKey("/a", bin, 0); }, ks::setter::CMD_SET,
         frameBody(std::string("\0/a", 3), ks::storage::None, "")},
        {"get", [] { std::string v; sm::getKey("/a", v); }, ks::setter::CMD_GET, std::string("\0/a", 3)},
        {"get 5000-byte key", [&] { std::string v; sm::getKey(key5000, v); }, ks::setter::CMD_GET,
         std::string(1, '\0') + key5000},
        {"delete", [] { sm::deleteKey("/a"); }, ks::setter::CMD_DELETE, std::string("\0/a", 3)},
        {"enum root", [] { std::vector<std::string> n; sm::enumSubkeys("/", n); }, ks::setter::CMD_ENUM,
         std::string("\0/", 2)},
        {"lock", [] { sm::lockKey("/l"); }, ks::setter::CMD_LOCK, "/l"},
        {"notify", [] { auto* h = sm::setNotification("/n", false); delete h; }, ks::setter::CMD_NOTIFY, "/n"},
        {"notify keys", [] { auto* h = sm::setNotification("/n", true); delete h; }, ks::setter::CMD_NOTIFY_KEYS, "/n"},
        {"debug info", [] { ks::storage::DebugInfo d; sm::getDebugInfo(d); }, ks::setter::CMD_DEBUG_INFO, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Frame f = capture(fake, c.request);
        EXPECT_EQ(c.command, f.command);
        EXPECT_EQ(c.body, f.body);
    }
}

TEST(SetMgmtClient, LockByteAndUnlockFrame) {
    ClientScope client;
    FakeServer fake;
    std::vector<Frame> frames;
    fake.serve([&](int fd) {
        Frame f;
        while (readFrame(fd, f)) {
            frames.push_back(f);
            writeAll(fd, result(0).data(), 8);
        }
    });
    inThread([] {
        std::string v;
        ASSERT_EQ(0, sm::lockKey("/l"));
        sm::getKey("/a", v);
        ASSERT_EQ(0, sm::unlockKey("/l"));
        EXPECT_EQ(0, sm::unlockKey("/l"));  // nothing held: no request
        sm::getKey("/a", v);
    });
    fake.join();
    ASSERT_EQ(4u, frames.size());
    EXPECT_EQ("/l", frames[0].body);
    EXPECT_EQ(std::string("\1/a", 3), frames[1].body);
    EXPECT_EQ(ks::setter::CMD_UNLOCK, frames[2].command);
    EXPECT_EQ(std::string("\1/l", 3), frames[2].body);
    EXPECT_EQ(std::string("\0/a", 3), frames[3].body);
}

TEST(SetMgmtClient, BufferGrowsForLongKey) {
    ClientScope client;
    FakeServer fake;
    fake.serve([](int) {});
    sm::Connection c;
    ASSERT_EQ(0, c.init());
    EXPECT_EQ(4096u, c.capacity);
    EXPECT_EQ(5013, c.setCmdIntroAndKey(ks::setter::CMD_GET, "/" + std::string(4999, 'k'), true));
    EXPECT_EQ(8192u, c.capacity);
    fake.join();
}

TEST(SetMgmtClient, ResultCodeMapping) {
    ClientScope client;
    FakeServer fake;
    const struct {
        int64_t reply;
        int code;
        const char* message;  // null: the error record is left as it was
    } cases[] = {
        {-1, ks::E_INVAL, "Key not found"},
        {-2, ks::E_FAULT, "Out of memory"},
        {-3, ks::E_FAULT, "Failed to parse data"},
        {-5, ks::E_INVAL, "Invalid operation"},
        {-6, ks::E_DISCONNECTED, nullptr},
        {-4, ks::E_AGAIN, nullptr},
        {-7, ks::E_AGAIN, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        int code = -1;
        std::string message;
        capture(
            fake,
            [&] {
                ks::_get_kserrno().set(ks::E_AGAIN, "before");
                std::string v;
                EXPECT_EQ(-1, sm::getKey("/a", v));
                code = ks::_get_kserrno().code;
                message = errorText();
            },
            result(c.reply));
        EXPECT_EQ(c.code, code);
        if (c.message) {
            EXPECT_EQ(c.message, message);
        }
        if (c.code == ks::E_AGAIN) {
            EXPECT_EQ("before", message);
        }
    }
}

TEST(SetMgmtClient, ServerClosingMidReply) {
    ClientScope client;
    FakeServer fake;
    // Two connections: the first is cut after half of the result, the second answers.
    int served = 0;
    fake.serve(
        [&](int fd) {
            Frame f;
            if (!readFrame(fd, f)) return;
            if (served++ == 0) {
                writeAll(fd, result(5).data(), 4);
            } else {
                writeAll(fd, (result(2) + "ok").data(), 10);
            }
        },
        2);
    inThread([] {
        std::string v;
        EXPECT_EQ(-1, sm::getKey("/a", v));
        EXPECT_EQ(ks::E_FAULT, ks::_get_kserrno().code);
        EXPECT_EQ("Peer has closed socket", errorText());
        EXPECT_EQ(2, sm::getKey("/a", v));
        EXPECT_EQ("ok", v);
    });
    fake.join();

    // While the lock is held the same cut is a lost lock.
    fake.serve([](int fd) {
        Frame f;
        if (readFrame(fd, f)) writeAll(fd, result(0).data(), 8);  // the lock
        if (readFrame(fd, f)) writeAll(fd, result(5).data(), 4);
    });
    inThread([] {
        std::string v;
        ASSERT_EQ(0, sm::lockKey("/l"));
        EXPECT_EQ(-1, sm::getKey("/a", v));
        EXPECT_EQ(ks::E_DISCONNECTED, ks::_get_kserrno().code);
        EXPECT_EQ("Can't communicate with server", errorText());
        EXPECT_EQ(-1, sm::unlockKey("/l"));
        EXPECT_EQ(ks::E_DISCONNECTED, ks::_get_kserrno().code);
        EXPECT_EQ(0, sm::unlockKey("/l"));
    });
    fake.join();
}

TEST(SetMgmtClient, NotInitialized) {
    root();
    ASSERT_FALSE(sm::initialized());
    std::string v;
    EXPECT_EQ(-1, sm::getKey("/a", v));
    EXPECT_EQ(ks::E_FAULT, ks::_get_kserrno().code);
    EXPECT_EQ("ks::setMgmt is not initialized", errorText());
    EXPECT_TRUE(sm::keyDeleted("/a"));
    EXPECT_EQ(-1, sm::setOfflineMode(true));
    EXPECT_EQ(nullptr, sm::setNotification("/a", false));

    ASSERT_EQ(0, sm::init());
    ASSERT_EQ(0, sm::init());
    sm::uninit();
    EXPECT_TRUE(sm::initialized());
    sm::uninit();
    EXPECT_FALSE(sm::initialized());
    EXPECT_EQ(0, sm::uninit());  // unmatched: nothing happens
    EXPECT_FALSE(sm::initialized());
}

class SetMgmtServer : public ::testing::Test {
protected:
    ClientScope client;
    ServerProcess server;
};

TEST_F(SetMgmtServer, EveryRequestKind) {
    const unsigned char bin[] = {0, 'a', '\n', 0xff};
    ASSERT_EQ(0, sm::setKey("/kinds/text", "line1\nline2"));
    ASSERT_EQ(0, sm::setKey("/kinds/bin", bin, sizeof bin));
    ASSERT_EQ(0, sm::setKey("/kinds/empty", ""));
    ASSERT_EQ(0, sm::setKey("/tmp/kinds/volatile", "v"));

    std::string text;
    EXPECT_EQ(11, sm::getKey("/kinds/text", text));
    EXPECT_EQ("line1\nline2", text);
    unsigned char* raw = nullptr;
    ASSERT_EQ(4, sm::getKey("/kinds/bin", raw));
    EXPECT_EQ(0, std::memcmp(raw, bin, 4));
    delete[] raw;
    EXPECT_EQ(0, sm::getKey("/kinds/empty", raw));
    EXPECT_EQ(nullptr, raw);

    const struct {
        const char* key;
        ks::storage::ValueType type;
        uint64_t size;
    } stats[] = {
        {"/kinds/text", ks::storage::String, 11},
        {"/kinds/bin", ks::storage::Binary, 4},
        {"/kinds/empty", ks::storage::None, 0},
        {"/kinds", ks::storage::None, 0},
    };
    for (const auto& s : stats) {
        SCOPED_TRACE(s.key);
        NodeInfo info;
        ASSERT_EQ(0, sm::statKey(s.key, info));
        EXPECT_EQ(s.type, info.type);
        EXPECT_EQ(s.size, info.size);
    }

    std::vector<std::string> names{"before"};
    EXPECT_EQ(3, sm::enumSubkeys("/kinds", names));
    EXPECT_EQ((std::vector<std::string>{"before", "bin", "empty", "text"}), names);

    EXPECT_FALSE(sm::keyDeleted("/kinds/text"));
    ASSERT_EQ(0, sm::deleteKey("/kinds/text"));
    EXPECT_TRUE(sm::keyDeleted("/kinds/text"));
    EXPECT_EQ(-1, sm::getKey("/kinds/text", text));
    EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code);
    EXPECT_EQ("Key not found", errorText());
    EXPECT_EQ(-1, sm::deleteKey("/kinds/text"));
    // Characters the settings file reserves are refused by the server.
    EXPECT_EQ(-1, sm::setKey("/kinds/a=b", "x"));
    EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code);

    ks::storage::DebugInfo debug;
    ASSERT_EQ(0, sm::getDebugInfo(debug));
    EXPECT_GE(debug.connections, 1u);
    EXPECT_GE(debug.volatileChanges, 1u);
}

TEST_F(SetMgmtServer, GetKeyValueConversions) {
    ASSERT_EQ(0, sm::setKey("/conv/num", "12abc"));
    ASSERT_EQ(0, sm::setKey("/conv/text", "abc"));
    ASSERT_EQ(0, sm::setKey("/conv/big", "99999999999"));
    ASSERT_EQ(0, sm::setKey("/conv/neg", "-42"));
    ASSERT_EQ(0, sm::setKey("/conv/empty", ""));
    const struct {
        const char* key;
        int expected;
    } ints[] = {{"/conv/num", 12}, {"/conv/text", 7}, {"/conv/big", 7},
                {"/conv/neg", -42}, {"/conv/empty", 7}, {"/conv/missing", 7}};
    for (const auto& c : ints) EXPECT_EQ(c.expected, sm::getKeyValue(c.key, 7)) << c.key;

    EXPECT_EQ("abc", sm::getKeyValue("/conv/text", "fb"));
    EXPECT_EQ("fb", sm::getKeyValue("/conv/missing", "fb"));
    EXPECT_EQ("", sm::getKeyValue("/conv/empty", "fb"));
    EXPECT_EQ("abc", sm::getKeyValue(std::vector<std::string>{"/conv/missing", "/conv/empty", "/conv/text"}, "fb"));
    EXPECT_EQ("fb", sm::getKeyValue(std::vector<std::string>{"/conv/missing", "/conv/empty"}, "fb"));
    EXPECT_EQ(-42, sm::getKeyValue(std::vector<std::string>{"/conv/missing", "/conv/neg", "/conv/num"}, 7));
    EXPECT_EQ(7, sm::getKeyValue(std::vector<std::string>{"/conv/text", "/conv/num"}, 7));
}

TEST_F(SetMgmtServer, LockRules) {
    std::mutex m;
    std::vector<std::string> events;
    auto note = [&](const std::string& e) {
        std::lock_guard<std::mutex> g(m);
        events.push_back(e);
    };
    std::atomic<bool> aLocked{false}, release{false};
    std::thread a([&] {
        ASSERT_EQ(0, sm::lockKey("/locks/k"));
        aLocked = true;
        EXPECT_EQ(-1, sm::lockKey("/locks/other"));
        EXPECT_EQ("Can't lock more than one key.", errorText());
        auto* h = sm::setNotification("/locks", false);
        ASSERT_NE(nullptr, h);
        EXPECT_EQ(0, sm::setKey("/locks/k", "by a"));  // carries the lock byte
        EXPECT_EQ(-1, sm::waitNotification(h, 0));
        EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code);
        EXPECT_EQ("Invalid operation (waitNotification not allowed while holding a lock)", errorText());
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        note("a unlocks");
        EXPECT_EQ(0, sm::unlockKey("/locks/k"));
        EXPECT_EQ(1, sm::waitNotification(h, 1000));  // left unread by the refused wait
        sm::cancelNotification(h);
        EXPECT_EQ(nullptr, h);
    });
    while (!aLocked) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::thread b([&] {
        EXPECT_EQ(0, sm::lockKey("/locks/k"));
        note("b locked");
        EXPECT_EQ("by a", sm::getKeyValue("/locks/k", ""));
        // b ends without unlocking: its connection goes, and the lock with it.
    });
    // Another key is free while both wait.
    inThread([&] {
        EXPECT_EQ(0, sm::lockKey("/locks/free"));
        EXPECT_EQ(0, sm::unlockKey("/locks/free"));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release = true;
    a.join();
    b.join();
    EXPECT_EQ((std::vector<std::string>{"a unlocks", "b locked"}), events);
    inThread([] {
        EXPECT_EQ(0, sm::lockKey("/locks/k"));
        EXPECT_EQ(0, sm::unlockKey("/locks/k"));
    });
}

TEST_F(SetMgmtServer, LockLostWithServer) {
    ASSERT_EQ(0, sm::lockKey("/locks/lost"));
    server.restart();
    std::string v;
    EXPECT_EQ(-1, sm::getKey("/locks/lost", v));
    EXPECT_EQ(ks::E_DISCONNECTED, ks::_get_kserrno().code);
    EXPECT_EQ(-1, sm::unlockKey("/locks/lost"));
    EXPECT_EQ(ks::E_DISCONNECTED, ks::_get_kserrno().code);
    EXPECT_EQ(0, sm::setKey("/locks/lost", "again"));  // reconnects once the lock is given up
}

TEST_F(SetMgmtServer, ReconnectsAfterRestart) {
    ASSERT_EQ(0, sm::setKey("/restart/a", "1"));
    server.restart();
    EXPECT_EQ("1", sm::getKeyValue("/restart/a", ""));
    ASSERT_EQ(0, sm::setKey("/restart/a", "2"));
    EXPECT_EQ("2", sm::getKeyValue("/restart/a", ""));
}

TEST_F(SetMgmtServer, OfflineFallback) {
    ASSERT_EQ(0, sm::setKey("/offline/a", "persisted"));
    ASSERT_EQ(0, sm::setKey("/offline/b", "x"));
    ASSERT_EQ(0, sm::setKey("/tmp/offline", "gone"));
    ASSERT_EQ(0, server.stop());
    ASSERT_EQ(0, sm::checkHash(storagePath()));

    inThread([] {
        EXPECT_EQ("persisted", sm::getKeyValue("/offline/a", "fb"));
        EXPECT_EQ("fb", sm::getKeyValue("/tmp/offline", "fb"));
        std::vector<std::string> names;
        EXPECT_EQ(2, sm::enumSubkeys("/offline", names));
        NodeInfo info;
        EXPECT_EQ(0, sm::statKey("/offline/a", info));
        EXPECT_EQ(9u, info.size);
        // The store's own code for a missing key, unlike the server's E_INVAL.
        EXPECT_EQ(-1, sm::statKey("/offline/missing", info));
        EXPECT_EQ(ks::E_NOENT, ks::_get_kserrno().code);
        EXPECT_FALSE(sm::keyDeleted("/offline/missing"));
        EXPECT_EQ(-1, sm::setKey("/offline/a", "no"));
        EXPECT_EQ(-1, sm::deleteKey("/offline/a"));

        ASSERT_EQ(0, sm::setOfflineMode(false));
        EXPECT_FALSE(sm::getOfflineMode());
        EXPECT_EQ("fb", sm::getKeyValue("/offline/a", "fb"));
        ASSERT_EQ(0, sm::setOfflineMode(true));
    });
    server.start();
}

TEST_F(SetMgmtServer, Notifications) {
    sm::NotifyHandle* keyed = sm::setNotification("/notify", true);
    sm::NotifyHandle* plain = sm::setNotification("/notify/a", false);
    ASSERT_NE(nullptr, keyed);
    ASSERT_NE(nullptr, plain);
    EXPECT_GE(sm::getNotificationFd(keyed), 0);

    std::set<std::string> keys;
    EXPECT_EQ(-1, sm::waitNotification(plain, 0, keys));
    EXPECT_EQ(ks::E_TIMEDOUT, ks::_get_kserrno().code);

    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, sm::setKey("/notify/a", std::to_string(i)));
    ASSERT_EQ(0, sm::setKey("/notify/b", "b"));
    ASSERT_EQ(0, sm::setKey("/elsewhere", "x"));

    // The last change is surely delivered once a request made after it is answered.
    ASSERT_EQ(0, sm::setKey("/notify/a/deeper", "sync"));
    int total = 0;
    while (total < 5) {
        const int n = sm::waitNotification(keyed, 2000, keys);
        ASSERT_GT(n, 0) << errorText();
        total += n;
    }
    EXPECT_EQ(5, total);
    EXPECT_EQ((std::set<std::string>{"/notify/a", "/notify/b", "/notify/a/deeper"}), keys);

    std::set<std::string> plainKeys;
    total = 0;
    while (total < 4) {
        const int n = sm::waitNotification(plain, 2000, plainKeys);
        ASSERT_GT(n, 0) << errorText();
        total += n;
    }
    EXPECT_EQ(4, total);
    EXPECT_EQ(std::set<std::string>{"/notify/a"}, plainKeys);

    // Deleting a parent removes the subscribed key too.
    ASSERT_EQ(0, sm::deleteKey("/notify"));
    EXPECT_EQ(1, sm::waitNotification(plain, 2000));

    sm::cancelNotification(keyed);
    sm::cancelNotification(plain);
    EXPECT_EQ(nullptr, keyed);
    ks::storage::DebugInfo debug;
    ASSERT_EQ(0, sm::getDebugInfo(debug));
    EXPECT_EQ(0u, debug.notificationStreams);
}

TEST_F(SetMgmtServer, PythonBinding) {
    ASSERT_EQ(0, sm::setKey("/py/name", "box"));
    ASSERT_EQ(0, sm::setKey("/py/list/one", "1"));
    ASSERT_EQ(0, sm::setKey("/py/list/two", "2"));
    std::string output;
#ifdef __SANITIZE_ADDRESS__
    // An instrumented library loaded into Python needs the sanitizer runtime loaded first.
    const std::string prefix = "ASAN_OPTIONS=detect_leaks=0 LD_PRELOAD=$(gcc -print-file-name=libasan.so) ";
#else
    const std::string prefix;
#endif
    const int status = kstest::run(prefix + "python3 '" + std::string(KS_SOURCE_DIR) + "/tests/py_wrapper_test.py' '" +
                                       std::string(KS_BINARY_DIR) + "/libksutils.so' '" + root().path() + "' 2>&1",
                                   &output);
    EXPECT_EQ(0, status) << output;
}
