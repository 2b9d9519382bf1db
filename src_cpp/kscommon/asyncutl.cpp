// Retried asynchronous requests on one executor.
//
// A request's timer callback hands it to the transport; once handed over the timer is
// deleted and the request waits for its response. A transport may answer synchronously,
// from inside the send: the callback therefore looks its request up again afterwards
// (the answer may have completed it, or a retry may have given it a new timer) instead of
// trusting a reference that the answer could have invalidated.
//
// The transport's context is the stored Request. A request leaving the map while the
// transport owes a finish call for it is extracted as a node, which keeps its address,
// and freed when that call arrives.
#include <ksutils/asyncutl.h>
#include <ksutils/kslog.h>

#include <fmt/format.h>

#include <algorithm>

namespace ks::async {

namespace {

constexpr unsigned long kChannel = 0;
constexpr long kCapSeconds = 1024;

}  // namespace

std::chrono::milliseconds Request::get_timeout() {
    if (attempt == 0) return std::chrono::milliseconds(0);
    const long wait = attempt >= 31 ? kCapSeconds + 1 : 1L << attempt;
    if (wait > kCapSeconds - 1) return std::chrono::seconds(kCapSeconds);
    ++attempt;
    return std::chrono::seconds(wait);
}

std::string Request::to_string() const { return fmt::format("uri={:s}, id={:d}, tfd={:d}", uri, id, tfd); }

RequestRuntime::RequestRuntime(Executor& executor) : executor_(executor) {}

RequestRuntime::~RequestRuntime() { cancel(); }

void RequestRuntime::set_request_fn(request_fn fn) { request_fn_ = std::move(fn); }

int RequestRuntime::run(Request&& request, std::function<bool()>&& on_complete) {
    std::list<Request> one;
    one.push_back(std::move(request));
    return run(std::move(one), std::move(on_complete));
}

int RequestRuntime::run(std::list<Request>&& requests, std::function<bool()>&& on_complete) {
    const int tag = next_tag_++;
    if (!request_fn_ || std::any_of(requests.begin(), requests.end(), [](const Request& r) { return r.uri.empty(); }))
        return -1;
    CompleteCtx group{{}, std::move(on_complete)};
    for (auto& r : requests) {
        r.runtime = this;
        r.tag = tag;
        r.id = next_id_++;
        Request& stored = requests_.emplace(r.id, r).first->second;
        group.ids.push_back(r.id);
        if (!retry(stored)) {
            for (int id : group.ids) cancel_request(id);
            return -1;
        }
    }
    groups_.emplace(tag, std::move(group));
    ++group_count_;
    return tag;
}

bool RequestRuntime::retry(Request& request) {
    const std::chrono::milliseconds wait = request.get_timeout();
    const unsigned generation = ++generations_[request.id];
    const int id = request.id;
    auto callback = [this, id, generation] { return send(id, generation); };
    // A wait of 0 sends at once and only once.
    request.tfd = wait.count() ? executor_.start_timer(wait, wait, callback)
                               : executor_.start_timer(std::chrono::milliseconds(0), callback);
    KSLOG_INFO(kChannel, "Sending request {} with timeout {:d}ms", request.to_string(),
               static_cast<long long>(wait.count()));
    return request.tfd >= 0;
}

int RequestRuntime::send(int id, unsigned generation) {
    auto found = requests_.find(id);
    if (found == requests_.end()) return 0;  // cancelled: its timer is already gone
    if (generations_[id] != generation) return -1;
    Request& request = found->second;
    // Owed before the call: a synchronous answer settles it from inside.
    ++held_[&request].calls;
    const bool handed_over = request_fn_(request.uri, request.payload, &RequestRuntime::finish, &request);
    if (!handed_over) settle(&request);
    found = requests_.find(id);
    if (found == requests_.end()) return 0;     // completed by a synchronous answer
    if (generations_[id] != generation) return -1;  // a synchronous answer started a new timer
    if (handed_over) {
        found->second.tfd = -1;
        return -1;
    }
    KSLOG_WARN(kChannel, "Failed to send {:s} ksex request", found->second.uri);
    return static_cast<int>(found->second.get_timeout().count());
}

// The request stays owed (and so in place) until the handler has returned: a handler that
// cancels its own request must not destroy the handler while it runs.
void RequestRuntime::finish(void* context, const void* response) {
    auto* request = static_cast<Request*>(context);
    RequestRuntime& self = *request->runtime;
    const auto parked = [&] {
        const auto held = self.held_.find(request);
        return held != self.held_.end() && !held->second.parked.empty();
    };
    if (parked()) {
        KSLOG_ERROR(kChannel, "No request with id={:d}", request->id);
        self.settle(request);
        return;
    }
    KSLOG_INFO(kChannel, "Finishing request {}", request->to_string());
    const bool accepted = !request->handler || request->handler(response);
    const bool cancelled = parked();
    self.settle(request);
    if (cancelled) return;
    if (accepted && self.try_complete(*request)) return;
    self.retry(*request);
}

void RequestRuntime::settle(const Request* request) {
    const auto held = held_.find(request);
    if (held == held_.end()) return;
    if (--held->second.calls == 0) held_.erase(held);
}

bool RequestRuntime::try_complete(const Request& request) {
    const int tag = request.tag, id = request.id;
    const auto group = groups_.find(tag);
    if (group == groups_.end()) {
        KSLOG_ERROR(kChannel, "BUG: Requests not found tag={:d}", tag);
        return false;
    }
    auto& ids = group->second.ids;
    const auto at = std::find(ids.begin(), ids.end(), id);
    if (at == ids.end()) {
        KSLOG_ERROR(kChannel, "BUG: Request not found id={:d}", id);
        return false;
    }
    cancel_request(id);
    ids.erase(at);
    if (ids.empty()) {
        auto on_complete = std::move(group->second.on_complete);
        groups_.erase(group);
        --group_count_;
        if (on_complete) on_complete();
    }
    return true;
}

void RequestRuntime::cancel_request(int id) {
    const auto found = requests_.find(id);
    if (found == requests_.end()) {
        KSLOG_ERROR(kChannel, "No request with id={:d}", id);
        return;
    }
    if (found->second.tfd != -1) executor_.del(found->second.tfd);
    generations_.erase(id);
    const auto held = held_.find(&found->second);
    if (held != held_.end())
        held->second.parked = requests_.extract(found);
    else
        requests_.erase(found);
}

void RequestRuntime::cancel(int tag) {
    const auto group = groups_.find(tag);
    if (group == groups_.end()) {
        KSLOG_ERROR(kChannel, "No request group with tag={:d}", tag);
        return;
    }
    const std::vector<int> ids = std::move(group->second.ids);
    groups_.erase(group);
    --group_count_;
    for (int id : ids) cancel_request(id);
}

void RequestRuntime::cancel() {
    while (!requests_.empty()) cancel_request(requests_.begin()->first);
    groups_.clear();
    group_count_ = 0;
}

}  // namespace ks::async
