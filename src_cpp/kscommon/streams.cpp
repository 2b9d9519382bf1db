// File and memory streams: the growable memory buffer, the descriptor-backed iostream
// with its fcntl whole-file locks, private memory maps, and open-mode translation.
#include <ksutils/error.h>
#include <ksutils/streams.h>
#include <ksutils/unique_fd.h>

#include "kssys.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ks {

// ---- basic_membuf --------------------------------------------------------------------

basic_membuf::basic_membuf(size_t step) : storage_(std::max<size_t>(step, 1) + 1, '\0'), step_(std::max<size_t>(step, 1)) {
    setp(storage_.data(), storage_.data() + storage_.size() - 1);
}

basic_membuf::basic_membuf(const basic_membuf& other)
    : std::basic_streambuf<char>(), storage_(other.storage_), step_(other.step_) {
    setp(storage_.data(), storage_.data() + storage_.size() - 1);
    pbump(static_cast<int>(other.size()));
}

basic_membuf& basic_membuf::operator=(const basic_membuf& other) {
    if (this != &other) {
        storage_ = other.storage_;
        step_ = other.step_;
        setp(storage_.data(), storage_.data() + storage_.size() - 1);
        pbump(static_cast<int>(other.size()));
    }
    return *this;
}

void basic_membuf::grow_to(size_t new_end) {
    const size_t used = size();
    storage_.resize(new_end + 1, '\0');
    setp(storage_.data(), storage_.data() + new_end);
    // pbump takes an int; texts beyond 2 GiB are advanced in slices.
    for (size_t left = used; left > 0;) {
        int n = static_cast<int>(std::min<size_t>(left, INT32_MAX));
        pbump(n);
        left -= static_cast<size_t>(n);
    }
}

basic_membuf::int_type basic_membuf::overflow(int_type ch) {
    if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
    grow_to(capacity() + std::max(capacity(), step_));
    *pptr() = traits_type::to_char_type(ch);
    pbump(1);
    return ch;
}

std::streamsize basic_membuf::xsputn(const char* s, std::streamsize n) {
    if (n <= 0) return 0;
    const size_t need = static_cast<size_t>(n);
    const size_t room = static_cast<size_t>(epptr() - pptr());
    if (need > room) {
        const size_t missing = need - room;
        grow_to(capacity() + (missing + step_ - 1) / step_ * step_);
    }
    std::memcpy(pptr(), s, need);
    for (size_t left = need; left > 0;) {
        int k = static_cast<int>(std::min<size_t>(left, INT32_MAX));
        pbump(k);
        left -= static_cast<size_t>(k);
    }
    return n;
}

basic_membuf::pos_type basic_membuf::seekoff(off_type off, std::ios_base::seekdir dir, std::ios_base::openmode which) {
    if (!(which & std::ios_base::out)) return pos_type(off_type(-1));
    // The put position is always the logical end, so "cur" and "end" are the same place.
    const off_type base = dir == std::ios_base::beg ? 0 : static_cast<off_type>(size());
    return seekpos(pos_type(base + off), which);
}

// Seeking moves the logical end: text past the new position is dropped, so only
// rewinding (and asking for the position) is meaningful.
basic_membuf::pos_type basic_membuf::seekpos(pos_type pos, std::ios_base::openmode which) {
    off_type target = off_type(pos);
    if (!(which & std::ios_base::out) || target < 0 || target > static_cast<off_type>(size()))
        return pos_type(off_type(-1));
    const size_t keep = static_cast<size_t>(target);
    setp(pbase(), epptr());
    for (size_t left = keep; left > 0;) {
        int k = static_cast<int>(std::min<size_t>(left, INT32_MAX));
        pbump(k);
        left -= static_cast<size_t>(k);
    }
    return pos;
}

// ---- basic_memstream -----------------------------------------------------------------

basic_memstream::basic_memstream(size_t step) : std::ostream(nullptr), buf_(step) { rdbuf(&buf_); }

basic_memstream::basic_memstream(const basic_memstream& other)
    : std::basic_ios<char>(), std::ostream(nullptr), buf_(other.buf_) {
    rdbuf(&buf_);
}

basic_memstream& basic_memstream::operator=(const basic_memstream& other) {
    buf_ = other.buf_;
    clear(other.rdstate());
    return *this;
}

bool basic_memstream::read_file(ks::string_view path, bool reset_first) {
    std::string name(path);
    unique_fd fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    if (reset_first) reset();
    char chunk[4096];
    ssize_t n;
    while ((n = sys::read_some(fd.get(), chunk, sizeof chunk)) > 0) buf_.sputn(chunk, n);
    return true;
}

// ---- open modes ----------------------------------------------------------------------

namespace detail {

std::ios_base::openmode translate_mode(ks::string_view mode) noexcept {
    using std::ios_base;
    ios_base::openmode result;
    const bool plus = mode.size() >= 2 && mode[1] == '+';
    if (mode.empty()) return ios_base::in | ios_base::out;
    switch (mode[0]) {
        case 'r': result = plus ? ios_base::in | ios_base::out : ios_base::in; break;
        case 'w':
            result = plus ? ios_base::in | ios_base::out | ios_base::trunc : ios_base::out | ios_base::trunc;
            break;
        case 'a': result = plus ? ios_base::in | ios_base::out | ios_base::app : ios_base::out | ios_base::app; break;
        default: result = ios_base::in | ios_base::out; break;  // "b" alone is in + out + binary
    }
    if (mode.back() == 'b') result |= ios_base::binary;
    return result;
}

std::ios_base::openmode translate_mode(int flags) noexcept {
    using std::ios_base;
    ios_base::openmode result =
        (flags & O_WRONLY) && !(flags & O_RDWR) ? ios_base::out : ios_base::in | ios_base::out;
    if (flags & O_APPEND) result |= ios_base::app;
    result |= ios_base::binary;
    if (flags & O_TRUNC) result |= ios_base::trunc;
    return result;
}

int open_flags(std::ios_base::openmode mode) noexcept {
    using std::ios_base;
    const bool in = mode & ios_base::in;
    const bool out = (mode & ios_base::out) || (mode & ios_base::app);
    int flags = O_CLOEXEC;
    if (in && out)
        flags |= O_RDWR;
    else if (out)
        flags |= O_WRONLY;
    else
        flags |= O_RDONLY;
    if (out) flags |= O_CREAT;
    if (mode & ios_base::trunc) flags |= O_TRUNC;
    if (mode & ios_base::app) flags |= O_APPEND;
    return flags;
}

}  // namespace detail

// ---- file locks ----------------------------------------------------------------------

int basic_fstream_base::lock() noexcept {
    const int rc = sys::lock_file(fd(), false);
    if (rc < 0) _get_kserrno().set(E_SYSTEM);
    return rc;
}

int basic_fstream_base::wait_lock() noexcept {
    if (sys::lock_file(fd(), true) == 1) return 1;
    _get_kserrno().set(E_SYSTEM);
    return -1;
}

int basic_fstream_base::unlock() noexcept {
    if (sys::unlock_file(fd()) == 0) return 0;
    const int err = errno;
    _get_kserrno().set(E_SYSTEM);
    return err;
}

int basic_fstream_base::is_locked() noexcept {
    int pid;
    return is_locked(pid);
}

int basic_fstream_base::is_locked(int& pid) noexcept {
    pid_t holder = 0;
    const int rc = sys::lock_holder(fd(), &holder);
    if (rc < 0) _get_kserrno().set(E_SYSTEM);
    if (rc == 1) pid = holder;
    return rc;
}

// ---- basic_fstream<char> -------------------------------------------------------------

basic_fstream<char>::basic_fstream() : std::iostream(nullptr) {}

basic_fstream<char>::basic_fstream(ks::string_view path, std::ios_base::openmode mode, mode_t perms)
    : std::iostream(nullptr) {
    open(path, mode, perms);
}

basic_fstream<char>::basic_fstream(ks::string_view path, const char* mode, mode_t perms)
    : std::iostream(nullptr) {
    open(path, detail::translate_mode(ks::string_view(mode ? mode : "")), perms);
}

basic_fstream<char>::basic_fstream(int fd, std::ios_base::openmode mode) : std::iostream(nullptr) {
    if (fd < 0 || !attach(fd, mode)) setstate(std::ios_base::failbit);
}

basic_fstream<char>::~basic_fstream() { close(); }

bool basic_fstream<char>::open(ks::string_view path, std::ios_base::openmode mode, mode_t perms) {
    close();
    std::string name(path);
    int fd = ::open(name.c_str(), detail::open_flags(mode), perms);
    if (fd < 0) {
        _get_kserrno().set(E_SYSTEM);
        setstate(std::ios_base::failbit);
        return false;
    }
    if (!attach(fd, mode)) {
        ::close(fd);
        setstate(std::ios_base::failbit);
        return false;
    }
    clear();
    return true;
}

bool basic_fstream<char>::attach(int fd, std::ios_base::openmode mode) {
    auto buf = std::make_unique<__gnu_cxx::stdio_filebuf<char>>(fd, mode);
    if (!buf->is_open()) {
        _get_kserrno().set(E_SYSTEM, "fdopen failed");
        return false;
    }
    buf_ = std::move(buf);
    rdbuf(buf_.get());
    return true;
}

void basic_fstream<char>::close() {
    if (!buf_) return;
    rdbuf(nullptr);
    buf_.reset();  // flushes and closes the descriptor
}

int basic_fstream<char>::fd() const noexcept { return buf_ ? buf_->fd() : -1; }

FILE* basic_fstream<char>::fh() const noexcept { return buf_ ? buf_->file() : nullptr; }

// ---- memory maps ---------------------------------------------------------------------

void* const basic_memorymap_base::failed = MAP_FAILED;

int basic_memorymap_base::do_map(bool read_only, basic_fstream<char>& file, long offset, size_t length,
                                 void*& addr, size_t& size) noexcept {
    const int fd = file.fd();
    if (fd < 0) {
        _get_kserrno().set(E_INVAL, "File is not open");
        return -1;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        _get_kserrno().set(E_SYSTEM);
        return -1;
    }
    const size_t file_size = static_cast<size_t>(st.st_size);
    const size_t from = offset > 0 ? static_cast<size_t>(offset) : 0;
    size_t clipped = from >= file_size ? 0 : std::min(length, file_size - from);
    if (clipped == 0) clipped = 1;
    const int prot = read_only ? PROT_READ : PROT_READ | PROT_WRITE;
    void* p = ::mmap(nullptr, clipped, prot, MAP_PRIVATE, fd, offset);
    if (p == MAP_FAILED) {
        _get_kserrno().set(E_SYSTEM);
        return -1;
    }
    addr = p;
    size = clipped;
    return 0;
}

void basic_memorymap_base::do_unmap(void*& addr, size_t& size) noexcept {
    if (addr != MAP_FAILED) ::munmap(addr, size);
    addr = MAP_FAILED;
    size = 0;
}

memorymap::memorymap(memorymap&& other) noexcept : addr_(other.addr_), size_(other.size_) {
    other.addr_ = failed;
    other.size_ = 0;
}

memorymap& memorymap::operator=(memorymap&& other) noexcept {
    if (this != &other) {
        unmap();
        addr_ = other.addr_;
        size_ = other.size_;
        other.addr_ = failed;
        other.size_ = 0;
    }
    return *this;
}

}  // namespace ks
