// The document that keeps its own input. Bytes that can be used at once never pass through the
// input buffer: it holds an incomplete header block, a block that was refused, and what was fed to
// a complete document.
//
// The header block's end is looked for in new bytes only. A refused block has been found before, so
// it is marked, by an input buffer that has no room at all (capacity == length), and looked for
// from the start: the document goes on refusing it.

#include <ztlib/htmldoc/htmldoc.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/htmldoc/message.hpp>
#include <ztlib/htmldoc/message_parser.hpp>
#include <ztlib/htmldoc/option_list.hpp>
#include <ztlib/htmldoc/uri.hpp>

#include <cstdarg>
#include <cstring>

using zt::http::message_of;
using zt::http::Receipt;
using zt::http::Verdict;

namespace {

constexpr const char* kModule = "./htmldoc/htmldoc";

constexpr zt::http::Family kFamily = {
    .failed = "htmldoc_failed",
    .wrap_post = "htmldoc_wrap_post",
    .uri_decode = "_htmldoc_uri_decode",
    .url_spare = 65,
    .name_separator = ": ",
};

bool is_marked_refused(const buffer& input) {
    return input.length != 0 && input.capacity == input.length;
}

// No append leaves a buffer like this, and the next one makes room in it.
void mark_refused(buffer& input) { input.capacity = input.length; }

void cut(buffer& input, uint32_t length) {
    input.length = length;
    input.data[length] = '\0';
}

// True for a byte that goes on with a line of a block that is being received: it cannot end the
// block, and nothing else is to be judged. There is room for it. (A marked block has none.)
bool goes_on_with_line(const htmldoc& d, char byte) {
    const buffer& input = d.input;
    return byte != '\n' && d.header_ok == 0 && input.length != 0 &&
           zt::http::has_room_for_one(input) && input.length < HTMLDOC_HEADER_LENGTH &&
           input.data[0] != '\r' && input.data[0] != '\n';
}

// True when what comes next is body and nothing else.
bool awaits_body(const htmldoc& d) {
    return d.header_ok != 0 && d.body_ok == 0 && d.input.length == 0;
}

// Nothing is waiting in the input: the bytes are used where they lie, and what is left of them
// waits.
Verdict receive_at_once(htmldoc& d, std::string_view bytes) {
    const Receipt receipt = zt::http::receive(d, kFamily, bytes, 0, &d.input);
    const std::string_view rest = zt::http::from(bytes, receipt.bytes);
    if (receipt.verdict == Verdict::out_of_memory || rest.empty()) return receipt.verdict;
    if (!zt::http::append(d.input, rest)) return Verdict::out_of_memory;
    return receipt.verdict;
}

// Behind what is waiting in the input.
Verdict receive_behind_input(htmldoc& d, std::string_view bytes) {
    buffer& input = d.input;
    const uint32_t waiting = input.length;
    const bool was_refused = is_marked_refused(input);
    if (!zt::http::append(input, bytes)) return Verdict::out_of_memory;

    const Receipt receipt =
        zt::http::receive(d, kFamily, {input.data, input.length}, was_refused ? 0 : waiting);
    if (receipt.verdict == Verdict::out_of_memory) {
        cut(input, waiting);
        if (was_refused) mark_refused(input);
    } else if (receipt.bytes != 0) {
        buffer_remove(&input.data, &input.capacity, &input.length, static_cast<int>(receipt.bytes));
    }
    return receipt.verdict;
}

// Any piece of a message. (Out of line, so that a single byte pays for nothing of it.)
[[gnu::noinline]] int receive_piece(htmldoc& d, std::string_view bytes) {
    if (awaits_body(d)) return zt::http::take_body(d.body, d.options, d.body_ok, bytes);
    const Verdict verdict =
        d.input.length == 0 ? receive_at_once(d, bytes) : receive_behind_input(d, bytes);
    if (verdict == Verdict::refused) mark_refused(d.input);
    return zt::http::result_of(d, verdict);
}

}  // namespace

// --- life ---------------------------------------------------------------------------------------

extern "C" htmldoc* htmldoc_create() {
    const zt::Site here{kModule, __func__};
    zt::Owned<htmldoc> d(zt::allocate_zeroed<htmldoc>());
    if (!d) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (htmldoc_init(d.get()) != 0) {
        zt::report_call(here, "htmldoc_init()");
        return nullptr;
    }
    return d.release();
}

extern "C" int htmldoc_init(htmldoc* d) {
    if (!d) return -1;
    zt::zero(*d);
    return buffer_init(&d->input);
}

extern "C" int htmldoc_free(htmldoc* d, int free_record) {
    if (!d) return 0;
    zt::http::release(message_of(*d));
    buffer_free(&d->input, 0);
    if (free_record > 0)
        free(d);
    else
        zt::zero(*d);
    return 0;
}

extern "C" htmldoc* htmldoc_dublicate(const htmldoc* d) {
    if (!d) return nullptr;
    auto* copy = zt::allocate_zeroed<htmldoc>();
    if (!copy) return nullptr;
    if (!zt::http::copy_to(message_of(*copy), message_of(const_cast<htmldoc&>(*d)))) {
        htmldoc_free(copy, 1);
        return nullptr;
    }
    copy->header_ok = d->header_ok;
    copy->body_ok = d->body_ok;
    return copy;
}

extern "C" void htmldoc_dump(const htmldoc* d) {
    if (d) zt::http::dump(message_of(const_cast<htmldoc&>(*d)));
}

// --- taking text in -----------------------------------------------------------------------------

extern "C" int htmldoc_wrap(htmldoc* d, const char* data, int len) {
    if (!d) return -1;
    if (len == 0) return 1;
    if (!data || len < 0) return -1;

    if (len == 1 && goes_on_with_line(*d, *data)) {
        zt::http::put(d->input, *data);
        return 1;
    }
    if (len == 1 && awaits_body(*d) && zt::http::has_room_for_one(d->body)) {
        zt::http::put(d->body, *data);
        return zt::http::judge_body(d->options, d->body.length, d->body_ok);
    }
    return receive_piece(*d, {data, static_cast<size_t>(len)});
}

extern "C" int htmldoc_wrap_cgi(htmldoc* d, const char* text, int len) {
    if (!d) return -1;
    if (len == 0) return 1;
    if (!text || len < 0) return -1;
    return zt::http::result_of(
        *d, zt::http::receive_cgi(message_of(*d), kFamily, {text, static_cast<size_t>(len)}));
}

extern "C" int htmldoc_wrap_post(htmldoc* d) {
    return d ? zt::http::split_form(message_of(*d), kFamily) : -1;
}

// --- building and rendering ----------------------------------------------------------------------

extern "C" void htmldoc_init_proto(htmldoc* d, const char* url, int flags) {
    if (!d || !url) return;
    char* copy = strdup(url);
    if (!copy) return;
    if (flags & HTMLDOC_GET) strcpy(d->method, "GET");
    if (flags & HTMLDOC_POST) strcpy(d->method, "POST");
    if (flags & HTMLDOC_HTTP_1_0) strcpy(d->protocol, "HTTP/1.0");
    if (flags & HTMLDOC_HTTP_1_1) strcpy(d->protocol, "HTTP/1.1");
    d->url = copy;
    d->url_length = static_cast<uint16_t>(strlen(url));
}

extern "C" int htmldoc_body_append(htmldoc* d, const void* data, int n) {
    return d ? zt::http::append_to_body(d->body, data, n) : -1;
}

extern "C" int htmldoc_body_append_str(htmldoc* d, const char* text) {
    return d ? zt::http::append_text_to_body(d->body, text, __func__) : -1;
}

extern "C" int htmldoc_body_append_arg(htmldoc* d, const char* format, ...) {
    if (!d) return -1;
    va_list arguments;
    va_start(arguments, format);
    const int result = zt::http::append_format_to_body(d->body, format, arguments);
    va_end(arguments);
    return result;
}

extern "C" void htmldoc_unwrap(char** data, unsigned* capacity, unsigned* length, htmldoc* d,
                               bool is_request) {
    if (d) zt::http::render(message_of(*d), kFamily, is_request, data, capacity, length);
}

// --- lists of options ----------------------------------------------------------------------------

extern "C" htmldoc_option* htmldoc_add_option(htmldoc_option** head, const char* name,
                                              const char* value) {
    return head && name && value ? zt::http::append_option(*head, name, value) : nullptr;
}

extern "C" htmldoc_option* htmldoc_get_option(htmldoc_option** head, const char* name) {
    return head && name ? zt::http::find_option(*head, name) : nullptr;
}

extern "C" char* htmldoc_getvalue_option(htmldoc_option** head, const char* name) {
    const htmldoc_option* node = htmldoc_get_option(head, name);
    return node ? node->value : nullptr;
}

extern "C" int htmldoc_have_get_params(htmldoc* d) { return d && d->get_params ? 1 : 0; }

extern "C" int htmldoc_params_to_qry(htmldoc_option** head, char* out, int size) {
    if (!head || !out || size <= 0) return 0;
    return static_cast<int>(zt::http::write_query(*head, {out, static_cast<size_t>(size)}));
}

extern "C" void _htmldoc_options_free(htmldoc_option** head) {
    if (head) zt::http::free_options(*head);
}

// --- percent-encoding and reports ----------------------------------------------------------------

extern "C" int _htmldoc_uri_encode(const char* src, char* dst, int size) {
    return src && dst ? zt::http::encode_uri(src, dst, size, __func__) : -1;
}

extern "C" int _htmldoc_uri_decode(const char* src, char* dst, int size) {
    return src && dst ? zt::http::decode_uri(src, dst, size, __func__) : -1;
}

extern "C" int htmldoc_failed(const char* raw, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zt::http::report_refusal(__func__, raw ? raw : "", format, arguments);
    va_end(arguments);
    return -1;
}
