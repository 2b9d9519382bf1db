// Interfaces from our own settings server, listeners, and kernel queries in a namespace of our own.
#include <ksutils/netutl.h>

#include <gtest/gtest.h>

#include <dirent.h>

#include <mutex>

#include "kssetter_fixture.h"

namespace nm = ks::netMgmt;
namespace sm = ks::setMgmt;

namespace {

std::vector<std::string> texts(const std::vector<nm::Interface>& list) {
    std::vector<std::string> out;
    for (const auto& i : list) out.push_back(nm::to_string(i));
    return out;
}

int threads() {
    int n = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir("/proc/self/task"), &::closedir);
    while (dirent* e = ::readdir(dir.get())) n += e->d_name[0] != '.';
    return n;
}

// What listeners were called with, for waiting on another thread.
struct Calls {
    std::mutex mutex;
    std::vector<std::vector<std::string>> seen;

    nm::InterfaceCallback callback() {
        return [this](const std::vector<nm::Interface>& list) {
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back(texts(list));
        };
    }
    bool wait_for(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        return kstest::wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return seen.size() >= count;
        }, limit);
    }
};

const char* const kEth0 =
    "name=eth0, type=wan, mac=00:11:22:33:44:55, ipv4=[10.0.0.1/8, 192.168.1.2/24], ipv6=[fd00::1/64], is_guest=0";

class NetMgmtTest : public kssetter_test::WithServer {
protected:
    void SetUp() override {
        // Entries without a prefix, with a prefix that is no number or with two slashes are
        // skipped; prefixes past 255 or below 0 mean a host, not a wrapped-around length.
        const std::pair<const char*, const char*> keys[] = {
            {"eth0/type", "wan"},      {"eth0/mac", "00:11:22:33:44:55"}, {"eth0/ipv4", "192.168.1.2/24,10.0.0.1/8"},
            {"eth0/ipv6", "fd00::1/64"}, {"eth1/type", "WAN"},           {"eth1/is_guest", "true"},
            {"eth1/ipv4", "192.168.1.2,1.2.3.4/x,5.6.7.8/16,,5.6.7.8/16,a/b/c,1.2.3.4/24/8,1.2.3.4/99999999999,x/8,"
                          "1.2.3.4/300,5.6.7.8/-1"},
            {"eth1/ipv6", "fd00::1/300,fd00::2/64"}, {"eth1/mac", "not a mac"},
            {"eth2/mac", "00:11:22:33:44:66"},       {"wlan0/type", "wan"},
        };
        for (const auto& [key, value] : keys) ASSERT_EQ(0, sm::setKey(std::string("/network/interfaces/config/") + key, value));
    }
    void TearDown() override { sm::deleteKey("/network/interfaces"); }
};

TEST_F(NetMgmtTest, ServiceThreadCallsListenersUntilTheLastUninit) {
    Calls wan, lan;
    ASSERT_EQ(0, nm::init(true));
    const int running = threads();
    ASSERT_EQ(0, nm::init(true));
    EXPECT_EQ(running, threads()) << "one thread for both inits";
    const int wan_id = nm::set_on_wan_interface_change(wan.callback());
    nm::set_on_lan_interface_change(lan.callback());
    ASSERT_EQ(0, sm::setKey("/network/interfaces/config/eth1/type", "wan"));
    // The thread subscribes on its own time: refresh until it has heard one.
    for (int i = 0; i < 50 && !wan.wait_for(1, std::chrono::milliseconds(200)); ++i)
        ASSERT_EQ(0, sm::setKey("/network/interfaces/config_refresh", std::to_string(i)));
    ASSERT_TRUE(wan.wait_for(1) && lan.wait_for(1));
    EXPECT_EQ(std::make_pair(3ul, 0ul), std::make_pair(wan.seen.back().size(), lan.seen.back().size()));

    nm::unset_on_interface_change(wan_id);
    const size_t wan_heard = wan.seen.size();
    EXPECT_EQ(0, nm::uninit());
    const size_t heard = lan.seen.size();
    ASSERT_EQ(0, sm::setKey("/network/interfaces/config_refresh", "again"));
    ASSERT_TRUE(lan.wait_for(heard + 1)) << "still running after the first uninit";
    EXPECT_EQ(wan_heard, wan.seen.size()) << "removed listener called";
    EXPECT_EQ(0, nm::uninit());
    // A joined thread can linger in /proc for a moment.
    EXPECT_TRUE(kstest::wait_until([&] { return threads() == running - 1; }, std::chrono::seconds(1)))
        << "the thread stopped after the last uninit";
}

// Without a thread the list is loaded at once; the handle loads it at its first get_fd.
TEST_F(NetMgmtTest, TheListAndTheEventLoopHandle) {
    ASSERT_EQ(0, nm::init(false));
    std::vector<nm::Interface> wan, lan;
    ASSERT_TRUE(nm::get_wan_interfaces(wan) == 0 && nm::get_lan_interfaces(lan) == 0);
    const std::vector<std::string> wan_texts{
        kEth0, "name=wlan0, type=wan, mac=00:00:00:00:00:00, ipv4=[], ipv6=[], is_guest=0"};
    EXPECT_EQ(wan_texts, texts(wan));
    // "WAN" is not "wan"; eth2 has no type at all.
    EXPECT_EQ((std::vector<std::string>{"name=eth1, type=lan, mac=00:00:00:00:00:00, ipv4=[(invalid)/8, 1.2.3.4/32, "
                                        "5.6.7.8/16, 5.6.7.8/32], ipv6=[fd00::1/128, fd00::2/64], is_guest=1"}),
              texts(lan));
    EXPECT_EQ(fmt::format("{}", wan[0]), kEth0);
    nm::Interface first;
    EXPECT_TRUE(nm::get_wan_interface_with_ipv4(first) == 0 && first.name == "eth0");
    nm::update({wan[1], lan[0]});
    EXPECT_EQ(-1, nm::get_wan_interface_with_ipv4(first)) << "wlan0 has no IPv4";
    nm::update({});
    EXPECT_EQ(-1, nm::get_wan_interfaces(wan));
    EXPECT_EQ(0, nm::uninit());

    const nm::unique_netmgmt owner(nm::init_eventloop());
    nm::netmgmt_t* const handle = owner.get();
    ASSERT_NE(nullptr, handle);
    Calls heard;
    nm::set_on_if_change(handle, nm::InterfaceType::wan, heard.callback());
    const int fd = nm::get_fd(handle);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(1u, heard.seen.size()) << "the first get_fd loads and calls the listeners";
    EXPECT_EQ(wan_texts, heard.seen[0]);

    ASSERT_EQ(0, sm::deleteKey("/network/interfaces/config/eth0"));
    ASSERT_EQ(0, sm::setKey("/network/interfaces/config_refresh", "1"));
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(1, ::poll(&p, 1, 5000));
    EXPECT_TRUE(nm::read_fd(handle));
    ASSERT_EQ(2u, heard.seen.size());
    EXPECT_EQ(1u, heard.seen[1].size()) << "eth0 is gone";

    std::vector<nm::Interface> out(1);
    lan.clear();
    nm::get_ifaces(handle, static_cast<nm::InterfaceType>(2), out);
    EXPECT_EQ(1u, out.size()) << "an invalid type leaves the output alone";
    nm::get_ifaces(handle, nm::InterfaceType::lan, lan);
    EXPECT_EQ(1u, lan.size());
}

TEST(KernelQueries, AnInterfaceOfOurOwn) {
    kstest::NetNamespace ns;
    if (!ns.entered()) GTEST_SKIP() << "network namespaces are refused here: " << std::strerror(errno);
    // One end of a veth pair where the kernel has no dummy driver.
    ASSERT_EQ(0, kstest::run("{ ip link add d0 type dummy 2>/dev/null || ip link add d0 type veth peer name d1; } && "
                             "ip link set d0 address 0a:1b:2c:3d:4e:5f"));
    std::string text;
    EXPECT_FALSE(ks::is_interface_up("d0"));
    EXPECT_FALSE(ks::get_ip_address("d0", text)) << "no address yet";
    ASSERT_EQ(0, kstest::run("ip link set d0 up && ip addr add 10.9.8.7/24 dev d0"));
    EXPECT_TRUE(ks::is_interface_up("d0"));
    EXPECT_TRUE(ks::get_ip_address("d0", text) && text == "10.9.8.7") << text;
    EXPECT_TRUE(ks::get_mac_address("d0", text) && text == "0A:1B:2C:3D:4E:5F") << text;
    for (const char* missing : {"nosuch0", "a-name-longer-than-the-kernel-allows"})
        EXPECT_FALSE(ks::is_interface_up(missing) || ks::get_mac_address(missing, text)) << missing;
}

}  // namespace
