// Texts shared by the command-line parser's parsing, checking and help: joined name lists
// and the label a positional goes by.
#pragma once

#include <ksutils/cmdline.h>

#include <string>
#include <vector>

namespace ks {
namespace cl {
namespace detail {

inline std::string join(const std::vector<ks::string_view>& pieces, ks::string_view separator) {
    std::string text;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i != 0) text.append(separator.data(), separator.size());
        text.append(pieces[i].data(), pieces[i].size());
    }
    return text;
}

// A positional is shown by its value name, or by its name when it has none.
inline ks::string_view positional_label(const option_base& option) {
    if (!option.value_name().empty()) return option.value_name();
    return option.names().empty() ? ks::string_view() : option.names().front();
}

// The names an option is given by on the command line: its own, or its named values'.
inline std::vector<ks::string_view> given_names(const option_base& option) {
    return option.names().empty() ? option.value_names() : option.names();
}

}  // namespace detail
}  // namespace cl
}  // namespace ks
