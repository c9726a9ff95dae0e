#include <ztlib/network/protocols/rtp/rtp.h>

#include <tests/network/protocols/rtp/own_network.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

using namespace zt_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

namespace {

using Bytes = std::vector<unsigned char>;

std::optional<uint64_t> test_clock;  // microseconds; the linker sends gettimeofday() here

// While it lives, time stands where the test sets it.
struct StoppedClock {
    StoppedClock() { test_clock = 0; }
    ~StoppedClock() { test_clock.reset(); }
    void set(uint64_t microseconds) { test_clock = microseconds; }
};

}  // namespace

extern "C" int __real_gettimeofday(timeval* now, void* zone);
extern "C" int __wrap_gettimeofday(timeval* now, void* zone);
extern "C" int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!test_clock) return __real_gettimeofday(now, zone);
    now->tv_sec = static_cast<time_t>(*test_clock / 1'000'000);
    now->tv_usec = static_cast<suseconds_t>(*test_clock % 1'000'000);
    return 0;
}

namespace {

struct Session {
    Session() {
        CapturedStderr err;
        session = rtp_session_create(0);
    }
    ~Session() { rtp_session_destroy(session); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    operator rtp_session*() const { return session; }
    rtp_session* operator->() const { return session; }

    rtp_session* session;
};

Bytes counting(size_t size) {
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(1));
    return bytes;
}

// A packet with its CSRCs, and this much payload that counts from 1.
Bytes packet_with(uint32_t timestamp, size_t payload, unsigned csrcs = 0) {
    Bytes bytes = {static_cast<unsigned char>(0x80 | csrcs), 0x08, 0x12, 0x34};
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(timestamp >> shift));
    bytes.insert(bytes.end(), {0xDE, 0xAD, 0xBE, 0xEF});
    for (unsigned i = 0; i < 4 * csrcs; i++) bytes.push_back(0xC5);
    const Bytes behind = counting(payload);
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    return bytes;
}

// The payload that rtp_wrap() takes out of exactly these bytes.
Bytes unpacked(rtp_session* session, const Bytes& packet) {
    const auto exact = std::make_unique<unsigned char[]>(packet.size());
    std::copy(packet.begin(), packet.end(), exact.get());
    Bytes payload(packet.size() + 1, 0xEE);
    unsigned size = 77;
    const unsigned length = static_cast<unsigned>(packet.size());
    EXPECT_EQ(rtp_wrap(session, exact.get(), length, payload.data(), &size), 0);
    if (size > length) {
        ADD_FAILURE() << "a payload of " << size << " bytes out of " << length;
        return {};
    }
    EXPECT_THAT(Bytes(payload.begin() + size, payload.end()), Each(0xEE)) << "written behind";
    payload.resize(size);
    return payload;
}

// What a record holds, byte for byte.
template <class Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

}  // namespace

// --- sessions ------------------------------------------------------------------------------------

TEST(RtpSession, DrawsSequenceTimestampAndSsrcInThisOrder) {
    srandom(4711);
    const uint32_t sequence = static_cast<uint32_t>(random());
    const uint32_t timestamp = static_cast<uint32_t>(random());
    const uint32_t ssrc = static_cast<uint32_t>(random());

    srandom(4711);
    CapturedStderr err;
    rtp_session* const session = rtp_session_create(0x1234);
    EXPECT_EQ(err.text(), "RTP SESSION CREATES SSRC=" + std::to_string(ssrc) + "\n");
    EXPECT_EQ(session->initial_sequence, sequence);
    EXPECT_EQ(session->sequence, sequence);
    EXPECT_EQ(session->timestamp, timestamp);
    EXPECT_EQ(session->ssrc, ssrc);
    EXPECT_EQ(session->last_received_timestamp, 0u);
    EXPECT_EQ(session->last_arrival_time, 0u);
    EXPECT_EQ(session->last_received_timestamp_in_seconds, 0.0);
    EXPECT_EQ(session->jitter, 0.0);
    EXPECT_EQ(session->creation_value, 0x34);
    rtp_session_destroy(session);
}

TEST(RtpSession, IsNotMadeWhenMemoryIsOut) {
    CapturedLog log;
    CapturedStderr err;
    for_each_failing_allocation([] { return rtp_session_create(0); }, rtp_session_destroy);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:rtp:rtp_session_create: calloc()(): Cannot allocate memory"));
    EXPECT_THAT(err.text(), MatchesRegex("RTP SESSION CREATES SSRC=[0-9]+\n")) << "the one made";
}

TEST(RtpSession, DestroyIgnoresNull) { rtp_session_destroy(nullptr); }

// --- building ------------------------------------------------------------------------------------

TEST(RtpUnwrap, PutsTwelveBytesOfHeaderInFrontOfThePayload) {
    Session session;
    session->sequence = 0x98761234;
    session->timestamp = 0x01020304;
    session->ssrc = 0xA1B2C3D4;
    unsigned char packet[12 + 5 + 1];
    memset(packet, 0xEE, sizeof packet);
    unsigned size = 0;
    EXPECT_EQ(rtp_unwrap(session, "hello", 5, packet, &size), 0);
    EXPECT_EQ(size, 17u);
    EXPECT_THAT(packet, ElementsAre(0x80, 0x08, 0x12, 0x34, 1, 2, 3, 4, 0xA1, 0xB2, 0xC3, 0xD4,  //
                                    'h', 'e', 'l', 'l', 'o', 0xEE));
}

TEST(RtpUnwrap, CountsPacketsInTheSequenceAndBytesInTheTimestamp) {
    Session session;
    const rtp_session before = *session.session;
    const Bytes payload = counting(160);
    Bytes packets[2] = {Bytes(172), Bytes(172)};
    for (Bytes& packet : packets) {
        unsigned size = 0;
        EXPECT_EQ(rtp_unwrap(session, payload.data(), 160, packet.data(), &size), 0);
        EXPECT_EQ(size, 172u);
        EXPECT_TRUE(std::equal(payload.begin(), payload.end(), packet.begin() + 12));
    }
    const auto read = [](const Bytes& packet, int at, int bytes) {
        uint32_t value = 0;
        for (int i = 0; i < bytes; i++) value = value << 8 | packet[static_cast<size_t>(at + i)];
        return value;
    };
    for (uint32_t i = 0; i < 2; i++) {
        EXPECT_EQ(read(packets[i], 2, 2), (before.sequence + i) & 0xFFFF);
        EXPECT_EQ(read(packets[i], 4, 4), before.timestamp + 160 * i);
        EXPECT_EQ(read(packets[i], 8, 4), before.ssrc);
    }
    EXPECT_EQ(session->sequence, before.sequence + 2);
    EXPECT_EQ(session->timestamp, before.timestamp + 320);
    EXPECT_EQ(session->initial_sequence, before.initial_sequence);
    EXPECT_EQ(session->last_arrival_time, 0u);
}

TEST(RtpUnwrap, WrapsSequenceAndTimestampAround) {
    Session session;
    session->sequence = 0xFFFFFFFF;
    session->timestamp = 0xFFFFFFFE;
    unsigned char packet[20];
    unsigned size = 0;
    rtp_unwrap(session, "abcdefgh", 8, packet, &size);
    EXPECT_THAT(Bytes(packet + 2, packet + 8), ElementsAre(0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE));
    EXPECT_EQ(session->sequence, 0u);
    EXPECT_EQ(session->timestamp, 6u);
}

TEST(RtpUnwrap, TakesANegativeLengthAsZero) {
    for (const int len : {0, -1, INT32_MIN}) {
        Session session;
        const rtp_session before = *session.session;
        unsigned char packet[13];
        packet[12] = 0xEE;
        unsigned size = 0;
        EXPECT_EQ(rtp_unwrap(session, nullptr, len, packet, &size), 0);
        EXPECT_EQ(size, 12u);
        EXPECT_EQ(packet[0], 0x80);
        EXPECT_EQ(packet[12], 0xEE);
        EXPECT_EQ(session->sequence, before.sequence + 1);
        EXPECT_EQ(session->timestamp, before.timestamp);
    }
}

TEST(RtpUnwrap, TakesAPayloadThatLiesInThePacket) {
    const Bytes payload = counting(40);
    for (size_t at : {0, 5, 12, 20}) {
        Session session;
        Bytes packet(60);
        std::copy(payload.begin(), payload.end(), packet.begin() + static_cast<ptrdiff_t>(at));
        unsigned size = 0;
        rtp_unwrap(session, packet.data() + at, 40, packet.data(), &size);
        EXPECT_EQ(packet[0], 0x80);
        EXPECT_EQ(Bytes(packet.begin() + 12, packet.begin() + 52), payload) << at;
    }
}

TEST(RtpUnwrap, IgnoresNull) {
    Session session;
    const std::string before = bytes_of(*session.session);
    unsigned char packet[16] = {};
    unsigned size = 77;
    EXPECT_EQ(rtp_unwrap(nullptr, "x", 1, packet, &size), 0);
    EXPECT_EQ(rtp_unwrap(session, nullptr, 1, packet, &size), 0);
    EXPECT_EQ(rtp_unwrap(session, "x", 1, nullptr, &size), 0);
    EXPECT_EQ(rtp_unwrap(session, "x", 1, packet, nullptr), 0);
    EXPECT_EQ(size, 77u);
    EXPECT_THAT(packet, Each(0));
    EXPECT_EQ(bytes_of(*session.session), before);
}

// --- reading -------------------------------------------------------------------------------------

TEST(RtpWrap, TakesOutWhatIsBehindTheHeader) {
    Session session;
    EXPECT_EQ(unpacked(session, packet_with(8000, 160)), counting(160));
    EXPECT_EQ(session->last_received_timestamp, 8000u);
    EXPECT_EQ(session->last_received_timestamp_in_seconds, 1.0);
}

TEST(RtpWrap, SkipsFourBytesForEachCsrc) {
    for (unsigned csrcs = 0; csrcs <= 15; csrcs++) {
        Session session;
        EXPECT_EQ(unpacked(session, packet_with(1, 9, csrcs)), counting(9)) << csrcs;
    }
}

TEST(RtpWrap, LeavesExtensionsAndPaddingInThePayload) {
    Session session;
    Bytes packet = packet_with(1, 20);
    packet[0] |= 0x30;
    packet.back() = 4;
    Bytes expected = counting(20);
    expected.back() = 4;
    EXPECT_EQ(unpacked(session, packet), expected);
}

TEST(RtpWrap, JudgesNeitherVersionNorTypeNorMarker) {
    Session session;
    Bytes packet = packet_with(16000, 3);
    packet[0] = 0x00;
    packet[1] = 0xFF;
    EXPECT_EQ(unpacked(session, packet), counting(3));
    EXPECT_EQ(session->last_received_timestamp, 16000u);
}

TEST(RtpWrap, GivesNoPayloadForLessThanAHeaderAndChangesNothing) {
    for (const unsigned csrcs : {0u, 1u, 2u, 15u}) {
        const Bytes whole = packet_with(8000, 0, csrcs);
        for (size_t size = 0; size < whole.size(); size++) {
            Session session;
            session->last_arrival_time = 5'000'000;
            session->jitter = 0.5;
            const std::string before = bytes_of(*session.session);
            EXPECT_THAT(unpacked(session, Bytes(whole.begin(), whole.begin() + size)), IsEmpty());
            EXPECT_EQ(bytes_of(*session.session), before) << size;
        }
    }
}

TEST(RtpWrap, ReadsAPacketThatIsHeaderAlone) {
    Session session;
    EXPECT_THAT(unpacked(session, packet_with(8000, 0, 2)), IsEmpty());
    EXPECT_EQ(session->last_received_timestamp, 8000u);
    EXPECT_NE(session->last_arrival_time, 0u);
}

TEST(RtpWrap, TakesThePayloadOutInPlace) {
    Session session;
    Bytes packet = packet_with(1, 100, 2);
    unsigned size = 0;
    EXPECT_EQ(rtp_wrap(session, packet.data(), 120, packet.data(), &size), 0);
    packet.resize(size);
    EXPECT_EQ(packet, counting(100));
}

TEST(RtpWrap, ReadsWhatUnwrapBuilt) {
    Session sender, receiver;
    const Bytes payload = counting(160);
    for (int i = 0; i < 3; i++) {
        Bytes packet(172);
        unsigned size = 0;
        const uint32_t timestamp = sender->timestamp;
        rtp_unwrap(sender, payload.data(), 160, packet.data(), &size);
        EXPECT_EQ(unpacked(receiver, packet), payload);
        EXPECT_EQ(receiver->last_received_timestamp, timestamp);
    }
}

TEST(RtpWrap, IgnoresNull) {
    Session session;
    const std::string before = bytes_of(*session.session);
    const Bytes packet = packet_with(1, 4);
    unsigned char payload[4] = {};
    unsigned size = 77;
    EXPECT_EQ(rtp_wrap(nullptr, packet.data(), 16, payload, &size), 0);
    EXPECT_EQ(rtp_wrap(session, nullptr, 16, payload, &size), 0);
    EXPECT_EQ(rtp_wrap(session, packet.data(), 16, nullptr, &size), 0);
    EXPECT_EQ(rtp_wrap(session, packet.data(), 16, payload, nullptr), 0);
    EXPECT_EQ(size, 77u);
    EXPECT_THAT(payload, Each(0));
    EXPECT_EQ(bytes_of(*session.session), before);
}

TEST(RtpWrap, KeepsTheTimeOfArrivalInMicroseconds) {
    Session session;
    StoppedClock clock;
    clock.set(1'700'000'000'123'456);
    unpacked(session, packet_with(1, 1));
    EXPECT_EQ(session->last_arrival_time, 1'700'000'000'123'456u);
}

// Arrivals count in whole seconds, so D is worked out by hand with 100, 100, 101, 102, 102 and 103.
TEST(RtpWrap, EstimatesTheJitterFromWholeSecondsOfArrival) {
    struct Step {
        uint64_t arrival;
        uint32_t timestamp;
        double jitter;
    };
    const Step steps[] = {
        {100'000'000, 8000, 0.0},                  // the first: none
        {100'999'999, 8160, 0.00125},              // D = -0.02
        {101'000'000, 8320, 0.062421875},          // D = 0.98
        {102'500'000, 16320, 0.0585205078125},     // D = 0
        {102'500'001, 160, 0.18111297607421875},   // D = 2.02: the timestamp went back
        {103'000'000, 80160, 0.7322934150695801},  // D = -9
    };
    Session session;
    StoppedClock clock;
    for (const Step& step : steps) {
        clock.set(step.arrival);
        unpacked(session, packet_with(step.timestamp, 160));
        EXPECT_NEAR(session->jitter, step.jitter, 1e-12);
        EXPECT_EQ(session->last_received_timestamp, step.timestamp);
        EXPECT_EQ(session->last_arrival_time, step.arrival);
        EXPECT_EQ(session->last_received_timestamp_in_seconds, step.timestamp / 8000.0);
    }
}

TEST(RtpWrap, TakesAnArrivalAtTheEpochAsNone) {
    Session session;
    StoppedClock clock;
    clock.set(0);
    unpacked(session, packet_with(8000, 1));
    clock.set(9'000'000);
    unpacked(session, packet_with(8000, 1));
    EXPECT_EQ(session->jitter, 0.0);
}

// --- RTCP ----------------------------------------------------------------------------------------

namespace {

const Bytes kSenderReport = {
    0xA1, 200,  0x00, 0x0C,                          // version 2, padding, 1 block; 12 words follow
    0xDE, 0xAD, 0xBE, 0xEF,                          // sender's SSRC
    0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22,  // NTP timestamp
    0x33, 0x33, 0x33, 0x33,                          // RTP timestamp
    0x00, 0x00, 0x01, 0x02,                          // packets sent
    0x80, 0x00, 0x00, 0x01,                          // octets sent
    0xCA, 0xFE, 0xBA, 0xBE,                          // the block's SSRC
    0x40, 0x00, 0x01, 0x05,                          // fraction and number lost
    0x44, 0x44, 0x44, 0x44,                          // highest sequence
    0x00, 0x00, 0x03, 0x20,                          // jitter
};

// The record that comes out of one filled with `before`, and what was printed.
std::pair<rtcp_packet, std::string> decoded(const Bytes& packet, unsigned char before = 0) {
    rtcp_packet out;
    memset(static_cast<void*>(&out), before, sizeof out);
    CapturedStderr err;
    EXPECT_EQ(rtcp_wrap(nullptr, packet.data(), static_cast<unsigned>(packet.size()), &out), 0);
    return {out, err.text()};
}

}  // namespace

TEST(Rtcp, DecodesASenderReportAndItsFirstBlock) {
    const auto [report, printed] = decoded(kSenderReport);
    EXPECT_EQ(report.version, 2u);
    EXPECT_EQ(report.padding, 1u);
    EXPECT_EQ(report.count, 1u);
    EXPECT_EQ(report.packet_type, unsigned{RTCP_SENDER_REPORT});
    EXPECT_EQ(report.length, 12);
    EXPECT_EQ(report.sender_ssrc, 0xDEADBEEF);
    EXPECT_EQ(report.sender_packet_count, 0x102u);
    EXPECT_EQ(report.sender_octet_count, 0x80000001);
    EXPECT_EQ(report.report_block.ssrc, 0xCAFEBABE);
    EXPECT_EQ(report.report_block.fraction_lost, 0x40u);
    EXPECT_EQ(report.report_block.cumulative_packets_lost, 0x105);
    EXPECT_EQ(report.report_block.interarrival_jitter, 800u);
    EXPECT_EQ(printed,
              "--- rtcp dump ---\n"
              "version:2, p:1, count:1, pt:200, length:12\n"
              "ssrc: 3735928559 -> pcount 258, ocount 2147483649\n"
              "ssrc 1: 3405691582 -> jitter 800, clost 261, flost: 64\n");
}

TEST(Rtcp, LeavesTheOtherFieldsOfASenderReportAlone) {
    const rtcp_packet report = decoded(kSenderReport, 0x5A).first;
    EXPECT_EQ(report.ntp_timestamp[0], 0x5A5A5A5A);
    EXPECT_EQ(report.ntp_timestamp[1], 0x5A5A5A5A);
    EXPECT_EQ(report.rtp_timestamp, 0x5A5A5A5Au);
    EXPECT_EQ(report.report_block.extended_highest_sequence_number, 0x5A5A5A5Au);
    EXPECT_EQ(report.report_block.last_report, 0x5A5A5A5Au);
    EXPECT_EQ(report.report_block.delay_since_last_report, 0x5A5A5A5Au);
}

TEST(Rtcp, FillsTheFirstFourFieldsOfAnyOtherPacket) {
    for (const unsigned char type : {0, 199, 201, 202, 255}) {
        const Bytes packet = {0x7F, type, 0xAB, 0xCD};  // nothing behind them is readable
        const auto [record, printed] = decoded(packet, 0x5A);
        EXPECT_EQ(record.version, 1u);
        EXPECT_EQ(record.padding, 1u);
        EXPECT_EQ(record.count, 31u);
        EXPECT_EQ(record.packet_type, type);
        EXPECT_EQ(record.length, 0xABCD);
        EXPECT_THAT(bytes_of(record).substr(4), Each(0x5A));
        EXPECT_EQ(printed, "--- rtcp dump ---\nversion:1, p:1, count:31, pt:" +
                               std::to_string(type) + ", length:43981\n");
    }
}

TEST(Rtcp, ReadsTheFirstBlockOfAReportThatAnnouncesNone) {
    Bytes packet = kSenderReport;
    packet[0] = 0x80;
    const rtcp_packet report = decoded(packet).first;
    EXPECT_EQ(report.count, 0u);
    EXPECT_EQ(report.report_block.ssrc, 0xCAFEBABE);
}

TEST(Rtcp, ExtendsEachByteOfTheLossAsASignedNumber) {
    const struct {
        unsigned char bytes[3];
        int lost;
    } cases[] = {
        {{0x00, 0x00, 0x7F}, 127},    {{0x00, 0x00, 0x80}, -128},
        {{0x00, 0x01, 0x00}, 256},    {{0x00, 0x80, 0x00}, -32768},
        {{0x01, 0x00, 0x00}, 65536},  {{0x7F, 0x7F, 0x7F}, 0x7F7F7F},
        {{0x7F, 0xFF, 0xFF}, -1},     {{0x80, 0x00, 0x00}, -8388608},
        {{0xFF, 0xFF, 0xFF}, -1},     {{0x12, 0x34, 0xD6}, -42},
        {{0xFF, 0x7F, 0x01}, -33023}, {{0x00, 0x00, 0x00}, 0},
        {{0x12, 0xFE, 0x01}, -511},
    };
    for (const auto& one : cases) {
        Bytes packet = kSenderReport;
        std::copy(one.bytes, one.bytes + 3, packet.begin() + 33);
        const auto [report, printed] = decoded(packet);
        EXPECT_EQ(report.report_block.cumulative_packets_lost, one.lost);
        EXPECT_EQ(report.report_block.fraction_lost, 0x40u);
        EXPECT_THAT(printed, testing::HasSubstr("clost " + std::to_string(one.lost) + ","));
    }
}

TEST(Rtcp, LooksAtNeitherSessionNorLength) {
    Session session;
    const std::string before = bytes_of(*session.session);
    rtcp_packet out{};
    CapturedStderr err;
    EXPECT_EQ(rtcp_wrap(session, kSenderReport.data(), 0, &out), 0);
    EXPECT_EQ(out.sender_ssrc, 0xDEADBEEF);
    EXPECT_EQ(bytes_of(*session.session), before);
}

TEST(Rtcp, IgnoresNull) {
    CapturedStderr err;
    rtcp_packet out{};
    EXPECT_EQ(rtcp_wrap(nullptr, nullptr, 44, &out), 0);
    EXPECT_EQ(rtcp_wrap(nullptr, kSenderReport.data(), 44, nullptr), 0);
    EXPECT_THAT(bytes_of(out), Each(0));
    rtcp_dump(nullptr);
    rtp_dump_rtp(nullptr);
    EXPECT_EQ(err.text(), "");
}

// --- records -------------------------------------------------------------------------------------

TEST(RtpHeader, IsPrintedInOneLine) {
    rtp_header header{};
    header.version = 2;
    header.padding = 1;
    header.extension = 1;
    header.csrc_count = 15;
    header.marker = 1;
    header.payload_type = 127;
    header.sequence = 65535;
    header.timestamp = 4294967295;
    header.ssrc = 3735928559;
    header.first_csrc = 7;
    CapturedStderr err;
    rtp_dump_rtp(&header);
    EXPECT_EQ(err.text(),
              "--- rtp dump ---\n"
              "v:2,p:1,ext:1,csrc_cnt:15,marker:1,pl_type:127,seq:65535,time:4294967295,"
              "ssrc:3735928559\n");
}

TEST(RtpHeader, HasItsBitsInOrderFromTheLowest) {
    const auto low16 = [](auto set) {
        rtp_header header{};
        set(header);
        uint16_t bits;
        memcpy(&bits, &header, sizeof bits);
        return bits;
    };
    EXPECT_EQ(low16([](rtp_header& h) { h.version = 3; }), 0x0003);
    EXPECT_EQ(low16([](rtp_header& h) { h.padding = 1; }), 0x0004);
    EXPECT_EQ(low16([](rtp_header& h) { h.extension = 1; }), 0x0008);
    EXPECT_EQ(low16([](rtp_header& h) { h.csrc_count = 15; }), 0x00F0);
    EXPECT_EQ(low16([](rtp_header& h) { h.marker = 1; }), 0x0100);
    EXPECT_EQ(low16([](rtp_header& h) { h.payload_type = 127; }), 0xFE00);
}

TEST(RtcpPacket, HasItsBitsInOrderFromTheLowest) {
    const auto word = [](size_t at, auto set) {
        rtcp_packet packet{};
        set(packet);
        uint32_t bits;
        memcpy(&bits, reinterpret_cast<const char*>(&packet) + at, sizeof bits);
        return bits;
    };
    EXPECT_EQ(word(0, [](rtcp_packet& p) { p.version = 3; }), 0x0003u);
    EXPECT_EQ(word(0, [](rtcp_packet& p) { p.padding = 1; }), 0x0004u);
    EXPECT_EQ(word(0, [](rtcp_packet& p) { p.count = 31; }), 0x00F8u);
    EXPECT_EQ(word(0, [](rtcp_packet& p) { p.packet_type = 255; }), 0xFF00u);
    constexpr size_t kLoss = offsetof(rtcp_packet, report_block) + sizeof(uint32_t);
    EXPECT_EQ(word(kLoss, [](rtcp_packet& p) { p.report_block.fraction_lost = 255; }), 0xFFu);
    EXPECT_EQ(word(kLoss, [](rtcp_packet& p) { p.report_block.cumulative_packets_lost = -1; }),
              0xFFFFFF00u);
}

// --- the socket pair -----------------------------------------------------------------------------

namespace {

// What rtp_create_socket_pair() gave; its sockets are closed at the end of the scope.
struct Pair {
    Pair() {
        int rtp_fd = -7, rtcp_fd = -7;
        result = rtp_create_socket_pair(&rtp_fd, &rtcp_fd, &rtp_port, &rtcp_port);
        rtp = Fd(rtp_fd);
        rtcp = Fd(rtcp_fd);
    }
    Pair(Pair&&) = default;
    Pair& operator=(Pair&&) = default;

    bool is_at(unsigned port) const {
        return result == 0 && rtp_port == port && rtcp_port == port + 1;
    }

    int result;
    Fd rtp, rtcp;
    unsigned short rtp_port = 0, rtcp_port = 0;
};

Fd taken(uint16_t port) {
    Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return fd;
}

template <class Value>
Value option(int fd, int name) {
    Value value{};
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, name, &value, &size);
    return value;
}

// From here on every bind() of this process fails. False where that is not allowed.
bool let_no_bind_succeed() {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_bind, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EADDRINUSE),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {std::size(steps), steps};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

}  // namespace

TEST(RtpSocketPair, BeginsAtPort12000) {
    SKIP_WITHOUT_OWN_NETWORK();
    Pair pair;
    ASSERT_TRUE(pair.is_at(12000));
    for (const auto& [fd, port] : {std::pair(pair.rtp.get(), 12000), {pair.rtcp.get(), 12001}}) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        EXPECT_EQ(address.sin_family, AF_INET);
        EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
        EXPECT_EQ(ntohs(address.sin_port), port);
        EXPECT_EQ(option<int>(fd, SO_TYPE), SOCK_DGRAM);
        EXPECT_EQ(option<int>(fd, SO_PROTOCOL), IPPROTO_UDP);
        EXPECT_EQ(fcntl(fd, F_GETFL), O_RDWR | O_NONBLOCK);
    }
}

TEST(RtpSocketPair, TakesTheNextPairThatIsFree) {
    SKIP_WITHOUT_OWN_NETWORK();
    std::vector<Pair> pairs(3);
    EXPECT_TRUE(pairs[0].is_at(12000));
    EXPECT_TRUE(pairs[1].is_at(12002));
    EXPECT_TRUE(pairs[2].is_at(12004));
    pairs[1] = {};
    EXPECT_TRUE(pairs[1].is_at(12006)) << "made before the old one was closed";
    EXPECT_TRUE(Pair().is_at(12002));
}

TEST(RtpSocketPair, NeedsBothPorts) {
    SKIP_WITHOUT_OWN_NETWORK();
    for (const uint16_t port : {12000, 12001}) {
        const Fd other = taken(port);
        EXPECT_TRUE(Pair().is_at(12002)) << port;
    }
    EXPECT_TRUE(Pair().is_at(12000));
}

TEST(RtpSocketPair, ClosesWhatItTried) {
    SKIP_WITHOUT_OWN_NETWORK();
    const Fd even = taken(12000), odd = taken(12003);
    const Leftovers leftovers;
    EXPECT_TRUE(Pair().is_at(12004));
    EXPECT_TRUE(leftovers.none());
}

TEST(RtpSocketPair, IsNotMadeWithoutEitherSocket) {
    CapturedStderr err;
    const Leftovers leftovers;
    for (const uint32_t before : {0u, 1u}) {
        FailingCall fault("socket", EMFILE, before);
        const Pair pair;
        EXPECT_EQ(pair.result, -1);
        EXPECT_EQ(pair.rtp.get(), -7);
        EXPECT_EQ(pair.rtcp.get(), -7);
        EXPECT_EQ(pair.rtp_port, 12000);
        EXPECT_EQ(pair.rtcp_port, 12001);
        EXPECT_EQ(err.take(),
                  "./network/protocols/rtp/rtp:rtp_create_socket_pair: socket(): Too many open "
                  "files\n");
        EXPECT_TRUE(leftovers.none());
    }
}

TEST(RtpSocketPair, IsNotMadeWhenNoPairIsFree) {
    const ChildResult child = run_in_child([] {
        if (!let_no_bind_succeed()) _exit(77);
        const int descriptors = descriptor_count();
        const Pair pair;
        printf("%d %d %d %u %u, %d left open\n", pair.result, pair.rtp.get(), pair.rtcp.get(),
               pair.rtp_port, pair.rtcp_port, descriptor_count() - descriptors);
    });
    if (child.status == 77) GTEST_SKIP() << "no process may make its own bind() fail here";
    EXPECT_EQ(child.err, "");
    EXPECT_EQ(child.out, "-1 -7 -7 65534 65535, 0 left open\n");
}

TEST(RtpSocketPair, RefusesNull) {
    int fd = -7;
    unsigned short port = 7;
    EXPECT_EQ(rtp_create_socket_pair(nullptr, &fd, &port, &port), -1);
    EXPECT_EQ(rtp_create_socket_pair(&fd, nullptr, &port, &port), -1);
    EXPECT_EQ(rtp_create_socket_pair(&fd, &fd, nullptr, &port), -1);
    EXPECT_EQ(rtp_create_socket_pair(&fd, &fd, &port, nullptr), -1);
    EXPECT_EQ(fd, -7);
    EXPECT_EQ(port, 7);
}
