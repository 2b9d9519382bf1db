// Who is subscribed to which key on the settings server, and who hears of a change: the
// subscribers of the changed key and of every key above it, and, when a key is deleted with
// its subtree, the subscribers of keys below it as well.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <set>
#include <string>

namespace ks {
namespace setter {

class Subscriptions {
public:
    void add(const std::string& key, int fd);
    void remove(const std::string& key, int fd);
    // Open notification streams.
    size_t streams() const { return streams_; }
    // Calls `post` with every descriptor that hears of a change of `key`.
    void forEachListener(const std::string& key, bool subtreeGone, const std::function<void(int)>& post) const;

private:
    std::map<std::string, std::set<int>> byKey_;
    size_t streams_ = 0;
};

}  // namespace setter
}  // namespace ks
