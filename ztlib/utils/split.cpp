// The array grows as parts are found. One that is allocated in its full size before the first part,
// and released after the last, is a large block among small ones: malloc then gathers all the small
// ones it has kept, each time, and a split into a thousand parts takes almost twice as long.

#include <ztlib/utils/split.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char* kModule = "./utils/split";

constexpr size_t kFirstRoom = 16;  // parts; most lines have fewer

// Where the part that begins at `from` ends: at the next delimiter or at the end of the text.
const char* part_end(const char* from, const char* end, char delimiter) {
    const void* found = memchr(from, delimiter, static_cast<size_t>(end - from));
    return found ? static_cast<const char*>(found) : end;
}

bool report_no_array(zt::Site site) {
    zt::report_call(site, "calloc()");
    return false;
}

// The parts under construction, in an array with some room to spare.
bool begin(split_result& result, zt::Site site) {
    result.parts = zt::allocate_zeroed<char*>(kFirstRoom);
    return result.parts || report_no_array(site);
}

bool make_room(split_result& result, size_t& room, zt::Site site) {
    if (result.count < room) return true;
    if (room > UINT32_MAX / 2) {
        errno = ENOMEM;
        return report_no_array(site);
    }
    void* const larger = realloc(result.parts, 2 * room * sizeof(char*));
    if (!larger) return report_no_array(site);
    result.parts = static_cast<char**>(larger);
    room *= 2;
    return true;
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
    size_t room = kFirstRoom;
    if (!begin(*result, here)) return -1;
    for (bool is_last = false; !is_last;) {
        const char* const stop = part_end(text, end, delimiter);
        if (!make_room(*result, room, here) || !append_part(*result, text, stop, here)) {
            split_free(result, 0);
            return -1;
        }
        is_last = stop == end;
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
