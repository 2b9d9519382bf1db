// Command line: registration aborts, parsing, count checks (whole messages and codes), synopsis and help.
#include <ksutils/cmdline.h>
#include <ksutils/error.h>

#include <gtest/gtest.h>

#include "kstest.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

namespace cl = ks::cl;

namespace {

using parser_ptr = std::shared_ptr<cl::command_line_parser>;

// argv built from strings, kept alive as long as the views the options take into it.
struct argv_holder {
    explicit argv_holder(std::vector<std::string> args, std::string program = "prog") : strings(std::move(args)) {
        strings.insert(strings.begin(), std::move(program));
        for (auto& s : strings) pointers.push_back(s.data());
        pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(strings.size()); }
    char** argv() { return pointers.data(); }
    std::vector<std::string> strings;
    std::vector<char*> pointers;
};

// Options declared at run time on a parser of their own.
struct declarations {
    parser_ptr parser = std::make_shared<cl::command_line_parser>();
    std::vector<std::unique_ptr<cl::detail::option_base>> options;
    template <class Option, class... Mods>
    declarations& add(const Mods&... mods) {
        options.push_back(std::make_unique<Option>(mods..., cl::register_with(parser)));
        return *this;
    }
};

using D = declarations;
using kstest::error_text;

enum class action { start, stop, execute_log_config };

// A line shaped like the daemons' own.
struct daemon_line {
    parser_ptr parser = std::make_shared<cl::command_line_parser>();
    cl::parser_choice on = cl::register_with(parser);
    cl::sub_commands<action> what{
        on, cl::help("To specify the action you want performed use one of the following:"),
        cl::values(cl::value("start", action::start, "start the daemon"), cl::value("stop", action::stop, "stop the daemon"),
                   cl::value("execute-log-config", action::execute_log_config, "execute action from log config"))};
    cl::flag no_detach{on, "no-detach", cl::in("start"), cl::at_most(1),
                       cl::help("do not detach from the controlling terminal")};
    cl::opt<ks::string_view> log_config{on, "log-config", cl::in("start"), cl::help("startup log config")};
    cl::opt<ks::string_view> runtime_config{on, "log-config", cl::in("execute-log-config"), cl::exactly(1),
                                            cl::help("log config at runtime")};

    std::string dump() const {  // "action no-detach log-config"
        const ks::string_view config = *what == action::start ? *log_config : *runtime_config;
        return std::to_string(what.int_val()) + " " + std::to_string(no_detach.int_val()) + " " + std::string(config);
    }
};

using parse_row = std::pair<std::vector<std::string>, std::string>;

// What a fresh `Line` makes of `args`: its dump() after success, else "<code name> <message>".
template <class Line>
std::string parse_with(const std::vector<std::string>& args) {
    argv_holder a(args);
    Line line;
    return line.parser->parse(a.argc(), a.argv()) ? line.dump() : error_text();
}

// Declarations through the option types (the detail layer's own guards cannot be reached from them).
TEST(CmdlineRegistration, DeclarationMistakesAbortWithTheirMessage) {
    // Under an emulator the test program cannot be executed again: the fork-only style is all there is.
    if (!std::getenv("KS_TEST_EMULATED")) GTEST_FLAG_SET(death_test_style, "threadsafe");
    using cl::value, cl::values;
    using subs = cl::sub_commands<int>;
    using ints = cl::list<int>;
    auto started = [] { return std::move(D().add<subs>(values(value("start", 0), value("stop", 1)))); };
    const struct {
        const char* message;
        std::function<void()> declare;
    } rows[] = {
        {"You must add storage to this option using ks::cl::storage()!", [] { D().add<cl::opt<int, true>>("x"); }},
        {"Option has no names and no named values", [] { D().add<cl::opt<int>>(); }},
        {"Prefix options must be named", [] { D().add<cl::opt<int>>(cl::Prefix, values(value("a", 1))); }},
        {"cl::SeparatedList can only be used on named lists",
         [] { D().add<ints>(cl::SeparatedList, values(value("a", 1))); }},
        {"cl::SeparatedList can only be used with cl::list<>()", [] { D().add<cl::opt<int>>("x", cl::SeparatedList); }},
        {"Subcommand does not exist: nope", [] { D().add<cl::flag>("x", cl::in("nope")); }},
        {"You have already defined the subcommands list", [&] { started().add<subs>(values(value("other", 5))); }},
        {"Subcommand definition must be unnamed", [] { D().add<subs>("s", values(value("a", 1))); }},
        {"Cannot register options with empty names", [] { D().add<cl::flag>("x", ""); }},
        {"Duplicate option name 'x' in subcommand 'stop'",
         [&] { started().add<cl::flag>("x", cl::in("stop")).add<cl::flag>("x", cl::in("start", "stop")); }},
        {"Option name cannot duplicate subcommand name", [&] { started().add<cl::flag>("start", cl::in("start")); }},
        {"Positionals must be named", [] { D().add<cl::opt<int>>(cl::Positional, values(value("a", 1))); }},
        {"Positionals cannot have aliases", [] { D().add<cl::opt<int>>("a", "b", cl::Positional); }},
        {"Only lists can be set as sinks", [] { D().add<cl::opt<int>>("a", cl::Positional | cl::Sink); }},
        {"You cannot set multiple sinks in the default subcommand",
         [] { D().add<ints>("a", cl::Positional, cl::Sink).add<ints>("b", cl::Positional, cl::Sink); }},
        {"Non-separated lists cannot be set as positionals", [] { D().add<ints>("a", cl::Positional); }},
        {"Duplicate subcommand ID: 1", [] { D().add<subs>(values(value("a", 1), value("b", 1))); }},
        {"Duplicate subcommand name: a", [] { D().add<subs>(values(value("a", 1), value("a", 2))); }},
        {"cl::separator() takes exactly one character",
         [] { D().add<ints>("a", cl::SeparatedList, cl::separator("::")); }},
    };
    for (const auto& r : rows)
        EXPECT_DEATH(r.declare(), kstest::death_message(r.message + std::string("\n"))) << r.message;
}

TEST(CmdlineRegistration, OptionsJoinTheSubCommandsDeclaredBeforeThemAndLeaveWhenDestroyed) {
    declarations d;
    d.add<cl::flag>("early").add<cl::sub_commands<int>>(cl::values(cl::value("start", 0), cl::value("stop", 1)));
    d.add<cl::flag>("late");
    std::vector<std::unique_ptr<argv_holder>> argvs;  // the parser keeps views into them
    auto parse = [&](std::vector<std::string> args) {
        argv_holder& a = *argvs.emplace_back(std::make_unique<argv_holder>(std::move(args)));
        return d.parser->parse(a.argc(), a.argv()) ? std::string("ok") : error_text();
    };
    EXPECT_EQ(parse({"-early", "-late"}), "ok");
    EXPECT_EQ(parse({"-start", "-late"}), "ok");
    EXPECT_EQ(parse({"-start", "-early"}), "E_NOENT Parameter 2: unknown option '-y'");

    {
        cl::flag scoped{"scoped", cl::register_with(d.parser)};
        EXPECT_EQ(parse({"-stop", "-scoped"}), "ok");
    }
    EXPECT_EQ(parse({"-stop", "-scoped"}), "E_NOENT Parameter 2: unknown option '-d'");

    // The selector takes its sub-commands along, so the line can be declared again.
    d.options.erase(d.options.begin() + 1);
    EXPECT_EQ(d.parser->command_line_strings().size(), 1u);
    d.add<cl::sub_commands<int>>(cl::values(cl::value("stop", 1)));
    EXPECT_EQ(parse({"-stop"}), "ok");
}

// A program without sub-commands; dump() shows every option that was given, with its value.
struct tool_line {
    parser_ptr parser = std::make_shared<cl::command_line_parser>();
    cl::parser_choice on = cl::register_with(parser);
    cl::flag x{on, "x"};
    cl::flag y{on, "y"};
    cl::flag verbose{on, "verbose", "v"};
    cl::opt<ks::string_view> name{on, "name", "n"};
    cl::opt<ks::string_view> log{on, "log"};
    cl::list<ks::string_view> lib{on, "l", cl::Prefix};
    cl::opt<bool> color{on, "color"};
    cl::list<ks::string_view> tags{on, "tags", cl::SeparatedList};
    cl::list<int> nums{on, "nums", cl::SeparatedList, cl::separator(":")};
    cl::opt<int> level{on, "level", cl::values(cl::value("low", 1), cl::value("high", 9))};
    cl::opt<int> mode{on, cl::values(cl::value("fast", 1), cl::value("slow", 2))};
    cl::opt<ks::string_view> src{on, "src", cl::Positional};
    cl::opt<int> port{on, "port", cl::Positional};

    static std::string text(ks::string_view v) { return std::string(v); }
    static std::string text(long v) { return std::to_string(v); }
    template <class T>
    static std::string text(const std::vector<T>& items) {
        std::string s = "[";
        for (size_t i = 0; i < items.size(); ++i) s += (i ? "|" : "") + text(items[i]);
        return s + "]";
    }
    std::string dump() const {
        std::string out;
        auto show = [&out](const auto& o, const char* label) {
            if (o.occurrences() > 0) out += (out.empty() ? "" : " ") + std::string(label) + "=" + text(o.value());
        };
        show(x, "x"), show(y, "y"), show(verbose, "v");
        show(name, "name"), show(log, "log"), show(lib, "l"), show(color, "color");
        show(tags, "tags"), show(nums, "nums"), show(level, "level"), show(mode, "mode");
        show(src, "src"), show(port, "port");
        return out;
    }
};

TEST(CmdlineParse, ArgumentsBecomeValuesOrOneNamedMistake) {
    const parse_row rows[] = {
        {{}, ""},
        // Flags toggle, alone or in clusters taken from the last letter.
        {{"-x"}, "x=1"},
        {{"-xyv"}, "x=1 y=1 v=1"},
        {{"-vxx"}, "x=0 v=1"},
        {{"-xyz"}, "E_NOENT Parameter 1: unknown option '-z'"},
        {{"-name=a"}, "name=a"},
        {{"-name", "a"}, "name=a"},
        {{"-n=a", "-name="}, "name="},
        {{"-namea"}, "E_FAULT Parameter 1: incorrect usage, please use '-name=a' or '-name a' instead"},
        {{"-x", "-name"}, "E_INVAL Parameter 2: you must specify a value for '-name'"},
        {{"-name", "--"}, "E_INVAL Parameter 1: you must specify a value for '-name'"},
        {{"-name", "--", "-x"}, "name=-x"},
        {{"-name", "-x"}, "E_INVAL Parameter 2: option '-name' expects positional argument but '-x' found"},
        {{"-lfoo", "-l", "-lo"}, "l=[foo||o]"},
        {{"-log=a", "-logb"}, "E_FAULT Parameter 2: incorrect usage, please use '-log=b' or '-log b' instead"},
        // A bool takes exactly seven texts: "", true, yes, 1, false, no and 0.
        {{"-color=", "-color", "no"}, "color=0"},
        {{"-color=true"}, "color=1"}, {{"-color=yes"}, "color=1"}, {{"-color=1"}, "color=1"},
        {{"-color=false"}, "color=0"}, {{"-color=0"}, "color=0"}, {{"-color=no", "-color="}, "color=1"},
        {{"-color=TRUE"}, "E_INVAL Parameter 1: 'TRUE' invalid value for parameter 'color'"},
        {{"-level=high"}, "level=9"},
        {{"-level", "mid"}, "E_INVAL Parameter 2: 'mid' invalid value for parameter 'level'"},
        {{"-slow"}, "mode=2"},
        {{"-slow=1"}, "E_INVAL Parameter 1: '-slow' does not take a value"},
        // Separated lists: a trailing separator gives an empty last value, an empty text none.
        {{"-tags=a,b,"}, "tags=[a|b|]"},
        {{"-tags="}, ""},
        {{"-nums=1:2", "-nums=3"}, "nums=[1|2|3]"},
        {{"-nums=1:"}, "E_INVAL Parameter 1: '' invalid value for parameter 'nums'"},
        {{"a", "80"}, "src=a port=80"},
        {{"", "-x", "1"}, "x=1 src= port=1"},
        {{"--", "-x", "-1"}, "src=-x port=-1"},
        {{"a", "b"}, "E_INVAL Parameter 2: 'b' invalid value"},
        {{"a", "1", "c"}, "E_FAULT Unexpected extra parameter(s) found starting at position 3"},
        {{"-"}, "E_INVAL Parameter 1: expected parameter name after '-'"},
        {{"--x"}, "E_NOENT Parameter 1: unknown option '--'"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(parse_with<tool_line>(args), expected) << ::testing::PrintToString(args);
    // A program may be started with no argv at all.
    tool_line t;
    EXPECT_TRUE(t.parser->parse(0, nullptr));
    EXPECT_EQ(t.parser->command_line_strings(), std::vector<std::string>{" [options] [--] [src] [port]"});
}

TEST(CmdlineParse, TheSelectorChoosesTheSubCommandWhereverItStands) {
    const parse_row rows[] = {
        {{}, "0 0 "},
        {{"-stop"}, "1 0 "},
        {{"-no-detach", "-log-config=f", "-start"}, "0 1 f"},
        {{"-execute-log-config", "-log-config", "f"}, "2 0 f"},
        {{"--", "-start"}, "E_FAULT Unexpected extra parameter(s) found starting at position 2"},
        {{"-startx"}, "E_INVAL Parameter 1: '-start' does not take a value"},
        {{"-start", "-stop"}, "E_NOENT Parameter 2: unknown option '-p'"},
    };
    for (const auto& [args, expected] : rows)
        EXPECT_EQ(parse_with<daemon_line>(args), expected) << ::testing::PrintToString(args);
}

TEST(CmdlineValidate, EveryCountMistakeHasItsMessageAndCode) {
    using decl = std::function<void(D&)>;
    int slot = 0;  // storage shared by "a" and "b" makes them one occurrence group
    using bounds = cl::occurrence_bounds;
    using ext = cl::opt<int, true>;
    using ints = cl::list<int>;
    auto shared = [&slot](bounds b) -> decl {
        return [&slot, b](D& d) { d.add<ext>("a", cl::storage(slot), b).add<ext>("b", cl::storage(slot), b); };
    };
    auto named = [](bounds b) -> decl { return [b](D& d) { d.add<cl::opt<int>>("a", b); }; };
    auto listed = [](bounds b) -> decl { return [b](D& d) { d.add<ints>("l", b); }; };
    auto unnamed = [](bounds b) -> decl {
        return [b](D& d) { d.add<cl::opt<int>>(cl::values(cl::value("fast", 1), cl::value("slow", 2)), b); };
    };
    auto sink = [](bounds b) -> decl { return [b](D& d) { d.add<ints>("files", cl::Positional, cl::Sink, b); }; };
    auto positionals = [](std::vector<std::pair<const char*, bool>> required) -> decl {
        return [required](D& d) {
            for (auto [name, needed] : required)
                d.add<cl::opt<ks::string_view>>(name, cl::Positional, needed ? cl::required : cl::optional);
        };
    };
    auto point = [](D& d) { d.add<ints>("point", cl::Positional, cl::SeparatedList, cl::exactly(3)); };
    const struct {
        decl declare;
        std::vector<std::string> args;
        std::string expected;
    } rows[] = {
        {named(cl::at_most(1)), {"-a=1", "-a=2"}, "E_FAULT Option 'a' can only be used at most once"},
        {shared(cl::at_most(1)), {"-a=1", "-b=2"}, "E_FAULT -a|-b: any of these options can be specified at most once"},
        {shared(cl::at_most(2)), {"-a=1", "-b=2", "-a=3"},
         "E_FAULT -a|-b: these options can be used at most 2 times (in any combination)"},
        {unnamed(cl::at_most(1)), {"-fast", "-slow"},
         "E_FAULT fast|slow: any of these options can be specified at most once"},
        {named(cl::exactly(1)), {}, "E_NOENT Option '-a' must be specified exactly once"},
        {named(cl::at_least(2)), {"-a=1"}, "E_NOENT Option '-a' must be specified at least 2 times"},
        {shared(cl::required), {}, "E_NOENT One of the following options must be specified at least once: -a|-b"},
        {shared(cl::exactly(2)), {"-b=1"},
         "E_NOENT One or more of the following options must be specified exactly 2 times: -a|-b"},
        {shared(cl::exactly(2)), {"-b=1", "-a=2"}, "ok"},
        {[](D& d) { d.add<cl::flag>("f", cl::required); }, {}, "E_NOENT Required option 'f' not found"},
        {listed(cl::exactly(1)), {}, "E_NOENT Option '-l' must be used exacly once"},
        {listed(cl::exactly(2)), {"-l=1"}, "E_NOENT Option '-l' must be used exactly 2 times"},
        {listed(cl::required), {}, "E_NOENT Option '-l' must be used at least once"},
        {listed(cl::at_least(3)), {"-l=1", "-l", "2"}, "E_NOENT Option '-l' must be used at least 3 times"},
        {unnamed(cl::required), {}, "E_NOENT One of the following options must be specified at least once: fast|slow"},
        {unnamed(cl::exactly(2)), {"-slow"},
         "E_NOENT One or more of the following options must be specified exactly 2 times: fast|slow"},
        {positionals({{"src", true}}), {}, "E_NOENT Required parameter <src> is missing"},
        {positionals({{"src", true}, {"dst", true}}), {"a"},
         "E_NOENT Required parameter <dst> missing at the end of the command line"},
        {positionals({{"", true}}), {}, "E_NOENT A required parameter is missing"},
        {positionals({{"src", false}, {"", true}}), {"a"},
         "E_NOENT A required parameter is missing at end of the command line"},
        {positionals({{"src", true}, {"dst", true}}), {},
         "E_NOENT 2 required parameters are missing from the end of the command line"},
        {point, {"1,2"}, "E_NOENT 1 value(s) for parameter <point> are missing at the end of the command line"},
        {point, {"1,2,3,4,5"}, "E_NOENT 2 extra value(s) for parameter <point> at the end of the command line"},
        {sink(cl::at_most(1)), {"1", "2", "3"}, "E_NOENT 2 extra parameter(s) at the end of the command line"},
        {sink(cl::at_least(2)), {"1"}, "E_NOENT Required parameter <files> missing at the end of the command line"},
        {sink(cl::optional), {"1", "x"}, "E_INVAL Parameter 2: 'x' invalid value'"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.expected);
        declarations d;
        r.declare(d);
        argv_holder a(r.args);
        EXPECT_EQ(d.parser->parse(a.argc(), a.argv()) ? std::string("ok") : error_text(), r.expected);
    }
}

// Each layout once: values with and without help, prefix and plain values, positionals, lists, a sink.
TEST(CmdlineHelp, SynopsisAndHelpOfAProgramWithSubCommands) {
    parser_ptr parser = std::make_shared<cl::command_line_parser>();
    cl::parser_choice on = cl::register_with(parser);
    cl::sub_commands<int> what{on, cl::help("Actions:"),
                               cl::values(cl::value("start", 0, "start it"), cl::value("stop", 1))};
    cl::opt<int> level{on, "level", "L", cl::in("start"), cl::required, cl::Prefix, cl::value_name("N"),
                       cl::help("how much to say")};
    cl::opt<int> mode{on, "mode", cl::in("stop"), cl::required,
                      cl::values(cl::value("soft", 0, "ask nicely"), cl::value("hard", 1, "insist"))};
    cl::list<ks::string_view> keys{on, "key", cl::Positional, cl::SeparatedList, cl::in("stop"), cl::required,
                                   cl::value_name("KEY")};
    cl::opt<ks::string_view> out{on, "out", cl::Positional, cl::in("stop")};
    cl::list<ks::string_view> rest{on, "rest", cl::Positional, cl::Sink, cl::in("stop")};
    argv_holder a({}, "ksd");
    ASSERT_TRUE(parser->parse(a.argc(), a.argv())) << error_text();

    char* data = nullptr;
    size_t size = 0;
    FILE* help = open_memstream(&data, &size);
    parser->print_help(help);  // the synopsis first, as print_usage() writes it
    fclose(help);
    EXPECT_EQ(std::string(data, size),
              "Usage:\n"
              "  ksd [options]\n"
              "  ksd -start -level|L <N>\n"
              "  ksd -stop -mode =<soft|hard> [--] <KEY>... [out] [rest]...\n"
              "\n"
              "Parameters:\n"
              "  Optional:\n"
              "    Actions:\n"
              "      start - start it\n"
              "      stop\n"
              "\n"
              "Parameters for the '-start' sub-command:\n"
              "  Required:\n"
              "    -level,-L<N>              how much to say\n"
              "\n"
              "Parameters for the '-stop' sub-command:\n"
              "  Required:\n"
              "    -mode <VALUE>\n"
              "      soft - ask nicely\n"
              "      hard - insist\n"
              "    <KEY>...\n"
              "  Optional:\n"
              "    <out>\n"
              "    <rest>...\n");
    free(data);

    FILE* read_only = fopen("/dev/null", "r");
    ASSERT_NE(read_only, nullptr);
    EXPECT_THROW(parser->print_help(read_only), std::system_error);
    fclose(read_only);
}

}  // namespace
