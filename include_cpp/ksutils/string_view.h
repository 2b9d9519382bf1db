/// @file
/// The library's non-owning character view. It is the standard view with one addition,
/// split(), so it converts freely to and from std::string and std::string_view.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ks {

using std::char_traits;

/// The standard string view with split() and str().
template <class CharT, class Traits = char_traits<CharT>>
class basic_string_view : public std::basic_string_view<CharT, Traits> {
    using base = std::basic_string_view<CharT, Traits>;

public:
    using base::base;
    using typename base::size_type;
    /// The standard "no position" value.
    static constexpr size_type npos = base::npos;

    constexpr basic_string_view() noexcept = default;
    /// Converts a standard view.
    constexpr basic_string_view(base view) noexcept : base(view) {}
    /// Views the characters of `s`.
    template <class Alloc>
    basic_string_view(const std::basic_string<CharT, Traits, Alloc>& s) noexcept : base(s) {}

    /// The standard substr(), returning this view type.
    constexpr basic_string_view substr(size_type pos = 0, size_type count = npos) const {
        return base::substr(pos, count);
    }

    /// Splits at every `sep`; at most `max` pieces when max > 0, the last one then holding
    /// the rest of the text unsplit. An empty view gives one empty piece.
    std::vector<basic_string_view> split(CharT sep, size_t max = 0) const {
        std::vector<basic_string_view> pieces;
        size_type start = 0;
        for (;;) {
            if (max != 0 && pieces.size() + 1 == max) break;
            size_type pos = base::find(sep, start);
            if (pos == npos) break;
            pieces.emplace_back(base::data() + start, pos - start);
            start = pos + 1;
        }
        pieces.emplace_back(base::data() + start, base::size() - start);
        return pieces;
    }

    /// A string copied from the view.
    std::basic_string<CharT, Traits> str() const { return std::basic_string<CharT, Traits>(*this); }
};

/// The library's character view.
using string_view = basic_string_view<char>;

}  // namespace ks
