// Lock hand-over for the settings server; see locks.h.
#include "kssetter/server/locks.h"

#include <algorithm>

namespace ks {
namespace setter {

bool LockTable::acquire(const std::string& key, int fd) {
    Entry& lock = locks_[key];
    if (lock.holder < 0) {
        lock.holder = fd;
        return true;
    }
    lock.waiters.push_back(fd);
    return false;
}

int LockTable::release(const std::string& key, const std::function<bool(int)>& alive) {
    auto it = locks_.find(key);
    if (it == locks_.end()) return -1;
    Entry& lock = it->second;
    lock.holder = -1;
    while (!lock.waiters.empty()) {
        const int next = lock.waiters.front();
        lock.waiters.pop_front();
        if (!alive(next)) continue;
        lock.holder = next;
        return next;
    }
    locks_.erase(it);
    return -1;
}

void LockTable::forgetWaiter(const std::string& key, int fd) {
    auto it = locks_.find(key);
    if (it == locks_.end()) return;
    auto& waiters = it->second.waiters;
    waiters.erase(std::remove(waiters.begin(), waiters.end(), fd), waiters.end());
}

}  // namespace setter
}  // namespace ks
