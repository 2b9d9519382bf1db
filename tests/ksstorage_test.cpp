// Settings store: key syntax and its errors, reads, deletes, merges, branch copies, change
// counting, and the settings file checked byte for byte and against sha256sum, including a
// large round trip and saves killed at random moments.
#include <kssetter/ksstorage.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <kstest.h>

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <vector>

using ks::storage::NodeInfo;
using ks::storage::Store;
using ks::storage::ValueType;

namespace {

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

int set(Store& store, const std::string& key, const std::string& value, ValueType type = ks::storage::String) {
    return store.setKey(key, type == ks::storage::None ? nullptr : bytes(value), type,
                        type == ks::storage::None ? 0 : value.size());
}

std::string get(const Store& store, const std::string& key) {
    std::string out;
    return store.getKey(key, out) < 0 ? "<error>" : out;
}

int code() { return ks::_get_kserrno().code; }
std::string message() { return ks::_get_kserrno().message_view().str(); }

// A store given as "key=value" entries ("key" alone is a valueless key); the order matters
// only for keys set twice.
Store make(const std::vector<std::string>& entries) {
    Store store;
    for (const auto& entry : entries) {
        const size_t eq = entry.find('=');
        if (eq == std::string::npos)
            EXPECT_EQ(store.setKey_(entry, nullptr, ks::storage::None, 0), 0) << entry;
        else
            EXPECT_EQ(store.setKey_(entry.substr(0, eq), bytes(entry.substr(eq + 1)), ks::storage::String,
                                    entry.size() - eq - 1),
                      0)
                << entry;
    }
    return store;
}

// The store's records, sorted, for comparisons that do not depend on hash-map order.
std::vector<std::string> records(const Store& store) {
    if (store.empty()) return {"<empty>"};
    ks::basic_memstream out;
    store.getRoot()->save(out);
    std::vector<std::string> lines;
    for (auto piece : out.view().split('\n'))
        if (!piece.empty()) lines.push_back(piece.str());
    std::sort(lines.begin(), lines.end());
    return lines;
}

// A file's records: each line with its continuation lines, sorted; the first line apart.
std::vector<std::string> file_records(const std::string& text, std::string* first = nullptr) {
    std::vector<std::string> out;
    for (auto line : ks::string_view(text).split('\n')) {
        if (line.empty()) continue;
        if (line[0] == ' ' && !out.empty())
            out.back().append("\n").append(line);
        else
            out.push_back(line.str());
    }
    if (first != nullptr && !out.empty()) {
        *first = out.front();
        out.erase(out.begin());
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::string sha256sum(const std::string& command_producing_data) {
    std::string out;
    EXPECT_EQ(kstest::run(command_producing_data + " | sha256sum", &out), 0);
    return out.substr(0, 64);
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

TEST(Store, KeySyntaxErrorsChangeNothing) {
    const std::string inval(ks::error_default_message(ks::E_INVAL));
    struct Case {
        std::string key;
        std::string text;
    } cases[] = {
        {"/a=b", inval},
        {"/a|b", inval},
        {"/a\tb", inval},
        {"/a\rb", inval},
        {"/a\nb", inval},
        {std::string("/a\0b", 4), inval},
        {"", "Empty key"},
        {"a/b", "Key does not start with delimiter: a/b"},
    };
    Store store = make({"/=root", "/a=1", "/a/b=2"});
    const Store before(store, "/");
    for (const auto& c : cases) {
        const std::string what = "key \"" + c.key + "\"";
        EXPECT_EQ(set(store, c.key, "v"), -1) << what;
        EXPECT_EQ(code(), ks::E_INVAL) << what;
        EXPECT_EQ(message(), c.text) << what;
        EXPECT_EQ(store.delKey(c.key, true, false), -1) << what;
        EXPECT_EQ(code(), ks::E_INVAL) << what;
        std::string value;
        EXPECT_EQ(store.getKey(c.key, value), -1) << what;
        NodeInfo info;
        EXPECT_EQ(store.keyInfo(c.key, info), -1) << what;
        EXPECT_EQ(store.locateKey(c.key, nullptr), std::make_pair(2, int64_t{-1})) << what;
        EXPECT_TRUE(store.enumSubkeys(c.key).empty()) << what;
        EXPECT_TRUE(store.getInheritance(c.key).empty()) << what;
        EXPECT_EQ(code(), ks::E_INVAL) << what;
    }
    EXPECT_TRUE(store == before);
    EXPECT_EQ(store.getPersistentChanges(), 0u);
    EXPECT_EQ(store.getVolatileChanges(), 0u);
}

TEST(Store, Reads) {
    Store store = make({"/=root", "/a", "/a/b=value", "/a//b=empty component", "/a/=trailing", "/tmp/v=mem"});
    ASSERT_EQ(store.setKey_("/bin", bytes(std::string("\0\1\2", 3)), ks::storage::Binary, 3), 0);
    struct Case {
        std::string key;
        std::string value;  // "<error>" when absent
        ValueType type;
    } cases[] = {
        {"/", "root", ks::storage::String},
        {"/a", "", ks::storage::None},
        {"/a/b", "value", ks::storage::String},
        {"/a//b", "empty component", ks::storage::String},
        {"/a/", "trailing", ks::storage::String},
        {"/bin", std::string("\0\1\2", 3), ks::storage::Binary},
        {"/tmp/v", "mem", ks::storage::String},
        {"/a/b/c", "<error>", ks::storage::None},
        {"/b", "<error>", ks::storage::None},
        {"//a", "<error>", ks::storage::None},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(get(store, c.key), c.value) << c.key;
        NodeInfo info;
        if (c.value == "<error>") {
            EXPECT_EQ(store.keyInfo(c.key, info), -1) << c.key;
            EXPECT_EQ(code(), ks::E_NOENT) << c.key;
            EXPECT_EQ(message(), "Key " + c.key + " not found");
            continue;
        }
        ASSERT_EQ(store.keyInfo(c.key, info), 0) << c.key;
        EXPECT_EQ(ValueType(info.type), c.type) << c.key;
        EXPECT_EQ(uint64_t(info.size), c.value.size()) << c.key;
        ASSERT_NE(store.findNode(c.key.c_str() + 1), nullptr) << c.key;
        EXPECT_EQ(store.findNode(c.key.c_str() + 1)->getValueBytes(), c.value) << c.key;
    }
    EXPECT_EQ(store.getMemoryCount(), 4 + 5 + 15 + 8 + 3 + 3);
    std::vector<std::string> children = store.enumSubkeys("/a");
    std::sort(children.begin(), children.end());
    EXPECT_EQ(children, (std::vector<std::string>{"", "b"}));
    std::vector<std::string> values = store.enumDescendantsValues("/a");
    std::sort(values.begin(), values.end());
    EXPECT_EQ(values, (std::vector<std::string>{"empty component", "trailing", "value"}));
    EXPECT_TRUE(store.enumSubkeys("/nothing").empty());
    EXPECT_EQ(code(), ks::E_NOENT);

    // An empty store answers -1 to getKey without touching the error record.
    Store empty;
    ks::_get_kserrno().set(ks::E_AGAIN);
    unsigned char out[4];
    EXPECT_EQ(empty.getKey("/a", out), -1);
    EXPECT_EQ(code(), ks::E_AGAIN);
    NodeInfo info;
    EXPECT_EQ(empty.keyInfo("/", info), -1);
    EXPECT_EQ(code(), ks::E_NOENT);
    EXPECT_EQ(empty.findNode(""), nullptr);
    EXPECT_EQ(empty.getMemoryCount(), 0);
}

TEST(Store, LocateKeyAndInheritance) {
    struct Case {
        std::vector<std::string> entries;
        std::string key;
        std::pair<int, int64_t> located;
        std::string value;
        std::vector<std::string> inherited;
    } cases[] = {
        {{"/=R", "/a=A", "/a/b/c"}, "/a/b/c", {1, 0}, "", {"R", "A"}},
        {{"/=R", "/a=A"}, "/a/b/c", {0, 1}, "A", {"R", "A"}},
        {{"/=R", "/a=A", "/a/b=B"}, "/a/b", {1, 1}, "B", {"R", "A", "B"}},
        {{"/=R", "/x=X"}, "/a/b", {0, 1}, "R", {"R"}},
        {{"/a=A"}, "/", {1, 0}, "", {}},
        {{"/=R"}, "/", {1, 1}, "R", {"R"}},
        {{"/a", "/a/b=B"}, "/a/b/zz", {0, 1}, "B", {"B"}},
        {{}, "/a", {2, 0}, "", {}},
    };
    for (const auto& c : cases) {
        Store store = make(c.entries);
        unsigned char out[16] = {};
        EXPECT_EQ(store.locateKey(c.key, out), c.located) << c.key;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), c.value.size()), c.value) << c.key;
        EXPECT_EQ(store.getInheritance(c.key), c.inherited) << c.key;
    }
}

TEST(Store, ChangeCounters) {
    struct Case {
        const char* key;
        bool isVolatile;
    } cases[] = {{"/tmp", true}, {"/tmp/x", true}, {"/tmp/x/y", true}, {"/tmpx", false},
                 {"/tm", false}, {"/a/tmp", false}, {"/", false}};
    for (const auto& c : cases) {
        Store store;
        ASSERT_EQ(set(store, c.key, "v"), 0) << c.key;
        ASSERT_EQ(store.delKey(c.key, true, false), 0) << c.key;
        EXPECT_EQ(store.getVolatileChanges(), c.isVolatile ? 2u : 0u) << c.key;
        EXPECT_EQ(store.getPersistentChanges(), c.isVolatile ? 0u : 2u) << c.key;
        EXPECT_EQ(store.delKey(c.key, true, false), -1) << c.key;  // failures do not count
        EXPECT_EQ(store.getVolatileChanges() + store.getPersistentChanges(), 2u) << c.key;
    }

    // Volatile changes alone never cause a write.
    kstest::TempDir dir;
    Store store;
    set(store, "/tmp/x", "v");
    EXPECT_EQ(store.save({dir / "settings"}), 0);
    EXPECT_FALSE(exists(dir / "settings"));
    set(store, "/p", "v");
    EXPECT_EQ(store.save({dir / "settings"}), 0);
    EXPECT_TRUE(exists(dir / "settings"));
    EXPECT_EQ(store.getPersistentChanges(), 0u);
    EXPECT_EQ(store.getVolatileChanges(), 1u);

    ks::storage::DebugInfo info;
    store.fillDebugInfo(info);
    EXPECT_EQ(info.memoryCount, 2u);
    EXPECT_EQ(info.persistentChanges, 0u);
    EXPECT_EQ(info.volatileChanges, 1u);
}

TEST(Store, Deletes) {
    const std::vector<std::string> tree = {"/a/b/c=1", "/a/x=2", "/v=3", "/v/w=4"};
    struct Case {
        std::vector<std::string> entries;
        std::string key;
        bool prune, leafOnly;
        int rc, code;
        std::string text;
        std::vector<std::string> remaining;
    } cases[] = {
        {tree, "/", false, true, -1, ks::E_FAULT, "Key / is not leaf", {"/a/b/c=s|1", "/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/a", true, true, -1, ks::E_FAULT, "Key /a is not leaf", {"/a/b/c=s|1", "/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/a/zz", true, false, -1, ks::E_NOENT, "Key /a/zz not found",
         {"/a/b/c=s|1", "/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {{}, "/a", true, false, -1, ks::E_NOENT, "Key /a not found", {"<empty>"}},
        {tree, "/", false, false, 0, 0, "", {"<empty>"}},
        {tree, "/a", false, false, 0, 0, "", {"/v/w=s|4", "/v=s|3"}},
        {tree, "/a/b/c", true, true, 0, 0, "", {"/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/a/b/c", false, true, 0, 0, "", {"/a/b", "/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/v/w", true, false, 0, 0, "", {"/a/b/c=s|1", "/a/x=s|2", "/v=s|3"}},
        {{"/a/b/c=1"}, "/a/b/c", true, false, 0, 0, "", {"<empty>"}},
        {{"/a/b/c=1"}, "/a/b/c", false, false, 0, 0, "", {"/a/b"}},
        {{"/=r", "/a/b=1"}, "/a/b", true, false, 0, 0, "", {"/=s|r"}},
        {{"/=r"}, "/", true, true, 0, 0, "", {"<empty>"}},
    };
    for (const auto& c : cases) {
        Store store = make(c.entries);
        const std::string what = c.key + (c.prune ? " prune" : "") + (c.leafOnly ? " leafOnly" : "");
        EXPECT_EQ(store.delKey(c.key, c.prune, c.leafOnly), c.rc) << what;
        if (c.rc < 0) {
            EXPECT_EQ(code(), c.code) << what;
            EXPECT_EQ(message(), c.text) << what;
        }
        EXPECT_EQ(records(store), c.remaining) << what;
    }

    Store store = make(tree);
    EXPECT_TRUE(store.clear());
    EXPECT_TRUE(store.empty());
    EXPECT_FALSE(store.clear());
}

TEST(Store, Merge) {
    struct Case {
        const char* what;
        std::vector<std::string> mine, theirs;
        std::string key;
        std::vector<std::string> mineAfter, theirsAfter;
    } cases[] = {
        {"replaces the branch",
         {"/a/b=1", "/a/b/old=o", "/a/c=2", "/x=9"},
         {"/a/b=new", "/a/b/d=3", "/y=7"},
         "/a/b",
         {"/a/b/d=s|3", "/a/b=s|new", "/a/c=s|2", "/x=s|9"},
         {"/a", "/y=s|7"}},
        {"an emptied path takes their whole first missing component",
         {"/a/b=1", "/x=9"},
         {"/a/b=2", "/a/z=5"},
         "/a/b",
         {"/a/b=s|2", "/a/z=s|5", "/x=s|9"},
         {"/"}},
        {"absent in theirs: only the delete",
         {"/a=1", "/x=2"},
         {"/q=1"},
         "/a",
         {"/x=s|2"},
         {"/q=s|1"}},
        {"an empty store adopts all of theirs", {}, {"/a/b=1", "/y=2"}, "/a/b", {"/a/b=s|1", "/y=s|2"}, {"<empty>"}},
        {"a store emptied by the delete adopts all of theirs",
         {"/a/b=0"},
         {"/a/b=1", "/y=2"},
         "/a/b",
         {"/a/b=s|1", "/y=s|2"},
         {"<empty>"}},
        {"the root takes over everything", {"/m=1"}, {"/t=2"}, "/", {"/t=s|2"}, {"<empty>"}},
        {"their branch stops before the key",
         {"/a/b/c=1", "/a/k=2"},
         {"/a=3"},
         "/a/b/c",
         {"/a/k=s|2"},
         {"/a=s|3"}},
        {"an invalid key does nothing", {"/m=1"}, {"/t=2"}, "m", {"/m=s|1"}, {"/t=s|2"}},
        {"an empty other does nothing", {"/m=1"}, {}, "/m", {"/m=s|1"}, {"<empty>"}},
    };
    for (const auto& c : cases) {
        Store mine = make(c.mine);
        Store theirs = make(c.theirs);
        // Two persistent changes here, two volatile ones there, none of them left in the trees.
        set(mine, "/p", "1");
        mine.delKey("/p", true, false);
        if (!theirs.empty()) {
            set(theirs, "/tmp/n", "1");
            theirs.delKey("/tmp/n", true, false);
        }
        const bool merged = c.key[0] == '/' && !theirs.empty();
        mine.merge(theirs, c.key);
        EXPECT_EQ(records(mine), c.mineAfter) << c.what;
        EXPECT_EQ(records(theirs), c.theirsAfter) << c.what;
        EXPECT_EQ(mine.getVolatileChanges(), merged ? 2u : 0u) << c.what;
        EXPECT_EQ(mine.getPersistentChanges(), 2u) << c.what;
    }
}

TEST(Store, BranchCopy) {
    const Store source = make({"/=r", "/a=A", "/a/b=B", "/a/b/c=C", "/a/b/c/d", "/z=Z"});
    struct Case {
        std::string key;
        std::vector<std::string> copied;
    } cases[] = {
        {"/", {"/=s|r", "/a/b/c/d", "/a/b/c=s|C", "/a/b=s|B", "/a=s|A", "/z=s|Z"}},
        {"/a/b", {"/a/b/c/d", "/a/b/c=s|C", "/a/b=s|B"}},
        {"/a/b/c/d", {"/a/b/c/d"}},
        {"/a/x", {"<empty>"}},
        {"a/b", {"<empty>"}},
    };
    for (const auto& c : cases) {
        Store copy(source, c.key);
        EXPECT_EQ(records(copy), c.copied) << c.key;
        EXPECT_EQ(copy.getPersistentChanges(), 0u);
    }
    EXPECT_TRUE(Store(source, "/") == source);
    EXPECT_TRUE(Store(Store(), "/").empty());
}

// ---- the settings file ---------------------------------------------------------------

TEST(StoreFile, FileFormIsExactAndChecksummed) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    const std::string binary("\x00\x01\xfe\xff\n=|x", 8);
    Store store;
    set(store, "/ml", "a\nb\n");
    set(store, "/bin", binary, ks::storage::Binary);
    set(store, "/leaf", "", ks::storage::None);
    set(store, "/inner/x", "1");
    set(store, "/empty", "");
    set(store, "/tmp", "never");
    set(store, "/tmp/deeper", "never");
    set(store, "/tmpx", "kept");
    set(store, "/tmpx/tmp", "kept");
    ASSERT_EQ(store.save({file}), 0);
    EXPECT_EQ(code(), ks::E_OK);
    EXPECT_FALSE(exists(file + ".shadow"));

    const std::string text = kstest::read_file(file);
    std::string base64;
    kstest::write_file(dir / "bin", binary);
    ASSERT_EQ(kstest::run("base64 -w0 '" + dir / "bin" + "' | tr -d =", &base64), 0);
    std::string first;
    EXPECT_EQ(file_records(text, &first),
              (std::vector<std::string>{"/bin=b|" + base64, "/inner/x=s|1", "/leaf", "/ml=s|a\n b\n ",
                                        "/tmpx/tmp=s|kept", "/tmpx=s|kept"}));
    EXPECT_EQ(first, "/tmp/hash=s|" + sha256sum("tail -c +78 '" + file + "'"));
    EXPECT_EQ(text.find('\n'), 76u);
    EXPECT_EQ(Store::checkHash(file), 0);

    // A tree without siblings has one possible order: compare every byte.
    Store single;
    set(single, "/x", "a\nb\n");
    ASSERT_EQ(single.save({file}), 0);
    const std::string body = "/x=s|a\n b\n \n";
    EXPECT_EQ(kstest::read_file(file), "/tmp/hash=s|" + sha256sum("printf '/x=s|a\\n b\\n \\n'") + "\n" + body);
}

TEST(StoreFile, LoadParsing) {
    const std::string digest(64, '0');
    struct Case {
        const char* what;
        std::string text;
        std::vector<std::string> expected;  // lines of the loaded store's records, sorted
        std::string tmpHash = "";
    } cases[] = {
        {"an empty line ends the file", "/a=s|1\n\n/b=s|2\n", {"/a=s|1"}},
        {"continuations", "/a=s|x\n y\n \n/b=s|z\n", {" ", " y", "/a=s|x", "/b=s|z"}},
        {"continuation after a binary record is lost", "/a=b|QUJD\n lost\n/b=s|k\n", {"/a=b|QUJD", "/b=s|k"}},
        {"continuation after a valueless key is lost", "/a\n lost\n", {"/a"}},
        {"continuation before any record is lost", " lost\n/a=s|1\n", {"/a=s|1"}},
        {"too short after =", "/a=s\n/b=\n/c=s|1\n", {"/c=s|1"}},
        {"empty string value", "/a=s|\n/b=s|1\n", {"/b=s|1"}},
        {"unknown type letter", "/a=x|1\n/b=s|1\n", {"/b=s|1"}},
        {"empty base64", "/a=b|\n/b=s|1\n", {"/b=s|1"}},
        {"the bar is not checked", "/a=s?v\n", {"/a=s|v"}},
        {"separators inside a value", "/a=s|x=y|z\n", {"/a=s|x=y|z"}},
        {"last line without line end", "/a=s|1\n/b=s|2", {"/a=s|1", "/b=s|2"}},
        {"later records win", "/a=s|1\n/a=s|2\n", {"/a=s|2"}},
        {"keys without delimiter are skipped", "a=s|1\n=s|2\n/b\n", {"/b"}},
        {"the checksum record lands in /tmp", "/tmp/hash=s|" + digest + "\n/a=s|1\n", {"/a=s|1"}, digest},
        {"root value", "/=s|r\n", {"/=s|r"}},
        {"valueless root", "/\n", {"/"}},
        {"nothing", "", {"<empty>"}},
    };
    kstest::TempDir dir;
    for (const auto& c : cases) {
        kstest::write_file(dir / "f", c.text);
        Store store = make({"/previous=1"});
        ASSERT_EQ(store.load(dir / "f"), 0) << c.what;
        EXPECT_EQ(records(store), c.expected) << c.what;
        std::string tmpHash = "";
        store.getKey("/tmp/hash", tmpHash);
        EXPECT_EQ(tmpHash, c.tmpHash) << c.what;
        EXPECT_EQ(store.getPersistentChanges() + store.getVolatileChanges(), 0u) << c.what;
    }

    // The loaded bytes themselves, where records() cannot show them.
    kstest::write_file(dir / "f", "/m=s|x\n y\n \n/b=b|AAH+/w\n/e=s|\n");
    Store store;
    ASSERT_EQ(store.load(dir / "f"), 0);
    EXPECT_EQ(get(store, "/m"), "x\ny\n");
    EXPECT_EQ(get(store, "/b"), std::string("\x00\x01\xfe\xff", 4));
    NodeInfo info;
    ASSERT_EQ(store.keyInfo("/e", info), 0);
    EXPECT_EQ(ValueType(info.type), ks::storage::String);
    EXPECT_EQ(uint64_t(info.size), 0u);

    // A missing file is an empty store; an unreadable one an error.
    EXPECT_EQ(store.load(dir / "missing"), 0);
    EXPECT_TRUE(store.empty());
    store = make({"/a=1"});
    EXPECT_EQ(store.load(dir.path()), -1);
    EXPECT_EQ(code(), ks::E_SYSTEM);
    EXPECT_TRUE(store.empty());
}

TEST(StoreFile, CheckHash) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    Store store = make({"/a=1", "/b/c=2", "/d=multi\nline"});
    store.setKey("/x", nullptr, ks::storage::None, 0);
    ASSERT_EQ(store.save({file}), 0);
    const std::string good = kstest::read_file(file);
    const std::string emptyDigest = sha256sum("printf ''");

    std::string flipped = good;
    flipped[good.size() - 2] ^= 1;
    std::string wrongDigest = good;
    wrongDigest.replace(12, 64, std::string(64, '0'));
    struct Case {
        const char* what;
        std::string text;
        int rc, code;
        std::string text_start;
    } cases[] = {
        {"as saved", good, 0, 0, ""},
        {"a data byte changed", flipped, -1, ks::E_INVAL, "Checksums don't match"},
        {"a wrong digest", wrongDigest, -1, ks::E_INVAL, "Checksums don't match"},
        {"an appended line", good + "/z=s|1\n", -1, ks::E_INVAL, "Checksums don't match"},
        {"a truncated checksum line", good.substr(0, 40), -1, ks::E_INVAL, "Invalid hash size"},
        {"a checksum line without line end", good.substr(0, 75), -1, ks::E_INVAL, "Invalid hash size"},
        {"76 bytes: the digest of nothing", "/tmp/hash=s|" + emptyDigest + "\n", 0, 0, ""},
        {"no checksum line", "/a=s|1\n", 0, 0, ""},
        {"shorter than the checksum key", "/tmp/has", 0, 0, ""},
        {"empty", "", 0, 0, ""},
    };
    for (const auto& c : cases) {
        kstest::write_file(file, c.text);
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_EQ(Store::checkHash(file), c.rc) << c.what;
        EXPECT_EQ(code(), c.code) << c.what;
        EXPECT_EQ(message().substr(0, c.text_start.size()), c.text_start) << c.what;
    }
    EXPECT_EQ(Store::checkHash(dir / "missing"), -1);
    EXPECT_EQ(code(), ks::E_SYSTEM);
}

TEST(StoreFile, FailedSavesKeepThePreviousFile) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    Store store = make({"/a=1"});
    set(store, "/a", "2");
    ASSERT_EQ(store.save({file}), 0);
    const std::string previous = kstest::read_file(file);
    set(store, "/a", "3");

    // The shadow cannot be opened: the target stays as it was, the next name is written.
    ASSERT_EQ(::mkdir((file + ".shadow").c_str(), 0755), 0);
    EXPECT_EQ(store.save({file, dir / "no/such/dir/settings", dir / "other"}), 0);
    EXPECT_EQ(code(), ks::E_SYSTEM);
    EXPECT_EQ(kstest::read_file(file), previous);
    EXPECT_EQ(store.getPersistentChanges(), 0u);
    Store other;
    ASSERT_EQ(other.load(dir / "other"), 0);
    EXPECT_EQ(get(other, "/a"), "3");
    ::rmdir((file + ".shadow").c_str());

    // The rename fails (the target is a directory): the shadow does not stay behind.
    ASSERT_EQ(::mkdir((dir / "isdir").c_str(), 0755), 0);
    kstest::write_file(dir / "isdir/content", "x");
    set(store, "/a", "4");
    EXPECT_EQ(store.save({dir / "isdir"}), 0);
    EXPECT_EQ(code(), ks::E_SYSTEM);
    EXPECT_FALSE(exists(dir / "isdir.shadow"));
    EXPECT_EQ(kstest::read_file(dir / "isdir/content"), "x");

    // An unwritable directory. Permissions do not stop root, so a child process mounts a
    // file system of its own there and makes it read-only; other users get a mode of 0555.
    const std::string ro = dir / "ro";
    ASSERT_EQ(::mkdir(ro.c_str(), 0755), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        const bool privileged = ::unshare(CLONE_NEWNS) == 0 &&
                                ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                ::mount("tmpfs", ro.c_str(), "tmpfs", 0, nullptr) == 0;
        Store first = make({"/k=old"});
        first.setKey("/k", bytes(std::string("old")), ks::storage::String, 3);
        first.save({ro + "/settings"});
        const std::string old = kstest::read_file(ro + "/settings");
        if (privileged ? ::mount("none", ro.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0
                       : ::chmod(ro.c_str(), 0555) != 0)
            ::_exit(10);
        first.setKey("/k", bytes(std::string("new")), ks::storage::String, 3);
        int failures = 0;
        failures |= first.save({ro + "/settings"}) != 0 ? 1 : 0;
        failures |= code() != ks::E_SYSTEM ? 2 : 0;
        failures |= old.empty() || kstest::read_file(ro + "/settings") != old ? 4 : 0;
        failures |= first.getPersistentChanges() != 0 ? 8 : 0;
        ::_exit(failures);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ::chmod(ro.c_str(), 0755);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1 save failed, 2 no E_SYSTEM, 4 old file changed, 8 counter kept";
}

// Keys of 1 to 6 components from a small vocabulary (so branches are shared), with string
// values holding line breaks, binary values, valueless keys, a root value, empty and
// trailing components, and a volatile branch.
Store random_store(size_t count, unsigned seed) {
    static const char* const names[] = {"net", "wan", "lan", "dev", "config", "x", "", "tmp", "a b", "ü"};
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    Store store;
    set(store, "/", "root value");
    for (size_t i = 0; i < count; ++i) {
        std::string key = pick(10) == 0 ? "/tmp" : "";
        const size_t depth = 1 + pick(6);
        for (size_t d = 0; d < depth; ++d) key += "/" + std::string(names[pick(10)]) + std::to_string(pick(3));
        key += "/k" + std::to_string(i);
        if (pick(20) == 0) key += "/";
        std::string value(1 + pick(60), '\0');
        const size_t kind = pick(10);
        if (kind < 6) {
            for (auto& ch : value) ch = static_cast<char>(" \nabcxyz=|019"[pick(13)]);
            EXPECT_EQ(set(store, key, value), 0);
        } else if (kind < 9) {
            for (auto& ch : value) ch = static_cast<char>(rng());
            EXPECT_EQ(set(store, key, value, ks::storage::Binary), 0);
        } else {
            EXPECT_EQ(set(store, key, "", ks::storage::None), 0);
        }
    }
    return store;
}

TEST(StoreFile, LargeRoundTrip) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    Store store = random_store(50000, 6);
    ASSERT_EQ(store.save({file}), 0);
    ASSERT_EQ(Store::checkHash(file), 0);

    Store loaded;
    ASSERT_EQ(loaded.load(file), 0);
    std::string digest;
    ASSERT_EQ(loaded.getKey("/tmp/hash", digest), 64);
    EXPECT_EQ(digest, sha256sum("tail -c +78 '" + file + "'"));

    Store expected(store, "/");
    expected.delKey_("/tmp", false, false);
    expected.setKey_("/tmp/hash", bytes(digest), ks::storage::String, digest.size());
    EXPECT_TRUE(loaded == expected);
    EXPECT_FALSE(loaded == store);

    // What was loaded saves and loads to the same tree again (only the digest may differ, as
    // a tree built in another order may list siblings in another order).
    loaded.setKey("/tmp/unsaved", nullptr, ks::storage::None, 0);
    loaded.setKey("/", bytes(std::string("root value")), ks::storage::String, 10);
    ASSERT_EQ(loaded.save({dir / "again"}), 0);
    Store reloaded;
    ASSERT_EQ(reloaded.load(dir / "again"), 0);
    reloaded.delKey_("/tmp", false, false);
    expected.delKey_("/tmp", false, false);
    EXPECT_TRUE(reloaded == expected);
}

// True once a save to `file` has begun writing: its shadow copy has content, or the file
// itself no longer has its old size.
bool writing(const std::string& file, size_t oldSize) {
    struct stat st;
    if (::stat((file + ".shadow").c_str(), &st) == 0 && st.st_size > 0) return true;
    return ::stat(file.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) != oldSize;
}

TEST(StoreFile, SaveKilledAtAnyMomentLeavesAWholeFile) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    Store store = random_store(100000, 7);
    ASSERT_EQ(store.save({file}), 0);

    // Kill moments spread over one save's duration, measured here rather than assumed.
    set(store, "/version", "probe");
    const auto start = std::chrono::steady_clock::now();
    store.save({dir / "probe"});
    const auto saveTime = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);

    constexpr int kRounds = 24;
    int old = 0, fresh = 0;
    for (int round = 0; round < kRounds; ++round) {
        const std::string before = kstest::read_file(file);
        set(store, "/version", std::to_string(round));
        set(store, "/net0/k" + std::to_string(round), "changed");
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            store.save({file});
            ::_exit(0);
        }
        if (round % 2 == 0) {
            ::usleep(static_cast<useconds_t>(saveTime.count() * (round % 12) / 6));
        } else {
            // Most of a save is spent before the first byte reaches the disk: aim half of
            // the kills at the writing itself, a few milliseconds after it shows.
            const auto deadline = std::chrono::steady_clock::now() + 3 * saveTime;
            while (!writing(file, before.size()) && std::chrono::steady_clock::now() < deadline) ::usleep(100);
            ::usleep(static_cast<useconds_t>(1000 * (round % 7)));
        }
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);

        ASSERT_EQ(store.save({dir / "expected"}), 0);  // what the child was writing
        const std::string after = kstest::read_file(dir / "expected");
        const std::string now = kstest::read_file(file);
        EXPECT_TRUE(now == before || now == after) << "round " << round << ": " << now.size() << " bytes";
        (now == before ? old : fresh)++;
        EXPECT_EQ(Store::checkHash(file), 0) << "round " << round;
    }
    std::printf("save of %zu bytes took %lld us; after the kills: %d old files, %d new files\n",
                kstest::read_file(file).size(), static_cast<long long>(saveTime.count()), old, fresh);
}

// The settings channel at trace level on standard error, in a throw-away install root.
class LogCapture {
public:
    LogCapture() {
        const std::string config = root_ / "etc/logging/capture.json";
        kstest::write_file(config,
                           R"({"action":"update","channels":{"kssetmgmt":[{"file":":stderr","level":"trace"}]}})");
        started_ = ks::log::start("ksstorage_test", root_.path().c_str(), config.c_str());
    }
    ~LogCapture() {
        if (started_) ks::log::stop();
    }
    bool started() const { return started_; }
    template <class Fn>
    std::string during(Fn fn) {
        testing::internal::CaptureStderr();
        fn();
        return testing::internal::GetCapturedStderr();
    }

private:
    kstest::InstallRoot root_;
    bool started_ = false;
};

TEST(StoreLog, MessagesOnTheSettingsChannel) {
    LogCapture log;
    ASSERT_TRUE(log.started());
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    const std::string blocked = dir / "blocked";
    ASSERT_EQ(::mkdir((blocked + ".shadow").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir / "isdir").c_str(), 0755), 0);
    kstest::write_file(dir / "isdir/x", "x");
    kstest::write_file(dir / "bad", "/a=s\n/b=b|\n/c=q|1\n");
    kstest::write_file(dir / "short", "/tmp/hash=s|0123\n");
    kstest::write_file(dir / "wrong", "/tmp/hash=s|" + std::string(64, '0') + "\n/a=s|1\n");
    const std::string wrongDigest = sha256sum("printf '/a=s|1\\n'");

    struct Case {
        const char* what;
        std::function<void(Store&)> run;
        std::vector<std::string> expected;  // in this order, each after its level word
    } cases[] = {
        {"a save",
         [&](Store& s) { s.save({file}); },
         {"debug [ksstorage.cpp:", "Hash for storage content: ", "Saving storage to file " + file,
          "Wrote data to " + file + ".shadow", "fsync on " + file + ".shadow finished",
          "Successfully saved to " + file}},
        {"a shadow that cannot be opened",
         [&](Store& s) { s.save({blocked}); },
         {"error [ksstorage.cpp:", "Failed to open file: Is a directory", "error [ksstorage.cpp:",
          "There was an error while saving to " + blocked + ": Failed to open file " + blocked +
              ".shadow: Is a directory"}},
        {"a rename that fails",
         [&](Store& s) { s.save({dir / "isdir"}); },
         {"Failed to rename file: Is a directory", "There was an error while saving to " + dir / "isdir"}},
        {"an empty binary value",
         [&](Store& s) {
             s.setKey("/e", nullptr, ks::storage::Binary, 0);
             s.save({dir / "other"});
         },
         {"error [kstree.cpp:", "Failed to base64 encode value for key /e"}},
        {"records that do not parse",
         [&](Store& s) { s.load(dir / "bad"); },
         {"error [ksstorage.cpp:", "Error while parsing line /a=s", "Failed to base64 decode value for key /b",
          "Unknown key value type"}},
        {"checksums",
         [&](Store&) {
             Store::checkHash(file);
             Store::checkHash(dir / "short");
             Store::checkHash(dir / "wrong");
         },
         {"Checksums match for file: " + file, "error [ksstorage.cpp:", "Invalid hash size in " + dir / "short",
          "Checksums don't match for file: " + dir / "wrong" + ", saved_hash=" + std::string(64, '0') +
              ", crt_hash=" + wrongDigest}},
        {"a missing key", [&](Store& s) { s.enumSubkeys("/nothing"); }, {"debug [", "Key /nothing not found"}},
    };
    for (const auto& c : cases) {
        Store store = make({"/a=1"});
        set(store, "/a", "2");
        const std::string text = log.during([&] { c.run(store); });
        size_t at = 0;
        for (const auto& expected : c.expected) {
            const size_t found = text.find(expected, at);
            ASSERT_NE(found, std::string::npos) << c.what << ": \"" << expected << "\" in\n" << text;
            at = found + expected.size();
        }
    }
}

}  // namespace
