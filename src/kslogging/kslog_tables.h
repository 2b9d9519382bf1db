// The log core's tables as its own source files share them: channels, shared file objects,
// the process-wide state and the locks that guard it. The configuration parser does not
// include this; it reaches the tables only through kslog_core.h, so every change it makes
// goes through the two-phase apply_plan.
//
// One reader-writer lock guards the tables; configuration takes it for writing, a record
// for reading. Lock order: the table lock, then a file object's mutex, then that file's
// cross-process lock.
#pragma once

#include "kslog_core.h"

#include <kscryptolog.h>
#include <ksutils/unique_fd.h>

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kslog_detail {

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
    // The directory the current file was opened in, and the file's name in it: the check
    // of every record looks the name up from there instead of walking the whole path.
    ks::unique_fd dir_fd;
    std::string current_name;
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

extern core_state g_state;
extern std::atomic<int> g_init_count;
extern pthread_rwlock_t g_table_lock;

// Stores every channel's level snapshot from the table; called by each writer of the
// table just before it lets go of the lock.
void publish_levels();

class read_guard {
public:
    read_guard() { pthread_rwlock_rdlock(&g_table_lock); }
    ~read_guard() { pthread_rwlock_unlock(&g_table_lock); }
    read_guard(const read_guard&) = delete;
    read_guard& operator=(const read_guard&) = delete;
};

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

inline bool initialized() { return g_init_count.load(std::memory_order_acquire) > 0; }

// Valid index of a configured table (caller holds the lock).
inline bool valid_channel(int ch) { return ch >= 0 && ch < g_state.num_channels; }

// The channel table (kslog_channels.cpp); the caller holds the table lock.
bool can_log_locked(int ch, int level);
void update_max_level(channel& c);
void release_outputs(channel& c);
int find_channel(const char* name);
int append_channel(const char* name);
void copy_outputs(channel& dst, const channel& src);
void clear_tables();

// Shared file objects and the record path to them (kslog_files.cpp).
file_handle find_file(const std::string& base);
file_handle create_file(const std::string& base);
void emit(const channel& c, int level, const char* record, size_t length);

// Configuration of a channel (kslog_configure.cpp); the caller holds the write lock.
int add_output(int ch, const char* spec, int level, uint64_t size, uint64_t num);

}  // namespace kslog_detail
