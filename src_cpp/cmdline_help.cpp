// Command line: the synopsis of each sub-command and the help text.
//
// The synopsis shows what must be given and hints at the rest ("[options]", "[--]");
// the help lists every option of every sub-command with its help text in one column.
// Output goes through {fmt}, so a failed write raises its system error.
#include <ksutils/cmdline.h>

#include <fmt/format.h>

#include "cmdline_text.h"

namespace ks {
namespace cl {
namespace {

using detail::option_base;

// Help texts start in this column (after the indent) unless the option's own text is wider.
constexpr size_t kHelpColumn = 24;
// Help texts are folded to stay within this width, when there is room to fold them.
constexpr size_t kLineWidth = 80;
constexpr size_t kNarrowestFold = 24;

bool is_list(const option_base& option) { return (option.attributes() & kList) != 0; }
bool is_required(const option_base& option) { return option.min_occurrences() > 0; }

// Splits `text` into lines of at most `width` bytes at blanks (a longer word stays whole).
std::vector<ks::string_view> fold(ks::string_view text, size_t width) {
    std::vector<ks::string_view> lines;
    while (text.size() > width) {
        size_t cut = text.rfind(' ', width);
        if (cut == ks::string_view::npos || cut == 0) cut = text.find(' ');
        if (cut == ks::string_view::npos) break;
        lines.push_back(text.substr(0, cut));
        text = text.substr(cut + 1);
    }
    lines.push_back(text);
    return lines;
}

void print_help_text(FILE* out, ks::string_view help, size_t column) {
    const size_t room = column < kLineWidth ? kLineWidth - column : 0;
    const std::vector<ks::string_view> lines = room >= kNarrowestFold ? fold(help, room) : std::vector{help};
    fmt::print(out, "{:s}\n", lines.front());
    for (size_t i = 1; i < lines.size(); ++i) fmt::print(out, "{:{}s}{:s}\n", "", column, lines[i]);
}

}  // namespace

namespace detail {

void option_base::print_help(FILE* out, ks::string_view indent) const {
    std::string text;
    if (has(Positional)) {
        text = fmt::format("<{:s}>{:s}", positional_label(*this), is_list(*this) ? "..." : "");
    } else if (!names_.empty()) {
        text = "-" + join(names_, ",-");
        if (value_parser_.needs_param(const_cast<option_base&>(*this))) {
            text += fmt::format("{:s}<{:s}>", has(Prefix) ? "" : " ", value_name_.empty() ? "VALUE" : value_name_);
        }
    }

    if (text.empty()) {
        // Given by its named values alone: the help introduces the list below.
        if (!help_.empty()) {
            fmt::print(out, "{:s}", indent);
            print_help_text(out, help_, indent.size());
        }
    } else if (help_.empty()) {
        fmt::print(out, "{:s}{:s}\n", indent, text);
    } else {
        const size_t width = std::max(text.size(), kHelpColumn);
        fmt::print(out, "{:s}{:<{}s}  ", indent, text, width);
        print_help_text(out, help_, indent.size() + width + 2);
    }

    // Named values go under the option's line; with no line at all they stand in its place.
    const ks::string_view nesting = text.empty() && help_.empty() ? "" : "  ";
    for (const auto& entry : named_values_) {
        if (entry.help.empty()) {
            fmt::print(out, "{:s}{:s}{:s}\n", indent, nesting, entry.name);
        } else {
            fmt::print(out, "{:s}{:s}{:s} - {:s}\n", indent, nesting, entry.name, entry.help);
        }
    }
}

}  // namespace detail

std::string command_line_parser::command_line_string(sub_command* sub) {
    if (sub == nullptr) sub = &sub_commands_.front();
    std::string line(program_name_);
    if (!sub->name.empty()) line += fmt::format(" -{:s}", sub->name);

    bool has_optional = false;
    for (option_base* option : sub->options) {
        if (!is_required(*option)) {
            has_optional = true;
            continue;
        }
        if (option->names().empty()) {
            line += fmt::format(" -{:s}", detail::join(option->value_names(), "|-"));
            continue;
        }
        line += fmt::format(" -{:s}", detail::join(option->names(), "|"));
        if (!option->value_parser().needs_param(*option)) continue;
        const bool prefix = option->has(Prefix);
        if (option->named_values().empty()) {
            const ks::string_view value = option->value_name().empty() ? "VALUE" : option->value_name();
            line += fmt::format(" {:s}<{:s}>", prefix ? "" : "=", value);
        } else {
            line += fmt::format(" {:s}{:s}>", prefix ? "<" : "=<", detail::join(option->value_names(), "|"));
        }
    }
    if (has_optional) line += " [options]";

    std::vector<option_base*> positionals = sub->positionals;
    if (sub->sink != nullptr) positionals.push_back(sub->sink);
    if (!positionals.empty()) line += " [--]";
    for (option_base* option : positionals) {
        const bool required = is_required(*option);
        const ks::string_view label = detail::positional_label(*option);
        if (is_list(*option)) {
            line += fmt::format(" {:c}{:s}{:c}{:s}", required ? '<' : '[', label, required ? '>' : ']', "...");
        } else if (required) {
            line += fmt::format(" <{:s}>", label);
        } else {
            line += fmt::format(" {:c}{:s}{:c}", '[', label, ']');
        }
    }
    return line;
}

std::vector<std::string> command_line_parser::command_line_strings() {
    std::vector<std::string> lines;
    lines.reserve(sub_commands_.size());
    for (auto& sub : sub_commands_) lines.push_back(command_line_string(&sub));
    return lines;
}

void command_line_parser::print_usage(FILE* out) {
    fmt::print(out, "Usage:\n");
    for (const std::string& line : command_line_strings()) fmt::print(out, "  {:s}\n", line);
}

void command_line_parser::print_help(FILE* out) {
    print_usage(out);
    sub_command& top = sub_commands_.front();
    if (!top.options.empty() || !top.positionals.empty() || top.sink != nullptr) {
        fmt::print(out, "\nParameters:\n");
        print_help(out, &top, "  ");
    }
    for (size_t i = 1; i < sub_commands_.size(); ++i) {
        fmt::print(out, "\nParameters for the '-{:s}' sub-command:\n", sub_commands_[i].name);
        print_help(out, &sub_commands_[i], "  ");
    }
}

void command_line_parser::print_help(FILE* out, sub_command* sub, ks::string_view indent) {
    if (sub == nullptr) sub = &sub_commands_.front();
    std::vector<const option_base*> all(sub->options.begin(), sub->options.end());
    all.insert(all.end(), sub->positionals.begin(), sub->positionals.end());
    if (sub->sink != nullptr) all.push_back(sub->sink);

    const std::string inner = std::string(indent) + "  ";
    for (const bool required : {true, false}) {
        bool headed = false;
        for (const option_base* option : all) {
            if (is_required(*option) != required) continue;
            if (!headed) fmt::print(out, "{:s}{:s}\n", indent, required ? "Required:" : "Optional:");
            headed = true;
            option->print_help(out, inner);
        }
    }
}

}  // namespace cl
}  // namespace ks
