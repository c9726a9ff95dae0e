// Counts of a wide buffer that went below 0. A count that wrapped can't be indexed with. It is
// recognised by being larger than any array can be, and taken for what it stands for: a wrapped
// length for no text, a wrapped capacity for no room.
#pragma once

#include <ztlib/buffers/wbuffer.h>

#include <cstdint>

namespace zt {

constexpr uint64_t kMostWideCharacters = PTRDIFF_MAX / sizeof(wchar_t);

inline bool has_wrapped(uint64_t count) { return count > kMostWideCharacters; }

inline uint64_t text_length(const wbuffer& b) { return has_wrapped(b.length) ? 0 : b.length; }

}  // namespace zt
