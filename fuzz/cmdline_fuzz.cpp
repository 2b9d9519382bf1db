// Feeds arbitrary argv to the command-line parser. The input is cut at NUL bytes into
// arguments; a fresh set of options of every kind, with sub-commands, takes each input,
// so values never pile up between runs. Parsing must end in true or in a set error record,
// and the synopsis must still be writable afterwards.
#include <ksutils/cmdline.h>
#include <ksutils/error.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace cl = ks::cl;

namespace {

enum class action { run, show, copy };

struct line {
    std::shared_ptr<cl::command_line_parser> parser = std::make_shared<cl::command_line_parser>();
    cl::parser_choice on = cl::register_with(parser);
    cl::flag before{on, "b"};
    cl::sub_commands<action> what{on, cl::values(cl::value("run", action::run), cl::value("show", action::show),
                                                 cl::value("copy", action::copy))};
    cl::flag x{on, "x", cl::at_most(1)};
    cl::flag verbose{on, "verbose", "v"};
    cl::opt<ks::string_view> name{on, "name", "n", cl::in("run", "copy")};
    cl::opt<int> count{on, "count", cl::in("run"), cl::required};
    cl::opt<bool> color{on, "color"};
    cl::list<ks::string_view> lib{on, "l", cl::Prefix, cl::in("copy")};
    cl::list<int> nums{on, "nums", cl::SeparatedList, cl::separator(":"), cl::between(1, 3), cl::in("show")};
    cl::opt<int> level{on, "level", cl::values(cl::value("low", 1), cl::value("high", 9))};
    int shared = 0;
    cl::opt<int, true> fast{on, cl::storage(shared), cl::values(cl::value("fast", 1)), cl::at_most(1)};
    cl::opt<int, true> slow{on, cl::storage(shared), cl::values(cl::value("slow", 2)), cl::at_most(1)};
    cl::opt<ks::string_view> src{on, "src", cl::Positional, cl::in("copy"), cl::required};
    cl::list<int> point{on, "point", cl::Positional, cl::SeparatedList, cl::exactly(2), cl::in("show")};
    cl::list<ks::string_view> rest{on, "rest", cl::Positional, cl::Sink, cl::in("copy", "run")};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<std::string> args{"prog"};
    std::string current;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            args.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(data[i]);
        }
    }
    args.push_back(current);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);

    line options;
    ks::_get_kserrno().set(ks::E_OK);
    if (!options.parser->parse(static_cast<int>(args.size()), argv.data()) && ks::_get_kserrno().code == ks::E_OK) {
        std::abort();
    }
    if (options.parser->command_line_strings().size() != 4) std::abort();
    return 0;
}
