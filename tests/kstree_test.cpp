// Settings tree node: the record text, pruning deletes, equality and copies, counting, and
// trees far deeper than any stack would allow for a recursive walk.
#include <kssetter/kstree.h>

#include <kstest.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using ks::storage::NodeInfo;
using ks::storage::TreeNode;
using ks::storage::ValueType;

namespace {

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// The node at `path` below `root` ("a/b/c"), created valueless where missing.
TreeNode* node_at(TreeNode& root, const std::string& path) {
    TreeNode* node = &root;
    size_t start = 0;
    while (start <= path.size()) {
        const size_t slash = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, slash - start);
        TreeNode* child = node->getChild(name);
        if (child == nullptr) {
            child = new TreeNode(name.c_str(), node);
            node->addChild(name, child);
        }
        node = child;
        start = slash + 1;
    }
    return node;
}

void set(TreeNode& root, const std::string& path, const std::string& value, ValueType type = ks::storage::String) {
    TreeNode* node = path.empty() ? &root : node_at(root, path);
    node->setValue(bytes(value), type, value.size());
}

std::string saved(const TreeNode& node) {
    ks::basic_memstream out;
    node.save(out);
    return out.str();
}

std::vector<std::string> sorted_lines(const std::string& text) {
    std::vector<std::string> lines;
    for (auto piece : ks::string_view(text).split('\n')) lines.push_back(piece.str());
    EXPECT_EQ(lines.back(), "") << "text must end with a line end";
    lines.pop_back();
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::string shell_base64(const std::string& data) {
    kstest::TempDir dir;
    kstest::write_file(dir / "in", data);
    std::string out;
    EXPECT_EQ(kstest::run("base64 -w0 '" + dir / "in" + "'", &out), 0);
    out.erase(out.find_last_not_of('=') + 1);  // we write no padding
    return out;
}

TEST(TreeNode, RecordTextOfOneNode) {
    const std::string binary("\x00\xff\x10 bytes\n=|", 12);
    struct Case {
        const char* what;
        std::string value;
        ValueType type;
        bool withChild;
        std::string expected;
    } cases[] = {
        {"one line", "v", ks::storage::String, false, "/k=s|v\n"},
        {"line breaks become continuation lines", "a\nb\n", ks::storage::String, false, "/k=s|a\n b\n \n"},
        {"leading and inner blank lines", "\n\nz", ks::storage::String, false, "/k=s|\n \n z\n"},
        {"empty string writes nothing", "", ks::storage::String, false, ""},
        {"separator characters in a value", "x=y|z\tw", ks::storage::String, false, "/k=s|x=y|z\tw\n"},
        {"binary as base64", binary, ks::storage::Binary, false, "/k=b|" + shell_base64(binary) + "\n"},
        {"one binary byte", "A", ks::storage::Binary, false, "/k=b|" + shell_base64("A") + "\n"},
        {"empty binary writes nothing", "", ks::storage::Binary, false, ""},
        {"valueless leaf", "", ks::storage::None, false, "/k\n"},
        {"valueless inner node", "", ks::storage::None, true, ""},
        {"inner node with a value", "v", ks::storage::String, true, "/k=s|v\n"},
        {"unknown type", "v", static_cast<ValueType>(7), false, ""},
    };
    for (const auto& c : cases) {
        TreeNode node("k", bytes(c.value), c.type, c.value.size(), nullptr);
        if (c.withChild) node.addChild("c", new TreeNode("c", &node));
        ks::basic_memstream out;
        node.dump(out, "/k");
        EXPECT_EQ(out.str(), c.expected) << c.what;
    }
}

TEST(TreeNode, SaveWritesEveryRecordBreadthFirstAndSkipsTheVolatileBranch) {
    TreeNode root("", nullptr);
    set(root, "", "top");
    set(root, "a/b/c", "1");
    set(root, "a/b/d", "2");
    set(root, "a/e", "", ks::storage::None);
    set(root, "tmp", "volatile");
    set(root, "tmp/x", "volatile too");
    set(root, "tmpx", "kept");
    set(root, "tmpx/tmp", "kept too");
    set(root, "t/tmp", "not the volatile branch");
    set(root, "/lead", "empty first component");

    const std::string text = saved(root);
    EXPECT_EQ(sorted_lines(text),
              (std::vector<std::string>{"//lead=s|empty first component", "/=s|top", "/a/b/c=s|1", "/a/b/d=s|2",
                                        "/a/e", "/t/tmp=s|not the volatile branch", "/tmpx/tmp=s|kept too",
                                        "/tmpx=s|kept"}));
    // Breadth-first: no line of a shallower key after a deeper one.
    size_t depth = 0;
    for (auto line : ks::string_view(text).split('\n')) {
        if (line.empty()) continue;
        const auto key = line.split('=')[0];
        const size_t d = static_cast<size_t>(std::count(key.begin(), key.end(), '/'));
        EXPECT_GE(d, depth) << line;
        depth = std::max(depth, d);
    }
}

TEST(TreeNode, PruningDeleteRemovesAncestorsLeftEmpty) {
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, ValueType>> keys;  // "" value for None keys
        std::string victim;
        bool prune;
        std::vector<std::string> expected;  // saved lines, sorted
    } cases[] = {
        {"only leaf of valueless ancestors", {{"a/b/c", ks::storage::String}}, "a/b/c", true, {"/"}},
        {"an ancestor with a value stays",
         {{"a", ks::storage::String}, {"a/b/c", ks::storage::String}},
         "a/b/c",
         true,
         {"/a=s|v"}},
        {"an ancestor with another child stays",
         {{"a/b/c", ks::storage::String}, {"a/x", ks::storage::String}},
         "a/b/c",
         true,
         {"/a/x=s|v"}},
        {"without pruning the emptied parent remains",
         {{"a/b/c", ks::storage::String}},
         "a/b/c",
         false,
         {"/a/b"}},
        {"deleting an inner node takes its subtree",
         {{"a/b/c", ks::storage::String}, {"a/b/d", ks::storage::String}, {"z", ks::storage::String}},
         "a/b",
         true,
         {"/z=s|v"}},
        {"a child of the root", {{"a", ks::storage::String}}, "a", true, {"/"}},
    };
    for (const auto& c : cases) {
        TreeNode root("", nullptr);
        for (const auto& [key, type] : c.keys) set(root, key, type == ks::storage::None ? "" : "v", type);
        node_at(root, c.victim)->del(c.prune);
        EXPECT_EQ(sorted_lines(saved(root)), c.expected) << c.what;
    }
}

TEST(TreeNode, EqualityComparesNamesValuesTypesAndChildren) {
    auto make = [] {
        auto root = std::make_unique<TreeNode>("", nullptr);
        set(*root, "a/b", "1");
        set(*root, "a/c", "2", ks::storage::Binary);
        set(*root, "d", "", ks::storage::None);
        return root;
    };
    struct Case {
        const char* what;
        void (*change)(TreeNode&);
    } cases[] = {
        {"value", [](TreeNode& r) { set(r, "a/b", "x"); }},
        {"type", [](TreeNode& r) { set(r, "a/c", "2", ks::storage::String); }},
        {"extra child", [](TreeNode& r) { set(r, "d/e", "", ks::storage::None); }},
        {"child renamed", [](TreeNode& r) {
             r.del(std::string("d"));
             set(r, "e", "", ks::storage::None);
         }},
        {"root value", [](TreeNode& r) { set(r, "", "r"); }},
    };
    auto base = make();
    EXPECT_TRUE(*base == *make());
    for (const auto& c : cases) {
        auto other = make();
        c.change(*other);
        EXPECT_FALSE(*base == *other) << c.what;
        EXPECT_FALSE(*other == *base) << c.what;
    }
}

TEST(TreeNode, CopiesCountsAndValues) {
    TreeNode root("", nullptr);
    set(root, "", "r");
    set(root, "a/b", "12345");
    set(root, "a/c", std::string("\0\1", 2), ks::storage::Binary);
    set(root, "a/b/deeper", "xyz");

    TreeNode deep(&root, true, nullptr);
    EXPECT_TRUE(deep == root);
    EXPECT_EQ(deep.getMemoryCount(), 1 + 5 + 2 + 3);
    std::vector<std::string> values = deep.getOffspringValues();
    std::sort(values.begin(), values.end());
    EXPECT_EQ(values, (std::vector<std::string>{std::string("\0\1", 2), "12345", "r", "xyz"}));

    TreeNode shallow(node_at(root, "a/b"), false, &root);
    EXPECT_EQ(shallow.getName(), "b");
    EXPECT_EQ(shallow.childCount(), 0u);
    EXPECT_EQ(shallow.getValueBytes(), "12345");
    EXPECT_EQ(shallow.getParent(), &root);

    // A copy is independent of its source.
    set(root, "a/b", "changed");
    EXPECT_FALSE(deep == root);
    EXPECT_EQ(deep.getChild("a")->getChild("b")->getValueBytes(), "12345");
}

TEST(TreeNode, ValueAccess) {
    TreeNode none("n", nullptr);
    unsigned char out[8] = {0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55};
    EXPECT_EQ(none.getValue(out), 0u);
    EXPECT_EQ(out[0], 0x55);
    NodeInfo info;
    none.getNodeInfo(info);
    EXPECT_EQ(ValueType(info.type), ks::storage::None);
    EXPECT_EQ(uint64_t(info.size), 0u);

    TreeNode text("t", bytes("hello"), ks::storage::String, 5, nullptr);
    EXPECT_EQ(text.getValue(out), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out), 5), "hello");

    // A null value empties the bytes but keeps the size it was given.
    text.setValue(nullptr, ks::storage::Binary, 3);
    text.getNodeInfo(info);
    EXPECT_EQ(ValueType(info.type), ks::storage::Binary);
    EXPECT_EQ(uint64_t(info.size), 3u);
    EXPECT_EQ(text.getValueBytes(), "");
}

TEST(TreeNode, ChildLinking) {
    TreeNode root("", nullptr);
    auto* first = new TreeNode("x", &root);
    ASSERT_TRUE(root.addChild("x", first));
    auto second = std::make_unique<TreeNode>("x", &root);
    EXPECT_FALSE(root.addChild("x", second.get()));  // still ours
    EXPECT_EQ(root.getChild("x"), first);

    TreeNode* taken = root.removeChild("x");
    ASSERT_EQ(taken, first);
    EXPECT_EQ(taken->getParent(), nullptr);
    EXPECT_EQ(root.childCount(), 0u);
    EXPECT_EQ(root.removeChild("x"), nullptr);
    EXPECT_TRUE(root.addChild("renamed", taken));
    EXPECT_EQ(taken->getName(), "renamed");
    EXPECT_EQ(taken->getParent(), &root);
    EXPECT_EQ(root.getChildren(), std::vector<std::string>{"renamed"});
}

TEST(TreeNode, DeepTreesNeedNoStack) {
    // Far deeper than the stack would allow for a recursive walk (especially under ASan).
    constexpr int kDepth = 300000;
    auto root = std::make_unique<TreeNode>("", nullptr);
    TreeNode* node = root.get();
    for (int i = 0; i < kDepth; ++i) {
        auto* child = new TreeNode("n", bytes("v"), ks::storage::String, 1, node);
        node->addChild("n", child);
        node = child;
    }
    TreeNode copy(root.get(), true, nullptr);
    EXPECT_TRUE(copy == *root);
    EXPECT_EQ(copy.getMemoryCount(), kDepth);
    EXPECT_EQ(copy.getOffspringValues().size(), static_cast<size_t>(kDepth));
    node->del(true);  // the leaf: no ancestor has a sibling, all are valued, so only it goes
    EXPECT_EQ(root->getMemoryCount(), kDepth - 1);
    root.reset();
}

}  // namespace
