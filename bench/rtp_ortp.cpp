#include <bench/rtp_ortp.hpp>

#include <ortp/ortp.h>

#include <cstring>

#include <arpa/inet.h>

namespace zt_bench {

namespace {

RtpSession* session() {
    static RtpSession* const only = [] {
        ortp_init();
        RtpSession* const made = rtp_session_new(RTP_SESSION_SENDRECV);
        rtp_session_set_payload_type(made, 8);
        return made;
    }();
    return only;
}

void free_nothing(void*) {}

// What oRTP writes into each packet as it sends it.
void number(mblk_t* message, size_t size) {
    static uint16_t sequence = 0;
    static uint32_t timestamp = 0;
    rtp_set_seqnumber(message, htons(sequence));
    rtp_set_timestamp(message, htonl(timestamp));
    rtp_set_ssrc(message, htonl(rtp_get_ssrc(message)));
    sequence++;
    timestamp += static_cast<uint32_t>(size);
}

size_t take_payload(mblk_t* message, uint8_t* out) {
    unsigned char* payload = nullptr;
    const int size = rtp_get_payload(message, &payload);
    if (size <= 0) return 0;
    memcpy(out, payload, static_cast<size_t>(size));
    return static_cast<size_t>(size);
}

mblk_t* around(uint8_t* packet, size_t size) {
    mblk_t* const message = esballoc(packet, size, 0, free_nothing);
    message->b_wptr += size;
    return message;
}

}  // namespace

void ortp_build(const uint8_t* payload, size_t size, uint8_t* out) {
    mblk_t* const message =
        rtp_session_create_packet(session(), RTP_FIXED_HEADER_SIZE, payload, size);
    number(message, size);
    if (out) memcpy(out, message->b_rptr, msgdsize(message));
    freemsg(message);
}

void ortp_build_in_place(const uint8_t* payload, size_t size, uint8_t* packet) {
    memcpy(packet + RTP_FIXED_HEADER_SIZE, payload, size);
    mblk_t* const message = rtp_session_create_packet_in_place(
        session(), packet, RTP_FIXED_HEADER_SIZE + size, free_nothing);
    number(message, size);
    freemsg(message);
}

size_t ortp_read(const uint8_t* packet, size_t size, uint8_t* out) {
    mblk_t* const message = rtp_session_create_packet_raw(packet, size);
    const size_t taken = take_payload(message, out);
    freemsg(message);
    return taken;
}

size_t ortp_read_in_place(uint8_t* packet, size_t size, uint8_t* out) {
    mblk_t* const message = around(packet, size);
    const size_t taken = take_payload(message, out);
    freemsg(message);
    return taken;
}

OrtpMessage::OrtpMessage(const uint8_t* packet, size_t size)
    : message_(rtp_session_create_packet_raw(packet, size)) {}
OrtpMessage::~OrtpMessage() { freemsg(static_cast<mblk_t*>(message_)); }
size_t OrtpMessage::read(uint8_t* out) const {
    return take_payload(static_cast<mblk_t*>(message_), out);
}

}  // namespace zt_bench
