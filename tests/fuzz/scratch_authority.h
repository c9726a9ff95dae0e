// An authority for fuzz targets: in a directory of its own, with a key that is small and made at
// once.
#pragma once

#include <ztlib/sutils/openssl_ca.h>

#include <openssl/rsa.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include <dlfcn.h>

constexpr int kFuzzKeyBits = 1024;

// In the place of libcrypto's.
extern "C" int RSA_generate_key_ex(RSA* key, int, BIGNUM* exponent, BN_GENCB* progress) {
    using Generator = int (*)(RSA*, int, BIGNUM*, BN_GENCB*);
    const auto real = reinterpret_cast<Generator>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"));
    return real(key, kFuzzKeyBits, exponent, progress);
}

inline openssl_ca* scratch_authority() {
    static openssl_ca* const ca = [] {
        std::string directory = std::filesystem::temp_directory_path() / "ztlib-fuzz-XXXXXX";
        if (!mkdtemp(directory.data())) abort();
        openssl_ca* made = openssl_ca_create(directory.c_str());
        std::filesystem::remove_all(directory);  // everything that is needed is in memory
        if (!made) abort();
        return made;
    }();
    return ca;
}
