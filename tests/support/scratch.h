// A directory of a test's own, gone with all it holds at the end of the scope.
#pragma once

#include <string>

namespace zt_test {

class ScratchDirectory {
  public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }
    // The path of an entry in it.
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Makes a file with this content; returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string path_;
};

}  // namespace zt_test
