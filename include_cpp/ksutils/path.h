/// @file
/// @brief Paths for file names and settings keys alike, and the install layout.
///
/// Pieces joined by single slashes, with
/// no file-system normalisation ("." and ".." stay), because settings keys use the same type.
/// common_path names the standard directories of the installation under its install root.
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

/// The standard directories of the installation. Each prints as its directory's text; those
/// under the install root ("root" below) print nothing for the root, and set the stream's
/// fail bit, when the install root is unknown.
enum class common_path : int {
    root = 0,         ///< The install root.
    bin = 1,          ///< root + "/bin".
    etc = 2,          ///< root + "/etc".
    lib = 3,          ///< root + "/lib".
    share = 4,        ///< root + "/share".
    scripts = 5,      ///< root + "/share/scripts".
    run = 6,          ///< root + "/var/run" (PID files, the settings socket).
    var_tmp = 7,      ///< root + "/var/tmp".
    crash = 8,        ///< "/tmp/kslogs" immediately followed by root + "/var/crash" (no separator).
    log = 9,          ///< root + "/var/log".
    log_config = 10,  ///< root + "/etc/logging".
    stats = 11,       ///< root + "/etc/stats".
    va = 12,          ///< root + "/va".
    va_bin = 13,      ///< root + "/va/bin".
    system_etc = 14,  ///< "/etc", the system's directory, not under the root.
    tmp = 15,         ///< "/tmp".
    helpers = 16,     ///< root + "/bin/helpers".
    cwd = 17,         ///< The current working directory.
    exe = 18,         ///< The running program (the target of "/proc/self/exe").
};

/// Prints the directory's text; sets failbit when the install root is unknown.
KS_EXPORT std::ostream& operator<<(std::ostream& os, common_path which);

/// A file name or settings key: pieces joined by single slashes. No two consecutive slashes,
/// no trailing slash except for the root "/" itself; "." and ".." are kept as they are.
/// The empty path is valid and means "nothing". Writes to standard streams and formats
/// with {fmt} as its text.
class KS_EXPORT path {
public:
    /// The empty path.
    path();
    /// A copy of `other`'s text.
    path(const path& other);
    /// Takes `other`'s text.
    path(path&& other) noexcept;
    /// Copies `other`'s text.
    path& operator=(const path& other);
    /// Takes `other`'s text.
    path& operator=(path&& other) noexcept;

    /// A path from pieces (texts or common_path values).
    /// The first piece replaces (an absolute first piece starts at "/"), later pieces append,
    /// even when they begin with '/'.
    template <class First, class... Rest>
    explicit path(const First& first, const Rest&... rest) : path() {
        add_piece(true, first);
        (add_piece(false, rest), ...);
    }

    /// Adds one piece, split at its slashes; empty components are skipped. With `reset` set, a
    /// piece beginning with '/' replaces the path; otherwise it is appended (so "a" plus "/x"
    /// gives "a/x"). An empty piece changes nothing.
    path& add_piece(bool reset, ks::string_view piece);
    /// As add_piece(bool, ks::string_view); a null `piece` is empty.
    path& add_piece(bool reset, const char* piece) { return add_piece(reset, ks::string_view(piece ? piece : "")); }
    /// As add_piece(bool, ks::string_view).
    path& add_piece(bool reset, const std::string& piece) { return add_piece(reset, ks::string_view(piece)); }
    /// Adds another path's text as a piece.
    path& add_piece(bool reset, const path& piece) { return add_piece(reset, piece.view()); }
    /// Adds the text that `which` prints (a piece beginning with '/').
    path& add_piece(bool reset, common_path which);

    /// Appends one piece.
    template <class Piece>
    path& operator/=(const Piece& piece) {
        return add_piece(false, piece);
    }

    /// Empties the path and adds `text` as its first piece.
    path& reset(ks::string_view text);
    /// Empties the path.
    void clear() { text_.reset(); }

    /// The text after the last '/'; the whole path when it has none; "/" for "/".
    ks::string_view basename() const noexcept;
    /// The text before the last '/'; "." when the path is empty or has no '/'; "/" when its
    /// only slash is the first character.
    ks::string_view dirname() const noexcept;

    /// @name File-system operations
    /// Except for the two queries exists() and is_directory(), each returns false on failure
    /// and records why in the thread's error record.
    /// @{

    /// stat(2) of the path into `st`; a missing file is E_NOENT, other failures E_SYSTEM.
    bool status(struct stat& st) const;
    /// True when stat(2) of the path succeeds.
    bool exists() const;
    /// True when the path names a directory.
    bool is_directory() const;
    /// Creates the directory with `mode`; an existing directory counts as success, an existing
    /// non-directory is E_INVAL ("Path is not a directory").
    bool mkdir(unsigned mode) const;
    /// mkdir(unsigned) with mode 0777.
    bool mkdir() const { return mkdir(0777); }
    /// Creates the directory and its missing parents with `mode`; a parent that is not a
    /// directory is E_INVAL ("Path has non directory").
    bool mkdirp(unsigned mode) const;
    /// mkdirp(unsigned) with mode 0777.
    bool mkdirp() const { return mkdirp(0777); }
    /// Removes the file; an empty path is E_INVAL.
    bool unlink() const;
    /// Removes the (empty) directory; an empty path is E_INVAL.
    bool rmdir() const;
    /// Creates a uniquely named empty file inside this directory and sets `out` to its name.
    bool temp_file(path& out) const;
    /// Creates a uniquely named directory inside this directory and sets `out` to its name.
    bool temp_dir(path& out) const;
    /// @}

    /// A NUL-terminated copy of the text that stays valid until the process exits;
    /// equal texts share one copy.
    static const char* cpath(path&& p);
    /// cpath(path&&) of the path made of `which` and `pieces`.
    template <class... Pieces>
    static const char* cpath(common_path which, const Pieces&... pieces) {
        return cpath(path(which, pieces...));
    }

    /// The text, NUL-terminated; valid until the path changes.
    const char* c_str() const noexcept { return text_.c_str(); }
    /// The text; valid until the path changes.
    ks::string_view view() const noexcept { return text_.view(); }
    /// A copy of the text.
    std::string str() const { return text_.str(); }
    /// Length of the text.
    size_t size() const noexcept { return text_.size(); }
    /// True for the empty path.
    bool empty() const noexcept { return text_.empty(); }
    /// False when a piece could not be printed (the install root was unknown).
    bool good() const noexcept { return !text_.fail(); }
    /// The text, as view() gives it.
    operator ks::string_view() const noexcept { return view(); }

    /// Paths are equal when their texts are.
    bool operator==(const path& other) const noexcept { return view() == other.view(); }
    /// Paths differ when their texts do.
    bool operator!=(const path& other) const noexcept { return view() != other.view(); }

private:
    basic_memstream text_;
};

/// A file or program inside one of the standard directories, named by a constant. The text
/// is computed each time it is asked for, not at load time, so a process that sets its
/// install root after the library was loaded (tools, tests) finds its own files. It stands
/// wherever a path is expected: bound to a const path&, copied, passed or printed (with {fmt}
/// too: it formats as the path it names at that moment).
class KS_EXPORT install_path {
public:
    /// The file `name` inside `dir`; `name` must outlive this object (a literal).
    constexpr install_path(common_path dir, const char* name) noexcept : dir_(dir), name_(name) {}
    /// The full path; empty when the install root is unknown.
    path get() const;
    /// The full path's text.
    std::string str() const { return get().str(); }
    /// The full path, as get() gives it.
    operator path() const { return get(); }

private:
    common_path dir_;
    const char* name_;
};

/// Writes the path's text.
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
