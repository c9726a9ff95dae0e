#include "text.h"

namespace inventory {
namespace {

// Length of the character that `text` begins with; 0 when it is none that may be shown.
size_t character_length(std::string_view text) {
    // By length: the smallest code that needs it. Two bytes begin behind the C1 control characters.
    constexpr char32_t kSmallest[] = {0, 0, 0xa0, 0x800, 0x10000};

    const auto byte = [text](size_t i) -> char32_t {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
    };
    const char32_t lead = byte(0);
    if (lead < 0x80) return lead >= ' ' && lead != 0x7f ? 1 : 0;
    if (lead < 0xc2 || lead > 0xf4) return 0;

    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    char32_t code = lead & (0x7f >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
        code = code << 6 | (byte(i) & 0x3f);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    const bool no_character = (code & 0xfffe) == 0xfffe;
    if (code < kSmallest[length] || code > 0x10ffff || surrogate || no_character) return 0;
    return length;
}

bool begins_character(char c) { return (c & 0xc0) != 0x80; }

}  // namespace

bool is_plain(std::string_view text, size_t max_bytes) {
    if (text.empty() || text.size() > max_bytes) return false;
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string make_plain(std::string_view text, size_t max_bytes) {
    std::string plain;
    while (!text.empty()) {
        const size_t length = character_length(text);
        const std::string_view shown = length ? text.substr(0, length) : "?";
        if (plain.size() + shown.size() > max_bytes) break;
        plain += shown;
        text.remove_prefix(length ? length : 1);
    }
    return plain;
}

size_t width(std::string_view text) {
    size_t characters = 0;
    for (const char c : text) characters += begins_character(c);
    return characters;
}

std::string cut(std::string_view text, size_t characters) {
    size_t end = 0;
    for (; end < text.size(); ++end) {
        if (begins_character(text[end]) && characters-- == 0) break;
    }
    return std::string(text.substr(0, end));
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '&':
                result += "&amp;";
                break;
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '"':
                result += "&quot;";
                break;
            case '\'':
                result += "&apos;";
                break;
            default:
                result += c;
        }
    }
    return result;
}

}  // namespace inventory
