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
// Links are followed: the place is the file that the path leads to. A directory (EISDIR), anything
// else that is not a regular file, and a link that leads to nothing (EINVAL) are never replaced.
//
//     NewFile file(path, kPrivateFile);
//     const bool made = file && file.write(bytes, size) && file.put_in_place();
class NewFile {
  public:
    NewFile(const char* path, mode_t mode);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    explicit operator bool() const { return descriptor_ >= 0; }
    bool write(const void* bytes, size_t size);
    // Brings the content to the disk, for a put_in_place() that has to be short.
    bool flush();
    // The content reaches the disk before the path names it.
    bool put_in_place();
    // Brings the name to the disk too, after put_in_place().
    bool flush_name() const;
    // Deletes what is at the path, after put_in_place(); errno stays as it is.
    void take_away();
    // The same, but false with EEXIST where something is at the path already.
    bool take_free_place();

  private:
    int descriptor_;
    bool is_flushed_ = false;
    char place_[PATH_MAX];
    char temporary_[PATH_MAX];
};

}  // namespace zt
