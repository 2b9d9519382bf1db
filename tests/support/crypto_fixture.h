// Crypto and encrypted-log tests: key files made at test time, and openssl as the independent peer.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kstest.h"

namespace kstest {

// The little-endian 32-bit number at `at` in `bytes`.
inline uint32_t le32(const std::string& bytes, size_t at) {
    uint32_t v = 0;
    for (size_t i = 4; i-- > 0;) v = v << 8 | static_cast<unsigned char>(bytes[at + i]);
    return v;
}

// (type, payload) of each log block, parsed independently; `whole`: our header and no torn block.
inline std::vector<std::pair<int, std::string>> blocks_of(const std::string& file, bool* whole = nullptr) {
    std::vector<std::pair<int, std::string>> blocks;
    size_t pos = 32;
    for (; pos + 5 <= file.size() && pos + 5 + le32(file, pos + 1) <= file.size(); pos += 5 + blocks.back().second.size())
        blocks.emplace_back(file[pos], file.substr(pos + 5, le32(file, pos + 1)));
    if (whole) *whole = file.compare(0, 4, "KSCL") == 0 && file.size() >= 32 && pos == file.size();
    return blocks;
}

// Key files made once per program: RSA "priv.pem"/"pub.pem", EC "ec.pem"/"ecpub.pem" (the wrong type).
inline std::string test_key(const char* name) {
    static TempDir keys;
    static const bool made = make_rsa_keypair(keys / "priv.pem", keys / "pub.pem") &&
                             run("openssl ecparam -name prime256v1 -genkey -noout -out " + quoted(keys / "ec.pem") +
                                 " 2>/dev/null && openssl ec -in " + quoted(keys / "ec.pem") + " -pubout -out " +
                                 quoted(keys / "ecpub.pem") + " 2>/dev/null") == 0;
    EXPECT_TRUE(made) << "openssl could not make the test keys";
    return keys / name;
}

// "openssl enc" for AES-256-CBC with a raw key and IV (hexadecimal) and no salt.
inline std::string openssl_aes(const std::string& key_hex, const std::string& iv_hex, const std::string& args) {
    return "openssl enc -aes-256-cbc -nosalt -K " + key_hex + " -iv " + iv_hex + " " + args;
}

}  // namespace kstest
