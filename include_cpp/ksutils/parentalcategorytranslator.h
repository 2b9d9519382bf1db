/// @file
/// Parental-control categories as names and as a compact bit set of 32-bit words.
///
/// The category file is a JSON array of {"name", "number", "bit"} objects; a category's index
/// is (number - 1) * 32 + (bit & 0xFF), so a "bit" of 32 or more lands in a later word, and
/// "number" 0 wraps around to an index decode never reaches. Names are stored lower-cased and
/// matched exactly. Invalid elements are logged and skipped; the first occurrence of a name
/// or an index wins.
#pragma once
#include <ksexport.h>
#include <ksutils/path.h>

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace ks {

/// Translates between category names and bit sets, after init() loaded the category file.
class KS_EXPORT ParentalCategoryTranslator {
public:
    /// False when the log channel cannot be opened or the file cannot be loaded as an array
    /// (E_FAULT "cannot load parental categories from PATH").
    bool init(ks::path file);
    /// wordCount words with the bit of every known name set; unknown names are logged.
    std::vector<unsigned int> encode(const std::set<std::string>& names) const;
    /// The names of the set bits of the first wordCount words; unknown indexes are logged.
    std::set<std::string> decode(std::vector<unsigned int> words) const;
    /// Forgets the categories and closes the log channel.
    void uninit();

    std::unordered_map<std::string, uint64_t> nameToIndex;  ///< lower-cased name to bit index
    std::unordered_map<uint64_t, std::string> indexToName;  ///< bit index to lower-cased name
    uint64_t wordCount = 0;  ///< words in an encoded set: the highest "number" loaded

private:
    long channel_ = -1;
};

}  // namespace ks
