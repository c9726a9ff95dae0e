// A file that is there whole or not at all.
#pragma once

#include <climits>
#include <cstddef>

#include <sys/types.h>

namespace zt {

// The modes of what the library makes: nobody else ever reads a private key.
constexpr mode_t kPrivateFile = 0600;
constexpr mode_t kPublicFile = 0644;

// Collects its content under a name of its own in the path's directory, with `mode` from the first
// byte, and takes the path's place when it is complete. Until then, and for ever where a step
// fails, whatever is at the path stays as it is. Every step is false, with errno set, when it
// failed.
//
//     NewFile file(path, kPrivateFile);
//     const bool made = file && file.write(bytes, size) && file.put_in_place();
class NewFile {
  public:
    // `path` is the caller's until the end of the scope.
    NewFile(const char* path, mode_t mode);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    explicit operator bool() const { return descriptor_ >= 0; }
    bool write(const void* bytes, size_t size);
    // The content reaches the disk before the path names it.
    bool put_in_place();
    // The same, but false with EEXIST where something is at the path already.
    bool take_free_place();

  private:
    const char* path_;
    int descriptor_;
    char temporary_[PATH_MAX];
};

}  // namespace zt
