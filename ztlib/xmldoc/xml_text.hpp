// What both XML documents do with characters: the classes that end names and fill gaps, and the
// steps that change a text in place. Each step passes over its text once.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>
#include <type_traits>

namespace zt::xml {

// --- character classes --------------------------------------------------------------------------

constexpr uint8_t kWhite = 1;
constexpr uint8_t kEndsName = 2;
constexpr uint8_t kAmpersand = 4;

// Classes of the codes up to 255; a wider character has none. The terminator ends a name.
constexpr auto kClasses = [] {
    std::array<uint8_t, 256> classes{};
    for (unsigned char c : {' ', '\r', '\n', '\t'}) classes[c] |= kWhite;
    for (unsigned char c : {' ', '\r', '\n', '/', '>', '=', '\0'}) classes[c] |= kEndsName;
    classes['&'] |= kAmpersand;
    return classes;
}();

template <class Char>
uint8_t classes_of(Char c) {
    const auto code = static_cast<std::make_unsigned_t<Char>>(c);
    return sizeof(Char) == 1 || code < kClasses.size() ? kClasses[code] : 0;
}

template <class Char>
bool has_class(Char c, uint8_t wanted) {
    return classes_of(c) & wanted;
}

template <class Char>
const Char* skip_white(const Char* text) {
    while (has_class(*text, kWhite)) ++text;
    return text;
}

template <class Char>
const Char* skip_name(const Char* text) {
    while (!has_class(*text, kEndsName)) ++text;
    return text;
}

// The first `wanted` in [from, end), or null.
template <class Char>
const Char* find(const Char* from, const Char* end, Char wanted) {
    return std::char_traits<Char>::find(from, static_cast<size_t>(end - from), wanted);
}

// What stands in front of the first `stop`.
template <class Char>
struct Run {
    const Char* end;       // where the stop is; null where there is none
    uint8_t may_hold = 0;  // classes that may occur in front of it; the others do not
};

// Most runs are short: they are looked at here, with the classes on the way, and only what is left
// of a long one is searched, of which the classes are not told.
template <class Char>
Run<Char> run_until(Char stop, const Char* from, const Char* end) {
    constexpr ptrdiff_t kShort = 48;
    const Char* const near = from + std::min(end - from, kShort);
    uint8_t classes = 0;
    for (; from != near; ++from) {
        if (*from == stop) return {from, classes};
        classes |= classes_of(*from);
    }
    return {find(from, end, stop), UINT8_MAX};
}

// --- shifting and normalisation -----------------------------------------------------------------

template <class Char>
void shift_left(Char* text, size_t count) {
    const size_t length = std::char_traits<Char>::length(text);
    count = std::min(count, length);
    memmove(text, text + count, (length - count + 1) * sizeof(Char));
}

// CR LF, and each CR, LF and TAB on its own, becomes one space.
template <class Char>
void white_to_spaces(Char* value) {
    Char* to = value;
    for (const Char* from = value; *from; ++from) {
        if (from[0] == '\r' && from[1] == '\n') ++from;
        *to++ = has_class(*from, kWhite) ? Char(' ') : *from;
    }
    *to = 0;
}

// Spaces at both ends go, each run of them inside becomes one.
template <class Char>
void squeeze_spaces(Char* value) {
    Char* to = value;
    bool gap = false;  // spaces since the last character that was kept
    for (const Char* from = value; *from; ++from) {
        if (*from == ' ') {
            gap = to != value;
            continue;
        }
        if (gap) *to++ = ' ';
        gap = false;
        *to++ = *from;
    }
    *to = 0;
}

// --- entities -----------------------------------------------------------------------------------

constexpr int kEntityUnended = -2;
constexpr int kEntityTooLong = -3;
constexpr ptrdiff_t kEntityBodyLimit = 10;  // characters between '&' and ';'

struct NamedEntity {
    std::string_view name;
    char character;
};
// In the order in which they are tried; a body that only begins with a name counts as that name.
constexpr NamedEntity kNamedEntities[] = {
    {"amp", '&'}, {"apos", '\''}, {"quot", '"'}, {"lt", '<'}, {"gt", '>'}};

inline long read_number(const char* digits, int base) { return strtol(digits, nullptr, base); }
inline long read_number(const wchar_t* digits, int base) { return wcstol(digits, nullptr, base); }

template <class Char>
struct Entity {
    int error;       // 0, or why the text cannot be decoded from here on
    size_t length;   // characters that it takes up
    Char character;  // what it stands for
};

// The entity at `mark`, which is an '&'.
template <class Char>
Entity<Char> read_entity(const Char* mark, const Char* end) {
    const Char* const body = mark + 1;
    const ptrdiff_t in_reach = std::min(end - body, kEntityBodyLimit + 1);
    const Char* const semicolon = find(body, body + in_reach, Char(';'));
    if (!semicolon) return {find(body, end, Char(';')) ? kEntityTooLong : kEntityUnended, 0, 0};

    const auto body_starts_with = [&](std::string_view name) {
        return static_cast<size_t>(semicolon - body) >= name.size() &&
               std::equal(name.begin(), name.end(), body);
    };
    for (const NamedEntity& named : kNamedEntities)
        if (body_starts_with(named.name))
            return {0, 1 + named.name.size() + 1, Char(named.character)};
    if (*body == '#') {
        const long number = body[1] == 'x' ? read_number(body + 2, 16) : read_number(body + 1, 10);
        return {0, static_cast<size_t>(semicolon + 1 - mark), static_cast<Char>(number)};
    }
    return {0, 1, Char('&')};
}

// Decodes a text of this length in place. 0, or the error of the entity that stopped it; the text
// from there on stands as it was.
template <class Char>
int decode_entities(Char* text, size_t length) {
    const Char* const end = text + length;
    const Char* from = text;
    Char* to = text;
    const auto keep_until = [&](const Char* until) {
        const auto kept = static_cast<size_t>(until - from);
        memmove(to, from, kept * sizeof(Char));
        to += kept;
        from = until;
    };

    int error = 0;
    while (const Char* const mark = find(from, end, Char('&'))) {
        keep_until(mark);
        const Entity<Char> entity = read_entity(mark, end);
        if ((error = entity.error) != 0) break;
        *to++ = entity.character;
        from += entity.length;
    }
    keep_until(end);
    *to = 0;
    return error;
}

}  // namespace zt::xml
