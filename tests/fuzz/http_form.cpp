// Form bodies: every parameter is what its piece of the body says, and the body stays within
// itself.

#include <ztlib/htmldoc/htmldoc.h>

#include <tests/fuzz/quiet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    htmldoc d;
    htmldoc_init(&d);
    htmldoc_body_append(&d, data, static_cast<int>(size));
    d.header_ok = d.body_ok = 1;
    htmldoc_wrap_post(&d);

    // The body reads as before, but for the ends of the pieces.
    std::string pieces(reinterpret_cast<const char*>(data), size);
    check(d.body.length == size);
    size_t ends = 0;
    for (size_t i = 0; i < size; i++) {
        if (d.body.data[i] == pieces[i]) continue;
        check(pieces[i] == '&' && d.body.data[i] == '\0');
        ends++;
    }
    size_t parameters = 0;
    for (const htmldoc_option* node = d.post_params; node; node = node->next, parameters++) {
        check(strlen(node->name) < size);
        check(node->value[0] == '=' || node->value[0] == '\0');
    }
    check(parameters <= ends + 1);
    htmldoc_free(&d, 0);
    return 0;
}
