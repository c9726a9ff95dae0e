// A wide text that the sanitizer watches: a block of exactly its size, and what a document's dump
// makes of it.
#pragma once

#include <ztlib/xmldoc/wxmldoc.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace zt_fuzz {

class WideText {
  public:
    explicit WideText(const std::wstring& text)
        : characters_(text.c_str(), text.c_str() + text.size() + 1),
          buffer_{characters_.data(), characters_.size(), text.size()} {}
    WideText(const WideText&) = delete;
    WideText& operator=(const WideText&) = delete;

    const wbuffer* buffer() const { return &buffer_; }

  private:
    std::vector<wchar_t> characters_;
    wbuffer buffer_;
};

inline int parse(wxmldoc& document, const std::wstring& text) {
    return wxmldoc_parse(&document, WideText(text).buffer());
}

inline std::wstring dump_of(const wxmldoc_node* node) {
    wchar_t* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_wmemstream(&text, &size);
    _wxmldoc_node_dump_fd(node, stream, 0);
    fclose(stream);
    const std::wstring dumped(text, size);
    free(text);
    return dumped;
}

}  // namespace zt_fuzz
