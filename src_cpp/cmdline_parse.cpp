// Command line: turning argv into option values, then checking how often each was given.
//
// Arguments are walked once, left to right. A name is matched by the longest registered
// name that begins the argument, so "-log-config=x" and "-Iinclude" need no separator
// table; what is left after the name decides between "=value", a Prefix value, a cluster of
// one-letter flags and a mistake. Every mistake names the argument by its number (argv[1]
// is 1) and stops the parse; values taken before it stay.
#include <ksutils/cmdline.h>
#include <ksutils/error.h>
#include <ksutils/miscutl.h>

#include <algorithm>

#include "cmdline_text.h"

namespace ks {
namespace cl {
namespace {

using detail::option_base;

// Offers `value` to the option, cut at its separator when it is a separated list (an empty
// text then carries no value at all). Each accepted piece counts as one occurrence. On
// refusal, `refused` is the piece the option did not take.
bool offer(option_base& option, ks::string_view name, ks::string_view value, int position,
           ks::string_view& refused) {
    if (!option.has(SeparatedList)) {
        if (!option.handle(name, value)) {
            refused = value;
            return false;
        }
        option.occurred(position);
        return true;
    }
    if (value.empty()) return true;
    const char separator = option.separator().front();
    size_t start = 0;
    for (;;) {
        const size_t end = value.find(separator, start);
        const ks::string_view piece = value.substr(start, end == ks::string_view::npos ? end : end - start);
        if (!option.handle(name, piece)) {
            refused = piece;
            return false;
        }
        option.occurred(position);
        if (end == ks::string_view::npos) return true;
        start = end + 1;
    }
}

ks::string_view bound_word(int min, int max, ks::string_view otherwise) {
    return min == max ? ks::string_view("exactly") : otherwise;
}

}  // namespace

bool command_line_parser::parse(int argc, char** argv) {
    dashdash_seen_ = false;
    selected_ = 0;
    program_name_ = (argc > 0 && argv != nullptr && argv[0] != nullptr) ? ks::string_view(argv[0]) : "";
    std::vector<ks::string_view> args;
    for (int i = 1; i < argc && argv != nullptr; ++i) args.emplace_back(argv[i] != nullptr ? argv[i] : "");
    if (args.empty()) return validate_argument_counts(&sub_commands_.front());

    // The sub-command is chosen first, so that the options of the whole line are looked
    // up among its names wherever the selecting argument stands.
    size_t selecting = args.size();
    if (selector_ != nullptr) {
        for (size_t i = 0; i < args.size(); ++i) {
            const ks::string_view arg = args[i];
            if (arg == "--") break;
            if (arg.empty() || arg.front() != '-') continue;
            const ks::string_view name = arg.substr(1);
            if (!selector_->handle(name, {})) continue;
            selector_->occurred(static_cast<int>(i + 1));
            sub_command* chosen = get_subcommand(name);
            ks::abort_if(chosen == nullptr, "BUG! Report this at once!");
            selected_ = static_cast<size_t>(chosen - sub_commands_.data());
            selecting = i;
            break;
        }
    }
    sub_command& sub = sub_commands_[selected_];
    auto& errors = ks::_get_kserrno();

    size_t longest_name = 0;
    for (const auto& entry : sub.names) longest_name = std::max(longest_name, entry.first.size());

    option_base* waiting = nullptr;  // an option whose value is the next argument
    ks::string_view waiting_name;
    int waiting_number = 0;
    size_t next_positional = 0;
    ks::string_view refused;

    // Hands one option its value given under `name`, reporting a refusal.
    auto take = [&](option_base& option, ks::string_view name, ks::string_view value, int number) {
        if (offer(option, name, value, number, refused)) return true;
        errors.set(E_INVAL, "Parameter {:d}: '{:s}' invalid value for parameter '{:s}'", number, refused, name);
        return false;
    };

    auto positional = [&](ks::string_view arg, int number) {
        if (waiting != nullptr) {
            option_base& option = *waiting;
            waiting = nullptr;
            return take(option, waiting_name, arg, number);
        }
        if (next_positional < sub.positionals.size()) {
            option_base& option = *sub.positionals[next_positional++];
            if (offer(option, option.names().front(), arg, number, refused)) return true;
            errors.set(E_INVAL, "Parameter {:d}: '{:s}' invalid value", number, refused);
            return false;
        }
        if (sub.sink != nullptr) {
            if (offer(*sub.sink, sub.sink->names().front(), arg, number, refused)) return true;
            errors.set(E_INVAL, "Parameter {:d}: '{:s}' invalid value'", number, refused);
            return false;
        }
        errors.set(E_FAULT, "Unexpected extra parameter(s) found starting at position {:d}", number);
        return false;
    };

    // One-letter options written together (-xvf), taken from the last letter to the first.
    auto cluster = [&](ks::string_view letters, int number) {
        for (size_t i = letters.size(); i-- > 0;) {
            const ks::string_view letter = letters.substr(i, 1);
            auto found = sub.names.find(letter);
            if (found == sub.names.end()) {
                errors.set(E_NOENT, "Parameter {:d}: unknown option '-{:s}'", number, letter);
                return false;
            }
            if (!take(*found->second, letter, {}, number)) return false;
        }
        return true;
    };

    for (size_t i = 0; i < args.size(); ++i) {
        const ks::string_view arg = args[i];
        const int number = static_cast<int>(i + 1);
        if (dashdash_seen_) {
            if (!positional(arg, number)) return false;
            continue;
        }
        if (i == selecting) {
            if (waiting != nullptr) {
                errors.set(E_INVAL, "Parameter {:d}: option '-{:s}' expects positional argument but '{:s}' found",
                           number, waiting_name, arg);
                return false;
            }
            continue;
        }
        if (arg == "--") {
            dashdash_seen_ = true;
            continue;
        }
        if (arg.empty() || arg.front() != '-') {
            if (!positional(arg, number)) return false;
            continue;
        }
        if (waiting != nullptr) {
            errors.set(E_INVAL, "Parameter {:d}: option '-{:s}' expects positional argument but '{:s}' found",
                       number, waiting_name, arg);
            return false;
        }

        const ks::string_view text = arg.substr(1);
        if (text.empty()) {
            errors.set(E_INVAL, "Parameter {:d}: expected parameter name after '-'", number);
            return false;
        }
        option_base* option = nullptr;
        ks::string_view name;
        for (size_t length = std::min(text.size(), longest_name); length > 0 && option == nullptr; --length) {
            auto found = sub.names.find(text.substr(0, length));
            if (found == sub.names.end()) continue;
            option = found->second;
            name = found->first;
        }
        if (option == nullptr) {
            if (!cluster(text, number)) return false;
            continue;
        }
        const ks::string_view rest = text.substr(name.size());
        const bool takes_value = option->value_parser().needs_param(*option);

        if (option->has(Prefix)) {
            if (!rest.empty() && !takes_value) {
                errors.set(E_FAULT, "Parameter {:d}: '-{:s}' does not take a value", number, name);
                return false;
            }
            if (!take(*option, name, rest, number)) return false;
        } else if (takes_value) {
            if (!rest.empty()) {
                if (rest.front() != '=') {
                    errors.set(E_FAULT, "Parameter {:d}: incorrect usage, please use '-{:s}={:s}' or '-{:s} {:s}' instead",
                               number, name, rest, name, rest);
                    return false;
                }
                if (!take(*option, name, rest.substr(1), number)) return false;
            } else if (i + 1 == args.size()) {
                errors.set(E_INVAL, "Parameter {:d}: you must specify a value for '-{:s}'", number, name);
                return false;
            } else {
                waiting = option;
                waiting_name = name;
                waiting_number = number;
            }
        } else if (rest.empty()) {
            if (!take(*option, name, {}, number)) return false;
        } else if (option->attributes() & kFlag) {
            if (!cluster(text, number)) return false;
        } else {
            errors.set(E_INVAL, "Parameter {:d}: '-{:s}' does not take a value", number, name);
            return false;
        }
    }
    // "-name --" at the end: the separator was taken, the value never came.
    if (waiting != nullptr) {
        errors.set(E_INVAL, "Parameter {:d}: you must specify a value for '-{:s}'", waiting_number, waiting_name);
        return false;
    }
    return validate_argument_counts(&sub);
}

bool command_line_parser::validate_argument_counts(sub_command* sub) {
    if (sub == nullptr) sub = &sub_commands_.front();
    const auto& options = sub->options;
    std::vector<bool> checked(options.size(), false);
    for (size_t i = 0; i < options.size(); ++i) {
        if (checked[i]) continue;
        // Options keeping their value in one variable are alternatives: count them together.
        std::vector<option_base*> group{options[i]};
        const void* location = options[i]->value_location();
        for (size_t j = i + 1; j < options.size() && location != nullptr; ++j) {
            if (options[j]->value_location() != location) continue;
            group.push_back(options[j]);
            checked[j] = true;
        }
        if (!(group.size() > 1 ? check_group(group) : check_option(*options[i]))) return false;
    }
    return check_positionals(*sub);
}

bool command_line_parser::check_option(option_base& option) {
    auto& errors = ks::_get_kserrno();
    const int count = option.occurrences();
    const int min = option.min_occurrences();
    const int max = option.max_occurrences();
    const bool unnamed = option.names().empty();
    const ks::string_view name = unnamed ? ks::string_view() : option.names().front();
    // An unnamed option is given by its named values, which stand for one another.
    const std::string alternatives = detail::join(option.value_names(), "|");

    if (count > max) {
        if (max == 1 && !unnamed) {
            errors.set(E_FAULT, "Option '{:s}' can only be used {:s} once", name, bound_word(min, max, "at most"));
        } else if (max == 1) {
            errors.set(E_FAULT, "{:s}: any of these options can be specified at most once", alternatives);
        } else {
            const std::string shown = unnamed ? alternatives : "-" + std::string(name);
            errors.set(E_FAULT, "{:s}: these options can be used at most {:d} times (in any combination)", shown, max);
        }
        return false;
    }
    if (count >= min) return true;

    const ks::string_view word = bound_word(min, max, "at least");
    if (unnamed) {
        if (min == 1 && min == max) {
            errors.set(E_NOENT, "One of the following options must be specified exactly once: {:s}", alternatives);
        } else if (min == 1) {
            errors.set(E_NOENT, "One of the following options must be specified at least once: {:s}", alternatives);
        } else if (min == max) {
            errors.set(E_NOENT, "One or more of the following options must be specified exactly {:d} times: {:s}", min,
                       alternatives);
        } else {
            errors.set(E_NOENT, "One or more of the following options must be specified at least {:d} times: {:s}",
                       min, alternatives);
        }
    } else if (option.attributes() & kFlag) {
        errors.set(E_NOENT, "Required option '{:s}' not found", name);
    } else if (option.attributes() & kList) {
        if (min == 1 && min == max) {
            errors.set(E_NOENT, "Option '-{:s}' must be used exacly once", name);
        } else if (min == max) {
            errors.set(E_NOENT, "Option '-{:s}' must be used exactly {:d} times", name, min);
        } else if (min == 1) {
            errors.set(E_NOENT, "Option '-{:s}' must be used at least once", name);
        } else {
            errors.set(E_NOENT, "Option '-{:s}' must be used at least {:d} times", name, min);
        }
    } else if (min == 1) {
        errors.set(E_NOENT, "Option '-{:s}' must be specified {:s} once", name, word);
    } else {
        errors.set(E_NOENT, "Option '-{:s}' must be specified {:s} {:d} times", name, word, min);
    }
    return false;
}

bool command_line_parser::check_group(const std::vector<option_base*>& group) {
    auto& errors = ks::_get_kserrno();
    // The group is held to the strictest bounds any of its members declares.
    int count = 0;
    int min = 0;
    int max = 0x7fffffff;
    std::vector<ks::string_view> names;
    for (option_base* option : group) {
        count += option->occurrences();
        min = std::max(min, option->min_occurrences());
        max = std::min(max, option->max_occurrences());
        const auto given = detail::given_names(*option);
        if (option->names().empty()) {
            names.insert(names.end(), given.begin(), given.end());
        } else {
            names.push_back(given.front());
        }
    }
    const std::string alternatives = detail::join(names, "|-");
    if (count > max) {
        if (max == 1) {
            errors.set(E_FAULT, "-{:s}: any of these options can be specified at most once", alternatives);
        } else {
            errors.set(E_FAULT, "-{:s}: these options can be used at most {:d} times (in any combination)",
                       alternatives, max);
        }
        return false;
    }
    if (count >= min) return true;
    const ks::string_view word = bound_word(min, max, "at least");
    if (min == 1) {
        errors.set(E_NOENT, "One of the following options must be specified {:s} once: -{:s}", word, alternatives);
    } else {
        errors.set(E_NOENT, "One or more of the following options must be specified {:s} {:d} times: -{:s}", word, min,
                   alternatives);
    }
    return false;
}

bool command_line_parser::check_positionals(const sub_command& sub) {
    auto& errors = ks::_get_kserrno();
    bool any_given = sub.sink != nullptr && sub.sink->occurrences() > 0;
    for (const option_base* option : sub.positionals) any_given = any_given || option->occurrences() > 0;

    int missing = 0;
    const option_base* first_missing = nullptr;
    for (const option_base* option : sub.positionals) {
        const int count = option->occurrences();
        if (count == 0) {
            if (option->min_occurrences() > 0) {
                ++missing;
                if (first_missing == nullptr) first_missing = option;
            }
            continue;
        }
        // A positional list got its argument; now its values are counted.
        if (option->attributes() & kList) {
            if (count < option->min_occurrences()) {
                errors.set(E_NOENT, "{:d} value(s) for parameter <{:s}> are missing at the end of the command line",
                           option->min_occurrences() - count, detail::positional_label(*option));
                return false;
            }
            if (count > option->max_occurrences()) {
                errors.set(E_NOENT, "{:d} extra value(s) for parameter <{:s}> at the end of the command line",
                           count - option->max_occurrences(), detail::positional_label(*option));
                return false;
            }
        }
    }
    if (sub.sink != nullptr) {
        const int count = sub.sink->occurrences();
        if (count > sub.sink->max_occurrences()) {
            errors.set(E_NOENT, "{:d} extra parameter(s) at the end of the command line",
                       count - sub.sink->max_occurrences());
            return false;
        }
        if (count < sub.sink->min_occurrences()) {
            missing += sub.sink->min_occurrences() - count;
            if (first_missing == nullptr) first_missing = sub.sink;
        }
    }
    if (missing == 0) return true;
    if (missing > 1) {
        errors.set(E_NOENT, "{:d} required parameters are missing from the end of the command line", missing);
        return false;
    }
    // When some positionals were given, the missing one is what the line stops short of.
    const ks::string_view label = detail::positional_label(*first_missing);
    if (label.empty()) {
        errors.set(E_NOENT, any_given ? "A required parameter is missing at end of the command line"
                                      : "A required parameter is missing");
    } else if (any_given) {
        errors.set(E_NOENT, "Required parameter <{:s}> missing at the end of the command line", label);
    } else {
        errors.set(E_NOENT, "Required parameter <{:s}> is missing", label);
    }
    return false;
}

}  // namespace cl
}  // namespace ks
