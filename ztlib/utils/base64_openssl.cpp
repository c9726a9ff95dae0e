// Base64 through OpenSSL's filter:
//
//     encode   bytes -> write -> [filter] -> memory sink
//     decode   text  -> memory source -> [filter] -> read -> bytes
//
// The filter works on one line, or in lines of 64 characters with a newline behind each.

#include <ztlib/utils/converters.h>

#include <ztlib/base/memory.h>

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <algorithm>
#include <climits>

namespace {

enum class Lines { one, many };

struct FreeChain {
    void operator()(BIO* chain) const { BIO_free_all(chain); }
};
using Chain = std::unique_ptr<BIO, FreeChain>;

// The filter over `end`, which it owns. Null when memory is out, for the end or for the filter.
Chain filter_over(BIO* end, Lines lines) {
    Chain owned_end(end);
    Chain filter(BIO_new(BIO_f_base64()));
    if (!owned_end || !filter) return nullptr;
    if (lines == Lines::one) BIO_set_flags(filter.get(), BIO_FLAGS_BASE64_NO_NL);
    BIO_push(filter.get(), owned_end.release());
    return filter;
}

char* encode(const void* data, unsigned length, Lines lines) {
    if ((!data && length != 0) || length > INT_MAX) return nullptr;
    const int count = static_cast<int>(length);

    const Chain chain = filter_over(BIO_new(BIO_s_mem()), lines);
    if (!chain) return nullptr;
    if (count > 0 && BIO_write(chain.get(), data, count) != count) return nullptr;
    if (BIO_flush(chain.get()) <= 0) return nullptr;

    char* text = nullptr;
    const long written = BIO_get_mem_data(chain.get(), &text);
    return written > 0 ? zt::duplicate(text, static_cast<size_t>(written) - 1)
                       : zt::duplicate("", 0);
}

unsigned char* decode(const char* text, unsigned length, unsigned* out_length, Lines lines) {
    if (out_length) *out_length = 0;
    if ((!text && length != 0) || length > INT_MAX) return nullptr;
    const int count = static_cast<int>(length);

    zt::Owned<unsigned char> bytes(zt::allocate<unsigned char>(size_t{length} + 1));
    const Chain chain = filter_over(BIO_new_mem_buf(text ? text : "", count), lines);
    if (!bytes || !chain) return nullptr;

    // The read's own result is negative for text that does not decode.
    const int read = std::max(BIO_read(chain.get(), bytes.get(), count), 0);
    bytes.get()[read] = '\0';
    if (out_length) *out_length = static_cast<unsigned>(read);
    return bytes.release();
}

}  // namespace

extern "C" char* base64encode(const void* data, unsigned length) {
    return encode(data, length, Lines::one);
}

extern "C" char* _base64encode(const void* data, unsigned length) {
    return encode(data, length, Lines::many);
}

extern "C" unsigned char* base64decode(const char* text, unsigned length, unsigned* out_length) {
    return decode(text, length, out_length, Lines::one);
}

extern "C" unsigned char* _base64decode(const char* text, unsigned length, unsigned* out_length) {
    return decode(text, length, out_length, Lines::many);
}
