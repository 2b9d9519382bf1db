// Release information files and version strings.
#include <ksutils/kslog.h>
#include <ksutils/releaseutl.h>

#include <cctype>
#include <cstdlib>
#include <fstream>

namespace ks {

const install_path kReleaseInfoFile(common_path::root, "kestrum-release");
const install_path kSetupInfoFile(common_path::root, "share/data/setup_version");
const install_path kPatchInfoFile(common_path::root, "patches/latest/patch.info");
const install_path kBootstrapInfoFile(common_path::system_etc, "kestrum-release-bootstrap");

namespace {

constexpr unsigned long kChannel = 0;

bool load_info(const install_path& file, info_map& info) {
    const path p = file.get();
    if (p.empty()) return false;
    std::ifstream in(p.c_str());
    if (!in) return false;
    for (std::string line; std::getline(in, line);) {
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        info[key] = line.substr(eq + 1);
    }
    return true;
}

std::string version_of(const install_path& file, log::level l, const char* failure, const char* fallback) {
    info_map info;
    if (load_info(file, info)) {
        const auto found = info.find("version");
        if (found != info.end()) return found->second;
    }
    KSLOG(kChannel, l, "{:s}", ks::string_view(failure));
    return fallback;
}

int component(ks::string_view text) {
    const std::string copy(text);
    return static_cast<int>(std::strtoll(copy.c_str(), nullptr, 10));
}

}  // namespace

bool load_release_info(info_map& info) { return load_info(kReleaseInfoFile, info); }
bool load_bootstrap_info(info_map& info) { return load_info(kBootstrapInfoFile, info); }
bool load_setup_info(info_map& info) { return load_info(kSetupInfoFile, info); }

std::string get_release_version() {
    return version_of(kReleaseInfoFile, log::level::error, "could not load release info", "2.0.0.0");
}

std::string get_bootstrap_version() {
    return version_of(kBootstrapInfoFile, log::level::error, "could not load bootstrap release info", "2.0.0.0");
}

std::string get_patch_version() {
    return version_of(kPatchInfoFile, log::level::warning, "could not load patch info", "0");
}

int compare_versions(ks::string_view a, ks::string_view b) {
    if (a == b) return 0;
    size_t pa = 0, pb = 0;
    for (;;) {
        const size_t ea = std::min(a.find('.', pa), a.size()), eb = std::min(b.find('.', pb), b.size());
        const int na = component(a.substr(pa, ea - pa)), nb = component(b.substr(pb, eb - pb));
        if (nb > na) return -1;
        if (nb < na) return 1;
        if (ea == a.size() || eb == b.size()) break;
        pa = ea + 1;
        pb = eb + 1;
    }
    return a.size() < b.size() ? -1 : 1;
}

std::string extract_cloud_version(ks::string_view text) {
    std::string out(text.substr(0, std::min(text.find('~'), text.size())));
    for (char& c : out)
        if (c == '-') c = '.';
    return out;
}

}  // namespace ks
