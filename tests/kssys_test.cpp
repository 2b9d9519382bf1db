// The system-call layer through the library calls built on it: a signal (handler without SA_RESTART)
// that interrupts a blocking call must not turn into a failure. It is sent once /proc shows the
// caller blocked inside the call, and what the call waits for comes only after the handler ran.
#include <kssetter/ksconnection.h>
#include <ksutils/executl.h>
#include <ksutils/unique_fd.h>
#include <kswrite.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

std::atomic<int> g_interruptions{0};

// The number of the system call thread `tid` is blocked in, or -1 while it runs.
long blocked_in(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long nr = -1;
    in >> nr;
    return nr;
}

TEST(SysLayer, InterruptedCallsCarryOn) {
    // Under qemu-user /proc shows the emulator, never the emulated call the test waits for.
    if (std::getenv("KS_TEST_EMULATED")) GTEST_SKIP() << "no /proc view of emulated system calls";
    struct sigaction interrupt {}, old{};
    interrupt.sa_handler = [](int) { ++g_interruptions; };
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &interrupt, &old));

    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
    ks::unique_fd gate_in(fds[0]), gate_out(fds[1]);  // the child's standard input
    ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
    ks::unique_fd full_in(fds[0]), full_out(fds[1]);  // filled to the brim before each write
    ::fcntl(full_in.get(), F_SETFL, O_NONBLOCK);
    const std::string brim(::fcntl(full_out.get(), F_GETPIPE_SZ), '\0');
    auto drain = [&] {
        char chunk[4096];
        while (::read(full_in.get(), chunk, sizeof chunk) > 0) {
        }
    };
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    ks::unique_fd server(fds[1]);
    ks::setMgmt::Connection client;
    client.fd = fds[0];

    const char* argv[] = {"sh", "-c", "read line; exit 3", nullptr};
    ks::exec_command_ctx ctx;
    ctx.stdin_fd = gate_in.get();
    unsigned char reply[4];
    char record[10] = {};
    const struct iovec parts[2] = {{record, 4}, {record, 6}};
    const struct {
        const char* name;
        long syscall;  // where the call blocks
        std::function<long()> call;
        std::function<void()> release;
        long expected;
    } cases[] = {
        {"exec_command waits", SYS_wait4,
         [&] { return ks::exec_command(argv, ctx) == -1 && ctx.has_result ? ctx.result : -100; },
         [&] { gate_out.reset(); }, 3},
        {"settings reply", SYS_recvfrom, [&] { return client.recv(reply, sizeof reply, false, true); },
         [&] { (void)!::write(server.get(), "abcd", 4); }, 4},
        {"write_all", SYS_write, [&] { return write_all(full_out.get(), record, sizeof record, 1); }, drain, 10},
        {"writev_all", SYS_writev, [&] { return writev_all(full_out.get(), parts, 2); }, drain, 10},
    };
    const pid_t self = static_cast<pid_t>(::syscall(SYS_gettid));
    const pthread_t caller = ::pthread_self();
    for (const auto& c : cases) {
        drain();
        ASSERT_EQ(static_cast<ssize_t>(brim.size()), ::write(full_out.get(), brim.data(), brim.size()));
        std::atomic<bool> returned{false};  // a call that failed before it blocked
        std::thread helper([&] {
            while (!returned && blocked_in(self) != c.syscall) std::this_thread::sleep_for(1ms);
            const int before = g_interruptions;
            ::pthread_kill(caller, SIGUSR1);
            // A wake-up before the handler ran would let the call finish without seeing the signal.
            while (g_interruptions == before) std::this_thread::sleep_for(1ms);
            c.release();
        });
        EXPECT_EQ(c.expected, c.call()) << c.name;
        returned = true;
        helper.join();
    }
    ::sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
