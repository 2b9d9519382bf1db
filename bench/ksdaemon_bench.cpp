// Daemon life-cycle costs, against baselines measured in the same run:
//   - "-start" to the run callback (through the double fork, PID file lock, descriptor
//     closing and logger restarts), against spawning and reaping /bin/true;
//   - "-stop" to the daemon's exit (signal, settings thread, stop notifications, joins),
//     against SIGTERM to a plain child that dies of it; and how long the "-stop" command
//     itself takes, against the daemon's exit (it returns once the PID file lock is free);
//   - the resident memory of the idle example daemon, against an idle /bin/sleep.
// This program is also the daemon it measures: with KSBENCH_ROLE=daemon it runs as one,
// writing CLOCK_MONOTONIC stamps (system-wide, so comparable across processes) to a file.
#include <kspath.h>
#include <ksutils/ksdaemon.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

constexpr int kRounds = 10;

long long now_ns() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

void append_stamp(const char* file, const char* what) {
    if (!file) return;
    const int fd = ::open(file, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const std::string line = std::string(what) + " " + std::to_string(now_ns()) + "\n";
    (void)!::write(fd, line.data(), line.size());
    ::close(fd);
}

// ---- The measured daemon ---------------------------------------------------------------

int run_as_daemon(int argc, char** argv) {
    kspath_set_install_path(std::getenv("KS_INSTALL_ROOT"));
    auto d = ks::daemon::instance(argc, argv);
    const int stop_fd = d->on_stop_pipe();
    d->on_crash(ks::ExceptionHandlerMethod::report_file);
    d->on_run([stop_fd] {
        const char* stamps = std::getenv("KSBENCH_STAMPS");
        append_stamp(stamps, "run");
        pollfd p{stop_fd, POLLIN, 0};
        while (::poll(&p, 1, -1) != 1) {
        }
        return 0;
    });
    return d->run();
}

// ---- The harness ---------------------------------------------------------------------------

std::string g_root;
std::string g_self;

pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& extra_env = {}) {
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<std::string> env(extra_env);
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int reap(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits for any process (not only a child) to end.
void wait_gone(pid_t pid) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd >= 0) {
        pollfd p{fd, POLLIN, 0};
        ::poll(&p, 1, 30000);
        ::close(fd);
        return;
    }
    while (::kill(pid, 0) == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

long long stamp_of(const std::string& file, const std::string& what) {
    std::ifstream in(file);
    std::string name;
    long long value;
    while (in >> name >> value)
        if (name == what) return value;
    return -1;
}

pid_t pidfile_pid(const std::string& name) {
    std::ifstream in(g_root + "/var/run/" + name + ".pid");
    pid_t pid = -1;
    in >> pid;
    return pid;
}

double median_ms(std::vector<long long> ns) {
    std::sort(ns.begin(), ns.end());
    return ns.empty() ? 0.0 : ns[ns.size() / 2] / 1e6;
}

std::string spread_ms(const std::vector<long long>& ns) {
    if (ns.empty()) return "-";
    const auto [lo, hi] = std::minmax_element(ns.begin(), ns.end());
    char text[48];
    std::snprintf(text, sizeof text, "%.1f-%.1f", *lo / 1e6, *hi / 1e6);
    return text;
}

long rss_kib(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

std::string sibling(const std::string& dir, const std::string& name) {
    const std::string build = g_self.substr(0, g_self.rfind('/'));  // .../bench
    return build.substr(0, build.rfind('/')) + "/" + dir + "/" + name;
}

void measure_start_stop() {
    const std::string stamps = g_root + "/stamps";
    const std::vector<std::string> env{"KSBENCH_ROLE=daemon", "KS_INSTALL_ROOT=" + g_root, "KSBENCH_STAMPS=" + stamps};
    std::vector<long long> to_run, launcher, to_exit, stop_command, base_spawn, base_term;
    for (int i = 0; i < kRounds; ++i) {
        ::unlink(stamps.c_str());
        const long long t0 = now_ns();
        const pid_t launcher_pid = spawn({g_self, "-start"}, env);
        if (reap(launcher_pid) != 0) {
            std::fprintf(stderr, "daemon start failed\n");
            return;
        }
        launcher.push_back(now_ns() - t0);
        long long ran;
        while ((ran = stamp_of(stamps, "run")) < 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
        to_run.push_back(ran - t0);

        const pid_t daemon = pidfile_pid("ksdaemon_bench");
        const long long t1 = now_ns();
        const pid_t stopper = spawn({g_self, "-stop"}, env);
        wait_gone(daemon);
        to_exit.push_back(now_ns() - t1);
        reap(stopper);
        stop_command.push_back(now_ns() - t1);

        const long long b0 = now_ns();
        reap(spawn({"/bin/true"}));
        base_spawn.push_back(now_ns() - b0);

        const pid_t sleeper = spawn({"/bin/sleep", "100"});
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const long long b1 = now_ns();
        ::kill(sleeper, SIGTERM);
        reap(sleeper);
        base_term.push_back(now_ns() - b1);
    }
    std::printf("%-44s %10s %13s %10s %8s\n", "measurement (median of 10)", "ms", "min-max ms", "base ms", "ratio");
    auto row = [](const char* what, const std::vector<long long>& v, const std::vector<long long>& base) {
        const double m = median_ms(v), b = median_ms(base);
        std::printf("%-44s %10.3f %13s %10.3f %8.1f\n", what, m, spread_ms(v).c_str(), b, b > 0 ? m / b : 0.0);
    };
    row("-start to run callback  (base: spawn true)", to_run, base_spawn);
    row("-start launcher exit    (base: spawn true)", launcher, base_spawn);
    row("-stop to daemon exit    (base: TERM child)", to_exit, base_term);
    row("-stop command           (base: TERM child)", stop_command, base_term);
    row("-stop command  (base: -stop to daemon exit)", stop_command, to_exit);
}

void measure_idle_memory() {
    const std::string example = sibling("examples", "example_daemon");
    const std::string setter = sibling("tools", "kssetter");
    if (::access(example.c_str(), X_OK) != 0) {
        std::printf("example_daemon not built (%s): memory not measured\n", example.c_str());
        return;
    }
    pid_t server = -1;
    if (::access(setter.c_str(), X_OK) == 0) {
        server = spawn({setter, "-root", g_root});
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    reap(spawn({example, "-start"}, {"KS_INSTALL_ROOT=" + g_root}));
    const pid_t sleeper = spawn({"/bin/sleep", "100"});
    std::this_thread::sleep_for(std::chrono::seconds(2));  // idle: subscribed, first heartbeat pending
    const pid_t daemon = pidfile_pid("example_daemon");
    const long rss = daemon > 0 ? rss_kib(daemon) : -1;
    const long base = rss_kib(sleeper);
    std::printf("%-44s %10ld %13s %10ld %8.1f\n", "idle example_daemon RSS, KiB (base: sleep)", rss, "", base,
                base > 0 ? static_cast<double>(rss) / base : 0.0);
    if (daemon > 0) {
        ::kill(daemon, SIGTERM);
        wait_gone(daemon);
    }
    ::kill(sleeper, SIGKILL);
    reap(sleeper);
    if (server > 0) {
        ::kill(server, SIGTERM);
        reap(server);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (const char* role = std::getenv("KSBENCH_ROLE"); role && std::strcmp(role, "daemon") == 0)
        return run_as_daemon(argc, argv);

    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return 1;
    g_self.assign(self, static_cast<size_t>(n));

    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/ksdaemon_bench.XXXXXX";
    if (!::mkdtemp(templ.data())) return 1;
    g_root = templ;
    const std::string keys = g_root + ".key";
    const std::string setup = "mkdir -p '" + g_root + "/etc/logging' '" + g_root + "/var/log' '" + g_root +
                              "/var/run' && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" +
                              keys + "' 2>/dev/null && openssl pkey -in '" + keys + "' -pubout -out '" + g_root +
                              "/etc/logs-pub.pem' 2>/dev/null";
    if (std::system(setup.c_str()) != 0) {
        std::fprintf(stderr, "cannot set up the install root (openssl missing?)\n");
        return 1;
    }
    measure_start_stop();
    measure_idle_memory();
    const std::string cleanup = "rm -rf '" + g_root + "' '" + keys + "' '/tmp/kslogs" + g_root + "'; rmdir -p '/tmp/kslogs" +
                                g_root.substr(0, g_root.rfind('/')) + "' 2>/dev/null";
    return std::system(cleanup.c_str()) == 0 ? 0 : 0;
}
