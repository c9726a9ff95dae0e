// Keys of 4,096 bits that were made with the build: making one takes seconds. In an executable with
// ready_keys.cpp, OpenSSL's generator hands these out, one after the other.
#pragma once

#include <openssl/evp.h>

#include <string>

namespace zt_test {

constexpr int kReadyKeys = 3;

// The PEM file of a ready key, and the key, which lives as long as the process.
std::string ready_key_path(int number);
EVP_PKEY* ready_key(int number);

// How many keys were asked for so far.
int keys_made();

// The real generator while it lives.
class RealGenerator {
  public:
    RealGenerator();
    ~RealGenerator();
    RealGenerator(const RealGenerator&) = delete;
    RealGenerator& operator=(const RealGenerator&) = delete;
};

}  // namespace zt_test
