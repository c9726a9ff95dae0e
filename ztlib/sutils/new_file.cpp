// The name of an unfinished file, in the directory of the path:
//
//     .new-<process id>-<counter>

#include <ztlib/sutils/new_file.hpp>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/text.h>

#include <atomic>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The path's beginning up to its last slash, which is included.
std::string_view directory_of(std::string_view path) {
    return zt::front(path, path.rfind('/') + 1);
}

unsigned next_number() {
    static std::atomic<unsigned> last{0};
    return ++last;
}

bool name_temporary(const char* path, char* name, size_t room) {
    const std::string_view directory = directory_of(path);
    if (directory.size() >= room) return false;
    const int length = snprintf(name, room, "%.*s.new-%d-%u", static_cast<int>(directory.size()),
                                directory.data(), static_cast<int>(getpid()), next_number());
    return length >= 0 && static_cast<size_t>(length) < room;
}

}  // namespace

// A process of the same id, long gone or in another container, may have left a file of that name.
zt::NewFile::NewFile(const char* path, mode_t mode) : path_(path), descriptor_(-1) {
    do {
        if (!name_temporary(path, temporary_, sizeof temporary_)) {
            errno = ENAMETOOLONG;
            return;
        }
        descriptor_ = open(temporary_, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (descriptor_ < 0 && errno == EEXIST);
}

zt::NewFile::~NewFile() {
    if (descriptor_ < 0) return;
    const int error = errno;
    close(descriptor_);
    unlink(temporary_);
    errno = error;
}

bool zt::NewFile::write(const void* bytes, size_t size) {
    return write_all(descriptor_, bytes, size);
}

bool zt::NewFile::put_in_place() {
    if (fsync(descriptor_) != 0 || rename(temporary_, path_) != 0) return false;
    close(descriptor_);
    descriptor_ = -1;
    return true;
}

// The path names the file besides its temporary name, which goes at the end.
bool zt::NewFile::take_free_place() {
    return fsync(descriptor_) == 0 && link(temporary_, path_) == 0;
}
