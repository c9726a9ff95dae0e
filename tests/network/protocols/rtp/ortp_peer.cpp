// The other end of a call, made of oRTP: ortp_peer PORT REMOTE_PORT
//
// Both ends are on 127.0.0.1, RTP at the port and RTCP at the next one. Until it is killed it sends
// a packet of 160 bytes every few milliseconds, each byte telling the packet's place, and a sender
// report as often as oRTP lets it. On standard output: first its SSRC, then a line for each packet
// that arrived, "version marker type sequence timestamp ssrc size: bytes in hexadecimal".
//
// A program of its own: its library and this one export functions of the same name.

#include <ortp/ortp.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr int kBytes = 160;  // 20 ms of A-law
constexpr int kAlaw = 8;

void print_packet(mblk_t* packet) {
    unsigned char* payload = nullptr;
    const int size = rtp_get_payload(packet, &payload);
    printf("%u %u %u %u %u %u %d: ", rtp_get_version(packet), rtp_get_markbit(packet),
           rtp_get_payload_type(packet), rtp_get_seqnumber(packet), rtp_get_timestamp(packet),
           rtp_get_ssrc(packet), size);
    for (int i = 0; i < size; i++) printf("%02x", payload[i]);
    printf("\n");
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    const int port = atoi(argv[1]), remote_port = atoi(argv[2]);

    ortp_init();
    RtpSession* const session = rtp_session_new(RTP_SESSION_SENDRECV);
    rtp_session_set_scheduling_mode(session, 0);
    rtp_session_set_blocking_mode(session, 0);
    rtp_session_enable_jitter_buffer(session, 0);
    rtp_session_enable_adaptive_jitter_compensation(session, 0);  // it would move timestamps
    rtp_session_set_symmetric_rtp(session, 0);
    rtp_session_set_payload_type(session, kAlaw);
    rtp_session_set_rtcp_report_interval(session, 60);
    if (rtp_session_set_local_addr(session, "127.0.0.1", port, port + 1) != 0 ||
        rtp_session_set_remote_addr_full(session, "127.0.0.1", remote_port, "127.0.0.1",
                                         remote_port + 1) != 0)
        return 1;
    printf("%u\n", rtp_session_get_send_ssrc(session));
    fflush(stdout);

    for (uint32_t place = 0;; place++) {
        while (mblk_t* const received = rtp_session_recvm_with_ts(session, place * kBytes)) {
            print_packet(received);
            freemsg(received);
        }
        uint8_t payload[kBytes];
        memset(payload, static_cast<int>(place & 0xFF), sizeof payload);
        mblk_t* const packet =
            rtp_session_create_packet(session, RTP_FIXED_HEADER_SIZE, payload, sizeof payload);
        rtp_session_sendm_with_ts(session, packet, place * kBytes);
        const timespec pause{0, 3'000'000};
        nanosleep(&pause, nullptr);
    }
}
