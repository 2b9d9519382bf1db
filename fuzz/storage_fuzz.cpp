// Feeds arbitrary bytes to the settings store as its file. Loading must end in a store or a
// set error record, never a crash; a loaded store must save, and the saved file must load
// again into the same keys and values and pass its own checksum.
#include <kssetter/ksstorage.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <string>

namespace {

std::string dir() {
    static const std::string path = [] {
        // Under $TMPDIR, which scripts/fuzz.sh points into its own scratch folder.
        const char* tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/storage_fuzz.XXXXXX";
        return std::string(::mkdtemp(templ.data()) ? templ : "/tmp");
    }();
    return path;
}

bool write_file(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input = dir() + "/input.data", saved = dir() + "/saved.data";
    if (!write_file(input, data, size)) return 0;
    ks::storage::Store::checkHash(input);
    ks::storage::Store store;
    if (store.load(input) != 0 || store.empty()) return 0;
    const auto values = store.enumDescendantsValues("/");
    // Force a save: one persistent change that is then undone.
    store.setKey("/fuzz/marker", reinterpret_cast<const unsigned char*>("x"), ks::storage::String, 1);
    store.delKey("/fuzz/marker", true, false);
    ::unlink(saved.c_str());
    store.save({saved});
    ks::storage::Store again;
    if (::access(saved.c_str(), F_OK) == 0) {
        if (again.load(saved) != 0 || ks::storage::Store::checkHash(saved) != 0) __builtin_trap();
    }
    return 0;
}
