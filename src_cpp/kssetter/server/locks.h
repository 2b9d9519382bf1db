// The settings server's advisory locks: one holder per key and a queue of waiting
// connections, served first come first served. Connections are known by their descriptor.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>

namespace ks {
namespace setter {

class LockTable {
public:
    // True when `fd` now holds `key`; false when it was queued behind the holder.
    bool acquire(const std::string& key, int fd);
    // Frees `key` and hands it to the first waiter that `alive` accepts: that waiter's
    // descriptor, or -1 when nobody takes it.
    int release(const std::string& key, const std::function<bool(int)>& alive);
    // Takes `fd` out of the queue of `key` (the connection went away while waiting).
    void forgetWaiter(const std::string& key, int fd);

private:
    struct Entry {
        int holder = -1;
        std::deque<int> waiters;
    };
    std::map<std::string, Entry> locks_;
};

}  // namespace setter
}  // namespace ks
