/// @file
/// @brief The settings store: one settings tree behind a key-addressed interface, and the settings
/// file it is saved to and loaded from.
///
/// Keys begin with "/" ("/" alone is the root) and may not contain tab, CR, LF, "|", "=" or
/// NUL, because those separate the records of the file. Keys under "/tmp" are volatile: they
/// live in memory only and are never written. The file is text, one record per line, and its
/// first line "/tmp/hash=s|<sha256 hex>" checks everything after it. A save writes
/// "<name>.shadow", syncs it and renames it over the file, so a crash at any moment leaves
/// either the old or the new file, never a mix.
///
/// The store has no lock of its own: its owner serialises access. Failures set the thread's
/// error record (E_INVAL bad key, E_NOENT missing key, E_FAULT not a leaf, E_SYSTEM files)
/// and return -1 or an empty result.
#pragma once

#include <ksexport.h>
#include <kssetter/kstree.h>
#include <ksutils/string_view.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ks {
namespace storage {

/// Answer to the settings protocol's debug request: a fixed 24-byte record sent as it lies in
/// memory (host byte order). The store fills its own fields (fillDebugInfo); the settings
/// server fills the rest.
struct DebugInfo {
    uint64_t memoryCount = 0;          ///< value bytes held by the server's store (getMemoryCount)
    uint32_t persistentChanges = 0;    ///< changes outside "/tmp" not yet saved to the settings file
    uint32_t volatileChanges = 0;      ///< changes under "/tmp" since the last save
    uint32_t connections = 0;          ///< client connections the server has open
    uint32_t notificationStreams = 0;  ///< open notification streams (subscribed keys)
};
static_assert(sizeof(DebugInfo) == 24, "DebugInfo is a 24-byte wire record");

/// The settings store (see the file's description): a settings tree addressed by keys, saved
/// to and loaded from the settings file.
class KS_EXPORT Store {
public:
    /// An empty store.
    Store();
    /// A store holding a copy of `other`'s branch at `key`: for "/" the whole tree; otherwise
    /// the path down to `key` (valueless) and a deep copy of the node at `key`. An invalid or
    /// absent key gives an empty store.
    Store(const Store& other, const std::string& key);
    ~Store();
    /// Takes `other`'s tree, leaving it empty, and copies its change counters.
    Store(Store&& other) noexcept;
    /// Takes `other`'s tree, leaving it empty, and copies its change counters.
    Store& operator=(Store&& other) noexcept;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    /// Sum of the value sizes of the whole tree.
    int64_t getMemoryCount() const;
    /// Both empty, or trees equal as TreeNode::operator== compares them.
    bool operator==(const Store& other) const;
    /// Not operator==.
    bool operator!=(const Store& other) const { return !(*this == other); }

    /// The node at `path`, the key without its leading "/" ("" is the root); null if absent.
    TreeNode* findNode(const char* path) const;

    /// Finds `key` or its deepest existing ancestor and copies that node's value to `out`
    /// (sized by the caller). Returns (1, size) when the key exists, (0, size) for the
    /// ancestor's value, (2, 0) for an empty store and (2, -1) for an invalid key.
    std::pair<int, int64_t> locateKey(const std::string& key, unsigned char* out) const;
    /// The non-empty values on the path to `key`, root first, as far as the path exists.
    std::vector<std::string> getInheritance(const std::string& key) const;

    /// Copies the value to `out` (sized from keyInfo) and returns its size. An empty store
    /// returns -1 without touching the error record.
    int64_t getKey(const std::string& key, unsigned char* out) const;
    /// Copies the value into `out` (resized to fit) and returns its size, or -1.
    int64_t getKey(const std::string& key, std::string& out) const;
    /// The value's type and size into `out`; 0, or -1 (E_INVAL bad key, E_NOENT missing key).
    int keyInfo(const std::string& key, NodeInfo& out) const;

    /// Sets the value (a copy of `size` bytes; none when `value` is null), creating valueless
    /// nodes along the path, and counts the change. setKey_ skips the character check and
    /// the counting (for loading). 0 or -1.
    int setKey(const std::string& key, const unsigned char* value, ValueType type, unsigned long size);
    /// As setKey, without the character check and the counting (for loading).
    int setKey_(const std::string& key, const unsigned char* value, ValueType type, unsigned long size);

    /// Deletes the node at `key` with its subtree; with `prune` also every ancestor left as
    /// an empty valueless node; with `leafOnly` a node with children is refused (E_FAULT).
    /// delKey_ skips the character check and the counting. 0 or -1.
    int delKey(const std::string& key, bool prune, bool leafOnly);
    /// As delKey, without the character check and the counting.
    int delKey_(const std::string& key, bool prune, bool leafOnly);
    /// Deletes everything ("/"); false when the store was already empty.
    bool clear();

    /// Moves the branch at `key` out of `other` into this store, replacing this store's
    /// branch there, and adds `other`'s change counters to this store's. A store left empty
    /// by removing its branch adopts the whole of `other`.
    void merge(Store& other, const std::string& key);

    /// Child names of `key` (unsorted).
    std::vector<std::string> enumSubkeys(const std::string& key) const;
    /// The values of `key` and all its descendants (breadth-first).
    std::vector<std::string> enumDescendantsValues(const std::string& key) const;

    /// Writes the persistent part of the tree to every file named, each through its
    /// ".shadow" copy, then resets the persistent change counter. Does nothing when no
    /// persistent key changed since the last save. Always returns 0; the error record is
    /// reset to E_OK first, so a failed file leaves E_SYSTEM in it (and in the log).
    int save(const std::vector<std::string>& files);
    /// Writes the persistent part of the tree to `file` the same way, whether or not anything
    /// changed, and leaves the counters alone. True only when the shadow was written, synced,
    /// renamed over `file` and the directory synced; on false, errno tells which step failed
    /// and why, `file` is as it was before or wholly replaced, and the error record says so.
    /// For owners that drop another copy of the changes once they are in the file.
    bool writeFile(const std::string& file) const;
    /// Replaces the contents with the file's records. A missing file gives an empty store
    /// and 0; an unreadable one E_SYSTEM and -1. Malformed records are logged and skipped.
    int load(const std::string& file);
    /// 0 when the file's checksum line matches the rest of the file, or when the file has no
    /// checksum line; E_INVAL and -1 on a mismatch or a truncated checksum line; E_SYSTEM and
    /// -1 when the file cannot be mapped.
    static int checkHash(const std::string& file);

    /// Fills the store's fields of the debug record.
    void fillDebugInfo(DebugInfo& info) const;

    /// True when the store has no tree (not even a root).
    bool empty() const noexcept { return root == nullptr; }
    /// The root node, or null when empty.
    TreeNode* getRoot() const noexcept { return root.get(); }
    /// Changes outside "/tmp" since the last save.
    uint32_t getPersistentChanges() const noexcept { return persistentChanges; }
    /// Changes under "/tmp" since the last save.
    uint32_t getVolatileChanges() const noexcept { return volatileChanges; }

    /// Key syntax: begins with "/" and holds none of the file's separator characters.
    /// Sets E_INVAL when it returns false.
    static bool isValidKey(ks::string_view key);
    /// True for "/tmp" and every key below it.
    static bool isVolatileKey(ks::string_view key) noexcept;

private:
    TreeNode* lookup(ks::string_view key) const;
    const TreeNode* enumerated(const std::string& key) const;
    static bool hasKeyShape(ks::string_view key);
    void count(const std::string& key);
    unsigned long channel() const;

    std::unique_ptr<TreeNode> root;
    uint32_t persistentChanges = 0;
    uint32_t volatileChanges = 0;
    mutable int logChannel = -1;
};

}  // namespace storage
}  // namespace ks
