/// @file
/// Requests to other services, retried with exponential back-off until a response handler
/// accepts them, in groups that report when every member completed. Everything runs on one
/// ks::Executor: each request waiting to be (re)sent owns a timer of that executor, and the
/// transport hands responses back through a plain function pointer and context, so a C-style
/// messaging library can drive it.
///
/// The transport's context is the Request itself, so a transport may read its id, tag and uri
/// through it. A request that is cancelled or completed while the transport still holds it
/// is kept aside, at the same address, until that finish call arrives (which is then
/// ignored) or the runtime is destroyed; the transport must not call finish after that.
///
/// The runtime has no lock: run, cancel, the transport's finish calls and the timers all
/// belong to the executor's thread.
#pragma once
#include <ksexport.h>
#include <ksutils/executor.h>

#include <chrono>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace ks::async {

class RequestRuntime;

/// One request to another service, with its response handler and retry state.
struct KS_EXPORT Request {
    std::string uri;  ///< where the request goes; must not be empty
    std::string payload;  ///< what is sent
    /// True completes the request; false sends it again after the next back-off wait.
    std::function<bool(const void* response)> handler;
    RequestRuntime* runtime = nullptr;  ///< the runtime that runs it, set by run()
    int tag = -1;  ///< its group, set by run()
    /// Back-off exponent: 0 sends once without retries, n waits 2^n seconds next.
    int attempt = 0;
    int id = -1;  ///< unique within the runtime, set by run()
    int tfd = -1;  ///< the timer of its next (re)send, -1 while none

    /// The next wait (and the exponent moves on): 0 without retries, else 2^attempt seconds,
    /// capped at 1024 s.
    std::chrono::milliseconds get_timeout();
    /// "uri=..., id=N, tfd=N"
    std::string to_string() const;
};

/// Sends groups of requests through a transport and retries them on one Executor.
class KS_EXPORT RequestRuntime {
public:
    /// How the transport hands a response back: finish(context, response).
    using finish_fn = void (*)(void* context, const void* response);
    /// True when the request was handed over; the transport later calls finish(context, r)
    /// once for each response. `context` is the Request being sent.
    using request_fn = std::function<bool(const std::string& uri, const std::string& payload, finish_fn finish,
                                          void* context)>;

    /// A runtime whose timers live on `executor`, which must outlive it.
    explicit RequestRuntime(Executor& executor);
    /// Cancels every outstanding request.
    ~RequestRuntime();
    RequestRuntime(const RequestRuntime&) = delete;
    RequestRuntime& operator=(const RequestRuntime&) = delete;

    /// Sets the transport.
    void set_request_fn(request_fn fn);
    /// Starts a group; its tag, or -1 (an empty uri, no transport, or a timer that could not
    /// start: nothing of the group is left running).
    int run(std::list<Request>&& requests, std::function<bool()>&& on_complete);
    /// Starts a group of one request.
    int run(Request&& request, std::function<bool()>&& on_complete);
    /// Completes the request as its handler would, and its group when it was the last; false
    /// (logged) when the request or its group is unknown.
    bool try_complete(const Request& request);
    /// Cancels a group without calling its completion callback.
    void cancel(int tag);
    /// Cancels every request and group, without calling completion callbacks.
    void cancel();
    /// Cancels one request; its group goes on without it.
    void cancel_request(int id);

    /// The number of requests not yet completed or cancelled.
    size_t outstanding() const noexcept { return requests_.size(); }
    /// The number of groups running.
    size_t groups() const noexcept { return group_count_; }

private:
    struct CompleteCtx {
        std::vector<int> ids;
        std::function<bool()> on_complete;
    };
    // A request the transport holds: the number of finish calls still owed for it, and its
    // node once it has left requests_ (cancelled or completed meanwhile), so that its address
    // stays valid.
    struct Held {
        unsigned calls = 0;
        std::map<int, Request>::node_type parked;
    };

    bool retry(Request& request);
    int send(int id, unsigned generation);
    static void finish(void* context, const void* response);
    // One finish call owed for `request` is settled; frees it if it was parked and no other
    // call is owed.
    void settle(const Request* request);

    request_fn request_fn_;
    Executor& executor_;
    int next_tag_ = 0;
    int next_id_ = 0;
    std::map<int, Request> requests_;
    std::map<int, CompleteCtx> groups_;
    size_t group_count_ = 0;
    std::map<int, unsigned> generations_;  // bumped by every retry: stale timers stop
    std::map<const Request*, Held> held_;
};

}  // namespace ks::async
