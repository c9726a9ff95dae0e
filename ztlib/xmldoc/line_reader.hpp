// Reads a file line by line, for documents that are parsed from one.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>

namespace zt::xml {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, CloseFile>;

constexpr size_t kLineRoom = 1500;  // of one read from a file, terminator included

// Reads the next line, its end included, or as much of it as the room takes; it is terminated. How
// many bytes it has: 0 at the end of the file, and where reading fails. What fgets() does, except
// that an interrupted read is taken up again where it was: fgets() would drop the part of the line
// that it has.
inline size_t read_line(FILE* file, char* line) {
    size_t length = 0;
    while (length < kLineRoom - 1) {
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
    return length;
}

}  // namespace zt::xml
