// Base64 and hexadecimal text of 64 B, 4 KiB and 1 MiB. Ours and GLib's return new memory, which is
// released within the run; the other peers write into a buffer or string that they keep.

#include <ztlib/utils/converters.h>

#include <benchmark/benchmark.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif
#ifdef HAVE_APR
#    include <apr_base64.h>
#    include <apr_escape.h>
#endif
#ifdef HAVE_ABSL
#    include <absl/strings/escaping.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

namespace {

// One size of data in every form, and a buffer for the peers that fill one.
struct Sample {
    std::string bytes, base64, hex;
    mutable std::string room;

    const unsigned char* data() const { return unsigned_of(bytes); }
    unsigned size() const { return static_cast<unsigned>(bytes.size()); }
    unsigned base64_size() const { return static_cast<unsigned>(base64.size()); }
    unsigned hex_size() const { return static_cast<unsigned>(hex.size()); }
    unsigned char* out() const { return reinterpret_cast<unsigned char*>(room.data()); }

    static const unsigned char* unsigned_of(const std::string& text) {
        return reinterpret_cast<const unsigned char*>(text.data());
    }
};

Sample* make_sample(size_t size) {
    auto* sample = new Sample;
    std::mt19937 random(1);
    for (size_t i = 0; i < size; ++i) sample->bytes += static_cast<char>(random());
    sample->room.resize(2 * size + 64);
    const int length =
        EVP_EncodeBlock(sample->out(), sample->data(), static_cast<int>(sample->size()));
    sample->base64 = sample->room.substr(0, static_cast<size_t>(length));
    for (unsigned char byte : sample->bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        sample->hex += digits;
    }
    return sample;
}

// Does the job once; returns what it gave when `keep`, else nothing.
using Job = std::function<std::string(const Sample&, bool keep)>;

std::string kept(const void* result, size_t length, bool keep) {
    benchmark::DoNotOptimize(result);
    benchmark::ClobberMemory();
    return keep ? std::string(static_cast<const char*>(result), length) : std::string();
}

void add(const std::string& job, const Sample& sample, const std::string& expected,
         const char* engine, const Job& run) {
    if (expected.size() && run(sample, true) != expected) {
        fprintf(stderr, "%s/%s gives another result\n", job.c_str(), engine);
        abort();
    }
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), [&sample, run](auto& state) {
        for (auto _ : state) run(sample, false);
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * sample.size());
    });
}

void add_base64_encode(const std::string& job, const Sample& s) {
    add(job, s, s.base64, "ztlib", [](const Sample& in, bool keep) {
        unsigned length = 0;
        char* text = base64encode_(in.data(), in.size(), &length);
        std::string result = kept(text, length, keep);
        free(text);
        return result;
    });
    add(job, s, s.base64, "openssl", [](const Sample& in, bool keep) {
        const int length = EVP_EncodeBlock(in.out(), in.data(), static_cast<int>(in.size()));
        return kept(in.out(), static_cast<size_t>(length), keep);
    });
#ifdef HAVE_GLIB
    add(job, s, s.base64, "glib", [](const Sample& in, bool keep) {
        char* text = g_base64_encode(in.data(), in.size());
        std::string result = kept(text, keep ? strlen(text) : 0, keep);
        g_free(text);
        return result;
    });
#endif
#ifdef HAVE_APR
    add(job, s, s.base64, "apr", [](const Sample& in, bool keep) {
        const int length = apr_base64_encode_binary(reinterpret_cast<char*>(in.out()), in.data(),
                                                    static_cast<int>(in.size()));
        return kept(in.out(), static_cast<size_t>(length) - 1, keep);
    });
#endif
#ifdef HAVE_ABSL
    add(job, s, s.base64, "absl", [](const Sample& in, bool keep) {
        static std::string text;
        absl::Base64Escape(in.bytes, &text);
        return kept(text.data(), text.size(), keep);
    });
#endif
    add(job, s, "", "limit:memcpy", [](const Sample& in, bool keep) {
        memcpy(in.out(), in.base64.data(), in.base64.size());
        return kept(in.out(), 0, keep);
    });
}

void add_base64_decode(const std::string& job, const Sample& s) {
    add(job, s, s.bytes, "ztlib", [](const Sample& in, bool keep) {
        unsigned length = 0;
        unsigned char* bytes = base64decode_(in.base64.data(), in.base64_size(), &length);
        std::string result = kept(bytes, length, keep);
        free(bytes);
        return result;
    });
    add(job, s, s.bytes, "openssl", [](const Sample& in, bool keep) {
        EVP_DecodeBlock(in.out(), Sample::unsigned_of(in.base64),
                        static_cast<int>(in.base64.size()));
        return kept(in.out(), in.size(), keep);  // the padding is left to the caller
    });
#ifdef HAVE_GLIB
    add(job, s, s.bytes, "glib", [](const Sample& in, bool keep) {
        size_t length = 0;
        unsigned char* bytes = g_base64_decode(in.base64.c_str(), &length);
        std::string result = kept(bytes, length, keep);
        g_free(bytes);
        return result;
    });
#endif
#ifdef HAVE_APR
    add(job, s, s.bytes, "apr", [](const Sample& in, bool keep) {
        const int length = apr_base64_decode_binary(in.out(), in.base64.c_str());
        return kept(in.out(), static_cast<size_t>(length), keep);
    });
#endif
#ifdef HAVE_ABSL
    add(job, s, s.bytes, "absl", [](const Sample& in, bool keep) {
        static std::string bytes;
        absl::Base64Unescape(in.base64, &bytes);
        return kept(bytes.data(), bytes.size(), keep);
    });
#endif
    add(job, s, "", "limit:memcpy", [](const Sample& in, bool keep) {
        memcpy(in.out(), in.base64.data(), in.base64.size());
        return kept(in.out(), 0, keep);
    });
}

void add_hex_encode(const std::string& job, const Sample& s) {
    add(job, s, s.hex, "ztlib", [](const Sample& in, bool keep) {
        tohexstring(in.data(), in.size(), reinterpret_cast<char*>(in.out()), 0);
        return kept(in.out(), in.hex.size(), keep);
    });
#ifdef HAVE_APR
    add(job, s, s.hex, "apr", [](const Sample& in, bool keep) {
        apr_escape_hex(reinterpret_cast<char*>(in.out()), in.data(), in.size(), 0, nullptr);
        return kept(in.out(), in.hex.size(), keep);
    });
#endif
#ifdef HAVE_ABSL
    add(job, s, s.hex, "absl", [](const Sample& in, bool keep) {
        const std::string text = absl::BytesToHexString(in.bytes);
        return kept(text.data(), text.size(), keep);
    });
#endif
    add(job, s, "", "limit:memcpy", [](const Sample& in, bool keep) {
        memcpy(in.out(), in.hex.data(), in.hex.size());
        return kept(in.out(), 0, keep);
    });
}

void add_hex_decode(const std::string& job, const Sample& s) {
    add(job, s, s.bytes, "ztlib", [](const Sample& in, bool keep) {
        hextobytes(in.hex.data(), in.hex_size(), in.out(), in.size());
        return kept(in.out(), in.size(), keep);
    });
    add(job, s, s.bytes, "openssl", [](const Sample& in, bool keep) {
        size_t length = 0;
        OPENSSL_hexstr2buf_ex(in.out(), in.room.size(), &length, in.hex.c_str(), '\0');
        return kept(in.out(), length, keep);
    });
#ifdef HAVE_APR
    add(job, s, s.bytes, "apr", [](const Sample& in, bool keep) {
        apr_size_t length = 0;
        apr_unescape_hex(in.out(), in.hex.data(), static_cast<apr_ssize_t>(in.hex.size()), 0,
                         &length);
        return kept(in.out(), in.size(), keep);
    });
#endif
#ifdef HAVE_ABSL
    add(job, s, s.bytes, "absl", [](const Sample& in, bool keep) {
        const std::string bytes = absl::HexStringToBytes(in.hex);
        return kept(bytes.data(), bytes.size(), keep);
    });
#endif
    add(job, s, "", "limit:memcpy", [](const Sample& in, bool keep) {
        memcpy(in.out(), in.hex.data(), in.hex.size());
        return kept(in.out(), 0, keep);
    });
}

const int registered = [] {
    const struct {
        const char* name;
        size_t bytes;
    } sizes[] = {{"64B", 64}, {"4KiB", 4096}, {"1MiB", 1 << 20}};
    for (const auto& size : sizes) {
        const Sample& sample = *make_sample(size.bytes);
        add_base64_encode(std::string("base64_encode/") + size.name, sample);
        add_base64_decode(std::string("base64_decode/") + size.name, sample);
        add_hex_encode(std::string("hex_encode/") + size.name, sample);
        add_hex_decode(std::string("hex_decode/") + size.name, sample);
    }
    return 0;
}();

}  // namespace
