// The operators' log reader program, run as operators run it: files in, plain text and
// per-file complaints out, and an exit status that says whether anything was lost.
#include <kscryptolog.h>
#include <ksutils/crypto.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <jansson.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "kslog_fixture.h"

namespace {

using kstest::quoted;

// A stamped record as the log core writes it, `seconds_ago` before now unless `time` is given.
std::string stamped(int pid, const char* level, const std::string& message, const char* time = nullptr,
                    long seconds_ago = 0) {
    char stamp[32];
    const time_t when = std::time(nullptr) - seconds_ago;
    struct tm local;
    std::strftime(stamp, sizeof stamp, "%F %T", localtime_r(&when, &local));
    char header[64];
    std::snprintf(header, sizeof header, "%s.%03d %6d %5s ", time ? time : stamp, pid % 1000, pid, level);
    return header + ("[src.cpp:" + std::to_string(pid) + "][fn()]: ") + message + "\n";
}

// The records of `text`, sorted by time stamp then process id, ties kept in order.
std::string sorted_by_time(const std::string& text) {
    std::vector<std::string> records;
    for (std::string& line : kslogtest::lines(text)) records.push_back(std::move(line));
    std::stable_sort(records.begin(), records.end(), [](const std::string& a, const std::string& b) {
        return a.compare(0, 30, b, 0, 30) < 0;  // time, then the right-aligned pid
    });
    std::string result;
    for (const std::string& r : records) result += r;
    return result;
}

class LogReaderTool : public ::testing::Test {
protected:
    // An encrypted log file holding `records`, written as the log core writes them.
    std::string make_log(const std::string& name, const std::vector<std::string>& records) {
        ks::CryptoLogWriter writer(root.public_key().c_str());
        ks::unique_fd fd(::open((root / name).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
        EXPECT_EQ(crypto_log_layout_write_header(fd.get()), 0);
        ::lseek(fd.get(), 0, SEEK_END);
        for (const std::string& r : records) EXPECT_TRUE(writer.encrypt(fd.get(), r.data(), r.size()));
        return root / name;
    }

    struct Result {
        int status;
        std::string out, err;
    };
    Result reader(const std::string& arguments) {
        Result r;
        const std::string program = quoted(kstest::tool_path("kslogreader"));
        r.status = kstest::run(program + " " + arguments + " 2>" + quoted(root / "err"), &r.out);
        r.err = kstest::read_file(root / "err");
        return r;
    }

    kstest::InstallRoot root;
    const std::string key = quoted(root.private_key());
};

// Three processes log through the log core, two into one output and one into another, with
// enough records that each output rotates once: the directory reads back as every record of
// every file once, in time order.
TEST_F(LogReaderTool, MergesProcessesAndRotationsByTime) {
    // 1000-byte records in 16 KiB files: 24 of them fill one file and part of the next.
    ASSERT_TRUE(kstest::write_file(root / "etc/logging/default.json",
                                   R"({"action":"update","channels":{"default":)"
                                   R"([{"file":"j","level":"info","size":16384,"num":2}]}})"));
    pid_t children[3];
    for (int c = 0; c < 3; ++c) {
        children[c] = ::fork();
        ASSERT_GE(children[c], 0);
        if (children[c] > 0) continue;
        if (kslog_init(c < 2 ? "/usr/bin/alpha" : "/usr/bin/beta", root.path().c_str(), nullptr) != 0) ::_exit(1);
        for (int i = 0; i < (c < 2 ? 12 : 24); ++i) {
            kslogtest::log(0, 2, "child " + std::to_string(c) + " record " + std::to_string(i) + std::string(950, '.'));
            ::usleep(2000);
        }
        kslog_uninit();
        ::_exit(0);
    }
    for (pid_t child : children) {
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0);
    }
    std::string all;
    for (const char* file : {"alpha.j.1", "alpha.j.0", "beta.j.1", "beta.j.0"}) {
        bool whole = false;
        all += kslogtest::decrypt(root / ("var/log/" + std::string(file)), root.private_key(), &whole);
        EXPECT_TRUE(whole) << file << " missing or damaged";
    }
    EXPECT_EQ(kslogtest::test_records(all).size(), 48u);
    const Result r = reader(key + " " + quoted(root / "var/log"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, sorted_by_time(all));
}

// Every filter, the last records, and the JSON form of the records, against one journal of
// hand-stamped records in three outputs (one record holds two lines).
TEST_F(LogReaderTool, FiltersChooseRecords) {
    const std::string records[] = {
        stamped(300, "error", "two days old", nullptr, 2 * 86400),          // 0
        stamped(100, "warn", "link down", "2024-03-01 12:00:05"),           // 1
        stamped(200, "info", "link up\nsecond line", "2024-03-01 12:00:05"),  // 2
        stamped(100, "debug", "retry 1", "2024-03-01 12:00:06"),           // 3
        stamped(200, "trace", "frame", "2024-03-01 12:00:07"),             // 4
        stamped(300, "info", "five minutes old", nullptr, 300),             // 5
    };
    make_log("daemon.main.1", {records[1], records[3]});
    make_log("daemon.main.0", {records[0], records[5]});
    make_log("other.x.0", {records[2], records[4]});
    const struct {
        std::string options;
        std::vector<int> expected;
    } cases[] = {{"", {1, 2, 3, 4, 0, 5}},
                 {"--level warning", {1, 0}},
                 {"--level=2", {1, 2, 0, 5}},
                 {"--level trace --pid 200", {2, 4}},
                 {"--pid 100 --pid 300", {1, 3, 0, 5}},
                 {"--grep 'link (up|down)'", {1, 2}},
                 {"--grep '^f'", {4, 5}},
                 {"--output 'daemon.*'", {1, 3, 0, 5}},
                 {"--since '2024-03-01 12:00:06' --until '2024-03-01 12:00:07'", {3, 4}},
                 {"--since -1d", {5}},
                 {"--since -3d --until -10min", {0}},
                 {"--since -2h --level 1", {}},
                 {"-n 2", {0, 5}},
                 {"-n 1 --pid 200", {4}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options);
        std::string expected;
        for (int i : c.expected) expected += records[i];
        const Result text = reader(c.options + " " + key + " " + quoted(root.path()));
        EXPECT_EQ(text.status, 0) << text.err;
        EXPECT_EQ(text.out, expected);
        if (!c.options.empty()) continue;  // the filters choose the same records for either form
        // The JSON objects put back together are the records as written.
        const Result json = reader("-o json " + c.options + " " + key + " " + quoted(root.path()));
        std::string rebuilt;
        for (const std::string& line : kslogtest::lines(json.out)) {
            json_t* o = json_loads(line.c_str(), 0, nullptr);
            ASSERT_TRUE(json_is_object(o)) << line;
            char header[64];
            std::snprintf(header, sizeof header, "%s %6d %5s ", json_string_value(json_object_get(o, "time")),
                          static_cast<int>(json_integer_value(json_object_get(o, "pid"))),
                          json_string_value(json_object_get(o, "level")));
            rebuilt += header + std::string("[") + json_string_value(json_object_get(o, "file")) + ":" +
                       std::to_string(json_integer_value(json_object_get(o, "line"))) + "][" +
                       json_string_value(json_object_get(o, "function")) + "()]: " +
                       json_string_value(json_object_get(o, "message")) + "\n";
            json_decref(o);
        }
        EXPECT_EQ(rebuilt, expected);
    }
}

// -f prints what is there, then the records written while it runs, across rotations, each
// once and in order; SIGTERM ends it with status 0.
TEST_F(LogReaderTool, FollowsWritersAcrossRotations) {
    ASSERT_TRUE(kstest::write_file(root / "etc/logging/followed.json",
                                   R"({"action":"update","channels":{"default":)"
                                   R"([{"file":"f","level":"info","size":4096,"num":2}]}})"));
    ASSERT_EQ(kslog_init("/usr/bin/followed", root.path().c_str(), nullptr), 0);
    const std::string padding(400, '.');
    kslogtest::log(0, 2, "before 0" + padding);
    const std::string out = root / "followed.out";
    const pid_t follower = ::fork();
    ASSERT_GE(follower, 0);
    if (follower == 0) {
        ks::unique_fd fd(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        ::dup2(fd.get(), STDOUT_FILENO);
        const std::string program = kstest::tool_path("kslogreader"), dir = root / "var/log";
        ::execl(program.c_str(), program.c_str(), "-f", "--output", "followed.f", root.private_key().c_str(),
                dir.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // One record at a time, each waited for: about eight records a file, so two rotations.
    for (int i = 0; i < 24; ++i) {
        const std::string message = (i == 0 ? "before " : "after ") + std::to_string(i) + padding;
        if (i > 0) kslogtest::log(0, 2, message);
        EXPECT_TRUE(kstest::wait_until([&] {
            return kslogtest::messages(kstest::read_file(out)).find(message + "\n") != std::string::npos;
        })) << i;
    }
    ::kill(follower, SIGTERM);
    int status = -1;
    EXPECT_EQ(::waitpid(follower, &status, 0), follower);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    kslog_uninit();
    std::string all = "before 0" + padding + "\n";
    for (int i = 1; i < 24; ++i) all += "after " + std::to_string(i) + padding + "\n";
    EXPECT_EQ(kslogtest::messages(kstest::read_file(out)), all);
}

TEST_F(LogReaderTool, ReadsRotatedFilesInTheOrderGiven) {
    const std::string files = quoted(make_log("app.1", {"old one\n", "old two\n"})) + " " +
                              quoted(make_log("app.0", {"new one\n"}));
    for (const std::string& key_arg : {key, "-k " + key, "--key=" + key}) {
        const Result r = reader(key_arg + " " + files);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "old one\nold two\nnew one\n");
        EXPECT_EQ(r.err, "");
    }
    const Result piped = reader("-k " + key + " - < " + quoted(root / "app.0"));
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out, "new one\n");
}

TEST_F(LogReaderTool, BadFilesAreNamedAndTheRestIsStillRead) {
    const std::string good = make_log("good.0", {"good\n"});
    const std::string truncated = make_log("cut.0", {"kept\n", "lost in the cut\n"});
    const std::string bytes = kstest::read_file(truncated);
    ASSERT_TRUE(kstest::write_file(truncated, bytes.substr(0, bytes.size() - 4)));
    ASSERT_TRUE(kstest::write_file(root / "foreign.0", "this is a plain text file, not an encrypted log\n"));
    const struct {
        std::string file, out;  // what is printed before the complaint
        const char* error;      // part of the complaint
    } cases[] = {{truncated, "kept\n", "truncated"}, {root / "foreign.0", "", "bad header"},
                 {root / "missing.0", "", "No such file"}};
    for (const auto& c : cases) {
        const Result r = reader(key + " " + quoted(c.file) + " " + quoted(good));
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, c.out + "good\n");
        EXPECT_NE(r.err.find(c.file + ": "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(good), std::string::npos) << r.err;
    }
    // In a directory, between two good files.
    const std::string last = make_log("last.0", {"last\n"});
    const Result dir = reader(key + " " + quoted(root.path()));
    EXPECT_EQ(dir.status, 1);
    EXPECT_EQ(dir.out, "kept\ngood\nlast\n");
    EXPECT_NE(dir.err.find(truncated + ": truncated"), std::string::npos) << dir.err;
    EXPECT_NE(dir.err.find(root / "foreign.0: bad header"), std::string::npos) << dir.err;
    ::unlink(last.c_str());
    ASSERT_TRUE(kstest::make_rsa_keypair(root / "other.pem", root / "otherpub.pem"));
    const Result wrong_key = reader(quoted(root / "other.pem") + " " + quoted(good));
    EXPECT_EQ(wrong_key.status, 1);
    EXPECT_EQ(wrong_key.out, "");
    EXPECT_NE(wrong_key.err.find(good + ": the private key does not match"), std::string::npos) << wrong_key.err;
}

// Write faults injected with strace into two processes taking turns on one rotating log file
// (tests/daemons/kslog_turns.cpp): the records hit are lost, every other record is read back
// whole and in order, nothing in the files is damaged, and writing goes on after the fault.
TEST_F(LogReaderTool, WriteFaultsLoseRecordsNeverTheFile) {
    if (std::getenv("KS_TEST_EMULATED")) GTEST_SKIP() << "strace cannot trace emulated programs";
    constexpr int kRounds = 16;
    ASSERT_TRUE(kstest::write_file(root / "etc/logging/kslog_turns.json",
                                   R"({"action":"update","channels":{"default":)"
                                   R"([{"file":"turns","level":"info","size":8192,"num":2}]}})"));
    const std::string base = root / "var/log/kslog_turns.turns.", prefix = "[turns.cpp:1][main()]: ";
    // System calls are counted per process. The child writes the first record of each turn
    // behind its key block, in its writev calls 1, 3, 5..., and its second record right behind
    // it; writev_all tries a failing write three times.
    for (const char* fault : {"writev:error=ENOSPC:when=5", "writev:error=EIO:when=5..7",
                              // the header naming the writer, rewritten before its key block
                              "pwrite64:error=ENOSPC:when=3", "pwrite64:error=EIO:when=3..4",
                              // the header of a new file, at the start and after rotation
                              "write:error=ENOSPC:when=1..2", "write:error=EIO:when=1..2"}) {
        SCOPED_TRACE(fault);
        for (const char* n : {"0", "1"}) ::unlink((base + n).c_str());
        // (LeakSanitizer, in sanitizer builds, cannot work under a tracer.)
        ASSERT_EQ(kstest::run("ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 strace -f -qq -o " +
                              quoted(root / "trace") + " -e trace=writev,pwrite64,write -P " +
                              quoted(base + "0") + " --inject=" + fault + " " +
                              quoted(std::string(KS_BINARY_DIR) + "/tests/kslog_turns") + " " +
                              quoted(root.path()) + " " + std::to_string(kRounds)),
                  0);
        EXPECT_NE(kstest::read_file(root / "trace").find("INJECTED"), std::string::npos);
        const bool rotated = ::access((base + "1").c_str(), F_OK) == 0;
        const Result r = reader(key + " " + (rotated ? quoted(base + "1") + " " : "") + quoted(base + "0"));
        EXPECT_EQ(r.status, 0) << r.err;
        int next[2] = {0, 0};  // parent, child: the least number each one's next record may carry
        for (const std::string& line : kslogtest::lines(r.out)) {
            if (line.find(prefix) != KSLOG_HEADER_SIZE) continue;
            const bool child = line.compare(KSLOG_HEADER_SIZE + prefix.size(), 6, "child ") == 0;
            const std::string name = child ? "child " : "parent ";
            const int number = std::atoi(line.c_str() + KSLOG_HEADER_SIZE + prefix.size() + name.size());
            EXPECT_EQ(line.substr(KSLOG_HEADER_SIZE), prefix + name + std::to_string(number) + "\n");
            EXPECT_GE(number, next[child]) << line;
            next[child] = number + 1;
        }
        EXPECT_EQ(next[0], kRounds);
        EXPECT_EQ(next[1], 2 * kRounds);
    }
}

TEST_F(LogReaderTool, HelpAndUsageErrors) {
    const Result help = reader("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Usage: kslogreader"), std::string::npos);
    EXPECT_NE(help.out.find("oldest first"), std::string::npos);
    const std::string log = quoted(make_log("x.0", {"x\n"}));
    const struct {
        std::string arguments;
        const char* error;
    } cases[] = {{"", "no private key"},
                 {key, "no log file"},
                 {"--bogus " + log, "unknown option"},
                 {"-k", "you must specify a value"},
                 {"--level loud " + key + " " + log, "bad level"},
                 {"--since yesterday " + key + " " + log, "bad time"},
                 {"--grep '(' " + key + " " + log, "bad regular expression"},
                 {"-o xml " + key + " " + log, "bad format"},
                 {quoted(root.public_key()) + " " + log, "cannot load the private key"}};
    for (const auto& c : cases) {
        const Result r = reader(c.arguments);
        EXPECT_EQ(r.status, 2) << c.arguments;
        EXPECT_EQ(r.out, "") << c.arguments;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << c.arguments << ": " << r.err;
    }
}

}  // namespace
