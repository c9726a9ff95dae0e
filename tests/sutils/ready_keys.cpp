#include <tests/sutils/ready_keys.h>

#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <array>
#include <atomic>
#include <cstdlib>

#include <dlfcn.h>

namespace {

std::atomic<int> made{0};
std::atomic<int> real_generators{0};

using Generator = int (*)(RSA*, int, BIGNUM*, BN_GENCB*);

BIGNUM* copy(const BIGNUM* number) { return number ? BN_dup(number) : nullptr; }

// Whoever asked owns what it got: the numbers are copied. 0 when memory is out.
int give_copy(RSA* to, const RSA* from) {
    const BIGNUM *n, *e, *d, *p, *q, *dp, *dq, *qi;
    RSA_get0_key(from, &n, &e, &d);
    RSA_get0_factors(from, &p, &q);
    RSA_get0_crt_params(from, &dp, &dq, &qi);
    const std::array copies{copy(n), copy(e),  copy(d),  copy(p),
                            copy(q), copy(dp), copy(dq), copy(qi)};
    for (const BIGNUM* number : copies)
        if (!number) {
            for (BIGNUM* other : copies) BN_free(other);
            return 0;
        }
    return RSA_set0_key(to, copies[0], copies[1], copies[2]) == 1 &&
           RSA_set0_factors(to, copies[3], copies[4]) == 1 &&
           RSA_set0_crt_params(to, copies[5], copies[6], copies[7]) == 1;
}

EVP_PKEY* load(int number) {
    const std::string path = zt_test::ready_key_path(number);
    BIO* file = BIO_new_file(path.c_str(), "r");
    EVP_PKEY* key = file ? PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(file);
    // The key keeps its RSA form once it was asked for.
    if (!key || !EVP_PKEY_get0_RSA(key)) abort();
    return key;
}

}  // namespace

namespace zt_test {

std::string ready_key_path(int number) {
    return READY_KEYS "/key" + std::to_string(number) + ".pem";
}

EVP_PKEY* ready_key(int number) {
    static const std::array<EVP_PKEY*, kReadyKeys> keys{load(0), load(1), load(2)};
    return keys[static_cast<size_t>(number)];
}

int keys_made() { return made; }

RealGenerator::RealGenerator() { ++real_generators; }
RealGenerator::~RealGenerator() { --real_generators; }

}  // namespace zt_test

// In the place of libcrypto's.
extern "C" int RSA_generate_key_ex(RSA* key, int bits, BIGNUM* exponent, BN_GENCB* progress) {
    const int number = made++ % zt_test::kReadyKeys;
    if (real_generators > 0) {
        const auto real = reinterpret_cast<Generator>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"));
        return real(key, bits, exponent, progress);
    }
    if (bits != 4096 || !BN_is_word(exponent, RSA_F4)) return 0;
    const RSA* const ready = EVP_PKEY_get0_RSA(zt_test::ready_key(number));  // null: memory is out
    return ready ? give_copy(key, ready) : 0;
}
