/// @file
/// @brief A settings key watched for changes: a subscription plus the callback that handles it.
///
/// @code
///   ks::setMgmt::MonitoredKey key("/network/interfaces/config", on_change);
///   int fd = key.get_fd();              // subscribes; put fd into select/poll/epoll
///   ... fd readable ... key.read_notifications();   // calls on_change per changed key
/// @endcode
///
/// The subscription is made lazily by get_fd() and dropped when reading fails (the server
/// went away); the owner calls get_fd() again to resubscribe. Movable, so owners can keep
/// monitored keys in a growable array; destruction cancels the subscription.
#pragma once

#include <ksexport.h>
#include <kssetter/kssetmgmt.h>
#include <ksutils/path.h>

#include <functional>

namespace ks {
namespace setMgmt {

/// A settings key watched for changes (see the file's description).
class KS_EXPORT MonitoredKey {
public:
    /// Called with a changed key (or the monitored key) and the context pointer.
    using Callback = std::function<bool(const ks::path&, void*)>;

    /// Does not subscribe yet. With `reportKeys` the callback gets each changed key (the
    /// key itself or one below it), otherwise the monitored key once per wake-up. With
    /// `callAtStart` it is also called once, with the monitored key, right after subscribing.
    MonitoredKey(const char* key, Callback callback, bool reportKeys = false, void* context = nullptr,
                 bool callAtStart = false);
    /// As the form above, with the key given as a path.
    MonitoredKey(const ks::path& key, Callback callback, bool reportKeys = false, void* context = nullptr,
                 bool callAtStart = false);
    /// Cancels the subscription.
    ~MonitoredKey();
    /// Takes `other`'s key, callback and subscription.
    MonitoredKey(MonitoredKey&& other) noexcept;
    /// Cancels this subscription and takes `other`'s key, callback and subscription.
    MonitoredKey& operator=(MonitoredKey&& other) noexcept;
    MonitoredKey(const MonitoredKey&) = delete;
    MonitoredKey& operator=(const MonitoredKey&) = delete;

    /// The subscription's descriptor, subscribing first if needed; -1 on failure.
    int get_fd();
    /// Call when the descriptor is readable: runs the callback for every changed key, in
    /// sorted order. False when nothing could be read; the subscription is then cancelled.
    bool read_notifications();
    /// Ends the subscription, if any; get_fd() makes a new one.
    void cancel();

    /// The monitored key.
    ks::path key;
    /// The subscription; null while not subscribed.
    NotifyHandle* handle = nullptr;
    /// Handles the changes.
    Callback callback;
    /// Whether the callback gets each changed key.
    bool reportKeys;
    /// Passed to the callback.
    void* context;
    /// Whether the callback runs once right after subscribing.
    bool callAtStart;
    /// The log channel failures are reported on.
    int logChannel;
};

}  // namespace setMgmt
}  // namespace ks
