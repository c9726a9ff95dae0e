// Reads a file line by line, for documents that are parsed from one.
#pragma once

#include <cerrno>
#include <cstdio>

namespace zt::xml {

// The next line, its end included, or as much of it as fits; always terminated. False at the end of
// the file, and where reading fails. What fgets() does, except that an interrupted read is taken up
// again where it was: fgets() would drop the part of the line that it has.
template <size_t room>
bool read_line(FILE* file, char (&line)[room]) {
    size_t length = 0;
    while (length < room - 1) {
        const int c = getc_unlocked(file);
        if (c != EOF) {
            line[length++] = static_cast<char>(c);
            if (c == '\n') break;
        } else if (ferror_unlocked(file) && errno == EINTR) {
            clearerr_unlocked(file);
        } else {
            break;
        }
    }
    line[length] = '\0';
    return length > 0;
}

}  // namespace zt::xml
