// A frame is its length and its payload; both extractors read the length the same way and differ in
// what they do with the payload.

#include <ztlib/network/lead4.h>

#include <ztlib/utils/converters.h>

#include <cstdint>
#include <cstring>

namespace {

constexpr unsigned kLengthBytes = 4;

// True when the first frame in `data` is complete; `payload_length` is then what its length says,
// less its own four bytes, and wraps around where it says less than that.
bool frame_is_complete(const unsigned char* data, int len, uint32_t& payload_length) {
    if (len < static_cast<int>(kLengthBytes)) return false;
    const uint32_t total = be_byte2uint32(data, 0);
    payload_length = total - kLengthBytes;
    return static_cast<uint32_t>(len) >= total;
}

}  // namespace

extern "C" int lead4_unwrap(const void* payload, unsigned n, unsigned char* out, int out_size) {
    if (!out || (!payload && n != 0)) return -1;
    const int64_t total = int64_t{n} + kLengthBytes;
    if (total > out_size) return -1;

    be_uint322byte(static_cast<uint32_t>(total), out);
    if (n != 0) memcpy(out + kLengthBytes, payload, n);
    return static_cast<int>(total);
}

extern "C" int lead4_wrap(const unsigned char* data, int len, void* out, unsigned out_size) {
    if (!data) return -1;
    uint32_t n;
    if (!frame_is_complete(data, len, n)) return 0;
    // A length below four wraps around to more than any frame can hold, whatever `out_size` says.
    if (n > out_size || n > UINT32_MAX - kLengthBytes) return -1;
    if (n == 0) return 0;
    if (!out) return -1;

    memcpy(out, data + kLengthBytes, n);
    return static_cast<int>(n);
}

extern "C" int lead4_wrap_ptr(const unsigned char* data, int len, const unsigned char** payload,
                              unsigned* payload_len) {
    if (!data || !payload) return -1;
    uint32_t n;
    if (!frame_is_complete(data, len, n)) return 0;

    *payload = data + kLengthBytes;
    if (payload_len) *payload_len = n;
    return static_cast<int>(n);
}
