#include "kslogcapture.h"

#include <ksutils/kslog.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace kstest {

bool has_record(const std::string& text, const std::string& pattern) {
    std::vector<std::string> pieces(1);
    for (char c : pattern) {
        if (c == '*') pieces.emplace_back();
        else pieces.back().push_back(c);
    }
    for (size_t start = text.find(pieces[0]); start != std::string::npos; start = text.find(pieces[0], start + 1)) {
        size_t pos = start + pieces[0].size(), i = 1;
        for (; i < pieces.size(); ++i) {
            const size_t at = text.find(pieces[i], pos);
            if (at == std::string::npos || text.find('\n', pos) < at) break;
            pos = at + pieces[i].size();
        }
        if (i == pieces.size()) return true;
    }
    return false;
}

LogCapture::LogCapture(const std::string& identity, const std::string& channel) {
    const std::string config = root_ / "etc/logging/capture.json";
    write_file(config, R"({"action":"update","channels":{")" + channel +
                           R"(":[{"file":":stderr","level":"trace"}]}})");
    started_ = ks::log::start(identity.c_str(), root_.path().c_str(), config.c_str());
}

LogCapture::~LogCapture() {
    if (started_) ks::log::stop();
}

std::string LogCapture::during(const std::function<void()>& fn) {
    testing::internal::CaptureStderr();
    fn();
    return testing::internal::GetCapturedStderr();
}

SocketPair::SocketPair() {
    int sv[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) == 0) ours = sv[0], peer = sv[1];
}

SocketPair::~SocketPair() {
    if (ours >= 0) ::close(ours);
    if (peer >= 0) ::close(peer);
}

std::string SocketPair::drain_peer() const {
    std::string out;
    char chunk[4096];
    for (ssize_t n; (n = ::read(peer, chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<size_t>(n));
    return out;
}

}  // namespace kstest
