// RTP: the payload of any bytes is what is behind their header, in place or not, and a packet that
// was built comes out as it went in.

#include <ztlib/network/protocols/rtp/rtp.h>

#include <tests/fuzz/quiet.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

void check(bool condition) {
    if (!condition) abort();
}

bool holds(const Bytes& bytes, const uint8_t* expected, size_t size) {
    return std::equal(expected, expected + size, bytes.begin());
}

void read(const uint8_t* data, size_t size) {
    const unsigned length = static_cast<unsigned>(size);
    const size_t header = size > 0 ? RTP_HEADER_BYTES + 4u * (data[0] & 0x0F) : SIZE_MAX;
    const size_t expected = header <= size ? size - header : 0;

    rtp_session session{};
    Bytes payload(std::max<size_t>(expected, 1));
    unsigned got = 77;
    check(rtp_wrap(&session, data, length, payload.data(), &got) == 0);
    check(got == expected);
    if (header > size) {
        check(session.last_arrival_time == 0 && session.last_received_timestamp == 0);
        return;
    }
    check(holds(payload, data + header, expected));
    check(session.last_arrival_time != 0 && session.jitter == 0);

    Bytes packet(data, data + size);
    check(rtp_wrap(&session, packet.data(), length, packet.data(), &got) == 0);
    check(got == expected && holds(packet, data + header, expected));
    check(std::isfinite(session.jitter) && session.jitter >= 0);
}

void build(const uint8_t* data, size_t size) {
    rtp_session sender{}, receiver{};
    sender.sequence = UINT32_MAX;
    sender.timestamp = UINT32_MAX - 3;
    Bytes packet(size + RTP_HEADER_BYTES), payload(std::max<size_t>(size, 1));
    unsigned packet_length = 0, length = 77;
    check(rtp_unwrap(&sender, data, static_cast<int>(size), packet.data(), &packet_length) == 0);
    check(packet_length == packet.size());
    check(rtp_wrap(&receiver, packet.data(), packet_length, payload.data(), &length) == 0);
    check(length == size && holds(payload, data, size));
    check(receiver.last_received_timestamp == UINT32_MAX - 3);
    check(sender.sequence == 0 && sender.timestamp == UINT32_MAX - 3 + static_cast<uint32_t>(size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t none = 0;  // libFuzzer's first input has no bytes and no address
    read(data ? data : &none, size);
    build(data, size);
    return 0;
}
