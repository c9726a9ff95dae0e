// The generator that the library calls is this one: a program's own function comes before a shared
// library's. Two programs may make keys at the same time: whoever puts one in place first has made
// it.

#include <tests/support/ready_keys.h>

#include <tests/support/program.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zt_test {

namespace {

constexpr int kBits = 4096;

using Rsa = std::unique_ptr<RSA, decltype(&RSA_free)>;

std::atomic<bool> hand_out{false};
std::atomic<size_t> next_key{0};

int generate_for_real(RSA* rsa, int bits, BIGNUM* exponent, BN_GENCB* progress) {
    static auto* const generator =
        reinterpret_cast<decltype(&RSA_generate_key_ex)>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"));
    return generator(rsa, bits, exponent, progress);
}

Rsa generate() {
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> exponent(BN_new(), BN_free);
    Rsa key(RSA_new(), RSA_free);
    if (BN_set_word(exponent.get(), RSA_F4) != 1 ||
        generate_for_real(key.get(), kBits, exponent.get(), nullptr) != 1)
        abort();
    return key;
}

void write_key(const Rsa& rsa, const std::string& path) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_PKEY_new(), EVP_PKEY_free);
    const std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_file(path.c_str(), "w"), BIO_free);
    if (!file || EVP_PKEY_set1_RSA(key.get(), rsa.get()) != 1 ||
        PEM_write_bio_PKCS8PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                      nullptr) != 1)
        abort();
}

Rsa read_key(size_t n) {
    const std::string text = ready_key(n);
    const std::unique_ptr<BIO, decltype(&BIO_free)> pem(
        BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
    return {PEM_read_bio_RSAPrivateKey(pem.get(), nullptr, nullptr, nullptr), RSA_free};
}

// Gives `to` what `from` is made of.
bool copy_key(const RSA* from, RSA* to) {
    const auto copy = [](const BIGNUM* number) { return BN_dup(number); };
    return RSA_set0_key(to, copy(RSA_get0_n(from)), copy(RSA_get0_e(from)),
                        copy(RSA_get0_d(from))) == 1 &&
           RSA_set0_factors(to, copy(RSA_get0_p(from)), copy(RSA_get0_q(from))) == 1 &&
           RSA_set0_crt_params(to, copy(RSA_get0_dmp1(from)), copy(RSA_get0_dmq1(from)),
                               copy(RSA_get0_iqmp(from))) == 1;
}

}  // namespace

std::string ready_key_path(size_t n) {
    mkdir(READY_KEYS, 0755);
    const std::string path = READY_KEYS "/" + std::to_string(n % kReadyKeys) + ".pem";
    if (access(path.c_str(), R_OK) == 0) return path;
    const std::string unfinished = path + "." + std::to_string(getpid());
    write_key(generate(), unfinished);
    if (link(unfinished.c_str(), path.c_str()) != 0 && errno != EEXIST) abort();
    unlink(unfinished.c_str());
    return path;
}

std::string ready_key(size_t n) { return content_of(ready_key_path(n)); }

ReadyKeys::ReadyKeys() {
    next_key = 0;
    hand_out = true;
}
ReadyKeys::~ReadyKeys() { hand_out = false; }

size_t ReadyKeys::handed_out() const { return next_key; }

}  // namespace zt_test

extern "C" int RSA_generate_key_ex(RSA* rsa, int bits, BIGNUM* exponent, BN_GENCB* progress) {
    if (!zt_test::hand_out || bits != zt_test::kBits)
        return zt_test::generate_for_real(rsa, bits, exponent, progress);
    const zt_test::Rsa ready = zt_test::read_key(zt_test::next_key++);
    return ready && zt_test::copy_key(ready.get(), rsa);
}
