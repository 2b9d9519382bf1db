/// @file
/// @brief One node of the in-memory settings tree.
///
/// A settings key such as "/network/interfaces/config" names a path of nodes from the root;
/// every node may carry one value (text, bytes, or none). A node owns its children, keyed by
/// name in a hash map so that each step of a key is one lookup. Every walk over a subtree
/// (copy, destruction, equality, counting, writing) runs on an explicit queue, so a tree of
/// any depth never exhausts the stack. The text form written by save() is the settings file's
/// record format: "key=s|text" with " "-prefixed continuation lines, "key=b|base64", or the
/// bare key of a valueless leaf.
#pragma once

#include <ksexport.h>
#include <ksutils/streams.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace ks {
/// The settings tree and the settings store with its file.
namespace storage {

/// Type of a node's value. Its numeric values travel over the settings socket.
enum ValueType : uint32_t {
    String = 0,  ///< text; may hold line breaks
    Binary = 1,  ///< arbitrary bytes
    None = 2,    ///< no value: an inner node, or a key that exists without a value
};

/// A value's type and size as sent over the settings socket: 12 bytes, no padding.
struct __attribute__((packed)) NodeInfo {
    ValueType type = None;  ///< The value's type.
    uint64_t size = 0;      ///< The value's size in bytes.
};
static_assert(sizeof(NodeInfo) == 12, "NodeInfo is a 12-byte wire record");

/// A node of the settings tree: a name, at most one value, and the children it owns.
class KS_EXPORT TreeNode {
public:
    /// The children by name; the node owns them.
    using ChildMap = std::unordered_map<std::string, TreeNode*>;

    /// A node without value.
    TreeNode(const char* name, TreeNode* parent);
    /// A node holding a copy of `size` bytes from `value` (nothing is read when it is null).
    TreeNode(const char* name, const unsigned char* value, ValueType type, unsigned long size, TreeNode* parent);
    /// A copy of `source`'s name and value; with `deep` its whole subtree is copied too.
    /// The copy is not linked into `parent`'s children: use addChild for that.
    TreeNode(const TreeNode* source, bool deep, TreeNode* parent);
    /// Destroys the node and its whole subtree (not recursively).
    ~TreeNode();

    TreeNode(const TreeNode&) = delete;
    TreeNode& operator=(const TreeNode&) = delete;

    /// Copies the value into `out` (sized by the caller from getNodeInfo) unless the type is
    /// None; returns the value size either way.
    unsigned long getValue(unsigned char* out) const;
    /// The value's type and size into `out`; returns 0.
    int getNodeInfo(NodeInfo& out) const;
    /// Stores a copy of `size` bytes of `value` with its type and size; a null `value` empties
    /// the bytes but keeps `size` as given. Returns 0.
    int setValue(const unsigned char* value, ValueType type, unsigned long size);

    /// Links `child` under `name` (which becomes its name) and takes ownership of it. When a
    /// child of that name exists nothing changes and false is returned: the caller still
    /// owns `child`.
    bool addChild(const std::string& name, TreeNode* child);
    /// The child of that name, created without value when absent.
    TreeNode* makeChild(const std::string& name);
    /// Unlinks the named child without destroying it and clears its parent; the caller takes
    /// the returned node over (null when absent).
    TreeNode* removeChild(const std::string& name);
    /// Unlinks and destroys the named child with its subtree; an absent name does nothing.
    /// Returns 0.
    int del(const std::string& name);
    /// As del(const std::string&) for a C string (null: "").
    /// Without this, del("name") would convert the pointer to bool and delete this node.
    int del(const char* name) { return del(std::string(name ? name : "")); }
    /// Removes this node from its parent and destroys it (`this` is gone afterwards). With
    /// `prune`, every ancestor left as an empty valueless inner node goes too, stopping below
    /// the root and below any ancestor that has a value or other children. A node without
    /// parent destroys itself. Returns 0.
    int del(bool prune);

    /// Direct child names in the map's (unsorted) iteration order.
    std::vector<std::string> getChildren() const;
    /// Values of this node and every descendant that has one, breadth-first.
    std::vector<std::string> getOffspringValues() const;
    /// Sum of the value sizes of this node and its descendants.
    int64_t getMemoryCount() const;

    /// Same names, values, types and child names throughout both subtrees.
    bool operator==(const TreeNode& other) const;
    /// Not operator==.
    bool operator!=(const TreeNode& other) const { return !(*this == other); }

    /// Writes this node's own record line(s) under the full key `key`.
    void dump(basic_memstream& out, const std::string& key) const;
    /// Writes the whole subtree breadth-first as settings-file records, leaving out the
    /// volatile "/tmp" branch.
    void save(basic_memstream& out) const;

    /// The node's name (one component of its key).
    const std::string& getName() const noexcept { return name; }
    /// The value's bytes.
    const std::string& getValueBytes() const noexcept { return value; }
    /// The value's type.
    ValueType getType() const noexcept { return info.type; }
    /// The value's size.
    uint64_t getSize() const noexcept { return info.size; }
    /// The parent; null for the root and for unlinked nodes.
    TreeNode* getParent() const noexcept { return parent; }
    /// The child of that name, or null.
    TreeNode* getChild(const std::string& childName) const;
    /// Number of direct children.
    size_t childCount() const noexcept { return children.size(); }
    /// The children by name.
    const ChildMap& getChildMap() const noexcept { return children; }

private:
    void destroyChildren() noexcept;

    std::string name;
    std::string value;
    NodeInfo info;
    ChildMap children;
    TreeNode* parent;
};

}  // namespace storage
}  // namespace ks
