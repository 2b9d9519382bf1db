// The settings store: key syntax, reads and writes through the tree, branch copies and
// merges, change counting, and the settings file.
//
// Saving serialises the tree once into memory, digests it, and then writes each target
// through "<name>.shadow": only a shadow that was written completely and synced is renamed
// over the target, so the previous file survives any failure or crash in between. Loading
// reads the file in large chunks and splits lines in place; a record is only copied when it
// becomes a node, which keeps a load of a large file close to the cost of building the tree.
#include <kssetter/ksstorage.h>
#include <ksutils/crypto.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/streams.h>
#include <ksutils/unique_fd.h>
#include <kswrite.h>

#include "kssetter/kssetmgmt/protocol.h"
#include "kssys.h"
#include "storage_channel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ks {
namespace storage {

namespace {

constexpr char kDelimiter = '/';
constexpr ks::string_view kVolatileRoot = "/tmp";
constexpr ks::string_view kHashRecord = "/tmp/hash=s|";
constexpr ks::string_view kHashKey = "/tmp/hash";
constexpr size_t kHexDigestSize = 64;
// The checksum line, without its line end.
constexpr size_t kHashLineSize = 76;
constexpr size_t kSerialiseStep = 513;
constexpr size_t kReadChunk = 64 * 1024;
constexpr ks::HashFunction kSha256 = ks::HashFunction::SHA256;

const char* system_error(int err) { return std::strerror(err); }

// Calls `visit(component)` for every component of `path` (a key without its leading "/"),
// splitting at every delimiter and keeping empty components. `visit` returns false to stop.
// One scratch string is reused for the components, so short keys allocate nothing.
template <class Visit>
void for_each_component(ks::string_view path, Visit&& visit) {
    std::string component;
    size_t start = 0;
    for (;;) {
        const size_t slash = path.find(kDelimiter, start);
        const size_t end = slash == ks::string_view::npos ? path.size() : slash;
        component.assign(path.data() + start, end - start);
        if (!visit(component, slash == ks::string_view::npos) || slash == ks::string_view::npos) return;
        start = slash + 1;
    }
}

// Reads a descriptor in large chunks and hands out the lines (without "\n") as views into
// its buffer; a view stays valid until the next call. A last line without "\n" counts.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd), buffer_(kReadChunk) {}

    // 1 with a line, 0 at end of file, -1 on a read error (errno set).
    int next(ks::string_view& line) {
        for (;;) {
            const char* start = buffer_.data() + begin_;
            const void* end = std::memchr(start + scanned_, '\n', end_ - begin_ - scanned_);
            if (end != nullptr) {
                const size_t length = static_cast<size_t>(static_cast<const char*>(end) - start);
                line = ks::string_view(start, length);
                begin_ += length + 1;
                scanned_ = 0;
                return 1;
            }
            scanned_ = end_ - begin_;
            if (eof_) {
                if (begin_ == end_) return 0;
                line = ks::string_view(start, end_ - begin_);
                begin_ = end_;
                scanned_ = 0;
                return 1;
            }
            if (fill() < 0) return -1;
        }
    }

private:
    int fill() {
        if (begin_ > 0) {
            std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        if (end_ == buffer_.size()) buffer_.resize(buffer_.size() * 2);
        const ssize_t n = ks::sys::read_some(fd_, buffer_.data() + end_, buffer_.size() - end_);
        if (n < 0) return -1;
        if (n == 0) eof_ = true;
        end_ += static_cast<size_t>(n);
        return 0;
    }

    int fd_;
    std::vector<char> buffer_;
    size_t begin_ = 0;    // first unread byte
    size_t end_ = 0;      // end of the bytes read
    size_t scanned_ = 0;  // bytes after begin_ known to hold no line end
    bool eof_ = false;
};

struct Serialised {
    basic_memstream content{kSerialiseStep};
    std::string hashLine;  // the checksum record of `content`, with its line end
};

Serialised serialise(const TreeNode* root, unsigned long ch) {
    Serialised out;
    if (root) root->save(out.content);
    // A value the encoder refused is logged and left out; it is not a failed save.
    _get_kserrno().set(E_OK);
    const std::string digest = ks::compute_hash(kSha256, out.content.view().data(), 0, out.content.size());
    KSLOG_DEBUG(ch, "Hash for storage content: {:s}", digest);
    out.hashLine.reserve(kHashLineSize + 1);
    out.hashLine.append(kHashRecord).append(digest).push_back('\n');
    return out;
}

// Writes the checksum line and the content to "<file>.shadow", syncs it, renames it over
// `file` and syncs the directory. Sets E_SYSTEM, logs and removes the shadow on failure,
// leaving errno as the failed step set it.
bool save_one(unsigned long channel, const std::string& file, ks::string_view hashLine, ks::string_view content) {
    KSLOG_DEBUG(channel, "Saving storage to file {:s}", file);
    const std::string shadow = file + ".shadow";
    ks::unique_fd fd(::open(shadow.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) {
        const int err = errno;
        _get_kserrno().set(E_SYSTEM, "Failed to open file {:s}: {:s}", shadow, system_error(err));
        KSLOG_ERROR(channel, "Failed to open file: {}", system_error(err));
        errno = err;
        return false;
    }
    auto fail = [&](const char* what) {
        const int err = errno;
        _get_kserrno().set(E_SYSTEM, "{:s}({:s}): {:s}", what, shadow, system_error(err));
        fd.reset();
        ::unlink(shadow.c_str());
        errno = err;
        return false;
    };
    if (write_all(fd.get(), hashLine.data(), hashLine.size(), 1) < 0) return fail("write");
    if (!content.empty() && write_all(fd.get(), content.data(), content.size(), 1) < 0) return fail("write");
    KSLOG_DEBUG(channel, "Wrote data to {:s}", shadow);
    if (::fsync(fd.get()) != 0) {
        const int err = errno;
        KSLOG_WARN(channel, "sync({:s}): {}", shadow, system_error(err));
        errno = err;
        return fail("sync");
    }
    KSLOG_DEBUG(channel, "fsync on {:s} finished", shadow);
    if (::close(fd.release()) != 0) return fail("close");
    if (::rename(shadow.c_str(), file.c_str()) != 0) {
        const int err = errno;
        KSLOG_ERROR(channel, "Failed to rename file: {}", system_error(err));
        errno = err;
        return fail("rename");
    }
    // Until the directory is synced the rename may not survive a power loss, so an owner
    // that would drop its own copy of the changes must not take the save as done.
    const size_t slash = file.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    ks::unique_fd dirfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirfd || ::fsync(dirfd.get()) != 0) {
        const int err = errno;
        _get_kserrno().set(E_SYSTEM, "sync({:s}): {:s}", dir, system_error(err));
        errno = err;
        return false;
    }
    KSLOG_DEBUG(channel, "Successfully saved to {:s}", file);
    return true;
}

}  // namespace

// ---- construction --------------------------------------------------------------------

Store::Store() = default;

Store::Store(const Store& other, const std::string& key) {
    logChannel = static_cast<int>(ks::log::open_channel(ks::log::kKSSetMgmtChannel));
    if (logChannel < 0) KSLOG_ERROR(0, "Cannot open log channel {}", ks::log::kKSSetMgmtChannel);
    if (!other.root) return;
    if (key == "/") {
        root = std::make_unique<TreeNode>(other.root.get(), true, nullptr);
        return;
    }
    if (!isValidKey(key)) return;
    const TreeNode* source = other.lookup(key);
    if (source == nullptr) return;
    root = std::make_unique<TreeNode>("", nullptr);
    TreeNode* node = root.get();
    for_each_component(ks::string_view(key).substr(1), [&](const std::string& component, bool last) {
        if (!last) {
            node = node->makeChild(component);
            return true;
        }
        auto copy = std::make_unique<TreeNode>(source, true, node);
        if (node->addChild(component, copy.get())) copy.release();
        return false;
    });
}

Store::~Store() = default;
Store::Store(Store&& other) noexcept = default;
Store& Store::operator=(Store&& other) noexcept = default;

// ---- key syntax ----------------------------------------------------------------------

bool Store::isValidKey(ks::string_view key) {
    if (ks::setter::hasReservedCharacter(key)) {
        _get_kserrno().set(E_INVAL);
        return false;
    }
    return hasKeyShape(key);
}

bool Store::isVolatileKey(ks::string_view key) noexcept {
    return key.substr(0, kVolatileRoot.size()) == kVolatileRoot &&
           (key.size() == kVolatileRoot.size() || key[kVolatileRoot.size()] == kDelimiter);
}

void Store::count(const std::string& key) {
    if (isVolatileKey(key))
        ++volatileChanges;
    else
        ++persistentChanges;
}

unsigned long Store::channel() const {
    // The log core may have started after this store was made: retry until it opens.
    if (logChannel < 0) logChannel = static_cast<int>(settings_log_channel());
    return static_cast<unsigned long>(static_cast<long>(logChannel));
}

// ---- lookups -------------------------------------------------------------------------

// `key` begins with the delimiter.
TreeNode* Store::lookup(ks::string_view key) const {
    if (!root) return nullptr;
    if (key.size() == 1) return root.get();
    TreeNode* node = root.get();
    for_each_component(key.substr(1), [&](const std::string& component, bool) {
        node = node->getChild(component);
        return node != nullptr;
    });
    return node;
}

TreeNode* Store::findNode(const char* path) const {
    if (path == nullptr || !root) return nullptr;
    // The empty path is the root, just as the key "/" is.
    if (*path == '\0') return root.get();
    return lookup(std::string(1, kDelimiter) + path);
}

int64_t Store::getMemoryCount() const { return root ? root->getMemoryCount() : 0; }

bool Store::operator==(const Store& other) const {
    if (!root || !other.root) return !root && !other.root;
    return *root == *other.root;
}

std::pair<int, int64_t> Store::locateKey(const std::string& key, unsigned char* out) const {
    if (!isValidKey(key)) return {2, -1};
    if (!root) return {2, 0};
    if (key.size() == 1) return {1, static_cast<int64_t>(root->getValue(out))};
    TreeNode* node = root.get();
    bool found = true;
    for_each_component(ks::string_view(key).substr(1), [&](const std::string& component, bool) {
        TreeNode* child = node->getChild(component);
        if (child == nullptr) return found = false;
        node = child;
        return true;
    });
    return {found ? 1 : 0, static_cast<int64_t>(node->getValue(out))};
}

std::vector<std::string> Store::getInheritance(const std::string& key) const {
    std::vector<std::string> values;
    if (!isValidKey(key) || !root) return values;
    if (!root->getValueBytes().empty()) values.push_back(root->getValueBytes());
    if (key.size() == 1) return values;
    const TreeNode* node = root.get();
    for_each_component(ks::string_view(key).substr(1), [&](const std::string& component, bool) {
        node = node->getChild(component);
        if (node == nullptr) return false;
        if (!node->getValueBytes().empty()) values.push_back(node->getValueBytes());
        return true;
    });
    return values;
}

int64_t Store::getKey(const std::string& key, unsigned char* out) const {
    if (!root) return -1;
    if (!isValidKey(key)) return -1;
    const TreeNode* node = lookup(key);
    if (node == nullptr) {
        _get_kserrno().set(E_NOENT, "Key {:s} not found", key);
        return -1;
    }
    return static_cast<int64_t>(node->getValue(out));
}

int64_t Store::getKey(const std::string& key, std::string& out) const {
    if (!isValidKey(key)) return -1;
    NodeInfo info;
    if (keyInfo(key, info) < 0) return -1;
    out.assign(info.size, '\0');
    return getKey(key, reinterpret_cast<unsigned char*>(out.data()));
}

int Store::keyInfo(const std::string& key, NodeInfo& out) const {
    if (!isValidKey(key)) return -1;
    const TreeNode* node = lookup(key);
    if (node == nullptr) {
        _get_kserrno().set(E_NOENT, "Key {:s} not found", key);
        return -1;
    }
    return node->getNodeInfo(out);
}

// ---- changes -------------------------------------------------------------------------

int Store::setKey(const std::string& key, const unsigned char* value, ValueType type, unsigned long size) {
    if (ks::setter::hasReservedCharacter(key)) {
        _get_kserrno().set(E_INVAL);
        return -1;
    }
    if (setKey_(key, value, type, size) < 0) return -1;
    count(key);
    return 0;
}

// The shape every stored key has: not empty and starting at the root (E_INVAL otherwise).
bool Store::hasKeyShape(ks::string_view key) {
    if (key.empty()) {
        _get_kserrno().set(E_INVAL, "Empty key");
        return false;
    }
    if (key[0] != kDelimiter) {
        _get_kserrno().set(E_INVAL, "Key does not start with delimiter: {:s}", key);
        return false;
    }
    return true;
}

int Store::setKey_(const std::string& key, const unsigned char* value, ValueType type, unsigned long size) {
    if (!hasKeyShape(key)) return -1;
    if (!root) root = std::make_unique<TreeNode>("", nullptr);
    TreeNode* node = root.get();
    if (key.size() > 1) {
        for_each_component(ks::string_view(key).substr(1), [&](const std::string& component, bool) {
            node = node->makeChild(component);
            return true;
        });
    }
    return node->setValue(value, type, size);
}

int Store::delKey(const std::string& key, bool prune, bool leafOnly) {
    if (ks::setter::hasReservedCharacter(key)) {
        _get_kserrno().set(E_INVAL);
        return -1;
    }
    if (delKey_(key, prune, leafOnly) < 0) return -1;
    count(key);
    return 0;
}

int Store::delKey_(const std::string& key, bool prune, bool leafOnly) {
    if (!root) {
        _get_kserrno().set(E_NOENT, "Key {:s} not found", key);
        return -1;
    }
    if (!hasKeyShape(key)) return -1;
    if (key.size() == 1) {
        if (leafOnly && root->childCount() > 0) {
            _get_kserrno().set(E_FAULT, "Key {:s} is not leaf", key);
            return -1;
        }
        root.reset();
        return 0;
    }
    TreeNode* node = lookup(key);
    if (node == nullptr) {
        _get_kserrno().set(E_NOENT, "Key {:s} not found", key);
        return -1;
    }
    if (leafOnly && node->childCount() > 0) {
        _get_kserrno().set(E_FAULT, "Key {:s} is not leaf", key);
        return -1;
    }
    node->del(prune);
    if (prune && root->childCount() == 0 && root->getType() == None) root.reset();
    return 0;
}

bool Store::clear() { return delKey("/", false, false) == 0; }

void Store::merge(Store& other, const std::string& key) {
    if (!isValidKey(key) || !other.root) return;
    persistentChanges += other.persistentChanges;
    volatileChanges += other.volatileChanges;
    delKey_(key, true, false);
    // Deliberately the whole of `other`, even for a branch key, when nothing is left here.
    if (key.size() == 1 || !root) {
        root = std::move(other.root);
        return;
    }
    TreeNode* mine = root.get();
    TreeNode* theirs = other.root.get();
    for_each_component(ks::string_view(key).substr(1), [&](const std::string& component, bool last) {
        TreeNode* theirChild = theirs->getChild(component);
        TreeNode* myChild = mine->getChild(component);
        if (theirChild != nullptr && myChild == nullptr) {
            theirs->removeChild(component);
            mine->addChild(component, theirChild);
            return false;
        }
        if (last || theirChild == nullptr || myChild == nullptr) return false;
        mine = myChild;
        theirs = theirChild;
        return true;
    });
}

// ---- enumeration ---------------------------------------------------------------------

// The node of an existing key for the enumerations; null (logged, E_NOENT) when absent.
const TreeNode* Store::enumerated(const std::string& key) const {
    if (!isValidKey(key) || !root) return nullptr;
    const TreeNode* node = lookup(key);
    if (node == nullptr) {
        KSLOG_DEBUG(channel(), "Key {:s} not found", key);
        _get_kserrno().set(E_NOENT, "Key {:s} not found", key);
    }
    return node;
}

std::vector<std::string> Store::enumSubkeys(const std::string& key) const {
    const TreeNode* node = enumerated(key);
    return node ? node->getChildren() : std::vector<std::string>{};
}

std::vector<std::string> Store::enumDescendantsValues(const std::string& key) const {
    const TreeNode* node = enumerated(key);
    return node ? node->getOffspringValues() : std::vector<std::string>{};
}

void Store::fillDebugInfo(DebugInfo& info) const {
    info.memoryCount = static_cast<uint64_t>(getMemoryCount());
    info.persistentChanges = persistentChanges;
    info.volatileChanges = volatileChanges;
}

// ---- the settings file ---------------------------------------------------------------

int Store::save(const std::vector<std::string>& files) {
    _get_kserrno().set(E_OK);
    if (persistentChanges == 0) return 0;
    const unsigned long ch = channel();
    const Serialised data = serialise(root.get(), ch);
    for (const std::string& file : files) {
        if (!save_one(ch, file, data.hashLine, data.content.view()))
            KSLOG_ERROR(ch, "There was an error while saving to {:s}: {}", file, _get_kserrno().message_view());
    }
    persistentChanges = 0;
    return 0;
}

bool Store::writeFile(const std::string& file) const {
    const unsigned long ch = channel();
    const Serialised data = serialise(root.get(), ch);
    if (save_one(ch, file, data.hashLine, data.content.view())) return true;
    const int err = errno;
    KSLOG_ERROR(ch, "There was an error while saving to {:s}: {}", file, _get_kserrno().message_view());
    errno = err;
    return false;
}

int Store::load(const std::string& file) {
    root.reset();
    const unsigned long ch = channel();
    ks::unique_fd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT) return 0;
        const int err = errno;
        _get_kserrno().set(E_SYSTEM, "Failed to open {:s}: {:s}", file, system_error(err));
        return -1;
    }

    // Records of siblings follow each other in the file and their parents mostly share a
    // long prefix, so the path of the last parent is kept (names and nodes) and a record
    // only walks the components where its parent differs, usually just its own leaf.
    std::vector<std::string> pathNames;
    std::vector<TreeNode*> pathNodes;  // pathNodes[i + 1] is the node named pathNames[i]
    std::string leafName;
    auto nodeFor = [&](ks::string_view key) {
        if (!root) {
            root = std::make_unique<TreeNode>("", nullptr);
            pathNodes.assign(1, root.get());
            pathNames.clear();
        }
        if (key.size() == 1) return root.get();
        const size_t cut = key.rfind(kDelimiter);
        size_t depth = 0;
        if (cut > 0) {
            for_each_component(key.substr(1, cut - 1), [&](const std::string& component, bool) {
                if (depth < pathNames.size() && pathNames[depth] == component) {
                    ++depth;
                    return true;
                }
                pathNames.resize(depth);
                pathNodes.resize(depth + 1);
                pathNodes.push_back(pathNodes.back()->makeChild(component));
                pathNames.push_back(component);
                ++depth;
                return true;
            });
        }
        pathNames.resize(depth);
        pathNodes.resize(depth + 1);
        leafName.assign(key.substr(cut + 1));
        return pathNodes.back()->makeChild(leafName);
    };

    // A string value is stored at once; continuation lines, which are rare, collect the
    // rest of it here until the next record.
    TreeNode* continued = nullptr;
    bool extended = false;
    std::string value, decoded, encoded;
    auto finishValue = [&] {
        if (continued != nullptr && extended)
            continued->setValue(reinterpret_cast<const unsigned char*>(value.data()), String, value.size());
        continued = nullptr;
        extended = false;
    };

    LineReader reader(fd.get());
    ks::string_view line;
    int rc;
    while ((rc = reader.next(line)) > 0) {
        // The writer never produces an empty line: anything after one is not ours.
        if (line.empty()) break;
        if (line[0] == ' ') {
            if (continued == nullptr) continue;
            if (!extended) value = continued->getValueBytes();
            extended = true;
            value.append(1, '\n').append(line.substr(1));
            continue;
        }
        finishValue();
        const size_t eq = line.find('=');
        const ks::string_view key = line.substr(0, eq);
        if (key.empty() || key[0] != kDelimiter || (eq != ks::string_view::npos && eq + 3 > line.size())) {
            KSLOG_ERROR(ch, "Error while parsing line {:s}", line);
            continue;
        }
        if (eq == ks::string_view::npos) {
            nodeFor(key)->setValue(nullptr, None, 0);
            continue;
        }
        const ks::string_view text = line.substr(eq + 3);
        switch (line[eq + 1]) {
            case 's':
                continued = nodeFor(key);
                continued->setValue(reinterpret_cast<const unsigned char*>(text.data()), String, text.size());
                break;
            case 'b':
                encoded.assign(text);
                if (!ks::base64_decode(encoded, decoded)) {
                    KSLOG_ERROR(ch, "Failed to base64 decode value for key {:s}", key);
                    break;
                }
                nodeFor(key)->setValue(reinterpret_cast<const unsigned char*>(decoded.data()), Binary,
                                       decoded.size());
                break;
            default:
                KSLOG_ERROR(ch, "Unknown key value type");
                break;
        }
    }
    if (rc < 0) {
        const int err = errno;
        root.reset();
        _get_kserrno().set(E_SYSTEM, "Failed to read {:s}: {:s}", file, system_error(err));
        return -1;
    }
    finishValue();
    return 0;
}

int Store::checkHash(const std::string& file) {
    const unsigned long ch = settings_log_channel();
    ks::fstream stream;
    if (!stream.open(file, std::ios_base::in)) return -1;
    struct stat st;
    if (::fstat(stream.fd(), &st) != 0) {
        _get_kserrno().set(E_SYSTEM);
        return -1;
    }
    ks::memorymap map;
    if (!map.map(true, stream)) return -1;
    const size_t size = static_cast<size_t>(st.st_size);
    const char* data = static_cast<const char*>(map.data());

    if (size < kHashKey.size() || ks::string_view(data, kHashKey.size()) != kHashKey) return 0;
    if (size < kHashLineSize) {
        KSLOG_ERROR(ch, "Invalid hash size in {:s}", file);
        _get_kserrno().set(E_INVAL, "Invalid hash size in {:s}", file);
        return -1;
    }
    const std::string saved(data + kHashRecord.size(), kHexDigestSize);
    const size_t from = size == kHashLineSize ? kHashLineSize : kHashLineSize + 1;
    const std::string computed = ks::compute_hash(kSha256, data, from, size - from);
    if (saved == computed) {
        KSLOG_DEBUG(ch, "Checksums match for file: {:s}", file);
        return 0;
    }
    KSLOG_ERROR(ch, "Checksums don't match for file: {:s}, saved_hash={:s}, crt_hash={:s}", file, saved, computed);
    _get_kserrno().set(E_INVAL, "Checksums don't match for file: {:s}", file);
    return -1;
}

}  // namespace storage
}  // namespace ks
