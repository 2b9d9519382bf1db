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

#include "kstest.h"

namespace {

struct Block {
    int type;
    std::string payload;
};

uint32_t le32(const std::string& s, size_t at) {
    return static_cast<uint32_t>(static_cast<unsigned char>(s[at])) |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 1])) << 8 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 2])) << 16 |
           static_cast<uint32_t>(static_cast<unsigned char>(s[at + 3])) << 24;
}

std::string le32_bytes(uint32_t v) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(v >> (8 * i));
    return s;
}

// The framing, parsed independently of the library.
std::vector<Block> blocks_of(const std::string& file) {
    std::vector<Block> blocks;
    for (size_t pos = 32; pos + 5 <= file.size();) {
        const uint32_t length = le32(file, pos + 1);
        blocks.push_back({file[pos], file.substr(pos + 5, length)});
        pos += 5 + length;
    }
    return blocks;
}

std::string block_types(const std::vector<Block>& blocks) {
    std::string types;
    for (const Block& b : blocks) types += std::to_string(b.type) + ":" + std::to_string(b.payload.size()) + " ";
    return types;
}

class CryptoLogTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keys = new kstest::TempDir;
        ASSERT_TRUE(kstest::make_rsa_keypair(*keys / "priv.pem", *keys / "pub.pem"));
        ASSERT_TRUE(kstest::make_rsa_keypair(*keys / "other.pem", *keys / "otherpub.pem"));
        ASSERT_EQ(kstest::run("openssl ecparam -name prime256v1 -genkey -noout -out '" + *keys / "ec.pem" +
                              "' 2>/dev/null && openssl ec -in '" + *keys / "ec.pem" + "' -pubout -out '" +
                              *keys / "ecpub.pem" + "' 2>/dev/null"),
                  0);
    }
    static void TearDownTestSuite() {
        delete keys;
        keys = nullptr;
    }
    static std::string key(const char* name) { return *keys / name; }

    void SetUp() override {
        writer = crypto_log_writer_new(key("pub.pem").c_str());
        ASSERT_NE(writer, nullptr);
        log = dir / "test.0";
    }
    void TearDown() override { crypto_log_writer_free(writer); }

    // What the log core does for one record: open, seek to the end, header when empty.
    int append(crypto_log_writer* w, const std::string& record, int extra_flags = 0) {
        ks::unique_fd fd(::open(log.c_str(), O_RDWR | O_CREAT | extra_flags, 0644));
        if (!fd) return -2;
        if (::lseek(fd.get(), 0, SEEK_END) == 0 && crypto_log_layout_write_header(fd.get()) != 0) return -3;
        ::lseek(fd.get(), 0, SEEK_END);
        return crypto_log_writer_encrypt(w, fd.get(), record.data(), record.size());
    }

    // Our reader: the plain text, and the result code through `rc`.
    std::string read_back(const std::string& file, const char* private_key, int* rc,
                          std::string* message = nullptr) {
        crypto_log_reader* reader = crypto_log_reader_new(key(private_key).c_str());
        EXPECT_NE(reader, nullptr);
        const std::string out = dir / "plain";
        ks::unique_fd in(::open(file.c_str(), O_RDONLY));
        ks::unique_fd plain(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        *rc = crypto_log_reader_decrypt(reader, plain.get(), in.get());
        if (message) *message = std::string(ks::_get_kserrno().message_view());
        crypto_log_reader_free(reader);
        return kstest::read_file(out);
    }

    // The second reader: framing parsed here, every decryption done by the openssl command.
    // `keys_seen` gets the hexadecimal AES key of each key block.
    std::string openssl_read(const std::string& file, std::vector<std::string>* keys_seen = nullptr) {
        std::string plain, aes_key;
        for (const Block& b : blocks_of(kstest::read_file(file))) {
            EXPECT_TRUE(kstest::write_file(dir / "payload", b.payload));
            if (b.type == 1) {
                std::string raw;
                EXPECT_EQ(kstest::run("openssl pkeyutl -decrypt -pkeyopt rsa_padding_mode:pkcs1 -inkey '" +
                                          key("priv.pem") + "' -in '" + dir / "payload" + "'",
                                      &raw),
                          0);
                EXPECT_EQ(raw.size(), 32u);
                aes_key = ks::hex_encode(raw);
                if (keys_seen) keys_seen->push_back(aes_key);
            } else if (b.type == 2) {
                std::string record;
                EXPECT_EQ(kstest::run("openssl enc -d -aes-256-cbc -nosalt -K " + aes_key + " -iv " +
                                          std::string(32, '0') + " -in '" + dir / "payload" + "'",
                                      &record),
                          0);
                plain += record;
            }
        }
        return plain;
    }

    static kstest::TempDir* keys;
    kstest::TempDir dir;
    crypto_log_writer* writer = nullptr;
    std::string log;
};
kstest::TempDir* CryptoLogTest::keys = nullptr;

TEST_F(CryptoLogTest, LayoutOnDisk) {
    // Record sizes and the payload each must become.
    const struct {
        size_t size;
        size_t payload;
    } records[] = {{37, 48}, {16, 32}, {4095, 4096}, {0, 16}, {4111, 4112}};
    std::string expected, types = "1:256 ";
    for (const auto& r : records) {
        const std::string record(r.size, static_cast<char>('a' + r.size % 26));
        ASSERT_EQ(append(writer, record), 0) << r.size;
        expected += record;
        types += "2:" + std::to_string(r.payload) + " ";
    }
    const std::string file = kstest::read_file(log);
    ASSERT_GE(file.size(), 32u);
    EXPECT_EQ(file.substr(0, 5), "KSCL\x01");
    EXPECT_EQ(le32(file, 5), static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(file.substr(9, 23), std::string(23, '\0'));
    EXPECT_EQ(block_types(blocks_of(file)), types);

    int rc = -9;
    EXPECT_EQ(read_back(log, "priv.pem", &rc), expected);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(openssl_read(log), expected);

    // Longer than the writer's record buffer: refused, nothing written.
    EXPECT_EQ(append(writer, std::string(4112, 'x')), -1);
    EXPECT_EQ(kstest::read_file(log), file);
}

TEST_F(CryptoLogTest, EachProcessStartsItsRunWithItsOwnKey) {
    // The other process either makes its own writer or uses the one inherited over fork;
    // both times its records must follow a key block and the header must name it.
    for (bool own_writer : {true, false}) {
        SCOPED_TRACE(own_writer ? "own writer" : "inherited writer");
        ::unlink(log.c_str());
        ASSERT_EQ(append(writer, "parent 1\n"), 0);
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            crypto_log_writer* w = own_writer ? crypto_log_writer_new(key("pub.pem").c_str()) : writer;
            int rc = w ? append(w, "child 1\n") | append(w, "child 2\n") : -1;
            const std::string header = kstest::read_file(log).substr(0, 32);
            bool named = le32(header, 5) == static_cast<uint32_t>(::getpid());
            ::_exit(rc == 0 && named ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        ASSERT_EQ(append(writer, "parent 2\n"), 0);
        ASSERT_EQ(append(writer, "parent 3\n"), 0);

        const std::string file = kstest::read_file(log);
        EXPECT_EQ(le32(file, 5), static_cast<uint32_t>(::getpid()));
        EXPECT_EQ(block_types(blocks_of(file)), "1:256 2:16 1:256 2:16 2:16 1:256 2:16 2:16 ");
        const std::string expected = "parent 1\nchild 1\nchild 2\nparent 2\nparent 3\n";
        int rc = -9;
        EXPECT_EQ(read_back(log, "priv.pem", &rc), expected);
        EXPECT_EQ(rc, 0);
        std::vector<std::string> aes_keys;
        EXPECT_EQ(openssl_read(log, &aes_keys), expected);
        ASSERT_EQ(aes_keys.size(), 3u);
        EXPECT_EQ(aes_keys[0], aes_keys[2]);
        EXPECT_EQ(aes_keys[0] != aes_keys[1], own_writer);
    }
}

TEST_F(CryptoLogTest, NewKeyAndRotationResendTheKey) {
    ASSERT_EQ(append(writer, "one\n"), 0);
    ASSERT_EQ(crypto_log_writer_regen_sym_key(writer), 0);
    ASSERT_EQ(append(writer, "two\n"), 0);
    ASSERT_EQ(append(writer, "three\n"), 0);
    std::vector<std::string> aes_keys;
    EXPECT_EQ(openssl_read(log, &aes_keys), "one\ntwo\nthree\n");
    ASSERT_EQ(aes_keys.size(), 2u);
    EXPECT_NE(aes_keys[0], aes_keys[1]);

    // A rotated (fresh) file gets the key again even though the key is not new.
    ASSERT_EQ(::rename(log.c_str(), (dir / "test.1").c_str()), 0);
    ASSERT_EQ(append(writer, "four\n"), 0);
    EXPECT_EQ(block_types(blocks_of(kstest::read_file(log))), "1:256 2:16 ");
    EXPECT_EQ(openssl_read(log), "four\n");

    // A new key that cannot be wrapped (the public key is gone) leaves the old one in use.
    const std::string pub = dir / "pub.pem";
    ASSERT_TRUE(kstest::write_file(pub, kstest::read_file(key("pub.pem"))));
    ks::CryptoLogWriter own(pub.c_str());
    ASSERT_TRUE(own);
    ASSERT_EQ(::unlink(pub.c_str()), 0);
    EXPECT_FALSE(own.regen_sym_key());
    ASSERT_EQ(append(own.get(), "five\n"), 0);
    EXPECT_EQ(openssl_read(log), "four\nfive\n");
}

TEST_F(CryptoLogTest, HeaderOfAnotherProcessIsRewrittenInAppendMode) {
    // A file last keyed by another process, opened with O_APPEND: the header rewrite must
    // land at offset 0 and the record at the end.
    ASSERT_EQ(append(writer, "mine\n"), 0);
    std::string file = kstest::read_file(log);
    file.replace(5, 4, le32_bytes(1));
    ASSERT_TRUE(kstest::write_file(log, file));
    ASSERT_EQ(append(writer, "again\n", O_APPEND), 0);
    file = kstest::read_file(log);
    EXPECT_EQ(le32(file, 5), static_cast<uint32_t>(::getpid()));
    EXPECT_EQ(block_types(blocks_of(file)), "1:256 2:16 1:256 2:16 ");
    EXPECT_EQ(openssl_read(log), "mine\nagain\n");
}

TEST_F(CryptoLogTest, ForeignFilesAreNotAppendedTo) {
    const std::string headers[] = {
        std::string("KSCX\x01", 5) + std::string(27, '\0'),  // magic
        std::string("KSCL\x02", 5) + std::string(27, '\0'),  // version
        std::string("KSCL\x01", 5),                           // shorter than a header
        "plain text that is long enough to hold a header\n",
    };
    for (const std::string& contents : headers) {
        ASSERT_TRUE(kstest::write_file(log, contents));
        EXPECT_EQ(append(writer, "record\n"), -1);
        EXPECT_EQ(kstest::read_file(log), contents);
        int rc = 0;
        EXPECT_EQ(read_back(log, "priv.pem", &rc), "");
        EXPECT_EQ(rc, -1);
    }
}

TEST_F(CryptoLogTest, ReaderStopsAtDamageAfterPrintingWhatItCould) {
    ASSERT_EQ(append(writer, "first\n"), 0);
    ASSERT_EQ(append(writer, "second\n"), 0);
    ASSERT_EQ(append(writer, "third record\n"), 0);
    const std::string good = kstest::read_file(log);
    const size_t first_record = 32 + 5 + 256;
    const size_t third_record = first_record + 2 * (5 + 16);
    const std::string bad_key(256, '\x55');
    // A record under the right key whose padding byte is 0: only the cipher can say.
    std::vector<std::string> aes_keys;
    ASSERT_EQ(openssl_read(log, &aes_keys), "first\nsecond\nthird record\n");
    ASSERT_TRUE(kstest::write_file(dir / "zeros", std::string(16, '\0')));
    std::string bad_padding;
    ASSERT_EQ(kstest::run("openssl enc -aes-256-cbc -nosalt -nopad -K " + aes_keys[0] + " -iv " +
                              std::string(32, '0') + " -in '" + dir / "zeros" + "'",
                          &bad_padding),
              0);
    ASSERT_EQ(bad_padding.size(), 16u);

    const struct {
        const char* name;
        std::function<std::string(std::string)> damage;
        const char* key;
        int rc;
        std::string plain;
        const char* message;  // a part of the error record's message
    } cases[] = {
        {"intact", [](std::string f) { return f; }, "priv.pem", 0, "first\nsecond\nthird record\n", ""},
        {"header only", [](std::string f) { return f.substr(0, 32); }, "priv.pem", 0, "", ""},
        {"empty", [](std::string) { return std::string(); }, "priv.pem", -1, "", "shorter than its header"},
        {"cut in the last payload", [](std::string f) { return f.substr(0, f.size() - 3); }, "priv.pem", -1,
         "first\nsecond\n", "truncated"},
        {"other private key", [](std::string f) { return f; }, "other.pem", -1, "", "does not match"},
        {"damaged key block", [=](std::string f) { return f.replace(37, 256, bad_key); }, "priv.pem", -1, "",
         "does not match"},
        {"huge length", [=](std::string f) { return f.replace(third_record + 1, 4, "\xff\xff\xff\xff"); }, "priv.pem",
         -1, "first\nsecond\n", "corrupt block"},
        {"length not whole blocks", [=](std::string f) { return f.replace(third_record + 1, 4, le32_bytes(17)); },
         "priv.pem", -1, "first\nsecond\n", "corrupt block"},
        {"record before any key", [=](std::string f) { return f.erase(32, 5 + 256); }, "priv.pem", -1, "",
         "without a key"},
        {"bad padding", [=](std::string f) { return f.replace(third_record + 5, 16, bad_padding); },
         "priv.pem", -1, "first\nsecond\n", "cannot decrypt"},
        {"unknown block type skipped",
         [=](std::string f) { return f.insert(third_record, std::string("\x07", 1) + le32_bytes(3) + "xyz"); },
         "priv.pem", 0, "first\nsecond\nthird record\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string damaged = dir / "damaged";
        ASSERT_TRUE(kstest::write_file(damaged, c.damage(good)));
        int rc = -9;
        std::string message;
        EXPECT_EQ(read_back(damaged, c.key, &rc, &message), c.plain);
        EXPECT_EQ(rc, c.rc);
        if (c.rc != 0) {
            EXPECT_NE(message.find(c.message), std::string::npos) << message;
        }
    }
}

TEST_F(CryptoLogTest, EveryTruncationIsCleanOrReported) {
    // Cut the file at every length: only block boundaries read cleanly, and whatever is
    // printed is always a whole-record prefix of the text.
    const std::vector<std::string> records = {"alpha\n", "a record longer than one block\n", "omega\n"};
    std::string text;
    for (const std::string& r : records) {
        ASSERT_EQ(append(writer, r), 0);
        text += r;
    }
    const std::string good = kstest::read_file(log);
    std::vector<size_t> boundaries = {32};
    for (const Block& b : blocks_of(good)) boundaries.push_back(boundaries.back() + 5 + b.payload.size());
    const std::string cut = dir / "cut";
    for (size_t length = 0; length <= good.size(); ++length) {
        ASSERT_TRUE(kstest::write_file(cut, good.substr(0, length)));
        int rc = -9;
        const std::string plain = read_back(cut, "priv.pem", &rc);
        const bool boundary = std::find(boundaries.begin(), boundaries.end(), length) != boundaries.end();
        EXPECT_EQ(rc, boundary ? 0 : -1) << length;
        EXPECT_EQ(text.compare(0, plain.size(), plain), 0) << length;
    }
    int rc = -9;
    EXPECT_EQ(read_back(log, "priv.pem", &rc), text);
    EXPECT_EQ(rc, 0);
}

TEST_F(CryptoLogTest, ReaderTakesAPipe) {
    ASSERT_EQ(append(writer, "through a pipe\n"), 0);
    crypto_log_reader* reader = crypto_log_reader_new(key("priv.pem").c_str());
    ASSERT_NE(reader, nullptr);
    int in[2], out[2];
    ASSERT_EQ(::pipe(in), 0);
    ASSERT_EQ(::pipe(out), 0);
    const std::string file = kstest::read_file(log);
    ASSERT_EQ(::write(in[1], file.data(), file.size()), static_cast<ssize_t>(file.size()));
    ::close(in[1]);
    EXPECT_EQ(crypto_log_reader_decrypt(reader, out[1], in[0]), 0);
    ::close(out[1]);
    char buffer[64];
    ssize_t n = ::read(out[0], buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, n > 0 ? n : 0), "through a pipe\n");
    ::close(in[0]);
    ::close(out[0]);
    crypto_log_reader_free(reader);
}

TEST_F(CryptoLogTest, RefusesBadKeysAndArguments) {
    EXPECT_EQ(crypto_log_writer_new(nullptr), nullptr);
    EXPECT_EQ(crypto_log_writer_new((dir / "missing.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_writer_new(key("ecpub.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new((dir / "missing.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new(key("pub.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new(key("ec.pem").c_str()), nullptr);
    EXPECT_NE(std::string(ks::_get_kserrno().message_view()).find("not an RSA private key"), std::string::npos);

    EXPECT_EQ(crypto_log_writer_encrypt(nullptr, 1, "x", 1), -1);
    EXPECT_EQ(crypto_log_writer_encrypt(writer, -1, "x", 1), -1);

    // Unwritable descriptor: the record is lost, nothing is half-written.
    ASSERT_EQ(append(writer, "first\n"), 0);
    const std::string before = kstest::read_file(log);
    ks::unique_fd read_only(::open(log.c_str(), O_RDONLY));
    ::lseek(read_only.get(), 0, SEEK_END);
    EXPECT_EQ(crypto_log_writer_encrypt(writer, read_only.get(), "second\n", 7), -1);
    EXPECT_EQ(kstest::read_file(log), before);
}

TEST_F(CryptoLogTest, ClassWrappers) {
    ks::CryptoLogWriter bad((dir / "missing.pem").c_str());
    EXPECT_FALSE(bad.encrypt(1, "x", 1));
    ks::CryptoLogWriter w(key("pub.pem").c_str());
    ks::CryptoLogWriter moved(std::move(w));
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
    EXPECT_EQ(block_types(blocks_of(file)), "1:256 2:16 2:48 1:256 2:48 ");
    EXPECT_EQ(file.substr(file.size() - 48), std::string(48, '\xab'));

    ASSERT_TRUE(kstest::write_file(log, file.substr(0, 32 + 5 + 256 + 5 + 16)));
    ks::CryptoLogReader reader(key("priv.pem").c_str());
    ks::CryptoLogReader other(key("other.pem").c_str());
    other = std::move(reader);
    ks::unique_fd in(::open(log.c_str(), O_RDONLY));
    ks::unique_fd plain(::open((dir / "plain").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    EXPECT_TRUE(other.decrypt(plain.get(), in.get()));
    EXPECT_EQ(kstest::read_file(dir / "plain"), "via the class\n");
}

}  // namespace
