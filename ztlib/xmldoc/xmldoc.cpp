// The narrow XML document: records, look-ups, the parser's instance for char, and the writer.
//
// Parser, in-place text steps and tree walks are templates shared with the wide document
// (xml_parser.hpp, xml_text.hpp, xml_tree.hpp, xml_dump.hpp). What is here alone is the writer: one
// walk that appends pieces to the caller's byte buffer.

#include <ztlib/xmldoc/xmldoc.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/buffers/buffer.h>
#include <ztlib/xmldoc/line_reader.hpp>
#include <ztlib/xmldoc/xml_dump.hpp>
#include <ztlib/xmldoc/xml_parser.hpp>
#include <ztlib/xmldoc/xml_text.hpp>
#include <ztlib/xmldoc/xml_tree.hpp>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string_view>

namespace {

using zt::Owned;

constexpr const char* kModule = "./xmldoc/xmldoc";

constexpr size_t kFormatRoom = 1500;  // of one formatted piece, its terminator included
constexpr size_t kPieceLimit = kFormatRoom - 1;
constexpr size_t kGrowthSlack = 750;

struct Narrow {
    using Char = char;
    using Document = xmldoc;
    using Node = xmldoc_node;
    using Attribute = xmldoc_attr;

    static constexpr bool kSkipsComments = false;
    static int no_tag_start() { return -1; }
    static int no_equals_sign() { return -11; }
    static int bad_entity(int) { return -30; }
};

struct FreeDocument {
    void operator()(xmldoc* document) const { xmldoc_free(document, 1); }
};
struct FreeAttribute {
    void operator()(xmldoc_attr* attribute) const { zt::xml::free_attribute(attribute); }
};
using OwnedDocument = std::unique_ptr<xmldoc, FreeDocument>;
using OwnedAttribute = std::unique_ptr<xmldoc_attr, FreeAttribute>;

std::string_view text_of(const char* text) { return text ? std::string_view(text) : ""; }

// The parts of a piece of text: marks of a known length, and texts.
template <size_t Size>
constexpr size_t length_of(const char (&)[Size]) {
    return Size - 1;
}
size_t length_of(std::string_view text) { return text.size(); }

template <size_t Size>
char* copy_to(char* to, const char (&mark)[Size]) {
    memcpy(to, mark, Size - 1);
    return to + Size - 1;
}
char* copy_to(char* to, std::string_view text) {
    memcpy(to, text.data(), text.size());
    return to + text.size();
}

// The byte buffer whose three fields a caller gave. They are worked on here and stored back at the
// end of the scope.
class Output {
  public:
    Output(char** data, unsigned* capacity, unsigned* length)
        : data_(*data),
          capacity_(*capacity),
          length_(*length),
          data_field_(data),
          capacity_field_(capacity),
          length_field_(length) {}
    ~Output() {
        *data_field_ = data_;
        *capacity_field_ = static_cast<unsigned>(capacity_);
        *length_field_ = static_cast<unsigned>(length_);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Appends the text. False when memory is out.
    bool put(std::string_view text) {
        if (!make_room(text.size())) return false;
        copy_to(data_ + length_, text);
        length_ += text.size();
        return true;
    }

    // Appends the parts as one formatted piece, which is cut at its limit. False when memory is
    // out.
    template <class... Parts>
    bool put_piece(const Parts&... parts) {
        const size_t size = (length_of(parts) + ...);
        if (size > kPieceLimit) [[unlikely]]
            return put_cut({std::string_view(parts)...});
        if (!make_room(size)) return false;
        char* to = data_ + length_;
        ((to = copy_to(to, parts)), ...);
        length_ += size;
        return true;
    }

    // Takes back what came behind the first `length` bytes.
    void cut_at(size_t length) { length_ = length; }

    void terminate() {
        if (data_ && length_ < capacity_) data_[length_] = 0;
    }

  private:
    bool put_cut(std::initializer_list<std::string_view> parts) {
        size_t left = kPieceLimit;
        for (const std::string_view part : parts) {
            const std::string_view kept(part.data(), std::min(part.size(), left));
            if (!put(kept)) return false;
            left -= kept.size();
        }
        return true;
    }

    // Room for `count` more bytes and a terminator.
    bool make_room(size_t count) {
        if (length_ + count < capacity_ && data_) [[likely]]
            return true;
        return grow(length_ + count);
    }

    bool grow(size_t length) {
        if (!data_ && length_ != 0) return false;  // a length without bytes
        size_t capacity = capacity_;
        while (length >= capacity) capacity = (capacity + kGrowthSlack) * 2;
        if (capacity > UINT32_MAX) return false;
        char* const larger = static_cast<char*>(realloc(data_, capacity));
        if (!larger) return false;
        data_ = larger;
        capacity_ = capacity;
        return true;
    }

    char* data_;
    size_t capacity_;
    size_t length_;
    char** const data_field_;
    unsigned* const capacity_field_;
    unsigned* const length_field_;
};

// The writer's side of the walk.
class Writer {
  public:
    explicit Writer(Output& output) : output_(output) {}

    bool declaration(const xmldoc_node& node) {
        return output_.put_piece("<?xml") && attributes(node) && output_.put_piece("?>\r\n");
    }
    bool open(const xmldoc_node& node) {
        return output_.put_piece("<", text_of(node.name)) && attributes(node) &&
               output_.put_piece(">") && output_.put(text_of(node.value));
    }
    bool close(const xmldoc_node& node) { return output_.put_piece("</", text_of(node.name), ">"); }

  private:
    bool attributes(const xmldoc_node& node) {
        for (const xmldoc_attr* a = node.first_attribute; a; a = a->next)
            if (!output_.put_piece(" ", text_of(a->name), "=\"", text_of(a->value), "\""))
                return false;
        return true;
    }

    Output& output_;
};

// False, with the node as it was, when memory is out.
bool add_attribute(xmldoc_node& node, const char* name, const char* value) {
    xmldoc_attr* const attribute = xmldoc_attr_create(name, value);
    if (!attribute) return false;
    zt::xml::append_attribute(node, attribute);
    return true;
}

// All lines of the file; null text where it has none. False when memory is out.
bool read_lines(FILE* file, Owned<char>& text) {
    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;
    char line[zt::xml::kLineRoom];
    bool held = true;
    while (held && zt::xml::read_line(file, line) > 0)
        held = buffer_append(&data, &capacity, &length, line, static_cast<int>(strlen(line)));
    text.reset(data);
    return held;
}

}  // namespace

// --- documents ----------------------------------------------------------------------------------

extern "C" xmldoc* xmldoc_create(void) { return zt::allocate_zeroed<xmldoc>(); }

extern "C" xmldoc* xmldoc_create_def(const char* root_name) {
    OwnedDocument document(xmldoc_create());
    if (!document) return nullptr;
    document->declaration = xmldoc_node_create("");
    document->root = xmldoc_node_create(root_name);
    if (!document->declaration || !document->root) return nullptr;
    if (!add_attribute(*document->declaration, "version", "1.0") ||
        !add_attribute(*document->declaration, "encoding", "UTF-8"))
        return nullptr;
    return document.release();
}

extern "C" int xmldoc_init(xmldoc* document) {
    if (document) *document = {};
    return 0;
}

extern "C" void xmldoc_free(xmldoc* document, int free_record) {
    if (!document) return;
    zt::xml::free_trees(*document);
    if (free_record) free(document);
}

// --- nodes --------------------------------------------------------------------------------------

extern "C" xmldoc_node* xmldoc_node_create(const char* name) {
    if (!name) return nullptr;
    Owned<xmldoc_node> node(zt::allocate_zeroed<xmldoc_node>());
    if (!node) return nullptr;
    node->name = strdup(name);
    return node->name ? node.release() : nullptr;
}

extern "C" void xmldoc_free_node(xmldoc_node* node) {
    if (node) zt::xml::free_tree(node);
}

extern "C" void xmldoc_node_add(xmldoc* document, xmldoc_node* parent, xmldoc_node* child) {
    if (!document || !parent || !child) return;
    if (!document->root) document->root = parent;
    zt::xml::append_child(*parent, child);
}

extern "C" void xmldoc_node_add_child(xmldoc_node* parent, xmldoc_node* child) {
    if (parent && child) zt::xml::append_child(*parent, child);
}

extern "C" void xmldoc_node_remove_child(xmldoc_node* parent, xmldoc_node* child) {
    if (!parent || !child) return;
    xmldoc_node* const before = child->previous_sibling;
    xmldoc_node* const behind = child->next_sibling;
    if (before)
        before->next_sibling = behind;
    else if (parent->first_child == child)
        parent->first_child = behind;
    if (behind)
        behind->previous_sibling = before;
    else if (parent->last_child == child)
        parent->last_child = before;
    child->previous_sibling = nullptr;
    child->next_sibling = nullptr;
}

extern "C" xmldoc_node* xmldoc_node_get(const xmldoc_node* node, const char* name) {
    return node && name ? zt::xml::child_named(*node, name) : nullptr;
}

extern "C" char* xmldoc_node_get_value(const xmldoc_node* node, const char* name) {
    const xmldoc_node* const child = xmldoc_node_get(node, name);
    return child ? child->value : nullptr;
}

// --- attributes ---------------------------------------------------------------------------------

extern "C" xmldoc_attr* xmldoc_attr_create(const char* name, const char* value) {
    OwnedAttribute attribute(zt::allocate_zeroed<xmldoc_attr>());
    if (!attribute) return nullptr;
    if (name && !(attribute->name = strdup(name))) return nullptr;
    if (value && !(attribute->value = strdup(value))) return nullptr;
    return attribute.release();
}

extern "C" void xmldoc_node_attr_add(xmldoc_node* node, xmldoc_attr* attribute) {
    if (node && attribute) zt::xml::append_attribute(*node, attribute);
}

extern "C" void xmldoc_node_attr_addval(xmldoc_node* node, const char* name, const char* value) {
    if (node) add_attribute(*node, name, value);
}

extern "C" xmldoc_attr* xmldoc_node_attr_get(const xmldoc_node* node, const char* name) {
    return node && name ? zt::xml::attribute_named(*node, name) : nullptr;
}

extern "C" char* xmldoc_node_attr_get_value(const xmldoc_node* node, const char* name) {
    const xmldoc_attr* const attribute = xmldoc_node_attr_get(node, name);
    return attribute ? attribute->value : nullptr;
}

// --- parser -------------------------------------------------------------------------------------

extern "C" int xmldoc_parse(xmldoc* document, const char* text) {
    if (!text || !*text) return 0;
    if (!document) return -1;
    return zt::xml::Parser<Narrow>(*document, text, text + strlen(text)).parse();
}

extern "C" xmldoc* xmldoc_parse_file(const char* path) {
    const zt::Site here{kModule, __func__};
    if (!path) return nullptr;

    const zt::xml::OwnedFile file(fopen(path, "r"));
    if (!file) {
        zt::report_call(here, "fopen()");
        return nullptr;
    }
    OwnedDocument document(xmldoc_create());
    if (!document) {
        zt::report_call(here, "xmldoc_create()");
        return nullptr;
    }
    Owned<char> text;
    if (!read_lines(file.get(), text)) return nullptr;

    const int code = xmldoc_parse(document.get(), text.get());
    if (code == 0) return document.release();
    zt::report(here, LOGGER_WARNING, "failed parse file %s", path);
    if (code == zt::xml::kNoMemory) return nullptr;
    // The result is the address of the document that the end of this scope frees.
    xmldoc* const stale = document.get();
    return stale;
}

// --- writer -------------------------------------------------------------------------------------

extern "C" int xmldoc_save(const xmldoc* document, const xmldoc_node* node, char** data,
                           unsigned* capacity, unsigned* length) {
    if (!document || !node || !data || !capacity || !length) return -1;

    const unsigned length_before = *length;
    Output output(data, capacity, length);
    Writer writer(output);
    const bool declared =
        length_before > 0 || !document->declaration || writer.declaration(*document->declaration);
    const bool written = declared && zt::xml::walk(*node, writer);
    if (!written) output.cut_at(length_before);
    output.terminate();
    return written ? 0 : -1;
}

extern "C" void xmldoc_node_dump(const xmldoc_node* node) {
    _xmldoc_node_dump_fd(node, stdout, 0);
    fflush(stdout);
}

// --- internal steps -----------------------------------------------------------------------------

extern "C" void _xmldoc_node_dump_fd(const xmldoc_node* node, FILE* stream, unsigned /*depth*/) {
    if (!node || !stream) return;
    zt::xml::dump(*node, stream);
}

extern "C" const char* _xmldoc_skip_white(const char* text) {
    return text ? zt::xml::skip_white(text) : nullptr;
}

extern "C" const char* _xmldoc_skip_name(const char* text) {
    return text ? zt::xml::skip_name(text) : nullptr;
}

extern "C" void _xmldoc_shift_left(char* text, unsigned n) {
    if (text) zt::xml::shift_left(text, n);
}

extern "C" void _xmldoc_attr_value_normalize_s1(char* value) {
    if (value) zt::xml::white_to_spaces(value);
}

extern "C" void _xmldoc_attr_value_normalize_s2(char* value) {
    if (value) zt::xml::squeeze_spaces(value);
}

extern "C" int _xmldoc_value_escape(char* text) {
    return text ? zt::xml::decode_entities(text, strlen(text)) : -1;
}

extern "C" int _xmldoc_buffer_append(char** data, unsigned* capacity, unsigned* length,
                                     const char* text, int n) {
    if (!data || !capacity || !length || !text || n < 0) return -1;
    Output output(data, capacity, length);
    if (!output.put({text, static_cast<size_t>(n)})) return -1;
    output.terminate();
    return 0;
}

extern "C" int _xmldoc_buffer_vsprintf(char** data, unsigned* capacity, unsigned* length,
                                       const char* format, ...) {
    if (!format) return -1;
    char piece[kFormatRoom];
    va_list arguments;
    va_start(arguments, format);
    const int size = vsnprintf(piece, sizeof piece, format, arguments);
    va_end(arguments);
    if (size < 0) return -1;
    return _xmldoc_buffer_append(data, capacity, length, piece,
                                 std::min(size, static_cast<int>(kPieceLimit)));
}
