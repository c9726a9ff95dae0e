// WebSocket frames of 125 B, 4 KiB and 64 KiB: a masked frame out of the bytes that came, a text
// frame into the bytes to send. Every engine ends with the payload, or the frame, in memory of the
// caller's; wslay's callbacks copy from and to it.

#include <ztlib/network/websocket.h>

#include <benchmark/benchmark.h>

#ifdef HAVE_BEAST
#    include <boost/beast/core/flat_static_buffer.hpp>
#    include <boost/beast/websocket/detail/frame.hpp>
#    include <boost/beast/websocket/detail/mask.hpp>
#endif
#ifdef HAVE_WSLAY
#    include <wslay/wslay.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

void require(bool condition, const char* what) {
    if (condition) return;
    fprintf(stdout, "bench: wrong answer: %s\n", what);
    exit(1);
}

constexpr unsigned char kKey[4] = {0x37, 0xfa, 0x21, 0x3d};

struct Sample {
    explicit Sample(size_t size) : payload(size), header(make_header(size)) {
        for (size_t i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>('a' + i % 26);
        frame = header;
        for (size_t i = 0; i < size; ++i) frame.push_back(payload[i] ^ kKey[i % 4]);
    }

    static Bytes make_header(size_t size) {
        Bytes bytes = {0x82};
        if (size <= 125) {
            bytes.push_back(static_cast<unsigned char>(0x80 | size));
        } else {
            const int count = size <= 65535 ? 2 : 8;
            bytes.push_back(count == 2 ? 0x80 | 126 : 0x80 | 127);
            for (int i = count - 1; i >= 0; --i)
                bytes.push_back(static_cast<unsigned char>(uint64_t{size} >> (8 * i)));
        }
        bytes.insert(bytes.end(), kKey, kKey + 4);
        return bytes;
    }

    Bytes payload;
    Bytes header;
    Bytes frame;
};

// Memory whose place within a page is the same in every run: how two blocks lie to each other
// changes what memcpy() takes from 42 ns to 1.1 us for 4 KiB.
class Room {
  public:
    explicit Room(size_t size, size_t in_page = 0)
        : page_(static_cast<unsigned char*>(aligned_alloc(kPage, round_up(size + in_page, kPage)))),
          at_(page_ + in_page) {
        memset(page_, 0, round_up(size + in_page, kPage));
    }
    ~Room() { free(page_); }
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    unsigned char* get() const { return at_; }
    static size_t round_up(size_t size, size_t unit) { return (size + unit - 1) / unit * unit; }

  private:
    static constexpr size_t kPage = 4096;
    unsigned char* page_;
    unsigned char* at_;
};
constexpr size_t kHalfAPage = 2048;

// The same frame several times, so that a round does not read what the one before has just stored.
// Engines that unmask in place mask again each second time they meet a copy.
class Received {
  public:
    explicit Received(const Bytes& frame)
        : stride_(Room::round_up(frame.size(), 64)),
          count_(std::max<size_t>(1, kBytes / stride_)),
          room_(stride_ * count_) {
        for (size_t i = 0; i < count_; ++i)
            memcpy(room_.get() + i * stride_, frame.data(), frame.size());
    }
    unsigned char* next() {
        next_ = next_ + 1 < count_ ? next_ + 1 : 0;
        return room_.get() + next_ * stride_;
    }

  private:
    static constexpr size_t kBytes = 16384;
    size_t stride_;
    size_t count_;
    Room room_;
    size_t next_ = 0;
};

// Times `decode`, which puts the payload of the frame it is given into `out`. No engine: not
// checked.
template <class Decode>
void run_decode(benchmark::State& state, const Sample& sample, const char* engine, Decode decode) {
    Received received(sample.frame);
    const Room out(sample.payload.size() + 1, kHalfAPage);
    decode(received.next(), out.get());
    if (engine)
        require(memcmp(out.get(), sample.payload.data(), sample.payload.size()) == 0, engine);
    for (auto _ : state) {
        decode(received.next(), out.get());
        benchmark::ClobberMemory();
    }
}

void decode_ztlib(benchmark::State& state, const Sample& sample) {
    const int size = static_cast<int>(sample.frame.size());
    run_decode(state, sample, "ztlib", [size](unsigned char* received, unsigned char* out) {
        unsigned length = 0, frame = 0;
        benchmark::DoNotOptimize(websocket_wrap(received, size, out, &length, &frame));
    });
}

void decode_memcpy(benchmark::State& state, const Sample& sample) {
    const size_t header = sample.header.size(), size = sample.payload.size();
    run_decode(state, sample, nullptr, [=](unsigned char* received, unsigned char* out) {
        memcpy(out, received + header, size);
    });
}

#ifdef HAVE_BEAST
namespace beast = boost::beast::websocket::detail;

// Beast has the steps apart: its stream reads the header, masks in place and hands out the bytes.
void decode_beast(benchmark::State& state, const Sample& sample) {
    const size_t header = sample.header.size(), size = sample.payload.size();
    run_decode(state, sample, "beast", [=](unsigned char* received, unsigned char* out) {
        uint32_t word;
        memcpy(&word, received + header - 4, 4);
        beast::prepared_key key;
        beast::prepare_key(key, word);
        beast::mask_inplace(boost::asio::mutable_buffer(received + header, size), key);
        memcpy(out, received + header, size);
    });
}
#endif

#ifdef HAVE_WSLAY
struct WslayEnd {
    const unsigned char* from = nullptr;  // what is still to be received
    size_t left = 0;
    unsigned char* to = nullptr;  // where to send
};

ssize_t wslay_receive(uint8_t* buffer, size_t length, int, void* user) {
    auto& end = *static_cast<WslayEnd*>(user);
    const size_t n = std::min(length, end.left);
    memcpy(buffer, end.from, n);
    end.from += n;
    end.left -= n;
    return n ? static_cast<ssize_t>(n) : -1;
}

ssize_t wslay_send(const uint8_t* data, size_t length, int, void* user) {
    auto& end = *static_cast<WslayEnd*>(user);
    memcpy(end.to, data, length);
    end.to += length;
    return static_cast<ssize_t>(length);
}

class Wslay {
  public:
    Wslay() {
        const wslay_frame_callbacks callbacks = {wslay_send, wslay_receive, nullptr};
        require(wslay_frame_context_init(&context, &callbacks, &end) == 0, "wslay");
    }
    ~Wslay() { wslay_frame_context_free(context); }

    WslayEnd end;
    wslay_frame_context_ptr context;
};

void decode_wslay(benchmark::State& state, const Sample& sample) {
    Wslay wslay;
    const size_t size = sample.payload.size();
    run_decode(state, sample, "wslay", [&](unsigned char* received, unsigned char* out) {
        wslay.end = {received, sample.frame.size(), nullptr};
        for (size_t have = 0; have < size;) {
            wslay_frame_iocb piece;
            const ssize_t n = wslay_frame_recv(wslay.context, &piece);
            require(n > 0, "wslay");
            memcpy(out + have, piece.data, piece.data_length);
            have += piece.data_length;
        }
    });
}
#endif

// Times `encode`, which puts a frame into `out` and returns its size. No engine: not checked.
template <class Encode>
void run_encode(benchmark::State& state, const Sample& sample, const char* engine, Encode encode) {
    const size_t size = sample.payload.size();
    const Room payload(size), out(size + 16, kHalfAPage);
    memcpy(payload.get(), sample.payload.data(), size);
    const size_t frame = encode(payload.get(), size, out.get());
    if (engine)
        require(out.get()[0] == 0x81 &&
                    memcmp(out.get() + frame - size, sample.payload.data(), size) == 0,
                engine);
    for (auto _ : state) {
        benchmark::DoNotOptimize(encode(payload.get(), size, out.get()));
        benchmark::ClobberMemory();
    }
}

void encode_ztlib(benchmark::State& state, const Sample& sample) {
    run_encode(state, sample, "ztlib",
               [](const unsigned char* payload, size_t size, unsigned char* out) {
                   unsigned length = 0;
                   websocket_unwrap(payload, static_cast<int>(size), out, &length);
                   return size_t{length};
               });
}

void encode_memcpy(benchmark::State& state, const Sample& sample) {
    run_encode(state, sample, nullptr,
               [](const unsigned char* payload, size_t size, unsigned char* out) {
                   memcpy(out + 4, payload, size);
                   return size + 4;
               });
}

#ifdef HAVE_BEAST
void encode_beast(benchmark::State& state, const Sample& sample) {
    run_encode(state, sample, "beast",
               [](const unsigned char* payload, size_t size, unsigned char* out) {
                   beast::frame_header header{};
                   header.len = size;
                   header.op = beast::opcode::text;
                   header.fin = true;
                   beast::fh_buffer bytes;
                   beast::write<boost::beast::flat_static_buffer_base>(bytes, header);
                   memcpy(out, bytes.data().data(), bytes.size());
                   memcpy(out + bytes.size(), payload, size);
                   return bytes.size() + size;
               });
}
#endif

#ifdef HAVE_WSLAY
void encode_wslay(benchmark::State& state, const Sample& sample) {
    Wslay wslay;
    run_encode(
        state, sample, "wslay", [&](const unsigned char* payload, size_t size, unsigned char* out) {
            wslay.end = {nullptr, 0, out};
            wslay_frame_iocb frame{};
            frame.fin = 1;
            frame.opcode = WSLAY_TEXT_FRAME;
            frame.payload_length = size;
            frame.data = payload;
            frame.data_length = size;
            require(wslay_frame_send(wslay.context, &frame) == static_cast<ssize_t>(size), "wslay");
            return static_cast<size_t>(wslay.end.to - out);
        });
}
#endif

void add(const std::string& name, void (*run)(benchmark::State&, const Sample&),
         const Sample& sample) {
    benchmark::RegisterBenchmark(name.c_str(), [&sample, run](benchmark::State& state) {
        run(state, sample);
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sample.payload.size()));
    });
}

const bool registered = [] {
    static const Sample samples[] = {Sample(125), Sample(4096), Sample(65536)};
    const char* const names[] = {"125B", "4KiB", "64KiB"};
    for (size_t i = 0; i < std::size(samples); ++i) {
        const std::string decode = std::string("websocket_decode/") + names[i];
        const std::string encode = std::string("websocket_encode/") + names[i];
        add(decode + "/ztlib", decode_ztlib, samples[i]);
        add(encode + "/ztlib", encode_ztlib, samples[i]);
#ifdef HAVE_BEAST
        add(decode + "/beast", decode_beast, samples[i]);
        add(encode + "/beast", encode_beast, samples[i]);
#endif
#ifdef HAVE_WSLAY
        add(decode + "/wslay", decode_wslay, samples[i]);
        add(encode + "/wslay", encode_wslay, samples[i]);
#endif
        add(decode + "/limit:memcpy", decode_memcpy, samples[i]);
        add(encode + "/limit:memcpy", encode_memcpy, samples[i]);
    }
    return true;
}();

}  // namespace
