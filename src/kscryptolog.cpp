// Encrypted log files: writer and reader of the "KSCL" container.
//
// Each process encrypts its records under its own random AES-256 key and puts that key,
// wrapped with the installed RSA public key, in front of its first record in a file. The
// header remembers which process wrote the last key block, so a process sharing a file with
// others re-sends its key whenever another one wrote in between; the reader switches to each
// key block it meets. The writer never logs: the log core calls it under its locks.
//
// A writer may die at any instant (SIGKILL, even in the middle of a write, which then ends
// short) and a disk may fill: the writer orders its steps so that whatever prefix of them
// reaches the file, every later record still follows the key it was encrypted with, and the
// reader steps over a torn block to the next key block instead of giving up on the file.
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

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
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

void make_header(uint32_t pid, unsigned char header[CRYPTO_LOG_HEADER_SIZE]) {
    std::memset(header, 0, CRYPTO_LOG_HEADER_SIZE);
    std::memcpy(header, kMagic, sizeof kMagic);
    header[4] = kVersion;
    put_u32(header + kPidOffset, pid);
}

// Makes the header name no process (0), so that every writer's next record carries its key.
void forget_key_writer(int fd) {
    unsigned char header[CRYPTO_LOG_HEADER_SIZE];
    make_header(0, header);
    const int saved = errno;
    overwrite_at_start(fd, header, sizeof header);
    errno = saved;
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

// The reader's input, seen through a window that slides forward over the file or pipe: a
// block is judged with the head of the next one in sight, and the search for a key block
// after damage restarts inside the damaged block. Memory stays at a few blocks whatever a
// length field claims.
class input_window {
public:
    explicit input_window(int fd) : fd_(fd) {}

    // Points `data` at the bytes from `offset` (never before a dropped offset) and returns how
    // many of the `size` asked for exist, fewer only at the end of the input; -1 on a read
    // error (errno set).
    ssize_t view(uint64_t offset, size_t size, const unsigned char** data) {
        const size_t skip = static_cast<size_t>(offset - start_);
        while (bytes_.size() < skip + size && !ended_) {
            const size_t have = bytes_.size();
            bytes_.resize(std::max(skip + size, have + kReadSize));
            const ssize_t n = ks::sys::read_some(fd_, bytes_.data() + have, bytes_.size() - have);
            bytes_.resize(have + static_cast<size_t>(std::max<ssize_t>(n, 0)));
            if (n < 0) return -1;
            ended_ = n == 0;
        }
        *data = bytes_.data() + std::min(skip, bytes_.size());
        return static_cast<ssize_t>(bytes_.size() > skip ? std::min(size, bytes_.size() - skip) : 0);
    }

    // Forgets the bytes before `offset`, in steps large enough to make moving the rest cheap.
    void drop_before(uint64_t offset) {
        const size_t n = std::min(static_cast<size_t>(offset - start_), bytes_.size());
        if (n < kReadSize) return;
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
        start_ += n;
    }

    static constexpr size_t kReadSize = 64 * 1024;

private:
    int fd_;
    std::vector<unsigned char> bytes_;
    uint64_t start_ = 0;  // offset of bytes_[0]
    bool ended_ = false;
};

// A record payload the writer could have produced: whole cipher blocks, at most its buffer.
bool plausible_record_length(uint32_t length) {
    return length > 0 && length % AES_BLOCK_SIZE == 0 && length <= kMaxCiphertext;
}

// Whether the `size` bytes (0 to 5) after a block can start the next one: the end of the
// input, or a head the writer could have written (a short one is judged as its own block).
// A torn record whose length field took in the start of the next block ends at a random
// place, where this almost never holds.
bool plausible_next_head(const unsigned char* head, size_t size) {
    if (size == 0) return true;
    if (head[0] != kKeyBlock && head[0] != kRecordBlock) return false;
    if (size < kBlockHead) return true;
    const uint32_t length = get_u32(head + 1);
    return head[0] == kKeyBlock ? length == RSA_BLOCK_SIZE : plausible_record_length(length);
}

// The keys met so far in one file, each unwrapped once. A process re-sends the same key
// block whenever it follows another writer, so a shared file repeats a few key blocks many
// times, and each RSA unwrap costs milliseconds.
class key_ring {
public:
    explicit key_ring(const crypto_log_reader& reader) : reader_(reader) {}
    ~key_ring() {
        if (!keys_.empty()) mbedtls_platform_zeroize(keys_.data(), keys_.size() * sizeof keys_[0]);
    }
    key_ring(const key_ring&) = delete;
    key_ring& operator=(const key_ring&) = delete;

    // Opens a key block's payload into `key`; false when the private key does not open it.
    bool open(const unsigned char* wrapped, unsigned char key[AES_KEY_SIZE]) {
        for (const entry& e : keys_)
            if (std::memcmp(e.wrapped, wrapped, RSA_BLOCK_SIZE) == 0) {
                std::memcpy(key, e.key, AES_KEY_SIZE);
                return true;
            }
        unsigned char plain[RSA_BLOCK_SIZE];
        size_t plain_length = 0;
        const bool opened = rsa_decrypt(wrapped, plain, &plain_length, reader_.private_key_path.c_str()) == 0 &&
                            plain_length == AES_KEY_SIZE;
        if (opened) {
            std::memcpy(key, plain, AES_KEY_SIZE);
            if (keys_.size() < kMaxKeys) keys_.emplace_back();
            entry& e = keys_[next_++ % kMaxKeys];
            std::memcpy(e.wrapped, wrapped, RSA_BLOCK_SIZE);
            std::memcpy(e.key, plain, AES_KEY_SIZE);
        }
        mbedtls_platform_zeroize(plain, sizeof plain);
        return opened;
    }

private:
    struct entry {
        unsigned char wrapped[RSA_BLOCK_SIZE];
        unsigned char key[AES_KEY_SIZE];
    };
    static constexpr size_t kMaxKeys = 64;
    const crypto_log_reader& reader_;
    std::vector<entry> keys_;
    size_t next_ = 0;
};

int read_failure(const char* what, uint64_t offset) {
    ks::_get_kserrno().set(ks::E_SYSTEM, "cannot read the {:s} at offset {:d}: {:s}", what, offset,
                           std::strerror(errno));
    return -1;
}

// One pass of the reader over a log file, block after block. Damage (a torn block, a block
// that does not decrypt or is framed in a way the writer never writes, a record before any
// key) does not end it: the damaged stretch, from the block's first byte up to the next key
// block that the private key opens, is skipped and noted, and reading resumes there.
class log_decoder {
public:
    log_decoder(const crypto_log_reader& reader, int out_fd, int in_fd)
        : keys_(reader), input_(in_fd), out_fd_(out_fd) {}

    // 0 when the whole file was read; -1 with the error record set on a bad header, a read or
    // write error, or after damage was skipped (one line per stretch).
    int decode() {
        if (!header_is_valid()) return -1;
        std::string skipped;
        for (uint64_t offset = CRYPTO_LOG_HEADER_SIZE;;) {
            input_.drop_before(offset);
            size_t size = 0;
            const verdict v = read_block(offset, &size);
            if (v == verdict::failed) return -1;
            if (v == verdict::end) break;
            if (v == verdict::read) {
                offset += size;
                continue;
            }
            // The search starts one byte into the damaged block, not at its claimed end: a torn
            // block's length field may have taken in the blocks after it.
            if (search_ == searched::not_yet) search_ = find_key_block(offset + 1, UINT64_MAX);
            if (search_ == searched::failed) return read_failure("block", offset);
            skipped += fmt::format("{:s} at offset {:d}; skipped bytes {:d}-{:d}\n", damage_, offset, offset,
                                   resume_ - 1);
            if (search_ == searched::none) break;
            offset = resume_ + kBlockHead + RSA_BLOCK_SIZE;  // that key block is read already
            have_key_ = true;
        }
        if (skipped.empty()) return 0;
        skipped.pop_back();
        ks::_get_kserrno().set(ks::E_INVAL, skipped);
        return -1;
    }

private:
    enum class verdict { read, damaged, end, failed };
    enum class searched { not_yet, found, none, failed };

    bool header_is_valid() {
        const unsigned char* header;
        const ssize_t n = input_.view(0, CRYPTO_LOG_HEADER_SIZE, &header);
        if (n < 0) {
            read_failure("header", 0);
            return false;
        }
        if (n < static_cast<ssize_t>(CRYPTO_LOG_HEADER_SIZE)) {
            ks::_get_kserrno().set(ks::E_INVAL, "log file shorter than its header");
            return false;
        }
        if (crypto_log_layout_is_valid_header(header) == 0) return true;
        if (std::memcmp(header, kMagic, sizeof kMagic) != 0)
            ks::_get_kserrno().set(ks::E_INVAL, "bad header: not an encrypted log file");
        else
            ks::_get_kserrno().set(ks::E_INVAL, "bad header: unsupported format version {:d}",
                                   static_cast<int>(header[4]));
        return false;
    }

    // Reads the block at `offset`: read (its length in `size`), damaged (why in damage_, and
    // perhaps the search for the next key block made already), end of the input, or failed.
    verdict read_block(uint64_t offset, size_t* size) {
        search_ = searched::not_yet;
        const unsigned char* block;
        const ssize_t n = input_.view(offset, kBlockHead, &block);
        if (n < 0) return failed_reading(offset);
        if (n == 0) return verdict::end;
        if (n < static_cast<ssize_t>(kBlockHead)) return damaged("truncated block");
        const unsigned char type = block[0];
        const uint32_t length = get_u32(block + 1);
        if (type == kKeyBlock && length == RSA_BLOCK_SIZE) return read_key_block(offset, size);
        if (type == kRecordBlock && plausible_record_length(length)) return read_record(offset, length, size);
        return damaged(fmt::format("corrupt block of type {:d} and length {:d}", static_cast<int>(type), length));
    }

    verdict read_key_block(uint64_t offset, size_t* size) {
        *size = kBlockHead + RSA_BLOCK_SIZE;
        const unsigned char* block;
        const ssize_t n = input_.view(offset, *size, &block);
        if (n < 0) return failed_reading(offset);
        if (static_cast<size_t>(n) < *size) return damaged("truncated block");
        if (!keys_.open(block + kBlockHead, key_.bytes)) return damaged("the private key does not match the key block");
        have_key_ = true;
        return verdict::read;
    }

    verdict read_record(uint64_t offset, uint32_t length, size_t* size) {
        *size = kBlockHead + length;
        const unsigned char* block;
        const ssize_t n = input_.view(offset, *size + kBlockHead, &block);  // with the next head
        if (n < 0) return failed_reading(offset);
        if (static_cast<size_t>(n) < *size) return damaged("truncated block");
        if (!have_key_) return damaged("record without a key block");
        unsigned char iv[AES_IV_SIZE] = {};
        unsigned char* decrypted = nullptr;
        size_t plain_length = 0;
        if (aes_decrypt(block + kBlockHead, length, key_.bytes, iv, &decrypted, &plain_length) != 0)
            return damaged("cannot decrypt the record");
        const std::unique_ptr<unsigned char, decltype(&std::free)> plain(decrypted, &std::free);
        if (!plausible_next_head(block + *size, static_cast<size_t>(n) - *size)) {
            // Either the record is torn and its length field took in what the next writer
            // appended, which always begins with that writer's key block, or the record is
            // whole and the damage begins right after it (and is judged as the next block).
            search_ = find_key_block(offset + 1, offset + *size);
            if (search_ == searched::failed) return failed_reading(offset);
            if (search_ == searched::found) return damaged("torn record");
        }
        if (!ks::sys::write_full(out_fd_, plain.get(), plain_length)) {
            ks::_get_kserrno().set(ks::E_SYSTEM, "cannot write the plain text: {:s}", std::strerror(errno));
            return verdict::failed;
        }
        return verdict::read;
    }

    verdict failed_reading(uint64_t offset) {
        read_failure("block", offset);
        return verdict::failed;
    }

    verdict damaged(std::string why) {
        damage_ = std::move(why);
        return verdict::damaged;
    }

    // Looks for the first key block in [from, before) that the private key opens (a stray key
    // head inside other data does not open): found (at resume_, its key taken), or none (to the
    // end of the input, resume_ set there, when `before` lies beyond it).
    searched find_key_block(uint64_t from, uint64_t before) {
        static constexpr unsigned char kKeyHead[kBlockHead] = {kKeyBlock, RSA_BLOCK_SIZE & 0xff, RSA_BLOCK_SIZE >> 8,
                                                                0, 0};
        for (uint64_t at = from; at < before;) {
            input_.drop_before(at);
            const unsigned char* data;
            const ssize_t n = input_.view(at, input_window::kReadSize, &data);
            if (n < 0) return searched::failed;
            const void* hit = ::memmem(data, static_cast<size_t>(n), kKeyHead, sizeof kKeyHead);
            if (!hit) {
                resume_ = at + static_cast<uint64_t>(n);
                if (static_cast<size_t>(n) < input_window::kReadSize) return searched::none;
                at = resume_ - (kBlockHead - 1);  // a head may straddle the window's end
                continue;
            }
            const uint64_t candidate = at + static_cast<uint64_t>(static_cast<const unsigned char*>(hit) - data);
            if (candidate >= before) break;
            const ssize_t m = input_.view(candidate, kBlockHead + RSA_BLOCK_SIZE, &data);
            if (m < 0) return searched::failed;
            if (m == kBlockHead + RSA_BLOCK_SIZE && keys_.open(data + kBlockHead, key_.bytes)) {
                resume_ = candidate;
                return searched::found;
            }
            at = candidate + 1;
        }
        return searched::none;
    }

    struct key_guard {
        unsigned char bytes[AES_KEY_SIZE];
        ~key_guard() { mbedtls_platform_zeroize(bytes, sizeof bytes); }
    };

    key_ring keys_;
    input_window input_;
    int out_fd_;
    key_guard key_;  // the key of the records being read
    bool have_key_ = false;
    std::string damage_;                    // why the block just read is damaged
    searched search_ = searched::not_yet;  // for that block, the search for the next key block
    uint64_t resume_ = 0;                   // where that search found a key block or the input's end
};

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

    // The record is encrypted straight into its place in one buffer that holds the key
    // block (when it goes too) and the record block, so they reach the file in one write.
    unsigned char blocks[kBlockHead + RSA_BLOCK_SIZE + kBlockHead + kMaxCiphertext];
    unsigned char* const key_block = blocks;
    unsigned char* const record_block = blocks + kBlockHead + RSA_BLOCK_SIZE;
    unsigned char* const ciphertext = record_block + kBlockHead;
    unsigned char iv[AES_IV_SIZE] = {};  // every record starts from a zero IV
    size_t size = 0;
    if (aes_encrypt_no_alloc(reinterpret_cast<const unsigned char*>(record), length, &writer->aes, iv, ciphertext,
                             kMaxCiphertext, &size) != 0 ||
        size == 0)
        return -1;
    record_block[0] = kRecordBlock;
    put_u32(record_block + 1, static_cast<uint32_t>(size));

    // Another process wrote the last key block (!ours), or this file has none of ours yet.
    const bool with_key = !ours || writer->key_is_new || position <= static_cast<off_t>(CRYPTO_LOG_HEADER_SIZE);
    // The header names us before our key block goes in: should we die between the two, or
    // in the middle of the block, the next writer meets a process id that is not its own
    // and puts its key in front of its record, so no record ever follows a key other than
    // its own. (The other order, block first, lets the previous writer append under our
    // key after our death.)
    if (!ours && crypto_log_layout_write_header(fd) != 0) return -1;
    if (with_key) {
        key_block[0] = kKeyBlock;
        put_u32(key_block + 1, RSA_BLOCK_SIZE);
        std::memcpy(key_block + kBlockHead, writer->wrapped_key, RSA_BLOCK_SIZE);
    }
    unsigned char* const start = with_key ? key_block : record_block;
    if (write_all(fd, start, static_cast<size_t>(ciphertext + size - start), 1) < 0) {
        ks::_get_kserrno().set(ks::E_SYSTEM, "cannot append to the log file");
        // The header may name us while the file's last key block is another's, or a block
        // of ours may be left torn (when even taking it back failed). Either way the next
        // record, ours or another process's, must bring its own key: the header names no
        // process, and should that write fail too, our key-is-new flag still sends our key.
        forget_key_writer(fd);
        writer->key_is_new = true;
        if (header_ours) *header_ours = false;
        return -1;
    }
    if (header_ours) *header_ours = true;
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
    unsigned char header[CRYPTO_LOG_HEADER_SIZE];
    make_header(static_cast<uint32_t>(ks::sys::current_pid()), header);

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
    // A file is read from its start; a pipe from where it stands.
    (void)::lseek(in_fd, 0, SEEK_SET);
    return log_decoder(*reader, out_fd, in_fd).decode();
}

}  // extern "C"
