// The log reader program as operators run it: plain text, per-file complaints, a status saying what was lost.
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <ctime>

#include "kslog_fixture.h"

namespace {

using kstest::quoted;

// A stamped record as the log core writes it, `seconds_ago` before now unless `time` is given.
std::string stamped(int pid, const char* level, const std::string& message, const char* time = nullptr,
                    long seconds_ago = 0) {
    char stamp[32], header[64];
    const time_t when = std::time(nullptr) - seconds_ago;
    struct tm local;
    std::strftime(stamp, sizeof stamp, "%F %T", localtime_r(&when, &local));
    std::snprintf(header, sizeof header, "%s.%03d %6d %5s ", time ? time : stamp, pid % 1000, pid, level);
    return header + ("[src.cpp:" + std::to_string(pid) + "][fn()]: ") + message + "\n";
}

class LogReaderTool : public kslogtest::LoggerTest {
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
    // The reader run with `arguments`, its standard input piped from `input` when given.
    Result reader(const std::string& arguments, const std::string& input = "") {
        Result r;
        const std::string program = quoted(kstest::tool_path("kslogreader")), err = quoted(root / "err");
        r.status = kstest::run((input.empty() ? "" : input + " | ") + program + " " + arguments + " 2>" + err, &r.out);
        r.err = kstest::read_file(root / "err");
        return r;
    }

    const std::string key = quoted(root.private_key());
};

// Filters, -n and JSON over hand-stamped records in three outputs; "daemon.main.0" is out of time order.
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
    make_log("daemon.main.0", {records[5], records[0]});
    make_log("other.x.0", {records[2], records[4]});
    const std::pair<std::string, std::vector<int>> cases[] = {
        {"", {1, 2, 3, 4, 0, 5}}, {"--level warning", {1, 0}}, {"--level=2", {1, 2, 0, 5}},
        {"--level trace --pid 200", {2, 4}}, {"--pid 100 --pid 300", {1, 3, 0, 5}}, {"--grep 'link (up|down)'", {1, 2}},
        {"--grep '^f'", {4, 5}}, {"--output 'daemon.*'", {1, 3, 0, 5}},
        {"--since '2024-03-01 12:00:06' --until '2024-03-01 12:00:07'", {3, 4}}, {"--since -1d", {5}},
        {"--since -3d --until -10min", {0}}, {"--since -2h --level 1", {}}, {"-n 2", {0, 5}}, {"-n 1 --pid 200", {4}}};
    for (const auto& [options, indices] : cases) {
        SCOPED_TRACE(options);
        std::string expected;
        for (int i : indices) expected += records[i];
        const Result r = reader(options + " " + key + " " + quoted(root.path()));
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, expected);
    }
    EXPECT_EQ(reader("-o json --grep 'link up' " + key + " " + quoted(root.path())).out,
              R"({"time":"2024-03-01 12:00:05.200","pid":200,"level":"info","file":"src.cpp","line":200,)"
              R"("function":"fn","message":"link up\nsecond line"})" "\n");
}

// -f prints what is there, then new records across rotations, each once and in order; SIGTERM ends it (0).
TEST_F(LogReaderTool, FollowsWritersAcrossRotations) {
    ASSERT_TRUE(kstest::write_file(root / "etc/logging/followed.json",
                                   R"({"action":"update","channels":{"default":)"
                                   R"([{"file":"f","level":"info","size":4096,"num":2}]}})"));
    start("/usr/bin/followed");
    const std::string padding(400, '.');
    kslogtest::log(0, 2, "before 0" + padding);
    const std::string out = root / "followed.out";
    const pid_t follower = ::fork();
    ASSERT_GE(follower, 0);
    if (follower == 0) {
        const std::string command = "exec " + quoted(kstest::tool_path("kslogreader")) + " -f --output followed.f " +
                                    key + " " + quoted(root / "var/log") + " >" + quoted(out);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // One record at a time, each waited for: about eight records a file, so two rotations.
    std::string all;
    for (int i = 0; i < 24; ++i) {
        const std::string message = (i == 0 ? "before " : "after ") + std::to_string(i) + padding;
        all += message + "\n";
        if (i > 0) kslogtest::log(0, 2, message);
        EXPECT_TRUE(kstest::wait_until([&] {
            return kslogtest::messages(kstest::read_file(out)).find(message + "\n") != std::string::npos;
        })) << i;
    }
    ::kill(follower, SIGTERM);
    int status = -1;
    EXPECT_EQ(::waitpid(follower, &status, 0), follower);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(kslogtest::messages(kstest::read_file(out)), all);
}

// Files in order, a pipe streamed; a bad file costs a line naming it (status 1), a usage mistake status 2.
TEST_F(LogReaderTool, StatusOutputAndComplaints) {
    const std::string old = quoted(make_log("app.1", {"old one\n", "old two\n"})),
                      young = quoted(make_log("app.0", {"new one\n"})), app = "old one\nold two\nnew one\n";
    const std::string good = make_log("good.0", {"good\n"}), truncated = make_log("cut.0", {"kept\n", "cut\n"});
    const std::string bytes = kstest::read_file(truncated), foreign = root / "foreign.0", missing = root / "missing.0";
    ASSERT_TRUE(kstest::write_file(truncated, bytes.substr(0, bytes.size() - 4)));
    ASSERT_TRUE(kstest::write_file(foreign, "this is a plain text file, not an encrypted log\n"));
    ASSERT_TRUE(kstest::make_rsa_keypair(root / "other.pem", root / "otherpub.pem"));
    make_log("last.0", {"last\n"});
    const std::string log = quoted(good), usage = "Try 'kslogreader --help'";
    // Input piped in, arguments, status, standard output, what standard error's lines hold.
    const std::tuple<std::string, std::string, int, std::string, std::vector<std::string>> cases[] = {
        {"", key + " " + old + " " + young, 0, app, {}},
        {"", "-k " + key + " " + old + " " + young, 0, app, {}},
        {"cat " + young, "-k " + key + " -", 0, "new one\n", {}},
        {"", key + " " + quoted(truncated) + " " + quoted(good), 1, "kept\ngood\n", {truncated + ": truncated"}},
        {"", key + " " + quoted(foreign) + " " + quoted(good), 1, "good\n", {foreign + ": bad header"}},
        {"", key + " " + quoted(missing) + " " + quoted(good), 1, "good\n", {missing + ": No such file"}},
        {"", key + " " + quoted(root.path()), 1, app + "kept\ngood\nlast\n",
         {truncated + ": truncated", foreign + ": bad header"}},
        {"", quoted(root / "other.pem") + " " + quoted(good), 1, "", {good + ": the private key does not match"}},
        {"", "", 2, "", {"no private key", usage}},
        {"", key, 2, "", {"no log file", usage}},
        {"", "--bogus " + log, 2, "", {"unknown option", usage}},
        {"", "--level loud " + key + " " + log, 2, "", {"bad level", usage}},
        {"", "--since yesterday " + key + " " + log, 2, "", {"bad time", usage}},
        {"", "--grep '(' " + key + " " + log, 2, "", {"bad regular expression", usage}},
        {"", "-o xml " + key + " " + log, 2, "", {"bad format", usage}},
        {"", quoted(root.public_key()) + " " + log, 2, "", {"cannot load the private key"}},
    };
    for (const auto& [input, arguments, status, out, errors] : cases) {
        SCOPED_TRACE(arguments);
        const Result r = reader(arguments, input);
        EXPECT_EQ(r.status, status) << r.err;
        EXPECT_EQ(r.out, out);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), static_cast<long>(errors.size())) << r.err;
        for (const std::string& error : errors) EXPECT_NE(r.err.find(error), std::string::npos) << r.err;
    }
}

// Write faults injected by strace into two processes sharing a rotating file lose only the records hit.
TEST_F(LogReaderTool, WriteFaultsLoseRecordsNeverTheFile) {
    if (std::getenv("KS_TEST_EMULATED")) GTEST_SKIP() << "strace cannot trace emulated programs";
    constexpr int kRounds = 16;
    ASSERT_TRUE(kstest::write_file(root / "etc/logging/kslog_turns.json",
                                   R"({"action":"update","channels":{"default":)"
                                   R"([{"file":"turns","level":"info","size":8192,"num":2}]}})"));
    const std::string base = root / "var/log/kslog_turns.turns.", prefix = "[turns.cpp:1][main()]: ";
    // System calls are counted per process. A process's first write is the header of the new
    // file (or, for the other one, its first record); from the sixth on, each write is one
    // record, with its key block when the other process wrote last.
    for (const char* fault : {"write:error=ENOSPC:when=6", "write:error=EIO:when=6..8",
                              // the header naming the writer, rewritten before its key block
                              "pwrite64:error=ENOSPC:when=3", "pwrite64:error=EIO:when=3..4",
                              "write:error=ENOSPC:when=1", "write:error=EIO:when=1"}) {
        SCOPED_TRACE(fault);
        for (const char* n : {"0", "1"}) ::unlink((base + n).c_str());
        // (LeakSanitizer, in sanitizer builds, cannot work under a tracer.)
        const std::string turns = quoted(std::string(KS_BINARY_DIR) + "/tests/kslog_turns") + " " +
                                  quoted(root.path()) + " " + std::to_string(kRounds);
        ASSERT_EQ(kstest::run("ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0 strace -f -qq -o " +
                              quoted(root / "trace") + " -e trace=pwrite64,write -P " + quoted(base + "0") +
                              " --inject=" + fault + " " + turns),
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
        EXPECT_EQ(std::pair(next[0], next[1]), std::pair(kRounds, 2 * kRounds));
    }
}

}  // namespace
