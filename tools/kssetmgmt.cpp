// kssetmgmt: the settings of a running kssetter from the command line, for people and scripts.
//
// Each invocation is one request through the settings client library, so it sees what a
// daemon sees, including the offline fallback to "etc/storage.data" for reads when the
// server is down. Values go to standard output as they are (no newline added to "get"), so
// binary values can be redirected to a file. Exit status: 0 success, 1 usage error, 2 the
// request failed (the reason goes to standard error).
//
// Logging starts as in a daemon when the install root has its log key. Without the key
// the log core cannot start, yet a settings tool must work there all the same: the client
// then runs without its log channel, and every failure is reported here, on standard error,
// from the error record.
#include <kssetter/kssetmgmt.h>

#include <ksutils/cmdline.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include <kspath.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

namespace sm = ks::setMgmt;
using ks::storage::NodeInfo;

constexpr int kUsage = 1;
constexpr int kFailed = 2;

// The commands, after the options the parser describes.
constexpr const char* kCommands =
    "Commands:\n"
    "  get KEY                 print the value\n"
    "  set KEY VALUE           store a text value (\"\" stores the key without value)\n"
    "  set-file KEY FILE       store the file's bytes as a binary value\n"
    "  delete KEY              delete the key and everything below it\n"
    "  stat KEY                print the value's type (string, binary, none) and size\n"
    "  enum KEY                print the names of the key's children, one per line\n"
    "  lock-set KEY VALUE      lock KEY, store VALUE, unlock (waits for other holders)\n"
    "  watch [-plain] KEY [N]  print the changed keys (KEY or below) as changes arrive;\n"
    "                          stop after N changes. -plain prints KEY once per wake-up\n"
    "A value that begins with \"-\" goes after \"--\".\n";

void usage(FILE* out) {
    std::fputs("usage: kssetmgmt [-root DIR] COMMAND ARGS\n", out);
    std::fputs(kCommands, out);
}

int fail(const std::string& what) {
    const auto& e = ks::_get_kserrno();
    std::fprintf(stderr, "kssetmgmt: %s: %.*s (%.*s)\n", what.c_str(), static_cast<int>(e.message_view().size()),
                 e.message_view().data(), static_cast<int>(e.name_view().size()), e.name_view().data());
    return kFailed;
}

int get(const std::string& key) {
    std::string value;
    if (sm::getKey(key, value) < 0) return fail("get " + key);
    std::fwrite(value.data(), 1, value.size(), stdout);
    return 0;
}

// Reads the whole regular file into `bytes`; false (with errno) otherwise.
bool readFile(const std::string& file, std::string& bytes) {
    struct stat st;
    if (::stat(file.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) {
        errno = EISDIR;
        return false;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) return false;
    bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

int setFile(const std::string& key, const std::string& file) {
    std::string bytes;
    if (!readFile(file, bytes)) {
        std::fprintf(stderr, "kssetmgmt: cannot read %s: %s\n", file.c_str(), std::strerror(errno));
        return kFailed;
    }
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    return sm::setKey(key, data, bytes.size()) < 0 ? fail("set " + key) : 0;
}

int stat(const std::string& key) {
    NodeInfo info;
    if (sm::statKey(key, info) < 0) return fail("stat " + key);
    const char* type = info.type == ks::storage::String ? "string" : info.type == ks::storage::Binary ? "binary" : "none";
    std::printf("%s %llu\n", type, static_cast<unsigned long long>(info.size));
    return 0;
}

int enumerate(const std::string& key) {
    std::vector<std::string> names;
    if (sm::enumSubkeys(key, names) < 0) return fail("enum " + key);
    for (const std::string& name : names) std::printf("%s\n", name.c_str());
    return 0;
}

int lockSet(const std::string& key, const std::string& value) {
    if (sm::lockKey(key) < 0) return fail("lock " + key);
    const int set = sm::setKey(key, value);
    if (set < 0) fail("set " + key);
    if (sm::unlockKey(key) < 0) return fail("unlock " + key);
    return set < 0 ? kFailed : 0;
}

int watch(const std::string& key, bool plain, long limit) {
    sm::NotifyHandle* handle = sm::setNotification(key, !plain);
    if (!handle) return fail("watch " + key);
    long seen = 0;
    int status = 0;
    while (limit <= 0 || seen < limit) {
        std::set<std::string> keys;
        const int n = sm::waitNotification(handle, -1, keys);
        if (n < 0) {
            status = fail("watch " + key);
            break;
        }
        for (const std::string& changed : keys) std::printf("%s\n", changed.c_str());
        std::fflush(stdout);
        seen += plain ? 1 : n;
    }
    sm::cancelNotification(handle);
    return status;
}

int dispatch(const std::vector<ks::string_view>& words, bool plain) {
    const std::vector<std::string> args(words.begin(), words.end());
    const std::string& cmd = args[0];
    const size_t n = args.size();
    if (plain && cmd != "watch") return -1;
    if (cmd == "get" && n == 2) return get(args[1]);
    if (cmd == "set" && n == 3) return sm::setKey(args[1], args[2]) < 0 ? fail("set " + args[1]) : 0;
    if (cmd == "set-file" && n == 3) return setFile(args[1], args[2]);
    if (cmd == "delete" && n == 2) return sm::deleteKey(args[1]) < 0 ? fail("delete " + args[1]) : 0;
    if (cmd == "stat" && n == 2) return stat(args[1]);
    if (cmd == "enum" && n == 2) return enumerate(args[1]);
    if (cmd == "lock-set" && n == 3) return lockSet(args[1], args[2]);
    if (cmd == "watch" && (n == 2 || n == 3)) {
        long limit = 0;
        if (n == 3) {
            char* end = nullptr;
            limit = std::strtol(args[2].c_str(), &end, 10);
            if (*end != '\0' || limit <= 0) return -1;
        }
        return watch(args[1], plain, limit);
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    // "--root" and "--help" are the same options: the parser drops one dash.
    ks::cl::opt<ks::string_view> root{"root", "-root", ks::cl::at_most(1), ks::cl::value_name("DIR"),
                                      ks::cl::help("the install root (default: the installation's)")};
    ks::cl::flag plain{"plain", ks::cl::at_most(1), ks::cl::help("watch: print KEY once per wake-up")};
    ks::cl::flag help{"help", "h", "-help", ks::cl::help("show this help and exit")};
    ks::cl::list<ks::string_view> words{"COMMAND", ks::cl::Positional, ks::cl::Sink,
                                        ks::cl::help("the command and its arguments")};
    if (!ks::cl::parse(argc, argv)) {
        std::fprintf(stderr, "kssetmgmt: %s\n", std::string(ks::_get_kserrno().message_view()).c_str());
        usage(stderr);
        return kUsage;
    }
    if (help) {
        ks::cl::print_help(stdout);
        std::fputs("\n", stdout);
        std::fputs(kCommands, stdout);
        return 0;
    }
    if (words->empty()) {
        usage(stderr);
        return kUsage;
    }
    const std::string rootDir(*root);
    const char* rootPath = rootDir.empty() ? nullptr : rootDir.c_str();
    if (rootPath) kspath_set_install_path(rootPath);

    // The log core refuses to start without its key, and says so on standard error: not
    // worth a word from a settings tool, so it is not asked to.
    const bool logging = ks::path(ks::common_path::etc, "logs-pub.pem").exists() &&
                         ks::log::start(argv[0], rootPath, nullptr);
    if (sm::init(sm::LogChannel::optional) < 0) {
        const int status = fail("init");
        if (logging) ks::log::stop();
        return status;
    }
    int status = dispatch(*words, static_cast<bool>(plain));
    if (status < 0) {
        usage(stderr);
        status = kUsage;
    }
    sm::uninit();
    if (logging) ks::log::stop();
    return status;
}
