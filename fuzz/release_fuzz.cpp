// Arbitrary bytes as the release file of a temporary install root, and as two version
// strings. Parsing must not crash, the version getter must return the parsed "version"
// value, and comparing must be antisymmetric except where the order is by design not: two
// different texts of one length whose components read as equal numbers ("01" and "1x")
// are each "greater" than the other.
#include <kspath.h>
#include <ksutils/releaseutl.h>

#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string root = [] {
        // Under $TMPDIR, which scripts/fuzz.sh points into its own scratch folder.
        const char* tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/release_fuzz.XXXXXX";
        const std::string dir = ::mkdtemp(templ.data()) ? templ : "/tmp";
        kspath_set_install_path(dir.c_str());
        return dir;
    }();
    FILE* f = std::fopen((root + "/kestrum-release").c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    ks::info_map info;
    if (!ks::load_release_info(info)) __builtin_trap();
    const auto found = info.find("version");
    if (found != info.end() && ks::get_release_version() != found->second) __builtin_trap();

    const char* cut = static_cast<const char*>(std::memchr(data, '\n', size));
    const size_t first = cut ? static_cast<size_t>(cut - reinterpret_cast<const char*>(data)) : size;
    const ks::string_view a(reinterpret_cast<const char*>(data), first);
    const ks::string_view b = first < size ? ks::string_view(reinterpret_cast<const char*>(data) + first + 1, size - first - 1)
                                           : ks::string_view();
    const int ab = ks::compare_versions(a, b), ba = ks::compare_versions(b, a);
    if ((ab == 0) != (a == b) || (a.size() != b.size() && ab != -ba)) __builtin_trap();
    ks::extract_cloud_version(a);
    return 0;
}
