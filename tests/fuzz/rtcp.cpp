// RTCP: what is decoded of any bytes is what a plain reading of the format finds, nothing else of
// the record changes, and no byte is read that the function may not read.

#include <ztlib/network/protocols/rtp/rtp.h>

#include <tests/fuzz/quiet.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr size_t kReadOfAReport = 44;
constexpr size_t kReadOfOthers = 4;

void check(bool condition) {
    if (!condition) abort();
}

uint32_t big_endian(const uint8_t* at, int bytes) {
    uint32_t value = 0;
    for (int i = 0; i < bytes; i++) value = value << 8 | at[i];
    return value;
}

// The three bytes as numbers of their own, each with its sign, one after the other.
int32_t lost(const uint8_t* at) {
    uint32_t value = 0;
    for (int i = 0; i < 3; i++) {
        const uint32_t extended = at[i] < 0x80 ? at[i] : at[i] | 0xFFFFFF00;
        value |= extended << (16 - 8 * i);
    }
    value &= 0xFFFFFF;
    return value < 0x800000 ? static_cast<int32_t>(value) : static_cast<int32_t>(value) - 0x1000000;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> packet(kReadOfAReport);
    std::copy_n(data, std::min(size, packet.size()), packet.begin());
    const bool is_report = packet[1] == RTCP_SENDER_REPORT;
    if (!is_report) packet = std::vector<uint8_t>(packet.begin(), packet.begin() + kReadOfOthers);

    rtcp_packet before, out;
    memset(&before, 0x5A, sizeof before);
    out = before;
    check(rtcp_wrap(nullptr, packet.data(), static_cast<unsigned>(size), &out) == 0);

    check(out.version == packet[0] >> 6 && out.padding == (packet[0] >> 5 & 1));
    check(out.count == (packet[0] & 31) && out.packet_type == packet[1]);
    check(out.length == big_endian(&packet[2], 2));
    if (!is_report) {
        const size_t head = offsetof(rtcp_packet, sender_ssrc);
        check(memcmp(reinterpret_cast<const char*>(&out) + head,
                     reinterpret_cast<const char*>(&before) + head, sizeof out - head) == 0);
        return 0;
    }
    check(out.sender_ssrc == big_endian(&packet[4], 4));
    check(memcmp(out.ntp_timestamp, before.ntp_timestamp, sizeof out.ntp_timestamp) == 0);
    check(out.rtp_timestamp == before.rtp_timestamp);
    check(out.sender_packet_count == big_endian(&packet[20], 4));
    check(out.sender_octet_count == big_endian(&packet[24], 4));
    const auto& block = out.report_block;
    check(block.ssrc == big_endian(&packet[28], 4));
    check(block.fraction_lost == packet[32]);
    check(block.cumulative_packets_lost == lost(&packet[33]));
    check(block.extended_highest_sequence_number ==
          before.report_block.extended_highest_sequence_number);
    check(block.interarrival_jitter == big_endian(&packet[40], 4));
    check(block.last_report == before.report_block.last_report);
    check(block.delay_since_last_report == before.report_block.delay_since_last_report);
    return 0;
}
