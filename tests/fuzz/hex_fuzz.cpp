// Hexadecimal text of anything: what is written is read again, and each pair is read as strtoul()
// reads it, with and without vectors.

#include <ztlib/utils/converters.h>
#include <ztlib/utils/hex.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void require(bool holds) {
    if (!holds) abort();
}

unsigned char* bytes_of(std::string& text) { return reinterpret_cast<unsigned char*>(text.data()); }

std::string read_simply(const std::string& text) {
    std::string bytes;
    for (size_t at = 0; at + 2 <= text.size(); at += 2)
        bytes += static_cast<char>(strtoul((std::string(text, at, 2) + '\0').c_str(), nullptr, 16));
    return bytes;
}

void check_reading(const std::string& text) {
    const auto length = static_cast<unsigned>(text.size());
    std::string bytes(text.size() / 2, '?');
    const int count = hextobytes(text.data(), length, bytes.data(), length / 2);
    if (length == 0 || length % 2 != 0) {
        require(count == -1);
        return;
    }
    require(count == static_cast<int>(length / 2));
    require(bytes == read_simply(text));
    require(hextobytes(text.data(), length, bytes.data(), length / 2 - 1) == -2);

    std::string by_hand(text.size() / 2, '?');
    zt::hex_decode(text.data(), text.size() / 2, bytes_of(by_hand), false);
    require(by_hand == bytes);
}

void check_round_trip(const std::string& bytes) {
    std::string text(2 * bytes.size() + 1, '?');
    tohexstring(bytes.data(), static_cast<unsigned>(bytes.size()), text.data(), 0);
    require(text.back() == '\0');
    text.pop_back();
    require(text.find_first_not_of("0123456789abcdef") == text.npos);
    require(read_simply(text) == bytes);
    check_reading(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    check_reading(input);
    check_round_trip(input);
    return 0;
}
