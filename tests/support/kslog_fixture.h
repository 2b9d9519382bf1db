// Logging tests: a logger in a throw-away install root, its files decrypted and their blocks listed.
#pragma once

#include <kscryptolog.h>
#include <kslog.h>
#include <ksutils/crypto.h>
#include <ksutils/miscutl.h>
#include <ksutils/unique_fd.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "crypto_fixture.h"

namespace kslogtest {

// Plain text of an encrypted log file ("" when missing); `ok`: the reader accepted all of it.
inline std::string decrypt(const std::string& path, const std::string& private_key, bool* ok = nullptr) {
    ks::unique_fd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), out(::memfd_create("plain", MFD_CLOEXEC));
    const bool whole = in && ks::CryptoLogReader(private_key.c_str()).decrypt(out.get(), in.get());
    if (ok) *ok = whole;
    return kstest::read_file("/proc/self/fd/" + std::to_string(out.get()));
}

// The lines of `text`, each with its newline (the last one may lack it).
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    for (size_t start = 0, end; start < text.size(); start = end) {
        end = std::min(text.find('\n', start), text.size() - 1) + 1;
        result.push_back(text.substr(start, end - start));
    }
    return result;
}

// The records written by kslogtest::log, without the logger's own.
inline std::vector<std::string> test_records(const std::string& text) {
    std::vector<std::string> result;
    for (auto& line : lines(text))
        if (line.find("[test.cpp:1][test()]: ") == KSLOG_HEADER_SIZE) result.push_back(std::move(line));
    return result;
}

// The messages of those records, each with its newline, run together.
inline std::string messages(const std::string& text) {
    std::string result;
    for (const auto& r : test_records(text)) result += r.substr(KSLOG_HEADER_SIZE + 22);
    return result;
}

// Block types of a log file in order (1 key, 2 record); empty when the header is bad or a block torn.
inline std::vector<int> block_types(const std::string& path) {
    bool whole = false;
    std::vector<int> types;
    for (const auto& block : kstest::blocks_of(kstest::read_file(path), &whole)) types.push_back(block.first);
    return whole ? types : std::vector<int>{};
}

// A record as a log statement would hand it to the core.
inline std::string record(const std::string& message) {
    return std::string(KSLOG_HEADER_TEMPLATE) + "[test.cpp:1][test()]: " + message + "\n";
}

inline void log(int channel, int level, const std::string& message) {
    std::string text = record(message);
    kslog_log_full(channel, level, text.data(), text.size());
}

inline int execute(const std::string& json) {
    const ks::unique_c_ptr<json_t> doc(json_loads(json.c_str(), 0, nullptr));
    return doc ? kslog_execute_config(doc.get()) : -2;
}

// The running configuration as JSON text, keys sorted; with `channel`, only `key` of its first output.
inline std::string config_text(const char* channel = nullptr, const char* key = nullptr) {
    const ks::unique_c_ptr<json_t> config(kslog_get_config());
    const json_t* value = channel ? json_object_get(
        json_array_get(json_object_get(json_object_get(config.get(), "channels"), channel), 0), key) : config.get();
    const int flags = JSON_SORT_KEYS | JSON_COMPACT | JSON_ENCODE_ANY;
    const ks::unique_c_ptr<char> text(value ? json_dumps(value, flags) : nullptr);
    return text ? text.get() : "";
}

// A logger started as `identity` in a fresh install root; stopped however often started.
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

    kstest::InstallRoot root;
};

}  // namespace kslogtest
