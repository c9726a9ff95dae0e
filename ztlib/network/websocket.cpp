// The handshake makes all that it needs before it touches the response. A frame is judged by its
// header, whole, before a byte of it is changed; websocket_mask.hpp does the rest.

#include <ztlib/network/websocket.h>

#include <ztlib/base/memory.h>
#include <ztlib/utils/converters.h>
#include <ztlib/htmldoc/option_list.hpp>
#include <ztlib/network/websocket_mask.hpp>
#include <ztlib/utils/vectors.hpp>

#include <openssl/sha.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace {

// --- the handshake ------------------------------------------------------------------------------

constexpr std::string_view kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr size_t kLongestKey = 1500 - kGuid.size() - 1;  // both and a terminator in 1,500 bytes

constexpr uint16_t kSwitchingProtocols = 101;

// What proves that the key was read. Null when memory is out.
zt::Owned<char> accept_value(std::string_view key) {
    unsigned char text[kLongestKey + kGuid.size()];
    memcpy(text, key.data(), key.size());
    memcpy(text + key.size(), kGuid.data(), kGuid.size());

    unsigned char digest[SHA_DIGEST_LENGTH];
    if (!SHA1(text, key.size() + kGuid.size(), digest)) return nullptr;
    return zt::Owned<char>(_websocket_base64encode(digest, sizeof digest));
}

void append(htmldoc_option*& list, zt::http::NewOptions& options) {
    htmldoc_option** tail = &list;
    while (*tail) tail = &(*tail)->next;
    options.move_in_front_of(*tail);
}

void set_status_line(htmldoc& response) {
    strcpy(response.method, "HTTP/1.1");
    strcpy(response.protocol, "Switching Protocols");
    // A url without length is not the document's to release, which the status would make it.
    if (response.url_length == 0) response.url = nullptr;
    response.url_length = kSwitchingProtocols;
}

// --- frames -------------------------------------------------------------------------------------

constexpr unsigned char kFin = 0x80;
constexpr unsigned char kOpcodeBits = 0x0F;
constexpr unsigned char kText = 1;
constexpr unsigned char kClose = 8;
constexpr unsigned char kMasked = 0x80;
constexpr unsigned char kLengthBits = 0x7F;
constexpr unsigned char kLongestShort = 125;  // payload whose length is in byte 1
constexpr unsigned char kLength16 = 126;      // in byte 1: the length follows in so many bits
constexpr unsigned char kLength64 = 127;

// Header sizes, less the key.
constexpr unsigned kHeader = 2;
constexpr unsigned kHeader16 = kHeader + 2;
constexpr unsigned kHeader64 = kHeader + 8;
constexpr unsigned kUnmaskedHeader = 3;  // as an unmasked frame with a short length is read

// Results of websocket_wrap().
enum : int {
    kDecoded = 0,
    kNoHeader = 1,
    kNoLength16 = 2,
    kNoKeyBehindLength16 = 3,
    kNoLength64 = 4,
    kNoKeyBehindLength64 = 5,
    kNoKey = 6,
    kMoreThanTheFrame = 7,
    kLessThanTheFrame = 8,
    kCloseFrame = -8,
    kNull = -1,
};

struct Header {
    unsigned size = 0;
    uint64_t payload_length = 0;
    bool masked = false;
    uint32_t key = 0;
};

// Reads the header of a frame of which `available` bytes, at least 2, are there.
int read_header(const unsigned char* data, unsigned available, Header& header) {
    const unsigned char announced = data[1] & kLengthBits;
    header.masked = data[1] & kMasked;
    const unsigned key_size = header.masked ? zt::websocket::kKeyBytes : 0;
    switch (announced) {
        case kLength16:
            if (available < kHeader16) return kNoLength16;
            if (available < kHeader16 + key_size) return kNoKeyBehindLength16;
            header.size = kHeader16 + key_size;
            header.payload_length = be_byte2uint16(data, kHeader);
            break;
        case kLength64:
            if (available < kHeader64) return kNoLength64;
            if (available < kHeader64 + key_size) return kNoKeyBehindLength64;
            header.size = kHeader64 + key_size;
            header.payload_length = be_byte2uint64(data, kHeader);
            break;
        default:
            if (available < kHeader + key_size) return kNoKey;
            header.size = header.masked ? kHeader + key_size : kUnmaskedHeader;
            header.payload_length = announced;
    }
    if (header.masked) header.key = zt::websocket::load_key(data + header.size - key_size);
    return kDecoded;
}

}  // namespace

extern "C" int websocket_handshake(htmldoc* request, htmldoc* response) {
    if (!request || !response) return -1;
    const char* key_text = htmldoc_getvalue_option(&request->options, "Sec-WebSocket-Key");
    const std::string_view key = key_text ? key_text : "";
    if (key.empty() || key.size() > kLongestKey) return 1;

    const zt::Owned<char> accept = accept_value(key);
    zt::http::NewOptions options;
    if (!accept || !options.prepend("Sec-WebSocket-Accept", accept.get()) ||
        !options.prepend("Connection", "Upgrade") || !options.prepend("Upgrade", "websocket"))
        return -1;

    set_status_line(*response);
    append(response->options, options);
    return 0;
}

extern "C" int websocket_wrap(unsigned char* data, int len, void* payload, unsigned* payload_len,
                              unsigned* frame_len) {
    if (len < 2) return kNoHeader;
    if (!data) return kNull;
    if ((data[0] & kOpcodeBits) == kClose) return kCloseFrame;

    const auto available = static_cast<unsigned>(len);
    Header header;
    const int result = read_header(data, available, header);
    if (result != kDecoded) return result;

    if (header.payload_length > available) return kLessThanTheFrame;
    const auto length = static_cast<unsigned>(header.payload_length);
    const unsigned frame = header.size + length;
    if (frame < available) return kMoreThanTheFrame;
    if (frame > available) return kLessThanTheFrame;
    if (!payload || !payload_len || !frame_len) return kNull;

    unsigned char* const from = data + header.size;
    auto* const to = static_cast<unsigned char*>(payload);
    if (header.masked)
        zt::websocket::unmask(from, to, length, header.key, zt::vectors::available());
    else
        memmove(to, from, length);
    to[length] = '\0';
    *payload_len = length;
    *frame_len = frame;
    return kDecoded;
}

extern "C" int websocket_unwrap(const void* payload, int len, unsigned char* out,
                                unsigned* out_len) {
    if (out_len) *out_len = 0;
    if (!out || !out_len || len < 0 || (!payload && len > 0)) return 0;

    const auto length = static_cast<unsigned>(len);
    const bool is_short = length <= kLongestShort;
    const unsigned header = is_short ? kHeader : kHeader16;
    if (length > 0) memmove(out + header, payload, length);  // first: it may lie in `out`
    out[0] = kFin | kText;
    if (is_short) {
        out[1] = static_cast<unsigned char>(length);
    } else {
        out[1] = kLength16;
        out[2] = 0;
        out[3] = static_cast<unsigned char>(length);
    }
    *out_len = header + length;
    return 0;
}

extern "C" char* _websocket_base64encode(const void* data, unsigned len) {
    return _base64encode(data, len);
}
