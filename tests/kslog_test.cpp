// Log core: levels, channels, records stamped and cut, rotation, threads, fork, all-or-nothing writes.
#include <ksfork.h>
#include <kswrite.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <regex>
#include <thread>

#include "kslog_fixture.h"

namespace {

using kslogtest::execute;
using kslogtest::LoggerTest;

off_t file_size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(KslogLevels, ConversionsAcceptOnlyTheirOwnStrings) {
    const char* logstr[] = {"error", "warn", "info", "debug", "trace"};
    const char* userstr[] = {"error", "warning", "info", "debug", "trace"};
    for (int level = 0; level <= 4; ++level) {
        EXPECT_STREQ(kslog_lvl_to_logstr(level), logstr[level]);
        EXPECT_STREQ(kslog_lvl_to_userstr(level), userstr[level]);
        EXPECT_EQ(kslog_logstr_to_lvl(logstr[level]), level);
        EXPECT_EQ(kslog_userstr_to_lvl(userstr[level]), level);
    }
    for (const char* unknown : {"warning", "WARN", "", "fatal"}) EXPECT_EQ(kslog_logstr_to_lvl(unknown), 0) << unknown;
    for (const char* unknown : {"warn", "Info", "", "fatal"}) EXPECT_EQ(kslog_userstr_to_lvl(unknown), 0) << unknown;
    EXPECT_EQ(kslog_userstr_to_lvl(nullptr), 0);
}

TEST(KslogIdentity, IsTheNameAfterTheLastSlash) {
    const std::string longest(511, 'a'), too_long(512, 'a');
    const std::pair<const char*, const char*> table[] = {
        {"/opt/kestrum/bin/kssetmgmt", "kssetmgmt"}, {"kscloudd", "kscloudd"}, {"./a/b", "b"}, {"/usr/bin/", nullptr},
        {"", nullptr}, {longest.c_str(), longest.c_str()}, {too_long.c_str(), nullptr}, {nullptr, nullptr}};
    for (const auto& [path, identity] : table) {
        const char* id = kslog_identity(path);
        EXPECT_EQ(id ? std::string(id) : "(null)", identity ? identity : "(null)") << (path ? path : "(null)");
    }
}

TEST_F(LoggerTest, StampsRecordsInPlaceIgnoresShortOnesAndCutsLongOnes) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":"hdr","level":"trace"}]}})"), 0);
    const char* words[] = {"error", " warn", " info", "debug", "trace"};
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");
    char pid[8];
    std::snprintf(pid, sizeof pid, "%6d", static_cast<int>(::getpid()));
    std::vector<std::string> stamped;
    for (int level = 0; level <= 4; ++level) {
        std::string text = kslogtest::record("level " + std::to_string(level));
        kslog_log_full(0, level, text.data(), text.size());
        EXPECT_TRUE(std::regex_match(text.substr(0, 24), stamp)) << text;
        EXPECT_EQ(text.substr(24), std::string(pid) + " " + words[level] + " [test.cpp:1][test()]: level " +
                                       std::to_string(level) + "\n");
        stamped.push_back(text);
    }
    // Below 37 bytes nothing is written; the bare header runs into the next record, cut to 4095 bytes.
    std::string short_record(36, 'x'), bare = kslogtest::record("").substr(0, 37);
    std::string long_record = kslogtest::record(std::string(5000, 'm'));
    for (std::string* r : {&short_record, &bare, &long_record}) kslog_log_full(0, 0, r->data(), r->size());
    kslog_log_full(0, 0, nullptr, 100);
    const std::string text = decrypt(root / "var/log/kstestd.hdr.0");
    EXPECT_EQ(kslogtest::test_records(text), stamped);
    const std::string last = text.substr(text.rfind('\n', text.size() - 2) + 1);
    EXPECT_EQ(last.substr(36, 1) + last.substr(37 + 37),
              " [test.cpp:1][test()]: " + std::string(4024, 'm') + "[TRUNCATED]\n");
}

TEST_F(LoggerTest, ChannelsOpenCloseCopy) {
    start();
    const std::string name31(31, 'c'), name32(32, 'c');
    for (const char* refused : {static_cast<const char*>(nullptr), "", name32.c_str()})
        EXPECT_EQ(kslog_channel_open(refused), 0);
    const int a = kslog_channel_open(name31.c_str());
    EXPECT_EQ(a, 1);
    EXPECT_EQ(kslog_channel_open(name31.c_str()), a);

    // A new channel copies the default's outputs; closed, it logs nothing and refuses copies until reopened.
    EXPECT_EQ(kschlog_get_max_level(a), 0);
    kslog_channel_close(a);
    EXPECT_FALSE(kslog_can_log(a, 0));
    EXPECT_EQ(kslog_channel_copy(a, 0), -1);
    EXPECT_EQ(kslog_channel_open(name31.c_str()), a);
    EXPECT_TRUE(kslog_can_log(a, 0));
    for (int never_closed : {0, -1, 999}) kslog_channel_close(never_closed);
    EXPECT_TRUE(kslog_can_log(0, 0));

    ASSERT_EQ(execute(R"({"action":"update","channels":{"verbose":[{"file":":stderr","level":"trace"}]}})"), 0);
    EXPECT_EQ(kslog_channel_copy(a, kslog_channel_get_by_name("verbose")), 0);
    EXPECT_EQ(kschlog_get_max_level(a), 4);
    for (const auto& [dst, src] : {std::pair{a, a}, {-1, 0}, {a, 77}}) EXPECT_EQ(kslog_channel_copy(dst, src), -1);

    for (int i = kslog_get_num_channels(); i < 64; ++i)
        EXPECT_EQ(kslog_channel_open(("ch" + std::to_string(i)).c_str()), i);
    EXPECT_EQ(kslog_channel_open("one-too-many"), 0);
    EXPECT_EQ(kslog_channel_get_by_name("one-too-many"), -1);
    EXPECT_FALSE(kslog_can_log(64, 0));
}

TEST_F(LoggerTest, EachOutputFiltersByItsOwnLevelWithinTheGlobalLimits) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","global":{"size":8192},"channels":{
        "net":[{"file":"errors","level":"error"},{"file":"all","level":"debug"}],
        "a":[{"file":"a","size":100,"num":1}],"b":[{"file":"b","size":10000000,"num":7}]}})"),
              0);
    const int net = kslog_channel_get_by_name("net");
    std::string sizes;
    EXPECT_EQ(kschlog_get_max_level(net), 3);
    for (int level : {0, 2, 4}) kslogtest::log(net, level, "level " + std::to_string(level));
    EXPECT_EQ(kslogtest::messages(decrypt(root / "var/log/kstestd.errors.0")), "level 0\n");
    EXPECT_EQ(kslogtest::messages(decrypt(root / "var/log/kstestd.all.0")), "level 0\nlevel 2\n");
    for (const char* channel : {"a", "b"})
        sizes += kslogtest::config_text(channel, "size") + " " + kslogtest::config_text(channel, "num") + " ";
    EXPECT_EQ(sizes, "4096 1 8192 2 ");
}

TEST_F(LoggerTest, RotatesByRenamingAndKeepsAtMostNumFiles) {
    start();
    const auto message = [](int i) { return "record " + std::to_string(i) + std::string(150, '.'); };
    for (int num : {2, 1}) {
        SCOPED_TRACE(num);
        const std::string name = "rot" + std::to_string(num), base = root / ("var/log/kstestd." + name + ".");
        ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":")" + name +
                          R"(","level":"info","size":4096,"num":)" + std::to_string(num) + "}]}}"),
                  0);
        for (int i = 0; i < 100; ++i) kslogtest::log(0, 2, message(i));
        EXPECT_LT(file_size(base + std::to_string(num)), 0);
        std::string kept;
        for (int i = num - 1; i >= 0; --i) {
            const std::string file = base + std::to_string(i);
            bool ok = false;
            kept += kslogtest::messages(decrypt(file, &ok));
            EXPECT_TRUE(ok);
            EXPECT_EQ(kslogtest::block_types(file).at(0), 1) << "a fresh file starts with a key block";
            EXPECT_LT(file_size(file), 4096 + 2 * (5 + 256));
        }
        // What survives is the newest run of records, without gaps.
        const int survivors = static_cast<int>(std::count(kept.begin(), kept.end(), '\n'));
        ASSERT_GT(survivors, 0);
        std::string newest;
        for (int i = 100 - survivors; i < 100; ++i) newest += message(i) + "\n";
        EXPECT_EQ(kept, newest);
    }
}

// Stopped, every call answers its default and nothing is written; a failed start leaves it stopped.
TEST_F(LoggerTest, StartsWithTheDefaultChannelAndStopsAtTheLastStop) {
    start("/opt/kestrum/bin/ksdevmgmt");
    start("/opt/kestrum/bin/ksdevmgmt");
    EXPECT_EQ(std::tuple(kslog_get_num_channels(), kslog_channel_get_by_name("default"), kslog_can_log(0, 0),
                         kslog_can_log(0, 1)),
              std::tuple(1, 0, 1, 0));
    kslogtest::log(0, 0, "first error");
    EXPECT_GE(file_size(root / "var/log/ksdevmgmt.lock"), 0);
    EXPECT_EQ(kslogtest::block_types(root / "var/log/ksdevmgmt.0"), (std::vector<int>{1, 2}));
    ASSERT_EQ(execute(R"({"action":"update","global":{"size":8192,"num":1},"channels":{"extra":[]}})"), 0);
    kslog_uninit();
    EXPECT_TRUE(kslog_can_log(0, 0));
    kslog_uninit();
    EXPECT_EQ(std::tuple(kslog_can_log(0, 0), kslog_channel_open("x"), kslog_get_max_log_size(),
                         kslog_get_max_num_logs()),
              std::tuple(0, -1, 262144u, 2u));
    kslogtest::log(0, 0, "after the end");
    bool ok = false;
    EXPECT_EQ(kslogtest::messages(decrypt(root / "var/log/ksdevmgmt.0", &ok)), "first error\n");
    EXPECT_TRUE(ok);

    const std::string long_root(4096, 'r');
    const char* r = root.path().c_str();
    for (const auto& [identity, install] : {std::pair{"/bin/", r}, {nullptr, r}, {"/bin/kstestd", long_root.c_str()}})
        EXPECT_EQ(kslog_init(identity, install, nullptr), -1);
    EXPECT_FALSE(kslog_initialized());
    EXPECT_EQ(kslog_get_num_channels(), 0);
    start();
    EXPECT_EQ(kslog_get_num_channels(), 1);
    kslog_uninit();
    ::unlink((root / "etc/logs-pub.pem").c_str());
    EXPECT_EQ(kslog_init("/bin/kstestd", root.path().c_str(), nullptr), -1);
    EXPECT_FALSE(kslog_initialized());
}

// A kept-open file removed, then left with a torn header (writer killed), is made again at the next record.
TEST_F(LoggerTest, ThreadsWriteWholeRecordsToAFileMadeAgainWhenRemoved) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":"mt","level":"info"}]}})"), 0);
    const std::string file = root / "var/log/kstestd.mt.0";
    const auto numbered = [](int who, int seq) {
        return "writer " + std::to_string(who) + " seq " + std::to_string(seq) + " " + std::string(who * 30, '#');
    };
    for (int round = 0; round < 2; ++round) {
        if (round == 1) {
            ASSERT_TRUE(::unlink(file.c_str()) == 0 && kstest::write_file(file, "KSCL\x01"));
        }
        std::vector<std::thread> pool;
        for (int t = 0; t < 4; ++t)
            pool.emplace_back([t, &numbered] {
                for (int i = 0; i < 200; ++i) kslogtest::log(0, 2, numbered(t, i));
            });
        for (auto& th : pool) th.join();
    }
    // Whole, one line a record block; sorted by writer, each writer's records keep their order.
    bool ok = false;
    const std::string text = decrypt(file, &ok);
    const auto types = kslogtest::block_types(file);
    EXPECT_TRUE(ok);
    EXPECT_EQ(static_cast<size_t>(std::count(types.begin(), types.end(), 2)), kslogtest::lines(text).size());
    auto got = kslogtest::lines(kslogtest::messages(text));
    std::stable_sort(got.begin(), got.end(),
                     [](const std::string& a, const std::string& b) { return a.compare(0, 8, b, 0, 8) < 0; });
    std::vector<std::string> expected;
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 200; ++i) expected.push_back(numbered(t, i) + "\n");
    EXPECT_EQ(got, expected);
}

TEST_F(LoggerTest, ForkedChildCanLogWhileAParentThreadHeldTheLocks) {
    start();
    ASSERT_EQ(execute(R"({"action":"update","channels":{"default":[{"file":"fork","level":"info"}]}})"), 0);
    std::atomic<bool> stop{false};
    std::thread busy([&stop] {
        // Mostly the table's write lock; now and then a record (the file's mutex), too few to rotate.
        for (unsigned i = 0; !stop; ++i) {
            kslog_channel_open("busy");
            if (i % 4096 == 0) kslogtest::log(0, 2, "parent thread");
        }
    });
    int failed = 0;
    for (int i = 0; i < 30; ++i) {
        const pid_t pid = ksfork();
        if (pid == 0) {
            ::alarm(10);  // a deadlocked child dies instead of hanging the test
            kslog_channel_open("child");
            kslogtest::log(0, 2, "child record");
            ::_exit(0);
        }
        int status = -1;
        if (pid < 0 || ::waitpid(pid, &status, 0) != pid || status != 0) ++failed;
    }
    stop = true;
    busy.join();
    EXPECT_EQ(failed, 0);
    bool ok = false;
    const auto records = kslogtest::lines(kslogtest::messages(decrypt(root / "var/log/kstestd.fork.0", &ok)));
    EXPECT_TRUE(ok);
    EXPECT_EQ(std::count(records.begin(), records.end(), "child record\n"), 30);
}

// 1000-byte records into a 64 KiB filesystem: each ENOSPC leaves whole records, the offset at the end.
TEST(KslogWrite, FullDiskLeavesNoPartialRecord) {
    kstest::TempDir dir;
    const int rc = kstest::in_child([&] {
        if (!kstest::private_mounts() || ::mount("kstest", dir.path().c_str(), "tmpfs", 0, "size=64k") != 0) return 77;
        std::string chunk(1000, 'r');
        const struct iovec parts[3] = {{&chunk[0], 1}, {&chunk[1], 499}, {&chunk[500], 500}};
        for (int vectored = 0; vectored < 2; ++vectored) {
            const std::string path = dir / (vectored ? "v" : "w");
            ks::unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
            int written = 0, failures = 0;
            while (failures < 3 && written < 1000) {
                const int f = fd.get();
                const ssize_t n = vectored ? writev_all(f, parts, 3) : write_all(f, chunk.data(), 1000, 0);
                if (n != 1000 && (n != -1 || errno != ENOSPC)) return 3;
                (n == 1000 ? written : failures) += 1;
                if (file_size(path) != written * 1000 || ::lseek(fd.get(), 0, SEEK_CUR) != written * 1000) return 4;
            }
            if (failures == 0) return 5;  // the filesystem never filled
            ::unlink(path.c_str());
        }
        return 0;
    });
    if (rc == 77) GTEST_SKIP() << "cannot mount a small filesystem here";
    EXPECT_EQ(rc, 0);
}

// EFBIG past the file-size limit: all-or-nothing writes take their partial bytes back, the others do not.
TEST(KslogWrite, OtherErrorsHonourTheAllOrNothingFlag) {
    kstest::TempDir dir;
    const int rc = kstest::in_child([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit = {2500, 2500};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
        char chunk[1000] = {};
        const struct iovec parts[2] = {{chunk, 400}, {chunk, 600}};
        ks::unique_fd file(::open((dir / "f").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
        const int fd = file.get();
        if (write_all(fd, chunk, 1000, 1) != 1000 || write_all(fd, chunk, 1000, 1) != 1000) return 3;
        if (write_all(fd, chunk, 1000, 1) != -1 || ::lseek(fd, 0, SEEK_END) != 2000) return 4;
        if (write_all(fd, chunk, 1000, 0) != 500 || ::lseek(fd, 0, SEEK_END) != 2500) return 5;
        // At the limit nothing goes in; an O_APPEND descriptor's offset 0 is not where its write began.
        ks::unique_fd appender(::open((dir / "f").c_str(), O_WRONLY | O_APPEND));
        if (write_all(appender.get(), chunk, 1000, 1) != -1 || writev_all(appender.get(), parts, 2) != -1 ||
            ::lseek(fd, 0, SEEK_END) != 2500)
            return 8;
        if (::ftruncate(fd, 2000) != 0 || ::lseek(fd, 2000, SEEK_SET) != 2000) return 6;
        return writev_all(fd, parts, 2) == -1 && ::lseek(fd, 0, SEEK_END) == 2000 ? 0 : 7;
    });
    EXPECT_EQ(rc, 0);
}

}  // namespace
