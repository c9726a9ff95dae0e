// Paths are walked as text, from the first component to the last; trees from the top, each
// directory emptied by a call of its own. A tree's depth is bounded by the longest entry path that
// is removed.

#include <ztlib/utils/path.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

enum RemoveResult {
    kRemoved = 0,
    kPathFailed = -1,
    kUnlinkFailed = -2,
    kOpenFailed = -3,
    kEntryFailed = -4,
    kEntryUnlinkFailed = -5,
};

constexpr mode_t kDirectoryMode = 0775;

// A path under construction, with a slash in front of each component but the first of a relative
// one.
class PathText {
  public:
    explicit PathText(bool absolute) : absolute_(absolute) {}

    // False, and nothing appended, where there is no room.
    bool append(std::string_view component) {
        const bool slash = absolute_ || length_ > 0;
        if (component.size() + slash > PATH_CREATE_LENGTH - length_) return false;
        if (slash) text_[length_++] = '/';
        memcpy(text_ + length_, component.data(), component.size());
        length_ += component.size();
        text_[length_] = '\0';
        return true;
    }

    const char* c_str() const { return text_; }

  private:
    bool absolute_;
    size_t length_ = 0;
    char text_[PATH_CREATE_LENGTH + 1] = "";
};

// Takes the next component off the front of `path`; empty when there is none left.
std::string_view take_component(const char*& path) {
    path += strspn(path, "/");
    const std::string_view component(path, strcspn(path, "/"));
    path += component.size();
    return component;
}

bool fits(const char* path) {
    PathText text(*path == '/');
    for (;;) {
        const std::string_view component = take_component(path);
        if (component.empty()) return true;
        if (!text.append(component)) return false;
    }
}

bool make_directory(const char* path) {
    fprintf(stderr, "mkdir: %s\n", path);
    return mkdir(path, kDirectoryMode) == 0;
}

int failed(const char* call, const char* path, int result) {
    fprintf(stderr, "%s(%s): %s\n", call, path, strerror(errno));
    return result;
}

struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// A directory that is being removed, and those above it.
struct Level {
    const struct stat& status;
    const Level* above;

    bool includes(const struct stat& other) const {
        for (const Level* level = this; level; level = level->above) {
            if (level->status.st_dev == other.st_dev && level->status.st_ino == other.st_ino)
                return true;
        }
        return false;
    }
};

int remove_directory(const char* path, const Level& level);

bool is_dot_or_dots(const char* name) { return !strcmp(name, ".") || !strcmp(name, ".."); }

int remove_entry(const char* path, const char* name, const Level& level) {
    struct stat status;
    if (stat(path, &status) != 0) return failed("stat", path, kEntryFailed);
    if (!S_ISDIR(status.st_mode))
        return unlink(path) == 0 ? kRemoved : failed("unlink", path, kEntryUnlinkFailed);

    if (!is_dot_or_dots(name) && !level.includes(status))
        remove_directory(path, Level{status, &level});
    return kRemoved;
}

int remove_entries(DIR& directory, const char* path, const Level& level) {
    while (const dirent* entry = readdir(&directory)) {
        char text[PATH_ENTRY_LENGTH + 1];
        const int length = snprintf(text, sizeof text, "%s/%s", path, entry->d_name);
        if (length > PATH_ENTRY_LENGTH) {
            errno = ENAMETOOLONG;
            return failed("stat", text, kEntryFailed);
        }
        if (const int result = remove_entry(text, entry->d_name, level); result != kRemoved)
            return result;
    }
    return kRemoved;
}

int remove_directory(const char* path, const Level& level) {
    {
        const Directory directory(opendir(path));
        if (!directory) return failed("opendir", path, kOpenFailed);
        const int result = remove_entries(*directory, path, level);
        if (result != kRemoved) return result;
    }
    return rmdir(path) == 0 ? kRemoved : failed("rmdir", path, kPathFailed);
}

}  // namespace

extern "C" int file_exists(const char* path) {
    struct stat status;
    return path && stat(path, &status) == 0 ? 0 : -1;
}

extern "C" int path_exists(const char* path) {
    struct stat status;
    if (!path) return -1;
    if (stat(path, &status) == 0) return 0;
    return errno == ENOENT ? -1 : 1;
}

extern "C" int path_create(const char* path) {
    if (!path || !fits(path)) return -1;

    PathText made(*path == '/');
    for (;;) {
        const std::string_view component = take_component(path);
        if (component.empty()) return 0;
        made.append(component);
        if (path_exists(made.c_str()) != 0 && !make_directory(made.c_str())) return -1;
    }
}

extern "C" int path_notexists_create(const char* path) {
    return file_exists(path) == 0 ? 0 : path_create(path);
}

extern "C" int path_remove(const char* path) {
    struct stat status;
    if (!path) return kPathFailed;
    if (stat(path, &status) != 0) return failed("stat", path, kPathFailed);
    if (!S_ISDIR(status.st_mode))
        return unlink(path) == 0 ? kRemoved : failed("unlink", path, kUnlinkFailed);
    return remove_directory(path, Level{status, nullptr});
}
