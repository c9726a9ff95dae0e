// What a formatted text will need, guessed from its format and arguments without printing it. The
// two formatted appends grow by this guess; they are one step over two character types.
//
//     "%s"             the length of the string that it names
//     any other '%'    32, each of the two in "%%" too
//
// To find a string's argument, the ones before it are stepped over exactly as printf() does. Where
// printf() would do so in a way of its own (numbered arguments, conversions that a program
// registered), no argument is looked at from there on, and a "%s" counts 32 like the others.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <cwchar>

namespace zt {

constexpr size_t kPerConversion = 32;

namespace format_estimate {

struct Arguments {
    explicit Arguments(va_list started) { va_copy(list, started); }
    ~Arguments() { va_end(list); }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    // Integers up to 64 bits and pointers take one slot of the same kind, on every LP64 machine.
    void skip_slot() { static_cast<void>(va_arg(list, void*)); }
    void skip_double() { static_cast<void>(va_arg(list, double)); }
    void skip_long_double() { static_cast<void>(va_arg(list, long double)); }

    va_list list;
    bool in_step = true;  // with printf(); false: the list is not read any more
};

inline const char* find_percent(const char* at) { return strchr(at, '%'); }
inline const wchar_t* find_percent(const wchar_t* at) { return wcschr(at, L'%'); }
inline size_t length_of(const char* text) { return strlen(text); }
inline size_t length_of(const wchar_t* text) { return wcslen(text); }

template <class Char>
bool is_one_of(Char c, const char* set) {
    for (; *set; ++set)
        if (c == static_cast<Char>(*set)) return true;
    return false;
}

// A width or a precision: digits, or '*' and its argument.
template <class Char>
const Char* skip_field(const Char* at, Arguments& arguments) {
    if (*at == '*') {
        arguments.skip_slot();
        ++at;
    }
    while (is_one_of(*at, "0123456789")) ++at;
    if (*at == '$') arguments.in_step = false;
    return at;
}

// Steps over the conversion that begins with the '%' at `at`, and over its arguments.
template <class Char>
const Char* skip_conversion(const Char* at, Arguments& arguments) {
    ++at;
    while (is_one_of(*at, "-+ #0'I")) ++at;
    at = skip_field(at, arguments);
    if (*at == '.') at = skip_field(at + 1, arguments);

    bool is_long_double = false;
    for (; is_one_of(*at, "hlLqjzZt"); ++at)
        is_long_double |= is_one_of(*at, "Lq") || (at[0] == 'l' && at[1] == 'l');

    if (!*at) return at;
    if (is_one_of(*at, "bBdiouxXcCsSpn"))
        arguments.skip_slot();
    else if (is_one_of(*at, "aAeEfFgG"))
        is_long_double ? arguments.skip_long_double() : arguments.skip_double();
    else if (!is_one_of(*at, "%m"))
        arguments.in_step = false;
    return at + 1;
}

}  // namespace format_estimate

// The sum over all '%' of the format. The list stays where it was.
template <class Char>
size_t estimate_conversions(const Char* format, va_list list) {
    using namespace format_estimate;

    Arguments arguments(list);
    size_t estimate = 0;
    for (const Char* at = format; (at = find_percent(at));) {
        if (at[1] == 's') {
            const Char* text = arguments.in_step ? va_arg(arguments.list, const Char*) : nullptr;
            estimate += text ? length_of(text) : kPerConversion;
            at += 2;
        } else {
            const Char* end = skip_conversion(at, arguments);
            estimate += kPerConversion * static_cast<size_t>(std::count(at, end, Char{'%'}));
            at = end;
        }
    }
    return estimate;
}

}  // namespace zt
