// The parental category table: loading, encoding and decoding.
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/miscutl.h>
#include <ksutils/parentalcategorytranslator.h>

#include <jansson.h>

#include <algorithm>
#include <cctype>
#include <memory>

namespace ks {

namespace {

// 2,097,152 categories, a 256 KiB bit set: far above any real table.
constexpr uint64_t kMaxCategoryWords = 65536;

uint64_t to_unsigned(const json_t* number) {
    return json_is_integer(number) ? static_cast<uint64_t>(json_integer_value(number))
                                   : static_cast<uint64_t>(json_real_value(number));
}

// Why an element is not a category, or null when it is one.
const char* invalid_reason(const json_t* element) {
    const json_t* name = json_object_get(element, "name");
    const json_t* number = json_object_get(element, "number");
    const json_t* bit = json_object_get(element, "bit");
    if (!name) return "invalid json category (no 'name')";
    if (!number) return "invalid json category (no 'number')";
    if (!bit) return "invalid json category (no 'bit')";
    if (!json_is_string(name) || json_string_length(name) == 0) return "invalid json category (null or empty 'name')";
    if (!json_is_number(number)) return "invalid json category ('number' not a number)";
    if (!json_is_number(bit)) return "invalid json category ('bit' not a number)";
    // Every encode() allocates "number" words: a file must not make that unbounded.
    if (to_unsigned(number) > kMaxCategoryWords) return "invalid json category ('number' out of range)";
    return nullptr;
}

// log_json prints objects and arrays only; a bare number, string or null in the table is
// shown in the same "reason: element" form.
void log_invalid(unsigned long channel, const char* reason, const json_t* element) {
    if (json_is_object(element) || json_is_array(element))
        return ks::log_json(channel, log::level::warning, reason, element);
    if (!log::can_log(channel, log::level::warning)) return;
    const unique_c_ptr<char> text(json_dumps(element, JSON_ENCODE_ANY));
    KSLOG_WARN(channel, "{:s}: {:s}", reason, text ? text.get() : "");
}

}  // namespace

bool ParentalCategoryTranslator::init(ks::path file) {
    const long ch = static_cast<long>(log::open_channel(log::kKSParentalChannel));
    if (ch < 0) return false;
    channel_ = ch;
    const auto channel = static_cast<unsigned long>(channel_);
    std::unique_ptr<json_t, void (*)(json_t*)> doc(json_load_file(file.c_str(), 0, nullptr),
                                                   [](json_t* j) { json_decref(j); });
    if (!doc || !json_is_array(doc.get())) {
        _get_kserrno().set(E_FAULT, "cannot load parental categories from {}", file.str());
        return false;
    }
    size_t i;
    json_t* element;
    json_array_foreach(doc.get(), i, element) {
        if (const char* reason = invalid_reason(element)) {
            log_invalid(channel, reason, element);
            continue;
        }
        const uint64_t number = to_unsigned(json_object_get(element, "number"));
        wordCount = std::max(wordCount, number);
        const uint64_t index = (number - 1) * 32 + (to_unsigned(json_object_get(element, "bit")) & 0xFF);
        std::string name = json_string_value(json_object_get(element, "name"));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
        nameToIndex.emplace(name, index);
        indexToName.emplace(index, name);
        KSLOG_DEBUG(channel, "parental category {:s} has index {:d}", name, index);
    }
    return true;
}

std::vector<unsigned int> ParentalCategoryTranslator::encode(const std::set<std::string>& names) const {
    std::vector<unsigned int> words(wordCount, 0);
    for (const auto& name : names) {
        const auto found = nameToIndex.find(name);
        if (found == nameToIndex.end() || found->second / 32 >= words.size()) {
            KSLOG_WARN(static_cast<unsigned long>(std::max(channel_, 0L)),
                       "trying to encode unknown parental category: {:s}", name);
            continue;
        }
        words[found->second / 32] |= 1u << (found->second % 32);
    }
    return words;
}

std::set<std::string> ParentalCategoryTranslator::decode(std::vector<unsigned int> words) const {
    std::set<std::string> names;
    const size_t count = std::min<size_t>(words.size(), wordCount);
    for (size_t i = 0; i < count; ++i)
        for (unsigned bit = 0; bit < 32; ++bit) {
            if (!(words[i] >> bit & 1)) continue;
            const uint64_t index = i * 32 + bit;
            const auto found = indexToName.find(index);
            if (found == indexToName.end()) {
                KSLOG_WARN(static_cast<unsigned long>(std::max(channel_, 0L)),
                           "trying to decode unknown parental index: {:d}({:d}:{:d})", index, i, bit);
                continue;
            }
            names.insert(found->second);
        }
    return names;
}

void ParentalCategoryTranslator::uninit() {
    nameToIndex.clear();
    indexToName.clear();
    wordCount = 0;
    if (channel_ >= 0) log::close_channel(static_cast<unsigned long>(channel_));
    channel_ = -1;
}

}  // namespace ks
