// Request handling of the settings server: accepting, framing, dispatch, lock waits,
// notification fan-out and back-pressure; see server.h. Frames are decoded and replies
// encoded by the protocol module only.
#include "kssetter/server/server.h"

#include "kssetter/kssetmgmt/protocol.h"

#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace ks {
namespace setter {

namespace {

constexpr unsigned long kChannel = 0;
constexpr size_t kReadChunk = 64 * 1024;

}  // namespace

struct Server::Client {
    explicit Client(int descriptor) : fd(descriptor) {}

    ks::unique_fd fd;
    std::string in;  // received bytes not yet handled, from inPos
    size_t inPos = 0;
    std::string out;  // queued output, from outPos
    size_t outPos = 0;
    size_t pending() const { return out.size() - outPos; }
    uint32_t events = EPOLLIN;  // what the executor watches for this connection
    bool queuedFlush = false;
    uint64_t readAt = 0;  // the server's commit count when this client last sent something
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

Server::Server(std::string socketPath, std::string storageFile)
    : socketPath_(std::move(socketPath)), persistence_(loop_, store_, std::move(storageFile)), scratch_(kReadChunk) {}

Server::~Server() { stop(); }

bool Server::start(bool stopOnSignals) {
    if (!persistence_.load()) return false;

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
    listening_ = loop_.add(listen_.get(), EPOLLIN, [this] { return onListen(); }) == 0;

    stopEvent_.reset(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    watchingStopEvent_ = stopEvent_ && loop_.add(stopEvent_.get(), EPOLLIN, [this] {
        ks::eventfd_read_notification(stopEvent_.get());
        running_ = false;
        return 0;
    }) == 0;
    bool signalsReady = true;
    if (stopOnSignals) {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGTERM);
        sigaddset(&mask, SIGINT);
        signals_.reset(::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC));
        watchingSignals_ = signals_ && loop_.add(signals_.get(), EPOLLIN, [this] { return onSignal(); }) == 0;
        signalsReady = watchingSignals_;
    }
    if (!listening_ || !watchingStopEvent_ || !signalsReady) {
        std::fprintf(stderr, "kssetter: cannot set up the event loop\n");
        return false;
    }
    KSLOG_INFO(kChannel, "kssetter listening on {:s}, settings in {:s}", socketPath_, persistence_.file());
    return true;
}

// Replies and notifications leave only after the changes they follow are on disk, so while
// a change waits for the disk the callbacks of a round only queue them; the round ends with
// one commit for all its changes and then the sending.
//
// A client that just got its reply usually sends its next request a few microseconds later.
// Sleeping in epoll_wait for it costs a wake-up and two context switches, more than the
// request itself, so after serving a request the loop polls without sleeping for a short
// while, yielding the processor to anything runnable (the clients, on a small machine). An
// idle server sleeps as before.
void Server::run() {
    using Clock = std::chrono::steady_clock;
    constexpr auto kPollAfterRequest = std::chrono::microseconds(50);
    Clock::time_point pollUntil{};
    while (running_) {
        const bool polling = Clock::now() < pollUntil;
        servedRequest_ = false;
        loop_.tick(polling ? std::chrono::milliseconds(0) : std::chrono::milliseconds(1000));
        finish();
        if (servedRequest_) pollUntil = Clock::now() + kPollAfterRequest;
        else if (polling) sched_yield();
    }
}

void Server::requestStop() {
    running_ = false;
    if (stopEvent_) ks::eventfd_notify(stopEvent_.get());
}

void Server::stop() {
    if (stopped_) return;
    stopped_ = true;
    std::vector<int> fds;
    for (auto& entry : clients_) fds.push_back(entry.first);
    for (int fd : fds) closeClient(fd);
    persistence_.stop();
    if (listening_) {
        loop_.del(listen_.get());
        ::unlink(socketPath_.c_str());
        listening_ = false;
    }
    if (watchingSignals_) loop_.del(signals_.get());
    if (watchingStopEvent_) loop_.del(stopEvent_.get());
    watchingSignals_ = watchingStopEvent_ = false;
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
    if (c->pending()) queueFlush(*c);
    if (!c->doomed && (c->events & EPOLLIN)) readFrom(*c);
    // With no change waiting for the disk, what this client is owed leaves now, in one send,
    // and the client prepares its next request while the round goes on with the others.
    if (c->queuedFlush && !c->doomed && !persistence_.pending()) flush(*c);
    return 0;
}

void Server::readFrom(Client& c) {
    const ssize_t n = ::recv(c.fd.get(), scratch_.data(), scratch_.size(), MSG_DONTWAIT);
    if (n == 0) {
        doom(c);
        return;
    }
    if (n < 0) {
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) doom(c);
        return;
    }
    c.in.append(scratch_.data(), static_cast<size_t>(n));
    c.readAt = commits_;
    servedRequest_ = true;
    handleFrames(c);
}

void Server::handleFrames(Client& c) {
    // A client that does not collect its replies is not read from until it does.
    while (!c.waitingLock && !c.doomed && !c.ending && c.pending() <= kMaxPendingOutput) {
        const auto* frame = reinterpret_cast<const unsigned char*>(c.in.data() + c.inPos);
        FrameHeader header{};
        size_t frameSize = 0;
        const Decoded decoded = decodeFrame(frame, c.in.size() - c.inPos, header, frameSize);
        if (decoded == Decoded::incomplete) break;
        if (decoded == Decoded::bad) {
            KSLOG_WARN(kChannel, "Closing connection {:d}: bad frame (command {:d}, body length {:d})", c.fd.get(),
                       header.command, header.bodyLength);
            doom(c);
            return;
        }
        c.inPos += frameSize;
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
        Request r;
        if (!decodeRequest(cmd, body, length, r)) return reply(c, kResultParseError);
        if (r.lockHeld && !c.holdsLock) return reply(c, kResultLockLost);
        switch (cmd) {
            case CMD_SET: return handleSet(c, r);
            case CMD_NOTIFY:
            case CMD_NOTIFY_KEYS: return handleSubscribe(c, r);
            case CMD_LOCK: return handleLock(c, std::string(r.key));
            case CMD_UNLOCK: return handleUnlock(c, std::string(r.key));
            case CMD_DEBUG_INFO: return handleDebugInfo(c);
            case CMD_NOTIFY_END:
                if (c.subscribed) {
                    subscriptions_.remove(c.subscribedKey, c.fd.get());
                    c.subscribed = false;
                }
                c.ending = true;
                return queueFlush(c);
            default: return handleKeyRequest(c, r);
        }
    } catch (const std::bad_alloc&) {
        reply(c, kResultOutOfMemory);
    }
}

void Server::handleSet(Client& c, const Request& r) {
    if (!isValidKey(r.key)) return reply(c, kResultInvalidOperation);
    const std::string key(r.key);
    const auto* value = reinterpret_cast<const unsigned char*>(r.value.data());
    if (store_.setKey(key, r.value.empty() ? nullptr : value, r.type, r.value.size()) < 0)
        return reply(c, kResultInvalidOperation);
    replyDurable(c, key);
    persistence_.set(key, r.type, r.value.empty() ? nullptr : value, r.value.size());
    notify(key, false);
}

void Server::handleKeyRequest(Client& c, const Request& r) {
    if (!isValidKey(r.key)) return reply(c, kResultInvalidOperation);
    const std::string key(r.key);
    storage::NodeInfo info;
    if (store_.keyInfo(key, info) < 0) return reply(c, kResultKeyNotFound);
    switch (r.command) {
        case CMD_GET: {
            if (info.type == storage::None || info.size == 0) return reply(c, 0);
            store_.getKey(key, appendValueReply(c.out, info.size));
            return queueFlush(c);
        }
        case CMD_STAT:
            appendNodeInfoReply(c.out, info);
            return queueFlush(c);
        case CMD_ENUM: {
            std::vector<std::string> names = store_.enumSubkeys(key);
            std::sort(names.begin(), names.end());
            appendNamesReply(c.out, names);
            return queueFlush(c);
        }
        case CMD_DELETE:
            if (store_.delKey(key, true, false) < 0) return reply(c, kResultInvalidOperation);
            replyDurable(c, key);
            persistence_.erased(key, true, false);
            return notify(key, true);
        default: return reply(c, kResultInvalidOperation);
    }
}

void Server::handleSubscribe(Client& c, const Request& r) {
    if (!isValidKey(r.key) || c.holdsLock || c.waitingLock) return reply(c, kResultInvalidOperation);
    reply(c, 0);
    c.subscribed = true;
    c.reportKeys = r.command == CMD_NOTIFY_KEYS;
    c.subscribedKey = std::string(r.key);
    subscriptions_.add(c.subscribedKey, c.fd.get());
}

void Server::handleLock(Client& c, const std::string& key) {
    if (!isValidKey(key) || c.holdsLock) return reply(c, kResultInvalidOperation);
    if (locks_.acquire(key, c.fd.get())) {
        c.holdsLock = true;
        c.lockedKey = key;
        return reply(c, 0);
    }
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
    const int next = locks_.release(key, [this](int fd) {
        const Client* waiter = find(fd);
        return waiter && !waiter->doomed;
    });
    Client* c = next >= 0 ? find(next) : nullptr;
    if (!c) return;
    c->waitingLock = false;
    c->holdsLock = true;
    c->lockedKey = key;
    c->waitedKey.clear();
    reply(*c, 0);
    resumed_.push_back(next);  // its queued requests run from finish()
}

void Server::handleDebugInfo(Client& c) {
    storage::DebugInfo info;
    store_.fillDebugInfo(info);
    info.connections = static_cast<uint32_t>(clients_.size());
    info.notificationStreams = static_cast<uint32_t>(subscriptions_.streams());
    appendDebugInfoReply(c.out, info);
    queueFlush(c);
}

void Server::notify(const std::string& key, bool subtreeGone) {
    subscriptions_.forEachListener(key, subtreeGone, [&](int fd) {
        if (Client* c = find(fd)) post(*c, key);
    });
}

void Server::post(Client& c, const std::string& changedKey) {
    if (c.doomed) return;
    appendNotification(c.out, c.reportKeys, changedKey);
    if (c.pending() > kMaxPendingOutput) {
        KSLOG_WARN(kChannel, "Closing connection {:d}: subscriber of {:s} does not read its notifications", c.fd.get(),
                   c.subscribedKey);
        doom(c);
        return;
    }
    queueFlush(c);
}

void Server::reply(Client& c, int64_t result) {
    appendResult(c.out, result);
    queueFlush(c);
}

void Server::replyDurable(Client& c, const std::string& key) {
    if (!storage::Store::isVolatileKey(key)) uncommitted_.push_back({c.fd.get(), c.out.size()});
    reply(c, 0);
}

void Server::refuseUncommitted(int error) {
    const int64_t refusal = kResultSystemError - std::min(std::max(error, 1), kMaxReportedErrno);
    for (const Uncommitted& u : uncommitted_) {
        Client* c = find(u.fd);
        if (c && u.at + kResultSize <= c->out.size()) std::memcpy(&c->out[u.at], &refusal, kResultSize);
    }
}

void Server::doom(Client& c) {
    if (c.doomed) return;
    c.doomed = true;
    doomed_.push_back(c.fd.get());
}

Server::Client* Server::find(int fd) {
    auto it = clients_.find(fd);
    return it == clients_.end() ? nullptr : it->second.get();
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
        gatherForCommit();
        const bool durable = !uncommitted_.empty();
        if (!persistence_.commit()) {
            // Nothing could make the round's changes durable, and they are undone: their
            // requesters learn why instead of taking them as done.
            KSLOG_ERROR(kChannel, "Refusing {:d} change(s) that could not be made durable: {:s}", uncommitted_.size(),
                        std::string(std::strerror(persistence_.failure())));
            refuseUncommitted(persistence_.failure());
        }
        if (durable) {
            ++commits_;
            lastCommitted_.clear();
            for (const Uncommitted& u : uncommitted_)
                if (lastCommitted_.empty() || lastCommitted_.back() != u.fd) lastCommitted_.push_back(u.fd);
        }
        uncommitted_.clear();
        // Swapped with members that keep their capacity: a round allocates nothing.
        flushing_.swap(flushQueue_);
        for (int fd : flushing_) {
            Client* c = find(fd);
            if (!c) continue;
            c->queuedFlush = false;
            if (!c->doomed) flush(*c);
        }
        flushing_.clear();
        closing_.swap(doomed_);
        for (int fd : closing_) closeClient(fd);
        closing_.clear();
    }
}

// Group commit. Every client waiting for a commit is answered only after its fsync, and the
// clients the last commit answered usually send their next change a few microseconds after
// their reply, while this commit would otherwise have started without them and they would
// wait for a whole fsync more. So a commit waits, for a moment far shorter than an fsync,
// until each of those clients has sent something again (a lone client already has: its
// request is the one being committed).
void Server::gatherForCommit() {
    using Clock = std::chrono::steady_clock;
    constexpr auto kGatherAtMost = std::chrono::microseconds(200);
    if (uncommitted_.empty() || lastCommitted_.empty()) return;
    const Clock::time_point until = Clock::now() + kGatherAtMost;
    auto outstanding = [this] {
        return std::any_of(lastCommitted_.begin(), lastCommitted_.end(), [this](int fd) {
            const Client* c = find(fd);
            return c && !c->doomed && !c->waitingLock && c->readAt < commits_;
        });
    };
    while (running_ && outstanding() && Clock::now() < until) {
        loop_.tick(std::chrono::milliseconds(0));
        if (outstanding()) sched_yield();
    }
}

void Server::closeClient(int fd) {
    auto it = clients_.find(fd);
    if (it == clients_.end()) return;
    Client& c = *it->second;
    if (c.subscribed) subscriptions_.remove(c.subscribedKey, fd);
    if (c.waitingLock) locks_.forgetWaiter(c.waitedKey, fd);
    const bool heldLock = c.holdsLock;
    const std::string lockedKey = c.lockedKey;
    loop_.del(fd);
    clients_.erase(it);  // closes the socket
    if (heldLock) releaseLock(lockedKey);
}

}  // namespace setter
}  // namespace ks
