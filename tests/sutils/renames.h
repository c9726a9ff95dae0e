// Renaming under the eyes of a test.
#pragma once

#include <functional>
#include <string>

namespace zt_test {

// While it lives, in an executable with renames.cpp, every rename() of the process asks `look`
// first, with the new name, in the thread that renames.
class WatchedRenames {
  public:
    explicit WatchedRenames(std::function<void(const std::string& to)> look);
    ~WatchedRenames();
    WatchedRenames(const WatchedRenames&) = delete;
    WatchedRenames& operator=(const WatchedRenames&) = delete;
};

}  // namespace zt_test
