// Both frame readers, fed by a peer that sends what it likes: the read routine of a connection and
// the plain-socket receive.
//
//     byte 0  odd: the plain-socket receive
//     byte 1  bytes in a packet, from 1
//     then    what is sent

#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

namespace {

// Keeps packets apart, so that each is a chunk of its own.
struct SocketPair {
    int ends[2];
    SocketPair() {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0) abort();
    }
    ~SocketPair() {
        close(ends[0]);
        close(ends[1]);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
};

void feed(int socket, const uint8_t* bytes, size_t size, size_t packet) {
    while (size > 0) {
        const size_t n = std::min(size, packet);
        if (send(socket, bytes, n, MSG_DONTWAIT) < 0) break;  // the queue is full: the rest is lost
        bytes += n;
        size -= n;
    }
    shutdown(socket, SHUT_WR);
}

// Refuses documents without a root, with results of either sign.
int judge(void* context, xmldoc* document) {
    if (document->root) return 0;
    auto& refused = *static_cast<int*>(context);
    if (++refused % 4 != 0) return 0;
    xmldoc_free(document, 0);
    return refused % 8 == 0 ? 1 : -1;
}

void run_routine(int socket) {
    netthreadpool* const pool = netthreadpool_create();
    int refused = 0;
    simple_xml_proto* const connection =
        simple_xml_proto_create(netthreadpool_get_node(pool), &refused, socket, judge);
    const int result = simple_xml_routine_node_pf_read(connection);
    if (result != 0 && result != -1) abort();
    simple_xml_proto_destroy(connection);
    free(connection);
    netthreadpool_free(pool, 1);
}

void run_receive(int socket) {
    xmldoc* document = nullptr;
    switch (simple_xml_proto_sock_recv(socket, &document)) {
        case 0:
            xmldoc_free(document, 1);
            break;
        case -1:
            if (document) abort();
            break;
        case -2:
            break;
        default:
            abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "w");  // the library's lines; the fuzzer keeps its own stream
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    SocketPair sockets;
    feed(sockets.ends[1], data + 2, size - 2, size_t{data[1]} + 1);
    if (data[0] & 1)
        run_receive(sockets.ends[0]);
    else
        run_routine(sockets.ends[0]);
    return 0;
}
