// CGI output: both families agree, and a complete text gives all that follows its header as body.

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/htmldoc/http.h>

#include <tests/fuzz/quiet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    htmldoc first;
    htmldoc_init(&first);
    http_document second;
    http_doc_init(&second);

    const int result = htmldoc_wrap_cgi(&first, text, static_cast<int>(size));
    check(http_wrap_cgi(&second, text, static_cast<int>(size)) == result);
    check(first.header_ok == (result == 0) && first.body_ok == (result == 0));
    check(first.body.length == second.body.length && first.body.capacity == second.body.capacity);
    if (first.body.length != 0) {
        check(memcmp(first.body.data, data + size - first.body.length, first.body.length) == 0);
        check(first.body.data[first.body.length] == '\0');
    }
    const htmldoc_option* a = first.options;
    const htmldoc_option* b = second.options;
    for (; a && b; a = a->next, b = b->next)
        check(strcmp(a->name, b->name) == 0 && strcmp(a->value, b->value) == 0);
    check(!a && !b);

    htmldoc_free(&first, 0);
    http_free(&second, 0);
    return 0;
}
