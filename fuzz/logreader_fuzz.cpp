// The encrypted log reader on damaged files. Each input is cut in two at its first NUL:
// the first part is written as records through a writer holding the reader's public key
// (so the file starts valid, header and wrapped key included), the second part is a list of
// (offset, byte) pairs XORed into the file. Reading must end in success or a clean -1.
// The key pair is made once per run with the openssl command, like the tests' keys.
#include <kscryptolog.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Keys {
    crypto_log_writer* writer = nullptr;
    crypto_log_reader* reader = nullptr;
    int null_fd = -1;

    Keys() {
        // Under $TMPDIR, which scripts/fuzz.sh points into its own scratch folder.
        const char* tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/logreader_fuzz.XXXXXX";
        if (!::mkdtemp(templ.data())) std::abort();
        const std::string dir = templ, priv = dir + "/priv.pem", pub = dir + "/pub.pem";
        const std::string make = "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + priv +
                                 " 2>/dev/null && openssl pkey -in " + priv + " -pubout -out " + pub + " 2>/dev/null";
        if (std::system(make.c_str()) != 0) std::abort();
        writer = crypto_log_writer_new(pub.c_str());
        reader = crypto_log_reader_new(priv.c_str());
        null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (!writer || !reader || null_fd < 0) std::abort();
    }
};

Keys& keys() {
    static Keys k;
    return k;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Keys& k = keys();
    const uint8_t* cut = static_cast<const uint8_t*>(std::memchr(data, 0, size));
    const size_t plain = cut ? static_cast<size_t>(cut - data) : size;
    const int fd = ::memfd_create("log", MFD_CLOEXEC);
    if (fd < 0) return 0;
    crypto_log_layout_write_header(fd);
    // Records of at most 64 bytes each, so an input makes several.
    for (size_t at = 0; at < plain; at += 64) {
        const size_t n = plain - at < 64 ? plain - at : 64;
        crypto_log_writer_encrypt(k.writer, fd, reinterpret_cast<const char*>(data) + at, n);
    }
    const off_t length = ::lseek(fd, 0, SEEK_END);
    for (const uint8_t* p = cut ? cut + 1 : data + size; length > 0 && p + 3 <= data + size; p += 3) {
        const off_t offset = ((p[0] << 8) | p[1]) % length;
        uint8_t byte;
        if (::pread(fd, &byte, 1, offset) == 1) {
            byte ^= p[2];
            (void)!::pwrite(fd, &byte, 1, offset);
        }
    }
    ::lseek(fd, 0, SEEK_SET);
    crypto_log_reader_decrypt(k.reader, k.null_fd, fd);
    ::close(fd);
    return 0;
}
