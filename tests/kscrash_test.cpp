// Crash reporter: children install the handler and die of each crash signal; the report, in a file or
// sent to a crash collector listening on its socket, must be complete, and the child die of that signal.
#include "kstest.h"

#include <ksutils/error.h>
#include <ksutils/kscrash.h>

#include <kspath.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <vector>

namespace {

volatile int* volatile g_null = nullptr;

__attribute__((noinline, no_sanitize("undefined"))) void write_null() { *g_null = 1; }
// Recurses until the stack is gone: only the alternate stack can report this one.
volatile int g_depth_limit = 1 << 30;
__attribute__((noinline)) int overflow_stack(int depth) {
    volatile char pad[4096];
    pad[0] = static_cast<char>(depth);
    if (depth >= g_depth_limit) return pad[0];
    return overflow_stack(depth + 1) + pad[0];
}

class CrashTest : public ::testing::Test {
protected:
    ~CrashTest() override {
        kstest::run("rm -rf '/tmp/kslogs" + root_.path() + "'; rmdir /tmp/kslogs/tmp /tmp/kslogs 2>/dev/null");
    }

    std::string crash_dir() const { return "/tmp/kslogs" + root_.path() + "/var/crash"; }

    std::vector<std::string> reports() const {
        std::vector<std::string> names;
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(crash_dir(), ec))
            names.push_back(entry.path().filename());
        return names;
    }

    // A child installs the handler and runs `crash`: the signal it died of (0 when it exited), and its pid.
    int crash_child(ks::ExceptionHandlerMethod method, const std::function<void()>& crash, pid_t& pid) {
        pid = ::fork();
        if (pid == 0) {
            if (ks::init_exception_handler("crashtest", method) != 0) ::_exit(90);
            crash();
            ::_exit(91);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }

    kstest::InstallRoot root_;
};

void expect_complete(const std::string& report, pid_t pid, int sig) {
    const std::string name = std::string("SIG") + sigabbrev_np(sig);
    for (const std::string& text :
         {std::string("program: crashtest\n"), "pid: " + std::to_string(pid) + "\n",
          "signal: " + std::to_string(sig) + " (" + name + ")\n", std::string("backtrace:\n"),
          std::string("kscrash_test"), std::string("memory map:\n"), std::string("end of report\n")})
        EXPECT_NE(report.find(text), std::string::npos) << name << ": " << text << "\n" << report;
    // At least the handler's frame, the signal frame and the crashing function.
    const auto bt = report.find("backtrace:\n"), maps = report.find("memory map:\n");
    ASSERT_LT(bt, maps);
    const std::string frames = report.substr(bt, maps - bt);
    EXPECT_GE(std::count(frames.begin(), frames.end(), '\n'), 4) << frames;
}

TEST_F(CrashTest, EachCrashSignalWritesAReportAndKillsWithThatSignal) {
    // The handler re-raises the signal either way: a raised fault differs only in the fault address.
    const struct {
        int sig;
        std::function<void()> crash;
        const char* also;  // more text the report must hold
    } cases[] = {
        {SIGSEGV, write_null, "fault address: 0x0000000000000000\n"},
        {SIGSEGV, [] { overflow_stack(0); }, ""},
        {SIGABRT, [] { std::abort(); }, ""},
        {SIGFPE, [] { std::raise(SIGFPE); }, ""},
        {SIGILL, [] { std::raise(SIGILL); }, ""},
        {SIGBUS, [] { std::raise(SIGBUS); }, ""},
    };
    for (const auto& c : cases) {
        kstest::run("rm -rf '" + crash_dir() + "'");
        pid_t pid = -1;
        EXPECT_EQ(c.sig, crash_child(ks::ExceptionHandlerMethod::report_file, c.crash, pid)) << sigabbrev_np(c.sig);
        const auto names = reports();
        ASSERT_EQ(1u, names.size()) << sigabbrev_np(c.sig);
        const std::regex name("crashtest-" + std::to_string(pid) + "-.*\\.crash");
        EXPECT_TRUE(std::regex_match(names[0], name)) << names[0];
        const std::string report = kstest::read_file(crash_dir() + "/" + names[0]);
        expect_complete(report, pid, c.sig);
        EXPECT_NE(report.find(c.also), std::string::npos) << c.also;
    }
}

TEST_F(CrashTest, CollectorTakesReportsKeepsItsConnectionAndFilesAreTheFallback) {
    // A crash collector's listening socket at its place in the install root.
    const std::string collector = root_ / "var/run/kscrash.skt";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", collector.c_str());
    ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, ::listen(listener, 4));
    auto accept_one = [&] {
        pollfd p{listener, POLLIN, 1000};
        if (::poll(&p, 1, 1000) != 1) return -1;
        return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    };

    pid_t pid = -1;
    EXPECT_EQ(SIGSEGV, crash_child(ks::ExceptionHandlerMethod::collector, write_null, pid));
    const int conn = accept_one();
    ASSERT_GE(conn, 0);
    std::string received;
    char chunk[4096];
    for (ssize_t n; (n = ::read(conn, chunk, sizeof chunk)) > 0;) received.append(chunk, static_cast<size_t>(n));
    ::close(conn);
    expect_complete(received, pid, SIGSEGV);
    EXPECT_TRUE(reports().empty()) << "no file when the collector took it";

    ASSERT_EQ(0, ks::init_exception_handler("crashtest", ks::ExceptionHandlerMethod::collector));
    int first = accept_one();
    ASSERT_GE(first, 0);
    EXPECT_EQ(0, ks::check_exception_handler_connection()) << "connected: nothing to do";
    EXPECT_EQ(-1, accept_one()) << "no second connection while the first is alive";
    ::close(first);  // the collector drops us
    EXPECT_EQ(0, ks::check_exception_handler_connection());
    const int second = accept_one();
    EXPECT_GE(second, 0) << "reconnected";
    ::close(second);
    ::close(listener);
    ::unlink(collector.c_str());
    EXPECT_EQ(-1, ks::check_exception_handler_connection()) << "collector gone";
    ks::uninit_exception_handler();
    EXPECT_EQ(0, ks::check_exception_handler_connection()) << "nothing to check without a collector";
    // Restored default actions: a crash after uninit kills and leaves no report.
    EXPECT_EQ(-1, kstest::in_child([] { return write_null(), 0; }));
    EXPECT_TRUE(reports().empty());

    // Without a collector the report still reaches the crash directory.
    EXPECT_EQ(SIGSEGV, crash_child(ks::ExceptionHandlerMethod::collector, write_null, pid));
    ASSERT_EQ(1u, reports().size());
    expect_complete(kstest::read_file(crash_dir() + "/" + reports()[0]), pid, SIGSEGV);
}

TEST_F(CrashTest, RefusesBadNamesAndAMissingInstallRoot) {
    const std::string too_long(300, 'x');
    for (const char* bad : {static_cast<const char*>(nullptr), "", too_long.c_str()}) {
        EXPECT_EQ(-1, ks::init_exception_handler(bad, ks::ExceptionHandlerMethod::report_file));
        EXPECT_EQ(ks::E_INVAL, ks::_get_kserrno().code);
    }

    kspath_set_install_path(root_.path().c_str());  // same root again: forget it
    if (kspath_default_install_path() == nullptr) {
        EXPECT_EQ(-1, ks::init_exception_handler("crashtest", ks::ExceptionHandlerMethod::report_file));
        EXPECT_EQ(ks::E_NOENT, ks::_get_kserrno().code);
    }
    EXPECT_EQ(0, ks::init_exception_handler("crashtest", ks::ExceptionHandlerMethod::none)) << "none needs nothing";
    kspath_set_install_path(root_.path().c_str());
}

}  // namespace
