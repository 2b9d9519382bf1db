// ks::path, the standard install directories, and the search for the install root.
//
// The install root is searched once per process and cached: the "/etc/kestrum-box" link,
// then the "kestrum-box" user's home, then "/opt/kestrum". A failed search is not cached,
// so a root that appears later is found by the next query.
#include <ksutils/error.h>
#include <ksutils/path.h>
#include <ksutils/unique_fd.h>

#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr size_t kRootRoom = 4096;

struct InstallRoot {
    std::mutex mutex;
    char text[kRootRoom] = {};
    bool known = false;
};

InstallRoot& install_root() {
    static InstallRoot* root = new InstallRoot;  // never destroyed: used until the last exit handler
    return *root;
}

bool ends_with(const char* s, size_t n, const char* suffix) {
    size_t k = std::strlen(suffix);
    return n >= k && std::memcmp(s + n - k, suffix, k) == 0;
}

bool directory_exists(const char* p) {
    char resolved[PATH_MAX];
    return ::realpath(p, resolved) != nullptr;
}

// Step 2 of the search: the link's target less a trailing "/etc".
bool root_from_link(InstallRoot& root) {
    char target[kRootRoom];
    ssize_t n = ::readlink("/etc/kestrum-box", target, sizeof target - 1);
    if (n <= 0 || n >= static_cast<ssize_t>(kRootRoom)) return false;
    size_t len = static_cast<size_t>(n);
    target[len] = '\0';
    if (!ends_with(target, len, "/etc")) return false;
    len -= 4;
    target[len] = '\0';
    if (len >= kRootRoom || !directory_exists(target)) return false;
    std::memcpy(root.text, target, len + 1);
    return true;
}

std::string common_path_text(ks::common_path which, bool& ok) {
    using ks::common_path;
    ok = true;
    auto rooted = [&](const char* suffix) -> std::string {
        const char* root = kspath_default_install_path();
        if (!root) {
            ok = false;
            return std::string();
        }
        return std::string(root) + suffix;
    };
    switch (which) {
        case common_path::root: return rooted("");
        case common_path::bin: return rooted("/bin");
        case common_path::etc: return rooted("/etc");
        case common_path::lib: return rooted("/lib");
        case common_path::share: return rooted("/share");
        case common_path::scripts: return rooted("/share/scripts");
        case common_path::run: return rooted("/var/run");
        case common_path::var_tmp: return rooted("/var/tmp");
        case common_path::crash: {
            // The two texts run together with no separator; readers of crash reports rely on it.
            std::string dir = rooted("/var/crash");
            return ok ? "/tmp/kslogs" + dir : std::string();
        }
        case common_path::log: return rooted("/var/log");
        case common_path::log_config: return rooted("/etc/logging");
        case common_path::stats: return rooted("/etc/stats");
        case common_path::va: return rooted("/va");
        case common_path::va_bin: return rooted("/va/bin");
        case common_path::system_etc: return "/etc";
        case common_path::tmp: return "/tmp";
        case common_path::helpers: return rooted("/bin/helpers");
        case common_path::cwd: {
            std::vector<char> buf(4096);
            while (::getcwd(buf.data(), buf.size()) == nullptr) {
                if (errno != ERANGE) {
                    ok = false;
                    return std::string();
                }
                buf.resize(buf.size() + 4096);
            }
            return std::string(buf.data());
        }
        case common_path::exe: {
            std::vector<char> buf(4097);
            for (;;) {
                ssize_t n = ::readlink("/proc/self/exe", buf.data(), buf.size());
                if (n < 0) {
                    ok = false;
                    return std::string();
                }
                if (static_cast<size_t>(n) < buf.size()) return std::string(buf.data(), static_cast<size_t>(n));
                buf.resize(buf.size() + 4096);
            }
        }
    }
    return std::string();
}

}  // namespace

extern "C" {

const char* kspath_default_install_path(void) {
    InstallRoot& root = install_root();
    std::lock_guard<std::mutex> guard(root.mutex);
    if (root.known) return root.text;
    if (!root_from_link(root)) {
        char home[kRootRoom];
        if (get_userhome("kestrum-box", home) == 0) {
            std::snprintf(root.text, sizeof root.text, "%s", home);
        } else if (directory_exists("/opt/kestrum")) {
            std::snprintf(root.text, sizeof root.text, "%s", "/opt/kestrum");
        } else {
            root.text[0] = '\0';
            return nullptr;
        }
    }
    root.known = true;
    return root.text;
}

void kspath_set_install_path(const char* p) {
    InstallRoot& root = install_root();
    std::lock_guard<std::mutex> guard(root.mutex);
    if (p == nullptr || (root.known && std::strcmp(p, root.text) == 0)) {
        root.known = false;
        return;
    }
    std::snprintf(root.text, sizeof root.text, "%s", p);
    root.known = true;
}

int get_userhome(const char* user, char* out) {
    if (!user || !out) return -1;
    std::unique_ptr<FILE, int (*)(FILE*)> passwd(std::fopen("/etc/passwd", "re"), &std::fclose);
    if (!passwd) return -1;
    const size_t user_len = std::strlen(user);
    char line[4096];
    while (std::fgets(line, sizeof line, passwd.get())) {
        if (line[0] == '#') continue;
        char* newline = std::strchr(line, '\n');
        char* colon = std::strchr(line, ':');
        if (!newline || !colon) return -1;
        if (static_cast<size_t>(colon - line) != user_len || std::memcmp(line, user, user_len) != 0) continue;
        // The home directory is the sixth field: between the fifth and the sixth ':'.
        char* field = line;
        for (int i = 0; i < 5; ++i) {
            field = std::strchr(field, ':');
            if (!field) return -1;
            ++field;
        }
        char* end = std::strchr(field, ':');
        if (!end) return -1;
        size_t len = static_cast<size_t>(end - field);
        std::memcpy(out, field, len);
        out[len] = '\0';
        return 0;
    }
    return -1;
}

}  // extern "C"

namespace ks {

std::ostream& operator<<(std::ostream& os, common_path which) {
    if (static_cast<int>(which) < 0 || static_cast<int>(which) > 18) return os;
    bool ok;
    std::string text = common_path_text(which, ok);
    if (!ok) {
        os.setstate(std::ios_base::failbit);
        return os;
    }
    return os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

path::path() : text_(128) {}
path::path(const path& other) : text_(other.text_) {}
path::path(path&& other) noexcept : text_(other.text_) {}
path& path::operator=(const path& other) {
    text_ = other.text_;
    return *this;
}
path& path::operator=(path&& other) noexcept {
    text_ = other.text_;
    return *this;
}

path& path::add_piece(bool reset_first, ks::string_view piece) {
    if (piece.empty()) return *this;
    const bool absolute = piece[0] == '/';
    if (reset_first && absolute) text_.reset();
    bool first = text_.empty();
    if (first && absolute) text_.write_text("/");
    size_t start = 0;
    while (start <= piece.size()) {
        size_t end = piece.find('/', start);
        if (end == ks::string_view::npos) end = piece.size();
        if (end > start) {
            ks::string_view component = piece.substr(start, end - start);
            if (!first && view() != "/") text_.write_text("/");
            text_.write_text(component);
            first = false;
        }
        start = end + 1;
    }
    return *this;
}

path& path::add_piece(bool reset_first, common_path which) {
    bool ok;
    std::string text = common_path_text(which, ok);
    if (!ok) {
        text_.setstate(std::ios_base::failbit);
        return *this;
    }
    return add_piece(reset_first, ks::string_view(text));
}

path& path::reset(ks::string_view text) {
    text_.reset();
    return add_piece(true, text);
}

ks::string_view path::basename() const noexcept {
    ks::string_view v = view();
    if (v.empty() || v == "/") return v;
    size_t slash = v.rfind('/');
    return slash == ks::string_view::npos ? v : v.substr(slash + 1);
}

ks::string_view path::dirname() const noexcept {
    ks::string_view v = view();
    size_t slash = v.rfind('/');
    if (v.empty() || slash == ks::string_view::npos) return ".";
    if (slash == 0) return "/";
    return v.substr(0, slash);
}

bool path::status(struct stat& st) const {
    if (::stat(c_str(), &st) == 0) return true;
    if (errno == ENOENT)
        _get_kserrno().set(E_NOENT);
    else
        _get_kserrno().set(E_SYSTEM);
    return false;
}

bool path::exists() const {
    struct stat st;
    return ::stat(c_str(), &st) == 0;
}

bool path::is_directory() const {
    struct stat st;
    return ::stat(c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool path::mkdir(unsigned mode) const {
    if (::mkdir(c_str(), mode) == 0) return true;
    struct stat st;
    if (!status(st)) return false;
    if (S_ISDIR(st.st_mode)) return true;
    _get_kserrno().set(E_INVAL, "Path is not a directory");
    return false;
}

bool path::mkdirp(unsigned mode) const {
    if (empty()) {
        _get_kserrno().set(E_INVAL);
        return false;
    }
    path parent(dirname());
    if (parent.view() == view()) return mkdir(mode);  // "/" or "."
    struct stat st;
    if (::stat(parent.c_str(), &st) != 0) {
        if (!parent.mkdirp(mode)) return false;
        return mkdir(mode);
    }
    if (!S_ISDIR(st.st_mode)) {
        _get_kserrno().set(E_INVAL, "Path has non directory");
        return false;
    }
    return mkdir(mode);
}

bool path::unlink() const {
    if (empty()) {
        _get_kserrno().set(E_INVAL);
        return false;
    }
    if (::unlink(c_str()) != 0) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    return true;
}

bool path::rmdir() const {
    if (empty()) {
        _get_kserrno().set(E_INVAL);
        return false;
    }
    if (::rmdir(c_str()) != 0) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    return true;
}

namespace {

bool make_template(const path& dir, char (&buf)[1024]) {
    if (dir.empty()) {
        _get_kserrno().set(E_INVAL);
        return false;
    }
    int n = std::snprintf(buf, sizeof buf, "%s/XXXXXX", dir.c_str());
    if (n < 0 || static_cast<size_t>(n) >= sizeof buf) {
        _get_kserrno().set(E_INVAL, "Path too long");
        return false;
    }
    return true;
}

}  // namespace

bool path::temp_file(path& out) const {
    char buf[1024];
    if (!make_template(*this, buf)) return false;
    unique_fd fd(::mkostemp(buf, O_CLOEXEC));
    if (!fd) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    out.reset(buf);
    return true;
}

bool path::temp_dir(path& out) const {
    char buf[1024];
    if (!make_template(*this, buf)) return false;
    if (::mkdtemp(buf) == nullptr) {
        _get_kserrno().set(E_SYSTEM);
        return false;
    }
    out.reset(buf);
    return true;
}

path install_path::get() const {
    path p(dir_, name_);
    return p.good() ? p : path();
}

const char* path::cpath(path&& p) {
    static std::mutex* mutex = new std::mutex;
    static std::set<std::string, std::less<>>* interned = new std::set<std::string, std::less<>>;
    std::lock_guard<std::mutex> guard(*mutex);
    return interned->emplace(p.view()).first->c_str();
}

}  // namespace ks
