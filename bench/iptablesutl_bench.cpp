// Blocking 100 devices (one IPv4 and one IPv6 address each) through firewall_batch (a save
// and a restore run per family) and through block_device (one shell script per device),
// against a bare iptables-restore/ip6tables-restore of the same rules, in a network namespace
// of the benchmark's own. The batch and the baseline run several times: median and range.
#include <kspath.h>
#include <ksutils/iptablesutl.h>

#include <sched.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kDevices = 100;
constexpr int kRuns = 7;

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

ks::sockutl::macaddr device_mac(int i) {
    ks::sockutl::macaddr mac;
    ks::sockutl::macaddr::parse_str(ks::string_view(mac_of(i)), mac);
    return mac;
}

ks::ip_set device_ips(int i) {
    return {ks::sockutl::address(ks::string_view(v4_of(i))), ks::sockutl::address(ks::string_view(v6_of(i)))};
}

double block_one_by_one() {
    reset_chains();
    const double start = now_s();
    for (int i = 0; i < kDevices; ++i)
        if (!ks::block_device(device_mac(i), device_ips(i), "FWBENCH")) return -1;
    return now_s() - start;
}

double block_through_batch() {
    reset_chains();
    const double start = now_s();
    ks::firewall_batch batch;
    for (int i = 0; i < kDevices; ++i) batch.block(device_mac(i), device_ips(i), "FWBENCH");
    if (!batch.apply()) return -1;
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
    sh("mkdir -p " + dir + "/bin && for p in iptables ip6tables; do for s in '' -save -restore; do "
       "ln -s \"$(command -v $p$s)\" " + dir + "/bin/$p$s; done; done");
    kspath_set_install_path(dir.c_str());

    std::vector<double> bare, batch;
    for (int run = 0; run < kRuns; ++run) {
        bare.push_back(block_in_one_batch(dir));
        batch.push_back(block_through_batch());
    }
    const double library = block_one_by_one();
    sh("rm -rf " + dir);
    std::sort(bare.begin(), bare.end());
    std::sort(batch.begin(), batch.end());
    if (library < 0 || bare.front() < 0 || batch.front() < 0) {
        std::printf("failed: iptables refused the rules\n");
        return 1;
    }
    const double bare_median = bare[kRuns / 2], batch_median = batch[kRuns / 2];
    std::printf("block %d devices (v4 + v6 each), median of %d runs [min, max]:\n", kDevices, kRuns);
    std::printf("  bare iptables-restore batch  %.4f s [%.4f, %.4f]\n", bare_median, bare.front(), bare.back());
    std::printf("  firewall_batch               %.4f s [%.4f, %.4f]  %.1fx the bare batch\n", batch_median,
                batch.front(), batch.back(), batch_median / bare_median);
    std::printf("  block_device, one run        %.4f s                     %.1fx the bare batch (%.1f ms per device)\n",
                library, library / bare_median, library * 1000 / kDevices);
    return 0;
}
