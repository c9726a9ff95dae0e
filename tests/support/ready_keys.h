// RSA keys of 4,096 bits that are there already, for tests that want many: making one takes
// seconds.
//
//     const ReadyKeys ready;                       // the library's generator hands these out,
//     openssl_rsa_create_private_key(&holder);     // ready_key(0) first
//
// The keys are made when a test first asks for them, and kept in the build directory.
#pragma once

#include <cstddef>
#include <string>

namespace zt_test {

constexpr size_t kReadyKeys = 3;

// The n-th key (they come round again after kReadyKeys): its file, and what that holds, unencrypted
// PKCS#8.
std::string ready_key_path(size_t n);
std::string ready_key(size_t n);

// While one lives, RSA_generate_key_ex() hands out the ready keys in turn to whoever wants 4,096
// bits.
class ReadyKeys {
  public:
    ReadyKeys();
    ~ReadyKeys();
    ReadyKeys(const ReadyKeys&) = delete;
    ReadyKeys& operator=(const ReadyKeys&) = delete;

    // How many were handed out.
    size_t handed_out() const;
};

}  // namespace zt_test
