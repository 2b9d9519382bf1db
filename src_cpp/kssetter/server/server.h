// The settings server: one process holds the settings tree in a ks::storage::Store and
// answers the clients of the settings socket on one thread, driven by a ks::Executor.
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
// When changes reach the settings file is the business of Persistence alone. A persistent
// change that it cannot make durable is answered kResultSystemError minus the errno, never
// with success; requests handled in the same round may have seen it before it was undone.
#pragma once

#include "kssetter/server/locks.h"
#include "kssetter/server/persistence.h"
#include "kssetter/server/subscriptions.h"

#include <kssetter/ksstorage.h>
#include <ksutils/executor.h>
#include <ksutils/unique_fd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace ks {
namespace setter {

struct Request;

class Server {
public:
    // The server of `socketPath`, keeping its settings in `storageFile`.
    Server(std::string socketPath, std::string storageFile);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Loads the settings and starts listening; false (reason on standard error) when another
    // server listens on the socket or the socket cannot be made. With `stopOnSignals`, SIGTERM
    // and SIGINT stop run(): the caller blocks them in every thread first.
    bool start(bool stopOnSignals);
    // Serves until a stop signal or requestStop().
    void run();
    // Makes run() return; callable from any thread.
    void requestStop();
    // Closes every connection, saves, removes the socket file.
    void stop();

private:
    struct Client;

    int onListen();
    int onSignal();
    int onClient(int fd);

    void readFrom(Client& c);
    void handleFrames(Client& c);
    void handle(Client& c, uint32_t cmd, const unsigned char* body, uint64_t length);
    void handleSet(Client& c, const Request& r);
    void handleKeyRequest(Client& c, const Request& r);
    void handleSubscribe(Client& c, const Request& r);
    void handleLock(Client& c, const std::string& key);
    void handleUnlock(Client& c, const std::string& key);
    void handleDebugInfo(Client& c);

    void reply(Client& c, int64_t result);
    // The success reply to a persistent change, which the round's commit may still refuse.
    void replyDurable(Client& c, const std::string& key);
    void refuseUncommitted(int error);
    void queueFlush(Client& c);
    void flush(Client& c);
    void doom(Client& c);
    // Work left by a callback: resumed lock waiters, output to send, connections to close.
    void finish();
    // Before a commit: lets the clients the last commit answered add their next requests.
    void gatherForCommit();
    void closeClient(int fd);
    void releaseLock(const std::string& key);
    void notify(const std::string& key, bool subtreeGone);
    void post(Client& c, const std::string& changedKey);
    Client* find(int fd);

    std::string socketPath_;
    ks::Executor loop_;
    storage::Store store_;
    Persistence persistence_;
    ks::unique_fd listen_;
    ks::unique_fd signals_;
    ks::unique_fd stopEvent_;
    std::atomic<bool> running_{true};
    bool listening_ = false;
    bool watchingSignals_ = false;
    bool watchingStopEvent_ = false;
    bool stopped_ = false;
    // Set by a round that read a request; run() keeps polling for a short while after one.
    bool servedRequest_ = false;

    std::unordered_map<int, std::unique_ptr<Client>> clients_;
    Subscriptions subscriptions_;
    LockTable locks_;
    std::vector<int> flushQueue_;
    std::vector<int> doomed_;
    std::vector<int> flushing_;  // finish()'s working copies of the two above
    std::vector<int> closing_;
    std::deque<int> resumed_;
    std::vector<char> scratch_;
    // Where this round's success replies to persistent changes lie in their connections'
    // output, to be rewritten as refusals if the commit fails (nothing is sent before it).
    struct Uncommitted {
        int fd;
        size_t at;
    };
    std::vector<Uncommitted> uncommitted_;
    // The clients whose persistent changes the last commit made durable, and how many
    // commits there have been (a client's readAt below it: nothing read since the last one).
    std::vector<int> lastCommitted_;
    uint64_t commits_ = 0;
};

}  // namespace setter
}  // namespace ks
