// WebSocket frames: any bytes, in blocks of exactly their size, give what a plain reading of the
// header gives; and a frame that was built comes out as it went in.

#include <ztlib/network/websocket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

using Block = std::unique_ptr<unsigned char[]>;

Block copy_of(const uint8_t* data, size_t size) {
    Block block(new unsigned char[size]);
    std::copy_n(data, size, block.get());
    return block;
}

// The result for these bytes, and, where it is 0, header size, key and payload length.
struct Plain {
    int result;
    size_t header;
    size_t key;  // its position; 0: none
    uint64_t length;
};

Plain read_plainly(const uint8_t* data, size_t size) {
    if (size < 2) return {1, 0, 0, 0};
    if ((data[0] & 15) == 8) return {-8, 0, 0, 0};
    const bool masked = data[1] & 0x80;
    const unsigned announced = data[1] & 0x7F;
    const size_t plain = announced < 126 ? 2 : announced == 126 ? 4 : 10;
    if (size < plain) return {announced == 126 ? 2 : 4, 0, 0, 0};
    if (masked && size < plain + 4) return {plain == 2 ? 6 : plain == 4 ? 3 : 5, 0, 0, 0};
    uint64_t length = announced < 126 ? announced : 0;
    for (size_t i = 2; i < plain; ++i) length = length << 8 | data[i];

    Plain p{0, masked ? plain + 4 : std::max<size_t>(plain, 3), masked ? plain : 0, length};
    if (p.header > size || length > size - p.header)
        p.result = 8;
    else if (p.header + length < size)
        p.result = 7;
    return p;
}

void decode(const uint8_t* data, size_t size) {
    const Plain expected = read_plainly(data, size);
    const Block block = copy_of(data, size);
    const size_t room = expected.result == 0 ? expected.length + 1 : 0;
    const Block payload(new unsigned char[room]);
    unsigned length = 77, frame = 78;
    const int result =
        websocket_wrap(block.get(), static_cast<int>(size), payload.get(), &length, &frame);
    check(result == expected.result);
    if (result != 0) {
        check(length == 77 && frame == 78 && memcmp(block.get(), data, size) == 0);
        return;
    }
    check(length == expected.length && frame == size && payload[length] == 0);
    for (size_t i = 0; i < length; ++i) {
        const uint8_t sent = data[expected.header + i];
        const uint8_t plain = expected.key ? sent ^ data[expected.key + i % 4] : sent;
        check(payload[i] == plain && block[expected.header + i] == plain);
    }
}

void decode_in_place(const uint8_t* data, size_t size) {
    const Block block(new unsigned char[size + 1]);
    std::copy_n(data, size, block.get());
    unsigned length = 0, frame = 0;
    if (websocket_wrap(block.get(), static_cast<int>(size), block.get(), &length, &frame) == 0)
        check(block[length] == 0 && length < frame);
}

void build(const uint8_t* data, size_t size) {
    const Block out(new unsigned char[size + 4]);
    unsigned frame = 0;
    check(websocket_unwrap(data, static_cast<int>(size), out.get(), &frame) == 0);
    check(frame == size + (size <= 125 ? 2 : 4));
    check(memcmp(out.get() + frame - size, data, size) == 0);
    if (size >= 126 && size <= 255) {
        const Block payload(new unsigned char[size + 1]);
        unsigned length = 0, whole = 0;
        check(websocket_wrap(out.get(), static_cast<int>(frame), payload.get(), &length, &whole) ==
              0);
        check(length == size && whole == frame && memcmp(payload.get(), data, size) == 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (size_t cut = 0; cut < std::min<size_t>(size, 16); ++cut) decode(data, cut);
    decode(data, size);
    decode_in_place(data, size);
    build(data, size);
    return 0;
}
