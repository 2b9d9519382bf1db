// Logging facade: the log statement's header and source position, level mapping, the
// JSON overloads, print's signal mask, log_json and backtrace.
#include <ksutils/kslog.h>

#include <pthread.h>
#include <signal.h>

#include "kslog_support.h"

namespace {

class FacadeTest : public kslogtest::LoggerTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(ks::log::start("/usr/sbin/kstestd", root.path().c_str()));
        ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"all","level":"trace"}]}})"), 0);
    }
    std::string log_text() { return decrypt(root / "var/log/kstestd.all.0"); }
};

TEST_F(FacadeTest, StatementCarriesHeaderSourceAndArguments) {
    const int line = __LINE__ + 1;
    KSLOG_INFO(0, "connected to {:s} after {:d} ms", "peer", 42);
    const std::string expected = "[kslogfacade_test.cpp:" + std::to_string(line) +
                                 "][TestBody()]: connected to peer after 42 ms\n";
    const auto records = kslogtest::lines(log_text());
    ASSERT_FALSE(records.empty());
    const std::string& last = records.back();
    EXPECT_EQ(last.substr(KSLOG_HEADER_SIZE), expected);
    EXPECT_EQ(last.substr(31, 5), " info");
}

TEST_F(FacadeTest, SuppressedStatementsDoNotFormat) {
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"all","level":"warning"}]}})"), 0);
    int evaluated = 0;
    auto count = [&evaluated] { return ++evaluated; };
    KSLOG_DEBUG(0, "{:d}", count());
    KSLOG_WARN(0, "{:d}", count());
    EXPECT_EQ(evaluated, 1);
}

TEST_F(FacadeTest, LevelsMapToTheCore) {
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"all","level":"debug"}],
        "quiet":[{"file":"q","level":"error"}]}})"),
              0);
    const unsigned long quiet = ks::log::get_channel_by_name("quiet");
    const struct {
        unsigned long channel;
        unsigned level;
        bool allowed;
    } table[] = {
        {0, 3, true}, {0, 4, false}, {quiet, 0, true}, {quiet, 1, false}, {quiet, 7, true}, {quiet, 100, true},
    };
    for (const auto& row : table)
        EXPECT_EQ(ks::log::can_log(row.channel, static_cast<ks::log::level>(row.level)), row.allowed)
            << row.channel << " " << row.level;
    EXPECT_EQ(ks::log::get_default_level(), ks::log::level::error);
    EXPECT_EQ(ks::log::get_channel_max_level(0), ks::log::level::debug);
    EXPECT_EQ(ks::log::get_channel_max_level(quiet), ks::log::level::error);
    EXPECT_EQ(ks::log::get_channel_max_level(99), ks::log::level::error);
    EXPECT_EQ(ks::log::get_channel_by_name("nope"), static_cast<unsigned long>(-1));
}

TEST_F(FacadeTest, PrintRestoresTheCallersSignalMask) {
    sigset_t mine, seen;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &mine, nullptr), 0);
    ks::log::print(0, ks::log::level::info, kslogtest::record("printed"));
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &seen), 0);
    EXPECT_TRUE(sigismember(&seen, SIGUSR1));
    EXPECT_FALSE(sigismember(&seen, SIGUSR2));
    EXPECT_FALSE(sigismember(&seen, SIGTERM));
    sigemptyset(&mine);
    pthread_sigmask(SIG_SETMASK, &mine, nullptr);
    EXPECT_NE(log_text().find("]: printed\n"), std::string::npos);
}

TEST_F(FacadeTest, LogJsonAndBacktrace) {
    json_t* value = json_pack("{s:i}", "a", 1);
    ks::log_json(0, ks::log::level::info, "", value);
    ks::log_json(0, ks::log::level::debug, "state", value);
    ks::log_json(0, ks::log::level::info, "nothing", nullptr);
    json_decref(value);
    ks::log::backtrace("handler");
    const auto records = kslogtest::lines(log_text());
    ASSERT_GE(records.size(), 3u);
    const size_t n = records.size();
    EXPECT_NE(records[n - 3].find("[jsonutl:"), std::string::npos);
    EXPECT_EQ(records[n - 3].substr(records[n - 3].find("][log_json()]: ")), "][log_json()]: {\"a\": 1}\n");
    EXPECT_EQ(records[n - 2].substr(records[n - 2].find("][log_json()]: ")), "][log_json()]: state: {\"a\": 1}\n");
    EXPECT_EQ(records[n - 1].substr(31, 5), " warn");
    EXPECT_NE(records[n - 1].find("]: Cannot generate backtrace for function 'handler' - backtrace generation is not "
                                  "supported by this libc!\n"),
              std::string::npos);
}

TEST(KslogFacadeStart, FailsWithoutTheLogKey) {
    kstest::InstallRoot root;
    ::unlink((root / "etc/logs-pub.pem").c_str());
    EXPECT_FALSE(ks::log::start("/bin/kstestd", root.path().c_str()));
    EXPECT_FALSE(ks::log::started());
}

}  // namespace
