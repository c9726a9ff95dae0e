// RSA-OAEP with a key of 4,096 bits, beside OpenSSL's bare calls with the same key.

#include <ztlib/sutils/openssl_rsa.h>

#include <benchmark/benchmark.h>

#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kBits = 4096;
constexpr char kText[] = "a message of some length, a session key for instance";

// What openssl_rsa_open() makes, without the files.
openssl_rsa* make_holder() {
    auto* holder = static_cast<openssl_rsa*>(calloc(1, sizeof(openssl_rsa)));
    BIGNUM* exponent = BN_new();
    holder->private_key = RSA_new();
    if (BN_set_word(exponent, RSA_F4) != 1 ||
        RSA_generate_key_ex(holder->private_key, kBits, exponent, nullptr) != 1)
        abort();
    BN_free(exponent);
    holder->public_key = RSAPublicKey_dup(holder->private_key);
    holder->public_size = holder->private_size = kBits / 8;
    return holder;
}

openssl_rsa& holder() {
    static openssl_rsa* const made = make_holder();
    return *made;
}

const unsigned char* text() { return reinterpret_cast<const unsigned char*>(kText); }

unsigned char* bare_encrypt() {
    auto* const out = static_cast<unsigned char*>(malloc(kBits / 8));
    if (RSA_public_encrypt(sizeof kText, text(), out, holder().public_key,
                           RSA_PKCS1_OAEP_PADDING) != kBits / 8)
        abort();
    return out;
}

unsigned char* bare_decrypt(const unsigned char* ciphertext, int& length) {
    auto* const out = static_cast<unsigned char*>(malloc(kBits / 8));
    length = RSA_private_decrypt(kBits / 8, ciphertext, out, holder().private_key,
                                 RSA_PKCS1_OAEP_PADDING);
    return out;
}

unsigned char* our_encrypt() { return openssl_rsa_public_encrypt(&holder(), kText, sizeof kText); }

unsigned char* our_decrypt(const unsigned char* ciphertext, int& length) {
    unsigned char* out = nullptr;
    openssl_rsa_private_decrypt(&holder(), ciphertext, kBits / 8, &out, &length);
    return out;
}

// Each engine decrypts what the other encrypted before anything is timed.
void check() {
    for (const bool ours_first : {true, false}) {
        unsigned char* const ciphertext = ours_first ? our_encrypt() : bare_encrypt();
        int length = 0;
        unsigned char* const out =
            ours_first ? bare_decrypt(ciphertext, length) : our_decrypt(ciphertext, length);
        if (length != static_cast<int>(sizeof kText) || memcmp(out, kText, sizeof kText) != 0) {
            fputs("oaep: the engines do not understand each other\n", stderr);
            abort();
        }
        free(out);
        free(ciphertext);
    }
}

void encrypt(benchmark::State& state, unsigned char* (*engine)()) {
    check();
    for (auto _ : state) {
        unsigned char* const out = engine();
        benchmark::DoNotOptimize(out);
        free(out);
    }
}

void decrypt(benchmark::State& state, unsigned char* (*engine)(const unsigned char*, int&)) {
    check();
    unsigned char* const ciphertext = bare_encrypt();
    for (auto _ : state) {
        int length = 0;
        unsigned char* const out = engine(ciphertext, length);
        benchmark::DoNotOptimize(out);
        free(out);
    }
    free(ciphertext);
}

const bool registered = [] {
    benchmark::RegisterBenchmark("oaep_encrypt/openssl", encrypt, bare_encrypt);
    benchmark::RegisterBenchmark("oaep_encrypt/ztlib", encrypt, our_encrypt);
    benchmark::RegisterBenchmark("oaep_decrypt/openssl", decrypt, bare_decrypt);
    benchmark::RegisterBenchmark("oaep_decrypt/ztlib", decrypt, our_decrypt);
    return true;
}();

}  // namespace
