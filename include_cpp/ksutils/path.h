// Paths for file names and settings keys alike: pieces joined by single slashes, with
// no file-system normalisation ("." and ".." stay), because settings keys use the same type.
// common_path names the standard directories of the installation under its install root.
#pragma once

#include <ksexport.h>
#include <kspath.h>
#include <ksutils/streams.h>
#include <ksutils/string_view.h>

#include <sys/stat.h>

#include <fmt/format.h>

#include <ostream>
#include <string>
#include <type_traits>

namespace ks {

enum class common_path : int {
    root = 0,
    bin = 1,
    etc = 2,
    lib = 3,
    share = 4,
    scripts = 5,
    run = 6,
    var_tmp = 7,
    crash = 8,
    log = 9,
    log_config = 10,
    stats = 11,
    va = 12,
    va_bin = 13,
    system_etc = 14,
    tmp = 15,
    helpers = 16,
    cwd = 17,
    exe = 18,
};

// Prints the directory's text; sets failbit when the install root is unknown.
KS_EXPORT std::ostream& operator<<(std::ostream& os, common_path which);

class KS_EXPORT path {
public:
    path();
    path(const path& other);
    path(path&& other) noexcept;
    path& operator=(const path& other);
    path& operator=(path&& other) noexcept;

    // The first piece replaces (an absolute first piece starts at "/"), later pieces append,
    // even when they begin with '/'.
    template <class First, class... Rest>
    explicit path(const First& first, const Rest&... rest) : path() {
        add_piece(true, first);
        (add_piece(false, rest), ...);
    }

    path& add_piece(bool reset, ks::string_view piece);
    path& add_piece(bool reset, const char* piece) { return add_piece(reset, ks::string_view(piece ? piece : "")); }
    path& add_piece(bool reset, const std::string& piece) { return add_piece(reset, ks::string_view(piece)); }
    path& add_piece(bool reset, const path& piece) { return add_piece(reset, piece.view()); }
    path& add_piece(bool reset, common_path which);

    // Appends one piece.
    template <class Piece>
    path& operator/=(const Piece& piece) {
        return add_piece(false, piece);
    }

    path& reset(ks::string_view text);
    void clear() { text_.reset(); }

    ks::string_view basename() const noexcept;
    ks::string_view dirname() const noexcept;

    bool status(struct stat& st) const;
    bool exists() const;
    bool is_directory() const;
    bool mkdir(unsigned mode) const;
    bool mkdir() const { return mkdir(0777); }
    bool mkdirp(unsigned mode) const;
    bool mkdirp() const { return mkdirp(0777); }
    bool unlink() const;
    bool rmdir() const;
    bool temp_file(path& out) const;
    bool temp_dir(path& out) const;

    // A NUL-terminated copy of the text that stays valid until the process exits;
    // equal texts share one copy.
    static const char* cpath(path&& p);
    template <class... Pieces>
    static const char* cpath(common_path which, const Pieces&... pieces) {
        return cpath(path(which, pieces...));
    }

    const char* c_str() const noexcept { return text_.c_str(); }
    ks::string_view view() const noexcept { return text_.view(); }
    std::string str() const { return text_.str(); }
    size_t size() const noexcept { return text_.size(); }
    bool empty() const noexcept { return text_.empty(); }
    // False when a piece could not be printed (the install root was unknown).
    bool good() const noexcept { return !text_.fail(); }
    operator ks::string_view() const noexcept { return view(); }

    bool operator==(const path& other) const noexcept { return view() == other.view(); }
    bool operator!=(const path& other) const noexcept { return view() != other.view(); }

private:
    basic_memstream text_;
};

// A file or program inside one of the standard directories, named by a constant. The text
// is computed each time it is asked for, not at load time, so a process that sets its
// install root after the library was loaded (tools, tests) finds its own files. It stands
// wherever a path is expected: bound to a const path&, copied, passed or printed.
class KS_EXPORT install_path {
public:
    constexpr install_path(common_path dir, const char* name) noexcept : dir_(dir), name_(name) {}
    // The full path; empty when the install root is unknown.
    path get() const;
    std::string str() const { return get().str(); }
    operator path() const { return get(); }

private:
    common_path dir_;
    const char* name_;
};

inline std::ostream& operator<<(std::ostream& os, const path& p) { return os << std::string_view(p.view()); }

}  // namespace ks

// A path formats as its text by converting to a string view; an install_path has no text of
// its own to view, so it formats the path it names at that moment.
template <>
struct fmt::formatter<ks::install_path> : fmt::formatter<fmt::string_view> {
    template <class FormatContext>
    auto format(const ks::install_path& name, FormatContext& ctx) const {
        const ks::path full = name;
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(full.c_str(), full.size()), ctx);
    }
};
