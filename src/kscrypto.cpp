// Thin wrappers over the crypto library that fix its choices once: AES-256-CBC with
// "P bytes of value P" padding, RSA PKCS#1 v1.5 keys from files, CTR-DRBG randomness.
//
// Every call builds and frees its own contexts (RAII holders below), so the functions are
// re-entrant and safe after fork. None of them logs: the log writer calls them while the
// log core holds its locks. Failures set the thread's error record as well as returning
// the code.
#include <kscrypto.h>
#include "kssys.h"

#include <ksutils/error.h>

#include <mbedtls/aes.h>
#include <mbedtls/cipher.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/error.h>
#include <mbedtls/pk.h>
#include <mbedtls/platform_util.h>

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr size_t kBlock = AES_BLOCK_SIZE;
// Streaming chunk of the file forms: large enough that system calls do not dominate.
constexpr size_t kFileChunk = 64 * 1024;

// Records the failure in the thread's error record without disturbing errno, which
// kscrypto_strerror reads for the I/O codes.
int fail(int code, const char* what) {
    const int saved = errno;
    char text[160];
    kscrypto_strerror(code, text, sizeof text);
    ks::_get_kserrno().set(code > 100 ? ks::E_SYSTEM : ks::E_INVAL, "{:s}: {:s} ({:d})", what,
                           static_cast<const char*>(text), code);
    errno = saved;
    return code;
}

struct AesContext {
    mbedtls_aes_context ctx;
    AesContext() { mbedtls_aes_init(&ctx); }
    ~AesContext() { mbedtls_aes_free(&ctx); }
    AesContext(const AesContext&) = delete;
    AesContext& operator=(const AesContext&) = delete;
};

struct Drbg {
    mbedtls_entropy_context entropy;
    mbedtls_ctr_drbg_context drbg;
    Drbg() {
        mbedtls_entropy_init(&entropy);
        mbedtls_ctr_drbg_init(&drbg);
    }
    ~Drbg() {
        mbedtls_ctr_drbg_free(&drbg);
        mbedtls_entropy_free(&entropy);
    }
    Drbg(const Drbg&) = delete;
    Drbg& operator=(const Drbg&) = delete;
    int seed() { return mbedtls_ctr_drbg_seed(&drbg, mbedtls_entropy_func, &entropy, nullptr, 0); }
};

struct KeyFile {
    mbedtls_pk_context pk;
    KeyFile() { mbedtls_pk_init(&pk); }
    ~KeyFile() { mbedtls_pk_free(&pk); }
    KeyFile(const KeyFile&) = delete;
    KeyFile& operator=(const KeyFile&) = delete;

    // 0, the parse error, or KSCRYPTO_EKEYTYPE for a key that is not RSA.
    int load(const char* file, bool private_key) {
        int rc = private_key ? mbedtls_pk_parse_keyfile(&pk, file, nullptr) : mbedtls_pk_parse_public_keyfile(&pk, file);
        if (rc != 0) return rc;
        return mbedtls_pk_get_type(&pk) == MBEDTLS_PK_RSA ? 0 : KSCRYPTO_EKEYTYPE;
    }
    size_t length() const { return mbedtls_pk_get_len(&pk); }
};

// Hash lengths name the digest whose DigestInfo the signature carries; others are signed raw.
mbedtls_md_type_t signature_digest(size_t hash_len) {
    switch (hash_len) {
        case 32: return MBEDTLS_MD_SHA256;
        case 16: return MBEDTLS_MD_MD5;
        default: return MBEDTLS_MD_NONE;
    }
}

size_t padded_length(size_t in_len) { return (in_len / kBlock + 1) * kBlock; }

// Encrypts the full blocks, then one last block made of the tail and the padding. The
// chaining is done here, a word at a time, rather than by mbedtls_aes_crypt_cbc, whose
// byte-wise XOR and copies cost as much as the AES rounds themselves for a log record of
// a few blocks. `iv` ends as the last ciphertext block, as with mbedtls.
int encrypt_into(const unsigned char* in, size_t in_len, mbedtls_aes_context* ctx, unsigned char* iv,
                 unsigned char* out) {
    const size_t full = in_len / kBlock * kBlock;
    const unsigned char* chain = iv;
    unsigned char block[kBlock];
    for (size_t at = 0; at <= full; at += kBlock) {
        if (at < full) {
            std::memcpy(block, in + at, kBlock);
        } else {
            const size_t tail = in_len - full;
            const unsigned char pad = static_cast<unsigned char>(kBlock - tail);
            if (tail > 0) std::memcpy(block, in + full, tail);
            std::memset(block + tail, pad, pad);
        }
        uint64_t words[2], previous[2];
        std::memcpy(words, block, kBlock);
        std::memcpy(previous, chain, kBlock);
        words[0] ^= previous[0];
        words[1] ^= previous[1];
        std::memcpy(block, words, kBlock);
        const int rc = mbedtls_aes_crypt_ecb(ctx, MBEDTLS_AES_ENCRYPT, block, out + at);
        if (rc != 0) return rc;
        chain = out + at;
    }
    std::memcpy(iv, chain, kBlock);
    return 0;
}

// Number of padding bytes of a decrypted last block, or 0 when the padding is malformed.
size_t padding_of(const unsigned char* last) {
    const unsigned char pad = last[kBlock - 1];
    if (pad == 0 || pad > kBlock) return 0;
    unsigned char diff = 0;
    for (size_t i = kBlock - pad; i < kBlock; ++i) diff |= static_cast<unsigned char>(last[i] ^ pad);
    return diff == 0 ? pad : 0;
}

// Decrypts everything but the last block into `out` (which must hold in_len - 16 bytes),
// then the last block aside so that only its plain part has to fit.
int decrypt_into(const unsigned char* in, size_t in_len, mbedtls_aes_context* ctx, unsigned char* iv,
                 unsigned char* out, size_t out_capacity, size_t* out_len) {
    if (in_len == 0 || in_len % kBlock != 0) return KSCRYPTO_EINSIZE;
    const size_t body = in_len - kBlock;
    if (out_capacity < body) return KSCRYPTO_EBUFSIZE;
    if (body > 0) {
        int rc = mbedtls_aes_crypt_cbc(ctx, MBEDTLS_AES_DECRYPT, body, iv, in, out);
        if (rc != 0) return rc;
    }
    unsigned char last[kBlock];
    int rc = mbedtls_aes_crypt_cbc(ctx, MBEDTLS_AES_DECRYPT, kBlock, iv, in + body, last);
    if (rc != 0) return rc;
    const size_t pad = padding_of(last);
    if (pad == 0) {
        mbedtls_platform_zeroize(last, sizeof last);
        return MBEDTLS_ERR_CIPHER_INVALID_PADDING;
    }
    const size_t keep = kBlock - pad;
    if (out_capacity < body + keep) {
        mbedtls_platform_zeroize(last, sizeof last);
        return KSCRYPTO_EBUFSIZE;
    }
    if (keep > 0) std::memcpy(out + body, last, keep);
    mbedtls_platform_zeroize(last, sizeof last);
    *out_len = body + keep;
    return 0;
}

int encrypt_alloc(const unsigned char* in, size_t in_len, mbedtls_aes_context* ctx, unsigned char* iv,
                  unsigned char** out, size_t* out_len) {
    if (in_len > SIZE_MAX - 2 * kBlock) return fail(KSCRYPTO_EINSIZE, "aes_encrypt");
    const size_t size = padded_length(in_len);
    auto buffer = static_cast<unsigned char*>(std::malloc(size));
    if (!buffer) return fail(KSCRYPTO_ENOMEM, "aes_encrypt");
    int rc = encrypt_into(in, in_len, ctx, iv, buffer);
    if (rc != 0) {
        std::free(buffer);
        return fail(rc, "aes_encrypt");
    }
    *out = buffer;
    *out_len = size;
    return 0;
}

int decrypt_alloc(const unsigned char* in, size_t in_len, mbedtls_aes_context* ctx, unsigned char* iv,
                  unsigned char** out, size_t* out_len) {
    if (in_len == 0 || in_len % kBlock != 0) return fail(KSCRYPTO_EINSIZE, "aes_decrypt");
    auto buffer = static_cast<unsigned char*>(std::malloc(in_len));
    if (!buffer) return fail(KSCRYPTO_ENOMEM, "aes_decrypt");
    size_t length = 0;
    int rc = decrypt_into(in, in_len, ctx, iv, buffer, in_len, &length);
    if (rc != 0) {
        mbedtls_platform_zeroize(buffer, in_len);
        std::free(buffer);
        return fail(rc, "aes_decrypt");
    }
    *out = buffer;
    *out_len = length;
    return 0;
}

// Keyed AES context and a private copy of the IV for the file forms.
struct FileCipher {
    AesContext aes;
    unsigned char iv[AES_IV_SIZE];
    FileCipher(const unsigned char* key, const unsigned char* initial_iv, bool encrypt) {
        if (encrypt)
            mbedtls_aes_setkey_enc(&aes.ctx, key, AES_KEY_SIZE * 8);
        else
            mbedtls_aes_setkey_dec(&aes.ctx, key, AES_KEY_SIZE * 8);
        std::memcpy(iv, initial_iv, sizeof iv);
    }
};

}  // namespace

extern "C" {

char* kscrypto_strerror(int code, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) return buffer;
    if (code < 0) {
        mbedtls_strerror(code, buffer, size);
        buffer[size - 1] = '\0';
        return buffer;
    }
    const char* text;
    switch (code) {
        case KSCRYPTO_OK: text = "No error"; break;
        case KSCRYPTO_EPARAM: text = "Invalid param"; break;
        case KSCRYPTO_EBUFSIZE: text = "Buffer size is too small"; break;
        case KSCRYPTO_EINSIZE: text = "Input size mismatch"; break;
        case KSCRYPTO_EKEYTYPE: text = "Wrong key type"; break;
        default: text = code > 100 ? std::strerror(errno) : "Unknown error"; break;
    }
    std::strncpy(buffer, text, size - 1);
    buffer[size - 1] = '\0';
    return buffer;
}

struct mbedtls_aes_context* aes_context_new(const unsigned char* key, int for_decryption) {
    if (!key) {
        fail(KSCRYPTO_EPARAM, "aes_context_new");
        return nullptr;
    }
    auto ctx = new (std::nothrow) mbedtls_aes_context;
    if (!ctx) {
        fail(KSCRYPTO_ENOMEM, "aes_context_new");
        return nullptr;
    }
    mbedtls_aes_init(ctx);
    int rc = for_decryption ? mbedtls_aes_setkey_dec(ctx, key, AES_KEY_SIZE * 8)
                            : mbedtls_aes_setkey_enc(ctx, key, AES_KEY_SIZE * 8);
    if (rc != 0) {
        aes_context_free(ctx);
        fail(rc, "aes_context_new");
        return nullptr;
    }
    return ctx;
}

void aes_context_free(struct mbedtls_aes_context* ctx) {
    if (!ctx) return;
    mbedtls_aes_free(ctx);
    delete ctx;
}

int aes_encrypt(const unsigned char* in, size_t in_len, const unsigned char* key, unsigned char* iv,
                unsigned char** out, size_t* out_len) {
    if (out) *out = nullptr;
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !key || !iv || !out || !out_len) return fail(KSCRYPTO_EPARAM, "aes_encrypt");
    AesContext aes;
    int rc = mbedtls_aes_setkey_enc(&aes.ctx, key, AES_KEY_SIZE * 8);
    if (rc != 0) return fail(rc, "aes_encrypt");
    return encrypt_alloc(in, in_len, &aes.ctx, iv, out, out_len);
}

int aes_encrypt_with_context(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                             unsigned char* iv, unsigned char** out, size_t* out_len) {
    if (out) *out = nullptr;
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !ctx || !iv || !out || !out_len) return fail(KSCRYPTO_EPARAM, "aes_encrypt");
    return encrypt_alloc(in, in_len, ctx, iv, out, out_len);
}

int aes_encrypt_no_alloc(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                         unsigned char* iv, unsigned char* out, size_t out_capacity, size_t* out_len) {
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !ctx || !iv || (!out && out_capacity > 0) || !out_len)
        return fail(KSCRYPTO_EPARAM, "aes_encrypt");
    if (in_len >= out_capacity || padded_length(in_len) > out_capacity)
        return fail(KSCRYPTO_EBUFSIZE, "aes_encrypt");
    int rc = encrypt_into(in, in_len, ctx, iv, out);
    if (rc != 0) return fail(rc, "aes_encrypt");
    *out_len = padded_length(in_len);
    return 0;
}

int aes_decrypt(const unsigned char* in, size_t in_len, const unsigned char* key, unsigned char* iv,
                unsigned char** out, size_t* out_len) {
    if (out) *out = nullptr;
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !key || !iv || !out || !out_len) return fail(KSCRYPTO_EPARAM, "aes_decrypt");
    AesContext aes;
    int rc = mbedtls_aes_setkey_dec(&aes.ctx, key, AES_KEY_SIZE * 8);
    if (rc != 0) return fail(rc, "aes_decrypt");
    return decrypt_alloc(in, in_len, &aes.ctx, iv, out, out_len);
}

int aes_decrypt_with_context(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                             unsigned char* iv, unsigned char** out, size_t* out_len) {
    if (out) *out = nullptr;
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !ctx || !iv || !out || !out_len) return fail(KSCRYPTO_EPARAM, "aes_decrypt");
    return decrypt_alloc(in, in_len, ctx, iv, out, out_len);
}

int aes_decrypt_no_alloc(const unsigned char* in, size_t in_len, struct mbedtls_aes_context* ctx,
                         unsigned char* iv, unsigned char* out, size_t out_capacity, size_t* out_len) {
    if (out_len) *out_len = 0;
    if ((!in && in_len > 0) || !ctx || !iv || (!out && out_capacity > 0) || !out_len)
        return fail(KSCRYPTO_EPARAM, "aes_decrypt");
    int rc = decrypt_into(in, in_len, ctx, iv, out, out_capacity, out_len);
    return rc == 0 ? 0 : fail(rc, "aes_decrypt");
}

int aes_encrypt_file(int out_fd, int in_fd, const unsigned char* key, const unsigned char* iv) {
    if (!key || !iv || out_fd < 0 || in_fd < 0) return fail(KSCRYPTO_EPARAM, "aes_encrypt_file");
    FileCipher cipher(key, iv, true);
    auto buffer = static_cast<unsigned char*>(std::malloc(kFileChunk + kBlock));
    if (!buffer) return fail(KSCRYPTO_ENOMEM, "aes_encrypt_file");
    std::unique_ptr<unsigned char, decltype(&std::free)> owner(buffer, &std::free);
    // Full blocks go out as soon as they are read; a tail shorter than a block waits for
    // more input or, at the end, takes the padding.
    size_t have = 0;
    for (;;) {
        ssize_t n = ks::sys::read_some(in_fd, buffer + have, kFileChunk + kBlock - have);
        if (n < 0) return fail(KSCRYPTO_EREAD, "aes_encrypt_file");
        if (n == 0) break;
        have += static_cast<size_t>(n);
        const size_t full = have / kBlock * kBlock;
        if (full == 0) continue;
        int rc = mbedtls_aes_crypt_cbc(&cipher.aes.ctx, MBEDTLS_AES_ENCRYPT, full, cipher.iv, buffer, buffer);
        if (rc != 0) return fail(rc, "aes_encrypt_file");
        if (!ks::sys::write_full(out_fd, buffer, full)) return fail(KSCRYPTO_EWRITE, "aes_encrypt_file");
        have -= full;
        std::memmove(buffer, buffer + full, have);
    }
    unsigned char last[kBlock];
    int rc = encrypt_into(buffer, have, &cipher.aes.ctx, cipher.iv, last);
    if (rc != 0) return fail(rc, "aes_encrypt_file");
    if (!ks::sys::write_full(out_fd, last, kBlock)) return fail(KSCRYPTO_EWRITE, "aes_encrypt_file");
    return 0;
}

int aes_decrypt_file(int out_fd, int in_fd, const unsigned char* key, const unsigned char* iv) {
    if (!key || !iv || out_fd < 0 || in_fd < 0) return fail(KSCRYPTO_EPARAM, "aes_decrypt_file");
    FileCipher cipher(key, iv, false);
    // Room for a chunk plus the held-back last block and a partial block.
    const size_t capacity = kFileChunk + 2 * kBlock;
    auto buffer = static_cast<unsigned char*>(std::malloc(capacity));
    if (!buffer) return fail(KSCRYPTO_ENOMEM, "aes_decrypt_file");
    std::unique_ptr<unsigned char, decltype(&std::free)> owner(buffer, &std::free);
    // The last complete block is held back until the end of the input shows whether it
    // carries the padding.
    size_t have = 0;
    for (;;) {
        ssize_t n = ks::sys::read_some(in_fd, buffer + have, capacity - have);
        if (n < 0) return fail(KSCRYPTO_EREAD, "aes_decrypt_file");
        if (n == 0) break;
        have += static_cast<size_t>(n);
        size_t ready = have / kBlock * kBlock;
        if (ready == have) ready -= kBlock;
        if (ready == 0) continue;
        int rc = mbedtls_aes_crypt_cbc(&cipher.aes.ctx, MBEDTLS_AES_DECRYPT, ready, cipher.iv, buffer, buffer);
        if (rc != 0) return fail(rc, "aes_decrypt_file");
        if (!ks::sys::write_full(out_fd, buffer, ready)) return fail(KSCRYPTO_EWRITE, "aes_decrypt_file");
        have -= ready;
        std::memmove(buffer, buffer + ready, have);
    }
    if (have != kBlock) return fail(KSCRYPTO_EINSIZE, "aes_decrypt_file");
    unsigned char last[kBlock];
    size_t length = 0;
    int rc = decrypt_into(buffer, kBlock, &cipher.aes.ctx, cipher.iv, last, sizeof last, &length);
    if (rc != 0) return fail(rc, "aes_decrypt_file");
    bool written = ks::sys::write_full(out_fd, last, length);
    mbedtls_platform_zeroize(last, sizeof last);
    return written ? 0 : fail(KSCRYPTO_EWRITE, "aes_decrypt_file");
}

int rsa_encrypt(const unsigned char* in, size_t in_len, unsigned char* out, const char* public_key_file) {
    if ((!in && in_len > 0) || !out || !public_key_file) return fail(KSCRYPTO_EPARAM, "rsa_encrypt");
    KeyFile key;
    int rc = key.load(public_key_file, false);
    if (rc != 0) return fail(rc, "rsa_encrypt");
    if (key.length() > RSA_BLOCK_SIZE) return fail(KSCRYPTO_EBUFSIZE, "rsa_encrypt");
    Drbg drbg;
    if ((rc = drbg.seed()) != 0) return fail(rc, "rsa_encrypt");
    size_t length = 0;
    rc = mbedtls_pk_encrypt(&key.pk, in, in_len, out, &length, RSA_BLOCK_SIZE, mbedtls_ctr_drbg_random,
                            &drbg.drbg);
    return rc == 0 ? 0 : fail(rc, "rsa_encrypt");
}

int rsa_decrypt(const unsigned char* in, unsigned char* out, size_t* out_len, const char* private_key_file) {
    if (out_len) *out_len = 0;
    if (!in || !out || !out_len || !private_key_file) return fail(KSCRYPTO_EPARAM, "rsa_decrypt");
    KeyFile key;
    int rc = key.load(private_key_file, true);
    if (rc != 0) return fail(rc, "rsa_decrypt");
    if (key.length() != RSA_BLOCK_SIZE) return fail(KSCRYPTO_EINSIZE, "rsa_decrypt");
    Drbg drbg;  // blinding of the private-key operation
    if ((rc = drbg.seed()) != 0) return fail(rc, "rsa_decrypt");
    rc = mbedtls_pk_decrypt(&key.pk, in, RSA_BLOCK_SIZE, out, out_len, RSA_BLOCK_SIZE, mbedtls_ctr_drbg_random,
                            &drbg.drbg);
    return rc == 0 ? 0 : fail(rc, "rsa_decrypt");
}

int rsa_sign(const unsigned char* hash, size_t hash_len, unsigned char* signature, size_t* signature_len,
             const char* private_key_file) {
    if (signature_len) *signature_len = 0;
    if (!hash || hash_len == 0 || !signature || !signature_len || !private_key_file)
        return fail(KSCRYPTO_EPARAM, "rsa_sign");
    KeyFile key;
    int rc = key.load(private_key_file, true);
    if (rc != 0) return fail(rc, "rsa_sign");
    if (key.length() > RSA_BLOCK_SIZE) return fail(KSCRYPTO_EBUFSIZE, "rsa_sign");
    Drbg drbg;
    if ((rc = drbg.seed()) != 0) return fail(rc, "rsa_sign");
    rc = mbedtls_pk_sign(&key.pk, signature_digest(hash_len), hash, hash_len, signature, signature_len,
                         mbedtls_ctr_drbg_random, &drbg.drbg);
    return rc == 0 ? 0 : fail(rc, "rsa_sign");
}

int rsa_verify(const unsigned char* hash, size_t hash_len, const unsigned char* signature,
               const char* public_key_file) {
    if (!hash || hash_len == 0 || !signature || !public_key_file) return fail(KSCRYPTO_EPARAM, "rsa_verify");
    KeyFile key;
    int rc = key.load(public_key_file, false);
    if (rc != 0) return fail(rc, "rsa_verify");
    if (key.length() > RSA_BLOCK_SIZE) return fail(KSCRYPTO_EINSIZE, "rsa_verify");
    rc = mbedtls_pk_verify(&key.pk, signature_digest(hash_len), hash, hash_len, signature, key.length());
    return rc == 0 ? 0 : fail(rc, "rsa_verify");
}

int crypto_gen_random_bytes(unsigned char* out, size_t len) {
    if (!out && len > 0) return fail(KSCRYPTO_EPARAM, "crypto_gen_random_bytes");
    Drbg drbg;
    int rc = drbg.seed();
    if (rc != 0) return fail(rc, "crypto_gen_random_bytes");
    // The DRBG hands out at most MBEDTLS_CTR_DRBG_MAX_REQUEST bytes per call.
    while (len > 0) {
        const size_t n = len < MBEDTLS_CTR_DRBG_MAX_REQUEST ? len : MBEDTLS_CTR_DRBG_MAX_REQUEST;
        rc = mbedtls_ctr_drbg_random(&drbg.drbg, out, n);
        if (rc != 0) return fail(rc, "crypto_gen_random_bytes");
        out += n;
        len -= n;
    }
    return 0;
}

}  // extern "C"
