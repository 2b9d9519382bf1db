// Arbitrary bytes as the parental category file. Loading must end in true or false, never a
// crash; a loaded table must encode its names and decode them back unchanged (names whose
// index lies outside the table's words are the ones encode skips).
#include <ksutils/parentalcategorytranslator.h>

#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string file = [] {
        // Under $TMPDIR, which scripts/fuzz.sh points into its own scratch folder.
        const char* tmp = std::getenv("TMPDIR");
        std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/category_fuzz.XXXXXX";
        return std::string(::mkdtemp(templ.data()) ? templ : "/tmp") + "/categories.json";
    }();
    FILE* f = std::fopen(file.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    ks::ParentalCategoryTranslator t;
    if (t.init(ks::path(file))) {
        std::set<std::string> reachable;
        for (const auto& [name, index] : t.nameToIndex)
            if (index / 32 < t.wordCount && t.indexToName.at(index) == name) reachable.insert(name);
        if (t.decode(t.encode(reachable)) != reachable) __builtin_trap();
    }
    t.uninit();
    return 0;
}
