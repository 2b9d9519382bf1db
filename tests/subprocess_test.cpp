// A supervised shell child writing NUL-framed messages, stopped or killed.
#include <ksutils/subprocess.h>

#include <gtest/gtest.h>

#include <poll.h>

#include "kslogcapture.h"

namespace {

using ks::Subprocess;
using Messages = std::vector<std::string>;

class SubprocessTest : public ::testing::Test {
protected:
    // A subprocess running `script` with /bin/sh.
    std::unique_ptr<Subprocess> child(const std::string& script) {
        const std::string file = dir_ / ("child" + std::to_string(++scripts_) + ".sh");
        kstest::write_file(file, script);
        return std::make_unique<Subprocess>(Subprocess::Type::UPNP, "/bin/sh " + file);
    }

    // Messages until `count` arrived, the child ended or two seconds passed.
    static Messages collect(Subprocess& p, size_t count) {
        Messages all;
        for (int i = 0; i < 200 && all.size() < count && p.pid() > 0; ++i) {
            pollfd pfd{p.fd(), POLLIN, 0};
            if (::poll(&pfd, 1, 10) <= 0) continue;
            for (auto& m : p.recv()) all.push_back(std::move(m));
        }
        return all;
    }

    kstest::LogCapture log_{"subprocess_test"};
    kstest::TempDir dir_;
    int scripts_ = 0;
};

// The child waits for the stop byte on its standard output, where the daemon sends it.
constexpr const char* kAwaitStop = "head -c 1 <&1 >/dev/null\n";

TEST_F(SubprocessTest, MessagesAreCutAtNulAcrossReadsAndTheBufferSize) {
    auto p = child(std::string("printf 'a\\0b\\0c'; sleep 0.2; printf 'd\\0'\n") +
                   "for i in 1 2 3; do head -c 30000 /dev/zero | tr '\\0' x; printf '\\0'; done\n" +
                   "head -c 70000 /dev/zero | tr '\\0' y; printf '\\0ok\\0'\n" + kAwaitStop);
    ASSERT_TRUE(p->start());
    // One collection: how the bytes are spread over reads depends on the machine's load.
    const std::string x(30000, 'x');
    EXPECT_EQ((Messages{"a", "b", "cd", x, x, x, "ok"}), collect(*p, 7)) << "the oversized message is dropped whole";
    p->stop(true);
    EXPECT_EQ(std::make_pair(-1, 0u), std::make_pair(p->pid(), p->failure_count()));
}

TEST_F(SubprocessTest, EndsPrematureFailedAndStubborn) {
    auto quitter = child("exit 0\n");
    auto missing = std::make_unique<Subprocess>(Subprocess::Type::LEASES, "/nonexistent/program --flag");
    const std::string out = log_.during([&] {
        for (auto* p : {quitter.get(), missing.get()}) {
            ASSERT_TRUE(p->start());
            EXPECT_TRUE(collect(*p, 1).empty());
            EXPECT_EQ(std::make_tuple(-1, 1u, -1), std::make_tuple(p->pid(), p->failure_count(), p->fd()));
        }
    });
    EXPECT_TRUE(kstest::has_record(out, "Subprocess (type=UPNP, pid=*) terminated prematurely")) << out;
    EXPECT_TRUE(kstest::has_record(out, "Subprocess (type=LEASES, pid=*) exited normally (2)")) << "ENOENT\n" << out;

    Subprocess empty(Subprocess::Type::AVAHI, " ");
    EXPECT_TRUE(!empty.start() && empty.failure_count() == 1u) << "an empty command is a failed start";

    auto stubborn = child("trap '' TERM; exec sleep 30\n");  // only SIGKILL ends it
    ASSERT_TRUE(stubborn->start());
    const std::string killed = log_.during([&] { stubborn->stop(true); });
    EXPECT_TRUE(kstest::has_record(killed, "Subprocess (type=UPNP, pid=*) exited abnormally")) << killed;
    EXPECT_EQ(-1, stubborn->pid());
}

TEST_F(SubprocessTest, StartStopCyclesLeaveNoDescriptorsOrZombies) {
    auto p = child(std::string("printf 'up\\0'\n") + kAwaitStop);
    const int fds = kstest::open_descriptors();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(i % 2 ? p->restart() : p->start());
        ASSERT_EQ((Messages{"up"}), collect(*p, 1));
        if (i % 2) p->stop(true);
    }
    p->stop(false);
    EXPECT_EQ(fds, kstest::open_descriptors());
    EXPECT_EQ(0, kstest::zombie_children());
}

}  // namespace
