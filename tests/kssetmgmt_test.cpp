// The settings client against our server on a temporary install root, and against a
// scripted stand-in where exact request bytes or a broken reply matter.
#include "kssetter_fixture.h"
#include "kssetter/kssetmgmt/protocol.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>

using namespace kssetter_test;
using namespace ks::setter;
using namespace ks::storage;
namespace sm = ks::setMgmt;

namespace {

// The frames `request` sends on one connection to the stand-in, which answers each with `reply`.
std::string capture(FakeServer& fake, const std::function<void()>& request, const std::string& reply = result(0)) {
    std::string sent;
    fake.serve([&](int fd) {
        for (std::string f; !(f = readFrame(fd)).empty(); writeAll(fd, reply)) sent += f;
    });
    inThread(request);
    fake.join();
    return sent;
}

}  // namespace

class SetMgmtClient : public ::testing::Test {
protected:
    ClientScope client;
    FakeServer fake;
};

TEST(SetMgmtClientAlone, KeyFormatErrorsBeforeAnyIo) {
    // Nothing listens: a connection tried before the check would fail with another error.
    ClientScope client;
    const std::pair<const char*, const char*> cases[] = {
        {"", "Invalid key format (key must start with /)"},
        {"/a/", "Invalid key format (key must not end with /)"},
        {"/a//b", "Invalid key format (no consecutive '/' allowed)"},
    };
    std::string value;
    for (const auto& [key, message] : cases) {
        const std::function<int(const char*)> calls[] = {
            // The common preamble of every request, and the two calls that check on their own.
            [&](const char* k) { return static_cast<int>(sm::getKey(k, value)); },
            sm::lockKey,
            [](const char* k) { return sm::setNotification(k, false) ? 0 : -1; },
        };
        for (const auto& call : calls) EXPECT_TRUE(failed(call(key), ks::E_INVAL, message)) << key;
    }
}

TEST_F(SetMgmtClient, RequestBytes) {
    const unsigned char bin[] = {0, 1, 2, 0xff};
    std::string v;
    const std::tuple<const char*, std::function<void()>, std::string> cases[] = {
        {"set string", [] { sm::setKey("/a/b", "xy"); }, frame(CMD_SET, setBody("\0/a/b"s, String, "xy"))},
        {"set empty", [] { sm::setKey("/a", ""); }, frame(CMD_SET, setBody("\0/a"s, None, ""))},
        {"set binary", [&] { sm::setKey("/a", bin, 4); }, frame(CMD_SET, setBody("\0/a"s, Binary, "\0\1\2\xff"s))},
        {"set binary empty", [&] { sm::setKey("/a", bin, 0); }, frame(CMD_SET, setBody("\0/a"s, None, ""))},
        {"get", [&] { sm::getKey("/a", v); }, frame(CMD_GET, "\0/a"s)},
        {"enum root", [] { std::vector<std::string> n; sm::enumSubkeys("/", n); }, frame(CMD_ENUM, "\0/"s)},
        {"notify", [] { delete sm::setNotification("/n", false); }, frame(CMD_NOTIFY, "/n")},
        // The lock byte marks requests while the lock is held; a second unlock sends nothing.
        {"lock, get, unlock twice, get",
         [&] {
             sm::lockKey("/l");
             sm::getKey("/a", v);
             sm::unlockKey("/l");
             EXPECT_EQ(0, sm::unlockKey("/l"));
             sm::getKey("/a", v);
         },
         frame(CMD_LOCK, "/l") + frame(CMD_GET, "\1/a"s) + frame(CMD_UNLOCK, "\1/l"s) + frame(CMD_GET, "\0/a"s)},
    };
    for (const auto& [name, request, sent] : cases) EXPECT_EQ(sent, capture(fake, request)) << name;
}

TEST_F(SetMgmtClient, ResultCodeMapping) {
    const std::tuple<int64_t, int, const char*> cases[] = {  // reply, code, message (null: any)
        {-1, ks::E_INVAL, "Key not found"},        {-2, ks::E_FAULT, "Out of memory"},
        {-3, ks::E_FAULT, "Failed to parse data"}, {-5, ks::E_INVAL, "Invalid operation"},
        {-6, ks::E_DISCONNECTED, nullptr},
        // Codes without a mapping leave the error record as it was.
        {-7, ks::E_AGAIN, "before"},
    };
    std::string v;
    for (const auto& c : cases) {
        capture(fake, [&] {
            ks::_get_kserrno().set(ks::E_AGAIN, "before");
            EXPECT_TRUE(failed(sm::getKey("/a", v), std::get<1>(c), std::get<2>(c))) << std::get<0>(c);
        }, result(std::get<0>(c)));
    }
}

TEST(SetMgmtClientUninitialized, RefusesUseAndNestsInit) {
    root();
    ASSERT_FALSE(sm::initialized());
    std::string v;
    EXPECT_TRUE(failed(sm::getKey("/a", v), ks::E_FAULT, "ks::setMgmt is not initialized"));
    EXPECT_TRUE(sm::keyDeleted("/a"));
    EXPECT_EQ(-1, sm::setOfflineMode(true));
    EXPECT_EQ(nullptr, sm::setNotification("/a", false));
    // init and uninit nest; an unmatched uninit does nothing.
    ASSERT_EQ(0, sm::init());
    ASSERT_EQ(0, sm::init());
    sm::uninit();
    EXPECT_TRUE(sm::initialized());
    sm::uninit();
    EXPECT_EQ(0, sm::uninit());
    EXPECT_FALSE(sm::initialized());
}

TEST(SetMgmtClientUninitialized, InitNeedsItsLogChannel) {
    // Logging is process-wide and other tests start it: the check runs in a child without it.
    if (!std::getenv("KS_TEST_EMULATED")) GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string message = std::string("Cannot open log channel '") + ks::log::kKSSetMgmtChannel + "'.";
    EXPECT_EXIT(
        {
            if (ks::log::started()) ks::log::stop();
            const bool refused = failed(sm::init(), ks::E_FAULT) && !sm::initialized();
            std::fputs(ks::_get_kserrno().message_view().str().c_str(), stderr);
            std::_Exit(refused ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), kstest::death_message(message));
}

using SetMgmtServer = WithServer;

// What CommandLineTool does not reach: the byte-array overloads, a listing appended to, a refused delete.
TEST_F(SetMgmtServer, RequestKindsBeyondTheTool) {
    const unsigned char bin[] = {0, 'a', '\n', 0xff};
    ASSERT_EQ(0, sm::setKey("/kinds/bin", bin, sizeof bin));
    ASSERT_EQ(0, sm::setKey("/kinds/text", "x"));
    ASSERT_EQ(0, sm::setKey("/kinds/empty", ""));
    unsigned char* got = nullptr;
    ASSERT_EQ(4, sm::getKey("/kinds/bin", got));
    EXPECT_EQ(0, std::memcmp(got, bin, 4));
    delete[] got;
    EXPECT_EQ(0, sm::getKey("/kinds/empty", got));
    EXPECT_EQ(nullptr, got);
    std::vector<std::string> names{"before"};
    EXPECT_EQ(3, sm::enumSubkeys("/kinds", names));
    EXPECT_EQ((std::vector<std::string>{"before", "bin", "empty", "text"}), names);

    EXPECT_FALSE(sm::keyDeleted("/kinds/text"));
    EXPECT_EQ(-1, sm::deleteKey("/kinds/missing"));
}

TEST_F(SetMgmtServer, GetKeyValueConversions) {
    const char* const stored[][2] = {
        {"/conv/num", "12abc"}, {"/conv/text", "abc"}, {"/conv/big", "99999999999"}, {"/conv/neg", "-42"}, {"/conv/empty", ""}};
    for (const auto& kv : stored) ASSERT_EQ(0, sm::setKey(kv[0], kv[1]));
    const std::pair<const char*, int> ints[] = {{"/conv/num", 12},  {"/conv/text", 7},  {"/conv/big", 7},
                                                {"/conv/neg", -42}, {"/conv/empty", 7}, {"/conv/missing", 7}};
    for (const auto& [key, expected] : ints) EXPECT_EQ(expected, sm::getKeyValue(key, 7)) << key;

    EXPECT_EQ("fb", sm::getKeyValue("/conv/missing", "fb"));
    EXPECT_EQ("", sm::getKeyValue("/conv/empty", "fb"));
    using Keys = std::vector<std::string>;
    EXPECT_EQ("abc", sm::getKeyValue(Keys{"/conv/missing", "/conv/empty", "/conv/text"}, "fb"));
    EXPECT_EQ("fb", sm::getKeyValue(Keys{"/conv/missing", "/conv/empty"}, "fb"));
    EXPECT_EQ(-42, sm::getKeyValue(Keys{"/conv/missing", "/conv/neg", "/conv/num"}, 7));
    EXPECT_EQ(7, sm::getKeyValue(Keys{"/conv/text", "/conv/num"}, 7));
}

TEST_F(SetMgmtServer, LockRules) {
    std::atomic<bool> aLocked{false}, release{false}, aUnlocking{false};
    std::thread a([&] {
        ASSERT_EQ(0, sm::lockKey("/locks/k"));
        aLocked = true;
        EXPECT_TRUE(failed(sm::lockKey("/locks/other"), ks::E_INVAL, "Can't lock more than one key."));
        auto* h = sm::setNotification("/locks", false);
        ASSERT_NE(nullptr, h);
        EXPECT_EQ(0, sm::setKey("/locks/k", "by a"));  // carries the lock byte
        EXPECT_TRUE(failed(sm::waitNotification(h, 0), ks::E_INVAL,
                           "Invalid operation (waitNotification not allowed while holding a lock)"));
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        aUnlocking = true;
        EXPECT_EQ(0, sm::unlockKey("/locks/k"));
        EXPECT_EQ(1, sm::waitNotification(h, 1000));  // left unread by the refused wait
        sm::cancelNotification(h);
    });
    while (!aLocked) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::thread b([&] {
        EXPECT_EQ(0, sm::lockKey("/locks/k"));
        EXPECT_TRUE(aUnlocking) << "b got the lock while a held it";
        EXPECT_EQ("by a", sm::getKeyValue("/locks/k", ""));
        // b ends without unlocking: its connection goes, and the lock with it.
    });
    inThread([&] {  // another key is free while both wait
        EXPECT_EQ(0, sm::lockKey("/locks/free"));
        EXPECT_EQ(0, sm::unlockKey("/locks/free"));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    release = true;
    a.join();
    b.join();
    inThread([] {
        EXPECT_EQ(0, sm::lockKey("/locks/k"));
        EXPECT_EQ(-1, sm::unlockKey("/locks/other"));  // refused: the server keeps /locks/k locked
        EXPECT_EQ(-1, sm::lockKey("/locks/k")) << "the server still counts /locks/k as held";
    });
}

TEST_F(SetMgmtServer, RestartReconnectsUnlessLocked) {
    ASSERT_EQ(0, sm::setKey("/restart/a", "1"));
    server.restart();
    EXPECT_EQ("1", sm::getKeyValue("/restart/a", ""));

    ASSERT_EQ(0, sm::lockKey("/restart/a"));
    server.restart();
    std::string v;
    EXPECT_TRUE(failed(sm::getKey("/restart/a", v), ks::E_DISCONNECTED, "Can't communicate with server"));
    EXPECT_TRUE(failed(sm::unlockKey("/restart/a"), ks::E_DISCONNECTED));
    EXPECT_EQ(0, sm::unlockKey("/restart/a"));  // already given up
    ASSERT_EQ(0, sm::setKey("/restart/a", "2"));  // reconnects once the lock is given up
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
        EXPECT_TRUE(failed(sm::statKey("/offline/missing", info), ks::E_NOENT));
        EXPECT_FALSE(sm::keyDeleted("/offline/missing"));
        EXPECT_EQ(-1, sm::setKey("/offline/a", "no"));

        ASSERT_EQ(0, sm::setOfflineMode(false));
        EXPECT_EQ("fb", sm::getKeyValue("/offline/a", "fb"));
        ASSERT_EQ(0, sm::setOfflineMode(true));
    });
    server.start();
}

namespace {

// The command-line tool on the test install root; its exit status, `out` its standard output.
int tool(const std::string& args, std::string* out = nullptr) {
    return kstest::run("'" + kstest::tool_path("kssetmgmt") + "' -root '" + root().path() + "' " + args, out);
}

// Runs each (arguments, exit status, standard output) step of the tool.
void toolSteps(const std::vector<std::tuple<std::string, int, std::string>>& steps) {
    for (const auto& [args, status, output] : steps) {
        std::string out;
        EXPECT_EQ(status, tool(args, &out)) << args;
        EXPECT_EQ(output, out) << args;
    }
}

}  // namespace

// Every command of the command-line tool but a real watch (whose output a user sees at once).
TEST_F(SetMgmtServer, CommandLineTool) {
    const std::string blob = "\0\1\2\xff"s, blobFile = root() / "var/tmp/blob";
    ASSERT_TRUE(kstest::write_file(blobFile, blob));
    toolSteps({
        {"set /cli/name 'the box'", 0, ""},
        {"get /cli/name", 0, "the box"},
        {"stat /cli/name", 0, "string 7\n"},
        {"set-file /cli/blob '" + blobFile + "'", 0, ""},
        {"stat /cli/blob", 0, "binary 4\n"},
        {"get /cli/blob", 0, blob},
        {"set /cli/empty ''", 0, ""},
        {"stat /cli/empty", 0, "none 0\n"},
        {"lock-set /cli/locked yes", 0, ""},
        {"get /cli/locked", 0, "yes"},
        {"enum /cli", 0, "blob\nempty\nlocked\nname\n"},
        {"delete /cli/name", 0, ""},
        {"get /cli/name 2>&1", 2, "kssetmgmt: get /cli/name: Key not found (E_INVAL)\n"},
        {"set-file /cli/x '" + root() / "var/tmp/missing" + "' 2>/dev/null", 2, ""},
        {"set-file /cli/x / 2>/dev/null", 2, ""},
        {"frobnicate 2>/dev/null", 1, ""},
        {"watch /cli 0 2>/dev/null", 1, ""},
    });

    // Without its key the log core cannot start; the tool must work there all the same.
    const std::string key = root() / "etc/logs-pub.pem", away = key + ".away";
    ASSERT_EQ(0, std::rename(key.c_str(), away.c_str()));
    toolSteps({{"set /bare/x 1", 0, ""}, {"get /bare/x", 0, "1"}});
    EXPECT_EQ(0, std::rename(away.c_str(), key.c_str()));
}

TEST_F(SetMgmtServer, Notifications) {
    sm::NotifyHandle* keyed = sm::setNotification("/notify", true);
    sm::NotifyHandle* plain = sm::setNotification("/notify/a", false);
    sm::NotifyHandle* below = sm::setNotification("/notify/a", true);
    ASSERT_TRUE(keyed && plain && below);

    std::set<std::string> keys, plainKeys;
    EXPECT_TRUE(failed(sm::waitNotification(plain, 0, keys), ks::E_TIMEDOUT));

    int i = 0;
    for (const char* key :
         {"/notify/a", "/notify/a", "/notify/a", "/notify/b", "/elsewhere", "/notify", "/notify/a/deeper"})
        ASSERT_EQ(0, sm::setKey(key, std::to_string(i++)));
    EXPECT_EQ(6, collect(keyed, 6, &keys));
    EXPECT_EQ((std::set<std::string>{"/notify", "/notify/a", "/notify/b", "/notify/a/deeper"}), keys);
    EXPECT_EQ(4, collect(plain, 4, &plainKeys));
    EXPECT_EQ(std::set<std::string>{"/notify/a"}, plainKeys);
    std::set<std::string> belowKeys;  // a set of /notify, if posted here, arrives before /notify/a/deeper
    EXPECT_GE(collect(below, 4, &belowKeys), 4);
    EXPECT_EQ((std::set<std::string>{"/notify/a", "/notify/a/deeper"}), belowKeys) << "a set leaves the subtree";
    sm::cancelNotification(below);

    // Deleting a parent removes the subscribed key too.
    ASSERT_EQ(0, sm::deleteKey("/notify"));
    EXPECT_EQ(1, sm::waitNotification(plain, 2000));

    sm::cancelNotification(keyed);
    sm::cancelNotification(plain);
    EXPECT_EQ(nullptr, keyed);
}

TEST_F(SetMgmtServer, PythonBinding) {
    if (std::getenv("KS_TEST_EMULATED"))
        GTEST_SKIP() << "under an emulator the host's python3 cannot load the target's library";
    ASSERT_EQ(0, sm::setKey("/py/name", "box"));
    ASSERT_EQ(0, sm::setKey("/py/list/one", "1"));
    ASSERT_EQ(0, sm::setKey("/py/list/two", "2"));
#ifdef __SANITIZE_ADDRESS__
    // An instrumented library loaded into Python needs the sanitizer runtime loaded first.
    const std::string prefix = "ASAN_OPTIONS=detect_leaks=0 LD_PRELOAD=$(gcc -print-file-name=libasan.so) ";
#elif defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "python3 crashes when it loads a library built with ThreadSanitizer";
    const std::string prefix;
#else
    const std::string prefix;
#endif
    std::string output;
    EXPECT_EQ(0, kstest::run(prefix + "python3 '" KS_SOURCE_DIR "/tests/py_wrapper_test.py' '" KS_BINARY_DIR
                                      "/libksutils.so' '" + root().path() + "' 2>&1",
                             &output))
        << output;
}

namespace {

// The subtree at `key` as "relative key -> type and value", walked through the client.
using Flat = std::map<std::string, std::pair<ValueType, std::string>>;
Flat flat(const std::string& key, const std::string& relative = "") {
    NodeInfo info;
    std::string value;
    std::vector<std::string> names;
    EXPECT_EQ(0, sm::statKey(key, info)) << key;
    const ValueType type = info.type;
    if (type != None) {
        EXPECT_EQ(static_cast<int64_t>(info.size), sm::getKey(key, value)) << key;
    }
    Flat out{{relative, {type, value}}};
    EXPECT_LE(0, sm::enumSubkeys(key, names)) << key;
    for (const std::string& name : names) out.merge(flat(key + "/" + name, relative + "/" + name));
    return out;
}

}  // namespace

TEST_F(SetMgmtServer, OversizedRequestRefusedBeforeSending) {
    const std::string key = "/tmp/big";
    const uint64_t fits = kMaxBodyLength - key.size() - 6;  // a body of exactly the limit
    const std::string value(fits + 1, 'x');
    const std::string message = "Request of " + std::to_string(kMaxBodyLength + 1) +
                                " bytes exceeds the server's limit of " + std::to_string(kMaxBodyLength) + " bytes";
    // Refused under the lock too: a byte sent would make the server hang up and drop the lock.
    ASSERT_EQ(0, sm::lockKey(key));
    EXPECT_TRUE(failed(sm::setKey(key, value), ks::E_INVAL, message.c_str()));
    EXPECT_EQ(0, sm::setKey(key, "next"));
    EXPECT_EQ(0, sm::unlockKey(key));
    ASSERT_EQ(0, sm::setKey(key, reinterpret_cast<const unsigned char*>(value.data()), fits));
    NodeInfo info;
    ASSERT_EQ(0, sm::statKey(key, info));
    EXPECT_EQ(fits, info.size);
}

TEST_F(SetMgmtServer, ExportImportRoundTrip) {
    const std::string odd[] = {"sp ace", "\xff\x80", "\xc3\xbc", "\"q\\{}[]", "\x01\x7f~", "a.b"};
    const std::string values[] = {"text", "\xc3\xa9t\xc3\xa9", "\xff\xfe not utf-8", "a\0b"s, "\n\"\\"};
    const unsigned char bin[] = {0, 0, 1, 0xff, 0};
    ASSERT_EQ(0, sm::setKey("/exp/src/d0/d1/d2", "bottom"));  // below keys without a value
    ASSERT_EQ(0, sm::setKey("/exp/src", bin, sizeof bin));
    ASSERT_EQ(0, sm::setKey("/exp/src/empty", ""));
    for (size_t i = 0; i < std::size(odd); ++i) {
        ASSERT_EQ(0, sm::setKey("/exp/src/" + odd[i], values[i % std::size(values)])) << i;
        ASSERT_EQ(0, sm::setKey("/exp/src/" + odd[i] + "/" + odd[i], bin, i)) << i;  // i == 0: no value
    }
    const Flat original = flat("/exp/src");
    ASSERT_EQ(2u + 3 + 2 * std::size(odd), original.size());  // root, "empty", d0-d2, odd

    const std::string file = root() / "var/tmp/export.json", bad = root() / "var/tmp/bad.json";
    ASSERT_EQ(0, tool("export /exp/src '" + file + "'"));
    ASSERT_EQ(0, sm::setKey("/exp/dst/stale/x", "gone after the import"));
    ASSERT_EQ(0, tool("import '" + file + "' /exp/dst"));
    EXPECT_EQ(original, flat("/exp/dst"));
    ASSERT_EQ(0, sm::deleteKey("/exp/src"));
    ASSERT_EQ(0, tool("import '" + file + "'"));  // back where it came from
    EXPECT_EQ(original, flat("/exp/src"));

    // A faulty document is refused whole: nothing of it is written.
    const std::string bodies[] = {
        "not json",
        R"({"kssetmgmt-export": 2, "key": "/exp/dst", "tree": {"value": "new"}})",
        R"({"kssetmgmt-export": 1, "tree": {"value": "new"}})",
        R"({"kssetmgmt-export": 1, "key": "/exp/dst", "tree": {"value": "new", "children": [{"name": "a/b"}]}})",
        R"({"kssetmgmt-export": 1, "key": "/exp/dst", "tree": {"value": "new", "children": [{"name": "a=b"}]}})",
        R"({"kssetmgmt-export": 1, "key": "/exp/dst", "tree": {"children": [{"name": "a"}, {"name": "a"}]}})",
        R"({"kssetmgmt-export": 1, "key": "/exp/dst", "tree": {"children": [{"name": "a", "value": {"binary": "@@"}}]}})",
        R"({"kssetmgmt-export": 1, "key": "/exp/dst", "tree": {"children": [{"name": {"base64": ""}}]}})",
    };
    for (const std::string& body : bodies) {
        ASSERT_TRUE(kstest::write_file(bad, body));
        EXPECT_EQ(2, tool("import '" + bad + "' 2>/dev/null")) << body;
        EXPECT_EQ(original, flat("/exp/dst")) << body;
    }
}

TEST_F(SetMgmtServer, ImportSeenWholeByLockHolders) {
    const int keys = 100;
    const auto fill = [&](const std::string& value) {
        for (int i = 0; i < keys; ++i) ASSERT_EQ(0, sm::setKey("/atomic/k" + std::to_string(i), value));
    };
    fill("new");
    const std::string file = root() / "var/tmp/atomic.json";
    ASSERT_EQ(0, tool("export /atomic '" + file + "'"));
    fill("old");
    std::atomic<bool> done{false};
    std::thread importer([&] {
        EXPECT_EQ(0, tool("import '" + file + "'"));
        done = true;
    });
    for (bool last = false; !last;) {
        last = done;
        ASSERT_EQ(0, sm::lockKey("/atomic"));
        std::set<std::string> snapshot;
        for (int i = 0; i < keys; ++i) snapshot.insert(sm::getKeyValue("/atomic/k" + std::to_string(i), "missing"));
        ASSERT_EQ(0, sm::unlockKey("/atomic"));
        EXPECT_EQ(1u, snapshot.size()) << "a lock holder saw half an import";
    }
    importer.join();
    EXPECT_EQ("new", sm::getKeyValue("/atomic/k0", ""));
}

TEST_F(SetMgmtClient, RepliesInPiecesCutShortOrWithBytesBeyond) {
    // A value beyond the first buffer comes in three pieces; bytes beyond a reply or a reply
    // cut short cost the connection, and the next request opens a fresh one.
    const std::string big(10000, 'v');
    const std::string whole = result(static_cast<int64_t>(big.size())) + big;
    int frames = 0;
    fake.serve(
        [&](int fd) {
            for (std::string f; !(f = readFrame(fd)).empty();) {
                switch (frames++) {
                    case 0:
                        for (const auto& piece : {whole.substr(0, 3), whole.substr(3, 5000), whole.substr(5003)}) {
                            writeAll(fd, piece);
                            std::this_thread::sleep_for(std::chrono::milliseconds(5));
                        }
                        break;
                    case 1: writeAll(fd, result(2) + "okzz"); break;
                    case 2: writeAll(fd, result(5).substr(0, 4)); return;
                    default: writeAll(fd, result(2) + "ok");
                }
            }
        },
        3);
    inThread([&] {
        std::string v;
        EXPECT_EQ(10000, sm::getKey("/a", v));
        EXPECT_EQ(big, v);
        EXPECT_TRUE(failed(sm::getKey("/a", v), ks::E_FAULT, "Failed to parse data"));
        EXPECT_TRUE(failed(sm::getKey("/a", v), ks::E_FAULT, "Peer has closed socket"));
        EXPECT_EQ(2, sm::getKey("/a", v));
        EXPECT_EQ("ok", v);
    });
    fake.join();
}
