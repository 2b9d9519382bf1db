// Retried requests on a real executor with a transport that refuses or answers.
#include <ksutils/asyncutl.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <tuple>

#include "kslogcapture.h"

namespace {

using namespace std::chrono_literals;
using ks::async::Request;
using ks::async::RequestRuntime;
using clock_type = std::chrono::steady_clock;

TEST(Request, BackOffTable) {
    // The attempt, the wait before it in ms, the attempt after it.
    const std::tuple<int, std::chrono::milliseconds::rep, int> cases[] = {
        {0, 0, 0}, {1, 2000, 2}, {9, 512000, 10}, {10, 1024000, 10}, {62, 1024000, 62}};
    for (const auto& [attempt, ms, next] : cases) {
        Request r;
        r.attempt = attempt;
        EXPECT_EQ(std::make_pair(ms, next), std::make_pair(r.get_timeout().count(), r.attempt)) << attempt;
    }
}

// A runtime on its own executor with a transport that records every send.
struct Harness {
    ks::Executor loop;
    RequestRuntime runtime{loop};
    std::vector<clock_type::time_point> sends;
    std::vector<std::pair<RequestRuntime::finish_fn, void*>> pending;
    bool accept = true;

    Harness() {
        runtime.set_request_fn([this](const std::string&, const std::string&, RequestRuntime::finish_fn fn, void* ctx) {
            sends.push_back(clock_type::now());
            if (accept) pending.emplace_back(fn, ctx);
            return accept;
        });
    }
    void spin(std::chrono::milliseconds limit, const std::function<bool()>& done = [] { return false; }) {
        for (auto end = clock_type::now() + limit; !done() && clock_type::now() < end;) loop.tick(10ms);
    }
    // The transport answers the request for `uri` that it holds.
    void answer(const std::string& uri, bool verdict) {
        const auto held = std::find_if(pending.begin(), pending.end(),
                                       [&](const auto& p) { return static_cast<const Request*>(p.second)->uri == uri; });
        ASSERT_NE(pending.end(), held) << uri;
        const auto [fn, ctx] = *held;
        pending.erase(held);
        fn(ctx, &verdict);
    }
};

Request request(int attempt, std::function<bool(const void*)> handler = nullptr, const char* uri = "svc://x") {
    Request r;
    r.uri = uri;
    r.attempt = attempt;
    r.handler = std::move(handler);
    return r;
}

TEST(RequestRuntime, SendsRetriesAnswersAndGroups) {
    Harness h;
    int completed = 0;
    // A refused send is retried after the back-off; attempt 0 is sent at once, and never again.
    h.accept = false;
    ASSERT_GE(h.runtime.run(request(1), nullptr), 0);
    h.spin(8s, [&] { return h.sends.size() >= 2; });
    ASSERT_EQ(2u, h.sends.size());
    EXPECT_GE(h.sends[1] - h.sends[0], 2s);
    h.runtime.cancel();
    EXPECT_FALSE(h.loop.tick(0ms)) << "no timer left";
    h.sends.clear();
    ASSERT_GE(h.runtime.run(request(0), [&] { return ++completed; }), 0);
    h.spin(300ms);
    EXPECT_EQ(1u, h.sends.size());
    h.runtime.cancel();

    // A refused response makes a new send; a group completes once, after its last request; a
    // request cancelled while the transport holds it stays readable, and its answer runs nothing.
    h.accept = true;
    h.sends.clear();
    int handled = 0, cancelled_completed = 0;
    std::list<Request> group{request(0, [](const void* r) { return *static_cast<const bool*>(r); }, "svc://a"),
                             request(0, nullptr, "svc://b")};
    ASSERT_EQ(2, h.runtime.run(std::move(group), [&] { return ++completed; }));
    ASSERT_EQ(3, h.runtime.run(request(0, [&](const void*) { return ++handled; }, "svc://c"),
                               [&] { return ++cancelled_completed; }));
    h.spin(50ms);
    std::set<std::string> sent;  // id, tag and uri of each request the transport holds
    for (const auto& [fn, ctx] : h.pending) {
        const auto* r = static_cast<const Request*>(ctx);
        sent.insert(fmt::format("{} {} {}", r->id, r->tag, r->uri));
    }
    EXPECT_EQ((std::set<std::string>{"2 2 svc://a", "3 2 svc://b", "4 3 svc://c"}), sent);
    h.runtime.cancel(3);
    h.answer("svc://c", true);  // found by its uri: still readable
    EXPECT_EQ(0, handled);
    h.answer("svc://a", false);
    h.spin(50ms);
    EXPECT_EQ(4u, h.sends.size()) << "sent again after the refused response";
    h.answer("svc://b", true);
    EXPECT_EQ(0, completed);
    h.answer("svc://a", true);
    // Completed once, the cancelled group never, nothing left outstanding.
    EXPECT_EQ("1 0 0 0", fmt::format("{} {} {} {}", completed, cancelled_completed, h.runtime.outstanding(), h.runtime.groups()));
}

TEST(RequestRuntime, MistakesAreRefusedAndLogged) {
    kstest::LogCapture log("asyncutl_test");
    Harness h;
    std::list<Request> mixed{request(0), request(0, nullptr, "")};
    const std::string out = log.during([&] {
        EXPECT_EQ(-1, h.runtime.run(std::move(mixed), nullptr));
        h.spin(50ms);
        h.runtime.cancel(7);
        h.runtime.cancel_request(99);
        Request stray = request(0);
        stray.tag = 5;
        EXPECT_FALSE(h.runtime.try_complete(stray));
    });
    EXPECT_TRUE(h.sends.empty()) << "nothing of a refused group starts";
    for (const char* record : {"No request group with tag=7", "No request with id=99", "BUG: Requests not found tag=5"})
        EXPECT_TRUE(kstest::has_record(out, record)) << record << "\n" << out;

    RequestRuntime no_transport(h.loop);
    EXPECT_EQ(-1, no_transport.run(request(0), nullptr));
}

}  // namespace
