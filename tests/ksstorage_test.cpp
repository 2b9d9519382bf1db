// Settings store: key errors, lookups, deletes, merges and change counting; the settings file
// byte for byte against sha256sum and base64, saves that fail or are killed, and the log.
#include <kssetter/ksstorage.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <kslogcapture.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>

using namespace ks::storage;

namespace {

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }
int code() { return ks::_get_kserrno().code; }
std::string message() { return ks::_get_kserrno().message_view().str(); }
std::string get(const Store& store, const std::string& key) {
    std::string out;
    return store.getKey(key, out) < 0 ? "<none>" : out;
}
bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
std::string sha256sum(const std::string& producer) {
    std::string out;
    EXPECT_EQ(kstest::run(producer + " | sha256sum", &out), 0);
    return out.substr(0, 64);
}

// A store from "key=text" and "key" (valueless) entries, set without counting.
Store make(const std::vector<std::string>& entries) {
    Store store;
    for (const auto& e : entries) {
        const size_t eq = e.find('=');
        const bool valued = eq != std::string::npos;
        const std::string value = valued ? e.substr(eq + 1) : "";
        EXPECT_EQ(store.setKey_(e.substr(0, eq), valued ? bytes(value) : nullptr, valued ? String : None, value.size()), 0);
    }
    return store;
}

std::vector<std::string> sorted(std::vector<std::string> v) {
    std::sort(v.begin(), v.end());
    return v;
}

// Records of settings-file text, each with its continuation lines, sorted so that hash-map
// order does not matter.
std::vector<std::string> records(ks::string_view text) {
    std::vector<std::string> out;
    for (auto line : text.split('\n')) {
        if (!out.empty() && !line.empty() && line[0] == ' ') out.back() += "\n" + line.str();
        else out.push_back(line.str());
    }
    if (out.back().empty()) out.pop_back();  // after the final "\n"
    return sorted(out);
}

std::vector<std::string> records(const Store& store) {
    if (store.empty()) return {"<empty>"};
    ks::basic_memstream out;
    store.getRoot()->save(out);
    return records(out.view());
}

TEST(Store, BadKeysFailAndChangeNothing) {
    const std::string inval(ks::error_default_message(ks::E_INVAL));
    const std::pair<std::string, std::string> cases[] = {
        {"/a\tb", inval}, {"/a\rb", inval}, {"", "Empty key"}, {"a/b", "Key does not start with delimiter: a/b"}};
    Store store = make({"/=root", "/a=1", "/a/b"});
    const Store before(store, "/");
    for (const auto& [key, text] : cases) {
        EXPECT_EQ(store.setKey(key, bytes("v"), String, 1), -1);
        EXPECT_EQ(std::make_pair(code(), message()), std::make_pair(ks::E_INVAL, text)) << key;
        EXPECT_EQ(store.delKey(key, true, false), -1);
        EXPECT_EQ(store.locateKey(key, nullptr), std::make_pair(2, int64_t{-1}));
        EXPECT_EQ(code(), ks::E_INVAL) << key;
    }
    EXPECT_TRUE(store == before);
    EXPECT_EQ(store.getPersistentChanges() + store.getVolatileChanges(), 0u);
}

TEST(Store, LookupsLocateAndInherit) {
    struct {
        std::vector<std::string> entries;
        std::string key, value, locatedValue;  // value "<none>": absent
        std::pair<int, int64_t> located;
        std::vector<std::string> inherited;
    } cases[] = {
        {{"/=R", "/a=A", "/a/b/c"}, "/a/b/c", "", "", {1, 0}, {"R", "A"}},
        {{"/=R", "/a=A"}, "/a/b/c", "<none>", "A", {0, 1}, {"R", "A"}},
        {{"/a", "/a/b=B"}, "/a/b/zz", "<none>", "B", {0, 1}, {"B"}},
        {{"/=R"}, "/", "R", "R", {1, 1}, {"R"}},
        {{"/a=A", "/a//b=E", "/a/=T"}, "/a//b", "E", "E", {1, 1}, {"A", "T", "E"}},
        {{}, "/a", "<none>", "", {2, 0}, {}},
    };
    for (const auto& c : cases) {
        Store store = make(c.entries);
        unsigned char out[16] = {};
        EXPECT_EQ(get(store, c.key), c.value) << c.key;
        if (c.value == "<none>" && !store.empty()) {
            EXPECT_EQ(message(), "Key " + c.key + " not found");
        }
        EXPECT_EQ(store.locateKey(c.key, out), c.located) << c.key;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), c.locatedValue.size()), c.locatedValue) << c.key;
        EXPECT_EQ(store.getInheritance(c.key), c.inherited) << c.key;
    }
    Store store = make({"/a=1", "/a/b=22", "/a/c", "/a/c/d=4444"});
    EXPECT_EQ(sorted(store.enumDescendantsValues("/a")), (std::vector<std::string>{"1", "22", "4444"}));
    EXPECT_EQ(store.findNode("a/c/d")->getValueBytes(), "4444");
    ks::_get_kserrno().set(ks::E_AGAIN);
    EXPECT_EQ(Store().getKey("/a", nullptr), -1);  // an empty store leaves the error record alone
    EXPECT_EQ(code(), ks::E_AGAIN);
}

TEST(Store, DeletesAndChangeCounters) {
    const std::vector<std::string> tree = {"/a/b/c=1", "/a/x=2", "/v=3", "/v/w=4"}, all = records(make(tree));
    struct {
        std::vector<std::string> entries;
        std::string key;
        bool prune, leafOnly;
        int code;
        std::string text;
        std::vector<std::string> remaining;
    } cases[] = {
        {tree, "/", false, true, ks::E_FAULT, "Key / is not leaf", all},
        {tree, "/a", true, true, ks::E_FAULT, "Key /a is not leaf", all},
        {tree, "/a/zz", true, false, ks::E_NOENT, "Key /a/zz not found", all},
        {{}, "/a", true, false, ks::E_NOENT, "Key /a not found", {"<empty>"}},
        {tree, "/a/b/c", true, true, 0, "", {"/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/a/b/c", false, true, 0, "", {"/a/b", "/a/x=s|2", "/v/w=s|4", "/v=s|3"}},
        {tree, "/v/w", true, false, 0, "", {"/a/b/c=s|1", "/a/x=s|2", "/v=s|3"}},
        {{"/a/b/c=1"}, "/a/b/c", true, false, 0, "", {"<empty>"}},
        {{"/=r", "/a/b=1"}, "/a/b", true, false, 0, "", {"/=s|r"}},
    };
    for (const auto& c : cases) {
        Store store = make(c.entries);
        EXPECT_EQ(store.delKey(c.key, c.prune, c.leafOnly), c.code ? -1 : 0) << c.key;
        if (c.code) {
            EXPECT_EQ(std::make_pair(code(), message()), std::make_pair(c.code, c.text)) << c.key;
        }
        EXPECT_EQ(records(store), c.remaining) << c.key;
        EXPECT_EQ(store.getPersistentChanges(), c.code ? 0u : 1u) << c.key;
    }
    const std::pair<std::string, bool> volatiles[] = {{"/tmp", true}, {"/tmp/x", true}, {"/tmpx", false}, {"/a/tmp", false}, {"/", false}};
    for (const auto& [key, isVolatile] : volatiles) {
        Store store;
        ASSERT_EQ(store.setKey(key, bytes("v"), String, 1) + store.delKey(key, true, false), 0);
        EXPECT_EQ(Store::isVolatileKey(key), isVolatile) << key;
        EXPECT_EQ(std::make_pair(store.getVolatileChanges(), store.getPersistentChanges()),
                  isVolatile ? std::make_pair(2u, 0u) : std::make_pair(0u, 2u)) << key;
    }
    Store store = make(tree);
    EXPECT_TRUE(store.clear() && store.empty() && !store.clear());
}

TEST(Store, MergeAndBranchCopy) {
    struct {
        std::vector<std::string> mine, theirs;
        std::string key;
        std::vector<std::string> mineAfter, theirsAfter;
    } cases[] = {
        {{"/a/b=1", "/a/b/old=o", "/a/c=2"}, {"/a/b=new", "/a/b/d=3", "/y=7"}, "/a/b",
         {"/a/b/d=s|3", "/a/b=s|new", "/a/c=s|2"}, {"/a", "/y=s|7"}},
        // the delete prunes /a here, so all of their /a comes over
        {{"/a/b=1", "/x=9"}, {"/a/b=2", "/a/z=5"}, "/a/b", {"/a/b=s|2", "/a/z=s|5", "/x=s|9"}, {"/"}},
        {{"/a=1", "/x=2"}, {"/q=1"}, "/a", {"/x=s|2"}, {"/q=s|1"}},
        {{"/a/b=0"}, {"/a/b=1", "/y=2"}, "/a/b", {"/a/b=s|1", "/y=s|2"}, {"<empty>"}},
        {{"/m=1"}, {"/t=2"}, "/", {"/t=s|2"}, {"<empty>"}},
        {{"/m=1"}, {"/t=2"}, "m", {"/m=s|1"}, {"/t=s|2"}},
        {{"/m=1"}, {}, "/m", {"/m=s|1"}, {"<empty>"}},
    };
    for (const auto& c : cases) {
        Store mine = make(c.mine), theirs = make(c.theirs);
        if (!theirs.empty()) theirs.setKey("/tmp/n", nullptr, None, 0), theirs.delKey("/tmp/n", true, false);
        const bool merging = c.key[0] == '/' && !theirs.empty();
        mine.merge(theirs, c.key);
        EXPECT_EQ(records(mine), c.mineAfter) << c.key;
        EXPECT_EQ(records(theirs), c.theirsAfter) << c.key;
        EXPECT_EQ(mine.getVolatileChanges(), merging ? 2u : 0u) << c.key;
    }
    const Store source = make({"/=r", "/a=A", "/a/b=B", "/a/b/c", "/z=Z"});
    EXPECT_EQ(records(Store(source, "/a/b")), (std::vector<std::string>{"/a/b/c", "/a/b=s|B"}));
    EXPECT_TRUE(Store(source, "/a/x").empty() && Store(source, "a").empty());
}

TEST(StoreFile, ExactFormAndChecksum) {
    kstest::TempDir dir;
    const std::string file = dir / "settings";
    Store store = make({"/inner/x=1", "/leaf", "/empty=", "/sep=x=y|z\tw", "/tmp=no", "/tmp/deeper=no", "/tmpx=kept"});
    store.setKey("/ml", bytes("a\nb\n"), String, 4);
    store.setKey("/lead", bytes("\n\nz"), String, 3);
    store.setKey("/bin", bytes(std::string("\x00\xfe=|", 4)), Binary, 4);
    store.setKey("/nobin", nullptr, Binary, 0);  // empty binary and unknown types write nothing
    store.setKey("/odd", bytes("v"), static_cast<ValueType>(7), 1);
    ASSERT_EQ(store.save({file}), 0);
    EXPECT_EQ(code(), ks::E_OK);
    EXPECT_FALSE(exists(file + ".shadow"));
    const std::string text = kstest::read_file(file);
    EXPECT_EQ(text.substr(0, 77), "/tmp/hash=s|" + sha256sum("tail -c +78 " + file) + "\n");
    std::string base64;
    ASSERT_EQ(kstest::run("printf '\\000\\376=|' | base64 | tr -d '=\\n'", &base64), 0);
    EXPECT_EQ(records(ks::string_view(text).substr(77)),
              (std::vector<std::string>{"/bin=b|" + base64, "/inner/x=s|1", "/lead=s|\n \n z", "/leaf", "/ml=s|a\n b\n ",
                                        "/sep=s|x=y|z\tw", "/tmpx=s|kept"}));

    std::string flipped = text;
    flipped[text.size() - 3] ^= 1;
    const std::string bad = "Checksums don't match for file: " + file, size = "Invalid hash size in " + file;
    const std::pair<std::string, std::string> corrupt[] = {
        {text, ""}, {flipped, bad}, {text + "/z\n", bad}, {text.substr(0, 75), size},
        {"/tmp/hash=s|" + sha256sum("printf ''") + "\n", ""}, {"/a=s|1\n", ""}, {"/tmp/has", ""}, {"", ""}};
    for (const auto& [contents, error] : corrupt) {
        kstest::write_file(file, contents);
        ks::_get_kserrno().set(ks::E_OK);
        EXPECT_EQ(Store::checkHash(file), error.empty() ? 0 : -1) << contents;
        EXPECT_EQ(message(), error.empty() ? std::string(ks::error_default_message(ks::E_OK)) : error) << contents;
    }
    EXPECT_EQ(Store::checkHash(dir / "missing"), -1);
    EXPECT_EQ(code(), ks::E_SYSTEM);
}

TEST(StoreFile, LoadParsing) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"/a=s|1\n\n/b=s|2\n", {"/a=s|1"}},                                // an empty line ends the file
        {"/a=b|QUJD\n lost\n/b\n lost\n", {"/a=b|QUJD", "/b"}},            // nothing to continue
        {"/a=s\n/b=\n/c=s|1\n/d=x|1\n/e=b|\n", {"/c=s|1"}},              // short, unknown type, empty base64
        {"/a=s?v\n/b=s|x=y|z\n/c=s|", {"/a=s|v", "/b=s|x=y|z"}},          // "|" unchecked; no final "\n"
        {"/a=s|1\n/a=s|2\na=s|1\n=s|2\n", {"/a=s|2"}},                    // later wins; no leading "/"
        {"/\n", {"/"}},
        {"", {"<empty>"}},
    };
    kstest::TempDir dir;
    for (const auto& [text, expected] : cases) {
        kstest::write_file(dir / "f", text);
        Store store = make({"/previous=1"});
        ASSERT_EQ(store.load(dir / "f"), 0);
        EXPECT_EQ(records(store), expected) << text;
        EXPECT_EQ(store.getPersistentChanges() + store.getVolatileChanges(), 0u);
    }
    kstest::write_file(dir / "f", "/e=s|\n");  // an empty text loads as one
    Store store = make({"/a=1"});
    ASSERT_EQ(store.load(dir / "f"), 0);
    EXPECT_EQ(get(store, "/e"), "");
    EXPECT_EQ(store.load(dir / "missing"), 0);
    EXPECT_TRUE(store.empty());
    EXPECT_EQ(store.load(dir.path()), -1);
    EXPECT_EQ(code(), ks::E_SYSTEM);
}

// Keys 1 to 7 components deep over a small vocabulary, with multi-line strings, binary
// values, valueless keys, trailing empty components, a root value and a volatile branch.
Store random_store(size_t count, unsigned seed) {
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    Store store = make({"/=root"});
    for (size_t i = 0; i < count; ++i) {
        std::string key = pick(10) == 0 ? "/tmp" : "", value(1 + pick(60), '\0');
        for (size_t d = pick(6); d-- > 0;) key += "/" + std::string(1, "nwlcx"[pick(5)]) + std::to_string(pick(3));
        key += "/k" + std::to_string(i) + (pick(20) == 0 ? "/" : "");
        const ValueType type = static_cast<ValueType>(pick(3));
        for (auto& ch : value) ch = type == Binary ? static_cast<char>(rng()) : " \nabc=|9"[pick(8)];
        EXPECT_EQ(store.setKey(key, type == None ? nullptr : bytes(value), type, type == None ? 0 : value.size()), 0);
    }
    return store;
}

// A large store reloads equal (its volatile branch aside); then saves of it are killed at
// varied moments, and every time the file is either the previous version or the new one.
TEST(StoreFile, LargeRoundTripAndSavesKilledAtAnyMoment) {
    kstest::TempDir dir;
    const std::string file = dir / "settings", shadow = file + ".shadow";
    Store store = random_store(100000, 7), loaded;
    ASSERT_EQ(store.save({file}), 0);
    ASSERT_EQ(Store::checkHash(file) + loaded.load(file), 0);
    EXPECT_EQ(get(loaded, "/tmp/hash"), sha256sum("tail -c +78 " + file));
    loaded.delKey_("/tmp", false, false);
    store.delKey_("/tmp", false, false);
    EXPECT_TRUE(loaded == store);

    store.setKey("/version", nullptr, None, 0);
    const auto start = std::chrono::steady_clock::now();
    store.save({dir / "probe"});
    const auto saveTime = std::chrono::steady_clock::now() - start;
    for (int round = 0; round < 24; ++round) {
        const std::string before = kstest::read_file(file), version = std::to_string(round);
        store.setKey("/version", bytes(version), String, version.size());
        ::unlink(shadow.c_str());  // left by the last kill, it would look like writing
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) ::_exit(store.save({file}));
        // Most of a save comes before the disk, where a kill changes nothing: each kill waits
        // for the shadow to get content, then 0 to 11 ms more.
        struct stat st;
        for (auto end = std::chrono::steady_clock::now() + 3 * saveTime;
             !(::stat(shadow.c_str(), &st) == 0 && st.st_size > 0) && std::chrono::steady_clock::now() < end;)
            ::usleep(100);
        ::usleep(static_cast<useconds_t>(1000 * (round % 12)));
        ::kill(pid, SIGKILL);
        ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
        ASSERT_EQ(store.save({dir / "expected"}), 0);  // what the child was writing
        const std::string now = kstest::read_file(file);
        EXPECT_TRUE(now == before || now == kstest::read_file(dir / "expected")) << "round " << round;
        EXPECT_EQ(Store::checkHash(file), 0) << "round " << round;
    }
}

// Saves whose shadow cannot be opened or whose rename fails (a directory in the way) go on
// with the other names and leave each failed target as it was; with the log records of
// saves, loads, lookups and checksums.
TEST(StoreFile, FailedSavesKeepThePreviousFileAndAreLogged) {
    kstest::LogCapture log("ksstorage_test", ks::log::kKSSetMgmtChannel);
    ASSERT_TRUE(log.started());
    const kstest::InstallRoot& root = log.root();
    const std::string file = root / "settings", var = root / "var", zeros(64, '0');
    kstest::write_file(root / "bad", "/a=s\n/b=b|\n/c=q|1\n/d\n");
    kstest::write_file(root / "short", "/tmp/hash=s|0123\n");
    kstest::write_file(root / "wrong", "/tmp/hash=s|" + zeros + "\n/a=s|1\n");
    Store store = make({"/e"});
    store.setKey("/e", nullptr, Binary, 0);  // cannot be encoded: logged and left out
    std::string previous;
    const std::string text = log.during([&] {
        store.save({file});
        previous = kstest::read_file(file);
        ASSERT_EQ(::mkdir((file + ".shadow").c_str(), 0755), 0);
        store.setKey("/a", bytes("3"), String, 1);
        // (A read-only or missing directory fails as the shadow's open does.)
        EXPECT_EQ(store.save({file, var, root / "other"}), 0);
        EXPECT_EQ(code(), ks::E_SYSTEM);
        EXPECT_EQ(store.getPersistentChanges(), 0u);
        store.load(root / "bad");
        store.enumSubkeys("/nothing");
        for (const char* name : {"settings", "short", "wrong"}) Store::checkHash(root / name);
    });
    EXPECT_EQ(kstest::read_file(file), previous);
    EXPECT_TRUE(exists(var + "/run") && !exists(var + ".shadow"));
    Store other;
    EXPECT_EQ(other.load(root / "other") + Store::checkHash(root / "other"), 0);
    EXPECT_EQ(get(other, "/a"), "3");

    const unsigned long channel = ks::log::get_channel_by_name(ks::log::kKSSetMgmtChannel);
    ks::log::close_channel(channel);
    Store::checkHash(root / "wrong");
    EXPECT_FALSE(ks::log::can_log(channel, ks::log::level::error));  // a closed channel stays closed
    const std::string expected[] = {
        "error [kstree.cpp:", "Failed to base64 encode value for key /e", "debug [ksstorage.cpp:",
        "Hash for storage content: ", "Saving storage to file " + file, "Wrote data to " + file + ".shadow",
        "fsync on " + file + ".shadow finished", "Successfully saved to " + file, "error [",
        "Failed to open file: Is a directory",
        "There was an error while saving to " + file + ": Failed to open file " + file + ".shadow: Is a directory",
        "Failed to rename file: Is a directory", "There was an error while saving to " + var,
        "Error while parsing line /a=s", "Failed to base64 decode value for key /b", "Unknown key value type", "debug [",
        "Key /nothing not found", "Checksums match for file: " + file, "Invalid hash size in " + root / "short",
        "Checksums don't match for file: " + root / "wrong" + ", saved_hash=" + zeros + ", crt_hash=" +
            sha256sum("printf '/a=s|1\\n'")};
    size_t at = 0;
    for (const auto& part : expected) {
        const size_t found = text.find(part, at);
        ASSERT_NE(found, std::string::npos) << "\"" << part << "\" in\n" << text.substr(at);
        at = found + part.size();
    }
}

}  // namespace
