// The parser of both families: from received text to start line, header lines and body.
//
// It is built around two promises. The end of the header block is looked for in new bytes only, so
// a message that arrives byte by byte costs no more to find than one that arrives whole. And what a
// block says is held apart (Head) until all that can run out of memory is done, so the same bytes
// can be parsed again after it did.
#pragma once

#include <ztlib/htmldoc/message.hpp>
#include <ztlib/htmldoc/option_list.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zt::http {

// What one look at the text came to.
enum class Verdict {
    more_needed,
    taken,
    refused,        // the text breaks a rule, and that has been said
    out_of_memory,  // nothing has changed
};

struct Receipt {
    Verdict verdict;
    size_t bytes = 0;  // taken off the front of the text
};

// Where the header block in `text` ends: the position of its "\r\n\r\n", or npos. No block ended
// within the first `searched` bytes, unless behind a zero byte.
size_t find_block_end(std::string_view text, size_t searched);

// Judges the block's first byte and its length. `more_needed` when its end is not there yet,
// `taken` when it can be parsed.
Verdict judge_block(std::string_view text, size_t end, const Family& family);

// Parses the block that ends at `end`, takes what follows it as body where the body is not complete
// yet, and only then stores anything. A text that is refused is first appended to `refused`, unless
// that is null.
Receipt take_block(const Message& m, const Family& family, std::string_view text, size_t end,
                   buffer* refused);

// Sets the flag: a body is complete when its length is what Content-Length says, or nothing is
// said. 0 when it is, else 1.
int judge_body(const htmldoc_option* options, uint32_t length, uint8_t& body_ok);

// Takes the next bytes of a body that is not complete. As judge_body(), or -1 when memory is out.
int take_body(buffer& body, const htmldoc_option* options, uint8_t& body_ok,
              std::string_view bytes);

// Takes the next bytes of a message, of which the first `searched` were looked at before. `refused`
// as in take_block().
template <class Record>
Receipt receive(Record& d, const Family& family, std::string_view text, size_t searched,
                buffer* refused = nullptr) {
    if (d.header_ok == 0) {
        const size_t end = find_block_end(text, searched);
        const Verdict verdict = judge_block(text, end, family);
        if (verdict != Verdict::taken) return {verdict};
        return take_block(message_of(d), family, text, end, refused);
    }
    if (d.body_ok != 0) return {Verdict::taken};
    if (take_body(d.body, d.options, d.body_ok, text) == -1) return {Verdict::out_of_memory};
    return {Verdict::taken, text.size()};
}

// Takes the whole output of a CGI program.
Verdict receive_cgi(const Message& m, const Family& family, std::string_view text);

// What the wrap functions return.
template <class Record>
int result_of(const Record& d, Verdict verdict) {
    if (verdict == Verdict::refused || verdict == Verdict::out_of_memory) return -1;
    if (verdict == Verdict::more_needed) return 1;  // also of a document that was complete before
    return d.header_ok != 0 && d.body_ok != 0 ? 0 : 1;
}

}  // namespace zt::http
