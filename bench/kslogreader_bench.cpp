// The log reader's journal against ways of reading the same bytes, as ratios measured in the
// same run:
//  - kslogreader merging every output of a directory by time stamp (the program as operators
//    run it, standard output to /dev/null), in records per second;
//  - the files decrypted one after another, each straight to /dev/null, as the reader did
//    before it merged (goal: the merge keeps >= 0.8x of that);
//  - `openssl enc -d -aes-256-cbc` of the same files, the floor of decrypting their bytes.
// The outputs are written with the library's encrypted log writer, records stamped a
// millisecond apart and interleaved across outputs, so the merge has work to do.
//   kslogreader_bench [MIB_PER_OUTPUT (10)] [OUTPUTS (10)] [ROUNDS (5)]
// Files live in $TMPDIR (page cache), so the disk itself is not measured. The rounds of all
// measurements are taken in turns; the median and the range of each are printed. With
// KS_BENCH_KEEP set, the key and the files are kept (their directory is printed).
#include "bench_util.h"
#include <kscryptolog.h>
#include <ksutils/crypto.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

using bench::Clock;
using bench::seconds_since;
using bench::temp_dir;



// Writes `outputs` log files of about `bytes` each; the number of records written.
long write_outputs(const std::string& dir, const std::string& public_key, int outputs, long bytes) {
    long records = 0;
    const time_t start = std::time(nullptr) - 86400;
    for (int o = 0; o < outputs; ++o) {
        ks::CryptoLogWriter writer(public_key.c_str());
        const std::string path = dir + "/daemon" + std::to_string(o) + ".main.0";
        ks::unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!writer || !fd || crypto_log_layout_write_header(fd.get()) != 0) return -1;
        ::lseek(fd.get(), 0, SEEK_END);
        char record[256];
        for (long i = 0; ::lseek(fd.get(), 0, SEEK_CUR) < bytes; ++i, ++records) {
            // Output o's i-th record falls between the other outputs' i-th ones.
            const long ms = i * outputs + o;
            const time_t when = start + ms / 1000;
            struct tm local;
            char stamp[32];
            std::strftime(stamp, sizeof stamp, "%F %T", localtime_r(&when, &local));
            const int n = std::snprintf(record, sizeof record,
                                        "%s.%03ld %6d  info [kssetmgmt.cpp:412][handle_request()]: key "
                                        "/network/interfaces/config changed by client %ld\n",
                                        stamp, ms % 1000, 1000 + o, i);
            if (!writer.encrypt(fd.get(), record, static_cast<unsigned long>(n))) return -1;
        }
    }
    return records;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void print_rate(const char* what, long records, const std::vector<double>& seconds) {
    const auto range = std::minmax_element(seconds.begin(), seconds.end());
    std::printf("%-34s %10.0f records/s  (median of %zu; range %.0f to %.0f)\n", what, records / median(seconds),
                seconds.size(), records / *range.second, records / *range.first);
}

}  // namespace

int main(int argc, char** argv) {
    const long mib = argc > 1 ? std::atol(argv[1]) : 10;
    const int outputs = argc > 2 ? std::atoi(argv[2]) : 10;
    const int rounds = argc > 3 ? std::atoi(argv[3]) : 5;
    if (mib <= 0 || outputs <= 0 || rounds <= 0) {
        std::fprintf(stderr, "usage: %s [MIB_PER_OUTPUT] [OUTPUTS] [ROUNDS]\n", argv[0]);
        return 2;
    }
    char exe[4096];
    const ssize_t len = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (len <= 0) return 1;
    std::string tool(exe, static_cast<size_t>(len));
    tool = tool.substr(0, tool.rfind('/'));
    tool = tool.substr(0, tool.rfind('/')) + "/tools/kslogreader";

    const std::string root = temp_dir("kslogreader_bench");
    if (root.empty() || ::mkdir((root + "/logs").c_str(), 0755) != 0) return 1;
    const std::string private_key = root + "/key.pem", public_key = root + "/pub.pem", logs = root + "/logs";
    if (std::system(("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" + private_key +
                     "' 2>/dev/null && openssl pkey -in '" + private_key + "' -pubout -out '" + public_key +
                     "' 2>/dev/null")
                        .c_str()) != 0) {
        std::fprintf(stderr, "cannot make a key pair (openssl needed)\n");
        return 1;
    }
    const auto generating = Clock::now();
    const long records = write_outputs(logs, public_key, outputs, mib << 20);
    if (records <= 0) {
        std::fprintf(stderr, "cannot write the log files\n");
        return 1;
    }
    std::printf("%d outputs of %ld MiB: %ld records, written in %.1f s\n", outputs, mib, records,
                seconds_since(generating));

    std::vector<std::string> files;
    for (int o = 0; o < outputs; ++o) files.push_back(logs + "/daemon" + std::to_string(o) + ".main.0");
    std::string openssl = "true";
    for (const std::string& f : files)
        openssl += " && openssl enc -d -aes-256-cbc -nopad -K " + std::string(64, '1') + " -iv " +
                   std::string(32, '0') + " -in '" + f + "' -out /dev/null 2>/dev/null";
    const std::string merge = "'" + tool + "' '" + private_key + "' '" + logs + "' >/dev/null";

    ks::CryptoLogReader reader(private_key.c_str());
    ks::unique_fd null_fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    std::vector<double> merged, one_by_one, floor;
    for (int round = 0; round < rounds; ++round) {
        auto start = Clock::now();
        if (std::system(merge.c_str()) != 0) {
            std::fprintf(stderr, "kslogreader failed: %s\n", merge.c_str());
            return 1;
        }
        merged.push_back(seconds_since(start));

        start = Clock::now();
        for (const std::string& f : files) {
            ks::unique_fd in(::open(f.c_str(), O_RDONLY | O_CLOEXEC));
            if (!reader.decrypt(null_fd.get(), in.get())) return 1;
        }
        one_by_one.push_back(seconds_since(start));

        start = Clock::now();
        // Bytes that are not a multiple of the block size make openssl complain at the end
        // only, after it has decrypted everything before.
        std::system(openssl.c_str());
        floor.push_back(seconds_since(start));
    }
    print_rate("kslogreader, merged by time", records, merged);
    print_rate("files one after another", records, one_by_one);
    print_rate("openssl enc -d (floor)", records, floor);
    std::printf("merged/one after another = %.2f x  (goal >= 0.8)\n", median(one_by_one) / median(merged));
    std::printf("merged/openssl           = %.2f x\n", median(floor) / median(merged));
    std::printf("one after another/openssl = %.2f x\n", median(floor) / median(one_by_one));
    if (std::getenv("KS_BENCH_KEEP"))  // to profile the reader alone on the same files
        std::printf("files kept in %s\n", root.c_str());
    else
        std::system(("rm -rf '" + root + "'").c_str());
    return 0;
}
