// What a log record costs, as ratios against baselines measured in the same run:
//  - records per second to one encrypted file output, against the floor of a writer that
//    opens the file for every record (lock, open, seek, write, close, unlock: what a
//    rotation-safe writer needs without a kept-open file), against the bare system calls
//    of a kept-open writer (lock, stat, write, unlock) and against a ":stdout" output
//    pointed at /dev/null;
//  - a suppressed record (can_log false) in nanoseconds, against one uncontended
//    reader-lock pair.
// Files live in $TMPDIR (page cache), so the disk itself is not measured; the baselines'
// files sit next to the library's, with names of the same length, so that every path
// lookup costs the same. Five runs; in each, the file writers take turns in short slices
// and a ratio is the median of the slices' ratios, so a burst of load on a shared machine
// does not fall on one side of a ratio only. Medians and spreads of the runs.
#include "bench_util.h"
#include <kslog.h>

#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using bench::Clock;
using bench::seconds_since;
using bench::temp_dir;

constexpr int kRuns = 5;
constexpr int kRounds = 3;
constexpr int kRecords = 20000;
constexpr int kSlices = 400;
constexpr int kSliceRecords = kRecords / kSlices;
constexpr int kSuppressed = 5000000;
constexpr uint64_t kRotateAt = 262144;



// A typical record: the header template, a source position and a short message.
std::string sample_record() {
    return std::string(KSLOG_HEADER_TEMPLATE) +
           "[kssetmgmt.cpp:412][handle_request()]: key /network/interfaces/config changed by client 7\n";
}

// The system calls the core makes per record, with nothing else: the same lock file
// protocol, the same open/seek/close per record, one write of an encrypted block's size,
// and the same rotation by renaming.
// With `writer_calls`, also the three calls the encrypted writer makes per record on its
// own (reading the file header, asking the position, asking the process id), which shows
// how much of the gap is the core's.
class FloorWriter {
public:
    FloorWriter(const std::string& dir, size_t block_size, bool writer_calls)
        : base_(dir + (writer_calls ? "/kslog_bench.flrw." : "/kslog_bench.flor.")), current_(base_ + "0"),
          previous_(base_ + "1"), block_(block_size, 'b'), writer_calls_(writer_calls),
          lock_fd_(::open((base_ + "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
    ~FloorWriter() { ::close(lock_fd_); }
    void operator()() {
        struct flock lk = {};
        lk.l_type = F_WRLCK;
        ::fcntl(lock_fd_, F_SETLKW, &lk);
        int fd = ::open(current_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        const off_t size = ::lseek(fd, 0, SEEK_END);
        if (static_cast<uint64_t>(size) >= kRotateAt) {
            ::unlink(previous_.c_str());
            ::rename(current_.c_str(), previous_.c_str());
            ::close(fd);
            fd = ::open(current_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        }
        if (writer_calls_) {
            unsigned char header[32];
            if (::pread(fd, header, sizeof header, 0) < 0) std::perror("pread");
            ::lseek(fd, 0, SEEK_CUR);
            ::getpid();
        }
        if (::write(fd, block_.data(), block_.size()) < 0) std::perror("write");
        ::close(fd);
        lk.l_type = F_UNLCK;
        ::fcntl(lock_fd_, F_SETLK, &lk);
    }

private:
    const std::string base_, current_, previous_, block_;
    const bool writer_calls_;
    const int lock_fd_;
};

// The least a kept-open writer can do per record: lock, ask whether the path still names
// the open file, write, unlock; and rotate by renaming, as the library does.
class KeptOpenWriter {
public:
    KeptOpenWriter(const std::string& dir, size_t block_size)
        : base_(dir + "/kslog_bench.kept."), current_(base_ + "0"), previous_(base_ + "1"), block_(block_size, 'b'),
          lock_fd_(::open((base_ + "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)),
          fd_(::open(current_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {}
    ~KeptOpenWriter() {
        ::close(fd_);
        ::close(lock_fd_);
    }
    void operator()() {
        struct flock lk = {};
        lk.l_type = F_WRLCK;
        ::fcntl(lock_fd_, F_SETLKW, &lk);
        struct stat st;
        if (::stat(current_.c_str(), &st) != 0) std::perror("stat");
        if (static_cast<uint64_t>(st.st_size) >= kRotateAt) {
            ::unlink(previous_.c_str());
            ::rename(current_.c_str(), previous_.c_str());
            ::close(fd_);
            fd_ = ::open(current_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        }
        if (::write(fd_, block_.data(), block_.size()) < 0) std::perror("write");
        lk.l_type = F_UNLCK;
        ::fcntl(lock_fd_, F_SETLK, &lk);
    }

private:
    const std::string base_, current_, previous_, block_;
    const int lock_fd_;
    int fd_;
};

// The library, one record at a time, from a caller's buffer as a log statement fills it.
class LibraryWriter {
public:
    explicit LibraryWriter(int channel) : channel_(channel), text_(sample_record()) {}
    void operator()() {
        std::memcpy(buffer_, text_.data(), text_.size());
        kslog_log_full(channel_, KSLOG_LEVEL_INFO, buffer_, text_.size());
    }

private:
    const int channel_;
    const std::string text_;
    char buffer_[4096];
};

// Seconds that `count` calls of `body` take.
template <class Body>
double time_of(int count, Body& body) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) body();
    return seconds_since(start);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

template <class Body>
double nanoseconds_per(long count, const Body& body) {
    const auto start = Clock::now();
    body(count);
    return seconds_since(start) * 1e9 / static_cast<double>(count);
}

void print_spread(const char* what, std::vector<double> v) {
    std::sort(v.begin(), v.end());
    std::printf("  %-38s %10.2f  [%.2f - %.2f]\n", what, v[v.size() / 2], v.front(), v.back());
}

bool configure(const std::string& json) {
    json_error_t error;
    json_t* doc = json_loads(json.c_str(), 0, &error);
    const bool ok = doc && kslog_execute_config(doc) == 0;
    json_decref(doc);
    return ok;
}

}  // namespace

int main() {
    const std::string root = temp_dir("kslog_bench");
    if (root.empty() || ::mkdir((root + "/etc").c_str(), 0755) != 0) return 1;
    const std::string command = "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null | "
                                "openssl pkey -pubout -out '" + root + "/etc/logs-pub.pem' 2>/dev/null";
    if (std::system(command.c_str()) != 0 || kslog_init("/usr/bin/kslog_bench", root.c_str(), nullptr) != 0) {
        std::fprintf(stderr, "cannot start the logger (openssl needed for the key)\n");
        return 1;
    }
    if (!configure(R"({"action":"update","channels":{"file":[{"file":"bench","level":"info"}],
                       "console":[{"file":":stdout","level":"info"}],"quiet":[{"file":"bench","level":"error"}]}})")) {
        std::fprintf(stderr, "cannot configure the logger\n");
        return 1;
    }
    const int file_channel = kslog_channel_get_by_name("file");
    const int console_channel = kslog_channel_get_by_name("console");
    const int quiet_channel = kslog_channel_get_by_name("quiet");

    // An encrypted block of the sample record: 5 bytes of type and length, then the
    // record padded to the next multiple of 16.
    const size_t block = 5 + (sample_record().size() / 16 + 1) * 16;
    const std::string dir = root + "/var/log";
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
    volatile int sink = 0;
    std::vector<double> files, to_floor, to_writer, to_kept, to_console, suppressed_ns, lock_ns;
    for (int run = 0; run < kRuns; ++run) {
        // The writers take turns in short slices, and each ratio is the median of the
        // slices' ratios: load that comes and goes hits both sides of a ratio alike.
        FloorWriter floor_writer_open(dir, block, false), floor_writer_calls(dir, block, true);
        KeptOpenWriter kept_writer(dir, block);
        LibraryWriter library(file_channel);
        std::vector<double> lib_times, vs_floor, vs_writer, vs_kept;
        for (int slice = 0; slice < kSlices; ++slice) {
            const double t_floor = time_of(kSliceRecords, floor_writer_open);
            const double t_lib = time_of(kSliceRecords, library);
            const double t_kept = time_of(kSliceRecords, kept_writer);
            const double t_writer = time_of(kSliceRecords, floor_writer_calls);
            lib_times.push_back(t_lib);
            vs_floor.push_back(t_floor / t_lib);
            vs_writer.push_back(t_writer / t_lib);
            vs_kept.push_back(t_kept / t_lib);
        }
        const double file = kSliceRecords / median(lib_times);
        const double floor = file / median(vs_floor), floor_writer = file / median(vs_writer),
                     kept_open = file / median(vs_kept);
        double console = 0, lock_pair = 1e9, suppressed = 1e9;
        for (int round = 0; round < kRounds; ++round) {
            const int saved_stdout = ::dup(STDOUT_FILENO);
            const int null_fd = ::open("/dev/null", O_WRONLY);
            ::dup2(null_fd, STDOUT_FILENO);
            LibraryWriter to_console(console_channel);
            console = std::max(console, kRecords / time_of(kRecords, to_console));
            ::dup2(saved_stdout, STDOUT_FILENO);
            ::close(null_fd);
            ::close(saved_stdout);

            lock_pair = std::min(lock_pair, nanoseconds_per(kSuppressed, [&lock](long n) {
                for (long i = 0; i < n; ++i) {
                    pthread_rwlock_rdlock(&lock);
                    asm volatile("" ::: "memory");
                    pthread_rwlock_unlock(&lock);
                }
            }));
            suppressed = std::min(suppressed, nanoseconds_per(kSuppressed, [&sink, quiet_channel](long n) {
                for (long i = 0; i < n; ++i) sink = sink + kslog_can_log(quiet_channel, KSLOG_LEVEL_DEBUG);
            }));
        }
        files.push_back(file);
        to_floor.push_back(file / floor);
        to_writer.push_back(file / floor_writer);
        to_kept.push_back(file / kept_open);
        to_console.push_back(file / console);
        suppressed_ns.push_back(suppressed);
        lock_ns.push_back(lock_pair);
        std::printf("run %d: %7.0f records/s, library/kept-open %.3fx, library/floor %.3fx, suppressed %.1f ns\n",
                    run + 1, file, file / kept_open, file / floor, suppressed);
    }

    std::printf("%d runs, median [min - max]:\n", kRuns);
    print_spread("encrypted file output, records/s", files);
    print_spread("library/floor (open per record)", to_floor);
    print_spread("library/floor + writer's calls", to_writer);
    print_spread("library/kept-open (goal >= 0.95)", to_kept);
    print_spread("file/console (:stdout to /dev/null)", to_console);
    print_spread("suppressed record, ns (goal <= 3)", suppressed_ns);
    print_spread("reader-lock pair, ns", lock_ns);

    kslog_uninit();
    std::system(("rm -rf '" + root + "'").c_str());
    return 0;
}
