// Any ASCII text, parsed by the narrow and by the wide document: the same code, the same tree. They
// differ in three things, each of which is told from the others here: the code of an entity that
// cannot be decoded, numeric entities, and comments.

#include <ztlib/logger.h>
#include <ztlib/xmldoc/xmldoc.h>

#include <tests/fuzz/wide_text.h>
#include <tests/fuzz/xml_tree_check.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

using namespace zt_fuzz;

namespace {

std::wstring widened(const std::string& text) { return {text.begin(), text.end()}; }

// A text of the wide document's as the narrow one stores it: numbers have their low 8 bits alone,
// and one of which they are 0 ends the text.
bool same_text(const char* narrow, const wchar_t* wide) {
    if (!narrow || !wide) return !narrow && !wide;
    while (*narrow && static_cast<char>(*wide) == *narrow) ++narrow, ++wide;
    return !*narrow && static_cast<char>(*wide) == 0;
}

bool same_node(const xmldoc_node& narrow, const wxmldoc_node& wide) {
    const xmldoc_attr* a = narrow.first_attribute;
    const wxmldoc_attr* b = wide.first_attribute;
    for (; a && b; a = a->next, b = b->next)
        if (!same_text(a->name, b->name) || !same_text(a->value, b->value)) return false;
    return !a && !b && same_text(narrow.name, wide.name) && same_text(narrow.value, wide.value);
}

// Both trees step by step, by the links that check_tree() has looked at.
void require_same_tree(const xmldoc_node* narrow, const wxmldoc_node* wide) {
    if (!narrow || !wide) return require(!narrow && !wide);
    const wxmldoc_node* other = wide;
    bool whole = true;
    check_tree(*narrow, [&](const xmldoc_node& node) {
        whole = whole && other && same_node(node, *other);
        if (!whole) return;
        const wxmldoc_node* next = other->first_child;
        while (other && !next) {
            next = other->next_sibling;
            other = other->parent;
        }
        other = next;
    });
    require(whole && !other);
}

void require_same(const xmldoc& narrow, const wxmldoc& wide) {
    require(!narrow.declaration == !wide.declaration);
    if (narrow.declaration) require(same_node(*narrow.declaration, *wide.declaration));
    require_same_tree(narrow.root, wide.root);
}

int wide_code_of(int narrow) { return narrow == -30 ? -22 : narrow; }

// A comment of any content in front of a text changes nothing, but that blanks may follow it.
void check_comment(const std::string& comment, const std::string& text, int code,
                   const xmldoc& expected) {
    if (comment.find("-->") != comment.npos) return;
    const std::string behind =
        text.substr(std::min(text.find_first_not_of(" \r\n\t"), text.size()));
    wxmldoc document{};
    const int found = parse(document, widened("<!-- " + comment + " -->" + behind));
    require(found == (behind.empty() ? 0 : code));
    if (!behind.empty()) require_same(expected, document);
    wxmldoc_free(&document, 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    logger_to_syslog = 0;
    std::string text;
    for (size_t i = 0; i < size; ++i) text += static_cast<char>(bytes[i] & 0x7f);
    text.resize(strlen(text.c_str()));
    for (size_t at; (at = text.find("<!--")) != text.npos;) text[at + 1] = '?';

    xmldoc narrow{};
    wxmldoc wide{};
    const int code = xmldoc_parse(&narrow, text.c_str());
    require(parse(wide, widened(text)) == wide_code_of(code));
    require_same(narrow, wide);
    if (!text.empty())
        check_comment(text.substr(text.size() / 2), text, wide_code_of(code), narrow);
    xmldoc_free(&narrow, 0);
    wxmldoc_free(&wide, 0);
    return 0;
}
