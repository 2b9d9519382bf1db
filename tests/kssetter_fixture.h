// Fixtures of the settings client and server tests: one install root per test program
// (the client computes its socket path once per process), the settings server run as a
// child on it, and a scripted stand-in server for exact request bytes and broken replies.
#pragma once

#include "kstest.h"

#include <kssetter/kssetmgmt.h>
#include <ksutils/error.h>
#include <ksutils/kslog.h>

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace kssetter_test {

// The process's install root, with logging started on it so that the client can open its
// log channel. Created by the first test that asks, kept until the program ends.
inline kstest::InstallRoot& root() {
    struct Holder {
        Holder() : installRoot(new kstest::InstallRoot()) {
            ks::log::start("kssetter_test", installRoot->path().c_str(), nullptr);
        }
        ~Holder() { ks::log::stop(); }
        std::unique_ptr<kstest::InstallRoot> installRoot;
    };
    static Holder holder;
    return *holder.installRoot;
}

inline std::string socketPath() { return root() / "var/run/kssetmgmt.skt"; }
inline std::string storagePath() { return root() / "etc/storage.data"; }

// A connected raw socket to whatever listens on the settings socket, or -1.
inline int connectRaw() {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, socketPath().c_str(), sizeof a.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
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
        const std::string tool = kstest::tool_path("kssetter");
        const std::string rootDir = root().path();
        std::vector<char*> argv{const_cast<char*>(tool.c_str()), const_cast<char*>("-root"),
                                const_cast<char*>(rootDir.c_str()), nullptr};
        ASSERT_EQ(0, ::posix_spawn(&pid_, tool.c_str(), nullptr, nullptr, argv.data(), environ));
        // Ready once it accepts connections (or gone if it failed to start).
        for (int i = 0; i < 1000; ++i) {
            int fd = connectRaw();
            if (fd >= 0) {
                ::close(fd);
                return;
            }
            int status;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                FAIL() << "kssetter exited during start-up";
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        FAIL() << "kssetter did not start listening";
    }

    // Sends `sig` and reaps the child; returns its exit status (-1 when killed by a signal).
    int stop(int sig = SIGTERM) {
        if (pid_ <= 0) return -1;
        ::kill(pid_, sig);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void restart() {
        stop();
        start();
    }

    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// Runs `fn` on a new thread and waits for it: a fresh per-thread connection each time.
inline void inThread(const std::function<void()>& fn) { std::thread(fn).join(); }

inline bool readAll(int fd, void* out, size_t n) {
    auto* p = static_cast<char*>(out);
    while (n) {
        ssize_t r = ::recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

inline bool writeAll(int fd, const void* data, size_t n) {
    auto* p = static_cast<const char*>(data);
    while (n) {
        ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

// One whole request frame as sent by the client.
struct Frame {
    uint32_t command = 0;
    std::string body;
};

inline bool readFrame(int fd, Frame& f) {
    unsigned char header[12];
    if (!readAll(fd, header, sizeof header)) return false;
    uint64_t length;
    std::memcpy(&f.command, header, 4);
    std::memcpy(&length, header + 4, 8);
    f.body.assign(length, '\0');
    return length == 0 || readAll(fd, &f.body[0], length);
}

inline std::string result(int64_t r) { return std::string(reinterpret_cast<const char*>(&r), 8); }

// A stand-in server listening on the settings socket: each accepted connection is handed
// to the next scripted handler, on a thread of its own.
class FakeServer {
public:
    FakeServer() {
        listen_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, socketPath().c_str(), sizeof a.sun_path - 1);
        ::unlink(socketPath().c_str());
        EXPECT_EQ(0, ::bind(listen_, reinterpret_cast<sockaddr*>(&a), sizeof a));
        EXPECT_EQ(0, ::listen(listen_, 16));
    }
    ~FakeServer() {
        join();
        ::close(listen_);
        ::unlink(socketPath().c_str());
    }

    // Serves the next `count` connections with `handler` (given the connection socket).
    void serve(std::function<void(int)> handler, int count = 1) {
        join();
        thread_ = std::thread([this, handler, count] {
            for (int i = 0; i < count; ++i) {
                int fd = ::accept(listen_, nullptr, nullptr);
                if (fd < 0) return;
                handler(fd);
                ::close(fd);
            }
        });
    }
    void join() {
        if (thread_.joinable()) thread_.join();
    }
    // True when a client connected without being served (pending in the backlog).
    bool connectionPending() {
        pollfd p{listen_, POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    }

private:
    int listen_ = -1;
    std::thread thread_;
};

// Initialises the client for the test and uninitialises it afterwards.
class ClientScope {
public:
    ClientScope() {
        root();
        EXPECT_EQ(0, ks::setMgmt::init()) << ks::_get_kserrno().message_view();
    }
    ~ClientScope() { ks::setMgmt::uninit(); }
};

inline std::string errorText() { return std::string(ks::_get_kserrno().message_view()); }

}  // namespace kssetter_test
