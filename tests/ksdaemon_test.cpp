// Black-box tests of the daemon framework: a real daemon (tests/daemons/ksdaemon_testd, which records
// its events into a file) started, signalled and stopped as an operator does, beside the settings server.
#include "kstest.h"

#include <kssetter/kssetmgmt.h>
#include <ksutils/process_lock.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kDaemon = std::string(KS_BINARY_DIR) + "/tests/ksdaemon_testd";
const std::string kName = "ksdaemon_testd";

using kstest::wait_until;

bool alive(pid_t pid) { return pid > 0 && ::kill(pid, 0) == 0; }

std::string fd_target(pid_t pid, int fd) {
    std::error_code ec;
    return std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd), ec).string();
}

// One install root for the test daemon, its events file, and the processes started, all killed at the end.
class DaemonTest : public ::testing::Test {
protected:
    ~DaemonTest() override {
        for (pid_t pid : started_)
            if (alive(pid)) ::kill(pid, SIGKILL);
        if (const pid_t pid = pidfile_holder(); pid > 0) ::kill(pid, SIGKILL);
        kstest::run("rm -rf '/tmp/kslogs" + root_.path() + "'; rmdir /tmp/kslogs/tmp /tmp/kslogs 2>/dev/null");
    }

    std::string events_file() const { return root_ / "events"; }
    std::vector<std::string> events() const {
        std::vector<std::string> lines;
        std::istringstream in(kstest::read_file(events_file()));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    std::string env(const std::string& mode = "normal") const {
        return "KS_INSTALL_ROOT='" + root_.path() + "' KSTEST_EVENTS='" + events_file() + "' KSTEST_MODE=" + mode + " ";
    }

    // Runs in the install root; standard error is merged into the output unless `stderr_too` is false.
    int daemon(const std::string& args, std::string* output = nullptr, const std::string& mode = "normal",
               bool stderr_too = true) {
        if (output) output->clear();
        const std::string command = env(mode) + "'" + kDaemon + "' " + args + (stderr_too ? " 2>&1" : " 2>/dev/null");
        return kstest::run("cd '" + root_.path() + "' && " + command, output);
    }

    // Waits for the detached daemon's "run" record and remembers its pid for clean-up.
    pid_t wait_running() {
        pid_t pid = -1;
        wait_until([&] {
            for (const auto& line : events())
                if (line.rfind("run pid=", 0) == 0) pid = std::stoi(line.substr(8));
            return pid > 0;
        });
        if (pid > 0) started_.push_back(pid);
        return pid;
    }

    bool has_event(const std::string& event) const {
        return ("\n" + kstest::read_file(events_file())).find("\n" + event + "\n") != std::string::npos;
    }

    pid_t pidfile_holder() const {
        ks::ProcessLock lock;
        if (!lock.open(root_ / ("var/run/" + kName + ".pid"), O_RDONLY)) return -1;
        pid_t pid = -1;
        return lock.holder_pid(pid) == 1 ? pid : -1;
    }

    pid_t background(const std::string& command, const std::string& output_file) {
        std::string pid;
        kstest::run(command + " >'" + output_file + "' 2>&1 & echo $!", &pid);
        return started_.emplace_back(std::atoi(pid.c_str()));
    }

    kstest::InstallRoot root_;
    std::vector<pid_t> started_;  // daemons and servers, none of them our children
};

TEST_F(DaemonTest, CommandLineActionsAndFailures) {
    const struct {
        const char* args;
        int status;
        std::vector<std::string> expected;  // substrings of the merged output
    } cases[] = {
        {"-help", 0, {"Usage:", "do not detach from the controlling terminal", "-log-config <FILE>"}},
        {"-execute-log-config", 1, {"Error: Option '-log-config' must be specified exactly once", "Usage:"}},
        {"-start -no-detach -no-detach", 1, {"Error: ", "can only be used at most once", "Usage:"}},
        {"-stop", 127, {"Error: No previously running instance found"}},
        {"-execute-log-config -log-config=/dev/null", 127, {"Error: No instance seems to be currently running"}},
    };
    for (const auto& c : cases) {
        std::string out;
        EXPECT_EQ(c.status, daemon(c.args, &out)) << c.args << "\n" << out;
        for (const auto& text : c.expected) EXPECT_NE(out.find(text), std::string::npos) << c.args << ": " << text << "\n" << out;
    }
}

TEST_F(DaemonTest, StopGivesUpOnADaemonIgnoringTerm) {
    ASSERT_EQ(0, daemon("-start", nullptr, "ignore-term"));
    const pid_t pid = wait_running();
    ASSERT_GT(pid, 0);
    std::string out;
    EXPECT_EQ(1, daemon("-stop", &out, "ignore-term", false));
    EXPECT_EQ("Sending stop signal to " + std::to_string(pid) + " ..." + std::string(20, '.') + " failed\n", out);
    EXPECT_TRUE(alive(pid));
    EXPECT_TRUE(has_event("callback flag=1 stop_fd=readable")) << "the notifications were given";
}

// -stop sends SIGTERM; SIGINT (an operator's Ctrl-C) stops the daemon as well.
TEST_F(DaemonTest, NoDetachKeepsTheSessionAndStopsOnInterrupt) {
    const pid_t pid = background(env() + "'" + kDaemon + "' -start -no-detach", root_ / "daemon.out");
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(wait_until([&] { return has_event("run pid=" + std::to_string(pid)); })) << "runs in the started process";
    const kstest::ProcStat ids = kstest::proc_stat(pid);
    EXPECT_EQ(pid, ids.pgrp) << "its own process group";
    EXPECT_EQ(::getsid(0), ids.session) << "still in our session";
    EXPECT_EQ(root_ / "daemon.out", fd_target(pid, 1)) << "standard output kept";
    EXPECT_EQ(pid, pidfile_holder());
    ::kill(pid, SIGINT);
    EXPECT_TRUE(wait_until([&] { return has_event("exit 3 pid=" + std::to_string(pid)); }));
}

TEST_F(DaemonTest, BadStartupEnvironments) {
    const std::string run_dir = root_ / "var/run";
    const struct {
        std::function<void()> prepare;
        const char* args;
        const char* mode;
        int status;
        std::string expected;
    } cases[] = {
        {[] {}, "-start", "normal KS_INSTALL_ROOT=/nonexistent/root", 1, "Error: kslog setup failed"},
        {[&] { kstest::run("rm -rf '" + run_dir + "' && touch '" + run_dir + "'"); }, "-start", "normal", 127,
         "Error: Failed to open PID file '" + run_dir + "/" + kName + ".pid': Not a directory"},
        {[] {}, "-start -no-detach", "normal", 127, "Error: Failed to open PID file"},
        {[&] { kstest::run("rm -f '" + run_dir + "' && mkdir '" + run_dir + "'"); }, "-start", "fail-prerun", 127,
         "Error: test daemon refuses to start"},
        {[&] { kstest::write_file(root_ / "bad.json", "{\"action\": "); }, "-start -log-config=bad.json", "normal", 1,
         "Error: Failed to execute log config 'bad.json'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        c.prepare();
        std::string out;
        EXPECT_EQ(c.status, daemon(c.args, &out, c.mode)) << out;
        EXPECT_NE(out.find(c.expected), std::string::npos) << out;
        EXPECT_EQ(-1, pidfile_holder());
    }
    for (const auto& line : events()) EXPECT_EQ(std::string::npos, line.find("run pid")) << line;
}

// The daemon's whole life beside the settings server: start, second start, callbacks, log config, stop.
TEST_F(DaemonTest, LifeFromDetachedStartToStop) {
    const pid_t server = background(kstest::quoted(kstest::tool_path("kssetter")) + " -root " + kstest::quoted(root_.path()),
                                    root_ / "kssetter.out");
    ASSERT_EQ(0, ks::setMgmt::init(ks::setMgmt::LogChannel::optional));
    ASSERT_TRUE(wait_until([&] { return ks::setMgmt::setKey("/kstest/ready", "1") == 0 || !alive(server); }));
    kstest::write_file(root_ / "start.json",
                       R"({"action":"update","channels":{"default":[{"file":"$INSTALL_PATH/var/log/$IDENTITY","level":"info"}]}})");
    std::string out;
    ASSERT_EQ(0, daemon("-start -log-config=start.json", &out, "normal LD_LIBRARY_PATH=/opt/x/lib")) << out;
    EXPECT_EQ("", out);
    const pid_t pid = wait_running();
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(has_event("env LD_LIBRARY_PATH=unset saved=/opt/x/lib")) << "removed, but kept in the saved copy";

    const kstest::ProcStat ids = kstest::proc_stat(pid);
    EXPECT_NE(ids.session, ::getsid(0)) << "a session of its own";
    EXPECT_EQ(pid, ids.pgrp) << "a process group of its own";
    EXPECT_NE(::getpid(), ids.ppid) << "not our child";
    for (int fd = 0; fd < 3; ++fd) EXPECT_EQ("/dev/null", fd_target(pid, fd)) << "descriptor " << fd;
    EXPECT_EQ(pid, pidfile_holder());

    // A second start is refused by the detached process, through the report pipe.
    EXPECT_EQ(127, daemon("-start", &out));
    EXPECT_EQ("Error: Daemon '" + kName + "' is already running with pid " + std::to_string(pid) + "\n", out);
    EXPECT_TRUE(alive(pid));

    auto default_rounds = [&] {
        std::vector<std::string> seen;
        for (const auto& line : events())
            if (line.rfind("default ", 0) == 0) seen.push_back(line);
        return seen;
    };
    ASSERT_TRUE(wait_until([&] { return default_rounds().size() >= 3; }));
    // The subscription is made by the settings thread; change the key until it is seen.
    bool changed = false;
    for (int attempt = 0; attempt < 10 && !changed; ++attempt) {
        ASSERT_EQ(0, ks::setMgmt::setKey("/default_settings", "v" + std::to_string(attempt)));
        changed = wait_until([&] { return default_rounds().size() >= 6; }, std::chrono::milliseconds(1000));
    }
    ASSERT_TRUE(changed);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto seen = default_rounds();
    ASSERT_EQ(0u, seen.size() % 3);
    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ("default " + std::to_string(i % 3), seen[i]) << "every callback once, in id order";

    // A valid configuration reaches the running daemon through the settings server: its new output appears.
    const std::string config = root_ / "runtime.json";
    kstest::write_file(config, R"({"action":"update","channels":{"default":[)"
                               R"({"file":"$INSTALL_PATH/var/log/$IDENTITY","level":"info"},)"
                               R"({"file":"$INSTALL_PATH/var/log/runtime-output","level":"trace"}]}})");
    EXPECT_EQ(0, daemon("-execute-log-config -log-config='" + config + "'", &out)) << out;
    EXPECT_EQ("Static log config validation OK. Sending log config '" + config + "' to daemon ...\n", out);
    ASSERT_TRUE(wait_until([&] { return ::access((root_ / "var/log/runtime-output.0").c_str(), F_OK) == 0; }));

    // A file that is not a log configuration is refused before it reaches the daemon.
    kstest::write_file(root_ / "bad.json", "not json");
    EXPECT_EQ(127, daemon("-execute-log-config -log-config='" + root_ / "bad.json" + "'", &out));
    EXPECT_EQ("Error: Static log config validation failed for '" + root_ / "bad.json" + "'. Please check logs.\n", out);
    EXPECT_EQ(config, ks::setMgmt::getKeyValue("/tmp/daemon/" + kName + "/logging/config", ""))
        << "the daemon's key still names the valid file";
    EXPECT_EQ(127, daemon("-execute-log-config -log-config=/no/such/file.json", &out));
    EXPECT_NE(out.find("Error: Failed to resolve path '/no/such/file.json'"), std::string::npos) << out;

    // Stopping joins a settings thread that holds a subscription.
    EXPECT_EQ(0, daemon("-stop", &out, "normal", false));
    EXPECT_TRUE(std::regex_match(out, std::regex("Sending stop signal to " + std::to_string(pid) + " \\.* done\n"))) << out;
    EXPECT_TRUE(wait_until([&] { return !alive(pid); }));
    EXPECT_EQ(-1, pidfile_holder());
    ks::setMgmt::uninit();
    // Every stop notification, then the run callback's return; two threads record them, so compare as sets.
    const auto all = events();
    const auto exit = std::find(all.begin(), all.end(), "exit 3 pid=" + std::to_string(pid));
    ASSERT_GE(exit - all.begin(), 2);
    EXPECT_EQ((std::multiset<std::string>{"callback flag=1 stop_fd=readable", "pipe byte=1"}),
              std::multiset<std::string>(exit - 2, exit));
}

TEST_F(DaemonTest, CrashLeavesAReportAndAStalePidFileThatDoesNotBlockAStart) {
    ASSERT_EQ(0, daemon("-start", nullptr, "crash"));
    const pid_t pid = wait_running();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(wait_until([&] { return !alive(pid); }));
    const std::string dir = "/tmp/kslogs" + root_.path() + "/var/crash";
    std::string listing;
    kstest::run("ls '" + dir + "'", &listing);
    EXPECT_EQ(0u, listing.find(kName + "-" + std::to_string(pid) + "-")) << listing;
    EXPECT_EQ(-1, pidfile_holder()) << "the lock died with the process";
    EXPECT_EQ(std::to_string(pid) + "\n", kstest::read_file(root_ / ("var/run/" + kName + ".pid"))) << "left behind";

    kstest::run("rm -f '" + events_file() + "'");
    std::string out;
    ASSERT_EQ(0, daemon("-start", &out)) << out;
    const pid_t second = wait_running();
    ASSERT_GT(second, 0);
    EXPECT_EQ(second, pidfile_holder());
}

}  // namespace
