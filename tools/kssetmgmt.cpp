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
//
// "export" and "import" carry a subtree as a JSON document, for backups and for moving
// settings between boxes. Names and values are byte strings, so every text is either a
// JSON string (when its bytes are UTF-8 without NUL) or marked and in Base64:
//
//   {"kssetmgmt-export": 1, "key": TEXT, "tree": NODE}
//   NODE  = {"value": VALUE, "children": [NODE with "name": TEXT, ...]}
//   TEXT  = "text" | {"base64": "..."}
//   VALUE = TEXT (a text value) | {"binary": "..."} (a binary value)
//
// A node without "value" is a key without value; "children" is left out when there are
// none. Base64 uses the standard alphabet without "=" padding. "key" is where the subtree
// came from: import writes it back there unless told another key. Import checks the whole
// document before it writes anything, then makes the subtree equal to it (keys the document
// lacks are deleted) while holding the subtree's lock, so that a client that takes the same
// lock sees the subtree before or after the import, never half of it.
#include <kssetter/kssetmgmt.h>

#include <ksutils/cmdline.h>
#include <ksutils/crypto.h>
#include <ksutils/error.h>
#include <ksutils/jsonutl.h>
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
    "  export KEY [FILE]       write the subtree at KEY as JSON to FILE (or standard output)\n"
    "  import FILE [KEY]       make the subtree at KEY (default: the one exported) what FILE\n"
    "                          holds, keys FILE lacks deleted, with KEY locked meanwhile\n"
    "A value that begins with \"-\" goes after \"--\".\n";

// The export document, for the help.
constexpr const char* kFormat =
    "Export document:\n"
    "  {\"kssetmgmt-export\": 1, \"key\": TEXT, \"tree\": NODE}\n"
    "  NODE  = {\"value\": VALUE, \"children\": [NODE with \"name\": TEXT, ...]}\n"
    "  TEXT  = \"text\" (UTF-8 without NUL) | {\"base64\": \"...\"} (any other bytes)\n"
    "  VALUE = TEXT (a text value) | {\"binary\": \"...\"} (a binary value, Base64)\n"
    "  No \"value\": a key without value. Base64 without \"=\" padding.\n";

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

// ---- export and import ----

constexpr const char* kFormatMember = "kssetmgmt-export";
constexpr const char* kTextMark = "base64";
constexpr const char* kBinaryMark = "binary";

struct Node {
    std::string name;
    ks::storage::ValueType type = ks::storage::None;
    std::string value;
    std::vector<Node> children;
};

std::string childKey(const std::string& parent, const std::string& name) {
    return (parent == "/" ? parent : parent + "/") + name;
}

// The subtree at `key`; on failure `where` is the key that failed.
bool readTree(const std::string& key, Node& node, std::string& where) {
    where = key;
    NodeInfo info;
    if (sm::statKey(key, info) < 0) return false;
    node.type = info.type;
    if (info.type != ks::storage::None && sm::getKey(key, node.value) < 0) return false;
    std::vector<std::string> names;
    if (sm::enumSubkeys(key, names) < 0) return false;
    node.children.resize(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        node.children[i].name = names[i];
        if (!readTree(childKey(key, names[i]), node.children[i], where)) return false;
    }
    return true;
}

json_t* marked(const char* mark, const std::string& bytes) {
    std::string encoded;
    ks::base64_encode(bytes, encoded);
    return json_pack("{s:s%}", mark, encoded.data(), encoded.size());
}

json_t* textJson(const std::string& bytes) {
    // json_stringn refuses what is not UTF-8; a NUL would need a lenient parser to come back.
    json_t* text = bytes.find('\0') == std::string::npos ? json_stringn(bytes.data(), bytes.size()) : nullptr;
    return text ? text : marked(kTextMark, bytes);
}

json_t* nodeJson(const Node& node, bool named) {
    json_t* object = json_object();
    if (named) json_object_set_new(object, "name", textJson(node.name));
    if (node.type == ks::storage::Binary) json_object_set_new(object, "value", marked(kBinaryMark, node.value));
    if (node.type == ks::storage::String) json_object_set_new(object, "value", textJson(node.value));
    if (!node.children.empty()) {
        json_t* children = json_array();
        for (const Node& child : node.children) json_array_append_new(children, nodeJson(child, true));
        json_object_set_new(object, "children", children);
    }
    return object;
}

// The bytes of a TEXT (`mark` "base64") or of a binary VALUE (`mark` "binary").
bool bytesFrom(const json_t* json, const char* mark, std::string& out) {
    if (json_is_string(json) && std::strcmp(mark, kTextMark) == 0) {
        out.assign(json_string_value(json), json_string_length(json));
        return true;
    }
    const json_t* encoded = json_object_get(json, mark);
    if (!json_is_string(encoded) || json_object_size(json) != 1) return false;
    // The decoder takes any character; what does not encode back the same is not Base64.
    const std::string text(json_string_value(encoded), json_string_length(encoded));
    std::string again;
    return ks::base64_decode(text, out) && ks::base64_encode(out, again) && again == text;
}

// The node `json` for `key`, checked whole; false with `error` set.
bool nodeFrom(const json_t* json, const std::string& key, Node& node, std::string& error) {
    error = key + ": ";
    if (!json_is_object(json)) return error += "not an object", false;
    const json_t* value = json_object_get(json, "value");
    node.type = !value ? ks::storage::None : json_object_get(value, kBinaryMark) ? ks::storage::Binary : ks::storage::String;
    if (value && !bytesFrom(value, node.type == ks::storage::Binary ? kBinaryMark : kTextMark, node.value))
        return error += "bad value", false;
    const json_t* children = json_object_get(json, "children");
    if (children && !json_is_array(children)) return error += "\"children\" is not an array", false;
    std::set<std::string> seen;
    size_t i;
    const json_t* child;
    json_array_foreach(children, i, child) {
        Node n;
        if (!bytesFrom(json_object_get(child, "name"), kTextMark, n.name) || n.name.empty() ||
            n.name.find('/') != std::string::npos || !ks::storage::Store::isValidKey(childKey(key, n.name)))
            return error += "child " + std::to_string(i) + " has a bad name", false;
        if (!seen.insert(n.name).second) return error += "child " + std::to_string(i) + " repeats a name", false;
        if (!nodeFrom(child, childKey(key, n.name), n, error)) return false;
        node.children.push_back(std::move(n));
    }
    return true;
}

// Makes the subtree at `key` equal to `node`; on failure `where` is the key that failed.
bool writeTree(const std::string& key, const Node& node, std::string& where) {
    where = key;
    const auto* bytes = reinterpret_cast<const unsigned char*>(node.value.data());
    // The root always exists and takes no value of its own.
    if (key != "/" || node.type != ks::storage::None) {
        const int set = node.type == ks::storage::Binary ? sm::setKey(key, bytes, node.value.size())
                                                         : sm::setKey(key, node.value);
        if (set < 0) return false;
    }
    std::vector<std::string> present;
    if (sm::enumSubkeys(key, present) < 0) return false;
    std::set<std::string> wanted;
    for (const Node& child : node.children) wanted.insert(child.name);
    for (const std::string& name : present) {
        where = childKey(key, name);
        if (!wanted.count(name) && sm::deleteKey(where) < 0) return false;
    }
    for (const Node& child : node.children)
        if (!writeTree(childKey(key, child.name), child, where)) return false;
    return true;
}

int exportTree(const std::string& key, const std::string* file) {
    // Locked for a copy consistent with lock holders' changes; with the server down (no
    // lock to take) the offline copy is read as it is.
    const bool locked = sm::lockKey(key) == 0;
    if (!locked && ks::_get_kserrno().code != ks::E_SYSTEM) return fail("lock " + key);
    Node tree;
    std::string where;
    const bool read = readTree(key, tree, where);
    if (!read) fail("export " + where);
    if (locked && sm::unlockKey(key) < 0) return fail("unlock " + key);
    if (!read) return kFailed;

    const ks::json_ptr doc(json_pack("{s:i,s:o,s:o}", kFormatMember, 1, "key", textJson(key), "tree",
                                     nodeJson(tree, false)));
    const size_t flags = JSON_INDENT(1) | JSON_PRESERVE_ORDER;
    const int dumped = file ? json_dump_file(doc.get(), file->c_str(), flags) : json_dumpf(doc.get(), stdout, flags);
    if (!file) std::fputc('\n', stdout);
    if (!doc || dumped != 0 || (!file && std::fflush(stdout) != 0)) {
        std::fprintf(stderr, "kssetmgmt: cannot write %s: %s\n", file ? file->c_str() : "the document",
                     std::strerror(errno));
        return kFailed;
    }
    return 0;
}

int importTree(const std::string& file, const std::string* target) {
    const ks::json_ptr doc = ks::json_load_file(file);
    if (!doc) return fail("import");
    std::string key, error;
    Node tree;
    if (json_integer_value(json_object_get(doc.get(), kFormatMember)) != 1)
        error = "not an export document";
    else if (!(target ? (key = *target, true) : bytesFrom(json_object_get(doc.get(), "key"), kTextMark, key)))
        error = "no \"key\" to import to";
    else if (!ks::storage::Store::isValidKey(key))
        error = key + ": not a valid key";
    else if (nodeFrom(json_object_get(doc.get(), "tree"), key, tree, error))
        error.clear();
    if (!error.empty()) {
        std::fprintf(stderr, "kssetmgmt: import %s: %s\n", file.c_str(), error.c_str());
        return kFailed;
    }
    if (sm::lockKey(key) < 0) return fail("lock " + key);
    std::string where;
    const bool written = writeTree(key, tree, where);
    if (!written) fail("import " + where);
    if (sm::unlockKey(key) < 0) return fail("unlock " + key);
    return written ? 0 : kFailed;
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
    if (cmd == "export" && (n == 2 || n == 3)) return exportTree(args[1], n == 3 ? &args[2] : nullptr);
    if (cmd == "import" && (n == 2 || n == 3)) return importTree(args[1], n == 3 ? &args[2] : nullptr);
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
        std::fputs(kFormat, stdout);
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
