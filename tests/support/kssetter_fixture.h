// Settings client and server tests: one install root per program (the client computes its
// socket path once per process), the server as a child on it, raw frames, a scripted stand-in.
#pragma once

#include "kstest.h"

#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>
#include <ksutils/unique_fd.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>

extern char** environ;

namespace kssetter_test {

using namespace std::string_literals;  // "\0/a"s keeps the NUL

// The program's install root, with logging started on it for the client's log channel.
inline kstest::InstallRoot& root() {
    struct Holder {
        kstest::InstallRoot installRoot;
        Holder() { ks::log::start("kssetter_test", installRoot.path().c_str(), nullptr); }
        ~Holder() { ks::log::stop(); }
    };
    static Holder holder;
    return holder.installRoot;
}

inline std::string storagePath() { return root() / "etc/storage.data"; }
// Whether a call returned -1 and set `code` (and `message`, when given) in the error record.
inline ::testing::AssertionResult failed(int64_t returned, int code, const char* message = nullptr) {
    const std::string text = kstest::error_text(), want = std::string(ks::error_name(code)) + " " + (message ? message : "");
    if (returned == -1 && (message ? text == want : text.rfind(want, 0) == 0)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "returned " << returned << ", error " << text;
}

inline sockaddr_un socketAddress() {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, (root() / "var/run/kssetmgmt.skt").c_str(), sizeof a.sun_path - 1);
    return a;
}

// A connected raw socket to whatever listens on the settings socket (empty when none does).
inline ks::unique_fd connectRaw() {
    const sockaddr_un a = socketAddress();
    ks::unique_fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) fd.reset();
    return fd;
}

// The settings server as a child process on the test install root.
class ServerProcess {
public:
    ServerProcess() { start(); }
    ~ServerProcess() { stop(); }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    void start() {
        const std::string tool = kstest::tool_path("kssetter"), dir = root().path();
        char* argv[] = {const_cast<char*>(tool.c_str()), const_cast<char*>("-root"), const_cast<char*>(dir.c_str()),
                        nullptr};
        ASSERT_EQ(0, ::posix_spawn(&pid_, tool.c_str(), nullptr, nullptr, argv, environ));
        bool exited = false;
        ASSERT_TRUE(kstest::wait_until([&] { return connectRaw() || (exited = ::waitpid(pid_, nullptr, WNOHANG) == pid_); }));
        if (exited) pid_ = -1;
        ASSERT_FALSE(exited) << "kssetter exited during start-up";
    }

    // Sends `signal` and reaps the child; returns its exit status (-1 when a signal ended it).
    int stop(int signal = SIGTERM) {
        if (pid_ <= 0) return -1;
        ::kill(pid_, signal);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void restart() { stop(), start(); }
    void crash() { stop(SIGKILL); }

private:
    pid_t pid_ = -1;
};

// Runs `fn` on a new thread and waits for it: a fresh per-thread connection each time.
inline void inThread(const std::function<void()>& fn) { std::thread(fn).join(); }

// Moves exactly `n` bytes over a blocking stream socket; false when the peer went away first.
inline bool readAll(int fd, void* out, size_t n) { return ::recv(fd, out, n, MSG_WAITALL) == static_cast<ssize_t>(n); }
inline bool writeAll(int fd, const std::string& bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// The bytes of `v` as they lie in memory.
template <class T>
std::string raw(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}
// A request frame: command, body length, body.
inline std::string frame(uint32_t command, const std::string& body) { return raw(command) + raw(uint64_t{body.size()}) + body; }
// A CMD_SET body after its lock byte and key.
inline std::string setBody(const std::string& lockAndKey, uint32_t type, const std::string& value) {
    return lockAndKey + '\0' + raw(type) + value;
}
inline std::string result(int64_t r) { return raw(r); }

// The next whole request frame on `fd`, or "" when the connection ended.
inline std::string readFrame(int fd) {
    std::string f(12, '\0');
    uint64_t length;
    if (!readAll(fd, &f[0], 12)) return "";
    std::memcpy(&length, &f[4], 8);
    f.resize(12 + length);
    return readAll(fd, &f[12], length) ? f : "";
}

// How many of `expected` notifications came on `h` before a wait failed (keys added to `keys`).
inline int collect(ks::setMgmt::NotifyHandle* h, int expected, std::set<std::string>* keys = nullptr) {
    int total = 0;
    for (int n = 1; n > 0 && total < expected; total += std::max(n, 0))
        n = keys ? ks::setMgmt::waitNotification(h, 2000, *keys) : ks::setMgmt::waitNotification(h, 2000);
    return total;
}

// A stand-in server on the settings socket, serving connections on a thread of its own.
class FakeServer {
public:
    FakeServer() : listen_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un a = socketAddress();
        ::unlink(a.sun_path);
        EXPECT_EQ(0, ::bind(listen_.get(), reinterpret_cast<const sockaddr*>(&a), sizeof a));
        EXPECT_EQ(0, ::listen(listen_.get(), 16));
    }
    ~FakeServer() {
        join();
        ::unlink(socketAddress().sun_path);
    }

    // Serves the next `count` connections with `handler` (given the connection socket).
    void serve(std::function<void(int)> handler, int count = 1) {
        join();
        thread_ = std::thread([this, handler, count] {
            for (int i = 0; i < count; ++i) {
                ks::unique_fd fd(::accept(listen_.get(), nullptr, nullptr));
                if (!fd) return;
                handler(fd.get());
            }
        });
    }
    void join() { thread_.joinable() ? thread_.join() : void(); }

private:
    ks::unique_fd listen_;
    std::thread thread_;
};

struct ClientScope {
    ClientScope() {
        root();
        EXPECT_EQ(0, ks::setMgmt::init()) << kstest::error_text();
    }
    ~ClientScope() { ks::setMgmt::uninit(); }
};

// A test with the client initialised and the settings server running.
class WithServer : public ::testing::Test {
protected:
    ClientScope client;
    ServerProcess server;
};

}  // namespace kssetter_test
