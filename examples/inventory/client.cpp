// A client of the simple XML protocol needs no pool: it sends one document on a plain socket and
// receives one.

#include "client.h"

#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include "network.h"

#include <cerrno>
#include <cstring>

namespace inventory {
namespace {

// Receives one document.
Document receive(const Descriptor& connection) {
    xmldoc* received = nullptr;
    errno = 0;
    switch (simple_xml_proto_sock_recv(connection.get(), &received)) {
        case 0:
            if (!received) throw std::runtime_error("the server closed the connection");
            return Document(received);
        case -2:
            throw std::runtime_error("the server's answer is not XML");
        default:
            throw std::runtime_error(errno == EAGAIN ? "the server does not answer"
                                                     : "cannot receive the server's answer");
    }
}

}  // namespace

std::vector<Host> ask(const std::string& host, uint16_t port, unsigned seconds, xmldoc& request) {
    const Descriptor connection = connect_to(host, port, seconds);
    if (simple_xml_proto_sock_send(connection.get(), &request) != 0)
        throw std::runtime_error(std::string("cannot send: ") + strerror(errno));

    const Document answer = receive(connection);
    if (is_message(*answer, "hosts")) return answered_hosts(*answer);
    if (is_message(*answer, "error"))
        throw std::runtime_error(text_of(answer->root, "message", kMaxMessage));
    throw std::runtime_error("the server's answer is of no known kind");
}

}  // namespace inventory
