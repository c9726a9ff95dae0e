// The two XML documents as one: for each a type that names its records and functions, so that what
// holds for both is written once. Texts are spelled in bytes; the wide document's characters are
// those bytes.
#pragma once

#include <ztlib/xmldoc/wxmldoc.h>
#include <ztlib/xmldoc/xmldoc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace zt_test {

inline std::wstring widened(const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    std::transform(text.begin(), text.end(), wide.begin(),
                   [](char c) { return static_cast<unsigned char>(c); });
    return wide;
}

inline std::string text_of(const char* text) { return text ? text : "(null)"; }
inline std::string text_of(const wchar_t* wide) {
    if (!wide) return "(null)";
    std::string text;
    for (; *wide; ++wide) {
        if (*wide > 0 && *wide < 256)
            text += static_cast<char>(*wide);
        else
            text += "(wide " + std::to_string(*wide) + ")";
    }
    return text;
}

struct Narrow {
    using Char = char;
    using Record = xmldoc;
    using Node = xmldoc_node;
    using Attribute = xmldoc_attr;

    static constexpr const char* kModule = "xmldoc";
    static constexpr int kBadEntity = -30;

    static std::string spell(const std::string& text) { return text; }
    static int parse(xmldoc* document, const std::string& text) {
        return xmldoc_parse(document, text.c_str());
    }
    static FILE* open_stream(char** text, size_t* size) { return open_memstream(text, size); }

    static constexpr auto create = xmldoc_create;
    static constexpr auto free = xmldoc_free;
    static constexpr auto parse_file = xmldoc_parse_file;
    static constexpr auto node_create = xmldoc_node_create;
    static constexpr auto node_free = xmldoc_free_node;
    static constexpr auto node_add = xmldoc_node_add_child;
    static constexpr auto node_get = xmldoc_node_get;
    static constexpr auto attr_create = xmldoc_attr_create;
    static constexpr auto attr_add = xmldoc_node_attr_add;
    static constexpr auto attr_addval = xmldoc_node_attr_addval;
    static constexpr auto attr_get = xmldoc_node_attr_get;
    static constexpr auto attr_get_value = xmldoc_node_attr_get_value;
    static constexpr auto dump_fd = _xmldoc_node_dump_fd;
    static constexpr auto skip_white = _xmldoc_skip_white;
    static constexpr auto skip_name = _xmldoc_skip_name;
    static constexpr auto shift_left = _xmldoc_shift_left;
    static constexpr auto normalize_s1 = _xmldoc_attr_value_normalize_s1;
    static constexpr auto normalize_s2 = _xmldoc_attr_value_normalize_s2;
    static constexpr auto value_escape = _xmldoc_value_escape;
};

struct Wide {
    using Char = wchar_t;
    using Record = wxmldoc;
    using Node = wxmldoc_node;
    using Attribute = wxmldoc_attr;

    static constexpr const char* kModule = "wxmldoc";
    static constexpr int kBadEntity = -22;

    static std::wstring spell(const std::string& text) { return widened(text); }
    static int parse(wxmldoc* document, std::wstring text) {
        const wbuffer buffer{text.data(), text.size() + 1, text.size()};
        return wxmldoc_parse(document, &buffer);
    }
    static int parse(wxmldoc* document, const std::string& text) {
        return parse(document, widened(text));
    }
    static FILE* open_stream(wchar_t** text, size_t* size) { return open_wmemstream(text, size); }

    static constexpr auto create = wxmldoc_create;
    static constexpr auto free = wxmldoc_free;
    static constexpr auto parse_file = wxmldoc_parse_file;
    static constexpr auto node_create = wxmldoc_node_create;
    static constexpr auto node_free = wxmldoc_node_free;
    static constexpr auto node_add = wxmldoc_node_add;
    static constexpr auto node_get = wxmldoc_node_get;
    static constexpr auto attr_create = wxmldoc_attr_create;
    static constexpr auto attr_add = wxmldoc_attr_add;
    static constexpr auto attr_addval = wxmldoc_attr_addval;
    static constexpr auto attr_get = wxmldoc_attr_get;
    static constexpr auto attr_get_value = wxmldoc_attr_get_value;
    static constexpr auto dump_fd = _wxmldoc_node_dump_fd;
    static constexpr auto skip_white = _wxmldoc_skip_white;
    static constexpr auto skip_name = _wxmldoc_skip_name;
    static constexpr auto shift_left = _wxmldoc_shift_left;
    static constexpr auto normalize_s1 = _wxmldoc_attr_value_normalize_s1;
    static constexpr auto normalize_s2 = _wxmldoc_attr_value_normalize_s2;
    static constexpr auto value_escape = _wxmldoc_value_escape;
};

// A document with what it holds freed at the end.
template <class Xml>
struct Document : Xml::Record {
    Document() : Xml::Record{} {}
    template <class Text>
    explicit Document(const Text& text) : Document() {
        code = parse(text);
    }
    ~Document() { Xml::free(this, 0); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    template <class Text>
    int parse(const Text& text) {
        return Xml::parse(this, text);
    }
    int code = 0;
};

using Pairs = std::vector<std::pair<std::string, std::string>>;

template <class Node>
Pairs attributes_of(const Node* node) {
    Pairs pairs;
    for (const auto* a = node->first_attribute; a; a = a->next)
        pairs.emplace_back(text_of(a->name), text_of(a->value));
    return pairs;
}

template <class Node>
std::vector<std::string> children_of(const Node* node) {
    std::vector<std::string> names;
    for (const Node* child = node->first_child; child; child = child->next_sibling)
        names.push_back(text_of(child->name));
    return names;
}

template <class Xml>
int code_of(const std::string& text) {
    return Document<Xml>(text).code;
}

// What a node's dump writes to a stream, which lasts as long as the object.
template <class Xml>
class Dump {
  public:
    Dump() : stream_(Xml::open_stream(&text_, &size_)) {}
    ~Dump() {
        fclose(stream_);
        free(text_);
    }
    Dump(const Dump&) = delete;
    Dump& operator=(const Dump&) = delete;

    std::string of(const typename Xml::Node* node, unsigned depth = 0) {
        rewind(stream_);
        Xml::dump_fd(node, stream_, depth);
        fflush(stream_);
        return text_of(std::basic_string(text_, size_).c_str());
    }

  private:
    typename Xml::Char* text_ = nullptr;
    size_t size_ = 0;
    FILE* stream_;
};

template <class Xml>
std::string dump_of(const typename Xml::Node* node, unsigned depth = 0) {
    return Dump<Xml>().of(node, depth);
}

inline std::string repeated(const std::string& text, size_t times) {
    std::string all;
    all.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i) all += text;
    return all;
}

}  // namespace zt_test
