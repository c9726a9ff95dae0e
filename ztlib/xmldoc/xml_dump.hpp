// The dump of both XML documents: an element's text on a stream.
#pragma once

#include <ztlib/xmldoc/xml_tree.hpp>

#include <cstdio>
#include <cwchar>
#include <string_view>
#include <type_traits>

namespace zt::xml {

inline void put(FILE* stream, const char* text) { fputs(text, stream); }
inline void put(FILE* stream, const wchar_t* text) { fputws(text, stream); }
inline void put(FILE* stream, char c) { fputc(c, stream); }
inline void put(FILE* stream, wchar_t c) { fputwc(c, stream); }

// The dump's side of a walk. A write that the stream refuses is the stream's owner's to see.
template <class Char>
class Dumper {
  public:
    explicit Dumper(FILE* stream) : stream_(stream) {}

    template <class Node>
    bool open(const Node& node) {
        put_marked("<", node.name);
        for (const auto* a = node.first_attribute; a; a = a->next) {
            put_marked(" ", a->name);
            put_marked("=\"", a->value);
            put_marked("\"", nullptr);
        }
        put_marked(">", node.value);
        return true;
    }

    template <class Node>
    bool close(const Node& node) {
        put_marked("</", node.name);
        put_marked(">", nullptr);
        return true;
    }

  private:
    // ASCII, then a text that may be missing.
    void put_marked(std::string_view mark, const Char* text) {
        for (char c : mark) put(stream_, Char(c));
        if (text) put(stream_, text);
    }

    FILE* stream_;
};

// Writes `node` and all below it.
template <class Node>
void dump(const Node& node, FILE* stream) {
    Dumper<std::remove_pointer_t<decltype(node.name)>> dumper(stream);
    walk(node, dumper);
}

}  // namespace zt::xml
