// The two document families behind one face, so that a test of what they share is written once.
#pragma once

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/htmldoc/http.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zt_test {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// The list's nodes in order. Checks every back link on the way.
inline Pairs pairs_of(htmldoc_option* const& head) {
    Pairs pairs;
    htmldoc_option* const* link = &head;
    for (const htmldoc_option* node = head; node; node = node->next) {
        EXPECT_EQ(node->prev_link, link);
        link = &node->next;
        pairs.emplace_back(node->name, node->value);
    }
    return pairs;
}

struct FirstFamily {
    using Record = htmldoc;
    static constexpr const char* prefix = "htmldoc";
    static constexpr const char* separator = ": ";

    static int init(htmldoc* d) { return htmldoc_init(d); }
    static void free(htmldoc* d, int free_record) { htmldoc_free(d, free_record); }
    static htmldoc* duplicate(const htmldoc* d) { return htmldoc_dublicate(d); }
    static void dump(const htmldoc* d) { htmldoc_dump(d); }
    static int wrap(htmldoc* d, const char* data, int n) { return htmldoc_wrap(d, data, n); }
    static int wrap_cgi(htmldoc* d, const char* text, int n) {
        return htmldoc_wrap_cgi(d, text, n);
    }
    static int wrap_post(htmldoc* d) { return htmldoc_wrap_post(d); }
    static void unwrap(buffer* to, htmldoc* d, bool is_request) {
        htmldoc_unwrap(&to->data, &to->capacity, &to->length, d, is_request);
    }
    static constexpr auto add = htmldoc_add_option;
    static constexpr auto get = htmldoc_get_option;
    static constexpr auto get_value = htmldoc_getvalue_option;
    static constexpr auto to_query = htmldoc_params_to_qry;
    static constexpr auto free_options = _htmldoc_options_free;
    static constexpr auto encode = _htmldoc_uri_encode;
    static constexpr auto decode = _htmldoc_uri_decode;
    static constexpr auto append = htmldoc_body_append;
    static constexpr auto append_str = htmldoc_body_append_str;
    static constexpr auto append_arg = htmldoc_body_append_arg;
    static constexpr auto failed = htmldoc_failed;
};

struct SecondFamily {
    using Record = http_document;
    static constexpr const char* prefix = "http";
    static constexpr const char* separator = ":";

    static int init(http_document* d) { return http_doc_init(d); }
    static void free(http_document* d, int free_record) { http_free(d, free_record); }
    static http_document* duplicate(const http_document* d) { return http_dublicate_document(d); }
    static void dump(const http_document* d) { http_dump(d); }
    static int wrap(http_document* d, const char* data, int n) { return http_wrap(d, data, n); }
    static int wrap_cgi(http_document* d, const char* text, int n) {
        return http_wrap_cgi(d, text, n);
    }
    static int wrap_post(http_document* d) { return http_wrap_post(d); }
    static void unwrap(buffer* to, http_document* d, bool is_request) {
        http_unwrap(&to->data, &to->capacity, &to->length, d, is_request);
    }
    static constexpr auto add = http_add_option;
    static constexpr auto get = http_get_option;
    static constexpr auto get_value = http_getvalue_option;
    static constexpr auto to_query = http_params_to_qry;
    static constexpr auto free_options = _http_options_free;
    static constexpr auto encode = _http_uri_encode;
    static constexpr auto decode = _http_uri_decode;
    static constexpr auto append = http_body_append;
    static constexpr auto append_str = http_body_append_str;
    static constexpr auto append_arg = http_body_append_arg;
    static constexpr auto failed = http_failed;
};

// A document that is released at the end of the scope.
template <class Family>
struct Document {
    Document() { Family::init(&record); }
    ~Document() { Family::free(&record, 0); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    int wrap(std::string_view text) {
        // A copy of the text's own size, so that the sanitizer sees a read beyond it.
        const std::vector<char> bytes(text.begin(), text.end());
        return Family::wrap(&record, bytes.data(), static_cast<int>(bytes.size()));
    }
    int wrap_cgi(std::string_view text) {
        const std::vector<char> bytes(text.begin(), text.end());
        return Family::wrap_cgi(&record, bytes.data(), static_cast<int>(bytes.size()));
    }

    std::string url() const { return record.url ? record.url : "(null)"; }
    std::string body() const { return {record.body.data, record.body.length}; }
    Pairs options() const { return pairs_of(record.options); }
    Pairs get_params() const { return pairs_of(record.get_params); }
    Pairs post_params() const { return pairs_of(record.post_params); }

    typename Family::Record record = {};
};

// A buffer that is released at the end of the scope.
struct Text : buffer {
    Text() : buffer{} {}
    ~Text() { buffer_free(this, 0); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
    std::string str() const { return {data, length}; }
};

}  // namespace zt_test
