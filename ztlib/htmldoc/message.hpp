// What the two document families have in common: everything but the input buffer. A family's own
// file names what differs (Family), hands its record over as a Message, and keeps the rest for
// itself.
#pragma once

#include <ztlib/base/text.h>
#include <ztlib/htmldoc/htmldoc.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <string_view>

namespace zt::http {

// The text from its n-th character on; n is not beyond its end.
constexpr std::string_view from(std::string_view text, size_t n) {
    return {text.data() + n, text.size() - n};
}

// Takes the next piece between '&' off the text; empty pieces vanish. Empty at the end.
inline std::string_view take_piece(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of('&'), text.size()));
    const std::string_view piece = zt::front(text, text.find('&'));
    text.remove_prefix(piece.size());
    return piece;
}

// Where the families differ.
struct Family {
    const char* failed;               // the exported functions that messages name
    const char* wrap_post;            //
    const char* uri_decode;           //
    size_t url_spare;                 // room behind a parsed url's text, terminator included
    std::string_view name_separator;  // between name and value of a rendered header line
};

// The fields that both records have, in place.
struct Message {
    char (&method)[HTMLDOC_WORD_LENGTH + 1];
    char*& url;
    uint16_t& url_length;
    char (&protocol)[HTMLDOC_WORD_LENGTH + 1];
    const char*& host;
    htmldoc_option*& options;
    uint8_t& header_ok;
    htmldoc_option*& get_params;
    htmldoc_option*& post_params;
    buffer& body;
    uint8_t& body_ok;
};

template <class Record>
Message message_of(Record& d) {
    return {d.method,    d.url,        d.url_length,  d.protocol, d.host,   d.options,
            d.header_ok, d.get_params, d.post_params, d.body,     d.body_ok};
}

// A byte at a time, as from a slow sender, costs no more than itself while there is room.
inline bool has_room_for_one(const buffer& b) { return b.length + 1 < b.capacity; }
inline void put(buffer& to, char byte) {
    char* const end = to.data + to.length;
    to.length++;
    end[0] = byte;
    end[1] = '\0';
}

// Appends to a buffer. False when memory is out; buffer_append() has said so.
inline bool append(buffer& to, std::string_view bytes) {
    if (bytes.size() > INT_MAX) return false;
    return buffer_append(&to.data, &to.capacity, &to.length, bytes.data(),
                         static_cast<int>(bytes.size())) != nullptr;
}

// Puts `url` in the place of the one that the message owns, if any.
void replace_url(const Message& m, char* url, size_t length);

// Releases all that the message owns.
void release(const Message& m);

// Makes `copy`, a zeroed record, a copy of `m` but for the two flags. False when memory is out,
// with what was copied so far for release().
bool copy_to(const Message& copy, const Message& m);

void dump(const Message& m);

// Appends the message as text to the buffer of these three fields.
void render(const Message& m, const Family& family, bool is_request, char** data,
            unsigned* capacity, unsigned* length);

// The body appends. 0, or -1.
int append_to_body(buffer& body, const void* data, int n);
int append_text_to_body(buffer& body, const char* text, const char* function);
int append_format_to_body(buffer& body, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

// Splits the urlencoded body into post_params. 0, or -1.
int split_form(const Message& m, const Family& family);

// The parsers' report of a text that they refuse: the text, then the message.
void report_refusal(const char* failed, std::string_view raw, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

}  // namespace zt::http
