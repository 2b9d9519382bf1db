// The thread's error record: codes, names, messages, thread-locality, no reallocation.
#include <ksutils/error.h>

#include <gtest/gtest.h>

#include <fcntl.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

// Counts heap allocations of this thread while armed, library code included.
namespace {
thread_local bool g_counting = false;
thread_local long g_allocations = 0;
}  // namespace

void* operator new(std::size_t size) {
    if (g_counting) ++g_allocations;
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using ks::_get_kserrno;

// The names and default texts of the known codes are checked wherever a module reports
// one; here only what is computed: a fresh thread's record and the names of unknown codes.
TEST(ErrorRecord, FreshThreadReadsOkAndUnknownCodesAreNamedInHex) {
    std::string fresh;
    std::thread([&] {
        auto& e = _get_kserrno();
        fresh = std::to_string(e.code) + " " + e.name.str() + " " + e.message.str();
    }).join();
    EXPECT_EQ(fresh, "0 E_OK Operation successfull");
    const std::pair<int, const char*> unknown[] = {{8, "UNKNOWN(0x8)"}, {255, "UNKNOWN(0xff)"}, {-1, "UNKNOWN(0x-1)"}};
    for (const auto& [code, name] : unknown) {
        auto& e = _get_kserrno().set(code);
        EXPECT_EQ(e.code, code);
        EXPECT_EQ(e.name.view(), name) << code;
        EXPECT_EQ(std::string(e.message.c_str()), "Unknown error") << code;
    }
}

TEST(ErrorRecord, SystemErrorCarriesErrnoText) {
    ASSERT_LT(::open("/nonexistent/kstest-missing", O_RDONLY), 0);
    auto& e = _get_kserrno().set(ks::E_SYSTEM);
    EXPECT_EQ(e.name.view(), "E_SYSTEM");
    EXPECT_EQ(e.message.view(), "System error: No such file or directory");
}

TEST(ErrorRecord, FormattedAndVerbatimMessages) {
    auto& e = _get_kserrno();
    EXPECT_EQ(e.set(ks::E_INVAL, "plain {} text").message.view(), "plain {} text");
    EXPECT_EQ(e.set(ks::E_FAULT, "waitpid failed: {:s}", std::string("boom")).message.view(), "waitpid failed: boom");
    EXPECT_EQ(e.set(ks::E_INVAL, "{:d} of {:s}", 3, ks::string_view("five")).message.view(), "3 of five");
    EXPECT_EQ(e.set(9, "c={:c}", 'x').name.view(), "UNKNOWN(0x9)");
    EXPECT_EQ(e.message.view(), "c=x");
}

TEST(ErrorRecord, LongMessageStoredWholeAndLeavesNoRemnant) {
    auto& e = _get_kserrno();
    std::string long_text(2000, 'x');
    e.set(ks::E_FAULT, long_text);
    EXPECT_EQ(e.message.view(), long_text);
    e.set(ks::E_INVAL, "short");
    EXPECT_EQ(std::string(e.message.c_str()), "short");
}

TEST(ErrorRecord, ThreadsDoNotSeeEachOthersErrors) {
    _get_kserrno().set(ks::E_TIMEDOUT, "main thread");
    std::atomic<int> other_code{-1};
    std::thread([&] {
        _get_kserrno().set(ks::E_AGAIN, "other thread");
        other_code = _get_kserrno().code;
    }).join();
    EXPECT_EQ(other_code.load(), ks::E_AGAIN);
    EXPECT_EQ(_get_kserrno().code, ks::E_TIMEDOUT);
    EXPECT_EQ(_get_kserrno().message.view(), "main thread");
}

TEST(ErrorRecord, RepeatedErrorsOfKnownSizeDoNotAllocate) {
    auto& e = _get_kserrno();
    e.set(ks::E_FAULT, "warm-up {:s} {:d}", std::string(300, 'w'), 1);
    g_allocations = 0;
    g_counting = true;
    for (int i = 0; i < 100; ++i) {
        e.set(ks::E_INVAL);
        e.set(-1);
        e.set(ks::E_SYSTEM);
        e.set(ks::E_FAULT, "Failed to parse data");
        e.set(ks::E_FAULT, "value {:d} of {:s}", i, ks::string_view("key"));
    }
    g_counting = false;
    EXPECT_EQ(g_allocations, 0);
}

}  // namespace
