// The encrypted log format: bytes on disk, an openssl-only second reader, shared and damaged files.
#include <ksutils/error.h>

#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <functional>
#include <random>

#include "kslog_fixture.h"

namespace {

using kstest::le32;
using kstest::quoted;
using kstest::test_key;

// "type:payload size " for each block.
std::string layout(const std::string& file) {
    std::string types;
    for (const auto& [type, payload] : kstest::blocks_of(file))
        types += std::to_string(type) + ":" + std::to_string(payload.size()) + " ";
    return types;
}

class CryptoLogTest : public ::testing::Test {
protected:
    kstest::TempDir dir;
    const std::string log = dir / "test.0";
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

    // Our reader's plain text; `message` gets the error of a read that was not whole (else it must be).
    std::string read_back(const std::string& file, std::string* message = nullptr) {
        bool whole = false;
        const std::string plain = kslogtest::decrypt(file, test_key("priv.pem"), &whole);
        if (message) *message = whole ? "" : ks::_get_kserrno().message_view().str();
        else EXPECT_TRUE(whole) << ks::_get_kserrno().message_view();
        return plain;
    }

    // The second reader: framing parsed here, decryption by openssl; `aes_keys` gets each key block's key.
    std::vector<std::string> aes_keys;
    std::string openssl_read(const std::string& file) {
        const std::string rsa = "openssl pkeyutl -decrypt -pkeyopt rsa_padding_mode:pkcs1 -inkey ";
        std::string plain, aes_key;
        aes_keys.clear();
        for (const auto& [type, payload] : kstest::blocks_of(kstest::read_file(file))) {
            EXPECT_TRUE(kstest::write_file(dir / "payload", payload));
            const std::string in = " -in " + quoted(dir / "payload");
            std::string out;
            if (type == 1) {
                EXPECT_EQ(kstest::run(rsa + quoted(test_key("priv.pem")) + in, &out), 0);
                EXPECT_EQ(out.size(), 32u);
                aes_keys.push_back(aes_key = ks::hex_encode(out));
            } else if (type == 2) {
                EXPECT_EQ(kstest::run(kstest::openssl_aes(aes_key, std::string(32, '0'), "-d") + in, &out), 0);
                plain += out;
            }
        }
        return plain;
    }
};

TEST_F(CryptoLogTest, LayoutOnDisk) {
    // Record sizes and the payload each must become; a new key goes out with the next record.
    const std::pair<size_t, size_t> records[] = {{37, 48}, {16, 32}, {4095, 4096}, {0, 16}, {4111, 4112}};
    std::string expected, types = "1:256 ";
    for (auto [size, payload] : records) {
        const std::string record(size, static_cast<char>('a' + size % 26));
        ASSERT_EQ(append(record), 0) << size;
        expected += record;
        types += "2:" + std::to_string(payload) + " ";
    }
    ASSERT_TRUE(writer.regen_sym_key());
    ASSERT_EQ(append("new key\n"), 0);
    ASSERT_EQ(append("same key\n"), 0);
    const std::string file = kstest::read_file(log);
    EXPECT_EQ(file.substr(0, 5) + file.substr(9, 23), "KSCL\x01" + std::string(23, '\0'));
    EXPECT_EQ(layout(file), types + "1:256 2:16 2:16 ");
    expected += "new key\nsame key\n";
    EXPECT_EQ(read_back(log), expected);
    EXPECT_EQ(openssl_read(log), expected);
    EXPECT_NE(aes_keys.at(0), aes_keys.at(1));

    // Longer than the writer's record buffer: refused, nothing written.
    EXPECT_EQ(append(std::string(4112, 'x')), -1);
    EXPECT_EQ(kstest::read_file(log), file);

    // A payload the caller encrypted goes as it is, under the key last written or behind its own key block.
    ks::unique_fd fd(::open(log.c_str(), O_WRONLY | O_APPEND));
    const std::vector<unsigned char> opaque(48, 0xab);
    EXPECT_TRUE(writer.write_without_key(fd.get(), opaque));
    EXPECT_TRUE(writer.write_with_key(fd.get(), opaque));
    const std::string framed = std::string("\x02\x30\0\0\0", 5) + std::string(48, '\xab');
    EXPECT_EQ(kstest::read_file(log), file + framed + file.substr(file.size() - 303, 261) + framed);
}

TEST_F(CryptoLogTest, EachProcessStartsItsRunWithItsOwnKey) {
    // Own writer or one inherited over fork, the child's records follow a key block and the header names
    // it; the parent's header rewrite lands at offset 0 even through O_APPEND.
    for (bool own_writer : {true, false}) {
        SCOPED_TRACE(own_writer ? "own writer" : "inherited writer");
        ::unlink(log.c_str());
        ASSERT_EQ(append("parent 1\n"), 0);
        ASSERT_EQ(kstest::in_child([&] {
                      crypto_log_writer* w =
                          own_writer ? crypto_log_writer_new(test_key("pub.pem").c_str()) : writer.get();
                      const int rc = w ? append("child 1\n", 0, w) | append("child 2\n", 0, w) : -1;
                      return rc == 0 && le32(kstest::read_file(log), 5) == static_cast<uint32_t>(::getpid()) ? 0 : 1;
                  }),
                  0);
        ASSERT_EQ(append("parent 2\n", O_APPEND), 0);
        ASSERT_EQ(append("parent 3\n"), 0);

        const std::string file = kstest::read_file(log);
        EXPECT_EQ(le32(file, 5), static_cast<uint32_t>(::getpid()));
        EXPECT_EQ(layout(file), "1:256 2:16 1:256 2:16 2:16 1:256 2:16 2:16 ");
        EXPECT_EQ(openssl_read(log), "parent 1\nchild 1\nchild 2\nparent 2\nparent 3\n");
        EXPECT_EQ(aes_keys.at(0), aes_keys.at(2));
        EXPECT_EQ(aes_keys.at(0) != aes_keys.at(1), own_writer);
    }
}

// Damage costs the stretch from the damaged block up to the next key block that opens,
// no more: here A's records "first" and "second", then B's key block and "third".
TEST_F(CryptoLogTest, ReaderSkipsDamageUpToTheNextKeyBlock) {
    const std::string second = "second, a record longer than one block\n";
    ks::CryptoLogWriter other(test_key("pub.pem").c_str());
    ASSERT_EQ(append("first\n"), 0);
    ASSERT_EQ(append(second), 0);
    ASSERT_EQ(append("third\n", 0, other.get()), 0);
    const std::string good = kstest::read_file(log);
    ASSERT_EQ(layout(good), "1:256 2:16 2:48 1:256 2:16 ");
    const size_t first = 32 + 261, key_b = first + 21 + 53, third = key_b + 261, end = good.size();
    const std::string stray_key = std::string("\x01\0\x01\0\0", 5) + std::string(256, '\x55');
    const auto skipped = [](size_t from, size_t to) {
        return " at offset " + std::to_string(from) + "; skipped bytes " + std::to_string(from) + "-" +
               std::to_string(to);
    };

    // Name, damage, the text read, the whole error message.
    const std::tuple<const char*, std::function<std::string(std::string)>, std::string, std::string> cases[] = {
        {"empty", [](std::string) { return std::string(); }, "", "log file shorter than its header"},
        {"magic", [](std::string f) { return f.replace(0, 4, "KSCX"); }, "", "bad header: not an encrypted log file"},
        {"version", [](std::string f) { return f.replace(4, 1, "\x02"); }, "",
         "bad header: unsupported format version 2"},
        {"cut in the last payload", [](std::string f) { return f.substr(0, f.size() - 3); }, "first\n" + second,
         "truncated block" + skipped(third, end - 4)},
        {"damaged key block", [](std::string f) { return f.replace(37, 256, 256, '\x55'); }, "third\n",
         "the private key does not match the key block" + skipped(32, key_b - 1)},
        {"huge length", [=](std::string f) { return f.replace(first + 1, 4, "\xff\xff\xff\xff"); }, "third\n",
         "corrupt block of type 2 and length 4294967295" + skipped(first, key_b - 1)},
        {"length not whole blocks", [=](std::string f) { return f.replace(first + 1, 4, "\x11\0\0\0", 4); },
         "third\n", "corrupt block of type 2 and length 17" + skipped(first, key_b - 1)},
        {"record before any key", [](std::string f) { return f.erase(32, 261); }, "third\n",
         "record without a key block" + skipped(32, key_b - 262)},
        // In CBC the last byte of the block before turns the padding of 9 into 0: only the cipher can say.
        {"bad padding", [=](std::string f) { return f.replace(first + 57, 1, 1, f[first + 57] ^ 9); }, "first\nthird\n",
         "cannot decrypt the record" + skipped(first + 21, key_b - 1)},
        {"key head that does not open, inside the damage",
         [=](std::string f) { return f.insert(key_b - 53, stray_key).replace(first + 1, 1, "\x13"); }, "third\n",
         "corrupt block of type 2 and length 19" + skipped(first, key_b + 260)},
        {"two damaged stretches", [](std::string f) { return f.replace(37, 256, 256, '\x55').substr(0, f.size() - 3); },
         "", "the private key does not match the key block" + skipped(32, key_b - 1) + "\ntruncated block" +
                 skipped(third, end - 4)},
    };
    for (const auto& [name, damage, plain, expected_message] : cases) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(kstest::write_file(dir / "damaged", damage(good)));
        std::string message;
        EXPECT_EQ(read_back(dir / "damaged", &message), plain);
        EXPECT_EQ(message, expected_message);
    }
}

// A block torn at any byte (writer killed) before the next key block: exactly the torn bytes are lost.
TEST_F(CryptoLogTest, ReaderResumesAfterABlockTornAtAnyByte) {
    ks::CryptoLogWriter torn(test_key("pub.pem").c_str()), next(test_key("pub.pem").c_str());
    ASSERT_EQ(append("before\n"), 0);
    ASSERT_EQ(append("never read\n", 0, torn.get()), 0);
    const std::string after = "after 1, longer than one block\nafter 2\n";
    ASSERT_EQ(append(after.substr(0, 31), 0, next.get()), 0);
    ASSERT_EQ(append(after.substr(31), 0, next.get()), 0);
    const std::string file = kstest::read_file(log);
    ASSERT_EQ(layout(file), "1:256 2:16 1:256 2:16 1:256 2:32 2:16 ");
    const size_t key_block = 32 + 261 + 21, record = key_block + 261, appended = record + 21;
    for (size_t cut = key_block + 1; cut < appended; ++cut) {
        if (cut == record) continue;  // the key block whole, the record not begun: nothing torn
        ASSERT_TRUE(kstest::write_file(dir / "torn", file.substr(0, cut) + file.substr(appended)));
        std::string message;
        EXPECT_EQ(read_back(dir / "torn", &message), "before\n" + after) << cut;
        const std::string range = std::to_string(cut < record ? key_block : record) + "-" + std::to_string(cut - 1);
        EXPECT_THAT(message, ::testing::EndsWith("; skipped bytes " + range)) << cut;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
}

// Writers of one file SIGKILLed at random points cost no record of the others, who finish normally.
TEST(CryptoLogKill, WritersKilledAtAnyMomentCostOnlyTheirOwnRecords) {
    constexpr int kSurvivors = 2, kVictims = 6, kRecords = 60, kKills = 200;
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    kstest::InstallRoot root;
    const auto message = [](int survivor, int i) {
        return "survivor " + std::to_string(survivor) + " record " + std::to_string(i) + std::string(i * 7 % 40, '.');
    };
    // Survivor `id` writes kRecords records; a victim (id < 0) writes until its own timer kills it.
    const auto writer = [&](const std::string& identity, int id) {
        const unsigned writer_seed = random();
        const pid_t pid = ::fork();
        if (pid != 0) return pid;
        std::minstd_rand r(writer_seed);
        if (kslog_init(identity.c_str(), root.path().c_str(), nullptr) != 0) ::_exit(1);
        struct sigevent death = {};
        death.sigev_notify = SIGEV_SIGNAL;
        death.sigev_signo = SIGKILL;
        struct itimerspec when = {};
        when.it_value.tv_nsec = 1 + r() % 400000;
        timer_t timer;
        if (id < 0) ::usleep(r() % 10000);  // victims die all through the survivors' writing
        if (id < 0 && (::timer_create(CLOCK_MONOTONIC, &death, &timer) != 0 ||
                       ::timer_settime(timer, 0, &when, nullptr) != 0))
            ::_exit(1);
        for (int i = 0; i < (id < 0 ? 100000 : kRecords); ++i) {
            kslogtest::log(0, 0, id < 0 ? "victim " + std::string(r() % 300, 'v') : message(id, i));
            if (id >= 0) ::usleep(r() % 200);
        }
        ::_exit(0);
    };
    int kills = 0;
    for (int run = 0; kills < kKills && run < 200; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const std::string identity = "/usr/bin/shared" + std::to_string(run);
        const std::string file = root / ("var/log/shared" + std::to_string(run) + ".");
        std::vector<pid_t> children;
        for (int w = 0; w < kSurvivors + kVictims; ++w) children.push_back(writer(identity, w < kSurvivors ? w : -1));
        for (size_t w = 0; w < children.size(); ++w) {
            int status = 0;
            ASSERT_EQ(::waitpid(children[w], &status, 0), children[w]);
            EXPECT_TRUE(w >= kSurvivors || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
            kills += w >= kSurvivors && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        }
        ASSERT_LT(::access((file + "1").c_str(), F_OK), 0) << "the file rotated: records went out";
        const std::string text = kslogtest::messages(kslogtest::decrypt(file + "0", root.private_key()));
        for (int s = 0; s < kSurvivors; ++s) {
            std::string got, expected;
            for (const std::string& line : kslogtest::lines(text))
                if (line.rfind("survivor " + std::to_string(s) + " ", 0) == 0) got += line;
            for (int i = 0; i < kRecords; ++i) expected += message(s, i) + "\n";
            EXPECT_EQ(got, expected) << "survivor " << s;
        }
    }
    EXPECT_GE(kills, kKills);
}

TEST_F(CryptoLogTest, RefusesBadKeysAndArguments) {
    EXPECT_EQ(crypto_log_writer_new(nullptr), nullptr);
    EXPECT_EQ(crypto_log_writer_new(test_key("ecpub.pem").c_str()), nullptr);
    EXPECT_EQ(crypto_log_reader_new(test_key("ec.pem").c_str()), nullptr);
    EXPECT_NE(std::string(ks::_get_kserrno().message_view()).find("not an RSA private key"), std::string::npos);
    EXPECT_EQ(crypto_log_writer_encrypt(nullptr, 1, "x", 1), -1);
    EXPECT_EQ(crypto_log_writer_encrypt(writer.get(), -1, "x", 1), -1);

    // Foreign files are not appended to (the reader's damage table tries the other headers).
    for (const std::string& contents :
         {std::string("KSCL\x01", 5), std::string("plain text that is long enough to hold a header\n")}) {
        ASSERT_TRUE(kstest::write_file(log, contents));
        EXPECT_EQ(append("record\n"), -1);
        EXPECT_EQ(kstest::read_file(log), contents);
    }

    // A new key that cannot be wrapped (the public key is gone) leaves the old one in use.
    const std::string pub = dir / "pub.pem";
    ASSERT_TRUE(kstest::write_file(pub, kstest::read_file(test_key("pub.pem"))));
    ks::CryptoLogWriter own(pub.c_str());
    ASSERT_TRUE(own);
    ASSERT_EQ(::unlink(pub.c_str()), 0);
    EXPECT_FALSE(own.regen_sym_key());
    ::unlink(log.c_str());
    ASSERT_EQ(append("old key\n", 0, own.get()), 0);
    EXPECT_EQ(openssl_read(log), "old key\n");
}

}  // namespace
