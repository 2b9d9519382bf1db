/// @file
/// @brief Declarative command line: options, lists, flags and sub-commands, with generated help.
///
/// A program declares its options as objects, each of which
/// registers itself with a command_line_parser (by default the process-wide one) and is filled
/// in by parse(). Options are declared with a list of modifiers that reads like a sentence:
///
/// @code
///     ks::cl::flag no_detach{"no-detach", ks::cl::in("start"), ks::cl::at_most(1),
///                            ks::cl::help("do not detach from the controlling terminal")};
///     ks::cl::opt<ks::string_view> log_config{"log-config", ks::cl::in("execute-log-config"),
///                                             ks::cl::exactly(1), ks::cl::value_name("FILE")};
/// @endcode
///
/// Plain texts are the names (the first is the name, the others aliases). Mistakes in a
/// declaration abort the process with a message; mistakes on the command line make parse()
/// return false with the thread's error record set. Options point at the texts they are given
/// and copy none of them, so names, help and value names must be static text.
#pragma once

#include <ksexport.h>
#include <ksutils/string_view.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace ks {
/// The declarative command line.
namespace cl {

/// @name Option kinds
/// Kind bits of an option's attribute word; exactly the bits under kKindMask select the kind.
/// @{
constexpr int kSingleValued = 0x10000;  ///< An opt: a single value.
constexpr int kList = 0x20000;          ///< A list: several values.
constexpr int kFlag = 0x40000;          ///< A flag: a switch without value.
constexpr int kSubCommands = 0x80000;   ///< The sub_commands selector.
constexpr int kKindMask = 0x7f0000;     ///< The kind bits of an attribute word.
/// @}

/// Behaviour bits, usable as modifiers in a declaration.
enum attribute : int {
    Positional = 0x1,     ///< matched by position, not by -name
    Sink = 0x2,           ///< with Positional: the list that takes every positional left over
    Prefix = 0x4,         ///< the value may follow the name directly (-Ivalue)
    SeparatedList = 0x8,  ///< one argument carries several values divided by the separator
};
/// Combines behaviour bits into one modifier.
constexpr attribute operator|(attribute a, attribute b) { return attribute(int(a) | int(b)); }

/// One value an option accepts by name; for an option without names, each named value is
/// an option name of its own (-start, -stop).
struct named_value {
    ks::string_view help;  ///< Its line in the help text.
    ks::string_view name;  ///< The text that selects it.
    long value;            ///< The number (or enumerator) the option takes for it.
};

class command_line_parser;

namespace detail {

class option_base;
struct option_builder;

class KS_EXPORT option_parser_base {
public:
    virtual void anchor();
    virtual ~option_parser_base();
    virtual void initialize(option_base& option);
    // Whether the option, given by name, takes a value after "=" or as the next argument.
    virtual bool needs_param(option_base& option);
};

class KS_EXPORT option_base {
public:
    option_base(const option_base&) = delete;
    option_base& operator=(const option_base&) = delete;

    virtual int int_val() const;
    virtual ~option_base();
    // Takes one value given under `name`; false refuses it.
    virtual bool handle(const ks::string_view& name, const ks::string_view& value) = 0;
    virtual bool storage_allocated() = 0;
    // Where the value lives; options sharing one location are checked as one group.
    virtual const void* value_location() const;

    void register_self(std::shared_ptr<command_line_parser> parser);

    const ks::cl::named_value* named_value(ks::string_view name) const;
    std::vector<ks::string_view> value_names() const;
    void print_help(FILE* out, ks::string_view indent) const;

    // The parser the option is registered with; empty while unregistered.
    const std::shared_ptr<command_line_parser>& registry() const { return parser_; }
    const std::vector<ks::string_view>& names() const { return names_; }
    ks::string_view help() const { return help_; }
    ks::string_view value_name() const { return value_name_; }
    int attributes() const { return attributes_; }
    int kind() const { return attributes_ & kKindMask; }
    bool has(attribute bit) const { return (attributes_ & bit) != 0; }
    int position() const { return position_; }
    const std::vector<ks::cl::named_value>& named_values() const { return named_values_; }
    option_parser_base& value_parser() const { return value_parser_; }
    ks::string_view separator() const { return separator_; }
    const std::vector<ks::string_view>& sub_command_names() const { return sub_command_names_; }
    int occurrences() const { return occurrences_; }
    int min_occurrences() const { return min_occurrences_; }
    int max_occurrences() const { return max_occurrences_; }

    // Counts one accepted value given at argument `position` (argv index).
    void occurred(int position) {
        position_ = position;
        ++occurrences_;
    }

protected:
    option_base(option_parser_base& parser, int attributes);

private:
    friend struct option_builder;

    std::shared_ptr<command_line_parser> parser_;
    std::vector<ks::string_view> names_;
    ks::string_view help_;
    ks::string_view value_name_;
    int32_t attributes_;
    int32_t position_ = 0;
    std::vector<ks::cl::named_value> named_values_;
    option_parser_base& value_parser_;
    ks::string_view separator_ = ",";
    std::vector<ks::string_view> sub_command_names_;
    int32_t occurrences_ = 0;
    int32_t min_occurrences_ = 0;
    int32_t max_occurrences_ = 0x7fffffff;
};

// Holds an option's value: inside the option, or (Internal false) in a variable of the
// program named with ks::cl::storage().
template <class T, bool IsClass = std::is_class_v<T>, bool Internal = true>
class opt_storage {
public:
    bool has_location() const { return true; }
    T& value() { return value_; }
    const T& value() const { return value_; }

private:
    T value_{};
};

template <class T, bool IsClass>
class opt_storage<T, IsClass, false> {
public:
    void bind(T& location) { location_ = &location; }
    bool has_location() const { return location_ != nullptr; }
    T& value() { return *location_; }
    const T& value() const { return *location_; }

private:
    T* location_ = nullptr;
};

// Value conversions for option types without a parser of their own.
template <class T>
bool convert_value(ks::string_view text, T& out) {
    if constexpr (std::is_integral_v<T>) {
        if (text.empty()) return false;
        const char* end = text.data() + text.size();
        auto result = std::from_chars(text.data(), end, out);
        return result.ec == std::errc() && result.ptr == end;
    } else if constexpr (std::is_floating_point_v<T>) {
        if (text.empty()) return false;
        const char* end = text.data() + text.size();
        auto result = std::from_chars(text.data(), end, out);
        return result.ec == std::errc() && result.ptr == end;
    } else if constexpr (std::is_enum_v<T>) {
        std::underlying_type_t<T> raw{};
        if (!convert_value(text, raw)) return false;
        out = static_cast<T>(raw);
        return true;
    } else {
        static_assert(std::is_constructible_v<T, ks::string_view>,
                      "no conversion from text for this option type: give it a parser");
        out = T(text);
        return true;
    }
}

template <class T, bool = false>
class option_parser : public option_parser_base {
public:
    // The value `option` takes from `value`, given under `name`. An option with named
    // values accepts only those: by the value text, or by the name when it is unnamed.
    bool parse(const option_base& option, const ks::string_view& name, const ks::string_view& value,
               T& out) const {
        if (option.named_values().empty()) return convert_value(value, out);
        const ks::string_view key = option.names().empty() ? name : value;
        const ks::cl::named_value* choice = option.named_value(key);
        if (choice == nullptr) return false;
        if constexpr (std::is_arithmetic_v<T> || std::is_enum_v<T>) {
            out = static_cast<T>(choice->value);
        } else {
            out = T(choice->name);
        }
        return true;
    }
};

template <>
class KS_EXPORT option_parser<bool, false> : public option_parser_base {
public:
    void initialize(option_base& option) override;
    bool parse(const option_base& option, const ks::string_view& name, const ks::string_view& value,
               bool& out) const;
    // "", "true", "yes" and "1" are true; "false", "no" and "0" are false; exact case.
    static bool parse_bool(const ks::string_view& text, bool& out);
};

template <>
class KS_EXPORT option_parser<ks::basic_string_view<char>, false> : public option_parser_base {
public:
    bool needs_param(option_base& option) override;
    bool parse(const option_base& option, const ks::string_view& name, const ks::string_view& value,
               ks::string_view& out) const;
};

// Sets the declared parts of an option; the modifiers below go through it.
struct option_builder {
    static void add_name(option_base& o, ks::string_view name) { o.names_.push_back(name); }
    static void set_help(option_base& o, ks::string_view text) { o.help_ = text; }
    static void set_value_name(option_base& o, ks::string_view text) { o.value_name_ = text; }
    static void add_attributes(option_base& o, int bits) { o.attributes_ |= bits; }
    static void add_named_values(option_base& o, const std::vector<ks::cl::named_value>& values) {
        o.named_values_.insert(o.named_values_.end(), values.begin(), values.end());
    }
    static void set_separator(option_base& o, ks::string_view text) { o.separator_ = text; }
    static void add_sub_commands(option_base& o, const std::vector<ks::string_view>& names) {
        o.sub_command_names_.insert(o.sub_command_names_.end(), names.begin(), names.end());
    }
    static void set_bounds(option_base& o, int min, int max) {
        o.min_occurrences_ = min;
        o.max_occurrences_ = max;
    }
    static void set_min(option_base& o, int min) { o.min_occurrences_ = min; }
    static void set_max(option_base& o, int max) { o.max_occurrences_ = max; }
};

// Aborts, with a message naming the mistake, on a separator that is not one character.
KS_EXPORT void check_separator(ks::string_view text);

}  // namespace detail

// ---- Modifiers ---------------------------------------------------------------------------

/// Modifier made by help().
struct help_text {
    ks::string_view text;  ///< The help line.
    /// Sets the option's help line (called while the option is declared).
    void apply_to(detail::option_base& o) const { detail::option_builder::set_help(o, text); }
};
/// The option's line in the help text.
inline help_text help(ks::string_view text) { return {text}; }

/// Modifier made by value_name().
struct value_name_text {
    ks::string_view text;  ///< The value's name.
    /// Sets the option's value name (called while the option is declared).
    void apply_to(detail::option_base& o) const { detail::option_builder::set_value_name(o, text); }
};
/// What the value is called in the synopsis and help ("VALUE" when not given).
inline value_name_text value_name(ks::string_view text) { return {text}; }

/// Modifier made by in().
struct sub_command_list {
    std::vector<ks::string_view> names;  ///< The sub-commands' names.
    /// Adds the sub-commands to the option's (called while the option is declared).
    void apply_to(detail::option_base& o) const { detail::option_builder::add_sub_commands(o, names); }
};
/// The sub-commands the option belongs to; without it, every sub-command declared so far.
template <class... Names>
sub_command_list in(const Names&... names) {
    return {{ks::string_view(names)...}};
}

/// Modifier made by values().
struct named_value_list {
    std::vector<named_value> values;  ///< The accepted values.
    /// Adds the values to the option's (called while the option is declared).
    void apply_to(detail::option_base& o) const { detail::option_builder::add_named_values(o, values); }
};
/// One accepted value: value("fast", mode::fast, "trade accuracy for speed").
template <class V>
named_value value(ks::string_view name, V number, ks::string_view help = {}) {
    static_assert(std::is_integral_v<V> || std::is_enum_v<V>, "named values are numbers or enumerators");
    return {help, name, static_cast<long>(number)};
}
/// The values an option accepts, each made with value(); an option with named values
/// accepts only those.
template <class... Values>
named_value_list values(const Values&... entries) {
    return {{entries...}};
}

/// Modifier made by required, optional, exactly(), at_least(), at_most() and between().
struct occurrence_bounds {
    int min;       ///< The least number of occurrences.
    int max;       ///< The most.
    bool set_min;  ///< Whether `min` applies.
    bool set_max;  ///< Whether `max` applies.
    /// Sets the option's bounds (called while the option is declared).
    void apply_to(detail::option_base& o) const {
        if (set_min) detail::option_builder::set_min(o, min);
        if (set_max) detail::option_builder::set_max(o, max);
    }
};
/// @name Occurrences
/// How often the option may be given (defaults: 0 to 2147483647).
/// @{
inline constexpr occurrence_bounds required{1, 0, true, false};  ///< At least once.
inline constexpr occurrence_bounds optional{0, 0, true, false};  ///< Not necessarily.
/// Exactly `n` times.
inline constexpr occurrence_bounds exactly(int n) { return {n, n, true, true}; }
/// At least `n` times.
inline constexpr occurrence_bounds at_least(int n) { return {n, 0, true, false}; }
/// At most `n` times.
inline constexpr occurrence_bounds at_most(int n) { return {0, n, false, true}; }
/// From `min` to `max` times.
inline constexpr occurrence_bounds between(int min, int max) { return {min, max, true, true}; }
/// @}

/// Modifier made by separator().
struct separator_text {
    ks::string_view text;  ///< The separator.
    /// Sets the option's separator, aborting unless it is one character (called while the
    /// option is declared).
    void apply_to(detail::option_base& o) const {
        detail::check_separator(text);
        detail::option_builder::set_separator(o, text);
    }
};
/// The separator of a SeparatedList (default ","); one character of static text.
inline separator_text separator(ks::string_view text) { return {text}; }

/// Modifier made by storage().
template <class T>
struct storage_location {
    T& location;  ///< The program's variable.
    /// Binds the option to the variable (called while the option is declared).
    template <class Option>
    void apply_to(Option& o) const {
        o.bind(location);
    }
};
/// Keeps the value in the program's own variable; options sharing one variable are
/// alternatives of one another and their occurrences are counted together.
template <class T>
storage_location<T> storage(T& location) {
    return {location};
}

/// Modifier made by init().
template <class T>
struct initial_value {
    T value;  ///< The value before parsing.
    /// Sets the option's value (called while the option is declared, after the other modifiers).
    template <class Option>
    void apply_to(Option& o) const {
        // Without storage there is nowhere to put it; registration reports that.
        if (o.storage_allocated()) o.set_value(value);
    }
};
/// The value before parsing (applied after every other modifier, so after storage()).
template <class T>
initial_value<T> init(const T& value) {
    return {value};
}

/// Modifier made by register_with().
struct parser_choice {
    std::shared_ptr<command_line_parser> parser;  ///< The parser to register with.
};
/// Registers with this parser instead of the process-wide one.
inline parser_choice register_with(std::shared_ptr<command_line_parser> parser) { return {std::move(parser)}; }

/// The process-wide parser, created on first use.
KS_EXPORT std::shared_ptr<command_line_parser> parser();

namespace detail {

template <class M>
struct is_initial_value : std::false_type {};
template <class T>
struct is_initial_value<initial_value<T>> : std::true_type {};

template <bool Initial, class Option, class M>
void apply_modifier(Option& o, const M& m) {
    static_assert(!std::is_same_v<M, std::string>, "option texts are kept by reference: pass static text");
    if constexpr (is_initial_value<M>::value) {
        if constexpr (Initial) m.apply_to(o);
    } else if constexpr (Initial) {
        return;
    } else if constexpr (std::is_same_v<M, parser_choice>) {
        return;
    } else if constexpr (std::is_same_v<M, attribute>) {
        option_builder::add_attributes(o, m);
    } else if constexpr (std::is_convertible_v<const M&, ks::string_view>) {
        option_builder::add_name(o, ks::string_view(m));
    } else {
        m.apply_to(o);
    }
}

template <class Option, class... Mods>
void declare(Option& o, const Mods&... mods) {
    (apply_modifier<false>(o, mods), ...);
    (apply_modifier<true>(o, mods), ...);
    std::shared_ptr<command_line_parser> target;
    auto pick = [&target](const auto& m) {
        if constexpr (std::is_same_v<std::decay_t<decltype(m)>, parser_choice>) target = m.parser;
    };
    (pick(mods), ...);
    o.register_self(target ? std::move(target) : ks::cl::parser());
}

template <class T>
int as_int(const T& value) {
    if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
        return static_cast<int>(value);
    } else {
        return 0;
    }
}

}  // namespace detail

// ---- Option kinds ------------------------------------------------------------------------

/// A single value: the last one given wins. With External, the value lives in a variable
/// named with ks::cl::storage().
template <class T, bool External = false, class Parser = detail::option_parser<T>,
          class Storage = detail::opt_storage<T, std::is_class_v<T>, !External>>
class opt : public detail::option_base, public Storage {
public:
    /// Declares the option with its names and modifiers and registers it.
    template <class... Mods>
    explicit opt(const Mods&... mods) : option_base(parser_, kSingleValued) {
        detail::declare(*this, mods...);
    }

    /// The value as an int (0 unless it is a number or an enumerator).
    int int_val() const override { return detail::as_int(this->value()); }
    ~opt() override = default;
    /// Takes one value given under `name`; false refuses it.
    bool handle(const ks::string_view& name, const ks::string_view& value) override {
        T parsed{};
        if (!parser_.parse(*this, name, value, parsed)) return false;
        this->value() = std::move(parsed);
        return true;
    }
    /// Whether the value has a place to live (an External option needs storage()).
    bool storage_allocated() override { return this->has_location(); }
    /// Where the value lives; options sharing one location are checked as one group.
    const void* value_location() const override { return &this->value(); }

    /// Sets the value.
    void set_value(const T& v) { this->value() = v; }
    /// The value.
    const T& operator*() const { return this->value(); }
    /// The value's members.
    const T* operator->() const { return &this->value(); }

private:
    Parser parser_;
};

/// Several values, in the order given. A positional list must be a SeparatedList (it takes
/// one argument cut at the separator); a Positional Sink takes every argument left over.
template <class T, bool External = false, class Parser = detail::option_parser<T>,
          class Storage = detail::opt_storage<std::vector<T>, true, !External>>
class list : public detail::option_base, public Storage {
public:
    /// Declares the list with its names and modifiers and registers it.
    template <class... Mods>
    explicit list(const Mods&... mods) : option_base(parser_, kList) {
        detail::declare(*this, mods...);
    }

    ~list() override = default;
    /// Appends one value given under `name`; false refuses it.
    bool handle(const ks::string_view& name, const ks::string_view& value) override {
        T parsed{};
        if (!parser_.parse(*this, name, value, parsed)) return false;
        this->value().push_back(std::move(parsed));
        return true;
    }
    /// Whether the values have a place to live (an External list needs storage()).
    bool storage_allocated() override { return this->has_location(); }
    /// Where the values live; options sharing one location are checked as one group.
    const void* value_location() const override { return &this->value(); }

    /// Sets the values.
    void set_value(const std::vector<T>& v) { this->value() = v; }
    /// The values.
    const std::vector<T>& operator*() const { return this->value(); }
    /// The values' members.
    const std::vector<T>* operator->() const { return &this->value(); }

private:
    Parser parser_;
};

/// A switch without value. Each occurrence inverts it, so a flag given twice is off again.
class KS_EXPORT flag : public detail::option_base, public detail::opt_storage<bool, false, true> {
public:
    /// Declares the flag with its names and modifiers and registers it.
    template <class... Mods>
    explicit flag(const Mods&... mods) : option_base(parser_, kFlag) {
        detail::declare(*this, mods...);
    }

    /// 1 when set, 0 when not.
    int int_val() const override;
    ~flag() override;
    /// Inverts the flag; always accepted.
    bool handle(const ks::string_view& name, const ks::string_view& value) override;
    /// Always true: a flag keeps its own value.
    bool storage_allocated() override;
    /// Keeps the class's virtual table in the library.
    virtual void anchor();
    /// Where the value lives.
    const void* value_location() const override;

    /// Sets the flag.
    void set_value(bool v) { value() = v; }
    /// Whether the flag is set.
    explicit operator bool() const { return value(); }

private:
    detail::option_parser<bool> parser_;
};

/// The sub-command selector: unnamed, its named values are the sub-commands (-start, -stop).
/// It must be declared before the options that belong to its sub-commands.
template <class Action, class Parser = detail::option_parser<Action>,
          class Storage = detail::opt_storage<Action, false, true>,
          class = std::enable_if_t<std::is_integral_v<Action> || std::is_enum_v<Action>>>
class sub_commands : public detail::option_base, public Storage {
public:
    /// Declares the selector with its sub-commands (values()) and registers it.
    template <class... Mods>
    explicit sub_commands(const Mods&... mods) : option_base(parser_, kSubCommands) {
        detail::declare(*this, mods...);
    }

    /// The selected sub-command's value as an int.
    int int_val() const override { return static_cast<int>(this->value()); }
    ~sub_commands() override = default;
    /// Accepts only a sub-command's name, exactly.
    bool handle(const ks::string_view& name, const ks::string_view&) override {
        const ks::cl::named_value* choice = named_value(name);
        if (choice == nullptr) return false;
        this->value() = static_cast<Action>(choice->value);
        return true;
    }
    /// Always true: the selector keeps its own value.
    bool storage_allocated() override { return this->has_location(); }
    /// Where the value lives.
    const void* value_location() const override { return &this->value(); }

    /// Selects a sub-command by its value.
    void set_value(const Action& v) { this->value() = v; }
    /// The selected sub-command's value.
    const Action& operator*() const { return this->value(); }

private:
    Parser parser_;
};

// ---- The parser --------------------------------------------------------------------------

/// The registry of declared options, which parses a command line into them and writes the
/// usage and help texts. Options register themselves when they are declared.
class KS_EXPORT command_line_parser {
public:
    /// The options of one sub-command; the first entry (id -1, no name) holds those that
    /// apply without a sub-command.
    struct sub_command {
        long id;                                                ///< The selector's value for it.
        ks::string_view name;                                   ///< Its name (without the dash).
        std::vector<detail::option_base*> options;              ///< named options
        std::map<ks::string_view, detail::option_base*> names;  ///< every name and alias
        std::vector<detail::option_base*> positionals;          ///< in registration order
        detail::option_base* sink = nullptr;                    ///< The list taking leftover positionals.
    };

    /// A parser with no options.
    command_line_parser();
    command_line_parser(const command_line_parser&) = delete;
    command_line_parser& operator=(const command_line_parser&) = delete;

    /// Registers a declared option with its sub-commands (every one declared so far when it
    /// names none); a mistake in the declaration aborts with a message.
    void register_option(detail::option_base* option);
    /// Registers a declared option with one sub-command.
    void register_option(sub_command* sub, detail::option_base* option);
    /// Removes the option from every sub-command (removing the selector removes the sub-commands).
    void unregister_option(detail::option_base* option);
    /// Removes the option from one sub-command.
    void unregister_option(sub_command* sub, detail::option_base* option);

    /// Adds a sub-command; a duplicate id or name aborts.
    sub_command* add_subcommand(long id, ks::string_view name);
    /// The sub-command with that id, or null.
    sub_command* get_subcommand(long id);
    /// The sub-command with that name, or null.
    sub_command* get_subcommand(ks::string_view name);

    /// Fills the options from argv; false with the error record set on the first mistake.
    /// The program name and text values are views into argv, which must outlive them.
    bool parse(int argc, char** argv);
    /// Checks the occurrence bounds of the options of `sub` (null: those without a
    /// sub-command); false with the error record set on the first violation.
    bool validate_argument_counts(sub_command* sub);

    /// The synopsis line of `sub` (null: the options without a sub-command).
    std::string command_line_string(sub_command* sub);
    /// The synopsis lines of every sub-command.
    std::vector<std::string> command_line_strings();
    /// Writes "Usage:" and the synopsis lines.
    void print_usage(FILE* out);
    /// Writes the usage and every option's help, grouped by sub-command.
    void print_help(FILE* out);
    /// Writes the help of the options of `sub`, required ones first, each line after `indent`.
    void print_help(FILE* out, sub_command* sub, ks::string_view indent);

    /// The program name, from argv[0] of the last parse.
    ks::string_view program_name() const { return program_name_; }
    /// The sub-command the last parse selected (the default one before any parse).
    const sub_command& selected() const { return sub_commands_[selected_]; }

private:
    bool check_option(detail::option_base& option);
    bool check_group(const std::vector<detail::option_base*>& group);
    bool check_positionals(const sub_command& sub);

    detail::option_base* selector_ = nullptr;
    bool dashdash_seen_ = false;
    ks::string_view program_name_;
    std::vector<sub_command> sub_commands_;
    size_t selected_ = 0;
};

/// @name The process-wide parser's parse, help and usage.
/// @{
KS_EXPORT bool parse(int argc, char** argv);  ///< command_line_parser::parse of parser().
KS_EXPORT void print_help(FILE* out);         ///< command_line_parser::print_help of parser().
KS_EXPORT void print_usage(FILE* out);        ///< command_line_parser::print_usage of parser().
/// @}

}  // namespace cl
}  // namespace ks
