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

// Sixteen characters at once. Comparing them gives marks: all bits of each that the comparison
// holds for.
using Sixteen = char __attribute__((vector_size(16)));

inline Sixteen load_sixteen(const char* at) {
    Sixteen characters;
    memcpy(&characters, at, sizeof characters);
    return characters;
}

// A bit for each mark, the lowest for the first character.
template <class Marks>
unsigned bits_of(Marks marks) {
#if defined(__SSE2__)
    return static_cast<unsigned>(_mm_movemask_epi8(reinterpret_cast<__m128i>(marks)));
#else
    unsigned bits = 0;
    for (unsigned i = 0; i < sizeof marks; i++) bits |= (marks[i] & 1u) << i;
    return bits;
#endif
}

// Where the first of these characters is, or the text's length.
template <class... Chars>
size_t find_any(std::string_view text, Chars... wanted) {
    size_t at = 0;
    for (; text.size() - at >= sizeof(Sixteen); at += sizeof(Sixteen)) {
        const Sixteen here = load_sixteen(text.data() + at);
        if (const unsigned found = bits_of(((here == wanted) | ...)))
            return at + static_cast<unsigned>(__builtin_ctz(found));
    }
    while (at < text.size() && (... && (text[at] != wanted))) at++;
    return at;
}

}  // namespace zt
