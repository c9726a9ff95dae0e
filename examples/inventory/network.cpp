#include "network.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace inventory {
namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

[[noreturn]] void fail(const std::string& host, uint16_t port, const char* why) {
    throw std::runtime_error(host + " port " + std::to_string(port) + ": " + why);
}

Addresses look_up(const std::string& host, uint16_t port, int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (result != 0) fail(host, port, gai_strerror(result));
    return {found, freeaddrinfo};
}

}  // namespace

Descriptor bind_to(const std::string& address, uint16_t port) {
    const Addresses found = look_up(address, port, AI_NUMERICHOST);
    Descriptor bound(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!bound || setsockopt(bound.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(bound.get(), found->ai_addr, found->ai_addrlen) != 0)
        fail(address, port, strerror(errno));
    return bound;
}

Descriptor listen_on(const std::string& address, uint16_t port) {
    Descriptor listener = bind_to(address, port);
    if (listen(listener.get(), SOMAXCONN) != 0) fail(address, port, strerror(errno));
    return listener;
}

std::string bound_address(const Descriptor& socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char host[NI_MAXHOST], port[NI_MAXSERV];
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (getsockname(socket.get(), generic, &length) != 0 ||
        getnameinfo(generic, length, host, sizeof host, port, sizeof port,
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        throw std::runtime_error("cannot tell the socket's address");
    const bool v6 = address.ss_family == AF_INET6;
    return (v6 ? "[" : "") + std::string(host) + (v6 ? "]:" : ":") + port;
}

Descriptor connect_to(const std::string& host, uint16_t port, unsigned seconds) {
    const Addresses found = look_up(host, port, 0);
    int error = 0;
    for (const addrinfo* at = found.get(); at; at = at->ai_next) {
        Descriptor connection(socket(at->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connection) {
            prepare(connection, seconds);
            if (connect(connection.get(), at->ai_addr, at->ai_addrlen) == 0) return connection;
        }
        error = errno == EINPROGRESS ? ETIMEDOUT : errno;  // what a bounded connect() says
    }
    fail(host, port, strerror(error));
}

void prepare(const Descriptor& socket, unsigned seconds) {
    const int on = 1;
    const timeval limit{static_cast<time_t>(seconds), 0};
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

}  // namespace inventory
