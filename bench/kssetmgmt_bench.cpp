// Round trips per second of the settings client against kssetter, next to Redis on a Unix
// socket and to the floor of the machine: a bare 12-byte-request / 8-byte-reply ping-pong
// over a socket pair. Redis is measured twice: with a client of the same shape as ours (a
// blocking socket per thread), which compares the servers, and with redis-benchmark, whose
// one thread drives all connections from an event loop.
//
// A persistent SET is answered only once it is on disk, so its row is set against a second
// Redis that fsyncs its append-only file before every reply ("appendfsync always"), with its
// data in the same directory tree as our install root: both pay the same file system's fsync.
// Those rows do a fiftieth of the round trips (at least 2000): an fsync costs milliseconds.
//
// The machine's speed swings from one second to the next, so every figure is a ratio within
// one run, whose measurements are cut in slices taken in turns (floor, Redis, ours), and each
// row gives the median and the range of five runs.
//
// Usage: kssetmgmt_bench [ROUND_TRIPS [CLIENTS...]]   (default 100000 per measurement; 1, 4 and 8 clients)
// Runs kssetter from the build tree (../tools/kssetter next to this program) on a
// temporary install root, and redis-server/redis-benchmark from PATH when installed.
#include <kssetter/kssetmgmt.h>
#include <ksutils/kslog.h>

#include <kspath.h>

#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace sm = ks::setMgmt;
using Clock = std::chrono::steady_clock;

std::string g_dir;
constexpr int kRuns = 5;
constexpr int kSlices = 4;

int sh(const std::string& command, std::string* out = nullptr) {
    FILE* p = ::popen(command.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
        if (out) out->append(buf, n);
    const int status = ::pclose(p);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool canConnect(const std::string& socketPath) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, socketPath.c_str(), sizeof a.sun_path - 1);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(fd);
    return ok;
}

// A child process that is stopped with SIGTERM when this object goes.
class Child {
public:
    Child(std::vector<std::string> args, const std::string& readySocket) {
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        if (::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        for (int i = 0; pid_ > 0 && i < 500 && !canConnect(readySocket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ready_ = pid_ > 0 && canConnect(readySocket);
    }
    ~Child() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    bool ready() const { return ready_; }

private:
    pid_t pid_ = -1;
    bool ready_ = false;
};

// Round trips per second of `threads` threads doing `total` calls of `op` between them.
double measure(int threads, long total, const std::function<void(int, long)>& op) {
    std::vector<std::thread> workers;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    Clock::time_point start;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            op(t, -1);  // warm-up: connect, first allocation
            ++ready;
            while (!go) std::this_thread::yield();
            for (long i = 0; i < total / threads; ++i) op(t, i);
        });
    }
    while (ready < threads) std::this_thread::yield();
    start = Clock::now();
    go = true;
    for (auto& w : workers) w.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return static_cast<double>(total / threads * threads) / seconds;
}

double pingPongFloor(int pairs, long total) {
    std::vector<int> serverEnds, clientEnds;
    std::vector<std::thread> servers;
    for (int i = 0; i < pairs; ++i) {
        int sv[2];
        ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv);
        clientEnds.push_back(sv[0]);
        serverEnds.push_back(sv[1]);
        servers.emplace_back([fd = sv[1]] {
            unsigned char request[12], reply[8] = {};
            while (::recv(fd, request, sizeof request, MSG_WAITALL) == sizeof request)
                if (::send(fd, reply, sizeof reply, MSG_NOSIGNAL) != sizeof reply) break;
        });
    }
    const double rate = measure(pairs, total, [&](int t, long) {
        unsigned char request[12] = {2}, reply[8];
        if (::send(clientEnds[t], request, sizeof request, MSG_NOSIGNAL) == sizeof request)
            ::recv(clientEnds[t], reply, sizeof reply, MSG_WAITALL);
    });
    for (int fd : clientEnds) ::shutdown(fd, SHUT_RDWR);
    for (auto& s : servers) s.join();
    for (int fd : clientEnds) ::close(fd);
    for (int fd : serverEnds) ::close(fd);
    return rate;
}

// {SET, GET} requests per second from redis-benchmark with `clients` connections, or 0 for
// a test it did not run (`tests` is its -t list).
std::pair<double, double> redisRates(const std::string& socketPath, int clients, long total,
                                     const char* tests = "set,get") {
    std::string out;
    const std::string command = "redis-benchmark -s '" + socketPath + "' -t " + tests + " -P 1 -q -n " +
                                std::to_string(total) + " -c " + std::to_string(clients) + " 2>/dev/null";
    if (sh(command, &out) != 0) return {0, 0};
    std::pair<double, double> rates{0, 0};
    // Progress lines end in '\r'; result lines look like "SET: 52910.05 requests per second, ...".
    for (char& c : out)
        if (c == '\r') c = '\n';
    size_t pos = 0;
    while (pos < out.size()) {
        const size_t end = out.find('\n', pos);
        const std::string line = out.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? out.size() : end + 1;
        double rate;
        if (std::sscanf(line.c_str(), "SET: %lf requests per second", &rate) == 1) rates.first = rate;
        if (std::sscanf(line.c_str(), "GET: %lf requests per second", &rate) == 1) rates.second = rate;
    }
    return rates;
}

// A Redis client of the same shape as ours: one blocking socket per thread, one request in
// flight, so that the Redis column measures the server and not redis-benchmark's event loop.
class RedisClients {
public:
    RedisClients(const std::string& socketPath, int clients) {
        for (int t = 0; t < clients; ++t) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un a{};
            a.sun_family = AF_UNIX;
            std::strncpy(a.sun_path, socketPath.c_str(), sizeof a.sun_path - 1);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) ok_ = false;
            fds_.push_back(fd);
        }
    }
    ~RedisClients() {
        for (int fd : fds_) ::close(fd);
    }
    bool ok() const { return ok_; }

    static std::string command(std::initializer_list<std::string> words) {
        std::string out = "*" + std::to_string(words.size()) + "\r\n";
        for (const std::string& w : words) out += "$" + std::to_string(w.size()) + "\r\n" + w + "\r\n";
        return out;
    }
    // Sends a whole command and reads its whole reply (a status, an error or a bulk string).
    void roundTrip(int t, const std::string& request) {
        const int fd = fds_[t];
        if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return;
        char reply[256];
        size_t got = 0;
        for (;;) {
            const ssize_t n = ::recv(fd, reply + got, sizeof reply - got, 0);
            if (n <= 0) return;
            got += static_cast<size_t>(n);
            const char* end = static_cast<const char*>(std::memchr(reply, '\n', got));
            if (!end) continue;
            const size_t header = static_cast<size_t>(end - reply) + 1;
            if (reply[0] != '$') return;
            const long length = std::atol(reply + 1);
            if (length < 0 || got >= header + static_cast<size_t>(length) + 2) return;
        }
    }

private:
    std::vector<int> fds_;
    bool ok_ = true;
};

struct Spread {
    double median, low, high;
};

Spread spread(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    if (v.empty()) return {0, 0, 0};
    return {v[v.size() / 2], v.front(), v.back()};
}

std::string exeDir() {
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    std::string p(buf, static_cast<size_t>(n));
    return p.substr(0, p.rfind('/'));
}

}  // namespace

int main(int argc, char** argv) {
    const long total = argc > 1 ? std::atol(argv[1]) : 100000;
    std::vector<int> clientCounts;
    for (int i = 2; i < argc; ++i) clientCounts.push_back(std::atoi(argv[i]));
    if (clientCounts.empty()) clientCounts = {1, 4, 8};
    const long durableTotal = std::max(total / 50, 2000L);
    char templ[] = "/tmp/kssetmgmt_bench.XXXXXX";
    if (!::mkdtemp(templ)) return 1;
    g_dir = templ;
    sh("mkdir -p '" + g_dir + "/etc' '" + g_dir + "/var/run' '" + g_dir + "/var/log'");
    if (sh("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null | openssl pkey -pubout -out '" +
           g_dir + "/etc/logs-pub.pem' 2>/dev/null") != 0) {
        std::fprintf(stderr, "openssl is needed for the log key of the temporary install root\n");
        return 1;
    }
    kspath_set_install_path(g_dir.c_str());
    int status = 0;
    {
        Child server({exeDir() + "/../tools/kssetter", "-root", g_dir}, g_dir + "/var/run/kssetmgmt.skt");
        const std::string redisSocket = g_dir + "/redis.sock";
        Child redis({"redis-server", "--port", "0", "--unixsocket", redisSocket, "--save", "", "--appendonly", "no"},
                    redisSocket);
        const std::string durableDir = g_dir + "/redis-durable";
        const std::string durableSocket = durableDir + "/redis.sock";
        sh("mkdir -p '" + durableDir + "'");
        Child durableRedis({"redis-server", "--port", "0", "--unixsocket", durableSocket, "--save", "", "--appendonly",
                            "yes", "--appendfsync", "always", "--dir", durableDir},
                           durableSocket);
        if (!server.ready() || !ks::log::start("kssetmgmt_bench", g_dir.c_str(), nullptr) || sm::init() != 0) {
            std::fprintf(stderr, "cannot start kssetter or the settings client\n");
            status = 1;
        } else {
            if (!redis.ready()) std::printf("(redis-server not available: no Redis column)\n");
            if (redis.ready() && !durableRedis.ready()) std::printf("(durable redis-server did not start)\n");
            std::printf("%ld round trips per measurement (%ld for durable rows), %d runs, each taken in %d "
                        "interleaved slices; small values, Unix socket.\n"
                        "Rates are medians; ratios are the median [lowest-highest] of the runs' own ratios.\n"
                        "redis: our blocking-thread client shape against redis-server; redis-benchmark: its own "
                        "event loop over all connections.\n\n",
                        total, durableTotal, kRuns, kSlices);
            std::printf("%-24s %7s %10s %10s %21s %21s %10s %21s\n", "request", "clients", "kssetter/s", "redis/s",
                        "vs redis", "vs redis-benchmark", "floor/s", "vs floor");
            for (int clients : clientCounts) {
                // Keys and requests made before the clock starts, so that the loops measure round trips.
                std::vector<std::string> tmpKeys, durableKeys, redisGets, redisSets;
                for (int t = 0; t < clients; ++t) {
                    tmpKeys.push_back("/tmp/bench/t" + std::to_string(t));
                    redisGets.push_back(RedisClients::command({"GET", "bench:t" + std::to_string(t)}));
                    redisSets.push_back(RedisClients::command({"SET", "bench:t" + std::to_string(t), "value-one"}));
                    for (int k = 0; k < 64; ++k)
                        durableKeys.push_back("/bench/c" + std::to_string(t) + "/k" + std::to_string(k));
                }
                // Seconds spent on a number of round trips, summed over the slices of a run.
                struct Tally {
                    double trips = 0, seconds = 0;
                    void add(long n, double rate) {
                        if (rate <= 0) return;
                        trips += static_cast<double>(n);
                        seconds += static_cast<double>(n) / rate;
                    }
                    double rate() const { return seconds > 0 ? trips / seconds : 0; }
                };
                struct Column {
                    std::vector<double> ours, theirs, vsTheirs, vsBench, vsFloor;
                };
                Column set, get, durable;
                std::vector<double> floors;
                auto record = [](Column& col, const Tally& ours, const Tally& theirs, const Tally& bench,
                                 double floor) {
                    col.ours.push_back(ours.rate());
                    col.theirs.push_back(theirs.rate());
                    if (theirs.rate() > 0) col.vsTheirs.push_back(ours.rate() / theirs.rate());
                    if (bench.rate() > 0) col.vsBench.push_back(ours.rate() / bench.rate());
                    col.vsFloor.push_back(ours.rate() / floor);
                };
                const long slice = total / kSlices, durableSlice = durableTotal / kSlices;
                for (int run = 0; run < kRuns; ++run) {
                    Tally floor, oursSet, oursGet, oursDurable, redisSet, redisGet, redisDurable, benchSet, benchGet,
                        benchDurable;
                    for (int part = 0; part < kSlices; ++part) {
                        floor.add(slice, pingPongFloor(clients, slice));
                        if (redis.ready()) {
                            RedisClients rc(redisSocket, clients);
                            if (rc.ok()) {
                                redisSet.add(slice, measure(clients, slice, [&](int t, long) {
                                                 rc.roundTrip(t, redisSets[t]);
                                             }));
                                redisGet.add(slice, measure(clients, slice, [&](int t, long) {
                                                 rc.roundTrip(t, redisGets[t]);
                                             }));
                            }
                            const auto b = redisRates(redisSocket, clients, slice);
                            benchSet.add(slice, b.first);
                            benchGet.add(slice, b.second);
                        }
                        oursSet.add(slice, measure(clients, slice, [&](int t, long i) {
                                        sm::setKey(tmpKeys[t], i & 1 ? "value-one" : "value-two");
                                    }));
                        oursGet.add(slice, measure(clients, slice, [&](int t, long) {
                                        std::string v;
                                        sm::getKey(tmpKeys[t], v);
                                    }));
                        if (durableRedis.ready()) {
                            RedisClients rc(durableSocket, clients);
                            if (rc.ok())
                                redisDurable.add(durableSlice, measure(clients, durableSlice, [&](int t, long) {
                                                     rc.roundTrip(t, redisSets[t]);
                                                 }));
                            benchDurable.add(durableSlice,
                                             redisRates(durableSocket, clients, durableSlice, "set").first);
                        }
                        oursDurable.add(durableSlice, measure(clients, durableSlice, [&](int t, long i) {
                                            sm::setKey(durableKeys[t * 64 + std::max(i, 0L) % 64],
                                                       i & 1 ? "value-one" : "value-two");
                                        }));
                    }
                    floors.push_back(floor.rate());
                    record(set, oursSet, redisSet, benchSet, floor.rate());
                    record(get, oursGet, redisGet, benchGet, floor.rate());
                    record(durable, oursDurable, redisDurable, benchDurable, floor.rate());
                }
                const double floor = spread(floors).median;
                auto ratio = [](const std::vector<double>& v) {
                    if (v.empty()) return std::string("-");
                    const Spread s = spread(v);
                    char text[64];
                    std::snprintf(text, sizeof text, "%.2fx [%.2f-%.2f]", s.median, s.low, s.high);
                    return std::string(text);
                };
                auto row = [&](const char* name, const Column& col, bool withFloor) {
                    const double theirs = spread(col.theirs).median;
                    std::printf("%-24s %7d %10.0f %10s %21s %21s %10.0f %21s\n", name, clients,
                                spread(col.ours).median,
                                theirs > 0 ? std::to_string(static_cast<long>(theirs)).c_str() : "-",
                                ratio(col.vsTheirs).c_str(), ratio(col.vsBench).c_str(), floor,
                                withFloor ? ratio(col.vsFloor).c_str() : "");
                };
                row("SET /tmp key", set, true);
                row("GET", get, true);
                row("SET persistent (durable)", durable, false);
                std::fflush(stdout);
            }
            sm::uninit();
            ks::log::stop();
        }
    }
    sh("rm -rf '" + g_dir + "'");
    return status;
}
