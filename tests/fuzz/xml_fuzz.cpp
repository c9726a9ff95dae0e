// Any text: parsed, checked as a tree, written, dumped, parsed again, freed.

#include <ztlib/xmldoc/xmldoc.h>

#include <tests/fuzz/xml_tree_check.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace zt_fuzz;

namespace {

bool is_documented(int code) {
    return (code <= 0 && code >= -20) || code == -30 || code == -31;  // memory is never out here
}

constexpr size_t kPieceLimit = 1499;

// False where the writer cuts one of the node's attributes.
bool is_written_whole(const xmldoc_node& node) {
    bool whole = true;
    for (const xmldoc_attr* a = node.first_attribute; a; a = a->next)
        whole = whole && strlen(a->name) + strlen(a->value) + strlen(" =\"\"") <= kPieceLimit;
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
    if (document.declaration) check_node(*document.declaration);
    if (document.root) {
        bool whole = true;
        check_tree(*document.root,
                   [&](const xmldoc_node& node) { whole = whole && is_written_whole(node); });
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
