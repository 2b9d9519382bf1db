// Helpers shared by the logging tests: a started logger in a throw-away install root,
// decryption of log files with the install root's private key, and a walk over a log
// file's block structure.
#pragma once

#include <kscryptolog.h>
#include <kslog.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kstest.h"

namespace kslogtest {

// Plain text of an encrypted log file ("" when missing); `ok` says whether the reader
// accepted the whole file.
inline std::string decrypt(const std::string& path, const std::string& private_key, bool* ok = nullptr) {
    if (ok) *ok = false;
    int in = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return "";
    int out = ::memfd_create("decrypted", MFD_CLOEXEC);
    crypto_log_reader* reader = crypto_log_reader_new(private_key.c_str());
    const int rc = reader ? crypto_log_reader_decrypt(reader, out, in) : -1;
    if (reader) crypto_log_reader_free(reader);
    ::close(in);
    if (ok) *ok = rc == 0;
    std::string text;
    char chunk[8192];
    ::lseek(out, 0, SEEK_SET);
    for (ssize_t n; (n = ::read(out, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(n));
    ::close(out);
    return text;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        result.push_back(text.substr(start, nl - start + 1));
    if (start < text.size()) result.push_back(text.substr(start));
    return result;
}

// The records written by kslogtest::log, without the logger's own.
inline std::vector<std::string> test_records(const std::string& text) {
    std::vector<std::string> result;
    for (auto& line : lines(text))
        if (line.find("[test.cpp:1][test()]: ") == KSLOG_HEADER_SIZE) result.push_back(std::move(line));
    return result;
}

// Block types of a log file in order (1 key, 2 record); empty when the header is bad or
// a block is torn.
inline std::vector<int> block_types(const std::string& path) {
    const std::string bytes = kstest::read_file(path);
    std::vector<int> types;
    if (bytes.size() < CRYPTO_LOG_HEADER_SIZE || bytes.compare(0, 4, "KSCL") != 0) return {};
    for (size_t pos = CRYPTO_LOG_HEADER_SIZE; pos < bytes.size();) {
        if (pos + 5 > bytes.size()) return {};
        const auto* p = reinterpret_cast<const unsigned char*>(bytes.data() + pos);
        const size_t length = p[1] | p[2] << 8 | p[3] << 16 | static_cast<size_t>(p[4]) << 24;
        if (pos + 5 + length > bytes.size()) return {};
        types.push_back(p[0]);
        pos += 5 + length;
    }
    return types;
}

// A record as a log statement would hand it to the core.
inline std::string record(const std::string& message) {
    return std::string(KSLOG_HEADER_TEMPLATE) + "[test.cpp:1][test()]: " + message + "\n";
}

inline void log(int channel, int level, const std::string& message) {
    std::string text = record(message);
    text.reserve(4096);
    kslog_log_full(channel, level, text.data(), text.size());
}

// Executes a configuration document given as JSON text.
inline int execute(const std::string& json) {
    json_error_t error;
    json_t* doc = json_loads(json.c_str(), 0, &error);
    if (!doc) return -2;
    const int rc = kslog_execute_config(doc);
    json_decref(doc);
    return rc;
}

// A logger started as `identity` in a fresh install root; stopped however often the
// test started it.
class LoggerTest : public ::testing::Test {
protected:
    void start(const char* identity = "/usr/bin/kstestd", const char* startup = nullptr) {
        ASSERT_EQ(kslog_init(identity, root.path().c_str(), startup), 0);
    }
    void TearDown() override {
        while (kslog_initialized()) kslog_uninit();
    }
    std::string decrypt(const std::string& path, bool* ok = nullptr) const {
        return kslogtest::decrypt(path, root.private_key(), ok);
    }
    int update(const std::string& json) { return kslogtest::execute(json); }

    kstest::InstallRoot root;
};

}  // namespace kslogtest
