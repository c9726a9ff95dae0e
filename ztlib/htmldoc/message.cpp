// All of a document but its parser: life, dump, rendering, body and form.

#include <ztlib/htmldoc/message.hpp>

#include <ztlib/base/memory.h>
#include <ztlib/base/stderr_block.h>
#include <ztlib/base/text.h>
#include <ztlib/htmldoc/option_list.hpp>
#include <ztlib/htmldoc/uri.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <utility>

namespace zt::http {

namespace {

// What the url of a message without one points to. Never released, because its length is 0.
constexpr char kNoUrl[] = "";

std::string_view view_of(const char* text) { return text ? text : ""; }

// For "%.*s": as much of the text as printf can count.
int printable(size_t length) { return static_cast<int>(std::min<size_t>(length, INT_MAX)); }

// --- copying -------------------------------------------------------------------------------------

bool copy_url(const Message& copy, const Message& m) {
    if (!m.url) {
        copy.url_length = m.url_length;
        return true;
    }
    // A status code can stand in the place of the length, so the text may be shorter.
    Owned<char> url;
    if (m.url_length != 0) {
        url.reset(static_cast<char*>(calloc(size_t{m.url_length} + 1, 1)));
        if (!url) return false;
        memcpy(url.get(), m.url, strnlen(m.url, m.url_length));
    }
    replace_url(copy, url.release(), m.url_length);
    return true;
}

bool copy_body(buffer& copy, const buffer& body) {
    if (body.capacity != 0 && body.data) {
        const size_t held = std::min(body.length, body.capacity);
        copy.data = allocate<char>(size_t{body.capacity} + 1);
        if (!copy.data) return false;
        memcpy(copy.data, body.data, held);
        copy.data[held] = '\0';
    }
    copy.capacity = body.capacity;
    copy.length = body.length;
    return true;
}

bool copy_options(htmldoc_option*& copy, const htmldoc_option* list) {
    NewOptions copies;
    if (!copies.prepend_copies_of(list)) return false;
    copies.move_in_front_of(copy);
    return true;
}

// --- rendering -----------------------------------------------------------------------------------

// The pieces of a message in their order, each handed to `take`.
template <class Take>
void for_each_piece(const Message& m, const Family& family, bool is_request, Take take) {
    constexpr std::string_view kLineEnd = "\r\n";
    std::array<char, 5> code;  // digits of a 16-bit number
    std::string_view middle = view_of(m.url);
    if (!is_request) {
        const auto written = std::to_chars(code.begin(), code.end(), m.url_length);
        middle = {code.data(), static_cast<size_t>(written.ptr - code.data())};
    }
    for (const std::string_view piece :
         {std::string_view(m.method), std::string_view(" "), middle, std::string_view(" "),
          std::string_view(m.protocol), kLineEnd})
        take(piece);

    for (const htmldoc_option* node = m.options; node; node = node->next) {
        take(view_of(node->name));
        take(family.name_separator);
        take(view_of(node->value));
        take(kLineEnd);
    }
    take(kLineEnd);
    if (m.body.capacity != 0 && m.body.data) take(std::string_view(m.body.data, m.body.length));
}

// --- body ----------------------------------------------------------------------------------------

// Makes room for `n` bytes and a terminator. False, with errno set, when memory is out.
bool make_room(buffer& body, size_t n) {
    const size_t length = body.length + n;
    const size_t capacity = length > body.capacity ? (n + body.capacity) * 2 : body.capacity;
    // A body that is exactly full has its terminator behind its capacity.
    const size_t needed = std::max(capacity, length + 1);
    if (body.data && needed <= body.capacity) return true;
    if (capacity > UINT32_MAX) {
        errno = ENOMEM;
        return false;
    }
    void* grown = realloc(body.data, needed);
    if (!grown) return false;
    body.data = static_cast<char*>(grown);
    body.capacity = static_cast<uint32_t>(capacity);
    return true;
}

// --- forms ---------------------------------------------------------------------------------------

// Ends each piece within the first `length` bytes with a zero byte in place of its '&'.
void terminate_pieces(char* text, size_t length) {
    for (char* at = text + 1; at < text + length; at++)
        if (*at == '&' && at[-1] != '&' && at[-1] != '\0') *at = '\0';
}

// One parameter: the key without its last character, and what decoding from the '=' on gives within
// the room of the value and its '='.
bool add_parameter(NewOptions& parameters, std::string_view key, std::string_view from_equals,
                   const Family& family, StderrBlock& said) {
    const std::string_view name = zt::front(key, key.empty() ? 0 : key.size() - 1);
    Owned<char> decoded(allocate<char>(from_equals.size() + 1));
    if (!decoded) return false;
    size_t length = 0;
    decode_uri_piece(from_equals, decoded.get(), printable(from_equals.size()), family.uri_decode,
                     said, length);
    decoded.get()[length] = '\0';
    return parameters.prepend_owned(name, decoded.release()) != nullptr;
}

}  // namespace

void replace_url(const Message& m, char* url, size_t length) {
    if (m.url_length != 0) free(m.url);
    m.url = length != 0 ? url : const_cast<char*>(kNoUrl);
    m.url_length = static_cast<uint16_t>(length);
}

void release(const Message& m) {
    if (m.url_length != 0) free(m.url);
    if (m.body.capacity != 0) free(m.body.data);
    free_options(m.options);
    free_options(m.get_params);
    free_options(m.post_params);
}

bool copy_to(const Message& copy, const Message& m) {
    memcpy(copy.method, m.method, strnlen(m.method, HTMLDOC_WORD_LENGTH));
    return copy_url(copy, m) && copy_options(copy.options, m.options) &&
           copy_options(copy.get_params, m.get_params) &&
           copy_options(copy.post_params, m.post_params) && copy_body(copy.body, m.body);
}

void dump(const Message& m) {
    fprintf(stderr, "- dump http document: %s %s (%d) %s\n", m.method, m.url ? m.url : "<none>",
            m.url_length, m.protocol);
    for (const htmldoc_option* node = m.options; node; node = node->next)
        fprintf(stderr, "\t%s:%s\n", view_of(node->name).data(), view_of(node->value).data());
    fprintf(stderr, "- get params -\n");
    for (const htmldoc_option* node = m.get_params; node; node = node->next)
        fprintf(stderr, "\t%s=%s\n", view_of(node->name).data(), view_of(node->value).data());
    if (m.body.length != 0) {
        fprintf(stderr, "- body_pos %d -\n", static_cast<int>(m.body.length));
        fprintf(stderr, "- body -\n%.*s\n", printable(m.body.length), view_of(m.body.data).data());
    }
}

void render(const Message& m, const Family& family, bool is_request, char** data,
            unsigned* capacity, unsigned* length) {
    if (!data || !capacity || !length) return;
    size_t total = 0;
    for_each_piece(m, family, is_request, [&](std::string_view piece) { total += piece.size(); });
    const auto room = static_cast<unsigned>(std::min<size_t>(total, UINT_MAX));
    if (!buffer_make_room(data, capacity, length, room)) return;

    char* at = *data + *length;
    for_each_piece(m, family, is_request, [&](std::string_view piece) {
        at = std::copy_n(piece.data(), piece.size(), at);
    });
    *at = '\0';
    *length += room;
}

int append_to_body(buffer& body, const void* data, int n) {
    if (n == 0 && !body.data) return 0;
    if (!data && n > 0) return -1;

    // A negative count fails as one does that no memory can hold.
    if (!make_room(body, n >= 0 ? static_cast<size_t>(n) : SIZE_MAX / 4)) {
        fprintf(stderr, "realloc(): %s\n", strerror(errno));
        return -1;
    }
    if (n > 0) memcpy(body.data + body.length, data, static_cast<size_t>(n));
    body.length += static_cast<uint32_t>(n);
    body.data[body.length] = '\0';
    return 0;
}

int append_text_to_body(buffer& body, const char* text, const char* function) {
    if (!text) {
        fprintf(stderr, "%s: append null data\n", function);
        return -1;
    }
    const size_t length = strlen(text);
    return append_to_body(body, text, length <= INT_MAX ? static_cast<int>(length) : -1);
}

int append_format_to_body(buffer& body, const char* format, va_list arguments) {
    if (!format) return -1;
    char text[HTMLDOC_ARGUMENT_LENGTH + 1];
    const int length = vsnprintf(text, sizeof text, format, arguments);
    if (length < 0) return -1;
    return append_to_body(body, text, std::min<int>(length, HTMLDOC_ARGUMENT_LENGTH));
}

int split_form(const Message& m, const Family& family) {
    if (m.header_ok != 1 || m.body_ok != 1) {
        fprintf(stderr, "header_ok=%u, body_ok=%u", m.header_ok, m.body_ok);
        return -1;
    }
    if (m.body.length == 0 || !m.body.data) return 0;

    std::string_view rest(m.body.data, strnlen(m.body.data, m.body.length));
    const size_t length = rest.size();
    NewOptions parameters;
    StderrBlock said;  // a line for most parameters
    int result = 0;
    for (std::string_view piece; !(piece = take_piece(rest)).empty();) {
        const size_t equals = piece.find('=');
        if (equals == std::string_view::npos) {
            said.flush();
            fprintf(stderr, "%s: missing '=' in '%.*s'\n", family.wrap_post,
                    printable(piece.size()), piece.data());
            result = -1;
            break;
        }
        if (!add_parameter(parameters, zt::front(piece, equals), from(piece, equals), family, said))
            return -1;
    }
    // The '&' behind the last piece that was looked at is its end too.
    terminate_pieces(m.body.data, std::min(length - rest.size() + 1, length));
    parameters.move_in_front_of(m.post_params);
    return result;
}

void report_refusal(const char* failed, std::string_view raw, const char* format,
                    va_list arguments) {
    fprintf(stderr, "%s: request:\n%.*s\n", failed, printable(raw.size()), raw.data());
    if (format) vfprintf(stderr, format, arguments);
}

}  // namespace zt::http
