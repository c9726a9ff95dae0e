// Any wide text: parsed, checked as a tree, dumped, parsed again, freed.

#include <ztlib/logger.h>

#include <tests/fuzz/wide_text.h>
#include <tests/fuzz/xml_tree_check.h>

#include <cstdint>
#include <cwchar>

using namespace zt_fuzz;

namespace {

bool is_documented(int code) {
    return (code <= 0 && code >= -20) || code == -22 || code == -31;  // memory is never out here
}

// ASCII stands for itself. The other bytes are characters that have the bits of an ASCII one and
// more above, which nothing may take for that one.
wchar_t character_of(uint8_t byte) {
    constexpr uint32_t kAbove[] = {0x100, 0x2600, 0x1f600, 0x80000000};
    if (byte < 0x80) return static_cast<wchar_t>(byte);
    return static_cast<wchar_t>(kAbove[byte % 4] | (byte & 0x7fu));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    logger_to_syslog = 0;
    std::wstring text;
    for (size_t i = 0; i < size; ++i) text += character_of(bytes[i]);

    wxmldoc document{};
    require(is_documented(parse(document, text)));
    if (document.declaration) check_node(*document.declaration);
    if (document.root) {
        check_tree(*document.root, [](const wxmldoc_node&) {});
        const std::wstring dumped = dump_of(document.root);
        require(wcslen(dumped.c_str()) == dumped.size());

        // The dump trusts the text, so decoded characters may break what it writes.
        wxmldoc again{};
        require(is_documented(parse(again, dumped)));
        wxmldoc_free(&again, 0);
    }
    wxmldoc_free(&document, 0);
    require(!document.root && !document.declaration);
    return 0;
}
