#include <tests/support/scratch.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace zt_test {

ScratchDirectory::ScratchDirectory() {
    path_ = (std::filesystem::temp_directory_path() / "ztlib-test-XXXXXX").string();
    if (!mkdtemp(path_.data())) abort();
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDirectory::write(const std::string& name, const std::string& content) const {
    const std::string path = *this / name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

}  // namespace zt_test
