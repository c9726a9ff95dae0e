// File descriptors with an owner.
#pragma once

#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <unistd.h>

namespace zt {

// Closes its descriptor at the end of the scope. Negative: none.
class Descriptor {
  public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) close(descriptor_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    explicit operator bool() const { return descriptor_ >= 0; }
    int get() const { return descriptor_; }

    int release() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }

  private:
    int descriptor_;
};

constexpr int kFirstFreeDescriptor = 3;  // above the standard streams

// The descriptor itself, or the same file under another number where that is 0, which records take
// for "none". `duplicate`: F_DUPFD or F_DUPFD_CLOEXEC. Negative, with errno set, when there is no
// number left, and for a negative one.
inline int above_zero(int descriptor, int duplicate) {
    if (descriptor != 0) return descriptor;
    const int moved = fcntl(descriptor, duplicate, kFirstFreeDescriptor);
    const int error = errno;
    close(descriptor);
    errno = error;
    return moved;
}

// Reads `size` bytes, however they come and whatever signal arrives. False at the end of the file
// and where a read fails.
inline bool read_all(int descriptor, void* destination, size_t size) {
    char* at = static_cast<char*>(destination);
    while (size > 0) {
        const ssize_t count = read(descriptor, at, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

// Writes all `size` bytes; false where a write fails.
inline bool write_all(int descriptor, const void* source, size_t size) {
    const char* at = static_cast<const char*>(source);
    while (size > 0) {
        const ssize_t count = write(descriptor, at, size);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

}  // namespace zt
