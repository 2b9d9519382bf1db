/// @file
/// File and memory streams.
///
/// basic_memstream is the growable text buffer behind the error record and ks::path: it
/// rewinds instead of reallocating, so a thread that keeps building short texts stops
/// allocating after the first few. basic_fstream is a standard iostream over a descriptor
/// with whole-file advisory locks, and basic_memorymap_base maps part of such a file.
#pragma once

#include <ksexport.h>
#include <ksutils/string_view.h>

#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <sys/types.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <streambuf>
#include <vector>

namespace ks {

/// Output buffer over a byte vector. The put area always ends one byte before the
/// vector's end, so the written text can be NUL-terminated in place at any time.
class KS_EXPORT basic_membuf : public std::basic_streambuf<char> {
public:
    /// An empty buffer with room for `step` bytes, growing in steps of `step` bytes.
    explicit basic_membuf(size_t step = 128);
    /// A copy of the contents and the step.
    basic_membuf(const basic_membuf& other);
    /// Replaces the contents and the step with copies of those of `other`.
    basic_membuf& operator=(const basic_membuf& other);

    /// Empties the buffer; the storage is kept.
    void reset() noexcept { setp(pbase(), epptr()); }
    /// The number of bytes written.
    size_t size() const noexcept { return static_cast<size_t>(pptr() - pbase()); }
    /// The number of bytes that fit before the storage grows.
    size_t capacity() const noexcept { return storage_.size() - 1; }
    /// The bytes written (not NUL-terminated).
    const char* data() const noexcept { return pbase(); }
    /// The bytes written, NUL-terminated in place.
    const char* c_str() const noexcept {
        *pptr() = '\0';
        return pbase();
    }
    /// The bytes written.
    ks::string_view view() const noexcept { return ks::string_view(pbase(), size()); }

protected:
    /// Grows the storage and stores `ch`.
    int_type overflow(int_type ch) override;
    /// Stores `n` bytes, growing the storage as needed.
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    /// Moves the put position within the bytes written (output only).
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
    /// Moves the put position within the bytes written (output only).
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;

private:
    void grow_to(size_t new_end);

    std::vector<char> storage_;
    size_t step_;
};

/// An output stream into a basic_membuf: a growable text buffer that rewinds instead of
/// reallocating.
class KS_EXPORT basic_memstream : public std::ostream {
public:
    /// An empty stream whose buffer grows in steps of `step` bytes.
    explicit basic_memstream(size_t step = 128);
    /// A copy of the contents.
    basic_memstream(const basic_memstream& other);
    /// Replaces the contents with a copy of those of `other`.
    basic_memstream& operator=(const basic_memstream& other);

    /// Rewinds the put position and clears the stream state; storage is kept.
    void reset() noexcept {
        buf_.reset();
        clear();
    }
    /// Appends `text` without formatting.
    void write_text(ks::string_view text) { buf_.sputn(text.data(), static_cast<std::streamsize>(text.size())); }

    /// The number of bytes written.
    size_t size() const noexcept { return buf_.size(); }
    /// True when nothing is written.
    bool empty() const noexcept { return buf_.size() == 0; }
    /// The number of bytes that fit before the storage grows.
    size_t capacity() const noexcept { return buf_.capacity(); }
    /// The text, NUL-terminated.
    const char* c_str() const noexcept { return buf_.c_str(); }
    /// The text.
    ks::string_view view() const noexcept { return buf_.view(); }
    /// A copy of the text.
    std::string str() const { return std::string(buf_.view()); }
    /// The stream's buffer.
    basic_membuf* membuf() noexcept { return &buf_; }

    /// Appends the whole file (after emptying the stream when `reset`). A read error part-way
    /// is taken as end of file. Fails with E_SYSTEM when the file cannot be opened.
    bool read_file(ks::string_view path, bool reset);

private:
    basic_membuf buf_;
};

namespace detail {
// C-style mode text ("r", "w+", "ab", ...) to a standard open mode.
KS_EXPORT std::ios_base::openmode translate_mode(ks::string_view mode) noexcept;
// open(2) flags to a standard open mode; O_RDONLY deliberately gives a read-write mode.
KS_EXPORT std::ios_base::openmode translate_mode(int flags) noexcept;
// The reverse direction, used to open files: a standard open mode to open(2) flags.
KS_EXPORT int open_flags(std::ios_base::openmode mode) noexcept;
}  // namespace detail

/// Whole-file advisory locks (fcntl record locks) on the descriptor that fd() returns.
class KS_EXPORT basic_fstream_base {
public:
    virtual ~basic_fstream_base() = default;
    /// The descriptor the locks apply to.
    virtual int fd() const noexcept = 0;

    int lock() noexcept;       ///< 1 taken, 0 held by another process, -1 error
    int wait_lock() noexcept;  ///< 1 taken, -1 error
    int unlock() noexcept;     ///< 0, or the failing errno
    int is_locked() noexcept;  ///< 1 another process holds it, 0 not, -1 error
    /// is_locked(), and the holder's pid in `pid` when another process holds the lock.
    int is_locked(int& pid) noexcept;
};

/// The file stream; only the char specialization exists.
template <class CharT>
class basic_fstream;

/// A standard iostream over a file descriptor, with the whole-file locks of basic_fstream_base.
template <>
class KS_EXPORT basic_fstream<char> : public basic_fstream_base, public std::iostream {
public:
    basic_fstream();
    /// Opens `path` with the open mode; files are created with mode `perms` (less the umask).
    basic_fstream(ks::string_view path, std::ios_base::openmode mode, mode_t perms = 0644);
    /// Opens `path` with a C-style mode ("r", "w+", "ab", ...).
    basic_fstream(ks::string_view path, const char* mode, mode_t perms = 0644);
    /// Takes ownership of an open descriptor.
    basic_fstream(int fd, std::ios_base::openmode mode);
    ~basic_fstream() override;
    basic_fstream(const basic_fstream&) = delete;
    basic_fstream& operator=(const basic_fstream&) = delete;

    /// Fails with E_SYSTEM (and sets failbit) when open(2) fails.
    bool open(ks::string_view path, std::ios_base::openmode mode, mode_t perms = 0644);
    /// True while a file is open.
    bool is_open() const noexcept { return buf_ != nullptr; }
    /// Flushes and closes the file.
    void close();

    /// The file's descriptor, -1 when none is open.
    int fd() const noexcept override;
    /// The file's stdio handle, null when none is open.
    FILE* fh() const noexcept;

private:
    bool attach(int fd, std::ios_base::openmode mode);

    std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> buf_;
};

/// The file stream.
using fstream = basic_fstream<char>;

/// Maps part of an open file, always privately: writes to the mapping never reach the file.
class KS_EXPORT basic_memorymap_base {
public:
    static void* const failed;  ///< MAP_FAILED

    /// Maps up to `length` bytes of `file` from `offset` (read-only or copy-on-write) into `addr`
    /// and `size`; 0, or -1 with the error record set. At least one byte is mapped.
    static int do_map(bool read_only, basic_fstream<char>& file, long offset, size_t length, void*& addr,
                      size_t& size) noexcept;
    /// Unmaps what do_map() mapped and resets `addr` to `failed` and `size` to 0.
    static void do_unmap(void*& addr, size_t& size) noexcept;
};

/// Owner of one mapping made by basic_memorymap_base.
class KS_EXPORT memorymap : private basic_memorymap_base {
public:
    memorymap() = default;
    ~memorymap() { unmap(); }
    /// Takes the mapping of `other`.
    memorymap(memorymap&& other) noexcept;
    /// Unmaps the held mapping and takes the one of `other`.
    memorymap& operator=(memorymap&& other) noexcept;
    memorymap(const memorymap&) = delete;
    memorymap& operator=(const memorymap&) = delete;

    /// Maps up to `length` bytes of `file` from `offset`, replacing the held mapping; false with
    /// the error record set.
    bool map(bool read_only, basic_fstream<char>& file, long offset = 0, size_t length = SIZE_MAX) noexcept {
        unmap();
        return do_map(read_only, file, offset, length, addr_, size_) == 0;
    }
    /// Unmaps; nothing happens without a mapping.
    void unmap() noexcept { do_unmap(addr_, size_); }

    /// The mapped bytes, null without a mapping.
    void* data() const noexcept { return addr_ == failed ? nullptr : addr_; }
    /// The number of bytes mapped.
    size_t size() const noexcept { return size_; }

private:
    void* addr_ = failed;
    size_t size_ = 0;
};

}  // namespace ks
