// Running the `ip` tool for a change that is shown first.

#include <ztlib/utils/network.hpp>

#include <ztlib/base/command.h>

#include <cstdio>

namespace zt::network {

namespace {

// The words in one line, in one call, so that other threads' output does not come between.
void print(const char* const* words) {
    char line[256];  // the longest command has two names and a number
    size_t length = 0;
    for (; *words; ++words) {
        const int printed = snprintf(line + length, sizeof line - length, "%s ", *words);
        length = std::min(length + static_cast<size_t>(printed), sizeof line - 1);
    }
    line[length - 1] = '\n';
    fputs(line, stderr);
}

}  // namespace

int print_and_run(const char* const* words) {
    print(words);
    return run_command(words);
}

}  // namespace zt::network
