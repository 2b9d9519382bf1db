// Digests through the crypto library's message-digest layer, a tolerant Base64, and the
// owning wrappers of the encrypted log writer and reader.
//
// The Base64 decoder is deliberately lenient: it never rejects a character (anything that
// is not a letter, a digit or '+' counts as 63) and drops the bits of an incomplete last
// group, so text that was wrapped, re-indented or stripped of its padding still decodes.
#include <ksutils/crypto.h>

#include <ksutils/error.h>
#include <ksutils/miscutl.h>

#include <mbedtls/md.h>

#include <cctype>
#include <utility>

namespace ks {

namespace {

const mbedtls_md_info_t* digest_info(int algorithm) {
    switch (algorithm) {
        case MessageDigest::MD5: return mbedtls_md_info_from_type(MBEDTLS_MD_MD5);
        case MessageDigest::SHA256: return mbedtls_md_info_from_type(MBEDTLS_MD_SHA256);
        default: return nullptr;
    }
}

}  // namespace

void MessageDigest::ContextDeleter::operator()(mbedtls_md_context_t* context) const noexcept {
    mbedtls_md_free(context);
    delete context;
}

MessageDigest::MessageDigest() = default;

MessageDigest::MessageDigest(Algorithm algorithm) { setup(algorithm); }

MessageDigest::~MessageDigest() = default;

MessageDigest::MessageDigest(MessageDigest&& other) noexcept
    : context_(std::move(other.context_)),
      info_(std::exchange(other.info_, nullptr)),
      digest_(std::move(other.digest_)),
      started_(std::exchange(other.started_, false)) {}

MessageDigest& MessageDigest::operator=(MessageDigest&& other) noexcept {
    if (this != &other) {
        context_ = std::move(other.context_);
        info_ = std::exchange(other.info_, nullptr);
        digest_ = std::move(other.digest_);
        started_ = std::exchange(other.started_, false);
    }
    return *this;
}

bool MessageDigest::setup(Algorithm algorithm) {
    const mbedtls_md_info_t* info = digest_info(algorithm);
    if (!info) info = info_;
    if (!info) {
        _get_kserrno().set(E_INVAL, "unknown digest algorithm {:d}", static_cast<int>(algorithm));
        return false;
    }
    // A context is set up once for one algorithm; a new selection needs a fresh one.
    std::unique_ptr<mbedtls_md_context_t, ContextDeleter> context(new mbedtls_md_context_t);
    mbedtls_md_init(context.get());
    if (int rc = mbedtls_md_setup(context.get(), info, 0); rc != 0) {
        _get_kserrno().set(E_FAULT, "cannot set up the digest ({:d})", rc);
        return false;
    }
    context_ = std::move(context);
    info_ = info;
    digest_.clear();
    started_ = false;
    return true;
}

bool MessageDigest::update(const unsigned char* data, unsigned long offset, unsigned long length) {
    if (!context_) {
        _get_kserrno().set(E_INVAL, "digest used before setup");
        return false;
    }
    if (!digest_.empty()) {
        _get_kserrno().set(E_INVAL, "digest already finished; reset it first");
        return false;
    }
    if (!data && length > 0) {
        _get_kserrno().set(E_INVAL, "no data to digest");
        return false;
    }
    if (!started_) {
        if (mbedtls_md_starts(context_.get()) != 0) {
            _get_kserrno().set(E_FAULT, "cannot start the digest");
            return false;
        }
        started_ = true;
    }
    if (length == 0) return true;
    if (mbedtls_md_update(context_.get(), data + offset, length) != 0) {
        _get_kserrno().set(E_FAULT, "cannot update the digest");
        return false;
    }
    return true;
}

ks::buffer_view MessageDigest::digest() {
    if (!digest_.empty()) return ks::buffer_view(digest_.data(), digest_.size());
    if (!context_) {
        _get_kserrno().set(E_INVAL, "digest used before setup");
        return {};
    }
    if (!started_ && mbedtls_md_starts(context_.get()) != 0) {
        _get_kserrno().set(E_FAULT, "cannot start the digest");
        return {};
    }
    std::vector<unsigned char> bytes(mbedtls_md_get_size(info_));
    if (mbedtls_md_finish(context_.get(), bytes.data()) != 0) {
        _get_kserrno().set(E_FAULT, "cannot finish the digest");
        return {};
    }
    digest_ = std::move(bytes);
    started_ = false;
    return ks::buffer_view(digest_.data(), digest_.size());
}

std::string MessageDigest::hexdigest() {
    ks::buffer_view bytes = digest();
    return hex_encode(bytes.data(), bytes.size());
}

void MessageDigest::reset() {
    digest_.clear();
    started_ = false;
}

std::string compute_hash(HashFunction function, const char* data, unsigned long offset, unsigned long length) {
    const int algorithm = static_cast<int>(function);
    if (algorithm != MessageDigest::MD5 && algorithm != MessageDigest::SHA256) return {};
    MessageDigest md(static_cast<MessageDigest::Algorithm>(algorithm));
    if (!md.update(reinterpret_cast<const unsigned char*>(data), offset, length)) return {};
    return md.hexdigest();
}

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned base64_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    return 63;
}

}  // namespace

bool base64_encode(const std::string& in, std::string& out) {
    if (in.empty()) {
        _get_kserrno().set(E_INVAL, "nothing to encode");
        return false;
    }
    std::string text;
    text.reserve((in.size() + 2) / 3 * 4);
    unsigned bits = 0;
    int count = 0;
    for (unsigned char c : in) {
        bits = (bits << 8) | c;
        count += 8;
        while (count >= 6) {
            count -= 6;
            text += kBase64Alphabet[(bits >> count) & 0x3f];
        }
    }
    if (count > 0) text += kBase64Alphabet[(bits << (6 - count)) & 0x3f];
    out = std::move(text);
    return true;
}

bool base64_decode(const std::string& in, std::string& out) {
    if (in.empty()) {
        _get_kserrno().set(E_INVAL, "nothing to decode");
        return false;
    }
    std::string bytes;
    bytes.reserve(in.size() / 4 * 3 + 2);
    unsigned bits = 0;
    int count = 0;
    for (unsigned char c : in) {
        if (std::isspace(c)) continue;
        bits = (bits << 6) | base64_value(c);
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes += static_cast<char>((bits >> count) & 0xff);
        }
    }
    out = std::move(bytes);
    return true;
}

CryptoLogWriter::CryptoLogWriter(const char* public_key_path) : writer_(crypto_log_writer_new(public_key_path)) {}

bool CryptoLogWriter::regen_sym_key() { return writer_ && crypto_log_writer_regen_sym_key(writer_.get()) == 0; }

bool CryptoLogWriter::encrypt(int fd, const char* data, unsigned long size) {
    return writer_ && crypto_log_writer_encrypt(writer_.get(), fd, data, size) == 0;
}

bool CryptoLogWriter::write_with_key(int fd, const std::vector<unsigned char>& ciphertext) {
    return writer_ && crypto_log_writer_write_with_key(writer_.get(), fd, ciphertext.data(), ciphertext.size()) == 0;
}

bool CryptoLogWriter::write_without_key(int fd, const std::vector<unsigned char>& ciphertext) {
    return writer_ &&
           crypto_log_writer_write_without_key(writer_.get(), fd, ciphertext.data(), ciphertext.size()) == 0;
}

CryptoLogReader::CryptoLogReader(const char* private_key_path) : reader_(crypto_log_reader_new(private_key_path)) {}

bool CryptoLogReader::decrypt(int out_fd, int in_fd) {
    return reader_ && crypto_log_reader_decrypt(reader_.get(), out_fd, in_fd) == 0;
}

}  // namespace ks
