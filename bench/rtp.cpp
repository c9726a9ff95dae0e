// RTP packets of 160 bytes, 20 ms of A-law: a packet built around a payload, and the payload taken
// out of a packet. memcpy() of the packet is the limit.
//
// oRTP has its packets in messages that it allocates, with the bytes in the message or around bytes
// of the caller's. Reading here keeps the jitter, so it looks at the clock; oRTP does that in its
// session, with much else. "shown:parse_alone" is oRTP's payload function and a copy, on a message
// that is there already.

#include <ztlib/network/protocols/rtp/rtp.h>

#include <benchmark/benchmark.h>

#ifdef HAVE_ORTP
#    include <bench/rtp_ortp.hpp>
#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/time.h>

namespace {

constexpr size_t kPayload = 160;
constexpr size_t kPacket = kPayload + RTP_HEADER_BYTES;

void require(bool condition, const char* what) {
    if (condition) return;
    fprintf(stdout, "bench: wrong answer: %s\n", what);
    exit(1);
}

// The bytes of a job: what is built from and into, or read from and into.
struct Bytes {
    Bytes() {
        for (size_t i = 0; i < kPayload; i++) payload[i] = static_cast<uint8_t>(i * 7 + 1);
        rtp_session session{};
        unsigned size = 0;
        rtp_unwrap(&session, payload, kPayload, packet, &size);
    }
    alignas(64) uint8_t payload[kPayload];
    alignas(64) uint8_t packet[kPacket];
    alignas(64) uint8_t out[kPacket] = {};
};

// Times build(payload, size, packet) once it was seen to build a packet of version 2, payload type
// 8 with this payload.
template <class Build>
void run_build(benchmark::State& state, const char* engine, Build build) {
    Bytes bytes;
    build(bytes.payload, kPayload, bytes.out);
    require(bytes.out[0] == 0x80 && bytes.out[1] == 8 &&
                memcmp(bytes.out + RTP_HEADER_BYTES, bytes.payload, kPayload) == 0,
            engine);
    for (auto _ : state) {
        build(bytes.payload, kPayload, bytes.out);
        benchmark::ClobberMemory();
    }
}

// Times read(packet, size, out), which returns the size of the payload.
template <class Read>
void run_read(benchmark::State& state, const char* engine, Read read) {
    Bytes bytes;
    require(read(bytes.packet, kPacket, bytes.out) == kPayload &&
                memcmp(bytes.out, bytes.payload, kPayload) == 0,
            engine);
    for (auto _ : state) {
        benchmark::DoNotOptimize(read(bytes.packet, kPacket, bytes.out));
        benchmark::ClobberMemory();
    }
}

void build_ztlib(benchmark::State& state) {
    rtp_session session{};
    run_build(state, "ztlib", [&](const uint8_t* payload, size_t size, uint8_t* packet) {
        unsigned length = 0;
        rtp_unwrap(&session, payload, static_cast<int>(size), packet, &length);
    });
}

void read_ztlib(benchmark::State& state) {
    rtp_session session{};
    run_read(state, "ztlib", [&](const uint8_t* packet, size_t size, uint8_t* out) {
        unsigned length = 0;
        rtp_wrap(&session, packet, static_cast<unsigned>(size), out, &length);
        return size_t{length};
    });
}

void copy_packet(benchmark::State& state) {
    Bytes bytes;
    size_t size = kPacket;
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        memcpy(bytes.out, bytes.packet, size);
        benchmark::ClobberMemory();
    }
}

void copy_packet_at_a_time(benchmark::State& state) {
    Bytes bytes;
    size_t size = kPacket;
    timeval now;
    for (auto _ : state) {
        benchmark::DoNotOptimize(size);
        gettimeofday(&now, nullptr);
        memcpy(bytes.out, bytes.packet, size);
        benchmark::ClobberMemory();
    }
}

BENCHMARK(build_ztlib)->Name("rtp/build/ztlib");
BENCHMARK(copy_packet)->Name("rtp/build/limit:memcpy");
BENCHMARK(read_ztlib)->Name("rtp/read/ztlib");
BENCHMARK(copy_packet)->Name("rtp/read/limit:memcpy");
BENCHMARK(copy_packet_at_a_time)->Name("rtp/read/limit:memcpy_and_clock");

#ifdef HAVE_ORTP
void build_ortp(benchmark::State& state) {
    bool checked = false;
    run_build(state, "oRTP", [&](const uint8_t* payload, size_t size, uint8_t* packet) {
        zt_bench::ortp_build(payload, size, checked ? nullptr : packet);
        checked = true;
    });
}

void build_ortp_in_place(benchmark::State& state) {
    run_build(state, "oRTP in place", zt_bench::ortp_build_in_place);
}

void read_ortp(benchmark::State& state) { run_read(state, "oRTP", zt_bench::ortp_read); }

void read_ortp_in_place(benchmark::State& state) {
    run_read(state, "oRTP in place", zt_bench::ortp_read_in_place);
}

void read_ortp_alone(benchmark::State& state) {
    const zt_bench::OrtpMessage message(Bytes().packet, kPacket);
    run_read(state, "oRTP alone",
             [&](const uint8_t*, size_t, uint8_t* out) { return message.read(out); });
}

BENCHMARK(build_ortp)->Name("rtp/build/oRTP");
BENCHMARK(build_ortp_in_place)->Name("rtp/build/oRTP_in_place");
BENCHMARK(read_ortp)->Name("rtp/read/oRTP");
BENCHMARK(read_ortp_in_place)->Name("rtp/read/oRTP_in_place");
BENCHMARK(read_ortp_alone)->Name("rtp/read/shown:parse_alone");
#endif

}  // namespace
