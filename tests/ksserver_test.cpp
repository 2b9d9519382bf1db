// The settings server run in process: started on the test install root in a thread, spoken
// to with the library's own client, stopped from the test thread; what it acknowledged is
// in the settings file after the stop.
#include "kssetter_fixture.h"

#include "kssetter/kssetmgmt/protocol.h"
#include "kssetter/server/server.h"

#include <ksutils/path.h>

namespace {

using namespace kssetter_test;
namespace sm = ks::setMgmt;

class InProcessServer : public ::testing::Test {
protected:
    InProcessServer() : server_(root() / "var/run/kssetmgmt.skt", storagePath()) {
        ks::path(root() / "var/run").mkdirp();
        ks::path(root() / "etc").mkdirp();
        started_ = server_.start(false);
        if (started_) thread_ = std::thread([this] { server_.run(); });
    }
    ~InProcessServer() override { stopServer(); }

    void stopServer() {
        server_.requestStop();
        if (thread_.joinable()) thread_.join();
        server_.stop();
    }

    ClientScope client_;
    ks::setter::Server server_;
    bool started_ = false;
    std::thread thread_;
};

TEST_F(InProcessServer, ServesLocksNotifiesAndSavesOnStop) {
    ASSERT_TRUE(started_);
    sm::NotifyHandle* watch = sm::setNotification("/srv", true);
    ASSERT_NE(nullptr, watch) << kstest::error_text();
    ASSERT_EQ(0, sm::lockKey("/srv/locked")) << kstest::error_text();
    EXPECT_EQ(0, sm::setKey("/srv/locked", "held"));
    EXPECT_EQ(0, sm::unlockKey("/srv/locked"));
    EXPECT_EQ(0, sm::setKey("/srv/name", "box"));
    EXPECT_EQ(0, sm::setKey("/tmp/srv/volatile", "gone"));
    EXPECT_TRUE(failed(sm::setKey("/srv/a=b", "x"), ks::E_INVAL, "Invalid operation"));
    EXPECT_EQ("box", sm::getKeyValue("/srv/name", ""));
    std::vector<std::string> names;
    EXPECT_EQ(2, sm::enumSubkeys("/srv", names));
    std::set<std::string> changed;
    EXPECT_EQ(2, collect(watch, 2, &changed));
    EXPECT_EQ((std::set<std::string>{"/srv/locked", "/srv/name"}), changed);
    sm::cancelNotification(watch);

    stopServer();
    ks::storage::Store saved;
    ASSERT_EQ(0, ks::storage::Store::checkHash(storagePath()));
    ASSERT_EQ(0, saved.load(storagePath()));
    std::string value;
    EXPECT_EQ(3, saved.getKey("/srv/name", value));
    EXPECT_EQ("box", value);
    EXPECT_LT(saved.getKey("/tmp/srv/volatile", value), 0);
}

}  // namespace
