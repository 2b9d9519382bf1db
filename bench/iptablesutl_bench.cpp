// Blocking 100 devices (one IPv4 and one IPv6 address each) through block_device, one
// shell script per device, against one iptables-restore/ip6tables-restore batch of the same
// rules, in a network namespace of the benchmark's own. The ratio tells whether a batched
// path would be worth adding for bulk changes.
#include <kspath.h>
#include <ksutils/iptablesutl.h>

#include <sched.h>
#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr int kDevices = 100;

double now_s() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

int sh(const std::string& command) { return std::system(command.c_str()); }

std::string mac_of(int i) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", i >> 8, i & 0xff);
    return text;
}

std::string v4_of(int i) { return "10.1." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1); }
std::string v6_of(int i) { return "fd00::" + std::to_string(i + 1); }

// Fresh, empty chains for the next measurement.
void reset_chains() {
    sh("for p in iptables ip6tables; do $p -F FWBENCH 2>/dev/null || $p -N FWBENCH; done");
}

double block_one_by_one() {
    reset_chains();
    const double start = now_s();
    for (int i = 0; i < kDevices; ++i) {
        ks::sockutl::macaddr mac;
        ks::sockutl::macaddr::parse_str(ks::string_view(mac_of(i)), mac);
        const ks::ip_set ips{ks::sockutl::address(ks::string_view(v4_of(i))),
                             ks::sockutl::address(ks::string_view(v6_of(i)))};
        if (!ks::block_device(mac, ips, "FWBENCH")) return -1;
    }
    return now_s() - start;
}

double block_in_one_batch(const std::string& dir) {
    reset_chains();
    std::string v4 = "*filter\n", v6 = "*filter\n";
    for (int i = 0; i < kDevices; ++i) {
        const std::string mac = "-I FWBENCH -m mac --mac-source " + mac_of(i) + " -j DROP\n";
        v4 += mac + "-I FWBENCH -d " + v4_of(i) + " -j DROP\n";
        v6 += mac + "-I FWBENCH -d " + v6_of(i) + " -j DROP\n";
    }
    FILE* f4 = std::fopen((dir + "/v4.rules").c_str(), "w");
    FILE* f6 = std::fopen((dir + "/v6.rules").c_str(), "w");
    if (!f4 || !f6) return -1;
    std::fputs((v4 + "COMMIT\n").c_str(), f4);
    std::fputs((v6 + "COMMIT\n").c_str(), f6);
    std::fclose(f4);
    std::fclose(f6);
    const double start = now_s();
    if (sh("iptables-restore --noflush < " + dir + "/v4.rules && ip6tables-restore --noflush < " + dir + "/v6.rules"))
        return -1;
    return now_s() - start;
}

}  // namespace

int main() {
    if (::unshare(CLONE_NEWNET) != 0) {
        std::printf("skipped: cannot create a network namespace (%s)\n", std::strerror(errno));
        return 0;
    }
    char root[] = "/tmp/fwbench.XXXXXX";
    if (!::mkdtemp(root)) return 1;
    const std::string dir = root;
    sh("mkdir -p " + dir + "/bin && for p in iptables ip6tables; do ln -s \"$(command -v $p)\" " + dir + "/bin/$p; done");
    kspath_set_install_path(dir.c_str());

    const double library = block_one_by_one();
    const double batch = block_in_one_batch(dir);
    sh("rm -rf " + dir);
    if (library < 0 || batch < 0) {
        std::printf("failed: iptables refused the rules\n");
        return 1;
    }
    std::printf("block %d devices (v4 + v6 each): block_device %.3f s, one iptables-restore batch %.3f s\n", kDevices,
                library, batch);
    std::printf("ratio block_device / batch: %.1fx slower (%.1f ms per device)\n", library / batch,
                library * 1000 / kDevices);
    return 0;
}
