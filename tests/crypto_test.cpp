// Crypto wrappers against independent peers: openssl (AES, RSA), md5sum/sha256sum, coreutils base64.
#include <kscrypto.h>
#include <ksutils/crypto.h>
#include <ksutils/miscutl.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "crypto_fixture.h"

namespace {

using Bytes = std::vector<unsigned char>;
using kstest::quoted;

Bytes pattern(size_t size, unsigned seed = 1) {
    Bytes data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<unsigned char>((i * 131 + seed * 7) >> 1);
    return data;
}
Bytes as_bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
std::string as_string(const Bytes& b) { return std::string(b.begin(), b.end()); }

struct Malloced {
    unsigned char* p = nullptr;
    size_t n = 0;
    ~Malloced() { std::free(p); }
};

using AesContext = std::unique_ptr<mbedtls_aes_context, decltype(&aes_context_free)>;

class CryptoTest : public ::testing::Test {
protected:
    kstest::TempDir dir;
    const std::string priv = kstest::test_key("priv.pem"), pub = kstest::test_key("pub.pem");
    const Bytes key = pattern(AES_KEY_SIZE, 3), iv = pattern(AES_IV_SIZE, 5);
    const AesContext encryption{aes_context_new(key.data(), 0), &aes_context_free};
    const AesContext decryption{aes_context_new(key.data(), 1), &aes_context_free};
    unsigned char chain[AES_IV_SIZE];

    // Every in-memory call advances the IV it is given: each starts from a fresh copy.
    unsigned char* fresh_iv() { return static_cast<unsigned char*>(std::memcpy(chain, iv.data(), sizeof chain)); }
    const std::string openssl = kstest::openssl_aes(ks::hex_encode(key.data(), 32), ks::hex_encode(iv.data(), 16), "");
    // The output of an allocating form, or of a no_alloc form given `room`.
    template <typename Form, typename Key>
    Bytes allocating(Form form, const Bytes& in, Key k) {
        Malloced out;
        EXPECT_EQ(form(in.data(), in.size(), k, fresh_iv(), &out.p, &out.n), 0);
        return Bytes(out.p, out.p + out.n);
    }
    template <typename Form>
    Bytes no_alloc(Form form, const Bytes& in, mbedtls_aes_context* ctx, size_t room) {
        Bytes out(room);
        size_t len = 0;
        EXPECT_EQ(form(in.data(), in.size(), ctx, fresh_iv(), out.data(), room, &len), 0);
        out.resize(len);
        return out;
    }
    // A file form reading the file `in` through a pipe that dd fills 37 bytes at a time.
    int file_form(int (*form)(int, int, const unsigned char*, const unsigned char*), const std::string& in,
                  const std::string& out) {
        const std::unique_ptr<FILE, int (*)(FILE*)> dd(::popen(("dd status=none bs=37 if=" + quoted(in)).c_str(), "r"),
                                                        &::pclose);
        ks::unique_fd dst(::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        return dd ? form(dst.get(), ::fileno(dd.get()), key.data(), iv.data()) : -1;
    }
};

TEST_F(CryptoTest, AesFormsAgreeWithOpenssl) {
    // Lengths around the block size, a full log record and more than one streaming chunk.
    for (size_t size : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 4095u, 200001u}) {
        SCOPED_TRACE("size " + std::to_string(size));
        const Bytes plain = pattern(size, static_cast<unsigned>(size));
        const std::string in = dir / "in", out = dir / "out", ours = dir / "ours";
        ASSERT_TRUE(kstest::write_file(in, as_string(plain)));
        ASSERT_EQ(kstest::run(openssl + "-in " + quoted(in) + " -out " + quoted(out)), 0);
        const Bytes expected = as_bytes(kstest::read_file(out));

        EXPECT_EQ(allocating(aes_encrypt, plain, key.data()), expected);
        // CBC leaves the last ciphertext block as the next IV.
        EXPECT_EQ(Bytes(chain, chain + 16), Bytes(expected.end() - 16, expected.end()));
        EXPECT_EQ(allocating(aes_encrypt_with_context, plain, encryption.get()), expected);
        EXPECT_EQ(no_alloc(aes_encrypt_no_alloc, plain, encryption.get(), expected.size()), expected);
        EXPECT_EQ(allocating(aes_decrypt, expected, key.data()), plain);
        EXPECT_EQ(allocating(aes_decrypt_with_context, expected, decryption.get()), plain);
        // Exactly the plain length: the padding needs no room.
        EXPECT_EQ(no_alloc(aes_decrypt_no_alloc, expected, decryption.get(), size), plain);

        ASSERT_EQ(file_form(aes_encrypt_file, in, ours), 0);
        EXPECT_EQ(as_bytes(kstest::read_file(ours)), expected);
        ASSERT_EQ(file_form(aes_decrypt_file, out, ours), 0);
        EXPECT_EQ(as_bytes(kstest::read_file(ours)), plain);
    }
}

TEST_F(CryptoTest, RefusesBadInputAndKeys) {
    const unsigned char* k = key.data();
    unsigned char in[RSA_BLOCK_SIZE] = {1, 2, 3}, out_block[RSA_BLOCK_SIZE];
    size_t len = 99;
    Malloced out;
    EXPECT_EQ(aes_encrypt(nullptr, 1, k, fresh_iv(), &out.p, &out.n), KSCRYPTO_EPARAM);
    EXPECT_EQ(aes_decrypt(in, 16, k, fresh_iv(), &out.p, nullptr), KSCRYPTO_EPARAM);
    EXPECT_EQ(aes_encrypt_with_context(in, 16, nullptr, fresh_iv(), &out.p, &out.n), KSCRYPTO_EPARAM);
    EXPECT_EQ(out.p, nullptr);
    EXPECT_EQ(aes_encrypt_no_alloc(in, 16, encryption.get(), fresh_iv(), out_block, 16, &len), KSCRYPTO_EBUFSIZE);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(aes_encrypt_no_alloc(in, 15, encryption.get(), fresh_iv(), out_block, 16, &len), 0);
    for (size_t not_whole_blocks : {0u, 17u}) {
        EXPECT_EQ(aes_decrypt(in, not_whole_blocks, k, fresh_iv(), &out.p, &out.n), KSCRYPTO_EINSIZE);
        EXPECT_EQ(out.p, nullptr);
    }
    // Under the wrong key the padding is not P bytes of P; with one byte too few, no room.
    const Bytes enc = allocating(aes_encrypt, pattern(40), k), other_key = pattern(AES_KEY_SIZE, 4);
    EXPECT_LT(aes_decrypt(enc.data(), enc.size(), other_key.data(), fresh_iv(), &out.p, &out.n), 0);
    EXPECT_EQ(out.p, nullptr);
    EXPECT_EQ(out.n, 0u);
    EXPECT_EQ(aes_decrypt_no_alloc(enc.data(), 48, decryption.get(), fresh_iv(), out_block, 39, &len),
              KSCRYPTO_EBUFSIZE);

    // Descriptors that cannot be read or written, and a ciphertext file that is not whole blocks.
    const std::string path = dir / "f";
    ASSERT_TRUE(kstest::write_file(path, std::string(33, 'x')));
    ks::unique_fd write_only(::open(path.c_str(), O_WRONLY)), read_only(::open(path.c_str(), O_RDONLY)),
        sink(::open("/dev/null", O_WRONLY));
    EXPECT_EQ(aes_encrypt_file(sink.get(), write_only.get(), k, iv.data()), KSCRYPTO_EREAD);
    EXPECT_EQ(aes_decrypt_file(sink.get(), write_only.get(), k, iv.data()), KSCRYPTO_EREAD);
    EXPECT_EQ(aes_encrypt_file(read_only.get(), read_only.get(), k, iv.data()), KSCRYPTO_EWRITE);
    EXPECT_EQ(file_form(aes_decrypt_file, path, "/dev/null"), KSCRYPTO_EINSIZE);
    EXPECT_EQ(aes_encrypt_file(sink.get(), -1, k, iv.data()), KSCRYPTO_EPARAM);

    EXPECT_EQ(rsa_encrypt(in, 32, out_block, kstest::test_key("ecpub.pem").c_str()), KSCRYPTO_EKEYTYPE);
    EXPECT_EQ(rsa_decrypt(in, out_block, &len, kstest::test_key("ec.pem").c_str()), KSCRYPTO_EKEYTYPE);
    // Crypto library codes (negative): no file, public key as private, input too long, a foreign block.
    EXPECT_LT(rsa_encrypt(in, 32, out_block, (dir / "missing.pem").c_str()), 0);
    EXPECT_LT(rsa_decrypt(in, out_block, &len, pub.c_str()), 0);
    EXPECT_LT(rsa_encrypt(in, 246, out_block, pub.c_str()), 0);
    EXPECT_LT(rsa_decrypt(in, out_block, &len, priv.c_str()), 0);
    EXPECT_EQ(rsa_encrypt(in, 1, out_block, nullptr), KSCRYPTO_EPARAM);
    EXPECT_EQ(rsa_sign(in, 32, nullptr, &len, priv.c_str()), KSCRYPTO_EPARAM);
}

// The edges of the own table; codes above 100 take the text of errno; truncation keeps the terminator.
TEST(KscryptoStrerror, OwnLibraryAndErrnoTexts) {
    char buffer[64];
    errno = ENOSPC;
    for (const auto& [code, text] : {std::pair{0, "No error"}, {100, "Unknown error"}, {101, std::strerror(ENOSPC)}})
        EXPECT_STREQ(kscrypto_strerror(code, buffer, sizeof buffer), text) << code;
    const std::string library_text = kscrypto_strerror(-0x3E00, buffer, sizeof buffer);
    EXPECT_TRUE(library_text != "" && library_text != "Unknown error") << library_text;
    char tiny[5] = {'z', 'z', 'z', 'z', 'z'};
    EXPECT_STREQ(kscrypto_strerror(2, tiny, sizeof tiny), "Buff");
    EXPECT_STREQ(kscrypto_strerror(2, tiny, 1), "");
}

// (rsa_encrypt against openssl: every key block in the encrypted log's tests.)
TEST_F(CryptoTest, RsaAgreesWithOpenssl) {
    const std::string message = "a message of forty bytes, more or less..";
    ASSERT_TRUE(kstest::write_file(dir / "msg", message));
    std::string theirs;
    const std::string encrypt = "openssl pkeyutl -encrypt -pkeyopt rsa_padding_mode:pkcs1 -pubin -inkey ";
    ASSERT_EQ(kstest::run(encrypt + quoted(pub) + " -in " + quoted(dir / "msg"), &theirs), 0);
    ASSERT_EQ(theirs.size(), 256u);
    unsigned char block[RSA_BLOCK_SIZE];
    size_t len = 0;
    ASSERT_EQ(rsa_decrypt(reinterpret_cast<const unsigned char*>(theirs.data()), block, &len, priv.c_str()), 0);
    EXPECT_EQ(std::string(block, block + len), message);

    // Signatures both ways: SHA-256 and MD5 hashes with their DigestInfo, any other length raw.
    for (const auto& [digest, length] : {std::pair<std::string, size_t>{"sha256", 32}, {"md5", 16}, {"", 20}}) {
        SCOPED_TRACE(digest);
        Bytes hash = pattern(length, 11);
        ASSERT_TRUE(kstest::write_file(dir / "hash", as_string(hash)));
        const std::string args = " -in " + quoted(dir / "hash") + (digest.empty() ? "" : " -pkeyopt digest:" + digest);

        unsigned char sig[RSA_BLOCK_SIZE];
        size_t sig_len = 0;
        ASSERT_EQ(rsa_sign(hash.data(), hash.size(), sig, &sig_len, priv.c_str()), 0);
        ASSERT_EQ(sig_len, 256u);
        ASSERT_TRUE(kstest::write_file(dir / "ours", std::string(sig, sig + sig_len)));
        const std::string verify = "openssl pkeyutl -verify -pubin -inkey " + quoted(pub) + " -sigfile ";
        EXPECT_EQ(kstest::run(verify + quoted(dir / "ours") + args + " >/dev/null"), 0);
        std::string theirs;
        ASSERT_EQ(kstest::run("openssl pkeyutl -sign -inkey " + quoted(priv) + args, &theirs), 0);
        ASSERT_EQ(theirs.size(), 256u);
        auto signature = reinterpret_cast<const unsigned char*>(theirs.data());
        EXPECT_EQ(rsa_verify(hash.data(), hash.size(), signature, pub.c_str()), 0);
        hash[0] ^= 1;
        EXPECT_LT(rsa_verify(hash.data(), hash.size(), signature, pub.c_str()), 0);
    }
}

// More than one request of the generator fills the tail too (that calls differ, every pair of log keys shows).
TEST(RandomBytes, FillsAndDiffers) {
    Bytes a(5000);
    ASSERT_EQ(crypto_gen_random_bytes(a.data(), a.size()), 0);
    EXPECT_NE(Bytes(a.end() - 32, a.end()), Bytes(32, 0));
    EXPECT_EQ(crypto_gen_random_bytes(nullptr, 4), KSCRYPTO_EPARAM);
}

TEST(DigestAndBase64, MatchCoreutils) {
    kstest::TempDir dir;
    const std::string in = quoted(dir / "in");
    for (const std::string& input : {std::string(), std::string("a"), std::string("ab"), std::string("abc"),
                                     std::string("\xff\xfe\xfd\x00\x01", 5), as_string(pattern(100000))}) {
        SCOPED_TRACE("size " + std::to_string(input.size()));
        ASSERT_TRUE(kstest::write_file(dir / "in", input));
        for (auto [function, tool] : {std::pair{ks::HashFunction::MD5, "md5sum "},
                                      std::pair{ks::HashFunction::SHA256, "sha256sum "}}) {
            std::string line;
            ASSERT_EQ(kstest::run(tool + in, &line), 0);
            const std::string expected = line.substr(0, line.find(' '));
            EXPECT_EQ(ks::compute_hash(function, input.data(), 0, input.size()), expected) << tool;

            // Incremental: uneven pieces through offsets into one buffer.
            ks::MessageDigest md(static_cast<ks::MessageDigest::Algorithm>(function));
            auto data = reinterpret_cast<const unsigned char*>(input.data());
            for (size_t pos = 0, step = 1; pos < input.size(); pos += step, step = step * 3 + 1)
                ASSERT_TRUE(md.update(data, pos, std::min(step, input.size() - pos)));
            EXPECT_EQ(md.hexdigest(), expected) << tool;
            EXPECT_EQ(md.hexdigest(), expected) << "second call";
        }
        if (input.empty()) continue;  // which Base64 refuses
        std::string wrapped, unwrapped, encoded, decoded;
        ASSERT_EQ(kstest::run("base64 " + in, &wrapped), 0);  // lines of 76, decoded once the padding is gone
        ASSERT_EQ(kstest::run("base64 -w0 " + in, &unwrapped), 0);
        ASSERT_TRUE(ks::base64_encode(input, encoded));
        EXPECT_EQ(encoded, unwrapped.substr(0, unwrapped.find('=')));
        ASSERT_TRUE(ks::base64_decode(wrapped.substr(0, wrapped.find('=')), decoded));
        EXPECT_EQ(decoded, input);
    }
    EXPECT_EQ(ks::compute_hash(static_cast<ks::HashFunction>(7), "abc", 0, 3), "");
}

TEST(Digest, LifeCycle) {
    auto abc = reinterpret_cast<const unsigned char*>("xabc");
    ks::MessageDigest none;
    EXPECT_FALSE(none.update(abc, 1, 3));
    EXPECT_FALSE(none.setup(static_cast<ks::MessageDigest::Algorithm>(5)));  // nothing to re-use

    ks::MessageDigest md(ks::MessageDigest::SHA256);
    ASSERT_TRUE(md.update(abc, 0, 4));
    md.hexdigest();
    EXPECT_FALSE(md.update(abc, 1, 3));  // finished until reset
    md.reset();
    ASSERT_TRUE(md.update(abc, 1, 3));
    EXPECT_EQ(md.hexdigest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // Another value keeps the selection; MD5 switches it and drops the digest in progress.
    ASSERT_TRUE(md.setup(static_cast<ks::MessageDigest::Algorithm>(9)));
    ASSERT_TRUE(md.update(abc, 0, 4));
    ASSERT_TRUE(md.setup(ks::MessageDigest::MD5));
    ASSERT_TRUE(md.update(abc, 1, 3));
    ks::MessageDigest moved(ks::MessageDigest::SHA256);
    moved = std::move(md);
    EXPECT_EQ(moved.hexdigest(), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Base64, TolerantDecoderRules) {
    // '+' is 62; '/' is 63 and so is any other character; leftover bits dropped; white space skipped.
    const std::pair<std::string, std::string> cases[] = {
        {"+++", std::string("\xfb\xef", 2)}, {"-_=~", "\xff\xff\xff"}, {"YQ", "a"}, {" YW\r\nJj\tZA\n", "abcd"}};
    for (const auto& [in, expected] : cases) {
        std::string out = "previous";
        ASSERT_TRUE(ks::base64_decode(in, out)) << in;
        EXPECT_EQ(out, expected) << in;
    }
    std::string out;
    EXPECT_FALSE(ks::base64_decode("", out));
    EXPECT_FALSE(ks::base64_encode("", out));
}

}  // namespace
