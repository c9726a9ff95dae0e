// Length framing: both extractors agree on any bytes, and a frame that was built comes out as it
// went in.

#include <ztlib/network/lead4.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int length = static_cast<int>(size);
    std::vector<unsigned char> out(size + 4);
    const unsigned char* payload = nullptr;
    unsigned n = 0;
    const int copied = lead4_wrap(data, length, out.data(), static_cast<unsigned>(size));
    const int pointed = lead4_wrap_ptr(data, length, &payload, &n);
    if (copied >= 0) {
        check(copied == pointed);
        check(copied <= length);
        check(memcmp(out.data(), copied > 0 ? payload : out.data(), static_cast<size_t>(copied)) ==
              0);
    } else {
        check(pointed < 0 && n > UINT32_MAX - 4);
    }

    check(lead4_unwrap(data, static_cast<unsigned>(size), out.data(),
                       static_cast<int>(out.size()) - 1) == -1);
    check(lead4_unwrap(data, static_cast<unsigned>(size), out.data(),
                       static_cast<int>(out.size())) == length + 4);
    check(lead4_wrap_ptr(out.data(), length + 4, &payload, &n) == length);
    check(n == size && memcmp(payload, data, size) == 0);
    return 0;
}
