// A digest is OpenSSL's init, one update over all the data, and final, on a context that lies on
// the stack.
//
// These calls are deprecated since OpenSSL 3.0, and stand here alone: what replaces them keeps its
// state on the heap and looks the algorithm up by name, which takes longer than the digest of a
// short message and can fail.

#include <ztlib/sutils/hash.h>

#include <ztlib/utils/converters.h>

#include <openssl/sha.h>

#include <cstddef>
#include <cstring>

namespace {

struct Sha256 {
    static constexpr int kSize = SHA256_DIGEST_LENGTH;
    using Context = SHA256_CTX;
    static constexpr auto init = SHA256_Init;
    static constexpr auto update = SHA256_Update;
    static constexpr auto final = SHA256_Final;
};

struct Sha512 {
    static constexpr int kSize = SHA512_DIGEST_LENGTH;
    using Context = SHA512_CTX;
    static constexpr auto init = SHA512_Init;
    static constexpr auto update = SHA512_Update;
    static constexpr auto final = SHA512_Final;
};

// Zeroes what nobody reads again, which the compiler would leave out.
template <class T>
void cleanse(T& object) {
    memset(&object, 0, sizeof object);
    __asm__ volatile("" : : "r"(&object) : "memory");
}

bool is_data(const void* data, int length) { return length == 0 || (length > 0 && data); }

template <class Algorithm>
void digest(const void* data, int length, unsigned char* out) {
    typename Algorithm::Context context;
    Algorithm::init(&context);
    Algorithm::update(&context, data, static_cast<size_t>(length));
    Algorithm::final(out, &context);
    cleanse(context);
}

template <class Algorithm>
int hash(const void* data, int length, void* out, int out_size) {
    if (!out || out_size < Algorithm::kSize || !is_data(data, length)) return -1;
    digest<Algorithm>(data, length, static_cast<unsigned char*>(out));
    return 0;
}

template <class Algorithm>
int hash_string(const void* data, int length, char* out, int out_size) {
    if (!out || out_size < 2 * Algorithm::kSize || !is_data(data, length)) return -1;
    unsigned char bytes[Algorithm::kSize];
    digest<Algorithm>(data, length, bytes);
    tohexstring(bytes, sizeof bytes, out, static_cast<unsigned>(out_size));
    return 0;
}

}  // namespace

extern "C" int sha256_hash(const void* data, int length, void* out, int out_size) {
    return hash<Sha256>(data, length, out, out_size);
}

extern "C" int sha256_hash_string(const void* data, int length, char* out, int out_size) {
    return hash_string<Sha256>(data, length, out, out_size);
}

extern "C" int sha512_hash(const void* data, int length, void* out, int out_size) {
    return hash<Sha512>(data, length, out, out_size);
}

extern "C" int sha512_hash_string(const void* data, int length, char* out, int out_size) {
    return hash_string<Sha512>(data, length, out, out_size);
}
