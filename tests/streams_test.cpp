// Memory streams, open-mode translation, cross-process file locks and private maps.
#include <ksutils/error.h>
#include <ksutils/streams.h>

#include "kstest.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace {

using std::ios_base;

TEST(Memstream, GrowsKeepsNulRewindsAndReadsFiles) {
    ks::basic_memstream s(4);
    s << "abc";
    EXPECT_STREQ(s.c_str(), "abc");
    s << "defghij" << 42 << 'x';
    EXPECT_EQ(s.view(), "abcdefghij42x");
    EXPECT_STREQ(s.c_str(), "abcdefghij42x");
    const size_t grown = s.capacity();
    s.reset();
    s << "z";
    EXPECT_STREQ(s.c_str(), "z") << "no remnant of the longer text";
    EXPECT_EQ(s.capacity(), grown) << "storage is kept";
    EXPECT_EQ(s.tellp(), 1);
    ks::basic_memstream copy(s);
    copy << "q";
    EXPECT_EQ(copy.view(), "zq");
    EXPECT_EQ(s.view(), "z");

    kstest::TempDir dir;
    const std::string big(10000, 'b');
    ASSERT_TRUE(kstest::write_file(dir / "f", big));
    ASSERT_TRUE(s.read_file(dir / "f", false));
    EXPECT_EQ(s.str(), "z" + big);
    ASSERT_TRUE(s.read_file(dir / "f", true));
    EXPECT_EQ(s.str(), big);
    EXPECT_FALSE(s.read_file(dir / "missing", true));
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_SYSTEM);
    EXPECT_EQ(s.str(), big) << "a failed read leaves the stream as it was";
}

TEST(TranslateMode, FromModeTextAndOpenFlags) {
    const auto in = ios_base::in, out = ios_base::out, bin = ios_base::binary, trunc = ios_base::trunc, app = ios_base::app;
    const std::pair<const char*, ios_base::openmode> texts[] = {
        {"", in | out}, {"b", in | out | bin}, {"r", in}, {"r+", in | out}, {"rb+", in}, {"r+b", in | out | bin},
        {"w", out | trunc}, {"w+", in | out | trunc}, {"a", out | app}, {"a+", in | out | app}};
    for (const auto& [mode, expected] : texts)
        EXPECT_EQ(ks::detail::translate_mode(ks::string_view(mode)), expected) << '"' << mode << '"';
    const std::pair<int, ios_base::openmode> flags[] = {
        {O_RDONLY, in | out | bin}, {O_WRONLY | O_TRUNC, out | trunc | bin},
        {O_RDWR | O_APPEND, in | out | app | bin}, {O_WRONLY | O_RDWR, in | out | bin}};
    for (const auto& [flag, expected] : flags) EXPECT_EQ(ks::detail::translate_mode(flag), expected) << flag;
}

// Writing truncates, reading parses, a private map of the file never writes back.
TEST(Fstream, ReadsWritesMapsAndReportsOpenFailure) {
    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "f", "older and longer contents\n"));
    {
        ks::fstream out(dir / "f", "w");
        ASSERT_TRUE(out.is_open());
        out << "line " << 1 << "\n";
    }
    EXPECT_EQ(kstest::read_file(dir / "f"), "line 1\n");
    ks::fstream in(dir / "f", "r");
    std::string word;
    int n = 0;
    in >> word >> n;
    EXPECT_EQ(word + std::to_string(n), "line1");
    ks::fstream missing(dir / "nope/f", "r");
    EXPECT_TRUE(!missing.is_open() && missing.fail());
    EXPECT_EQ(ks::_get_kserrno().code, ks::E_SYSTEM);

    ks::fstream f(dir / "f", "r+");
    void* addr = ks::basic_memorymap_base::failed;
    size_t size = 0;
    ASSERT_EQ(ks::basic_memorymap_base::do_map(false, f, 0, 1 << 20, addr, size), 0);
    EXPECT_EQ(size, 7u) << "clipped to the file";
    static_cast<char*>(addr)[0] = 'X';
    ks::basic_memorymap_base::do_unmap(addr, size);
    EXPECT_TRUE(addr == ks::basic_memorymap_base::failed && size == 0u) << "unmapping resets both";
    EXPECT_EQ(kstest::read_file(dir / "f"), "line 1\n");

    ks::memorymap map;
    ASSERT_TRUE(map.map(true, f, 0, 0));
    EXPECT_EQ(map.size(), 1u) << "a length of 0 maps one byte";
    EXPECT_EQ(*static_cast<const char*>(map.data()), 'l');
    EXPECT_FALSE(map.map(true, missing));
    EXPECT_EQ(map.data(), nullptr);
}

TEST(Fstream, LocksAreExclusiveBetweenProcesses) {
    kstest::TempDir dir;
    ASSERT_TRUE(kstest::write_file(dir / "lock", ""));
    ks::fstream f(dir / "lock", "r+");
    ASSERT_TRUE(f.is_open());
    EXPECT_EQ(f.is_locked(), 0);
    {
        kstest::HeldChild holder([&](const kstest::HeldChild::Report& report) {
            ks::fstream held(dir / "lock", "r+");
            report(held.lock() == 1 ? 'L' : 'E');
        });
        ASSERT_EQ(holder.answer, 'L');
        int pid = 0;
        EXPECT_TRUE(f.is_locked(pid) == 1 && pid == holder.pid) << pid;
        EXPECT_EQ(f.lock(), 0) << "held by another process: answered at once";
        holder.release();
        EXPECT_EQ(f.wait_lock(), 1) << "waits until the holder lets go";
    }
    EXPECT_EQ(f.unlock(), 0);
    ks::fstream closed;
    EXPECT_EQ(closed.lock(), -1);
}

}  // namespace
