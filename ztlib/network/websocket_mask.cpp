// Bytes are masked a block at a time, and the last block ends with the last byte:
//
//     |--block--|--block--|--block--|
//                        |--last---|      loaded before its front is masked with the block before
//
// so no byte is left over, whatever the length. The last block's key is turned by where it begins.

#include <ztlib/network/websocket_mask.hpp>

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
using zt::websocket::load_key;

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

// The key as a block meets it that begins at `position`.
ZT_INLINE uint32_t turned(uint32_t key, size_t position) {
    unsigned char twice[2 * kKeyBytes];
    memcpy(twice, &key, kKeyBytes);
    memcpy(twice + kKeyBytes, &key, kKeyBytes);
    return load_key(twice + position % kKeyBytes);
}

// `length` is at least Size.
template <size_t Size>
ZT_INLINE void mask_blocks(unsigned char* bytes, size_t length, uint32_t key) {
    const size_t last_position = length - Size;
    Block<Size> last;
    last.load_masked(bytes + last_position, turned(key, last_position));
    for (size_t position = 0; position < last_position; position += Size) {
        Block<Size> block;
        block.load_masked(bytes + position, key);
        block.store(bytes + position);
    }
    last.store(bytes + last_position);
}

ZT_INLINE void mask_narrow(unsigned char* bytes, size_t length, uint32_t key) {
    if (length >= 16) return mask_blocks<16>(bytes, length, key);
    if (length >= 8) return mask_blocks<8>(bytes, length, key);
    if (length >= 4) return mask_blocks<4>(bytes, length, key);
    unsigned char key_bytes[kKeyBytes];
    memcpy(key_bytes, &key, kKeyBytes);
    for (size_t i = 0; i < length; ++i) bytes[i] ^= key_bytes[i];
}

ZT_AVX2 void mask_wide(unsigned char* bytes, size_t length, uint32_t key) {
    if (length >= 32) return mask_blocks<32>(bytes, length, key);
    mask_narrow(bytes, length, key);
}

}  // namespace

uint32_t zt::websocket::load_key(const unsigned char* bytes) {
    uint32_t key;
    memcpy(&key, bytes, kKeyBytes);
    return key;
}

void zt::websocket::mask(unsigned char* bytes, size_t length, uint32_t key, bool wide) {
    if (wide)
        mask_wide(bytes, length, key);
    else
        mask_narrow(bytes, length, key);
}
