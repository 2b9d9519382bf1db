// kssetter: the settings server.
//
// One process holds the settings tree in a ks::storage::Store and answers the clients of
// the settings socket ("kssetmgmt.skt" in the install root's "var/run") on one thread,
// driven by a ks::Executor. Persistent keys are saved to "etc/storage.data" (the file that
// clients read when the server is down) a tenth of a second after a change, at most once a
// second under a stream of changes, and once more on a clean stop (SIGTERM, SIGINT), so
// every acknowledged write survives a clean stop; keys under "/tmp" live in memory only.
//
// Limits that protect the server and its other clients from a bad one: a frame announcing
// a body above 16 MiB, an unknown command, or a subscriber sending anything but the end of
// its stream closes that connection; so does more than 4 MiB of notifications that a
// subscriber does not read. A client that sends requests without collecting the replies is
// not read from while more than 4 MiB of replies wait for it, so it slows down instead of
// growing the server. A connection that disconnects mid-request has changed nothing: a
// request is applied only once its whole frame has arrived.
//
// Locks are advisory and per key: CMD_LOCK on a key another connection holds waits until the
// holder unlocks or disconnects; the waiting connection's later requests wait with it. A
// request whose lock byte is 1 on a connection that holds no lock is answered -6: the client
// believes it holds a lock that went with an earlier connection.
//
// Usage: kssetter [-root DIR]   (runs in the foreground until SIGTERM or SIGINT)
#include <kssetter/ksstorage.h>
#include <ksutils/error.h>
#include <ksutils/executor.h>
#include <ksutils/kslog.h>
#include <ksutils/path.h>
#include <ksutils/unique_fd.h>

#include "kssetter/kssetmgmt/protocol.h"

#include <kspath.h>

#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using namespace ks::setter;
using ks::storage::NodeInfo;
using ks::storage::Store;

constexpr unsigned long kChannel = 0;
using Clock = std::chrono::steady_clock;
constexpr auto kSaveDelay = std::chrono::milliseconds(100);
constexpr auto kSaveInterval = std::chrono::milliseconds(1000);
constexpr size_t kReadChunk = 64 * 1024;

struct Client {
    explicit Client(int descriptor) : fd(descriptor) {}

    ks::unique_fd fd;
    std::string in;  // received bytes not yet handled, from inPos
    size_t inPos = 0;
    std::string out;  // queued output, from outPos
    size_t outPos = 0;
    size_t pending() const { return out.size() - outPos; }
    uint32_t events = EPOLLIN;  // what the executor watches for this connection
    bool queuedFlush = false;
    bool doomed = false;  // close at the next reap
    bool ending = false;  // close once the output is out

    bool subscribed = false;
    bool reportKeys = false;
    std::string subscribedKey;

    bool holdsLock = false;
    std::string lockedKey;
    bool waitingLock = false;
    std::string waitedKey;
};

struct LockState {
    int holder = -1;
    std::deque<int> waiters;
};

// Format rules of the settings client plus the store's character rules.
bool validKey(const std::string& key) {
    if (key.empty() || key[0] != '/') return false;
    if (key.size() > 1 && (key.back() == '/' || key.find("//") != std::string::npos)) return false;
    return Store::isValidKey(key);
}

std::string parentKey(const std::string& key) {
    const size_t slash = key.rfind('/');
    return slash == 0 ? std::string("/") : key.substr(0, slash);
}

// SIGTERM and SIGINT are read from a signalfd, so they must be blocked in every thread,
// including any the log core starts: main() blocks them before anything else runs.
void stopSignals(sigset_t& mask) {
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
}

void appendResult(std::string& out, int64_t result) { out.append(reinterpret_cast<const char*>(&result), 8); }

class Server {
public:
    Server(std::string socketPath, std::string storageFile)
        : socketPath_(std::move(socketPath)), storageFile_(std::move(storageFile)) {}

    bool start();
    void run();
    void stop();

private:
    int onListen();
    int onSignal();
    int onClient(int fd);

    void readFrom(Client& c);
    void handleFrames(Client& c);
    void handle(Client& c, uint32_t cmd, const unsigned char* body, uint64_t length);
    void handleSet(Client& c, const unsigned char* body, uint64_t length);
    void handleKeyRequest(Client& c, uint32_t cmd, const std::string& key);
    void handleSubscribe(Client& c, bool reportKeys, const std::string& key);
    void handleLock(Client& c, const std::string& key);
    void handleUnlock(Client& c, const std::string& key);
    void handleDebugInfo(Client& c);

    void reply(Client& c, int64_t result) {
        appendResult(c.out, result);
        queueFlush(c);
    }
    void queueFlush(Client& c);
    void flush(Client& c);
    void doom(Client& c) {
        if (!c.doomed) {
            c.doomed = true;
            doomed_.push_back(c.fd.get());
        }
    }
    // Work left by a callback: resumed lock waiters, output to send, connections to close.
    void finish();
    void closeClient(int fd);
    void releaseLock(const std::string& key);

    void notify(const std::string& key, bool subtreeGone);
    void post(Client& c, const std::string& changedKey);
    void changed(const std::string& key);
    void save();

    Client* find(int fd) {
        auto it = clients_.find(fd);
        return it == clients_.end() ? nullptr : it->second.get();
    }

    std::string socketPath_;
    std::string storageFile_;
    ks::Executor loop_;
    Store store_;
    ks::unique_fd listen_;
    ks::unique_fd signals_;
    bool running_ = true;
    bool listening_ = false;
    bool watchingSignals_ = false;
    int saveTimer_ = -1;
    Clock::time_point lastSave_{};

    std::unordered_map<int, std::unique_ptr<Client>> clients_;
    std::map<std::string, std::set<int>> subscribers_;
    std::size_t streams_ = 0;
    std::map<std::string, LockState> locks_;
    std::vector<int> flushQueue_;
    std::vector<int> doomed_;
    std::deque<int> resumed_;
    char scratch_[kReadChunk];
};

bool Server::start() {
    if (::access(storageFile_.c_str(), F_OK) == 0 && Store::checkHash(storageFile_) < 0) {
        // Hand-edited files fail here too; their contents are still the best we have.
        KSLOG_WARN(kChannel, "{:s} failed its checksum ({:s}); loading it anyway", storageFile_,
                   std::string(ks::_get_kserrno().message_view()));
        std::fprintf(stderr, "kssetter: warning: %s failed its checksum\n", storageFile_.c_str());
    }
    if (store_.load(storageFile_) < 0) {
        std::fprintf(stderr, "kssetter: cannot read %s: %s\n", storageFile_.c_str(),
                     std::string(ks::_get_kserrno().message_view()).c_str());
        return false;
    }

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.size() >= sizeof address.sun_path) {
        std::fprintf(stderr, "kssetter: socket path too long: %s\n", socketPath_.c_str());
        return false;
    }
    std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size());
    // A socket file that accepts a connection belongs to a running server: leave it alone.
    {
        ks::unique_fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (probe && ::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            std::fprintf(stderr, "kssetter: another server is listening on %s\n", socketPath_.c_str());
            return false;
        }
    }
    ::unlink(socketPath_.c_str());
    listen_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listen_ || ::bind(listen_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listen_.get(), SOMAXCONN) != 0) {
        std::fprintf(stderr, "kssetter: cannot listen on %s: %s\n", socketPath_.c_str(), std::strerror(errno));
        return false;
    }

    sigset_t mask;
    stopSignals(mask);
    signals_.reset(::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC));
    watchingSignals_ = signals_ && loop_.add(signals_.get(), EPOLLIN, [this] { return onSignal(); }) == 0;
    listening_ = loop_.add(listen_.get(), EPOLLIN, [this] { return onListen(); }) == 0;
    if (!watchingSignals_ || !listening_) {
        std::fprintf(stderr, "kssetter: cannot set up the event loop\n");
        if (!listening_) ::unlink(socketPath_.c_str());
        return false;
    }
    KSLOG_INFO(kChannel, "kssetter listening on {:s}, settings in {:s}", socketPath_, storageFile_);
    return true;
}

void Server::run() {
    while (running_) loop_.tick(std::chrono::milliseconds(1000));
}

void Server::stop() {
    std::vector<int> fds;
    for (auto& entry : clients_) fds.push_back(entry.first);
    for (int fd : fds) closeClient(fd);
    if (saveTimer_ >= 0) loop_.del(saveTimer_);
    saveTimer_ = -1;
    save();
    if (listening_) {
        loop_.del(listen_.get());
        ::unlink(socketPath_.c_str());
    }
    if (watchingSignals_) loop_.del(signals_.get());
    KSLOG_INFO(kChannel, "kssetter stopped");
}

int Server::onSignal() {
    signalfd_siginfo info;
    while (::read(signals_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        KSLOG_INFO(kChannel, "Signal {:d} received, stopping", static_cast<int>(info.ssi_signo));
        running_ = false;
    }
    return 0;
}

int Server::onListen() {
    for (;;) {
        const int fd = ::accept4(listen_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                KSLOG_ERROR(kChannel, "accept: {:s}", std::string(std::strerror(errno)));
            return 0;
        }
        if (fd >= ks::Executor::kTableSize) {
            KSLOG_WARN(kChannel, "Refusing connection: descriptor {:d} is beyond the event table", fd);
            ::close(fd);
            continue;
        }
        auto client = std::make_unique<Client>(fd);
        if (loop_.add(fd, EPOLLIN, [this, fd] { return onClient(fd); }) != 0) continue;  // closes via unique_ptr
        clients_.emplace(fd, std::move(client));
    }
}

int Server::onClient(int fd) {
    Client* c = find(fd);
    if (!c) return 0;
    if (c->pending()) flush(*c);
    if (!c->doomed && (c->events & EPOLLIN)) readFrom(*c);
    finish();
    return 0;
}

void Server::readFrom(Client& c) {
    const ssize_t n = ::recv(c.fd.get(), scratch_, sizeof scratch_, MSG_DONTWAIT);
    if (n == 0) {
        doom(c);
        return;
    }
    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) doom(c);
        return;
    }
    c.in.append(scratch_, static_cast<size_t>(n));
    handleFrames(c);
}

void Server::handleFrames(Client& c) {
    // A client that does not collect its replies is not read from until it does.
    while (!c.waitingLock && !c.doomed && !c.ending && c.pending() <= kMaxPendingOutput) {
        const size_t available = c.in.size() - c.inPos;
        if (available < kHeaderSize) break;
        const auto* frame = reinterpret_cast<const unsigned char*>(c.in.data() + c.inPos);
        const FrameHeader header = decodeHeader(frame);
        if (!isKnownCommand(header.command) || header.bodyLength > kMaxBodyLength) {
            KSLOG_WARN(kChannel, "Closing connection {:d}: bad frame (command {:d}, body length {:d})", c.fd.get(),
                       header.command, header.bodyLength);
            doom(c);
            return;
        }
        if (available - kHeaderSize < header.bodyLength) break;
        c.inPos += kHeaderSize + header.bodyLength;
        handle(c, header.command, frame + kHeaderSize, header.bodyLength);
    }
    if (c.inPos == c.in.size()) {
        c.in.clear();
        c.inPos = 0;
    } else if (c.inPos > kReadChunk) {
        c.in.erase(0, c.inPos);
        c.inPos = 0;
    }
    // Only a client that keeps sending while it waits for a lock gets here with more than a
    // frame's worth of input.
    if (c.in.size() - c.inPos > kHeaderSize + kMaxBodyLength + kReadChunk) {
        KSLOG_WARN(kChannel, "Closing connection {:d}: too much unanswered input", c.fd.get());
        doom(c);
    }
}

void Server::handle(Client& c, uint32_t cmd, const unsigned char* body, uint64_t length) {
    if (c.subscribed && cmd != CMD_NOTIFY_END) {
        KSLOG_WARN(kChannel, "Closing connection {:d}: command {:d} on a notification stream", c.fd.get(), cmd);
        doom(c);
        return;
    }
    try {
        switch (cmd) {
            case CMD_SET: handleSet(c, body, length); return;
            case CMD_NOTIFY:
            case CMD_NOTIFY_KEYS:
                handleSubscribe(c, cmd == CMD_NOTIFY_KEYS, std::string(reinterpret_cast<const char*>(body), length));
                return;
            case CMD_LOCK: handleLock(c, std::string(reinterpret_cast<const char*>(body), length)); return;
            case CMD_NOTIFY_END:
                if (c.subscribed) {
                    subscribers_[c.subscribedKey].erase(c.fd.get());
                    c.subscribed = false;
                    --streams_;
                }
                c.ending = true;
                queueFlush(c);
                return;
            case CMD_DEBUG_INFO: handleDebugInfo(c); return;
            default: break;
        }
        // The remaining requests are a lock byte and a key.
        if (length < 1 || body[0] > 1) {
            reply(c, kResultParseError);
            return;
        }
        if (body[0] == 1 && !c.holdsLock) {
            reply(c, kResultLockLost);
            return;
        }
        const std::string key(reinterpret_cast<const char*>(body + 1), length - 1);
        if (cmd == CMD_UNLOCK)
            handleUnlock(c, key);
        else
            handleKeyRequest(c, cmd, key);
    } catch (const std::bad_alloc&) {
        reply(c, kResultOutOfMemory);
    }
}

void Server::handleSet(Client& c, const unsigned char* body, uint64_t length) {
    if (length < 1 || body[0] > 1) return reply(c, kResultParseError);
    if (body[0] == 1 && !c.holdsLock) return reply(c, kResultLockLost);
    const auto* keyStart = body + 1;
    const auto* nul = static_cast<const unsigned char*>(std::memchr(keyStart, '\0', length - 1));
    if (!nul) return reply(c, kResultParseError);
    const std::string key(reinterpret_cast<const char*>(keyStart), static_cast<size_t>(nul - keyStart));
    const uint64_t rest = length - static_cast<uint64_t>(nul + 1 - body);
    uint32_t type;
    if (rest < sizeof type) return reply(c, kResultParseError);
    std::memcpy(&type, nul + 1, sizeof type);
    const unsigned char* value = nul + 1 + sizeof type;
    const uint64_t size = rest - sizeof type;
    if (type > ks::storage::None || (type == ks::storage::None && size != 0)) return reply(c, kResultParseError);
    if (!validKey(key)) return reply(c, kResultInvalidOperation);
    if (store_.setKey(key, size ? value : nullptr, static_cast<ks::storage::ValueType>(type), size) < 0)
        return reply(c, kResultInvalidOperation);
    reply(c, 0);
    changed(key);
    notify(key, false);
}

void Server::handleKeyRequest(Client& c, uint32_t cmd, const std::string& key) {
    if (!validKey(key)) return reply(c, kResultInvalidOperation);
    NodeInfo info;
    if (store_.keyInfo(key, info) < 0) return reply(c, kResultKeyNotFound);
    switch (cmd) {
        case CMD_GET: {
            if (info.type == ks::storage::None || info.size == 0) return reply(c, 0);
            appendResult(c.out, static_cast<int64_t>(info.size));
            const size_t at = c.out.size();
            c.out.resize(at + info.size);
            store_.getKey(key, reinterpret_cast<unsigned char*>(&c.out[at]));
            queueFlush(c);
            return;
        }
        case CMD_STAT:
            appendResult(c.out, 0);
            c.out.append(reinterpret_cast<const char*>(&info), sizeof info);
            queueFlush(c);
            return;
        case CMD_ENUM: {
            std::vector<std::string> names = store_.enumSubkeys(key);
            std::sort(names.begin(), names.end());
            int64_t total = 0;
            for (const std::string& name : names) total += static_cast<int64_t>(name.size() + 1);
            appendResult(c.out, total);
            for (const std::string& name : names) c.out.append(name.c_str(), name.size() + 1);
            queueFlush(c);
            return;
        }
        case CMD_DELETE:
            if (store_.delKey(key, true, false) < 0) return reply(c, kResultInvalidOperation);
            reply(c, 0);
            changed(key);
            notify(key, true);
            return;
        default: reply(c, kResultInvalidOperation); return;
    }
}

void Server::handleSubscribe(Client& c, bool reportKeys, const std::string& key) {
    if (!validKey(key) || c.holdsLock || c.waitingLock) return reply(c, kResultInvalidOperation);
    reply(c, 0);
    c.subscribed = true;
    c.reportKeys = reportKeys;
    c.subscribedKey = key;
    subscribers_[key].insert(c.fd.get());
    ++streams_;
}

void Server::handleLock(Client& c, const std::string& key) {
    if (!validKey(key) || c.holdsLock) return reply(c, kResultInvalidOperation);
    LockState& lock = locks_[key];
    if (lock.holder < 0) {
        lock.holder = c.fd.get();
        c.holdsLock = true;
        c.lockedKey = key;
        return reply(c, 0);
    }
    lock.waiters.push_back(c.fd.get());
    c.waitingLock = true;
    c.waitedKey = key;
}

void Server::handleUnlock(Client& c, const std::string& key) {
    if (!c.holdsLock || c.lockedKey != key) return reply(c, kResultInvalidOperation);
    c.holdsLock = false;
    c.lockedKey.clear();
    reply(c, 0);
    releaseLock(key);
}

void Server::releaseLock(const std::string& key) {
    auto it = locks_.find(key);
    if (it == locks_.end()) return;
    LockState& lock = it->second;
    lock.holder = -1;
    while (!lock.waiters.empty()) {
        Client* next = find(lock.waiters.front());
        lock.waiters.pop_front();
        if (!next || next->doomed) continue;
        lock.holder = next->fd.get();
        next->waitingLock = false;
        next->holdsLock = true;
        next->lockedKey = key;
        next->waitedKey.clear();
        reply(*next, 0);
        resumed_.push_back(next->fd.get());  // its queued requests run from finish()
        return;
    }
    locks_.erase(it);
}

void Server::handleDebugInfo(Client& c) {
    ks::storage::DebugInfo info;
    store_.fillDebugInfo(info);
    info.connections = static_cast<uint32_t>(clients_.size());
    info.notificationStreams = static_cast<uint32_t>(streams_);
    appendResult(c.out, 0);
    c.out.append(reinterpret_cast<const char*>(&info), sizeof info);
    queueFlush(c);
}

void Server::notify(const std::string& key, bool subtreeGone) {
    std::string at = key;
    for (;;) {
        auto it = subscribers_.find(at);
        if (it != subscribers_.end())
            for (int fd : it->second)
                if (Client* c = find(fd)) post(*c, key);
        if (at == "/") break;
        at = parentKey(at);
    }
    if (!subtreeGone) return;
    // Keys below a deleted key went with it.
    const std::string prefix = key == "/" ? key : key + "/";
    for (auto it = subscribers_.lower_bound(prefix); it != subscribers_.end(); ++it) {
        if (it->first.compare(0, prefix.size(), prefix) != 0) break;
        if (it->first == key) continue;
        for (int fd : it->second)
            if (Client* c = find(fd)) post(*c, key);
    }
}

void Server::post(Client& c, const std::string& changedKey) {
    if (c.doomed) return;
    if (c.reportKeys) {
        const uint64_t length = changedKey.size();
        c.out.append(reinterpret_cast<const char*>(&length), sizeof length);
        c.out.append(changedKey);
    } else {
        c.out.push_back('\1');
    }
    if (c.pending() > kMaxPendingOutput) {
        KSLOG_WARN(kChannel, "Closing connection {:d}: subscriber of {:s} does not read its notifications", c.fd.get(),
                   c.subscribedKey);
        doom(c);
        return;
    }
    queueFlush(c);
}

void Server::queueFlush(Client& c) {
    if (c.queuedFlush) return;
    c.queuedFlush = true;
    flushQueue_.push_back(c.fd.get());
}

void Server::flush(Client& c) {
    const bool throttled = c.pending() > kMaxPendingOutput;
    while (c.pending()) {
        const ssize_t n = ::send(c.fd.get(), c.out.data() + c.outPos, c.pending(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            c.outPos += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
        doom(c);
        return;
    }
    if (!c.pending()) {
        c.out.clear();
        c.outPos = 0;
        if (c.ending) {
            doom(c);
            return;
        }
    } else if (c.outPos > kReadChunk) {
        c.out.erase(0, c.outPos);
        c.outPos = 0;
    }
    // Watch for room to write while output is stuck; stop reading while too much is stuck.
    const uint32_t wanted = (c.pending() > kMaxPendingOutput ? 0u : uint32_t(EPOLLIN)) |
                            (c.pending() ? uint32_t(EPOLLOUT) : 0u);
    if (wanted != c.events && loop_.mod(c.fd.get(), wanted, {}) == 0) c.events = wanted;
    if (throttled && c.pending() <= kMaxPendingOutput) resumed_.push_back(c.fd.get());
}

void Server::finish() {
    while (!resumed_.empty() || !flushQueue_.empty() || !doomed_.empty()) {
        while (!resumed_.empty()) {
            Client* c = find(resumed_.front());
            resumed_.pop_front();
            if (c && !c->doomed) handleFrames(*c);
        }
        std::vector<int> flushing;
        flushing.swap(flushQueue_);
        for (int fd : flushing) {
            Client* c = find(fd);
            if (!c) continue;
            c->queuedFlush = false;
            if (!c->doomed) flush(*c);
        }
        std::vector<int> closing;
        closing.swap(doomed_);
        for (int fd : closing) closeClient(fd);
    }
}

void Server::closeClient(int fd) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    Client& c = *it->second;
    if (c.subscribed) {
        auto sub = subscribers_.find(c.subscribedKey);
        if (sub != subscribers_.end()) {
            sub->second.erase(fd);
            if (sub->second.empty()) subscribers_.erase(sub);
        }
        --streams_;
    }
    if (c.waitingLock) {
        auto lock = locks_.find(c.waitedKey);
        if (lock != locks_.end()) {
            auto& waiters = lock->second.waiters;
            waiters.erase(std::remove(waiters.begin(), waiters.end(), fd), waiters.end());
        }
    }
    const bool heldLock = c.holdsLock;
    const std::string lockedKey = c.lockedKey;
    loop_.del(fd);
    clients_.erase(it);  // closes the socket
    if (heldLock) releaseLock(lockedKey);
}

void Server::changed(const std::string& key) {
    if (Store::isVolatileKey(key) || saveTimer_ >= 0) return;
    // A save blocks the loop for its fsync: soon after an isolated change, at most once per
    // kSaveInterval under a stream of them.
    const auto sinceLast = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - lastSave_);
    const auto delay = std::max(kSaveDelay, kSaveInterval - sinceLast);
    saveTimer_ = loop_.start_timer(delay, std::chrono::milliseconds(0), [this] {
        saveTimer_ = -1;
        save();
        return -1;  // one-shot: the executor closes the timer
    });
    if (saveTimer_ < 0) save();  // no timer: save at once rather than not at all
}

void Server::save() {
    if (store_.getPersistentChanges() == 0) return;
    store_.save({storageFile_});
    lastSave_ = Clock::now();
    if (ks::_get_kserrno().code != ks::E_OK)
        KSLOG_ERROR(kChannel, "Saving {:s} failed: {:s}", storageFile_, std::string(ks::_get_kserrno().message_view()));
}

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: kssetter [-root DIR]\n"
                 "Serves the settings of the install root DIR (default: the installation's) on\n"
                 "DIR/var/run/kssetmgmt.skt and keeps them in DIR/etc/storage.data.\n"
                 "Runs in the foreground; SIGTERM or SIGINT saves and stops it.\n");
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t mask;
    stopSignals(mask);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    const char* root = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if ((arg == "-root" || arg == "--root") && i + 1 < argc) {
            root = argv[++i];
        } else if (arg.rfind("-root=", 0) == 0 || arg.rfind("--root=", 0) == 0) {
            root = argv[i] + arg.find('=') + 1;
        } else if (arg == "-help" || arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        } else {
            std::fprintf(stderr, "kssetter: unknown argument '%s'\n", argv[i]);
            usage(stderr);
            return 1;
        }
    }
    if (root) kspath_set_install_path(root);
    if (!kspath_default_install_path()) {
        std::fprintf(stderr, "kssetter: no install root found; use -root DIR\n");
        return 1;
    }
    if (!ks::log::start(argv[0], root, nullptr))
        std::fprintf(stderr, "kssetter: warning: logging is off (no etc/logs-pub.pem in the install root?)\n");

    const ks::path runDir(ks::common_path::run);
    const ks::path etcDir(ks::common_path::etc);
    runDir.mkdirp();
    etcDir.mkdirp();
    int status = 1;
    {
        Server server(ks::path(runDir, kSocketName).str(), ks::path(etcDir, kStorageFileName).str());
        if (server.start()) {
            server.run();
            status = 0;
        }
        server.stop();
    }
    ks::log::stop();
    return status;
}
