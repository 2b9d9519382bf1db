// The operators' log reader program, run as operators run it: files in, plain text and
// per-file complaints out, and an exit status that says whether anything was lost.
#include <kscryptolog.h>
#include <ksutils/crypto.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

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
