// Encrypted log files: writer and reader of the "KSCL" container.
//
// Each process encrypts its records under its own random AES-256 key and puts that key,
// wrapped with the installed RSA public key, in front of its first record in a file. The
// header remembers which process wrote the last key block, so a process sharing a file with
// others re-sends its key whenever another one wrote in between; the reader simply switches
// to each key block it meets. Blocks go out in one writev_all, so a block is either wholly
// in the file or not at all. The writer never logs: the log core calls it under its locks.
#include <kscrypto.h>
#include <kscryptolog.h>
#include "kscryptolog_internal.h"
#include "kssys.h"
#include <kswrite.h>

#include <ksutils/error.h>

#include <mbedtls/aes.h>
#include <mbedtls/pk.h>
#include <mbedtls/platform_util.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <vector>

struct crypto_log_writer {
    std::string public_key_path;
    mbedtls_aes_context aes;
    unsigned char key[AES_KEY_SIZE];
    bool key_is_new = false;
    unsigned char wrapped_key[RSA_BLOCK_SIZE];

    crypto_log_writer() { mbedtls_aes_init(&aes); }
    ~crypto_log_writer() {
        mbedtls_aes_free(&aes);
        mbedtls_platform_zeroize(key, sizeof key);
    }
    crypto_log_writer(const crypto_log_writer&) = delete;
    crypto_log_writer& operator=(const crypto_log_writer&) = delete;
};

struct crypto_log_reader {
    std::string private_key_path;
};

namespace {

constexpr unsigned char kMagic[4] = {'K', 'S', 'C', 'L'};
constexpr unsigned char kVersion = 1;
constexpr size_t kPidOffset = 5;
constexpr unsigned char kKeyBlock = 1;
constexpr unsigned char kRecordBlock = 2;
constexpr size_t kBlockHead = 5;  // type byte and 32-bit length
// A record is at most 4095 bytes, so its ciphertext fits in 4096; the extra block leaves
// room for the padding of a longer caller-supplied record of up to 4111 bytes.
constexpr size_t kMaxCiphertext = 4112;
// The reader refuses larger payloads as corrupt instead of allocating what a damaged
// length field asks for.
constexpr uint32_t kMaxPayload = 1u << 20;

void put_u32(unsigned char* out, uint32_t value) {
    for (int i = 0; i < 4; ++i) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t get_u32(const unsigned char* in) {
    return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16 |
           static_cast<uint32_t>(in[3]) << 24;
}

uint32_t header_pid(const unsigned char* header) { return get_u32(header + kPidOffset); }
// Rewrites the first bytes of a file that already has content without moving its position.
// O_APPEND would send a positioned write to the end, so it is lifted for the one write.
bool overwrite_at_start(int fd, const unsigned char* data, size_t size) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) return false;
    if ((flags & O_APPEND) && ::fcntl(fd, F_SETFL, flags & ~O_APPEND) < 0) return false;
    const bool done = ks::sys::pwrite_full(fd, data, size, 0);
    if (flags & O_APPEND) {
        const int saved = errno;
        ::fcntl(fd, F_SETFL, flags);
        errno = saved;
    }
    return done;
}

// Draws a key and wraps it before installing either, so a failure leaves the writer with a
// key and a key block that still belong together.
int new_key(crypto_log_writer* writer) {
    unsigned char key[AES_KEY_SIZE];
    unsigned char wrapped[RSA_BLOCK_SIZE];
    int rc = crypto_gen_random_bytes(key, sizeof key);
    if (rc == 0) rc = rsa_encrypt(key, sizeof key, wrapped, writer->public_key_path.c_str());
    if (rc == 0 && mbedtls_aes_setkey_enc(&writer->aes, key, AES_KEY_SIZE * 8) != 0) {
        ks::_get_kserrno().set(ks::E_FAULT, "cannot key the log cipher");
        rc = -1;
    }
    if (rc == 0) {
        std::memcpy(writer->key, key, sizeof key);
        std::memcpy(writer->wrapped_key, wrapped, sizeof wrapped);
        writer->key_is_new = true;
    }
    mbedtls_platform_zeroize(key, sizeof key);
    return rc == 0 ? 0 : -1;
}

// Reads exactly `size` bytes: 1 when done, 0 at a clean end of file before the first byte,
// -1 on an error or an end of file in the middle (errno 0 then).
int read_exact(int fd, unsigned char* data, size_t size) {
    const ssize_t n = ks::sys::read_full(fd, data, size);
    if (n < 0) return -1;
    if (static_cast<size_t>(n) == size) return 1;
    if (n == 0) return 0;
    errno = 0;
    return -1;
}

int read_failure(const char* what, unsigned long long offset) {
    if (errno == 0)
        ks::_get_kserrno().set(ks::E_INVAL, "truncated {:s} at offset {:d}", what, offset);
    else
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot read {:s} at offset {:d}: {:s}", what, offset,
                               std::strerror(errno));
    return -1;
}

}  // namespace

extern "C" {

crypto_log_writer* crypto_log_writer_new(const char* public_key_path) {
    if (!public_key_path || !*public_key_path) {
        ks::_get_kserrno().set(ks::E_INVAL, "no public key for the log writer");
        return nullptr;
    }
    auto writer = new (std::nothrow) crypto_log_writer;
    if (!writer) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot allocate the log writer");
        return nullptr;
    }
    try {
        writer->public_key_path = public_key_path;
    } catch (const std::bad_alloc&) {
        delete writer;
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot allocate the log writer");
        return nullptr;
    }
    if (new_key(writer) != 0) {
        delete writer;
        return nullptr;
    }
    return writer;
}

int crypto_log_writer_regen_sym_key(crypto_log_writer* writer) {
    if (!writer) return -1;
    return new_key(writer);
}

void crypto_log_writer_free(crypto_log_writer* writer) { delete writer; }

int crypto_log_writer_encrypt(crypto_log_writer* writer, int fd, const char* record, size_t length) {
    return crypto_log_writer_encrypt_at(writer, fd, record, length, ::lseek(fd, 0, SEEK_CUR), nullptr) < 0 ? -1 : 0;
}

ssize_t crypto_log_writer_encrypt_at(crypto_log_writer* writer, int fd, const char* record, size_t length,
                                     off_t position, bool* header_ours) {
    if (!writer || writer->public_key_path.empty() || !record) {
        ks::_get_kserrno().set(ks::E_INVAL, "log writer without a key or record");
        return -1;
    }
    const uint32_t self = static_cast<uint32_t>(ks::sys::current_pid());
    bool ours = header_ours && *header_ours;
    if (!ours) {
        unsigned char header[CRYPTO_LOG_HEADER_SIZE];
        if (crypto_log_layout_read_header(fd, header) != 0) return -1;
        if (crypto_log_layout_is_valid_header(header) != 0) {
            ks::_get_kserrno().set(ks::E_INVAL, "not an encrypted log file");
            return -1;
        }
        ours = header_pid(header) == self;
    }
    if (header_ours) *header_ours = ours;

    unsigned char ciphertext[kMaxCiphertext];
    unsigned char iv[AES_IV_SIZE] = {};  // every record starts from a zero IV
    size_t size = 0;
    if (aes_encrypt_no_alloc(reinterpret_cast<const unsigned char*>(record), length, &writer->aes, iv, ciphertext,
                             sizeof ciphertext, &size) != 0 ||
        size == 0)
        return -1;

    int rc;
    bool with_key = true;
    if (!ours) {
        // Another process wrote last: our records need our key in front of them again.
        rc = crypto_log_writer_write_with_key(writer, fd, ciphertext, size);
        // The record is in either way; should the header keep the other pid, our next
        // record simply carries the key again.
        if (rc == 0 && crypto_log_layout_write_header(fd) == 0 && header_ours) *header_ours = true;
    } else if (!writer->key_is_new && position > static_cast<off_t>(CRYPTO_LOG_HEADER_SIZE)) {
        with_key = false;
        rc = crypto_log_writer_write_without_key(writer, fd, ciphertext, size);
    } else {
        rc = crypto_log_writer_write_with_key(writer, fd, ciphertext, size);
    }
    if (rc != 0) return -1;
    writer->key_is_new = false;
    return static_cast<ssize_t>((with_key ? kBlockHead + RSA_BLOCK_SIZE : 0) + kBlockHead + size);
}

int crypto_log_writer_write_with_key(crypto_log_writer* writer, int fd, const unsigned char* ciphertext,
                                     size_t length) {
    if (!writer || !ciphertext || length > UINT32_MAX) return -1;
    unsigned char key_type = kKeyBlock, record_type = kRecordBlock;
    unsigned char key_length[4], record_length[4];
    put_u32(key_length, RSA_BLOCK_SIZE);
    put_u32(record_length, static_cast<uint32_t>(length));
    struct iovec parts[6] = {
        {&key_type, 1},
        {key_length, 4},
        {writer->wrapped_key, RSA_BLOCK_SIZE},
        {&record_type, 1},
        {record_length, 4},
        {const_cast<unsigned char*>(ciphertext), length},
    };
    if (writev_all(fd, parts, 6) < 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot append to the log file");
        return -1;
    }
    return 0;
}

int crypto_log_writer_write_without_key(crypto_log_writer* writer, int fd, const unsigned char* ciphertext,
                                        size_t length) {
    if (!writer || !ciphertext || length > UINT32_MAX) return -1;
    unsigned char record_type = kRecordBlock;
    unsigned char record_length[4];
    put_u32(record_length, static_cast<uint32_t>(length));
    struct iovec parts[3] = {
        {&record_type, 1},
        {record_length, 4},
        {const_cast<unsigned char*>(ciphertext), length},
    };
    if (writev_all(fd, parts, 3) < 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot append to the log file");
        return -1;
    }
    return 0;
}

int crypto_log_layout_write_header(int fd) {
    unsigned char header[CRYPTO_LOG_HEADER_SIZE] = {};
    std::memcpy(header, kMagic, sizeof kMagic);
    header[4] = kVersion;
    put_u32(header + kPidOffset, static_cast<uint32_t>(ks::sys::current_pid()));

    const off_t position = ::lseek(fd, 0, SEEK_CUR);
    if (position < 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot write the log header: {:s}", std::strerror(errno));
        return -1;
    }
    bool written;
    if (position == 0) {
        // A new file: a torn header would make it unusable, so all or nothing.
        written = write_all(fd, header, sizeof header, 1) == static_cast<ssize_t>(sizeof header);
        if (::lseek(fd, position, SEEK_SET) < 0) written = false;
    } else {
        written = overwrite_at_start(fd, header, sizeof header);
    }
    if (!written) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot write the log header: {:s}", std::strerror(errno));
        return -1;
    }
    return 0;
}

int crypto_log_layout_read_header(int fd, unsigned char header[CRYPTO_LOG_HEADER_SIZE]) {
    if (!header) return -1;
    const ssize_t n = ks::sys::pread_full(fd, header, CRYPTO_LOG_HEADER_SIZE, 0);
    if (n < 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot read the log header: {:s}", std::strerror(errno));
        return -1;
    }
    if (n < static_cast<ssize_t>(CRYPTO_LOG_HEADER_SIZE)) {
        ks::_get_kserrno().set(ks::E_INVAL, "log file shorter than its header");
        return -1;
    }
    return 0;
}

int crypto_log_layout_is_valid_header(const unsigned char header[CRYPTO_LOG_HEADER_SIZE]) {
    if (!header) return -1;
    return std::memcmp(header, kMagic, sizeof kMagic) == 0 && header[4] == kVersion ? 0 : -1;
}

crypto_log_reader* crypto_log_reader_new(const char* private_key_path) {
    if (!private_key_path || !*private_key_path) {
        ks::_get_kserrno().set(ks::E_INVAL, "no private key for the log reader");
        return nullptr;
    }
    // Refuse an unusable key now rather than at the first key block of every file.
    mbedtls_pk_context pk;
    mbedtls_pk_init(&pk);
    int rc = mbedtls_pk_parse_keyfile(&pk, private_key_path, nullptr);
    const bool is_rsa = rc == 0 && mbedtls_pk_get_type(&pk) == MBEDTLS_PK_RSA;
    mbedtls_pk_free(&pk);
    if (rc != 0) {
        char text[128];
        kscrypto_strerror(rc, text, sizeof text);
        ks::_get_kserrno().set(ks::E_INVAL, "cannot load the private key {:s}: {:s}", private_key_path,
                               static_cast<const char*>(text));
        return nullptr;
    }
    if (!is_rsa) {
        ks::_get_kserrno().set(ks::E_INVAL, "{:s} is not an RSA private key", private_key_path);
        return nullptr;
    }
    auto reader = new (std::nothrow) crypto_log_reader;
    if (!reader) return nullptr;
    try {
        reader->private_key_path = private_key_path;
    } catch (const std::bad_alloc&) {
        delete reader;
        return nullptr;
    }
    return reader;
}

void crypto_log_reader_free(crypto_log_reader* reader) { delete reader; }

int crypto_log_reader_decrypt(crypto_log_reader* reader, int out_fd, int in_fd) {
    if (!reader) {
        ks::_get_kserrno().set(ks::E_INVAL, "no log reader");
        return -1;
    }
    unsigned char header[CRYPTO_LOG_HEADER_SIZE];
    // A pipe cannot be read at an offset: take the header from the stream instead.
    if (::lseek(in_fd, 0, SEEK_CUR) < 0 && errno == ESPIPE) {
        const int rc = read_exact(in_fd, header, sizeof header);
        if (rc != 1) {
            if (rc == 0 || errno == 0) {
                ks::_get_kserrno().set(ks::E_INVAL, "log file shorter than its header");
                return -1;
            }
            return read_failure("header", 0);
        }
    } else {
        if (crypto_log_layout_read_header(in_fd, header) != 0) return -1;
        if (::lseek(in_fd, CRYPTO_LOG_HEADER_SIZE, SEEK_SET) < 0) return read_failure("header", 0);
    }
    if (crypto_log_layout_is_valid_header(header) != 0) {
        if (std::memcmp(header, kMagic, sizeof kMagic) != 0)
            ks::_get_kserrno().set(ks::E_INVAL, "bad header: not an encrypted log file");
        else
            ks::_get_kserrno().set(ks::E_INVAL, "bad header: unsupported format version {:d}",
                                   static_cast<int>(header[4]));
        return -1;
    }

    unsigned char key[AES_KEY_SIZE];
    bool have_key = false;
    std::vector<unsigned char> payload;
    unsigned long long offset = CRYPTO_LOG_HEADER_SIZE;
    int result = 0;
    for (;;) {
        unsigned char head[kBlockHead];
        int rc = read_exact(in_fd, head, sizeof head);
        if (rc == 0) break;
        if (rc < 0) {
            result = read_failure("block header", offset);
            break;
        }
        const unsigned char type = head[0];
        const uint32_t length = get_u32(head + 1);
        if (length > kMaxPayload || (type == kKeyBlock && length != RSA_BLOCK_SIZE) ||
            (type == kRecordBlock && (length == 0 || length % AES_BLOCK_SIZE != 0))) {
            ks::_get_kserrno().set(ks::E_INVAL, "corrupt block of type {:d} and length {:d} at offset {:d}",
                                   static_cast<int>(type), static_cast<unsigned long long>(length), offset);
            result = -1;
            break;
        }
        payload.resize(length);
        rc = read_exact(in_fd, payload.data(), length);
        if (rc != 1) {
            if (rc == 0) errno = 0;  // the file ends right after the block header
            result = read_failure("block", offset);
            break;
        }
        if (type == kKeyBlock) {
            unsigned char plain[RSA_BLOCK_SIZE];
            size_t plain_length = 0;
            rc = rsa_decrypt(payload.data(), plain, &plain_length, reader->private_key_path.c_str());
            if (rc != 0 || plain_length != AES_KEY_SIZE) {
                char text[128];
                kscrypto_strerror(rc, text, sizeof text);
                ks::_get_kserrno().set(ks::E_INVAL,
                                       "the private key does not match the key block at offset {:d} ({:s})", offset,
                                       static_cast<const char*>(rc != 0 ? text : "wrong key length"));
                mbedtls_platform_zeroize(plain, sizeof plain);
                result = -1;
                break;
            }
            std::memcpy(key, plain, AES_KEY_SIZE);
            mbedtls_platform_zeroize(plain, sizeof plain);
            have_key = true;
        } else if (type == kRecordBlock) {
            if (!have_key) {
                ks::_get_kserrno().set(ks::E_INVAL, "record without a key block at offset {:d}", offset);
                result = -1;
                break;
            }
            unsigned char iv[AES_IV_SIZE] = {};
            unsigned char* plain = nullptr;
            size_t plain_length = 0;
            rc = aes_decrypt(payload.data(), length, key, iv, &plain, &plain_length);
            if (rc != 0) {
                ks::_get_kserrno().set(ks::E_INVAL, "cannot decrypt the record at offset {:d}", offset);
                result = -1;
                break;
            }
            const bool done = ks::sys::write_full(out_fd, plain, plain_length);
            const int saved = errno;
            std::free(plain);
            if (!done) {
                ks::_get_kserrno().set(ks::E_SYSTEM, "cannot write the plain text: {:s}", std::strerror(saved));
                result = -1;
                break;
            }
        }
        offset += kBlockHead + length;
    }
    mbedtls_platform_zeroize(key, sizeof key);
    return result;
}

}  // extern "C"
