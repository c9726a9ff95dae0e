// A frame is written by one of two sinks, a net buffer or a socket, and read by one of two readers,
// the node's read routine and the plain-socket receive.
//
// The read routine and the write routine of a connection run on two threads at once and share
// nothing but the record: the input buffer is the reader's, the output buffer the writer's and the
// senders'. Each buffer's mutex is held for single steps only, never during a send, a receive or
// the callback.
//
// Both routines count what they have taken from the front of their buffer and drop it in one go
// once it makes up half of what is there: a long backlog is moved a bounded number of times per
// byte, whatever its length.
//
//     input   | consumed | frame | frame | part of a fra|
//     output  |   sent    | piece | not sent yet        |

#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/base/sigpipe.h>
#include <ztlib/buffers/buffer.h>
#include <ztlib/utils/converters.h>
#include <ztlib/pools/threadpool/netthreadpool_private.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/socket.h>

namespace {

using zt::Lock;
using zt::Site;

constexpr const char* kModule = "./pools/threadpool/protocols/simple_xml";

constexpr unsigned kLengthBytes = 4;
constexpr unsigned kReadable = 5;  // bytes held before the read routine looks at a length
constexpr unsigned kServerChunk = 1600;
constexpr unsigned kClientChunk = 1500;
constexpr unsigned kPiece = 1460;  // bytes in one send
constexpr unsigned kMaxBacklog = SIMPLE_XML_MAX_FRAME + kServerChunk;
constexpr int kMemoryIsOut = -32;  // of xmldoc_parse()

// --- writing frames ------------------------------------------------------------------------------

// A byte buffer of a function's own.
struct Bytes {
    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;

    Bytes() = default;
    ~Bytes() { free(data); }
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
};

struct LengthField {
    unsigned char bytes[kLengthBytes];
    explicit LengthField(unsigned payload) { be_uint322byte(payload + kLengthBytes, bytes); }
};

// Writes the payload: nothing for a document without a root.
bool render(const xmldoc& document, Bytes& text) {
    return !document.root ||
           xmldoc_save(&document, document.root, &text.data, &text.capacity, &text.length) == 0;
}

// Appends length and payload with no other sender's bytes in between: both, or nothing.
bool append_frame(net_buffer& sink, const Bytes& payload) {
    const LengthField length(payload.length);
    const bool begun = net_buffer_begin_add(&sink, length.bytes, kLengthBytes) == 0;
    if (begun && _net_buffer_make_room(&sink, payload.length) == 0)
        return net_buffer_end_add(&sink, payload.data, payload.length) == 0;

    if (begun) sink.length -= kLengthBytes;
    net_buffer_end_add(&sink, nullptr, 0);
    return false;
}

ssize_t send_some(int socket, const char* bytes, unsigned n) {
    ssize_t sent;
    do sent = send(socket, bytes, n, 0);
    while (sent < 0 && errno == EINTR);
    return sent;
}

bool send_all(int socket, const void* source, unsigned n) {
    const auto* bytes = static_cast<const char*>(source);
    while (n > 0) {
        const ssize_t sent = send_some(socket, bytes, std::min(n, kPiece));
        if (sent < 1) return false;
        bytes += sent;
        n -= static_cast<unsigned>(sent);
    }
    return true;
}

// --- reading frames ------------------------------------------------------------------------------

ssize_t receive(int socket, char* chunk, unsigned n) {
    ssize_t received;
    do received = recv(socket, chunk, n, 0);
    while (received < 0 && errno == EINTR);
    return received;
}

// A length out of bounds is printed.
bool is_frame_length(unsigned length, Site here) {
    if (length >= kLengthBytes && length <= SIMPLE_XML_MAX_FRAME) return true;
    fprintf(stderr, "%s:%s: frame length %u is out of bounds (%u to %u)\n", here.module,
            here.function, length, kLengthBytes, unsigned{SIMPLE_XML_MAX_FRAME});
    return false;
}

// Ends a text inside a buffer while it is looked at. The buffer has a byte behind its last.
class EndedAt {
  public:
    explicit EndedAt(char* end) : end_(end), byte_(*end) { *end_ = '\0'; }
    ~EndedAt() { *end_ = byte_; }
    EndedAt(const EndedAt&) = delete;
    EndedAt& operator=(const EndedAt&) = delete;

  private:
    char* end_;
    char byte_;
};

// Drops the first `count` bytes once they are at least half of all, so that no more bytes move than
// go. The caller holds the buffer's mutex. (A host that reset the buffer has dropped them already.)
void drop_front(net_buffer& queued, unsigned& count) {
    count = std::min(count, queued.length);
    if (count == 0 || count < queued.length - count) return;
    _net_buffer_remove(&queued, count);
    count = 0;
}

// The read routine at work.
class Reader {
  public:
    Reader(simple_xml_proto& connection, Site here)
        : connection_(connection), input_(connection.input_buffer), here_(here) {}

    // Leaves what was not consumed at the front.
    ~Reader() {
        Lock lock(input_.mutex, here_);
        if (consumed_ > 0) _net_buffer_remove(&input_, consumed_);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // Until the connection ends. The routine's result.
    int run() {
        char chunk[kServerChunk];
        for (;;) {
            const ssize_t received = receive(connection_.socket, chunk, kServerChunk);
            if (received < 1 || !take_in(chunk, static_cast<unsigned>(received))) return -1;
            switch (take_frame()) {
                case Taken::nothing:
                    break;
                case Taken::broken:
                    return -1;
                case Taken::document:
                    if (const int result = handle()) return result < 1 ? -1 : 0;
            }
        }
    }

  private:
    enum class Taken { nothing, document, broken };

    // False when the backlog is at its bound or memory is out.
    bool take_in(const char* chunk, unsigned n) {
        consumed_ = std::min(consumed_, input_.length);  // the callback may have reset it
        if (held() + n > kMaxBacklog) {
            fprintf(stderr, "%s:%s: more than %u bytes wait to be read\n", here_.module,
                    here_.function, kMaxBacklog);
            return false;
        }
        return net_buffer_add(&input_, chunk, n) == 0;
    }

    // Parses the frame at the front, where it is whole.
    Taken take_frame() {
        Lock lock(input_.mutex, here_);
        if (held() < kReadable) return Taken::nothing;

        char* const frame = input_.data + consumed_;
        const unsigned length = be_byte2uint32(frame, 0);
        if (!is_frame_length(length, here_)) return Taken::broken;
        if (held() < length) {
            fprintf(stderr, "READ wait for %u bytes so far %u\n", length, held());
            return Taken::nothing;
        }
        const bool parsed = parse(frame + kLengthBytes, frame + length);
        consumed_ += length;
        drop_front(input_, consumed_);
        return parsed ? Taken::document : Taken::nothing;
    }

    // Into document_. What does not parse is printed and forgotten.
    bool parse(const char* payload, char* end) {
        const EndedAt payload_end(end);
        xmldoc_init(&document_);
        const int code = xmldoc_parse(&document_, payload);
        if (code == 0) return true;

        fprintf(stderr, "failed parse xml %d !!!!!!!!!!!!!!!!!\n-------------------\n%s\n-----\n",
                code, payload);
        xmldoc_free(&document_, 0);
        return false;
    }

    // Calls the callback. A result other than 0 leaves it the document's nodes.
    int handle() {
        const int result = connection_.callback(connection_.user_context, &document_);
        if (result != 0)
            fprintf(stderr, "ERROR processing_xml : %d\n", result);
        else
            xmldoc_free(&document_, 0);
        return result;
    }

    unsigned held() const { return input_.length - consumed_; }

    simple_xml_proto& connection_;
    net_buffer& input_;
    Site here_;
    unsigned consumed_ = 0;
    xmldoc document_;
};

// The write routine at work.
class Writer {
  public:
    Writer(simple_xml_proto& connection, Site here)
        : socket_(connection.socket), output_(connection.output_buffer), here_(here) {}

    // Leaves what was not sent at the front.
    ~Writer() {
        if (sent_ == 0) return;
        Lock lock(output_.mutex, here_);
        _net_buffer_remove(&output_, sent_);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Until nothing is left. The routine's result.
    int run() {
        char piece[kPiece];
        while (const unsigned n = next_piece(piece)) {
            const ssize_t sent = send_some(socket_, piece, n);
            if (sent < 1) return sent < 0 ? -1 : 0;
            sent_ += static_cast<unsigned>(sent);
        }
        return 0;
    }

  private:
    // Copies what is to be sent next; returns how many bytes.
    unsigned next_piece(char* piece) {
        Lock lock(output_.mutex, here_);
        drop_front(output_, sent_);
        const unsigned n = std::min(output_.length - sent_, kPiece);
        memcpy(piece, output_.data + sent_, n);
        return n;
    }

    int socket_;
    net_buffer& output_;
    Site here_;
    unsigned sent_ = 0;
};

// The client's document. The result of simple_xml_proto_sock_recv().
int parse_received(const char* text, xmldoc** out) {
    xmldoc* const document = xmldoc_create();
    if (!document) return -1;

    const int code = xmldoc_parse(document, text);
    if (code == 0) {
        *out = document;
        return 0;
    }
    if (code != kMemoryIsOut) *out = document;
    xmldoc_free(document, 1);
    return code == kMemoryIsOut ? -1 : -2;
}

bool init_buffers(simple_xml_proto& connection) {
    if (net_buffer_init(&connection.input_buffer, 0) != 0) return false;
    if (net_buffer_init(&connection.output_buffer, 1) == 0) return true;
    net_buffer_free(&connection.input_buffer, 0);
    return false;
}

void attach(netthreadpool_node& node, simple_xml_proto& connection, Site here) {
    Lock lock(node.mutex, here);
    node.user_pointer = &connection;
    node.read_routine = simple_xml_routine_node_pf_read;
    node.write_routine = simple_xml_routine_node_pf_write;
}

}  // namespace

extern "C" simple_xml_proto* simple_xml_proto_create(netthreadpool_node* node, void* user_context,
                                                     int socket, simple_xml_callback callback) {
    const Site here{kModule, __func__};
    if (!node || !callback) return nullptr;

    zt::Owned<simple_xml_proto> connection(zt::allocate_zeroed<simple_xml_proto>());
    if (!connection) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (!init_buffers(*connection)) return nullptr;
    connection->socket = socket;
    connection->node = node;
    connection->user_context = user_context;
    connection->callback = callback;
    attach(*node, *connection, here);
    return connection.release();
}

extern "C" void simple_xml_proto_destroy(simple_xml_proto* connection) {
    if (!connection) return;
    net_buffer_free(&connection->input_buffer, 0);
    net_buffer_free(&connection->output_buffer, 0);
}

extern "C" int simple_xml_proto_send(simple_xml_proto* connection, xmldoc* document) {
    if (!connection) return -1;
    if (simple_xml_proto_netbuff_send(&connection->output_buffer, document) != 0) return -1;
    zt::invite_to_send(*connection->node, connection);
    return 0;
}

extern "C" int simple_xml_proto_netbuff_send(net_buffer* sink, xmldoc* document) {
    if (!sink || !document) return -1;
    Bytes payload;
    return render(*document, payload) && append_frame(*sink, payload) ? 0 : -1;
}

extern "C" int simple_xml_proto_sock_send(int socket, xmldoc* document) {
    if (!document) return -1;
    Bytes payload;
    if (!render(*document, payload)) return -1;

    const zt::SigpipeBlocked blocked;
    const LengthField length(payload.length);
    return send_all(socket, length.bytes, kLengthBytes) &&
                   send_all(socket, payload.data, payload.length)
               ? 0
               : -1;
}

extern "C" int simple_xml_proto_sock_recv(int socket, xmldoc** document) {
    const Site here{kModule, __func__};
    if (!document) return -1;

    Bytes held;
    char chunk[kClientChunk];
    for (;;) {
        const ssize_t received = receive(socket, chunk, kClientChunk);
        if (received < 1) return received < 0 ? -1 : 0;
        if (!buffer_append(&held.data, &held.capacity, &held.length, chunk,
                           static_cast<int>(received)))
            return -1;
        if (held.length < kLengthBytes) continue;

        const unsigned length = be_byte2uint32(held.data, 0);
        if (!is_frame_length(length, here)) return -1;
        if (held.length >= length) return parse_received(held.data + kLengthBytes, document);
    }
}

extern "C" int simple_xml_routine_node_pf_read(void* connection) {
    if (!connection) return -1;
    return Reader(*static_cast<simple_xml_proto*>(connection), {kModule, __func__}).run();
}

extern "C" int simple_xml_routine_node_pf_write(void* connection) {
    if (!connection) return -1;
    return Writer(*static_cast<simple_xml_proto*>(connection), {kModule, __func__}).run();
}
