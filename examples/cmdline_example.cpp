// A small archiver-like program that declares options of every kind and prints what it
// parsed. Try:
//   cmdline_example -help
//   cmdline_example -pack -level=best -Iinclude -Isrc -exclude=*.o,*.a -vq out.tar a b c
//   cmdline_example -unpack -to /tmp/x -fast out.tar
#include <ksutils/cmdline.h>
#include <ksutils/error.h>

#include <fmt/format.h>

#include <cstdio>
#include <string>

namespace cl = ks::cl;

namespace {

enum class action { none, pack, unpack, list, help };
enum class speed { normal, fast, slow };

struct command_line {
    // Declared first, so that the sub-commands exist for the options below.
    cl::sub_commands<action> what{
        cl::help("What to do with the archive:"),
        cl::values(cl::value("pack", action::pack, "put files into an archive"),
                   cl::value("unpack", action::unpack, "take files out of an archive"),
                   cl::value("list", action::list, "list what an archive holds"),
                   cl::value("help", action::help, "print this text"))};

    // In every sub-command.
    cl::flag verbose{"verbose", "v", cl::help("say what is being done"), cl::at_most(1)};
    cl::flag quiet{"q", cl::help("print nothing but errors")};

    // In some sub-commands only.
    cl::opt<int> level{"level", cl::in("pack"), cl::value_name("LEVEL"),
                       cl::values(cl::value("none", 0, "store only"), cl::value("best", 9, "smallest archive")),
                       cl::help("how hard to compress")};
    cl::list<ks::string_view> include_dirs{"I", cl::Prefix, cl::in("pack"), cl::value_name("DIR"),
                                           cl::help("also look for files in DIR")};
    cl::list<ks::string_view> exclude{"exclude", cl::SeparatedList, cl::in("pack"), cl::value_name("PATTERNS"),
                                      cl::help("leave out files matching any of the comma-separated patterns")};
    cl::opt<ks::string_view> target{"to", cl::in("unpack"), cl::required, cl::value_name("DIR"),
                                    cl::help("directory to unpack into")};
    cl::opt<bool> overwrite{"overwrite", cl::in("unpack"), cl::help("replace existing files (true/false)")};

    // Two options writing one variable are alternatives: at most one of them may be given.
    speed pace = speed::normal;
    cl::opt<speed, true> fast{cl::storage(pace), cl::in("unpack"), cl::at_most(1),
                              cl::values(cl::value("fast", speed::fast, "unpack quickly, check less"))};
    cl::opt<speed, true> slow{cl::storage(pace), cl::in("unpack"), cl::at_most(1),
                              cl::values(cl::value("slow", speed::slow, "unpack carefully, check everything"))};

    // Unnamed option: its named values are its names (-crc or -sha).
    cl::opt<int> check{cl::in("pack", "unpack"), cl::at_most(1), cl::help("checksum to use:"),
                       cl::values(cl::value("crc", 1, "a CRC-32 per file"), cl::value("sha", 2, "a SHA-256 per file"))};

    // Positionals: the archive, then every file left over.
    cl::opt<ks::string_view> archive{"archive", cl::Positional, cl::in("pack", "unpack", "list"), cl::required,
                                     cl::value_name("ARCHIVE")};
    cl::list<ks::string_view> files{"files", cl::Positional, cl::Sink, cl::in("pack"), cl::value_name("FILE")};
};

std::string joined(const std::vector<ks::string_view>& items) {
    std::string text;
    for (ks::string_view item : items) text += (text.empty() ? "" : " ") + std::string(item);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    command_line options;
    if (!cl::parse(argc, argv)) {
        fmt::print(stderr, "Error: {:s}\n", ks::_get_kserrno().message_view());
        cl::print_usage(stderr);
        return 1;
    }
    if (*options.what == action::help || *options.what == action::none) {
        cl::print_help(stdout);
        return 0;
    }
    fmt::print("action:    {:d}\n", options.what.int_val());
    fmt::print("verbose:   {}  quiet: {}\n", bool(options.verbose), bool(options.quiet));
    fmt::print("level:     {:d}\n", *options.level);
    fmt::print("include:   {:s}\n", joined(*options.include_dirs));
    fmt::print("exclude:   {:s}\n", joined(*options.exclude));
    fmt::print("to:        {:s}  overwrite: {}\n", *options.target, *options.overwrite);
    fmt::print("speed:     {:d}\n", static_cast<int>(options.pace));
    fmt::print("check:     {:d}\n", *options.check);
    fmt::print("archive:   {:s}\n", *options.archive);
    fmt::print("files:     {:s}\n", joined(*options.files));
    return 0;
}
