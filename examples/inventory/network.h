// TCP sockets for all programs. Failures throw std::runtime_error with a line for the user, such
// as "127.0.0.1 port 7420: Connection refused".
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <unistd.h>

namespace inventory {

// An open descriptor.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

// A socket bound to a numeric address; port 0 lets the system choose one. It does not block.
Descriptor bind_to(const std::string& address, uint16_t port);

// Such a socket that listens.
Descriptor listen_on(const std::string& address, uint16_t port);

// The address and port that a socket is bound to: "127.0.0.1:7420", "[::1]:7420".
std::string bound_address(const Descriptor& socket);

// A connection to a host given by name or address. `seconds` bound each wait on it, the one for the
// connection included.
Descriptor connect_to(const std::string& host, uint16_t port, unsigned seconds);

// Makes a connected socket send small pieces at once, as frames go out in several, and give up a
// receive or a send after `seconds`.
void prepare(const Descriptor& socket, unsigned seconds);

}  // namespace inventory
