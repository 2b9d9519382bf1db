// Shared test fixtures; see kstest.h.
#include "kstest.h"

#include <kspath.h>

#include <stdlib.h>
#include <fcntl.h>
#include <sched.h>
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
    const std::string self = std::to_string(::getpid());
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ec)) {
        const std::string stat = read_file(entry.path().string() + "/stat");
        const auto close = stat.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream fields(stat.substr(close + 2));
        std::string state, ppid;
        fields >> state >> ppid;
        if (state == "Z" && ppid == self) ++count;
    }
    return count;
}

std::string tool_path(const std::string& name) { return std::string(KS_BINARY_DIR) + "/tools/" + name; }

}  // namespace kstest
