// Logging facade: statement header and source, level mapping, print's signal mask, log_json.
#include <ksutils/kslog.h>

#include <pthread.h>
#include <signal.h>

#include "kslog_fixture.h"
#include "kslogcapture.h"

namespace {

using kslogtest::execute;

class FacadeTest : public kslogtest::LoggerTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(ks::log::start("/usr/sbin/kstestd", root.path().c_str()));
        ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":"all","level":"trace"}]}})"), 0);
    }
    std::vector<std::string> records() { return kslogtest::lines(decrypt(root / "var/log/kstestd.all.0")); }
};

TEST_F(FacadeTest, StatementCarriesHeaderSourceAndArguments) {
    const int line = __LINE__ + 1;
    KSLOG_INFO(0, "connected to {:s} after {:d} ms", "peer", 42);
    ASSERT_FALSE(records().empty());
    EXPECT_EQ(records().back().substr(31), " info [kslogfacade_test.cpp:" + std::to_string(line) +
                                               "][TestBody()]: connected to peer after 42 ms\n");
}

// Levels map to the core's; a statement its channel does not log formats nothing.
TEST_F(FacadeTest, LevelsMapToTheCore) {
    ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":"all","level":"debug"}],
        "quiet":[{"file":"q","level":"error"}]}})"),
              0);
    const unsigned long quiet = ks::log::get_channel_by_name("quiet");
    for (const auto& [channel, level, allowed] : {std::tuple{0ul, 3, true}, {0ul, 4, false}, {quiet, 0, true},
                                                  {quiet, 1, false}, {quiet, 7, true}})
        EXPECT_EQ(ks::log::can_log(channel, static_cast<ks::log::level>(level)), allowed) << channel << " " << level;
    EXPECT_EQ(ks::log::get_channel_max_level(0), ks::log::level::debug);
    EXPECT_EQ(ks::log::get_channel_max_level(99), ks::log::level::error);
    EXPECT_EQ(ks::log::get_channel_by_name("nope"), static_cast<unsigned long>(-1));
    int evaluated = 0;
    KSLOG_TRACE(0, "{:d}", ++evaluated);
    KSLOG_DEBUG(0, "{:d}", ++evaluated);
    EXPECT_EQ(evaluated, 1);
}

TEST_F(FacadeTest, PrintRestoresTheCallersSignalMask) {
    sigset_t mine, seen;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &mine, nullptr), 0);
    ks::log::print(0, ks::log::level::info, kslogtest::record("printed"));
    pthread_sigmask(SIG_UNBLOCK, &mine, &seen);
    EXPECT_EQ(std::pair(sigismember(&seen, SIGUSR1), sigismember(&seen, SIGUSR2)), std::pair(1, 0));
    EXPECT_EQ(kslogtest::messages(decrypt(root / "var/log/kstestd.all.0")), "printed\n");
}

TEST_F(FacadeTest, LogJson) {
    const ks::unique_c_ptr<json_t> value(json_pack("{s:i}", "a", 1));
    ks::log_json(0, ks::log::level::info, "", value.get());
    ks::log_json(0, ks::log::level::debug, "state", value.get());
    ks::log_json(0, ks::log::level::info, "nothing", nullptr);
    const std::string text = decrypt(root / "var/log/kstestd.all.0");
    EXPECT_TRUE(kstest::has_record(text, "* info [jsonutl:*][log_json()]: {\"a\": 1}\n"
                                         "*debug [jsonutl:*][log_json()]: state: {\"a\": 1}\n"))
        << text;
}

}  // namespace
