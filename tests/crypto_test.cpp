// Crypto wrappers checked against independent peers: the openssl command for AES and RSA,
// md5sum/sha256sum for digests, coreutils base64 for Base64.
#include <kscrypto.h>
#include <ksutils/crypto.h>
#include <ksutils/miscutl.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kstest.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes pattern(size_t size, unsigned seed = 1) {
    Bytes data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<unsigned char>((i * 131 + seed * 7) >> 1);
    return data;
}

std::string as_string(const Bytes& b) { return std::string(b.begin(), b.end()); }
Bytes as_bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
std::string hex(const unsigned char* p, size_t n) { return ks::hex_encode(p, n); }

struct Malloced {
    unsigned char* p = nullptr;
    size_t n = 0;
    ~Malloced() { std::free(p); }
    Bytes bytes() const { return Bytes(p, p + n); }
};

class AesContext {
public:
    AesContext(const unsigned char* key, int for_decryption) : ctx_(aes_context_new(key, for_decryption)) {}
    ~AesContext() { aes_context_free(ctx_); }
    AesContext(const AesContext&) = delete;
    AesContext& operator=(const AesContext&) = delete;
    operator mbedtls_aes_context*() const { return ctx_; }

private:
    mbedtls_aes_context* ctx_;
};

class CryptoTest : public ::testing::Test {
protected:
    kstest::TempDir dir;
    unsigned char key[AES_KEY_SIZE];
    unsigned char iv[AES_IV_SIZE];

    void SetUp() override {
        for (size_t i = 0; i < sizeof key; ++i) key[i] = static_cast<unsigned char>(0xa0 + i);
        for (size_t i = 0; i < sizeof iv; ++i) iv[i] = static_cast<unsigned char>(0x30 + 3 * i);
    }
    std::string openssl_aes(const std::string& flags) const {
        return "openssl enc -aes-256-cbc -nosalt " + flags + " -K " + hex(key, sizeof key) + " -iv " +
               hex(iv, sizeof iv);
    }
};

TEST_F(CryptoTest, AesFormsAgreeWithOpenssl) {
    // Lengths around the block size, a full log record and more than one streaming chunk.
    for (size_t size : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 4095u, 200001u}) {
        SCOPED_TRACE("size " + std::to_string(size));
        const Bytes plain = pattern(size, static_cast<unsigned>(size));
        const std::string in = dir / "in", out = dir / "out";
        ASSERT_TRUE(kstest::write_file(in, as_string(plain)));
        ASSERT_EQ(kstest::run(openssl_aes("-in '" + in + "' -out '" + out + "'")), 0);
        const Bytes expected = as_bytes(kstest::read_file(out));
        ASSERT_EQ(expected.size(), (size / 16 + 1) * 16);

        unsigned char chain[AES_IV_SIZE];
        std::memcpy(chain, iv, sizeof chain);
        Malloced enc;
        ASSERT_EQ(aes_encrypt(plain.data(), size, key, chain, &enc.p, &enc.n), 0);
        EXPECT_EQ(enc.bytes(), expected);
        // CBC leaves the last ciphertext block as the next IV.
        EXPECT_EQ(Bytes(chain, chain + 16), Bytes(expected.end() - 16, expected.end()));

        AesContext ctx(key, 0);
        std::memcpy(chain, iv, sizeof chain);
        Malloced enc_ctx;
        ASSERT_EQ(aes_encrypt_with_context(plain.data(), size, ctx, chain, &enc_ctx.p, &enc_ctx.n), 0);
        EXPECT_EQ(enc_ctx.bytes(), expected);
        Bytes fixed(expected.size());
        size_t fixed_len = 0;
        std::memcpy(chain, iv, sizeof chain);
        ASSERT_EQ(aes_encrypt_no_alloc(plain.data(), size, ctx, chain, fixed.data(), fixed.size(), &fixed_len), 0);
        EXPECT_EQ(fixed_len, expected.size());
        EXPECT_EQ(fixed, expected);

        AesContext dctx(key, 1);
        std::memcpy(chain, iv, sizeof chain);
        Malloced dec;
        ASSERT_EQ(aes_decrypt(expected.data(), expected.size(), key, chain, &dec.p, &dec.n), 0);
        EXPECT_EQ(dec.bytes(), plain);
        std::memcpy(chain, iv, sizeof chain);
        Malloced dec_ctx;
        ASSERT_EQ(aes_decrypt_with_context(expected.data(), expected.size(), dctx, chain, &dec_ctx.p, &dec_ctx.n), 0);
        EXPECT_EQ(dec_ctx.bytes(), plain);
        Bytes room(size);  // exactly the plain length: the padding needs no room
        size_t room_len = 0;
        std::memcpy(chain, iv, sizeof chain);
        ASSERT_EQ(aes_decrypt_no_alloc(expected.data(), expected.size(), dctx, chain, room.data(), room.size(),
                                       &room_len),
                  0);
        EXPECT_EQ(room_len, size);
        EXPECT_EQ(room, plain);

        // File forms: ours to openssl and openssl to ours.
        const std::string ours = dir / "ours", back = dir / "back";
        {
            ks::unique_fd src(::open(in.c_str(), O_RDONLY));
            ks::unique_fd dst(::open(ours.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
            ASSERT_EQ(aes_encrypt_file(dst.get(), src.get(), key, iv), 0);
        }
        EXPECT_EQ(as_bytes(kstest::read_file(ours)), expected);
        {
            ks::unique_fd src(::open(out.c_str(), O_RDONLY));
            ks::unique_fd dst(::open(back.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
            ASSERT_EQ(aes_decrypt_file(dst.get(), src.get(), key, iv), 0);
        }
        EXPECT_EQ(as_bytes(kstest::read_file(back)), plain);
        ASSERT_EQ(kstest::run(openssl_aes("-d -in '" + ours + "' -out '" + back + "'")), 0);
        EXPECT_EQ(as_bytes(kstest::read_file(back)), plain);
    }
}

TEST_F(CryptoTest, FileFormsCompleteShortReadsFromAPipe) {
    // A writer thread feeds odd-sized pieces, so reads return partial blocks.
    const Bytes plain = pattern(100003);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ks::unique_fd read_end(fds[0]), write_end(fds[1]);
    std::thread feeder([&] {
        for (size_t pos = 0; pos < plain.size();) {
            size_t n = std::min<size_t>(7 + pos % 93, plain.size() - pos);
            if (::write(write_end.get(), plain.data() + pos, n) != static_cast<ssize_t>(n)) break;
            pos += n;
        }
        write_end.reset();
    });
    const std::string out = dir / "out", back = dir / "back";
    {
        ks::unique_fd dst(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        EXPECT_EQ(aes_encrypt_file(dst.get(), read_end.get(), key, iv), 0);
    }
    feeder.join();
    ASSERT_EQ(kstest::run(openssl_aes("-d -in '" + out + "' -out '" + back + "'")), 0);
    EXPECT_EQ(as_bytes(kstest::read_file(back)), plain);
}

TEST_F(CryptoTest, AesRejectsBadInput) {
    const Bytes sixteen = pattern(16);
    AesContext ctx(key, 0);
    unsigned char small[16];
    size_t len = 99;
    Malloced out;

    EXPECT_EQ(aes_encrypt(nullptr, 1, key, iv, &out.p, &out.n), KSCRYPTO_EPARAM);
    EXPECT_EQ(aes_encrypt(sixteen.data(), 16, key, nullptr, &out.p, &out.n), KSCRYPTO_EPARAM);
    EXPECT_EQ(aes_decrypt(sixteen.data(), 16, key, iv, &out.p, nullptr), KSCRYPTO_EPARAM);
    EXPECT_EQ(aes_encrypt_with_context(sixteen.data(), 16, nullptr, iv, &out.p, &out.n), KSCRYPTO_EPARAM);
    EXPECT_EQ(out.p, nullptr);
    EXPECT_EQ(aes_encrypt_no_alloc(sixteen.data(), 16, ctx, iv, small, sizeof small, &len), KSCRYPTO_EBUFSIZE);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(aes_encrypt_no_alloc(sixteen.data(), 15, ctx, iv, small, sizeof small, &len), 0);

    // Ciphertext lengths that are not whole blocks.
    for (size_t bad : {0u, 1u, 15u, 17u}) {
        EXPECT_EQ(aes_decrypt(sixteen.data(), bad, key, iv, &out.p, &out.n), KSCRYPTO_EINSIZE) << bad;
        EXPECT_EQ(out.p, nullptr);
    }
    // Decrypting under the wrong key ends in padding that is not P bytes of P.
    Bytes plain = pattern(40);
    unsigned char chain[16];
    std::memcpy(chain, iv, 16);
    Malloced enc;
    ASSERT_EQ(aes_encrypt(plain.data(), plain.size(), key, chain, &enc.p, &enc.n), 0);
    unsigned char other_key[32] = {1};
    std::memcpy(chain, iv, 16);
    int rc = aes_decrypt(enc.p, enc.n, other_key, chain, &out.p, &out.n);
    EXPECT_LT(rc, 0);
    EXPECT_EQ(out.p, nullptr);
    EXPECT_EQ(out.n, 0u);
    // Too little room for the decrypted text.
    AesContext dctx(key, 1);
    std::memcpy(chain, iv, 16);
    Bytes room(39);
    EXPECT_EQ(aes_decrypt_no_alloc(enc.p, enc.n, dctx, chain, room.data(), room.size(), &len), KSCRYPTO_EBUFSIZE);

    // Descriptors that cannot be read or written, and a truncated ciphertext file.
    const std::string path = dir / "f";
    ASSERT_TRUE(kstest::write_file(path, std::string(33, 'x')));
    ks::unique_fd write_only(::open(path.c_str(), O_WRONLY));
    ks::unique_fd read_only(::open(path.c_str(), O_RDONLY));
    ks::unique_fd sink(::open("/dev/null", O_WRONLY));
    EXPECT_EQ(aes_encrypt_file(sink.get(), write_only.get(), key, iv), KSCRYPTO_EREAD);
    EXPECT_EQ(aes_decrypt_file(sink.get(), write_only.get(), key, iv), KSCRYPTO_EREAD);
    EXPECT_EQ(aes_encrypt_file(read_only.get(), read_only.get(), key, iv), KSCRYPTO_EWRITE);
    ::lseek(read_only.get(), 0, SEEK_SET);
    EXPECT_EQ(aes_decrypt_file(sink.get(), read_only.get(), key, iv), KSCRYPTO_EINSIZE);
    EXPECT_EQ(aes_encrypt_file(sink.get(), -1, key, iv), KSCRYPTO_EPARAM);
}

TEST(KscryptoStrerror, CodeTable) {
    struct Case {
        int code;
        const char* text;
    } cases[] = {
        {0, "No error"},           {1, "Invalid param"},  {2, "Buffer size is too small"},
        {3, "Input size mismatch"}, {4, "Wrong key type"}, {5, "Unknown error"},
        {7, "Unknown error"},       {100, "Unknown error"},
    };
    char buffer[64];
    for (const Case& c : cases) EXPECT_STREQ(kscrypto_strerror(c.code, buffer, sizeof buffer), c.text) << c.code;
    for (int code : {101, 102, 103}) {
        errno = ENOSPC;
        EXPECT_STREQ(kscrypto_strerror(code, buffer, sizeof buffer), std::strerror(ENOSPC)) << code;
    }
    // A crypto library code has its own text.
    EXPECT_NE(std::string(kscrypto_strerror(-0x3E00, buffer, sizeof buffer)), "");
    EXPECT_NE(std::string(buffer), "Unknown error");
    // Truncation keeps size - 1 characters and the terminator in the last byte.
    char tiny[5];
    std::memset(tiny, 'z', sizeof tiny);
    EXPECT_STREQ(kscrypto_strerror(2, tiny, sizeof tiny), "Buff");
    char one[1] = {'z'};
    EXPECT_STREQ(kscrypto_strerror(2, one, 1), "");
}

class RsaTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keys = new kstest::TempDir;
        ASSERT_TRUE(kstest::make_rsa_keypair(*keys / "priv.pem", *keys / "pub.pem"));
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
    static kstest::TempDir* keys;
    kstest::TempDir dir;
};
kstest::TempDir* RsaTest::keys = nullptr;

TEST_F(RsaTest, EncryptionInteroperatesWithOpenssl) {
    const Bytes secret = pattern(32, 9);
    unsigned char wrapped[RSA_BLOCK_SIZE];
    ASSERT_EQ(rsa_encrypt(secret.data(), secret.size(), wrapped, key("pub.pem").c_str()), 0);
    ASSERT_TRUE(kstest::write_file(dir / "wrapped", std::string(wrapped, wrapped + sizeof wrapped)));
    std::string plain;
    ASSERT_EQ(kstest::run("openssl pkeyutl -decrypt -pkeyopt rsa_padding_mode:pkcs1 -inkey '" + key("priv.pem") +
                              "' -in '" + dir / "wrapped" + "'",
                          &plain),
              0);
    EXPECT_EQ(as_bytes(plain), secret);

    ASSERT_TRUE(kstest::write_file(dir / "msg", "a message of forty bytes, more or less.."));
    std::string theirs;
    ASSERT_EQ(kstest::run("openssl pkeyutl -encrypt -pkeyopt rsa_padding_mode:pkcs1 -pubin -inkey '" +
                              key("pub.pem") + "' -in '" + dir / "msg" + "'",
                          &theirs),
              0);
    ASSERT_EQ(theirs.size(), 256u);
    unsigned char out[RSA_BLOCK_SIZE];
    size_t out_len = 0;
    ASSERT_EQ(rsa_decrypt(reinterpret_cast<const unsigned char*>(theirs.data()), out, &out_len,
                          key("priv.pem").c_str()),
              0);
    EXPECT_EQ(std::string(out, out + out_len), "a message of forty bytes, more or less..");
}

TEST_F(RsaTest, SignaturesVerifyBothWays) {
    const std::string data = "signed content\n";
    ASSERT_TRUE(kstest::write_file(dir / "data", data));
    struct Case {
        const char* name;
        std::string hash;  // what our API signs
        std::string openssl_sign;
        std::string openssl_verify;
    } cases[] = {
        {"sha256", ks::compute_hash(ks::HashFunction::SHA256, data.data(), 0, data.size()),
         "openssl dgst -sha256 -sign '" + key("priv.pem") + "' -out '" + dir / "theirs" + "' '" + dir / "data" + "'",
         "openssl dgst -sha256 -verify '" + key("pub.pem") + "' -signature '" + dir / "ours" + "' '" +
             dir / "data" + "'"},
        {"md5", ks::compute_hash(ks::HashFunction::MD5, data.data(), 0, data.size()),
         "openssl dgst -md5 -sign '" + key("priv.pem") + "' -out '" + dir / "theirs" + "' '" + dir / "data" + "'",
         "openssl dgst -md5 -verify '" + key("pub.pem") + "' -signature '" + dir / "ours" + "' '" + dir / "data" +
             "'"},
        // Any other length is signed raw, like pkeyutl without a digest.
        {"raw", ks::hex_encode("twenty raw bytes....", 20),
         "openssl pkeyutl -sign -inkey '" + key("priv.pem") + "' -in '" + dir / "raw" + "' -out '" + dir / "theirs" +
             "'",
         "openssl pkeyutl -verify -pubin -inkey '" + key("pub.pem") + "' -in '" + dir / "raw" + "' -sigfile '" +
             dir / "ours" + "'"},
    };
    ASSERT_TRUE(kstest::write_file(dir / "raw", "twenty raw bytes...."));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ks::buffer hash;
        ASSERT_TRUE(ks::hex_decode(c.hash, hash));
        unsigned char sig[RSA_BLOCK_SIZE];
        size_t sig_len = 0;
        ASSERT_EQ(rsa_sign(hash.data(), hash.size(), sig, &sig_len, key("priv.pem").c_str()), 0);
        ASSERT_EQ(sig_len, 256u);
        ASSERT_TRUE(kstest::write_file(dir / "ours", std::string(sig, sig + sig_len)));
        EXPECT_EQ(kstest::run(c.openssl_verify + " >/dev/null"), 0);
        EXPECT_EQ(rsa_verify(hash.data(), hash.size(), sig, key("pub.pem").c_str()), 0);

        ASSERT_EQ(kstest::run(c.openssl_sign), 0);
        const Bytes theirs = as_bytes(kstest::read_file(dir / "theirs"));
        ASSERT_EQ(theirs.size(), 256u);
        EXPECT_EQ(rsa_verify(hash.data(), hash.size(), theirs.data(), key("pub.pem").c_str()), 0);
        Bytes tampered = theirs;
        tampered[100] ^= 1;
        EXPECT_LT(rsa_verify(hash.data(), hash.size(), tampered.data(), key("pub.pem").c_str()), 0);
        hash[0] ^= 1;
        EXPECT_LT(rsa_verify(hash.data(), hash.size(), theirs.data(), key("pub.pem").c_str()), 0);
    }
}

TEST_F(RsaTest, BadKeysAndArguments) {
    unsigned char in[RSA_BLOCK_SIZE] = {1, 2, 3};
    unsigned char out[RSA_BLOCK_SIZE];
    size_t len = 0;
    const std::string ec = key("ec.pem"), ecpub = key("ecpub.pem"), missing = dir / "missing.pem";
    EXPECT_EQ(rsa_encrypt(in, 32, out, ecpub.c_str()), KSCRYPTO_EKEYTYPE);
    EXPECT_EQ(rsa_verify(in, 32, in, ecpub.c_str()), KSCRYPTO_EKEYTYPE);
    EXPECT_EQ(rsa_decrypt(in, out, &len, ec.c_str()), KSCRYPTO_EKEYTYPE);
    EXPECT_EQ(rsa_sign(in, 32, out, &len, ec.c_str()), KSCRYPTO_EKEYTYPE);

    // Parse errors come back as the crypto library's own (negative) codes.
    ASSERT_TRUE(kstest::write_file(dir / "junk.pem", "-----BEGIN PUBLIC KEY-----\nnot base64\n"));
    EXPECT_LT(rsa_encrypt(in, 32, out, missing.c_str()), 0);
    EXPECT_LT(rsa_encrypt(in, 32, out, (dir / "junk.pem").c_str()), 0);
    EXPECT_LT(rsa_decrypt(in, out, &len, missing.c_str()), 0);
    // A private key file read as a public key, and an input too long for one block.
    EXPECT_LT(rsa_decrypt(in, out, &len, key("pub.pem").c_str()), 0);
    EXPECT_LT(rsa_encrypt(in, 246, out, key("pub.pem").c_str()), 0);
    // A block not made for this key.
    EXPECT_LT(rsa_decrypt(in, out, &len, key("priv.pem").c_str()), 0);

    EXPECT_EQ(rsa_encrypt(in, 1, out, nullptr), KSCRYPTO_EPARAM);
    EXPECT_EQ(rsa_sign(in, 32, nullptr, &len, key("priv.pem").c_str()), KSCRYPTO_EPARAM);
}

TEST(RandomBytes, FillsAndDiffers) {
    // More than one request of the generator, and two calls never equal.
    Bytes a(5000), b(5000);
    ASSERT_EQ(crypto_gen_random_bytes(a.data(), a.size()), 0);
    ASSERT_EQ(crypto_gen_random_bytes(b.data(), b.size()), 0);
    EXPECT_NE(a, b);
    EXPECT_NE(Bytes(a.end() - 32, a.end()), Bytes(32, 0));
    EXPECT_EQ(crypto_gen_random_bytes(nullptr, 4), KSCRYPTO_EPARAM);
    EXPECT_EQ(crypto_gen_random_bytes(a.data(), 0), 0);
}

TEST(Digest, MatchesCoreutils) {
    kstest::TempDir dir;
    const std::string inputs[] = {"", "abc", "The quick brown fox jumps over the lazy dog\n",
                                  as_string(pattern(100000))};
    for (const std::string& input : inputs) {
        SCOPED_TRACE("size " + std::to_string(input.size()));
        ASSERT_TRUE(kstest::write_file(dir / "in", input));
        for (auto [function, tool] : {std::pair{ks::HashFunction::MD5, "md5sum"},
                                      std::pair{ks::HashFunction::SHA256, "sha256sum"}}) {
            std::string line;
            ASSERT_EQ(kstest::run(std::string(tool) + " '" + dir / "in" + "'", &line), 0);
            const std::string expected = line.substr(0, line.find(' '));
            EXPECT_EQ(ks::compute_hash(function, input.data(), 0, input.size()), expected) << tool;

            // Incremental: uneven pieces through offsets into one buffer.
            ks::MessageDigest md(static_cast<ks::MessageDigest::Algorithm>(function));
            auto data = reinterpret_cast<const unsigned char*>(input.data());
            for (size_t pos = 0, step = 1; pos < input.size(); pos += step, step = step * 3 + 1)
                ASSERT_TRUE(md.update(data, pos, std::min(step, input.size() - pos)));
            EXPECT_EQ(md.hexdigest(), expected) << tool;
            EXPECT_EQ(md.digest().size(), function == ks::HashFunction::MD5 ? 16u : 32u);
            EXPECT_EQ(md.hexdigest(), expected) << "second call";
        }
    }
    EXPECT_EQ(ks::compute_hash(ks::HashFunction::MD5, "abc", 0, 3), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(ks::compute_hash(static_cast<ks::HashFunction>(7), "abc", 0, 3), "");
}

TEST(Digest, LifeCycle) {
    const std::string abc_sha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    const std::string abc_md5 = "900150983cd24fb0d6963f7d28e17f72";
    auto abc = reinterpret_cast<const unsigned char*>("xabc");

    ks::MessageDigest none;
    EXPECT_FALSE(none.update(abc, 1, 3));
    EXPECT_FALSE(none.setup(static_cast<ks::MessageDigest::Algorithm>(5)));  // nothing to re-use

    ks::MessageDigest md(ks::MessageDigest::SHA256);
    ASSERT_TRUE(md.update(abc, 1, 3));
    EXPECT_EQ(md.hexdigest(), abc_sha256);
    EXPECT_FALSE(md.update(abc, 1, 3));  // finished until reset
    md.reset();
    ASSERT_TRUE(md.update(abc, 1, 3));
    EXPECT_EQ(md.hexdigest(), abc_sha256);

    // Another value keeps the selection; MD5 switches it and drops the digest in progress.
    ASSERT_TRUE(md.setup(static_cast<ks::MessageDigest::Algorithm>(9)));
    ASSERT_TRUE(md.update(abc, 0, 4));
    ASSERT_TRUE(md.setup(ks::MessageDigest::MD5));
    ASSERT_TRUE(md.update(abc, 1, 3));
    ks::MessageDigest moved(ks::MessageDigest::SHA256);
    moved = std::move(md);
    EXPECT_EQ(moved.hexdigest(), abc_md5);
}

TEST(Base64, MatchesCoreutilsWithoutPadding) {
    kstest::TempDir dir;
    const std::string inputs[] = {"a", "ab", "abc", "abcd", std::string("\xff\xfe\xfd\x00\x01", 5), as_string(pattern(1000))};
    for (const std::string& input : inputs) {
        SCOPED_TRACE("size " + std::to_string(input.size()));
        ASSERT_TRUE(kstest::write_file(dir / "in", input));
        std::string wrapped, unwrapped;
        ASSERT_EQ(kstest::run("base64 '" + dir / "in" + "'", &wrapped), 0);  // lines of 76
        ASSERT_EQ(kstest::run("base64 -w0 '" + dir / "in" + "'", &unwrapped), 0);
        const std::string expected = unwrapped.substr(0, unwrapped.find('='));

        std::string encoded;
        ASSERT_TRUE(ks::base64_encode(input, encoded));
        EXPECT_EQ(encoded, expected);

        // coreutils' wrapped text decodes once its padding is gone; white space is skipped.
        std::string decoded;
        ASSERT_TRUE(ks::base64_decode(wrapped.substr(0, wrapped.find('=')), decoded));
        EXPECT_EQ(decoded, input);
        ASSERT_TRUE(ks::base64_decode(" \t" + encoded + "\r\n", decoded));
        EXPECT_EQ(decoded, input);
    }
}

TEST(Base64, TolerantDecoderRules) {
    struct Case {
        std::string in;
        std::string out;
    } cases[] = {
        {"+++", std::string("\xfb\xef", 2)},                // '+' is 62
        {"////", "\xff\xff\xff"},                           // '/' is 63
        {"-_.~", "\xff\xff\xff"},                           // so is any other character
        {"YQ", "a"},                                        // leftover bits dropped
        {"Y", ""},                                          // not even one byte
        {"YW\nJj\tZA", "abcd"},
        {"YQ==", std::string("a\x0f\xff", 3)},              // '=' is just another 63
    };
    for (const Case& c : cases) {
        std::string out = "previous";
        ASSERT_TRUE(ks::base64_decode(c.in, out)) << c.in;
        EXPECT_EQ(out, c.out) << c.in;
    }
    std::string out;
    EXPECT_FALSE(ks::base64_decode("", out));
    EXPECT_FALSE(ks::base64_encode("", out));
}

}  // namespace
