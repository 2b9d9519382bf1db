// Subscription fan-out of the settings server; see subscriptions.h.
#include "kssetter/server/subscriptions.h"

#include "kssetter/kssetmgmt/protocol.h"

namespace ks {
namespace setter {

void Subscriptions::add(const std::string& key, int fd) {
    if (byKey_[key].insert(fd).second) ++streams_;
}

void Subscriptions::remove(const std::string& key, int fd) {
    auto it = byKey_.find(key);
    if (it == byKey_.end() || it->second.erase(fd) == 0) return;
    --streams_;
    if (it->second.empty()) byKey_.erase(it);
}

void Subscriptions::forEachListener(const std::string& key, bool subtreeGone,
                                    const std::function<void(int)>& post) const {
    ks::string_view at = key;
    for (;;) {
        auto it = byKey_.find(std::string(at));
        if (it != byKey_.end())
            for (int fd : it->second) post(fd);
        if (at == "/") break;
        at = parentKey(at);
    }
    if (!subtreeGone) return;
    // Keys below a deleted key went with it.
    const std::string prefix = key == "/" ? key : key + "/";
    for (auto it = byKey_.lower_bound(prefix); it != byKey_.end(); ++it) {
        if (it->first.compare(0, prefix.size(), prefix) != 0) break;
        if (it->first == key) continue;
        for (int fd : it->second) post(fd);
    }
}

}  // namespace setter
}  // namespace ks
