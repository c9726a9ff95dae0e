#include <tests/sutils/renames.h>

#include <cstdio>
#include <utility>

#include <fcntl.h>

namespace {

std::function<void(const std::string&)> watcher;

}  // namespace

namespace zt_test {

WatchedRenames::WatchedRenames(std::function<void(const std::string& to)> look) {
    watcher = std::move(look);
}
WatchedRenames::~WatchedRenames() { watcher = nullptr; }

}  // namespace zt_test

// In the place of the C library's.
extern "C" int rename(const char* from, const char* to) noexcept {
    if (watcher) watcher(to);
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}
