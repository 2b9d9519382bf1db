// The log core's C interface: a process-wide table of named channels, each fanning a
// record out to at most eight outputs (standard output, standard error or an encrypted
// rotating file). This file holds the life cycle (reference-counted start-up and
// tear-down, fresh locks in a forked child), the record path from the caller's buffer to
// the outputs, and the level names. The tables live in kslog_channels.cpp, the log files
// in kslog_files.cpp, and what configuration does to the tables in kslog_configure.cpp.
//
// Every log statement asks kslog_can_log before it formats anything, so only records
// that some output wants reach kslog_log_full, which checks again under the read lock,
// stamps the header into the template the caller's format began with, and hands the
// record to the channel's outputs.
#include "kslog_tables.h"

#include <ksfork.h>
#include <kspath.h>
#include <kswrite.h>

#include "kssys.h"

#include <pthread.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kslog_detail {

std::atomic<int> g_init_count{0};

namespace {

pthread_mutex_t g_init_mutex = PTHREAD_MUTEX_INITIALIZER;

constexpr const char* kLevelLogStr[] = {"error", "warn", "info", "debug", "trace"};
constexpr const char* kLevelUserStr[] = {"error", "warning", "info", "debug", "trace"};
constexpr char kTruncatedMarker[] = "[TRUNCATED]\n";

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

// In a child forked while another thread held one of the core's locks, that lock would
// never be released: give the child fresh ones.
void reinit_locks_in_child() {
    // The init mutex first, whatever the state: a fork while another thread was inside
    // kslog_init or the last kslog_uninit would otherwise leave the child's next init stuck.
    pthread_mutex_init(&g_init_mutex, nullptr);
    pthread_rwlock_init(&g_table_lock, nullptr);
    if (!initialized()) return;
    for (const auto& entry : g_state.files)
        if (file_handle file = entry.lock()) pthread_mutex_init(&file->mutex, nullptr);
}

// Back to the state before the first init; the caller holds the table lock for writing.
void reset_state() {
    clear_tables();
    if (g_state.writer) crypto_log_writer_free(g_state.writer);
    g_state.writer = nullptr;
    g_state.identity[0] = '\0';
    g_state.install_path[0] = '\0';
    g_state.max_size = g_state.max_num = 0;
    g_state.size_source.clear();
    g_state.num_source.clear();
}

void fail_init() {
    {
        write_guard guard;
        reset_state();
    }
    write_all(STDERR_FILENO, "Failed to initialize kslog\n", 27, 0);
}

}  // namespace

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
    reset_state();
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
