// Any bytes as a file, in front of which as many stand as put the end of a piece anywhere among
// them: read as the same bytes are when they are converted and parsed at once.

#include <ztlib/logger.h>

#include <tests/fuzz/wide_text.h>
#include <tests/fuzz/xml_tree_check.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cwchar>

#include <sys/mman.h>
#include <unistd.h>

using namespace zt_fuzz;

namespace {

// A file in memory.
class File {
  public:
    explicit File(const std::string& bytes) : descriptor_(memfd_create("document", MFD_CLOEXEC)) {
        require(write(descriptor_, bytes.data(), bytes.size()) ==
                static_cast<ssize_t>(bytes.size()));
    }
    ~File() { close(descriptor_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

// A document of the whole text, or null.
wxmldoc* parse_at_once(const std::string& bytes) {
    std::wstring text(bytes.size() + 1, L'\0');
    const size_t length = mbstowcs(text.data(), bytes.c_str(), text.size());
    if (length == static_cast<size_t>(-1)) return nullptr;
    text.resize(length);
    wxmldoc* const document = wxmldoc_create();
    if (parse(*document, text) == 0) return document;
    wxmldoc_free(document, 1);
    return nullptr;
}

std::wstring root_of(const wxmldoc* document) {
    return document->root ? dump_of(document->root) : L"";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return setlocale(LC_ALL, "C.UTF-8") ? 0 : 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    constexpr size_t kPiece = 1499;
    logger_to_syslog = 0;
    std::string text(reinterpret_cast<const char*>(bytes), size);
    std::replace(text.begin(), text.end(), '\0', 'z');  // a zero byte hides a part of the file
    const size_t in_front = size > 0 ? kPiece - bytes[0] % std::min(size, kPiece) : 0;
    text.insert(0, "<a>" + std::string(in_front, 'p'));

    wxmldoc* const expected = parse_at_once(text);
    wxmldoc* const found = wxmldoc_parse_file(File(text).path().c_str());
    require((found != nullptr) == (expected != nullptr));
    if (found) require(root_of(found) == root_of(expected));
    wxmldoc_free(found, 1);
    wxmldoc_free(expected, 1);
    return 0;
}
