// The block steps of base64 and hexadecimal text on 32-byte vectors.
//
// Each step works from the front through as many whole blocks as it can and returns how much of its
// input it has done; the caller does the rest. Callers ask available() first.
#pragma once

#include <cstddef>

namespace zt::vectors {

// True where this machine has the instructions (AVX2).
bool available();

constexpr size_t kHexPairs = 16;  // in a block

// Returns the number of bytes encoded, a multiple of 3.
size_t base64_encode(const unsigned char* data, size_t length, char* out);

// Stops in front of the first block that has a character outside the alphabet. `out` has room for
// `length` bytes, and what lies behind the decoded ones is written over. Returns the number of
// characters decoded, a multiple of 4.
size_t base64_decode(const char* text, size_t length, unsigned char* out);

// Returns the number of bytes encoded.
size_t hex_encode(const unsigned char* bytes, size_t length, char* out);

// Stops in front of the first block that has a character other than a digit. Returns the number of
// pairs decoded.
size_t hex_decode(const char* hex, size_t pairs, unsigned char* out);

}  // namespace zt::vectors
