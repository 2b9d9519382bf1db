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
    explicit basic_membuf(size_t step = 128);
    basic_membuf(const basic_membuf& other);
    basic_membuf& operator=(const basic_membuf& other);

    /// Empties the buffer; the storage is kept.
    void reset() noexcept { setp(pbase(), epptr()); }
    size_t size() const noexcept { return static_cast<size_t>(pptr() - pbase()); }
    size_t capacity() const noexcept { return storage_.size() - 1; }
    const char* data() const noexcept { return pbase(); }
    const char* c_str() const noexcept {
        *pptr() = '\0';
        return pbase();
    }
    ks::string_view view() const noexcept { return ks::string_view(pbase(), size()); }

protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    pos_type seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;

private:
    void grow_to(size_t new_end);

    std::vector<char> storage_;
    size_t step_;
};

class KS_EXPORT basic_memstream : public std::ostream {
public:
    explicit basic_memstream(size_t step = 128);
    basic_memstream(const basic_memstream& other);
    basic_memstream& operator=(const basic_memstream& other);

    /// Rewinds the put position and clears the stream state; storage is kept.
    void reset() noexcept {
        buf_.reset();
        clear();
    }
    void write_text(ks::string_view text) { buf_.sputn(text.data(), static_cast<std::streamsize>(text.size())); }

    size_t size() const noexcept { return buf_.size(); }
    bool empty() const noexcept { return buf_.size() == 0; }
    size_t capacity() const noexcept { return buf_.capacity(); }
    const char* c_str() const noexcept { return buf_.c_str(); }
    ks::string_view view() const noexcept { return buf_.view(); }
    std::string str() const { return std::string(buf_.view()); }
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
    virtual int fd() const noexcept = 0;

    int lock() noexcept;       ///< 1 taken, 0 held by another process, -1 error
    int wait_lock() noexcept;  ///< 1 taken, -1 error
    int unlock() noexcept;     ///< 0, or the failing errno
    int is_locked() noexcept;  ///< 1 another process holds it, 0 not, -1 error
    int is_locked(int& pid) noexcept;
};

template <class CharT>
class basic_fstream;

template <>
class KS_EXPORT basic_fstream<char> : public basic_fstream_base, public std::iostream {
public:
    basic_fstream();
    /// Opens `path` with the open mode; files are created with mode `perms` (less the umask).
    basic_fstream(ks::string_view path, std::ios_base::openmode mode, mode_t perms = 0644);
    basic_fstream(ks::string_view path, const char* mode, mode_t perms = 0644);
    /// Takes ownership of an open descriptor.
    basic_fstream(int fd, std::ios_base::openmode mode);
    ~basic_fstream() override;
    basic_fstream(const basic_fstream&) = delete;
    basic_fstream& operator=(const basic_fstream&) = delete;

    /// Fails with E_SYSTEM (and sets failbit) when open(2) fails.
    bool open(ks::string_view path, std::ios_base::openmode mode, mode_t perms = 0644);
    bool is_open() const noexcept { return buf_ != nullptr; }
    void close();

    int fd() const noexcept override;
    FILE* fh() const noexcept;

private:
    bool attach(int fd, std::ios_base::openmode mode);

    std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> buf_;
};

using fstream = basic_fstream<char>;

/// Maps part of an open file, always privately: writes to the mapping never reach the file.
class KS_EXPORT basic_memorymap_base {
public:
    static void* const failed;  ///< MAP_FAILED

    static int do_map(bool read_only, basic_fstream<char>& file, long offset, size_t length, void*& addr,
                      size_t& size) noexcept;
    static void do_unmap(void*& addr, size_t& size) noexcept;
};

/// Owner of one mapping made by basic_memorymap_base.
class KS_EXPORT memorymap : private basic_memorymap_base {
public:
    memorymap() = default;
    ~memorymap() { unmap(); }
    memorymap(memorymap&& other) noexcept;
    memorymap& operator=(memorymap&& other) noexcept;
    memorymap(const memorymap&) = delete;
    memorymap& operator=(const memorymap&) = delete;

    bool map(bool read_only, basic_fstream<char>& file, long offset = 0, size_t length = SIZE_MAX) noexcept {
        unmap();
        return do_map(read_only, file, offset, length, addr_, size_) == 0;
    }
    void unmap() noexcept { do_unmap(addr_, size_); }

    void* data() const noexcept { return addr_ == failed ? nullptr : addr_; }
    size_t size() const noexcept { return size_; }

private:
    void* addr_ = failed;
    size_t size_ = 0;
};

}  // namespace ks
