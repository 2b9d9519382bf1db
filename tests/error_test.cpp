// The thread's error record: names of unknown codes, thread-locality, messages, no reallocation.
#include <ksutils/error.h>

#include <gtest/gtest.h>

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

// Known codes are checked wherever a module reports one; here each thread's record and unknown codes.
TEST(ErrorRecord, EachThreadHasItsOwnRecordAndUnknownCodesAreNamedInHex) {
    _get_kserrno().set(ks::E_TIMEDOUT, "main thread");
    std::string fresh;
    std::thread([&] {
        auto& e = _get_kserrno();
        fresh = std::to_string(e.code) + " " + e.name.str() + " " + e.message.str();
        e.set(ks::E_AGAIN, "other thread");
    }).join();
    EXPECT_EQ(fresh, "0 E_OK Operation successfull");
    EXPECT_EQ(_get_kserrno().message.view(), "main thread");
    const std::pair<int, const char*> unknown[] = {{8, "UNKNOWN(0x8)"}, {255, "UNKNOWN(0xff)"}, {-1, "UNKNOWN(0x-1)"}};
    for (const auto& [code, name] : unknown) {
        auto& e = _get_kserrno().set(code);
        EXPECT_EQ(std::to_string(e.code) + " " + e.name.str() + " " + e.message.c_str(),
                  std::to_string(code) + " " + name + " Unknown error");
    }
}

// Verbatim messages; the record keeps its storage: no remnant after a long text, no allocation when repeated.
TEST(ErrorRecord, MessagesOfAnyLengthReuseTheirStorage) {
    auto& e = _get_kserrno();
    const std::string long_text(2000, 'x');
    for (const char* text : {"plain {} text", long_text.c_str(), "short"}) {
        e.set(ks::E_FAULT, text);
        EXPECT_EQ(std::string(e.message.c_str()), text);
    }
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
