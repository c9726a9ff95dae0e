// Long queues: answers that are queued at once and then sent, and a backlog of requests of which
// each further chunk takes one. The time per byte must not grow with the queue.
//
// Both sides send the same pieces of 1,460 bytes, and take the same frames with the same parser:
// what differs is the buffer in between. The sockets are a pair inside this process; filling is not
// timed.

#include <benchmark/benchmark.h>

#include <ztlib/pools/threadpool/protocols/simple_xml.h>
#include <ztlib/utils/converters.h>

#ifdef HAVE_LIBEVENT
#    include <event2/buffer.h>
#endif

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using benchmark::State;
using Clock = std::chrono::steady_clock;

constexpr size_t kMiB = 1 << 20;
constexpr size_t kPiece = 1460;
constexpr size_t kLengthBytes = 4;

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "%s\n", what);
    exit(1);
}

struct SocketPair {
    int ours;
    int peer;
    explicit SocketPair(int type) {
        int ends[2];
        if (socketpair(AF_UNIX, type, 0, ends) != 0) fail("socketpair");
        ours = ends[0];
        peer = ends[1];
    }
    ~SocketPair() {
        close(ours);
        close(peer);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
};

std::string frame_of(size_t length) {
    const std::string text = "<a>" + std::string(length - kLengthBytes - 7, 'x') + "</a>";
    char field[kLengthBytes];
    be_uint322byte(static_cast<uint32_t>(length), field);
    return std::string(field, kLengthBytes) + text;
}

std::string frames_of(size_t length, size_t total) {
    const std::string frame = frame_of(length);
    std::string frames;
    while (frames.size() < total) frames += frame;
    return frames;
}

// A connection of ours whose routines run where they are called.
class Connection {
  public:
    Connection(int socket, simple_xml_callback callback, void* context)
        : pool_(netthreadpool_create()),
          proto_(
              simple_xml_proto_create(netthreadpool_get_node(pool_), context, socket, callback)) {
        if (!proto_) fail("simple_xml_proto_create");
    }
    ~Connection() {
        simple_xml_proto_destroy(proto_);
        free(proto_);
        netthreadpool_free(pool_, 1);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    simple_xml_proto* operator->() const { return proto_; }
    simple_xml_proto* get() const { return proto_; }

  private:
    netthreadpool* pool_;
    simple_xml_proto* proto_;
};

int no_callback(void*, xmldoc*) { return 0; }

// --- answers that wait to be sent ----------------------------------------------------------------

// Queue and send; the work of one engine.
struct OurOutput {
    Connection connection;
    explicit OurOutput(int socket) : connection(socket, no_callback, nullptr) {}
    void fill(const std::string& frames) {
        net_buffer_add(&connection->output_buffer, frames.data(),
                       static_cast<unsigned>(frames.size()));
    }
    void send() { simple_xml_routine_node_pf_write(connection.get()); }
};

#ifdef HAVE_LIBEVENT
struct LibeventOutput {
    int socket;
    evbuffer* queued = evbuffer_new();
    explicit LibeventOutput(int s) : socket(s) {}
    ~LibeventOutput() { evbuffer_free(queued); }
    LibeventOutput(const LibeventOutput&) = delete;
    LibeventOutput& operator=(const LibeventOutput&) = delete;
    void fill(const std::string& frames) { evbuffer_add(queued, frames.data(), frames.size()); }
    void send() {
        while (evbuffer_get_length(queued) > 0)
            if (evbuffer_write_atmost(queued, socket, kPiece) < 1) fail("evbuffer_write_atmost");
    }
};
#endif

template <class Output>
double send_all(const std::string& frames, bool check) {
    SocketPair sockets(SOCK_STREAM);
    Output output(sockets.ours);
    output.fill(frames);
    std::string received;
    std::thread peer([&] {
        std::string chunk(1 << 16, '\0');
        ssize_t n;
        while ((n = recv(sockets.peer, chunk.data(), chunk.size(), 0)) > 0)
            if (check) received.append(chunk.data(), static_cast<size_t>(n));
    });
    const auto start = Clock::now();
    output.send();
    const std::chrono::duration<double> seconds = Clock::now() - start;
    shutdown(sockets.ours, SHUT_WR);
    peer.join();
    if (check && received != frames) fail("not what was queued");
    return seconds.count();
}

// --- requests that wait to be taken --------------------------------------------------------------

// One byte a packet, so that each is a chunk of its own; together the start of a long frame.
void feed(int socket, size_t chunks) {
    const std::string start("\0\xff\xff\xff", kLengthBytes);
    for (size_t i = 0; i < chunks; ++i)
        if (send(socket, i < kLengthBytes ? &start[i] : "x", 1, 0) != 1) fail("send");
    shutdown(socket, SHUT_WR);
}

int count_request(void* context, xmldoc*) {
    ++*static_cast<size_t*>(context);
    return 0;
}

struct OurInput {
    size_t requests = 0;
    Connection connection;
    explicit OurInput(int socket) : connection(socket, count_request, &requests) {}
    void fill(const std::string& frames) {
        net_buffer_add(&connection->input_buffer, frames.data(),
                       static_cast<unsigned>(frames.size()));
    }
    void receive() { simple_xml_routine_node_pf_read(connection.get()); }
};

#ifdef HAVE_LIBEVENT
struct LibeventInput {
    size_t requests = 0;
    int socket;
    evbuffer* held = evbuffer_new();
    explicit LibeventInput(int s) : socket(s) {}
    ~LibeventInput() { evbuffer_free(held); }
    LibeventInput(const LibeventInput&) = delete;
    LibeventInput& operator=(const LibeventInput&) = delete;
    void fill(const std::string& frames) { evbuffer_add(held, frames.data(), frames.size()); }
    void receive() {
        char chunk[1600];
        ssize_t n;
        while ((n = recv(socket, chunk, sizeof(chunk), 0)) > 0) {
            evbuffer_add(held, chunk, static_cast<size_t>(n));
            char field[kLengthBytes];
            if (evbuffer_copyout(held, field, kLengthBytes) != kLengthBytes) continue;
            const uint32_t length = be_byte2uint32(field, 0);
            if (evbuffer_get_length(held) >= length) take(length);
        }
    }
    void take(uint32_t length) {
        auto* payload = static_cast<char*>(malloc(length - kLengthBytes + 1));
        evbuffer_drain(held, kLengthBytes);
        evbuffer_remove(held, payload, length - kLengthBytes);
        payload[length - kLengthBytes] = '\0';
        xmldoc document;
        xmldoc_init(&document);
        if (xmldoc_parse(&document, payload) == 0) count_request(&requests, &document);
        xmldoc_free(&document, 0);
        free(payload);
    }
};
#endif

template <class Input>
double receive_all(const std::string& frames, size_t count, bool check) {
    SocketPair sockets(SOCK_SEQPACKET);
    Input input(sockets.ours);
    input.fill(frames);
    std::thread peer([&] { feed(sockets.peer, count); });
    const auto start = Clock::now();
    input.receive();
    const std::chrono::duration<double> seconds = Clock::now() - start;
    peer.join();
    if (check && input.requests != count) fail("not as many requests as were sent");
    return seconds.count();
}

// --- the entries ---------------------------------------------------------------------------------

constexpr size_t kAnswer = 1 << 16;
constexpr size_t kRequest = 4096;

template <class Output>
void add_output(size_t mib, const char* engine) {
    const std::string name = "drain, " + std::to_string(mib) + " MiB of answers/" + engine;
    benchmark::RegisterBenchmark(name.c_str(), [mib](State& state) {
        const std::string frames = frames_of(kAnswer, mib * kMiB);
        send_all<Output>(frames, true);
        for (auto _ : state) state.SetIterationTime(send_all<Output>(frames, false));
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frames.size()));
    })->UseManualTime();
}

template <class Input>
void add_input(size_t mib, const char* engine) {
    const std::string name = "drain, " + std::to_string(mib) + " MiB of requests/" + engine;
    benchmark::RegisterBenchmark(name.c_str(), [mib](State& state) {
        const std::string frames = frames_of(kRequest, mib * kMiB);
        const size_t count = frames.size() / kRequest;
        receive_all<Input>(frames, count, true);
        for (auto _ : state) state.SetIterationTime(receive_all<Input>(frames, count, false));
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(frames.size()));
    })->UseManualTime();
}

const bool registered = [] {
    for (const size_t mib : {1, 8, 64}) {
        add_output<OurOutput>(mib, "ztlib");
#ifdef HAVE_LIBEVENT
        add_output<LibeventOutput>(mib, "libevent");
#endif
    }
    // A backlog of more than 16 MiB ends the connection.
    for (const size_t mib : {1, 4, 15}) {
        add_input<OurInput>(mib, "ztlib");
#ifdef HAVE_LIBEVENT
        add_input<LibeventInput>(mib, "libevent");
#endif
    }
    return true;
}();

}  // namespace
