/// @file
/// Digests, Base64 and the class face of the encrypted log writer and reader.
///
/// @code
///   ks::MessageDigest md(ks::MessageDigest::SHA256);
///   md.update(data, 0, size);
///   std::string hex = md.hexdigest();
/// @endcode
///
/// The crypto library stays private to libksutils: its digest context is held by pointer,
/// so this header needs none of its declarations.
#pragma once

#include <ksexport.h>
#include <kscryptolog.h>
#include <ksutils/buffer.h>

#include <memory>
#include <string>
#include <vector>

struct mbedtls_md_context_t;
struct mbedtls_md_info_t;

namespace ks {

/// The digests compute_hash() knows.
enum class HashFunction : int { MD5 = 0, SHA256 = 1 };

/// An incremental MD5 or SHA-256 digest. Movable, not copyable.
class KS_EXPORT MessageDigest {
public:
    /// The digests a MessageDigest computes.
    enum Algorithm : int { MD5 = 0, SHA256 = 1 };

    /// No algorithm selected: setup() must come before update().
    MessageDigest();
    /// A digest of `algorithm`, ready for update().
    explicit MessageDigest(Algorithm algorithm);
    ~MessageDigest();
    /// Takes the digest in progress of `other`, which is left without an algorithm.
    MessageDigest(MessageDigest&& other) noexcept;
    /// Takes the digest in progress of `other`, which is left without an algorithm.
    MessageDigest& operator=(MessageDigest&& other) noexcept;
    MessageDigest(const MessageDigest&) = delete;
    MessageDigest& operator=(const MessageDigest&) = delete;

    /// Selects MD5 (0) or SHA-256 (1) and discards any digest in progress; any other value
    /// keeps the current selection (and fails when there is none).
    bool setup(Algorithm algorithm);
    /// Hashes `length` bytes starting `offset` bytes into `data`. Fails after digest()
    /// until reset().
    bool update(const unsigned char* data, unsigned long offset, unsigned long length);
    /// Finishes once; later calls return the same 16 or 32 bytes. Empty on failure. The view
    /// stays valid until the next reset(), setup() or move.
    ks::buffer_view digest();
    /// The digest as lower-case hexadecimal text; empty on failure.
    std::string hexdigest();
    /// Starts over with the same algorithm.
    void reset();

private:
    struct ContextDeleter {
        void operator()(mbedtls_md_context_t* context) const noexcept;
    };
    std::unique_ptr<mbedtls_md_context_t, ContextDeleter> context_;
    const mbedtls_md_info_t* info_ = nullptr;
    std::vector<unsigned char> digest_;
    bool started_ = false;
};

/// The hexadecimal digest of `length` bytes at `offset` in `data`; "" for an unknown function.
KS_EXPORT std::string compute_hash(HashFunction function, const char* data, unsigned long offset,
                                   unsigned long length);

/// Standard alphabet, 6 bits per character, the last group completed with zero bits and no
/// "=" padding. An empty input returns false.
KS_EXPORT bool base64_encode(const std::string& in, std::string& out);
/// Tolerant decoder: white space is skipped, letters and digits decode by the standard
/// alphabet, '+' as 62 and every other character as 63 (so "=" padding is not understood:
/// strip it first); bits left over at the end are dropped. An empty input returns false.
KS_EXPORT bool base64_decode(const std::string& in, std::string& out);

/// Owner of a crypto_log_writer: one per process, keyed for the public key file given.
/// Movable, not copyable.
class KS_EXPORT CryptoLogWriter {
public:
    /// A writer with a fresh random key wrapped with the RSA public key in `public_key_path`.
    explicit CryptoLogWriter(const char* public_key_path);

    /// False when the key could not be generated or wrapped (see the error record).
    explicit operator bool() const noexcept { return writer_ != nullptr; }
    /// The C writer, null when it could not be made.
    crypto_log_writer* get() const noexcept { return writer_.get(); }

    /// Replaces the key with a fresh random one; the next record written carries it.
    bool regen_sym_key();
    /// Appends one record of `size` bytes to `fd` (open, positioned at its end, header already
    /// written).
    bool encrypt(int fd, const char* data, unsigned long size);
    /// Appends a key block and one encrypted record block to `fd`.
    bool write_with_key(int fd, const std::vector<unsigned char>& ciphertext);
    /// Appends one encrypted record block to `fd`, under the key last written there.
    bool write_without_key(int fd, const std::vector<unsigned char>& ciphertext);

private:
    struct Free {
        void operator()(crypto_log_writer* writer) const noexcept { crypto_log_writer_free(writer); }
    };
    std::unique_ptr<crypto_log_writer, Free> writer_;
};

/// Owner of a crypto_log_reader for one private key file. Movable, not copyable.
class KS_EXPORT CryptoLogReader {
public:
    /// A reader for the RSA private key in `private_key_path`.
    explicit CryptoLogReader(const char* private_key_path);

    /// False when the key could not be loaded.
    explicit operator bool() const noexcept { return reader_ != nullptr; }
    /// The C reader, null when it could not be made.
    crypto_log_reader* get() const noexcept { return reader_.get(); }

    /// Writes the plain records of `in_fd` to `out_fd`; false on a bad file or key (see the
    /// error record), after writing everything readable (damage is skipped, as in C).
    bool decrypt(int out_fd, int in_fd);

private:
    struct Free {
        void operator()(crypto_log_reader* reader) const noexcept { crypto_log_reader_free(reader); }
    };
    std::unique_ptr<crypto_log_reader, Free> reader_;
};

}  // namespace ks
