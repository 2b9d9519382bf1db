// Firewall rules applied by the real iptables and ip6tables in a namespace of our own, read back with "-S".
#include <ksutils/error.h>
#include <ksutils/iptablesutl.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <functional>

#include "kslogcapture.h"

namespace {

using ks::sockutl::macaddr;

// Every rule of both programs for one chain as "-S" prints them, sorted.
std::string rules(const std::string& chain) {
    std::string out;
    const std::string sorted = " 2>&1 | grep '^-A ' | LC_ALL=C sort | sed 's/^/  /'";
    kstest::run("for p in iptables ip6tables; do echo \"$p:\"; $p -S " + chain + sorted + "; done", &out);
    return out;
}

// The same text for these rules of chain FWTEST.
std::string expected(std::vector<std::string> v4, std::vector<std::string> v6) {
    std::string all;
    for (auto* rules : {&v4, &v6}) {
        std::sort(rules->begin(), rules->end());
        all += rules == &v4 ? "iptables:" : "ip6tables:";
        for (const auto& r : *rules) all += "\n  -A FWTEST " + r;
        all += "\n";
    }
    return all;
}

ks::ip_set ips(std::initializer_list<const char*> texts) {
    ks::ip_set set;
    for (const char* t : texts) set.insert(ks::sockutl::address(ks::string_view(t)));
    return set;
}

class FirewallTest : public ::testing::Test {
protected:
    // The machine's own rules, read in its own namespace before and after the suite.
    static std::string host_rules() {
        std::string out;
        kstest::run("iptables -S 2>&1; ip6tables -S 2>&1", &out);
        return out;
    }
    static void SetUpTestSuite() { host_before_ = host_rules(); }
    static void TearDownTestSuite() { EXPECT_EQ(host_before_, host_rules()); }

    void SetUp() override {
        if (!ns_.entered()) GTEST_SKIP() << "network namespaces are refused here (unshare: " << strerror(errno) << ")";
        ASSERT_TRUE(log_.started());
        // The machine's programs under their names in the install root's "bin", and the chains.
        ASSERT_EQ(0, kstest::run("set -e; for p in iptables ip6tables; do for n in $p $p-save $p-restore; do "
                                 "ln -s \"$(command -v $n)\" '" + (log_.root() / "bin") + "'; done; "
                                 "$p -N FWTEST; $p -N WHITELIST; done"));
        ASSERT_TRUE(macaddr::parse_str("0A:1b:2C:3d:4E:5f", mac_));
    }

    kstest::NetNamespace ns_;
    kstest::LogCapture log_{"iptablesutl_test"};
    macaddr mac_;
    static inline std::string host_before_;
};

// Per-device calls and batches, each applied twice: the second round changes nothing.
TEST_F(FirewallTest, EachStepLeavesExactlyOneCopyOfEachRule) {
    const std::string drop = "-m mac --mac-source 0a:1b:2c:3d:4e:5f -j DROP";
    const std::string allow = "-m mac --mac-source 0a:1b:2c:3d:4e:5f -j WHITELIST";
    const std::string v4 = "-d 192.168.1.5/32 -j DROP", v6 = "-d fd00::5/128 -j DROP";
    const ks::ip_set mixed = ips({"192.168.1.5", "fd00::5"}), other = ips({"10.0.0.1", "fd00::9", "fd00::a"});
    const std::string mixed_rules = expected({drop, v4}, {drop, v6});
    macaddr m[4];
    const auto mac = [](int i) { return "02:00:00:00:00:0" + std::to_string(i); };
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(macaddr::parse_str(ks::string_view(mac(i)), m[i]));
    const auto drop_m = [&](int i) { return "-m mac --mac-source " + mac(i) + " -j DROP"; };
    const auto allow_m = [&](int i) { return "-m mac --mac-source " + mac(i) + " -j WHITELIST"; };
    ks::firewall_batch fill, change, clear;
    fill.block(m[0], ips({"192.168.1.5", "fd00::5"}), "FWTEST");
    fill.block(m[1], ips({"10.0.0.1"}), "FWTEST");
    fill.block(m[2], ips({"fd00::2", "fd00::3"}), "FWTEST");
    fill.whitelist(m[3], "FWTEST");
    change.unblock(m[0], ips({"192.168.1.5", "fd00::5"}), "FWTEST");
    change.unblock(m[2], ips({"fd00::3"}), "FWTEST");
    change.block(m[1], ips({"10.0.0.1", "fd00::1"}), "FWTEST");
    change.unwhitelist(m[3], "FWTEST");
    change.whitelist(m[0], "FWTEST");
    change.block(m[3], {}, "FWTEST");
    change.unblock(m[3], {}, "FWTEST");
    clear.unblock(mac_, ips({"192.168.1.9", "fd00::9"}), "FWTEST");
    clear.unblock(m[1], ips({"10.0.0.1", "fd00::1"}), "FWTEST");
    clear.unblock(m[2], ips({"fd00::2"}), "FWTEST");
    clear.unwhitelist(m[0], "FWTEST");
    const std::string changed_v4 = "-d 10.0.0.1/32 -j DROP", changed_v6 = "-d fd00::1/128 -j DROP";
    const struct { const char* what; std::function<bool()> op; std::string expected; } steps[] = {
        {"whitelist", [&] { return ks::whitelist_mac(mac_, "FWTEST"); }, expected({allow}, {allow})},
        {"unwhitelist", [&] { return ks::unwhitelist_mac(mac_, "FWTEST"); }, expected({}, {})},
        {"block", [&] { return ks::block_device(mac_, mixed, "FWTEST"); }, mixed_rules},
        {"update, same set", [&] { return ks::update_blocked_ip(mixed, mixed, "FWTEST"); }, mixed_rules},
        {"update, other set", [&] { return ks::update_blocked_ip(mixed, other, "FWTEST"); },
         expected({drop, "-d 10.0.0.1/32 -j DROP"}, {drop, "-d fd00::9/128 -j DROP", "-d fd00::a/128 -j DROP"})},
        {"unblock, other set", [&] { return ks::unblock_device(mac_, other, "FWTEST"); }, expected({}, {})},
        {"batch: block v4+v6, v4 only, v6 only; whitelist", [&] { return fill.apply(); },
         expected({drop_m(0), drop_m(1), drop_m(2), allow_m(3), v4, changed_v4},
                  {drop_m(0), drop_m(1), drop_m(2), allow_m(3), v6, "-d fd00::2/128 -j DROP", "-d fd00::3/128 -j DROP"})},
        {"batch: unblock some, block others, swap whitelist, undo within the batch", [&] { return change.apply(); },
         expected({drop_m(1), allow_m(0), changed_v4}, {drop_m(1), allow_m(0), changed_v6, "-d fd00::2/128 -j DROP"})},
        {"block, for a batch to remove", [&] { return ks::block_device(mac_, ips({"192.168.1.9", "fd00::9"}), "FWTEST"); },
         expected({drop, drop_m(1), allow_m(0), changed_v4, "-d 192.168.1.9/32 -j DROP"},
                  {drop, drop_m(1), allow_m(0), changed_v6, "-d fd00::2/128 -j DROP", "-d fd00::9/128 -j DROP"})},
        {"batch: remove what calls and batches added", [&] { return clear.apply(); }, expected({}, {})},
    };
    for (const auto& step : steps)
        for (int round = 1; round <= 2; ++round) {
            EXPECT_TRUE(step.op()) << step.what << ", round " << round << ": " << ks::_get_kserrno().message_view();
            EXPECT_EQ(step.expected, rules("FWTEST")) << step.what << ", round " << round;
        }
    // A missing restore program is found before either family changes.
    ASSERT_EQ(0, ::unlink((log_.root() / "bin/ip6tables-restore").c_str()));
    EXPECT_FALSE(fill.apply());
    EXPECT_EQ(ks::E_NOENT, ks::_get_kserrno().code);
    EXPECT_EQ(expected({}, {}), rules("FWTEST"));
}

TEST_F(FirewallTest, LogsWhatItDoesAndWhyItFailed) {
    // In a missing chain, removing is only a failed check (nothing to remove); adding fails.
    const std::string out = log_.during([&] {
        EXPECT_FALSE(ks::whitelist_mac(mac_, "NOSUCHCHAIN"));
        EXPECT_TRUE(ks::unwhitelist_mac(mac_, "NOSUCHCHAIN"));
        EXPECT_TRUE(ks::unblock_device(mac_, {}, "NOSUCHCHAIN"));
        EXPECT_FALSE(ks::block_device(mac_, ips({"192.168.1.5"}), "NOSUCHCHAIN"));
        EXPECT_FALSE(ks::update_blocked_ip({}, ips({"fd00::5"}), "NOSUCHCHAIN"));
        EXPECT_EQ(ks::E_SYSTEM, ks::_get_kserrno().code);
        ks::firewall_batch batch;
        batch.unwhitelist(mac_, "NOSUCHCHAIN");
        EXPECT_TRUE(batch.apply());
        batch.block(mac_, ips({"fd00::7"}), "NOSUCHCHAIN");
        EXPECT_FALSE(batch.apply());
        EXPECT_EQ(ks::E_SYSTEM, ks::_get_kserrno().code);
    });
    for (const char* record : {
             "Adding whitelist rule for mac 0a:1b:2c:3d:4e:5f in chain NOSUCHCHAIN",
             "Failed to whitelist device with mac=\"0a:1b:2c:3d:4e:5f\": *",
             "Removing block rule for mac 0a:1b:2c:3d:4e:5f, ips [] from chain NOSUCHCHAIN",
             "Adding block rule for mac 0a:1b:2c:3d:4e:5f, ips [192.168.1.5] in chain NOSUCHCHAIN",
             "Updating block rule ips from [] to [fd00::5] in chain NOSUCHCHAIN",
             "Failed to update ips: *",
             "Adding block rule for mac 0a:1b:2c:3d:4e:5f, ips [fd00::7] in chain NOSUCHCHAIN",
             "Failed to unwhitelist device with mac=\"0a:1b:2c:3d:4e:5f\": *iptables-restore failed with status 1: *",
         })
        EXPECT_TRUE(kstest::has_record(out, record)) << record << "\n" << out;
}

TEST_F(FirewallTest, ChainNamesThatReachTheShellAreRefusedBeforeAnythingRuns) {
    const std::string marker = log_.root() / "injected";
    const std::string touch = "touch " + marker;
    for (const std::string& chain : {"FWTEST;" + touch, "$(" + touch + ")", "`" + touch + "`", "FWTEST\n" + touch,
                                     std::string(""), std::string("-F"), std::string(29, 'A')}) {
        // The per-device calls share one script builder; a batch checks its chains on its own.
        ks::firewall_batch batch;
        batch.block(mac_, ips({"192.168.1.5"}), "FWTEST");
        batch.unwhitelist(mac_, chain);
        for (bool batched : {false, true}) {
            ks::_get_kserrno().set(ks::E_OK);
            EXPECT_FALSE(batched ? batch.apply() : ks::block_device(mac_, ips({"192.168.1.5"}), chain)) << chain;
            EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code) << chain;
        }
    }
    EXPECT_NE(0, ::access(marker.c_str(), F_OK));
    EXPECT_EQ("iptables:\nip6tables:\n", rules("FWTEST"));
    // The longest name allowed passes the check and reaches iptables, which has no such chain.
    EXPECT_FALSE(ks::whitelist_mac(mac_, std::string(28, 'A')));
    EXPECT_EQ(ks::E_SYSTEM, ks::_get_kserrno().code);
}

}  // namespace
