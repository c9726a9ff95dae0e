// Base64 of 24 bytes, in one vector (after W. Mula and D. Lemire, "Faster Base64 Encoding and
// Decoding using AVX2 Instructions", 2018):
//
//     bytes     aaaaaabb bbbbcccc ccdddddd             12 bytes in each half of the vector
//     shuffle   bbbbcccc aaaaaabb ccdddddd bbbbcccc
//     multiply  00aaaaaa 00bbbbbb 00cccccc 00dddddd    each sextet by a shift of its own
//     add       the distance from sextet to character, looked up by the sextet's range
//
// and back: look up by both halves of a character whether it is in the alphabet, subtract the
// distance, and multiply and add the sextets together.

#include <ztlib/utils/vectors.hpp>

#include <cstdint>

#if defined(__x86_64__)

#    include <immintrin.h>

#    define ZT_AVX2 __attribute__((target("avx2")))

namespace {

// The same 16 bytes in both halves, where shuffles look things up.
ZT_AVX2 inline __m256i both(__m128i half) { return _mm256_broadcastsi128_si256(half); }

ZT_AVX2 inline __m128i load16(const void* at) {
    return _mm_loadu_si128(static_cast<const __m128i*>(at));
}
ZT_AVX2 inline __m256i load32(const void* at) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(at));
}
ZT_AVX2 inline void store16(void* at, __m128i value) {
    _mm_storeu_si128(static_cast<__m128i*>(at), value);
}
ZT_AVX2 inline void store32(void* at, __m256i value) {
    _mm256_storeu_si256(static_cast<__m256i*>(at), value);
}

// Each byte that is at most `most`, as 0xFF.
ZT_AVX2 inline __m256i at_most(__m256i value, char most) {
    return _mm256_cmpeq_epi8(_mm256_min_epu8(value, _mm256_set1_epi8(most)), value);
}

// 24 bytes: 12 at the front of the low half, 12 at the back of the high one.
ZT_AVX2 inline __m256i load24(const unsigned char* at) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load16(at)), load16(at + 8), 1);
}

// What load24() gives -> 32 sextets.
ZT_AVX2 inline __m256i split_sextets(__m256i bytes) {
    const __m256i order = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                                           5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14);
    const __m256i words = _mm256_shuffle_epi8(bytes, order);
    const __m256i a_and_c = _mm256_mulhi_epu16(
        _mm256_and_si256(words, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    const __m256i b_and_d = _mm256_mullo_epi16(
        _mm256_and_si256(words, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    return _mm256_or_si256(a_and_c, b_and_d);
}

ZT_AVX2 inline __m256i to_characters(__m256i sextets) {
    // By range: 0 for a-z, 1 to 10 for the digits, 11 and 12 for the signs, 13 for A-Z.
    constexpr char kSmall = 'a' - 26, kDigit = '0' - 52, kPlus = '+' - 62, kSlash = '/' - 63;
    const __m256i distances =
        both(_mm_setr_epi8(kSmall, kDigit, kDigit, kDigit, kDigit, kDigit, kDigit, kDigit, kDigit,
                           kDigit, kDigit, kPlus, kSlash, 'A', 0, 0));
    const __m256i is_capital = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), sextets);
    const __m256i range = _mm256_or_si256(_mm256_subs_epu8(sextets, _mm256_set1_epi8(51)),
                                          _mm256_and_si256(is_capital, _mm256_set1_epi8(13)));
    return _mm256_add_epi8(sextets, _mm256_shuffle_epi8(distances, range));
}

// False when a character is outside the alphabet.
ZT_AVX2 inline bool to_sextets(__m256i characters, __m256i& sextets) {
    // A character is outside when the entries of its two halves have a bit in common.
    const __m256i by_low_half = both(_mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11,
                                                   0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A));
    const __m256i by_high_half =
        both(_mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10,
                           0x10, 0x10, 0x10, 0x10));
    // By high half; '/' takes the entry in front of its own.
    const __m256i distances =
        both(_mm_setr_epi8(0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0));

    const __m256i slash = _mm256_set1_epi8('/');  // its code, 0x2F, is a mask for a half as well
    const __m256i low = _mm256_and_si256(characters, slash);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(characters, 4), slash);
    const __m256i is_slash = _mm256_cmpeq_epi8(characters, slash);
    sextets = _mm256_add_epi8(characters,
                              _mm256_shuffle_epi8(distances, _mm256_add_epi8(is_slash, high)));
    return _mm256_testz_si256(_mm256_shuffle_epi8(by_low_half, low),
                              _mm256_shuffle_epi8(by_high_half, high));
}

// 32 sextets -> 24 bytes at the front.
ZT_AVX2 inline __m256i join_sextets(__m256i sextets) {
    const __m256i pairs = _mm256_maddubs_epi16(sextets, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i order =
        both(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    return _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(groups, order),
                                       _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
}

// False when a character is no hexadecimal digit.
ZT_AVX2 inline bool to_nibbles(__m256i characters, __m256i& nibbles) {
    const __m256i digit = _mm256_sub_epi8(characters, _mm256_set1_epi8('0'));
    const __m256i small = _mm256_or_si256(characters, _mm256_set1_epi8('a' - 'A'));
    const __m256i letter = _mm256_sub_epi8(small, _mm256_set1_epi8('a'));
    const __m256i is_digit = at_most(digit, 9);
    const __m256i is_letter = at_most(letter, 5);
    nibbles = _mm256_blendv_epi8(_mm256_add_epi8(letter, _mm256_set1_epi8(10)), digit, is_digit);
    return _mm256_movemask_epi8(_mm256_or_si256(is_digit, is_letter)) == -1;
}

constexpr size_t kBase64Bytes = 24;  // in a block, and as characters:
constexpr size_t kBase64Characters = 32;

ZT_AVX2 inline void encode_base64_block(const unsigned char* data, char* out) {
    store32(out, to_characters(split_sextets(load24(data))));
}

// Writes 32 bytes, of which the first 24 count.
ZT_AVX2 inline bool decode_base64_block(const char* text, unsigned char* out) {
    __m256i sextets;
    if (!to_sextets(load32(text), sextets)) return false;
    store32(out, join_sextets(sextets));
    return true;
}

ZT_AVX2 inline void encode_hex_block(const unsigned char* bytes, char* out) {
    const __m256i digits = both(load16("0123456789abcdef"));
    const __m256i words = _mm256_cvtepu8_epi16(load16(bytes));
    const __m256i high = _mm256_srli_epi16(words, 4);
    const __m256i low = _mm256_slli_epi16(words, 8);
    const __m256i nibbles = _mm256_and_si256(_mm256_or_si256(high, low), _mm256_set1_epi8(0x0F));
    store32(out, _mm256_shuffle_epi8(digits, nibbles));
}

}  // namespace

bool zt::vectors::available() { return __builtin_cpu_supports("avx2"); }

ZT_AVX2 size_t zt::vectors::base64_encode(const unsigned char* data, size_t length, char* out) {
    size_t done = 0;
    for (; length - done >= kBase64Bytes; done += kBase64Bytes)
        encode_base64_block(data + done, out + done / 3 * 4);

    const size_t whole = length / 3 * 3;
    if (done == 0 || done == whole) return done;
    encode_base64_block(data + whole - kBase64Bytes, out + (whole - kBase64Bytes) / 3 * 4);
    return whole;
}

ZT_AVX2 size_t zt::vectors::base64_decode(const char* text, size_t length, unsigned char* out) {
    size_t done = 0;
    for (; length - done >= kBase64Characters; done += kBase64Characters)
        if (!decode_base64_block(text + done, out + done / 4 * 3)) return done;
    if (done == 0) return 0;

    // The last group may be padded, then it is the caller's.
    size_t end = length / 4 * 4;
    for (int tries = 0; tries < 2 && end > done; ++tries, end -= 4) {
        const size_t begin = end - kBase64Characters;
        if (decode_base64_block(text + begin, out + begin / 4 * 3)) return end;
    }
    return done;
}

ZT_AVX2 size_t zt::vectors::hex_encode(const unsigned char* bytes, size_t length, char* out) {
    size_t done = 0;
    for (; length - done >= kHexPairs; done += kHexPairs)
        encode_hex_block(bytes + done, out + 2 * done);
    if (done == 0 || done == length) return done;
    encode_hex_block(bytes + length - kHexPairs, out + 2 * (length - kHexPairs));
    return length;
}

ZT_AVX2 size_t zt::vectors::hex_decode(const char* hex, size_t pairs, unsigned char* out) {
    size_t done = 0;
    for (; pairs - done >= kHexPairs; done += kHexPairs) {
        __m256i nibbles;
        if (!to_nibbles(load32(hex + 2 * done), nibbles)) break;
        const __m256i words = _mm256_maddubs_epi16(nibbles, _mm256_set1_epi16(0x0110));
        const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(words, words), 0b1000);
        store16(out + done, _mm256_castsi256_si128(bytes));
    }
    return done;
}

#else

bool zt::vectors::available() { return false; }
size_t zt::vectors::base64_encode(const unsigned char*, size_t, char*) { return 0; }
size_t zt::vectors::base64_decode(const char*, size_t, unsigned char*) { return 0; }
size_t zt::vectors::hex_encode(const unsigned char*, size_t, char*) { return 0; }
size_t zt::vectors::hex_decode(const char*, size_t, unsigned char*) { return 0; }

#endif
