// Real sockets on the loopback interface, for tests that are the other side of a connection.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zt_test {

// Owns a descriptor.
class Fd {
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd() { close(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void close() {
        if (fd_ >= 0) ::close(release());
    }
    // Closes with a reset instead of an orderly end.
    void reset() {
        const linger now{1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        close();
    }

  private:
    int fd_;
};

inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline uint16_t local_port(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) abort();
    return ntohs(address.sin_port);
}

// A socket that listens on 127.0.0.1, at a port that the system chooses or at this one.
class Server {
  public:
    explicit Server(uint16_t port = 0, int backlog = 1024) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const int on = 1;
        setsockopt(fd_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        const sockaddr_in address = loopback(port);
        if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd_.get(), backlog) != 0)
            abort();
        port_ = local_port(fd_.get());
    }

    uint16_t port() const { return port_; }
    Fd accept() { return Fd(::accept(fd_.get(), nullptr, nullptr)); }
    void close() { fd_.close(); }
    // Lets a blocked accept() fail.
    void stop() { shutdown(fd_.get(), SHUT_RDWR); }

  private:
    Fd fd_;
    uint16_t port_ = 0;
};

// A port that nobody uses at the moment.
inline uint16_t free_port() { return Server().port(); }

// Connected to 127.0.0.1:port, or empty.
inline Fd connect_to(uint16_t port) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fd.close();
    return fd;
}

inline bool send_all(int fd, const void* bytes, size_t size) {
    const char* from = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t sent = send(fd, from, size, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        from += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}
inline bool send_all(int fd, const std::string& text) {
    return send_all(fd, text.data(), text.size());
}

// Exactly `size` bytes, or fewer when the connection ends before.
inline std::string receive(int fd, size_t size) {
    std::string text(size, '\0');
    size_t have = 0;
    while (have < size) {
        const ssize_t got = recv(fd, text.data() + have, size - have, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        have += static_cast<size_t>(got);
    }
    text.resize(have);
    return text;
}

// True once the peer has ended the connection, orderly or not, with nothing left to read.
inline bool ended(int fd) {
    char byte;
    return recv(fd, &byte, 1, 0) <= 0;
}

// Raises the limit of descriptors as far as it goes; returns it.
inline size_t raise_descriptor_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

}  // namespace zt_test
