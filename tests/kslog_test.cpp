// Log core: levels, identity, channels, record stamping and cutting, per-output level
// filtering, rotation, sharing a file between threads and processes, the fork hook, and
// the all-or-nothing writers on a full disk.
#include <ksfork.h>
#include <kslog.h>
#include <kswrite.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>

#include "kslog_support.h"

namespace {

using kslogtest::LoggerTest;

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

off_t file_size(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// "yyyy-mm-dd HH:MM:SS.mmm " with digits where the mask has '9', then a pid in 6 places.
bool stamped_time_and_pid(const std::string& text) {
    const char mask[] = "9999-99-99 99:99:99.999 ";
    if (text.size() < KSLOG_HEADER_SIZE) return false;
    for (size_t i = 0; i + 1 < sizeof mask; ++i)
        if (mask[i] == '9' ? !std::isdigit(static_cast<unsigned char>(text[i])) : text[i] != mask[i]) return false;
    for (size_t i = 24; i < 30; ++i)
        if (text[i] != ' ' && !std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    return text[30] == ' ' && text[36] == ' ';
}

// A record of kslogtest::log with the message "<word> <who> seq <seq> <fill...>"; false
// for anything else or a record that does not end right after the fill.
bool parse_numbered(const std::string& r, const char* word, char fill, int& who, int& seq, size_t& fill_length) {
    const std::string prefix = std::string("[test.cpp:1][test()]: ") + word + " ";
    if (r.size() < KSLOG_HEADER_SIZE || r.compare(KSLOG_HEADER_SIZE, prefix.size(), prefix) != 0) return false;
    int used = 0;
    if (std::sscanf(r.c_str() + KSLOG_HEADER_SIZE + prefix.size(), "%d seq %d%n", &who, &seq, &used) != 2)
        return false;
    const size_t start = KSLOG_HEADER_SIZE + prefix.size() + static_cast<size_t>(used) + 1;
    if (start > r.size() || r[start - 1] != ' ') return false;
    const size_t end = r.find_first_not_of(fill, start);
    fill_length = (end == std::string::npos ? r.size() : end) - start;
    return end == r.size() - 1 && r[end] == '\n';
}

TEST(KslogLevels, ConversionsAcceptOnlyTheirOwnStrings) {
    const struct {
        int level;
        const char* logstr;
        const char* userstr;
    } table[] = {{0, "error", "error"}, {1, "warn", "warning"}, {2, "info", "info"}, {3, "debug", "debug"},
                 {4, "trace", "trace"}};
    for (const auto& row : table) {
        EXPECT_STREQ(kslog_lvl_to_logstr(row.level), row.logstr);
        EXPECT_STREQ(kslog_lvl_to_userstr(row.level), row.userstr);
        EXPECT_EQ(kslog_logstr_to_lvl(row.logstr), row.level);
        EXPECT_EQ(kslog_userstr_to_lvl(row.userstr), row.level);
    }
    for (const char* unknown : {"warning", "WARN", "", "fatal"}) EXPECT_EQ(kslog_logstr_to_lvl(unknown), 0) << unknown;
    for (const char* unknown : {"warn", "Info", "", "fatal"}) EXPECT_EQ(kslog_userstr_to_lvl(unknown), 0) << unknown;
    EXPECT_EQ(kslog_userstr_to_lvl(nullptr), 0);
}

TEST(KslogIdentity, IsTheNameAfterTheLastSlash) {
    const std::string longest(511, 'a');
    const std::string too_long(512, 'a');
    const struct {
        const char* path;
        const char* identity;
    } table[] = {{"/opt/kestrum/bin/kssetmgmt", "kssetmgmt"},
                 {"kscloudd", "kscloudd"},
                 {"./a/b", "b"},
                 {"/usr/bin/", nullptr},
                 {"", nullptr},
                 {longest.c_str(), longest.c_str()},
                 {too_long.c_str(), nullptr}};
    for (const auto& row : table) {
        const char* id = kslog_identity(row.path);
        if (row.identity)
            EXPECT_STREQ(id, row.identity) << row.path;
        else
            EXPECT_EQ(id, nullptr) << row.path;
    }
    EXPECT_EQ(kslog_identity(nullptr), nullptr);
}

TEST(KslogUninitialised, AnswersWithDefaults) {
    EXPECT_FALSE(kslog_initialized());
    EXPECT_EQ(kslog_channel_open("x"), -1);
    EXPECT_EQ(kslog_get_num_channels(), 0);
    EXPECT_EQ(kslog_can_log(0, 0), 0);
    EXPECT_EQ(kslog_get_max_log_size(), 262144u);
    EXPECT_EQ(kslog_get_max_num_logs(), 2u);
    kslogtest::log(0, 0, "dropped");  // must not crash
}

TEST_F(LoggerTest, StartsWithTheDefaultChannelWritingErrorsToTheIdentityFile) {
    start("/opt/kestrum/bin/ksdevmgmt");
    EXPECT_EQ(kslog_get_num_channels(), 1);
    EXPECT_EQ(kslog_channel_get_by_name("default"), 0);
    EXPECT_EQ(kschlog_get_max_level(0), 0);
    EXPECT_TRUE(kslog_can_log(0, 0));
    EXPECT_FALSE(kslog_can_log(0, 1));
    kslogtest::log(0, 0, "first error");
    bool ok = false;
    const std::string text = decrypt(root / "var/log/ksdevmgmt.0", &ok);
    EXPECT_TRUE(ok);
    EXPECT_NE(text.find("[test.cpp:1][test()]: first error\n"), std::string::npos) << text;
    EXPECT_TRUE(exists(root / "var/log/ksdevmgmt.lock"));
    EXPECT_EQ(kslogtest::block_types(root / "var/log/ksdevmgmt.0"), (std::vector<int>{1, 2}));
}

TEST_F(LoggerTest, StampsTheHeaderInPlaceForEveryLevel) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"hdr","level":"trace"}]}})"), 0);
    const char* words[] = {"error", " warn", " info", "debug", "trace"};
    for (int level = 0; level <= 4; ++level) {
        std::string text = kslogtest::record("level " + std::to_string(level));
        kslog_log_full(0, level, text.data(), text.size());
        // The caller's buffer itself carries the stamp.
        EXPECT_TRUE(stamped_time_and_pid(text)) << text;
        EXPECT_EQ(text.substr(31), std::string(words[level]) + " [test.cpp:1][test()]: level " +
                                       std::to_string(level) + "\n");
        char pid[8];
        std::snprintf(pid, sizeof pid, "%6d", static_cast<int>(::getpid()));
        EXPECT_EQ(text.substr(24, 6), pid);
    }
    const auto records = kslogtest::test_records(decrypt(root / "var/log/kstestd.hdr.0"));
    ASSERT_EQ(records.size(), 5u);
    for (int level = 0; level <= 4; ++level) EXPECT_EQ(records[level].substr(31, 5), words[level]);
}

TEST_F(LoggerTest, IgnoresShortRecordsAndCutsLongOnes) {
    start();
    std::string short_record(36, 'x');
    kslog_log_full(0, 0, short_record.data(), short_record.size());
    kslog_log_full(0, 0, nullptr, 100);
    std::string empty_message = kslogtest::record("");
    empty_message.resize(37);  // the bare header is the shortest record
    kslog_log_full(0, 0, empty_message.data(), empty_message.size());

    std::string long_record = kslogtest::record(std::string(5000, 'm'));
    const size_t untruncated = long_record.size();
    kslog_log_full(0, 0, long_record.data(), untruncated);

    // The bare header has no newline: it runs straight into the cut record.
    const std::string text = decrypt(root / "var/log/kstestd.0");
    ASSERT_EQ(text.size(), 37u + 4095u);
    EXPECT_EQ(text[36], ' ');
    EXPECT_EQ(text.substr(37 + 37, 22), "[test.cpp:1][test()]: ");
    EXPECT_EQ(text.substr(text.size() - 12), "[TRUNCATED]\n");
    EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST_F(LoggerTest, ChannelsOpenCloseCopy) {
    start();
    const std::string name31(31, 'c');
    const std::string name32(32, 'c');
    EXPECT_EQ(kslog_channel_open(nullptr), 0);
    EXPECT_EQ(kslog_channel_open(""), 0);
    EXPECT_EQ(kslog_channel_open(name32.c_str()), 0);
    const int a = kslog_channel_open(name31.c_str());
    EXPECT_EQ(a, 1);
    EXPECT_EQ(kslog_channel_open(name31.c_str()), a);

    // A new channel starts as a copy of the default channel's outputs.
    EXPECT_EQ(kschlog_get_max_level(a), 0);
    EXPECT_TRUE(kslog_can_log(a, 0));
    kslog_channel_close(a);
    EXPECT_FALSE(kslog_can_log(a, 0));
    EXPECT_EQ(kslog_channel_copy(a, 0), -1);  // a closed destination refuses
    EXPECT_EQ(kslog_channel_open(name31.c_str()), a);
    EXPECT_TRUE(kslog_can_log(a, 0));

    kslog_channel_close(0);
    kslog_channel_close(-1);
    kslog_channel_close(999);
    EXPECT_TRUE(kslog_can_log(0, 0));

    ASSERT_EQ(update(R"({"action":"update","channels":{"verbose":[{"file":":stderr","level":"trace"}]}})"), 0);
    const int verbose = kslog_channel_get_by_name("verbose");
    ASSERT_GT(verbose, 0);
    EXPECT_EQ(kslog_channel_copy(a, verbose), 0);
    EXPECT_EQ(kschlog_get_max_level(a), 4);
    EXPECT_EQ(kslog_channel_copy(a, a), -1);
    EXPECT_EQ(kslog_channel_copy(-1, 0), -1);
    EXPECT_EQ(kslog_channel_copy(a, 77), -1);

    for (int i = kslog_get_num_channels(); i < 64; ++i)
        EXPECT_EQ(kslog_channel_open(("ch" + std::to_string(i)).c_str()), i);
    EXPECT_EQ(kslog_get_num_channels(), 64);
    EXPECT_EQ(kslog_channel_open("one-too-many"), 0);
    EXPECT_EQ(kslog_channel_get_by_name("one-too-many"), -1);
    EXPECT_EQ(kschlog_get_max_level(64), 0);
    EXPECT_FALSE(kslog_can_log(64, 0));
}

TEST_F(LoggerTest, EachOutputFiltersByItsOwnLevel) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"net":[
        {"file":"errors","level":"error"},
        {"file":"all","level":"debug"}]}})"),
              0);
    const int net = kslog_channel_get_by_name("net");
    EXPECT_EQ(kschlog_get_max_level(net), 3);
    EXPECT_FALSE(kslog_can_log(net, 4));
    kslogtest::log(net, 0, "an error");
    kslogtest::log(net, 2, "some info");
    kslogtest::log(net, 4, "a trace");
    const std::string errors = decrypt(root / "var/log/kstestd.errors.0");
    const std::string all = decrypt(root / "var/log/kstestd.all.0");
    EXPECT_EQ(kslogtest::lines(errors).size(), 1u);
    EXPECT_NE(errors.find("an error"), std::string::npos);
    EXPECT_EQ(kslogtest::lines(all).size(), 2u);
    EXPECT_NE(all.find("some info"), std::string::npos);
    EXPECT_EQ(all.find("a trace"), std::string::npos);
}

TEST_F(LoggerTest, RotatesByRenamingAndKeepsAtMostNumFiles) {
    start();
    for (int num : {2, 1}) {
        SCOPED_TRACE(num);
        const std::string name = "rot" + std::to_string(num);
        ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":")" + name +
                         R"(","level":"info","size":4096,"num":)" + std::to_string(num) + "}]}}"),
                  0);
        const int count = 100;
        for (int i = 0; i < count; ++i) kslogtest::log(0, 2, "record " + std::to_string(i) + std::string(150, '.'));
        const std::string base = root / ("var/log/kstestd." + name + ".");
        EXPECT_FALSE(exists(base + std::to_string(num)));
        std::vector<std::string> records;
        for (int i = num - 1; i >= 0; --i) {
            bool ok = false;
            for (const auto& line : kslogtest::test_records(decrypt(base + std::to_string(i), &ok)))
                records.push_back(line);
            EXPECT_TRUE(ok);
            const auto types = kslogtest::block_types(base + std::to_string(i));
            ASSERT_FALSE(types.empty());
            EXPECT_EQ(types[0], 1) << "a fresh file starts with a key block";
            EXPECT_LT(file_size(base + std::to_string(i)), 4096 + 5 + 256 + 5 + 256);
        }
        // What survives is the newest run of records, without gaps.
        ASSERT_FALSE(records.empty());
        const int first = count - static_cast<int>(records.size());
        for (size_t i = 0; i < records.size(); ++i)
            EXPECT_NE(records[i].find("record " + std::to_string(first + static_cast<int>(i)) + "."),
                      std::string::npos);
    }
}

TEST_F(LoggerTest, ClampsOutputSizesToTheGlobalLimits) {
    start();
    ASSERT_EQ(update(R"({"action":"update","global":{"size":8192},"channels":{
        "a":[{"file":"a","size":100,"num":1}],
        "b":[{"file":"b","size":10000000,"num":7}]}})"),
              0);
    json_t* config = kslog_get_config();
    ASSERT_NE(config, nullptr);
    const json_t* a = json_array_get(json_object_get(json_object_get(config, "channels"), "a"), 0);
    const json_t* b = json_array_get(json_object_get(json_object_get(config, "channels"), "b"), 0);
    EXPECT_EQ(json_integer_value(json_object_get(a, "size")), 4096);
    EXPECT_EQ(json_integer_value(json_object_get(a, "num")), 1);
    EXPECT_EQ(json_integer_value(json_object_get(b, "size")), 8192);
    EXPECT_EQ(json_integer_value(json_object_get(b, "num")), 2);
    json_decref(config);
}

TEST_F(LoggerTest, InitIsReferenceCounted) {
    start();
    start();
    kslog_uninit();
    EXPECT_TRUE(kslog_initialized());
    EXPECT_TRUE(kslog_can_log(0, 0));
    kslog_uninit();
    EXPECT_FALSE(kslog_initialized());
    EXPECT_FALSE(kslog_can_log(0, 0));
    kslogtest::log(0, 0, "after the end");
    EXPECT_EQ(decrypt(root / "var/log/kstestd.0").find("after the end"), std::string::npos);
    // A restart begins from a clean table.
    start();
    EXPECT_EQ(kslog_get_num_channels(), 1);
}

TEST_F(LoggerTest, InitFailsWithoutTheKeyOrWithABadIdentity) {
    ::unlink((root / "etc/logs-pub.pem").c_str());
    EXPECT_EQ(kslog_init("/bin/kstestd", root.path().c_str(), nullptr), -1);
    EXPECT_FALSE(kslog_initialized());
    EXPECT_EQ(kslog_init("/bin/", root.path().c_str(), nullptr), -1);
    EXPECT_EQ(kslog_init(nullptr, root.path().c_str(), nullptr), -1);
    const std::string long_root(4096, 'r');
    EXPECT_EQ(kslog_init("/bin/kstestd", long_root.c_str(), nullptr), -1);
    EXPECT_EQ(kslog_get_num_channels(), 0);
}

// Threads of one process never interleave inside a record.
TEST_F(LoggerTest, ThreadsWriteWholeRecords) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"mt","level":"info"}]}})"), 0);
    const int threads = 4, per_thread = 200;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([t] {
            for (int i = 0; i < per_thread; ++i)
                kslogtest::log(0, 2, "thread " + std::to_string(t) + " seq " + std::to_string(i) + " " +
                                         std::string(static_cast<size_t>(t * 40), '#'));
        });
    for (auto& th : pool) th.join();
    bool ok = false;
    const auto records = kslogtest::test_records(decrypt(root / "var/log/kstestd.mt.0", &ok));
    EXPECT_TRUE(ok);
    ASSERT_EQ(records.size(), static_cast<size_t>(threads * per_thread));
    std::map<int, int> next;
    for (const auto& r : records) {
        int t = 0, seq = 0;
        size_t fill = 0;
        ASSERT_TRUE(parse_numbered(r, "thread", '#', t, seq, fill)) << r;
        EXPECT_EQ(seq, next[t]++);
        EXPECT_EQ(fill, static_cast<size_t>(t * 40));
    }
}

// Several processes share one small rotating file: every surviving record is whole, each
// process's run starts with its own key block, and no more than `num` files exist.
TEST_F(LoggerTest, ProcessesShareARotatingFile) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"mp","level":"info","size":16384,"num":2}]}})"),
              0);
    const int processes = 4, per_process = 300;
    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        pid_t pid = ksfork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0; i < per_process; ++i)
                kslogtest::log(0, 2, "proc " + std::to_string(p) + " seq " + std::to_string(i) + " " +
                                         std::string(static_cast<size_t>(p * 30), '+'));
            ::_exit(0);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const std::string base = root / "var/log/kstestd.mp.";
    EXPECT_FALSE(exists(base + "2"));
    size_t total = 0;
    for (const char* n : {"1", "0"}) {
        SCOPED_TRACE(n);
        bool ok = false;
        const auto records = kslogtest::lines(decrypt(base + n, &ok));
        EXPECT_TRUE(ok);
        const auto types = kslogtest::block_types(base + n);
        ASSERT_FALSE(types.empty());
        // Pair every record block with its record; a change of writer needs a key block.
        size_t record_index = 0;
        std::string previous_pid;
        std::map<int, int> last_seq;
        for (size_t b = 0; b < types.size(); ++b) {
            if (types[b] != 2) continue;
            ASSERT_LT(record_index, records.size());
            const std::string& r = records[record_index];
            const std::string pid = r.substr(24, 6);
            if (pid != previous_pid) {
                EXPECT_TRUE(b > 0 && types[b - 1] == 1) << "block " << b;
            }
            previous_pid = pid;
            if (r.find("[test.cpp:1]") != std::string::npos) {
                int p = 0, seq = 0;
                size_t fill = 0;
                ASSERT_TRUE(parse_numbered(r, "proc", '+', p, seq, fill)) << r;
                EXPECT_EQ(fill, static_cast<size_t>(p * 30));
                if (last_seq.count(p)) {
                    EXPECT_GT(seq, last_seq[p]);
                }
                last_seq[p] = seq;
            }
            ++record_index;
        }
        EXPECT_EQ(record_index, records.size());
        total += records.size();
    }
    EXPECT_GT(total, 0u);
    EXPECT_LT(total, static_cast<size_t>(processes * per_process)) << "the test meant to rotate";
}

// A child forked while another thread holds the table lock can still log.
TEST_F(LoggerTest, ForkedChildCanLogWhileAParentThreadHeldTheLocks) {
    start();
    ASSERT_EQ(update(R"({"action":"update","channels":{"default":[{"file":"fork","level":"info"}]}})"), 0);
    std::atomic<bool> stop{false};
    std::thread busy([&stop] {
        // Mostly the table's write lock; now and then a record, which takes the file's
        // mutex, without writing enough to rotate the children's records away.
        for (unsigned i = 0; !stop; ++i) {
            kslog_channel_open("busy");
            if (i % 4096 == 0) kslogtest::log(0, 2, "parent thread");
        }
    });
    int hung = 0;
    for (int i = 0; i < 30; ++i) {
        pid_t pid = ksfork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            ::alarm(10);  // a deadlocked child dies instead of hanging the test
            kslog_channel_open("child");
            kslogtest::log(0, 2, "child record");
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!(WIFEXITED(status) && WEXITSTATUS(status) == 0)) ++hung;
    }
    stop = true;
    busy.join();
    EXPECT_EQ(hung, 0);
    bool ok = false;
    const std::string text = decrypt(root / "var/log/kstestd.fork.0", &ok);
    EXPECT_TRUE(ok);
    size_t children = 0;
    for (size_t pos = 0; (pos = text.find("child record", pos)) != std::string::npos; ++pos) ++children;
    EXPECT_EQ(children, 30u);
}

// Runs `body` in a child with a private mount namespace and a 64 KiB tmpfs at `dir`; the
// child's exit status is body's result. Skips where mounting is not allowed.
int in_small_filesystem(const std::string& dir, int (*body)(const std::string&, void*), void* arg) {
    pid_t pid = ::fork();
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("kstest", dir.c_str(), "tmpfs", 0, "size=64k") != 0)
            ::_exit(77);
        ::_exit(body(dir, arg));
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
}

// Fills the filesystem with 1000-byte records; every failing write must leave a whole
// number of records behind. Result codes name the fault for the parent.
int fill_with_writers(const std::string& dir, void*) {
    char chunk[1000];
    std::memset(chunk, 'r', sizeof chunk);
    for (int vectored = 0; vectored < 2; ++vectored) {
        const std::string path = dir + (vectored ? "/v" : "/w");
        int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) return 2;
        int written = 0, failures = 0;
        while (failures < 3 && written < 1000) {
            ssize_t n;
            if (vectored) {
                struct iovec parts[3] = {{chunk, 1}, {chunk + 1, 499}, {chunk + 500, 500}};
                n = writev_all(fd, parts, 3);
            } else {
                n = write_all(fd, chunk, sizeof chunk, 0);
            }
            if (n == static_cast<ssize_t>(sizeof chunk)) {
                ++written;
            } else {
                if (n != -1 || errno != ENOSPC) return 3;
                ++failures;
            }
            struct stat st;
            ::fstat(fd, &st);
            if (st.st_size != static_cast<off_t>(written) * 1000) return 4;
            if (::lseek(fd, 0, SEEK_CUR) != st.st_size) return 5;
        }
        if (failures == 0) return 6;  // the filesystem never filled
        ::close(fd);
        ::unlink(path.c_str());
    }
    return 0;
}

TEST(KslogWrite, FullDiskLeavesNoPartialRecord) {
    kstest::TempDir dir;
    const int rc = in_small_filesystem(dir.path(), fill_with_writers, nullptr);
    if (rc == 77) GTEST_SKIP() << "cannot mount a small filesystem here";
    EXPECT_EQ(rc, 0);
}

// The log core on a full disk: the file still decrypts whole.
int fill_with_records(const std::string& dir, void* private_key) {
    if (kslogtest::execute(R"({"action":"update","channels":{"default":[{"file":")" + dir +
                           R"(/full","level":"info"}]}})") != 0)
        return 2;
    for (int i = 0; i < 400; ++i) kslogtest::log(0, 2, "record " + std::to_string(i) + std::string(300, '-'));
    bool ok = false;
    const std::string text = kslogtest::decrypt(dir + "/full.0", *static_cast<std::string*>(private_key), &ok);
    if (!ok) return 3;
    if (kslogtest::block_types(dir + "/full.0").empty()) return 4;
    const auto records = kslogtest::test_records(text);
    if (records.size() < 10 || records.size() >= 400) return 5;  // it should fill part-way
    for (size_t i = 0; i < records.size(); ++i)
        if (records[i].find("record " + std::to_string(i) + std::string(300, '-') + "\n") != 59) return 6;
    return 0;
}

TEST_F(LoggerTest, FullDiskKeepsTheLogReadable) {
    start();
    kstest::TempDir dir;
    std::string key = root.private_key();
    const int rc = in_small_filesystem(dir.path(), fill_with_records, &key);
    if (rc == 77) GTEST_SKIP() << "cannot mount a small filesystem here";
    EXPECT_EQ(rc, 0);
}

// Errors other than ENOSPC (here EFBIG past the file-size limit): all-or-nothing writes
// take their partial bytes back, the others report what they wrote.
TEST(KslogWrite, OtherErrorsHonourTheAllOrNothingFlag) {
    kstest::TempDir dir;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = {2500, 2500};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(2);
        char chunk[1000] = {};
        int fd = ::open((dir / "f").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (write_all(fd, chunk, 1000, 1) != 1000 || write_all(fd, chunk, 1000, 1) != 1000) ::_exit(3);
        if (write_all(fd, chunk, 1000, 1) != -1) ::_exit(4);
        if (::lseek(fd, 0, SEEK_END) != 2000) ::_exit(5);
        if (write_all(fd, chunk, 1000, 0) != 500) ::_exit(6);
        if (::lseek(fd, 0, SEEK_END) != 2500) ::_exit(7);
        ::ftruncate(fd, 2000);
        ::lseek(fd, 2000, SEEK_SET);
        struct iovec parts[2] = {{chunk, 400}, {chunk, 600}};
        if (writev_all(fd, parts, 2) != -1) ::_exit(8);
        if (::lseek(fd, 0, SEEK_END) != 2000) ::_exit(9);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
