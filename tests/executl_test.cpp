// Commands and scripts run for real: statuses, inherited descriptors, groups, time limits.
#include <ksutils/error.h>
#include <ksutils/executl.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kslogcapture.h"

namespace {

using lines_t = std::vector<std::vector<std::string>>;

TEST(ExecCommand, WaitedResultsAndTheirErrors) {
    const int fds = kstest::open_descriptors();
    // The return code, the child's result, then the error record.
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"true"}, "0 0 E_OK Operation successfull"},
        {{"sh", "-c", "exit 3"}, "-1 3 E_SYSTEM child's return code = 3"},
        // A program that cannot be executed: the child ends with the exec's errno.
        {{"/nonexistent/program"}, "-1 2 E_SYSTEM child's return code = 2"},
        {{"sh", "-c", "kill -9 $$"}, "-1 -1 E_FAULT waitpid failed: child terminated abnormally"},
    };
    for (auto [argv, expected] : cases) {
        argv.push_back(nullptr);
        ks::exec_command_ctx ctx;
        ks::_get_kserrno().set(ks::E_OK);
        const int rc = ks::exec_command(argv.data(), ctx);
        EXPECT_TRUE(ctx.has_result);
        EXPECT_EQ(expected, std::to_string(rc) + " " + std::to_string(ctx.result) + " " + kstest::error_text()) << argv[0];
    }
    // A callback makes the child a real fork; it runs there when the exec fails.
    int report[2];
    ASSERT_EQ(0, ::pipe(report));
    ks::exec_command_ctx ctx;
    ctx.keep_fds = {report[1]};
    ctx.on_child_error = [fd = report[1]] { (void)!::write(fd, "x", 1); };
    const char* missing[] = {"/nonexistent/program", nullptr};
    EXPECT_EQ(-1, ks::exec_command(missing, ctx));
    EXPECT_EQ(ENOENT, ctx.result);
    char got = 0;
    ::close(report[1]);
    EXPECT_EQ(1, ::read(report[0], &got, 1));
    ::close(report[0]);
    EXPECT_EQ(fds, kstest::open_descriptors());
    EXPECT_EQ(0, kstest::zombie_children());
}

// What the child inherits: the descriptors it was given, and a group or session of its own.
TEST(ExecCommand, ChildSeesItsDescriptorsGroupAndSession) {
    kstest::TempDir dir;
    const std::string listing = dir / "fds", kept = dir / "kept";
    const int out = ::open(listing.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int keep = ::open(kept.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int stray = ::open(kept.c_str(), O_RDONLY);  // inheritable, but not asked for
    ASSERT_GE(stray, 0);
    ks::exec_command_ctx ctx;
    ctx.stdout_fd = out;
    ctx.keep_fds = {keep};
    const char* argv[] = {"sh", "-c", "cd /proc/$$/fd && for f in *; do [ -e $f ] && printf '%s ' $f && readlink $f; done", nullptr};
    ASSERT_EQ(0, ks::exec_command(argv, ctx)) << ks::_get_kserrno().message_view();
    EXPECT_EQ("0 /dev/null\n1 " + listing + "\n2 /dev/null\n" + std::to_string(keep) + " " + kept + "\n",
              kstest::read_file(listing));
    for (int fd : {out, keep, stray}) ::close(fd);

    const char* sleeper[] = {"sleep", "30", nullptr};
    ks::exec_command_ctx background;
    background.wait = false;
    ASSERT_EQ(0, ks::exec_command(sleeper, background));
    EXPECT_FALSE(background.has_result);
    ASSERT_GT(background.pid, 0);
    EXPECT_TRUE(kstest::wait_until([&] { return kstest::proc_stat(background.pid).pgrp == background.pid; }));
    EXPECT_EQ(::getsid(0), kstest::proc_stat(background.pid).session);
    ::kill(background.pid, SIGKILL);
    ::waitpid(background.pid, nullptr, 0);

    const std::string ids = dir / "ids", script = "echo $$ > " + ids + ".tmp && mv " + ids + ".tmp " + ids + "; sleep 30";
    const char* detached[] = {"sh", "-c", script.c_str(), nullptr};
    background.detach = true;
    ASSERT_EQ(0, ks::exec_command(detached, background));
    ASSERT_TRUE(kstest::wait_until([&] { return ::access(ids.c_str(), F_OK) == 0; }));
    const pid_t grandchild = std::stoi(kstest::read_file(ids));
    EXPECT_NE(::getsid(0), kstest::proc_stat(grandchild).session) << "left our session";
    EXPECT_EQ(0, kstest::zombie_children()) << "the intermediate child is collected";
    ::kill(grandchild, SIGKILL);
}

TEST(ExecScript, StatusesOutputsAndTimeLimit) {
    kstest::LogCapture log("executl_test");
    kstest::TempDir dir;
    const std::string pidfile = dir / "grandchild";
    std::string out = log.during([&] {
        EXPECT_EQ(0, ks::exec_script({}, 5, "/bin/sh"));
        EXPECT_EQ(-1, ks::exec_script({{"exit", "4"}}, "/bin/sh"));
        EXPECT_EQ("child's return code = 4", ks::_get_kserrno().message_view());
        EXPECT_EQ(-1, ks::exec_script({{"echo", "hello"}, {"exit", "4"}}, 5, "/bin/sh"));
        EXPECT_EQ("script exited with error/timeout", ks::_get_kserrno().message_view());
        EXPECT_EQ(-1, ks::exec_script({{"sleep", "30", "&"}, {"echo", "$!", ">", pidfile}, {"sleep", "30"}}, 1, "sh"));
        EXPECT_EQ(ks::E_FAULT, ks::_get_kserrno().code);
    });
    for (const char* record : {"Script retcode=0", "Script retcode=4, output='hello\n'", "Script timed-out. Killing it...",
                               "Script retcode=9 (killed by signal)"})
        EXPECT_TRUE(kstest::has_record(out, record)) << record << "\n" << out;
    // SIGKILL is delivered at once but the process takes a moment to end.
    const pid_t grandchild = std::stoi(kstest::read_file(pidfile));
    EXPECT_TRUE(kstest::wait_until([&] {
        const char state = kstest::proc_stat(grandchild).state;
        return state == 0 || state == 'Z';
    })) << "the whole group is killed";
}

TEST(ExecScript, LongScriptsArriveWholeAndInOrder) {
    kstest::TempDir dir;
    const int fds = kstest::open_descriptors();
    const std::string file = dir / "lines";
    // Four words a line: 2400 pieces, five writev batches.
    lines_t lines;
    std::string expected;
    for (int i = 1; i <= 300; ++i) {
        lines.push_back({"echo", std::to_string(i), ">>", file});
        expected += std::to_string(i) + "\n";
    }
    EXPECT_EQ(0, ks::exec_script(lines, "/bin/sh"));
    EXPECT_EQ(expected, kstest::read_file(file));
    ::unlink(file.c_str());
    EXPECT_EQ(0, ks::exec_script(lines, 30, "/bin/sh"));
    EXPECT_EQ(expected, kstest::read_file(file));

    // An interpreter that never reads: the write fails instead of raising SIGPIPE, and the
    // time limit holds even though the script does not fit in the pipe.
    const lines_t big(20000, {"echo", std::string(50, 'x')});
    EXPECT_EQ(-1, ks::exec_script(big, "true"));
    lines_t stalled{{"sleep", "30"}};
    stalled.insert(stalled.end(), big.begin(), big.end());
    EXPECT_EQ(-1, ks::exec_script(stalled, 1, "/bin/sh"));
    EXPECT_EQ(fds, kstest::open_descriptors()) << "no run leaves a descriptor or a zombie behind";
    EXPECT_EQ(0, kstest::zombie_children());
}

}  // namespace
