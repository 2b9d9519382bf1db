// The log core: a process-wide table of named channels, each fanning a record out to at
// most eight outputs (standard output, standard error or an encrypted rotating file).
//
// File outputs are shared objects: every channel writing to the same base path holds a
// handle to one object with one mutex (threads of this process) and one lock file (other
// processes); the object, its lock file and its open log file go with the last handle.
// One reader-writer lock guards the tables; configuration takes it for writing, a record
// for reading. The lock is never destroyed, so a thread that races with the last
// kslog_uninit finds empty tables rather than a dead lock.
//
// Two cheaper mechanisms stand in for the obvious ones on the record path, each deciding
// exactly as the obvious one would:
//  - A log file stays open between records, and each record asks stat() under the
//    cross-process lock whether the path still names it (see write_file_record).
//  - Whether a record passes a channel's level is read from a per-channel snapshot of the
//    maximum level, without the table lock (see publish_levels).
#include "kslog_core.h"

#include <kscryptolog.h>
#include "kscryptolog_internal.h"
#include <ksfork.h>
#include <kspath.h>
#include <kswrite.h>
#include <ksutils/unique_fd.h>

#include "kssys.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

namespace kslog_detail {
namespace {

struct shared_file {
    explicit shared_file(const std::string& path) : base(path) {}
    ~shared_file() { pthread_mutex_destroy(&mutex); }
    shared_file(const shared_file&) = delete;
    shared_file& operator=(const shared_file&) = delete;

    std::string base;     // ":stdout", ":stderr" or a file path ending with '.'
    std::string current;  // base followed by "0"
    uint64_t max_size = kMaxLogSize;
    uint64_t num_files = kMaxNumLogs;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    ks::unique_fd lock_fd;
    int console_fd = -1;  // 1 or 2 for console outputs

    // The current log file, kept open between records, and what is known of it. The
    // knowledge belongs to the process that gathered it: a forked child shares the
    // descriptor but not the header's process id, and starts over.
    ks::unique_fd log_fd;
    dev_t dev = 0;
    ino_t ino = 0;
    pid_t known_by = 0;
    off_t end = -1;            // where our last record ended; -1 unknown
    bool header_ours = false;  // the header names this process (valid while end is the size)
};

using file_handle = std::shared_ptr<shared_file>;

struct output {
    std::string spec;
    int level = KSLOG_LEVEL_ERROR;
    file_handle file;
};

struct channel {
    char name[kMaxChannelName + 1] = {};
    bool in_use = false;
    bool enabled = false;
    int max_level = KSLOG_LEVEL_ERROR;
    int num_outputs = 0;
    output outputs[kMaxOutputs];
};

struct core_state {
    char identity[kMaxIdentity + 1] = {};
    char install_path[kPathBuffer] = {};
    uint64_t max_size = 0;
    uint64_t max_num = 0;
    std::string size_source;
    std::string num_source;
    channel channels[kMaxChannels];
    int num_channels = 0;
    // Every live file object, for sharing by base path; the outputs own them.
    std::vector<std::weak_ptr<shared_file>> files;
    crypto_log_writer* writer = nullptr;
};

core_state g_state;
std::atomic<int> g_init_count{0};
// Each channel's maximum level plus one, 0 when it writes nothing (closed, not in use,
// beyond the table, core not initialised). Stored only by a writer of the table, just
// before it lets go of the lock.
std::atomic<int> g_levels[kMaxChannels];
pthread_mutex_t g_init_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_rwlock_t g_table_lock = PTHREAD_RWLOCK_INITIALIZER;

constexpr const char* kLevelLogStr[] = {"error", "warn", "info", "debug", "trace"};
constexpr const char* kLevelUserStr[] = {"error", "warning", "info", "debug", "trace"};
constexpr char kTruncatedMarker[] = "[TRUNCATED]\n";

class read_guard {
public:
    read_guard() { pthread_rwlock_rdlock(&g_table_lock); }
    ~read_guard() { pthread_rwlock_unlock(&g_table_lock); }
    read_guard(const read_guard&) = delete;
    read_guard& operator=(const read_guard&) = delete;
};

// Why the snapshot decides as the read-locked check would: the read-locked check sees the
// table as the last writer left it at its unlock. Every writer stores the snapshot of every
// channel before that unlock, so a check that begins after a writer's unlock sees that
// writer's values, and a check that overlaps a writer sees the values from before or after
// it, which are the two answers the locked check could give depending on who took the
// lock first. A writer's half-done changes are never stored. A record that passes the
// snapshot is checked once more under the read lock before it is written.
void publish_levels() {
    for (int ch = 0; ch < kMaxChannels; ++ch) {
        const channel& c = g_state.channels[ch];
        const int value = ch < g_state.num_channels && c.enabled ? c.max_level + 1 : 0;
        g_levels[ch].store(value, std::memory_order_release);
    }
}

class write_guard {
public:
    write_guard() { pthread_rwlock_wrlock(&g_table_lock); }
    ~write_guard() {
        publish_levels();
        pthread_rwlock_unlock(&g_table_lock);
    }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;
};

class mutex_guard {
public:
    explicit mutex_guard(pthread_mutex_t& m) : m_(m) { pthread_mutex_lock(&m_); }
    ~mutex_guard() { pthread_mutex_unlock(&m_); }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

private:
    pthread_mutex_t& m_;
};

bool initialized() { return g_init_count.load(std::memory_order_acquire) > 0; }

// Valid index of a configured table (caller holds the lock).
bool valid_channel(int ch) { return ch >= 0 && ch < g_state.num_channels; }

bool can_log_locked(int ch, int level) {
    if (!valid_channel(ch)) return false;
    const channel& c = g_state.channels[ch];
    return c.enabled && level <= c.max_level;
}

uint64_t clamp_size(uint64_t size) { return std::min(std::max(size, kMinLogSize), g_state.max_size); }
uint64_t clamp_num(uint64_t num) { return std::min(std::max(num, kMinNumLogs), g_state.max_num); }

// Creates every directory on the way to the last '/' of `path`.
bool make_parent_dirs(const std::string& path) {
    const size_t last = path.rfind('/');
    if (last == std::string::npos || last == 0) return true;
    std::string dir;
    dir.reserve(last);
    for (size_t i = 0; i <= last; ++i) {
        if (path[i] == '/' && !dir.empty() && dir.back() != '/') {
            if (::mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) return false;
        }
        dir.push_back(path[i]);
    }
    return true;
}

file_handle find_file(const std::string& base) {
    for (const auto& entry : g_state.files) {
        file_handle file = entry.lock();
        if (file && file->base == base) return file;
    }
    return nullptr;
}

// A new file object; null when kMaxFiles objects are alive or its directories or lock
// file cannot be made.
file_handle create_file(const std::string& base) {
    auto& files = g_state.files;
    files.erase(std::remove_if(files.begin(), files.end(), [](const auto& f) { return f.expired(); }), files.end());
    if (files.size() >= static_cast<size_t>(kMaxFiles)) return nullptr;
    auto file = std::make_shared<shared_file>(base);
    file->max_size = g_state.max_size;
    file->num_files = g_state.max_num;
    if (base == ":stdout" || base == ":stderr") {
        file->console_fd = base == ":stdout" ? STDOUT_FILENO : STDERR_FILENO;
    } else {
        file->current = base + "0";
        const std::string lock_path = base + "lock";
        if (base[0] != '/' || !make_parent_dirs(base)) return nullptr;
        file->lock_fd.reset(::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!file->lock_fd) return nullptr;
    }
    files.push_back(file);
    return file;
}

void update_max_level(channel& c) {
    int level = KSLOG_LEVEL_ERROR;
    for (int i = 0; i < c.num_outputs; ++i) level = std::max(level, c.outputs[i].level);
    c.max_level = level;
}

void release_outputs(channel& c) {
    for (int i = 0; i < c.num_outputs; ++i) c.outputs[i] = output{};
    c.num_outputs = 0;
}

// Adds (or updates, when the channel already writes to the same base path) one output.
// A size or number of 0 means "not given".
int add_output(int ch, const char* spec, int level, uint64_t size, uint64_t num) {
    if (!valid_channel(ch) || !g_state.channels[ch].in_use) return -1;
    std::string base;
    if (!resolve_output(spec, g_state.identity, g_state.install_path, base)) return -1;
    channel& c = g_state.channels[ch];
    output* existing = nullptr;
    for (int i = 0; i < c.num_outputs; ++i)
        if (c.outputs[i].file && c.outputs[i].file->base == base) existing = &c.outputs[i];
    file_handle file = existing ? existing->file : find_file(base);
    if (!existing) {
        if (c.num_outputs >= kMaxOutputs) return -1;
        const bool created = file == nullptr;
        if (created && !(file = create_file(base))) return -1;
        if (created) {
            file->max_size = clamp_size(size ? size : g_state.max_size);
            file->num_files = clamp_num(num ? num : g_state.max_num);
        }
        existing = &c.outputs[c.num_outputs++];
        existing->file = file;
    }
    // Re-clamped even when not given, so that lowered global limits reach old objects.
    file->max_size = clamp_size(size ? size : file->max_size);
    file->num_files = clamp_num(num ? num : file->num_files);
    existing->spec = spec;
    existing->level = level;
    update_max_level(c);
    return 0;
}

int find_channel(const char* name) {
    for (int i = 0; i < g_state.num_channels; ++i)
        if (std::strcmp(g_state.channels[i].name, name) == 0) return i;
    return -1;
}

// Appends an empty channel, in use and enabled; -1 when the table is full.
int append_channel(const char* name) {
    if (g_state.num_channels >= kMaxChannels) return -1;
    const int ch = g_state.num_channels++;
    channel& c = g_state.channels[ch];
    c = channel{};
    std::snprintf(c.name, sizeof c.name, "%s", name);
    c.in_use = true;
    c.enabled = true;
    return ch;
}

void copy_outputs(channel& dst, const channel& src) {
    release_outputs(dst);
    for (int i = 0; i < src.num_outputs; ++i) dst.outputs[i] = src.outputs[i];
    dst.num_outputs = src.num_outputs;
    dst.max_level = src.max_level;
}

void clear_tables() {
    for (int i = 0; i < g_state.num_channels; ++i) {
        release_outputs(g_state.channels[i]);
        g_state.channels[i] = channel{};
    }
    g_state.num_channels = 0;
    g_state.files.clear();
}

// The date-time text of the second `now`, cached per thread: localtime_r takes a global
// lock inside the C library, and most records of a thread share their second.
const char* datetime_text(time_t now) {
    thread_local time_t cached_second = -1;
    thread_local char cached_text[32] = "0000-00-00 00:00:00";
    if (now != cached_second) {
        struct tm parts;
        if (localtime_r(&now, &parts) && std::strftime(cached_text, sizeof cached_text, "%F %T", &parts) == 19)
            cached_second = now;
        else
            std::snprintf(cached_text, sizeof cached_text, "%s", "0000-00-00 00:00:00");
    }
    return cached_text;
}

// Overwrites the 37-character template at the start of `buffer` with
// "%19s.%03d %6d %5s" (date-time, milliseconds, process id, level word) and a space;
// false when the stamped header would not fit (a process id of seven digits or more).
// Built from pieces cached per thread rather than with snprintf: this runs for every
// record.
bool stamp_header(char* buffer, int level) {
    thread_local pid_t cached_pid = 0;
    thread_local char pid_text[16];
    thread_local int pid_length = 0;
    const pid_t pid = ks::sys::current_pid();
    if (pid != cached_pid) {
        pid_length = std::snprintf(pid_text, sizeof pid_text, "%6d", static_cast<int>(pid));
        cached_pid = pid;
    }
    if (pid_length != 6) return false;

    struct timeval tv;
    const char* when = "0000-00-00 00:00:00";
    int millis = 0;
    if (::gettimeofday(&tv, nullptr) == 0) {
        when = datetime_text(tv.tv_sec);
        millis = static_cast<int>(tv.tv_usec / 1000);
    }
    static constexpr const char* kLevelWord[] = {"error", " warn", " info", "debug", "trace"};
    char* p = buffer;
    std::memcpy(p, when, 19);
    p[19] = '.';
    p[20] = static_cast<char>('0' + millis / 100);
    p[21] = static_cast<char>('0' + millis / 10 % 10);
    p[22] = static_cast<char>('0' + millis % 10);
    p[23] = ' ';
    std::memcpy(p + 24, pid_text, 6);
    p[30] = ' ';
    std::memcpy(p + 31, kLevelWord[level], 5);
    p[36] = ' ';
    return true;
}


// B(N-1) is deleted, then B(i-1) becomes B(i) from the oldest down.
void rotate(const shared_file& file) {
    char from[kPathBuffer];
    char to[kPathBuffer];
    const size_t n = static_cast<size_t>(file.num_files);
    const char* base = file.base.c_str();
    if (static_cast<size_t>(std::snprintf(to, sizeof to, "%s%zu", base, n - 1)) >= sizeof to) return;
    ::unlink(to);
    for (size_t i = n - 1; i >= 1; --i) {
        if (static_cast<size_t>(std::snprintf(from, sizeof from, "%s%zu", base, i - 1)) >= sizeof from) return;
        if (static_cast<size_t>(std::snprintf(to, sizeof to, "%s%zu", base, i)) >= sizeof to) return;
        ::rename(from, to);
    }
}

// Opens the path's current file and learns which file it is; false when it cannot be opened.
bool reopen(shared_file& file, struct stat& st) {
    file.log_fd.reset(::open(file.current.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    file.end = -1;
    file.header_ours = false;
    if (file.log_fd && ::fstat(file.log_fd.get(), &st) == 0) {
        file.dev = st.st_dev;
        file.ino = st.st_ino;
        return true;
    }
    file.log_fd.reset();
    return false;
}

// One record into one log file, under the file's mutex and the cross-process lock.
//
// The file stays open between records; what a fresh open(), lseek(SEEK_END) and read of the
// header would learn is learnt more cheaply, with the same answers:
//  - Which file: stat() of the path. Our open descriptor keeps its inode alive, so no other
//    file can carry its device and inode numbers; equal numbers mean the path still names
//    our file, otherwise (another process rotated or removed it) the path is opened again.
//  - The size: from the same stat(), taken under the lock that every writer of the file
//    holds while it writes, so it is the end that lseek would give.
//  - Whose key the file carries: every change to a log file is made under that lock and
//    moves its size (records are appended, a failed write is cut back to where it began,
//    a rotation makes another file), and a header is only rewritten together with a
//    record. So while the size is where our own last record ended, the header is as we
//    left it and our descriptor's position is still the end; only when it is not is the
//    position set and the header read again.
void write_file_record(shared_file& file, const char* record, size_t length) {
    const bool locked = ks::sys::lock_file(file.lock_fd.get(), true) == 1;
    const pid_t self = ks::sys::current_pid();
    if (file.known_by != self || !locked) {
        file.known_by = self;
        file.end = -1;
        file.header_ours = false;
    }
    struct stat st;
    bool ready = file.log_fd && ::stat(file.current.c_str(), &st) == 0 && st.st_dev == file.dev &&
                 st.st_ino == file.ino;
    if (!ready) ready = reopen(file, st);
    if (ready && locked && static_cast<uint64_t>(st.st_size) >= file.max_size) {
        rotate(file);
        ready = reopen(file, st);
    }
    if (ready) {
        off_t size = st.st_size;
        if (size != file.end) {
            file.header_ours = false;
            ready = ::lseek(file.log_fd.get(), size, SEEK_SET) == size;
            // The header writer restores the position it found; records go after it.
            if (ready && size == 0 && crypto_log_layout_write_header(file.log_fd.get()) == 0)
                size = ::lseek(file.log_fd.get(), 0, SEEK_END);
        }
        ssize_t appended = -1;
        if (ready && g_state.writer)
            appended = crypto_log_writer_encrypt_at(g_state.writer, file.log_fd.get(), record, length, size,
                                                    &file.header_ours);
        file.end = appended >= 0 && locked ? size + appended : -1;
    }
    if (locked) ks::sys::unlock_file(file.lock_fd.get());
}

void emit(const channel& c, int level, const char* record, size_t length) {
    for (int i = 0; i < c.num_outputs; ++i) {
        const output& out = c.outputs[i];
        if (level > out.level || !out.file) continue;
        shared_file& file = *out.file;
        mutex_guard guard(file.mutex);
        if (file.console_fd >= 0)
            write_all(file.console_fd, record, length, 0);
        else
            write_file_record(file, record, length);
    }
}

// In a child forked while another thread held one of the core's locks, that lock would
// never be released: give the child fresh ones.
void reinit_locks_in_child() {
    if (!initialized()) return;
    pthread_rwlock_init(&g_table_lock, nullptr);
    pthread_mutex_init(&g_init_mutex, nullptr);
    for (const auto& entry : g_state.files)
        if (file_handle file = entry.lock()) pthread_mutex_init(&file->mutex, nullptr);
}

void fail_init() {
    {
        write_guard guard;
        clear_tables();
        if (g_state.writer) crypto_log_writer_free(g_state.writer);
        g_state.writer = nullptr;
        g_state.identity[0] = '\0';
        g_state.install_path[0] = '\0';
        g_state.max_size = g_state.max_num = 0;
        g_state.size_source.clear();
        g_state.num_source.clear();
    }
    write_all(STDERR_FILENO, "Failed to initialize kslog\n", 27, 0);
}

}  // namespace

bool resolve_output(const char* spec, const char* identity, const char* install_path, std::string& base) {
    if (spec == nullptr || *spec == '\0') return false;
    char buffer[kPathBuffer];
    int n;
    if (spec[0] == ':') {
        if (std::strcmp(spec, ":stdout") != 0 && std::strcmp(spec, ":stderr") != 0) return false;
        n = std::snprintf(buffer, sizeof buffer, "%s", spec);
    } else if (spec[0] == '/') {
        n = std::snprintf(buffer, sizeof buffer, "%s.", spec);
    } else if (std::strchr(spec, '/')) {
        n = std::snprintf(buffer, sizeof buffer, "%s/%s.", install_path, spec);
    } else {
        n = std::snprintf(buffer, sizeof buffer, "%s/%s/%s.%s.", install_path, "var/log", identity, spec);
    }
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer) return false;
    if (buffer[0] != '/' && buffer[0] != ':') return false;
    base.assign(buffer, static_cast<size_t>(n));
    return true;
}

int apply_plan(const update_plan& plan, std::string& error) {
    if (!initialized()) {
        error = "The log core is not initialised.";
        return -1;
    }
    write_guard guard;
    int new_channels = 0;
    for (const planned_channel& pc : plan.channels)
        if (find_channel(pc.name.c_str()) < 0) ++new_channels;
    if (g_state.num_channels + new_channels > kMaxChannels) {
        error = "Too many channels in log config: " + std::to_string(g_state.num_channels + new_channels) + " / " +
                std::to_string(kMaxChannels);
        return -1;
    }
    // Phase one: pin a file object for every output, creating directories and lock
    // files, before any channel changes.
    std::vector<file_handle> pinned;
    for (const planned_channel& pc : plan.channels) {
        for (const planned_output& po : pc.outputs) {
            std::string base;
            file_handle file;
            if (resolve_output(po.spec.c_str(), g_state.identity, g_state.install_path, base))
                file = find_file(base);
            if (!file && !base.empty()) file = create_file(base);
            if (!file) {
                error = "Cannot open output '" + po.spec + "' of channel '" + pc.name + "'.";
                return -1;
            }
            pinned.push_back(std::move(file));
        }
    }
    // Phase two: nothing below can fail for want of a file object.
    if (plan.size) {
        g_state.max_size = plan.size;
        g_state.size_source = plan.source;
    }
    if (plan.num) {
        g_state.max_num = plan.num;
        g_state.num_source = plan.source;
    }
    for (const planned_channel& pc : plan.channels) {
        int ch = find_channel(pc.name.c_str());
        if (ch < 0) ch = append_channel(pc.name.c_str());
        channel& c = g_state.channels[ch];
        c.in_use = true;
        release_outputs(c);
        for (const planned_output& po : pc.outputs) add_output(ch, po.spec.c_str(), po.level, po.size, po.num);
        update_max_level(c);
    }
    return 0;
}

const char* identity() { return g_state.identity; }
const char* install_path() { return g_state.install_path; }

void global_settings(uint64_t& size, std::string& size_source, uint64_t& num, std::string& num_source) {
    read_guard guard;
    size = g_state.max_size;
    size_source = g_state.size_source;
    num = g_state.max_num;
    num_source = g_state.num_source;
}

void core_log(int level, const char* file, int line, const char* function, const char* format, ...) {
    if (!kslog_can_log(0, level)) return;
    const char* base = std::strrchr(file, '/');
    base = base ? base + 1 : file;
    char buffer[kPathBuffer];
    int n = std::snprintf(buffer, sizeof buffer, KSLOG_HEADER_TEMPLATE "[%s:%d][%s()]: ", base, line, function);
    if (n < 0 || static_cast<size_t>(n) >= sizeof buffer) return;
    va_list args;
    va_start(args, format);
    const int m = std::vsnprintf(buffer + n, sizeof buffer - static_cast<size_t>(n), format, args);
    va_end(args);
    if (m < 0) return;
    size_t length = static_cast<size_t>(n) + static_cast<size_t>(m);
    if (length + 1 < sizeof buffer) buffer[length] = '\n';
    ++length;
    kslog_log_full(0, level, buffer, length);
}

}  // namespace kslog_detail

using namespace kslog_detail;

extern "C" {

int kslog_init(const char* executable_path, const char* install_path, const char* startup_config) {
    {
        mutex_guard init_guard(g_init_mutex);
        if (initialized()) {
            g_init_count.fetch_add(1, std::memory_order_acq_rel);
            return 0;
        }
        const char* id = kslog_identity(executable_path);
        if (!install_path) install_path = kspath_default_install_path();
        if (!id || !install_path || std::strlen(install_path) >= kPathBuffer) {
            fail_init();
            return -1;
        }
        const startup_limits limits = read_startup_limits(startup_config, id, install_path);
        char key_path[kPathBuffer];
        bool ok = std::snprintf(key_path, sizeof key_path, "%s/%s/%s", install_path, "etc", "logs-pub.pem") <
                  static_cast<int>(sizeof key_path);
        {
            write_guard guard;
            std::snprintf(g_state.identity, sizeof g_state.identity, "%s", id);
            std::snprintf(g_state.install_path, sizeof g_state.install_path, "%s", install_path);
            g_state.max_size = limits.size ? limits.size : kMaxLogSize;
            g_state.size_source = limits.size ? limits.size_source : kBuiltInSource;
            g_state.max_num = limits.num ? limits.num : kMaxNumLogs;
            g_state.num_source = limits.num ? limits.num_source : kBuiltInSource;
            const int ch = append_channel("default");
            char default_output[kPathBuffer];
            ok = ok && ch == 0 &&
                 std::snprintf(default_output, sizeof default_output, "%s/%s/%s", install_path, "var/log", id) <
                     static_cast<int>(sizeof default_output) &&
                 add_output(0, default_output, KSLOG_LEVEL_ERROR, g_state.max_size, g_state.max_num) == 0;
            if (ok) ok = (g_state.writer = crypto_log_writer_new(key_path)) != nullptr;
        }
        if (!ok) {
            fail_init();
            return -1;
        }
        g_init_count.fetch_add(1, std::memory_order_acq_rel);
    }
    // Outside the init mutex: the start-up documents log, and a second init from a log
    // statement's path must not deadlock.
    apply_startup_config(startup_config);
    kslog_print_settings();
    kslib_atfork(reinit_locks_in_child);
    return 0;
}

void kslog_uninit(void) {
    mutex_guard init_guard(g_init_mutex);
    if (!initialized()) return;
    if (g_init_count.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    write_guard guard;
    if (g_state.writer) crypto_log_writer_free(g_state.writer);
    g_state.writer = nullptr;
    g_state.size_source.clear();
    g_state.num_source.clear();
    g_state.max_size = g_state.max_num = 0;
    clear_tables();
    g_state.identity[0] = '\0';
    g_state.install_path[0] = '\0';
}

int kslog_initialized(void) { return initialized() ? 1 : 0; }

const char* kslog_identity(const char* path) {
    if (!path) return nullptr;
    const char* slash = std::strrchr(path, '/');
    const char* id = slash ? slash + 1 : path;
    const size_t len = std::strlen(id);
    if (len == 0 || len > kMaxIdentity) return nullptr;
    return id;
}

int kslog_channel_open(const char* name) {
    if (!initialized()) return -1;
    if (!name || *name == '\0' || std::strlen(name) > kMaxChannelName) return 0;
    write_guard guard;
    if (g_state.num_channels == 0) return -1;
    int ch = find_channel(name);
    if (ch >= 0) {
        g_state.channels[ch].enabled = true;
        return ch;
    }
    ch = append_channel(name);
    if (ch < 0) return 0;
    copy_outputs(g_state.channels[ch], g_state.channels[0]);
    return ch;
}

void kslog_channel_close(int ch) {
    if (!initialized() || ch <= 0) return;
    write_guard guard;
    if (valid_channel(ch)) g_state.channels[ch].enabled = false;
}

int kslog_channel_copy(int dst, int src) {
    if (!initialized() || dst < 0 || dst == src) return -1;
    write_guard guard;
    if (!valid_channel(dst) || !valid_channel(src) || !g_state.channels[dst].enabled) return -1;
    channel& d = g_state.channels[dst];
    copy_outputs(d, g_state.channels[src]);
    d.in_use = true;
    return 0;
}

int kslog_get_num_channels(void) {
    if (!initialized()) return 0;
    read_guard guard;
    return g_state.num_channels;
}

int kslog_channel_get_by_name(const char* name) {
    if (!name || !initialized()) return -1;
    read_guard guard;
    return find_channel(name);
}

int kslog_can_log(int ch, int level) {
    if (ch < 0 || ch >= kMaxChannels) return 0;
    const int limit = g_levels[ch].load(std::memory_order_acquire);
    return limit > 0 && level < limit ? 1 : 0;
}

int kschlog_get_max_level(int ch) {
    if (!initialized()) return 0;
    read_guard guard;
    return valid_channel(ch) ? g_state.channels[ch].max_level : 0;
}

uint64_t kslog_get_max_log_size(void) {
    if (!initialized()) return kMaxLogSize;
    read_guard guard;
    return g_state.max_size;
}

uint64_t kslog_get_max_num_logs(void) {
    if (!initialized()) return kMaxNumLogs;
    read_guard guard;
    return g_state.max_num;
}

void kslog_log_full(int ch, int level, char* buffer, size_t length) {
    if (!buffer || length < KSLOG_HEADER_SIZE || !initialized()) return;
    if (level < KSLOG_LEVEL_ERROR || level > KSLOG_LEVEL_TRACE || !kslog_can_log(ch, level)) return;
    read_guard guard;
    if (!can_log_locked(ch, level)) return;
    if (!stamp_header(buffer, level)) return;
    if (length > KSLOG_MAX_RECORD) {
        length = KSLOG_MAX_RECORD;
        std::memcpy(buffer + KSLOG_MAX_RECORD - (sizeof kTruncatedMarker - 1), kTruncatedMarker,
                    sizeof kTruncatedMarker - 1);
        buffer[KSLOG_MAX_RECORD] = '\0';
    }
    emit(g_state.channels[ch], level, buffer, length);
}

json_t* kslog_get_config(void) {
    json_t* config = json_object();
    json_t* channels = json_object();
    json_t* global = json_object();
    if (!config || !channels || !global) {
        json_decref(config);
        json_decref(channels);
        json_decref(global);
        return nullptr;
    }
    json_object_set_new(config, "action", json_string("update"));
    json_object_set_new(config, "global", global);
    json_object_set_new(config, "channels", channels);
    if (!initialized()) {
        json_object_set_new(global, "size", json_integer(static_cast<json_int_t>(kMaxLogSize)));
        json_object_set_new(global, "num", json_integer(static_cast<json_int_t>(kMaxNumLogs)));
        return config;
    }
    read_guard guard;
    json_object_set_new(global, "size", json_integer(static_cast<json_int_t>(g_state.max_size)));
    json_object_set_new(global, "num", json_integer(static_cast<json_int_t>(g_state.max_num)));
    for (int ch = 0; ch < g_state.num_channels; ++ch) {
        const channel& c = g_state.channels[ch];
        if (!c.in_use) continue;
        json_t* outputs = json_array();
        for (int i = 0; i < c.num_outputs; ++i) {
            const output& out = c.outputs[i];
            json_t* entry = json_object();
            json_object_set_new(entry, "file", json_string(out.spec.c_str()));
            json_object_set_new(entry, "level", json_string(kLevelUserStr[out.level]));
            json_object_set_new(entry, "size", json_integer(static_cast<json_int_t>(out.file->max_size)));
            json_object_set_new(entry, "num", json_integer(static_cast<json_int_t>(out.file->num_files)));
            json_array_append_new(outputs, entry);
        }
        json_object_set_new(channels, c.name, outputs);
    }
    return config;
}

const char* kslog_lvl_to_logstr(int level) { return kLevelLogStr[level]; }
const char* kslog_lvl_to_userstr(int level) { return kLevelUserStr[level]; }

int kslog_logstr_to_lvl(const char* text) {
    for (int i = 0; text && i <= KSLOG_LEVEL_TRACE; ++i)
        if (std::strcmp(text, kLevelLogStr[i]) == 0) return i;
    return KSLOG_LEVEL_ERROR;
}

int kslog_userstr_to_lvl(const char* text) {
    for (int i = 0; text && i <= KSLOG_LEVEL_TRACE; ++i)
        if (std::strcmp(text, kLevelUserStr[i]) == 0) return i;
    return KSLOG_LEVEL_ERROR;
}

}  // extern "C"
