// The size checks count a terminator that is written only at the end: a plain character needs two
// bytes of room, and an escape, which writes three, needs no fourth.

#include <ztlib/htmldoc/uri.hpp>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace zt::http {

namespace {

constexpr size_t kEscapeLength = 3;  // %xx
constexpr size_t kRoomForOne = 2;    // a character and the terminator
constexpr uint8_t kFirstEightBit = 0x80;
constexpr uint8_t kNoDigit = 0xff;

constexpr bool is_letter_or_digit(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

constexpr auto kIsPlain = [] {
    std::array<bool, 256> plain{};
    for (unsigned c = 0; c < plain.size(); c++)
        plain[c] =
            is_letter_or_digit(static_cast<unsigned char>(c)) ||
            std::string_view("-_.!~*()'").find(static_cast<char>(c)) != std::string_view::npos;
    return plain;
}();

constexpr auto kDigitValue = [] {
    std::array<uint8_t, 256> value{};
    value.fill(kNoDigit);
    for (uint8_t d = 0; d < 10; d++) value[static_cast<size_t>('0' + d)] = d;
    for (uint8_t d = 10; d < 16; d++)
        value[static_cast<size_t>('a' + d - 10)] = value[static_cast<size_t>('A' + d - 10)] = d;
    return value;
}();

// Every byte from 0x80 on prints as the first two digits of a negative number.
void write_escape(unsigned char c, char* dst) {
    constexpr char kDigits[] = "0123456789abcdef";
    const unsigned printed = c < kFirstEightBit ? c : 0xff;
    dst[0] = '%';
    dst[1] = kDigits[printed >> 4];
    dst[2] = kDigits[printed & 15];
}

// What strtoul() makes of the two characters, which need not be digits.
char read_escape(const char* digits) {
    const uint8_t high = kDigitValue[static_cast<unsigned char>(digits[0])];
    const uint8_t low = kDigitValue[static_cast<unsigned char>(digits[1])];
    if (high != kNoDigit && low != kNoDigit) return static_cast<char>(high << 4 | low);
    const char text[] = {digits[0], digits[1], '\0'};
    return static_cast<char>(strtoul(text, nullptr, 16));
}

void refuse_size(StderrBlock& said, const char* function, int size) {
    std::array<char, 11> digits;  // and a sign, of an int
    const auto end = std::to_chars(digits.begin(), digits.end(), size).ptr;
    said.add_line({function,
                   ": destination buffer to small ",
                   {digits.data(), static_cast<size_t>(end - digits.data())},
                   "\n"});
}

}  // namespace

int encode_uri(std::string_view text, char* dst, int size, const char* function) {
    const size_t room = size > 0 ? static_cast<size_t>(size) : 0;
    size_t written = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = kIsPlain[byte];
        if (written + (plain ? kRoomForOne : kEscapeLength) > room) {
            StderrBlock said;
            refuse_size(said, function, size);
            return -1;
        }
        if (plain) {
            dst[written++] = c;
        } else {
            write_escape(byte, dst + written);
            written += kEscapeLength;
        }
    }
    dst[written] = '\0';
    return static_cast<int>(written);
}

bool decode_uri_piece(std::string_view text, char* dst, int size, const char* function,
                      StderrBlock& said, size_t& written) {
    const size_t room = size > 0 ? static_cast<size_t>(size) : 0;
    written = 0;
    for (size_t i = 0; i < text.size();) {
        if (written + kRoomForOne > room) {
            refuse_size(said, function, size);
            return false;
        }
        if (text[i] != '%') {
            dst[written++] = text[i++];
            continue;
        }
        if (text.size() - i < kEscapeLength) {
            said.flush();
            fprintf(stderr, "decode fail for '%.*s' di=%u\n", static_cast<int>(text.size()),
                    text.data(), static_cast<unsigned>(written));
            return false;
        }
        dst[written++] = read_escape(text.data() + i + 1);
        i += kEscapeLength;
    }
    return true;
}

int decode_uri(std::string_view text, char* dst, int size, const char* function) {
    StderrBlock said;
    size_t written;
    if (!decode_uri_piece(text, dst, size, function, said, written)) return -1;
    dst[written] = '\0';
    return static_cast<int>(written);
}

}  // namespace zt::http
