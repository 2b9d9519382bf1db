/// @file
/// One long-lived child program supervised by a daemon: started with its standard output on
/// a local stream socket, read as NUL-terminated messages, stopped by a request byte with a
/// SIGKILL fallback after about three seconds, and restarted by its owner.
///
/// The daemon watches fd() in its event loop and calls recv() when it is readable. The child
/// runs with the environment the daemon had at start-up (the daemon instance's saved copy),
/// so variables the daemon removed from its own environment are given back to the child.
/// failure_count() rises with every failed start and every premature end; the owner decides
/// how often to restart.
#pragma once
#include <ksexport.h>
#include <ksutils/unique_fd.h>

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace ks {

/// A long-lived child program whose standard output the daemon reads (see the file description).
class KS_EXPORT Subprocess {
public:
    /// The kind of program, as it appears in log records.
    enum class Type : int32_t { AVAHI = 0, LEASES = 1, UPNP = 2, GENERIC = 3 };
    /// The size of the message buffer; a message that does not fit in it is discarded.
    static constexpr size_t kBufferSize = 65536;

    /// `command` is the program and its arguments separated by single blanks.
    Subprocess(Type type, std::string command);
    /// Stops a running child (gracefully, with the SIGKILL fallback).
    ~Subprocess();
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    /// Starts the child; a failure is counted in failure_count().
    bool start();
    /// Stops a running child gracefully, then start().
    bool restart();
    /// Starts the child without counting a failure; start() is the usual call.
    bool fork_exec();
    /// Collects the child's exit; false while it runs (without wait) or on failure.
    bool reap(bool wait);
    /// The complete messages received so far; an incomplete one waits for its NUL.
    std::vector<std::string> recv();
    /// Stops the child: with `graceful` it is sent the request byte first; a child still running
    /// after about three seconds is killed with SIGKILL. Then reset().
    void stop(bool graceful);
    /// Forgets the child and closes both socket ends, without signalling or waiting.
    void reset();

    /// The kind of program.
    Type type() const noexcept { return type_; }
    /// The child's pid, -1 without a child.
    int32_t pid() const noexcept { return pid_; }
    /// Failed starts and premature ends so far.
    uint32_t failure_count() const noexcept { return failures_; }
    /// The command line.
    const std::string& command() const noexcept { return command_; }
    /// The daemon's end of the child's standard output; -1 without a child.
    int fd() const noexcept { return daemon_end_.get(); }
    /// The child's end of the socket while it is being started; -1 otherwise.
    int child_fd() const noexcept { return child_end_.get(); }

private:
    Type type_;
    int32_t pid_ = -1;
    uint32_t failures_ = 0;
    std::string command_;
    unique_fd daemon_end_;
    unique_fd child_end_;
    std::unique_ptr<char[]> buffer_;
    size_t fill_ = 0;
    bool discarding_ = false;  // inside a message too large for the buffer
};

/// "AVAHI", "LEASES", "UPNP", else "GENERIC".
KS_EXPORT const char* type_name(Subprocess::Type type) noexcept;
/// "(type=NAME, pid=N)", as the object appears in log records.
KS_EXPORT std::ostream& operator<<(std::ostream& os, const Subprocess& p);

}  // namespace ks
