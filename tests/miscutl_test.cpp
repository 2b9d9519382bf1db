// Foundation utilities: splitting, hex text, sizes, fork hooks, process locks, the environment block.
#include <ksplock.h>
#include <ksutils/buffer.h>
#include <ksutils/environ.h>
#include <ksutils/error.h>
#include <ksutils/fork.h>
#include <ksutils/miscutl.h>
#include <ksutils/process_lock.h>

#include "kstest.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <set>

namespace {

TEST(StringView, Split) {
    const struct {
        const char* text;
        char sep;
        size_t max;
        std::vector<std::string> pieces;
    } cases[] = {
        {"/a//b/", '/', 0, {"", "a", "", "b", ""}},
        {"", '/', 0, {""}},
        {"a b c d", ' ', 2, {"a", "b c d"}},
        {"a b", ' ', 1, {"a b"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> got;
        for (auto piece : ks::string_view(c.text).split(c.sep, c.max)) got.emplace_back(piece);
        EXPECT_EQ(got, c.pieces) << '"' << c.text << "\" max " << c.max;
    }
}

TEST(Hex, AgreesWithCoreutilsAndRefusesBadText) {
    std::string all;
    for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "bytes", all));
    std::string od;
    ASSERT_EQ(kstest::run("od -An -v -tx1 '" + dir / "bytes" + "' | tr -d ' \\n'", &od), 0);
    EXPECT_EQ(ks::hex_encode(all), od);
    ks::buffer upper;
    ASSERT_TRUE(ks::hex_decode("DEADbeef", upper));
    EXPECT_EQ(ks::hex_encode(upper.data(), upper.size()), "deadbeef");
    // Bad text fails and keeps the output.
    for (const char* bad : {"zz", "0g", "12 4"}) {
        ks::buffer out{1, 2};
        EXPECT_FALSE(ks::hex_decode(bad, out)) << bad;
        EXPECT_EQ(out.size(), 2u) << bad;
        EXPECT_EQ(ks::_get_kserrno().code, ks::E_INVAL);
    }
    EXPECT_FALSE(ks::hex_decode(ks::string_view("abcd", 3), upper)) << "the length, not the NUL, ends the text";
    EXPECT_EQ(kstest::error_text(), "E_INVAL Hexadecimal text of odd length");
}

TEST(HumanSize, Units) {
    const std::pair<uint64_t, const char*> cases[] = {
        {1023, "1023 B"}, {1024, "1.0 KiB"}, {1536, "1.5 KiB"}, {3ull << 40, "3.0 TiB"}, {UINT64_MAX, "16.0 EiB"}};
    for (const auto& [bytes, text] : cases) EXPECT_EQ(ks::human_size(bytes), text) << bytes;
}

std::atomic<int> g_hook_calls{0};
void count_hook() { ++g_hook_calls; }

TEST(ForkHooks, RunInChildOnlyForLibraryForks) {
    ASSERT_EQ(ks::lib_atfork(count_hook), 0);
    ASSERT_EQ(ks::lib_atfork(count_hook), 0) << "registering twice keeps one entry";
    EXPECT_EQ(kslib_atfork(nullptr), -1);
    auto child_count = [](pid_t pid) {  // the hook calls the child saw
        if (pid == 0) _exit(g_hook_calls.load());
        int status = 0;
        return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(child_count(ks::fork()), 1);
    EXPECT_EQ(child_count(::fork()), 0) << "a plain fork runs no hooks";
    EXPECT_EQ(g_hook_calls.load(), 0) << "the parent never runs them";
}

TEST(ProcessLock, HolderPidVisibleToOtherProcesses) {
    kstest::TempDir dir;
    const std::string file = dir / "daemon.pid";
    kstest::HeldChild child([&](const kstest::HeldChild::Report& report) {
        ks::ProcessLock lock;
        report(lock.open(file) && lock.lock() == 1 ? 'L' : 'E');
    });
    ASSERT_EQ(child.answer, 'L');

    ks::ProcessLock other;
    ASSERT_TRUE(other.open(file));
    pid_t holder = 0;
    EXPECT_EQ(other.holder_pid(holder), 1);
    EXPECT_EQ(holder, child.pid);
    EXPECT_EQ(other.is_locked(), 1);
    EXPECT_EQ(other.lock(), 0);
    EXPECT_EQ(kstest::read_file(file), std::to_string(child.pid) + "\n") << "pid text for start-stop-daemon";

    auto waited = std::async(std::launch::async, [&] { return other.wait_lock(); });
    while (waited.wait_for(std::chrono::milliseconds(1)) == std::future_status::timeout &&
           kstest::read_file("/proc/locks").find("->") == std::string::npos) {}  // until it blocks
    child.release(true);  // the holder exits, which releases the lock
    EXPECT_EQ(waited.get(), 1);
    EXPECT_EQ(other.holder_pid(holder), 0);
    EXPECT_EQ(kstest::read_file(file), std::to_string(getpid()) + "\n");
    EXPECT_EQ(other.unlock(), 0);

    EXPECT_EQ(plock_open((dir / "no/such/dir/x.pid").c_str(), O_RDWR | O_CREAT), -1);
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_SYSTEM);
    EXPECT_EQ(plock_lock(-1), -1);
}

TEST(Environ, CopiesEditsAndServesEnvp) {
    setenv("KSTEST_ENV", "one", 1);
    ks::Environ env;
    EXPECT_EQ(env.get("KSTEST_ENV").value_or(""), "one");
    EXPECT_FALSE(env.get("KSTEST_ENV_MISSING").has_value());
    ASSERT_TRUE(env.set("KSTEST_ENV", "two=2"));
    ASSERT_TRUE(env.set("KSTEST_NEW", ""));
    env.unset("KSTEST_ENV_MISSING");
    EXPECT_FALSE(env.set("BAD=NAME", "x"));
    EXPECT_FALSE(env.set("", "x"));
    EXPECT_STREQ(getenv("KSTEST_ENV"), "one") << "the process environment is untouched";

    // The block as execve() takes it: our two entries once each, then the terminating null.
    std::multiset<std::string> ours;
    for (size_t i = 0; i < env.size(); ++i)
        if (std::string(env.envp()[i]).rfind("KSTEST_", 0) == 0) ours.insert(env.envp()[i]);
    EXPECT_EQ(ours, (std::multiset<std::string>{"KSTEST_ENV=two=2", "KSTEST_NEW="}));
    EXPECT_EQ(env.envp()[env.size()], nullptr);
    env.unset("KSTEST_NEW");
    EXPECT_FALSE(env.get("KSTEST_NEW").has_value());
}

}  // namespace
