// Address parse + print through ks::sockutl::address against the bare C library path a
// caller would otherwise write (snprintf to terminate the text, inet_pton as IPv4 then IPv6,
// inet_ntop back to a string), over the same mixed IPv4/IPv6 texts in the same run; then
// the cost of hash and compare, which decide how well addresses do as set and map keys.
#include <ksutils/connectutl.h>

#include <arpa/inet.h>
#include <time.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

using ks::sockutl::address;

double now_s() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

std::vector<std::string> sample_texts() {
    std::mt19937 rng(7);
    std::vector<std::string> texts;
    char text[INET6_ADDRSTRLEN];
    for (int i = 0; i < 1000; ++i) {
        uint8_t bytes[16];
        for (auto& b : bytes) b = static_cast<uint8_t>(rng() % 3 ? rng() : 0);
        const int af = i % 2 ? AF_INET : AF_INET6;
        ::inet_ntop(af, bytes, text, sizeof text);
        texts.emplace_back(text);
    }
    return texts;
}

// Best of a few rounds, in seconds per call of `body` over every text.
template <typename T, typename F>
double per_call(const std::vector<T>& texts, int rounds, F body) {
    double best = 1e9;
    for (int r = 0; r < 5; ++r) {
        const double start = now_s();
        for (int i = 0; i < rounds; ++i)
            for (const auto& t : texts) body(t);
        best = std::min(best, (now_s() - start) / (rounds * texts.size()));
    }
    return best;
}

}  // namespace

int main() {
    const std::vector<std::string> texts = sample_texts();
    size_t sink = 0;

    const double ours = per_call(texts, 200, [&](const std::string& t) {
        address a;
        address::parse_addr(ks::string_view(t.data(), t.size()), a);
        sink += a.to_string(false).size();
    });
    const double libc = per_call(texts, 200, [&](const std::string& t) {
        char copy[INET6_ADDRSTRLEN + 1], back[INET6_ADDRSTRLEN];
        uint8_t bytes[16];
        std::snprintf(copy, sizeof copy, "%.*s", static_cast<int>(t.size()), t.data());
        const int af = ::inet_pton(AF_INET, copy, bytes) == 1 ? AF_INET : AF_INET6;
        if (af == AF_INET6 && ::inet_pton(AF_INET6, copy, bytes) != 1) return;
        sink += std::string(::inet_ntop(af, bytes, back, sizeof back)).size();
    });
    std::printf("parse + print: address %.2f M/s, inet_pton + inet_ntop + snprintf %.2f M/s, ratio %.2fx (goal >= 0.8x)\n",
                1e-6 / ours, 1e-6 / libc, libc / ours);

    std::vector<address> parsed;
    for (const auto& t : texts) parsed.emplace_back(ks::string_view(t.data(), t.size()), 53);
    for (const bool v4 : {true, false}) {
        std::vector<address> family;  // one family only: IPv6 hashes bytes, IPv4 does not
        for (const auto& a : parsed)
            if (a.is_v4() == v4) family.push_back(a);
        const address* previous = &family.back();
        const double hash = per_call(family, 2000, [&](const address& a) { sink += a.hash(true); });
        const double compare = per_call(family, 2000, [&](const address& a) {
            sink += static_cast<size_t>(a.compare(*previous) < 0);
            previous = &a;
        });
        std::printf("%s: hash(true) %.1f ns, compare %.1f ns\n", v4 ? "ipv4" : "ipv6", hash * 1e9, compare * 1e9);
    }
    return sink == 42 ? 1 : 0;  // keeps the work observable
}
