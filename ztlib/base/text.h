// Views of text without the checks of the standard ones, which throw.
#pragma once

#include <algorithm>
#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#    include <emmintrin.h>
#endif

namespace zt {

// The first `n` characters, or all where there are fewer (npos too).
inline std::string_view front(std::string_view text, size_t n) {
    return {text.data(), std::min(n, text.size())};
}

// Sixteen characters at once.
class Sixteen {
  public:
    static constexpr size_t kCount = 16;

    explicit Sixteen(const char* at) { memcpy(&characters_, at, kCount); }

    // A bit for each that is `c`, the lowest for the first.
    unsigned where(char c) const {
#if defined(__SSE2__)
        return static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmpeq_epi8(characters_, _mm_set1_epi8(c))));
#else
        unsigned bits = 0;
        for (size_t i = 0; i < kCount; i++) bits |= unsigned{characters_[i] == c} << i;
        return bits;
#endif
    }

  private:
#if defined(__SSE2__)
    __m128i characters_;
#else
    char characters_[kCount];
#endif
};

// Where the first of these characters is, or the text's length.
template <class... Chars>
size_t find_any(std::string_view text, Chars... wanted) {
    size_t at = 0;
    for (; text.size() - at >= Sixteen::kCount; at += Sixteen::kCount) {
        const Sixteen here(text.data() + at);
        if (const unsigned found = (here.where(wanted) | ...))
            return at + static_cast<unsigned>(__builtin_ctz(found));
    }
    while (at < text.size() && (... && (text[at] != wanted))) at++;
    return at;
}

}  // namespace zt
