// Base64 with the vector path as a choice: both paths must give the same, and are tested to.
#pragma once

#include <cstddef>

namespace zt {

constexpr size_t base64_length(size_t bytes) { return (bytes + 2) / 3 * 4; }

// Writes the base64_length(length) characters of the encoding; no terminator.
void base64_encode(const unsigned char* data, size_t length, char* out, bool use_vectors);

constexpr size_t kNotBase64 = static_cast<size_t>(-1);

// Decodes into `out`, which has room for `length` bytes, and returns how many there are, or
// kNotBase64.
size_t base64_decode(const char* text, size_t length, unsigned char* out, bool use_vectors);

}  // namespace zt
