#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct SocketPair {
    int ours = -1;  // the library's end
    int peer = -1;  // the test's end
    SocketPair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
        ours = ends[0];
        peer = ends[1];
    }
    ~SocketPair() {
        close_ours();
        close_peer();
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    void close_ours() { close_end(ours); }
    void close_peer() { close_end(peer); }

  private:
    static void close_end(int& end) {
        if (end >= 0) close(end);
        end = -1;
    }
};

struct FreeDocument {
    void operator()(xmldoc* document) const { xmldoc_free(document, 1); }
};
using Document = std::unique_ptr<xmldoc, FreeDocument>;

// <name>value</name>, without a declaration.
Document element(const char* name, const std::string& value) {
    Document document(xmldoc_create());
    document->root = xmldoc_node_create(name);
    document->root->value = strdup(value.c_str());
    return document;
}

std::string length_field(uint32_t length) {
    return {static_cast<char>(length >> 24), static_cast<char>(length >> 16),
            static_cast<char>(length >> 8), static_cast<char>(length)};
}

std::string frame(const std::string& payload) {
    return length_field(static_cast<uint32_t>(payload.size()) + 4) + payload;
}

void write_all(int socket, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(socket, bytes.data() + done, bytes.size() - done);
        if (n < 1) return;
        done += static_cast<size_t>(n);
    }
}

std::string read_exactly(int socket, size_t count) {
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count) {
        const ssize_t n = read(socket, bytes.data() + done, count - done);
        if (n < 1) break;
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}

// What is there now, without waiting.
std::string read_ready(int socket) {
    std::string bytes(1 << 20, '\0');
    const ssize_t n = recv(socket, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return bytes;
}

bool pending_sigpipe() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

std::string of_buffer(const net_buffer& b) { return std::string(b.data, b.length); }

// A connection on a node of a pool that is not started: its routines run where the test calls them.
struct Connection {
    netthreadpool* pool = netthreadpool_create();
    netthreadpool_node* node = netthreadpool_get_node(pool);
    SocketPair sockets;
    simple_xml_proto* proto = nullptr;
    std::function<int(xmldoc*)> on_document = [](xmldoc*) { return 0; };
    std::vector<std::string> values;  // of the documents' roots, "-" where there is none
    std::atomic<size_t> count{0};

    Connection() { proto = simple_xml_proto_create(node, this, sockets.ours, handle); }
    ~Connection() {
        simple_xml_proto_destroy(proto);
        free(proto);
        netthreadpool_free(pool, 1);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    static int handle(void* context, xmldoc* document) {
        auto& self = *static_cast<Connection*>(context);
        const xmldoc_node* root = document->root;
        self.values.push_back(root && root->value ? root->value : "-");
        const int result = self.on_document(document);
        ++self.count;
        return result;
    }

    int read() { return simple_xml_routine_node_pf_read(proto); }
    int write() { return simple_xml_routine_node_pf_write(proto); }

    // Sends the bytes, closes the peer's end and reads until that shows.
    int read_all(const std::string& bytes) {
        write_all(sockets.peer, bytes);
        shutdown(sockets.peer, SHUT_WR);
        return read();
    }
};

// The same with the read routine running on a thread, fed chunk by chunk.
struct ReadingConnection : Connection {
    std::atomic<int> result{99};
    const uint64_t receives_before = calls_of("recv");
    std::thread reader{[this] { result = read(); }};

    ReadingConnection() {
        eventually([&] { return calls_of("recv") > receives_before; });
    }
    ~ReadingConnection() {
        shutdown(sockets.peer, SHUT_WR);
        join();
    }
    // Returns once the routine has received this and waits for more.
    void feed(const std::string& chunk) {
        const uint64_t before = calls_of("recv");
        write_all(sockets.peer, chunk);
        EXPECT_TRUE(eventually([&] { return calls_of("recv") > before; }));
    }
    void join() {
        if (reader.joinable()) reader.join();
    }
};

}  // namespace

// --- the frame -----------------------------------------------------------------------------------

TEST(SimpleXml, FramesAHundredBytesOfTextBehindTheLengthAHundredAndFour) {
    const Document document = element("a", std::string(93, 'x'));
    const std::string text = "<a>" + std::string(93, 'x') + "</a>";
    const std::string expected = std::string("\0\0\0\x68", 4) + text;
    ASSERT_EQ(text.size(), 100u);

    SocketPair sockets;
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(read_ready(sockets.peer), expected);

    net_buffer* sink = net_buffer_create(0);
    EXPECT_EQ(simple_xml_proto_netbuff_send(sink, document.get()), 0);
    EXPECT_EQ(of_buffer(*sink), expected);
    net_buffer_free(sink, 1);
}

TEST(SimpleXml, PutsTheDeclarationInFrontWhenThereIsOne) {
    const Document document(xmldoc_create_def("msg"));
    const std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<msg></msg>";
    SocketPair sockets;
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(read_ready(sockets.peer), frame(text));
}

TEST(SimpleXml, FramesADocumentWithoutARootAsALengthOfFour) {
    const Document document(xmldoc_create());
    SocketPair sockets;
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(read_ready(sockets.peer), std::string("\0\0\0\x04", 4));

    Connection connection;
    EXPECT_EQ(simple_xml_proto_netbuff_send(&connection.proto->output_buffer, document.get()), 0);
    EXPECT_EQ(of_buffer(connection.proto->output_buffer), std::string("\0\0\0\x04", 4));
}

TEST(SimpleXml, NeverDereferencesNull) {
    Connection connection;
    const Document document = element("a", "b");
    xmldoc* out = document.get();
    EXPECT_EQ(simple_xml_proto_create(nullptr, nullptr, 0, Connection::handle), nullptr);
    EXPECT_EQ(simple_xml_proto_create(connection.node, nullptr, 0, nullptr), nullptr);
    simple_xml_proto_destroy(nullptr);
    EXPECT_EQ(simple_xml_proto_send(nullptr, document.get()), -1);
    EXPECT_EQ(simple_xml_proto_send(connection.proto, nullptr), -1);
    EXPECT_EQ(simple_xml_proto_netbuff_send(nullptr, document.get()), -1);
    EXPECT_EQ(simple_xml_proto_netbuff_send(&connection.proto->output_buffer, nullptr), -1);
    EXPECT_EQ(simple_xml_proto_sock_send(connection.sockets.ours, nullptr), -1);
    EXPECT_EQ(simple_xml_proto_sock_recv(connection.sockets.ours, nullptr), -1);
    EXPECT_EQ(simple_xml_routine_node_pf_read(nullptr), -1);
    EXPECT_EQ(simple_xml_routine_node_pf_write(nullptr), -1);
    EXPECT_EQ(out, document.get());
    EXPECT_EQ(connection.proto->output_buffer.length, 0u);
}

// --- the connection ------------------------------------------------------------------------------

TEST(SimpleXml, InstallsItselfOnTheNodeAndLeavesTheReleaseToTheCaller) {
    Connection connection;
    EXPECT_EQ(connection.node->user_pointer, connection.proto);
    EXPECT_EQ(connection.node->read_routine, &simple_xml_routine_node_pf_read);
    EXPECT_EQ(connection.node->write_routine, &simple_xml_routine_node_pf_write);
    EXPECT_EQ(connection.node->release_routine, nullptr);
    EXPECT_EQ(connection.proto->socket, connection.sockets.ours);
    EXPECT_EQ(connection.proto->node, connection.node);
    EXPECT_EQ(connection.proto->user_context, &connection);
    EXPECT_EQ(connection.proto->callback, &Connection::handle);
    EXPECT_EQ(connection.proto->input_buffer.flags & NET_BUFFER_WAITABLE, 0u);
    EXPECT_NE(connection.proto->output_buffer.flags & NET_BUFFER_WAITABLE, 0u);
}

TEST(SimpleXml, IsNotMadeWhenMemoryIsOutAndLeavesTheNodeAsItWas) {
    netthreadpool* pool = netthreadpool_create();
    netthreadpool_node* node = netthreadpool_get_node(pool);
    for_each_failing_allocation(
        [&] {
            node->user_pointer = nullptr;
            simple_xml_proto* made = simple_xml_proto_create(node, nullptr, 3, Connection::handle);
            EXPECT_EQ(node->user_pointer, made);
            return made;
        },
        [](simple_xml_proto* made) {
            simple_xml_proto_destroy(made);
            free(made);
        });
    CapturedLog log;
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(simple_xml_proto_create(node, nullptr, 3, Connection::handle), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:simple_xml:simple_xml_proto_create: calloc(): "
                                         "Cannot allocate memory"));
    netthreadpool_free(pool, 1);
}

// --- plain sockets: send -------------------------------------------------------------------------

TEST(SimpleXml, SendsTheLengthAloneAndThePayloadInPieces) {
    SocketPair sockets;
    const Document document = element("a", std::string(4000, 'x'));
    const uint64_t before = calls_of("send");
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(calls_of("send") - before, 1u + 3u);  // 4007 bytes: 1460, 1460, 1087
    EXPECT_EQ(read_ready(sockets.peer), frame("<a>" + std::string(4000, 'x') + "</a>"));
}

TEST(SimpleXml, GoesOnWhereAShortSendEnded) {
    SocketPair sockets;
    const Document document = element("a", "0123456789");
    FakedCall short_send("send", 5, 1);  // claims five bytes of the payload and sends none
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(read_ready(sockets.peer), length_field(21) + "23456789</a>");
}

TEST(SimpleXml, RetriesAnInterruptedSend) {
    SocketPair sockets;
    const Document document = element("a", "b");
    FailingCall interrupted("send", EINTR, 1);
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), 0);
    EXPECT_EQ(read_ready(sockets.peer), frame("<a>b</a>"));
}

TEST(SimpleXml, ReportsASendThatFailsOrSendsNothing) {
    SocketPair sockets;
    const Document document = element("a", std::string(4000, 'x'));
    for (const uint32_t skip : {0u, 1u, 3u}) {
        {
            FailingCall fault("send", ECONNRESET, skip);
            EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), -1);
            EXPECT_EQ(errno, ECONNRESET);
        }
        FakedCall nothing("send", 0, skip);
        EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), -1);
    }
}

TEST(SimpleXml, OutlivesAPeerThatIsGone) {
    SocketPair sockets;
    sockets.close_peer();
    const Document document = element("a", "b");
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(pending_sigpipe());
}

TEST(SimpleXml, LeavesASignalThatWasPendingBefore) {
    sigset_t sigpipe, before;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    raise(SIGPIPE);

    SocketPair sockets;
    sockets.close_peer();
    const Document document = element("a", "b");
    EXPECT_EQ(simple_xml_proto_sock_send(sockets.ours, document.get()), -1);
    EXPECT_TRUE(pending_sigpipe());

    int signal = 0;
    sigwait(&sigpipe, &signal);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(SimpleXml, SendsNothingWhenMemoryIsOut) {
    const Document document = element("a", std::string(4000, 'x'));
    for (FailingAllocations round; round.next();) {
        SocketPair sockets;
        round.arm();
        const int result = simple_xml_proto_sock_send(sockets.ours, document.get());
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        if (round.hit()) {
            EXPECT_THAT(read_ready(sockets.peer), IsEmpty());
        }
    }
}

// --- plain sockets: receive ----------------------------------------------------------------------

namespace {

struct Received {
    int result = 99;
    xmldoc* document = nullptr;
    std::string value() const { return document->root->value; }
    explicit Received(int socket) { result = simple_xml_proto_sock_recv(socket, &document); }
    ~Received() {
        if (result == 0) xmldoc_free(document, 1);
    }
    Received(const Received&) = delete;
    Received& operator=(const Received&) = delete;
};

Received receive_from(SocketPair& sockets, const std::string& bytes) {
    write_all(sockets.peer, bytes);
    shutdown(sockets.peer, SHUT_WR);
    return Received(sockets.ours);
}

}  // namespace

TEST(SimpleXml, ReceivesWhatItSent) {
    SocketPair sockets;
    const Document document = element("a", std::string(50'000, 'x'));
    std::thread sender([&] { simple_xml_proto_sock_send(sockets.peer, document.get()); });
    const Received received(sockets.ours);
    sender.join();
    ASSERT_EQ(received.result, 0);
    EXPECT_EQ(received.value(), std::string(50'000, 'x'));
}

TEST(SimpleXml, ReceivesAFrameByteByByte) {
    SocketPair sockets;
    std::thread sender([&] {
        for (const char byte : frame("<a>text</a>")) {
            const uint64_t before = calls_of("recv");
            write_all(sockets.peer, std::string(1, byte));
            eventually([&] { return calls_of("recv") > before; }, std::chrono::milliseconds(50));
        }
    });
    const Received received(sockets.ours);
    sender.join();
    ASSERT_EQ(received.result, 0);
    EXPECT_EQ(received.value(), "text");
}

TEST(SimpleXml, ReceivesAnEmptyFrameAsAnEmptyDocument) {
    SocketPair sockets;
    const Received received = receive_from(sockets, length_field(4));
    ASSERT_EQ(received.result, 0);
    EXPECT_EQ(received.document->root, nullptr);
}

TEST(SimpleXml, ParsesWhatIsReceivedBehindTheFrameToo) {
    {
        SocketPair sockets;
        const Received received = receive_from(sockets, frame("<a>x") + "</a>");
        ASSERT_EQ(received.result, 0);
        EXPECT_EQ(received.value(), "x");
    }
    SocketPair sockets;
    EXPECT_EQ(receive_from(sockets, frame("<a>x</a>") + "<").result, -2);
}

TEST(SimpleXml, LeavesTheOutputAloneWhenThePeerClosesFirst) {
    for (const std::string& bytes :
         {std::string(), std::string("\0\0", 2), length_field(50) + "<a>"}) {
        SocketPair sockets;
        write_all(sockets.peer, bytes);
        shutdown(sockets.peer, SHUT_WR);
        xmldoc* const before = reinterpret_cast<xmldoc*>(&sockets);
        xmldoc* document = before;
        EXPECT_EQ(simple_xml_proto_sock_recv(sockets.ours, &document), 0);
        EXPECT_EQ(document, before);
    }
}

TEST(SimpleXml, ReportsAReceiveThatFailsAndRetriesAnInterruptedOne) {
    SocketPair sockets;
    {
        FailingCall fault("recv", ECONNRESET);
        EXPECT_EQ(Received(sockets.ours).result, -1);
    }
    FailingCall interrupted("recv", EINTR);
    EXPECT_EQ(receive_from(sockets, frame("<a>x</a>")).result, 0);
    EXPECT_TRUE(interrupted.hit());
}

TEST(SimpleXml, ReportsTextThatDoesNotParseAndHandsOutTheDeadPointer) {
    SocketPair sockets;
    const int64_t live = live_allocations();
    const Received received = receive_from(sockets, frame("<a></b>"));
    EXPECT_EQ(received.result, -2);
    EXPECT_NE(received.document, nullptr);
    EXPECT_EQ(live_allocations(), live);
}

TEST(SimpleXml, RefusesALengthOutOfBoundsOnAPlainSocket) {
    for (const uint32_t length : {0u, 3u, 16u * 1024 * 1024 + 1, 0x80000000u, 0xffffffffu}) {
        SocketPair sockets;
        CapturedStderr err;
        const Received received = receive_from(sockets, length_field(length) + "<a></a>");
        EXPECT_EQ(received.result, -1);
        EXPECT_EQ(received.document, nullptr);
        EXPECT_EQ(err.take(),
                  "./pools/threadpool/protocols/simple_xml:simple_xml_proto_sock_recv: "
                  "frame length " +
                      std::to_string(length) + " is out of bounds (4 to 16777216)\n");
    }
}

TEST(SimpleXml, ReceivesNothingWhenMemoryIsOut) {
    CapturedStderr err;
    for (FailingAllocations round; round.next();) {
        SocketPair sockets;
        write_all(sockets.peer, frame("<a k='v'>" + std::string(5000, 'x') + "</a>"));
        xmldoc* document = nullptr;
        round.arm();
        const int result = simple_xml_proto_sock_recv(sockets.ours, &document);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        EXPECT_EQ(document == nullptr, round.hit());
        if (document) xmldoc_free(document, 1);
    }
}

// --- the read routine ----------------------------------------------------------------------------

TEST(SimpleXml, EndsTheReadingWithMinusOneWhenThePeerCloses) {
    Connection connection;
    EXPECT_EQ(connection.read_all(frame("<a>one</a>")), -1);
    EXPECT_THAT(connection.values, ElementsAre("one"));
    EXPECT_EQ(connection.proto->input_buffer.length, 0u);
}

TEST(SimpleXml, EndsTheReadingWithMinusOneWhenAReceiveFailsAndRetriesAnInterruptedOne) {
    Connection connection;
    {
        FailingCall fault("recv", ECONNRESET);
        EXPECT_EQ(connection.read(), -1);
    }
    FailingCall interrupted("recv", EINTR);
    EXPECT_EQ(connection.read_all(frame("<a>one</a>")), -1);
    EXPECT_THAT(connection.values, ElementsAre("one"));
}

TEST(SimpleXml, PrintsThatItWaitsForEachIncompleteChunk) {
    CapturedStderr err;
    ReadingConnection connection;
    const std::string bytes = frame("<a>" + std::string(93, 'x') + "</a>");
    connection.feed(bytes.substr(0, 4));  // too short for a look
    connection.feed(bytes.substr(4, 6));
    connection.feed(bytes.substr(10, 50));
    connection.feed(bytes.substr(60));
    EXPECT_TRUE(eventually([&] { return connection.count == 1; }));
    EXPECT_EQ(err.take(), "READ wait for 104 bytes so far 10\nREAD wait for 104 bytes so far 60\n");
    EXPECT_THAT(connection.values, ElementsAre(std::string(93, 'x')));
}

TEST(SimpleXml, TakesOneFrameOfEachChunk) {
    ReadingConnection connection;
    connection.feed(frame("<a>1</a>") + frame("<a>2</a>") + frame("<a>3</a>"));
    EXPECT_EQ(connection.count, 1u);
    connection.feed(frame("<a>4</a>"));
    EXPECT_EQ(connection.count, 2u);
    connection.feed(std::string("\0", 1));
    EXPECT_TRUE(eventually([&] { return connection.count == 3; }));
    shutdown(connection.sockets.peer, SHUT_WR);
    connection.join();
    EXPECT_THAT(connection.values, ElementsAre("1", "2", "3"));
    EXPECT_EQ(of_buffer(connection.proto->input_buffer), frame("<a>4</a>") + std::string("\0", 1));
}

TEST(SimpleXml, TakesAnEmptyFrameOnlyOnceMoreBytesHaveCome) {
    ReadingConnection connection;
    connection.feed(length_field(4));
    EXPECT_EQ(connection.count, 0u);
    connection.feed(frame("<a>1</a>"));
    EXPECT_TRUE(eventually([&] { return connection.count == 1; }));
    connection.feed(length_field(4));
    EXPECT_TRUE(eventually([&] { return connection.count == 2; }));
    shutdown(connection.sockets.peer, SHUT_WR);
    connection.join();
    EXPECT_THAT(connection.values, ElementsAre("-", "1"));
}

TEST(SimpleXml, SkipsAPayloadThatDoesNotParse) {
    CapturedStderr err;
    ReadingConnection connection;
    connection.feed(frame("<a>x</b>") + frame("<a>next</a>"));
    EXPECT_EQ(err.take(),
              "failed parse xml -4 !!!!!!!!!!!!!!!!!\n-------------------\n<a>x</b>\n-----\n");
    connection.feed(frame("<a>last</a>"));
    EXPECT_TRUE(eventually([&] { return connection.count == 1; }));
    shutdown(connection.sockets.peer, SHUT_WR);
    connection.join();
    EXPECT_THAT(connection.values, ElementsAre("next"));
    EXPECT_EQ(connection.result, -1);
}

TEST(SimpleXml, EndsTheReadingWhenTheCallbackDoesNotAcceptAndLeavesItTheNodes) {
    for (const int result : {1, -1, 7, -5}) {
        Connection connection;
        xmldoc kept{};
        connection.on_document = [&](xmldoc* document) {
            kept = *document;
            return result;
        };
        CapturedStderr err;
        EXPECT_EQ(connection.read_all(frame("<a>one</a>")), result < 1 ? -1 : 0);
        EXPECT_EQ(err.take(), "ERROR processing_xml : " + std::to_string(result) + "\n");
        EXPECT_STREQ(kept.root->value, "one");
        xmldoc_free(&kept, 0);
    }
}

TEST(SimpleXml, FreesTheDocumentThatTheCallbackAccepted) {
    Connection connection;
    const int64_t live = live_allocations();
    connection.on_document = [&](xmldoc*) {
        EXPECT_GT(live_allocations(), live);
        return 0;
    };
    connection.read_all(frame("<?xml v='1'?><a k='v'><b>one</b></a>"));
    EXPECT_EQ(connection.count, 1u);
    EXPECT_EQ(live_allocations(), live);
}

TEST(SimpleXml, EndsAConnectionWhoseLengthIsOutOfBounds) {
    for (const uint32_t length : {0u, 3u, 16u * 1024 * 1024 + 1, 0x80000000u, 0xffffffffu}) {
        Connection connection;
        const int64_t live = live_allocations();
        CapturedStderr err;
        EXPECT_EQ(connection.read_all(length_field(length) + "<a></a>"), -1);
        EXPECT_EQ(err.take(),
                  "./pools/threadpool/protocols/simple_xml:simple_xml_routine_node_pf_read: frame "
                  "length " +
                      std::to_string(length) + " is out of bounds (4 to 16777216)\n");
        EXPECT_EQ(connection.count, 0u);
        EXPECT_EQ(live_allocations(), live);
    }
}

TEST(SimpleXml, TakesAFrameOfTheGreatestLength) {
    const std::string value(SIMPLE_XML_MAX_FRAME - 4 - 7, 'x');
    Connection connection;
    CapturedStderr err;
    std::thread peer([&] {
        write_all(connection.sockets.peer, frame("<a>" + value + "</a>"));
        shutdown(connection.sockets.peer, SHUT_WR);
    });
    EXPECT_EQ(connection.read(), -1);
    peer.join();
    ASSERT_EQ(connection.count, 1u);
    EXPECT_TRUE(connection.values[0] == value);
    EXPECT_EQ(err.take().rfind("READ wait for 16777216 bytes so far ", 0), 0u);
}

TEST(SimpleXml, EndsAConnectionWhoseBacklogGoesBeyondTheBound) {
    const std::string message = frame("<a>" + std::string(100, 'x') + "</a>");
    std::string batch;
    while (batch.size() < (1u << 20)) batch += message;
    Connection connection;
    CapturedStderr err;
    std::thread peer([&] {
        signal(SIGPIPE, SIG_IGN);
        for (int i = 0; i < 20; ++i) write_all(connection.sockets.peer, batch);
    });
    EXPECT_EQ(connection.read(), -1);
    EXPECT_EQ(err.take(),
              "./pools/threadpool/protocols/simple_xml:simple_xml_routine_node_pf_read: more than "
              "16778816 bytes wait to be read\n");
    EXPECT_LE(connection.proto->input_buffer.length, 16778816u);
    EXPECT_GT(connection.proto->input_buffer.length, 16778816u - 1600);
    EXPECT_EQ(of_buffer(connection.proto->input_buffer).substr(0, message.size()), message);
    shutdown(connection.sockets.ours, SHUT_RDWR);
    peer.join();
    signal(SIGPIPE, SIG_DFL);
}

TEST(SimpleXml, EndsAConnectionWhoseBytesNoMemoryIsLeftFor) {
    Connection connection;
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(connection.read_all(frame("<a>" + std::string(5000, 'x') + "</a>")), -1);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(connection.count, 0u);
}

TEST(SimpleXml, SkipsAFrameThatNoMemoryIsLeftToParse) {
    CapturedStderr err;
    for (FailingAllocations round; round.next();) {
        Connection connection;
        write_all(connection.sockets.peer, frame("<a k='v'>x</a>"));
        shutdown(connection.sockets.peer, SHUT_WR);
        connection.values.reserve(1);
        round.arm();
        EXPECT_EQ(connection.read(), -1);
        round.disarm();
        EXPECT_EQ(connection.count, round.hit() ? 0u : 1u);
        if (round.hit()) {
            EXPECT_THAT(err.take(), HasSubstr("failed parse xml -32 !!!"));
        }
    }
}

TEST(SimpleXml, ReadsOnWhenTheCallbackResetsTheInput) {
    ReadingConnection connection;
    connection.on_document = [&](xmldoc*) {
        net_buffer_reset(&connection.proto->input_buffer);
        return 0;
    };
    connection.feed(frame("<a>1</a>") + frame("<a>22222222222222222</a>"));
    connection.feed(frame("<a>3</a>"));
    EXPECT_TRUE(eventually([&] { return connection.count == 2; }));
    EXPECT_THAT(connection.values, ElementsAre("1", "3"));
}

// --- the write routine ---------------------------------------------------------------------------

TEST(SimpleXml, SendsWhatIsQueuedInPieces) {
    Connection connection;
    const Document document = element("a", std::string(4000, 'x'));
    const std::string expected = frame("<a>" + std::string(4000, 'x') + "</a>");
    simple_xml_proto_netbuff_send(&connection.proto->output_buffer, document.get());
    simple_xml_proto_netbuff_send(&connection.proto->output_buffer, document.get());
    const uint64_t before = calls_of("send");
    EXPECT_EQ(connection.write(), 0);
    EXPECT_EQ(calls_of("send") - before, 6u);  // 8022 bytes
    EXPECT_EQ(connection.proto->output_buffer.length, 0u);
    EXPECT_EQ(read_ready(connection.sockets.peer), expected + expected);
    EXPECT_EQ(connection.write(), 0);
    EXPECT_EQ(calls_of("send") - before, 6u);
}

TEST(SimpleXml, GoesOnWhereAShortSendOfThePoolEnded) {
    Connection connection;
    net_buffer_add(&connection.proto->output_buffer, "0123456789", 10);
    FakedCall short_send("send", 3);
    EXPECT_EQ(connection.write(), 0);
    EXPECT_EQ(read_ready(connection.sockets.peer), "3456789");
    EXPECT_EQ(connection.proto->output_buffer.length, 0u);
}

TEST(SimpleXml, KeepsWhatASendThatFailsDidNotSend) {
    const std::string bytes(5000, 'x');
    for (const bool fails : {true, false}) {
        Connection connection;
        net_buffer_add(&connection.proto->output_buffer, bytes.data(), 5000);
        if (fails) {
            FailingCall fault("send", ECONNRESET, 1);
            EXPECT_EQ(connection.write(), -1);
        } else {
            FakedCall nothing("send", 0, 1);
            EXPECT_EQ(connection.write(), 0);
        }
        EXPECT_EQ(connection.proto->output_buffer.length, 5000u - 1460);
        FailingCall interrupted("send", EINTR, 1);
        EXPECT_EQ(connection.write(), 0);
        EXPECT_EQ(read_ready(connection.sockets.peer), bytes);
    }
}

TEST(SimpleXml, DoesNotHoldTheOutputWhileASendBlocks) {
    Connection connection;
    std::string bytes(1 << 20, 'x');
    net_buffer_add(&connection.proto->output_buffer, bytes.data(), 1 << 20);
    std::thread writer([&] { EXPECT_EQ(connection.write(), 0); });
    // Nobody reads: the writer gets stuck in a send, and stays there until the peer reads.
    uint64_t calls = 0;
    EXPECT_TRUE(eventually([&] {
        const uint64_t before = std::exchange(calls, calls_of("send"));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        return calls > 1 && before == calls && calls == calls_of("send");
    }));
    const Document document = element("a", "b");
    EXPECT_EQ(simple_xml_proto_netbuff_send(&connection.proto->output_buffer, document.get()), 0);
    EXPECT_TRUE(read_exactly(connection.sockets.peer, bytes.size()) == bytes);
    EXPECT_EQ(read_exactly(connection.sockets.peer, 12), frame("<a>b</a>"));
    writer.join();
}

TEST(SimpleXml, SurvivesAHostThatResetsTheOutput) {
    Connection connection;
    const std::string bytes(1 << 20, 'x');
    net_buffer_add(&connection.proto->output_buffer, bytes.data(), 1 << 20);
    std::atomic<int> result{99};
    std::thread writer([&] { result = connection.write(); });
    read_exactly(connection.sockets.peer, 100'000);
    net_buffer_reset(&connection.proto->output_buffer);
    EXPECT_TRUE(eventually([&] {
        read_ready(connection.sockets.peer);
        return result != 99;
    }));
    writer.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(connection.proto->output_buffer.length, 0u);
}

TEST(SimpleXml, QueuesAFrameWholeOrNotAtAll) {
    const Document document = element("a", std::string(9000, 'x'));
    CapturedStderr err;
    // Lengths at which the room in hand ends behind, inside and in front of the length field.
    for (const unsigned before : {0u, 2040u, 2043u, 2044u, 2045u, 2047u})
        for (FailingAllocations round; round.next();) {
            net_buffer* sink = net_buffer_create(1);
            net_buffer_add(sink, std::string(before, 'q').data(), before);
            round.arm();
            const int result = simple_xml_proto_netbuff_send(sink, document.get());
            round.disarm();
            EXPECT_EQ(result, round.hit() ? -1 : 0);
            EXPECT_EQ(sink->length, before + (round.hit() ? 0 : 9011));
            EXPECT_EQ(pthread_mutex_trylock(&sink->mutex), 0);
            pthread_mutex_unlock(&sink->mutex);
            net_buffer_free(sink, 1);
        }
}

// --- on the pool ---------------------------------------------------------------------------------

namespace {

// A server's side on a started pool: answers every document with its own root's value, doubled.
struct Server {
    netthreadpool* pool = netthreadpool_create();
    std::atomic<int> released{0};

    struct Session {
        Server* server;
        simple_xml_proto* proto;
    };

    Server() { EXPECT_EQ(netthreadpool_start(pool), 0); }
    ~Server() { netthreadpool_free(pool, 1); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    static int answer(void* context, xmldoc* document) {
        auto& session = *static_cast<Session*>(context);
        const std::string value = document->root->value;
        return simple_xml_proto_send(session.proto, element("re", value + value).get());
    }
    static void release(void* user_pointer) {
        auto* proto = static_cast<simple_xml_proto*>(user_pointer);
        auto* session = static_cast<Session*>(proto->user_context);
        shutdown(proto->socket, SHUT_RDWR);
        close(proto->socket);
        simple_xml_proto_destroy(proto);
        free(proto);
        ++session->server->released;
        delete session;
    }
    // Takes the socket over.
    simple_xml_proto* serve(int socket) {
        netthreadpool_node* node = netthreadpool_get_node(pool);
        auto* session = new Session{this, nullptr};
        session->proto = simple_xml_proto_create(node, session, socket, answer);
        node->release_routine = release;
        EXPECT_EQ(netthreadpool_invite_read(node), 0);
        return session->proto;
    }
};

}  // namespace

TEST(SimpleXml, AnswersEachRequestOfAClient) {
    const int descriptors = descriptor_count();
    {
        Server server;
        SocketPair sockets;
        server.serve(std::exchange(sockets.ours, -1));
        for (int i = 0; i < 2000; ++i) {
            const std::string value = std::to_string(i);
            ASSERT_EQ(simple_xml_proto_sock_send(sockets.peer, element("q", value).get()), 0);
            const Received received(sockets.peer);
            ASSERT_EQ(received.result, 0);
            ASSERT_EQ(received.value(), value + value);
        }
        sockets.close_peer();
        EXPECT_TRUE(eventually([&] { return server.released == 1; }));
    }
    EXPECT_EQ(descriptor_count(), descriptors);
}

TEST(SimpleXml, LosesNoFrameOfManySenders) {
    constexpr int kSenders = 4, kFrames = 2000;
    Server server;
    SocketPair sockets;
    simple_xml_proto* proto = server.serve(std::exchange(sockets.ours, -1));
    std::vector<std::thread> senders;
    for (int t = 0; t < kSenders; ++t)
        senders.emplace_back([=] {
            const Document document = element("a", "from " + std::to_string(t));
            for (int i = 0; i < kFrames; ++i)
                EXPECT_EQ(simple_xml_proto_send(proto, document.get()), 0);
        });
    std::vector<int> frames(kSenders);
    for (int i = 0; i < kSenders * kFrames; ++i) {
        const std::string received = read_exactly(sockets.peer, 4 + 13);
        ASSERT_EQ(received.substr(0, 12), length_field(17) + "<a>from ");
        ASSERT_THAT(received, EndsWith("</a>"));
        ++frames[static_cast<size_t>(received[12] - '0')];
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_THAT(frames, ElementsAre(kFrames, kFrames, kFrames, kFrames));
    sockets.close_peer();
    EXPECT_TRUE(eventually([&] { return server.released == 1; }));
}

TEST(SimpleXml, OutlivesAPeerThatLeavesWhileAnswersAreSent) {
    Server server;
    for (int i = 0; i < 50; ++i) {
        SocketPair sockets;
        server.serve(std::exchange(sockets.ours, -1));
        for (int k = 0; k < 5; ++k)
            write_all(sockets.peer, frame("<a>" + std::string(1000, 'x') + "</a>"));
        sockets.close_peer();
    }
    EXPECT_TRUE(eventually([&] { return server.released == 50; }));
}

TEST(SimpleXml, KeepsAFrameWhoseInvitationFailedForTheNextOne) {
    Server server;
    SocketPair sockets;
    simple_xml_proto* proto = server.serve(std::exchange(sockets.ours, -1));
    netthreadpool_stop(server.pool);
    {
        FailingCall fault("pthread_create", EAGAIN);
        EXPECT_EQ(simple_xml_proto_send(proto, element("a", "1").get()), 0);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_THAT(read_ready(sockets.peer), IsEmpty());
    EXPECT_EQ(simple_xml_proto_send(proto, element("a", "2").get()), 0);
    EXPECT_EQ(read_exactly(sockets.peer, 24), frame("<a>1</a>") + frame("<a>2</a>"));
    sockets.close_peer();
    EXPECT_TRUE(eventually([&] { return server.released == 1; }));
}

TEST(SimpleXml, QueuesAndInvitesNobodyOnceTheConnectionWasReleased) {
    netthreadpool* pool = netthreadpool_create();
    netthreadpool_start(pool);
    SocketPair sockets;
    netthreadpool_node* node = netthreadpool_get_node(pool);
    simple_xml_proto* proto = simple_xml_proto_create(node, nullptr, sockets.ours, Server::answer);
    netthreadpool_invite_read(node);
    shutdown(sockets.peer, SHUT_WR);
    const auto is_free = [&] {
        pthread_mutex_lock(&pool->node_lock);
        const bool free = pool->free_nodes[0] == node;
        pthread_mutex_unlock(&pool->node_lock);
        return free;
    };
    EXPECT_TRUE(eventually(is_free));
    EXPECT_EQ(simple_xml_proto_send(proto, element("a", "late").get()), 0);
    EXPECT_EQ(proto->output_buffer.length, 15u);
    EXPECT_EQ(node->invitations, 0u);
    netthreadpool_free(pool, 1);
    EXPECT_THAT(read_ready(sockets.peer), IsEmpty());
    simple_xml_proto_destroy(proto);
    free(proto);
}

// --- fatal ---------------------------------------------------------------------------------------

namespace {

void expect_fatal_unlock(const char* function, uint32_t skip,
                         const std::function<void(Connection&)>& work) {
    const ChildResult child = run_in_child([&] {
        Connection connection;
        write_all(connection.sockets.peer, frame("<a></a>"));
        net_buffer_add(&connection.proto->output_buffer, "xyz", 3);
        FailingCall fault("pthread_mutex_unlock", EPERM, skip, true);
        work(connection);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    const std::string before = std::string("./pools/threadpool/protocols/simple_xml:") + function +
                               ": pthread_mutex_unlock(): ";
    EXPECT_EQ(child.err.substr(0, before.size()), before);
    EXPECT_THAT(child.err, EndsWith(" (1)\n"));
}

}  // namespace

TEST(SimpleXmlDeath, EndsTheProcessWhenAMutexCannotBeReleased) {
    expect_fatal_unlock("simple_xml_routine_node_pf_read", 1,
                        [](Connection& connection) { connection.read(); });
    expect_fatal_unlock("simple_xml_routine_node_pf_write", 0,
                        [](Connection& connection) { connection.write(); });
    expect_fatal_unlock("simple_xml_proto_create", 0, [](Connection& connection) {
        simple_xml_proto_create(connection.node, nullptr, 0, Connection::handle);
    });
}
