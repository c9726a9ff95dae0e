// How both programs read numbers from the command line and what they end with: 0, or one line on
// standard error and 1, or 2 where the command line is wrong.
#pragma once

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace inventory {

constexpr int kFailed = 1;  // exit statuses
constexpr int kMisused = 2;

// Ends the program. getopt_long() has its own line for an option it does not know; the rest comes
// through here.
[[noreturn]] __attribute__((format(printf, 1, 2))) inline void misused(const char* format, ...) {
    fprintf(stderr, "%s: ", program_invocation_name);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
    exit(kMisused);
}

// Says what went wrong; returns the exit status for it.
inline int failed(const std::exception& failure) {
    fprintf(stderr, "%s: %s\n", program_invocation_name, failure.what());
    return kFailed;
}

// The decimal number `text`, which is the argument of `option`.
inline unsigned number_argument(const char* option, const char* text, unsigned least,
                                unsigned most) {
    const char* end = text + strlen(text);
    unsigned number = 0;
    const auto [stopped, error] = std::from_chars(text, end, number);
    if (error != std::errc() || stopped != end || number < least || number > most)
        misused("--%s takes a number from %u to %u, not '%s'", option, least, most, text);
    return number;
}

}  // namespace inventory
