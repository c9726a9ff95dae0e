// The wide XML document: records, look-ups, the parser's instance for wchar_t, and the way from the
// bytes of a file to wide text.
//
// Parser, in-place text steps, tree walks and dump are templates shared with the narrow document
// (xml_parser.hpp, xml_text.hpp, xml_tree.hpp, xml_dump.hpp). What is here alone is the parser's
// policy, which logs what it refuses, and the reading of a file, whose pieces may end inside a
// character:
//
//     one piece   ... 61 62 e2 98                   "ab" is decoded, e2 98 carried over
//     the next              e2 98 ba 63 0a          all is decoded

#include <ztlib/xmldoc/wxmldoc.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/buffers/wbuffer.h>
#include <ztlib/buffers/wide_count.hpp>
#include <ztlib/xmldoc/line_reader.hpp>
#include <ztlib/xmldoc/xml_dump.hpp>
#include <ztlib/xmldoc/xml_parser.hpp>
#include <ztlib/xmldoc/xml_text.hpp>
#include <ztlib/xmldoc/xml_tree.hpp>

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <utility>

namespace {

using zt::Owned;

constexpr const char* kModule = "./xmldoc/wxmldoc";
constexpr const char* kParserName = "xmldoc_parse";  // whose messages the parser's are

struct Wide {
    using Char = wchar_t;
    using Document = wxmldoc;
    using Node = wxmldoc_node;
    using Attribute = wxmldoc_attr;

    static constexpr bool kSkipsComments = true;
    static int no_tag_start() { return _wxmldoc_error(-1, "missing tag start '<'"); }
    static int no_equals_sign() { return _wxmldoc_error(-11, "'=' not found after attr name"); }
    static int bad_entity(int error) {
        return _wxmldoc_error(-22, "failed to escape value: %d", error);
    }
};

struct FreeDocument {
    void operator()(wxmldoc* document) const { wxmldoc_free(document, 1); }
};
struct FreeAttribute {
    void operator()(wxmldoc_attr* attribute) const { zt::xml::free_attribute(attribute); }
};
using OwnedDocument = std::unique_ptr<wxmldoc, FreeDocument>;
using OwnedAttribute = std::unique_ptr<wxmldoc_attr, FreeAttribute>;

struct WideText : wbuffer {
    WideText() : wbuffer{} {}
    ~WideText() { wbuffer_free(this, 0); }
    WideText(const WideText&) = delete;
    WideText& operator=(const WideText&) = delete;
};

constexpr size_t kPieceRoom = MB_LEN_MAX + zt::xml::kLineRoom;  // with what is carried over
constexpr size_t kUndecodable = static_cast<size_t>(-1);        // a result of mbsnrtowcs()

// How many of these bytes are whole characters; what is left begins one that goes on behind them.
// All of them, where they hold what cannot be decoded.
size_t whole_characters(const char* piece, size_t size) {
    wchar_t decoded[kPieceRoom];
    const char* at = piece;
    mbstate_t state{};
    const size_t count = mbsnrtowcs(decoded, &at, size, kPieceRoom, &state);
    if (count == kUndecodable || mbsinit(&state)) return size;

    // Decoding took in what is left as well. Decoding no more than the whole ones ends behind them.
    at = piece;
    state = {};
    mbsnrtowcs(decoded, &at, size, count, &state);
    return static_cast<size_t>(at - piece);
}

// Appends the bytes to the text. False where they cannot be decoded or memory is out.
bool append_decoded(wbuffer& text, char* bytes, size_t size) {
    const char behind = std::exchange(bytes[size], '\0');
    const bool appended = wbuffer_cappend(&text, bytes, static_cast<unsigned>(size)) == 0;
    bytes[size] = behind;
    return appended;
}

// Appends all lines of the file to the text. False where they cannot be decoded or memory is out.
bool read_lines(FILE* file, wbuffer& text) {
    char piece[kPieceRoom];
    size_t carried = 0;  // bytes at the front, of a character that began in the piece before
    while (const size_t read = zt::xml::read_line(file, piece + carried)) {
        const size_t size = carried + read;
        const size_t shown = strlen(piece);  // a zero byte hides the rest, and ends a character
        const size_t whole = shown == size ? whole_characters(piece, size) : shown;
        if (!append_decoded(text, piece, whole)) return false;
        carried = shown - whole;
        memmove(piece, piece + whole, carried);
    }
    return carried == 0;
}

// A zeroed record, or null and a message.
template <class Record>
Record* allocate_record(zt::Site site) {
    Record* const record = zt::allocate_zeroed<Record>();
    if (!record) zt::report_call(site, "calloc", LOGGER_ERROR);
    return record;
}

// False, with `copy` null, when memory is out.
bool copy_text(const wchar_t* text, wchar_t*& copy) {
    copy = text ? wcsdup(text) : nullptr;
    return copy || !text;
}

}  // namespace

// --- documents ----------------------------------------------------------------------------------

extern "C" wxmldoc* wxmldoc_create(void) {
    const zt::Site here{kModule, __func__};

    OwnedDocument document(allocate_record<wxmldoc>(here));
    if (!document) return nullptr;
    if (wxmldoc_init(document.get()) != 0) {
        zt::report_call(here, "wxmldoc_init", LOGGER_ERROR);
        return nullptr;
    }
    return document.release();
}

extern "C" int wxmldoc_init(wxmldoc* /*document*/) { return 0; }

extern "C" void wxmldoc_free(wxmldoc* document, int free_record) {
    if (!document) return;
    zt::xml::free_trees(*document);
    if (free_record) free(document);
}

// --- nodes --------------------------------------------------------------------------------------

extern "C" wxmldoc_node* wxmldoc_node_create(const wchar_t* name) {
    const zt::Site here{kModule, __func__};
    if (!name) return nullptr;

    Owned<wxmldoc_node> node(allocate_record<wxmldoc_node>(here));
    if (!node) return nullptr;
    if (!copy_text(name, node->name)) {
        zt::report_call(here, "wcsdup", LOGGER_ERROR);
        return nullptr;
    }
    return node.release();
}

extern "C" void wxmldoc_node_free(wxmldoc_node* node) {
    if (node) zt::xml::free_tree(node);
}

extern "C" void wxmldoc_node_add(wxmldoc_node* parent, wxmldoc_node* child) {
    if (parent && child) zt::xml::append_child(*parent, child);
}

extern "C" wxmldoc_node* wxmldoc_node_get(const wxmldoc_node* node, const wchar_t* name) {
    return node && name ? zt::xml::child_named(*node, name) : nullptr;
}

// --- attributes ---------------------------------------------------------------------------------

extern "C" wxmldoc_attr* wxmldoc_attr_create(const wchar_t* name, const wchar_t* value) {
    OwnedAttribute attribute(allocate_record<wxmldoc_attr>({kModule, __func__}));
    if (!attribute) return nullptr;
    if (!copy_text(name, attribute->name) || !copy_text(value, attribute->value)) return nullptr;
    return attribute.release();
}

extern "C" void wxmldoc_attr_free(wxmldoc_attr* attribute) {
    if (attribute) zt::xml::free_attribute(attribute);
}

extern "C" void wxmldoc_attr_add(wxmldoc_node* node, wxmldoc_attr* attribute) {
    if (node && attribute) zt::xml::append_attribute(*node, attribute);
}

extern "C" void wxmldoc_attr_addval(wxmldoc_node* node, const wchar_t* name, const wchar_t* value) {
    if (node) wxmldoc_attr_add(node, wxmldoc_attr_create(name, value));
}

extern "C" wxmldoc_attr* wxmldoc_attr_get(const wxmldoc_node* node, const wchar_t* name) {
    return node && name ? zt::xml::attribute_named(*node, name) : nullptr;
}

extern "C" wchar_t* wxmldoc_attr_get_value(const wxmldoc_node* node, const wchar_t* name) {
    const wxmldoc_attr* const attribute = wxmldoc_attr_get(node, name);
    return attribute ? attribute->value : nullptr;
}

// --- parser -------------------------------------------------------------------------------------

extern "C" int wxmldoc_parse(wxmldoc* document, const wbuffer* text) {
    if (!document) {
        zt::report_call({kModule, __func__}, "empty input param doc", LOGGER_ERROR);
        return -1;
    }
    if (!text) return -1;
    if (text->length == 0) return 0;
    if (!text->data) return -1;

    const wchar_t* const behind = text->data + zt::text_length(*text);
    const wchar_t* const zero = zt::xml::find(text->data, behind, L'\0');
    return zt::xml::Parser<Wide>(*document, text->data, zero ? zero : behind).parse();
}

extern "C" wxmldoc* wxmldoc_parse_file(const char* path) {
    const zt::Site here{kModule, __func__};
    if (!path) return nullptr;

    zt::xml::OwnedFile file(fopen(path, "r"));
    if (!file) {
        zt::report_call(here, "fopen()");
        return nullptr;
    }
    OwnedDocument document(wxmldoc_create());
    if (!document) {
        zt::report_call(here, "xmldoc_create()");
        return nullptr;
    }
    WideText text;
    const bool complete = read_lines(file.get(), text);
    file.reset();

    const int code = complete ? wxmldoc_parse(document.get(), &text) : -1;
    if (code == 0) return document.release();
    zt::report(here, LOGGER_ERROR, "xmldoc_parse(%s): failed code:%d", path, code);
    return nullptr;
}

// --- dump ---------------------------------------------------------------------------------------

extern "C" void wxmldoc_node_dump(const wxmldoc_node* node) {
    _wxmldoc_node_dump_fd(node, stdout, 0);
    fflush(stdout);
}

// --- internal steps -----------------------------------------------------------------------------

extern "C" void _wxmldoc_node_dump_fd(const wxmldoc_node* node, FILE* stream, unsigned /*depth*/) {
    if (!node || !stream) return;
    zt::xml::dump(*node, stream);
}

extern "C" int _wxmldoc_error(int code, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logger_valog(LOGGER_ERROR, kModule, kParserName, format, arguments);
    va_end(arguments);
    return code;
}

extern "C" const wchar_t* _wxmldoc_skip_white(const wchar_t* text) {
    return text ? zt::xml::skip_white(text) : nullptr;
}

extern "C" const wchar_t* _wxmldoc_skip_name(const wchar_t* text) {
    return text ? zt::xml::skip_name(text) : nullptr;
}

extern "C" void _wxmldoc_shift_left(wchar_t* text, unsigned n) {
    if (text) zt::xml::shift_left(text, n);
}

extern "C" void _wxmldoc_attr_value_normalize_s1(wchar_t* value) {
    if (value) zt::xml::white_to_spaces(value);
}

extern "C" void _wxmldoc_attr_value_normalize_s2(wchar_t* value) {
    if (value) zt::xml::squeeze_spaces(value);
}

extern "C" int _wxmldoc_value_escape(wchar_t* text) {
    return text ? zt::xml::decode_entities(text, wcslen(text)) : -1;
}
