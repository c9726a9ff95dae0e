// The mask of WebSocket frames: byte i XOR byte i % 4 of the key.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zt::websocket {

constexpr size_t kKeyBytes = 4;

// The key's bytes in their order, as they stand in a frame.
uint32_t load_key(const unsigned char* bytes);

// Unmasks `bytes` in place and copies them to `copy`, which may overlap them in any way; what
// `copy` is given then stands. `wide`: with the 32-byte vectors of <ztlib/utils/vectors.hpp>, which
// must be available; both ways give the same.
void unmask(unsigned char* bytes, unsigned char* copy, size_t length, uint32_t key, bool wide);

}  // namespace zt::websocket
