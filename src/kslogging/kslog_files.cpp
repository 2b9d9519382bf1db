// Log files: shared file objects, one per base path, that every channel writing there
// holds a handle to. An object carries one mutex (threads of this process) and one lock
// file (other processes); the object, its lock file and its open log file go with the last
// handle. Rotation happens only under the cross-process lock, so processes sharing a file
// rotate it once.
//
// A log file stays open between records, and each record asks stat() under the
// cross-process lock whether the path (its name in its directory) still names it (see
// write_file_record): cheaper than opening it for every record, and deciding as that would.
#include "kslog_tables.h"

#include "kscryptolog_internal.h"
#include <kswrite.h>

#include "kssys.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kslog_detail {
namespace {

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
// The directory is opened again with it (before it: should the directory be replaced in
// between, the next record's check finds the name missing and comes back here).
bool reopen(shared_file& file, struct stat& st) {
    const size_t slash = file.current.rfind('/');
    file.dir_fd.reset(::open(slash == 0 ? "/" : file.current.substr(0, slash).c_str(),
                             O_PATH | O_DIRECTORY | O_CLOEXEC));
    file.current_name = file.current.substr(slash + 1);
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
//  - Which file: stat() of the name in the directory we opened it in (a lookup of one name
//    instead of a walk of the whole path). Our open descriptor keeps its inode alive, so no
//    other file can carry its device and inode numbers; equal numbers mean the name still
//    names our file, otherwise (another process rotated or removed it, or the directory was
//    removed) the path is opened again. (A directory renamed away whole keeps its files
//    receiving records until the next rotation opens the path again.)
//  - The size: from the same stat(), taken under the lock that every writer of the file
//    holds while it writes, so it is the end that lseek would give.
//  - Whose key the file carries: every change to a log file is made under that lock and
//    moves its size (records are appended, a failed write is cut back to where it began,
//    a rotation makes another file), and a header rewritten without a record that follows
//    (its writer was killed, or the record's write failed) never names us. So while the
//    size is where our own last record ended, the file's last key block is ours and our
//    descriptor's position is still the end; only when it is not is the position set and
//    the header read again.
void write_file_record(shared_file& file, const char* record, size_t length) {
    const bool locked = ks::sys::lock_file(file.lock_fd.get(), true) == 1;
    const pid_t self = ks::sys::current_pid();
    if (file.known_by != self || !locked) {
        file.known_by = self;
        file.end = -1;
        file.header_ours = false;
    }
    struct stat st;
    bool ready = file.log_fd && file.dir_fd && ::fstatat(file.dir_fd.get(), file.current_name.c_str(), &st, 0) == 0 &&
                 st.st_dev == file.dev && st.st_ino == file.ino;
    if (!ready) ready = reopen(file, st);
    if (ready && locked && static_cast<uint64_t>(st.st_size) >= file.max_size) {
        rotate(file);
        ready = reopen(file, st);
    }
    if (ready) {
        off_t size = st.st_size;
        if (size != file.end) {
            file.header_ours = false;
            // A header cut short (its writer was killed while starting the file) would make
            // every writer refuse the file until it rotated, which it never would: start over.
            if (size > 0 && size < CRYPTO_LOG_HEADER_SIZE && locked && ::ftruncate(file.log_fd.get(), 0) == 0)
                size = 0;
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

}  // namespace

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

}  // namespace kslog_detail
