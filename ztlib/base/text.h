// Views of text without the checks of the standard ones, which throw.
#pragma once

#include <algorithm>
#include <string_view>

namespace zt {

// The first `n` characters, or all where there are fewer (npos too).
inline std::string_view front(std::string_view text, size_t n) {
    return {text.data(), std::min(n, text.size())};
}

}  // namespace zt
