// Hexadecimal text with the vector path as a choice: both paths must give the same, and are tested
// to.
#pragma once

#include <cstddef>

namespace zt {

// Two digits a byte at `out`; no terminator.
void hex_encode(const unsigned char* bytes, size_t length, char* out, bool use_vectors);

// A byte for each pair of characters.
void hex_decode(const char* hex, size_t pairs, unsigned char* out, bool use_vectors);

}  // namespace zt
