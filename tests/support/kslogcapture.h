// Log records on standard error in tests, a matcher for them, and a socket pair.
#pragma once

#include <functional>
#include <string>

#include "kstest.h"

namespace kstest {

// Whether `text` holds `pattern`, where '*' stands for any run of characters within a line.
bool has_record(const std::string& text, const std::string& pattern);

// The logger as `identity` in a throw-away root, `channel` at trace on standard error, until destroyed.
class LogCapture {
public:
    explicit LogCapture(const std::string& identity, const std::string& channel = "default");
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool started() const { return started_; }
    const InstallRoot& root() const { return root_; }
    // What the logger wrote while `fn` ran.
    std::string during(const std::function<void()>& fn);

private:
    InstallRoot root_;
    bool started_ = false;
};

// A connected pair of non-blocking local stream sockets, both closed on destruction.
struct SocketPair {
    SocketPair();
    ~SocketPair();
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    // Everything the peer end can read right now.
    std::string drain_peer() const;

    int ours = -1, peer = -1;
};

}  // namespace kstest
