// The operators' log reader program, run as operators run it: files in, plain text and
// per-file complaints out, and an exit status that says whether anything was lost.
#include <kscryptolog.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kstest.h"

namespace {

class LogReaderTool : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keys = new kstest::TempDir;
        ASSERT_TRUE(kstest::make_rsa_keypair(*keys / "priv.pem", *keys / "pub.pem"));
        ASSERT_TRUE(kstest::make_rsa_keypair(*keys / "other.pem", *keys / "otherpub.pem"));
    }
    static void TearDownTestSuite() {
        delete keys;
        keys = nullptr;
    }

    // An encrypted log file holding `records`, written as the log core writes them.
    std::string make_log(const std::string& name, const std::vector<std::string>& records) {
        crypto_log_writer* writer = crypto_log_writer_new((*keys / "pub.pem").c_str());
        EXPECT_NE(writer, nullptr);
        const std::string path = dir / name;
        ks::unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
        EXPECT_EQ(crypto_log_layout_write_header(fd.get()), 0);
        ::lseek(fd.get(), 0, SEEK_END);
        for (const std::string& r : records)
            EXPECT_EQ(crypto_log_writer_encrypt(writer, fd.get(), r.data(), r.size()), 0);
        crypto_log_writer_free(writer);
        return path;
    }

    struct Result {
        int status;
        std::string out, err;
    };
    Result reader(const std::string& arguments) {
        Result r;
        r.status = kstest::run("'" + kstest::tool_path("kslogreader") + "' " + arguments + " 2>'" + dir / "stderr" +
                                   "'",
                               &r.out);
        r.err = kstest::read_file(dir / "stderr");
        return r;
    }

    static kstest::TempDir* keys;
    kstest::TempDir dir;
};
kstest::TempDir* LogReaderTool::keys = nullptr;

TEST_F(LogReaderTool, ReadsRotatedFilesInTheOrderGiven) {
    const std::string older = make_log("app.1", {"old one\n", "old two\n"});
    const std::string current = make_log("app.0", {"new one\n"});
    for (const std::string& key_arg : {"'" + *keys / "priv.pem" + "'", "-k '" + *keys / "priv.pem" + "'",
                                       "--key='" + *keys / "priv.pem" + "'"}) {
        Result r = reader(key_arg + " '" + older + "' '" + current + "'");
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.out, "old one\nold two\nnew one\n");
        EXPECT_EQ(r.err, "");
    }
    Result piped = reader("-k '" + *keys / "priv.pem" + "' - < '" + current + "'");
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out, "new one\n");
}

TEST_F(LogReaderTool, ReadsWhatTheLoggerWrote) {
    kstest::InstallRoot root;
    ASSERT_TRUE(ks::log::start("/usr/bin/readertest", root.path().c_str()));
    KSLOG_ERROR(0, "end to end {:d}", 42);
    ks::log::stop();
    Result r = reader("'" + root.private_key() + "' '" + root / "var/log/readertest.0" + "'");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("error [kslogreader_test.cpp:"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("end to end 42\n"), std::string::npos) << r.out;
}

TEST_F(LogReaderTool, BadFilesAreNamedAndTheRestIsStillRead) {
    const std::string good = make_log("good.0", {"good\n"});
    const std::string truncated = make_log("cut.0", {"kept\n", "lost in the cut\n"});
    std::string bytes = kstest::read_file(truncated);
    ASSERT_TRUE(kstest::write_file(truncated, bytes.substr(0, bytes.size() - 4)));
    const std::string foreign = dir / "foreign.0";
    ASSERT_TRUE(kstest::write_file(foreign, "this is a plain text file, not an encrypted log\n"));
    const std::string missing = dir / "missing.0";

    const struct {
        const char* name;
        std::string file;
        std::string out;    // what is printed before the complaint
        const char* error;  // part of the complaint
    } cases[] = {
        {"truncated last block", truncated, "kept\n", "truncated"},
        {"bad header", foreign, "", "bad header"},
        {"missing file", missing, "", "No such file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Result r = reader("'" + *keys / "priv.pem" + "' '" + c.file + "' '" + good + "'");
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, c.out + "good\n");
        EXPECT_NE(r.err.find(c.file + ": "), std::string::npos) << r.err;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(good), std::string::npos) << r.err;
    }

    Result wrong_key = reader("'" + *keys / "other.pem" + "' '" + good + "'");
    EXPECT_EQ(wrong_key.status, 1);
    EXPECT_EQ(wrong_key.out, "");
    EXPECT_NE(wrong_key.err.find(good + ": the private key does not match"), std::string::npos) << wrong_key.err;
}

TEST_F(LogReaderTool, HelpAndUsageErrors) {
    Result help = reader("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Usage: kslogreader"), std::string::npos);
    EXPECT_NE(help.out.find("oldest first"), std::string::npos);

    const std::string log = make_log("x.0", {"x\n"});
    const struct {
        std::string arguments;
        const char* error;
    } cases[] = {
        {"", "no private key"},
        {"'" + *keys / "priv.pem" + "'", "no log file"},
        {"--bogus '" + log + "'", "unknown option"},
        {"-k", "requires an argument"},
        {"'" + *keys / "pub.pem" + "' '" + log + "'", "cannot load the private key"},
        {"'" + dir / "nokey.pem" + "' '" + log + "'", "cannot load the private key"},
    };
    for (const auto& c : cases) {
        Result r = reader(c.arguments);
        EXPECT_EQ(r.status, 2) << c.arguments;
        EXPECT_EQ(r.out, "") << c.arguments;
        EXPECT_NE(r.err.find(c.error), std::string::npos) << c.arguments << ": " << r.err;
    }
}

}  // namespace
