// Scaffolding shared by the crypto and encrypted-log tests: key files made at test time and
// the openssl command lines that act as the independent peer.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
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

// The framing of an encrypted log file, parsed independently of the library: (type,
// payload) of each block. `whole` says whether the header was ours and no block was torn.
inline std::vector<std::pair<int, std::string>> blocks_of(const std::string& file, bool* whole = nullptr) {
    std::vector<std::pair<int, std::string>> blocks;
    size_t pos = 32;
    for (; pos + 5 <= file.size() && pos + 5 + le32(file, pos + 1) <= file.size(); pos += 5 + blocks.back().second.size())
        blocks.emplace_back(file[pos], file.substr(pos + 5, le32(file, pos + 1)));
    if (whole) *whole = file.compare(0, 4, "KSCL") == 0 && file.size() >= 32 && pos == file.size();
    return blocks;
}

// Key files made once per test program: the RSA pairs "priv.pem"/"pub.pem" and
// "other.pem"/"otherpub.pem", and an EC pair "ec.pem"/"ecpub.pem" (a key of the wrong type).
inline std::string test_key(const char* name) {
    static TempDir keys;
    static const bool made = make_rsa_keypair(keys / "priv.pem", keys / "pub.pem") &&
                             make_rsa_keypair(keys / "other.pem", keys / "otherpub.pem") &&
                             run("openssl ecparam -name prime256v1 -genkey -noout -out " + quoted(keys / "ec.pem") +
                                 " 2>/dev/null && openssl ec -in " + quoted(keys / "ec.pem") + " -pubout -out " +
                                 quoted(keys / "ecpub.pem") + " 2>/dev/null") == 0;
    EXPECT_TRUE(made) << "openssl could not make the test keys";
    return keys / name;
}

// The standard output of a shell command (read it through fileno); closing it waits for the
// command, which a reader that stopped early has ended with SIGPIPE.
using PipeFrom = std::unique_ptr<FILE, int (*)(FILE*)>;
inline PipeFrom pipe_from(const std::string& command) { return PipeFrom(::popen(command.c_str(), "r"), &::pclose); }

// "openssl enc" for AES-256-CBC with a raw key and IV (hexadecimal) and no salt.
inline std::string openssl_aes(const std::string& key_hex, const std::string& iv_hex, const std::string& args) {
    return "openssl enc -aes-256-cbc -nosalt -K " + key_hex + " -iv " + iv_hex + " " + args;
}

// Decrypts the RSA PKCS#1 v1.5 block in `file` with "priv.pem"; returns openssl's status.
inline int openssl_rsa_decrypt(const std::string& file, std::string* plain) {
    return run("openssl pkeyutl -decrypt -pkeyopt rsa_padding_mode:pkcs1 -inkey " + quoted(test_key("priv.pem")) +
                   " -in " + quoted(file),
               plain);
}

}  // namespace kstest
