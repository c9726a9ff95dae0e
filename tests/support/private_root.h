// A root directory of this process's own, in which a test may have paths that the library has
// compiled in.
#pragma once

#include <filesystem>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace zt_test {

// Moves this process into a root that has all directories of the real one, but for `name`, which is
// not there: the test makes it, and it is gone with the process. Nothing outside the process
// changes. Returns an empty text, or the call that is not allowed here.
inline std::string enter_root_without(const std::string& name) {
    namespace fs = std::filesystem;
    const fs::path root =
        "/mnt";  // a place that everybody has; nobody else sees what is mounted there
    if (unshare(CLONE_NEWNS) != 0) return "unshare()";
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "mount()";
    if (mount("none", root.c_str(), "tmpfs", 0, "mode=755") != 0) return "mount()";
    for (const auto& entry : fs::directory_iterator("/")) {
        const fs::path here = root / entry.path().filename();
        if (entry.path() == root || entry.path().filename() == name) continue;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), here);
        } else if (entry.is_directory()) {
            fs::create_directory(here);
            if (mount(entry.path().c_str(), here.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
                return "mount()";
        }
    }
    if (chroot(root.c_str()) != 0 || chdir("/") != 0) return "chroot()";
    return "";
}

}  // namespace zt_test
