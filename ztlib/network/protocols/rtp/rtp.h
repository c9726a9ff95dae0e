/* RTP and RTCP (RFC 3550) for one outgoing and one incoming stream of 8 kHz audio, one byte a
 * sample (payload type 8, A-law).
 *
 *     0                   4                   8                  12               12 + 4 x count
 *     +----+----+---------+-------------------+-------------------+------- - - -------+---- - -
 *     | VC | MT | sequence|     timestamp     |       SSRC        |       CSRCs       | payload
 *     +----+----+---------+-------------------+-------------------+------- - - -------+---- - -
 *       |    |
 *       |    marker (bit 7), payload type (bits 6 to 0)
 *       version (bits 7 and 6), padding (5), extension (4), CSRC count (3 to 0)       big-endian
 *
 * "unwrap" builds a packet to send, "wrap" reads one that was received. Sockets, threads and the
 * order of packets are the host's.
 *
 * Thread safety: a session belongs to one thread at a time. Building touches ssrc, timestamp and
 * sequence alone, and reading the fields of what was received alone, so one thread may build while
 * another one reads. Nothing else is shared.
 *
 * A NULL argument: sessions are not made, pairs not opened (-1); the other functions do nothing. */
#ifndef ZTLIB_NETWORK_PROTOCOLS_RTP_RTP_H
#define ZTLIB_NETWORK_PROTOCOLS_RTP_RTP_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum { RTP_HEADER_BYTES = 12 }; /* of a packet that rtp_unwrap() built */

typedef struct rtp_session {
    /* Outgoing. */
    uint32_t ssrc;
    uint32_t timestamp; /* of the next packet */
    uint32_t initial_sequence;
    uint32_t sequence; /* of the next packet, which carries its low 16 bits */
    /* Incoming: the last packet that was read. */
    uint32_t last_received_timestamp;
    uint64_t last_arrival_time;                /* microseconds since the epoch; 0: none came yet */
    double last_received_timestamp_in_seconds; /* at 8 kHz */
    double jitter;                             /* running estimate, in seconds */

    uint8_t creation_value;
} rtp_session;

/* A packet's header in the host's byte order. The host fills it in, for rtp_dump_rtp(). */
typedef struct rtp_header {
    uint32_t version : 2;
    uint32_t padding : 1;
    uint32_t extension : 1;
    uint32_t csrc_count : 4;
    uint32_t marker : 1;
    uint32_t payload_type : 7;
    uint16_t sequence;
    uint32_t timestamp;
    uint32_t ssrc;
    uint32_t first_csrc;
} rtp_header;

/* A sender report with one report block, in the host's byte order. */
typedef struct rtcp_packet {
    uint32_t version : 2;
    uint32_t padding : 1;
    uint32_t count : 5; /* of report blocks */
    uint32_t packet_type : 8;
    uint16_t length; /* of the packet in 32-bit words, less one */
    uint32_t sender_ssrc;
    uint32_t ntp_timestamp[2]; /* not filled in */
    uint32_t rtp_timestamp;    /* not filled in */
    uint32_t sender_packet_count;
    uint32_t sender_octet_count;
    struct {
        uint32_t ssrc;
        uint32_t fraction_lost : 8; /* in 256ths */
        int32_t cumulative_packets_lost : 24;
        uint32_t extended_highest_sequence_number; /* not filled in */
        uint32_t interarrival_jitter;              /* in samples */
        uint32_t last_report;                      /* not filled in */
        uint32_t delay_since_last_report;          /* not filled in */
    } report_block;
} rtcp_packet;

enum { RTCP_SENDER_REPORT = 200 };

/* A new session: initial sequence, first timestamp and SSRC are drawn with random(), in this order,
 * and "RTP SESSION CREATES SSRC=%u\n" is printed on standard error. The low byte of `value` is kept
 * in creation_value and means nothing here. NULL when memory is out ("calloc()(): ..." logged as a
 * warning). Release it with rtp_session_destroy().
 *
 * random() gives every process the same numbers unless it calls srandom() first. */
rtp_session *rtp_session_create(int value);

/* Frees a session. NULL is ignored. */
void rtp_session_destroy(rtp_session *session);

/* Builds the packet of `len` payload bytes (negative: none) in `packet`, which has room for len +
 * RTP_HEADER_BYTES, and stores that length in *packet_len: version 2, no padding, extension or
 * CSRCs, marker 0, payload type 8, then sequence, timestamp and SSRC of the session. Afterwards the
 * sequence goes up by 1 and the timestamp by `len`. The payload may lie anywhere in `packet`.
 * Returns 0. */
int rtp_unwrap(rtp_session *session, const void *payload, int len, unsigned char *packet,
               unsigned *packet_len);

/* Takes the payload out of a packet of `len` bytes: all that is behind the header and its CSRCs, so
 * a header extension and padding stay in it. `payload` needs room for len - RTP_HEADER_BYTES and
 * may be `packet` itself. Stores the payload's length in *payload_len and returns 0. A packet
 * shorter than its header has a payload of 0 bytes and changes nothing in the session.
 *
 * Neither version nor SSRC nor sequence is judged.
 *
 * With ts = timestamp / 8000.0 and now in whole seconds, each packet but the first changes the
 * jitter by (|(now - ts) - (now - ts of the packet before)| - jitter) / 16. */
int rtp_wrap(rtp_session *session, const unsigned char *packet, unsigned len, void *payload,
             unsigned *payload_len);

/* Decodes an RTCP packet, prints it with rtcp_dump() and returns 0. The session and `len` are not
 * looked at (the session may be NULL): `packet` must have 4 readable bytes, and 44 when its type,
 * the second byte, is RTCP_SENDER_REPORT. Check the length before.
 *
 * Of a sender report all fields are filled but those marked above; the first report block is read
 * whatever `count` says. Of any other packet only version, padding, count, packet_type and length
 * are, and the rest of *out stays as it was.
 *
 * The three bytes of cumulative_packets_lost are extended as signed numbers one by one before they
 * are combined, so a byte of 0x80 or more sets all bits above its own: 00 00 80 is -128. */
int rtcp_wrap(rtp_session *session, const unsigned char *packet, unsigned len, rtcp_packet *out);

/* Prints on standard error:
 *     --- rtp dump ---
 *     v:%u,p:%u,ext:%u,csrc_cnt:%u,marker:%u,pl_type:%u,seq:%u,time:%u,ssrc:%u */
void rtp_dump_rtp(const rtp_header *header);

/* Prints on standard error, the last two lines for a sender report alone:
 *     --- rtcp dump ---
 *     version:%u, p:%u, count:%u, pt:%u, length:%u
 *     ssrc: %u -> pcount %u, ocount %u
 *     ssrc 1: %u -> jitter %u, clost %d, flost: %u */
void rtcp_dump(const rtcp_packet *packet);

/* Opens two UDP sockets, both non-blocking, on every local IPv4 address and two consecutive ports:
 * the first pair of 12000/12001, 12002/12003, ... 65534/65535 that can be had. Returns 0 with the
 * ports and the descriptors, which the caller closes.
 *
 * Returns -1 with both descriptors closed and not stored, and the ports last tried: no pair is free
 * (nothing is printed), or a socket cannot be made, which prints
 * "./network/protocols/rtp/rtp:rtp_create_socket_pair: socket(): <text of errno>" on standard
 * error. */
int rtp_create_socket_pair(int *rtp_fd, int *rtcp_fd, unsigned short *rtp_port,
                           unsigned short *rtcp_port);

ZT_END_DECLS

#endif
