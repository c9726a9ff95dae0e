// A header block is read in three layers: its end is found, it is cut into lines, and each line is
// understood. Nothing is copied but what the document keeps.
//
// A zero byte before the end hides the end for good. To know of one without remembering it, the
// search looks back from an end that it found, but no further than to an earlier end: that one was
// hidden, or the search would not have gone on, and then so is this one. All looks together
// therefore cost no more than the bytes received.

#include <ztlib/htmldoc/message_parser.hpp>

#include <ztlib/base/memory.h>
#include <ztlib/base/text.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace zt::http {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kBlockEnd = "\r\n\r\n";
constexpr auto npos = std::string_view::npos;

// --- refusals ------------------------------------------------------------------------------------

// Says why a text is refused, under the family's name and behind the text itself.
class Refusal {
  public:
    Refusal(const Family& family, std::string_view raw) : family_(family), raw_(raw) {}

    Verdict operator()(const char* format, ...) const __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        report_refusal(family_.failed, raw_, format, arguments);
        va_end(arguments);
        return Verdict::refused;
    }

    Verdict out_of_memory() const {
        operator()("malloc(): %s\n", strerror(errno));
        return Verdict::out_of_memory;
    }

  private:
    const Family& family_;
    std::string_view raw_;
};

int as_int(size_t length) { return static_cast<int>(length); }

// --- the end of the block ------------------------------------------------------------------------

// From `at` on: where a line feed stands with a CR behind it, as in the middle of a block's end and
// nowhere else in most blocks, or a zero byte; or the text's length.
size_t find_feed_before_return(std::string_view text, size_t at) {
    for (; text.size() - at > sizeof(zt::Sixteen); at += sizeof(zt::Sixteen)) {
        const zt::Sixteen here = zt::load_sixteen(text.data() + at);
        const zt::Sixteen next = zt::load_sixteen(text.data() + at + 1);
        const auto marks = ((here == '\n') & (next == '\r')) | (here == '\0');
        if (const unsigned found = zt::bits_of(marks))
            return at + static_cast<unsigned>(__builtin_ctz(found));
    }
    for (; at < text.size(); at++)
        if (text[at] == '\0' || (text[at] == '\n' && at + 1 < text.size() && text[at + 1] == '\r'))
            break;
    return at;
}

// True when the four bytes that end with the line feed at `line_feed` end a block.
bool ends_block(std::string_view text, size_t line_feed) {
    return line_feed + 1 >= kBlockEnd.size() && line_feed < text.size() &&
           memcmp(text.data() + line_feed + 1 - kBlockEnd.size(), kBlockEnd.data(),
                  kBlockEnd.size()) == 0;
}

bool has_zero_byte(std::string_view text) { return memchr(text.data(), 0, text.size()) != nullptr; }

// Looks back from the line feed that ends the block, line by line, to an earlier end or the start.
bool is_hidden(std::string_view text, size_t line_feed) {
    for (size_t line_end = line_feed;;) {
        const std::string_view before = zt::front(text, line_end);
        const void* found = memrchr(before.data(), '\n', before.size());
        if (!found) return has_zero_byte(before);
        const auto previous = static_cast<size_t>(static_cast<const char*>(found) - before.data());
        if (has_zero_byte(from(before, previous)) || ends_block(text, previous)) return true;
        line_end = previous;
    }
}

// --- lines ---------------------------------------------------------------------------------------

size_t find_char(std::string_view text, char c) {
    const void* found = memchr(text.data(), c, text.size());
    return found ? static_cast<size_t>(static_cast<const char*>(found) - text.data()) : npos;
}

bool ends_line(char c) { return c == '\r' || c == '\n'; }

// Hands each line of the block to `take` until one is not taken. Any run of CR and LF separates
// lines.
template <class Take>
Verdict for_each_line(std::string_view block, Take take) {
    for (size_t at = 0;;) {
        while (at < block.size() && ends_line(block[at])) at++;
        if (at == block.size()) return Verdict::taken;
        const size_t length = zt::find_any(from(block, at), '\r', '\n');
        const Verdict verdict = take(std::string_view(block.data() + at, length));
        if (verdict != Verdict::taken) return verdict;
        at += length;
    }
}

// --- what a block says ---------------------------------------------------------------------------

// What was understood of a block so far. The words still lie in the block.
class Head {
  public:
    Head(const Message& m, const Family& family, const Refusal& refuse)
        : family_(family), refuse_(refuse), start_line_is_due_(m.method[0] == '\0') {}

    // Every line of a message: the start line, then header lines.
    Verdict read(std::string_view block);
    // The lines of a CGI program's output; those that are no header lines are skipped.
    Verdict read_cgi(std::string_view block);

    // Moves what was understood into the document.
    void store(const Message& m);

  private:
    Verdict read_start_line(std::string_view line);
    Verdict read_url(std::string_view text);
    Verdict read_query(std::string_view query);
    Verdict read_header_line(std::string_view line, size_t colon);

    const Family& family_;
    const Refusal& refuse_;
    bool start_line_is_due_;
    std::string_view method_;  // null while none was read; so is the protocol
    std::string_view protocol_;
    Owned<char> url_;
    size_t url_length_ = 0;
    bool has_url_ = false;
    const char* host_ = nullptr;
    NewOptions options_;
    NewOptions get_params_;
};

Verdict Head::read(std::string_view block) {
    return for_each_line(block, [this](std::string_view line) {
        if (start_line_is_due_) return read_start_line(line);
        const size_t colon = zt::find_any(line, ':');
        if (colon == line.size())
            return refuse_("parse options (can't find : in '%.*s')\n", as_int(line.size()),
                           line.data());
        return read_header_line(line, colon);
    });
}

Verdict Head::read_cgi(std::string_view block) {
    return for_each_line(block, [this](std::string_view line) {
        const size_t colon = zt::find_any(line, ':');
        return colon == line.size() ? Verdict::taken : read_header_line(line, colon);
    });
}

Verdict Head::read_start_line(std::string_view line) {
    const size_t method_end = find_char(line, ' ');
    if (method_end == npos) return refuse_("search method\n");
    if (method_end > HTMLDOC_WORD_LENGTH)
        return refuse_("method len to long (%d expect max %d)\n", as_int(method_end),
                       HTMLDOC_WORD_LENGTH);
    method_ = zt::front(line, method_end);
    start_line_is_due_ = method_.empty();

    line.remove_prefix(method_end + 1);
    const size_t url_end = find_char(line, ' ');
    if (url_end == npos) return refuse_("search url\n");
    if (const Verdict verdict = read_url(zt::front(line, url_end)); verdict != Verdict::taken)
        return verdict;

    line.remove_prefix(url_end + 1);
    if (line.size() > HTMLDOC_WORD_LENGTH)
        return refuse_("proto len to long (%d exprect max %d)\n", as_int(line.size()),
                       HTMLDOC_WORD_LENGTH);
    protocol_ = line;
    return Verdict::taken;
}

Verdict Head::read_url(std::string_view text) {
    const std::string_view url = zt::front(text, find_char(text, '?'));
    if (url.size() < text.size()) {
        const Verdict verdict = read_query(from(text, url.size() + 1));
        if (verdict != Verdict::taken) return verdict;
    }
    if (url.size() > HTMLDOC_URL_LENGTH)
        return refuse_("url len to long (%d expect max %d)\n", as_int(url.size()),
                       HTMLDOC_URL_LENGTH);

    if (url.empty()) {
        url_.reset();
    } else {
        url_.reset(allocate<char>(url.size() + family_.url_spare));
        if (!url_) return refuse_.out_of_memory();
        memcpy(url_.get(), url.data(), url.size());
        url_.get()[url.size()] = '\0';
    }
    url_length_ = url.size();
    has_url_ = true;
    return Verdict::taken;
}

Verdict Head::read_query(std::string_view query) {
    for (std::string_view piece; !(piece = take_piece(query)).empty();) {
        const size_t equals = find_char(piece, '=');
        if (equals == npos)
            return refuse_("parse options get (can't find = in '%.*s')\n", as_int(piece.size()),
                           piece.data());
        if (equals + 1 == piece.size())
            return refuse_("parse options get (missing value for '%.*s')\n", as_int(equals),
                           piece.data());
        if (!get_params_.prepend(zt::front(piece, equals), from(piece, equals + 1)))
            return refuse_.out_of_memory();
    }
    return Verdict::taken;
}

Verdict Head::read_header_line(std::string_view line, size_t colon) {
    const std::string_view name = zt::front(line, colon);
    std::string_view value = from(line, colon + 1);
    value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
    if (value.empty())
        return refuse_("parse options (missing value for '%.*s')\n", as_int(name.size()),
                       name.data());

    const htmldoc_option* node = options_.prepend(name, value);
    if (!node) return refuse_.out_of_memory();
    if (name == "Host") host_ = node->value;
    return Verdict::taken;
}

void copy_word(char (&to)[HTMLDOC_WORD_LENGTH + 1], std::string_view word) {
    memcpy(to, word.data(), word.size());
    to[word.size()] = '\0';
}

void Head::store(const Message& m) {
    if (method_.data()) copy_word(m.method, method_);
    if (has_url_) replace_url(m, url_.release(), url_length_);
    if (protocol_.data()) copy_word(m.protocol, protocol_);
    if (host_) m.host = host_;
    options_.move_in_front_of(m.options);
    get_params_.move_in_front_of(m.get_params);
}

// strcmp() against a literal, unrolled: a body that comes byte by byte asks after every one.
template <size_t... index>
bool equals(const char* text, const char* literal, std::index_sequence<index...>) {
    return (... && (text[index] == literal[index]));
}
template <size_t size>
bool equals(const char* text, const char (&literal)[size]) {
    return equals(text, literal, std::make_index_sequence<size>());
}

// The first node of this name, or null.
template <size_t size>
const htmldoc_option* find_named(const htmldoc_option* node, const char (&name)[size]) {
    while (node && !(node->name && equals(node->name, name))) node = node->next;
    return node;
}

int finish_body(uint8_t& body_ok, bool is_whole) {
    body_ok = is_whole;
    return is_whole ? 0 : 1;
}

// Whatever atoi() makes a number of.
[[gnu::noinline, gnu::cold]] int judge_by_atoi(const char* announced, uint32_t length,
                                               uint8_t& body_ok) {
    return finish_body(body_ok, static_cast<uint32_t>(atoi(announced)) == length);
}

}  // namespace

size_t find_block_end(std::string_view text, size_t searched) {
    // The block's last line feed but one may stand among the bytes that were searched.
    for (size_t at = searched - std::min<size_t>(searched, 2);; at++) {
        at = find_feed_before_return(text, at);
        if (at == text.size() || text[at] == '\0') return npos;
        const size_t last = at + 2;
        if (!ends_block(text, last)) continue;
        const bool hidden = searched != 0 && is_hidden(text, last);
        return hidden ? npos : last + 1 - kBlockEnd.size();
    }
}

Verdict judge_block(std::string_view text, size_t end, const Family& family) {
    if (text[0] == '\r' || text[0] == '\n') return Verdict::refused;
    if (end == npos && text.size() < HTMLDOC_HEADER_LENGTH + kBlockEnd.size())
        return Verdict::more_needed;
    if (end > HTMLDOC_HEADER_LENGTH)
        return Refusal(family, text)("header len to long (%d expect max %d)\n",
                                     as_int(std::min(end, text.size())), HTMLDOC_HEADER_LENGTH);
    return Verdict::taken;
}

int judge_body(const htmldoc_option* options, uint32_t length, uint8_t& body_ok) {
    const htmldoc_option* node = find_named(options, "Content-Length");
    if (!node) return finish_body(body_ok, true);
    if (!node->value) return finish_body(body_ok, false);

    constexpr ptrdiff_t kSureDigits = 9;  // never too many for an int
    uint64_t number = 0;
    const char* end = node->value;
    for (; *end >= '0' && *end <= '9'; end++)
        number = number * 10 + static_cast<uint8_t>(*end - '0');
    const ptrdiff_t digits = end - node->value;
    if (digits == 0 || digits > kSureDigits) return judge_by_atoi(node->value, length, body_ok);
    return finish_body(body_ok, number == length);
}

int take_body(buffer& body, const htmldoc_option* options, uint8_t& body_ok,
              std::string_view bytes) {
    return append(body, bytes) ? judge_body(options, body.length, body_ok) : -1;
}

Receipt take_block(const Message& m, const Family& family, std::string_view text, size_t end,
                   buffer* refused) {
    const Refusal refuse(family, text);
    Head head(m, family, refuse);
    const Verdict verdict = head.read(zt::front(text, end + kLineEnd.size()));
    if (verdict == Verdict::refused) {
        if (refused && !append(*refused, text)) return {Verdict::out_of_memory};
        head.store(m);
        return {verdict, refused ? text.size() : 0};
    }
    if (verdict != Verdict::taken) return {verdict};

    const size_t block_bytes = end + kBlockEnd.size();
    const std::string_view body = from(text, block_bytes);
    if (m.body_ok != 0) {
        head.store(m);
        m.header_ok = 1;
        return {Verdict::taken, block_bytes};
    }
    if (!body.empty() && !append(m.body, body)) return {Verdict::out_of_memory};
    head.store(m);
    m.header_ok = 1;
    judge_body(m.options, body.empty() ? 0 : m.body.length, m.body_ok);
    return {Verdict::taken, text.size()};
}

Verdict receive_cgi(const Message& m, const Family& family, std::string_view text) {
    const size_t end = find_block_end(text, 0);
    if (const Verdict verdict = judge_block(text, end, family); verdict != Verdict::taken)
        return verdict;

    const Refusal refuse(family, text);
    Head head(m, family, refuse);
    if (m.header_ok == 0) {
        const Verdict verdict = head.read_cgi(zt::front(text, end + kLineEnd.size()));
        if (verdict == Verdict::refused) head.store(m);
        if (verdict != Verdict::taken) return verdict;
    }

    const std::string_view body = from(text, end + kBlockEnd.size());
    if (m.body_ok == 0 && !body.empty()) {
        char* copy = duplicate(body.data(), body.size());
        if (!copy) return refuse.out_of_memory();
        if (m.body.capacity != 0) free(m.body.data);
        const auto length = static_cast<uint32_t>(body.size());
        m.body = {copy, length, length};
    }
    head.store(m);
    m.header_ok = 1;
    m.body_ok = 1;
    return Verdict::taken;
}

}  // namespace zt::http
