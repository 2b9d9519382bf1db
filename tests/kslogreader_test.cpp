// The operators' log reader program, run as operators run it: files in, plain text and
// per-file complaints out, and an exit status that says whether anything was lost.
#include <kscryptolog.h>
#include <ksutils/crypto.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kslog_support.h"
#include "kstest.h"

namespace {

using kstest::quoted;

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

TEST_F(LogReaderTool, ReadsWhatTheLoggerWrote) {
    ASSERT_TRUE(ks::log::start("/usr/bin/readertest", root.path().c_str()));
    KSLOG_ERROR(0, "end to end {:d}", 42);
    ks::log::stop();
    const Result r = reader(key + " " + quoted(root / "var/log/readertest.0"));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("error [kslogreader_test.cpp:"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("end to end 42\n"), std::string::npos) << r.out;
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
                 {quoted(root.public_key()) + " " + log, "cannot load the private key"},
                 {quoted(root / "nokey.pem") + " " + log, "cannot load the private key"}};
    for (const auto& c : cases) {
        const Result r = reader(c.arguments);
        EXPECT_EQ(r.status, 2) << c.arguments;
        EXPECT_EQ(r.out, "") << c.arguments;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << c.arguments << ": " << r.err;
    }
}

}  // namespace
