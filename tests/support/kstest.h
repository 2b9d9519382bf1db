// Shared test fixtures: temporary directories, throw-away install roots with a log key
// pair, and running shell commands (openssl, sha256sum, ...) as independent peers.
#pragma once

#include <gmock/gmock.h>

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace kstest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// `path` in single quotes, for a shell command line.
inline std::string quoted(const std::string& path) { return "'" + path + "'"; }

// Runs `command` through /bin/sh; returns its exit status (-1 when it could not run or was
// killed) and, when `output` is given, its standard output.
int run(const std::string& command, std::string* output = nullptr);

// Reads or writes a whole file; read_file returns "" for a missing file.
std::string read_file(const std::string& path);
bool write_file(const std::string& path, const std::string& contents);

// Writes an RSA-2048 key pair with the openssl command: `private_path` (PKCS#8 PEM) and
// `public_path` (SubjectPublicKeyInfo PEM). Keys are made at test time, never committed.
bool make_rsa_keypair(const std::string& private_path, const std::string& public_path);

// A temporary install root laid out like an installation: etc/, etc/logging/, var/log/,
// var/run/, var/tmp/, bin/ and the log key pair etc/logs-pub.pem (+ private key beside the
// root, not inside it). The constructor makes it the process's install root.
class InstallRoot {
public:
    InstallRoot();
    ~InstallRoot();

    const std::string& path() const { return dir_.path(); }
    std::string operator/(const std::string& relative) const { return dir_.path() + "/" + relative; }
    const std::string& private_key() const { return private_key_; }
    const std::string& public_key() const { return public_key_; }

private:
    TempDir keys_;
    TempDir dir_;
    std::string private_key_;
    std::string public_key_;
};

// What a death test's standard error must be: exactly `text`, or `text` followed by the
// line qemu-user adds when an emulated program dies of a signal (the aarch64 suite).
::testing::Matcher<const std::string&> death_message(const std::string& text);

// Moves the calling thread into a new network namespace of its own (children it starts
// inherit it) and back on destruction; entered() is false where namespaces are refused.
class NetNamespace {
public:
    NetNamespace();
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;
    bool entered() const { return entered_; }

private:
    int original_;
    bool entered_ = false;
};

// Descriptors this process has open, and its children that are zombies: leak checks.
int open_descriptors();
int zombie_children();

// Polls `done` every 10 ms until it holds or `limit` has passed; its last answer.
bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(15));

// Fields 3 to 6 of /proc/<pid>/stat; state 0 when the process is gone.
struct ProcStat {
    char state = 0;
    long ppid = -1, pgrp = -1, session = -1;
};
ProcStat proc_stat(pid_t pid);

// Runs `body` in a forked child (gtest assertions would not reach the parent from there);
// the child's exit status is body's result, -1 when it did not exit.
int in_child(const std::function<int()>& body);

// In a forked child: a mount namespace of its own whose mounts do not reach the parent's.
bool private_mounts();

// A forked child that sets something up (a lock, say) and calls `report` with a
// one-character answer; report then holds the child there until released or destroyed.
class HeldChild {
public:
    using Report = std::function<void(char)>;
    explicit HeldChild(const std::function<void(const Report&)>& body);
    ~HeldChild();
    HeldChild(const HeldChild&) = delete;
    HeldChild& operator=(const HeldChild&) = delete;
    void release(bool reap = false);  // lets the child exit; reaped now or on destruction

    pid_t pid = -1;
    char answer = 0;  // 0 when the child could not report

private:
    int release_fd_ = -1;
};

// The build tree's directory of shipped programs (tools/).
std::string tool_path(const std::string& name);

// The thread's error record as "<code name> <message>": code and text checked in one line.
std::string error_text();

}  // namespace kstest
