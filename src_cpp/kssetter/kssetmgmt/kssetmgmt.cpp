// The settings client API: key checks, one request connection per thread, the one settings
// lock a thread may hold, the offline fallback, subscriptions, and the plain functions of
// the scripting-language binding.
//
// Requests of different threads never share a socket, so the request path takes no lock at
// all; the init mutex only serialises init/uninit and offline-mode changes, and the offline
// mutex guards the lazily loaded copy of the settings file that reads fall back to when the
// server cannot be reached.
#include <kssetter/kssetmgmt.h>

#include "kssetter/kssetmgmt/protocol.h"
#include "kssetter/kssetmgmt/setmgmt_private.h"

#include <ksutils/error.h>
#include <ksutils/fork.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace ks {
namespace setMgmt {

namespace {

using storage::NodeInfo;

std::atomic<int> g_initCount{0};
std::mutex g_initMutex;
std::atomic<bool> g_offlineMode{false};
std::atomic<long> g_logChannel{-1};

std::mutex g_offlineMutex;
bool g_offlineLoaded = false;
storage::Store& offlineStore() {
    static storage::Store store;
    return store;
}

const std::string& offlineFile() {
    static const std::string file = path(common_path::etc, setter::kStorageFileName).str();
    return file;
}

thread_local Connection t_connection;

void setNotInitialized() { _get_kserrno().set(E_FAULT, "ks::setMgmt is not initialized"); }

void setLostServer() { _get_kserrno().set(E_DISCONNECTED, "Can't communicate with server"); }

// A forked child must not wait on a mutex some other thread of the parent held at the
// fork, nor talk over the forking thread's socket, which the parent keeps using.
void childAfterFork() {
    if (g_initCount.load() <= 0) return;
    new (&g_initMutex) std::mutex();
    new (&g_offlineMutex) std::mutex();
    t_connection.reset();
    t_connection.lockHeld = false;
}

enum class Route { fail, server, offline };

Route connect(bool read) {
    if (t_connection.init() == 0) return Route::server;
    if (read && g_offlineMode.load()) return Route::offline;
    return Route::fail;
}

// The common preamble: initialised, well-formed key, a connection. Reads may be routed to
// the offline store instead. An open socket is taken as it is, without a peek at it before
// each request: a server that went away since the last one shows when the request is sent.
Route prepare(const std::string* key, bool read) {
    if (g_initCount.load() <= 0) {
        setNotInitialized();
        return Route::fail;
    }
    if (key && !setter::checkClientKey(*key)) return Route::fail;
    Connection& c = t_connection;
    if (c.fd >= 1) return Route::server;
    if (c.lockHeld) {
        // Reconnecting would silently drop the lock the caller believes it holds.
        setLostServer();
        return Route::fail;
    }
    return connect(read);
}

// The preamble, then `r` sent. A Unix socket whose server closed it refuses the send at
// once (EPIPE), and the server applies no request whose frame it has not received whole,
// so the request goes again over a fresh connection, unless a lock went with the old one.
Route send(const std::string* key, bool read, const setter::Request& r) {
    Route route = prepare(key, read);
    if (route != Route::server) return route;
    Connection& c = t_connection;
    if (setter::sendFrame(c, r) == 0) return Route::server;
    if (c.lockHeld || (errno != EPIPE && errno != ECONNRESET)) return Route::fail;
    KSLOG_INFO(_log_channel(), "Connection with kssetter seems down...");
    route = connect(read);
    if (route != Route::server) return route;
    return setter::sendFrame(c, r) == 0 ? Route::server : Route::fail;
}

// `r` sent and its whole reply received; the offline and failed routes come back without one.
Route request(const std::string* key, bool read, const setter::Request& r, setter::Reply& reply) {
    const Route route = send(key, read, r);
    if (route != Route::server) return route;
    return setter::receiveReply(t_connection, r.command, reply) < 0 ? Route::fail : Route::server;
}

template <class Read>
int64_t readOffline(Read&& read) {
    std::lock_guard<std::mutex> lock(g_offlineMutex);
    if (!g_offlineLoaded) {
        KSLOG_INFO(_log_channel(), "Offline mode enabled. Loading data...");
        if (offlineStore().load(offlineFile()) < 0) return -1;
        g_offlineLoaded = true;
    }
    return read(offlineStore());
}

void invalidateOffline() {
    std::lock_guard<std::mutex> lock(g_offlineMutex);
    g_offlineLoaded = false;
}

unsigned char* allocateValue(uint64_t size) {
    unsigned char* value = new (std::nothrow) unsigned char[size];
    if (!value) {
        errno = ENOMEM;
        _get_kserrno().set(E_SYSTEM);
    }
    return value;
}

int64_t offlineGet(const std::string& key, unsigned char*& value) {
    return readOffline([&](storage::Store& store) -> int64_t {
        NodeInfo info;
        if (store.keyInfo(key, info) < 0) return -1;
        if (info.type == storage::None || info.size == 0) return 0;
        unsigned char* bytes = allocateValue(info.size);
        if (!bytes) return -1;
        const int64_t n = store.getKey(key, bytes);
        if (n < 0) {
            delete[] bytes;
            return -1;
        }
        value = bytes;
        return n;
    });
}

int64_t setRequest(const std::string& key, const unsigned char* value, unsigned long size, storage::ValueType type) {
    setter::Request r = setter::makeRequest(setter::CMD_SET, key);
    r.type = type;
    r.value = ks::string_view(reinterpret_cast<const char*>(value), size);
    setter::Reply reply;
    if (request(&key, false, r, reply) != Route::server) return -1;
    invalidateOffline();
    return 0;
}

bool toInt(const std::string& key, const std::string& text, int& out) {
    errno = 0;
    char* end = nullptr;
    const long n = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE || n < INT_MIN || n > INT_MAX) {
        KSLOG_ERROR(_log_channel(), "Failed to convert value {:s} of key {:s} to int", text, key);
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

}  // namespace

unsigned long _log_channel() noexcept {
    const long channel = g_logChannel.load(std::memory_order_relaxed);
    return channel >= 0 ? static_cast<unsigned long>(channel) : 0;
}

Connection& _thread_connection() { return t_connection; }

int init() { return init(LogChannel::required); }

int init(LogChannel logChannel) {
    std::lock_guard<std::mutex> lock(g_initMutex);
    if (g_initCount.load() > 0) {
        ++g_initCount;
        return 0;
    }
    g_offlineMode = true;
    invalidateOffline();
    const long channel = static_cast<long>(log::open_channel(log::kKSSetMgmtChannel));
    if (channel < 0 && logChannel == LogChannel::required) {
        _get_kserrno().set(E_FAULT, "Cannot open log channel '{:s}'.", log::kKSSetMgmtChannel);
        return -1;
    }
    g_logChannel = channel;
    ks::lib_atfork(childAfterFork);
    KSLOG_DEBUG(_log_channel(), "ks::setMgmt successfully initialized");
    ++g_initCount;
    return 0;
}

int uninit() {
    std::lock_guard<std::mutex> lock(g_initMutex);
    if (g_initCount.load() < 1) return 0;
    if (--g_initCount > 0) return 0;
    if (g_offlineMode.load()) {
        std::lock_guard<std::mutex> offline(g_offlineMutex);
        offlineStore().clear();
        g_offlineLoaded = false;
    }
    KSLOG_DEBUG(_log_channel(), "ks::setMgmt successfully uninitialized");
    const long channel = g_logChannel.exchange(-1);
    if (channel >= 0) log::close_channel(static_cast<unsigned long>(channel));
    return 0;
}

bool initialized() { return g_initCount.load() > 0; }

int64_t getKey(const std::string& key, unsigned char*& value) {
    value = nullptr;
    setter::Reply reply;
    const Route route = request(&key, true, setter::makeRequest(setter::CMD_GET, key), reply);
    if (route == Route::offline) return offlineGet(key, value);
    if (route == Route::fail) return -1;
    if (reply.payload.empty()) return 0;
    unsigned char* bytes = allocateValue(reply.payload.size());
    if (!bytes) return -1;
    std::memcpy(bytes, reply.payload.data(), reply.payload.size());
    value = bytes;
    return static_cast<int64_t>(reply.payload.size());
}

int64_t getKey(const std::string& key, std::string& value) {
    setter::Reply reply;
    const Route route = request(&key, true, setter::makeRequest(setter::CMD_GET, key), reply);
    if (route == Route::offline) {
        unsigned char* bytes = nullptr;
        const int64_t n = offlineGet(key, bytes);
        if (n >= 0) value.assign(reinterpret_cast<const char*>(bytes), static_cast<size_t>(n));
        delete[] bytes;
        return n;
    }
    if (route == Route::fail) return -1;
    value.assign(reply.payload.data(), reply.payload.size());
    return static_cast<int64_t>(reply.payload.size());
}

std::string getKeyValue(const std::string& key, const std::string& fallback) {
    std::string value;
    return getKey(key, value) < 0 ? fallback : value;
}

std::string getKeyValue(const std::vector<std::string>& keys, const std::string& fallback) {
    std::string value;
    for (const std::string& key : keys)
        if (getKey(key, value) >= 0 && !value.empty()) return value;
    return fallback;
}

int getKeyValue(const std::string& key, int fallback) {
    std::string value;
    int number;
    if (getKey(key, value) < 0 || value.empty() || !toInt(key, value, number)) return fallback;
    return number;
}

int getKeyValue(const std::vector<std::string>& keys, int fallback) {
    std::string value;
    for (const std::string& key : keys) {
        if (getKey(key, value) < 0 || value.empty()) continue;
        int number;
        return toInt(key, value, number) ? number : fallback;
    }
    return fallback;
}

int setKey(const std::string& key, const std::string& value) {
    return static_cast<int>(setRequest(key, reinterpret_cast<const unsigned char*>(value.data()), value.size(),
                                       value.empty() ? storage::None : storage::String));
}

int setKey(const std::string& key, const unsigned char* value, unsigned long size) {
    return static_cast<int>(setRequest(key, value, size, size ? storage::Binary : storage::None));
}

int deleteKey(const std::string& key) {
    setter::Reply reply;
    if (request(&key, false, setter::makeRequest(setter::CMD_DELETE, key), reply) != Route::server) return -1;
    invalidateOffline();
    return 0;
}

int statKey(const std::string& key, NodeInfo& info) {
    setter::Reply reply;
    const Route route = request(&key, true, setter::makeRequest(setter::CMD_STAT, key), reply);
    if (route == Route::offline)
        return static_cast<int>(readOffline([&](storage::Store& store) -> int64_t { return store.keyInfo(key, info); }));
    if (route == Route::fail) return -1;
    if (!setter::decodeNodeInfo(reply.payload, info)) {
        _get_kserrno().set(E_FAULT, "Failed to parse data");
        return -1;
    }
    return 0;
}

bool keyDeleted(const std::string& key) {
    if (!initialized()) {
        setNotInitialized();
        return true;
    }
    NodeInfo info;
    if (statKey(key, info) == 0) return false;
    return _get_kserrno().code == E_INVAL;
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names) {
    setter::Reply reply;
    const Route route = request(&key, true, setter::makeRequest(setter::CMD_ENUM, key), reply);
    if (route == Route::offline) {
        return static_cast<int>(readOffline([&](storage::Store& store) -> int64_t {
            int count = 0;
            for (std::string& name : store.enumSubkeys(key)) {
                if (name.empty()) continue;
                names.push_back(std::move(name));
                ++count;
            }
            return count;
        }));
    }
    if (route == Route::fail) return -1;
    const size_t before = names.size();
    int empty = 0;
    setter::decodeNames(reply.payload, names, empty);
    for (int i = 0; i < empty; ++i) KSLOG_ERROR(_log_channel(), "BUG: Empty subkey");
    return static_cast<int>(names.size() - before);
}

int lockKey(const std::string& key) {
    if (!initialized()) {
        setNotInitialized();
        return -1;
    }
    if (!setter::checkClientKey(key)) return -1;
    Connection& c = t_connection;
    if (c.lockHeld) {
        _get_kserrno().set(E_INVAL, "Can't lock more than one key.");
        return -1;
    }
    setter::Reply reply;
    if (request(&key, false, setter::makeRequest(setter::CMD_LOCK, key), reply) != Route::server) return -1;
    c.lockHeld = true;
    return 0;
}

int unlockKey(const std::string& key) {
    if (!initialized()) {
        setNotInitialized();
        return -1;
    }
    if (!setter::checkClientKey(key)) return -1;
    Connection& c = t_connection;
    if (!c.lockHeld) return 0;
    if (c.fd < 1) {
        c.lockHeld = false;
        setLostServer();
        return -1;
    }
    // Sent with the lock byte still set, so that a failure in flight reads as a lost lock.
    setter::Reply reply;
    const Route route = request(&key, false, setter::makeRequest(setter::CMD_UNLOCK, key), reply);
    c.lockHeld = false;
    return route == Route::server ? 0 : -1;
}

int setOfflineMode(bool on) {
    std::lock_guard<std::mutex> lock(g_initMutex);
    if (g_initCount.load() <= 0) {
        setNotInitialized();
        return -1;
    }
    g_offlineMode = on;
    if (!on) {
        std::lock_guard<std::mutex> offline(g_offlineMutex);
        offlineStore().clear();
        g_offlineLoaded = false;
    }
    KSLOG_DEBUG(_log_channel(), "ks::setMgmt - offline mode set to {:d}", on ? 1 : 0);
    return 0;
}

bool getOfflineMode() {
    std::lock_guard<std::mutex> lock(g_initMutex);
    return g_offlineMode.load();
}

int getDebugInfo(storage::DebugInfo& info) {
    setter::Reply reply;
    if (request(nullptr, false, setter::makeRequest(setter::CMD_DEBUG_INFO), reply) != Route::server) return -1;
    setter::decodeDebugInfo(reply.payload, info);  // the decoder made sure of its size
    return 0;
}

int checkHash(const std::string& file) { return storage::Store::checkHash(file); }

// ---- subscriptions ----

NotifyHandle::NotifyHandle(const std::string& subscribedKey, bool keys) : key(subscribedKey), reportKeys(keys) {}

int NotifyHandle::init() {
    if (connection.init() < 0) return -1;
    const setter::CmdType cmd = reportKeys ? setter::CMD_NOTIFY_KEYS : setter::CMD_NOTIFY;
    return setter::sendRequest(connection, setter::makeRequest(cmd, key)) < 0 ? -1 : 0;
}

int NotifyHandle::getNotifications(int timeoutMs) {
    if (reportKeys) {
        std::set<std::string> keys;
        return getNotifications(timeoutMs, keys);
    }
    if (!connection.inputDataAvailable(timeoutMs)) return -1;
    // Each byte is one change; read them in chunks rather than one recv per byte.
    unsigned char chunk[256];
    int count = 0;
    for (;;) {
        const int64_t n = connection.recv(chunk, sizeof chunk, false, false);
        if (n < 0) return count > 0 ? count : -1;
        count += static_cast<int>(n);
        if (n < static_cast<int64_t>(sizeof chunk)) return count;
    }
}

int NotifyHandle::getNotifications(int timeoutMs, std::set<std::string>& keys) {
    if (!reportKeys) {
        const int count = getNotifications(timeoutMs);
        if (count < 1) return count;
        keys.insert(key);
        return count;
    }
    if (!connection.inputDataAvailable(timeoutMs)) return -1;
    int count = 0;
    for (;;) {
        unsigned char prefix[setter::kKeyRecordPrefix];
        if (connection.recv(prefix, sizeof prefix, false, true) < 0) return count > 0 ? count : -1;
        uint64_t length = 0;
        if (!setter::decodeKeyRecordLength(prefix, length)) {
            _get_kserrno().set(E_FAULT, "Failed to parse data");
            return -1;
        }
        if (length > 0 && connection.recv(static_cast<unsigned long>(length), false, true) < 0)
            return count > 0 ? count : -1;
        keys.emplace(reinterpret_cast<const char*>(connection.buffer.get()), static_cast<size_t>(length));
        ++count;
        // Another record ready? Checked without touching the error record.
        pollfd p{connection.fd, POLLIN, 0};
        if (::poll(&p, 1, 0) != 1 || !(p.revents & POLLIN)) return count;
    }
}

int NotifyHandle::uninit() {
    if (connection.fd < 0) return -1;
    const int64_t length = connection.setCmdIntro(setter::CMD_NOTIFY_END, 0);
    if (length > 0) connection.send(static_cast<unsigned long>(length), false);
    // The server answers the end by closing the stream once what is queued is out.
    int result;
    do {
        result = getNotifications(-1);
    } while (result > 0);
    return result;
}

NotifyHandle* setNotification(const std::string& key, bool reportKeys) {
    if (!initialized()) {
        setNotInitialized();
        return nullptr;
    }
    if (!setter::checkClientKey(key)) return nullptr;
    NotifyHandle* handle = new (std::nothrow) NotifyHandle(key, reportKeys);
    if (!handle) {
        errno = ENOMEM;
        _get_kserrno().set(E_SYSTEM);
        return nullptr;
    }
    if (handle->init() < 0) {
        delete handle;
        return nullptr;
    }
    return handle;
}

namespace {

bool checkWait(NotifyHandle* handle) {
    if (!initialized()) {
        setNotInitialized();
        return false;
    }
    if (!handle) {
        _get_kserrno().set(E_INVAL, "Invalid notification handle");
        return false;
    }
    if (t_connection.lockHeld) {
        _get_kserrno().set(E_INVAL, "Invalid operation (waitNotification not allowed while holding a lock)");
        return false;
    }
    return true;
}

}  // namespace

int waitNotification(NotifyHandle* handle, int timeoutMs) {
    return checkWait(handle) ? handle->getNotifications(timeoutMs) : -1;
}

int waitNotification(NotifyHandle* handle, int timeoutMs, std::set<std::string>& keys) {
    return checkWait(handle) ? handle->getNotifications(timeoutMs, keys) : -1;
}

void cancelNotification(NotifyHandle*& handle) {
    if (!handle) return;
    // Without the module the handle is still destroyed (its socket closed), just not
    // ended politely: leaking it would be worse.
    if (initialized())
        handle->uninit();
    else
        setNotInitialized();
    delete handle;
    handle = nullptr;
}

int getNotificationFd(NotifyHandle* handle) {
    if (!initialized()) {
        setNotInitialized();
        return -1;
    }
    if (!handle) {
        _get_kserrno().set(E_INVAL, "Invalid notification handle");
        return -1;
    }
    return handle->connection.fd;
}

}  // namespace setMgmt
}  // namespace ks

// ---- scripting-language binding ----

int init_py_wrapper(void) { return ks::setMgmt::init(); }

int uninit_py_wrapper(void) { return ks::setMgmt::uninit(); }

int64_t getKey_py_wrapper(const char* key, char** value) {
    std::string text;
    const int64_t n = ks::setMgmt::getKey(std::string(key), text);
    *value = ::strdup(n < 0 ? "" : text.c_str());
    return n;
}

int enumSubkeys_py_wrapper(const char* key, char** names) {
    std::vector<std::string> found;
    const int n = ks::setMgmt::enumSubkeys(std::string(key), found);
    if (n < 0) return -1;
    for (size_t i = 0; i < found.size(); ++i) names[i] = ::strdup(found[i].c_str());
    return n;
}
