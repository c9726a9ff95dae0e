// Digests of 64 B, 4 KiB and 1 MiB, beside the two fast ways that OpenSSL itself offers: a context
// on the stack, and a context and an algorithm that are kept. What looks the algorithm up for each
// digest is shown. The text forms are measured beside the fastest with a loop that makes digits.

#include <ztlib/sutils/hash.h>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <string_view>

namespace {

constexpr size_t kRoom = 2 * EVP_MAX_MD_SIZE + 1;

using Job = std::function<void(const std::string& message, char* out)>;

void hex_loop(const unsigned char* bytes, size_t size, char* out) {
    for (size_t i = 0; i < size; ++i) {
        *out++ = "0123456789abcdef"[bytes[i] >> 4];
        *out++ = "0123456789abcdef"[bytes[i] & 15];
    }
    *out = '\0';
}

template <class Context, auto init, auto update, auto final>
void on_stack(const std::string& message, unsigned char* out) {
    Context context;
    init(&context);
    update(&context, message.data(), message.size());
    final(out, &context);
}

constexpr auto sha256_on_stack = on_stack<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final>;
constexpr auto sha512_on_stack = on_stack<SHA512_CTX, SHA512_Init, SHA512_Update, SHA512_Final>;

struct Algorithm {
    const char* name;
    size_t size;
    int (*hash)(const void*, int, void*, int);
    int (*hash_string)(const void*, int, char*, int);
    void (*stack)(const std::string&, unsigned char*);
    unsigned char* (*one_shot)(const unsigned char*, size_t, unsigned char*);
};

const Algorithm kAlgorithms[] = {
    {"SHA256", SHA256_DIGEST_LENGTH, sha256_hash, sha256_hash_string, sha256_on_stack, SHA256},
    {"SHA512", SHA512_DIGEST_LENGTH, sha512_hash, sha512_hash_string, sha512_on_stack, SHA512},
};

unsigned char* unsigned_of(char* bytes) { return reinterpret_cast<unsigned char*>(bytes); }
const unsigned char* unsigned_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

// Each engine's result is compared with the first one's before anything is timed.
void add(const std::string& job, const char* engine, const std::string& message,
         std::string& expected, const Job& run) {
    char out[kRoom] = {};
    run(message, out);
    if (expected.empty()) expected.assign(out, sizeof out);
    if (expected != std::string_view(out, sizeof out)) {
        fprintf(stderr, "%s/%s gives another result\n", job.c_str(), engine);
        abort();
    }
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), [&message, run](auto& state) {
        char digest[kRoom];
        for (auto _ : state) {
            run(message, digest);
            benchmark::DoNotOptimize(digest);
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * message.size()));
    });
}

void add_raw(const Algorithm& algorithm, const std::string& job, const std::string& message) {
    std::string expected;
    add(job, "openssl-stack", message, expected,
        [&](const std::string& in, char* out) { algorithm.stack(in, unsigned_of(out)); });
    add(job, "ztlib", message, expected, [&](const std::string& in, char* out) {
        algorithm.hash(in.data(), static_cast<int>(in.size()), out, kRoom);
    });
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    const EVP_MD* const type = EVP_MD_fetch(nullptr, algorithm.name, nullptr);
    add(job, "openssl-kept", message, expected, [=](const std::string& in, char* out) {
        EVP_DigestInit_ex(context, type, nullptr);
        EVP_DigestUpdate(context, in.data(), in.size());
        EVP_DigestFinal_ex(context, unsigned_of(out), nullptr);
    });
    add(job, "shown:one-shot", message, expected, [&](const std::string& in, char* out) {
        algorithm.one_shot(unsigned_of(in), in.size(), unsigned_of(out));
    });
}

void add_text(const Algorithm& algorithm, const std::string& job, const std::string& message) {
    std::string expected;
    add(job, "openssl-stack", message, expected, [&](const std::string& in, char* out) {
        unsigned char digest[EVP_MAX_MD_SIZE];
        algorithm.stack(in, digest);
        hex_loop(digest, algorithm.size, out);
    });
    add(job, "ztlib", message, expected, [&](const std::string& in, char* out) {
        algorithm.hash_string(in.data(), static_cast<int>(in.size()), out, kRoom);
    });
}

std::string* make_message(size_t size) {
    auto* message = new std::string;
    std::mt19937 random(1);
    for (size_t i = 0; i < size; ++i) *message += static_cast<char>(random());
    return message;
}

const bool registered = [] {
    const struct {
        const char* name;
        size_t bytes;
    } sizes[] = {{"64B", 64}, {"4KiB", 4096}, {"1MiB", 1 << 20}};
    for (const auto& size : sizes) {
        const std::string& message = *make_message(size.bytes);
        for (const Algorithm& algorithm : kAlgorithms) {
            const std::string job = std::string(algorithm.name) + "/" + size.name;
            add_raw(algorithm, job, message);
            add_text(algorithm, "text_of_" + job, message);
        }
    }
    return true;
}();

}  // namespace
