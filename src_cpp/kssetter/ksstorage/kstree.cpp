// The settings tree node: ownership of children, copies, pruning deletes, equality,
// counting and the record text of the settings file.
//
// Trees here can be as deep as the keys people invent, so nothing walks a subtree by
// recursion: copies, comparisons and writers use a FIFO queue (which also gives the
// breadth-first order the file form promises), and destruction keeps its pending nodes in
// a stack threaded through their parent pointers, which needs no memory at all.
#include <kssetter/kstree.h>
#include <ksutils/crypto.h>
#include <ksutils/kslog.h>

#include "storage_channel.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>

namespace ks {
namespace storage {

namespace {

constexpr char kLineEnd = '\n';
constexpr char kContinuation = ' ';
// The path of the volatile branch, which only lives in memory.
constexpr ks::string_view kVolatileRoot = "/tmp";

}  // namespace

TreeNode::TreeNode(const char* name_, TreeNode* parent_) : name(name_ ? name_ : ""), parent(parent_) {}

TreeNode::TreeNode(const char* name_, const unsigned char* value_, ValueType type, unsigned long size,
                   TreeNode* parent_)
    : name(name_ ? name_ : ""), parent(parent_) {
    setValue(value_, type, size);
}

TreeNode::TreeNode(const TreeNode* source, bool deep, TreeNode* parent_)
    : name(source->name), value(source->value), info(source->info), parent(parent_) {
    if (!deep) return;
    try {
        std::deque<std::pair<const TreeNode*, TreeNode*>> queue;
        queue.emplace_back(source, this);
        while (!queue.empty()) {
            auto [from, to] = queue.front();
            queue.pop_front();
            if (!from->children.empty()) to->children.reserve(from->children.size());
            for (const auto& [childName, child] : from->children) {
                auto* copy = new TreeNode(child, false, to);
                to->children.emplace(childName, copy);
                queue.emplace_back(child, copy);
            }
        }
    } catch (...) {
        // A half-built copy is not an object yet: no destructor would free it.
        destroyChildren();
        throw;
    }
}

TreeNode::~TreeNode() { destroyChildren(); }

// The nodes waiting to be freed form a stack linked through their parent pointers, which
// they no longer need: no allocation, no recursion, and each child map is dropped whole.
void TreeNode::destroyChildren() noexcept {
    TreeNode* pending = nullptr;
    auto push_children = [&pending](TreeNode* node) {
        for (auto& entry : node->children) {
            entry.second->parent = pending;
            pending = entry.second;
        }
        node->children.clear();
    };
    push_children(this);
    while (pending != nullptr) {
        TreeNode* node = pending;
        pending = node->parent;
        push_children(node);
        delete node;
    }
}

unsigned long TreeNode::getValue(unsigned char* out) const {
    if (info.type != None && out != nullptr) {
        const size_t n = std::min<uint64_t>(info.size, value.size());
        if (n > 0) std::memcpy(out, value.data(), n);
    }
    return info.size;
}

int TreeNode::getNodeInfo(NodeInfo& out) const {
    out = info;
    return 0;
}

int TreeNode::setValue(const unsigned char* value_, ValueType type, unsigned long size) {
    info.type = type;
    info.size = size;
    if (value_ == nullptr)
        value.clear();
    else
        value.assign(reinterpret_cast<const char*>(value_), size);
    return 0;
}

TreeNode* TreeNode::getChild(const std::string& childName) const {
    auto it = children.find(childName);
    return it == children.end() ? nullptr : it->second;
}

bool TreeNode::addChild(const std::string& childName, TreeNode* child) {
    if (child == nullptr || !children.emplace(childName, child).second) return false;
    child->name = childName;
    child->parent = this;
    return true;
}

TreeNode* TreeNode::makeChild(const std::string& childName) {
    // Most inner nodes of a settings tree have a single child: start with two buckets
    // instead of the map's default of thirteen.
    if (children.empty()) children.rehash(2);
    auto [it, inserted] = children.try_emplace(childName, nullptr);
    if (inserted) {
        try {
            it->second = new TreeNode("", this);
        } catch (...) {
            children.erase(it);
            throw;
        }
        it->second->name = childName;
    }
    return it->second;
}

TreeNode* TreeNode::removeChild(const std::string& childName) {
    auto it = children.find(childName);
    if (it == children.end()) return nullptr;
    TreeNode* child = it->second;
    children.erase(it);
    child->parent = nullptr;
    return child;
}

int TreeNode::del(const std::string& childName) {
    delete removeChild(childName);
    return 0;
}

int TreeNode::del(bool prune) {
    if (parent == nullptr) {
        delete this;
        return 0;
    }
    TreeNode* current = this;
    TreeNode* up = parent;
    if (prune) {
        // Climb while "up" would be left as an empty valueless inner node; never the root.
        while (up->children.size() < 2 && up->parent != nullptr && up->info.type == None) {
            current = up;
            up = up->parent;
        }
    }
    delete up->removeChild(current->name);
    return 0;
}

std::vector<std::string> TreeNode::getChildren() const {
    std::vector<std::string> names;
    names.reserve(children.size());
    for (const auto& entry : children) names.push_back(entry.first);
    return names;
}

std::vector<std::string> TreeNode::getOffspringValues() const {
    std::vector<std::string> values;
    std::deque<const TreeNode*> queue{this};
    while (!queue.empty()) {
        const TreeNode* node = queue.front();
        queue.pop_front();
        if (node->info.type != None) values.push_back(node->value);
        for (const auto& entry : node->children) queue.push_back(entry.second);
    }
    return values;
}

int64_t TreeNode::getMemoryCount() const {
    int64_t total = 0;
    std::deque<const TreeNode*> queue{this};
    while (!queue.empty()) {
        const TreeNode* node = queue.front();
        queue.pop_front();
        total += static_cast<int64_t>(node->info.size);
        for (const auto& entry : node->children) queue.push_back(entry.second);
    }
    return total;
}

bool TreeNode::operator==(const TreeNode& other) const {
    std::deque<std::pair<const TreeNode*, const TreeNode*>> queue;
    queue.emplace_back(this, &other);
    while (!queue.empty()) {
        auto [left, right] = queue.front();
        queue.pop_front();
        if (left->name != right->name || left->value != right->value || left->info.type != right->info.type ||
            left->children.size() != right->children.size())
            return false;
        for (const auto& [childName, child] : left->children) {
            const TreeNode* match = right->getChild(childName);
            if (match == nullptr) return false;
            queue.emplace_back(child, match);
        }
    }
    return true;
}

void TreeNode::dump(basic_memstream& out, const std::string& key) const {
    switch (info.type) {
        case String: {
            // Each line break of the value starts a continuation line, so a value ending
            // in "\n" ends with a line holding only the continuation mark.
            ks::string_view rest(value);
            bool first = true;
            while (!rest.empty() || !first) {
                const size_t cut = rest.find(kLineEnd);
                if (first) {
                    out.write_text(key);
                    out.write_text("=s|");
                    first = false;
                } else {
                    out.membuf()->sputc(kContinuation);
                }
                out.write_text(rest.substr(0, cut));
                out.membuf()->sputc(kLineEnd);
                if (cut == ks::string_view::npos) break;
                rest = rest.substr(cut + 1);
            }
            break;
        }
        case Binary: {
            std::string text;
            if (!ks::base64_encode(value, text)) {
                const unsigned long channel = settings_log_channel();
                KSLOG_ERROR(channel, "Failed to base64 encode value for key {:s}", key);
                break;
            }
            out.write_text(key);
            out.write_text("=b|");
            out.write_text(text);
            out.membuf()->sputc(kLineEnd);
            break;
        }
        case None:
            // An inner node's existence follows from its children's lines.
            if (children.empty()) {
                out.write_text(key);
                out.membuf()->sputc(kLineEnd);
            }
            break;
        default:
            break;
    }
}

void TreeNode::save(basic_memstream& out) const {
    std::deque<std::pair<std::string, const TreeNode*>> queue;
    queue.emplace_back("/", this);
    while (!queue.empty()) {
        std::string path = std::move(queue.front().first);
        const TreeNode* node = queue.front().second;
        queue.pop_front();
        if (path == kVolatileRoot) continue;
        node->dump(out, path);
        // The root's path is "/" already; every other path needs the delimiter.
        if (node->parent != nullptr) path.push_back('/');
        for (const auto& [childName, child] : node->children) {
            std::string childPath;
            childPath.reserve(path.size() + childName.size());
            queue.emplace_back(std::move(childPath.append(path).append(childName)), child);
        }
    }
}

}  // namespace storage
}  // namespace ks
