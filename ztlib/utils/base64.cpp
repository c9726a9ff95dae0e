// The library's own base64.
//
//     bytes        aaaaaabb bbbbcccc ccdddddd
//     characters     A[aaaaaa] A[bbbbbb] A[cccccc] A[dddddd]
//
// Text without line breaks goes through vectors.hpp in blocks. The decoder comes back to the blocks
// whenever it stands between two groups of four, so that text in lines is fast as well.

#include <ztlib/utils/base64.hpp>

#include <ztlib/base/memory.h>
#include <ztlib/buffers/buffer.h>
#include <ztlib/utils/converters.h>
#include <ztlib/utils/vectors.hpp>

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// What a character means to the decoder: a sextet, or one of these.
constexpr uint8_t kSkip = 64;
constexpr uint8_t kEnd = 65;
constexpr uint8_t kInvalid = 66;

constexpr std::array<uint8_t, 256> kMeaning = [] {
    std::array<uint8_t, 256> meaning;
    meaning.fill(kInvalid);
    for (uint8_t i = 0; i < 64; ++i) meaning[static_cast<unsigned char>(kAlphabet[i])] = i;
    meaning['\n'] = kSkip;
    meaning['='] = kEnd;
    return meaning;
}();

uint8_t meaning(char c) { return kMeaning[static_cast<unsigned char>(c)]; }

void encode_group(uint32_t word, char* out) {
    out[0] = kAlphabet[word >> 18 & 63];
    out[1] = kAlphabet[word >> 12 & 63];
    out[2] = kAlphabet[word >> 6 & 63];
    out[3] = kAlphabet[word & 63];
}

void store_group(uint32_t word, unsigned char* out) {
    out[0] = static_cast<unsigned char>(word >> 16);
    out[1] = static_cast<unsigned char>(word >> 8);
    out[2] = static_cast<unsigned char>(word);
}

// False when one of the four is no sextet.
bool decode_group(const char* text, unsigned char* out) {
    const uint32_t a = meaning(text[0]), b = meaning(text[1]);
    const uint32_t c = meaning(text[2]), d = meaning(text[3]);
    if ((a | b | c | d) >= kSkip) return false;
    store_group(a << 18 | b << 12 | c << 6 | d, out);
    return true;
}

// Whole groups up to the first that holds another character. Returns how many characters they are.
size_t decode_groups(const char* text, size_t length, unsigned char* out, bool use_vectors) {
    size_t done = use_vectors ? zt::vectors::base64_decode(text, length, out) : 0;
    while (length - done >= 4 && decode_group(text + done, out + done / 4 * 3)) done += 4;
    return done;
}

}  // namespace

void zt::base64_encode(const unsigned char* data, size_t length, char* out, bool use_vectors) {
    size_t done = use_vectors ? vectors::base64_encode(data, length, out) : 0;
    out += done / 3 * 4;
    for (; length - done >= 3; done += 3, out += 4)
        encode_group(uint32_t{data[done]} << 16 | uint32_t{data[done + 1]} << 8 | data[done + 2],
                     out);

    const size_t remainder = length - done;
    if (remainder == 0) return;
    const uint32_t second = remainder == 2 ? data[done + 1] : 0u;
    encode_group(uint32_t{data[done]} << 16 | second << 8, out);
    std::fill(out + remainder + 1, out + 4, '=');
}

size_t zt::base64_decode(const char* text, size_t length, unsigned char* out, bool use_vectors) {
    unsigned char* const begin = out;
    uint32_t word = 0;
    int pending = 0;  // sextets in word

    for (size_t at = 0; at < length;) {
        if (pending == 0) {
            const size_t done = decode_groups(text + at, length - at, out, use_vectors);
            at += done;
            out += done / 4 * 3;
            if (at == length) break;
        }
        const uint8_t value = meaning(text[at++]);
        if (value == kEnd) break;
        if (value == kInvalid) return kNotBase64;
        if (value == kSkip) continue;
        word = word << 6 | value;
        if (++pending == 4) {
            store_group(word, out);
            out += 3;
            pending = 0;
        }
    }

    if (pending == 3) *out++ = static_cast<unsigned char>(word >> 10);
    if (pending == 3) *out++ = static_cast<unsigned char>(word >> 2);
    if (pending == 2) *out++ = static_cast<unsigned char>(word >> 4);
    return static_cast<size_t>(out - begin);
}

extern "C" char* base64encode_(const void* data, unsigned length, unsigned* out_length) {
    if (out_length) *out_length = 0;
    if (!data && length != 0) return nullptr;

    // A length beyond 32 bits stays one that no buffer has room for.
    const size_t needed = std::min<size_t>(zt::base64_length(length), UINT32_MAX);
    char* text = nullptr;
    unsigned capacity = 0, used = 0;
    if (!buffer_make_room(&text, &capacity, &used, static_cast<unsigned>(needed))) return nullptr;

    zt::base64_encode(static_cast<const unsigned char*>(data), length, text,
                      zt::vectors::available());
    text[needed] = '\0';
    if (out_length) *out_length = static_cast<unsigned>(needed);
    return text;
}

extern "C" unsigned char* base64decode_(const char* text, unsigned length, unsigned* out_length) {
    if (out_length) *out_length = 0;
    if (!text && length != 0) return nullptr;

    const size_t size = size_t{length} + 1;
    zt::Owned<unsigned char> bytes(zt::allocate<unsigned char>(size));
    if (!bytes) return nullptr;
    const size_t count = zt::base64_decode(text, length, bytes.get(), zt::vectors::available());
    if (count == zt::kNotBase64) return nullptr;

    memset(bytes.get() + count, 0, size - count);
    if (out_length) *out_length = static_cast<unsigned>(count);
    return bytes.release();
}
