// A session is the few numbers that go from one packet to the next; a packet is read and built in
// one pass over its header and one copy of its payload.
//
// Of a sender report the fields named here are read. The first report block is taken from its place
// whether the packet announces one or not:
//
//     0     4        8     16    20       24       28      32     33        36     40       44
//     +-----+--------+-----+-----+--------+--------+-------+------+---------+------+--------+
//     | ... | sender | NTP | RTP | packet | octet  | block | frac-| cumul.  | seq. | jitter |
//     |     | SSRC   |     |     | count  | count  | SSRC  | tion | lost    |      |        |
//     +-----+--------+-----+-----+--------+--------+-------+------+---------+------+--------+

#include <ztlib/network/protocols/rtp/rtp.h>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/base/network_order.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr const char* kModule = "./network/protocols/rtp/rtp";

constexpr unsigned char kFirstByte = 0x80;   // version 2, no padding, extension or CSRCs
constexpr unsigned char kSecondByte = 0x08;  // no marker, payload type 8
constexpr unsigned kCsrcBytes = 4;

constexpr double kSamplesPerSecond = 8000.0;
constexpr uint64_t kMicrosecondsPerSecond = 1'000'000;
constexpr double kJitterSmoothing = 16.0;

constexpr unsigned kFirstPort = 12000;
constexpr unsigned kLastPort = 65534;

uint16_t read16(const unsigned char* at) { return zt::read_network_order<uint16_t>(at); }
uint32_t read32(const unsigned char* at) { return zt::read_network_order<uint32_t>(at); }

// --- RTP -----------------------------------------------------------------------------------------

void write_header(const rtp_session& session, unsigned char* packet) {
    packet[0] = kFirstByte;
    packet[1] = kSecondByte;
    zt::write_network_order(static_cast<uint16_t>(session.sequence), packet + 2);
    zt::write_network_order(session.timestamp, packet + 4);
    zt::write_network_order(session.ssrc, packet + 8);
}

unsigned csrc_count(const unsigned char* packet) { return packet[0] & 0x0F; }

// The size of the header with its CSRCs, or 0 where `len` bytes do not hold it.
unsigned header_size(const unsigned char* packet, unsigned len) {
    if (len < RTP_HEADER_BYTES) return 0;
    const unsigned size = RTP_HEADER_BYTES + kCsrcBytes * csrc_count(packet);
    return size <= len ? size : 0;
}

// As rtp_dump_rtp() takes it. SSRC and CSRC are the upper halves of what the packet says; a session
// needs neither.
rtp_header parse_header(const unsigned char* packet) {
    rtp_header header{};
    header.version = packet[0] >> 6;
    header.padding = packet[0] >> 5 & 1;
    header.extension = packet[0] >> 4 & 1;
    header.csrc_count = csrc_count(packet);
    header.marker = packet[1] >> 7;
    header.payload_type = packet[1] & 0x7F;
    header.sequence = read16(packet + 2);
    header.timestamp = read32(packet + 4);
    header.ssrc = read16(packet + 8);
    if (header.csrc_count != 0) header.first_csrc = read16(packet + 12);
    return header;
}

uint64_t in_microseconds(const timeval& time) {
    return static_cast<uint64_t>(time.tv_sec) * kMicrosecondsPerSecond +
           static_cast<uint64_t>(time.tv_usec);
}

// The estimator of RFC 3550, on arrival times in whole seconds.
void note_arrival(rtp_session& session, uint32_t timestamp) {
    timeval now;
    gettimeofday(&now, nullptr);
    const double ts = timestamp / kSamplesPerSecond;
    if (session.last_arrival_time != 0) {
        const double second = static_cast<double>(now.tv_sec);
        const double last_second =
            static_cast<double>(session.last_arrival_time / kMicrosecondsPerSecond);
        const double difference =
            (second - ts) - (last_second - session.last_received_timestamp_in_seconds);
        session.jitter += (fabs(difference) - session.jitter) / kJitterSmoothing;
    }
    session.last_received_timestamp = timestamp;
    session.last_arrival_time = in_microseconds(now);
    session.last_received_timestamp_in_seconds = ts;
}

// --- RTCP ----------------------------------------------------------------------------------------

int32_t sign_extended(unsigned char byte) { return static_cast<int8_t>(byte); }

// Each byte brings its sign along.
int32_t read_cumulative_lost(const unsigned char* at) {
    return sign_extended(at[0]) << 16 | sign_extended(at[1]) << 8 | sign_extended(at[2]);
}

void parse_sender_report(const unsigned char* packet, rtcp_packet& out) {
    out.sender_ssrc = read32(packet + 4);
    out.sender_packet_count = read32(packet + 20);
    out.sender_octet_count = read32(packet + 24);
    out.report_block.ssrc = read32(packet + 28);
    out.report_block.fraction_lost = packet[32];
    out.report_block.cumulative_packets_lost = read_cumulative_lost(packet + 33);
    out.report_block.interarrival_jitter = read32(packet + 40);
}

// --- sockets -------------------------------------------------------------------------------------

// The descriptor; one that cannot be had, negative, is said.
int make_udp_socket(zt::Site site) {
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0)
        fprintf(stderr, "%s:%s: socket(): %s\n", site.module, site.function, strerror(errno));
    return fd;
}

bool bind_to(int fd, unsigned port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

extern "C" rtp_session* rtp_session_create(int value) {
    rtp_session* const session = zt::allocate_zeroed<rtp_session>();
    if (!session) {
        zt::report_call({kModule, __func__}, "calloc()");
        return nullptr;
    }
    session->initial_sequence = static_cast<uint32_t>(random());
    session->timestamp = static_cast<uint32_t>(random());
    session->ssrc = static_cast<uint32_t>(random());
    session->sequence = session->initial_sequence;
    session->creation_value = static_cast<uint8_t>(value);
    fprintf(stderr, "RTP SESSION CREATES SSRC=%u\n", session->ssrc);
    return session;
}

extern "C" void rtp_session_destroy(rtp_session* session) { free(session); }

extern "C" int rtp_unwrap(rtp_session* session, const void* payload, int len, unsigned char* packet,
                          unsigned* packet_len) {
    const unsigned size = len > 0 ? static_cast<unsigned>(len) : 0;
    if (!session || !packet || !packet_len || (!payload && size > 0)) return 0;

    // The payload first: it may lie where the header is going to be.
    if (size > 0) memmove(packet + RTP_HEADER_BYTES, payload, size);
    write_header(*session, packet);
    *packet_len = size + RTP_HEADER_BYTES;

    session->sequence++;
    session->timestamp += size;
    return 0;
}

extern "C" int rtp_wrap(rtp_session* session, const unsigned char* packet, unsigned len,
                        void* payload, unsigned* payload_len) {
    if (!session || !packet || !payload || !payload_len) return 0;
    const unsigned header_bytes = header_size(packet, len);
    if (header_bytes == 0) {
        *payload_len = 0;
        return 0;
    }

    const rtp_header header = parse_header(packet);
    *payload_len = len - header_bytes;
    memmove(payload, packet + header_bytes, len - header_bytes);
    note_arrival(*session, header.timestamp);
    return 0;
}

extern "C" int rtcp_wrap(rtp_session* /*session*/, const unsigned char* packet, unsigned /*len*/,
                         rtcp_packet* out) {
    if (!packet || !out) return 0;
    out->version = packet[0] >> 6;
    out->padding = packet[0] >> 5 & 1;
    out->count = packet[0] & 0x1F;
    out->packet_type = packet[1];
    out->length = read16(packet + 2);
    if (out->packet_type == RTCP_SENDER_REPORT) parse_sender_report(packet, *out);
    rtcp_dump(out);
    return 0;
}

extern "C" void rtp_dump_rtp(const rtp_header* header) {
    if (!header) return;
    fprintf(stderr,
            "--- rtp dump ---\n"
            "v:%u,p:%u,ext:%u,csrc_cnt:%u,marker:%u,pl_type:%u,seq:%u,time:%u,ssrc:%u\n",
            header->version, header->padding, header->extension, header->csrc_count, header->marker,
            header->payload_type, header->sequence, header->timestamp, header->ssrc);
}

extern "C" void rtcp_dump(const rtcp_packet* packet) {
    if (!packet) return;
    fprintf(stderr,
            "--- rtcp dump ---\n"
            "version:%u, p:%u, count:%u, pt:%u, length:%u\n",
            packet->version, packet->padding, packet->count, packet->packet_type, packet->length);
    if (packet->packet_type != RTCP_SENDER_REPORT) return;
    fprintf(stderr,
            "ssrc: %u -> pcount %u, ocount %u\n"
            "ssrc 1: %u -> jitter %u, clost %d, flost: %u\n",
            packet->sender_ssrc, packet->sender_packet_count, packet->sender_octet_count,
            packet->report_block.ssrc, packet->report_block.interarrival_jitter,
            packet->report_block.cumulative_packets_lost, packet->report_block.fraction_lost);
}

extern "C" int rtp_create_socket_pair(int* rtp_fd, int* rtcp_fd, unsigned short* rtp_port,
                                      unsigned short* rtcp_port) {
    const zt::Site here{kModule, __func__};

    if (!rtp_fd || !rtcp_fd || !rtp_port || !rtcp_port) return -1;
    for (unsigned port = kFirstPort; port <= kLastPort; port += 2) {
        *rtp_port = static_cast<uint16_t>(port);
        *rtcp_port = static_cast<uint16_t>(port + 1);

        zt::Descriptor rtp(make_udp_socket(here));
        if (!rtp) return -1;
        zt::Descriptor rtcp(make_udp_socket(here));
        if (!rtcp) return -1;
        if (!bind_to(rtp.get(), port) || !bind_to(rtcp.get(), port + 1)) continue;

        const int flags = fcntl(rtp.get(), F_GETFL) | O_NONBLOCK;
        fcntl(rtp.get(), F_SETFL, flags);
        fcntl(rtcp.get(), F_SETFL, flags);
        *rtp_fd = rtp.release();
        *rtcp_fd = rtcp.release();
        return 0;
    }
    return -1;
}
