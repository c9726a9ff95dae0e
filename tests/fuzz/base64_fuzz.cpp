// Base64 of anything: what is encoded comes back, and decoding does what a reader that takes one
// character after the other does, with and without vectors.

#include <ztlib/utils/converters.h>
#include <ztlib/utils/base64.hpp>
#include <ztlib/utils/vectors.hpp>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace {

void require(bool holds) {
    if (!holds) abort();
}

std::optional<std::string> decoded_simply(const std::string& text) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bits, bytes;
    for (char c : text) {
        if (c == '=') break;
        if (c == '\n') continue;
        const size_t sextet = alphabet.find(c);
        if (sextet == alphabet.npos) return std::nullopt;
        for (int bit = 5; bit >= 0; --bit) bits += static_cast<char>(sextet >> bit & 1);
    }
    for (size_t at = 0; at + 8 <= bits.size(); at += 8) {
        unsigned byte = 0;
        for (size_t bit = 0; bit < 8; ++bit)
            byte = byte << 1 | static_cast<unsigned>(bits[at + bit]);
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

void check_decoding(const std::string& text) {
    const auto expected = decoded_simply(text);
    unsigned length = 1;
    unsigned char* bytes = base64decode_(text.data(), static_cast<unsigned>(text.size()), &length);
    require(expected.has_value() == (bytes != nullptr));
    require(length == (expected ? expected->size() : 0));
    if (bytes) require(memcmp(bytes, expected->c_str(), length + 1) == 0);
    free(bytes);

    std::string by_hand(text.size(), '\0');
    const size_t count = zt::base64_decode(text.data(), text.size(),
                                           reinterpret_cast<unsigned char*>(by_hand.data()), false);
    require(count == (expected ? expected->size() : zt::kNotBase64));
    if (expected) require(by_hand.compare(0, count, *expected) == 0);
}

void check_round_trip(const std::string& bytes) {
    unsigned length = 0;
    char* text = base64encode_(bytes.data(), static_cast<unsigned>(bytes.size()), &length);
    require(text && strlen(text) == length && length == (bytes.size() + 2) / 3 * 4);
    require(decoded_simply(text) == bytes);
    check_decoding(text);
    free(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    check_decoding(input);
    check_round_trip(input);
    return 0;
}
