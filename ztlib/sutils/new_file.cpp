// The name of an unfinished file, in the directory of the path:
//
//     .new-<process id>-<counter>

#include <ztlib/sutils/new_file.hpp>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/text.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
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

bool is_replaceable(const char* place) {
    struct stat status;
    if (stat(place, &status) != 0) return false;
    if (S_ISREG(status.st_mode)) return true;
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return false;
}

// Where the path leads to; the path itself where nothing is there.
bool find_place(const char* path, char (&place)[PATH_MAX]) {
    if (realpath(path, place)) return is_replaceable(place);
    struct stat status;
    if (errno != ENOENT) return false;
    if (lstat(path, &status) == 0) {
        errno = EINVAL;
        return false;
    }
    strcpy(place, path);  // realpath() has found it short enough
    return true;
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
zt::NewFile::NewFile(const char* path, mode_t mode) : descriptor_(-1) {
    if (!find_place(path, place_)) return;
    do {
        if (!name_temporary(place_, temporary_, sizeof temporary_)) {
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

bool zt::NewFile::flush() {
    if (!is_flushed_) is_flushed_ = fsync(descriptor_) == 0;
    return is_flushed_;
}

bool zt::NewFile::put_in_place() {
    if (!flush() || rename(temporary_, place_) != 0) return false;
    close(descriptor_);
    descriptor_ = -1;
    return true;
}

// A directory that may not be read, or that its file system cannot flush, is left to the system.
bool zt::NewFile::flush_name() const {
    char directory[PATH_MAX];
    const std::string_view name = directory_of(place_);
    snprintf(directory, sizeof directory, "%.*s", static_cast<int>(name.size()), name.data());
    const Descriptor opened(
        open(name.empty() ? "." : directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return !opened || fsync(opened.get()) == 0 || errno == EINVAL;
}

void zt::NewFile::take_away() {
    const int error = errno;
    unlink(place_);
    errno = error;
}

// The path names the file besides its temporary name, which goes at the end.
bool zt::NewFile::take_free_place() { return flush() && link(temporary_, place_) == 0; }
