// The document without an input buffer: each call's text is all there is to parse.

#include <ztlib/htmldoc/http.h>

#include <ztlib/base/memory.h>
#include <ztlib/htmldoc/message.hpp>
#include <ztlib/htmldoc/message_parser.hpp>
#include <ztlib/htmldoc/option_list.hpp>
#include <ztlib/htmldoc/uri.hpp>

#include <cstdarg>
#include <cstring>

using zt::http::message_of;

namespace {

constexpr zt::http::Family kFamily = {
    .failed = "http_failed",
    .wrap_post = "http_wrap_post",
    .uri_decode = "_http_uri_decode",
    .url_spare = 1501,
    .name_separator = ":",
};

}  // namespace

// --- life ---------------------------------------------------------------------------------------

extern "C" int http_doc_init(http_document* d) {
    if (!d) return -1;
    zt::zero(*d);
    return 0;
}

extern "C" void http_free(http_document* d, int free_record) {
    if (!d) return;
    zt::http::release(message_of(*d));
    if (free_record > 0)
        free(d);
    else
        zt::zero(*d);
}

extern "C" http_document* http_dublicate_document(const http_document* d) {
    if (!d) return nullptr;
    auto* copy = zt::allocate_zeroed<http_document>();
    if (!copy) return nullptr;
    if (!zt::http::copy_to(message_of(*copy), message_of(const_cast<http_document&>(*d)))) {
        http_free(copy, 1);
        return nullptr;
    }
    return copy;
}

extern "C" void http_dump(const http_document* d) {
    if (d) zt::http::dump(message_of(const_cast<http_document&>(*d)));
}

// --- taking text in -----------------------------------------------------------------------------

extern "C" int http_wrap(http_document* d, const char* data, int len) {
    if (!d) return -1;
    if (len == 0) return 1;
    if (!data || len < 0) return -1;
    const std::string_view text(data, static_cast<size_t>(len));
    return zt::http::result_of(*d, zt::http::receive(*d, kFamily, text, 0).verdict);
}

extern "C" int http_wrap_cgi(http_document* d, const char* text, int len) {
    if (!d) return -1;
    if (len == 0) return 1;
    if (!text || len < 0) return -1;
    return zt::http::result_of(
        *d, zt::http::receive_cgi(message_of(*d), kFamily, {text, static_cast<size_t>(len)}));
}

extern "C" int http_wrap_post(http_document* d) {
    return d ? zt::http::split_form(message_of(*d), kFamily) : -1;
}

// --- building and rendering ----------------------------------------------------------------------

extern "C" int http_body_append(http_document* d, const void* data, int n) {
    return d ? zt::http::append_to_body(d->body, data, n) : -1;
}

extern "C" int http_body_append_str(http_document* d, const char* text) {
    return d ? zt::http::append_text_to_body(d->body, text, __func__) : -1;
}

extern "C" int http_body_append_arg(http_document* d, const char* format, ...) {
    if (!d) return -1;
    va_list arguments;
    va_start(arguments, format);
    const int result = zt::http::append_format_to_body(d->body, format, arguments);
    va_end(arguments);
    return result;
}

extern "C" void http_unwrap(char** data, unsigned* capacity, unsigned* length, http_document* d,
                            int is_request) {
    if (d) zt::http::render(message_of(*d), kFamily, is_request != 0, data, capacity, length);
}

// --- lists of options ----------------------------------------------------------------------------

extern "C" htmldoc_option* http_add_option(htmldoc_option** head, const char* name,
                                           const char* value) {
    return head && name && value ? zt::http::append_option(*head, name, value) : nullptr;
}

extern "C" htmldoc_option* http_get_option(htmldoc_option** head, const char* name) {
    return head && name ? zt::http::find_option(*head, name) : nullptr;
}

extern "C" char* http_getvalue_option(htmldoc_option** head, const char* name) {
    const htmldoc_option* node = http_get_option(head, name);
    return node ? node->value : nullptr;
}

extern "C" int http_params_to_qry(htmldoc_option** head, char* out, int size) {
    if (head && out && size > 0) zt::http::write_query(*head, {out, static_cast<size_t>(size)});
    return 0;
}

extern "C" void _http_options_free(htmldoc_option** head) {
    if (head) zt::http::free_options(*head);
}

// --- percent-encoding and reports ----------------------------------------------------------------

extern "C" int _http_uri_encode(const char* src, char* dst, int size) {
    return src && dst ? zt::http::encode_uri(src, dst, size, __func__) : -1;
}

extern "C" int _http_uri_decode(const char* src, char* dst, int size) {
    return src && dst ? zt::http::decode_uri(src, dst, size, __func__) : -1;
}

extern "C" int http_failed(const char* raw, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zt::http::report_refusal(__func__, raw ? raw : "", format, arguments);
    va_end(arguments);
    return -1;
}
