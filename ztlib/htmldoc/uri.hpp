// Percent-encoding, as both document families speak it. What does not fit is said on standard error
// under the name of the exported function that was called.
#pragma once

#include <ztlib/base/stderr_block.h>

#include <cstddef>
#include <string_view>

namespace zt::http {

// Encodes into `dst`, which has room for size + 1 bytes. Returns the length of the terminated text,
// or -1 with `dst` not terminated.
int encode_uri(std::string_view text, char* dst, int size, const char* function);

// Decodes into `dst`, which has room for `size` bytes. Returns as encode_uri().
int decode_uri(std::string_view text, char* dst, int size, const char* function);

// Decodes into `dst` and counts in `written`; never writes at `size` or beyond, nor a terminator.
// False when the text was not decoded to its end; the reason is in `said`.
bool decode_uri_piece(std::string_view text, char* dst, int size, const char* function,
                      StderrBlock& said, size_t& written);

}  // namespace zt::http
