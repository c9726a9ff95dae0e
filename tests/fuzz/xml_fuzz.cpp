// Any text: parsed, checked as a tree, written, dumped, parsed again, freed.

#include <ztlib/xmldoc/xmldoc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) abort();
}

bool is_documented(int code) {
    return (code <= 0 && code >= -20) || code == -30 || code == -31;  // memory is never out here
}

constexpr size_t kPieceLimit = 1499;

// Links, names and value of one node; false where the writer cuts one of its attributes.
bool check_node(const xmldoc_node* node) {
    bool whole = true;
    require(node->name && *node->name && strlen(node->name) <= 1023);
    const xmldoc_attr* last = nullptr;
    for (const xmldoc_attr* a = node->first_attribute; a; last = a, a = a->next) {
        require(a->previous == last && a->name && a->value);
        const std::string_view value(a->value);
        require(value.find_first_of("\r\n\t") == value.npos && value.find("  ") == value.npos);
        require(value.empty() || (value.front() != ' ' && value.back() != ' '));
        whole = whole && strlen(a->name) + value.size() + strlen(" =\"\"") <= kPieceLimit;
    }
    require(node->last_attribute == last);
    return whole;
}

// A tree that the parser made: every link in both directions. Goes by the parent links.
bool check_tree(const xmldoc_node* root) {
    bool whole = true;
    require(!root->parent && !root->next_sibling && !root->previous_sibling);
    for (const xmldoc_node* node = root; node;) {
        whole = check_node(node) && whole;
        require((node->first_child == nullptr) == (node->last_child == nullptr));
        if (node->first_child) {
            require(node->first_child->parent == node && !node->first_child->previous_sibling);
            node = node->first_child;
            continue;
        }
        while (node && !node->next_sibling) {
            require(!node->parent || node->parent->last_child == node);
            node = node->parent;
        }
        if (!node) break;
        require(node->next_sibling->previous_sibling == node);
        require(node->next_sibling->parent == node->parent);
        node = node->next_sibling;
    }
    return whole;
}

std::string dump_of(const xmldoc_node* node) {
    char* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    _xmldoc_node_dump_fd(node, stream, 0);
    fclose(stream);
    const std::string dumped(text, size);
    free(text);
    return dumped;
}

std::string saved(const xmldoc& document) {
    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;
    require(xmldoc_save(&document, document.root, &data, &capacity, &length) == 0);
    require(length < capacity && strlen(data) == length);
    const std::string text(data, length);
    free(data);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    const std::string text(reinterpret_cast<const char*>(bytes), size);

    xmldoc document;
    xmldoc_init(&document);
    const int code = xmldoc_parse(&document, text.c_str());
    require(is_documented(code));
    if (document.declaration) check_node(document.declaration);
    if (document.root) {
        const bool whole = check_tree(document.root);
        const std::string written = saved(document);
        const std::string dumped = dump_of(document.root);
        if (whole)
            require(written.size() >= dumped.size() &&
                    written.substr(written.size() - dumped.size()) == dumped);

        // The writer trusts the text, so decoded characters may break what it writes.
        xmldoc again;
        xmldoc_init(&again);
        require(is_documented(xmldoc_parse(&again, written.c_str())));
        xmldoc_free(&again, 0);
    }
    xmldoc_free(&document, 0);
    require(!document.root && !document.declaration);
    return 0;
}
