// Both HTTP parsers, whole and in pieces: the header's result and fields agree however a message is
// cut, and so does the body where it has the announced length. The second parser is given the whole
// header block in each call, and must agree with the first.
//
// Input: a byte that says how long the pieces are, then the message.

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/htmldoc/http.h>

#include <tests/fuzz/quiet.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

void add_list(std::string& text, const htmldoc_option* node) {
    for (; node; node = node->next) text += std::string(node->name) + "\1" + node->value + "\2";
    text += "\3";
}

// All that a header block fills.
template <class Record>
std::string header_of(const Record& d) {
    std::string text = std::string(d.method) + "\1" + (d.url ? d.url : "(none)") + "\1" +
                       std::to_string(d.url_length) + "\1" + d.protocol + "\1" +
                       (d.host ? d.host : "(none)") + "\1" + std::to_string(d.header_ok);
    add_list(text, d.options);
    add_list(text, d.get_params);
    return text;
}

template <class Record>
std::string body_of(const Record& d) {
    return {d.body.data, d.body.length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t piece = 1 + data[0] % 64;
    const char* text = reinterpret_cast<const char*>(data) + 1;
    const int length = static_cast<int>(size - 1);

    htmldoc whole;
    htmldoc_init(&whole);
    const int whole_result = htmldoc_wrap(&whole, text, length);
    check(whole_result >= -1 && whole_result <= 1);

    htmldoc pieces;
    htmldoc_init(&pieces);
    int result = 1;
    for (size_t at = 0; at < size - 1 && result != -1; at += piece)
        result = htmldoc_wrap(&pieces, text + at, static_cast<int>(std::min(piece, size - 1 - at)));
    check((result == -1) == (whole_result == -1));
    check(header_of(pieces) == header_of(whole));
    const char* announced = htmldoc_getvalue_option(&whole.options, "Content-Length");
    if (whole.header_ok && whole.body_ok && announced) {
        check(result == 0);
        check(body_of(pieces) == body_of(whole));
    }

    http_document second;
    http_doc_init(&second);
    check(http_wrap(&second, text, length) == whole_result);
    check(header_of(second) == header_of(whole));
    check(body_of(second) == body_of(whole));

    // Incomplete ones first: nothing may be kept of them.
    http_document again;
    http_doc_init(&again);
    for (size_t at = piece; at < size - 1 && !again.header_ok; at += piece) {
        if (http_wrap(&again, text, static_cast<int>(at)) == -1) break;
        if (again.header_ok && at < size - 1)
            http_wrap(&again, text + at, static_cast<int>(size - 1 - at));
    }
    if (again.header_ok && whole.header_ok) {
        check(header_of(again) == header_of(whole));
        if (whole.body_ok && announced) check(body_of(again) == body_of(whole));
    }

    // What was parsed can be rendered, copied and parsed again.
    if (whole.header_ok) {
        buffer rendered = {};
        htmldoc_unwrap(&rendered.data, &rendered.capacity, &rendered.length, &whole, true);
        htmldoc* copy = htmldoc_dublicate(&whole);
        check(copy && body_of(*copy) == body_of(whole));
        htmldoc_free(copy, 1);
        buffer_free(&rendered, 0);
    }
    htmldoc_dump(&whole);
    htmldoc_free(&whole, 0);
    htmldoc_free(&pieces, 0);
    http_free(&second, 0);
    http_free(&again, 0);
    return 0;
}
