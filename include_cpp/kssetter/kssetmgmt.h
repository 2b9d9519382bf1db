/// @file
/// @brief The settings client: read and write keys of the settings server, hold one settings lock
/// per thread, and subscribe to changes.
///
/// @code
///   ks::setMgmt::init();
///   std::string name;
///   if (ks::setMgmt::getKey("/system/name", name) < 0) ... ks::_get_kserrno() ...
///   ks::setMgmt::setKey("/tmp/daemon/x/state", "running");
///   ks::setMgmt::uninit();
/// @endcode
///
/// Every thread uses its own connection, made on its first request, so threads never wait
/// for each other. Keys are checked before any I/O. When the server cannot be reached and
/// offline mode is on (the default), reads are answered from the install root's
/// "etc/storage.data". Results are 0 (or a size) on success and -1 with the thread's error
/// record set on failure, unless a function says otherwise.
#pragma once

#include <ksexport.h>
#include <kssetter/ksconnection.h>
#include <kssetter/ksstorage.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace ks {
/// The settings client.
namespace setMgmt {

/// Starts the client, requiring the log channel (LogChannel::required).
/// Reference-counted: every successful init() needs one uninit().
KS_EXPORT int init();

/// Whether init() may go without the client's log channel. A daemon requires it: a client
/// that forgot to start logging is told at once. A program that must also work where the
/// log core cannot start (an install root without its log key) makes it optional: the
/// client then runs without a channel, its records are dropped, and every failure still
/// reaches the caller through the error record.
enum class LogChannel { required, optional };
/// @var LogChannel::required
/// init() fails when the log channel cannot be opened.
/// @var LogChannel::optional
/// init() goes on without a log channel.

/// Starts the client with or without its log channel; reference-counted like init().
KS_EXPORT int init(LogChannel channel);
/// Drops one init() reference; the last one closes the client. 0.
KS_EXPORT int uninit();
/// True while init() references are held.
KS_EXPORT bool initialized();

/// The value into a new[]-allocated buffer the caller delete[]s; an empty value returns 0
/// and leaves `value` null.
KS_EXPORT int64_t getKey(const std::string& key, unsigned char*& value);
/// The value into `value`; returns its size.
KS_EXPORT int64_t getKey(const std::string& key, std::string& value);
/// The value, or `fallback` when it cannot be read.
KS_EXPORT std::string getKeyValue(const std::string& key, const std::string& fallback);
/// The value of the first key that reads successfully with a non-empty value, or `fallback`.
KS_EXPORT std::string getKeyValue(const std::vector<std::string>& keys, const std::string& fallback);
/// The value as a base-10 number that fits an int, else `fallback`.
KS_EXPORT int getKeyValue(const std::string& key, int fallback);
/// The first key that reads with a non-empty value, as a number that fits an int, else
/// `fallback`.
KS_EXPORT int getKeyValue(const std::vector<std::string>& keys, int fallback);

/// Sets the key to `value`.
/// An empty value (or size 0) stores a key without value.
KS_EXPORT int setKey(const std::string& key, const std::string& value);
/// Sets the key to `size` bytes of `value` (binary).
KS_EXPORT int setKey(const std::string& key, const unsigned char* value, unsigned long size);
/// Deletes the key with everything below it.
KS_EXPORT int deleteKey(const std::string& key);
/// The key's value type and size into `info`.
KS_EXPORT int statKey(const std::string& key, ks::storage::NodeInfo& info);
/// True when the server says the key does not exist (or the module is not initialised).
KS_EXPORT bool keyDeleted(const std::string& key);
/// Appends the child names to `names`; returns how many were appended.
KS_EXPORT int enumSubkeys(const std::string& key, std::vector<std::string>& names);

/// Takes the settings lock on `key`.
/// One lock per thread. Other threads' lockKey() on the same key waits until it is unlocked
/// or this thread's connection ends. While held, a lost server is reported as E_DISCONNECTED.
KS_EXPORT int lockKey(const std::string& key);
/// Releases the lock taken by lockKey().
KS_EXPORT int unlockKey(const std::string& key);

/// Turns offline mode (reads from the offline copy when the server is unreachable) on or
/// off; the client must be initialised.
KS_EXPORT int setOfflineMode(bool on);
/// Whether offline mode is on.
KS_EXPORT bool getOfflineMode();

/// The server's debug record into `info`.
KS_EXPORT int getDebugInfo(ks::storage::DebugInfo& info);
/// Checks a settings file's checksum, as ks::storage::Store::checkHash does.
KS_EXPORT int checkHash(const std::string& file);

/// A subscription: a connection of its own on which the server pushes one notification per
/// change of the key or of a key below it.
class KS_EXPORT NotifyHandle {
public:
    /// A handle for `key`, not yet subscribed; with `reportKeys` notifications name the
    /// changed keys.
    NotifyHandle(const std::string& key, bool reportKeys);

    /// Subscribes; 0 or -1.
    int init();
    /// Waits up to `timeoutMs` (negative: no limit) for notifications and drains them;
    /// returns how many arrived, -1 on failure (E_TIMEDOUT when none came).
    int getNotifications(int timeoutMs);
    /// Same, collecting the changed keys (the subscribed key for plain subscriptions).
    int getNotifications(int timeoutMs, std::set<std::string>& keys);
    /// Ends the subscription and drains what is still in flight.
    int uninit();

    /// The subscribed key.
    std::string key;
    /// Whether notifications name the changed keys.
    bool reportKeys;
    /// The subscription's own connection.
    Connection connection;
};

/// A new subscribed handle, or null; cancelNotification frees it.
KS_EXPORT NotifyHandle* setNotification(const std::string& key, bool reportKeys);
/// NotifyHandle::getNotifications(int) of the handle.
KS_EXPORT int waitNotification(NotifyHandle* handle, int timeoutMs);
/// NotifyHandle::getNotifications(int, std::set<std::string>&) of the handle.
KS_EXPORT int waitNotification(NotifyHandle* handle, int timeoutMs, std::set<std::string>& keys);
/// Unsubscribes, destroys the handle and sets the pointer to null.
KS_EXPORT void cancelNotification(NotifyHandle*& handle);
/// The handle's socket, for poll/epoll/select.
KS_EXPORT int getNotificationFd(NotifyHandle* handle);

}  // namespace setMgmt
}  // namespace ks

/// @name Scripting-language binding
/// For a scripting-language binding (ctypes): no classes, no exceptions.
/// @{
KS_EXTERN_C_BEGIN
/// ks::setMgmt::init().
KS_EXPORT int init_py_wrapper(void);
/// ks::setMgmt::uninit().
KS_EXPORT int uninit_py_wrapper(void);
/// The size of the key's value, or -1.
/// Always stores a malloc'ed copy of the value (empty on failure) the caller frees.
KS_EXPORT int64_t getKey_py_wrapper(const char* key, char** value);
/// Stores a malloc'ed copy of every child name into consecutive slots of `names`, which the
/// caller sizes; returns the count or -1.
KS_EXPORT int enumSubkeys_py_wrapper(const char* key, char** names);
KS_EXTERN_C_END
/// @}
