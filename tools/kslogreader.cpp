// kslogreader: turns encrypted log files back into plain text for operators.
//
// Files are read in the order given (for one output: the rotated files first, the current
// one last) and their records written to standard output. A damaged stretch of a file (a
// block torn by a writer that died, say) is skipped up to the next key block and reported
// on standard error with the file's name and the offsets skipped, after everything readable
// in the file has been printed; the remaining files are still read, and the exit status
// tells that something was lost.
#include <ksutils/cmdline.h>
#include <ksutils/crypto.h>
#include <ksutils/error.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitBadFile = 1;
constexpr int kExitUsage = 2;

const char* program = "kslogreader";

// A lone "-" names standard input, but the parser would take it for an option: it is handed
// to the parser as this empty argument, recognised afterwards by its address.
const char kStandardInput[] = "";

void print_help(FILE* out) {
    std::fprintf(out,
                 "Usage: %s [-k PRIVATE_KEY | PRIVATE_KEY] LOGFILE...\n"
                 "\n"
                 "Decrypts encrypted log files and writes their plain records to standard output.\n"
                 "Give the files of one output oldest first (e.g. name.1 then name.0) to read them\n"
                 "in the order they were written; \"-\" reads a log file from standard input.\n"
                 "\n",
                 program);
    ks::cl::print_help(out);
    std::fputs("\n"
               "A file with a bad header is reported on standard error with its name. A torn or\n"
               "corrupt block, or records written for another key, are skipped up to the next\n"
               "key block that the private key opens, where reading resumes; each skipped\n"
               "stretch is reported with the offsets of its first and last bytes, after\n"
               "everything readable in the file has been printed. The other files are still read.\n"
               "\n"
               "Exit status: 0 when every file was read completely, 1 when any file could not\n"
               "be read completely, 2 for a usage error or an unusable key.\n",
               out);
}

int usage_error(const char* message, const char* argument = nullptr) {
    if (argument)
        std::fprintf(stderr, "%s: %s: %s\n", program, message, argument);
    else
        std::fprintf(stderr, "%s: %s\n", program, message);
    std::fprintf(stderr, "Try '%s --help' for more information.\n", program);
    return kExitUsage;
}

std::string last_error() { return std::string(ks::_get_kserrno().message_view()); }

// Decrypts one file to standard output; false (after reporting it) when anything was lost.
bool read_log(ks::CryptoLogReader& reader, ks::string_view argument) {
    const std::string name = argument.data() == kStandardInput ? "-" : std::string(argument);
    ks::unique_fd owned;
    int fd = STDIN_FILENO;
    if (name != "-") {
        owned.reset(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
        if (!owned) {
            std::fprintf(stderr, "%s: %s: %s\n", program, name.c_str(), std::strerror(errno));
            return false;
        }
        fd = owned.get();
    }
    if (reader.decrypt(STDOUT_FILENO, fd)) return true;
    // One line for each skipped stretch.
    const std::string errors = last_error();
    for (size_t start = 0;;) {
        const size_t end = std::min(errors.find('\n', start), errors.size());
        std::fprintf(stderr, "%s: %s: %.*s\n", program, name == "-" ? "(standard input)" : name.c_str(),
                     static_cast<int>(end - start), errors.data() + start);
        if (end == errors.size()) break;
        start = end + 1;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 0 && argv[0] && *argv[0]) {
        const char* slash = std::strrchr(argv[0], '/');
        program = slash ? slash + 1 : argv[0];
    }

    std::vector<char*> args(argv, argv + argc);
    for (char*& arg : args)
        if (std::strcmp(arg, "-") == 0) arg = const_cast<char*>(kStandardInput);
    // "--key" and "--help" are the same options: the parser drops one dash.
    ks::cl::opt<ks::string_view> key_option{"k", "key", "-key", ks::cl::at_most(1), ks::cl::value_name("FILE"),
                                            ks::cl::help("the RSA private key (PEM or DER) matching the device's log "
                                                         "public key; without -k the first argument is the key")};
    ks::cl::flag help{"h", "help", "-help", ks::cl::help("show this help and exit")};
    ks::cl::list<ks::string_view> arguments{"LOGFILE", ks::cl::Positional, ks::cl::Sink,
                                            ks::cl::help("log files, oldest first; \"-\" is standard input")};
    if (!ks::cl::parse(argc, args.data())) return usage_error(last_error().c_str());
    if (help) {
        print_help(stdout);
        return kExitOk;
    }
    std::string key(*key_option);
    std::vector<ks::string_view> files(arguments->begin(), arguments->end());
    if (key.empty() && !files.empty()) {
        key = std::string(files.front());
        files.erase(files.begin());
    }
    if (key.empty()) return usage_error("no private key given");
    if (files.empty()) return usage_error("no log file given");

    ks::CryptoLogReader reader(key.c_str());
    if (!reader) {
        std::fprintf(stderr, "%s: %s\n", program, last_error().c_str());
        return kExitUsage;
    }
    int status = kExitOk;
    for (ks::string_view name : files)
        if (!read_log(reader, name)) status = kExitBadFile;
    return status;
}
