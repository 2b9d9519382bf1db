// Command line: the option objects and their registration with the parser.
//
// An option registers itself, at construction, into every sub-command it belongs to: its
// names go into the sub-command's name map, positionals into its ordered list. Declaration
// mistakes are programming errors and abort at once with a message naming them, so a daemon
// with a broken command line never starts. Destroying an option takes it out of the parser,
// and destroying the sub-command selector takes its sub-commands with it, so the same
// declarations can be made again (tests do).
#include <ksutils/cmdline.h>
#include <ksutils/error.h>
#include <ksutils/miscutl.h>

#include <fmt/format.h>

#include <algorithm>

#include "cmdline_text.h"

namespace ks {
namespace cl {
namespace {

template <class... Args>
void abort_if_fmt(bool condition, const char* format, const Args&... args) {
    if (!condition) return;
    const std::string message = fmt::format(fmt::runtime(format), args...);
    ks::abort_if(true, message);
}

std::string label_of(const command_line_parser::sub_command& sub) {
    if (sub.name.empty()) return "the default subcommand";
    return fmt::format("subcommand '{:s}'", sub.name);
}

}  // namespace

namespace detail {

void option_parser_base::anchor() {}
option_parser_base::~option_parser_base() = default;
void option_parser_base::initialize(option_base&) {}

bool option_parser_base::needs_param(option_base& option) {
    if (option.names().empty()) return false;
    return (option.attributes() & kFlag) == 0;
}

// Booleans need nothing prepared: their accepted texts are fixed.
void option_parser<bool, false>::initialize(option_base&) {}

bool option_parser<bool, false>::parse(const option_base& option, const ks::string_view& name,
                                       const ks::string_view& value, bool& out) const {
    if (option.named_values().empty()) return parse_bool(value, out);
    const ks::cl::named_value* choice = option.named_value(option.names().empty() ? name : value);
    if (choice == nullptr) return false;
    out = choice->value != 0;
    return true;
}

bool option_parser<bool, false>::parse_bool(const ks::string_view& text, bool& out) {
    if (text.empty() || text == "true" || text == "yes" || text == "1") {
        out = true;
        return true;
    }
    if (text == "false" || text == "no" || text == "0") {
        out = false;
        return true;
    }
    return false;
}

// A text option given by name always takes a text, whatever its other attributes say.
bool option_parser<ks::basic_string_view<char>, false>::needs_param(option_base& option) {
    return !option.names().empty();
}

bool option_parser<ks::basic_string_view<char>, false>::parse(const option_base& option,
                                                              const ks::string_view& name,
                                                              const ks::string_view& value,
                                                              ks::string_view& out) const {
    if (option.named_values().empty()) {
        out = value;
        return true;
    }
    const bool unnamed = option.names().empty();
    const ks::cl::named_value* choice = option.named_value(unnamed ? name : value);
    if (choice == nullptr) return false;
    out = unnamed ? choice->name : value;
    return true;
}

void check_separator(ks::string_view text) {
    ks::abort_if(text.size() != 1, "cl::separator() takes exactly one character");
}

option_base::option_base(option_parser_base& parser, int attributes)
    : attributes_(attributes), value_parser_(parser) {
    ks::abort_if((attributes & kKindMask) == 0, "No type bit set");
}

option_base::~option_base() {
    if (parser_) parser_->unregister_option(this);
}

int option_base::int_val() const { return 0; }

const void* option_base::value_location() const { return nullptr; }

void option_base::register_self(std::shared_ptr<command_line_parser> parser) {
    if ((attributes_ & kFlag) == 0) {
        ks::abort_if(!storage_allocated(), "You must add storage to this option using ks::cl::storage()!");
    }
    value_parser_.initialize(*this);
    parser_ = std::move(parser);
    parser_->register_option(this);
}

const ks::cl::named_value* option_base::named_value(ks::string_view name) const {
    for (const auto& entry : named_values_) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

std::vector<ks::string_view> option_base::value_names() const {
    std::vector<ks::string_view> result;
    result.reserve(named_values_.size());
    for (const auto& entry : named_values_) result.push_back(entry.name);
    return result;
}

}  // namespace detail

int flag::int_val() const { return value() ? 1 : 0; }
flag::~flag() = default;

bool flag::handle(const ks::string_view&, const ks::string_view&) {
    value() = !value();
    return true;
}

bool flag::storage_allocated() { return true; }
void flag::anchor() {}
const void* flag::value_location() const { return &value(); }

std::shared_ptr<command_line_parser> parser() {
    static std::shared_ptr<command_line_parser> instance = std::make_shared<command_line_parser>();
    return instance;
}

bool parse(int argc, char** argv) { return parser()->parse(argc, argv); }
void print_help(FILE* out) { parser()->print_help(out); }
void print_usage(FILE* out) { parser()->print_usage(out); }

command_line_parser::command_line_parser() { sub_commands_.push_back(sub_command{-1, {}, {}, {}, {}, nullptr}); }

void command_line_parser::register_option(detail::option_base* option) {
    const bool unnamed = option->names().empty();
    const int attributes = option->attributes();
    ks::abort_if(unnamed && option->named_values().empty(), "Option has no names and no named values");
    ks::abort_if(unnamed && (attributes & Prefix), "Prefix options must be named");
    ks::abort_if(unnamed && (attributes & SeparatedList), "cl::SeparatedList can only be used on named lists");
    ks::abort_if((attributes & SeparatedList) && !(attributes & kList),
                 "cl::SeparatedList can only be used with cl::list<>()");

    if ((attributes & kSubCommands) == 0) {
        if (option->sub_command_names().empty()) {
            // Index, not iterator: registering never adds sub-commands, but stay safe.
            for (size_t i = 0; i < sub_commands_.size(); ++i) register_option(&sub_commands_[i], option);
            return;
        }
        for (ks::string_view name : option->sub_command_names()) {
            sub_command* sub = get_subcommand(name);
            abort_if_fmt(sub == nullptr, "Subcommand does not exist: {:s}", name);
            register_option(sub, option);
        }
        return;
    }

    ks::abort_if(selector_ != nullptr, "You have already defined the subcommands list");
    ks::abort_if(!unnamed, "Subcommand definition must be unnamed");
    for (const auto& entry : option->named_values()) add_subcommand(entry.value, entry.name);
    selector_ = option;
    register_option(&sub_commands_.front(), option);
}

void command_line_parser::register_option(sub_command* sub, detail::option_base* option) {
    const int attributes = option->attributes();
    if ((attributes & Positional) == 0) {
        const std::vector<ks::string_view> names = detail::given_names(*option);
        ks::abort_if(names.empty(), "Option has no parsable names");
        for (ks::string_view name : names) {
            ks::abort_if(name.empty(), "Cannot register options with empty names");
            abort_if_fmt(sub->names.count(name) != 0, "Duplicate option name '{:s}' in {:s}", name, label_of(*sub));
            ks::abort_if(name == sub->name, "Option name cannot duplicate subcommand name");
            sub->names.emplace(name, option);
        }
        sub->options.push_back(option);
        return;
    }

    ks::abort_if(option->names().empty(), "Positionals must be named");
    ks::abort_if(option->names().size() > 1, "Positionals cannot have aliases");
    if (attributes & Sink) {
        ks::abort_if(!(attributes & kList), "Only lists can be set as sinks");
        abort_if_fmt(sub->sink != nullptr, "You cannot set multiple sinks in {:s}", label_of(*sub));
        sub->sink = option;
        return;
    }
    ks::abort_if((attributes & kList) && !(attributes & SeparatedList),
                 "Non-separated lists cannot be set as positionals");
    sub->positionals.push_back(option);
}

command_line_parser::sub_command* command_line_parser::add_subcommand(long id, ks::string_view name) {
    for (const auto& sub : sub_commands_) {
        abort_if_fmt(sub.id == id, "Duplicate subcommand ID: {:d}", id);
        abort_if_fmt(sub.name == name, "Duplicate subcommand name: {:s}", name);
    }
    sub_commands_.push_back(sub_command{id, name, {}, {}, {}, nullptr});
    return &sub_commands_.back();
}

command_line_parser::sub_command* command_line_parser::get_subcommand(long id) {
    for (auto& sub : sub_commands_) {
        if (sub.id == id) return &sub;
    }
    return nullptr;
}

command_line_parser::sub_command* command_line_parser::get_subcommand(ks::string_view name) {
    for (auto& sub : sub_commands_) {
        if (sub.name == name) return &sub;
    }
    return nullptr;
}

void command_line_parser::unregister_option(detail::option_base* option) {
    for (auto& sub : sub_commands_) unregister_option(&sub, option);
    if (option == selector_) {
        selector_ = nullptr;
        sub_commands_.erase(sub_commands_.begin() + 1, sub_commands_.end());
        selected_ = 0;
    }
}

void command_line_parser::unregister_option(sub_command* sub, detail::option_base* option) {
    if (sub->sink == option) {
        sub->sink = nullptr;
        return;
    }
    if ((option->attributes() & Positional) == 0) {
        for (auto it = sub->names.begin(); it != sub->names.end();) {
            it = it->second == option ? sub->names.erase(it) : std::next(it);
        }
        sub->options.erase(std::remove(sub->options.begin(), sub->options.end(), option), sub->options.end());
        return;
    }
    sub->positionals.erase(std::remove(sub->positionals.begin(), sub->positionals.end(), option),
                           sub->positionals.end());
}

}  // namespace cl
}  // namespace ks
