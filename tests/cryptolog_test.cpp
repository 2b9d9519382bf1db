// The encrypted log format: bytes on disk, a second reader built from the openssl command
// line alone, several processes sharing one file, and damaged files.
#include <kscryptolog.h>
#include <ksutils/crypto.h>
#include <ksutils/error.h>
#include <ksutils/miscutl.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "crypto_support.h"

namespace {

using kstest::blocks_of;
using kstest::quoted;
using kstest::test_key;

uint32_t le32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (size_t i = 4; i-- > 0;) v = v << 8 | static_cast<unsigned char>(s[at + i]);
    return v;
}

// "type:payload size " for each block.
std::string layout(const std::string& file) {
    std::string types;
    for (const auto& [type, payload] : blocks_of(file))
        types += std::to_string(type) + ":" + std::to_string(payload.size()) + " ";
    return types;
}

class CryptoLogTest : public ::testing::Test {
protected:
    kstest::TempDir dir;
    const std::string log = dir / "test.0", plain_file = dir / "plain";
    ks::CryptoLogWriter writer{test_key("pub.pem").c_str()};

    void SetUp() override { ASSERT_TRUE(writer); }

    // What the log core does for one record: open, seek to the end, header when empty.
    int append(const std::string& record, int extra_flags = 0, crypto_log_writer* w = nullptr) {
        ks::unique_fd fd(::open(log.c_str(), O_RDWR | O_CREAT | extra_flags, 0644));
        if (!fd) return -2;
        if (::lseek(fd.get(), 0, SEEK_END) == 0 && crypto_log_layout_write_header(fd.get()) != 0) return -3;
        ::lseek(fd.get(), 0, SEEK_END);
        return crypto_log_writer_encrypt(w ? w : writer.get(), fd.get(), record.data(), record.size());
    }

    // Our reader's plain text. Its result code goes to `rc` and the error message to `message`;
    // without `rc` the read must succeed.
    std::string read_back(const std::string& file, const char* private_key = "priv.pem", int* rc = nullptr,
                          std::string* message = nullptr) {
        crypto_log_reader* reader = crypto_log_reader_new(test_key(private_key).c_str());
        EXPECT_NE(reader, nullptr);
        ks::unique_fd in(::open(file.c_str(), O_RDONLY));
        ks::unique_fd out(::open(plain_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        const int result = crypto_log_reader_decrypt(reader, out.get(), in.get());
        if (message) *message = std::string(ks::_get_kserrno().message_view());
        crypto_log_reader_free(reader);
        if (rc) *rc = result;
        else EXPECT_EQ(result, 0) << ks::_get_kserrno().message_view();
        return kstest::read_file(plain_file);
    }

    // The second reader: framing parsed here, every decryption done by the openssl command.
    // `keys_seen` gets the hexadecimal AES key of each key block.
    std::string openssl_read(const std::string& file, std::vector<std::string>* keys_seen = nullptr) {
        std::string plain, aes_key;
        for (const auto& [type, payload] : blocks_of(kstest::read_file(file))) {
            EXPECT_TRUE(kstest::write_file(dir / "payload", payload));
            std::string out;
            if (type == 1) {
                EXPECT_EQ(kstest::openssl_rsa_decrypt(dir / "payload", &out), 0);
                EXPECT_EQ(out.size(), 32u);
                aes_key = ks::hex_encode(out);
                if (keys_seen) keys_seen->push_back(aes_key);
            } else if (type == 2) {
                const std::string decrypt = kstest::openssl_aes(aes_key, std::string(32, '0'), "-d -in ");
                EXPECT_EQ(kstest::run(decrypt + quoted(dir / "payload"), &out), 0);
                plain += out;
            }
        }
        return plain;
    }
};

TEST_F(CryptoLogTest, LayoutOnDisk) {
    // Record sizes and the payload each must become.
    const std::pair<size_t, size_t> records[] = {{37, 48}, {16, 32}, {4095, 4096}, {0, 16}, {4111, 4112}};
    std::string expected, types = "1:256 ";
    for (auto [size, payload] : records) {
        const std::string record(size, static_cast<char>('a' + size % 26));
        ASSERT_EQ(append(record), 0) << size;
        expected += record;
        types += "2:" + std::to_string(payload) + " ";
    }
    const std::string file = kstest::read_file(log);
    ASSERT_GE(file.size(), 32u);
    EXPECT_EQ(file.substr(0, 5), "KSCL\x01");
    EXPECT_EQ(file.substr(9, 23), std::string(23, '\0'));
    EXPECT_EQ(layout(file), types);
    EXPECT_EQ(read_back(log), expected);
    EXPECT_EQ(openssl_read(log), expected);

    // Longer than the writer's record buffer: refused, nothing written.
    EXPECT_EQ(append(std::string(4112, 'x')), -1);
    EXPECT_EQ(kstest::read_file(log), file);
}

TEST_F(CryptoLogTest, EachProcessStartsItsRunWithItsOwnKey) {
    // The other process either makes its own writer or uses the one inherited over fork;
    // both times its records must follow a key block and the header must name it. The parent
    // then appends with O_APPEND: its header rewrite must still land at offset 0.
    for (bool own_writer : {true, false}) {
        SCOPED_TRACE(own_writer ? "own writer" : "inherited writer");
        ::unlink(log.c_str());
        ASSERT_EQ(append("parent 1\n"), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            crypto_log_writer* w = own_writer ? crypto_log_writer_new(test_key("pub.pem").c_str()) : writer.get();
            const int rc = w ? append("child 1\n", 0, w) | append("child 2\n", 0, w) : -1;
            ::_exit(rc == 0 && le32(kstest::read_file(log), 5) == static_cast<uint32_t>(::getpid()) ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        ASSERT_EQ(append("parent 2\n", O_APPEND), 0);
        ASSERT_EQ(append("parent 3\n"), 0);

        const std::string file = kstest::read_file(log), expected = "parent 1\nchild 1\nchild 2\nparent 2\nparent 3\n";
        EXPECT_EQ(le32(file, 5), static_cast<uint32_t>(::getpid()));
        EXPECT_EQ(layout(file), "1:256 2:16 1:256 2:16 2:16 1:256 2:16 2:16 ");
        EXPECT_EQ(read_back(log), expected);
        std::vector<std::string> aes_keys;
        EXPECT_EQ(openssl_read(log, &aes_keys), expected);
        ASSERT_EQ(aes_keys.size(), 3u);
        EXPECT_EQ(aes_keys[0], aes_keys[2]);
        EXPECT_EQ(aes_keys[0] != aes_keys[1], own_writer);
    }
}

TEST_F(CryptoLogTest, NewKeyAndRotationResendTheKey) {
    ASSERT_EQ(append("one\n"), 0);
    ASSERT_TRUE(writer.regen_sym_key());
    ASSERT_EQ(append("two\n"), 0);
    ASSERT_EQ(append("three\n"), 0);
    std::vector<std::string> aes_keys;
    EXPECT_EQ(openssl_read(log, &aes_keys), "one\ntwo\nthree\n");
    ASSERT_EQ(aes_keys.size(), 2u);
    EXPECT_NE(aes_keys[0], aes_keys[1]);

    // A rotated (fresh) file gets the key again even though the key is not new.
    ASSERT_EQ(::rename(log.c_str(), (dir / "test.1").c_str()), 0);
    ASSERT_EQ(append("four\n"), 0);
    EXPECT_EQ(layout(kstest::read_file(log)), "1:256 2:16 ");
    EXPECT_EQ(openssl_read(log), "four\n");

    // A new key that cannot be wrapped (the public key is gone) leaves the old one in use.
    const std::string pub = dir / "pub.pem";
    ASSERT_TRUE(kstest::write_file(pub, kstest::read_file(test_key("pub.pem"))));
    ks::CryptoLogWriter own(pub.c_str());
    ASSERT_TRUE(own);
    ASSERT_EQ(::unlink(pub.c_str()), 0);
    EXPECT_FALSE(own.regen_sym_key());
    ASSERT_EQ(append("five\n", 0, own.get()), 0);
    EXPECT_EQ(openssl_read(log), "four\nfive\n");
}

TEST_F(CryptoLogTest, ForeignFilesAreNotAppendedTo) {
    for (const std::string& contents : {std::string("KSCX\x01", 5) + std::string(27, '\0'),  // magic
                                        std::string("KSCL\x02", 5) + std::string(27, '\0'),  // version
                                        std::string("KSCL\x01", 5),                          // too short
                                        std::string("plain text that is long enough to hold a header\n")}) {
        ASSERT_TRUE(kstest::write_file(log, contents));
        EXPECT_EQ(append("record\n"), -1);
        EXPECT_EQ(kstest::read_file(log), contents);
    }
}

TEST_F(CryptoLogTest, ReaderStopsAtDamageAfterPrintingWhatItCould) {
    const std::string two = "first\nsecond, a record longer than one block\n", all = two + "third\n";
    for (const char* record : {"first\n", "second, a record longer than one block\n", "third\n"})
        ASSERT_EQ(append(record), 0);
    const std::string good = kstest::read_file(log);
    std::vector<size_t> boundaries = {32};  // the start of each block, and the end
    for (const auto& block : blocks_of(good)) boundaries.push_back(boundaries.back() + 5 + block.second.size());
    ASSERT_EQ(boundaries.size(), 5u);
    const size_t third_record = boundaries[3];
    // A record under the right key whose padding byte is 0: only the cipher can say.
    std::vector<std::string> aes_keys;
    ASSERT_EQ(openssl_read(log, &aes_keys), all);
    std::string bad_padding;
    const std::string encrypt = kstest::openssl_aes(aes_keys[0], std::string(32, '0'), "-nopad");
    ASSERT_EQ(kstest::run("head -c 16 /dev/zero | " + encrypt, &bad_padding), 0);
    ASSERT_EQ(bad_padding.size(), 16u);

    // Each damage, the text read before it and a part of the error message ("" for success).
    const struct {
        const char* name;
        std::function<std::string(std::string)> damage;
        std::string plain;
        const char* message;
        const char* key = "priv.pem";
    } cases[] = {
        {"intact", [](std::string f) { return f; }, all, ""},
        {"empty", [](std::string) { return std::string(); }, "", "shorter than its header"},
        {"foreign magic", [](std::string f) { return f.replace(0, 4, "KSCX"); }, "", "not an encrypted log file"},
        {"newer version", [](std::string f) { return f.replace(4, 1, "\x02"); }, "", "unsupported format version 2"},
        {"cut in the last payload", [](std::string f) { return f.substr(0, f.size() - 3); }, two, "truncated"},
        {"other private key", [](std::string f) { return f; }, "", "does not match", "other.pem"},
        {"damaged key block", [](std::string f) { return f.replace(37, 256, 256, '\x55'); }, "", "does not match"},
        {"huge length", [=](std::string f) { return f.replace(third_record + 1, 4, "\xff\xff\xff\xff"); }, two,
         "corrupt block"},
        {"length not whole blocks", [=](std::string f) { return f.replace(third_record + 1, 4, "\x11\0\0\0", 4); }, two,
         "corrupt block"},
        {"record before any key", [](std::string f) { return f.erase(32, 5 + 256); }, "", "without a key"},
        {"bad padding", [=](std::string f) { return f.replace(third_record + 5, 16, bad_padding); }, two,
         "cannot decrypt"},
        {"unknown block type skipped",
         [=](std::string f) { return f.insert(third_record, "\x07\x03\0\0\0xyz", 8); }, all, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(kstest::write_file(dir / "damaged", c.damage(good)));
        int rc = -9;
        std::string message;
        EXPECT_EQ(read_back(dir / "damaged", c.key, &rc, &message), c.plain);
        EXPECT_EQ(rc, *c.message ? -1 : 0);
        EXPECT_NE(message.find(c.message), std::string::npos) << message;
    }

    // Cut at every length: only block boundaries read cleanly, and whatever is printed is a
    // prefix of the text.
    for (size_t length = 0; length <= good.size(); ++length) {
        ASSERT_TRUE(kstest::write_file(dir / "cut", good.substr(0, length)));
        int rc = -9;
        const std::string plain = read_back(dir / "cut", "priv.pem", &rc);
        const bool boundary = std::find(boundaries.begin(), boundaries.end(), length) != boundaries.end();
        EXPECT_EQ(rc, boundary ? 0 : -1) << length;
        EXPECT_EQ(all.compare(0, plain.size(), plain), 0) << length;
    }
}

TEST_F(CryptoLogTest, RefusesBadKeysAndArguments) {
    EXPECT_EQ(crypto_log_writer_new(nullptr), nullptr);
    EXPECT_EQ(crypto_log_writer_new((dir / "missing.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_writer_new(test_key("ecpub.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new((dir / "missing.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new(test_key("pub.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new(test_key("ec.pem").c_str()), nullptr);
    EXPECT_NE(std::string(ks::_get_kserrno().message_view()).find("not an RSA private key"), std::string::npos);
    EXPECT_EQ(crypto_log_writer_encrypt(nullptr, 1, "x", 1), -1);
    EXPECT_EQ(crypto_log_writer_encrypt(writer.get(), -1, "x", 1), -1);

    // Unwritable descriptor: the record is lost, nothing is half-written.
    ASSERT_EQ(append("first\n"), 0);
    const std::string before = kstest::read_file(log);
    ks::unique_fd read_only(::open(log.c_str(), O_RDONLY));
    ::lseek(read_only.get(), 0, SEEK_END);
    EXPECT_EQ(crypto_log_writer_encrypt(writer.get(), read_only.get(), "second\n", 7), -1);
    EXPECT_EQ(kstest::read_file(log), before);
}

TEST_F(CryptoLogTest, ClassWrappersAndAPipedReader) {
    ks::CryptoLogWriter moved(std::move(writer));
    ASSERT_TRUE(moved);
    ks::unique_fd fd(::open(log.c_str(), O_RDWR | O_CREAT, 0644));
    ASSERT_EQ(crypto_log_layout_write_header(fd.get()), 0);
    ASSERT_EQ(::lseek(fd.get(), 0, SEEK_END), 32);
    EXPECT_TRUE(moved.encrypt(fd.get(), "via the class\n", 14));
    // A payload the caller encrypted itself is framed as it is.
    const std::vector<unsigned char> opaque(48, 0xab);
    EXPECT_TRUE(moved.write_without_key(fd.get(), opaque));
    EXPECT_TRUE(moved.write_with_key(fd.get(), opaque));
    const std::string file = kstest::read_file(log);
    EXPECT_EQ(layout(file), "1:256 2:16 2:48 1:256 2:48 ");
    EXPECT_EQ(file.substr(file.size() - 48), std::string(48, '\xab'));

    // The reader takes a pipe as well as a file.
    ASSERT_TRUE(kstest::write_file(log, file.substr(0, 32 + 5 + 256 + 5 + 16)));
    ks::CryptoLogReader reader(test_key("priv.pem").c_str()), other(test_key("other.pem").c_str());
    other = std::move(reader);
    const kstest::PipeFrom cat = kstest::pipe_from("cat " + quoted(log));
    ASSERT_TRUE(cat);
    ks::unique_fd out(::open(plain_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    EXPECT_TRUE(other.decrypt(out.get(), ::fileno(cat.get())));
    EXPECT_EQ(kstest::read_file(plain_file), "via the class\n");
}

}  // namespace
