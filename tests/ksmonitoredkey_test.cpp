// Monitored keys against our server: lazy subscription, the start-up call, resubscription.
#include "kssetter_fixture.h"

#include <kssetter/ksmonitoredkey>

namespace sm = ks::setMgmt;

namespace {

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 2000) == 1;
}

class MonitoredKeyTest : public kssetter_test::WithServer {
protected:
    std::vector<std::string> calls;
    sm::MonitoredKey::Callback callback = [this](const ks::path& key, void* context) {
        calls.push_back(key.str());
        if (context) ++*static_cast<int*>(context);
        return true;
    };
};

}  // namespace

TEST_F(MonitoredKeyTest, CallAtStartAndChanges) {
    int contextCalls = 0;
    sm::MonitoredKey key("/mon/a", callback, true, &contextCalls, true);
    EXPECT_EQ(nullptr, key.handle);  // nothing before get_fd
    EXPECT_TRUE(calls.empty());

    const int fd = key.get_fd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, key.get_fd());  // already subscribed: no second start-up call
    EXPECT_EQ((std::vector<std::string>{"/mon/a"}), calls);

    calls.clear();
    for (const char* changed : {"/mon/a/z", "/mon/a/b", "/mon/a/z"}) ASSERT_EQ(0, sm::setKey(changed, "1"));
    // The changes may arrive in one read or in several; callbacks come sorted per read.
    std::set<std::string> seen;
    while (seen.size() < 2) {
        ASSERT_TRUE(readable(fd));
        ASSERT_TRUE(key.read_notifications());
        seen.insert(calls.begin(), calls.end());
    }
    EXPECT_EQ((std::set<std::string>{"/mon/a/b", "/mon/a/z"}), seen);
    EXPECT_EQ(static_cast<int>(calls.size()) + 1, contextCalls);
}

TEST_F(MonitoredKeyTest, ResubscribesAfterServerRestart) {
    sm::MonitoredKey key("/mon/restart", callback, true, nullptr, true);
    int fd = key.get_fd();
    ASSERT_GE(fd, 0);
    server.restart();
    ASSERT_TRUE(readable(fd));
    EXPECT_FALSE(key.read_notifications());  // the stream ended with the old server

    calls.clear();
    ASSERT_GE(fd = key.get_fd(), 0);
    EXPECT_EQ((std::vector<std::string>{"/mon/restart"}), calls);  // start-up call again
    ASSERT_EQ(0, sm::setKey("/mon/restart", "after"));
    ASSERT_TRUE(readable(fd));
    ASSERT_TRUE(key.read_notifications());
    EXPECT_EQ("/mon/restart", calls.back());
}

TEST_F(MonitoredKeyTest, FailuresAndMoves) {
    sm::MonitoredKey bad("mon/bad", callback, false, nullptr, true);
    EXPECT_EQ(-1, bad.get_fd());
    EXPECT_FALSE(bad.read_notifications());  // no subscription
    EXPECT_TRUE(calls.empty());

    std::vector<sm::MonitoredKey> keys;
    keys.emplace_back("/mon/m1", callback);
    const int fd = keys[0].get_fd();
    ASSERT_GE(fd, 0);
    for (int i = 0; i < 8; ++i) keys.emplace_back(ks::path("/mon/other"), callback);  // moves keys[0]
    EXPECT_EQ(fd, keys[0].get_fd());
    ASSERT_EQ(0, sm::setKey("/mon/m1", "1"));
    ASSERT_TRUE(readable(fd));
    EXPECT_TRUE(keys[0].read_notifications());

    keys[0].cancel();  // the server ends the stream only if cancel reaches it
    keys.clear();
    ks::storage::DebugInfo debug;
    ASSERT_EQ(0, sm::getDebugInfo(debug));
    EXPECT_EQ(0u, debug.notificationStreams);
}
