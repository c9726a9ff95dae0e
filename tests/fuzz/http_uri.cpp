// Percent-decoding into every size, and back: nothing is written beyond it, and what was encoded
// from seven-bit text decodes to itself.

#include <ztlib/htmldoc/htmldoc.h>

#include <tests/fuzz/quiet.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string shown = text.c_str();  // up to a zero byte

    const size_t room = data[0];
    std::vector<char> decoded(std::max<size_t>(room, 1));
    const int n = _htmldoc_uri_decode(text.c_str(), decoded.data(), static_cast<int>(room));
    check(n < static_cast<int>(decoded.size()));
    if (n >= 0) check(decoded[static_cast<size_t>(n)] == '\0');

    std::vector<char> tight(room + 1);
    check(_htmldoc_uri_encode(text.c_str(), tight.data(), static_cast<int>(room)) <=
          static_cast<int>(room));

    std::vector<char> encoded(3 * shown.size() + 2);
    const int length =
        _htmldoc_uri_encode(shown.c_str(), encoded.data(), static_cast<int>(encoded.size() - 1));
    check(length >= static_cast<int>(shown.size()));
    std::vector<char> back(shown.size() + 2);
    check(_htmldoc_uri_decode(encoded.data(), back.data(), static_cast<int>(back.size())) ==
          static_cast<int>(shown.size()));
    for (size_t i = 0; i < shown.size(); i++)
        check(back[i] == (static_cast<uint8_t>(shown[i]) < 0x80 ? shown[i] : '\xff'));
    return 0;
}
