// Where a server of this benchmark listens: a loopback port that the system chooses and that the
// server prints, so that a driver can start it without knowing a free one.
#ifndef ZTLIB_BENCH_LOAD_LISTENER_H
#define ZTLIB_BENCH_LOAD_LISTENER_H

#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace load {

constexpr int kBacklog = 1024;

[[noreturn]] inline void give_up(const char* step) {
    perror(step);
    exit(1);
}

inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

// A listening socket, its port printed to standard output as a line of its own.
inline int listen_and_announce() {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0) give_up("socket");
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(listener, generic, length) != 0) give_up("bind");
    if (listen(listener, kBacklog) != 0) give_up("listen");
    if (getsockname(listener, generic, &length) != 0) give_up("getsockname");
    printf("%u\n", ntohs(address.sin_port));
    fflush(stdout);
    return listener;
}

inline void send_without_delay(int socket) {
    const int on = 1;
    if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0) {
        give_up("setsockopt(TCP_NODELAY)");
    }
}

// The next client's socket. Never fails: a server that cannot accept has no job left.
inline int accept_client(int listener) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) give_up("accept");
    send_without_delay(client);
    return client;
}

}  // namespace load

#endif
