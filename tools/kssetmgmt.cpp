// kssetmgmt: the settings of a running kssetter from the command line, for people and scripts.
//
// Each invocation is one request through the settings client library, so it sees what a
// daemon sees, including the offline fallback to "etc/storage.data" for reads when the
// server is down. Values go to standard output as they are (no newline added to "get"), so
// binary values can be redirected to a file. Exit status: 0 success, 1 usage error (or no
// server to talk to, see below), 2 the request failed (the reason goes to standard error).
//
// The client library needs its log channel, and an install root without a log key
// ("etc/logs-pub.pem") has no log core. A settings tool must work there all the same, so it
// then makes its requests itself over one connection, with the library's key check and
// framing: same answers, same messages, but no offline fallback.
#include <kssetter/kssetmgmt.h>
#include "kssetter/kssetmgmt/protocol.h"

#include <ksutils/cmdline.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include <ksutils/unique_fd.h>

#include <kspath.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
namespace setter = ks::setter;
using ks::storage::NodeInfo;

constexpr int kUsage = 1;
constexpr int kFailed = 2;
constexpr int kNoServer = 1;  // without a log key there is nothing to fall back to

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

// ---- requests: the library's free functions, or our own connection without a log core ----

bool g_direct = false;
sm::Connection g_connection;

int64_t direct(const setter::Request& request, setter::Reply& reply) {
    if (setter::carriesKey(request.command) && !setter::checkClientKey(request.key)) return -1;
    return setter::roundTrip(g_connection, request, reply);
}

int64_t getValue(const std::string& key, std::string& value) {
    if (!g_direct) return sm::getKey(key, value);
    setter::Reply reply;
    if (direct(setter::makeRequest(setter::CMD_GET, key), reply) < 0) return -1;
    value.assign(reply.payload.data(), reply.payload.size());
    return reply.result;
}

// A text or binary value; an empty one stores the key without value.
int setValue(const std::string& key, const std::string& value, bool binary) {
    if (!g_direct)
        return binary ? sm::setKey(key, reinterpret_cast<const unsigned char*>(value.data()), value.size())
                      : sm::setKey(key, value);
    setter::Request request = setter::makeRequest(setter::CMD_SET, key);
    request.type = value.empty() ? ks::storage::None : binary ? ks::storage::Binary : ks::storage::String;
    request.value = value;
    setter::Reply reply;
    return direct(request, reply) < 0 ? -1 : 0;
}

// DELETE, LOCK and UNLOCK: a key and a bare result.
int keyCommand(setter::CmdType command, const std::string& key) {
    if (!g_direct)
        return command == setter::CMD_DELETE ? sm::deleteKey(key)
               : command == setter::CMD_LOCK ? sm::lockKey(key)
                                             : sm::unlockKey(key);
    setter::Reply reply;
    const int64_t result = direct(setter::makeRequest(command, key), reply);
    // The lock byte of the requests that follow a LOCK; an UNLOCK drops it whatever the outcome.
    if (command != setter::CMD_DELETE) g_connection.lockHeld = command == setter::CMD_LOCK && result >= 0;
    return result < 0 ? -1 : 0;
}

int statValue(const std::string& key, NodeInfo& info) {
    if (!g_direct) return sm::statKey(key, info);
    setter::Reply reply;
    if (direct(setter::makeRequest(setter::CMD_STAT, key), reply) < 0) return -1;
    if (setter::decodeNodeInfo(reply.payload, info)) return 0;
    ks::_get_kserrno().set(ks::E_FAULT, "Failed to parse data");
    return -1;
}

int enumNames(const std::string& key, std::vector<std::string>& names) {
    if (!g_direct) return sm::enumSubkeys(key, names);
    setter::Reply reply;
    if (direct(setter::makeRequest(setter::CMD_ENUM, key), reply) < 0) return -1;
    int empty = 0;
    setter::decodeNames(reply.payload, names, empty);
    return static_cast<int>(names.size());
}

// ---- commands ----------------------------------------------------------------------------

int get(const std::string& key) {
    std::string value;
    if (getValue(key, value) < 0) return fail("get " + key);
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
    return setValue(key, bytes, true) < 0 ? fail("set " + key) : 0;
}

int stat(const std::string& key) {
    NodeInfo info;
    if (statValue(key, info) < 0) return fail("stat " + key);
    const char* type = info.type == ks::storage::String ? "string" : info.type == ks::storage::Binary ? "binary" : "none";
    std::printf("%s %llu\n", type, static_cast<unsigned long long>(info.size));
    return 0;
}

int enumerate(const std::string& key) {
    std::vector<std::string> names;
    if (enumNames(key, names) < 0) return fail("enum " + key);
    for (const std::string& name : names) std::printf("%s\n", name.c_str());
    return 0;
}

int lockSet(const std::string& key, const std::string& value) {
    if (keyCommand(setter::CMD_LOCK, key) < 0) return fail("lock " + key);
    const int set = setValue(key, value, false);
    if (set < 0) fail("set " + key);
    if (keyCommand(setter::CMD_UNLOCK, key) < 0) return fail("unlock " + key);
    return set < 0 ? kFailed : 0;
}

// The handle's own members: they need no initialised client library, so one path serves
// both ways of running.
int watch(const std::string& key, bool plain, long limit) {
    if (!setter::checkClientKey(key)) return fail("watch " + key);
    sm::NotifyHandle handle(key, !plain);
    if (handle.init() < 0) return fail("watch " + key);
    long seen = 0;
    int status = 0;
    while (limit <= 0 || seen < limit) {
        std::set<std::string> keys;
        const int n = handle.getNotifications(-1, keys);
        if (n < 0) {
            status = fail("watch " + key);
            break;
        }
        for (const std::string& changed : keys) std::printf("%s\n", changed.c_str());
        std::fflush(stdout);
        seen += plain ? 1 : n;
    }
    handle.uninit();
    return status;
}

int dispatch(const std::vector<ks::string_view>& words, bool plain) {
    const std::vector<std::string> args(words.begin(), words.end());
    const std::string& cmd = args[0];
    const size_t n = args.size();
    if (plain && cmd != "watch") return -1;
    if (cmd == "get" && n == 2) return get(args[1]);
    if (cmd == "set" && n == 3) return setValue(args[1], args[2], false) < 0 ? fail("set " + args[1]) : 0;
    if (cmd == "set-file" && n == 3) return setFile(args[1], args[2]);
    if (cmd == "delete" && n == 2) return keyCommand(setter::CMD_DELETE, args[1]) < 0 ? fail("delete " + args[1]) : 0;
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

    const bool logging = ks::path(ks::common_path::etc, "logs-pub.pem").exists() &&
                         ks::log::start(argv[0], rootPath, nullptr);
    if (!logging) {
        g_direct = true;
        if (g_connection.init() < 0) {
            fail("no settings server at " + ks::path(ks::common_path::run, setter::kSocketName).str() +
                 " (and no offline copy without a log key)");
            return kNoServer;
        }
    } else if (sm::init() < 0) {
        const int status = fail("init");
        ks::log::stop();
        return status;
    }
    int status = dispatch(*words, static_cast<bool>(plain));
    if (status < 0) {
        usage(stderr);
        status = kUsage;
    }
    if (logging) {
        sm::uninit();
        ks::log::stop();
    }
    return status;
}
