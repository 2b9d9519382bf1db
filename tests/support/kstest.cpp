// Shared test fixtures; see kstest.h.
#include "kstest.h"

#include <kspath.h>
#include <ksutils/error.h>

#include <stdlib.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace kstest {

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/kstest.XXXXXX";
    if (!::mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
    path_ = templ;
}

TempDir::~TempDir() { run("rm -rf '" + path_ + "'"); }

int run(const std::string& command, std::string* output) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), &::pclose);
    if (!pipe) return -1;
    char chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe.get())) > 0)
        if (output) output->append(chunk, n);
    int status = ::pclose(pipe.release());
    if (status < 0 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream contents;
    contents << in.rdbuf();
    return contents.str();
}

bool write_file(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
    return static_cast<bool>(out);
}

bool make_rsa_keypair(const std::string& private_path, const std::string& public_path) {
    return run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" + private_path +
               "' 2>/dev/null && openssl pkey -in '" + private_path + "' -pubout -out '" + public_path +
               "' 2>/dev/null") == 0;
}

InstallRoot::InstallRoot() {
    for (const char* sub : {"etc/logging", "var/log", "var/run", "var/tmp", "bin"})
        run("mkdir -p '" + dir_.path() + "/" + sub + "'");
    private_key_ = keys_ / "logs-priv.pem";
    public_key_ = dir_ / "etc/logs-pub.pem";
    if (!make_rsa_keypair(private_key_, public_key_)) throw std::runtime_error("openssl key generation failed");
    kspath_set_install_path(dir_.path().c_str());
}

InstallRoot::~InstallRoot() { kspath_set_install_path(nullptr); }

::testing::Matcher<const std::string&> death_message(const std::string& text) {
    return ::testing::AnyOf(::testing::Eq(text), ::testing::StartsWith(text + "qemu: uncaught target signal "));
}

NetNamespace::NetNamespace() : original_(::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
    entered_ = original_ >= 0 && ::unshare(CLONE_NEWNET) == 0;
}

NetNamespace::~NetNamespace() {
    if (entered_) ::setns(original_, CLONE_NEWNET);
    if (original_ >= 0) ::close(original_);
}

int open_descriptors() {
    int count = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator("/proc/self/fd", ec); !ec && it != std::filesystem::end(it);
         it.increment(ec))
        ++count;
    return count - 1;  // the iterator's own descriptor
}

int zombie_children() {
    int count = 0;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        const pid_t pid = static_cast<pid_t>(std::atol(entry.path().filename().c_str()));
        if (pid <= 0) continue;
        const ProcStat stat = proc_stat(pid);
        count += stat.state == 'Z' && stat.ppid == ::getpid();
    }
    return count;
}

bool wait_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    for (const auto end = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < end;) {
        if (done()) return true;
        ::usleep(10000);
    }
    return done();
}

ProcStat proc_stat(pid_t pid) {
    const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    ProcStat fields;
    if (const auto close = stat.rfind(')'); close != std::string::npos)
        std::sscanf(stat.c_str() + close + 2, "%c %ld %ld %ld", &fields.state, &fields.ppid, &fields.pgrp,
                    &fields.session);
    return fields;
}

int in_child(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool private_mounts() {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

HeldChild::HeldChild(const std::function<void(const Report&)>& body) {
    int ready[2], hold[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return;
    if (::pipe2(hold, O_CLOEXEC) != 0) {
        ::close(ready[0]), ::close(ready[1]);
        return;
    }
    pid = ::fork();
    if (pid == 0) {
        ::close(hold[1]);
        body([&](char c) {
            if (::write(ready[1], &c, 1) != 1 || ::read(hold[0], &c, 1) < 0) ::_exit(1);
        });
        ::_exit(0);
    }
    ::close(ready[1]);
    ::close(hold[0]);
    if (pid < 0 || ::read(ready[0], &answer, 1) != 1) answer = 0;
    ::close(ready[0]);
    release_fd_ = hold[1];
}

HeldChild::~HeldChild() { release(true); }

void HeldChild::release(bool reap) {
    if (release_fd_ >= 0) ::close(release_fd_);
    release_fd_ = -1;
    if (reap && pid > 0) ::waitpid(pid, nullptr, 0), pid = -1;
}

std::string tool_path(const std::string& name) { return std::string(KS_BINARY_DIR) + "/tools/" + name; }

std::string error_text() {
    const auto& e = ks::_get_kserrno();
    return std::string(ks::error_name(e.code)) + " " + std::string(e.message_view());
}

}  // namespace kstest
