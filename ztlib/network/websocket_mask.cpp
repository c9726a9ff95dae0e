// Bytes are unmasked a block at a time, and the last block ends with the last byte:
//
//     |--block--|--block--|--block--|
//                        |--last---|      loaded before its front is unmasked with the block before
//
// so no byte is left over, whatever the length. The last block's key is turned by where it begins.
//
// Each piece of a payload is unmasked into the copy and then in place, while it is in the nearest
// cache: two streams of stores at a time are slower than one after the other, and so is reading a
// block back that was just stored.

#include <ztlib/network/websocket_mask.hpp>

#include <algorithm>
#include <bit>
#include <cstring>

#if defined(__x86_64__)
#    define ZT_AVX2 __attribute__((target("avx2")))
#else
#    define ZT_AVX2
#endif

// Part of the caller, so that it is compiled for the caller's instructions.
#define ZT_INLINE [[gnu::always_inline]] inline

namespace {

using zt::websocket::kKeyBytes;

constexpr size_t kPiece = 2048;
static_assert(kPiece % kKeyBytes == 0, "each piece begins with the key");

// The key as a block meets it that begins at `position`.
ZT_INLINE uint32_t turned(uint32_t key, size_t position) {
    const int bits = static_cast<int>(8 * (position % kKeyBytes));
    return std::endian::native == std::endian::little ? std::rotr(key, bits) : std::rotl(key, bits);
}

template <size_t Size>
struct Block {
    typedef uint32_t Words __attribute__((vector_size(Size)));
    Words words;

    ZT_INLINE void load_masked(const unsigned char* from, uint32_t key) {
        memcpy(&words, from, Size);
        words ^= key;
    }
    ZT_INLINE void store(unsigned char* to) const { memcpy(to, &words, Size); }
};

// Masks `from` into `to`, which is the same place or does not overlap it. `length` is at least
// Size.
template <size_t Size>
ZT_INLINE void mask_blocks(const unsigned char* from, unsigned char* to, size_t length,
                           uint32_t key) {
    const size_t last_position = length - Size;
    Block<Size> last;
    last.load_masked(from + last_position, turned(key, last_position));
    for (size_t position = 0; position < last_position; position += Size) {
        Block<Size> block;
        block.load_masked(from + position, key);
        block.store(to + position);
    }
    last.store(to + last_position);
}

ZT_INLINE void mask_bytes(const unsigned char* from, unsigned char* to, size_t length,
                          uint32_t key) {
    for (size_t i = 0; i < length; ++i) {
        const uint32_t from_here = turned(key, i);
        unsigned char first;
        memcpy(&first, &from_here, 1);
        to[i] = from[i] ^ first;
    }
}

// By blocks of `Size` bytes where there are so many, else of the next smaller size.
template <size_t Size>
ZT_INLINE void mask(const unsigned char* from, unsigned char* to, size_t length, uint32_t key) {
    if constexpr (Size < kKeyBytes) {
        mask_bytes(from, to, length, key);
    } else {
        if (length >= Size) return mask_blocks<Size>(from, to, length, key);
        mask<Size / 2>(from, to, length, key);
    }
}

ZT_INLINE bool overlap(const unsigned char* a, const unsigned char* b, size_t length) {
    const auto first = reinterpret_cast<uintptr_t>(std::min(a, b));
    const auto second = reinterpret_cast<uintptr_t>(std::max(a, b));
    return second - first < length;
}

template <size_t Size>
ZT_INLINE void unmask_by(unsigned char* bytes, unsigned char* copy, size_t length, uint32_t key) {
    if (overlap(bytes, copy, length)) {
        mask<Size>(bytes, bytes, length, key);
        memmove(copy, bytes, length);
        return;
    }
    for (size_t n; length > 0; bytes += n, copy += n, length -= n) {
        n = std::min(length, kPiece);
        mask<Size>(bytes, copy, n, key);
        mask<Size>(bytes, bytes, n, key);
    }
}

void unmask_narrow(unsigned char* bytes, unsigned char* copy, size_t length, uint32_t key) {
    unmask_by<16>(bytes, copy, length, key);
}

ZT_AVX2 void unmask_wide(unsigned char* bytes, unsigned char* copy, size_t length, uint32_t key) {
    unmask_by<32>(bytes, copy, length, key);
}

}  // namespace

uint32_t zt::websocket::load_key(const unsigned char* bytes) {
    uint32_t key;
    memcpy(&key, bytes, kKeyBytes);
    return key;
}

void zt::websocket::unmask(unsigned char* bytes, unsigned char* copy, size_t length, uint32_t key,
                           bool wide) {
    const auto by_blocks = wide ? unmask_wide : unmask_narrow;
    by_blocks(bytes, copy, length, key);
}
