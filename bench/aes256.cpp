// AES-256-CBC of 64 B, 4 KiB and 1 MiB, beside OpenSSL's two ways with a context that is kept and
// keyed once. All return the message in new memory, which is released within the run; what the
// memory costs shows against the limit, which writes into a buffer that is kept.

#include <ztlib/sutils/aes256.h>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

namespace {

const unsigned char kKey[AES256_KEY_SIZE] = {1, 2, 3};
const unsigned char kIv[AES256_IV_SIZE] = {4, 5, 6};

enum class Direction { encrypt, decrypt };

EVP_CIPHER_CTX* make_cipher(Direction direction) {
    EVP_CIPHER_CTX* const cipher = EVP_CIPHER_CTX_new();
    EVP_CipherInit_ex(cipher, EVP_aes_256_cbc(), nullptr, kKey, kIv,
                      direction == Direction::encrypt);
    return cipher;
}

const unsigned char* unsigned_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// Writes a message's result to `out`, which has room for a block more than the message; returns its
// length.
int update_and_final(EVP_CIPHER_CTX* cipher, const std::string& in, unsigned char* out) {
    int updated = 0, finished = 0;
    EVP_CipherInit_ex(cipher, nullptr, nullptr, nullptr, nullptr, -1);
    EVP_CipherUpdate(cipher, out, &updated, unsigned_of(in), static_cast<int>(in.size()));
    EVP_CipherFinal_ex(cipher, out + updated, &finished);
    return updated + finished;
}

// Pads by hand and takes the padding for right, which is the least that can be done.
int whole_blocks(EVP_CIPHER_CTX* cipher, Direction direction, const std::string& in,
                 unsigned char* out) {
    EVP_CipherInit_ex(cipher, nullptr, nullptr, nullptr, nullptr, -1);
    const size_t whole = in.size() & ~size_t{15};
    EVP_Cipher(cipher, out, unsigned_of(in), static_cast<unsigned>(whole));
    if (direction == Direction::decrypt) return static_cast<int>(whole) - out[whole - 1];
    const size_t rest = in.size() - whole;
    memcpy(out + whole, in.data() + whole, rest);
    memset(out + in.size(), static_cast<int>(16 - rest), 16 - rest);
    EVP_Cipher(cipher, out + whole, out + whole, 16);
    return static_cast<int>(whole) + 16;
}

// Returns a new message and its length.
using Job = std::function<unsigned char*(const std::string& in, int& length)>;

void add(const std::string& job, const char* engine, const std::string& in,
         const std::string& expected, const Job& run) {
    int length = 0;
    unsigned char* const out = run(in, length);
    if (std::string(reinterpret_cast<char*>(out), static_cast<size_t>(length)) != expected) {
        fprintf(stderr, "%s/%s gives another result\n", job.c_str(), engine);
        abort();
    }
    free(out);
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), [&in, run](auto& state) {
        for (auto _ : state) {
            int result = 0;
            unsigned char* const message = run(in, result);
            benchmark::DoNotOptimize(message);
            benchmark::ClobberMemory();
            free(message);
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
    });
}

unsigned char* room_for(const std::string& in) {
    return static_cast<unsigned char*>(malloc(in.size() + 17));
}

void add_all(const std::string& job, Direction direction, const std::string& in,
             const std::string& expected) {
    EVP_CIPHER_CTX* const cipher = make_cipher(direction);
    auto* const operation = direction == Direction::encrypt ? aes256_encrypt : aes256_decrypt;
    void* const context = aes256_ctx_init(kIv, kKey);

    add(job, "openssl-blocks", in, expected, [=](const std::string& message, int& length) {
        unsigned char* const out = room_for(message);
        length = whole_blocks(cipher, direction, message, out);
        return out;
    });
    add(job, "ztlib", in, expected, [=](const std::string& message, int& length) {
        length = static_cast<int>(message.size());
        return operation(context, message.data(), &length);
    });
    add(job, "openssl-update", in, expected, [=](const std::string& message, int& length) {
        unsigned char* const out = room_for(message);
        length = update_and_final(cipher, message, out);
        return out;
    });
    benchmark::RegisterBenchmark((job + "/limit:kept-buffer").c_str(), [=, &in](auto& state) {
        unsigned char* const out = room_for(in);
        for (auto _ : state) {
            benchmark::DoNotOptimize(whole_blocks(cipher, direction, in, out));
            benchmark::ClobberMemory();
        }
        free(out);
    });
}

std::string* make_message(size_t size) {
    auto* message = new std::string;
    std::mt19937 random(1);
    for (size_t i = 0; i < size; ++i) *message += static_cast<char>(random());
    return message;
}

std::string* encrypted(const std::string& message) {
    auto* ciphertext = new std::string(message.size() + 16, '\0');
    EVP_CIPHER_CTX* const cipher = make_cipher(Direction::encrypt);
    update_and_final(cipher, message, reinterpret_cast<unsigned char*>(ciphertext->data()));
    EVP_CIPHER_CTX_free(cipher);
    return ciphertext;
}

const bool registered = [] {
    const struct {
        const char* name;
        size_t bytes;
    } sizes[] = {{"64B", 64}, {"4KiB", 4096}, {"1MiB", 1 << 20}};
    for (const auto& size : sizes) {
        const std::string& plaintext = *make_message(size.bytes);
        const std::string& ciphertext = *encrypted(plaintext);
        add_all(std::string("aes256_encrypt/") + size.name, Direction::encrypt, plaintext,
                ciphertext);
        add_all(std::string("aes256_decrypt/") + size.name, Direction::decrypt, ciphertext,
                plaintext);
    }
    return true;
}();

}  // namespace
