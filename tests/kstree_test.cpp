// Settings tree node: equality, copies, and trees deeper than a recursive walk could go.
#include <kssetter/kstree.h>

#include <gtest/gtest.h>

#include <memory>

using namespace ks::storage;

namespace {

const unsigned char* bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// Sets the value of the node at `path` ("a/b"), creating valueless nodes on the way.
void set(TreeNode& root, const std::string& path, const std::string& value, ValueType type = String) {
    TreeNode* node = &root;
    for (auto name : ks::string_view(path).split('/')) node = node->makeChild(name.str());
    node->setValue(bytes(value), type, value.size());
}

TEST(TreeNode, EqualityCopiesAndDeepTrees) {
    auto make = [] {
        auto root = std::make_unique<TreeNode>("", nullptr);
        set(*root, "a/b", "1");
        set(*root, "a/c", "2", Binary);
        return root;
    };
    auto base = make();
    void (*changes[])(TreeNode&) = {[](TreeNode& r) { set(r, "a/b", "x"); },
                                    [](TreeNode& r) { set(r, "a/c", "2", String); },
                                    [](TreeNode& r) { set(r, "a/b/d", "", None); },
                                    [](TreeNode& r) { r.del("a"), set(r, "b/b", "1"), set(r, "b/c", "2", Binary); }};
    for (auto change : changes) {
        auto other = make();
        change(*other);
        EXPECT_FALSE(*base == *other);
        EXPECT_FALSE(*other == *base);
    }
    EXPECT_TRUE(*base == *make());
    TreeNode spare("b", nullptr);
    EXPECT_FALSE(base->getChild("a")->addChild("b", &spare));  // refused: the caller keeps it

    // Far deeper than a recursive walk could go (especially under AddressSanitizer).
    constexpr int kDepth = 300000;
    TreeNode root("", nullptr);
    TreeNode* node = &root;
    for (int i = 0; i < kDepth; ++i) node = node->makeChild("n"), node->setValue(bytes("v"), String, 1);
    TreeNode copy(&root, true, nullptr);
    EXPECT_TRUE(copy == root);
    EXPECT_EQ(copy.getMemoryCount(), kDepth);
    EXPECT_EQ(copy.getOffspringValues().size(), static_cast<size_t>(kDepth));
    node->getParent()->del(true);  // valued ancestors: only it and its child go
    EXPECT_EQ(root.getMemoryCount(), kDepth - 2);
}

}  // namespace
