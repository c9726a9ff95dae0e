// An identifier's file of any content: the record is changed by success alone, and what was read
// comes back from a file of its own.

#include <ztlib/utils/uid.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

int file = -1;
std::string path;

bool same(const uid& a, const uid& b) { return memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (file < 0) {
        file = memfd_create("identifier", 0);
        path = "/proc/self/fd/" + std::to_string(file);
    }
    check(ftruncate(file, 0) == 0);
    check(pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

    uid untouched;
    memset(&untouched, 0xEE, sizeof untouched);
    uid read = untouched;
    const int result = uid_from_file(path.c_str(), &read);
    check(result == 0 || result == -3);
    if (result != 0) {
        check(same(read, untouched));
        return 0;
    }

    char text[UID_TEXT_SIZE];
    check(strlen(uid2str_t(&read, text, sizeof text)) == UID_TEXT_SIZE - 1);
    check(uid_to_file(path.c_str(), &read) == 0);
    uid again = untouched;
    check(uid_from_file(path.c_str(), &again) == 0);
    check(same(read, again));
    return 0;
}
