// One look at the text counts the delimiters, so the array is allocated once; a second copies each
// part to memory of its own.

#include <ztlib/utils/split.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr const char* kModule = "./utils/split";

// Where the part that begins at `from` ends: at the next delimiter or at the end of the text.
const char* part_end(const char* from, const char* end, char delimiter) {
    const void* found = memchr(from, delimiter, static_cast<size_t>(end - from));
    return found ? static_cast<const char*>(found) : end;
}

bool allocate_parts(split_result& result, size_t count, zt::Site site) {
    if (count > UINT32_MAX) {
        errno = ENOMEM;
    } else {
        result.parts = zt::allocate_zeroed<char*>(count);
    }
    if (!result.parts) zt::report_call(site, "calloc()");
    return result.parts;
}

bool append_part(split_result& result, const char* from, const char* end, zt::Site site) {
    char* part = zt::duplicate(from, static_cast<size_t>(end - from));
    if (!part) {
        zt::report_call(site, "malloc()");
        return false;
    }
    result.parts[result.count++] = part;
    return true;
}

}  // namespace

extern "C" int split(const char* text, int /*length*/, char delimiter, split_result* result) {
    const zt::Site here{kModule, __func__};
    if (!result) return -1;
    *result = {};

    if (!text) text = "";
    const char* const end = text + strlen(text);
    const auto delimiters = static_cast<size_t>(std::count(text, end, delimiter));
    if (!allocate_parts(*result, delimiters + 1, here)) return -1;

    for (size_t i = 0; i <= delimiters; ++i) {
        const char* const stop = part_end(text, end, delimiter);
        if (!append_part(*result, text, stop, here)) {
            split_free(result, 0);
            return -1;
        }
        text = stop + 1;
    }
    return 0;
}

extern "C" void split_free(split_result* result, int free_self) {
    if (!result) return;
    for (uint32_t i = 0; i < result->count; ++i) free(result->parts[i]);
    free(result->parts);
    if (free_self) {
        free(result);
    } else {
        *result = {};
    }
}
