// AES-256-CBC encryption throughput of aes_encrypt_file and of the log writer's per-record
// path, printed as ratios against "openssl speed -evp aes-256-cbc" measured in the same run.
//
// The log writer figures include what a record costs on its way to disk: the header check,
// the encryption and the one writev of the block. Files live in $TMPDIR (page cache), so
// the disk itself is not measured.
#include "bench_util.h"
#include <kscrypto.h>
#include <kscryptolog.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using bench::Clock;
using bench::seconds_since;
using bench::temp_dir;



int run_quiet(const std::string& command, std::string* output = nullptr) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
    if (!pipe) return -1;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe.get())) > 0)
        if (output) output->append(chunk, n);
    return ::pclose(pipe.release());
}

// openssl's machine-readable result for one block size, in bytes per second; 0 if unavailable.
double openssl_speed(size_t block) {
    std::string out;
    if (run_quiet("openssl speed -mr -seconds 2 -bytes " + std::to_string(block) +
                      " -evp aes-256-cbc 2>/dev/null",
                  &out) != 0)
        return 0;
    const size_t line = out.find("+F:");
    if (line == std::string::npos) return 0;
    const size_t value = out.find(':', out.find(':', line + 3) + 1);
    return value == std::string::npos ? 0 : std::strtod(out.c_str() + value + 1, nullptr);
}

// Bytes per second of aes_encrypt_file over a file of `size` bytes, best of `rounds`.
double file_throughput(const std::string& dir, size_t size, int rounds) {
    const std::string in = dir + "/plain";
    {
        ks::unique_fd fd(::open(in.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
        std::vector<unsigned char> chunk(1 << 20);
        for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<unsigned char>(i * 31);
        for (size_t done = 0; done < size; done += chunk.size())
            if (::write(fd.get(), chunk.data(), chunk.size()) < 0) return 0;
    }
    unsigned char key[AES_KEY_SIZE] = {1, 2, 3}, iv[AES_IV_SIZE] = {4, 5, 6};
    double best = 0;
    for (int r = 0; r < rounds; ++r) {
        ks::unique_fd src(::open(in.c_str(), O_RDONLY));
        ks::unique_fd dst(::open("/dev/null", O_WRONLY));
        const auto start = Clock::now();
        if (aes_encrypt_file(dst.get(), src.get(), key, iv) != 0) return 0;
        const double rate = static_cast<double>(size) / seconds_since(start);
        if (rate > best) best = rate;
    }
    return best;
}

// Record bytes per second through crypto_log_writer_encrypt into a log file.
double writer_throughput(const std::string& dir, const std::string& public_key, size_t record_size,
                         size_t records) {
    crypto_log_writer* writer = crypto_log_writer_new(public_key.c_str());
    if (!writer) return 0;
    const std::string path = dir + "/log.0";
    ks::unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    crypto_log_layout_write_header(fd.get());
    ::lseek(fd.get(), 0, SEEK_END);
    std::string record(record_size, 'r');
    record.back() = '\n';
    const auto start = Clock::now();
    for (size_t i = 0; i < records; ++i) {
        if (crypto_log_writer_encrypt(writer, fd.get(), record.data(), record.size()) != 0) {
            crypto_log_writer_free(writer);
            return 0;
        }
        // Keep the file small, as rotation does, so the page cache is not the subject.
        if (i % 1000 == 999) {
            if (::ftruncate(fd.get(), CRYPTO_LOG_HEADER_SIZE) != 0) break;
            ::lseek(fd.get(), 0, SEEK_END);
        }
    }
    const double elapsed = seconds_since(start);
    crypto_log_writer_free(writer);
    return static_cast<double>(record_size * records) / elapsed;
}

void row(const char* name, double rate, double baseline) {
    if (baseline > 0)
        std::printf("%-44s %9.1f MB/s   %5.2fx openssl\n", name, rate / 1e6, rate / baseline);
    else
        std::printf("%-44s %9.1f MB/s   (no openssl baseline)\n", name, rate / 1e6);
}

}  // namespace

int main() {
    const std::string dir = temp_dir("crypto_bench");
    if (dir.empty()) {
        std::fprintf(stderr, "crypto_bench: cannot create a temporary directory\n");
        return 1;
    }
    const std::string priv = dir + "/priv.pem", pub = dir + "/pub.pem";
    if (run_quiet("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" + priv +
                  "' 2>/dev/null && openssl pkey -in '" + priv + "' -pubout -out '" + pub + "' 2>/dev/null") != 0) {
        std::fprintf(stderr, "crypto_bench: openssl key generation failed\n");
        return 1;
    }

    std::printf("AES-256-CBC encryption, one thread; baseline: openssl speed -evp aes-256-cbc\n\n");
    const double openssl_16k = openssl_speed(16384);
    const double openssl_256 = openssl_speed(256);
    const double openssl_4k = openssl_speed(4096);
    row("openssl speed, 16384-byte blocks", openssl_16k, openssl_16k);
    row("openssl speed, 4096-byte blocks", openssl_4k, openssl_4k);
    row("openssl speed, 256-byte blocks", openssl_256, openssl_256);
    std::printf("\n");
    row("aes_encrypt_file, 64 MiB to /dev/null", file_throughput(dir, 64u << 20, 3), openssl_16k);
    row("log writer, 4095-byte records (vs 4096)", writer_throughput(dir, pub, 4095, 20000), openssl_4k);
    row("log writer, 200-byte records (vs 256)", writer_throughput(dir, pub, 200, 100000), openssl_256);

    run_quiet("rm -rf '" + dir + "'");
    return 0;
}
