// The parser of both XML documents: one pass, a cursor, and the element that is open.
//
// A text is a row of tags. Each turn finds the next '<', reads one closing or opening tag with what
// belongs to it, and leaves the cursor behind it. An opening tag makes a node; the node goes to its
// place only when its tag (and text) has been read in full, so that a tag that fails leaves
// nothing.
//
//     <name attribute="value" ...>text<          '?' before '>': the declaration
//     |     |                     |              '/' before '>': complete, the open element stays
//     |     read_attribute()      read_text()    else:           the open element from now on
//     read_opening_tag()
//
// Every character is looked at a bounded number of times, and a search that finds nothing ends the
// parse: time is in proportion to the text.
//
// The policy names the records and says where the two documents differ:
//
//     using Char, Document, Node, Attribute
//     static constexpr bool kSkipsComments
//     static int no_tag_start()          no '<' where a tag must start; the result is the code
//     static int no_equals_sign()        no '=' behind an attribute's name
//     static int bad_entity(int error)   text with an entity that cannot be decoded
#pragma once

#include <ztlib/base/memory.h>
#include <ztlib/xmldoc/xml_text.hpp>
#include <ztlib/xmldoc/xml_tree.hpp>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

namespace zt::xml {

constexpr ptrdiff_t kNameLimit = 1023;  // characters

// Results of a parse; those that a policy chooses are not here.
enum Code : int {
    kParsed = 0,
    kNothingOpen = -1,
    kClosingTagUnended = -2,
    kClosingTagEmpty = -3,
    kClosingTagDiffers = -4,
    kTagEmpty = -5,
    kTagUnnamed = -6,
    kEndAfterName = -7,
    kEndAfterNameGap = -8,
    kEndInAttributeName = -9,
    kEndAfterAttributeName = -10,
    kEndAfterEqualsSign = -12,
    kValueUnquoted = -13,
    kEndAtOpeningQuote = -14,
    kClosingQuoteMissing = -15,
    kEndAfterValue = -16,
    kSecondDeclarationInAttributes = -17,
    kTagUnended = -18,
    kTextUnended = -19,
    kSecondDeclaration = -20,
    kNameTooLong = -31,
    kNoMemory = -32,
};

template <class Policy>
class Parser {
    using Char = typename Policy::Char;
    using Document = typename Policy::Document;
    using Node = typename Policy::Node;
    using Attribute = typename Policy::Attribute;

  public:
    // Reads [text, end), with a terminator at `end` and none before, into the document.
    Parser(Document& document, const Char* text, const Char* end)
        : document_(document),
          had_root_(document.root),
          had_declaration_(document.declaration),
          cursor_(text),
          end_(end) {}

    int parse() {
        int code = kParsed;
        while (code == kParsed && !at_end()) code = read_tag();
        if (stray_) free_tree(stray_);
        if (code == kNoMemory) take_back();
        return code;
    }

  private:
    // A node under construction; it has no children yet.
    struct FreeSingle {
        void operator()(Node* node) const { free_single(node); }
    };
    using NewNode = std::unique_ptr<Node, FreeSingle>;

    bool at_end() const { return cursor_ == end_; }
    // The first `wanted` from the cursor on, most often at once; null where there is none.
    const Char* find_next(Char wanted) const {
        return *cursor_ == wanted ? cursor_ : find(cursor_, end_, wanted);
    }

    int read_tag() {
        const Char* const start = find_next('<');
        if (!start || start + 1 == end_) return Policy::no_tag_start();
        cursor_ = start + 1;
        const int code = *cursor_ == '/' ? read_closing_tag() : read_opening_tag();
        if (code == kParsed && !open_) cursor_ = skip_white(cursor_);
        return code;
    }

    // </name>, from the '/' on.
    int read_closing_tag() {
        if (!open_) return kNothingOpen;
        const Char* const name = cursor_ + 1;
        const Char* const name_end = behind_equal(name, open_->name);
        if (!name_end || *name_end != '>') return fault_of_closing_tag(name);
        cursor_ = name_end + 1;
        close_element();
        return kParsed;
    }

    // Behind what is the same as `expected`, or null where it differs.
    static const Char* behind_equal(const Char* text, const Char* expected) {
        for (; *expected; ++expected, ++text)
            if (*text != *expected) return nullptr;
        return text;
    }

    // Why the tag does not close the open element.
    Code fault_of_closing_tag(const Char* name) const {
        const Char* const tag_end = find(name, end_, Char('>'));
        if (!tag_end) return kClosingTagUnended;
        if (tag_end == name) return kClosingTagEmpty;
        return tag_end - name > kNameLimit ? kNameTooLong : kClosingTagDiffers;
    }

    // <name ...>text, from the name on.
    int read_opening_tag() {
        if (*cursor_ == '>') return kTagEmpty;
        const Char* const name = cursor_;
        cursor_ = skip_name(name);
        if (cursor_ == name) return kTagUnnamed;
        if (cursor_ - name > kNameLimit) return kNameTooLong;
        if (at_end()) return kEndAfterName;
        if constexpr (Policy::kSkipsComments) {
            if (is_comment(name)) return skip_comment();
        }

        NewNode node = make_node(name);
        if (!node) return kNoMemory;
        if (const int code = read_attributes(*node); code != kParsed) return code;

        const Char* const tag_end = find_next('>');
        if (!tag_end) return kTagUnended;
        cursor_ = tag_end + 1;
        switch (tag_end[-1]) {
            case '?':
                return place_declaration(std::move(node));
            case '/':
                return place_complete(std::move(node));
        }
        if (const int code = read_text(*node); code != kParsed) return code;
        return place_open(std::move(node));
    }

    bool is_comment(const Char* name) const {
        constexpr std::string_view kCommentName = "!--";
        return std::equal(kCommentName.begin(), kCommentName.end(), name, cursor_);
    }

    // Until behind the next "-->", or to the end where there is none.
    int skip_comment() {
        constexpr Char kCommentEnd[] = {'-', '-', '>'};
        const Char* const found =
            std::search(cursor_, end_, std::begin(kCommentEnd), std::end(kCommentEnd));
        cursor_ = found == end_ ? end_ : found + std::size(kCommentEnd);
        return kParsed;
    }

    // A node with the name that ends at the cursor.
    NewNode make_node(const Char* name) const {
        Owned<Char> copy(copy_of(name, cursor_));
        Node* const node = copy ? allocate<Node>(1) : nullptr;
        if (!node) return nullptr;
        *node = Node{};
        node->name = copy.release();
        node->parent = open_;
        return NewNode(node);
    }

    // What stands between a tag's name and its end: nothing, blanks, attributes.
    int read_attributes(Node& node) {
        if (*cursor_ == ' ') {
            cursor_ = skip_white(cursor_);
            if (at_end()) return kEndAfterNameGap;
        }
        if (*cursor_ == '/' || *cursor_ == '>') return kParsed;
        do {
            if (const int code = read_attribute(node); code != kParsed) return code;
        } while (*cursor_ != '/' && *cursor_ != '>' && *cursor_ != '?');
        return *cursor_ == '?' && document_.declaration ? kSecondDeclarationInAttributes : kParsed;
    }

    // name = "value" and the blanks behind it.
    int read_attribute(Node& node) {
        const Char* const name = cursor_;
        const Char* const name_end = skip_name(name);
        if (name_end - name > kNameLimit) return kNameTooLong;
        cursor_ = name_end;
        if (at_end()) return kEndInAttributeName;
        if (*cursor_ == ' ') {
            cursor_ = skip_white(cursor_);
            if (at_end()) return kEndAfterAttributeName;
        }
        if (*cursor_ != '=') return Policy::no_equals_sign();
        cursor_ = skip_white(cursor_ + 1);
        if (at_end()) return kEndAfterEqualsSign;

        const Char quote = *cursor_;
        if (quote != '\'' && quote != '"') return kValueUnquoted;
        const Char* const value = ++cursor_;
        if (at_end()) return kEndAtOpeningQuote;
        const Run<Char> run = run_until(quote, value, end_);
        if (!run.end) return kClosingQuoteMissing;
        Attribute* const attribute = make_attribute(name, name_end, value, run.end);
        if (!attribute) return kNoMemory;
        append_attribute(node, attribute);
        if (run.may_hold & kWhite) {
            white_to_spaces(attribute->value);
            squeeze_spaces(attribute->value);
        }

        cursor_ = skip_white(run.end + 1);
        return at_end() ? kEndAfterValue : kParsed;
    }

    static Attribute* make_attribute(const Char* name, const Char* name_end, const Char* value,
                                     const Char* value_end) {
        Owned<Char> name_copy(copy_of(name, name_end));
        Owned<Char> value_copy(copy_of(value, value_end));
        Attribute* const attribute = name_copy && value_copy ? allocate<Attribute>(1) : nullptr;
        if (!attribute) return nullptr;
        *attribute = Attribute{};
        attribute->name = name_copy.release();
        attribute->value = value_copy.release();
        return attribute;
    }

    static Char* copy_of(const Char* begin, const Char* end) {
        return duplicate(begin, static_cast<size_t>(end - begin));
    }

    // The text straight behind an opening tag, up to the next tag.
    int read_text(Node& node) {
        if (at_end() || *cursor_ == '<') return kParsed;
        const Run<Char> run = run_until(Char('<'), cursor_, end_);
        if (!run.end) return kTextUnended;
        node.value = copy_of(cursor_, run.end);
        if (!node.value) return kNoMemory;
        if (run.may_hold & kAmpersand) {
            const int error = decode_entities(node.value, static_cast<size_t>(run.end - cursor_));
            if (error != 0) return Policy::bad_entity(error);
        }
        cursor_ = run.end;
        return kParsed;
    }

    // A declaration stays even where the element around it goes.
    int place_declaration(NewNode node) {
        if (document_.declaration) return kSecondDeclaration;
        if (stray_) node->parent = nullptr;
        document_.declaration = node.release();
        return kParsed;
    }

    int place_complete(NewNode node) {
        if (has_place()) place(node.release());
        return kParsed;
    }

    int place_open(NewNode node) {
        if (has_place())
            place(node.get());
        else
            stray_ = node.get();
        open_ = node.release();
        return kParsed;
    }

    bool has_place() const { return open_ || !document_.root; }
    void place(Node* node) {
        if (open_)
            append_child(*open_, node);
        else
            document_.root = node;
    }

    void close_element() {
        Node* const closed = open_;
        open_ = closed->parent;
        if (closed != stray_) return;
        free_tree(stray_);
        stray_ = nullptr;
    }

    // Frees what this parse has put into the document.
    void take_back() {
        drop(document_.root, had_root_);
        drop(document_.declaration, had_declaration_);
    }
    static void drop(Node*& node, bool was_there) {
        if (!node || was_there) return;
        free_tree(node);
        node = nullptr;
    }

    Document& document_;
    const bool had_root_;
    const bool had_declaration_;
    const Char* cursor_;
    const Char* const end_;
    Node* open_ = nullptr;   // the element that what comes next goes into
    Node* stray_ = nullptr;  // an open top-level element that is attached nowhere
};

}  // namespace zt::xml
